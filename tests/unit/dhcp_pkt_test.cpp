// Frame parser, the senders' size limit and the delivery of replies.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>
#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_send.h"
#include "dhcp/dhcp_snoop.h"
#include "platform/errcode.h"
#include "tests/support/hal_session.h"

namespace {

using bytes = std::vector<std::uint8_t>;
constexpr std::size_t IP_OFF = 18, UDP_OFF = 38, DHCP_OFF = 46;

// Ethernet with one 802.1Q tag, IPv4, UDP 68 -> 67, BOOTP DISCOVER.
bytes discover_frame()
{
    bytes f = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,  // to all, from the client
        0x81, 0x00, 0x00, 0x64, 0x08, 0x00,                                      // VLAN 100, IPv4
        0x45, 0x00, 0x01, 0x10, 0x00, 0x00, 0x00, 0x00,                          // IHL 5, total length 272
        0x40, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff,  // UDP, 0.0.0.0 -> all
        0x00, 0x44, 0x00, 0x43, 0x00, 0xfc, 0x00, 0x00,                          // 68 -> 67, length 252
    };
    bytes bootp(244, 0);
    bootp[DHCP_OFF_OP] = BOOTREQUEST;
    put_be32_at(bootp, DHCP_OFF_XID, 0x12345678);
    std::memcpy(&bootp[DHCP_OFF_CHADDR], "\x00\x11\x22\x33\x44\x55", 6);
    put_be32_at(bootp, DHCP_OFF_COOKIE, DHCP_MAGIC);
    std::copy_n(bytes{53, 1, DHCPDISCOVER, 255}.begin(), 4, bootp.begin() + DHCP_OFF_OPTIONS);
    f.insert(f.end(), bootp.begin(), bootp.end());
    return f;
}

// The frame in an exact-size heap block: the parser must not look past it.
struct parsed {
    std::unique_ptr<std::uint8_t[]> buf;
    dhcp_l2_pkt_t pkt{};
    int rc;
    explicit parsed(const bytes &frame, std::uint16_t usr_vid = 0) : buf(std::make_unique<std::uint8_t[]>(frame.size()))
    {
        std::copy(frame.begin(), frame.end(), buf.get());
        pkt.raw_packet = buf.get();
        pkt.raw_packet_len = pkt.raw_buf_len = static_cast<std::uint16_t>(frame.size());
        pkt.l2fwd_info.rx_vlanid = 100;
        pkt.l2fwd_info.usr_vid = usr_vid;
        rc = dhcp_parse_l2_pkt(&pkt);
    }
};

// One change to the golden frame per row: accepted with the layout it
// implies, or refused.
TEST(DhcpFrameParse, LayoutVariantsAndRejections)
{
    parsed p(discover_frame());
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(std::vector<int>({p.pkt.vlan_depth, p.pkt.vlan_stack[0]}), std::vector<int>({1, 100}));
    EXPECT_EQ(ntohs(p.pkt.udp_src_port), 68);
    EXPECT_EQ(p.pkt.dhcp_msg_len, 244);
    EXPECT_EQ(ntohl(p.pkt.dhcp_curr_xid), 0x12345678u);
    EXPECT_EQ(bytes(p.pkt.dhcp_client_addr, p.pkt.dhcp_client_addr + 6), (bytes{0, 0x11, 0x22, 0x33, 0x44, 0x55}));

    const bytes tag = {0x81, 0x00, 0x00, 0x0a};
    auto tags = [&](int n) {
        return [=](bytes &f) { for (int i = 0; i < n; ++i) f.insert(f.begin() + 16, tag.begin(), tag.end()); };
    };
    auto patch = [](std::size_t off, bytes b) {
        return [=](bytes &f) { std::copy(b.begin(), b.end(), f.begin() + long(off)); };
    };
    const struct {
        const char *what;
        std::function<void(bytes &)> change;
        int rc;
        std::size_t ip_off, udp_off, frame_len;
    } cases[] = {
        {"as is", [](bytes &) {}, 0, 18, 38, 290},
        {"two tags", tags(1), 0, 22, 42, 294},
        {"four tags", tags(3), 0, 30, 50, 302},
        {"five tags", tags(4), TAVO_ERR},
        {"IP options", [](bytes &f) { f[IP_OFF] = 0x46; f.insert(f.begin() + UDP_OFF, {1, 1, 1, 0}); }, 0, 18, 42, 294},
        {"Ethernet padding dropped", [](bytes &f) { f.resize(f.size() + 20); }, 0, 18, 38, 290},
        {"server to client", patch(UDP_OFF, {0, 67, 0, 68}), 0, 18, 38, 290},
        {"68 -> 68 is not DHCP", patch(UDP_OFF, {0, 68, 0, 68}), TAVO_ERR},
        {"not UDP", patch(IP_OFF + 9, {6}), TAVO_ERR},
        {"ARP", patch(16, {0x08, 0x06}), TAVO_ERR},
        {"no message type", patch(DHCP_OFF + DHCP_OFF_OPTIONS, {255}), TAVO_ERR},
        {"UDP length beyond the frame", patch(UDP_OFF + 4, {0x01, 0x00}), TAVO_ERR},
        {"IHL below 5", patch(IP_OFF, {0x44}), TAVO_ERR},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        bytes f = discover_frame();
        c.change(f);
        parsed q(f);
        ASSERT_EQ(q.rc, c.rc);
        if (c.rc) continue;
        EXPECT_EQ(std::vector<std::size_t>({q.pkt.ip_hdr_offset, q.pkt.udp_hdr_offset, q.pkt.raw_packet_len}),
                  std::vector<std::size_t>({c.ip_off, c.udp_off, c.frame_len}));
        EXPECT_EQ(q.pkt.dhcp_hdr_offset, c.udp_off + 8);
        EXPECT_EQ(dhcp_l2_message(&q.pkt).size(), 244u);
        EXPECT_EQ(q.pkt.dhcp_msg_type, DHCPDISCOVER);
    }
    // Every truncation is refused, reading within the bytes given.
    bytes f = discover_frame();
    for (std::size_t len = 0; len < f.size(); ++len)
        EXPECT_EQ(parsed(bytes(f.begin(), f.begin() + long(len))).rc, TAVO_ERR) << len;
}

TEST(DhcpFrameParse, UnicastRequestMovesToTheUserVlan)
{
    bytes req = discover_frame();
    req[DHCP_OFF + DHCP_OFF_OPTIONS + 2] = DHCPREQUEST;
    EXPECT_EQ(parsed(req, 10).pkt.l2fwd_info.rx_vlanid, 100);  // broadcast keeps its VLAN
    std::copy_n(bytes{10, 0, 0, 1}.begin(), 4, req.begin() + IP_OFF + 16);
    parsed ucast(req, 10);
    ASSERT_EQ(ucast.rc, 0);
    EXPECT_EQ(ucast.pkt.l2fwd_info.rx_vlanid, 10);
}

TEST(DhcpFrameParse, Dhcpv6Solicit)
{
    bytes f = {0x33, 0x33, 0x00, 0x01, 0x00, 0x02, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x86, 0xdd,  // IPv6
               0x60, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x11, 0x01};  // payload 12, UDP, hop limit 1
    f.resize(f.size() + 32);  // source and destination addresses
    f.insert(f.end(), {0x02, 0x22, 0x02, 0x23, 0x00, 0x0c, 0x00, 0x00,  // UDP 546 -> 547, length 12
                       0x01, 0xab, 0xcd, 0xef});                        // SOLICIT, transaction id
    parsed p(f);
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.pkt.ip_version, 6);
    EXPECT_EQ(p.pkt.dhcp_msg_type, 1);
    EXPECT_EQ(p.pkt.dhcp_curr_xid, 0xabcdefu);
    EXPECT_EQ(p.pkt.dhcp_msg_len, 4);
    EXPECT_EQ(p.pkt.dhcp_hdr_offset, 62);
    f[20] = 6;  // next header TCP
    EXPECT_EQ(parsed(f).rc, TAVO_ERR);
}

TEST(DhcpFrameSend, SizeLimitIsBelow1600AndRepliesGoToTheClientsPort)
{
    // Without a forwarding plane an accepted frame fails at the send (unavailable).
    bytes big(1600, 0);
    dhcp_l2_pkt_t p{};
    p.raw_packet = big.data();
    p.raw_packet_len = 1599;
    EXPECT_EQ(dhcp_tx_l2_packet(&p, 0, 1, 0), TAVO_UNAVAIL);
    p.raw_packet_len = 1600;
    EXPECT_EQ(dhcp_tx_l2_packet(&p, 0, 1, 0), TAVO_ERR);
    EXPECT_EQ(dhcp_send_l2_packet(big.data(), 100, 1, 1599, 0, 0), TAVO_UNAVAIL);
    EXPECT_EQ(dhcp_send_l2_packet(big.data(), 100, 1, 1600, 0, 0), TAVO_ERR);
    EXPECT_EQ(dhcp_packet_send(big.data(), 100, 300, DHCP_IFINDEX_ALL, 0), TAVO_ERR);
    EXPECT_EQ(dhcp_packet_send(big.data(), 100, 300, DHCP_IFINDEX_ALL, 1), TAVO_ERR);  // no uplink known

    uif_init();
    uvlan_init();
    dhcp_snoop_init();
    hal_session hal;
    ASSERT_TRUE(hal.start("pkt", false));
    const std::uint32_t onu = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, 1, 1);
    const std::uint32_t up = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
    uif_get_or_create(onu, true);
    parsed d(discover_frame());
    d.pkt.l2fwd_info.rx_ifindex = onu;
    ASSERT_NE(dhcp_add_client_lease_info(1, &d.pkt), nullptr);
    bytes offer = discover_frame();
    offer[DHCP_OFF + DHCP_OFF_OP] = BOOTREPLY;
    offer[DHCP_OFF + DHCP_OFF_OPTIONS + 2] = DHCPOFFER;
    // A broadcast reply becomes unicast to the bound client's port (on its
    // slot); kept multicast for an unknown client, it goes to all ports.
    const struct {
        bool keep;
        const char *client;
        std::uint32_t out, slot;
        bytes dst;
    } cases[] = {{false, "\x00\x11\x22\x33\x44\x55", onu, 1, {0, 0x11, 0x22, 0x33, 0x44, 0x55}},
                 {true, "\x00\x99\x99\x99\x99\x99", 0xffffffffu, 0, bytes(6, 0xff)}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.keep);
        if (c.keep) dhcp_reply_set_multicast_keep_enable();
        parsed o(offer);
        std::memcpy(o.pkt.dhcp_client_addr, c.client, 6);
        hal.fp.clear_received();
        ASSERT_EQ(dhcp_send_l2_packet_to_client(&o.pkt, up), 0);
        ASSERT_TRUE(hal.fp.wait_received(1, 2000));
        fake_fp_msg m = hal.fp.received().at(0);
        EXPECT_EQ(m.hdr.nlmsg_len, 1680u);
        EXPECT_EQ(m.hdr.nlmsg_pid, c.slot);
        hal_msg_pkt_t s{};
        ASSERT_TRUE(hal_msg_pkt_decode(m.payload(), s));
        EXPECT_EQ(std::vector<std::uint32_t>({s.ifindex, s.flags, s.fwd_info.vid, s.src_if}),
                  std::vector<std::uint32_t>({c.out, 129, 100, up}));
        ASSERT_EQ(s.len, offer.size());
        EXPECT_EQ(bytes(s.data, s.data + 6), c.dst);
        EXPECT_EQ(bytes(s.data + 6, s.data + s.len), bytes(offer.begin() + 6, offer.end()));
    }
    dhcp_reply_set_multicast_keep_disable();
    hal.stop();
    dhcp_client_tree_destroy();
    uif_clear();
}

}  // namespace
