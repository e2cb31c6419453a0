// Trap and source-guard tables, and the request payloads that fill them.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "platform/errcode.h"
#include "sim/sim_rules.h"

namespace {

using bytes = std::vector<std::uint8_t>;

template <class T> void host(bytes &b, T v)
{
    std::uint8_t tmp[sizeof v];
    std::memcpy(tmp, &v, sizeof v);
    b.insert(b.end(), tmp, tmp + sizeof v);
}

bytes ip_source_payload(std::uint32_t ifindex, std::uint16_t vid, std::uint32_t action)
{
    bytes b;
    host<std::uint32_t>(b, ifindex);                         // ifindex (host order)
    host<std::uint16_t>(b, vid);                             // vid (host order)
    b.insert(b.end(), {0x02, 0x00, 0x00, 0x00, 0x00, 0x0a}); // mac
    b.insert(b.end(), {10, 0, 0, 7});                        // ip_addr, network order
    host<std::uint32_t>(b, action);                          // action
    return b;
}

TEST(SimRules, DecodesRequestPayloads)
{
    bytes trap;
    host<std::uint32_t>(trap, 0);        // ifindex
    host<std::uint16_t>(trap, 100);      // vid
    trap.insert(trap.end(), {0xee, 0xee});  // padding, ignored
    host<std::uint32_t>(trap, 1);        // enable
    hal_msg_dhcp_s t{};
    ASSERT_TRUE(sim_dhcp_req_decode(trap, t));
    EXPECT_EQ(t.vid, 100);
    EXPECT_EQ(t.enable, 1u);

    bytes src = ip_source_payload(0x52201005, 100, 0);
    ASSERT_EQ(src.size(), std::size_t(HAL_MSG_DHCP_IP_SOURCE_LEN));
    hal_msg_dhcp_ip_source_s r{};
    ASSERT_TRUE(sim_ip_source_req_decode(src, r));
    EXPECT_EQ(r.ifindex, 0x52201005u);
    EXPECT_EQ(r.vid, 100);
    EXPECT_EQ(r.mac[5], 0x0a);
    EXPECT_EQ(r.ip_addr, 0x0a000007u) << "the address is read as the bytes stand";
    EXPECT_EQ(r.action, 0u);

    bytes mac = {0x02, 0, 0, 0, 0, 0x0a};  // mac
    host<std::uint16_t>(mac, 0);           // vid 0: any VLAN
    std::uint8_t m[6];
    std::uint16_t vid = 99;
    ASSERT_TRUE(sim_mac_req_decode(mac, m, vid));
    EXPECT_EQ(vid, 0);
    EXPECT_EQ(m[0], 0x02);

    // Every truncation is refused, read from an exact-size heap copy.
    struct {
        const bytes &whole;
        std::function<bool(bytes_view)> decode;
    } payloads[] = {
        {trap, [&](bytes_view v) { return sim_dhcp_req_decode(v, t); }},
        {src, [&](bytes_view v) { return sim_ip_source_req_decode(v, r); }},
        {mac, [&](bytes_view v) { return sim_mac_req_decode(v, m, vid); }},
    };
    for (auto &p : payloads) {
        for (std::size_t n = 0; n < p.whole.size(); ++n) {
            std::unique_ptr<std::uint8_t[]> cut(new std::uint8_t[n ? n : 1]);
            std::copy(p.whole.begin(), p.whole.begin() + static_cast<long>(n), cut.get());
            EXPECT_FALSE(p.decode(bytes_view(cut.get(), n))) << n << " of " << p.whole.size();
        }
    }
}

TEST(SimRules, TrapsPerVlanAndFamily)
{
    sim_traps t;
    EXPECT_EQ(t.set(4, 100, true), 0);
    EXPECT_EQ(t.set(6, 200, true), 0);
    EXPECT_TRUE(t.on(4, 100));
    EXPECT_FALSE(t.on(6, 100)) << "v4 and v6 traps are separate";
    EXPECT_TRUE(t.on(6, 200));
    EXPECT_EQ(t.set(4, 0, true), TAVO_PARAM);
    EXPECT_EQ(t.set(4, 4095, true), TAVO_PARAM);
    EXPECT_FALSE(t.on(4, 0xffff));
    EXPECT_EQ(t.set(4, 100, false), 0);
    EXPECT_FALSE(t.on(4, 100));
    t.clear_vlan(200);
    EXPECT_FALSE(t.on(6, 200));
}

hal_msg_dhcp_ip_source_s rule(std::uint32_t ifindex, std::uint16_t vid, std::uint8_t mac_last,
                              std::uint32_t ip, std::uint32_t action)
{
    hal_msg_dhcp_ip_source_s r{ifindex, vid, {0x02, 0, 0, 0, 0, mac_last}, ip, action};
    return r;
}

hal_msg_dhcp_ip_source_s vlan_switch(std::uint16_t vid, std::uint32_t action)
{
    hal_msg_dhcp_ip_source_s r{SIM_GUARD_ALL_PORTS, vid, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0, action};
    return r;
}

constexpr std::uint32_t ONU = 0x52201005, OTHER = 0x52201006, IP = 0x0a000007;

TEST(SimRules, GuardMatchesPortVlanMacAndAddress)
{
    sim_guard g;
    ASSERT_EQ(g.apply(vlan_switch(100, 0)), 0);
    ASSERT_EQ(g.apply(rule(ONU, 100, 0x0a, IP, 0)), 0);
    ASSERT_EQ(g.apply(rule(ONU, 200, 0x0a, IP, 0)), 0);  // VLAN 200 not guarded: rule alone does nothing
    const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x0a};
    const std::uint8_t other_mac[6] = {0x02, 0, 0, 0, 0, 0x0b};
    struct {
        const char *what;
        std::uint16_t vid;
        std::uint32_t port;
        const std::uint8_t *mac;
        std::uint32_t ip;
        bool pass;
    } cases[] = {
        {"the bound client", 100, ONU, mac, IP, true},
        {"same client on another port", 100, OTHER, mac, IP, false},
        {"another MAC with the address", 100, ONU, other_mac, IP, false},
        {"the client with another address", 100, ONU, mac, IP + 1, false},
        {"a static address never leased", 100, ONU, mac, 0xc0a80001, false},
        {"unguarded VLAN passes anything", 300, OTHER, other_mac, 1, true},
    };
    for (auto &c : cases) EXPECT_EQ(g.permits(c.vid, c.port, c.mac, c.ip), c.pass) << c.what;

    // Switching the guard off keeps the rules; on again, they apply again.
    ASSERT_EQ(g.apply(vlan_switch(100, 1)), 0);
    EXPECT_TRUE(g.permits(100, OTHER, other_mac, 1));
    EXPECT_EQ(g.size(), 2u);
    ASSERT_EQ(g.apply(vlan_switch(100, 0)), 0);
    EXPECT_FALSE(g.permits(100, OTHER, other_mac, 1));
    EXPECT_TRUE(g.permits(100, ONU, mac, IP));

    // A new address: the old rule withdrawn, the new one installed.
    ASSERT_EQ(g.apply(rule(ONU, 100, 0x0a, IP, 1)), 0);
    ASSERT_EQ(g.apply(rule(ONU, 100, 0x0a, IP + 5, 0)), 0);
    EXPECT_FALSE(g.permits(100, ONU, mac, IP));
    EXPECT_TRUE(g.permits(100, ONU, mac, IP + 5));

    g.clear_vlan(100);
    EXPECT_FALSE(g.vlan_on(100));
    EXPECT_EQ(g.size(), 1u) << "only VLAN 200's rule is left";
}

TEST(SimRules, GuardRefusesMalformedRequests)
{
    sim_guard g(2);
    hal_msg_dhcp_ip_source_s sw_bad_mac = vlan_switch(100, 0);
    sw_bad_mac.mac[0] = 0x02;
    hal_msg_dhcp_ip_source_s sw_bad_ip = vlan_switch(100, 0);
    sw_bad_ip.ip_addr = 1;
    hal_msg_dhcp_ip_source_s group_mac = rule(ONU, 100, 1, IP, 0);
    group_mac.mac[0] = 0x01;
    struct {
        const char *what;
        hal_msg_dhcp_ip_source_s r;
        int rc;
    } cases[] = {
        {"per-VLAN switch with a real MAC", sw_bad_mac, TAVO_PARAM},
        {"per-VLAN switch with an address", sw_bad_ip, TAVO_PARAM},
        {"action 2", rule(ONU, 100, 1, IP, 2), TAVO_PARAM},
        {"VLAN 0", rule(ONU, 0, 1, IP, 0), TAVO_PARAM},
        {"VLAN 4095", rule(ONU, 4095, 1, IP, 0), TAVO_PARAM},
        {"port 0", rule(0, 100, 1, IP, 0), TAVO_PARAM},
        {"group MAC", group_mac, TAVO_PARAM},
        {"withdrawing what is not there", rule(ONU, 100, 1, IP, 1), TAVO_NOT_FOUND},
        {"first rule", rule(ONU, 100, 1, IP, 0), 0},
        {"the same rule again", rule(ONU, 100, 1, IP, 0), 0},
        {"second rule", rule(ONU, 100, 2, IP + 1, 0), 0},
        {"over the cap", rule(ONU, 100, 3, IP + 2, 0), TAVO_FULL},
    };
    for (auto &c : cases) EXPECT_EQ(g.apply(c.r), c.rc) << c.what;
    EXPECT_EQ(g.size(), 2u);
    EXPECT_FALSE(g.vlan_on(100));
}

} // namespace
