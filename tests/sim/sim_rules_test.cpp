// Source-guard table: installs, withdrawals, the per-VLAN switch and what it
// refuses. Matching frames against it is tested through the pipeline in
// sim_switch_test, the request payloads through the channel in sim_fpchan_test.
#include <gtest/gtest.h>

#include "platform/errcode.h"
#include "sim/sim_rules.h"

namespace {

constexpr std::uint32_t ONU = 0x52201005, IP = 0x0a000007;
const std::uint8_t MAC[6] = {2, 0, 0, 0, 0, 0x0a};

hal_msg_dhcp_ip_source_s rule(std::uint32_t ifindex, std::uint16_t vid, std::uint8_t mac0, std::uint32_t ip,
                              std::uint32_t action)
{
    return {ifindex, vid, {mac0, 0, 0, 0, 0, 0x0a}, ip, action};
}

// The per-VLAN switch: every port, the invalid MAC, no address.
hal_msg_dhcp_ip_source_s vlan_switch(std::uint16_t vid, std::uint32_t action)
{
    return {SIM_GUARD_ALL_PORTS, vid, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0, action};
}

TEST(SimRules, GuardRequestsInOrder)
{
    sim_guard g(2);
    auto sw_mac = vlan_switch(100, 0), sw_ip = vlan_switch(100, 0);
    sw_mac.mac[0] = 0x02;
    sw_ip.ip_addr = 1;
    struct {
        const char *what;
        hal_msg_dhcp_ip_source_s r;
        int rc;
        bool bound_passes;  // the client of the first rule, on VLAN 100, afterwards
    } steps[] = {
        {"per-VLAN switch with a real MAC", sw_mac, TAVO_PARAM, true},
        {"per-VLAN switch with an address", sw_ip, TAVO_PARAM, true},
        {"action 2", rule(ONU, 100, 2, IP, 2), TAVO_PARAM, true},
        {"VLAN 0", rule(ONU, 0, 2, IP, 0), TAVO_PARAM, true},
        {"VLAN 4095", rule(ONU, 4095, 2, IP, 0), TAVO_PARAM, true},
        {"port 0", rule(0, 100, 2, IP, 0), TAVO_PARAM, true},
        {"group MAC", rule(ONU, 100, 1, IP, 0), TAVO_PARAM, true},
        {"guard on, no rule yet", vlan_switch(100, 0), 0, false},
        {"withdrawing what is not there", rule(ONU, 100, 2, IP, 1), TAVO_NOT_FOUND, false},
        {"first rule", rule(ONU, 100, 2, IP, 0), 0, true},
        {"the same rule again", rule(ONU, 100, 2, IP, 0), 0, true},
        {"second rule", rule(ONU, 200, 2, IP, 0), 0, true},
        {"over the cap", rule(ONU, 100, 2, IP + 2, 0), TAVO_FULL, true},
        {"guard off keeps the rules", vlan_switch(100, 1), 0, true},
        {"guard on again", vlan_switch(100, 0), 0, true},
        {"withdrawn", rule(ONU, 100, 2, IP, 1), 0, false},
        {"withdrawn twice", rule(ONU, 100, 2, IP, 1), TAVO_NOT_FOUND, false},
    };
    for (auto &s : steps) {
        SCOPED_TRACE(s.what);
        EXPECT_EQ(g.apply(s.r), s.rc);
        EXPECT_EQ(g.permits(100, ONU, MAC, IP), s.bound_passes);
    }
    EXPECT_FALSE(g.permits(100, ONU, MAC, IP + 2)) << "the rule over the cap was not kept";
    g.clear_vlan(100);
    EXPECT_FALSE(g.vlan_on(100));
    EXPECT_EQ(g.size(), 1u) << "only VLAN 200's rule is left";
}

} // namespace
