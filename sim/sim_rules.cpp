#include "sim/sim_rules.h"

#include <algorithm>

#include "platform/errcode.h"

namespace {

bool vid_ok(std::uint16_t vid) { return vid >= 1 && vid <= 4094; }

} // namespace

bool sim_dhcp_req_decode(bytes_view payload, hal_msg_dhcp_s &m)
{
    hal_msg_dhcp_s t{};
    wire_reader r(payload);
    if (!(r.host(t.ifindex) && r.host(t.vid) && r.skip(2) && r.host(t.enable))) return false;
    m = t;
    return true;
}

bool sim_ip_source_req_decode(bytes_view payload, hal_msg_dhcp_ip_source_s &m)
{
    hal_msg_dhcp_ip_source_s t{};
    wire_reader r(payload);
    // The address travels in network order inside a host-order record.
    if (!(r.host(t.ifindex) && r.host(t.vid) && r.copy(t.mac, 6) && r.be32(t.ip_addr) &&
          r.host(t.action)))
        return false;
    m = t;
    return true;
}

bool sim_mac_req_decode(bytes_view payload, std::uint8_t mac[6], std::uint16_t &vid)
{
    std::uint8_t m[6];
    std::uint16_t v;
    wire_reader r(payload);
    if (!(r.copy(m, 6) && r.host(v))) return false;
    std::copy(m, m + 6, mac);
    vid = v;
    return true;
}

int sim_traps::set(int family, std::uint16_t vid, bool on)
{
    if (!vid_ok(vid) || (family != 4 && family != 6)) return TAVO_PARAM;
    (family == 4 ? v4_ : v6_).set(vid, on);
    return 0;
}

bool sim_traps::on(int family, std::uint16_t vid) const
{
    if (vid >= 4096) return false;
    return family == 4 ? v4_.test(vid) : family == 6 ? v6_.test(vid) : false;
}

void sim_traps::clear_vlan(std::uint16_t vid)
{
    if (vid >= 4096) return;
    v4_.reset(vid);
    v6_.reset(vid);
}

sim_guard::key sim_guard::make_key(std::uint16_t vid, const std::uint8_t mac[6], std::uint32_t ip,
                                   std::uint32_t ifindex)
{
    std::uint64_t m = 0;
    for (int i = 0; i < 6; ++i) m = (m << 8) | mac[i];
    return {vid, m, ip, ifindex};
}

int sim_guard::apply(const hal_msg_dhcp_ip_source_s &r)
{
    if (!vid_ok(r.vid) || r.action > 1) return TAVO_PARAM;
    static const std::uint8_t all_ones[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    if (r.ifindex == SIM_GUARD_ALL_PORTS) {
        // The per-VLAN switch: every port, the invalid MAC, no address.
        if (!std::equal(r.mac, r.mac + 6, all_ones) || r.ip_addr != 0) return TAVO_PARAM;
        on_.set(r.vid, r.action == 0);
        return 0;
    }
    if (r.ifindex == 0 || (r.mac[0] & 1)) return TAVO_PARAM;
    key k = make_key(r.vid, r.mac, r.ip_addr, r.ifindex);
    if (r.action == 1) return rules_.erase(k) ? 0 : TAVO_NOT_FOUND;
    if (rules_.count(k)) return 0;
    if (rules_.size() >= cap_) return TAVO_FULL;
    rules_.insert(k);
    return 0;
}

bool sim_guard::permits(std::uint16_t vid, std::uint32_t ifindex, const std::uint8_t mac[6],
                        std::uint32_t ip) const
{
    if (!vlan_on(vid)) return true;
    return rules_.count(make_key(vid, mac, ip, ifindex)) != 0;
}

void sim_guard::clear_vlan(std::uint16_t vid)
{
    if (vid >= 4096) return;
    on_.reset(vid);
    auto lo = rules_.lower_bound(key{vid, 0, 0, 0});
    auto hi = rules_.lower_bound(key{static_cast<std::uint16_t>(vid + 1), 0, 0, 0});
    rules_.erase(lo, hi);
}

void sim_guard::walk(const std::function<void(const sim_guard_rule &)> &fn) const
{
    for (auto &[vid, m, ip, ifindex] : rules_) {
        sim_guard_rule r{vid, ifindex, {}, ip};
        for (int i = 0; i < 6; ++i) r.mac[i] = static_cast<std::uint8_t>(m >> (8 * (5 - i)));
        fn(r);
    }
}

void sim_guard::walk_vlans(const std::function<void(std::uint16_t)> &fn) const
{
    for (std::uint16_t v = 1; v <= 4094; ++v)
        if (on_.test(v)) fn(v);
}
