// Control socket: one command line per connection (UNIX stream), answered
// with key=value records, one per line, and a last line "ok" or "error: why".
// Shows the state and raises device events. Commands: docs/oltsim.md.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct thread;
struct thread_master;
class sim_device;
class sim_switch;
class sim_portio;
class sim_fpchan;
class sim_devmgr;

struct sim_ctl_ctx {
    sim_device *dev = nullptr;
    sim_switch *sw = nullptr;
    sim_portio *io = nullptr;      // optional
    sim_fpchan *fp = nullptr;      // optional
    sim_devmgr *dm = nullptr;      // optional
    std::function<std::uint64_t()> now_ms;
};

// Runs one command line. Returns true with the records in out, or false
// with the reason in out.
bool sim_ctl_exec(sim_ctl_ctx &ctx, const std::string &line, std::string &out);

class sim_ctl {
public:
    sim_ctl(thread_master *tm, sim_ctl_ctx ctx);
    ~sim_ctl();
    sim_ctl(const sim_ctl &) = delete;
    sim_ctl &operator=(const sim_ctl &) = delete;

    bool start(const std::string &path);
    void stop();

    struct conn;

private:
    friend struct sim_ctl_tasks;
    void accept_one();
    void read_conn(conn &c);
    void flush(conn &c);
    void drop(conn *c);

    thread_master *tm_;
    sim_ctl_ctx ctx_;
    std::string path_;
    int listen_fd_ = -1;
    thread *t_accept_ = nullptr;
    std::vector<std::unique_ptr<conn>> conns_;
};
