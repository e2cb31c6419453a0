// The binding table: learning, sessions and their limit, xid changes, every
// delete form against its rule, ageing on a scripted clock, order and indexes.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <cstring>
#include <functional>
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
#include "lib/vty.h"
#include "platform/errcode.h"

namespace {

std::uint32_t g_now = 1000;
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

// A DHCPv4 message as received: the BOOTP header, the cookie and options;
// pkt() sets the pointers once the frame has its final address.
struct frame {
    std::vector<std::uint8_t> bytes;
    dhcp_l2_pkt_t p{};
    const dhcp_l2_pkt_t *pkt()
    {
        p.raw_packet = bytes.data();
        p.raw_packet_len = p.raw_buf_len = p.dhcp_msg_len = std::uint16_t(bytes.size());
        return &p;
    }
};

frame make_msg(int op, int type, const mac_t &m, std::uint16_t vid, std::uint32_t xid, std::uint32_t lease = 0)
{
    frame f;
    f.bytes.assign(DHCP_FIXED_HDR_LEN, 0);
    f.bytes[DHCP_OFF_OP] = std::uint8_t(op);
    std::memcpy(&f.bytes[DHCP_OFF_CHADDR], m.b, 6);
    put_be32_at(f.bytes, DHCP_OFF_COOKIE, DHCP_MAGIC);
    f.bytes.insert(f.bytes.end(), {DHCP_MESSAGE_TYPE, 1, std::uint8_t(type)});
    if (lease) {
        f.bytes.insert(f.bytes.end(), {DHCP_LEASE_TIME, 4, 0, 0, 0, 0});
        put_be32_at(f.bytes, f.bytes.size() - 4, lease);
    }
    f.bytes.push_back(DHCP_END);
    f.p.l2fwd_info.rx_vlanid = f.p.l2fwd_info.relay_vid = vid;
    f.p.l2fwd_info.rx_ifindex = op == BOOTREQUEST ? ONU1 : GE1;
    std::memcpy(f.p.dhcp_client_addr, m.b, 6);
    f.p.dhcp_op_code = std::uint16_t(op);
    f.p.dhcp_msg_type = std::uint16_t(type);
    f.p.dhcp_curr_xid = xid;
    f.p.op51_lease_time = lease;
    return f;
}

dhcp_client_info_t *request(int type, const mac_t &m, std::uint16_t vid, std::uint32_t xid)
{
    frame f = make_msg(BOOTREQUEST, type, m, vid, xid);
    return dhcp_add_client_lease_info(DHCP_BIND_TYPE_SNOOP, f.pkt());
}

// An ACK for yiaddr; lease 0 leaves option 51 out.
dhcp_client_info_t *ack(const mac_t &m, std::uint16_t vid, std::uint32_t xid, const char *yiaddr, std::uint32_t lease)
{
    frame f = make_msg(BOOTREPLY, DHCPACK, m, vid, xid, lease);
    f.p.dhcp_offer_ip = ip(yiaddr);
    f.p.ipv4_src_addr = ip("10.0.0.1");
    f.p.op54_dhcp_server = ip("10.9.9.9");
    return dhcp_update_client_lease_info(vid, DHCP_BIND_TYPE_SNOOP, f.pkt());
}

// {clients in the table, sessions held}
std::pair<std::uint32_t, std::uint32_t> counts()
{
    return {dhcp_snooping_get_client_count(), dhcp_session_list_count()};
}

// A bound client learnt through DISCOVER and ACK.
dhcp_client_info_t *bind(const mac_t &m, std::uint16_t vid, std::uint32_t ifindex, std::uint32_t lease = 3600)
{
    frame f = make_msg(BOOTREQUEST, DHCPDISCOVER, m, vid, 0x1111);
    f.p.l2fwd_info.rx_ifindex = ifindex;
    if (!dhcp_add_client_lease_info(DHCP_BIND_TYPE_SNOOP, f.pkt())) return nullptr;
    return ack(m, vid, 0x1111, "10.0.0.10", lease);
}

class DhcpBindings : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_now = 1000;
        dhcp_client_set_clock([] { return g_now; });
        uif_init();
        uvlan_init();
        dhcp_ipsg_init();
        ASSERT_TRUE(dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX));
        dhcp_set_max_session_id(DHCP_MAX_SESSION_DEFAULT);
        base_client_ = MTYPE_DHCP_CLIENT.n_alloc;
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
    std::uint64_t base_client_ = 0;
};

TEST_F(DhcpBindings, DiscoverCreatesAPendingClientHoldingASession)
{
    mac_t m = mac_n(1);
    frame f = make_msg(BOOTREQUEST, DHCPDISCOVER, m, 10, 0xaabbccdd);
    f.p.l2fwd_info.srv_vid = 200;
    f.p.l2fwd_info.usr_vid = 35;
    dhcp_client_info_t *c = dhcp_add_client_lease_info(DHCP_BIND_TYPE_SNOOP, f.pkt());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->v4_lease_time, 60u);
    EXPECT_EQ(c->v4_create_time, 1000u);
    EXPECT_EQ(std::vector<int>({int(c->in_vlan_stack_depth), c->in_vlan_stack[0], c->in_vlan_stack[1]}),
              std::vector<int>({2, 200, 35}));
    EXPECT_EQ(c->v4_curr_xid, 0xaabbccddu);
    EXPECT_EQ(c->client_ifindex, ONU1);
    EXPECT_EQ(c->out_vlan_stack[0], 10);
    EXPECT_NE(dhcp_session_client_lookup(10, m.b), nullptr);
    EXPECT_EQ(dhcp_lookup_client_lease_info(m.b, 10), c);
    EXPECT_EQ(dhcp_lookup_client_lease_info(m.b, 11), nullptr);

    // The flow's tags follow each message of the same exchange; without a
    // service VLAN the depth is 0.
    const std::uint16_t tags[][3] = {{101, 0, 1}, {0, 35, 0}, {200, 35, 2}};  // service, user, depth
    for (const auto &t : tags) {
        frame g = make_msg(BOOTREQUEST, DHCPREQUEST, m, 10, 0xaabbccdd);
        g.p.l2fwd_info.srv_vid = t[0];
        g.p.l2fwd_info.usr_vid = t[1];
        ASSERT_EQ(dhcp_add_client_lease_info(1, g.pkt()), c);
        EXPECT_EQ(c->in_vlan_stack_depth, t[2]) << t[0] << "." << t[1];
    }
}

TEST_F(DhcpBindings, AckBindsTheAddressAndReleasesTheSession)
{
    mac_t m = mac_n(1);
    ASSERT_NE(request(DHCPDISCOVER, m, 10, 7), nullptr);
    frame f = make_msg(BOOTREPLY, DHCPACK, m, 10, 7, 7200);
    f.p.dhcp_offer_ip = ip("10.0.0.20");
    f.p.ipv4_src_addr = ip("10.0.0.1");
    f.p.op54_dhcp_server = ip("10.9.9.9");
    g_now = 1010;
    dhcp_client_info_t *c = dhcp_update_client_lease_info(10, DHCP_BIND_TYPE_SNOOP, f.pkt());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->ip_addr, ip("10.0.0.20"));
    EXPECT_EQ(c->ip_server_addr, ip("10.0.0.1"));  // the frame's source, not option 54
    EXPECT_EQ(c->server_ifindex, GE1);
    EXPECT_EQ(c->v4_lease_time, 7200u);
    EXPECT_EQ(c->v4_last_update_msg, 5u);
    EXPECT_EQ(c->v4_last_update_time, 1010u);
    EXPECT_EQ(c->client_ifindex, ONU1);  // kept from the request
    EXPECT_EQ(dhcp_session_list_count(), 0u);

    EXPECT_EQ(ack(m, 10, 7, "10.0.0.20", 0)->v4_lease_time, 864000u) << "no option 51: ten days";
    EXPECT_EQ(ack(mac_n(9), 10, 7, "10.0.0.21", 60), nullptr) << "unknown client";
    EXPECT_EQ(dhcp_snooping_get_client_count(), 1u);

    // Only DISCOVER, REQUEST and INFORM take the client's port from the request.
    const std::uint32_t requests[][3] = {  // type, received on, port afterwards
        {DHCPREQUEST, ONU2, ONU2}, {DHCPDECLINE, GE1, ONU2}, {DHCPINFORM, GE1, GE1}, {DHCPRELEASE, ONU1, GE1}};
    for (const auto &r : requests) {
        frame g = make_msg(BOOTREQUEST, int(r[0]), m, 10, 7);
        g.p.l2fwd_info.rx_ifindex = r[1];
        ASSERT_EQ(dhcp_update_client_lease_info(10, DHCP_BIND_TYPE_SNOOP, g.pkt()), c);
        EXPECT_EQ(c->client_ifindex, r[2]) << r[0];
    }
}

TEST_F(DhcpBindings, FullSessionListOrTableRefusesNewClientsButServesKnownOnes)
{
    dhcp_set_max_session_id(2);
    dhcp_client_info_t *a = request(DHCPDISCOVER, mac_n(1), 10, 1);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(request(DHCPDISCOVER, mac_n(2), 10, 2), nullptr);
    EXPECT_EQ(request(DHCPDISCOVER, mac_n(3), 10, 3), nullptr);
    EXPECT_EQ(dhcp_snooping_get_client_count(), 2u);
    EXPECT_EQ(request(DHCPREQUEST, mac_n(1), 10, 1), a) << "in its exchange it keeps its session";
    // Once bound it leaves its session to a newcomer.
    ASSERT_NE(ack(mac_n(1), 10, 1, "10.0.0.5", 600), nullptr);
    EXPECT_NE(request(DHCPDISCOVER, mac_n(3), 10, 3), nullptr);
    EXPECT_EQ(dhcp_session_list_count(), 2u);

    // A full table creates nothing and leaves no session behind.
    dhcp_set_max_session_id(DHCP_MAX_SESSION_DEFAULT);
    ASSERT_TRUE(dhcp_client_tree_create(2));
    ASSERT_NE(request(DHCPDISCOVER, mac_n(1), 10, 1), nullptr);
    ASSERT_NE(request(DHCPDISCOVER, mac_n(2), 10, 1), nullptr);
    EXPECT_EQ(request(DHCPDISCOVER, mac_n(3), 10, 1), nullptr);
    EXPECT_EQ(counts(), std::pair(2u, 2u));
    // A delete frees the session of a pending client.
    EXPECT_EQ(dhcp_delete_client_by_vlan_mac(10, mac_n(1).b), 0);
    EXPECT_EQ(dhcp_session_list_count(), 1u);
    EXPECT_EQ(dhcp_delete_client_by_vlan_mac(10, mac_n(1).b), TAVO_NOT_FOUND);
}

TEST_F(DhcpBindings, NewXidClearsTheAddressAndNeedsASessionAgain)
{
    dhcp_set_max_session_id(1);
    mac_t m = mac_n(1);
    dhcp_client_info_t *c = bind(m, 10, ONU1);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(request(DHCPREQUEST, m, 10, 0x1111), c) << "same xid on a bound client: no session needed";
    EXPECT_EQ(dhcp_session_list_count(), 0u);
    EXPECT_EQ(c->ip_addr, ip("10.0.0.10"));

    // Another client takes the only session; the bound one starts over.
    ASSERT_NE(request(DHCPDISCOVER, mac_n(2), 10, 5), nullptr);
    g_now = 1100;
    EXPECT_EQ(request(DHCPDISCOVER, m, 10, 0x2222), nullptr) << "refused, but changed and kept";
    EXPECT_EQ(dhcp_lookup_client_lease_info(m.b, 10), c);
    EXPECT_EQ(c->ip_addr | c->ip_server_addr, 0u);
    EXPECT_EQ(c->v4_curr_xid, 0x2222u);
    EXPECT_EQ(c->v4_lease_time, 60u);  // a DISCOVER starts the short lease again
    EXPECT_EQ(c->v4_last_update_time, 1100u);
    dhcp_snooping_delete_client_info_by_vlan_mac(mac_n(2).b, 10);
    EXPECT_EQ(request(DHCPREQUEST, m, 10, 0x2222), c);
    EXPECT_NE(dhcp_session_client_lookup(10, m.b), nullptr);
}

TEST_F(DhcpBindings, TableOrderKeysAndThePortIndex)
{
    const std::pair<unsigned, std::uint16_t> keys[] = {{0x0302, 20}, {0x0101, 20}, {0xffff, 3}, {0x0201, 300},
                                                       {0x0102, 20}};
    for (auto [n, vid] : keys) ASSERT_NE(dhcp_new_client_lease_info(mac_n(n).b, vid, 1), nullptr);
    EXPECT_EQ(dhcp_new_client_lease_info(mac_n(0x0101).b, 20, 1), nullptr) << "already there";
    std::vector<std::pair<int, unsigned>> order;
    for (dhcp_client_info_t *c = dhcp_client_info_top(); c; c = dhcp_client_info_next(c))
        order.emplace_back(c->vid, c->mac[4] << 8 | c->mac[5]);
    EXPECT_EQ(order, (std::vector<std::pair<int, unsigned>>{{3, 0xffff}, {20, 0x0101}, {20, 0x0102}, {20, 0x0302},
                                                            {300, 0x0201}}));

    // A client moving port is found under its new port only.
    dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX);
    mac_t m = mac_n(1);
    ASSERT_NE(bind(m, 10, ONU1), nullptr);
    ASSERT_NE(bind(mac_n(2), 10, ONU1), nullptr);
    frame g = make_msg(BOOTREQUEST, DHCPREQUEST, m, 10, 0x1111);
    g.p.l2fwd_info.rx_ifindex = ONU2;
    ASSERT_NE(dhcp_update_client_lease_info(10, 1, g.pkt()), nullptr);
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

// --------------------------------------------------------- delete rules ----

// A delete filter's fields, or a client's (type meaning its bind type).
struct fields {
    const char *what;
    mac_t mac;
    std::uint16_t vid;
    std::uint32_t ifindex, type;
};

// The per-client rule of a delete filter (no ageing), written out plainly:
// the indexes must hit exactly the clients this rule hits.
bool model_hits(const fields &c, const fields &f)
{
    if (f.type && f.type == c.type) return true;
    if (f.ifindex && f.ifindex == c.ifindex) return true;
    if (f.vid) return f.vid == c.vid;
    return std::memcmp(f.mac.b, c.mac.b, 6) == 0;
}

class DhcpDeleteRules : public DhcpBindings {
protected:
    // 300 random clients (duplicate keys skipped), some with the all-zero MAC.
    void populate()
    {
        model_.clear();
        ASSERT_TRUE(dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX));
        std::mt19937 rng(42);
        const std::uint16_t vids[] = {1, 10, 11, 4094};
        const std::uint32_t ports[] = {0, ONU1, ONU2, GE1};
        for (int i = 0; i < 300; ++i) {
            fields c{"", mac_n(rng() % 64), vids[rng() % 4], ports[rng() % 4], 1 + std::uint32_t(rng() % 4)};
            if (i % 50 == 0) c.mac = mac_t{};
            dhcp_client_info_t *rec = dhcp_new_client_lease_info(c.mac.b, c.vid, 1);
            if (!rec) continue;
            rec->client_ifindex = c.ifindex;
            rec->v4_bind_type = c.type;
            dhcp_client_info_reindex(rec);
            model_.push_back(c);
        }
    }
    void expect_survivors(const fields &f)
    {
        using key = std::tuple<int, std::string>;
        std::set<key> want, got;
        for (const fields &c : model_)
            if (!model_hits(c, f)) want.emplace(c.vid, std::string(reinterpret_cast<const char *>(c.mac.b), 6));
        for (dhcp_client_info_t *c = dhcp_client_info_top(); c; c = dhcp_client_info_next(c))
            got.emplace(c->vid, std::string(reinterpret_cast<const char *>(c->mac), 6));
        EXPECT_EQ(got, want);
        EXPECT_EQ(dhcp_snooping_get_client_count(), want.size());
    }
    std::vector<fields> model_;
};

TEST_F(DhcpDeleteRules, EveryFilterDeletesExactlyWhatItsRuleHits)
{
    const fields cases[] = {
        {"by mac", mac_n(7), 0, 0, 0},           {"by zero mac", mac_t{}, 0, 0, 0},
        {"by vlan, mac not compared", mac_n(7), 10, 0, 0}, {"by vlan 4094", mac_t{}, 4094, 0, 0},
        {"by port (zero-mac clients too)", mac_t{}, 0, ONU1, 0}, {"by port or vlan", mac_t{}, 11, ONU2, 0},
        {"by port or mac", mac_n(9), 0, GE1, 0}, {"by bind type", mac_t{}, 0, 0, 2},
        {"by bind type or vlan", mac_t{}, 1, 0, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        populate();
        dhcp_client_filter_t f{DHCP_CLIENT_FILTER_DELETE, nullptr, 0, {}, c.vid, c.ifindex, c.type, 0};
        std::memcpy(f.mac, c.mac.b, 6);
        std::uint32_t before = dhcp_snooping_get_client_count();
        int deleted = dhcp_snooping_travers_client_by_filter(&f);
        EXPECT_EQ(std::uint32_t(deleted), before - dhcp_snooping_get_client_count());
        expect_survivors(c);
    }
    // Another action deletes nothing; a missing filter is refused.
    dhcp_client_filter_t show{DHCP_CLIENT_FILTER_SHOW, nullptr, 0, {}, 0, 0, 0, 0};
    EXPECT_EQ(dhcp_snooping_travers_client_by_filter(&show), 0);
    EXPECT_EQ(dhcp_snooping_travers_client_by_filter(nullptr), -1);
    EXPECT_EQ(dhcp_snooping_delete_client_by_filter(dhcp_client_info_top(), nullptr), -1);
}

TEST_F(DhcpDeleteRules, WrappersDeleteByTheirOneField)
{
    const std::pair<fields, std::function<void()>> cases[] = {
        {{"vlan", mac_t{}, 10, 0, 0}, [] { dhcp_snooping_delete_client_info_by_vlan(10); }},
        {{"mac", mac_n(5), 0, 0, 0}, [] { dhcp_snooping_delete_client_info_by_mac(mac_n(5).b); }},
        // Their filter's MAC is all zero: zero-MAC clients go as well.
        {{"type", mac_t{}, 0, 0, 4}, [] { dhcp_snooping_delete_client_info_by_type(4); }},
        {{"port", mac_t{}, 0, ONU2, 0}, [] { dhcp_snooping_delete_client_info_by_port(ONU2); }},
    };
    for (const auto &[filter, run] : cases) {
        SCOPED_TRACE(filter.what);
        populate();
        run();
        expect_survivors(filter);
    }
    dhcp_snooping_delete_all_client_info();
    EXPECT_EQ(dhcp_client_info_top(), nullptr);
}

// --------------------------------------------------------------- ageing ----

TEST_F(DhcpBindings, AgeingNeedsTheV4AndTheV6LeaseOver)
{
    ASSERT_NE(request(DHCPDISCOVER, mac_n(1), 10, 1), nullptr);
    dhcp_client_info_t *v4only = bind(mac_n(2), 10, ONU1, 600), *dual = bind(mac_n(3), 10, ONU1, 600);
    ASSERT_TRUE(v4only && dual);
    dual->v6_lease_time = 1200;
    dual->v6_last_update_time = 1000;
    g_now = 1030;
    ASSERT_NE(request(DHCPREQUEST, mac_n(1), 10, 1), nullptr);  // without ACK: 60 s after its last message
    const std::pair<std::uint32_t, std::uint32_t> steps[] = {{1089, 3}, {1090, 2}, {1599, 2}, {1600, 1}, {2200, 0}};
    for (auto [now, left] : steps) {
        g_now = now;
        dhcp_snooping_aging_client_info();
        EXPECT_EQ(dhcp_snooping_get_client_count(), left) << now;
    }
    EXPECT_EQ(dhcp_session_list_count(), 0u);
}

TEST_F(DhcpBindings, ChurnOfNewMacsStaysWithinTheLimitsAndLeavesNothingBehind)
{
    dhcp_set_max_session_id(100);
    std::uint64_t nodes_after_first = 0;
    for (unsigned round = 0; round < 5; ++round) {
        for (unsigned i = 0; i < 1000; ++i) request(DHCPDISCOVER, mac_n(round * 1000 + i), 10, i);
        EXPECT_EQ(counts(), std::pair(100u, 100u));
        g_now += 60;
        dhcp_snooping_aging_client_info();
        EXPECT_EQ(counts(), std::pair(0u, 0u));
        // Only the first round leaves the session list and the indexes' buckets.
        if (round == 0) nodes_after_first = MTYPE_LINK_NODE.n_alloc;
        EXPECT_EQ(MTYPE_LINK_NODE.n_alloc, nodes_after_first);
    }
    EXPECT_EQ(MTYPE_DHCP_CLIENT.n_alloc, base_client_);
}

TEST_F(DhcpBindings, ShowsFilterByVlanAndNameMissingClients)
{
    ASSERT_NE(bind(mac_n(1), 10, ONU1), nullptr);
    ASSERT_NE(bind(mac_n(2), 20, ONU2), nullptr);
    vty *v = vty_new_buffer(ENABLE_NODE);
    dhcp_cli_show_binding_info(v, nullptr, 20, 0, 0, 0);
    EXPECT_EQ(v->out.substr(0, v->out.find('\n')), "Total binding entries: 1");
    EXPECT_EQ(v->out.find("001a-0000-0001"), std::string::npos);
    v->out.clear();
    dhcp_cli_show_binding_detail_info(v, mac_n(1).b, 20);
    EXPECT_EQ(v->out, "VLAN 20 client 001a-0000-0001 not existed. \n");
    vty_free(v);
}

}  // namespace
