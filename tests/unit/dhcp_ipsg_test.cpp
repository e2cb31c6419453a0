// IP source guard: the per-VLAN switch and per-client rules as the
// forwarding plane receives them, the table's add/update/delete rules, its
// order and cap, and the show.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

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
#include "lib/thread.h"
#include "lib/vty.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "tests/support/hal_session.h"

namespace {

const std::uint8_t MAC_A[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
const std::uint8_t MAC_B[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x02};
constexpr std::uint16_t VID = 10;

std::uint32_t ip(const char *text)
{
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return a.s_addr;  // as stored on the wire
}

// A rule as the forwarding plane decodes it.
struct rule {
    std::uint32_t len, seq, pid;
    std::uint16_t type, flags;
    std::uint32_t ifindex;
    std::uint16_t vid;
    std::uint8_t mac[6];
    std::uint32_t ip_addr, action;
};

rule decode(const fake_fp_msg &m)
{
    rule r{};
    wire_reader rd(m.bytes);
    rd.host(r.len);
    rd.host(r.type);
    rd.host(r.flags);
    rd.host(r.seq);
    rd.host(r.pid);
    rd.host(r.ifindex);
    rd.host(r.vid);
    rd.copy(r.mac, 6);
    rd.host(r.ip_addr);
    rd.host(r.action);
    return r;
}

void expect_rule(const rule &r, std::uint32_t ifindex, const std::uint8_t mac[6], std::uint16_t vid,
                 std::uint32_t ip_addr, std::uint32_t action)
{
    EXPECT_EQ(r.len, 36u);
    EXPECT_EQ(r.type, 329);
    EXPECT_EQ(r.flags, 1);
    EXPECT_EQ(r.pid, 0u);
    EXPECT_EQ(r.ifindex, ifindex);
    EXPECT_EQ(r.vid, vid);
    EXPECT_EQ(std::memcmp(r.mac, mac, 6), 0);
    EXPECT_EQ(r.ip_addr, ip_addr);
    EXPECT_EQ(r.action, action);
}

class IpSourceGuard : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
    }
    void SetUp() override
    {
        ASSERT_TRUE(hal_.start(std::string("ipsg_") + ::testing::UnitTest::GetInstance()->current_test_info()->name()));
        dhcp_client_tree_destroy();
        ASSERT_TRUE(dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX));
        dhcp_ipsg_init();
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
        for (std::uint16_t v = 1; v <= 4094; ++v)
            if (uvlan_entry_t *e = vlan_get_entry(v)) dhcp_vlan_free(e);
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
        for (const fake_fp_msg &m : fp_.received()) out.push_back(decode(m));
        fp_.clear_received();
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
    fake_fp &fp_ = hal_.fp;
    std::uint32_t onu_ = 0;
};

TEST_F(IpSourceGuard, VlanSwitchTravelsAsRuleWithInvalidMac)
{
    uvlan_entry_t *vlan = vlan_get_entry(VID);
    ASSERT_EQ(dhcp_vlan_ipverify_set(vlan, 1), 0);
    EXPECT_EQ(dhcp_vlan_ipverify_check(vlan), 1);
    bind(MAC_A, VID, onu_);
    ASSERT_NE(dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5")), nullptr);
    ASSERT_EQ(dhcp_vlan_ipverify_set(vlan, 0), 0);
    EXPECT_EQ(dhcp_vlan_ipverify_check(vlan), 0);

    std::vector<rule> r = rules();
    ASSERT_EQ(r.size(), 3u);
    expect_rule(r[0], 0xffffffffu, st_acl_mac_invalid, VID, 0, 0);
    expect_rule(r[1], onu_, MAC_A, VID, ip("10.0.0.5"), 0);
    expect_rule(r[2], 0xffffffffu, st_acl_mac_invalid, VID, 0, 1);
    // Switching off neither removes nor withdraws the clients.
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 1u);
}

TEST_F(IpSourceGuard, VlanSwitchCreatesRecordAndIgnoresThePlanesAnswer)
{
    uvlan_create(20);  // a VLAN without DHCP record
    uvlan_entry_t *vlan = vlan_get_entry(20);
    ASSERT_EQ(dhcp_get_vlan_info(vlan), nullptr);
    fp_.set_auto_reply(false);
    fp_.set_responder([](const fake_fp_msg &req, std::vector<std::uint8_t> &reply) {
        reply.assign(HAL_MSG_REG_LEN, 0);
        return hal_msg_u32_build(reply, req.hdr.nlmsg_type, 0, req.hdr.nlmsg_seq, TAVO_ERR);
    });
    EXPECT_EQ(dhcp_vlan_ipverify_set(vlan, 1), 0);
    EXPECT_EQ(dhcp_vlan_ipverify_check(vlan), 1);
    EXPECT_EQ(dhcp_vlan_ipverify_set(nullptr, 1), TAVO_ERR);
    EXPECT_EQ(dhcp_vlan_ipverify_check(nullptr), 0);

    // With the plane gone the switch is still stored.
    fp_.stop();
    EXPECT_EQ(dhcp_vlan_ipverify_set(vlan, 0), 0);
    EXPECT_EQ(dhcp_vlan_ipverify_check(vlan), 0);
}

TEST_F(IpSourceGuard, SameAddressResendsAndNewAddressWithdrawsFirst)
{
    std::uint32_t ge = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
    bind(MAC_A, VID, onu_);
    dhcp_ip_souce_client_t *e = dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->ifindex, onu_);
    EXPECT_EQ(e->bind_type, 1u);
    EXPECT_EQ(dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5")), e);

    // The client moved and the relay reports it: port and bind type stay.
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(MAC_A, VID);
    c->client_ifindex = ge;
    dhcp_client_info_reindex(c);
    EXPECT_EQ(dhcp_ipSource_add_client(2, MAC_A, VID, ip("10.0.0.9")), e);
    EXPECT_EQ(e->ifindex, onu_);
    EXPECT_EQ(e->bind_type, 1u);
    EXPECT_EQ(e->ip_addr, ip("10.0.0.9"));

    std::vector<rule> r = rules();
    ASSERT_EQ(r.size(), 4u);
    expect_rule(r[0], onu_, MAC_A, VID, ip("10.0.0.5"), 0);
    expect_rule(r[1], onu_, MAC_A, VID, ip("10.0.0.5"), 0);  // re-sent as it was
    expect_rule(r[2], onu_, MAC_A, VID, ip("10.0.0.5"), 1);  // old one withdrawn ...
    expect_rule(r[3], onu_, MAC_A, VID, ip("10.0.0.9"), 0);  // ... before the new one
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 1u);
}

TEST_F(IpSourceGuard, UnboundClientGetsPortZero)
{
    dhcp_ip_souce_client_t *e = dhcp_ipSource_add_client(3, MAC_B, VID, ip("10.0.0.7"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->ifindex, 0u);
    std::vector<rule> r = rules();
    ASSERT_EQ(r.size(), 1u);
    expect_rule(r[0], 0, MAC_B, VID, ip("10.0.0.7"), 0);
}

TEST_F(IpSourceGuard, DeletesWithdrawTheirRules)
{
    bind(MAC_A, VID, onu_);
    bind(MAC_A, 30, onu_);
    dhcp_ipSource_add_client(1, MAC_A, VID, ip("10.0.0.5"));
    dhcp_ipSource_add_client(1, MAC_A, 30, ip("10.0.30.5"));
    dhcp_ipSource_add_client(1, MAC_B, VID, ip("10.0.0.6"));
    rules();

    EXPECT_EQ(dhcp_ipSource_delete_client(MAC_B, 30), TAVO_ERR);  // none in VLAN 30
    EXPECT_TRUE(rules().empty());

    EXPECT_EQ(dhcp_ipSource_delete_client_by_mac(MAC_A), 0);
    std::vector<rule> r = rules();
    ASSERT_EQ(r.size(), 2u);
    expect_rule(r[0], onu_, MAC_A, VID, ip("10.0.0.5"), 1);
    expect_rule(r[1], onu_, MAC_A, 30, ip("10.0.30.5"), 1);
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 1u);
    EXPECT_EQ(dhcp_ipSource_client_lookup(MAC_A, VID), nullptr);
    ASSERT_NE(dhcp_ipSource_client_lookup(MAC_B, VID), nullptr);

    EXPECT_EQ(dhcp_ipSource_delete_client(MAC_B, VID), 0);
    r = rules();
    ASSERT_EQ(r.size(), 1u);
    expect_rule(r[0], 0, MAC_B, VID, ip("10.0.0.6"), 1);
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 0u);
    EXPECT_EQ(dhcp_ipSource_delete_client_by_mac(MAC_B), 0);  // empty table: nothing
    EXPECT_TRUE(rules().empty());
}

TEST_F(IpSourceGuard, RecoveryAndUpdateSendNothing)
{
    bind(MAC_A, VID, onu_);
    dhcp_ip_souce_client_t *e = dhcp_ipSource_recovery_client(3, MAC_A, VID, ip("10.0.0.5"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->ifindex, onu_);
    EXPECT_EQ(e->bind_type, 3u);
    EXPECT_EQ(dhcp_ipSource_recovery_client(1, MAC_A, VID, ip("10.0.0.6")), e);
    EXPECT_EQ(e->ip_addr, ip("10.0.0.5"));  // the existing entry is returned unchanged

    EXPECT_EQ(dhcp_update_ip_source_client_lease_info(2, MAC_A, VID, ip("10.0.0.8")), 0);
    EXPECT_EQ(e->bind_type, 2u);
    EXPECT_EQ(e->ip_addr, ip("10.0.0.8"));
    EXPECT_EQ(dhcp_update_ip_source_client_lease_info(2, MAC_B, VID, ip("10.0.0.8")), TAVO_NOT_FOUND);
    EXPECT_TRUE(rules().empty());
}

TEST_F(IpSourceGuard, DynamicAddFollowsTheVlanSwitch)
{
    EXPECT_EQ(dhcp_ipsg_add_dynamic_client_info(99, MAC_A, ip("10.0.0.5")), TAVO_ERR);  // no VLAN
    EXPECT_EQ(dhcp_ipsg_add_dynamic_client_info(VID, MAC_A, ip("10.0.0.5")), 0);        // guard off
    EXPECT_EQ(dhcp_ipSource_client_info_count(), 0u);
    dhcp_vlan_ipverify_set(vlan_get_entry(VID), 1);
    EXPECT_EQ(dhcp_ipsg_add_dynamic_client_info(VID, MAC_A, ip("10.0.0.5")), 0);
    dhcp_ip_souce_client_t *e = dhcp_ipSource_client_lookup(MAC_A, VID);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->bind_type, 1u);
}

TEST_F(IpSourceGuard, TableOrderAndCap)
{
    // Inserted out of order; walked by VLAN, then MAC bytes.
    const std::uint8_t m_hi[6] = {0xf0, 0, 0, 0, 0, 1};
    const std::uint8_t m_lo[6] = {0x01, 0, 0, 0, 0, 9};
    dhcp_ipSource_recovery_client(1, m_hi, 5, 1);
    dhcp_ipSource_recovery_client(1, m_lo, 300, 2);
    dhcp_ipSource_recovery_client(1, m_lo, 5, 3);
    dhcp_ipSource_recovery_client(1, m_hi, 4, 4);
    std::vector<std::uint32_t> order;
    for (auto *e = dhcp_ipSource_client_first(); e; e = dhcp_ipSource_client_next(e)) order.push_back(e->ip_addr);
    EXPECT_EQ(order, (std::vector<std::uint32_t>{4, 3, 1, 2}));

    dhcp_ipsg_init();
    for (int i = 0; i < DHCP_IP_SOURCE_MAX; ++i) {
        std::uint8_t mac[6] = {0x02, 0, 0, 0, std::uint8_t(i >> 8), std::uint8_t(i)};
        ASSERT_NE(dhcp_ipSource_recovery_client(1, mac, VID, std::uint32_t(i)), nullptr) << i;
    }
    rules();
    const std::uint8_t extra[6] = {0x04, 0, 0, 0, 0, 1};
    EXPECT_EQ(dhcp_ipSource_add_client(1, extra, VID, 7), nullptr);
    EXPECT_EQ(dhcp_ipSource_client_info_count(), std::uint32_t(DHCP_IP_SOURCE_MAX));
    EXPECT_TRUE(rules().empty());  // a client that is not kept gets no rule
    // A known client is still refreshed when the table is full.
    const std::uint8_t first[6] = {0x02, 0, 0, 0, 0, 0};
    EXPECT_NE(dhcp_ipSource_add_client(1, first, VID, 0), nullptr);
    EXPECT_EQ(rules().size(), 1u);
}

TEST_F(IpSourceGuard, ShowFiltersAndDetailPlaceholder)
{
    EXPECT_EQ(show(nullptr, 0, 0, 0), "Total info entries: 0 \n\n");

    bind(MAC_A, VID, onu_);
    dhcp_ipSource_recovery_client(1, MAC_A, VID, ip("10.0.0.5"));
    dhcp_ipSource_recovery_client(2, MAC_B, 30, ip("10.0.30.6"));
    std::string heading =
        "Total info entries: 2 \n\n"
        "Source IP client information: \n"
        "=========================================================================================================\n"
        "      MAC       VLAN      Type   Interface           IPv4    \n";
    std::string row_a = std::string("  0011-2233-4401  10      snoop  ") + st_ifname(onu_);
    std::string all = show(nullptr, 0, 0, 0);
    EXPECT_EQ(all.substr(0, heading.size()), heading);
    std::size_t at_a = all.find(row_a), at_b = all.find("  0011-2233-4402  30      relay  ");
    ASSERT_NE(at_a, std::string::npos) << all;
    ASSERT_NE(at_b, std::string::npos) << all;
    EXPECT_LT(at_a, at_b);
    EXPECT_NE(all.find("10.0.0.5"), std::string::npos);

    const std::uint8_t zero[6] = {};
    for (auto [mac, vid, ifx, want_a, want_b] :
         {std::tuple{MAC_B, std::uint16_t(0), 0u, false, true}, std::tuple{zero, std::uint16_t(VID), 0u, true, false},
          std::tuple{zero, std::uint16_t(0), onu_, true, false}, std::tuple{MAC_A, std::uint16_t(30), 0u, false, false}}) {
        std::string out = show(mac, vid, ifx, 0);
        EXPECT_EQ(out.find(row_a) != std::string::npos, want_a) << out;
        EXPECT_EQ(out.find("  0011-2233-4402") != std::string::npos, want_b) << out;
    }

    std::string detail = show(nullptr, 0, 0, 1);
    EXPECT_NE(detail.find("\nTODO ========================================================================================"
                          "=================\n"),
              std::string::npos)
        << detail;
    EXPECT_EQ(detail.find("Source IP client information"), std::string::npos);
}

}  // namespace
