// Kernel links and addresses through the libnl route cache manager: there is
// no routing manager process, the kernel's own tables are the truth.
#include <cstring>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <sys/socket.h>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/errcode.h"

namespace {

nl_cache_mngr *g_mngr;
nl_cache *g_link_cache;
nl_cache *g_addr_cache;
thread_master *g_rtnl_master;
thread *g_rtnl_read;

void link_event(rtnl_link *link, int action)
{
    const char *name = rtnl_link_get_name(link);
    int ifindex = rtnl_link_get_ifindex(link);
    if (!name || ifindex <= 0) return;
    if (action == NL_ACT_DEL) {
        dhcp_interface_delete(static_cast<std::uint32_t>(ifindex));
        return;
    }
    const std::uint8_t *mac = nullptr;
    nl_addr *ll = rtnl_link_get_addr(link);
    if (ll && nl_addr_get_len(ll) == 6) mac = static_cast<const std::uint8_t *>(nl_addr_get_binary_addr(ll));
    dhcp_interface_add(name, static_cast<std::uint32_t>(ifindex), rtnl_link_get_flags(link), mac,
                       rtnl_link_get_mtu(link));
}

void addr_event(rtnl_addr *addr, int action)
{
    int family = rtnl_addr_get_family(addr);
    if (family != AF_INET && family != AF_INET6) return;
    nl_addr *local = rtnl_addr_get_local(addr);
    if (!local) return;
    unsigned len = nl_addr_get_len(local);
    if ((family == AF_INET && len != 4) || (family == AF_INET6 && len != 16)) return;
    interface *ifp = if_lookup_by_index(static_cast<std::uint32_t>(rtnl_addr_get_ifindex(addr)));
    if (!ifp) return;
    prefix p{};
    p.family = static_cast<std::uint8_t>(family);
    p.prefixlen = static_cast<std::uint8_t>(rtnl_addr_get_prefixlen(addr));
    std::memcpy(p.u.prefix, nl_addr_get_binary_addr(local), len);
    if (action == NL_ACT_DEL) dhcp_interface_address_delete(ifp, &p);
    else dhcp_interface_address_add(ifp, &p);
}

void cache_change(nl_cache *, nl_object *obj, int action, void *)
{
    const char *type = nl_object_get_type(obj);
    if (!type) return;
    if (std::strcmp(type, "route/link") == 0) link_event(reinterpret_cast<rtnl_link *>(obj), action);
    else if (std::strcmp(type, "route/addr") == 0) addr_event(reinterpret_cast<rtnl_addr *>(obj), action);
}

void initial_link(nl_object *obj, void *) { link_event(reinterpret_cast<rtnl_link *>(obj), NL_ACT_NEW); }
void initial_addr(nl_object *obj, void *) { addr_event(reinterpret_cast<rtnl_addr *>(obj), NL_ACT_NEW); }

int rtnl_read(thread *t)
{
    int err = nl_cache_mngr_data_ready(g_mngr);
    if (err < 0) zlog_err("[IF]rtnetlink read failed: %s", nl_geterror(err));
    // An overrun lost events: take the kernel's state again.
    if (err == -NLE_NOMEM || err == -NLE_DUMP_INTR) {
        nl_cache_refill(nullptr, g_link_cache);
        nl_cache_refill(nullptr, g_addr_cache);
    }
    thread_add_read(g_rtnl_master, rtnl_read, nullptr, THREAD_FD(t), &g_rtnl_read);
    return 0;
}

}  // namespace

int dhcp_rtnl_init(thread_master *m)
{
    if (g_mngr) return 0;
    int err = nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, NL_AUTO_PROVIDE, &g_mngr);
    if (err < 0) {
        zlog_err("[IF]rtnetlink cache manager failed: %s", nl_geterror(err));
        return TAVO_SYSTEM;
    }
    err = nl_cache_mngr_add(g_mngr, "route/link", cache_change, nullptr, &g_link_cache);
    if (err >= 0) err = nl_cache_mngr_add(g_mngr, "route/addr", cache_change, nullptr, &g_addr_cache);
    if (err < 0) {
        zlog_err("[IF]rtnetlink caches failed: %s", nl_geterror(err));
        dhcp_rtnl_stop();
        return TAVO_SYSTEM;
    }
    // Links first: an address needs its interface.
    nl_cache_foreach(g_link_cache, initial_link, nullptr);
    nl_cache_foreach(g_addr_cache, initial_addr, nullptr);
    g_rtnl_master = m;
    int fd = nl_cache_mngr_get_fd(g_mngr);
    if (m && fd >= 0) thread_add_read(m, rtnl_read, nullptr, fd, &g_rtnl_read);
    return 0;
}

void dhcp_rtnl_stop()
{
    thread_cancel(&g_rtnl_read);
    if (g_mngr) nl_cache_mngr_free(g_mngr);
    g_mngr = nullptr;
    g_link_cache = g_addr_cache = nullptr;
    g_rtnl_master = nullptr;
}
