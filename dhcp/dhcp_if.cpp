#include "dhcp/dhcp_if.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>

#include "devlib/ifindex.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcpr.h"
#include "lib/log.h"
#include "platform/errcode.h"

namespace {

using if_list_t = std::list<interface *, dhcp_mt_allocator<interface *, &MTYPE_LINK_NODE>>;
if_list_t g_if_list;

if_list_t::iterator if_find(const interface *ifp)
{
    for (auto it = g_if_list.begin(); it != g_if_list.end(); ++it)
        if (*it == ifp) return it;
    return g_if_list.end();
}

// "vlanif" followed by a VLAN id and nothing else.
std::uint16_t vlanif_vid(const char *name)
{
    if (std::strncmp(name, "vlanif", 6) != 0) return 0;
    const char *digits = name + 6;
    if (*digits < '1' || *digits > '9') return 0;
    char *end = nullptr;
    long v = std::strtol(digits, &end, 10);
    if (!end || *end != '\0' || v < 1 || v > 4094) return 0;
    return static_cast<std::uint16_t>(v);
}

bool prefix_same(const prefix &a, const prefix &b)
{
    if (a.family != b.family) return false;
    if (a.family == AF_INET) return a.u.prefix4.s_addr == b.u.prefix4.s_addr;
    return std::memcmp(&a.u.prefix6, &b.u.prefix6, 16) == 0;
}

}  // namespace

const char *dhcp_prefix_addr_str(const prefix *p, char *buf, std::size_t len)
{
    if (!buf || !len) return "";
    buf[0] = '\0';
    if (!p) return buf;
    if (!inet_ntop(p->family == AF_INET6 ? AF_INET6 : AF_INET, p->u.prefix, buf, static_cast<socklen_t>(len)))
        buf[0] = '\0';
    return buf;
}

void dhcp_l3if_init() { dhcp_l3if_clear(); }

void dhcp_l3if_clear()
{
    while (!g_if_list.empty()) {
        interface *ifp = g_if_list.front();
        g_if_list.pop_front();
        dhcp_if_deinit(ifp);
        qdelete(MTYPE_TMP, ifp);
    }
}

interface *if_first() { return g_if_list.empty() ? nullptr : g_if_list.front(); }

interface *if_next(const interface *ifp)
{
    auto it = if_find(ifp);
    if (it == g_if_list.end() || ++it == g_if_list.end()) return nullptr;
    return *it;
}

std::size_t if_count() { return g_if_list.size(); }

interface *if_lookup_by_name(const char *name)
{
    if (!name) return nullptr;
    for (interface *ifp : g_if_list)
        if (std::strncmp(ifp->name, name, INTERFACE_NAMSIZ + 1) == 0) return ifp;
    return nullptr;
}

interface *if_lookup_by_index(std::uint32_t kernel_ifindex)
{
    if (!kernel_ifindex) return nullptr;
    for (interface *ifp : g_if_list)
        if (ifp->ifindex == kernel_ifindex) return ifp;
    return nullptr;
}

interface *if_lookup_by_uifindex(std::uint32_t uifindex)
{
    if (!uifindex) return nullptr;
    for (interface *ifp : g_if_list)
        if (ifp->uifindex == uifindex) return ifp;
    return nullptr;
}

interface *if_get_by_name(const char *name)
{
    if (!name || !*name || std::strlen(name) > INTERFACE_NAMSIZ) return nullptr;
    if (interface *ifp = if_lookup_by_name(name)) return ifp;
    interface *ifp = qnew<interface>(MTYPE_TMP);
    if (!ifp) return nullptr;
    std::snprintf(ifp->name, sizeof ifp->name, "%s", name);
    ifp->ifindex = 0;
    std::uint16_t vid = vlanif_vid(name);
    ifp->uifindex = vid ? st_ifindex_gen_by_logicinfo(PORT_TYPE_VLANIF, vid) : 0;
    ifp->status = 0;
    ifp->flags = 0;
    ifp->metric = 0;
    ifp->mtu = ifp->mtu6 = 0;
    ifp->hw_type = 0;
    ifp->hw_addr_len = 0;
    std::memset(ifp->hw_addr, 0, sizeof ifp->hw_addr);
    ifp->bandwidth = 0;
    ifp->ip_type = 0;
    ifp->info = nullptr;
    g_if_list.push_back(ifp);
    return ifp;
}

int if_is_up(const interface *ifp) { return ifp && (ifp->flags & DHCP_IFF_UP) ? 1 : 0; }

int if_is_running(const interface *ifp)
{
    return ifp && ifp->ifindex && (ifp->flags & DHCP_IFF_UP) && (ifp->flags & DHCP_IFF_RUNNING) ? 1 : 0;
}

std::uint16_t dhcp_if_vlan_id(const interface *ifp) { return ifp ? vlanif_vid(ifp->name) : 0; }

std::uint32_t dhcp_if_primary_ipv4(const interface *ifp)
{
    if (!ifp) return 0;
    for (const prefix &p : ifp->connected)
        if (p.family == AF_INET) return p.u.prefix4.s_addr;
    return 0;
}

const char *if_flag_dump(std::uint64_t flags)
{
    static const struct { std::uint64_t bit; const char *name; } names[] = {
        {IFF_UP, "UP"},           {IFF_BROADCAST, "BROADCAST"}, {IFF_DEBUG, "DEBUG"},
        {IFF_LOOPBACK, "LOOPBACK"}, {IFF_POINTOPOINT, "POINTOPOINT"}, {IFF_NOTRAILERS, "NOTRAILERS"},
        {IFF_RUNNING, "RUNNING"}, {IFF_NOARP, "NOARP"},         {IFF_PROMISC, "PROMISC"},
        {IFF_ALLMULTI, "ALLMULTI"}, {IFF_MULTICAST, "MULTICAST"},
    };
    static char buf[160];
    std::size_t n = 0;
    buf[0] = '<';
    buf[1] = '\0';
    n = 1;
    bool first = true;
    for (const auto &e : names) {
        if (!(flags & e.bit)) continue;
        int w = std::snprintf(buf + n, sizeof buf - n, "%s%s", first ? "" : ",", e.name);
        if (w < 0 || static_cast<std::size_t>(w) >= sizeof buf - n) break;
        n += static_cast<std::size_t>(w);
        first = false;
    }
    if (n + 2 <= sizeof buf) {
        buf[n] = '>';
        buf[n + 1] = '\0';
    }
    return buf;
}

int dhcp_if_is_intialized(const interface *ifp) { return ifp && ifp->info ? 1 : 0; }

int dhcp_if_init(interface *ifp)
{
    if (!ifp) return TAVO_PARAM;
    if (ifp->info) return 0;
    auto *info = static_cast<dhcp_info_t *>(XCALLOC(DHCP_INFO, sizeof(dhcp_info_t)));
    if (!info) return TAVO_MEMORY;
    ifp->info = info;
    return 0;
}

dhcp_info_t *dhcp_if_info(const interface *ifp) { return ifp ? static_cast<dhcp_info_t *>(ifp->info) : nullptr; }

void dhcp_if_deinit(interface *ifp)
{
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info) return;
    if (info->info) {
        dhcpr_t *dhcpr = info->info;
        dhcpr_close_socket(dhcpr);
        dhcp6r_close_socket(dhcpr);
        while (!dhcpr->server_list.empty()) {
            relay_server_info_t *s = dhcpr->server_list.front();
            dhcpr->server_list.pop_front();
            XFREE(DHCP_SERVER, s);
        }
        dhcpr_clear_relay_ip_all(ifp);
        if (info->v4_type == DHCP_IF_TYPE_RELAY && g_dhcpr_vlanif_count) --g_dhcpr_vlanif_count;
        if (info->v6_type == DHCP_IF_TYPE_RELAY && g_dhcpr_vlanif_count) --g_dhcpr_vlanif_count;
        qdelete(MTYPE_DHCP_RELAY, dhcpr);
        info->info = nullptr;
    }
    XFREE(DHCP_INFO, info);
    ifp->info = nullptr;
}

// ------------------------------------------------------- kernel events ----

interface *dhcp_interface_add(const char *name, std::uint32_t kernel_ifindex, std::uint64_t flags,
                              const std::uint8_t *mac, std::uint32_t mtu)
{
    if (!name || !kernel_ifindex) return nullptr;
    // A renamed link keeps its index: the old name lets go of it.
    interface *old = if_lookup_by_index(kernel_ifindex);
    if (old && std::strncmp(old->name, name, INTERFACE_NAMSIZ + 1) != 0) dhcp_interface_delete(kernel_ifindex);
    interface *ifp = if_get_by_name(name);
    if (!ifp) {
        zlog_err("[IF]interface %s can not be created", name);
        return nullptr;
    }
    bool was_running = if_is_running(ifp);
    ifp->ifindex = kernel_ifindex;
    ifp->flags = flags;
    ifp->mtu = ifp->mtu6 = mtu;
    if (mac) {
        std::memcpy(ifp->hw_addr, mac, 6);
        ifp->hw_addr_len = 6;
    }
    bool running = if_is_running(ifp);
    if (running && !was_running) dhcp_interface_up(ifp);
    else if (!running && was_running) dhcp_interface_down(ifp);
    return ifp;
}

void dhcp_interface_delete(std::uint32_t kernel_ifindex)
{
    interface *ifp = if_lookup_by_index(kernel_ifindex);
    if (!ifp) return;
    bool was_running = if_is_running(ifp);
    ifp->flags = 0;
    if (was_running) dhcp_interface_down(ifp);
    // Addresses go with the link; the relay forgets them one by one.
    while (!ifp->connected.empty()) {
        prefix p = ifp->connected.front();
        dhcp_interface_address_delete(ifp, &p);
    }
    ifp->ifindex = 0;
    ifp->hw_addr_len = 0;
}

void dhcp_interface_up(interface *ifp)
{
    if (!ifp) return;
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "interface %s index %d flags %#llx metric %d mtu %d is up", ifp->name,
                   ifp->ifindex, static_cast<unsigned long long>(ifp->flags), ifp->metric, ifp->mtu);
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (info && info->v4_type == DHCP_IF_TYPE_RELAY && info->info && dhcpr_get_relay_server_ipv4_count(info->info))
        dhcpr_process_interface_up(ifp);
}

void dhcp_interface_down(interface *ifp)
{
    if (!ifp) return;
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "Interface[%s] state change to down.", ifp->name);
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (info && info->info) dhcpr_process_interface_down(ifp);
}

int dhcp_interface_address_add(interface *ifp, const prefix *p)
{
    if (!ifp || !p || (p->family != AF_INET && p->family != AF_INET6)) return TAVO_PARAM;
    char text[INET6_ADDRSTRLEN];
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "interface %s address add %s", ifp->name,
                   dhcp_prefix_addr_str(p, text, sizeof text));
    bool known = false;
    for (prefix &c : ifp->connected)
        if (prefix_same(c, *p)) {
            c.prefixlen = p->prefixlen;
            known = true;
        }
    if (!known) ifp->connected.push_back(*p);
    dhcpr_add_relay_ip(ifp, p);
    if (p->family == AF_INET6) dhcpv6r_reset_helper(ifp);
    else dhcpr_reset_helper(ifp);
    return 0;
}

int dhcp_interface_address_delete(interface *ifp, const prefix *p)
{
    if (!ifp || !p || (p->family != AF_INET && p->family != AF_INET6)) return TAVO_PARAM;
    char text[INET6_ADDRSTRLEN];
    // Same text as the add, as the operators know it.
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "interface %s address add %s", ifp->name,
                   dhcp_prefix_addr_str(p, text, sizeof text));
    ifp->connected.remove_if([p](const prefix &c) { return prefix_same(c, *p); });
    dhcpr_remove_relay_ip(ifp, p);
    if (p->family == AF_INET6) dhcpv6r_reset_helper(ifp);
    else dhcpr_reset_helper(ifp);
    return 0;
}
