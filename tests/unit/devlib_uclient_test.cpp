// Device-manager protocol codec and the client: framing, every message type,
// truncations, the state replay into the port and VLAN tables, requests,
// malformed streams. A restarted manager is covered with the test peers
// (tests/component/support_fakes_test.cpp).
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
#include "devlib/uvlan.h"
#include "platform/errcode.h"
#include "platform/product.h"

namespace {

using bytes = std::vector<std::uint8_t>;

void be16(bytes &b, std::uint16_t v) { b.push_back(std::uint8_t(v >> 8)); b.push_back(std::uint8_t(v)); }
void be32(bytes &b, std::uint32_t v) { be16(b, std::uint16_t(v >> 16)); be16(b, std::uint16_t(v)); }
void text(bytes &b, const char *s, std::size_t field)
{
    std::size_t n = std::strlen(s);
    b.insert(b.end(), s, s + n);
    b.insert(b.end(), field - n, 0);
}

// IF_NEW for ge1/1/1, one field per line.
bytes if_new_vector()
{
    bytes b;
    be16(b, 0x0101);        // type IF_NEW
    be16(b, 0);             // flags
    be32(b, 0);             // seq
    be32(b, 76);            // payload length
    be32(b, 0x12101000);    // ifindex: GE, shelf 1, slot 1, port 1
    text(b, "uplink", 20);  // name
    be32(b, 1);             // status
    be32(b, 1);             // admin
    be32(b, 2);             // duplex
    be32(b, 10000);         // speed
    be32(b, 0x10);          // flags
    text(b, "", 32);        // onu_sn
    return b;
}

TEST(DevmgrProto, AnnotatedIfNewDecodes)
{
    bytes v = if_new_vector();
    devmgr_hdr_t h{};
    std::size_t whole = 0;
    ASSERT_EQ(devmgr_frame(v, h, whole), DEVMGR_FRAME_OK);
    EXPECT_EQ(whole, v.size());
    devmgr_msg_t m{};
    ASSERT_EQ(devmgr_decode(h, bytes_view(v).subspan(DEVMGR_HDR_LEN), m), DEVMGR_DEC_OK);
    EXPECT_EQ(m.type, DEVMGR_IF_NEW);
    EXPECT_EQ(m.ifm.ifindex, 0x12101000u);
    EXPECT_STREQ(m.ifm.name, "uplink");
    EXPECT_EQ(m.ifm.speed, 10000u);
    EXPECT_EQ(m.ifm.flags, 0x10u);
    EXPECT_EQ(std::string(st_ifname(m.ifm.ifindex)), "ge1/1/1");
    bytes again;
    ASSERT_TRUE(devmgr_encode(m, again));
    EXPECT_EQ(again, v);
}

TEST(DevmgrProto, EveryTruncationIsIncompleteOrShort)
{
    bytes v = if_new_vector();
    for (std::size_t n = 0; n < v.size(); ++n) {
        auto *cut = new std::uint8_t[n ? n : 1];
        std::memcpy(cut, v.data(), n);
        devmgr_hdr_t h{};
        std::size_t whole = 0;
        EXPECT_EQ(devmgr_frame(bytes_view(cut, n), h, whole), DEVMGR_FRAME_MORE) << n;
        if (n >= DEVMGR_HDR_LEN) {
            // A peer that declares a short payload for a known type is broken.
            devmgr_hdr_decode(bytes_view(cut, n), h);
            h.length = static_cast<std::uint32_t>(n - DEVMGR_HDR_LEN);
            devmgr_msg_t m{};
            EXPECT_EQ(devmgr_decode(h, bytes_view(cut + DEVMGR_HDR_LEN, n - DEVMGR_HDR_LEN), m),
                      DEVMGR_DEC_SHORT) << n;
        }
        delete[] cut;
    }
}

TEST(DevmgrProto, OversizedLengthBreaksFramingUnknownTypeDoesNot)
{
    bytes big;
    be16(big, DEVMGR_IF_NEW);
    be16(big, 0);
    be32(big, 0);
    be32(big, DEVMGR_MAX_PAYLOAD + 1);
    devmgr_hdr_t h{};
    std::size_t whole = 0;
    EXPECT_EQ(devmgr_frame(big, h, whole), DEVMGR_FRAME_BAD);

    bytes unknown;
    be16(unknown, 0x7777);
    be16(unknown, 0);
    be32(unknown, 0);
    be32(unknown, 3);
    unknown.insert(unknown.end(), {1, 2, 3});
    ASSERT_EQ(devmgr_frame(unknown, h, whole), DEVMGR_FRAME_OK);
    devmgr_msg_t m{};
    EXPECT_EQ(devmgr_decode(h, bytes_view(unknown).subspan(DEVMGR_HDR_LEN), m), DEVMGR_DEC_UNKNOWN);
    EXPECT_EQ(devmgr_payload_len(0x7777), -1);
}

TEST(DevmgrProto, EveryTypeRoundTripsAndStringsComeOutTerminated)
{
    const std::uint16_t types[] = {
        DEVMGR_HELLO, DEVMGR_HELLO_ACK, DEVMGR_GET_HOSTNAME, DEVMGR_HOSTNAME,
        DEVMGR_CFG_SYNC_PRIO_SET, DEVMGR_CFG_RECOVERY_RESULT, DEVMGR_RESULT, DEVMGR_IF_NEW,
        DEVMGR_IF_DEL, DEVMGR_IF_STATUS, DEVMGR_IF_ADMIN, DEVMGR_TRUNK_SET, DEVMGR_VLAN_CREATE,
        DEVMGR_VLAN_DESTROY, DEVMGR_VLAN_PORT, DEVMGR_HOST, DEVMGR_ONU_STATUS,
        DEVMGR_SLOT_SWITCH_START, DEVMGR_SLOT_SWITCH_END, DEVMGR_SLOT_CFG_SYNC_START,
        DEVMGR_SLOT_CFG_SYNC_END, DEVMGR_REPLAY_START, DEVMGR_REPLAY_END};
    for (std::uint16_t t : types) {
        SCOPED_TRACE(devmgr_type_name(t));
        // Fill every field with a pattern; strings without a terminator.
        devmgr_msg_t m{};
        std::memset(&m, 0x5a, sizeof m);
        m.type = t;
        m.flags = 0;
        m.seq = 0x01020304;
        bytes wire;
        ASSERT_TRUE(devmgr_encode(m, wire));
        ASSERT_EQ(wire.size(), DEVMGR_HDR_LEN + static_cast<std::size_t>(devmgr_payload_len(t)));
        devmgr_hdr_t h{};
        std::size_t whole = 0;
        ASSERT_EQ(devmgr_frame(wire, h, whole), DEVMGR_FRAME_OK);
        devmgr_msg_t d{};
        ASSERT_EQ(devmgr_decode(h, bytes_view(wire).subspan(DEVMGR_HDR_LEN), d), DEVMGR_DEC_OK);
        EXPECT_EQ(d.seq, 0x01020304u);
        // Re-encoding gives the same bytes except the forced terminators.
        bytes again;
        ASSERT_TRUE(devmgr_encode(d, again));
        ASSERT_EQ(again.size(), wire.size());
        std::size_t diff = 0;
        for (std::size_t i = 0; i < wire.size(); ++i) diff += wire[i] != again[i];
        EXPECT_LE(diff, 2u);
    }
    devmgr_msg_t m{};
    std::memset(m.ifm.name, 'x', sizeof m.ifm.name);
    m.type = DEVMGR_IF_NEW;
    bytes wire;
    devmgr_encode(m, wire);
    devmgr_msg_t d{};
    devmgr_hdr_t h{};
    devmgr_hdr_decode(wire, h);
    devmgr_decode(h, bytes_view(wire).subspan(DEVMGR_HDR_LEN), d);
    EXPECT_EQ(std::strlen(d.ifm.name), sizeof d.ifm.name - 1);
    m.type = 0x9999;
    EXPECT_FALSE(devmgr_encode(m, wire));
}

// ---- the client against a small in-test manager ----------------------------

// Answers sync requests on its own thread; the test drives the async side.
class mini_manager {
public:
    mini_manager()
    {
        sync_l = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &sync_port);
        async_l = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &async_port);
        th = std::thread([this] { serve(); });
    }
    ~mini_manager()
    {
        stop = true;
        th.join();
        close(sync_l);
        close(async_l);
    }
    std::vector<devmgr_msg_t> requests()
    {
        std::lock_guard<std::mutex> lk(mu);
        return reqs;
    }

    int sync_l = -1, async_l = -1;
    std::uint16_t sync_port = 0, async_port = 0;
    std::atomic<bool> answer_hostname{true};

private:
    void serve()
    {
        while (!stop) {
            pollfd p{sync_l, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            int fd = accept(sync_l, nullptr, nullptr);
            devmgr_rxbuf rx;
            devmgr_msg_t m{};
            while (!stop) {
                int r = devmgr_recv(fd, rx, m, 20);
                if (r < 0) break;
                if (r == 0) continue;
                {
                    std::lock_guard<std::mutex> lk(mu);
                    reqs.push_back(m);
                }
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
    std::thread th;
    std::atomic<bool> stop{false};
    std::mutex mu;
    std::vector<devmgr_msg_t> reqs;
};

struct seen_t {
    std::vector<std::uint16_t> order;
    std::string host;
    int slot_switch = 0;
} g_seen;

int on_if_new(umsg_if_t *m) { g_seen.order.push_back(DEVMGR_IF_NEW); return uclient_new_if(m) ? 0 : TAVO_ERR; }
int on_if_status(umsg_if_t *m) { g_seen.order.push_back(DEVMGR_IF_STATUS); return uclient_if_status(m) ? 0 : TAVO_ERR; }
int on_trunk(umsg_trunk_t *m) { g_seen.order.push_back(DEVMGR_TRUNK_SET); return uclient_trunk_set(m); }
int on_vlan_create(umsg_vlan_t *m)
{
    g_seen.order.push_back(DEVMGR_VLAN_CREATE);
    for (int v = st_get_min_vlan_in_bitmap(m->uvlan); v >= 0; v = st_get_next_vlan_in_bitmap(m->uvlan, v))
        uvlan_create(static_cast<std::uint16_t>(v));
    return 0;
}
int on_vlan_port(umsg_vlan_port_t *m)
{
    g_seen.order.push_back(DEVMGR_VLAN_PORT);
    uif_t *p = uif_lookup_by_index(m->ifindex);
    if (!p || !p->vlan_info) return TAVO_NOT_FOUND;
    if (m->op == UMSG_VLAN_PORT_PVID) {
        p->vlan_info->vid = m->pvid;
        return 0;
    }
    return m->op == UMSG_VLAN_PORT_ADD ? uvlan_port_link(p, m->uvlan, m->tag)
                                       : uvlan_port_unlink(p, m->uvlan, m->tag);
}
int on_host(const char *name) { g_seen.host = name; return 0; }
int on_switch(int slot) { g_seen.slot_switch = slot; return 0; }

class UClient : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_seen = seen_t{};
        uif_init();
        uvlan_init();
        st_product_load("/nonexistent");  // default host name "OLT"
        uclient_set_listen_port(0);
        uc = uclient_connect("dhcp", 0x7F000001, mgr.sync_port, mgr.async_port);
        ASSERT_NE(uc, nullptr);
        uc->if_new = on_if_new;
        uc->if_status = on_if_status;
        uc->trunk_set = on_trunk;
        uc->vlan_create = on_vlan_create;
        uc->vlan_port = on_vlan_port;
        uc->host = on_host;
        uc->slot_switch_2_active_start = on_switch;
        async = accept(mgr.async_l, nullptr, nullptr);
        ASSERT_GE(async, 0);
    }
    void TearDown() override
    {
        uclient_free(uc);
        if (async >= 0) close(async);
        uif_clear();
        uvlan_clear();
    }
    void send_msg(int fd, const devmgr_msg_t &m) { ASSERT_TRUE(devmgr_send(fd, m, 1000)); }
    void send_bytes(int fd, const bytes &b) { ASSERT_TRUE(devmgr_send_bytes(fd, b.data(), b.size(), 1000)); }
    // Handles the client's side until `n` callbacks ran or the stream failed.
    int pump(int fd, std::size_t n)
    {
        for (int i = 0; i < 200 && g_seen.order.size() < n; ++i) {
            pollfd p{fd, POLLIN, 0};
            poll(&p, 1, 10);
            int r = uclient_handle_async(uc, fd);
            if (r < 0) return r;
        }
        return 0;
    }

    mini_manager mgr;
    uclient_s *uc = nullptr;
    int async = -1;
};

TEST_F(UClient, HelloAnnouncesListenPortAndReplayFillsTables)
{
    auto reqs = mgr.requests();
    ASSERT_FALSE(reqs.empty());
    EXPECT_EQ(reqs[0].type, DEVMGR_HELLO);
    EXPECT_STREQ(reqs[0].hello.progname, "dhcp");
    EXPECT_NE(uc->listen_port, 0);
    EXPECT_EQ(reqs[0].hello.listen_port, uc->listen_port);

    std::uint32_t ge = st_get_ifindex_by_ifname("ge1/1/1");
    std::uint32_t pon = st_get_ifindex_by_ifname("gpon1/2/1");
    bytes stream;
    devmgr_msg_t m{};
    auto add = [&](std::uint16_t type) { m.type = type; devmgr_encode(m, stream); m = devmgr_msg_t{}; };
    add(DEVMGR_REPLAY_START);
    std::strcpy(m.hostname, "olt-a");
    add(DEVMGR_HOST);
    uvlan_bitmap_set(m.vlan.uvlan, 10);
    uvlan_bitmap_set(m.vlan.uvlan, 20);
    add(DEVMGR_VLAN_CREATE);
    m.ifm.ifindex = ge;
    m.ifm.status = 1;
    add(DEVMGR_IF_NEW);
    m.ifm.ifindex = pon;
    add(DEVMGR_IF_NEW);
    m.trunk = {ge, 2};
    add(DEVMGR_TRUNK_SET);
    m.vlan_port.ifindex = ge;
    m.vlan_port.op = UMSG_VLAN_PORT_PVID;
    m.vlan_port.pvid = 20;
    add(DEVMGR_VLAN_PORT);
    m.vlan_port.ifindex = ge;
    m.vlan_port.op = UMSG_VLAN_PORT_ADD;
    uvlan_bitmap_set(m.vlan_port.uvlan, 10);
    add(DEVMGR_VLAN_PORT);
    add(DEVMGR_REPLAY_END);

    // The first message arrives a byte at a time, the rest at once.
    for (std::size_t i = 0; i < DEVMGR_HDR_LEN + 4; ++i) {
        send_bytes(async, bytes{stream[i]});
        pollfd pf{uc->fd_async, POLLIN, 0};
        poll(&pf, 1, 100);
        ASSERT_GE(uclient_handle_async(uc, uc->fd_async), 0);
    }
    EXPECT_TRUE(g_seen.order.empty());
    send_bytes(async, bytes(stream.begin() + DEVMGR_HDR_LEN + 4, stream.end()));
    ASSERT_EQ(pump(uc->fd_async, 6), 0);

    EXPECT_EQ(g_seen.order, (std::vector<std::uint16_t>{DEVMGR_VLAN_CREATE, DEVMGR_IF_NEW, DEVMGR_IF_NEW,
                                                        DEVMGR_TRUNK_SET, DEVMGR_VLAN_PORT, DEVMGR_VLAN_PORT}));
    EXPECT_EQ(g_seen.host, "olt-a");
    EXPECT_TRUE(uvlan_is_exist(10));
    EXPECT_TRUE(uvlan_is_exist(20));
    uif_t *p = uif_lookup_by_index(ge);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->trunk, 2u);
    ASSERT_NE(p->vlan_info, nullptr);
    EXPECT_EQ(p->vlan_info->vid, 20);
    EXPECT_TRUE(uvlan_is_in_port(p, 10, 0));
    ASSERT_NE(uif_lookup_by_name("gpon1/2/1"), nullptr);
    EXPECT_NE(uif_lookup_by_name("gpon1/2/1")->vlan_info, nullptr);
}

TEST_F(UClient, UnknownTypesAreSkippedNullCallbacksIgnored)
{
    bytes unknown;
    be16(unknown, 0x7777);  // type nobody knows
    be16(unknown, 0);       // flags
    be32(unknown, 0);       // seq
    be32(unknown, 2);       // length
    unknown.insert(unknown.end(), {0xde, 0xad});
    send_bytes(async, unknown);
    devmgr_msg_t m{};
    m.onu.ifindex = st_get_ifindex_by_ifname("gonu1/2/1:5");
    m.type = DEVMGR_ONU_STATUS;  // no callback installed
    send_msg(async, m);
    m = devmgr_msg_t{};
    m.type = DEVMGR_SLOT_SWITCH_START;
    m.slot = 3;
    send_msg(async, m);
    for (int i = 0; i < 50 && g_seen.slot_switch == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_GE(uclient_handle_async(uc, uc->fd_async), 0);
    }
    EXPECT_EQ(g_seen.slot_switch, 3);
}

TEST_F(UClient, BrokenStreamsGiveANegativeResult)
{
    // An impossible length.
    bytes big;
    be16(big, DEVMGR_IF_NEW);
    be16(big, 0);
    be32(big, 0);
    be32(big, 70000);
    send_bytes(async, big);
    EXPECT_LT(pump(uc->fd_async, 1), 0);

    // A known type whose payload is too short for its record.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    bytes shortmsg;
    be16(shortmsg, DEVMGR_IF_NEW);
    be16(shortmsg, 0);
    be32(shortmsg, 0);
    be32(shortmsg, 4);
    be32(shortmsg, 0x10201000);
    send_bytes(sv[1], shortmsg);
    EXPECT_LT(pump(sv[0], 1), 0);

    // Random bytes, then the end of the stream.
    bytes junk(3000);
    for (std::size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<std::uint8_t>(i * 37 + 11);
    send_bytes(sv[1], junk);
    close(sv[1]);
    EXPECT_LT(pump(sv[0], 1), 0);
    EXPECT_LT(uclient_handle_async(uc, sv[0]), 0);
    close(sv[0]);
    EXPECT_TRUE(g_seen.order.empty());
}

TEST_F(UClient, SyncRequestsAndTheirFallbacks)
{
    char name[32];
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "olt-lab");
    EXPECT_EQ(mono_api_cfg_sync_prio_set(30009, "dhcpr", 450), 7);
    auto reqs = mgr.requests();
    ASSERT_GE(reqs.size(), 3u);
    EXPECT_EQ(reqs.back().type, DEVMGR_CFG_SYNC_PRIO_SET);
    EXPECT_EQ(reqs.back().prio.appid, 30009u);
    EXPECT_STREQ(reqs.back().prio.name, "dhcpr");
    EXPECT_EQ(reqs.back().prio.prio, 450u);

    mgr.answer_hostname = false;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "OLT");  // the product default
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
    // Answered again, and cut to the caller's buffer.
    mgr.answer_hostname = true;
    EXPECT_EQ(mono_api_get_hostname(name, 4), 0);
    EXPECT_STREQ(name, "olt");
}

TEST(UClientConnect, UnreachableManagerGivesNull)
{
    std::uint16_t port = 0;
    int l = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &port);
    close(l);  // nobody listens there now
    uclient_set_listen_port(0);
    EXPECT_EQ(uclient_connect("dhcp", 0x7F000001, port, port), nullptr);
    char name[16];
    EXPECT_EQ(mono_api_cfg_sync_prio_set(1, "x", 1), TAVO_UNAVAIL);
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);  // falls back to the default
}

} // namespace
