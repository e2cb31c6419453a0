// What the module asked the forwarding plane to do: trap DHCP per VLAN, and
// guard IPv4 sources per VLAN. Also the payload codecs of those requests.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <tuple>

#include "lib/wire.h"

enum {
    HAL_MSG_DHCP_VLAN_ENABLE = 321,
    HAL_MSG_DHCP_IP_SOURCE = 329,
    HAL_MSG_DHCPV6_VLAN_ENABLE = 330,
    HAL_MSG_MAC_GET_PORT = 0x101,
    HAL_MSG_DHCP_LEN = 12,           // hal_msg_dhcp_s
    HAL_MSG_DHCP_IP_SOURCE_LEN = 20, // hal_msg_dhcp_ip_source_s
    HAL_MSG_MAC_GET_PORT_LEN = 8,    // mac, vid
    SIM_GUARD_ALL_PORTS = 0xffffffffu,
};

struct hal_msg_dhcp_s {
    std::uint32_t ifindex;
    std::uint16_t vid;
    std::uint32_t enable;
};

struct hal_msg_dhcp_ip_source_s {
    std::uint32_t ifindex;
    std::uint16_t vid;
    std::uint8_t mac[6];
    std::uint32_t ip_addr;  // the address bytes read big-endian
    std::uint32_t action;   // 0 install, 1 withdraw
};

// Payloads in the channel's host order; false when too short.
bool sim_dhcp_req_decode(bytes_view payload, hal_msg_dhcp_s &m);
bool sim_ip_source_req_decode(bytes_view payload, hal_msg_dhcp_ip_source_s &m);
bool sim_mac_req_decode(bytes_view payload, std::uint8_t mac[6], std::uint16_t &vid);

class sim_traps {
public:
    // family 4 or 6. Returns 0 or TAVO_PARAM (VLAN out of range).
    int set(int family, std::uint16_t vid, bool on);
    bool on(int family, std::uint16_t vid) const;
    void clear_vlan(std::uint16_t vid);
    void clear() { v4_.reset(); v6_.reset(); }

private:
    std::bitset<4096> v4_, v6_;
};

struct sim_guard_rule {
    std::uint16_t vid;
    std::uint32_t ifindex;
    std::uint8_t mac[6];
    std::uint32_t ip;
};

class sim_guard {
public:
    explicit sim_guard(std::size_t cap = 16384) : cap_(cap) {}
    // Applies an install or withdraw: 0, TAVO_PARAM (malformed), TAVO_FULL
    // (over the cap), TAVO_NOT_FOUND (withdrawing what is not installed).
    int apply(const hal_msg_dhcp_ip_source_s &r);
    bool vlan_on(std::uint16_t vid) const { return vid < 4096 && on_.test(vid); }
    // An IPv4 source on a guarded VLAN passes only with a matching rule.
    bool permits(std::uint16_t vid, std::uint32_t ifindex, const std::uint8_t mac[6],
                 std::uint32_t ip) const;
    void clear_vlan(std::uint16_t vid);
    std::size_t size() const { return rules_.size(); }
    void walk(const std::function<void(const sim_guard_rule &)> &fn) const;
    void walk_vlans(const std::function<void(std::uint16_t)> &fn) const;

private:
    using key = std::tuple<std::uint16_t, std::uint64_t, std::uint32_t, std::uint32_t>;  // vid, mac, ip, port
    static key make_key(std::uint16_t vid, const std::uint8_t mac[6], std::uint32_t ip,
                        std::uint32_t ifindex);
    std::size_t cap_;
    std::bitset<4096> on_;
    std::set<key> rules_;
};
