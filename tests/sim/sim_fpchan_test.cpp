// The module channel, message by message: registration, the answered
// requests, packet messages both ways, and malformed input.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "devlib/ifindex.h"
#include "platform/errcode.h"
#include "sim/sim_fpchan.h"
#include "sim/sim_switch.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using u16 = std::uint16_t;
using u32 = std::uint32_t;

// Fields in the channel's host order, packed.
template <class... T> bytes host(T... v)
{
    bytes b;
    auto one = [&b](auto x) {
        std::uint8_t tmp[sizeof x];
        std::memcpy(tmp, &x, sizeof x);
        b.insert(b.end(), tmp, tmp + sizeof x);
    };
    (one(v), ...);
    return b;
}

template <class T> T host_at(const bytes &b, std::size_t off)
{
    T v{};
    if (off + sizeof v <= b.size()) std::memcpy(&v, b.data() + off, sizeof v);
    return v;
}

bytes msg(u16 type, u32 seq, const bytes &payload, u32 len = 0)
{
    bytes b = host(len ? len : u32(16 + payload.size()), type, u16(1), seq, u32(0));  // len, type, flags, seq, pid
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

using mac_t = std::array<std::uint8_t, 6>;
constexpr u32 UP = 0x12101000, ONU = 0x52201005, ALL = 0xffffffff;
constexpr mac_t CLIENT = {0x02, 0, 0, 0, 0, 0x0a}, NO_MAC = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

bytes reg(u32 module, u32 len = 0) { return msg(0x100, 1, host(module), len); }
bytes trap(u16 type, u16 vid, u32 enable) { return msg(type, 2, host(u32(0), vid, u16(0), enable)); }
bytes mac_lookup(u16 vid) { return msg(0x101, 4, host(CLIENT, vid)); }

// The address in network order: 10.0.0.7, none for the per-VLAN switch.
bytes guard(u32 ifindex, mac_t mac, u32 action)
{
    const std::uint8_t a = ifindex == ALL ? 0 : 10, d = ifindex == ALL ? 0 : 7;
    return msg(329, 3, host(ifindex, u16(100), mac, std::array<std::uint8_t, 4>{a, 0, 0, d}, action));
}

struct chan {
    sim_model m;
    std::vector<bytes> sent;
    std::unique_ptr<sim_switch> sw;
    std::unique_ptr<sim_fpchan> fp;
    bool registered = false;
    u32 module = 0;

    chan()
    {
        m.vlans.set(100);
        m.ports[UP] = sim_port{.ifindex = UP, .type = PORT_TYPE_GE, .linux_if = "up"};
        m.ports[UP].tagged.set(100);
        sim_switch_io io;
        io.tx_port = [this](const sim_port &, bytes_view f) {
            sent.emplace_back(f.begin(), f.end());
            return true;
        };
        sw = std::make_unique<sim_switch>(m, io);
        fp = std::make_unique<sim_fpchan>(nullptr, m, *sw);
    }
    bytes handle(bytes_view dgram) { return fp->handle(dgram, registered, module); }
};

TEST(SimFpChan, RequestsAreAnsweredInOrder)
{
    chan c;
    c.sw->macs().learn(100, CLIENT.data(), UP, UP, 0);
    std::function<bool()> none = [] { return true; };
    auto &g = c.sw->guard();
    struct { const char *what; bytes req; u32 result, port; std::function<bool()> after; } steps[] = {
        {"registration", reg(27), 0, 0, [&] { return c.registered && c.module == 27; }},
        {"DHCPv4 trap on", trap(321, 100, 1), 0, 0, [&] { return c.sw->traps().on(4, 100); }},
        {"DHCPv6 trap on", trap(330, 100, 1), 0, 0, [&] { return c.sw->traps().on(6, 100); }},
        {"DHCPv4 trap off", trap(321, 100, 0), 0, 0, [&] { return !c.sw->traps().on(4, 100); }},
        {"trap on VLAN 0", trap(321, 0, 1), TAVO_PARAM, 0, none},
        {"guard on", guard(ALL, NO_MAC, 0), 0, 0, [&] { return g.vlan_on(100); }},
        {"rule", guard(ONU, CLIENT, 0), 0, 0, [&] { return g.permits(100, ONU, CLIENT.data(), 0x0a000007); }},
        {"rule withdrawn", guard(ONU, CLIENT, 1), 0, 0, [&] { return g.size() == 0; }},
        {"rule withdrawn twice", guard(ONU, CLIENT, 1), TAVO_NOT_FOUND, 0, none},
        {"MAC lookup", mac_lookup(100), 0, UP, none},
        {"MAC lookup in any VLAN", mac_lookup(0), 0, UP, none},
        {"MAC lookup in another VLAN", mac_lookup(200), TAVO_NOT_FOUND, 0, none},
        {"unknown type", msg(77, 5, bytes(4, 0)), TAVO_PARAM, 0, none},
    };
    for (auto &s : steps) {
        SCOPED_TRACE(s.what);
        bytes r = c.handle(s.req);
        const bool lookup = host_at<u16>(s.req, 4) == 0x101;
        ASSERT_EQ(r.size(), lookup ? 24u : 20u);
        EXPECT_EQ(host_at<u32>(r, 0), r.size());                       // nlmsg_len
        EXPECT_EQ(host_at<u16>(r, 4), host_at<u16>(s.req, 4));          // type echoed
        EXPECT_EQ(host_at<u32>(r, 8), host_at<u32>(s.req, 8));          // seq echoed
        EXPECT_EQ(host_at<u32>(r, 16), s.result);
        EXPECT_EQ(lookup ? host_at<u32>(r, 20) : 0u, s.port) << "the port it was last heard on";
        EXPECT_TRUE(s.after());
    }
}

TEST(SimFpChan, PacketMessagesBothWays)
{
    chan c;
    bytes frame = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 0x0a,  // destination, source
                   0x88, 0xa8, 0x00, 0xc8,                                     // S-tag, VLAN 200
                   0x81, 0x00, 0x20, 0x0a,                                     // C-tag, priority 1, VLAN 10
                   0x08, 0x00,                                                 // IPv4
                   0x45, 0, 0, 28, 0, 0, 0, 0, 64, 17, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255,  // UDP
                   0, 68, 0, 67, 0, 8, 0, 0};
    hal_msg_pkt_t p{};
    p.ifindex = UP;
    p.fwd_info.vid = 100;
    p.len = static_cast<u16>(frame.size());
    p.data = frame.data();
    bytes m(HAL_PKT_MSG_LEN);
    ASSERT_TRUE(hal_msg_pkt_build(m, p, 1, 0, 0));
    EXPECT_TRUE(c.handle(m).empty()) << "packets are not answered";
    ASSERT_EQ(c.sent.size(), 1u);
    EXPECT_EQ(c.sent[0].size(), frame.size() - 4) << "tags replaced by VLAN 100's on the way out";

    // To the module, the layer-2 summary filled in from the frame.
    frame_info fi;
    ASSERT_EQ(sim_frame_parse(frame, fi), FRAME_OK);
    bytes out(HAL_PKT_MSG_LEN);
    ASSERT_TRUE(sim_pkt_msg_build(out, p, fi));
    bytes pl(out.begin() + HAL_MSG_HDR_LEN, out.end());
    EXPECT_EQ(pl[HAL_PKT_OFF_VLAN_DEPTH], 2);
    EXPECT_EQ(host_at<u16>(pl, HAL_PKT_OFF_VLAN_STACK), 0x88a8);      // [0].tpid
    EXPECT_EQ(host_at<u16>(pl, HAL_PKT_OFF_VLAN_STACK + 6), 0x200a);  // [1].tci
    EXPECT_EQ(host_at<u16>(pl, HAL_PKT_OFF_ETHTYPE), 0x0800);
    EXPECT_EQ(host_at<u16>(pl, HAL_PKT_OFF_IP_PROTO), 17);
}

TEST(SimFpChan, MalformedMessagesAreCountedAndSurvived)
{
    chan c;
    bytes longer = reg(27);
    longer.insert(longer.end(), 100, 0xee);
    EXPECT_TRUE(c.handle(reg(27, 200)).empty()) << "length past the datagram";
    EXPECT_TRUE(c.handle(reg(27, 8)).empty()) << "length shorter than a header";
    EXPECT_TRUE(c.handle(msg(1, 0, bytes(40, 0))).empty()) << "packet message without its fixed part";
    EXPECT_EQ(c.handle(longer).size(), 20u) << "bytes past the length are ignored";
    EXPECT_EQ(c.fp->stats().rx_bad, 3u);

    // Every truncation of each request, in an exact-size heap copy whose
    // length field says so: shorter than a header, dropped; else TAVO_PARAM.
    std::uint64_t bad = c.fp->stats().rx_bad;
    for (const bytes &whole : {reg(27), trap(321, 100, 1), guard(ONU, CLIENT, 0), mac_lookup(100)}) {
        for (std::size_t n = 0; n < whole.size(); ++n, ++bad) {
            std::unique_ptr<std::uint8_t[]> cut(new std::uint8_t[n ? n : 1]);
            std::copy_n(whole.begin(), n, cut.get());
            u32 len = static_cast<u32>(n);
            if (n >= 4) std::memcpy(cut.get(), &len, 4);
            bytes r = c.handle(bytes_view(cut.get(), n));
            EXPECT_EQ(r.empty() ? 0u : host_at<u32>(r, 16), n < 16 ? 0u : u32(TAVO_PARAM)) << n;
        }
    }
    EXPECT_EQ(c.fp->stats().rx_bad, bad);
    EXPECT_TRUE(c.sent.empty());
    EXPECT_FALSE(c.sw->traps().on(4, 100));
    EXPECT_EQ(c.sw->guard().size(), 0u);
}

} // namespace
