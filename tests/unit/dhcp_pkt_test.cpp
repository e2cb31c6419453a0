// Frame parser and the senders' size limit.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <memory>
#include <vector>

#include <unistd.h>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_send.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/thread.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "tests/support/hal_session.h"

namespace {

using bytes = std::vector<std::uint8_t>;

// Ethernet with one 802.1Q tag, IPv4, UDP 68 -> 67, BOOTP DISCOVER.
bytes discover_frame()
{
    bytes f = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // destination: broadcast
        0x00, 0x11, 0x22, 0x33, 0x44, 0x55,  // source: the client
        0x81, 0x00, 0x00, 0x64,              // 802.1Q, VLAN 100
        0x08, 0x00,                          // IPv4
        0x45, 0x00, 0x01, 0x10,              // v4, IHL 5, total length 272
        0x00, 0x00, 0x00, 0x00,              // id, fragment
        0x40, 0x11, 0x00, 0x00,              // TTL 64, UDP, checksum
        0x00, 0x00, 0x00, 0x00,              // source 0.0.0.0
        0xff, 0xff, 0xff, 0xff,              // destination 255.255.255.255
        0x00, 0x44, 0x00, 0x43,              // UDP 68 -> 67
        0x00, 0xfc, 0x00, 0x00,              // UDP length 252, checksum
    };
    bytes bootp(244, 0);
    bootp[DHCP_OFF_OP] = BOOTREQUEST;
    bootp[DHCP_OFF_HTYPE] = 1;
    bootp[DHCP_OFF_HLEN] = 6;
    put_be32_at(bootp, DHCP_OFF_XID, 0x12345678);
    std::memcpy(&bootp[DHCP_OFF_CHADDR], "\x00\x11\x22\x33\x44\x55", 6);
    put_be32_at(bootp, DHCP_OFF_COOKIE, DHCP_MAGIC);
    const bytes opts = {53, 1, DHCPDISCOVER, 255};  // message type, end
    std::copy(opts.begin(), opts.end(), bootp.begin() + DHCP_OFF_OPTIONS);
    f.insert(f.end(), bootp.begin(), bootp.end());
    return f;
}

constexpr std::size_t IP_OFF = 18, UDP_OFF = 38, DHCP_OFF = 46;

// Holds the frame in an exact-size heap block, as the parser must not look
// past what was received.
struct parsed {
    std::unique_ptr<std::uint8_t[]> buf;
    dhcp_l2_pkt_t pkt{};
    int rc;
    explicit parsed(const bytes &frame, std::uint16_t vid = 100, std::uint16_t usr_vid = 0)
        : buf(std::make_unique<std::uint8_t[]>(frame.size() + 1))
    {
        std::memcpy(buf.get(), frame.data(), frame.size());
        pkt.raw_packet = buf.get();
        pkt.raw_packet_len = static_cast<std::uint16_t>(frame.size());
        pkt.raw_buf_len = pkt.raw_packet_len;
        pkt.l2fwd_info.rx_vlanid = vid;
        pkt.l2fwd_info.usr_vid = usr_vid;
        rc = dhcp_parse_l2_pkt(&pkt);
    }
};

TEST(FrameParse, TaggedDiscover)
{
    parsed p(discover_frame());
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.pkt.vlan_depth, 1);
    EXPECT_EQ(p.pkt.vlan_stack[0], 100);
    EXPECT_EQ(p.pkt.eth_ip_proto, 0x0800);
    EXPECT_EQ(p.pkt.ip_hdr_offset, IP_OFF);
    EXPECT_EQ(p.pkt.udp_hdr_offset, UDP_OFF);
    EXPECT_EQ(p.pkt.dhcp_hdr_offset, DHCP_OFF);
    EXPECT_EQ(ntohs(p.pkt.udp_src_port), 68);
    EXPECT_EQ(p.pkt.dhcp_msg_type, DHCPDISCOVER);
    EXPECT_EQ(p.pkt.dhcp_msg_len, 244);
    EXPECT_EQ(ntohl(p.pkt.dhcp_curr_xid), 0x12345678u);
    EXPECT_EQ(p.pkt.ipv4_dst_addr, 0xffffffffu);
    EXPECT_EQ(bytes(p.pkt.dhcp_client_addr, p.pkt.dhcp_client_addr + 6), (bytes{0, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_EQ(bytes(p.pkt.eth_dst_mac, p.pkt.eth_dst_mac + 6), bytes(6, 0xff));
    EXPECT_EQ(p.pkt.raw_packet_len, DHCP_OFF + 244);
    EXPECT_EQ(dhcp_l2_message(&p.pkt).size(), 244u);
}

TEST(FrameParse, LayoutVariants)
{
    // Two tags: the IP header moves to 22.
    bytes qinq = discover_frame();
    qinq.insert(qinq.begin() + 16, {0x81, 0x00, 0x00, 0x0a});
    parsed two(qinq);
    ASSERT_EQ(two.rc, 0);
    EXPECT_EQ(two.pkt.vlan_depth, 2);
    EXPECT_EQ(two.pkt.ip_hdr_offset, 22);

    // IP options: UDP follows them.
    bytes ipopt = discover_frame();
    ipopt[IP_OFF] = 0x46;
    ipopt.insert(ipopt.begin() + UDP_OFF, {0x01, 0x01, 0x01, 0x00});  // NOP NOP NOP EOL
    parsed opt(ipopt);
    ASSERT_EQ(opt.rc, 0);
    EXPECT_EQ(opt.pkt.ip_hdr_len, 24);
    EXPECT_EQ(opt.pkt.udp_hdr_offset, UDP_OFF + 4);
    EXPECT_EQ(opt.pkt.dhcp_msg_type, DHCPDISCOVER);

    // Trailing Ethernet padding is dropped from the frame length.
    bytes padded = discover_frame();
    padded.resize(padded.size() + 20, 0);
    parsed pad(padded);
    ASSERT_EQ(pad.rc, 0);
    EXPECT_EQ(pad.pkt.raw_packet_len, DHCP_OFF + 244);

    // Server to client (67 -> 68) passes like client to server.
    bytes reply = discover_frame();
    put_be16_at(reply, UDP_OFF, 67);
    put_be16_at(reply, UDP_OFF + 2, 68);
    EXPECT_EQ(parsed(reply).rc, 0);
}

TEST(FrameParse, Rejections)
{
    struct {
        const char *what;
        std::size_t off;
        bytes patch;
    } cases[] = {
        {"68 -> 68 is not DHCP", UDP_OFF, {0x00, 0x44, 0x00, 0x44}},
        {"not UDP", IP_OFF + 9, {6}},
        {"ARP", 16, {0x08, 0x06}},
        {"no message type", DHCP_OFF + DHCP_OFF_OPTIONS, {255}},
        {"UDP length beyond the frame", UDP_OFF + 4, {0x01, 0x00}},
        {"IHL below 5", IP_OFF, {0x44}},
    };
    for (const auto &c : cases) {
        bytes f = discover_frame();
        std::copy(c.patch.begin(), c.patch.end(), f.begin() + long(c.off));
        EXPECT_EQ(parsed(f).rc, TAVO_ERR) << c.what;
    }
    // Four tags are accepted; a fifth is refused.
    bytes deep = discover_frame();
    for (int i = 0; i < 3; ++i) deep.insert(deep.begin() + 16, {0x81, 0x00, 0x00, 0x0a});
    EXPECT_EQ(parsed(deep).rc, 0);
    deep.insert(deep.begin() + 16, {0x81, 0x00, 0x00, 0x0a});
    EXPECT_EQ(parsed(deep).rc, TAVO_ERR);
}

TEST(FrameParse, EveryTruncationIsRefusedInBounds)
{
    bytes f = discover_frame();
    for (std::size_t len = 0; len < f.size(); ++len)
        EXPECT_EQ(parsed(bytes(f.begin(), f.begin() + long(len))).rc, TAVO_ERR) << len;
}

TEST(FrameParse, UnicastRequestMovesToTheUserVlan)
{
    bytes req = discover_frame();
    req[DHCP_OFF + DHCP_OFF_OPTIONS + 2] = DHCPREQUEST;
    parsed bcast(req, 100, 10);
    ASSERT_EQ(bcast.rc, 0);
    EXPECT_EQ(bcast.pkt.l2fwd_info.rx_vlanid, 100);  // broadcast keeps its VLAN

    std::copy_n(bytes{10, 0, 0, 1}.begin(), 4, req.begin() + IP_OFF + 16);
    parsed ucast(req, 100, 10);
    ASSERT_EQ(ucast.rc, 0);
    EXPECT_EQ(ucast.pkt.l2fwd_info.rx_vlanid, 10);
}

TEST(FrameParse, Dhcpv6Solicit)
{
    bytes f = {
        0x33, 0x33, 0x00, 0x01, 0x00, 0x02,  // all DHCP relay agents and servers
        0x00, 0x11, 0x22, 0x33, 0x44, 0x55,
        0x86, 0xdd,                          // IPv6
        0x60, 0x00, 0x00, 0x00,              // version, class, flow
        0x00, 0x0c, 0x11, 0x01,              // payload 12, UDP, hop limit 1
    };
    bytes src(16, 0), dst(16, 0);
    src[0] = 0xfe, src[1] = 0x80, src[15] = 1;
    dst[0] = 0xff, dst[1] = 0x02, dst[13] = 1, dst[15] = 2;
    f.insert(f.end(), src.begin(), src.end());
    f.insert(f.end(), dst.begin(), dst.end());
    f.insert(f.end(), {
        0x02, 0x22, 0x02, 0x23,  // UDP 546 -> 547
        0x00, 0x0c, 0x00, 0x00,  // length 12
        0x01, 0xab, 0xcd, 0xef,  // SOLICIT, transaction id
    });
    parsed p(f);
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.pkt.eth_ip_proto, 0x86dd);
    EXPECT_EQ(p.pkt.ip_version, 6);
    EXPECT_EQ(p.pkt.dhcp_msg_type, 1);
    EXPECT_EQ(p.pkt.dhcp_curr_xid, 0xabcdefu);
    EXPECT_EQ(p.pkt.dhcp_msg_len, 4);
    EXPECT_EQ(p.pkt.dhcp_hdr_offset, 62);

    f[20] = 6;  // next header TCP
    EXPECT_EQ(parsed(f).rc, TAVO_ERR);
}

TEST(FrameSend, SizeLimitIsBelow1600)
{
    // Without a forwarding plane an accepted frame fails at the send (unavailable);
    // a refused one never gets there.
    std::vector<std::uint8_t> big(1600, 0);
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
}

// The senders' packet messages, through a scripted forwarding plane.
class FrameSendFp : public ::testing::Test {
protected:
    void SetUp() override
    {
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        ASSERT_TRUE(hal_.start("pkt", false));
    }
    void TearDown() override
    {
        hal_.stop();
        dhcp_client_tree_destroy();
        uif_clear();
    }
    hal_session hal_;
    fake_fp &fp_ = hal_.fp;
};

TEST_F(FrameSendFp, ReplyGoesUnicastToTheBoundClientsPort)
{
    const std::uint32_t onu = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, 1, 1);
    const std::uint32_t up = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
    uif_get_or_create(onu, true);
    bytes disc = discover_frame();
    parsed d(disc);
    ASSERT_EQ(d.rc, 0);
    d.pkt.l2fwd_info.rx_ifindex = onu;
    ASSERT_NE(dhcp_add_client_lease_info(1, &d.pkt), nullptr);

    bytes offer = discover_frame();
    offer[DHCP_OFF + DHCP_OFF_OP] = BOOTREPLY;
    offer[DHCP_OFF + DHCP_OFF_OPTIONS + 2] = DHCPOFFER;
    parsed o(offer);
    ASSERT_EQ(o.rc, 0);
    ASSERT_EQ(dhcp_send_l2_packet_to_client(&o.pkt, up), 0);
    ASSERT_TRUE(fp_.wait_received(1, 2000));
    fake_fp_msg m = fp_.received().at(0);
    EXPECT_EQ(m.hdr.nlmsg_len, 1680u);
    EXPECT_EQ(m.hdr.nlmsg_type, 1);
    EXPECT_EQ(m.hdr.nlmsg_flags, 1);
    EXPECT_EQ(m.hdr.nlmsg_pid, 1u);  // the client port's slot
    hal_msg_pkt_t p{};
    ASSERT_TRUE(hal_msg_pkt_decode(m.payload(), p));
    EXPECT_EQ(p.ifindex, onu);
    EXPECT_EQ(p.flags, 129u);
    EXPECT_EQ(p.fwd_info.vid, 100);
    EXPECT_EQ(p.src_if, up);
    ASSERT_EQ(p.len, offer.size());
    EXPECT_EQ(bytes(p.data, p.data + 6), (bytes{0, 0x11, 0x22, 0x33, 0x44, 0x55})) << "broadcast made unicast";
    EXPECT_EQ(bytes(p.data + 6, p.data + p.len), bytes(offer.begin() + 6, offer.end()));

    // With the keep switch on, and for a client nobody knows (all ports).
    dhcp_reply_set_multicast_keep_enable();
    parsed o2(offer);
    std::memcpy(o2.pkt.dhcp_client_addr, "\x00\x99\x99\x99\x99\x99", 6);
    fp_.clear_received();
    dhcp_send_l2_packet_to_client(&o2.pkt, up);
    ASSERT_TRUE(fp_.wait_received(1, 2000));
    ASSERT_TRUE(hal_msg_pkt_decode(fp_.received().at(0).payload(), p));
    EXPECT_EQ(p.ifindex, 0xffffffffu);
    EXPECT_EQ(bytes(p.data, p.data + 6), bytes(6, 0xff));
    dhcp_reply_set_multicast_keep_disable();
}

}  // namespace
