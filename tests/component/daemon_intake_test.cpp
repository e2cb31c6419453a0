// The daemon spine end to end: device state replayed by the device manager,
// frames from the forwarding plane traced on the right port and VLAN, refused
// frames and messages, and both peers going away and coming back.
#include <chrono>
#include <gtest/gtest.h>
#include <initializer_list>
#include <thread>

#include "devlib/ifindex.h"
#include "platform/hal_msg.h"
#include "tests/support/daemon_proc.h"
#include "tests/support/fake_devmgr.h"
#include "tests/support/fake_fp.h"

namespace {

using bytes = std::vector<std::uint8_t>;

bytes zeros(std::size_t n) { return bytes(n, 0); }

bytes cat(std::initializer_list<bytes> parts)
{
    bytes out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// DHCPDISCOVER of client 0011-2233-4455, broadcast, tagged with VLAN 100.
const bytes kDiscover = cat({
    {0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // destination: broadcast
     0x00, 0x11, 0x22, 0x33, 0x44, 0x55,  // source: the client
     0x81, 0x00, 0x00, 0x64,              // 802.1Q, VLAN 100
     0x08, 0x00},                         // IPv4
    {0x45, 0x00, 0x01, 0x1e,              // version 4, IHL 5; total length 286
     0x00, 0x00, 0x00, 0x00,              // id; not fragmented
     0x40, 0x11, 0x79, 0xd0,              // TTL 64, UDP; header checksum
     0x00, 0x00, 0x00, 0x00,              // from 0.0.0.0
     0xff, 0xff, 0xff, 0xff},             // to 255.255.255.255
    {0x00, 0x44, 0x00, 0x43,              // UDP 68 -> 67
     0x01, 0x0a, 0x00, 0x00},             // length 266; no checksum
    {0x01, 0x01, 0x06, 0x00,              // BOOTREQUEST, Ethernet, hlen 6, hops 0
     0x12, 0x34, 0x56, 0x78,              // xid
     0x00, 0x00, 0x80, 0x00},             // secs; broadcast flag
    zeros(16),                            // ciaddr, yiaddr, siaddr, giaddr
    {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, // chaddr
    zeros(10 + 64 + 128),                 // chaddr padding, sname, file
    {0x63, 0x82, 0x53, 0x63,              // magic cookie
     53, 1, 1,                            // message type: DISCOVER
     61, 7, 1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,  // client id: type 1 and the MAC
     55, 3, 1, 3, 6,                      // parameter request: mask, router, DNS
     255},                                // end
});
// Offsets in kDiscover of the fields the cases change.
enum {
    OFF_ETH_SRC = 6, OFF_ETH_TYPE = 16, OFF_IP = 18, OFF_IP_CSUM = 28, OFF_IP_DST = 34, OFF_UDP_DPORT = 40,
    OFF_CHADDR = 74, OFF_OPT53 = 286, DISCOVER_LEN = 304,
};

// DHCPv6 SOLICIT from the same client, tagged with VLAN 100.
const bytes kSolicit = {
    0x33, 0x33, 0x00, 0x01, 0x00, 0x02,   // destination: ff02::1:2 multicast
    0x00, 0x11, 0x22, 0x33, 0x44, 0x55,   // source: the client
    0x81, 0x00, 0x00, 0x64,               // 802.1Q, VLAN 100
    0x86, 0xdd,                           // IPv6
    0x60, 0x00, 0x00, 0x00,               // version 6
    0x00, 0x12, 0x11, 0x01,               // payload 18, UDP, hop limit 1
    0xfe, 0x80, 0, 0, 0, 0, 0, 0,         // from fe80::211:22ff:fe33:4455
    0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x55,
    0xff, 0x02, 0, 0, 0, 0, 0, 0,         // to ff02::1:2
    0, 0, 0, 0, 0, 0x01, 0x00, 0x02,
    0x02, 0x22, 0x02, 0x23,               // UDP 546 -> 547
    0x00, 0x12, 0x00, 0x00,               // length 18; checksum
    0x01, 0x00, 0x00, 0x01,               // SOLICIT, transaction id 1
    0x00, 0x08, 0x00, 0x02, 0x00, 0x00,   // elapsed time 0
};

bytes with(bytes f, std::size_t off, std::initializer_list<std::uint8_t> v)
{
    std::size_t i = off;
    for (std::uint8_t b : v)
        if (i < f.size()) f[i++] = b;
    return f;
}

// The IPv4 header checksum again after a change of the header.
bytes with_ip_checksum(bytes f)
{
    f[OFF_IP_CSUM] = f[OFF_IP_CSUM + 1] = 0;
    std::uint32_t sum = 0;
    std::uint16_t word = 0;
    for (wire_reader r(bytes_view(f).subspan(OFF_IP, 20)); r.be16(word);) sum += word;
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    wire_writer(f, OFF_IP_CSUM).be16(static_cast<std::uint16_t>(~sum));
    return f;
}

const std::uint32_t GE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
const std::uint32_t GE2 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 2, 0);
const std::uint32_t GE3 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 3, 0);
const std::uint32_t GE9 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 9, 0);  // never announced
const std::uint32_t PON = st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, 2, 0, 1, 0);
const std::uint32_t ONU = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 1, 5);
const std::uint32_t SP9 = st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 9);
const std::uint32_t SP123 = st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 123);

hal_msg_pkt_t pkt(std::uint32_t ifindex, std::uint16_t vid, const bytes &frame)
{
    hal_msg_pkt_t p{};
    p.ifindex = ifindex;
    p.fwd_info.vid = vid;
    p.len = static_cast<std::uint16_t>(frame.size());
    p.data = frame.data();
    return p;
}

void expect_in_order(const std::string &text, const std::vector<std::string> &lines)
{
    std::size_t pos = 0;
    for (const auto &l : lines) {
        std::size_t at = text.find(l, pos);
        EXPECT_NE(at, std::string::npos) << "missing (or out of order): \"" << l << "\"";
        if (at != std::string::npos) pos = at + l.size();
    }
}

class DaemonSpine : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(kDiscover.size(), std::size_t(DISCOVER_LEN));
        // All of this is replayed to the daemon when it connects.
        dm.set_hostname("olt-lab7");
        dm.add_vlan(100);
        dm.add_vlan(200);
        dm.add_port(GE1, "ge1/1/1");
        dm.add_port(GE2, "ge1/1/2");
        dm.add_port(PON, "gpon1/2/1");
        dm.add_port(ONU, "gonu1/2/1:5");
        dm.port_add_vlan(GE1, 100);
        dm.port_add_vlan(GE2, 200, false);
        dm.set_pvid(GE2, 200);
        dm.set_onu_status(ONU, 1, "ABCD0005");
        ASSERT_TRUE(dm.start());
        ASSERT_TRUE(fp.start(d.hal_path()));
        ASSERT_TRUE(d.start(dm));
        ASSERT_TRUE(fp.wait_registered(5000));
        ASSERT_TRUE(d.wait_replayed(1));
    }

    void config(std::vector<std::string> cmds)
    {
        cmds.insert(cmds.begin(), "configure terminal");
        proc_result r = d.sh(cmds);
        ASSERT_EQ(r.status, 0) << r.out << r.err;
    }

    // Sends and returns the log written since, once it holds `last`.
    std::string send_until(const hal_msg_pkt_t &p, const std::string &last)
    {
        std::size_t from = d.log().size();
        EXPECT_TRUE(fp.send_pkt(p));
        std::string tail;
        for (int waited = 0; tail.find(last) == std::string::npos && waited <= 5000; waited += 20) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            tail = d.log().substr(from);
        }
        EXPECT_NE(tail.find(last), std::string::npos) << "never logged: \"" << last << "\"";
        return tail;
    }

    fake_devmgr dm;
    fake_fp fp;
    daemon_proc d{DHCP_BIN, DHCPSH_BIN};  // last, so it is killed before the peers go
};

TEST_F(DaemonSpine, FramesAreTracedWithTheirPortVlanAndServicePort)
{
    config({"debug dhcp packet"});
    const bytes request = with(kDiscover, OFF_OPT53 + 2, {3});
    const bytes unicast_request = with_ip_checksum(with(request, OFF_IP_DST, {10, 0, 0, 1}));
    // An ONU flow: service port 123, GEM VLAN 1001, user VLAN 10.
    auto gem = [](const bytes &frame) {
        hal_msg_pkt_t p = pkt(ONU, 100, frame);
        p.fwd_info.srv_if = SP123;
        p.fwd_info.srv_info.lltag = 1001;
        p.fwd_info.srv_info.uservlan = 10;
        p.fwd_info.tid = 7;  // not traced for a service-port flow
        return p;
    };
    const bytes padded = cat({kDiscover, zeros(4)});  // Ethernet padding after the DHCP end
    hal_msg_pkt_t trunk = pkt(GE2, 200, padded);
    trunk.fwd_info.tid = 0x10003;  // only the low 16 bits are the trunk id
    trunk.fwd_info.srv_if = SP9;   // a service port without a VLAN pair: traced after the trunk

    struct {
        const char *what;
        hal_msg_pkt_t p;
        std::vector<std::string> lines, absent;
    } cases[] = {
        {"port frame", pkt(GE1, 100, kDiscover),
         {"[vid: 100]<======= recieve packet on port ge1/1/1 vlan 100 len 304",
          "[vid: 100]rem=18",
          "[vid: 100]option 53 len  1 message-type:1 (discovery)",
          "[vid: 100]option 61 len  7 client-id:type1:00:11:22:33:44:55",
          "[vid: 100]option 55 len  3 required-options:01 03 06 ",
          "[vid: 100]End of dhcp options",
          "[vid: 100]discovery from 0011-2233-4455 on port ge1/1/1 dispatched"},
         {"gem [", "service port", "update raw paket length"}},
        {"broadcast request of an ONU flow keeps its VLAN", gem(request),
         {"[vid: 100]<======= recieve packet on port gonu1/2/1:5 gem [1001:10] vlan 100 len 304",
          "[vid: 100]service port servport123",
          "[vid: 100]request from 0011-2233-4455 on port gonu1/2/1:5 dispatched"},
         {"trunk id", "change to bcm vlan"}},
        {"unicast request of an ONU flow moves to the user VLAN", gem(unicast_request),
         {"[vid: 100]<======= recieve packet on port gonu1/2/1:5 gem [1001:10] vlan 100 len 304",
          "[vid: 100]rx vlan 100 change to bcm vlan 10",
          "[vid:  10]option 53 len  1 message-type:3 (request)",
          "[vid:  10]request from 0011-2233-4455 on port gonu1/2/1:5 dispatched"},
         {"trunk id"}},
        {"padded frame from a trunk member", trunk,
         {"[vid: 200]<======= recieve packet on port ge1/1/2 vlan 200 len 308",
          "[vid: 200]trunk id 3",
          "[vid: 200]service port servport9",
          "[vid: 200]update raw paket length 308 to 304",
          "[vid: 200]discovery from 0011-2233-4455 on port ge1/1/2 dispatched"},
         {}},
        {"DHCPv6 skips the DHCPv4 dumpers", pkt(GE1, 100, kSolicit),
         {"[vid: 100]<======= recieve packet on port ge1/1/1 vlan 100 len 76",
          "[PKT]DHCPv6 packet come, start processing.",
          "[vid: 100]DHCPv6 Solicit on port ge1/1/1 dispatched"},
         {"rem=", "dhcp len", "End of dhcp options"}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::string t = send_until(c.p, c.lines.back());
        expect_in_order(t, c.lines);
        c.absent.push_back("[100][LIB]");
        for (const auto &a : c.absent) EXPECT_EQ(t.find(a), std::string::npos) << "unexpected \"" << a << "\"";
    }
}

TEST_F(DaemonSpine, FramesThatAreNotDhcpOtherMessageTypesAndIndexesWithoutATypeAreRefused)
{
    struct {
        const char *what;
        bytes frame;
        std::uint16_t vid;
        std::string reason;
    } cases[] = {
        {"ARP", with(kDiscover, OFF_ETH_TYPE, {0x08, 0x06}), 101, "[vid: 101]Not an ip packet(eth protocol 0x806)"},
        {"UDP 68 to 68", with(kDiscover, OFF_UDP_DPORT, {0x00, 0x44}), 102, "[vid: 102]Not dhcp packet(sport=68, dport=68)"},
        {"no message type", with(kDiscover, OFF_OPT53, {0, 0, 0}), 103, "[vid: 103]dhcp_parse_l2_pkt failed to get dhcp type"},
    };
    // Refusals are errors: written with debugging off.
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::string bad = "[vid: " + std::to_string(c.vid) + "]vlan " + std::to_string(c.vid) + " recieve bad dhcp packet";
        std::string t = send_until(pkt(GE1, c.vid, c.frame), bad);
        expect_in_order(t, {c.reason, bad});
        EXPECT_EQ(d.log_lines(c.reason, 100).size(), 1u);
        EXPECT_EQ(d.log_lines(bad, 100).size(), 1u);
    }

    // A whole, valid packet message under another type is not a packet.
    bytes msg(HAL_PKT_MSG_LEN);
    ASSERT_TRUE(hal_msg_pkt_build(msg, pkt(GE1, 100, kDiscover), 0, 0, 0));
    ASSERT_TRUE(hal_msg_hdr_encode(msg, {HAL_PKT_MSG_LEN, 2, 0, 0, 0}));
    EXPECT_TRUE(fp.send_raw(msg));
    EXPECT_TRUE(d.wait_log("dhcp_nl_msg: invalid msg type 2", 5000, 100));

    // An index that encodes no port type is unknown too, but only a debugging line.
    const std::string no_type = "[#0000000007] is not existed.";  // index 7
    EXPECT_TRUE(fp.send_pkt(pkt(7, 100, kDiscover)));
    config({"debug dhcp packet"});
    send_until(pkt(7, 100, kDiscover), no_type);
    EXPECT_EQ(d.log_lines(no_type, 20).size(), 1u);
    EXPECT_TRUE(d.log_lines(no_type, 100).empty());

    send_until(pkt(GE1, 100, kDiscover), "on port ge1/1/1 dispatched");
    EXPECT_EQ(d.log_lines("dispatched").size(), 1u) << "a refused frame or message was dispatched";
}

// The channel delivers a burst whole and in order, and the shell is served
// meanwhile. Frames from an unknown port leave one error line each, with
// debugging off.
TEST_F(DaemonSpine, BurstIsHandledInFullAndInOrder)
{
    constexpr int N = 1000;
    std::thread sender([&] {
        for (int vid = 1; vid <= N; ++vid) fp.send_pkt(pkt(GE9, static_cast<std::uint16_t>(vid), kDiscover));
    });
    proc_result r = d.sh({"configure terminal", "show debugging dhcp"});
    sender.join();
    EXPECT_EQ(r.out, "  Dhcp debugging is off\n");
    char last[96];
    std::snprintf(last, sizeof last, "[vid:%4d]Port ge1/1/9[#0012109000] is not existed.", N);
    ASSERT_TRUE(d.wait_log(last, 30000));
    std::vector<std::string> lines = d.log_lines("]Port ge1/1/9[#0012109000] is not existed.", 100);
    ASSERT_EQ(lines.size(), std::size_t(N));
    for (int vid = 1; vid <= N; ++vid) {
        char tag[16];
        std::snprintf(tag, sizeof tag, "[vid:%4d]", vid);
        ASSERT_NE(lines[vid - 1].find(tag), std::string::npos) << "frame " << vid << " out of order: " << lines[vid - 1];
    }
}

TEST_F(DaemonSpine, OnlyTheMonitoredClientIsTracedWhenNoCategoryIsOn)
{
    config({"debug dhcp client 0011-2233-4455"});
    // The other client comes between two frames of the monitored one, so a
    // monitoring flag left on after a frame would show on it.
    EXPECT_TRUE(fp.send_pkt(pkt(GE1, 200, kDiscover)));
    const std::initializer_list<std::uint8_t> other = {0x00, 0x66, 0x77, 0x88, 0x99, 0xaa};
    EXPECT_TRUE(fp.send_pkt(pkt(GE1, 100, with(with(kDiscover, OFF_ETH_SRC, other), OFF_CHADDR, other))));
    send_until(pkt(GE1, 300, kDiscover), "[vid: 300]discovery from 0011-2233-4455 on port ge1/1/1 dispatched");
    expect_in_order(d.log(), {"<============ check dhcp debug is on client 0011-2233-4455",
                              "[vid: 200]option 53 len  1 message-type:1 (discovery)",
                              "[vid: 200]discovery from 0011-2233-4455 on port ge1/1/1 dispatched"});
    EXPECT_TRUE(d.log_lines("[vid: 100]").empty()) << "the other client's frame was traced";
}

// The replayed state and later changes reach the packet path, also across
// restarts of either peer.
TEST_F(DaemonSpine, DeviceStateFollowsTheManagerAndBothPeersMayRestart)
{
    // Host name asked at start-up, not the product file's default.
    EXPECT_EQ(d.vty('P').prompt, "olt-lab7# ");
    EXPECT_EQ(d.vty('X', "configure terminal").prompt, "olt-lab7(config)# ");
    // Every port, VLAN membership and ONU state found its place.
    EXPECT_TRUE(d.log_lines("", 100).empty()) << d.log_lines("", 100)[0];
    config({"debug dhcp packet", "debug dhcp events"});
    EXPECT_EQ(send_until(pkt(GE1, 100, kDiscover), "on port ge1/1/1 dispatched").find("is not existed."),
              std::string::npos);

    // Forwarding plane: the daemon reconnects, registers again and receives.
    fp.stop();
    EXPECT_TRUE(d.wait_log("Forwarding plane connection " + d.hal_path() + " lost", 5000, 100));
    EXPECT_EQ(d.sh({"show running-config"}).status, 0) << "vty not served while the forwarding plane is away";
    ASSERT_TRUE(fp.start(d.hal_path()));
    ASSERT_TRUE(fp.wait_registered(10000));
    EXPECT_EQ(fp.registrations(), 2);
    EXPECT_EQ(fp.module(), 1027u);
    send_until(pkt(GE1, 100, kDiscover), "[vid: 100]discovery from 0011-2233-4455 on port ge1/1/1 dispatched");

    // Device manager: gone, the daemon serves on; back, it replays and notifies again.
    send_until(pkt(GE3, 100, kDiscover), "Port ge1/1/3[#0012103000] is not existed.");
    dm.stop();
    EXPECT_TRUE(d.wait_log("Connection closed, exiting..."));
    proc_result r = d.sh({"configure terminal", "show debugging dhcp"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "  Dhcp event debugging is on\n  Dhcp packet debugging is on\n");
    send_until(pkt(GE2, 200, kDiscover), "[vid: 200]discovery from 0011-2233-4455 on port ge1/1/2 dispatched");
    ASSERT_TRUE(dm.start());
    ASSERT_TRUE(d.wait_replayed(2));
    dm.add_port(GE3, "ge1/1/3");
    EXPECT_TRUE(d.wait_log("add port ge1/1/3"));
    send_until(pkt(GE3, 100, kDiscover), "[vid: 100]discovery from 0011-2233-4455 on port ge1/1/3 dispatched");
    // A port the manager removes is gone for the packet path too.
    dm.del_port(GE2);
    EXPECT_TRUE(d.wait_log("delete if ge1/1/2"));
    send_until(pkt(GE2, 200, kDiscover), "[vid: 200]Port ge1/1/2[#0012102000] is not existed.");
    EXPECT_EQ(d.log_lines("on port ge1/1/2 dispatched").size(), 1u);
    EXPECT_TRUE(d.alive());
}

} // namespace
