// Port I/O: one AF_PACKET socket per wired port (promiscuous, VLAN tags
// rebuilt from PACKET_AUXDATA) and one tap device per routed VLAN interface.
// Interfaces that are missing or vanish are retried every second.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "devlib/devmgr_proto.h"
#include "lib/wire.h"
#include "sim/sim_model.h"

struct thread;
struct thread_master;
class sim_switch;

class sim_portio {
public:
    sim_portio(thread_master *tm, sim_model &m, sim_switch &sw);
    ~sim_portio();
    sim_portio(const sim_portio &) = delete;
    sim_portio &operator=(const sim_portio &) = delete;

    // Opens every wired port and creates every VLAN interface.
    void start();
    void stop();

    bool tx_port(const sim_port &p, bytes_view frame);
    bool tx_vlanif(const sim_vlanif &v, bytes_view frame);
    // Ports added, re-added or removed by device events.
    void on_event(const devmgr_msg_t &m);

    // "open", "waiting" (interface missing or failed) or "none" (not wired).
    const char *port_state(std::uint32_t ifindex) const;
    const char *vlanif_state(std::uint16_t vid) const;

    struct endpoint;

private:
    friend struct sim_portio_tasks;
    void open_port(std::uint32_t ifindex);
    void close_port(std::uint32_t ifindex);
    void open_tap(std::uint16_t vid);
    bool try_open(endpoint &e);
    void fail(endpoint &e, const char *what, int err);
    void read_port(endpoint &e);
    void read_tap(endpoint &e);

    thread_master *tm_;
    sim_model &m_;
    sim_switch &sw_;
    std::map<std::uint32_t, std::unique_ptr<endpoint>> ports_;
    std::map<std::uint16_t, std::unique_ptr<endpoint>> taps_;
};
