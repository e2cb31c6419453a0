// Relay records: enable/disable with the interface count, servers, relay
// addresses learned from interface addresses, the same-prefix choice and the
// per-client offer list.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <cstring>

#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcpr.h"
#include "platform/errcode.h"

namespace {

std::uint32_t ip(const char *s) { return inet_addr(s); }

prefix pfx(const char *a, int len)
{
    prefix p{};
    p.family = std::strchr(a, ':') ? AF_INET6 : AF_INET;
    p.prefixlen = std::uint8_t(len);
    inet_pton(p.family, a, p.family == AF_INET ? static_cast<void *>(&p.u.prefix4) : &p.u.prefix6);
    return p;
}

class RelayModel : public ::testing::Test {
protected:
    void SetUp() override
    {
        uvlan_init();
        dhcp_snoop_init();
        dhcp_l3if_init();
        g_dhcpr_vlanif_count = 0;
        uvlan_create(200);
        ASSERT_EQ(dhcp_vlan_init(200), 0);
        ifp_ = if_get_by_name("vlanif200");
        ASSERT_NE(ifp_, nullptr);
    }
    void TearDown() override
    {
        dhcp_relay_enable_set(0);
        dhcp_l3if_clear();
        dhcp_client_tree_destroy();
        dhcp_vlan_free(vlan_get_entry(200));
        uvlan_clear();
    }
    dhcpr_t *relay() { return dhcpr_info_get_by_interface(ifp_); }
    void enable()
    {
        ASSERT_EQ(dhcp_if_init(ifp_), 0);
        ASSERT_EQ(dhcpr_interface_enable(ifp_), 0);
    }
    interface *ifp_ = nullptr;
};

TEST_F(RelayModel, EnableNeedsTheDhcpRecordAndCountsOnce)
{
    EXPECT_EQ(dhcpr_interface_enable(ifp_), TAVO_PORT);
    EXPECT_EQ(dhcpr_add_helper(ifp_, ip("192.0.2.1")), TAVO_PORT);
    ASSERT_EQ(dhcp_if_init(ifp_), 0);
    EXPECT_EQ(dhcpr_add_helper(ifp_, ip("192.0.2.1")), TAVO_PORT) << "relay not on yet";
    ASSERT_EQ(dhcpr_interface_enable(ifp_), 0);
    ASSERT_EQ(dhcpr_interface_enable(ifp_), 0);
    EXPECT_EQ(g_dhcpr_vlanif_count, 1u);
    EXPECT_EQ(dhcp_vlan_info_get_by_vid(200)->relay_enable, 1);
    EXPECT_EQ(dhcpr_relay_is_enable_by_ifname("vlanif200"), 1);

    // The layer-2 path's view of the same interface.
    dhcpr_t *d = dhcpr_interface_get_by_vlan_id(200);
    ASSERT_EQ(d, relay());
    EXPECT_STREQ(dhcpr_interface_name(d), "vlanif200");
    EXPECT_EQ(dhcpr_interface_vid(d), 200);
    EXPECT_EQ(dhcpr_relay_is_enable_on_interface(d), 1);

    ASSERT_EQ(dhcpr_interface_disable(ifp_), 0);
    EXPECT_EQ(g_dhcpr_vlanif_count, 0u);
    EXPECT_EQ(relay(), nullptr) << "freed: DHCPv6 relay is off too";
    EXPECT_EQ(dhcp_vlan_info_get_by_vid(200)->relay_enable, 0);
    EXPECT_EQ(dhcpr_interface_disable(ifp_), TAVO_PORT);
}

TEST_F(RelayModel, ServersAreUniqueAndIpv6ServersSurviveV4Disable)
{
    enable();
    ASSERT_EQ(ipv6_dhcpr_interface_enable(ifp_), 0);
    EXPECT_EQ(g_dhcpr_vlanif_count, 2u);
    for (const char *s : {"192.0.2.1", "192.0.2.1", "192.0.2.2"}) EXPECT_EQ(dhcpr_add_helper(ifp_, ip(s)), 0) << s;
    in6_addr s6 = pfx("2001:db8::53", 128).u.prefix6;
    EXPECT_EQ(ipv6_dhcpr_add_helper(ifp_, s6), 0);
    EXPECT_EQ(dhcpr_get_relay_server_ipv4_count(relay()), 2u);
    EXPECT_EQ(relay()->server_list.size(), 3u);

    EXPECT_EQ(dhcpr_del_helper(ifp_, ip("192.0.2.9")), 0) << "absent server: nothing removed";
    EXPECT_EQ(dhcpr_del_helper(ifp_, ip("192.0.2.1")), 0);
    EXPECT_EQ(dhcpr_find_server_info_by_ipv4(relay(), ip("192.0.2.1")), nullptr);
    EXPECT_NE(dhcpr_find_server_info_by_ipv4(relay(), ip("192.0.2.2")), nullptr);

    ASSERT_EQ(dhcpr_interface_disable(ifp_), 0);
    dhcp_vlan_info_get_by_vid(200)->ipv6_relay_enable = 1;  // kept by the DHCPv6 side
    ASSERT_NE(relay(), nullptr);
    EXPECT_EQ(dhcpr_get_relay_server_ipv4_count(relay()), 0u);
    EXPECT_NE(ipv6_dhcpr_find_server_info(relay(), s6), nullptr);
    ASSERT_EQ(ipv6_dhcpr_interface_disable(ifp_), 0);
    EXPECT_EQ(relay(), nullptr);
    EXPECT_EQ(g_dhcpr_vlanif_count, 0u);
    EXPECT_EQ(dhcpr_del_helper(ifp_, ip("192.0.2.2")), TAVO_PORT);
}

TEST_F(RelayModel, RelayAddressesFollowTheInterfaceAddresses)
{
    ASSERT_EQ(dhcp_if_init(ifp_), 0);
    prefix a = pfx("10.0.0.1", 24), b = pfx("10.0.1.1", 24), ll = pfx("fe80::1", 64), g6 = pfx("2001:db8::1", 64);
    dhcp_interface_address_add(ifp_, &a);
    dhcp_interface_address_add(ifp_, &ll);
    ASSERT_EQ(dhcpr_interface_enable(ifp_), 0);
    EXPECT_EQ(relay()->relay_ip_list.size(), 1u) << "link-local is never a relay address";
    for (prefix *p : {&b, &g6, &b}) dhcp_interface_address_add(ifp_, p);
    EXPECT_EQ(relay()->relay_ip_list.size(), 3u);
    dhcp_interface_address_delete(ifp_, &a);
    EXPECT_EQ(dhcpr_find_relay_ip_info_by_ipv4(relay(), ip("10.0.0.1")), nullptr);
    EXPECT_EQ(dhcpr_if_lookup_by_ipaddr(ip("10.0.1.1")), ifp_);
    EXPECT_EQ(dhcpr_if_lookup_by_ipaddr(ip("10.0.0.1")), nullptr);
    EXPECT_EQ(dhcpr_if_lookup_by_ipaddr(0), nullptr);

    // The link goes: its addresses and relay addresses with it, configuration stays.
    ifp_->ifindex = 77;
    dhcp_interface_delete(77);
    EXPECT_TRUE(ifp_->connected.empty());
    ASSERT_NE(relay(), nullptr);
    EXPECT_TRUE(relay()->relay_ip_list.empty());
    EXPECT_EQ(ifp_->ifindex, 0u);
}

TEST_F(RelayModel, SamePrefixRelayAddress)
{
    enable();
    for (prefix p : {pfx("10.0.0.1", 24), pfx("2001:db8::1", 64), pfx("192.168.1.1", 16), pfx("10.0.0.129", 25)})
        ASSERT_EQ(dhcpr_add_relay_ip(ifp_, &p), 0);
    struct { const char *yiaddr, *want; } rows[] = {
        {"10.0.0.77", "10.0.0.1"},
        {"10.0.0.200", "10.0.0.1"},  // the /25 also holds it: the first entry wins
        {"192.168.200.5", "192.168.1.1"},
        {"192.169.0.1", nullptr},
        {"172.16.0.1", nullptr},
    };
    for (auto &r : rows)
        EXPECT_EQ(dhcpr_get_if_same_prefix_ip(relay(), ip(r.yiaddr)), r.want ? ip(r.want) : 0u) << r.yiaddr;
    prefix any = pfx("10.9.9.9", 0), first = pfx("10.0.0.1", 24);
    ASSERT_EQ(dhcpr_remove_relay_ip(ifp_, &any), 0);  // not listed: nothing removed
    ASSERT_EQ(dhcpr_remove_relay_ip(ifp_, &first), 0);
    EXPECT_EQ(dhcpr_get_if_same_prefix_ip(relay(), ip("10.0.0.200")), ip("10.0.0.129"));
}

TEST_F(RelayModel, OfferInfoList)
{
    ASSERT_TRUE(dhcp_client_tree_create(16));
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, 9};
    dhcp_client_info_t *c = dhcp_new_client_lease_info(mac, 200, DHCPDISCOVER);
    ASSERT_NE(c, nullptr);
    const std::uint32_t gw = ip("10.0.0.1"), s1 = ip("192.0.2.1"), s2 = ip("192.0.2.2");
    for (std::uint32_t s : {s1, s1, s2}) ASSERT_EQ(dhcpr_add_relay_info(c, 1, gw, s), 0);
    EXPECT_EQ(dhcpr_offer_info_count(c), 2u);
    EXPECT_EQ(dhcpr_update_relay_info_offer_ip(c, 2, gw, s2, ip("10.0.0.5")), TAVO_NOT_FOUND) << "another xid";
    EXPECT_EQ(dhcpr_update_relay_info_offer_ip(c, 1, gw, s2, ip("10.0.0.5")), 0);
    EXPECT_EQ(dhcpr_get_relay_offer_info(c, 1, gw, s1)->offer_client_ip, 0u);
    EXPECT_EQ(dhcpr_get_relay_offer_info(c, 1, gw, s2)->offer_client_ip, ip("10.0.0.5"));
    dhcpr_update_client_offer_info_xid(c, 7);
    EXPECT_EQ(dhcpr_get_relay_offer_info(c, 1, gw, s2), nullptr);
    EXPECT_NE(dhcpr_get_relay_offer_info(c, 7, gw, s2), nullptr);
    std::uint64_t live = MTYPE_DHCP_OFFER_INFO.n_alloc;
    dhcpr_clear_client_offer_info(c);
    EXPECT_EQ(dhcpr_offer_info_count(c), 0u);
    EXPECT_EQ(MTYPE_DHCP_OFFER_INFO.n_alloc, live - 2) << "entries freed";
}

}  // namespace
