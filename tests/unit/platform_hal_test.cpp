// Forwarding-plane channel: message layout, truncations, registration,
// delivery order and budget, malformed datagrams, request/reply, reconnection.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "lib/thread.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "platform/hal_msg.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using ms = std::chrono::milliseconds;

template <class T> void host(bytes &b, T v)
{
    std::uint8_t tmp[sizeof v];
    std::memcpy(tmp, &v, sizeof v);
    b.insert(b.end(), tmp, tmp + sizeof v);
}

// A packet payload, one field per line (host order, as on the channel).
bytes golden_payload(std::uint16_t len_field, std::size_t frame_bytes)
{
    bytes b;
    host<std::uint32_t>(b, 0x4a001000);   // ifindex
    host<std::uint32_t>(b, 0);            // flags
    host<std::uint32_t>(b, 0x11111111);   // fwd_info.ifindex
    host<std::uint32_t>(b, 0x00070003);   // fwd_info.tid
    host<std::uint32_t>(b, 0x60000010);   // fwd_info.srv_if
    host<std::uint16_t>(b, 100);          // fwd_info.vid
    host<std::uint16_t>(b, 0);            // padding
    host<std::uint16_t>(b, 200);          // srv_info.lltag
    host<std::uint16_t>(b, 10);           // srv_info.uservlan
    host<std::int32_t>(b, -2);            // srv_info.vlan_action
    b.resize(52, 0);                      // l2/l3 summary, not read
    host<std::uint32_t>(b, 0x22222222);   // src_if
    host<std::int32_t>(b, 5);             // src_tid
    host<std::uint16_t>(b, len_field);    // len
    for (std::size_t i = 0; i < frame_bytes; ++i) b.push_back(std::uint8_t(i));  // data
    if (frame_bytes == HAL_PKT_DATA_MAX) b.insert(b.end(), 2, 0);  // tail padding of the record
    return b;
}

bytes message(std::uint16_t type, std::uint32_t seq, const bytes &payload, std::uint16_t flags = 0,
              std::uint32_t pid = 0)
{
    bytes b;
    host<std::uint32_t>(b, std::uint32_t(16 + payload.size()));  // nlmsg_len
    host<std::uint16_t>(b, type);                                // nlmsg_type
    host<std::uint16_t>(b, flags);                               // nlmsg_flags
    host<std::uint32_t>(b, seq);                                 // nlmsg_seq
    host<std::uint32_t>(b, pid);                                 // nlmsg_pid
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

TEST(HalMsg, PacketFieldsAtTheirOffsetsHeaderInHostOrderAndWhatDoesNotFitIsRefused)
{
    bytes p = golden_payload(64, HAL_PKT_DATA_MAX);
    ASSERT_EQ(p.size(), std::size_t(HAL_MSG_PKT_LEN));
    hal_msg_pkt_t d{};
    ASSERT_TRUE(hal_msg_pkt_decode(p, d));
    EXPECT_EQ(d.ifindex, 0x4a001000u);
    EXPECT_EQ(d.fwd_info.tid, 0x00070003u);
    EXPECT_EQ(d.fwd_info.srv_if, 0x60000010u);
    EXPECT_EQ(d.fwd_info.vid, 100);
    EXPECT_EQ(d.fwd_info.srv_info.lltag, 200);
    EXPECT_EQ(d.fwd_info.srv_info.uservlan, 10);
    EXPECT_EQ(d.fwd_info.srv_info.vlan_action, -2);
    EXPECT_EQ(d.src_if, 0x22222222u);
    EXPECT_EQ(d.src_tid, 5);
    EXPECT_EQ(d.len, 64);
    EXPECT_EQ(d.data, p.data() + HAL_PKT_OFF_DATA);
    // Encoding the decoded view gives the same bytes except the unread fields, zeroed.
    bytes again(HAL_MSG_PKT_LEN), expect = p;
    ASSERT_TRUE(hal_msg_pkt_encode(again, d));
    std::fill(expect.begin() + HAL_PKT_OFF_DATA + 64, expect.end(), 0);
    EXPECT_EQ(again, expect);

    bytes msg(HAL_PKT_MSG_LEN);
    ASSERT_TRUE(hal_msg_pkt_build(msg, d, HAL_MSG_FLAG_REQUEST, 77, 3));
    EXPECT_EQ(msg, message(HAL_MSG_TYPE_PKT, 77, expect, HAL_MSG_FLAG_REQUEST, 3));

    // What does not fit is refused.
    d.len = HAL_PKT_DATA_MAX + 1;
    EXPECT_FALSE(hal_msg_pkt_encode(again, d));
    d.len = 10;
    EXPECT_FALSE(hal_msg_pkt_encode(bytes_span(again).first(HAL_MSG_PKT_LEN - 1), d));
    EXPECT_FALSE(hal_msg_pkt_build(bytes_span(msg).first(HAL_PKT_MSG_LEN - 1), d, 0, 0, 0));
}

TEST(HalMsg, EveryTruncationIsRefusedOrClampedToWhatArrived)
{
    bytes reg(HAL_MSG_REG_LEN);
    ASSERT_TRUE(hal_msg_u32_build(reg, HAL_MSG_TYPE_REGISTER, 0, 1, 1027));
    struct {
        const char *what;
        bytes whole;
        std::size_t need;  // shortest acceptable
        std::function<bool(bytes_view)> decode;
    } rows[] = {
        {"header", message(HAL_MSG_TYPE_PKT, 77, {}), HAL_MSG_HDR_LEN,
         [](bytes_view b) {
             hal_msg_hdr_t h{};
             return hal_msg_hdr_decode(b, h) && h.nlmsg_len == 16 && h.nlmsg_type == HAL_MSG_TYPE_PKT &&
                    h.nlmsg_seq == 77;
         }},
        {"u32 message", reg, HAL_MSG_REG_LEN,
         [](bytes_view b) { std::uint32_t v = 0; return hal_msg_u32_decode(b, v) && v == 1027; }},
        // The frame is cut to what arrived.
        {"packet", golden_payload(300, 300), HAL_PKT_OFF_DATA, [](bytes_view b) {
             hal_msg_pkt_t d{};
             return hal_msg_pkt_decode(b, d) && d.len == std::min<std::size_t>(300, b.size() - HAL_PKT_OFF_DATA);
         }},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.what);
        for (std::size_t n = 0; n <= row.whole.size(); ++n) {
            bytes cut(row.whole.begin(), row.whole.begin() + long(n));
            cut.shrink_to_fit();  // exact size: an over-read is caught by the sanitizer
            EXPECT_EQ(row.decode(cut), n >= row.need) << n;
        }
    }
    // A claim beyond the 1600-byte data area stops at the area.
    hal_msg_pkt_t d{};
    ASSERT_TRUE(hal_msg_pkt_decode(golden_payload(2000, HAL_PKT_DATA_MAX + 2), d));
    EXPECT_EQ(d.len, HAL_PKT_DATA_MAX);
}

TEST(ErrCode, TextsForCodesAndAFallback)
{
    EXPECT_STREQ(st_errcode_get_str(TAVO_NOT_FOUND), "Not found");
    EXPECT_STREQ(st_errcode_get_str(TAVO_EXISTS), "Already exists");
    EXPECT_STREQ(st_errcode_get_str(TAVO_PARAM), "Invalid parameter");
    EXPECT_STREQ(st_errcode_get_str(42), "Unknown error");
}

// ---- the channel over a real socket -------------------------------------

struct delivered {
    int type;
    bytes payload;
};
std::vector<delivered> g_got;
std::function<void()> g_on_msg;

std::uint32_t record_msg(int type, std::uint8_t *buf, std::uint32_t len)
{
    g_got.push_back({type, bytes(buf, buf + (len - HAL_MSG_HDR_LEN))});
    if (g_on_msg) g_on_msg();
    return 0;
}

std::uint32_t ifindex_of(const delivered &d)
{
    hal_msg_pkt_t p{};
    return d.type == HAL_MSG_TYPE_PKT && hal_msg_pkt_decode(d.payload, p) ? p.ifindex : ~0u;
}

class HalChannel : public ::testing::Test {
protected:
    void SetUp() override
    {
        path_ = "/tmp/hal_test_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
        g_got.clear();
        g_on_msg = nullptr;
        master_ = thread_master_create("test");
        hal_set_path(path_.c_str());
    }
    void TearDown() override
    {
        hal_close();
        thread_cancel(&tick_);
        thread_master_free(master_);
        close_peer();
    }
    void listen_peer()
    {
        unlink(path_.c_str());
        listen_ = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un sun{};
        sun.sun_family = AF_UNIX;
        std::strncpy(sun.sun_path, path_.c_str(), sizeof sun.sun_path - 1);
        ASSERT_EQ(bind(listen_, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0);
        ASSERT_EQ(listen(listen_, 2), 0);
    }
    void close_peer()
    {
        for (int *fd : {&conn_, &listen_})
            if (*fd >= 0) close(std::exchange(*fd, -1));
        unlink(path_.c_str());
    }
    // Listens, starts the channel, accepts the module and checks its registration.
    void connect_module()
    {
        listen_peer();
        ASSERT_EQ(hal_init(HAL_DHCP, master_, record_msg), 0);
        accept_registration();
    }
    void accept_registration()
    {
        conn_ = accept(listen_, nullptr, nullptr);
        ASSERT_GE(conn_, 0);
        timeval tv{2, 0};
        setsockopt(conn_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        bytes m = peer_recv();
        hal_msg_hdr_t h{};
        std::uint32_t module = 0;
        ASSERT_TRUE(hal_msg_hdr_decode(m, h) && hal_msg_u32_decode(m, module));
        EXPECT_EQ(h.nlmsg_type, HAL_MSG_TYPE_REGISTER);
        EXPECT_EQ(h.nlmsg_len, std::uint32_t(HAL_MSG_REG_LEN));
        EXPECT_EQ(module, std::uint32_t(HAL_DHCP));
        bytes ack(HAL_MSG_REG_LEN);
        hal_msg_u32_build(ack, HAL_MSG_TYPE_REGISTER, 0, h.nlmsg_seq, 0);
        peer_send(ack);
    }
    bytes peer_recv()
    {
        bytes b(4096);
        ssize_t n = recv(conn_, b.data(), b.size(), 0);
        b.resize(n > 0 ? std::size_t(n) : 0);
        return b;
    }
    void peer_send(const bytes &b) { ASSERT_EQ(send(conn_, b.data(), b.size(), 0), ssize_t(b.size())); }
    static bytes pkt(std::uint32_t ifindex)
    {
        bytes m(HAL_PKT_MSG_LEN);
        hal_msg_pkt_t p{};
        p.ifindex = ifindex;
        hal_msg_pkt_build(m, p, 0, 0, 0);
        return m;
    }
    bool pump_until(const std::function<bool()> &done)
    {
        auto end = std::chrono::steady_clock::now() + ms(3000);
        while (!done()) {
            if (std::chrono::steady_clock::now() > end) return false;
            thread_add_timer_msec(master_, [](thread *) { return 0; }, nullptr, 10, &tick_);
            thread fetch;
            if (thread_fetch(master_, &fetch)) thread_call(&fetch);
        }
        return true;
    }

    std::string path_;
    thread_master *master_ = nullptr;
    thread *tick_ = nullptr;
    int listen_ = -1, conn_ = -1;
};

TEST_F(HalChannel, DeliversInOrderAndDropsMalformedDatagrams)
{
    connect_module();
    EXPECT_TRUE(hal_is_connected());
    bytes lying = pkt(2), longer = pkt(2);
    lying[0] ^= 0x01;
    longer.push_back(0);
    const bytes malformed[] = {
        bytes(15, 0),                   // shorter than a header
        lying,                          // nlmsg_len beyond the datagram
        longer,                         // the datagram beyond nlmsg_len
        message(7, 0, bytes(9000, 0)),  // consistent, but larger than any message taken
    };
    peer_send(pkt(1));
    for (const bytes &m : malformed) peer_send(m);
    peer_send(pkt(3));
    peer_send(message(7, 0, {0xaa, 0xbb}));  // any other type goes to the callback too

    ASSERT_TRUE(pump_until([] { return g_got.size() >= 3; }));
    ASSERT_EQ(g_got.size(), 3u);
    EXPECT_EQ(ifindex_of(g_got[0]), 1u);
    EXPECT_EQ(ifindex_of(g_got[1]), 3u);
    EXPECT_EQ(g_got[2].type, 7);
    EXPECT_EQ(g_got[2].payload, (bytes{0xaa, 0xbb}));
    EXPECT_EQ(hal_get_stats().rx_bad, std::size(malformed));
    EXPECT_EQ(hal_get_stats().rx_msgs, 3u);  // the registration answer is not counted
}

TEST_F(HalChannel, SyncSendMatchesSeqAndDeliversOthersAfterwardsInOrder)
{
    connect_module();
    std::thread peer([&] {
        bytes req = peer_recv(), stale(HAL_MSG_REG_LEN), answer(HAL_MSG_REG_LEN);
        hal_msg_hdr_t h{};
        hal_msg_hdr_decode(req, h);
        hal_msg_u32_build(stale, 9, 0, h.nlmsg_seq + 1, 1);  // someone else's reply
        hal_msg_u32_build(answer, 9, 0, h.nlmsg_seq, 1234);
        for (const bytes &b : {pkt(11), stale, answer, pkt(12)}) peer_send(b);
    });
    bytes req(HAL_MSG_REG_LEN), reply(64);
    hal_msg_u32_build(req, 9, HAL_MSG_FLAG_REQUEST, 0, 5);  // seq 0: the channel picks one
    std::size_t got = 0;
    int rc = hal_send(req.data(), req.size(), reply.data(), reply.size(), &got);
    peer.join();
    ASSERT_EQ(rc, 0);
    hal_msg_hdr_t rh{}, qh{};
    hal_msg_hdr_decode(req, qh);
    EXPECT_NE(qh.nlmsg_seq, 0u);
    ASSERT_EQ(got, std::size_t(HAL_MSG_REG_LEN));
    std::uint32_t v = 0;
    ASSERT_TRUE(hal_msg_hdr_decode(bytes_view(reply.data(), got), rh) && hal_msg_u32_decode(reply, v));
    EXPECT_EQ(rh.nlmsg_seq, qh.nlmsg_seq);
    EXPECT_EQ(v, 1234u);

    ASSERT_TRUE(pump_until([] { return g_got.size() >= 3; }));
    EXPECT_EQ(ifindex_of(g_got[0]), 11u);
    EXPECT_EQ(g_got[1].type, 9);
    EXPECT_EQ(ifindex_of(g_got[2]), 12u);
}

TEST_F(HalChannel, SendsCheckTheLengthTimeOutAndFailWhenDown)
{
    connect_module();
    bytes m = pkt(0x4a001000);
    ASSERT_EQ(hal_send_async(m.data(), m.size()), 0);
    EXPECT_EQ(peer_recv(), m);
    EXPECT_EQ(hal_send_async(m.data(), m.size() - 1), TAVO_PARAM);
    EXPECT_EQ(hal_send_async(m.data(), 10), TAVO_PARAM);

    bytes req(HAL_MSG_REG_LEN), reply(64);
    hal_msg_u32_build(req, 9, 0, 0, 0);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(hal_send(req.data(), req.size(), reply.data(), reply.size(), nullptr), TAVO_TIMEOUT);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, ms(900));
    EXPECT_LT(waited, ms(2000));
    hal_close();
    EXPECT_EQ(hal_send(req.data(), req.size(), reply.data(), reply.size(), nullptr), TAVO_UNAVAIL);
    EXPECT_EQ(hal_send_async(req.data(), req.size()), TAVO_UNAVAIL);
}

TEST_F(HalChannel, ReconnectsAndRegistersAgainAfterPeerRestart)
{
    // Not up at start: the module keeps trying.
    ASSERT_EQ(hal_init(HAL_DHCP, master_, record_msg), 0);
    EXPECT_FALSE(hal_is_connected());
    listen_peer();
    ASSERT_TRUE(pump_until([] { return hal_is_connected(); }));
    accept_registration();

    close_peer();  // the peer goes away entirely
    ASSERT_TRUE(pump_until([] { return !hal_is_connected(); }));
    bytes m = pkt(1);
    EXPECT_EQ(hal_send_async(m.data(), m.size()), TAVO_UNAVAIL);

    listen_peer();
    ASSERT_TRUE(pump_until([] { return hal_is_connected(); }));
    accept_registration();
    peer_send(pkt(5));
    ASSERT_TRUE(pump_until([] { return !g_got.empty(); }));
    EXPECT_EQ(hal_get_stats().connects, 2u);
    EXPECT_EQ(hal_get_stats().disconnects, 1u);
}

TEST_F(HalChannel, OneRunStopsAtTheBudgetOnATenMessageBoundary)
{
    connect_module();
    ASSERT_EQ(hal_recv(record_msg), 0);  // takes the registration answer
    for (int i = 0; i < 40; ++i) peer_send(pkt(std::uint32_t(i)));
    std::this_thread::sleep_for(ms(20));
    // 6 ms per message: ten of them pass the 50 ms budget.
    g_on_msg = [] { std::this_thread::sleep_for(ms(6)); };
    ASSERT_EQ(hal_recv(record_msg), 0);
    EXPECT_EQ(g_got.size(), 10u);
    g_on_msg = nullptr;
    ASSERT_EQ(hal_recv(record_msg), 0);
    EXPECT_EQ(g_got.size(), 40u);
}

} // namespace
