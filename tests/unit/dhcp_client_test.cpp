// The binding table: learning from requests and replies, sessions and their
// limit, xid changes, every delete form against the rules they must follow,
// ageing on a scripted clock, table order and the port index.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/vty.h"
#include "platform/errcode.h"

namespace {

std::uint32_t g_now = 1000;
std::uint32_t test_clock() { return g_now; }

const std::uint32_t ONU1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 1, 1);
const std::uint32_t ONU2 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 1, 2);
const std::uint32_t GE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);

std::uint32_t ip(const char *text)
{
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return a.s_addr;
}

struct mac_t {
    std::uint8_t b[6];
};
mac_t mac_n(unsigned n) { return {{0x00, 0x1a, 0x00, std::uint8_t(n >> 16), std::uint8_t(n >> 8), std::uint8_t(n)}}; }

// A DHCPv4 message as received: the BOOTP header, the cookie and options.
struct frame {
    std::vector<std::uint8_t> bytes;
    dhcp_l2_pkt_t pkt{};
};

frame make_msg(int op, int type, const mac_t &m, std::uint16_t vid, std::uint32_t xid, std::uint32_t lease = 0,
               bool with_lease = false)
{
    frame f;
    std::vector<std::uint8_t> &b = f.bytes;
    b.assign(DHCP_FIXED_HDR_LEN, 0);
    b[DHCP_OFF_OP] = std::uint8_t(op);
    std::memcpy(&b[DHCP_OFF_CHADDR], m.b, 6);
    put_be32_at(b, DHCP_OFF_COOKIE, DHCP_MAGIC);
    b.insert(b.end(), {DHCP_MESSAGE_TYPE, 1, std::uint8_t(type)});
    if (with_lease)
        b.insert(b.end(), {DHCP_LEASE_TIME, 4, std::uint8_t(lease >> 24), std::uint8_t(lease >> 16),
                           std::uint8_t(lease >> 8), std::uint8_t(lease)});
    b.push_back(DHCP_END);

    dhcp_l2_pkt_t &p = f.pkt;
    p.l2fwd_info.rx_vlanid = vid;
    p.l2fwd_info.relay_vid = vid;
    p.l2fwd_info.rx_ifindex = op == BOOTREQUEST ? ONU1 : GE1;
    std::memcpy(p.dhcp_client_addr, m.b, 6);
    std::memcpy(p.eth_src_mac, m.b, 6);
    p.dhcp_op_code = std::uint16_t(op);
    p.dhcp_msg_type = std::uint16_t(type);
    p.dhcp_curr_xid = xid;
    p.op51_lease_time = lease;
    p.dhcp_msg_len = std::uint16_t(b.size());
    return f;
}

// The pointers are set at the call, once the frame has its final address.
const dhcp_l2_pkt_t *pkt(frame &f)
{
    f.pkt.raw_packet = f.bytes.data();
    f.pkt.raw_packet_len = std::uint16_t(f.bytes.size());
    f.pkt.raw_buf_len = f.pkt.raw_packet_len;
    return &f.pkt;
}

dhcp_client_info_t *request(int type, const mac_t &m, std::uint16_t vid, std::uint32_t xid)
{
    frame f = make_msg(BOOTREQUEST, type, m, vid, xid);
    return dhcp_add_client_lease_info(DHCP_BIND_TYPE_SNOOP, pkt(f));
}

dhcp_client_info_t *ack(const mac_t &m, std::uint16_t vid, std::uint32_t xid, const char *yiaddr,
                        std::uint32_t lease, bool with_lease = true)
{
    frame f = make_msg(BOOTREPLY, DHCPACK, m, vid, xid, lease, with_lease);
    f.pkt.dhcp_offer_ip = ip(yiaddr);
    f.pkt.ipv4_src_addr = ip("10.0.0.1");
    return dhcp_update_client_lease_info(vid, DHCP_BIND_TYPE_SNOOP, pkt(f));
}

// A bound client learnt through DISCOVER and ACK.
dhcp_client_info_t *bind(const mac_t &m, std::uint16_t vid, std::uint32_t ifindex, std::uint32_t lease = 3600)
{
    frame f = make_msg(BOOTREQUEST, DHCPDISCOVER, m, vid, 0x1111);
    f.pkt.l2fwd_info.rx_ifindex = ifindex;
    if (!dhcp_add_client_lease_info(DHCP_BIND_TYPE_SNOOP, pkt(f))) return nullptr;
    return ack(m, vid, 0x1111, "10.0.0.10", lease);
}

std::vector<std::tuple<int, std::string>> table()
{
    std::vector<std::tuple<int, std::string>> out;
    char buf[16];
    for (dhcp_client_info_t *c = dhcp_client_info_top(); c; c = dhcp_client_info_next(c)) {
        std::snprintf(buf, sizeof buf, "%02x%02x", c->mac[4], c->mac[5]);
        out.emplace_back(c->vid, buf);
    }
    return out;
}

class Bindings : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_now = 1000;
        dhcp_client_set_clock(test_clock);
        uif_init();
        uvlan_init();
        dhcp_ipsg_init();
        ASSERT_TRUE(dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX));
        dhcp_set_max_session_id(DHCP_MAX_SESSION_DEFAULT);
        base_client_ = MTYPE_DHCP_CLIENT.n_alloc;
        base_nodes_ = MTYPE_LINK_NODE.n_alloc;
    }
    void TearDown() override
    {
        dhcp_client_tree_destroy();
        EXPECT_EQ(MTYPE_DHCP_CLIENT.n_alloc, base_client_);
        dhcp_client_set_clock(nullptr);
        dhcp_set_max_session_id(DHCP_MAX_SESSION_DEFAULT);
        uvlan_clear();
        uif_clear();
    }
    std::uint64_t base_client_ = 0, base_nodes_ = 0;
};

TEST_F(Bindings, DiscoverCreatesAPendingClientHoldingASession)
{
    mac_t m = mac_n(1);
    frame f = make_msg(BOOTREQUEST, DHCPDISCOVER, m, 10, 0xaabbccdd);
    f.pkt.l2fwd_info.rx_sport_ifindex = 0x60000010;
    f.pkt.l2fwd_info.srv_vid = 200;
    f.pkt.l2fwd_info.usr_vid = 35;
    f.pkt.ipv4_src_addr = 0;
    f.pkt.dhcp_curr_ip = ip("0.0.0.0");
    std::strcpy(f.pkt.op12_host_name, "host-a");
    dhcp_client_info_t *c = dhcp_add_client_lease_info(DHCP_BIND_TYPE_SNOOP, pkt(f));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->vid, 10);
    EXPECT_EQ(c->dhcp_v4, 1u);
    EXPECT_EQ(c->v4_bind_type, 1u);
    EXPECT_EQ(c->v4_lease_time, 60u);
    EXPECT_EQ(c->v4_create_time, 1000u);
    EXPECT_EQ(c->v4_create_msg_type, 1u);
    EXPECT_EQ(c->v4_last_update_msg, 1u);
    EXPECT_EQ(c->v4_curr_xid, 0xaabbccddu);
    EXPECT_EQ(c->client_ifindex, ONU1);
    EXPECT_EQ(c->client_sport_ifindex, 0x60000010u);
    EXPECT_EQ(c->in_vlan_stack_depth, 2u);
    EXPECT_EQ(c->in_vlan_stack[0], 200);
    EXPECT_EQ(c->in_vlan_stack[1], 35);
    EXPECT_EQ(c->out_vlan_stack_depth, 1u);
    EXPECT_EQ(c->out_vlan_stack[0], 10);
    EXPECT_STREQ(c->op12_host_name, "host-a");
    EXPECT_NE(c->offer_info_list, nullptr);
    EXPECT_EQ(dhcp_snooping_get_client_count(), 1u);
    EXPECT_EQ(dhcp_session_list_count(), 1u);
    EXPECT_NE(dhcp_session_client_lookup(10, m.b), nullptr);
    EXPECT_EQ(dhcp_lookup_client_lease_info(m.b, 10), c);
    EXPECT_EQ(dhcp_lookup_client_lease_info(m.b, 11), nullptr);
}

TEST_F(Bindings, UserVlanWithoutServiceVlanGivesDepthZero)
{
    frame f = make_msg(BOOTREQUEST, DHCPDISCOVER, mac_n(1), 10, 1);
    f.pkt.l2fwd_info.usr_vid = 35;
    dhcp_client_info_t *c = dhcp_add_client_lease_info(1, pkt(f));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->in_vlan_stack_depth, 0u);
    char tags[16];
    EXPECT_EQ(dhcp_get_client_vlaninfo_by_mac_addr(mac_n(1).b, tags, sizeof tags), 0);
    EXPECT_STREQ(tags, "");
}

TEST_F(Bindings, AckBindsTheAddressAndReleasesTheSession)
{
    mac_t m = mac_n(1);
    ASSERT_NE(request(DHCPDISCOVER, m, 10, 7), nullptr);
    frame f = make_msg(BOOTREPLY, DHCPACK, m, 10, 7, 7200, true);
    f.pkt.dhcp_offer_ip = ip("10.0.0.20");
    f.pkt.dhcp_server = ip("10.0.0.2");
    f.pkt.dhcp_gateway = ip("10.0.0.3");
    f.pkt.ipv4_src_addr = ip("10.0.0.1");
    f.pkt.op54_dhcp_server = ip("10.9.9.9");
    f.pkt.l2fwd_info.rx_trunkid = 4;
    g_now = 1010;
    dhcp_client_info_t *c = dhcp_update_client_lease_info(10, DHCP_BIND_TYPE_SNOOP, pkt(f));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->ip_addr, ip("10.0.0.20"));
    EXPECT_EQ(c->yiaddr, ip("10.0.0.20"));
    EXPECT_EQ(c->siaddr_nip, ip("10.0.0.2"));
    EXPECT_EQ(c->gateway_nip, ip("10.0.0.3"));
    EXPECT_EQ(c->ip_server_addr, ip("10.0.0.1"));  // the frame's source, not option 54
    EXPECT_EQ(c->op54_dhcp_server, ip("10.9.9.9"));
    EXPECT_EQ(c->server_ifindex, GE1);
    EXPECT_EQ(c->server_trunk_id, 4u);
    EXPECT_EQ(c->v4_lease_time, 7200u);
    EXPECT_EQ(c->v4_last_update_msg, 5u);
    EXPECT_EQ(c->v4_last_update_time, 1010u);
    EXPECT_EQ(c->client_ifindex, ONU1);  // kept from the request
    EXPECT_EQ(dhcp_session_list_count(), 0u);
}

TEST_F(Bindings, AckWithoutLeaseOptionRecordsTenDays)
{
    mac_t m = mac_n(1);
    ASSERT_NE(request(DHCPDISCOVER, m, 10, 7), nullptr);
    dhcp_client_info_t *c = ack(m, 10, 7, "10.0.0.20", 0, false);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->v4_lease_time, 864000u);
}

TEST_F(Bindings, UpdateOfAnUnknownClientFindsNothing)
{
    EXPECT_EQ(ack(mac_n(9), 10, 7, "10.0.0.20", 60), nullptr);
    EXPECT_EQ(dhcp_snooping_get_client_count(), 0u);
}

TEST_F(Bindings, UpdateFromRequestRefreshesThePortOnlyForDiscoverRequestAndInform)
{
    mac_t m = mac_n(1);
    ASSERT_NE(request(DHCPDISCOVER, m, 10, 7), nullptr);
    struct {
        int type;
        std::uint32_t ifindex;
    } cases[] = {{DHCPREQUEST, ONU2}, {DHCPDECLINE, GE1}, {DHCPINFORM, GE1}, {DHCPRELEASE, ONU1}};
    std::uint32_t expect = ONU1;
    for (const auto &c : cases) {
        frame f = make_msg(BOOTREQUEST, c.type, m, 10, 7);
        f.pkt.l2fwd_info.rx_ifindex = c.ifindex;
        dhcp_client_info_t *rec = dhcp_update_client_lease_info(10, DHCP_BIND_TYPE_SNOOP, pkt(f));
        ASSERT_NE(rec, nullptr);
        if (c.type != DHCPDECLINE && c.type != DHCPRELEASE) expect = c.ifindex;
        EXPECT_EQ(rec->client_ifindex, expect) << c.type;
        EXPECT_EQ(rec->v4_last_update_msg, std::uint32_t(c.type));
    }
}

TEST_F(Bindings, FullSessionListRefusesNewClientsButServesKnownOnes)
{
    dhcp_set_max_session_id(2);
    dhcp_client_info_t *a = request(DHCPDISCOVER, mac_n(1), 10, 1);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(request(DHCPDISCOVER, mac_n(2), 10, 2), nullptr);
    EXPECT_EQ(request(DHCPDISCOVER, mac_n(3), 10, 3), nullptr);
    EXPECT_EQ(dhcp_lookup_client_lease_info(mac_n(3).b, 10), nullptr);
    EXPECT_EQ(dhcp_snooping_get_client_count(), 2u);

    // A known client in its exchange keeps its session and goes on.
    EXPECT_EQ(request(DHCPREQUEST, mac_n(1), 10, 1), a);
    EXPECT_EQ(a->v4_last_update_msg, 3u);
    // Once bound it leaves its session to a newcomer.
    ASSERT_NE(ack(mac_n(1), 10, 1, "10.0.0.5", 600), nullptr);
    EXPECT_NE(request(DHCPDISCOVER, mac_n(3), 10, 3), nullptr);
    EXPECT_EQ(dhcp_session_list_count(), 2u);
}

TEST_F(Bindings, NewXidClearsTheAddressAndNeedsASessionAgain)
{
    dhcp_set_max_session_id(1);
    mac_t m = mac_n(1);
    dhcp_client_info_t *c = bind(m, 10, ONU1);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(dhcp_session_list_count(), 0u);

    // Same xid on a bound client: no session needed.
    EXPECT_EQ(request(DHCPREQUEST, m, 10, 0x1111), c);
    EXPECT_EQ(dhcp_session_list_count(), 0u);
    EXPECT_EQ(c->ip_addr, ip("10.0.0.10"));

    // Another client takes the only session; the bound one starts over.
    ASSERT_NE(request(DHCPDISCOVER, mac_n(2), 10, 5), nullptr);
    c->v4_lease_time = 3600;
    g_now = 1100;
    EXPECT_EQ(request(DHCPDISCOVER, m, 10, 0x2222), nullptr);  // refused, but changed and kept
    EXPECT_EQ(dhcp_lookup_client_lease_info(m.b, 10), c);
    EXPECT_EQ(c->ip_addr, 0u);
    EXPECT_EQ(c->ip_server_addr, 0u);
    EXPECT_EQ(c->v4_curr_xid, 0x2222u);
    EXPECT_EQ(c->v4_lease_time, 60u);  // a DISCOVER starts the short lease again
    EXPECT_EQ(c->v4_last_update_time, 1100u);

    dhcp_snooping_delete_client_info_by_vlan_mac(mac_n(2).b, 10);
    EXPECT_EQ(request(DHCPREQUEST, m, 10, 0x2222), c);
    EXPECT_NE(dhcp_session_client_lookup(10, m.b), nullptr);
}

TEST_F(Bindings, SameXidFollowsTheVlanTagsOfTheFlow)
{
    mac_t m = mac_n(1);
    frame f = make_msg(BOOTREQUEST, DHCPDISCOVER, m, 10, 9);
    f.pkt.l2fwd_info.srv_vid = 100;
    f.pkt.l2fwd_info.usr_vid = 5;
    dhcp_client_info_t *c = dhcp_add_client_lease_info(1, pkt(f));
    ASSERT_NE(c, nullptr);
    frame g = make_msg(BOOTREQUEST, DHCPREQUEST, m, 10, 9);
    g.pkt.l2fwd_info.srv_vid = 101;
    ASSERT_EQ(dhcp_add_client_lease_info(1, pkt(g)), c);
    EXPECT_EQ(c->in_vlan_stack_depth, 1u);
    EXPECT_EQ(c->in_vlan_stack[0], 101);
    EXPECT_EQ(c->in_vlan_stack[1], 0);
    char tags[16];
    EXPECT_EQ(dhcp_get_client_vlaninfo_by_mac_addr(m.b, tags, sizeof tags), 0);
    EXPECT_STREQ(tags, ":101");
    EXPECT_EQ(dhcp_get_client_vlaninfo_by_mac_addr(mac_n(2).b, tags, sizeof tags), TAVO_NOT_FOUND);
}

TEST_F(Bindings, ReplyCreatesClientInTheRelayVlan)
{
    frame f = make_msg(BOOTREPLY, DHCPOFFER, mac_n(1), 10, 9);
    f.pkt.l2fwd_info.relay_vid = 30;
    ASSERT_NE(dhcp_add_client_lease_info(1, pkt(f)), nullptr);
    EXPECT_NE(dhcp_lookup_client_lease_info(mac_n(1).b, 30), nullptr);
    EXPECT_EQ(dhcp_lookup_client_lease_info(mac_n(1).b, 10), nullptr);
}

TEST_F(Bindings, TableListsClientsByVlanThenMac)
{
    dhcp_new_client_lease_info(mac_n(0x0302).b, 20, 1);
    dhcp_new_client_lease_info(mac_n(0x0101).b, 20, 1);
    dhcp_new_client_lease_info(mac_n(0xffff).b, 3, 1);
    dhcp_new_client_lease_info(mac_n(0x0201).b, 300, 1);
    dhcp_new_client_lease_info(mac_n(0x0102).b, 20, 1);
    std::vector<std::tuple<int, std::string>> expect = {
        {3, "ffff"}, {20, "0101"}, {20, "0102"}, {20, "0302"}, {300, "0201"}};
    EXPECT_EQ(table(), expect);
    dhcp_client_info_t a{}, b{};
    dhcp_client_info_init(&a, mac_n(0xffff).b, 3);
    dhcp_client_info_init(&b, mac_n(0x0101).b, 20);
    EXPECT_LT(dhcp_client_info_cmp(&a, &b), 0);
    EXPECT_EQ(dhcp_new_client_lease_info(mac_n(0x0101).b, 20, 1), nullptr);  // already there
}

TEST_F(Bindings, FullTableCreatesNothingAndLeavesNoSession)
{
    ASSERT_TRUE(dhcp_client_tree_create(2));
    ASSERT_NE(request(DHCPDISCOVER, mac_n(1), 10, 1), nullptr);
    ASSERT_NE(request(DHCPDISCOVER, mac_n(2), 10, 1), nullptr);
    EXPECT_EQ(request(DHCPDISCOVER, mac_n(3), 10, 1), nullptr);
    EXPECT_EQ(dhcp_snooping_get_client_count(), 2u);
    EXPECT_EQ(dhcp_session_list_count(), 2u);
}

TEST_F(Bindings, DeleteFreesSessionOfAPendingClient)
{
    ASSERT_NE(request(DHCPDISCOVER, mac_n(1), 10, 1), nullptr);
    EXPECT_EQ(dhcp_delete_client_by_vlan_mac(10, mac_n(1).b), 0);
    EXPECT_EQ(dhcp_session_list_count(), 0u);
    EXPECT_EQ(dhcp_delete_client_by_vlan_mac(10, mac_n(1).b), TAVO_NOT_FOUND);
    EXPECT_EQ(dhcp_snooping_delete_client_info_by_vlan_mac(mac_n(1).b, 10), TAVO_NOT_FOUND);
}

TEST_F(Bindings, ClientMovingPortIsFoundUnderItsNewPortOnly)
{
    mac_t m = mac_n(1);
    ASSERT_NE(bind(m, 10, ONU1), nullptr);
    ASSERT_NE(bind(mac_n(2), 10, ONU1), nullptr);
    frame f = make_msg(BOOTREQUEST, DHCPREQUEST, m, 10, 0x1111);
    f.pkt.l2fwd_info.rx_ifindex = ONU2;
    ASSERT_NE(dhcp_update_client_lease_info(10, 1, pkt(f)), nullptr);
    EXPECT_EQ(dhcp_snooping_get_client_ifindex(m.b, 10), ONU2);

    dhcp_client_list_t onu1{ONU1}, onu2{ONU2};
    EXPECT_EQ(dhcp_port_client_count(&onu1), 1u);
    EXPECT_EQ(dhcp_port_client_count(&onu2), 1u);
    dhcp_client_info_t *first = dhcp_port_client_first(&onu2);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::memcmp(first->mac, m.b, 6), 0);
    EXPECT_EQ(dhcp_port_client_next(&onu2, first), nullptr);

    dhcp_snooping_delete_client_info_by_port(ONU1);
    EXPECT_EQ(dhcp_snooping_get_client_count(), 1u);
    EXPECT_NE(dhcp_lookup_client_lease_info(m.b, 10), nullptr);
}

// ------------------------------------------------------------ delete rules ----

struct model_client {
    std::uint16_t vid;
    mac_t mac;
    std::uint32_t ifindex, type;
};

// The per-client rule of a delete filter (action 2, no ageing), written out
// plainly: the indexes must hit exactly the clients this rule hits.
bool model_hits(const model_client &c, const mac_t &fmac, std::uint16_t fvid, std::uint32_t fifindex,
                std::uint32_t ftype)
{
    if (ftype && ftype == c.type) return true;
    if (fifindex && fifindex == c.ifindex) return true;
    if (fvid) return fvid == c.vid;
    return std::memcmp(fmac.b, c.mac.b, 6) == 0;
}

class DeleteRules : public Bindings {
protected:
    void populate()
    {
        std::mt19937 rng(42);
        const std::uint16_t vids[] = {1, 10, 11, 4094};
        const std::uint32_t ports[] = {0, ONU1, ONU2, GE1};
        for (int i = 0; i < 300; ++i) {
            model_client c{vids[rng() % 4], mac_n(rng() % 64), ports[rng() % 4], 1 + std::uint32_t(rng() % 4)};
            if (i % 50 == 0) c.mac = mac_t{};  // all-zero MACs take part in the MAC rule
            dhcp_client_info_t *rec = dhcp_new_client_lease_info(c.mac.b, c.vid, 1);
            if (!rec) continue;  // duplicate key
            rec->client_ifindex = c.ifindex;
            rec->v4_bind_type = c.type;
            dhcp_client_info_reindex(rec);
            model_.push_back(c);
        }
    }
    void expect_survivors(const mac_t &fmac, std::uint16_t fvid, std::uint32_t fifindex, std::uint32_t ftype)
    {
        auto key = [](std::uint16_t vid, const std::uint8_t *mac) {
            return std::make_tuple(int(vid), std::string(reinterpret_cast<const char *>(mac), 6));
        };
        std::set<std::tuple<int, std::string>> want, got;
        for (const model_client &c : model_)
            if (!model_hits(c, fmac, fvid, fifindex, ftype)) want.insert(key(c.vid, c.mac.b));
        for (dhcp_client_info_t *c = dhcp_client_info_top(); c; c = dhcp_client_info_next(c))
            got.insert(key(c->vid, c->mac));
        EXPECT_EQ(got, want);
        EXPECT_EQ(dhcp_snooping_get_client_count(), want.size());
    }
    std::vector<model_client> model_;
};

TEST_F(DeleteRules, EveryFilterDeletesExactlyWhatItsRuleHits)
{
    struct {
        const char *what;
        mac_t mac;
        std::uint16_t vid;
        std::uint32_t ifindex, type;
    } cases[] = {
        {"by mac", mac_n(7), 0, 0, 0},
        {"by zero mac", mac_t{}, 0, 0, 0},
        {"by vlan, mac not compared", mac_n(7), 10, 0, 0},
        {"by vlan 4094", mac_t{}, 4094, 0, 0},
        {"by port (zero-mac clients too)", mac_t{}, 0, ONU1, 0},
        {"by port 0", mac_t{}, 0, 0, 0},
        {"by port or vlan", mac_t{}, 11, ONU2, 0},
        {"by port or mac", mac_n(9), 0, GE1, 0},
        {"by bind type", mac_t{}, 0, 0, 2},
        {"by bind type or vlan", mac_t{}, 1, 0, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        model_.clear();
        ASSERT_TRUE(dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX));
        populate();
        dhcp_client_filter_t f{};
        f.filter_action = DHCP_CLIENT_FILTER_DELETE;
        std::memcpy(f.mac, c.mac.b, 6);
        f.vid = c.vid;
        f.ifindex = c.ifindex;
        f.type = c.type;
        std::uint32_t before = dhcp_snooping_get_client_count();
        int deleted = dhcp_snooping_travers_client_by_filter(&f);
        EXPECT_EQ(std::uint32_t(deleted), before - dhcp_snooping_get_client_count());
        expect_survivors(c.mac, c.vid, c.ifindex, c.type);
    }
}

TEST_F(DeleteRules, WrappersDeleteByTheirOneField)
{
    populate();
    dhcp_snooping_delete_client_info_by_vlan(10);
    expect_survivors(mac_t{}, 10, 0, 0);
    model_.erase(std::remove_if(model_.begin(), model_.end(), [](const model_client &c) { return c.vid == 10; }),
                 model_.end());
    dhcp_snooping_delete_client_info_by_mac(mac_n(5).b);
    expect_survivors(mac_n(5), 0, 0, 0);
    model_.erase(std::remove_if(model_.begin(), model_.end(),
                                [](const model_client &c) { return std::memcmp(c.mac.b, mac_n(5).b, 6) == 0; }),
                 model_.end());
    dhcp_snooping_delete_client_info_by_type(4);
    expect_survivors(mac_t{}, 0, 0, 4);
    dhcp_snooping_delete_all_client_info();
    EXPECT_EQ(dhcp_snooping_get_client_count(), 0u);
    EXPECT_EQ(dhcp_client_info_top(), nullptr);
}

TEST_F(DeleteRules, FilterOfAnotherActionKeepsEverything)
{
    populate();
    dhcp_client_filter_t f{};
    f.filter_action = DHCP_CLIENT_FILTER_SHOW;
    EXPECT_EQ(dhcp_snooping_travers_client_by_filter(&f), 0);
    EXPECT_EQ(dhcp_snooping_get_client_count(), model_.size());
    EXPECT_EQ(dhcp_snooping_travers_client_by_filter(nullptr), -1);
    EXPECT_EQ(dhcp_snooping_delete_client_by_filter(dhcp_client_info_top(), nullptr), -1);
    EXPECT_EQ(dhcp_snooping_delete_client_by_filter(nullptr, &f), 0);
}

// ------------------------------------------------------------------ ageing ----

TEST_F(Bindings, ClientWithoutAckAgesSixtySecondsAfterItsLastMessage)
{
    ASSERT_NE(request(DHCPDISCOVER, mac_n(1), 10, 1), nullptr);
    g_now = 1030;
    ASSERT_NE(request(DHCPREQUEST, mac_n(1), 10, 1), nullptr);
    g_now = 1089;
    dhcp_snooping_aging_client_info();
    EXPECT_EQ(dhcp_snooping_get_client_count(), 1u);
    g_now = 1090;
    dhcp_snooping_aging_client_info();
    EXPECT_EQ(dhcp_snooping_get_client_count(), 0u);
    EXPECT_EQ(dhcp_session_list_count(), 0u);
}

TEST_F(Bindings, BoundClientAgesOnItsLeaseAndAlsoNeedsItsV6LeaseOver)
{
    dhcp_client_info_t *v4only = bind(mac_n(1), 10, ONU1, 600);
    dhcp_client_info_t *dual = bind(mac_n(2), 10, ONU1, 600);
    ASSERT_TRUE(v4only && dual);
    dual->v6_lease_time = 1200;
    dual->v6_last_update_time = 1000;
    g_now = 1599;
    dhcp_snooping_aging_client_info();
    EXPECT_EQ(dhcp_snooping_get_client_count(), 2u);
    g_now = 1600;
    dhcp_snooping_aging_client_info();
    EXPECT_EQ(dhcp_lookup_client_lease_info(mac_n(1).b, 10), nullptr);
    ASSERT_NE(dhcp_lookup_client_lease_info(mac_n(2).b, 10), nullptr);
    g_now = 2200;
    dhcp_snooping_aging_client_info();
    EXPECT_EQ(dhcp_snooping_get_client_count(), 0u);
}

TEST_F(Bindings, ChurnOfNewMacsStaysWithinTheLimitsAndLeavesNothingBehind)
{
    dhcp_set_max_session_id(100);
    std::uint64_t nodes_after_first = 0;
    for (unsigned round = 0; round < 5; ++round) {
        for (unsigned i = 0; i < 1000; ++i) request(DHCPDISCOVER, mac_n(round * 1000 + i), 10, i);
        EXPECT_EQ(dhcp_snooping_get_client_count(), 100u);
        EXPECT_EQ(dhcp_session_list_count(), 100u);
        g_now += 60;
        dhcp_snooping_aging_client_info();
        EXPECT_EQ(dhcp_snooping_get_client_count(), 0u);
        EXPECT_EQ(dhcp_session_list_count(), 0u);
        // The first round leaves only the session list and the indexes'
        // bucket arrays behind; later rounds add nothing.
        if (round == 0) nodes_after_first = MTYPE_LINK_NODE.n_alloc;
        EXPECT_EQ(MTYPE_LINK_NODE.n_alloc, nodes_after_first);
    }
    EXPECT_EQ(MTYPE_DHCP_CLIENT.n_alloc, base_client_);
}

// ----------------------------------------------------------------- DHCPv6 ----

TEST_F(Bindings, Dhcpv6ClientLearnsTransactionAndClientIdThenBinds)
{
    // SOLICIT, xid 0x123456, client id DUID-LL of 00:1a:00:00:00:01.
    std::vector<std::uint8_t> msg = {1, 0x12, 0x34, 0x56,
                                     0, 8, 0, 2, 0, 60,                            // elapsed time
                                     0, 1, 0, 10, 0, 3, 0, 1, 0x00, 0x1a, 0, 0, 0, 1};  // client id
    dhcp_l2_pkt_t p{};
    mac_t m = mac_n(1);
    std::memcpy(p.dhcp_client_addr, m.b, 6);
    p.l2fwd_info.rx_vlanid = 20;
    p.l2fwd_info.rx_ifindex = ONU2;
    p.dhcp_msg_type = 1;
    p.raw_packet = msg.data();
    p.raw_packet_len = std::uint16_t(msg.size());
    p.dhcp_msg_len = p.raw_packet_len;
    dhcp_client_info_t *c = dhcp_add_ipv6_client_lease_info(DHCP_BIND_TYPE_SNOOP, 60, &p);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->dhcp_v6, 1u);
    EXPECT_EQ(c->v6_trans_id, 0x123456u);
    EXPECT_EQ(std::memcmp(c->client_identifier, m.b, 6), 0);
    EXPECT_EQ(c->client_ifindex, ONU2);
    EXPECT_EQ(c->v6_lease_time, 60u);
    EXPECT_EQ(dhcp_session_list_count(), 1u);

    // Every cut of the message is read within its bounds.
    for (std::size_t n = 0; n < msg.size(); ++n) {
        std::vector<std::uint8_t> cut(msg.begin(), msg.begin() + long(n));
        p.raw_packet = cut.data();
        p.raw_packet_len = p.dhcp_msg_len = std::uint16_t(n);
        dhcp_update_ipv6_client_lease_info_from_request(c, 1, 60, &p);
    }

    std::uint8_t addr[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x42};
    g_now = 1100;
    ASSERT_EQ(dhcp_update_ipv6_client_lease_info(1, m.b, 20, addr, 7200), c);
    EXPECT_EQ(std::memcmp(c->ipv6_addr, addr, 16), 0);
    EXPECT_EQ(dhcp_session_list_count(), 0u);
    g_now = 1100 + 3600;
    dhcp_snooping_aging_client_info();
    EXPECT_EQ(dhcp_snooping_get_client_count(), 1u);  // the v4 part is long over, the v6 lease is not
    EXPECT_EQ(dhcp_update_ipv6_client_lease_info(1, mac_n(2).b, 20, addr, 1), nullptr);
}

// ------------------------------------------------------------------- shows ----

TEST_F(Bindings, ShowsListMatchingClientsAndNameMissingOnes)
{
    ASSERT_NE(bind(mac_n(1), 10, ONU1), nullptr);
    ASSERT_NE(bind(mac_n(2), 20, ONU2), nullptr);
    vty *v = vty_new_buffer(ENABLE_NODE);
    dhcp_cli_show_binding_info(v, nullptr, 20, 0, 0, 0);
    EXPECT_NE(v->out.find("Total binding entries: 1"), std::string::npos);
    EXPECT_NE(v->out.find("001a-0000-0002"), std::string::npos);
    EXPECT_EQ(v->out.find("001a-0000-0001"), std::string::npos);
    v->out.clear();
    dhcp_cli_show_binding_detail_info(v, mac_n(1).b, 20);
    EXPECT_EQ(v->out, "VLAN 20 client 001a-0000-0001 not existed. \n");
    v->out.clear();
    dhcp_cli_show_binding_detail_info(v, mac_n(1).b, 10);
    EXPECT_EQ(v->out.rfind("VLAN 10 client 001a-0000-0001 dhcpv4 info :\n", 0), 0u);
    EXPECT_NE(v->out.find("  client side packet statistic \n"), std::string::npos);
    EXPECT_NE(v->out.find("  server side packet statistic \n"), std::string::npos);
    EXPECT_EQ(v->out.find("dhcpv6 info"), std::string::npos);
    vty_free(v);
}

} // namespace
