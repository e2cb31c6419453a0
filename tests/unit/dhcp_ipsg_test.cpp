// IP source guard: the per-VLAN switch and per-client rules as the
// forwarding plane receives them, the table's add/update/delete rules, its
// order and cap, and the show.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>
#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/vty.h"
#include "platform/errcode.h"
#include "tests/support/hal_session.h"

namespace {

const std::uint8_t MAC_A[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
const std::uint8_t MAC_B[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x02};
const std::uint32_t ALL = 0xffffffffu, ADD = 0, DEL = 1;
constexpr std::uint16_t VID = 10;

std::uint32_t ip(const char *text)
{
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return a.s_addr;  // as stored on the wire
}

// A rule as the forwarding plane decodes it: header, then the body in host order.
using rule = std::tuple<std::uint32_t, std::vector<std::uint8_t>, std::uint16_t, std::uint32_t, std::uint32_t>;
rule decode(const fake_fp_msg &m)
{
    std::uint32_t len = 0, seq = 0, pid = 0, ifindex = 0, ip_addr = 0, action = 0;
    std::uint16_t type = 0, flags = 0, vid = 0;
    std::uint8_t mac[6] = {};
    wire_reader rd(m.bytes);
    rd.host(len), rd.host(type), rd.host(flags), rd.host(seq), rd.host(pid), rd.host(ifindex), rd.host(vid);
    rd.copy(mac, 6), rd.host(ip_addr), rd.host(action);
    EXPECT_EQ(std::vector<std::uint32_t>({len, std::uint32_t(m.bytes.size()), type, flags, pid}),
              std::vector<std::uint32_t>({36, 36, 329, 1, 0}));
    return {ifindex, std::vector<std::uint8_t>(mac, mac + 6), vid, ip_addr, action};
}
rule want(std::uint32_t ifindex, const std::uint8_t mac[6], std::uint16_t vid, std::uint32_t ip_addr,
          std::uint32_t action)
{
    return {ifindex, std::vector<std::uint8_t>(mac, mac + 6), vid, ip_addr, action};
}

class DhcpIpSourceGuard : public ::testing::Test {
protected:
    void SetUp() override
    {
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        dhcp_ipsg_init();
        ASSERT_TRUE(hal_.start(std::string("ipsg_") + ::testing::UnitTest::GetInstance()->current_test_info()->name()));
        uvlan_create(VID);
        ASSERT_EQ(dhcp_vlan_init(VID), 0);
        onu_ = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 3, 5);
        uif_get_or_create(onu_, false);
    }
    void TearDown() override
    {
        hal_.stop();
        dhcp_ipsg_init();
        dhcp_client_tree_destroy();
        for (std::uint16_t v = 1; v <= 4094; ++v) dhcp_vlan_free(vlan_get_entry(v));
        uvlan_clear();
        uif_clear();
    }
    // A binding of (vid, mac) on port ifindex, as the snooping path makes it.
    void bind(const std::uint8_t mac[6], std::uint16_t vid, std::uint32_t ifindex)
    {
        dhcp_client_info_t *c = dhcp_new_client_lease_info(mac, vid, 1);
        ASSERT_NE(c, nullptr);
        c->client_ifindex = ifindex;
        dhcp_client_info_reindex(c);
    }
    // The rules received since the last call.
    std::vector<rule> rules()
    {
        std::vector<rule> out;
        for (const fake_fp_msg &m : hal_.fp.received()) out.push_back(decode(m));
        hal_.fp.clear_received();
        return out;
    }
    std::string show(const std::uint8_t *mac, std::uint16_t vid, std::uint32_t ifindex, int detail)
    {
        vty *v = vty_new_buffer(CONFIG_NODE);
        dhcp_cli_show_ipSource_binding_info(v, mac, vid, ifindex, detail);
        std::string out = v->out;
        vty_free(v);
        return out;
    }

    hal_session hal_;
    std::uint32_t onu_ = 0;
};

TEST_F(DhcpIpSourceGuard, VlanSwitchTravelsAsRuleWithInvalidMacAndIgnoresTheAnswer)
{
    uvlan_entry_t *vlan = vlan_get_entry(VID);
    ASSERT_EQ(dhcp_vlan_ipverify_set(vlan, 1), 0);
    bind(MAC_A, VID, onu_);
    ASSERT_NE(dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5")), nullptr);
    ASSERT_EQ(dhcp_vlan_ipverify_set(vlan, 0), 0);
    EXPECT_EQ(rules(), (std::vector<rule>{want(ALL, st_acl_mac_invalid, VID, 0, ADD),
                                          want(onu_, MAC_A, VID, ip("10.0.0.5"), ADD),
                                          want(ALL, st_acl_mac_invalid, VID, 0, DEL)}));
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 1u) << "switching off withdraws no client";

    // A VLAN without record gets one; without the plane the switch is still stored.
    uvlan_create(20);
    hal_.fp.stop();
    EXPECT_EQ(dhcp_vlan_ipverify_set(vlan_get_entry(20), 1), 0);
    EXPECT_EQ(dhcp_vlan_ipverify_check(vlan_get_entry(20)), 1);
    EXPECT_EQ(dhcp_vlan_ipverify_set(nullptr, 1), TAVO_ERR);
}

TEST_F(DhcpIpSourceGuard, SameAddressResendsAndNewAddressWithdrawsFirst)
{
    bind(MAC_A, VID, onu_);
    dhcp_ip_souce_client_t *e = dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5")), e);
    // The client moved and the relay reports it: port and bind type stay.
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(MAC_A, VID);
    c->client_ifindex = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
    dhcp_client_info_reindex(c);
    EXPECT_EQ(dhcp_ipSource_add_client(2, MAC_A, VID, ip("10.0.0.9")), e);
    EXPECT_EQ(e->ifindex, onu_);
    EXPECT_EQ(e->bind_type, 1u);
    EXPECT_EQ(rules(), (std::vector<rule>{want(onu_, MAC_A, VID, ip("10.0.0.5"), ADD),
                                          want(onu_, MAC_A, VID, ip("10.0.0.5"), ADD),  // re-sent as it was
                                          want(onu_, MAC_A, VID, ip("10.0.0.5"), DEL),  // old one withdrawn ...
                                          want(onu_, MAC_A, VID, ip("10.0.0.9"), ADD)}));  // ... before the new one
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 1u);

    // A client without binding gets port 0.
    ASSERT_NE(dhcp_ipSource_add_client(3, MAC_B, VID, ip("10.0.0.7")), nullptr);
    EXPECT_EQ(rules(), (std::vector<rule>{want(0, MAC_B, VID, ip("10.0.0.7"), ADD)}));
}

TEST_F(DhcpIpSourceGuard, DeletesWithdrawTheirRules)
{
    bind(MAC_A, VID, onu_);
    bind(MAC_A, 30, onu_);
    dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5"));
    dhcp_ipSource_add_client(1, MAC_A, 30, ip("10.0.30.5"));
    dhcp_ipSource_add_client(1, MAC_B, VID, ip("10.0.0.6"));
    rules();
    EXPECT_EQ(dhcp_ipSource_delete_client(MAC_B, 30), TAVO_ERR);  // none in VLAN 30
    EXPECT_EQ(dhcp_ipSource_delete_client_by_mac(MAC_A), 0);
    EXPECT_EQ(rules(), (std::vector<rule>{want(onu_, MAC_A, VID, ip("10.0.0.5"), DEL),
                                          want(onu_, MAC_A, 30, ip("10.0.30.5"), DEL)}));
    EXPECT_EQ(dhcp_ipSource_client_lookup(MAC_A, VID), nullptr);
    EXPECT_EQ(dhcp_ipSource_delete_client(MAC_B, VID), 0);
    EXPECT_EQ(rules(), (std::vector<rule>{want(0, MAC_B, VID, ip("10.0.0.6"), DEL)}));
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 0u);
}

// Restoring from the saved table sends nothing and keeps an existing entry.
TEST_F(DhcpIpSourceGuard, RecoverySendsNothing)
{
    bind(MAC_A, VID, onu_);
    dhcp_ip_souce_client_t *e = dhcp_ipSource_recovery_client(3, MAC_A, VID, ip("10.0.0.5"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->ifindex, onu_);
    EXPECT_EQ(dhcp_ipSource_recovery_client(1, MAC_A, VID, ip("10.0.0.6")), e);
    EXPECT_EQ(e->ip_addr, ip("10.0.0.5"));
    EXPECT_EQ(e->bind_type, 3u);
    EXPECT_TRUE(rules().empty());
}

TEST_F(DhcpIpSourceGuard, TableCap)
{
    for (int i = 0; i < DHCP_IP_SOURCE_MAX; ++i) {
        std::uint8_t mac[6] = {0x02, 0, 0, 0, std::uint8_t(i >> 8), std::uint8_t(i)};
        ASSERT_NE(dhcp_ipSource_recovery_client(1, mac, VID, std::uint32_t(i)), nullptr) << i;
    }
    const std::uint8_t extra[6] = {0x04, 0, 0, 0, 0, 1}, first[6] = {0x02, 0, 0, 0, 0, 0};
    EXPECT_EQ(dhcp_ipSource_add_client(1, extra, VID, 7), nullptr);
    EXPECT_EQ(dhcp_ipSource_client_info_count(), std::uint32_t(DHCP_IP_SOURCE_MAX));
    EXPECT_TRUE(rules().empty()) << "a client that is not kept gets no rule";
    EXPECT_NE(dhcp_ipSource_add_client(1, first, VID, 0), nullptr) << "a known client is still refreshed";
    EXPECT_EQ(rules().size(), 1u);
}

TEST_F(DhcpIpSourceGuard, ShowFiltersAndDetailPlaceholder)
{
    EXPECT_EQ(show(nullptr, 0, 0, 0), "Total info entries: 0 \n\n");
    bind(MAC_A, VID, onu_);
    dhcp_ipSource_recovery_client(1, MAC_A, VID, ip("10.0.0.5"));
    dhcp_ipSource_recovery_client(2, MAC_B, 30, ip("10.0.30.6"));
    char row_a[128], row_b[128];
    std::snprintf(row_a, sizeof row_a, "  0011-2233-4401  10      snoop  %-19s 10.0.0.5       \n", st_ifname(onu_));
    std::snprintf(row_b, sizeof row_b, "  0011-2233-4402  30      relay  %-19s 10.0.30.6      \n", st_ifname(0));
    const std::string rule(105, '=');
    EXPECT_EQ(show(nullptr, 0, 0, 0), "Total info entries: 2 \n\nSource IP client information: \n" + rule + "\n" +
                                          "      MAC       VLAN      Type   Interface           IPv4    \n" + row_a +
                                          row_b);

    const std::uint8_t zero[6] = {};
    using filter = std::tuple<const std::uint8_t *, std::uint16_t, std::uint32_t, bool, bool>;
    const filter filters[] = {{MAC_B, 0, 0, false, true}, {zero, VID, 0, true, false}, {zero, 0, onu_, true, false},
                              {MAC_A, 30, 0, false, false}};
    for (auto [mac, vid, ifx, want_a, want_b] : filters) {
        std::string out = show(mac, vid, ifx, 0);
        EXPECT_EQ(out.find(row_a) != std::string::npos, want_a) << out;
        EXPECT_EQ(out.find(row_b) != std::string::npos, want_b) << out;
    }
    // The detailed view prints its placeholder line instead of the heading.
    std::string detail = show(nullptr, 0, 0, 1);
    EXPECT_EQ(detail.substr(0, detail.find(row_a)), "Total info entries: 2 \n\nTODO " + rule + "\n");
}

}  // namespace
