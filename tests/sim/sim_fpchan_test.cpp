// The module channel, message by message: registration, the answered
// requests, packet messages both ways, and malformed input.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "devlib/ifindex.h"
#include "platform/errcode.h"
#include "sim/sim_fpchan.h"
#include "sim/sim_switch.h"

namespace {

using bytes = std::vector<std::uint8_t>;

template <class T> void host(bytes &b, T v)
{
    std::uint8_t tmp[sizeof v];
    std::memcpy(tmp, &v, sizeof v);
    b.insert(b.end(), tmp, tmp + sizeof v);
}

template <class T> T host_at(const bytes &b, std::size_t off)
{
    T v{};
    if (off + sizeof v <= b.size()) std::memcpy(&v, b.data() + off, sizeof v);
    return v;
}

bytes msg(std::uint16_t type, std::uint32_t seq, const bytes &payload, std::uint32_t len_field = 0)
{
    bytes b;
    host<std::uint32_t>(b, len_field ? len_field : std::uint32_t(16 + payload.size()));  // nlmsg_len
    host<std::uint16_t>(b, type);                                                        // nlmsg_type
    host<std::uint16_t>(b, 1);                                                           // nlmsg_flags
    host<std::uint32_t>(b, seq);                                                         // nlmsg_seq
    host<std::uint32_t>(b, 0);                                                           // nlmsg_pid
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

bytes u32_payload(std::uint32_t v)
{
    bytes b;
    host(b, v);
    return b;
}

bytes trap_payload(std::uint16_t vid, std::uint32_t enable)
{
    bytes b;
    host<std::uint32_t>(b, 0);       // ifindex
    host<std::uint16_t>(b, vid);     // vid
    host<std::uint16_t>(b, 0);       // padding
    host<std::uint32_t>(b, enable);  // enable
    return b;
}

bytes mac_payload(const std::uint8_t *mac, std::uint16_t vid)
{
    bytes b(mac, mac + 6);           // mac
    host<std::uint16_t>(b, vid);     // vid
    return b;
}

constexpr std::uint32_t UP = 0x12101000;
const std::uint8_t CLIENT[6] = {0x02, 0, 0, 0, 0, 0x0a};

struct chan {
    sim_model m;
    std::vector<std::pair<std::string, bytes>> sent;
    std::unique_ptr<sim_switch> sw;
    std::unique_ptr<sim_fpchan> fp;
    bool registered = false;
    std::uint32_t module = 0;

    chan()
    {
        m.vlans.set(100);
        sim_port up;
        up.ifindex = UP;
        up.type = PORT_TYPE_GE;
        up.name = "ge1/1/1";
        up.linux_if = "up";
        up.tagged.set(100);
        m.ports[UP] = up;
        sim_switch_io io;
        io.tx_port = [this](const sim_port &p, bytes_view f) {
            sent.emplace_back(p.linux_if, bytes(f.begin(), f.end()));
            return true;
        };
        sw = std::make_unique<sim_switch>(m, io);
        fp = std::make_unique<sim_fpchan>(nullptr, m, *sw);
    }
    bytes handle(const bytes &dgram) { return fp->handle(dgram, registered, module); }
};

// The answer to a request: its type and seq, and a u32 result.
void expect_answer(const bytes &r, std::uint16_t type, std::uint32_t seq, std::uint32_t result)
{
    ASSERT_EQ(r.size(), 20u);
    EXPECT_EQ(host_at<std::uint32_t>(r, 0), 20u);
    EXPECT_EQ(host_at<std::uint16_t>(r, 4), type);
    EXPECT_EQ(host_at<std::uint32_t>(r, 8), seq);
    EXPECT_EQ(host_at<std::uint32_t>(r, 16), result);
}

TEST(SimFpChan, RegistrationAndRequestsAreAnswered)
{
    chan c;
    expect_answer(c.handle(msg(0x100, 7, u32_payload(1027))), 0x100, 7, 0);
    EXPECT_TRUE(c.registered);
    EXPECT_EQ(c.module, 1027u);

    expect_answer(c.handle(msg(321, 8, trap_payload(100, 1))), 321, 8, 0);
    EXPECT_TRUE(c.sw->traps().on(4, 100));
    expect_answer(c.handle(msg(330, 9, trap_payload(100, 1))), 330, 9, 0);
    EXPECT_TRUE(c.sw->traps().on(6, 100));
    expect_answer(c.handle(msg(321, 10, trap_payload(100, 0))), 321, 10, 0);
    EXPECT_FALSE(c.sw->traps().on(4, 100));
    expect_answer(c.handle(msg(321, 11, trap_payload(0, 1))), 321, 11, TAVO_PARAM);

    bytes sw_on;
    host<std::uint32_t>(sw_on, 0xffffffff);                     // ifindex: every port
    host<std::uint16_t>(sw_on, 100);                            // vid
    sw_on.insert(sw_on.end(), {0xff, 0xff, 0xff, 0xff, 0xff, 0xff});  // the invalid MAC
    sw_on.insert(sw_on.end(), {0, 0, 0, 0});                   // address 0
    host<std::uint32_t>(sw_on, 0);                              // action: install
    expect_answer(c.handle(msg(329, 12, sw_on)), 329, 12, 0);
    EXPECT_TRUE(c.sw->guard().vlan_on(100));
}

TEST(SimFpChan, MacLookupAnswersThePort)
{
    chan c;
    bytes f(CLIENT, CLIENT + 6);
    f.insert(f.begin(), {0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
    f.insert(f.end(), {0x81, 0x00, 0x00, 100, 0x08, 0x06});  // VLAN 100, ARP
    f.resize(60, 0);
    c.sw->rx_port(UP, f);
    ASSERT_NE(c.sw->macs().lookup(100, CLIENT), nullptr);

    struct {
        std::uint16_t vid;
        std::uint32_t result, port;
    } cases[] = {{100, 0, UP}, {0, 0, UP}, {200, TAVO_NOT_FOUND, 0}};
    for (auto &k : cases) {
        bytes r = c.handle(msg(0x101, 40 + k.vid, mac_payload(CLIENT, k.vid)));
        ASSERT_EQ(r.size(), 24u);
        EXPECT_EQ(host_at<std::uint32_t>(r, 0), 24u);
        EXPECT_EQ(host_at<std::uint16_t>(r, 4), 0x101);
        EXPECT_EQ(host_at<std::uint32_t>(r, 8), 40u + k.vid) << "seq echoed";
        EXPECT_EQ(host_at<std::uint32_t>(r, 16), k.result) << "VLAN " << k.vid;
        EXPECT_EQ(host_at<std::uint32_t>(r, 20), k.port) << "VLAN " << k.vid;
    }
}

TEST(SimFpChan, PacketMessagesGoOutAndComeIn)
{
    chan c;
    bytes frame = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 0x0b, 0x08, 0x06};
    frame.resize(60, 0);
    hal_msg_pkt_t p{};
    p.ifindex = UP;
    p.flags = 129;
    p.fwd_info.vid = 100;
    p.len = static_cast<std::uint16_t>(frame.size());
    p.data = frame.data();
    bytes m(HAL_PKT_MSG_LEN);
    ASSERT_TRUE(hal_msg_pkt_build(m, p, 1, 0, 0));
    EXPECT_TRUE(c.handle(m).empty()) << "packets are not answered";
    ASSERT_EQ(c.sent.size(), 1u);
    EXPECT_EQ(c.sent[0].second.size(), frame.size() + 4) << "tagged for VLAN 100 on the way out";

    // A trapped frame as delivered: the summary fields filled in.
    bytes rx = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 0x0a,
                0x88, 0xa8, 0x00, 0xc8,   // S-tag, VLAN 200
                0x81, 0x00, 0x00, 0x0a,   // C-tag, VLAN 10
                0x08, 0x00,               // IPv4
                0x45, 0, 0, 28, 0, 0, 0, 0, 64, 17, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255,
                0, 68, 0, 67, 0, 8, 0, 0};
    frame_info fi;
    ASSERT_EQ(sim_frame_parse(rx, fi), FRAME_OK);
    hal_msg_pkt_t d{};
    d.ifindex = 0x52201001;
    d.fwd_info.vid = 100;
    d.fwd_info.srv_if = 0x60000001;
    d.fwd_info.srv_info.lltag = 1100;
    d.fwd_info.srv_info.uservlan = 10;
    d.fwd_info.srv_info.vlan_action = 1;
    d.len = static_cast<std::uint16_t>(rx.size());
    d.data = rx.data();
    bytes out(HAL_PKT_MSG_LEN);
    ASSERT_TRUE(sim_pkt_msg_build(out, d, fi));
    EXPECT_EQ(host_at<std::uint32_t>(out, 0), 1680u);
    EXPECT_EQ(host_at<std::uint16_t>(out, 4), 1);
    const std::size_t pl = 16;
    EXPECT_EQ(host_at<std::uint32_t>(out, pl + 0), 0x52201001u);   // ifindex
    EXPECT_EQ(host_at<std::uint32_t>(out, pl + 16), 0x60000001u);  // fwd_info.srv_if
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 20), 100);          // fwd_info.vid
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 24), 1100);         // lltag
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 26), 10);           // uservlan
    EXPECT_EQ(host_at<std::int32_t>(out, pl + 28), 1);             // vlan_action
    EXPECT_EQ(out[pl + 32], 2);                                    // vlan_depth
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 34), 0x88a8);       // vlan_stack[0].tpid
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 36), 200);          // vlan_stack[0].tci
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 38), 0x8100);       // vlan_stack[1].tpid
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 40), 10);           // vlan_stack[1].tci
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 46), 0x0800);       // ethtype
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 48), 17);           // ip.protocol
    EXPECT_EQ(host_at<std::uint16_t>(out, pl + 60), rx.size());    // len
    EXPECT_EQ(bytes(out.begin() + pl + 62, out.begin() + pl + 62 + static_cast<long>(rx.size())), rx);
}

TEST(SimFpChan, MalformedMessagesAreCountedAndSurvived)
{
    chan c;
    bytes reg = msg(0x100, 1, u32_payload(1027));
    bytes longer = reg;
    longer.insert(longer.end(), 100, 0xee);  // bytes beyond nlmsg_len are ignored
    bytes pkt_short = msg(1, 0, bytes(40, 0));
    struct {
        const char *what;
        bytes dgram;
        bool answered;
        std::uint32_t result;
    } cases[] = {
        {"shorter than a header", bytes(10, 0), false, 0},
        {"length beyond the datagram", msg(0x100, 2, u32_payload(1027), 2000), false, 0},
        {"length below a header", msg(0x100, 3, u32_payload(1027), 8), false, 0},
        {"registration without its number", msg(0x100, 4, {}), true, TAVO_PARAM},
        {"trap request cut short", msg(321, 5, bytes(8, 0)), true, TAVO_PARAM},
        {"source-guard request cut short", msg(329, 6, bytes(19, 0)), true, TAVO_PARAM},
        {"MAC lookup cut short", msg(0x101, 7, bytes(7, 0)), true, TAVO_PARAM},
        {"unknown type", msg(77, 8, bytes(4, 0)), true, TAVO_PARAM},
        {"packet message without its fixed part", pkt_short, false, 0},
        {"trailing bytes", longer, true, 0},
    };
    for (auto &k : cases) {
        bytes r = c.handle(k.dgram);
        EXPECT_EQ(!r.empty(), k.answered) << k.what;
        if (k.answered) {
            ASSERT_EQ(r.size(), 20u) << k.what;
            EXPECT_EQ(host_at<std::uint32_t>(r, 16), k.result) << k.what;
        }
    }
    EXPECT_EQ(c.fp->stats().rx_bad, 9u) << "all but the trailing bytes";
    EXPECT_TRUE(c.sent.empty());
}

} // namespace
