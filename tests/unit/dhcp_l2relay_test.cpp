// The DHCPv4 dispatcher and the layer-2 path: drops in their order, binding
// updates, option 82 on requests only, the statistics show.
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
const std::uint8_t CLIENT[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr std::size_t MSG_OFF = 42;

// Untagged Ethernet, IPv4, UDP, BOOTP of `op` with option 53 = type (and
// option 51 when lease is non-zero); yiaddr 10.0.0.9 on replies.
bytes frame(int op, int type, std::uint32_t lease = 0)
{
    bytes f(MSG_OFF + DHCP_OFF_OPTIONS, 0);
    std::memset(f.data(), 0xff, 6);  // broadcast
    std::memcpy(f.data() + 6, CLIENT, 6);
    put_be16_at(f, 12, 0x0800);
    f[14] = 0x45;                    // IPv4, IHL 5
    f[22] = 64;                      // TTL
    f[23] = 17;                      // UDP
    std::memset(f.data() + 30, 0xff, 4);
    put_be16_at(f, 34, op == BOOTREQUEST ? 68 : 67);
    put_be16_at(f, 36, op == BOOTREQUEST ? 67 : 68);
    f[MSG_OFF + DHCP_OFF_OP] = std::uint8_t(op);
    put_be32_at(f, MSG_OFF + DHCP_OFF_XID, 0x1234);
    if (op == BOOTREPLY) std::memcpy(&f[MSG_OFF + DHCP_OFF_YIADDR], "\x0a\x00\x00\x09", 4);
    std::memcpy(&f[MSG_OFF + DHCP_OFF_CHADDR], CLIENT, 6);
    put_be32_at(f, MSG_OFF + DHCP_OFF_COOKIE, DHCP_MAGIC);
    f.push_back(53), f.push_back(1), f.push_back(std::uint8_t(type));
    if (lease) {
        f.push_back(51), f.push_back(4), f.resize(f.size() + 4);
        put_be32_at(f, f.size() - 4, lease);
    }
    f.push_back(255);
    put_be16_at(f, 16, std::uint16_t(f.size() - 14));  // IP total length
    put_be16_at(f, 38, std::uint16_t(f.size() - 34));  // UDP length
    return f;
}

class DhcpL2Path : public ::testing::Test {
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
    // Parses `f` (kept alive in buf_) received on `pif` in `vid` and dispatches it.
    std::uint32_t rx(uif_t *pif, const bytes &f, std::uint16_t vid = 100)
    {
        buf_ = f;
        buf_.resize(1600, 0);  // room for rewrites, as in a packet message
        pkt_ = {};
        pkt_.raw_packet = buf_.data();
        pkt_.raw_packet_len = std::uint16_t(f.size());
        pkt_.raw_buf_len = 1600;
        pkt_.l2fwd_info.rx_ifindex = pif->ifindex;
        pkt_.l2fwd_info.rx_vlanid = vid;
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

TEST_F(DhcpL2Path, DropsComeInTheirOrder)
{
    snoop_on();
    EXPECT_EQ(rx(onu_, frame(BOOTREPLY, DHCPOFFER)), std::uint32_t(TAVO_PORT)) << "reply on an untrusted port";
    EXPECT_EQ(rx(up_, frame(BOOTREQUEST, DHCPDISCOVER)), std::uint32_t(TAVO_PORT)) << "request on an uplink";
    EXPECT_TRUE(sent(0).empty());
    // A RELEASE ends the binding before the frame is refused for its VLAN.
    ASSERT_EQ(rx(onu_, frame(BOOTREQUEST, DHCPDISCOVER)), 0u);
    ASSERT_NE(dhcp_lookup_client_lease_info(CLIENT, 100), nullptr);
    EXPECT_EQ(rx(onu_, frame(BOOTREQUEST, DHCPRELEASE), 300), std::uint32_t(TAVO_VLAN));
    EXPECT_EQ(dhcp_lookup_client_lease_info(CLIENT, 100), nullptr);
    // An ONU's frame is reported from its PON port.
    EXPECT_EQ(dhcp_get_l2_packet_source_port(onu_->ifindex), st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, 1, 0, 1, 0));
    EXPECT_EQ(dhcp_get_l2_packet_source_port(up_->ifindex), up_->ifindex);
}

TEST_F(DhcpL2Path, WithoutSnoopingFramesAreForwardedUnlearned)
{
    ASSERT_EQ(rx(onu_, frame(BOOTREQUEST, DHCPDISCOVER)), 0u);
    std::vector<hal_msg_pkt_t> out = sent(1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifindex, up_->ifindex) << "to the uplink";
    EXPECT_EQ(dhcp_lookup_client_lease_info(CLIENT, 100), nullptr);
    EXPECT_EQ(g_dhcp_stats_l2_pkt.dhcp_rx_discovery, 1u) << "counted all the same";
}

// Beyond the daemon-level exchange: option 82 on requests only, an ACK
// without address binds nothing, and the statistics show.
TEST_F(DhcpL2Path, SnoopedExchangeBindsCountsAndAddsOption82ToRequestsOnly)
{
    snoop_on();
    dhcp_op82_enable(1);
    ASSERT_EQ(dhcp_vlan_op82_set(vlan_get_entry(100), 1), 0);
    const bytes disc = frame(BOOTREQUEST, DHCPDISCOVER), ack = frame(BOOTREPLY, DHCPACK, 3600);
    bytes inform_ack = frame(BOOTREPLY, DHCPACK);
    std::memset(&inform_ack[MSG_OFF + DHCP_OFF_YIADDR], 0, 4);
    ASSERT_EQ(rx(onu_, disc), 0u);
    std::vector<hal_msg_pkt_t> out = sent(1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_NE(dhcp_get_option(bytes_view(out[0].data + MSG_OFF, out[0].len - MSG_OFF), DHCP_AGENT_OPTIONS), nullptr);
    rx(onu_, frame(BOOTREPLY, DHCPOFFER));  // untrusted: dropped before it is counted
    rx(up_, frame(BOOTREPLY, DHCPOFFER));
    rx(onu_, frame(BOOTREQUEST, DHCPREQUEST));
    ASSERT_EQ(rx(up_, inform_ack), 0u);
    EXPECT_EQ(dhcp_lookup_client_lease_info(CLIENT, 100)->v4_lease_time, 60u) << "an ACK without address binds nothing";
    sent(3);
    ASSERT_EQ(rx(up_, ack), 0u);
    out = sent(1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::vector<std::uint32_t>({out[0].ifindex, out[0].fwd_info.vid, out[0].len}),
              std::vector<std::uint32_t>({onu_->ifindex, 100, std::uint32_t(ack.size())}));
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(CLIENT, 100);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(std::memcmp(&c->ip_addr, "\x0a\x00\x00\x09", 4), 0);
    EXPECT_EQ(c->v4_lease_time, 3600u);
    rx(onu_, frame(BOOTREQUEST, DHCPINFORM));

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

}  // namespace
