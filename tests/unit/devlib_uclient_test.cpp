// Device-manager protocol codec and the client: framing, every message type,
// truncations and malformed streams, the state replay into the port and VLAN
// tables, requests and their fallbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "devlib/devmgr_io.h"
#include "devlib/devmgr_proto.h"
#include "devlib/ifindex.h"
#include "devlib/uclient.h"
#include "platform/errcode.h"
#include "platform/product.h"

namespace {

using bytes = std::vector<std::uint8_t>;

void be16(bytes &b, std::uint16_t v) { b.push_back(std::uint8_t(v >> 8)); b.push_back(std::uint8_t(v)); }
void be32(bytes &b, std::uint32_t v) { be16(b, std::uint16_t(v >> 16)); be16(b, std::uint16_t(v)); }
void text(bytes &b, const char *s, std::size_t field)
{
    b.insert(b.end(), s, s + std::strlen(s));
    b.insert(b.end(), field - std::strlen(s), 0);
}
bytes header(std::uint16_t type, std::uint32_t length)
{
    bytes b;
    be16(b, type);    // type
    be16(b, 0);       // flags
    be32(b, 0);       // seq
    be32(b, length);  // payload length
    return b;
}
bytes encoded(devmgr_msg_t m)
{
    bytes b;
    devmgr_encode(m, b);
    return b;
}

// The first message of a stream: the framing verdict, and the decoder's when it framed.
struct decoded {
    int frame, dec = 0;
    std::size_t whole = 0;
    devmgr_msg_t m{};
};
decoded decode(bytes_view s)
{
    decoded r{};
    devmgr_hdr_t h{};
    r.frame = devmgr_frame(s, h, r.whole);
    if (r.frame == DEVMGR_FRAME_OK) r.dec = devmgr_decode(h, s.subspan(DEVMGR_HDR_LEN, h.length), r.m);
    return r;
}

// IF_NEW for ge1/1/1, one field per line.
bytes if_new_vector()
{
    bytes b = header(0x0101, 76);  // IF_NEW
    be32(b, 0x12101000);           // ifindex: GE, shelf 1, slot 1, port 1
    text(b, "uplink", 20);         // name
    be32(b, 1);                    // status
    be32(b, 1);                    // admin
    be32(b, 2);                    // duplex
    be32(b, 10000);                // speed
    be32(b, 0x10);                 // flags
    text(b, "", 32);               // onu_sn
    return b;
}

TEST(DevmgrProto, AnnotatedIfNewDecodesEncodesBackAndEveryTruncationIsIncompleteOrShort)
{
    bytes v = if_new_vector();
    decoded d = decode(v);
    ASSERT_EQ(d.frame, DEVMGR_FRAME_OK);
    ASSERT_EQ(d.dec, DEVMGR_DEC_OK);
    EXPECT_EQ(d.whole, v.size());
    EXPECT_EQ(d.m.type, DEVMGR_IF_NEW);
    EXPECT_EQ(d.m.ifm.ifindex, 0x12101000u);
    EXPECT_STREQ(d.m.ifm.name, "uplink");
    EXPECT_EQ(d.m.ifm.speed, 10000u);
    EXPECT_EQ(d.m.ifm.flags, 0x10u);
    EXPECT_EQ(std::string(st_ifname(d.m.ifm.ifindex)), "ge1/1/1");
    EXPECT_EQ(encoded(d.m), v);

    for (std::size_t n = 0; n < v.size(); ++n) {
        bytes cut(v.begin(), v.begin() + long(n));
        cut.shrink_to_fit();  // exact size: an over-read is caught by the sanitizer
        EXPECT_EQ(decode(cut).frame, DEVMGR_FRAME_MORE) << n;
        if (n < DEVMGR_HDR_LEN) continue;
        // A peer that declares a short payload for a known type is broken.
        wire_writer(cut, 8).be32(std::uint32_t(n - DEVMGR_HDR_LEN));
        EXPECT_EQ(decode(cut).dec, DEVMGR_DEC_SHORT) << n;
    }
}

TEST(DevmgrProto, EveryTypeRoundTripsAndStringsComeOutTerminated)
{
    for (std::uint16_t t : {DEVMGR_HELLO, DEVMGR_HELLO_ACK, DEVMGR_GET_HOSTNAME, DEVMGR_HOSTNAME,
                            DEVMGR_CFG_SYNC_PRIO_SET, DEVMGR_CFG_RECOVERY_RESULT, DEVMGR_RESULT, DEVMGR_IF_NEW,
                            DEVMGR_IF_DEL, DEVMGR_IF_STATUS, DEVMGR_IF_ADMIN, DEVMGR_TRUNK_SET, DEVMGR_VLAN_CREATE,
                            DEVMGR_VLAN_DESTROY, DEVMGR_VLAN_PORT, DEVMGR_HOST, DEVMGR_ONU_STATUS,
                            DEVMGR_SLOT_SWITCH_START, DEVMGR_SLOT_SWITCH_END, DEVMGR_SLOT_CFG_SYNC_START,
                            DEVMGR_SLOT_CFG_SYNC_END, DEVMGR_REPLAY_START, DEVMGR_REPLAY_END}) {
        SCOPED_TRACE(devmgr_type_name(t));
        // Every field a pattern, strings without a terminator.
        devmgr_msg_t m{};
        std::memset(&m, 0x5a, sizeof m);
        m.type = t;
        m.flags = 0;
        m.seq = 0x01020304;
        bytes wire = encoded(m);
        ASSERT_EQ(wire.size(), DEVMGR_HDR_LEN + std::size_t(devmgr_payload_len(t)));
        decoded d = decode(wire);
        ASSERT_EQ(d.dec, DEVMGR_DEC_OK);
        EXPECT_EQ(d.m.seq, 0x01020304u);
        if (t == DEVMGR_IF_NEW) { EXPECT_EQ(std::strlen(d.m.ifm.name), sizeof d.m.ifm.name - 1); }
        // Encoded again: the same bytes but for the forced terminators.
        bytes again = encoded(d.m);
        ASSERT_EQ(again.size(), wire.size());
        std::size_t diff = 0;
        for (std::size_t i = 0; i < wire.size(); ++i) diff += wire[i] != again[i];
        EXPECT_LE(diff, 2u);
    }
    devmgr_msg_t m{};
    m.type = 0x9999;
    bytes out;
    EXPECT_FALSE(devmgr_encode(m, out));
    EXPECT_EQ(devmgr_payload_len(0x7777), -1);
}

// ---- the client ------------------------------------------------------------

std::vector<std::string> g_trace;  // what the client handed to the callbacks
int note(std::string s) { g_trace.push_back(std::move(s)); return 0; }

// The fixture plays the manager: a thread answers the sync requests, the test
// drives the async side.
class UClient : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_trace.clear();
        sync_l = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &sync_port);
        async_l = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &async_port);
        manager = std::thread([this] { serve(); });
        st_product_load("/nonexistent");  // default host name "OLT"
        uclient_set_listen_port(0);
        uc = uclient_connect("dhcp", 0x7F000001, sync_port, async_port);
        ASSERT_NE(uc, nullptr);
        uc->if_new = [](umsg_if_t *m) { return note(std::string("if_new ") + st_ifname(m->ifindex)); };
        uc->trunk_set = [](umsg_trunk_t *m) { return note("trunk " + std::to_string(m->trunk_id)); };
        uc->vlan_create = [](umsg_vlan_t *m) {
            return note("vlan_create " + std::to_string(st_get_min_vlan_in_bitmap(m->uvlan)));
        };
        uc->vlan_port = [](umsg_vlan_port_t *m) { return note("vlan_port pvid " + std::to_string(m->pvid)); };
        uc->host = [](const char *name) { return note(std::string("host ") + name); };
        uc->slot_switch_2_active_start = [](int slot) { return note("switch " + std::to_string(slot)); };
        uc->replay_end = [] { return note("replay_end"); };
        async = accept(async_l, nullptr, nullptr);
        ASSERT_GE(async, 0);
    }
    void TearDown() override
    {
        uclient_free(uc);
        stop = true;
        manager.join();
        for (int fd : {async, sync_l, async_l}) close(fd);
    }
    void serve()
    {
        while (!stop) {
            pollfd p{sync_l, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            int fd = accept(sync_l, nullptr, nullptr);
            devmgr_rxbuf rx;
            for (devmgr_msg_t m{}; !stop;) {
                int r = devmgr_recv(fd, rx, m, 20);
                if (r < 0) break;
                if (r == 0) continue;
                std::lock_guard<std::mutex> lk(mu);
                reqs.push_back(m);
                devmgr_msg_t a{};
                a.seq = m.seq;
                if (m.type == DEVMGR_HELLO) a.type = DEVMGR_HELLO_ACK;
                if (m.type == DEVMGR_CFG_SYNC_PRIO_SET) {
                    a.type = DEVMGR_RESULT;
                    a.result = 7;
                }
                if (m.type == DEVMGR_GET_HOSTNAME && answer_hostname) {
                    a.type = DEVMGR_HOSTNAME;
                    std::strcpy(a.hostname, "olt-lab");
                }
                if (a.type) devmgr_send(fd, a, 1000);
            }
            close(fd);
        }
    }
    std::vector<devmgr_msg_t> requests()
    {
        std::lock_guard<std::mutex> lk(mu);
        return reqs;
    }
    void send_bytes(int fd, const bytes &b) { ASSERT_TRUE(devmgr_send_bytes(fd, b.data(), b.size(), 1000)); }
    // Handles the client's side until `n` callbacks ran or the stream failed (the negative result).
    int pump(int fd, std::size_t n)
    {
        for (int i = 0; i < 200 && g_trace.size() < n; ++i) {
            pollfd p{fd, POLLIN, 0};
            poll(&p, 1, 10);
            if (int r = uclient_handle_async(uc, fd); r < 0) return r;
        }
        return 0;
    }

    int sync_l = -1, async_l = -1, async = -1;
    std::uint16_t sync_port = 0, async_port = 0;
    std::thread manager;
    std::atomic<bool> stop{false}, answer_hostname{true};
    std::mutex mu;
    std::vector<devmgr_msg_t> reqs;
    uclient_s *uc = nullptr;
};

TEST_F(UClient, HelloAnnouncesListenPortAndNotificationsReachTheirCallbacksInOrder)
{
    auto reqs = requests();
    ASSERT_FALSE(reqs.empty());
    EXPECT_EQ(reqs[0].type, DEVMGR_HELLO);
    EXPECT_STREQ(reqs[0].hello.progname, "dhcp");
    EXPECT_NE(uc->listen_port, 0);
    EXPECT_EQ(reqs[0].hello.listen_port, uc->listen_port);

    // Only the member that belongs to the type goes on the wire.
    devmgr_msg_t m{};
    std::strcpy(m.hostname, "olt-a");
    uvlan_bitmap_set(m.vlan.uvlan, 10);
    m.ifm.ifindex = st_get_ifindex_by_ifname("gpon1/2/1");
    m.trunk = {m.ifm.ifindex, 2};
    m.vlan_port = {m.ifm.ifindex, UMSG_VLAN_PORT_PVID, 0, 20, {}};
    bytes stream;
    for (std::uint16_t t : {DEVMGR_REPLAY_START, DEVMGR_HOST, DEVMGR_VLAN_CREATE, DEVMGR_IF_NEW, DEVMGR_TRUNK_SET,
                            DEVMGR_VLAN_PORT, DEVMGR_IF_STATUS, DEVMGR_REPLAY_END}) {
        m.type = t;  // IF_STATUS has no callback installed
        devmgr_encode(m, stream);
    }
    // The first message arrives a byte at a time, the rest at once.
    for (std::size_t i = 0; i < DEVMGR_HDR_LEN + 4; ++i) {
        send_bytes(async, bytes{stream[i]});
        pollfd pf{uc->fd_async, POLLIN, 0};
        poll(&pf, 1, 100);
        ASSERT_GE(uclient_handle_async(uc, uc->fd_async), 0);
    }
    EXPECT_TRUE(g_trace.empty());
    send_bytes(async, bytes(stream.begin() + DEVMGR_HDR_LEN + 4, stream.end()));
    ASSERT_EQ(pump(uc->fd_async, 6), 0);
    EXPECT_EQ(g_trace, (std::vector<std::string>{"host olt-a", "vlan_create 10", "if_new gpon1/2/1", "trunk 2",
                                                 "vlan_port pvid 20", "replay_end"}));
}

// Each stream goes to the codec and to the client, followed by a slot
// switch-over notice and the end of the stream: a broken stream is refused
// before the notice, a skipped message lets it through.
TEST_F(UClient, MalformedStreamsAreRefusedUnknownOnesSkipped)
{
    devmgr_msg_t onu{};
    onu.type = DEVMGR_ONU_STATUS;  // no callback installed
    onu.onu.ifindex = st_get_ifindex_by_ifname("gonu1/2/1:5");
    bytes short_if = header(DEVMGR_IF_NEW, 4);
    be32(short_if, 0x10201000);
    bytes unknown = header(0x7777, 3);
    unknown.insert(unknown.end(), {1, 2, 3});
    bytes junk(3000);
    for (std::size_t i = 0; i < junk.size(); ++i) junk[i] = std::uint8_t(i * 37 + 11);
    struct {
        const char *what;
        bytes stream;
        int frame, decode;  // the codec's verdict on the first message
        bool refused;
    } rows[] = {
        {"length beyond the cap", header(DEVMGR_IF_NEW, DEVMGR_MAX_PAYLOAD + 1), DEVMGR_FRAME_BAD, 0, true},
        {"known type, payload too short", short_if, DEVMGR_FRAME_OK, DEVMGR_DEC_SHORT, true},
        {"garbage", junk, DEVMGR_FRAME_BAD, 0, true},
        {"unknown type", unknown, DEVMGR_FRAME_OK, DEVMGR_DEC_UNKNOWN, false},
        {"no callback for the type", encoded(onu), DEVMGR_FRAME_OK, DEVMGR_DEC_OK, false},
    };
    devmgr_msg_t sw{};
    sw.type = DEVMGR_SLOT_SWITCH_START;
    sw.slot = 3;
    for (auto &row : rows) {
        SCOPED_TRACE(row.what);
        decoded d = decode(row.stream);
        EXPECT_EQ(d.frame, row.frame);
        EXPECT_EQ(d.dec, row.decode);

        g_trace.clear();
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        bytes all = row.stream, tail = encoded(sw);
        all.insert(all.end(), tail.begin(), tail.end());
        send_bytes(sv[1], all);
        close(sv[1]);
        EXPECT_EQ(pump(sv[0], 1) < 0, row.refused);
        EXPECT_EQ(g_trace, row.refused ? std::vector<std::string>{} : std::vector<std::string>{"switch 3"});
        EXPECT_LT(uclient_handle_async(uc, sv[0]), 0);  // the end of the stream
        close(sv[0]);
    }
}

TEST_F(UClient, SyncRequestsAndTheirFallbacks)
{
    char name[32];
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "olt-lab");
    EXPECT_EQ(mono_api_cfg_sync_prio_set(30009, "dhcpr", 450), 7);
    auto reqs = requests();
    ASSERT_GE(reqs.size(), 3u);
    EXPECT_EQ(reqs.back().type, DEVMGR_CFG_SYNC_PRIO_SET);
    EXPECT_EQ(reqs.back().prio.appid, 30009u);
    EXPECT_STREQ(reqs.back().prio.name, "dhcpr");
    EXPECT_EQ(reqs.back().prio.prio, 450u);

    answer_hostname = false;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "OLT");  // the product default
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
    // Answered again, and cut to the caller's buffer.
    answer_hostname = true;
    EXPECT_EQ(mono_api_get_hostname(name, 4), 0);
    EXPECT_STREQ(name, "olt");
}

TEST(UClientConnect, UnreachableManagerGivesNullAndRequestsFallBack)
{
    std::uint16_t port = 0;
    close(devmgr_tcp_listen(INADDR_LOOPBACK, 0, &port));  // nobody listens there now
    uclient_set_listen_port(0);
    EXPECT_EQ(uclient_connect("dhcp", 0x7F000001, port, port), nullptr);
    char name[16];
    EXPECT_EQ(mono_api_cfg_sync_prio_set(1, "x", 1), TAVO_UNAVAIL);
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "OLT");
}

} // namespace
