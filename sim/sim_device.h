// Device-manager semantics over the model: every event changes the model and
// produces the notifications a client must see; the replay describes the
// whole state so that a client connecting at any time ends up equal.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "devlib/devmgr_proto.h"
#include "sim/sim_model.h"

class sim_device {
public:
    using listener = std::function<void(const devmgr_msg_t &)>;

    explicit sim_device(sim_model &m) : m_(m) {}
    sim_model &model() { return m_; }
    const sim_model &model() const { return m_; }

    // Called with every notification, in order, after the model changed.
    void add_listener(listener l) { listeners_.push_back(std::move(l)); }

    // The replay, framed, ready to write (REPLAY_START ... REPLAY_END).
    std::vector<std::uint8_t> replay() const;
    umsg_if_t if_record(const sim_port &p) const;

    // Events. Each returns "" on success or why it was refused (nothing sent).
    std::string set_hostname(const std::string &name);
    std::string port_status(const std::string &name, bool up);
    std::string port_admin(const std::string &name, bool up);
    std::string port_remove(const std::string &name);
    // Brings a removed port back, or adds a new physical port or ONU (sn
    // required). linux_if "" keeps what the port had.
    std::string port_add(const std::string &name, const std::string &linux_if, const std::string &sn);
    std::string vlan_create(const vlan_bits &vids);
    std::string vlan_destroy(const vlan_bits &vids);
    std::string port_vlan(const std::string &name, const vlan_bits &vids, bool add, bool tagged);
    std::string port_pvid(const std::string &name, std::uint16_t pvid);
    std::string port_trunk(const std::string &name, std::uint32_t trunk_id);
    std::string onu_status(const std::string &name, bool online);
    std::string slot_switchover(std::uint32_t slot, bool start);
    std::string slot_cfg_sync(std::uint32_t slot, bool start, std::uint32_t prio, const std::string &app);

private:
    void emit(const devmgr_msg_t &m);
    void emit_if(std::uint16_t type, const sim_port &p);
    void emit_vlan_port(std::uint32_t ifindex, std::uint16_t op, std::uint16_t tag, std::uint16_t pvid,
                        const vlan_bits &vids);
    std::string find(const std::string &name, sim_port *&p, bool present = true);
    void remove_one(sim_port &p);

    sim_model &m_;
    std::vector<listener> listeners_;
};

void sim_vlan_bits_to_bitmap(const vlan_bits &v, std::uint8_t *bm);
