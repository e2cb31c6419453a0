// Learned MAC addresses per VLAN, with ageing and a cap on the entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

struct sim_mac_entry {
    std::uint32_t bport;      // where frames for it go: port, trunk, ONU or VLAN interface
    std::uint32_t rx_ifindex; // the physical port (or ONU) it was last heard on
    std::uint64_t seen_ms;
};

enum mac_learn_result {
    MAC_LEARN_NEW = 0,
    MAC_LEARN_REFRESH,
    MAC_LEARN_MOVED,     // heard on another port than before
    MAC_LEARN_FULL,      // new address, table at its cap: not learnt
    MAC_LEARN_IGNORED,   // group or zero address
};

class sim_mactable {
public:
    explicit sim_mactable(std::size_t cap = 16384, std::uint64_t age_ms = 300000)
        : cap_(cap), age_ms_(age_ms)
    {
    }

    mac_learn_result learn(std::uint16_t vid, const std::uint8_t mac[6], std::uint32_t bport,
                           std::uint32_t rx_ifindex, std::uint64_t now_ms);
    const sim_mac_entry *lookup(std::uint16_t vid, const std::uint8_t mac[6]) const;
    // The first VLAN (lowest id) in which mac is known; null when nowhere.
    const sim_mac_entry *lookup_any(const std::uint8_t mac[6], std::uint16_t *vid = nullptr) const;
    // Drops entries not heard from for the ageing time; returns how many.
    std::size_t age(std::uint64_t now_ms);
    std::size_t flush_vlan(std::uint16_t vid);
    // Entries reached through ifindex (as bport or as receive port).
    std::size_t flush_port(std::uint32_t ifindex);
    void flush_all() { table_.clear(); }

    std::size_t size() const { return table_.size(); }
    std::size_t cap() const { return cap_; }
    std::uint64_t age_ms() const { return age_ms_; }
    void set_age_ms(std::uint64_t ms) { age_ms_ = ms; }
    // Entries in (VLAN, MAC) order.
    void walk(const std::function<void(std::uint16_t vid, const std::uint8_t mac[6],
                                       const sim_mac_entry &)> &fn) const;

private:
    static std::uint64_t key(std::uint16_t vid, const std::uint8_t mac[6]);
    std::size_t cap_;
    std::uint64_t age_ms_;
    std::map<std::uint64_t, sim_mac_entry> table_;
};
