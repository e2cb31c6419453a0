// The forwarding plane's side of the module channel (docs/fp-channel.md):
// an AF_UNIX SOCK_SEQPACKET listener, module registration, packet messages in
// both directions, and the answered requests (DHCP trap, IP source guard,
// MAC port lookup).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lib/wire.h"
#include "platform/hal_msg.h"
#include "sim/sim_frame.h"

struct thread;
struct thread_master;
class sim_switch;
struct sim_model;

struct sim_fpchan_stats {
    std::uint64_t connects, disconnects, registrations;
    std::uint64_t rx_msgs, rx_bad;       // bad: framing, short payloads, unknown types
    std::uint64_t requests, pkts_in;
    std::uint64_t pkts_out, pkts_out_drop;  // trapped frames to the module; dropped (busy, gone)
    std::uint64_t refused_conns;         // over the connection cap
};

class sim_fpchan {
public:
    sim_fpchan(thread_master *tm, sim_model &m, sim_switch &sw);
    ~sim_fpchan();
    sim_fpchan(const sim_fpchan &) = delete;
    sim_fpchan &operator=(const sim_fpchan &) = delete;

    bool start(const std::string &path);
    void stop();

    // Delivers a trapped frame to the module registered last; false when
    // there is none or its socket is full.
    bool deliver(const hal_msg_pkt_t &p, const frame_info &fi);

    // Handles one datagram from a module and returns the answer to send
    // (empty: none). Exposed for tests: no socket needed.
    std::vector<std::uint8_t> handle(bytes_view dgram, bool &registered, std::uint32_t &module);

    const sim_fpchan_stats &stats() const { return stats_; }
    const std::string &path() const { return path_; }
    int connections() const;
    // Module number of the registered connection, 0 when none.
    std::uint32_t module() const;

    struct conn;

private:
    friend struct sim_fpchan_tasks;
    void accept_one();
    void read_conn(conn &c);
    void drop_conn(conn *c);

    thread_master *tm_;
    sim_model &m_;
    sim_switch &sw_;
    std::string path_;
    int listen_fd_ = -1;
    thread *t_accept_ = nullptr;
    std::vector<std::unique_ptr<conn>> conns_;
    sim_fpchan_stats stats_{};
};

// Builds the packet message delivered to a module (1680 bytes), the
// informative layer-2 summary filled from fi.
bool sim_pkt_msg_build(bytes_span msg, const hal_msg_pkt_t &p, const frame_info &fi);
