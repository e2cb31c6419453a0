// Frames: tag parsing, DHCP recognition, VLAN classification at ingress
// (ports and ONU service ports) and tagging at egress.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "devlib/ifindex.h"
#include "sim/sim_frame.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using tags_t = std::vector<std::pair<std::uint16_t, std::uint16_t>>;

void be16(bytes &b, std::uint16_t v)
{
    b.push_back(std::uint8_t(v >> 8));
    b.push_back(std::uint8_t(v));
}

// A DHCPv4 DISCOVER's first headers; `tags` are (tpid, tci) pairs.
bytes dhcp4_frame(std::vector<std::pair<std::uint16_t, std::uint16_t>> tags = {}, std::uint16_t sport = 68,
                  std::uint16_t dport = 67, std::uint16_t frag = 0, std::uint8_t proto = 17)
{
    bytes b = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff,   // destination: broadcast
               0x02, 0x00, 0x00, 0x00, 0x00, 0x0a};  // source: client
    for (auto [tpid, tci] : tags) {
        be16(b, tpid);                               // tag protocol id
        be16(b, tci);                                // priority / VLAN
    }
    be16(b, 0x0800);                                 // IPv4
    b.insert(b.end(), {0x45, 0x00});                 // version 4, IHL 5; TOS
    be16(b, 328);                                    // total length
    be16(b, 0x1234);                                 // id
    be16(b, frag);                                   // flags, fragment offset
    b.insert(b.end(), {64, proto});                  // TTL, protocol
    be16(b, 0);                                      // checksum (not checked)
    b.insert(b.end(), {10, 0, 0, 7});                // source 10.0.0.7
    b.insert(b.end(), {255, 255, 255, 255});         // destination
    be16(b, sport);                                  // UDP source port
    be16(b, dport);                                  // UDP destination port
    be16(b, 308);                                    // UDP length
    be16(b, 0);                                      // UDP checksum
    b.resize(b.size() + 20, 0);                      // start of the BOOTP header
    return b;
}

bytes dhcp6_frame(std::uint8_t next = 17)
{
    bytes b = {0x33, 0x33, 0x00, 0x01, 0x00, 0x02,   // destination: All_DHCP_Relay_Agents_and_Servers
               0x02, 0x00, 0x00, 0x00, 0x00, 0x0b};  // source
    be16(b, 0x86dd);                                 // IPv6
    b.insert(b.end(), {0x60, 0, 0, 0});              // version 6, class, flow
    be16(b, 40);                                     // payload length
    b.insert(b.end(), {next, 1});                    // next header, hop limit
    b.insert(b.end(), {0xfe, 0x80});                 // source fe80::b
    b.resize(b.size() + 13, 0);
    b.push_back(0x0b);
    b.insert(b.end(), {0xff, 0x02});                 // destination ff02::1:2
    b.resize(b.size() + 10, 0);
    b.insert(b.end(), {0, 1, 0, 2});
    be16(b, 546);                                    // UDP source port
    be16(b, 547);                                    // UDP destination port
    be16(b, 40);                                     // UDP length
    be16(b, 0);                                      // checksum
    b.insert(b.end(), {1, 0xaa, 0xbb, 0xcc});        // SOLICIT, transaction id
    return b;
}

TEST(SimFrame, ParsesTagsAndRecognisesDhcp)
{
    struct {
        const char *what;
        bytes frame;
        frame_status st;
        int ntags;
        std::size_t l3_off;
        dhcp_kind dhcp;
    } cases[] = {
        {"untagged DISCOVER", dhcp4_frame(), FRAME_OK, 0, 14, DHCP_V4},
        {"one tag", dhcp4_frame({{0x8100, 100}}), FRAME_OK, 1, 18, DHCP_V4},
        {"QinQ", dhcp4_frame({{0x88a8, 200}, {0x8100, 100}}), FRAME_OK, 2, 22, DHCP_V4},
        {"old QinQ type", dhcp4_frame({{0x9100, 300}}), FRAME_OK, 1, 18, DHCP_V4},
        {"three tags", dhcp4_frame({{0x88a8, 1}, {0x8100, 2}, {0x8100, 3}}), FRAME_TOO_MANY_TAGS, 0, 0, DHCP_NONE},
        {"server to relay, 67 to 67", dhcp4_frame({}, 67, 67), FRAME_OK, 0, 14, DHCP_V4},
        {"68 to 68 is in the trapped ports", dhcp4_frame({}, 68, 68), FRAME_OK, 0, 14, DHCP_V4},
        {"DNS", dhcp4_frame({}, 5353, 53), FRAME_OK, 0, 14, DHCP_NONE},
        {"TCP to 67", dhcp4_frame({}, 68, 67, 0, 6), FRAME_OK, 0, 14, DHCP_NONE},
        {"later fragment", dhcp4_frame({}, 68, 67, 0x00b9), FRAME_OK, 0, 14, DHCP_NONE},
        {"first fragment", dhcp4_frame({}, 68, 67, 0x2000), FRAME_OK, 0, 14, DHCP_V4},
        {"SOLICIT", dhcp6_frame(), FRAME_OK, 0, 14, DHCP_V6},
        {"IPv6 extension header not walked", dhcp6_frame(0), FRAME_OK, 0, 14, DHCP_NONE},
        {"runt", bytes(13, 0), FRAME_SHORT, 0, 0, DHCP_NONE},
        {"tag without its type", bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x81, 0x00, 0x00, 0x64},
         FRAME_SHORT, 0, 0, DHCP_NONE},
        {"jumbo", bytes(1601, 0), FRAME_TOO_BIG, 0, 0, DHCP_NONE},
        {"exactly 1600", bytes(1600, 0), FRAME_OK, 0, 14, DHCP_NONE},
    };
    for (auto &c : cases) {
        frame_info fi;
        EXPECT_EQ(sim_frame_parse(c.frame, fi), c.st) << c.what;
        if (c.st != FRAME_OK) continue;
        EXPECT_EQ(fi.ntags, c.ntags) << c.what;
        EXPECT_EQ(fi.l3_off, c.l3_off) << c.what;
        EXPECT_EQ(fi.dhcp, c.dhcp) << c.what;
    }
}

TEST(SimFrame, ReadsTheFieldsTheGuardNeeds)
{
    bytes f = dhcp4_frame({{0x8100, 0x6064}});  // priority 3, VLAN 100
    f[18] = 0x46;                               // IHL 6: four bytes of options
    std::size_t udp = 18 + 20;
    f.insert(f.begin() + static_cast<long>(udp), {1, 1, 1, 0});  // NOP NOP NOP EOL
    f[udp + 4] = 0;
    f[udp + 5] = 53;                            // UDP source port 53
    f[udp + 6] = 0;
    f[udp + 7] = 53;                            // UDP destination port 53: not DHCP
    frame_info fi;
    ASSERT_EQ(sim_frame_parse(f, fi), FRAME_OK);
    EXPECT_EQ(fi.tags[0].vid(), 100);
    EXPECT_EQ(fi.tags[0].tci >> 13, 3);
    EXPECT_TRUE(fi.ipv4);
    EXPECT_EQ(fi.ipv4_src, 0x0a000007u);
    EXPECT_EQ(fi.sport, 53) << "the UDP header follows the IP options";
    EXPECT_EQ(fi.dhcp, DHCP_NONE);
}

TEST(SimFrame, EveryTruncationStaysInside)
{
    for (const bytes &whole : {dhcp4_frame({{0x88a8, 7}, {0x8100, 8}}), dhcp6_frame()}) {
        for (std::size_t n = 0; n < whole.size(); ++n) {
            // Exact-size heap copy, so an over-read shows under the sanitizer.
            std::unique_ptr<std::uint8_t[]> cut(new std::uint8_t[n ? n : 1]);
            std::copy(whole.begin(), whole.begin() + static_cast<long>(n), cut.get());
            frame_info fi;
            frame_status st = sim_frame_parse(bytes_view(cut.get(), n), fi);
            if (st == FRAME_OK && fi.dhcp != DHCP_NONE) {
                EXPECT_GE(n, fi.l3_off + (fi.ipv6 ? 44u : 24u)) << "DHCP seen without a whole UDP header, n=" << n;
            }
        }
    }
}

TEST(SimFrame, TagsComeAndGo)
{
    bytes plain = dhcp4_frame();
    frame_buf f;
    ASSERT_TRUE(f.assign(plain));
    ASSERT_TRUE(sim_frame_push_tag(f, SIM_TPID_8021Q, 100));
    ASSERT_EQ(f.len, plain.size() + 4);
    EXPECT_EQ(f.data[12], 0x81);
    EXPECT_EQ(f.data[13], 0x00);
    EXPECT_EQ(f.data[14], 0x00);
    EXPECT_EQ(f.data[15], 100);
    EXPECT_EQ(f.data[16], 0x08) << "the original type follows the tag";
    ASSERT_TRUE(sim_frame_push_tag(f, SIM_TPID_8021AD, 200));
    sim_frame_strip_tags(f);
    EXPECT_EQ(bytes(f.data, f.data + f.len), plain);
    ASSERT_TRUE(sim_frame_pop_tag(f)) << "popping an untagged frame changes nothing";
    EXPECT_EQ(f.len, plain.size());

    frame_buf full;
    ASSERT_TRUE(full.assign(bytes(SIM_FRAME_BUF - 2, 0)));
    EXPECT_FALSE(sim_frame_push_tag(full, SIM_TPID_8021Q, 1)) << "no room: refused, not overrun";
    frame_buf tiny;
    ASSERT_TRUE(tiny.assign(bytes{1, 2, 3}));
    EXPECT_FALSE(sim_frame_push_tag(tiny, SIM_TPID_8021Q, 1));
    EXPECT_FALSE(tiny.assign(bytes(SIM_FRAME_BUF + 1, 0)));
}

// IPv4 10.0.0.1 -> 10.0.0.2 with the given transport bytes.
bytes ipv4_frame(std::uint8_t proto, const bytes &l4, tags_t tags = {}, std::uint16_t frag = 0)
{
    bytes b = {0x02, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x01};  // destination, source
    for (auto [tpid, tci] : tags) {
        be16(b, tpid);                                          // tag
        be16(b, tci);
    }
    be16(b, 0x0800);                                            // IPv4
    b.insert(b.end(), {0x45, 0});                               // version, IHL; TOS
    be16(b, static_cast<std::uint16_t>(20 + l4.size()));        // total length
    be16(b, 0);                                                 // id
    be16(b, frag);                                              // fragment
    b.insert(b.end(), {64, proto, 0, 0});                       // TTL, protocol, checksum
    b.insert(b.end(), {10, 0, 0, 1, 10, 0, 0, 2});              // source, destination
    b.insert(b.end(), l4.begin(), l4.end());
    return b;
}

TEST(SimFrame, FillsChecksumsOffloadLeftUndone)
{
    bytes udp = {0, 68, 0, 67,            // ports
                 0, 12, 0x12, 0x34,       // length, checksum as offload left it
                 'a', 'b', 'c', 'd'};
    bytes tcp = {0x04, 0xd2, 0, 80,       // ports 1234 -> 80
                 0, 0, 0, 1, 0, 0, 0, 0,  // sequence, acknowledgement
                 0x50, 0x02, 0xff, 0xff,  // header length, SYN, window
                 0xaa, 0xaa, 0, 0};       // checksum (partial), urgent
    bytes v6 = {0x33, 0x33, 0, 1, 0, 2, 0x02, 0, 0, 0, 0, 0x01, 0x86, 0xdd,  // Ethernet, IPv6
                0x60, 0, 0, 0, 0, 12, 17, 1,                                 // version, length, UDP, hops
                0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,        // fe80::1
                0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2,        // ff02::1:2
                0x02, 0x22, 0x02, 0x23, 0, 12, 0x55, 0x55,                   // 546 -> 547, length, checksum
                'w', 'x', 'y', 'z'};
    struct {
        const char *what;
        bytes f;
        std::size_t at;   // checksum offset in the frame
        int want;         // -1: refused, frame untouched
    } cases[] = {
        {"UDP over IPv4", ipv4_frame(17, udp), 34 + 6, 0x2686},
        {"UDP over IPv4 in a tag", ipv4_frame(17, udp, {{0x8100, 100}}), 38 + 6, 0x2686},
        {"TCP over IPv4", ipv4_frame(6, tcp), 34 + 16, 0x96bd},
        {"UDP over IPv6", v6, 54 + 6, 0x0d17},
        {"a fragment", ipv4_frame(17, udp, {}, 0x2000), 34 + 6, -1},
        {"UDP shorter than its header", ipv4_frame(17, bytes(udp.begin(), udp.begin() + 6)), 0, -1},
        {"GRE", ipv4_frame(47, udp), 34 + 6, -1},
    };
    for (auto &c : cases) {
        bytes f = c.f;
        bool ok = sim_frame_fill_l4_checksum(f);
        EXPECT_EQ(ok, c.want >= 0) << c.what;
        if (c.want < 0) {
            EXPECT_EQ(f, c.f) << c.what;
            continue;
        }
        EXPECT_EQ((f[c.at] << 8) | f[c.at + 1], c.want) << c.what;
    }
    bytes cut = ipv4_frame(17, udp);
    cut.resize(cut.size() - 1);  // the IP length claims a byte more than there is
    EXPECT_FALSE(sim_frame_fill_l4_checksum(cut));
}

sim_port uplink()
{
    sim_port p;
    p.ifindex = 0x12101000;
    p.type = PORT_TYPE_GE;
    p.pvid = 100;
    p.tagged.set(200);
    p.untagged.set(300);
    return p;
}

TEST(SimFrame, ClassifiesPortFrames)
{
    sim_port p = uplink();
    sim_port access;
    access.type = PORT_TYPE_GE;
    struct {
        const char *what;
        const sim_port &port;
        std::vector<std::pair<std::uint16_t, std::uint16_t>> tags;
        classify_result r;
        std::uint16_t vid;
        bool pop;
    } cases[] = {
        {"untagged joins the port VLAN", p, {}, CLASSIFY_OK, 100, false},
        {"priority-tagged too, tag removed", p, {{0x8100, 0xe000}}, CLASSIFY_OK, 100, true},
        {"tagged member", p, {{0x8100, 200}}, CLASSIFY_OK, 200, true},
        {"tagged frame in an untagged VLAN", p, {{0x8100, 300}}, CLASSIFY_OK, 300, true},
        {"tagged with the port VLAN", p, {{0x8100, 100}}, CLASSIFY_OK, 100, true},
        {"QinQ classified by the outer tag", p, {{0x88a8, 200}, {0x8100, 55}}, CLASSIFY_OK, 200, true},
        {"not a member", p, {{0x8100, 400}}, CLASSIFY_NO_VLAN, 0, false},
        {"VLAN 4095", p, {{0x8100, 4095}}, CLASSIFY_NO_VLAN, 0, false},
        {"untagged without a port VLAN", access, {}, CLASSIFY_NO_VLAN, 0, false},
    };
    for (auto &c : cases) {
        frame_info fi;
        ASSERT_EQ(sim_frame_parse(dhcp4_frame(c.tags), fi), FRAME_OK) << c.what;
        classification cl;
        EXPECT_EQ(sim_classify_port(c.port, fi, cl), c.r) << c.what;
        if (c.r != CLASSIFY_OK) continue;
        EXPECT_EQ(cl.vid, c.vid) << c.what;
        EXPECT_EQ(cl.pop_outer, c.pop) << c.what;
        EXPECT_EQ(cl.servport, nullptr) << c.what;
    }
}

// Two ONUs: A has user VLAN 10 tagged (VLAN 100) and an untagged flow (VLAN
// 200, user VLAN 20); B has user VLAN 10 tagged into VLAN 300.
struct onu_box {
    sim_model m;
    std::uint32_t a = 0x52201001, b = 0x52201002;
    onu_box()
    {
        for (std::uint32_t ix : {a, b}) {
            sim_port o;
            o.ifindex = ix;
            o.type = PORT_TYPE_GONU;
            m.ports[ix] = o;
        }
        m.servports[1] = sim_servport{1, 0x60000001, a, 100, 1100, 10, true, 1};
        m.servports[2] = sim_servport{2, 0x60000002, a, 200, 1200, 20, false, 0};
        m.servports[3] = sim_servport{3, 0x60000003, b, 300, 1300, 10, true, 2};
    }
};

TEST(SimFrame, ServicePortTranslation)
{
    onu_box box;
    struct {
        const char *what;
        std::uint32_t onu;
        std::vector<std::pair<std::uint16_t, std::uint16_t>> tags;
        classify_result r;
        std::uint32_t servport;
        std::uint16_t vid;
    } cases[] = {
        {"user VLAN 10 of A", box.a, {{0x8100, 10}}, CLASSIFY_OK, 1, 100},
        {"untagged from A", box.a, {}, CLASSIFY_OK, 2, 200},
        {"priority-tagged from A is untagged", box.a, {{0x8100, 0x2000}}, CLASSIFY_OK, 2, 200},
        {"the untagged flow's user VLAN as a tag", box.a, {{0x8100, 20}}, CLASSIFY_NO_SERVPORT, 0, 0},
        {"user VLAN 10 of B", box.b, {{0x8100, 10}}, CLASSIFY_OK, 3, 300},
        {"untagged from B", box.b, {}, CLASSIFY_NO_SERVPORT, 0, 0},
        {"unknown user VLAN", box.b, {{0x8100, 11}}, CLASSIFY_NO_SERVPORT, 0, 0},
    };
    for (auto &c : cases) {
        frame_info fi;
        ASSERT_EQ(sim_frame_parse(dhcp4_frame(c.tags), fi), FRAME_OK) << c.what;
        classification cl;
        EXPECT_EQ(sim_classify_onu(box.m, c.onu, fi, cl), c.r) << c.what;
        if (c.r != CLASSIFY_OK) continue;
        ASSERT_NE(cl.servport, nullptr) << c.what;
        EXPECT_EQ(cl.servport->id, c.servport) << c.what;
        EXPECT_EQ(cl.vid, c.vid) << c.what;
        EXPECT_EQ(cl.pop_outer, !c.tags.empty()) << c.what;
    }
}

TEST(SimFrame, EgressTagging)
{
    sim_model m;
    m.ports[0x12101000] = uplink();
    const sim_port &p = m.ports[0x12101000];
    struct {
        std::uint16_t vid;
        bool member;
        std::uint16_t tag;
    } port_cases[] = {{100, true, 0}, {200, true, 200}, {300, true, 0}, {400, false, 0}, {0, false, 0}};
    for (auto &c : port_cases) {
        std::uint16_t tag = 0xffff;
        EXPECT_EQ(sim_egress_port(m, p, c.vid, tag), c.member) << "VLAN " << c.vid;
        if (c.member) {
            EXPECT_EQ(tag, c.tag) << "VLAN " << c.vid;
        }
    }

    onu_box box;
    struct {
        std::uint32_t onu;
        std::uint16_t vid;
        bool member;
        std::uint16_t tag;
    } onu_cases[] = {
        {box.a, 100, true, 10},   // back to the user VLAN
        {box.a, 200, true, 0},    // the untagged flow leaves untagged
        {box.a, 10, true, 10},    // addressed by its user VLAN
        {box.a, 300, false, 0},   // B's VLAN, not A's
        {box.b, 300, true, 10},
    };
    for (auto &c : onu_cases) {
        std::uint16_t tag = 0xffff;
        EXPECT_EQ(sim_egress_onu(box.m, box.m.ports[c.onu], c.vid, tag), c.member) << "VLAN " << c.vid;
        if (c.member) {
            EXPECT_EQ(tag, c.tag) << "VLAN " << c.vid;
        }
    }
}

} // namespace
