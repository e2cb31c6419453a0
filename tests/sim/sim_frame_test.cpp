// Frames: tag parsing, DHCP recognition and checksums left to offload.
// Classification and tagging are tested through the pipeline (sim_switch_test).
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "sim/sim_frame.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using tags_t = std::vector<std::pair<std::uint16_t, std::uint16_t>>;

void be16(bytes &b, std::uint16_t v)
{
    b.push_back(std::uint8_t(v >> 8));
    b.push_back(std::uint8_t(v));
}

// IPv4 10.0.0.1 -> 10.0.0.2 carrying l4.
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
    be16(b, frag);                                              // flags, fragment offset
    b.insert(b.end(), {64, proto, 0, 0});                       // TTL, protocol, checksum
    b.insert(b.end(), {10, 0, 0, 1, 10, 0, 0, 2});              // source, destination
    b.insert(b.end(), l4.begin(), l4.end());
    return b;
}

bytes udp(std::uint16_t sport, std::uint16_t dport)
{
    bytes b;
    be16(b, sport);
    be16(b, dport);
    b.insert(b.end(), {0, 12, 0x12, 0x34, 'a', 'b', 'c', 'd'});  // length, checksum as offload left it
    return b;
}

bytes dhcp4(tags_t tags = {}, std::uint16_t frag = 0) { return ipv4_frame(17, udp(68, 67), tags, frag); }

// fe80::1 -> ff02::1:2, UDP 546 -> 547 (a SOLICIT's headers).
const bytes V6 = {0x33, 0x33, 0, 1, 0, 2, 0x02, 0, 0, 0, 0, 0x01, 0x86, 0xdd,  // Ethernet, IPv6
                  0x60, 0, 0, 0, 0, 12, 17, 1,                                 // version, length, UDP, hops
                  0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,        // source
                  0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2,        // destination
                  0x02, 0x22, 0x02, 0x23, 0, 12, 0x55, 0x55,                   // ports, length, checksum
                  'w', 'x', 'y', 'z'};

TEST(SimFrame, ParsesTagsAndRecognisesDhcp)
{
    bytes v6_ext = V6, options = ipv4_frame(17, udp(53, 53));
    v6_ext[20] = 0;                                        // hop-by-hop options first
    options[14] = 0x46;                                    // IHL 6: four bytes of options,
    options.insert(options.begin() + 34, {0, 68, 0, 67});  // which look like DHCP ports
    struct { const char *what; bytes frame; frame_status st; int ntags; dhcp_kind dhcp; } cases[] = {
        {"untagged DISCOVER", dhcp4(), FRAME_OK, 0, DHCP_V4},
        {"QinQ", dhcp4({{0x88a8, 200}, {0x8100, 100}}), FRAME_OK, 2, DHCP_V4},
        {"old QinQ type", dhcp4({{0x9100, 300}}), FRAME_OK, 1, DHCP_V4},
        {"three tags", dhcp4({{0x88a8, 1}, {0x8100, 2}, {0x8100, 3}}), FRAME_TOO_MANY_TAGS, 0, DHCP_NONE},
        {"server to relay, 67 to 67", ipv4_frame(17, udp(67, 67)), FRAME_OK, 0, DHCP_V4},
        {"DNS", ipv4_frame(17, udp(5353, 53)), FRAME_OK, 0, DHCP_NONE},
        {"UDP after IP options", options, FRAME_OK, 0, DHCP_NONE},
        {"TCP to 67", ipv4_frame(6, udp(68, 67)), FRAME_OK, 0, DHCP_NONE},
        {"later fragment", dhcp4({}, 0x00b9), FRAME_OK, 0, DHCP_NONE},
        {"first fragment", dhcp4({}, 0x2000), FRAME_OK, 0, DHCP_V4},
        {"SOLICIT", V6, FRAME_OK, 0, DHCP_V6},
        {"IPv6 extension header not walked", v6_ext, FRAME_OK, 0, DHCP_NONE},
        {"runt", bytes(13, 0), FRAME_SHORT, 0, DHCP_NONE},
        {"tag without its type", bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x81, 0, 0, 1}, FRAME_SHORT, 0, {}},
        {"exactly 1600", bytes(1600, 0), FRAME_OK, 0, DHCP_NONE},
        {"1601", bytes(1601, 0), FRAME_TOO_BIG, 0, DHCP_NONE},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        frame_info fi;
        ASSERT_EQ(sim_frame_parse(c.frame, fi), c.st);
        if (c.st != FRAME_OK) continue;
        EXPECT_EQ(fi.ntags, c.ntags);
        EXPECT_EQ(fi.l3_off, 14u + 4 * c.ntags);
        EXPECT_EQ(fi.dhcp, c.dhcp);
    }
}

TEST(SimFrame, EveryTruncationStaysInside)
{
    for (const bytes &whole : {dhcp4({{0x88a8, 7}, {0x8100, 8}}), V6}) {
        for (std::size_t n = 0; n < whole.size(); ++n) {
            // Exact-size heap copy, so an over-read shows under the sanitizer.
            std::unique_ptr<std::uint8_t[]> cut(new std::uint8_t[n ? n : 1]);
            std::copy_n(whole.begin(), n, cut.get());
            frame_info fi;
            bool dhcp = sim_frame_parse(bytes_view(cut.get(), n), fi) == FRAME_OK && fi.dhcp != DHCP_NONE;
            EXPECT_TRUE(!dhcp || n >= fi.l3_off + (fi.ipv6 ? 44u : 24u)) << "DHCP without its UDP ports, n=" << n;
            EXPECT_FALSE(sim_frame_fill_l4_checksum(bytes_span(cut.get(), n))) << "a cut frame is not written, n=" << n;
        }
    }
}

TEST(SimFrame, FillsChecksumsOffloadLeftUndone)
{
    bytes tcp = {0x04, 0xd2, 0, 80,       // ports 1234 -> 80
                 0, 0, 0, 1, 0, 0, 0, 0,  // sequence, acknowledgement
                 0x50, 0x02, 0xff, 0xff,  // header length, SYN, window
                 0xaa, 0xaa, 0, 0};       // checksum (partial), urgent
    bytes cut = dhcp4(), sums_to_zero = dhcp4();
    cut.pop_back();                                   // the IP length claims a byte more than there is
    sums_to_zero[42] = 0x87, sums_to_zero[43] = 0xe8;  // payload for which the sum comes out zero
    // at: the checksum's offset in the frame; want -1: refused, frame untouched.
    struct { const char *what; bytes f; std::size_t at; int want; } cases[] = {
        {"UDP over IPv4", dhcp4(), 34 + 6, 0x2686},
        {"UDP: a zero sum goes out as all ones", sums_to_zero, 34 + 6, 0xffff},
        {"UDP over IPv4 in a tag", dhcp4({{0x8100, 100}}), 38 + 6, 0x2686},
        {"TCP over IPv4", ipv4_frame(6, tcp), 34 + 16, 0x96bd},
        {"UDP over IPv6", V6, 54 + 6, 0x0d17},
        {"a fragment", dhcp4({}, 0x2000), 0, -1},
        {"UDP shorter than its header", ipv4_frame(17, bytes(6, 0)), 0, -1},
        {"GRE", ipv4_frame(47, udp(1, 2)), 0, -1},
        {"IP length beyond the frame", cut, 0, -1},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        bytes f = c.f;
        ASSERT_EQ(sim_frame_fill_l4_checksum(f), c.want >= 0);
        if (c.want < 0)
            EXPECT_EQ(f, c.f);
        else
            EXPECT_EQ((f[c.at] << 8) | f[c.at + 1], c.want);
    }
}

} // namespace
