// DHCPv4 layer-3 relay forwarding: fan-out of DISCOVER over every (relay
// address, server) pair, the chosen server after an OFFER, the NAK to an
// unknown client, xid checks on replies, source and destination of replies.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_l2relay.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcpr.h"
#include "platform/errcode.h"
#include "tests/support/hal_session.h"

namespace {

using bytes = std::vector<std::uint8_t>;
const std::uint8_t CLIENT[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr std::size_t MSG_OFF = 42;
constexpr std::uint16_t VID = 100;

std::uint32_t ip(const char *s) { return inet_addr(s); }

struct sent_udp { int fd; std::uint32_t to; std::uint16_t port; bytes msg; };
std::vector<sent_udp> g_udp;

ssize_t capture(int fd, const std::uint8_t *m, std::size_t len, const sockaddr_in *to)
{
    g_udp.push_back({fd, to->sin_addr.s_addr, ntohs(to->sin_port), bytes(m, m + len)});
    return static_cast<ssize_t>(len);
}

struct msg_spec {
    int op, type;
    std::uint32_t xid = 0x1234, yiaddr = 0, giaddr = 0, ciaddr = 0, ip_src = 0, ip_dst = 0xffffffffu;
    std::uint32_t server_id = 0;  // option 54 when non-zero
    std::uint8_t hops = 0;
};

// Addresses are in network order already.
void put_ip(bytes &f, std::size_t off, std::uint32_t v) { std::memcpy(&f[off], &v, 4); }

std::uint32_t at32(const bytes &m, std::size_t off) { std::uint32_t v = 0; std::memcpy(&v, &m[off], 4); return v; }

// Untagged Ethernet, IPv4, UDP, BOOTP with option 53 (and 54).
bytes frame(const msg_spec &s)
{
    bytes f(MSG_OFF + DHCP_OFF_OPTIONS, 0);
    std::memset(f.data(), 0xff, 6);
    std::memcpy(f.data() + 6, CLIENT, 6);
    put_be16_at(f, 12, 0x0800);
    f[14] = 0x45;
    f[22] = 64;
    f[23] = 17;
    put_ip(f, 26, s.ip_src);
    put_ip(f, 30, s.ip_dst);
    put_be16_at(f, 34, s.op == BOOTREQUEST ? 68 : 67);
    put_be16_at(f, 36, s.op == BOOTREQUEST ? 67 : 68);
    const std::size_t m = MSG_OFF;
    f[m + DHCP_OFF_OP] = std::uint8_t(s.op);
    f[m + DHCP_OFF_HTYPE] = 1;
    f[m + DHCP_OFF_HLEN] = 6;
    f[m + DHCP_OFF_HOPS] = s.hops;
    put_be32_at(f, m + DHCP_OFF_XID, s.xid);
    put_ip(f, m + DHCP_OFF_CIADDR, s.ciaddr);
    put_ip(f, m + DHCP_OFF_YIADDR, s.yiaddr);
    put_ip(f, m + DHCP_OFF_GIADDR, s.giaddr);
    std::memcpy(&f[m + DHCP_OFF_CHADDR], CLIENT, 6);
    put_be32_at(f, m + DHCP_OFF_COOKIE, DHCP_MAGIC);
    f.insert(f.end(), {53, 1, std::uint8_t(s.type)});
    if (s.server_id) {
        f.insert(f.end(), {54, 4, 0, 0, 0, 0});
        put_ip(f, f.size() - 4, s.server_id);
    }
    f.push_back(255);
    put_be16_at(f, 16, std::uint16_t(f.size() - 14));
    put_be16_at(f, 38, std::uint16_t(f.size() - 34));
    return f;
}

class RelayFwd : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_udp.clear();
        dhcpr_set_sendto(capture);
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        dhcp_ipsg_init();
        dhcp_pkt_statistic_init();
        dhcp_l3if_init();
        ASSERT_TRUE(hal_.start("relayfwd"));
        uvlan_create(VID);
        ASSERT_EQ(dhcp_vlan_init(VID), 0);
        onu_ = port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, 1, 1));
        up_ = port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0));
        dhcp_port_trust_set(up_, 1);
        dhcp_relay_enable_set(1);

        ifp_ = if_get_by_name("vlanif100");
        ASSERT_NE(ifp_, nullptr);
        ASSERT_EQ(dhcp_if_init(ifp_), 0);
        for (auto [a, len] : {std::pair{"10.0.0.1", 24}, std::pair{"10.1.0.1", 16}}) {
            prefix p{};
            p.family = AF_INET;
            p.prefixlen = std::uint8_t(len);
            p.u.prefix4.s_addr = ip(a);
            dhcp_interface_address_add(ifp_, &p);
        }
        ASSERT_EQ(dhcpr_interface_enable(ifp_), 0);
        d_ = dhcpr_info_get_by_interface(ifp_);
        ASSERT_NE(d_, nullptr);
        d_->local_ipaddr = ip("10.0.0.1");
        std::memcpy(d_->local_mac, "\x02\x00\x00\x00\x00\x01", 6);
        ASSERT_EQ(dhcpr_add_helper(ifp_, ip("192.0.2.10")), 0);
        ASSERT_EQ(dhcpr_add_helper(ifp_, ip("192.0.2.20")), 0);
        // Stands for the socket bound to port 67; sends go to the seam.
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_GT(fd_, 0);
        d_->server_fd = fd_;
        sent(0);
    }
    void TearDown() override
    {
        dhcp_relay_enable_set(0);
        dhcp_l3if_clear();
        hal_.stop();
        dhcpr_set_sendto(nullptr);
        dhcp_ipsg_init();
        dhcp_client_tree_destroy();
        for (uif_t *p = uif_first(); p; p = uif_next(p)) dhcp_port_deinit(p);
        dhcp_vlan_free(vlan_get_entry(VID));
        uvlan_clear();
        uif_clear();
    }
    uif_t *port(std::uint32_t ifindex)
    {
        uif_t *p = uif_get_or_create(ifindex, true);
        char name[32];
        st_get_ifname_by_ifindex(ifindex, name, sizeof name);
        uif_set_name(p, name);
        p->status = 1;
        dhcp_port_init(p);
        return p;
    }
    int rx(uif_t *pif, const msg_spec &s)
    {
        buf_ = frame(s);
        pkt_ = {};
        pkt_.raw_packet_len = std::uint16_t(buf_.size());
        buf_.resize(1600, 0);
        pkt_.raw_packet = buf_.data();
        pkt_.raw_buf_len = 1600;
        pkt_.l2fwd_info.rx_ifindex = pif->ifindex;
        pkt_.l2fwd_info.rx_vlanid = VID;
        EXPECT_EQ(dhcp_parse_l2_pkt(&pkt_), 0);
        return dhcp_l3relay_proc_dhcpv4_packet(pif, &pkt_);
    }
    int request(int type, std::uint32_t xid = 0x1234, std::uint32_t ciaddr = 0)
    {
        msg_spec s{BOOTREQUEST, type, xid};
        s.ciaddr = ciaddr;
        return rx(onu_, s);
    }
    // A server's reply through relay address `giaddr`.
    int reply(int type, std::uint32_t yiaddr, std::uint32_t giaddr, std::uint32_t server, std::uint32_t xid = 0x1234)
    {
        msg_spec s{BOOTREPLY, type, xid, yiaddr, giaddr};
        s.ip_src = server;
        s.ip_dst = giaddr;
        s.server_id = server;
        return rx(up_, s);
    }
    // Frames handed to the forwarding plane since the last call, as bytes.
    std::vector<std::pair<hal_msg_pkt_t, bytes>> sent(std::size_t expect)
    {
        if (expect) EXPECT_TRUE(hal_.fp.wait_received(expect, 2000));
        else usleep(50 * 1000);
        std::vector<fake_fp_msg> held = hal_.fp.received();
        hal_.fp.clear_received();
        std::vector<std::pair<hal_msg_pkt_t, bytes>> out;
        for (const fake_fp_msg &m : held) {
            hal_msg_pkt_t p{};
            if (m.hdr.nlmsg_type == 1 && hal_msg_pkt_decode(m.payload(), p))
                out.push_back({p, bytes(p.data, p.data + p.len)});
        }
        return out;
    }
    // A DISCOVER, then the OFFER of `server` through `relay` delivered to the client.
    void discover_and_offer(std::uint32_t relay, std::uint32_t server, std::uint32_t offered)
    {
        ASSERT_EQ(request(DHCPDISCOVER), 0);
        ASSERT_EQ(reply(DHCPOFFER, offered, relay, server), 0);
        g_udp.clear();
    }

    hal_session hal_;
    uif_t *onu_ = nullptr, *up_ = nullptr;
    interface *ifp_ = nullptr;
    dhcpr_t *d_ = nullptr;
    int fd_ = -1;
    bytes buf_;
    dhcp_l2_pkt_t pkt_{};
};

// Offsets in a frame to the client: tagged Ethernet, IPv4, UDP, message.
constexpr std::size_t IP_SRC = 18 + 12, IP_DST = 18 + 16, MSG = 18 + 28;

TEST_F(RelayFwd, DiscoverGoesToEveryServerThroughEveryRelayAddress)
{
    msg_spec s{BOOTREQUEST, DHCPDISCOVER};
    s.hops = 3;
    ASSERT_EQ(rx(onu_, s), 0);
    ASSERT_EQ(g_udp.size(), 4u);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> pairs;
    for (const sent_udp &u : g_udp) {
        EXPECT_EQ(u.fd, fd_);
        EXPECT_EQ(u.port, 67);
        EXPECT_EQ(u.msg[DHCP_OFF_HOPS], 3) << "hop count left as the client sent it";
        pairs.push_back({at32(u.msg, DHCP_OFF_GIADDR), u.to});
    }
    std::vector<std::pair<std::uint32_t, std::uint32_t>> want = {
        {ip("10.0.0.1"), ip("192.0.2.10")}, {ip("10.1.0.1"), ip("192.0.2.10")},
        {ip("10.0.0.1"), ip("192.0.2.20")}, {ip("10.1.0.1"), ip("192.0.2.20")}};
    EXPECT_EQ(pairs, want) << "servers in configuration order, relay addresses within";

    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(CLIENT, VID);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->v4_bind_type, unsigned(DHCP_BIND_TYPE_RELAY));
    EXPECT_EQ(c->v4_lease_time, 60u);
    EXPECT_EQ(dhcpr_offer_info_count(c), 4u);
    EXPECT_EQ(d_->server_fd_pkts_tx, 4u);
    EXPECT_EQ(dhcpr_find_server_info_by_ipv4(d_, ip("192.0.2.10"))->tx_discovery, 2u);
    EXPECT_EQ(c->statis_server.dhcp_tx_discovery, 4u);
    EXPECT_EQ(c->statis_client.dhcp_rx_discovery, 1u);

    // A retransmission with the same xid keeps the list; a new xid starts over.
    ASSERT_EQ(rx(onu_, s), 0);
    EXPECT_EQ(dhcpr_offer_info_count(c), 4u);
    s.xid = 0x5678;
    ASSERT_EQ(rx(onu_, s), 0);
    EXPECT_EQ(dhcpr_offer_info_count(c), 4u);
    for (dhcp_relay_offer_info_t *e : *c->offer_info_list) EXPECT_EQ(e->xid, htonl(0x5678));
}

TEST_F(RelayFwd, AfterAnOfferTheClientTalksToThatServerOnly)
{
    discover_and_offer(ip("10.1.0.1"), ip("192.0.2.20"), ip("10.1.3.7"));
    // The OFFER reached the client from the relay address of its prefix.
    auto frames = sent(1);
    ASSERT_EQ(frames.size(), 1u);
    const bytes &f = frames[0].second;
    ASSERT_GE(f.size(), MSG + DHCP_FIXED_HDR_LEN);
    EXPECT_EQ(frames[0].first.fwd_info.vid, VID);
    EXPECT_EQ(frames[0].first.ifindex, onu_->ifindex) << "to the client's port";
    EXPECT_EQ(0, std::memcmp(&f[0], CLIENT, 6)) << "to the client's MAC";
    EXPECT_EQ(at32(f, MSG + DHCP_OFF_SIADDR), ip("10.1.0.1")) << "the relay address of yiaddr's prefix";
    EXPECT_EQ(at32(f, MSG + DHCP_OFF_GIADDR), ip("10.1.0.1"));

    relay_ip_info_t *r = dhcpr_find_relay_ip_info_by_ipv4(d_, ip("10.1.0.1"));
    EXPECT_EQ(r->rx_offer, 1u);
    EXPECT_EQ(r->cnt_xid_offer_match, 1u);
    EXPECT_EQ(dhcpr_find_server_info_by_ipv4(d_, ip("192.0.2.20"))->rx_offer, 1u);

    for (int type : {DHCPREQUEST, DHCPRELEASE}) {
        SCOPED_TRACE(dhcp_msg_type_str(type));
        g_udp.clear();
        ASSERT_EQ(request(type), 0);
        ASSERT_EQ(g_udp.size(), 1u);
        EXPECT_EQ(g_udp[0].to, ip("192.0.2.20"));
        EXPECT_EQ(at32(g_udp[0].msg, DHCP_OFF_GIADDR), ip("10.1.0.1"));
    }
}

// The REQUEST follows the offer list, not the client: the first entry (in
// server, then relay-address order) that holds an offer gets it, whichever
// server the client names in option 54.
TEST_F(RelayFwd, RequestGoesToTheFirstServerThatOfferedNotTheOneTheClientChose)
{
    ASSERT_EQ(request(DHCPDISCOVER), 0);
    ASSERT_EQ(reply(DHCPOFFER, ip("10.1.3.7"), ip("10.1.0.1"), ip("192.0.2.20")), 0);
    ASSERT_EQ(reply(DHCPOFFER, ip("10.0.0.50"), ip("10.0.0.1"), ip("192.0.2.10")), 0);
    g_udp.clear();
    msg_spec s{BOOTREQUEST, DHCPREQUEST};
    s.server_id = ip("192.0.2.20");
    ASSERT_EQ(rx(onu_, s), 0);
    ASSERT_EQ(g_udp.size(), 1u);
    EXPECT_EQ(g_udp[0].to, ip("192.0.2.10"));
    EXPECT_EQ(at32(g_udp[0].msg, DHCP_OFF_GIADDR), ip("10.0.0.1"));
}

TEST_F(RelayFwd, RequestWithoutAnyOfferIsNotRelayed)
{
    ASSERT_EQ(request(DHCPDISCOVER), 0);
    g_udp.clear();
    for (int type : {DHCPREQUEST, DHCPDECLINE, DHCPINFORM}) EXPECT_EQ(request(type), 0);
    EXPECT_TRUE(g_udp.empty());
}

TEST_F(RelayFwd, RequestFromUnknownClientGetsA250ByteNak)
{
    ASSERT_EQ(request(DHCPREQUEST), 0);
    EXPECT_TRUE(g_udp.empty()) << "not relayed";
    auto frames = sent(1);
    ASSERT_EQ(frames.size(), 1u);
    const bytes &f = frames[0].second;
    ASSERT_EQ(f.size(), MSG + DHCPR_NAK_LEN);
    EXPECT_EQ(frames[0].first.ifindex, onu_->ifindex) << "back out of the receiving port";
    EXPECT_EQ(at32(f, IP_DST), 0xffffffffu) << "no requested address: broadcast";
    EXPECT_EQ(f[MSG + DHCP_OFF_OP], BOOTREPLY);
    EXPECT_EQ(at32(f, MSG + DHCP_OFF_XID), htonl(0x1234));
    EXPECT_EQ(at32(f, MSG + DHCP_OFF_SIADDR), 0u);
    const std::uint8_t opts[] = {54, 4, 10, 0, 0, 1, 53, 1, 6, 255};
    EXPECT_EQ(0, std::memcmp(&f[MSG + DHCP_OFF_OPTIONS], opts, sizeof opts));
}

TEST_F(RelayFwd, RequestUnderANewXid)
{
    // Without ciaddr the offers are gone and the client gets the NAK; a
    // renewing client (ciaddr as remembered) keeps its server and its offers.
    struct row {
        const char *what;
        std::uint32_t ciaddr;
        std::uint32_t relayed_to;  // 0: not relayed
        std::size_t naks, offers_left;
    } rows[] = {
        {"no ciaddr", 0, 0, 1, 0},
        {"renewing", ip("10.0.0.50"), ip("192.0.2.10"), 0, 4},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        discover_and_offer(ip("10.0.0.1"), ip("192.0.2.10"), ip("10.0.0.50"));
        sent(1);
        dhcp_client_info_t *c = dhcp_lookup_client_lease_info(CLIENT, VID);
        c->ciaddr = r.ciaddr;
        ASSERT_EQ(request(DHCPREQUEST, 0x9999, r.ciaddr), 0);
        ASSERT_EQ(g_udp.size(), r.relayed_to ? 1u : 0u);
        for (const sent_udp &u : g_udp) EXPECT_EQ(u.to, r.relayed_to);
        EXPECT_EQ(sent(r.naks).size(), r.naks);
        EXPECT_EQ(dhcpr_offer_info_count(c), r.offers_left);
        for (dhcp_relay_offer_info_t *e : *c->offer_info_list) EXPECT_EQ(e->xid, htonl(0x9999));
        dhcp_delete_client_by_vlan_mac(VID, CLIENT);
    }
}

TEST_F(RelayFwd, ReplyDestinationAndSourceChoice)
{
    struct row {
        const char *what;
        std::uint32_t yiaddr, op50, req_ip;
        std::uint32_t want_dst, want_src;
    } rows[] = {
        {"yiaddr in second prefix", ip("10.1.9.9"), ip("10.0.0.7"), 0, ip("10.1.9.9"), ip("10.1.0.1")},
        {"yiaddr outside every prefix", ip("172.16.0.5"), 0, 0, ip("172.16.0.5"), ip("10.0.0.1")},
        {"option 50", 0, ip("10.0.0.7"), ip("10.0.0.8"), ip("10.0.0.7"), ip("10.0.0.1")},
        {"l3 source", 0, 0, ip("10.0.0.8"), ip("10.0.0.8"), ip("10.0.0.1")},
        {"broadcast", 0, 0, 0, 0xffffffffu, ip("10.0.0.1")},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_EQ(request(DHCPDISCOVER), 0);
        dhcp_client_info_t *c = dhcp_lookup_client_lease_info(CLIENT, VID);
        c->op50_request_ip = r.op50;
        c->req_ip_addr = r.req_ip;
        ASSERT_EQ(reply(r.yiaddr ? DHCPOFFER : DHCPNAK, r.yiaddr, ip("10.0.0.1"), ip("192.0.2.10")), 0);
        auto frames = sent(1);
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(at32(frames[0].second, IP_DST), r.want_dst);
        EXPECT_EQ(at32(frames[0].second, IP_SRC), r.want_src);
        dhcp_delete_client_by_vlan_mac(VID, CLIENT);
    }
}

TEST_F(RelayFwd, DispatchRefusals)
{
    // A reply under another xid, and one whose giaddr no relay interface owns.
    ASSERT_EQ(request(DHCPDISCOVER), 0);
    g_udp.clear();
    EXPECT_EQ(reply(DHCPOFFER, ip("10.0.0.50"), ip("10.0.0.1"), ip("192.0.2.10"), 0x4321), TAVO_ERR);
    EXPECT_EQ(dhcp_lookup_client_lease_info(CLIENT, VID)->statis_server.dhcp_drop_xid_mismatch, 1u);
    EXPECT_EQ(reply(DHCPOFFER, 0, ip("10.9.9.9"), 0), TAVO_ERR);
    EXPECT_TRUE(sent(0).empty());
    // Relay off on the interface: requests refused.
    ASSERT_EQ(dhcpr_interface_disable(ifp_), 0);
    EXPECT_EQ(request(DHCPDISCOVER), TAVO_PORT);
    EXPECT_TRUE(g_udp.empty());
    // Server messages other than client requests never go to a server.
    EXPECT_EQ(dhcpr_interface_enable(ifp_), 0);
    d_ = dhcpr_info_get_by_interface(ifp_);
    dhcpr_add_helper(ifp_, ip("192.0.2.10"));
    d_->server_fd = socket(AF_INET, SOCK_DGRAM, 0);
    bytes offer = frame({BOOTREPLY, DHCPOFFER});
    EXPECT_EQ(dhcpr_send_pkt_upstream(ifp_, bytes_span(offer).subspan(MSG_OFF), ip("10.0.0.1"), ip("192.0.2.10"),
                                      DHCPOFFER),
              TAVO_ERR);
    EXPECT_TRUE(g_udp.empty());
    EXPECT_EQ(dhcpr_find_server_info_by_ipv4(d_, ip("192.0.2.10"))->tx_drop, 1u);
}

}  // namespace
