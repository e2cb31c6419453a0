// The DHCPv4 dispatcher and the layer-2 path: drops in their order, binding
// updates, option 82 on requests, forwarding through the forwarding plane.
#include <gtest/gtest.h>

#include <cstring>
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
#include "dhcp/dhcp_snoop_vty.h"
#include "dhcp/dhcp_stats.h"
#include "lib/vty.h"
#include "platform/errcode.h"
#include "tests/support/hal_session.h"

namespace {

using bytes = std::vector<std::uint8_t>;

// Element by element: gcc 12 -O2 mistakes vector::insert here for an overflow.
void append(bytes &to, const bytes &from)
{
    for (std::uint8_t b : from) to.push_back(b);
}
const std::uint8_t CLIENT[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// Untagged Ethernet, IPv4, UDP, BOOTP of `op` with option 53 = type (and
// option 51 when lease is non-zero); yiaddr 10.0.0.9 on replies.
bytes frame(int op, int type, std::uint32_t lease = 0)
{
    bytes opts = {53, 1, std::uint8_t(type)};
    if (lease)
        append(opts, {51, 4, std::uint8_t(lease >> 24), std::uint8_t(lease >> 16), std::uint8_t(lease >> 8),
                      std::uint8_t(lease)});
    opts.push_back(255);
    bytes bootp(DHCP_OFF_OPTIONS + opts.size(), 0);
    bootp[DHCP_OFF_OP] = std::uint8_t(op);
    bootp[DHCP_OFF_HTYPE] = 1;
    bootp[DHCP_OFF_HLEN] = 6;
    put_be32_at(bootp, DHCP_OFF_XID, 0x1234);
    if (op == BOOTREPLY) std::memcpy(&bootp[DHCP_OFF_YIADDR], "\x0a\x00\x00\x09", 4);
    std::memcpy(&bootp[DHCP_OFF_CHADDR], CLIENT, 6);
    put_be32_at(bootp, DHCP_OFF_COOKIE, DHCP_MAGIC);
    for (std::size_t i = 0; i < opts.size(); ++i) bootp[DHCP_OFF_OPTIONS + i] = opts[i];
    bytes f(14 + 20 + 8, 0);
    std::memset(f.data(), 0xff, 6);                          // broadcast
    std::memcpy(f.data() + 6, CLIENT, 6);
    put_be16_at(f, 12, 0x0800);
    f[14] = 0x45;                                            // IPv4, IHL 5
    put_be16_at(f, 16, std::uint16_t(28 + bootp.size()));   // total length
    f[22] = 64;                                              // TTL
    f[23] = 17;                                              // UDP
    std::memset(f.data() + 30, 0xff, 4);                     // to 255.255.255.255
    put_be16_at(f, 34, op == BOOTREQUEST ? 68 : 67);
    put_be16_at(f, 36, op == BOOTREQUEST ? 67 : 68);
    put_be16_at(f, 38, std::uint16_t(8 + bootp.size()));
    append(f, bootp);
    return f;
}

class L2Path : public ::testing::Test {
protected:
    void SetUp() override
    {
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        dhcp_ipsg_init();
        dhcp_pkt_statistic_init();
        ASSERT_TRUE(hal_.start("l2path"));
        uvlan_create(100);
        ASSERT_EQ(dhcp_vlan_init(100), 0);
        up_ = port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0));
        onu_ = port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, 1, 1));
    }
    void TearDown() override
    {
        hal_.stop();
        dhcp_ipsg_init();
        dhcp_client_tree_destroy();
        for (uif_t *p = uif_first(); p; p = uif_next(p)) dhcp_port_deinit(p);
        dhcp_vlan_free(vlan_get_entry(100));
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
    // Parses `f` (kept alive in buf_) received on `pif` in VLAN 100 and dispatches it.
    std::uint32_t rx(uif_t *pif, const bytes &f)
    {
        buf_ = f;
        buf_.resize(1600, 0);  // room for rewrites, as in a packet message
        pkt_ = {};
        pkt_.raw_packet = buf_.data();
        pkt_.raw_packet_len = std::uint16_t(f.size());
        pkt_.raw_buf_len = 1600;
        pkt_.l2fwd_info.rx_ifindex = pif->ifindex;
        pkt_.l2fwd_info.rx_vlanid = 100;
        EXPECT_EQ(dhcp_parse_l2_pkt(&pkt_), 0);
        return dhcp_proc_netlink_l2_packet(pif, &pkt_);
    }
    // The frames the forwarding plane was given since the last call.
    std::vector<hal_msg_pkt_t> sent(std::size_t expect)
    {
        if (expect) EXPECT_TRUE(fp_.wait_received(expect, 2000));
        else usleep(50 * 1000);
        held_ = fp_.received();
        fp_.clear_received();
        std::vector<hal_msg_pkt_t> out;
        for (const fake_fp_msg &m : held_) {
            hal_msg_pkt_t p{};
            if (m.hdr.nlmsg_type == 1 && hal_msg_pkt_decode(m.payload(), p)) out.push_back(p);
        }
        return out;
    }
    void snoop_on()
    {
        dhcp_snoop_enable_set(1);
        ASSERT_EQ(dhcp_vlan_snoop_set(vlan_get_entry(100), 1), 0);
        dhcp_port_trust_set(up_, 1);
        sent(0);
    }

    hal_session hal_;
    fake_fp &fp_ = hal_.fp;
    uif_t *up_ = nullptr, *onu_ = nullptr;
    bytes buf_;
    dhcp_l2_pkt_t pkt_{};
    std::vector<fake_fp_msg> held_;
};

TEST_F(L2Path, DropsComeInTheirOrder)
{
    snoop_on();
    EXPECT_EQ(rx(onu_, frame(BOOTREPLY, DHCPOFFER)), std::uint32_t(TAVO_PORT)) << "reply on an untrusted port";
    EXPECT_EQ(rx(up_, frame(BOOTREQUEST, DHCPDISCOVER)), std::uint32_t(TAVO_PORT)) << "request on an uplink";
    EXPECT_TRUE(sent(0).empty());

    // A RELEASE ends the binding before the frame is refused for its VLAN.
    ASSERT_EQ(rx(onu_, frame(BOOTREQUEST, DHCPDISCOVER)), 0u);
    ASSERT_NE(dhcp_lookup_client_lease_info(CLIENT, 100), nullptr);
    bytes release = frame(BOOTREQUEST, DHCPRELEASE);
    buf_ = release;
    buf_.resize(1600, 0);
    pkt_ = {};
    pkt_.raw_packet = buf_.data();
    pkt_.raw_packet_len = std::uint16_t(release.size());
    pkt_.raw_buf_len = 1600;
    pkt_.l2fwd_info.rx_vlanid = 300;  // no such VLAN
    ASSERT_EQ(dhcp_parse_l2_pkt(&pkt_), 0);
    EXPECT_EQ(dhcp_proc_netlink_l2_packet(onu_, &pkt_), std::uint32_t(TAVO_VLAN));
    EXPECT_EQ(dhcp_lookup_client_lease_info(CLIENT, 100), nullptr);
}

TEST_F(L2Path, WithoutSnoopingFramesAreForwardedUnlearned)
{
    ASSERT_EQ(rx(onu_, frame(BOOTREQUEST, DHCPDISCOVER)), 0u);
    std::vector<hal_msg_pkt_t> out = sent(1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifindex, up_->ifindex) << "to the uplink";
    EXPECT_EQ(out[0].fwd_info.vid, 0);
    EXPECT_EQ(dhcp_lookup_client_lease_info(CLIENT, 100), nullptr);
    EXPECT_EQ(g_dhcp_stats_l2_pkt.dhcp_rx_discovery, 1u) << "counted all the same";
}

TEST_F(L2Path, SnoopedExchangeBindsTheClient)
{
    snoop_on();
    ASSERT_EQ(rx(onu_, frame(BOOTREQUEST, DHCPDISCOVER)), 0u);
    ASSERT_EQ(sent(1).size(), 1u);
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(CLIENT, 100);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->ip_addr, 0u);

    // An ACK with address 0 (an answer to INFORM) binds nothing.
    bytes inform_ack = frame(BOOTREPLY, DHCPACK);
    std::memset(&inform_ack[42 + DHCP_OFF_YIADDR], 0, 4);
    ASSERT_EQ(rx(up_, inform_ack), 0u);
    EXPECT_EQ(dhcp_lookup_client_lease_info(CLIENT, 100)->ip_addr, 0u);

    // The ACK without option 51 records ten days and goes to the client's port.
    sent(1);
    ASSERT_EQ(rx(up_, frame(BOOTREPLY, DHCPACK)), 0u);
    std::vector<hal_msg_pkt_t> out = sent(1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifindex, onu_->ifindex);
    EXPECT_EQ(out[0].fwd_info.vid, 100);
    c = dhcp_lookup_client_lease_info(CLIENT, 100);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(std::memcmp(&c->ip_addr, "\x0a\x00\x00\x09", 4), 0);
    EXPECT_EQ(c->v4_lease_time, 864000u);
    EXPECT_EQ(dhcp_select_lease_time(bytes_view(frame(BOOTREPLY, DHCPACK, 3600)).subspan(42)), 3600u);
}

TEST_F(L2Path, Option82GrowsTheRequestOnly)
{
    snoop_on();
    dhcp_op82_enable(1);
    ASSERT_EQ(dhcp_vlan_op82_set(vlan_get_entry(100), 1), 0);
    sent(0);
    bytes disc = frame(BOOTREQUEST, DHCPDISCOVER);
    ASSERT_EQ(rx(onu_, disc), 0u);
    std::vector<hal_msg_pkt_t> out = sent(1);
    ASSERT_EQ(out.size(), 1u);
    ASSERT_GT(out[0].len, disc.size());
    bytes_view msg(out[0].data + 42, out[0].len - 42u);
    EXPECT_NE(dhcp_get_option(msg, DHCP_AGENT_OPTIONS), nullptr);
    std::uint16_t udp_len = 0, ip_len = 0;
    be16_at(bytes_view(out[0].data, out[0].len), 38, udp_len);
    be16_at(bytes_view(out[0].data, out[0].len), 16, ip_len);
    EXPECT_EQ(udp_len, out[0].len - 34u);
    EXPECT_EQ(ip_len, out[0].len - 14u);
}

TEST_F(L2Path, StatisticsShowCountsWhatThePathTookIn)
{
    snoop_on();
    rx(onu_, frame(BOOTREQUEST, DHCPDISCOVER));
    rx(onu_, frame(BOOTREPLY, DHCPOFFER));  // untrusted: dropped before it is counted
    rx(up_, frame(BOOTREPLY, DHCPOFFER));
    rx(onu_, frame(BOOTREQUEST, DHCPREQUEST));
    rx(up_, frame(BOOTREPLY, DHCPACK));
    EXPECT_EQ(pkt_.l2fwd_info.relay_vid, 100) << "a reply is relayed in the VLAN it came in";
    rx(onu_, frame(BOOTREQUEST, DHCPINFORM));
    sent(4);

    vty *v = vty_new_buffer(ENABLE_NODE);
    dhcp_snoop_statistics_show(v);
    const std::string zeros = "   Decline : 0\n   Release : 0\n   Inform  : 0\n";
    EXPECT_EQ(v->out, "DHCP Snooping Packet statistics: \n"
                      "Client Request message :\n   Discover: 1\n   Offer   : 0\n   Request : 1\n"
                      "   Decline : 0\n   Release : 0\n   Inform  : 1\n"
                      "Server Reply message   :\n   Discover: 0\n   Offer   : 1\n   Request : 0\n" + zeros +
                      "Drop message          :\n   Discover: 0\n   Offer   : 0\n   Request : 0\n" + zeros);
    vty_free(v);
}

TEST_F(L2Path, AnOnuFrameIsReportedFromItsPonPort)
{
    EXPECT_EQ(dhcp_get_l2_packet_source_port(onu_->ifindex), st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, 1, 0, 1, 0));
    EXPECT_EQ(dhcp_get_l2_packet_source_port(up_->ifindex), up_->ifindex);
}

}  // namespace
