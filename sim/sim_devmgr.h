// The device manager's server side (docs/devmgr-protocol.md): the sync port
// answers requests, every async connection gets the replay and then every
// notification; after a restart the manager reaches its clients again on the
// listening ports they announced.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "devlib/devmgr_proto.h"

struct thread;
struct thread_master;
class sim_device;

struct sim_devmgr_stats {
    std::uint64_t sync_conns, async_conns, replays, requests, notifications;
    std::uint64_t broken;      // streams closed for bad framing or payloads
    std::uint64_t overflows;   // clients dropped for not reading
};

class sim_devmgr {
public:
    sim_devmgr(thread_master *tm, sim_device &dev);
    ~sim_devmgr();
    sim_devmgr(const sim_devmgr &) = delete;
    sim_devmgr &operator=(const sim_devmgr &) = delete;

    // Listens on 127.0.0.1; then connects to client_port (0: none) in case a
    // client is already waiting there for a restarted manager.
    bool start(std::uint16_t sync_port, std::uint16_t async_port, std::uint16_t client_port);
    void stop();
    // Drops every connection and listener and starts again, as a restarted
    // manager would: clients that said hello are reconnected and replayed.
    bool restart();

    // A notification for every async client (the device's listener).
    void notify(const devmgr_msg_t &m);

    const sim_devmgr_stats &stats() const { return stats_; }
    int sync_clients() const;
    int async_clients() const;
    std::uint16_t sync_port() const { return sync_port_; }
    std::uint16_t async_port() const { return async_port_; }
    // What the last HELLO said, and the last recovery result reported.
    const devmgr_hello_t &last_hello() const { return hello_; }
    const devmgr_recovery_t &last_recovery() const { return recovery_; }
    const devmgr_prio_t &last_prio() const { return prio_; }

    struct conn;

private:
    friend struct sim_devmgr_tasks;
    void accept(bool async);
    void add_async(int fd);
    void read_conn(conn &c);
    // Both return false when the connection was dropped (c is gone).
    bool serve(conn &c, const devmgr_msg_t &m);
    bool send(conn &c, const std::vector<std::uint8_t> &bytes);
    void flush_all();
    void drop(conn *c);

    thread_master *tm_;
    sim_device &dev_;
    int sync_listen_ = -1, async_listen_ = -1;
    thread *t_sync_ = nullptr, *t_async_ = nullptr, *t_flush_ = nullptr;
    std::uint16_t sync_port_ = 0, async_port_ = 0, client_port_ = 0;
    std::vector<std::unique_ptr<conn>> conns_;
    std::vector<std::uint16_t> hello_ports_;  // every listening port a client announced
    devmgr_hello_t hello_{};
    devmgr_recovery_t recovery_{};
    devmgr_prio_t prio_{};
    sim_devmgr_stats stats_{};
};
