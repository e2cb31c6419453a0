// The scripted peers against the real channel and device-manager client: what
// the component tests rely on (registration, packets both ways, replies,
// state replay, pushes, restarts).
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/uclient.h"
#include "devlib/uvlan.h"
#include "lib/thread.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "tests/support/fake_devmgr.h"
#include "tests/support/fake_fp.h"

namespace {

std::vector<std::uint32_t> g_pkt_ifindex;

std::uint32_t on_msg(int type, const std::uint8_t *buf, std::uint32_t len)
{
    hal_msg_pkt_t p{};
    if (type == HAL_MSG_TYPE_PKT && hal_msg_pkt_decode(bytes_view(buf, len - HAL_MSG_HDR_LEN), p))
        g_pkt_ifindex.push_back(p.ifindex);
    return 0;
}

int noop(thread *) { return 0; }

bool pump_until(thread_master *m, const std::function<bool()> &done, int timeout_ms = 3000)
{
    thread *tick = nullptr;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done() && std::chrono::steady_clock::now() < end) {
        thread_add_timer_msec(m, noop, nullptr, 10, &tick);
        thread fetch;
        if (thread_fetch(m, &fetch)) thread_call(&fetch);
    }
    thread_cancel(&tick);
    return done();
}

TEST(FakeFp, RegistrationPacketsRepliesAndRestart)
{
    std::string path = "/tmp/fake_fp_test_" + std::to_string(getpid());
    fake_fp fp;
    ASSERT_TRUE(fp.start(path));
    thread_master *m = thread_master_create("t");
    hal_set_path(path.c_str());
    g_pkt_ifindex.clear();
    ASSERT_EQ(hal_init(HAL_DHCP, m, on_msg), 0);
    ASSERT_TRUE(fp.wait_registered(2000));
    EXPECT_EQ(fp.module(), std::uint32_t(HAL_DHCP));

    const std::uint8_t frame[60] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    ASSERT_TRUE(fp.send_pkt(0x12101000, 100, bytes_view(frame, sizeof frame)));
    ASSERT_TRUE(pump_until(m, [] { return !g_pkt_ifindex.empty(); }));
    EXPECT_EQ(g_pkt_ifindex[0], 0x12101000u);

    std::vector<std::uint8_t> out(HAL_PKT_MSG_LEN);
    hal_msg_pkt_t p{};
    p.ifindex = 7;
    p.len = sizeof frame;
    p.data = frame;
    hal_msg_pkt_build(out, p, HAL_MSG_FLAG_REQUEST, 0, 1);
    ASSERT_EQ(hal_send_async(out.data(), out.size()), 0);
    ASSERT_TRUE(fp.wait_received(1, 2000));
    EXPECT_EQ(fp.received()[0].bytes, out);

    fp.set_auto_reply(true);
    std::vector<std::uint8_t> req(HAL_MSG_REG_LEN), reply(64);
    hal_msg_u32_build(req, 5, HAL_MSG_FLAG_REQUEST, 0, 0);
    std::size_t got = 0;
    EXPECT_EQ(hal_send(req.data(), req.size(), reply.data(), reply.size(), &got), 0);
    EXPECT_EQ(got, std::size_t(HAL_MSG_REG_LEN));

    fp.stop();
    ASSERT_TRUE(pump_until(m, [] { return !hal_is_connected(); }));
    ASSERT_TRUE(fp.start(path));
    ASSERT_TRUE(pump_until(m, [&] { return fp.registrations() == 2; }));
    EXPECT_TRUE(fp.wait_registered(1000));

    hal_close();
    thread_master_free(m);
    fp.stop();
}

// Tables filled the way the daemon's handlers fill them.
int on_if_new(umsg_if_t *m) { return uclient_new_if(m) ? 0 : TAVO_ERR; }
int on_if_status(umsg_if_t *m) { return uclient_if_status(m) ? 0 : TAVO_ERR; }
int on_vlan_create(umsg_vlan_t *m)
{
    for (int v = st_get_min_vlan_in_bitmap(m->uvlan); v > 0; v = st_get_next_vlan_in_bitmap(m->uvlan, v))
        uvlan_create(static_cast<std::uint16_t>(v));
    return 0;
}
int on_vlan_port(umsg_vlan_port_t *m)
{
    uif_t *p = uif_lookup_by_index(m->ifindex);
    if (!p || !p->vlan_info) return TAVO_NOT_FOUND;
    if (m->op == UMSG_VLAN_PORT_PVID) {
        p->vlan_info->vid = m->pvid;
        return 0;
    }
    return uvlan_port_link(p, m->uvlan, m->tag);
}
std::string g_host;
int on_host(const char *h) { g_host = h; return 0; }

void drain(uclient_s *uc, int fd, const std::function<bool()> &done)
{
    for (int i = 0; i < 300 && !done(); ++i) {
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 10);
        ASSERT_GE(uclient_handle_async(uc, fd), 0);
    }
}

TEST(FakeDevmgr, ReplayPushRequestsAndRestart)
{
    uif_init();
    uvlan_init();
    g_host.clear();
    std::uint32_t ge = st_get_ifindex_by_ifname("ge1/1/1");
    std::uint32_t onu = st_get_ifindex_by_ifname("gonu1/2/1:5");
    fake_devmgr dm;
    dm.set_hostname("olt-x");
    dm.add_port(ge, "", true);
    dm.add_vlan(100);
    dm.set_pvid(ge, 100);
    dm.port_add_vlan(ge, 200, true);
    dm.set_onu_status(onu, 1, "ABCD1234");
    ASSERT_TRUE(dm.start());

    uclient_set_listen_port(0);
    uclient_s *uc = uclient_connect("dhcp", 0x7F000001, dm.sync_port(), dm.async_port());
    ASSERT_NE(uc, nullptr);
    uc->if_new = on_if_new;
    uc->if_status = on_if_status;
    uc->vlan_create = on_vlan_create;
    uc->vlan_port = on_vlan_port;
    uc->host = on_host;
    ASSERT_TRUE(dm.wait_hello(1000));
    EXPECT_EQ(dm.hello().listen_port, uc->listen_port);
    EXPECT_STREQ(dm.hello().progname, "dhcp");

    drain(uc, uc->fd_async, [&] {
        uif_t *p = uif_lookup_by_index(ge);
        return p && p->vlan_info && uvlan_is_in_port(p, 200, 0);
    });
    uif_t *p = uif_lookup_by_index(ge);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->vlan_info->vid, 100);
    EXPECT_TRUE(uvlan_is_exist(100));
    EXPECT_EQ(g_host, "olt-x");
    EXPECT_EQ(dm.replays(), 1);

    dm.set_port_status(ge, false);
    drain(uc, uc->fd_async, [&] { return p->status == 0; });
    EXPECT_EQ(p->status, 0u);

    char name[32];
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "olt-x");
    dm.set_result(0);
    EXPECT_EQ(mono_api_cfg_sync_prio_set(30009, "dhcpr", 450), 0);
    EXPECT_TRUE(dm.wait_request(DEVMGR_CFG_SYNC_PRIO_SET, 1000));

    // Restarted: the manager comes back through the listening socket and replays.
    uif_clear();
    g_host.clear();
    ASSERT_TRUE(dm.restart());
    pollfd lp{uc->async_server_sock, POLLIN, 0};
    ASSERT_EQ(poll(&lp, 1, 2000), 1);
    int fd = accept(uc->async_server_sock, nullptr, nullptr);
    ASSERT_GE(fd, 0);
    drain(uc, fd, [&] { return uif_lookup_by_index(ge) != nullptr && !g_host.empty(); });
    ASSERT_NE(uif_lookup_by_index(ge), nullptr);
    EXPECT_EQ(uif_lookup_by_index(ge)->status, 0u);  // the state as last pushed
    EXPECT_EQ(dm.replays(), 2);
    EXPECT_EQ(mono_api_get_hostname(name, sizeof name), 0);  // sync side reopened
    EXPECT_STREQ(name, "olt-x");

    close(fd);
    uclient_free(uc);
    dm.stop();
    uif_clear();
    uvlan_clear();
}

} // namespace
