#include "devlib/uclient.h"

#include <arpa/inet.h>
#include <cstring>
#include <initializer_list>
#include <map>
#include <unistd.h>

#include "devlib/devmgr_io.h"
#include "devlib/ifindex.h"
#include "lib/log.h"
#include "platform/errcode.h"
#include "platform/product.h"

namespace {

constexpr int UCLIENT_WAIT_MS = 1000;

struct uclient_conn {
    uclient_s *uc = nullptr;
    std::uint32_t addr = 0;
    std::uint16_t port = 0;
    std::uint32_t seq = 0;
    devmgr_rxbuf sync_rx;
};

std::uint16_t g_listen_port = DEVMGR_DEFAULT_LISTEN_PORT;
uclient_conn g_conn;                    // the client the mono_api_* requests use
std::map<int, devmgr_rxbuf> g_async_rx; // per asynchronous descriptor

void copy_name(char *dst, std::size_t cap, const char *src)
{
    std::size_t n = src ? strnlen(src, cap - 1) : 0;
    if (n) std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// One request and its answer on the sync connection: 0, TAVO_TIMEOUT, or
// TAVO_UNAVAIL when the connection broke.
int uclient_exchange(int fd, devmgr_rxbuf &rx, devmgr_msg_t &req, std::uint16_t answer,
                     devmgr_msg_t &reply)
{
    if (++g_conn.seq == 0) ++g_conn.seq;
    req.seq = g_conn.seq;
    if (!devmgr_send(fd, req, UCLIENT_WAIT_MS)) return TAVO_UNAVAIL;
    for (;;) {
        int r = devmgr_recv(fd, rx, reply, UCLIENT_WAIT_MS);
        if (r == 0) return TAVO_TIMEOUT;
        if (r < 0) return TAVO_UNAVAIL;
        // Late answers to requests that timed out earlier are dropped here.
        if (reply.type == answer && reply.seq == req.seq) return 0;
    }
}

int uclient_hello(uclient_s *uc)
{
    devmgr_msg_t req{}, reply{};
    req.type = DEVMGR_HELLO;
    copy_name(req.hello.progname, sizeof req.hello.progname, uc->progname);
    req.hello.listen_port = uc->listen_port;
    req.hello.pid = static_cast<std::uint32_t>(getpid());
    int rc = uclient_exchange(uc->fd_sync, g_conn.sync_rx, req, DEVMGR_HELLO_ACK, reply);
    if (rc == 0 && reply.result != 0) rc = static_cast<int>(reply.result);
    return rc;
}

void close_sync(uclient_s *uc)
{
    if (uc->fd_sync >= 0) close(uc->fd_sync);
    uc->fd_sync = -1;
    g_conn.sync_rx.clear();
}

bool open_sync(uclient_s *uc)
{
    uc->fd_sync = devmgr_tcp_connect(g_conn.addr, g_conn.port, UCLIENT_WAIT_MS);
    if (uc->fd_sync < 0) return false;
    g_conn.sync_rx.clear();
    int rc = uclient_hello(uc);
    if (rc == TAVO_UNAVAIL) {
        close_sync(uc);
        return false;
    }
    if (rc != 0) zlog_err("Device manager did not accept hello: %s", st_errcode_get_str(rc));
    return true;
}

// A request with its answer; a broken connection (a restarted manager) is
// reopened once.
int uclient_request(devmgr_msg_t &req, std::uint16_t answer, devmgr_msg_t &reply)
{
    uclient_s *uc = g_conn.uc;
    if (!uc) return TAVO_UNAVAIL;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (uc->fd_sync < 0 && !open_sync(uc)) return TAVO_UNAVAIL;
        int rc = uclient_exchange(uc->fd_sync, g_conn.sync_rx, req, answer, reply);
        if (rc != TAVO_UNAVAIL) return rc;
        close_sync(uc);
    }
    return TAVO_UNAVAIL;
}

void uclient_dispatch(uclient_s *uc, devmgr_msg_t &m)
{
    switch (m.type) {
    case DEVMGR_IF_NEW: if (uc->if_new) uc->if_new(&m.ifm); break;
    case DEVMGR_IF_DEL: if (uc->if_del) uc->if_del(&m.ifm); break;
    case DEVMGR_IF_STATUS: if (uc->if_status) uc->if_status(&m.ifm); break;
    case DEVMGR_IF_ADMIN: if (uc->if_admin) uc->if_admin(&m.ifm); break;
    case DEVMGR_TRUNK_SET: if (uc->trunk_set) uc->trunk_set(&m.trunk); break;
    case DEVMGR_VLAN_CREATE: if (uc->vlan_create) uc->vlan_create(&m.vlan); break;
    case DEVMGR_VLAN_DESTROY: if (uc->vlan_destroy) uc->vlan_destroy(&m.vlan); break;
    case DEVMGR_VLAN_PORT: if (uc->vlan_port) uc->vlan_port(&m.vlan_port); break;
    case DEVMGR_HOST: if (uc->host) uc->host(m.hostname); break;
    case DEVMGR_ONU_STATUS: if (uc->onu_status_notify) uc->onu_status_notify(&m.onu); break;
    case DEVMGR_SLOT_SWITCH_START:
        if (uc->slot_switch_2_active_start) uc->slot_switch_2_active_start(static_cast<int>(m.slot));
        break;
    case DEVMGR_SLOT_SWITCH_END:
        if (uc->slot_switch_2_active_end) uc->slot_switch_2_active_end(static_cast<int>(m.slot));
        break;
    case DEVMGR_SLOT_CFG_SYNC_START: if (uc->slot_cfg_sync_start) uc->slot_cfg_sync_start(&m.cfg); break;
    case DEVMGR_SLOT_CFG_SYNC_END: if (uc->slot_cfg_sync_end) uc->slot_cfg_sync_end(&m.cfg); break;
    case DEVMGR_REPLAY_START: zlog_info("Device manager state replay starts"); break;
    case DEVMGR_REPLAY_END:
        zlog_info("Device manager state replay done");
        if (uc->replay_end) uc->replay_end();
        break;
    default:
        zlog_err("Device manager sent %s on the notification channel, ignored",
                 devmgr_type_name(m.type));
        break;
    }
}

bool carries_vlans(int type)
{
    return (type >= PORT_TYPE_FE && type <= PORT_TYPE_TRUNK) || type == PORT_TYPE_GPON ||
           type == PORT_TYPE_GONU;
}

} // namespace

void uclient_set_listen_port(std::uint16_t port) { g_listen_port = port; }

uclient_s *uclient_connect(const char *progname, std::uint32_t addr, std::uint16_t port,
                           std::uint16_t async_port)
{
    auto *uc = new uclient_s{};
    copy_name(uc->progname, sizeof uc->progname, progname);
    uc->fd_sync = uc->fd_async = uc->async_server_sock = -1;
    g_conn.uc = uc;
    g_conn.addr = addr;
    g_conn.port = port;

    uc->async_server_sock = devmgr_tcp_listen(INADDR_LOOPBACK, g_listen_port, &uc->listen_port);
    if (uc->async_server_sock < 0 && g_listen_port != 0) {
        // Another instance holds the port: any port works, the hello announces it.
        zlog_err("Cannot listen on port %u for the device manager, using a free port", g_listen_port);
        uc->async_server_sock = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &uc->listen_port);
    }
    if (uc->async_server_sock < 0) zlog_err("Cannot open the device manager listening socket");

    if (uc->async_server_sock < 0 || !open_sync(uc) ||
        (uc->fd_async = devmgr_tcp_connect(addr, async_port, UCLIENT_WAIT_MS)) < 0) {
        zlog_err("Device manager at %s:%u/%u not reachable", inet_ntoa(in_addr{htonl(addr)}), port,
                 async_port);
        uclient_free(uc);
        return nullptr;
    }
    return uc;
}

void uclient_free(uclient_s *uc)
{
    if (!uc) return;
    for (int fd : {uc->fd_sync, uc->fd_async, uc->async_server_sock}) {
        if (fd < 0) continue;
        g_async_rx.erase(fd);
        close(fd);
    }
    if (g_conn.uc == uc) {
        g_conn.uc = nullptr;
        g_conn.sync_rx.clear();
    }
    delete uc;
}

int uclient_handle_async(uclient_s *uc, int fd)
{
    if (!uc || fd < 0) return -1;
    devmgr_rxbuf &rx = g_async_rx[fd];
    if (rx.fill(fd) < 0) {
        g_async_rx.erase(fd);
        return -1;
    }
    devmgr_msg_t m{};
    int dispatched = 0;
    for (;;) {
        int r = rx.next(m);
        if (r == 0) break;
        if (r < 0) {
            zlog_err("Device manager notification stream broken on fd %d, closing", fd);
            g_async_rx.erase(fd);
            return -1;
        }
        if (r == 2) {
            zlog_err("Device manager message type %#x unknown, skipped", m.type);
            continue;
        }
        uclient_dispatch(uc, m);
        ++dispatched;
    }
    return dispatched;
}

uif_t *uclient_new_if(const umsg_if_t *msg)
{
    if (!msg) return nullptr;
    int type = st_ifindex_get_port_type(msg->ifindex);
    if (type == 0) {
        zlog_err("Device manager port %#x has no valid index", msg->ifindex);
        return nullptr;
    }
    uif_t *p = uif_get_or_create(msg->ifindex, carries_vlans(type));
    char name[sizeof p->name];
    copy_name(name, sizeof msg->name + 1, msg->name);
    if (!name[0]) st_get_ifname_by_ifindex(msg->ifindex, name, sizeof name);
    if (std::strcmp(name, p->name) != 0) uif_set_name(p, name);
    p->status = msg->status;
    p->admin = msg->admin;
    p->duplex = msg->duplex;
    p->speed = msg->speed;
    p->flags = (p->flags & UIF_FLAG_TRUNK_MEMBER_SKIP) | (msg->flags & ~UIF_FLAG_TRUNK_MEMBER_SKIP);
    copy_name(p->onu_sn, sizeof p->onu_sn, msg->onu_sn);
    return p;
}

int uclient_del_if(const umsg_if_t *msg)
{
    return msg ? uif_delete(msg->ifindex) : TAVO_PARAM;
}

uif_t *uclient_if_status(const umsg_if_t *msg)
{
    uif_t *p = msg ? uif_lookup_by_index(msg->ifindex) : nullptr;
    if (!p) return nullptr;
    p->status = msg->status;
    p->admin = msg->admin;
    return p;
}

int uclient_trunk_set(const umsg_trunk_t *msg)
{
    if (!msg) return TAVO_PARAM;
    uif_t *p = uif_lookup_by_index(msg->ifindex);
    if (!p) return TAVO_NOT_FOUND;
    if (msg->trunk_id != 0 &&
        st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, msg->trunk_id) == 0)
        return TAVO_PARAM;
    p->trunk = msg->trunk_id;
    // A trunk member is reached through its trunk; walks skip it.
    if (msg->trunk_id) p->flags |= UIF_FLAG_TRUNK_MEMBER_SKIP;
    else p->flags &= ~static_cast<std::uint32_t>(UIF_FLAG_TRUNK_MEMBER_SKIP);
    return 0;
}

int mono_api_get_hostname(char *buf, std::size_t len)
{
    if (!buf || len == 0) return TAVO_PARAM;
    devmgr_msg_t req{}, reply{};
    req.type = DEVMGR_GET_HOSTNAME;
    int rc = uclient_request(req, DEVMGR_HOSTNAME, reply);
    if (rc != 0 || !reply.hostname[0]) {
        zlog_err("Host name not available from the device manager (%s), using the default",
                 st_errcode_get_str(rc));
        copy_name(buf, len, st_product_default_hostname());
        return 0;
    }
    copy_name(buf, len, reply.hostname);
    return 0;
}

int mono_api_cfg_sync_prio_set(int appid, const char *name, int prio)
{
    devmgr_msg_t req{}, reply{};
    req.type = DEVMGR_CFG_SYNC_PRIO_SET;
    req.prio.appid = static_cast<std::uint32_t>(appid);
    copy_name(req.prio.name, sizeof req.prio.name, name);
    req.prio.prio = static_cast<std::uint32_t>(prio);
    int rc = uclient_request(req, DEVMGR_RESULT, reply);
    return rc ? rc : static_cast<int>(reply.result);
}

int mono_api_cfg_recovery_notify_result(const char *name, int slotid, int cfg_prio, int result)
{
    devmgr_msg_t req{}, reply{};
    req.type = DEVMGR_CFG_RECOVERY_RESULT;
    copy_name(req.recovery.name, sizeof req.recovery.name, name);
    req.recovery.slotid = static_cast<std::uint32_t>(slotid);
    req.recovery.cfg_prio = static_cast<std::uint32_t>(cfg_prio);
    req.recovery.result = static_cast<std::uint32_t>(result);
    int rc = uclient_request(req, DEVMGR_RESULT, reply);
    return rc ? rc : static_cast<int>(reply.result);
}
