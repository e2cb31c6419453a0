// The switching pipeline of the software forwarding plane: ingress
// classification, DHCP trap, IP source guard, MAC learning, forwarding and
// egress tagging; and the frames the module sends out. I/O is behind
// callbacks so the pipeline runs the same against sockets and in tests.
#pragma once

#include <cstdint>
#include <functional>

#include "devlib/devmgr_proto.h"
#include "platform/hal_msg.h"
#include "sim/sim_frame.h"
#include "sim/sim_mactable.h"
#include "sim/sim_model.h"
#include "sim/sim_rules.h"

struct sim_switch_io {
    // Sends a frame on the port's Linux interface; false when it could not.
    std::function<bool(const sim_port &, bytes_view)> tx_port;
    // Writes a frame to a VLAN interface's tap.
    std::function<bool(const sim_vlanif &, bytes_view)> tx_vlanif;
    // Hands a trapped frame to the registered module; false when none took it.
    std::function<bool(const hal_msg_pkt_t &, const frame_info &)> to_module;
    std::function<std::uint64_t()> now_ms;
};

struct sim_switch_stats {
    std::uint64_t rx_unknown_port;   // a frame for a port the model does not know
    std::uint64_t trapped;           // delivered to the module
    std::uint64_t trap_undelivered;  // trapped, but no module took it
    std::uint64_t learn_full;        // new addresses not learnt: table full
    std::uint64_t mac_moves;
    std::uint64_t flooded;
    std::uint64_t filtered;          // destination behind the port it came from
    std::uint64_t vlanif_rx, vlanif_tx, vlanif_drop;
    std::uint64_t mod_frames;        // packet messages from the module
    std::uint64_t mod_sent;          // frames sent for them
    std::uint64_t mod_bad;           // malformed (length, VLAN)
    std::uint64_t mod_unknown_port;
    std::uint64_t mod_drop;          // nowhere to send (down, not a member)
};

class sim_switch {
public:
    sim_switch(sim_model &m, sim_switch_io io);

    sim_mactable &macs() { return macs_; }
    const sim_mactable &macs() const { return macs_; }
    sim_traps &traps() { return traps_; }
    const sim_traps &traps() const { return traps_; }
    sim_guard &guard() { return guard_; }
    const sim_guard &guard() const { return guard_; }
    const sim_switch_stats &stats() const { return stats_; }

    // A frame received on a port's Linux interface, tags as on the wire.
    void rx_port(std::uint32_t ifindex, bytes_view frame);
    // A frame the kernel sent out of a VLAN interface.
    void rx_vlanif(std::uint16_t vid, bytes_view frame);
    // A packet message from the module: 0, or TAVO_PARAM / TAVO_PORT when it
    // could not be sent anywhere for a reason of its own.
    int from_module(const hal_msg_pkt_t &p);
    // Device events: forget addresses behind ports that stop forwarding, and
    // everything of a destroyed VLAN.
    void on_event(const devmgr_msg_t &m);
    // Ageing; call about once a second.
    void tick();

private:
    std::uint64_t now() const { return io_.now_ms ? io_.now_ms() : 0; }
    std::uint32_t bport_of(const sim_port &p) const;
    bool trunk_forwarding(const sim_port &p) const;
    const sim_port *trunk_member(const sim_port &trunk, bytes_view frame) const;
    // Frames switched in vid: untagged in f, tagged per port on the way out.
    void forward(std::uint16_t vid, const frame_buf &f, std::uint32_t from_bport);
    void flood(std::uint16_t vid, const frame_buf &f, std::uint32_t from_bport, bool to_vlanif);
    bool out_bport(std::uint32_t bport, std::uint16_t vid, const frame_buf &f);
    // As-is transmission (module frames with no VLAN to tag with).
    bool out_raw(const sim_port &p, bytes_view frame);
    bool send_on(const sim_port &p, bytes_view frame);
    bool to_vlanif(std::uint16_t vid, const frame_buf &f);

    sim_model &m_;
    sim_switch_io io_;
    sim_mactable macs_;
    sim_traps traps_;
    sim_guard guard_;
    sim_switch_stats stats_{};
};
