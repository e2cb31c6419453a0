#include "dhcp/dhcpr.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <unistd.h>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_kernel.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_send.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/errcode.h"
#include "platform/st_packet.h"

std::uint32_t g_dhcpr_vlanif_count;
char dhcprelay_sysname[32];

namespace {

thread_master *g_dhcpr_master;

ssize_t default_sendto(int fd, const std::uint8_t *msg, std::size_t len, const sockaddr_in *to)
{
    return sendto(fd, msg, len, 0, reinterpret_cast<const sockaddr *>(to), sizeof(sockaddr_in));
}
dhcpr_sendto_fn g_sendto = default_sendto;

// Offer entries a single client may hold, whatever the configuration.
constexpr std::size_t DHCPR_OFFER_INFO_MAX = 256;

struct ip_s {
    char s[INET_ADDRSTRLEN];
    explicit ip_s(std::uint32_t nip) { inet_ntop(AF_INET, &nip, s, sizeof s); }
};
struct ip6_s {
    char s[INET6_ADDRSTRLEN];
    explicit ip6_s(const void *a) { inet_ntop(AF_INET6, a, s, sizeof s); }
};
struct pfx_s {
    char s[INET6_ADDRSTRLEN];
    explicit pfx_s(const prefix *p) { dhcp_prefix_addr_str(p, s, sizeof s); }
};
struct mac_s {
    char s[18];
    explicit mac_s(const std::uint8_t *m)
    {
        std::snprintf(s, sizeof s, "%02x%02x-%02x%02x-%02x%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    }
};

// The relay address lookup lines need the diagnose bit and the event gate.
#define DHCPR_DIAG_DEBUG(fmt, ...)                                                                  \
    do {                                                                                            \
        if ((g_dhcp_debug & DHCP_DEBUG_DIAGNOSE) && DHCP_DEBUG_ON(DHCP_DEBUG_EVENT))                 \
            zlog_debug(fmt, ##__VA_ARGS__);                                                         \
    } while (0)
#define DHCPR_EVENT_DEBUG(fmt, ...) DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, fmt, ##__VA_ARGS__)
#define DHCPR_IF_DEBUG(fmt, ...) DHCP_BIT_DEBUG(DHCP_DEBUG_INTERFACE, fmt, ##__VA_ARGS__)

prefix ipv4_prefix(std::uint32_t nip, std::uint8_t len)
{
    prefix p{};
    p.family = AF_INET;
    p.prefixlen = len;
    p.u.prefix4.s_addr = nip;
    return p;
}

bool is_ipv4(const prefix &p) { return p.family == AF_INET; }
bool is_ipv6(const prefix &p) { return p.family == AF_INET6; }

std::uint32_t rd32(bytes_view msg, std::size_t off)
{
    std::uint32_t v = 0;
    if (off + 4 <= msg.size()) std::memcpy(&v, msg.data() + off, 4);  // kept as stored
    return v;
}
void wr32(bytes_span msg, std::size_t off, std::uint32_t nip)
{
    if (off + 4 <= msg.size()) std::memcpy(msg.data() + off, &nip, 4);
}

std::uint16_t if_vid(const interface *ifp) { return dhcp_if_vlan_id(ifp); }

void free_relay_ip(relay_ip_info_t *r)
{
    if (r->relay_fd > 0) close(r->relay_fd);
    r->relay_fd = 0;
    XFREE(TMP, r);
}

dhcpr_t *dhcpr_new(interface *ifp)
{
    dhcpr_t *d = qnew<dhcpr_s>(MTYPE_DHCP_RELAY);
    if (!d) return nullptr;
    d->ifp = ifp;
    d->server_fd = -1;  // closed; 0 would be a real descriptor
    d->t = nullptr;
    d->server_t = nullptr;
    return d;
}

void dhcpr_free(interface *ifp, dhcp_info_t *info)
{
    dhcpr_t *d = info->info;
    if (!d) return;
    dhcpr_close_socket(d);
    dhcp6r_close_socket(d);
    thread_cancel(&d->t);
    for (relay_server_info_t *s : d->server_list) XFREE(DHCP_SERVER, s);
    d->server_list.clear();
    dhcpr_clear_relay_ip_all(ifp);
    qdelete(MTYPE_DHCP_RELAY, d);
    info->info = nullptr;
}

int relay_vlan_set(std::uint16_t vlan_id, bool v6, int enable)
{
    const char *fam = v6 ? "dhcpv6-relay" : "dhcp-relay";
    const char *verb = enable ? "enable" : "disable";
    dhcp_vlan_t *vlan = dhcp_vlan_info_get_by_vid(vlan_id);
    if (!vlan) {
        DHCPR_EVENT_DEBUG("[EVENT]dhcp-vlan get failed");
        return TAVO_VLAN;
    }
    (v6 ? vlan->ipv6_relay_enable : vlan->relay_enable) = enable ? 1 : 0;
    // With snooping on, the hardware traps DHCP on the VLAN already.
    if (v6 ? vlan->ipv6_snooping_enable : vlan->snooping_enable) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]%s %s on vlan %d ", vlan_id, verb, fam, vlan_id);
        return 0;
    }
    int ret = v6 ? hal_dhcpv6_vlan_enable(vlan_id, enable ? 1 : 0, 0) : hal_dhcp_vlan_enable(vlan_id, enable ? 1 : 0);
    if (ret == 0)
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]%s %s on vlan %d sync hw OK", vlan_id, verb, fam, vlan_id);
    else
        zlog_err("[EVENT][vid:%4d]%s %s on vlan %d sync hw failed. Return %d", vlan_id, verb, fam, vlan_id, ret);
    return enable ? 0 : ret;
}

// Destination port of the frame towards the client.
std::uint32_t client_out_ifindex(const dhcp_client_info_t *client)
{
    if (client && client->client_ifindex) return client->client_ifindex;
    return DHCP_IFINDEX_ALL;
}

int out_slot(std::uint32_t ifindex)
{
    if (ifindex == DHCP_IFINDEX_ALL) return 0;
    int slot = st_ifindex_get_slot_id(ifindex);
    return slot < 0 ? 0 : slot;
}

// Ethernet + one 802.1Q tag + IPv4 + UDP 67 -> 68 around the message.
int build_client_frame(std::uint8_t *frame, std::size_t room, bytes_view msg, std::uint16_t vid,
                       const std::uint8_t src_mac[6], const std::uint8_t dst_mac[6], std::uint32_t src_ip,
                       std::uint32_t dst_ip)
{
    constexpr std::size_t l2 = ST_ETH_HDR_LEN + ST_ETH_TAG_LEN, ip = 20, udp = 8;
    std::size_t total = l2 + ip + udp + msg.size();
    if (total > room || msg.size() > 0xffff - ip - udp) return -1;
    wire_writer w(bytes_span(frame, room));
    w.put(dst_mac, 6);
    w.put(src_mac, 6);
    w.be16(ST_ETH_P_8021Q);
    w.be16(vid & 0x0fff);
    w.be16(ST_ETH_P_IPV4);
    std::size_t ip_off = w.pos();
    w.u8(0x45);
    w.u8(0);
    w.be16(static_cast<std::uint16_t>(ip + udp + msg.size()));
    w.be16(0);
    w.be16(0);
    w.u8(64);
    w.u8(IPPROTO_UDP);
    w.be16(0);
    w.put(&src_ip, 4);
    w.put(&dst_ip, 4);
    std::uint16_t ipsum = inet_cksum(bytes_view(frame + ip_off, ip));
    frame[ip_off + 10] = std::uint8_t(ipsum >> 8);
    frame[ip_off + 11] = std::uint8_t(ipsum);
    std::size_t udp_off = w.pos();
    std::uint16_t udp_len = static_cast<std::uint16_t>(udp + msg.size());
    w.be16(DHCP_SERVER_PORT);
    w.be16(DHCP_CLIENT_PORT);
    w.be16(udp_len);
    w.be16(0);
    w.put(msg.data(), msg.size());
    // Pseudo header: addresses, protocol, UDP length.
    std::uint8_t pseudo[12];
    std::memcpy(pseudo, &src_ip, 4);
    std::memcpy(pseudo + 4, &dst_ip, 4);
    pseudo[8] = 0;
    pseudo[9] = IPPROTO_UDP;
    pseudo[10] = std::uint8_t(udp_len >> 8);
    pseudo[11] = std::uint8_t(udp_len);
    std::uint32_t sum = inet_cksum_add(bytes_view(pseudo, 12), 0);
    sum = inet_cksum_add(bytes_view(frame + udp_off, udp_len), sum);
    std::uint16_t csum = inet_cksum_fold(sum);
    if (csum == 0) csum = 0xffff;
    frame[udp_off + 6] = std::uint8_t(csum >> 8);
    frame[udp_off + 7] = std::uint8_t(csum);
    return static_cast<int>(total);
}

// The message of a trapped frame, writable, bounded by the frame.
bytes_span l2_msg_span(dhcp_l2_pkt_t *p)
{
    if (!p->raw_packet || p->dhcp_hdr_offset >= p->raw_packet_len) return {};
    std::size_t left = p->raw_packet_len - p->dhcp_hdr_offset;
    return bytes_span(p->raw_packet + p->dhcp_hdr_offset, std::min<std::size_t>(p->dhcp_msg_len, left));
}

void count_relay_record(std::uint32_t &tx_bootp_request, std::uint32_t &rx_bootp_reply, std::uint32_t &tx_discovery,
                        std::uint32_t &tx_request, std::uint32_t &tx_decline, std::uint32_t &tx_inform,
                        std::uint32_t &tx_release, std::uint32_t &rx_offer, std::uint32_t &rx_ack,
                        std::uint32_t &rx_nack, std::uint32_t &others, int msg_type)
{
    switch (msg_type) {
    case DHCPDISCOVER: ++tx_bootp_request; ++tx_discovery; break;
    case DHCPREQUEST: ++tx_bootp_request; ++tx_request; break;
    case DHCPDECLINE: ++tx_bootp_request; ++tx_decline; break;
    case DHCPINFORM: ++tx_bootp_request; ++tx_inform; break;
    case DHCPRELEASE: ++tx_bootp_request; ++tx_release; break;
    case DHCPOFFER: ++rx_bootp_reply; ++rx_offer; break;
    case DHCPACK: ++rx_bootp_reply; ++rx_ack; break;
    case DHCPNAK: ++rx_bootp_reply; ++rx_nack; break;
    default: ++others; break;
    }
}

}  // namespace

// ------------------------------------------------------------------ setup ----

void dhcpr_init(thread_master *m) { g_dhcpr_master = m; }

void dhcpr_set_sendto(dhcpr_sendto_fn fn) { g_sendto = fn ? fn : default_sendto; }

const char *dhcpr_msg_type_str(int type) { return dhcp_msg_type_str(type); }

// ---------------------------------------------------------- global switch ----

int dhcp_relay_is_enable() { return g_dhcp_global_cfg.relay_enable; }

void dhcp_relay_enable_set(int enable)
{
    std::uint8_t v = enable ? 1 : 0;
    if (v == g_dhcp_global_cfg.relay_enable) return;
    g_dhcp_global_cfg.relay_enable = v;
    if (v) return;
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp)) {
        dhcp_info_t *info = dhcp_if_info(ifp);
        if (info && info->v4_type == DHCP_IF_TYPE_RELAY) dhcpr_interface_disable(ifp);
    }
    if (dhcp_snoop_is_enable()) return;
    for (uif_t *pif = uif_first(); pif; pif = uif_next(pif)) {
        int type = st_ifindex_get_port_type(pif->ifindex);
        if (type < PORT_TYPE_FE || type > PORT_TYPE_CE) continue;
        if (dhcp_port_trust_check(pif)) dhcp_port_trust_set(pif, 0);
    }
}

// -------------------------------------------------------- VLAN trap switch ----

int dhcp_vlan_l3relay_enable(std::uint16_t vlan_id) { return relay_vlan_set(vlan_id, false, 1); }
int dhcp_vlan_l3relay_disable(std::uint16_t vlan_id) { return relay_vlan_set(vlan_id, false, 0); }
int dhcpv6_vlan_l3relay_enable(std::uint16_t vlan_id) { return relay_vlan_set(vlan_id, true, 1); }
int dhcpv6_vlan_l3relay_disable(std::uint16_t vlan_id) { return relay_vlan_set(vlan_id, true, 0); }

// ---------------------------------------------------- relay on interface ----

int dhcpr_interface_enable(interface *ifp)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]Failed to enable relay on non-initalized if %s", vid, name);
        return TAVO_PORT;
    }
    dhcp_vlan_t *vlan = dhcp_vlan_info_get_by_vid(vid);
    if (info->v4_type == DHCP_IF_TYPE_RELAY && vlan && vlan->relay_enable == 1) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]dhcp-relay already enabled on %s", vid, name);
        return 0;
    }
    if (!info->info) {
        info->info = dhcpr_new(ifp);
        if (!info->info) return TAVO_MEMORY;
    }
    ++g_dhcpr_vlanif_count;
    info->v4_type = DHCP_IF_TYPE_RELAY;
    dhcpr_t *d = info->info;
    int ret = dhcp_vlan_l3relay_enable(vid);
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][Relay] enable reset vlan %d ret %d", vid, vid, ret);
    // Also when the instance came with DHCPv6 relay: it must know the address.
    int kidx = 0;
    dhcp_read_interface(name, &kidx, &d->local_ipaddr, d->local_mac);
    d->kernel_ifindex = static_cast<std::uint32_t>(kidx);
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]enable relay on %s[%d-%#08x] ip %s", vid, name, kidx, ifp->uifindex,
                      ip_s(d->local_ipaddr).s);
    dhcpr_update_add_relay_ip_all(ifp);
    return 0;
}

int ipv6_dhcpr_interface_enable(interface *ifp)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]Failed to enable relay on non-initalized if %s", vid, name);
        return TAVO_PORT;
    }
    dhcp_vlan_t *vlan = dhcp_vlan_info_get_by_vid(vid);
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]dhcp_info->type=%d dhcp_vlan->ipv6_relay_enable=%d", vid, info->v6_type,
                      vlan ? vlan->ipv6_relay_enable : 0);
    if (info->v6_type == DHCP_IF_TYPE_RELAY && vlan && vlan->ipv6_relay_enable == 1) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]dhcp-relay already enabled on %s", vid, name);
        return 0;
    }
    if (!info->info) {
        info->info = dhcpr_new(ifp);
        if (!info->info) return TAVO_MEMORY;
    }
    ++g_dhcpr_vlanif_count;
    info->v6_type = DHCP_IF_TYPE_RELAY;
    int ret = dhcpv6_vlan_l3relay_enable(vid);
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]dhcp v6 [Relay] enable reset vlan %d ret %d", vid, vid, ret);
    dhcpr_update_add_relay_ip_all(ifp);
    return 0;
}

// Disabling one family's relay drops that family's servers; the other's stay.
static void delete_servers_of_family(dhcpr_t *d, bool v6, std::uint16_t vid, const char *name)
{
    for (auto it = d->server_list.begin(); it != d->server_list.end();) {
        relay_server_info_t *s = *it;
        if (v6 ? !is_ipv6(s->server_ip) : !is_ipv4(s->server_ip)) {
            ++it;
            continue;
        }
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][Relay] disabled on %s delete server %s", vid, name,
                          pfx_s(&s->server_ip).s);
        it = d->server_list.erase(it);
        XFREE(DHCP_SERVER, s);
    }
}

// The interface's DHCP record when that family's relay is on, else null (logged).
static dhcp_info_t *relay_info_to_disable(interface *ifp, bool v6, std::uint16_t vid, const char *name)
{
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]relay find non-initalized if %s", vid, name);
        return nullptr;
    }
    std::uint32_t type = v6 ? info->v6_type : info->v4_type;
    if (type != DHCP_IF_TYPE_RELAY) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]relay find non relay if %s, current type is %d", vid, name, type);
        return nullptr;
    }
    return info;
}

int dhcpr_interface_disable(interface *ifp)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcp_info_t *info = relay_info_to_disable(ifp, false, vid, name);
    if (!info) return TAVO_PORT;
    if (dhcpr_t *d = info->info) {
        dhcpr_close_socket(d);
        delete_servers_of_family(d, false, vid, name);
    }
    info->v4_type = DHCP_IF_TYPE_NONE;
    dhcp_vlan_t *vlan = dhcp_vlan_info_get_by_vid(vid);
    if (vlan && vlan->ipv6_relay_enable == 0) {
        info->v6_type = DHCP_IF_TYPE_NONE;
        dhcpr_free(ifp, info);
    }
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][Relay] disable on %s sync remove all client", vid, name);
    int ret = dhcp_vlan_l3relay_disable(vid);
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][Relay] disable reset vlan %d ret %d", vid, vid, ret);
    if (g_dhcpr_vlanif_count) --g_dhcpr_vlanif_count;
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][Relay] disable on %s[%d:%#010x]", vid, name, ifp->ifindex, ifp->uifindex);
    return 0;
}

int ipv6_dhcpr_interface_disable(interface *ifp)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcp_info_t *info = relay_info_to_disable(ifp, true, vid, name);
    if (!info) return TAVO_PORT;
    if (dhcpr_t *d = info->info) {
        dhcp6r_close_socket(d);
        delete_servers_of_family(d, true, vid, name);
    }
    info->v6_type = DHCP_IF_TYPE_NONE;
    if (info->v4_type != DHCP_IF_TYPE_RELAY) dhcpr_free(ifp, info);
    int ret = dhcpv6_vlan_l3relay_disable(vid);
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]dhcpv6 [Relay] disable reset vlan %d ret %d", vid, vid, ret);
    if (g_dhcpr_vlanif_count) --g_dhcpr_vlanif_count;
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]dhcpv6 [Relay] disable on %s[%d:%#010x]", vid, name, ifp->ifindex,
                      ifp->uifindex);
    return 0;
}

dhcpr_t *dhcpr_info_get_by_interface(const interface *ifp)
{
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info) {
        DHCPR_EVENT_DEBUG("[EVENT]Failed to enable relay on non-initalized if %s", ifp ? ifp->name : "");
        return nullptr;
    }
    if (info->v4_type == DHCP_IF_TYPE_RELAY || info->v6_type == DHCP_IF_TYPE_RELAY) return info->info;
    return nullptr;
}

dhcpr_t *dhcpr_get_info_by_interface(const interface *ifp) { return dhcpr_info_get_by_interface(ifp); }

int dhcpr_relay_is_enable_on_interface(const interface *ifp)
{
    dhcp_info_t *info = dhcp_if_info(ifp);
    return info && info->v4_type == DHCP_IF_TYPE_RELAY ? 1 : 0;
}

int dhcpv6r_relay_is_enable_on_interface(const interface *ifp)
{
    dhcp_info_t *info = dhcp_if_info(ifp);
    return info && info->v6_type == DHCP_IF_TYPE_RELAY ? 1 : 0;
}

int dhcpr_relay_is_enable_by_ifname(const char *name)
{
    return dhcpr_relay_is_enable_on_interface(if_lookup_by_name(name));
}

int dhcpr_relay_is_enable_on_vlan(std::uint16_t vlan_id)
{
    dhcp_vlan_t *vlan = dhcp_vlan_info_get_by_vid(vlan_id);
    return vlan ? vlan->relay_enable : 0;
}

// ---------------------------------------------------------------- servers ----

void dhcpr_init_server(relay_server_info_t *server, const prefix *p)
{
    std::memset(server, 0, sizeof *server);
    server->server_ip = *p;
}

void ipv6_dhcpr_init_server(relay_server_info_t *server, const prefix *p) { dhcpr_init_server(server, p); }

std::uint32_t dhcpr_get_relay_server_ipv4_count(const dhcpr_t *dhcpr)
{
    if (!dhcpr) return 0;
    std::uint32_t n = 0;
    for (const relay_server_info_t *s : dhcpr->server_list) n += is_ipv4(s->server_ip) ? 1 : 0;
    return n;
}

std::uint32_t dhcpr_get_relay_server_ipv6_count(const dhcpr_t *dhcpr)
{
    if (!dhcpr) return 0;
    std::uint32_t n = 0;
    for (const relay_server_info_t *s : dhcpr->server_list) n += is_ipv6(s->server_ip) ? 1 : 0;
    return n;
}

relay_server_info_t *dhcpr_find_server_info_by_ipv4(const dhcpr_t *dhcpr, std::uint32_t ip)
{
    if (!dhcpr) return nullptr;
    for (relay_server_info_t *s : dhcpr->server_list) {
        dhcp_assert(s != NULL);
        if (s && is_ipv4(s->server_ip) && s->server_ip.u.prefix4.s_addr == ip) return s;
    }
    return nullptr;
}

relay_server_info_t *dhcpr_get_relay_server_by_ip(const dhcpr_t *dhcpr, std::uint32_t ip)
{
    return dhcpr_find_server_info_by_ipv4(dhcpr, ip);
}

relay_server_info_t *ipv6_dhcpr_find_server_info(const dhcpr_t *dhcpr, const in6_addr &ip)
{
    if (!dhcpr) return nullptr;
    for (relay_server_info_t *s : dhcpr->server_list)
        if (s && is_ipv6(s->server_ip) && std::memcmp(&s->server_ip.u.prefix6, &ip, 16) == 0) return s;
    return nullptr;
}

int st_product_kernel_if_exist(const char *ifname) { return ifname && if_nametoindex(ifname) ? 1 : 0; }

int dhcpr_add_helper(interface *ifp, std::uint32_t server_ip)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcpr_t *d = dhcpr_info_get_by_interface(ifp);
    if (!d) {
        zlog_err("[IF][vid:%4d]DHCP relay is not enableed on interface %s", vid, name);
        return TAVO_PORT;
    }
    if (dhcpr_find_server_info_by_ipv4(d, server_ip)) {
        DHCPR_IF_DEBUG("[IF][vid:%4d]relay ip %s already added on interface %s", vid, ip_s(server_ip).s, name);
        return 0;
    }
    auto *s = static_cast<relay_server_info_t *>(XCALLOC(DHCP_SERVER, sizeof(relay_server_info_t)));
    if (!s) return TAVO_MEMORY;
    prefix p = ipv4_prefix(server_ip, 32);
    dhcpr_init_server(s, &p);
    d->server_list.push_back(s);
    DHCPR_IF_DEBUG("[IF][vid:%4d] %s add server %s", vid, name, ip_s(server_ip).s);
    // The first IPv4 server opens the socket; later ones share it.
    if (dhcpr_get_relay_server_ipv4_count(d) == 1 && st_product_kernel_if_exist(name)) {
        DHCPR_IF_DEBUG("[IF][vid:%4d] %s start dhcp relay", vid, name);
        return dhcpr_start_helper(ifp, d);
    }
    return 0;
}

int dhcpr_del_helper(interface *ifp, std::uint32_t server_ip)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcpr_t *d = dhcpr_info_get_by_interface(ifp);
    if (!d) {
        DHCPR_IF_DEBUG("[IF][vid:%4d]DHCP relay is not enabled on interface %s", vid, name);
        return TAVO_PORT;
    }
    if (d->server_list.empty()) {
        DHCPR_IF_DEBUG("[IF][vid:%4d]No server existed on interface %s", vid, name);
        return TAVO_NOT_FOUND;
    }
    for (auto it = d->server_list.begin(); it != d->server_list.end();) {
        relay_server_info_t *s = *it;
        if (is_ipv4(s->server_ip) && s->server_ip.u.prefix4.s_addr == server_ip) {
            DHCPR_IF_DEBUG("[IF][vid:%4d]%s delete relay server %s", vid, name, ip_s(server_ip).s);
            it = d->server_list.erase(it);
            XFREE(DHCP_SERVER, s);
        } else {
            ++it;
        }
    }
    return 0;
}

int ipv6_dhcpr_add_helper(interface *ifp, const in6_addr &server_ip)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info) {
        DHCPR_IF_DEBUG("[IF][vid:%4d]add helper find non-initalized if %s", vid, name);
        return TAVO_PORT;
    }
    if (info->v6_type != DHCP_IF_TYPE_RELAY || !info->info) {
        DHCPR_IF_DEBUG("[IF][vid:%4d]add helper find non relay if %s, current type is %d", vid, name, info->v6_type);
        return TAVO_PORT;
    }
    dhcpr_t *d = info->info;
    if (ipv6_dhcpr_find_server_info(d, server_ip)) {
        DHCPR_IF_DEBUG("[IF][vid:%4d]relay ip %s already added on interface %s", vid, ip6_s(&server_ip).s, name);
        return 0;
    }
    auto *s = static_cast<relay_server_info_t *>(XCALLOC(DHCP_SERVER, sizeof(relay_server_info_t)));
    if (!s) return TAVO_MEMORY;
    prefix p{};
    p.family = AF_INET6;
    p.prefixlen = 128;
    p.u.prefix6 = server_ip;
    ipv6_dhcpr_init_server(s, &p);
    d->server_list.push_back(s);
    DHCPR_IF_DEBUG("[IF][vid:%4d] %s add server %s", vid, name, ip6_s(&server_ip).s);
    if (dhcpr_get_relay_server_ipv6_count(d) == 1 && st_product_kernel_if_exist(name)) {
        DHCPR_IF_DEBUG("[IF][vid:%4d] %s start dhcpv6 relay", vid, name);
        return dhcpv6r_start_helper(ifp, d);
    }
    return 0;
}

int ipv6_dhcpr_del_helper(interface *ifp, const in6_addr &server_ip)
{
    std::uint16_t vid = if_vid(ifp);
    const char *name = ifp ? ifp->name : "";
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info || !info->info) {
        DHCPR_IF_DEBUG("[IF][vid:%4d][RELAY] delete helper find non-initalized if %s", vid, name);
        return TAVO_PORT;
    }
    dhcpr_t *d = info->info;
    if (d->server_list.empty()) {
        DHCPR_IF_DEBUG("[IF][vid:%4d]No server existed on interface %s", vid, name);
        return TAVO_NOT_FOUND;
    }
    for (auto it = d->server_list.begin(); it != d->server_list.end();) {
        relay_server_info_t *s = *it;
        if (is_ipv6(s->server_ip) && std::memcmp(&s->server_ip.u.prefix6, &server_ip, 16) == 0) {
            DHCPR_IF_DEBUG("[IF][vid:%4d][RELAY] %s delete server %s", vid, name, ip6_s(&server_ip).s);
            it = d->server_list.erase(it);
            XFREE(DHCP_SERVER, s);
        } else {
            ++it;
        }
    }
    return 0;
}

// -------------------------------------------------------- relay addresses ----

int dhcpr_add_relay_ip(interface *ifp, const prefix *p)
{
    const char *name = ifp ? ifp->name : "";
    dhcpr_t *d = dhcp_if_info(ifp) ? dhcp_if_info(ifp)->info : nullptr;
    if (!d || !p) {
        DHCPR_EVENT_DEBUG("[EVENT]dhcp relay is not enable on the if %s, ignore", name);
        return TAVO_ERR;
    }
    pfx_s text(p);
    DHCPR_EVENT_DEBUG("[EVENT]interface %s add relay ip %s", name, text.s);
    if (is_ipv4(*p)) {
        if (dhcpr_find_relay_ip_info_by_ipv4(d, p->u.prefix4.s_addr)) return 0;
    } else if (is_ipv6(*p)) {
        for (relay_ip_info_t *r : d->relay_ip_list)
            if (is_ipv6(r->relay_ip) && std::memcmp(&r->relay_ip.u.prefix6, &p->u.prefix6, 16) == 0) {
                DHCPR_EVENT_DEBUG("[EVENT]relay ip %s already added on interface %s", text.s, name);
                return 0;
            }
        if (std::strncmp(text.s, "fe80", 4) == 0) return 0;
    } else {
        return TAVO_PARAM;
    }
    auto *r = static_cast<relay_ip_info_t *>(XCALLOC(TMP, sizeof(relay_ip_info_t)));
    if (!r) return TAVO_MEMORY;
    r->relay_ip = *p;
    d->relay_ip_list.push_back(r);
    if (is_ipv4(*p)) DHCPR_EVENT_DEBUG("[EVENT]enable interface %s relay ip %s", name, text.s);
    return 0;
}

int dhcpr_remove_relay_ip(interface *ifp, const prefix *p)
{
    const char *name = ifp ? ifp->name : "";
    dhcpr_t *d = dhcp_if_info(ifp) ? dhcp_if_info(ifp)->info : nullptr;
    if (!p) return TAVO_PARAM;
    pfx_s text(p);
    DHCPR_EVENT_DEBUG("[EVENT]interface %s delete relay ip %s", name, text.s);
    if (!d) return TAVO_ERR;
    for (auto it = d->relay_ip_list.begin(); it != d->relay_ip_list.end();) {
        relay_ip_info_t *r = *it;
        bool same = r->relay_ip.family == p->family &&
                    (is_ipv4(*p) ? r->relay_ip.u.prefix4.s_addr == p->u.prefix4.s_addr
                                 : std::memcmp(&r->relay_ip.u.prefix6, &p->u.prefix6, 16) == 0);
        if (!same) {
            ++it;
            continue;
        }
        if (is_ipv4(*p)) DHCPR_EVENT_DEBUG("[EVENT]remove interface %s relay ip %s fd %d.", name, text.s, r->relay_fd);
        else DHCPR_EVENT_DEBUG("[EVENT]remove interface %s relay ip %s.", name, text.s);
        it = d->relay_ip_list.erase(it);
        free_relay_ip(r);
    }
    return 0;
}

int dhcpr_update_add_relay_ip_all(interface *ifp)
{
    dhcpr_t *d = dhcp_if_info(ifp) ? dhcp_if_info(ifp)->info : nullptr;
    if (!d) return TAVO_ERR;
    // First forget what the interface no longer has, then learn what it has.
    for (auto it = d->relay_ip_list.begin(); it != d->relay_ip_list.end();) {
        relay_ip_info_t *r = *it;
        bool found = false;
        for (const prefix &c : ifp->connected) {
            if (c.family != r->relay_ip.family) continue;
            if (is_ipv4(c) ? c.u.prefix4.s_addr == r->relay_ip.u.prefix4.s_addr
                           : std::memcmp(&c.u.prefix6, &r->relay_ip.u.prefix6, 16) == 0) {
                found = true;
                break;
            }
        }
        if (found) {
            ++it;
            continue;
        }
        it = d->relay_ip_list.erase(it);
        free_relay_ip(r);
    }
    for (const prefix &c : ifp->connected) {
        bool listed = false;
        for (relay_ip_info_t *r : d->relay_ip_list) {
            if (c.family != r->relay_ip.family) continue;
            if (is_ipv4(c) ? c.u.prefix4.s_addr == r->relay_ip.u.prefix4.s_addr
                           : std::memcmp(&c.u.prefix6, &r->relay_ip.u.prefix6, 16) == 0) {
                listed = true;
                break;
            }
        }
        if (listed) continue;
        pfx_s text(&c);
        if (is_ipv6(c) && std::strncmp(text.s, "fe80", 4) == 0) {
            DHCPR_EVENT_DEBUG("[EVENT]link local address is %s.not in relay_ip_list", text.s);
            continue;
        }
        auto *r = static_cast<relay_ip_info_t *>(XCALLOC(TMP, sizeof(relay_ip_info_t)));
        if (!r) return TAVO_MEMORY;
        r->relay_ip = c;
        d->relay_ip_list.push_back(r);
        DHCPR_EVENT_DEBUG("[EVENT]enable interface %s relay ip %s.", ifp->name, text.s);
    }
    return 0;
}

int dhcpr_clear_relay_ip_all(interface *ifp)
{
    dhcpr_t *d = dhcp_if_info(ifp) ? dhcp_if_info(ifp)->info : nullptr;
    if (!d) return TAVO_ERR;
    while (!d->relay_ip_list.empty()) {
        relay_ip_info_t *r = d->relay_ip_list.front();
        d->relay_ip_list.pop_front();
        free_relay_ip(r);
    }
    return 0;
}

relay_ip_info_t *dhcpr_find_relay_ip_info_by_ipv4(const dhcpr_t *dhcpr, std::uint32_t ip)
{
    if (!dhcpr) return nullptr;
    for (relay_ip_info_t *r : dhcpr->relay_ip_list) {
        dhcp_assert((r) != NULL);
        if (r && is_ipv4(r->relay_ip) && r->relay_ip.u.prefix4.s_addr == ip) return r;
    }
    return nullptr;
}

std::uint32_t dhcpr_get_if_same_prefix_ip(const dhcpr_t *dhcpr, std::uint32_t assigned_ipv4_addr)
{
    if (!dhcpr) return 0;
    for (const relay_ip_info_t *r : dhcpr->relay_ip_list) {
        if (!r || !is_ipv4(r->relay_ip)) continue;
        std::uint32_t len = r->relay_ip.prefixlen > 32 ? 32 : r->relay_ip.prefixlen;
        std::uint32_t mask = len ? htonl(0xffffffffu << (32 - len)) : 0;
        if (((assigned_ipv4_addr ^ r->relay_ip.u.prefix4.s_addr) & mask) == 0) return r->relay_ip.u.prefix4.s_addr;
    }
    return 0;
}

// ---------------------------------------------------------------- sockets ----

int dhcpr_start_helper(interface *ifp, dhcpr_t *dhcpr)
{
    std::uint16_t vid = if_vid(ifp);
    if (!ifp || !dhcpr) return TAVO_PARAM;
    if (!if_is_running(ifp)) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]Not start socket as if %s not running.", vid, ifp->name);
        return 0;
    }
    // Reopening: the old descriptor and its read task go first.
    if (dhcpr->server_fd > 0) dhcpr_close_socket(dhcpr);
    int kidx = 0;
    std::uint32_t ip = 0;
    dhcp_read_interface(ifp->name, &kidx, &ip, dhcpr->local_mac);
    dhcpr->kernel_ifindex = static_cast<std::uint32_t>(kidx);
    // Not bound to the device: requests leave towards the servers by route.
    int fd = dhcp_init_socket(ip, htons(DHCP_SERVER_PORT), nullptr);
    dhcpr->server_fd_pkts_rx = dhcpr->server_fd_pkts_tx = dhcpr->server_fd_pkts_drop = 0;
    dhcpr->local_ipaddr = ip;
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]start listening dhcp packet on all port dest to ip %s server fd %d ", vid,
                      ip_s(ip).s, fd);
    if (fd < 0) {
        dhcpr->server_fd = -1;
        zlog_err("dhcp-relay failed to init SERVER socket");
        return TAVO_ERR;
    }
    dhcpr->server_fd = fd;
    if (g_dhcpr_master) thread_add_read(g_dhcpr_master, dhcpr_recv_server, dhcpr, fd, &dhcpr->server_t);
    return 0;
}

int dhcpv6r_start_helper(interface *ifp, dhcpr_t *dhcpr)
{
    std::uint16_t vid = if_vid(ifp);
    if (!ifp || !dhcpr) return TAVO_PARAM;
    if (!if_is_running(ifp)) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]Not start socket as if %s not running.", vid, ifp->name);
        return 0;
    }
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]dhcpr->relay_ip_list->count=  %d", vid,
                      static_cast<int>(dhcpr->relay_ip_list.size()));
    for (relay_ip_info_t *r : dhcpr->relay_ip_list) {
        if (r->relay_fd >= 1 || !is_ipv6(r->relay_ip)) continue;
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]relay_agent->relay_fd=  %d", vid, r->relay_fd);
        int fd = dhcpv6_init_socket(r->relay_ip.u.prefix6, r->relay_ip.prefixlen, htons(DHCPV6_SERVER_PORT), nullptr);
        if (fd < 0) {
            zlog_err("dhcp-relay failed to init SERVER socket");
            return TAVO_ERR;
        }
        r->relay_fd = fd;
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]start listening dhcpv6 packet on all port dest to ip %s server fd %d ", vid,
                          pfx_s(&r->relay_ip).s, fd);
    }
    DHCPR_EVENT_DEBUG("[EVENT]dhcpr->server_t=%p in v6", static_cast<void *>(dhcpr->server_t));
    return 0;
}

int dhcpr_close_socket(dhcpr_t *dhcpr)
{
    if (!dhcpr) return TAVO_PARAM;
    if (dhcpr->server_fd > 0) {
        DHCPR_EVENT_DEBUG("[EVENT]dhcpr->server_t=%p dhcpr->server_t->master=%p", static_cast<void *>(dhcpr->server_t),
                          dhcpr->server_t ? static_cast<void *>(dhcpr->server_t->master) : nullptr);
        thread_cancel(&dhcpr->server_t);
        close(dhcpr->server_fd);
        dhcpr->server_fd = -1;
        dhcpr->server_fd_pkts_rx = dhcpr->server_fd_pkts_tx = dhcpr->server_fd_pkts_drop = 0;
        dhcpr->kernel_ifindex = 0;
    }
    for (relay_ip_info_t *r : dhcpr->relay_ip_list) {
        if (!is_ipv4(r->relay_ip)) continue;
        DHCPR_EVENT_DEBUG("[EVENT]dhcpr_close_socket ip=%s", pfx_s(&r->relay_ip).s);
        if (r->relay_fd > 0) close(r->relay_fd);
        r->relay_fd = 0;
    }
    return 0;
}

int dhcp6r_close_socket(dhcpr_t *dhcpr)
{
    if (!dhcpr) return TAVO_PARAM;
    for (relay_ip_info_t *r : dhcpr->relay_ip_list) {
        if (!is_ipv6(r->relay_ip)) continue;
        if (r->relay_fd > 0) close(r->relay_fd);
        r->relay_fd = 0;
    }
    return 0;
}

int dhcpr_reset_helper(interface *ifp)
{
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info || info->v4_type != DHCP_IF_TYPE_RELAY || !info->info) return 0;
    zlog_info("[IF][INF][vid:%4d]if %s reset helper info", if_vid(ifp), ifp->name);
    dhcpr_close_socket(info->info);
    // Nothing to listen for without a server.
    if (!dhcpr_get_relay_server_ipv4_count(info->info)) return 0;
    return dhcpr_start_helper(ifp, info->info);
}

int dhcpv6r_reset_helper(interface *ifp)
{
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info || info->v6_type != DHCP_IF_TYPE_RELAY || !info->info) return 0;
    zlog_info("[IF][INF][vid:%4d]if %s reset helper info", if_vid(ifp), ifp->name);
    dhcp6r_close_socket(info->info);
    if (!dhcpr_get_relay_server_ipv6_count(info->info)) return 0;
    return dhcpv6r_start_helper(ifp, info->info);
}

int dhcpr_recv_server(thread *t)
{
    auto *d = static_cast<dhcpr_t *>(THREAD_ARG(t));
    int fd = THREAD_FD(t);
    if (!dhcp_relay_is_enable()) {
        DHCP_PKT_DEBUG("[PKT][Relay] Global DHCP relay is disable, ignore packet from fd[%d].", fd);
        return 0;
    }
    // Replies are taken from the trapped frames; this only keeps the queue empty.
    dhcp_packet pkt;
    int n = dhcp_recv_kernel_packet(&pkt, fd);
    if (n > 0) ++d->server_fd_pkts_rx;
    else ++d->server_fd_pkts_drop;
    if (g_dhcpr_master && d->server_fd == fd)
        thread_add_read(g_dhcpr_master, dhcpr_recv_server, d, fd, &d->server_t);
    return 0;
}

int dhcpr_recv_client(thread *t)
{
    int fd = THREAD_FD(t);
    if (!dhcp_relay_is_enable()) {
        DHCP_PKT_DEBUG("[PKT]<=====> DHCP disabled. Stop Recieve dhcp packet from socket %d", fd);
        return 0;
    }
    std::uint8_t buf[DHCP_PACKET_SIZE];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
    return n < 0 ? TAVO_ERR : 0;
}

// ---------------------------------------------------------------- lookups ----

interface *dhcpr_interface_lookup_by_kifindex(std::uint32_t kernel_ifindex) { return if_lookup_by_index(kernel_ifindex); }
interface *dhcpr_interface_lookup_by_uifindex(std::uint32_t uifindex) { return if_lookup_by_uifindex(uifindex); }
interface *dhcpr_interface_lookup_by_name(const char *name) { return if_lookup_by_name(name); }

interface *dhcpr_if_lookup_by_ipaddr(std::uint32_t ip)
{
    if (!ip) return nullptr;
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp)) {
        dhcp_info_t *info = dhcp_if_info(ifp);
        if (!info) {
            DHCPR_DIAG_DEBUG("[EVENT]check if %s dhcp disable continue", ifp->name);
            continue;
        }
        if (info->v4_type != DHCP_IF_TYPE_RELAY) {
            DHCPR_DIAG_DEBUG("[EVENT]check if %s dhcp relay disable continue.", ifp->name);
            continue;
        }
        if (!info->info) {
            DHCPR_DIAG_DEBUG("[EVENT]check if %s dhcp relay initialed failed continue.", ifp->name);
            continue;
        }
        for (const prefix &c : ifp->connected) {
            if (!is_ipv4(c)) continue;
            if (c.u.prefix4.s_addr == ip) {
                DHCPR_DIAG_DEBUG("[EVENT]check if %s  find ip %s.", ifp->name, ip_s(ip).s);
                return ifp;
            }
            DHCPR_DIAG_DEBUG("[EVENT]check if %s local ip %s continue.", ifp->name, ip_s(c.u.prefix4.s_addr).s);
        }
    }
    return nullptr;
}

interface *ipv6_dhcpr_interface_lookup_by_ipaddr(const in6_addr &ip)
{
    static const std::uint8_t zero[16] = {};
    if (std::memcmp(&ip, zero, 16) == 0) return nullptr;
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp)) {
        dhcp_info_t *info = dhcp_if_info(ifp);
        if (!info || info->v6_type != DHCP_IF_TYPE_RELAY || !info->info) continue;
        for (const relay_ip_info_t *r : info->info->relay_ip_list)
            if (is_ipv6(r->relay_ip) && std::memcmp(&r->relay_ip.u.prefix6, &ip, 16) == 0) return ifp;
    }
    return nullptr;
}

interface *dhcpr_if_get_by_vlan_id(std::uint16_t vlan_id)
{
    char name[INTERFACE_NAMSIZ + 1];
    std::snprintf(name, sizeof name, "vlanif%d", vlan_id);
    return dhcpr_interface_lookup_by_name(name);
}

// ------------------------------------------------------- interface events ----

void dhcpr_process_interface_up(interface *ifp)
{
    DHCPR_IF_DEBUG("[IF][vid:%4d]if %s up start dhcp relay", if_vid(ifp), ifp->name);
    dhcpr_reset_helper(ifp);
}

void dhcpr_process_interface_down(interface *ifp)
{
    DHCPR_IF_DEBUG("[IF][vid:%4d]if %s down stop dhcp relay", if_vid(ifp), ifp->name);
    dhcp_info_t *info = dhcp_if_info(ifp);
    if (info && info->info) dhcpr_close_socket(info->info);
}

void dhcpr_proc_helper_recovery()
{
    DHCPR_EVENT_DEBUG("[EVENT]Recovery dhcp relay configuration");
    if (!g_dhcp_global_cfg.relay_enable) return;
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp)) {
        dhcp_info_t *info = dhcp_if_info(ifp);
        if (!info || info->v4_type != DHCP_IF_TYPE_RELAY || !info->info) continue;
        if (!dhcpr_get_relay_server_ipv4_count(info->info)) continue;
        DHCPR_IF_DEBUG("[IF][vid:%4d]Recovery if %s helper", if_vid(ifp), ifp->name);
        dhcpr_close_socket(info->info);
        dhcpr_start_helper(ifp, info->info);
    }
}

// ------------------------------------------------------------- offer info ----

int dhcpr_add_relay_info(dhcp_client_info_t *client, std::uint32_t xid, std::uint32_t relay_ip, std::uint32_t server_ip)
{
    if (!client || !client->offer_info_list) return TAVO_PARAM;
    if (dhcpr_get_relay_offer_info(client, xid, relay_ip, server_ip)) return 0;
    if (client->offer_info_list->size() >= DHCPR_OFFER_INFO_MAX) return TAVO_FULL;
    auto *e = static_cast<dhcp_relay_offer_info_t *>(XCALLOC(DHCP_OFFER_INFO, sizeof(dhcp_relay_offer_info_t)));
    if (!e) return TAVO_MEMORY;
    e->xid = xid;
    e->relay_agent_ip = relay_ip;
    e->relay_server_ip = server_ip;
    e->offer_client_ip = 0;
    client->offer_info_list->push_back(e);
    return 0;
}

int dhcpr_initial_offer_info_list(interface *relay_if, dhcp_client_info_t *client, std::uint32_t xid)
{
    dhcpr_t *d = dhcpr_get_info_by_interface(relay_if);
    if (!d) {
        DHCP_PKT_DEBUG("[PKT]=======> failed to get dhcp relay information on if %s.", relay_if ? relay_if->name : "");
        return TAVO_PORT;
    }
    if (!client) return TAVO_PARAM;
    mac_s mac(client->mac);
    for (const relay_server_info_t *s : d->server_list) {
        if (!is_ipv4(s->server_ip)) continue;
        for (const relay_ip_info_t *r : d->relay_ip_list) {
            if (!is_ipv4(r->relay_ip)) continue;
            DHCP_PKT_DEBUG("[PKT]add xid[%#010x] vid %d %s [%s ==> %s]", xid, client->vid, mac.s,
                           ip_s(r->relay_ip.u.prefix4.s_addr).s, ip_s(s->server_ip.u.prefix4.s_addr).s);
            dhcpr_add_relay_info(client, xid, r->relay_ip.u.prefix4.s_addr, s->server_ip.u.prefix4.s_addr);
        }
    }
    return 0;
}

dhcp_relay_offer_info_t *dhcpr_get_relay_offer_info(const dhcp_client_info_t *client, std::uint32_t xid,
                                                    std::uint32_t relay_ip, std::uint32_t server_ip)
{
    if (!client || !client->offer_info_list) return nullptr;
    for (dhcp_relay_offer_info_t *e : *client->offer_info_list)
        if (e && e->xid == xid && e->relay_agent_ip == relay_ip && e->relay_server_ip == server_ip) return e;
    return nullptr;
}

int dhcpr_update_relay_info_offer_ip(dhcp_client_info_t *client, std::uint32_t xid, std::uint32_t relay_ip,
                                     std::uint32_t server_ip, std::uint32_t offered)
{
    dhcp_relay_offer_info_t *e = dhcpr_get_relay_offer_info(client, xid, relay_ip, server_ip);
    if (!e) return TAVO_NOT_FOUND;
    e->offer_client_ip = offered;
    DHCP_PKT_DEBUG("[PKT]vlan %d client %s [%x ==> %x] xid[%#x] update offer ip %s", client->vid,
                   mac_s(client->mac).s, ntohl(relay_ip), ntohl(server_ip), xid, ip_s(offered).s);
    return 0;
}

void dhcpr_update_client_offer_info_xid(dhcp_client_info_t *client, std::uint32_t xid)
{
    if (!client || !client->offer_info_list) return;
    for (dhcp_relay_offer_info_t *e : *client->offer_info_list) e->xid = xid;
}

void dhcpr_clear_client_offer_info(dhcp_client_info_t *client)
{
    if (!client || !client->offer_info_list) return;
    for (dhcp_relay_offer_info_t *e : *client->offer_info_list) XFREE(DHCP_OFFER_INFO, e);
    client->offer_info_list->clear();
}

void dhcpr_deinitial_offer_info_list(dhcp_client_info_t *client)
{
    if (!client || !client->offer_info_list) return;
    dhcpr_clear_client_offer_info(client);
    qdelete(MTYPE_LINK_NODE, client->offer_info_list);
    client->offer_info_list = nullptr;
}

std::size_t dhcpr_offer_info_count(const dhcp_client_info_t *client)
{
    return client && client->offer_info_list ? client->offer_info_list->size() : 0;
}

// ------------------------------------------------------------- statistics ----

void dhcp_pkt_statistic_on_relay_server(relay_server_info_t *s, int msg_type, int)
{
    if (!s) return;
    count_relay_record(s->tx_bootp_request, s->rx_bootp_reply, s->tx_discovery, s->tx_request, s->tx_decline,
                       s->tx_inform, s->tx_release, s->rx_offer, s->rx_ack, s->rx_nack, s->others, msg_type);
}

void dhcp_pkt_statistic_on_relay_ip(relay_ip_info_t *r, int msg_type, int)
{
    if (!r) return;
    count_relay_record(r->tx_bootp_request, r->rx_bootp_reply, r->tx_discovery, r->tx_request, r->tx_decline,
                       r->tx_inform, r->tx_release, r->rx_offer, r->rx_ack, r->rx_nack, r->others, msg_type);
}

int dhcpr_relay_server_statistic(dhcpr_t *dhcpr, std::uint32_t server_ip, int msg_type)
{
    relay_server_info_t *s = dhcpr_find_server_info_by_ipv4(dhcpr, server_ip);
    if (!s) {
        zlog_err("[PKT]Can not find server ip %s", ip_s(server_ip).s);
        return TAVO_NOT_FOUND;
    }
    dhcp_pkt_statistic_on_relay_server(s, msg_type, 1);
    return 0;
}

int dhcpr_relay_agent_statistic(dhcpr_t *dhcpr, std::uint32_t agent_ip, int msg_type)
{
    relay_ip_info_t *r = dhcpr_find_relay_ip_info_by_ipv4(dhcpr, agent_ip);
    if (!r) {
        zlog_err("[PKT]Can not find relay ip %s", ip_s(agent_ip).s);
        return TAVO_NOT_FOUND;
    }
    dhcp_pkt_statistic_on_relay_ip(r, msg_type, 1);
    return 0;
}

static void client_statistic(std::uint16_t vlan, const std::uint8_t mac[6], int msg_type, bool server_side, int rx)
{
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(mac, vlan);
    if (!c) {
        DHCP_PKT_DEBUG("[PKT]Can not find vlan %d client %s for type %s", vlan, mac_s(mac).s,
                       dhcp_msg_type_str(msg_type));
        return;
    }
    dhcp_client_pkt_statistic(server_side ? &c->statis_server : &c->statis_client, msg_type, rx);
}

void dhcp_client_satistic_server_rx(std::uint16_t v, const std::uint8_t m[6], int t) { client_statistic(v, m, t, true, 1); }
void dhcp_client_satistic_server_tx(std::uint16_t v, const std::uint8_t m[6], int t) { client_statistic(v, m, t, true, 0); }
void dhcp_client_satistic_client_rx(std::uint16_t v, const std::uint8_t m[6], int t) { client_statistic(v, m, t, false, 1); }
void dhcp_client_satistic_client_tx(std::uint16_t v, const std::uint8_t m[6], int t) { client_statistic(v, m, t, false, 0); }

// -------------------------------------------------------------- forwarding ----

int dhcp_get_packet_type(bytes_view pkt)
{
    if (pkt.empty() || (pkt[DHCP_OFF_OP] != BOOTREQUEST && pkt[DHCP_OFF_OP] != BOOTREPLY)) {
        DHCP_PKT_DEBUG("[PKT]bad op code %d", pkt.empty() ? -1 : pkt[DHCP_OFF_OP]);
        return -1;
    }
    bytes_view v;
    if (!dhcp_option_value(pkt, DHCP_MESSAGE_TYPE, v) || v.empty()) {
        DHCP_PKT_DEBUG("[PKT]Not found message type");
        return -1;
    }
    return v[0];
}

int dhcp_parse_l3_pkt(dhcp_l3_pkt_t *l3, interface *ifp, bytes_view msg)
{
    if (!l3) return TAVO_PARAM;
    std::memset(l3, 0, sizeof *l3);
    l3->rx_interface = ifp;
    l3->vlan_id = if_vid(ifp);
    if (msg.size() < DHCP_FIXED_HDR_LEN) {
        zlog_err("[vid:%4d]%s failed to get dhcp type", l3->vlan_id, ifp ? ifp->name : "");
        return TAVO_ERR;
    }
    l3->dhcp_op_code = msg[DHCP_OFF_OP];
    l3->dhcp_curr_xid = rd32(msg, DHCP_OFF_XID);
    l3->dhcp_curr_ip = rd32(msg, DHCP_OFF_CIADDR);
    l3->dhcp_offer_ip = rd32(msg, DHCP_OFF_YIADDR);
    l3->dhcp_server = rd32(msg, DHCP_OFF_SIADDR);
    l3->dhcp_gateway = rd32(msg, DHCP_OFF_GIADDR);
    std::memcpy(l3->dhcp_client_addr, msg.data() + DHCP_OFF_CHADDR, 6);
    l3->dhcp_msg_len = static_cast<std::uint16_t>(std::min<std::size_t>(msg.size(), 0xffff));
    l3->dhcp_packet = msg.data();
    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) {
        dhcp_dump_packet(l3->vlan_id, msg, static_cast<int>(msg.size()));
        dhcp_dump_option(l3->vlan_id, msg);
    }
    int type = dhcp_get_packet_type(msg);
    if (type < 0) {
        zlog_err("[vid:%4d]%s failed to get dhcp type", l3->vlan_id, ifp ? ifp->name : "");
        return TAVO_ERR;
    }
    l3->dhcp_msg_type = static_cast<std::uint16_t>(type);
    return 0;
}

int dhcpr_sendto_ip4(int sock, bytes_view msg, const sockaddr_in *to)
{
    errno = 0;
    ssize_t n = g_sendto(sock, msg.data(), msg.size(), to);
    if (n < static_cast<ssize_t>(msg.size())) {
        zlog_err("[PKT]send packet on sock %d to %s fail. return code %d reason: %s", sock,
                 ip_s(to->sin_addr.s_addr).s, static_cast<int>(n), std::strerror(errno));
        return static_cast<int>(n - static_cast<ssize_t>(msg.size()));
    }
    return 0;
}

int dhcpr_pass_to_server(bytes_view dhcp_pkt, int server_fd, std::uint32_t client_addr, relay_server_info_t *server)
{
    if (!server) return TAVO_PARAM;
    int type = dhcp_get_packet_type(dhcp_pkt);
    std::uint32_t sip = server->server_ip.u.prefix4.s_addr;
    if (type != DHCPDISCOVER && type != DHCPREQUEST && type != DHCPDECLINE && type != DHCPRELEASE &&
        type != DHCPINFORM) {
        ++server->tx_drop;
        DHCP_PKT_DEBUG("[PKT]Invalid message to server %s[%d]", ip_s(sip).s, type);
        return TAVO_ERR;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(DHCP_SERVER_PORT);
    to.sin_addr.s_addr = sip;
    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) {
        zlog_debug("[PKT]add new xid [%#x]: [server fd:%d] ip %s:%d  pass to server %s",
                   ntohl(rd32(dhcp_pkt, DHCP_OFF_XID)), server_fd, ip_s(client_addr).s, DHCP_CLIENT_PORT, ip_s(sip).s);
        dhcp_dump_packet(0, dhcp_pkt, static_cast<int>(dhcp_pkt.size()));
    }
    return dhcpr_sendto_ip4(server_fd, dhcp_pkt, &to);
}

int dhcpr_send_pkt_upstream(interface *relay_ifp, bytes_span msg, std::uint32_t relay_agent_ip,
                            std::uint32_t relay_server_ip, int dhcp_msg_type)
{
    const char *name = relay_ifp ? relay_ifp->name : "";
    dhcpr_t *d = dhcpr_get_info_by_interface(relay_ifp);
    if (!d) {
        DHCP_PKT_DEBUG("[PKT]=======> failed to get dhcp relay information on if %s.", name);
        return TAVO_ERR;
    }
    relay_server_info_t *server = dhcpr_get_relay_server_by_ip(d, relay_server_ip);
    if (!server) {
        DHCP_PKT_DEBUG("[PKT]=======> failed to get dhcp relay server %s information on if %s.",
                       ip_s(relay_server_ip).s, name);
        return TAVO_ERR;
    }
    if (d->server_fd <= 0) {
        dhcpr_reset_helper(relay_ifp);
        DHCP_PKT_DEBUG("[PKT]Reset dhcpr info new server fd %d", d->server_fd);
        if (d->server_fd <= 0) {
            zlog_err("[PKT]Failed to reset server fd %d", d->server_fd);
            return TAVO_ERR;
        }
    }
    if (msg.size() < DHCP_FIXED_HDR_LEN) return TAVO_ERR;
    // The hop count stays as the client sent it.
    wr32(msg, DHCP_OFF_GIADDR, relay_agent_ip);
    int rc = dhcpr_pass_to_server(bytes_view(msg.data(), msg.size()), d->server_fd, relay_agent_ip, server);
    if (rc == TAVO_ERR) return rc;  // not a message for a server
    dhcp_pkt_statistic_on_relay_server(server, dhcp_msg_type, 0);
    std::uint8_t mac[6];
    std::memcpy(mac, msg.data() + DHCP_OFF_CHADDR, 6);
    std::uint16_t vid = if_vid(relay_ifp);
    dhcp_client_satistic_server_tx(vid, mac, dhcp_msg_type);
    ++d->server_fd_pkts_tx;
    if (relay_ip_info_t *r = dhcpr_find_relay_ip_info_by_ipv4(d, relay_agent_ip)) {
        dhcp_pkt_statistic_on_relay_ip(r, dhcp_msg_type, 0);
        if (dhcp_msg_type == DHCPDISCOVER) {
            r->time_last_discovery = dhcp_client_uptime();
            ++r->cnt_xid_request_new;
        }
    }
    DHCP_PKT_DEBUG("[PKT]=======> send client %s dhcp %s to server %s fd %d count %d relay agent ip %s", mac_s(mac).s,
                   dhcp_msg_type_str(dhcp_msg_type), ip_s(relay_server_ip).s, d->server_fd, d->server_fd_pkts_tx,
                   ip_s(relay_agent_ip).s);
    return 0;
}

int dhcpr_send_l2_pkt_to_client(bytes_view dhcp_pkt, std::uint16_t vlan_id, const std::uint8_t src_mac[6],
                                const std::uint8_t dst_mac[6], std::uint32_t src_ip, std::uint32_t dst_ip)
{
    std::uint8_t frame[DHCP_HAL_FRAME_MAX];
    int len = build_client_frame(frame, sizeof frame, dhcp_pkt, vlan_id, src_mac, dst_mac, src_ip, dst_ip);
    if (len < 0) {
        zlog_err("[vid:%4d]reply of %d bytes does not fit a frame, dropped", vlan_id, static_cast<int>(dhcp_pkt.size()));
        return TAVO_ERR;
    }
    std::uint8_t chaddr[6] = {};
    if (dhcp_pkt.size() >= DHCP_OFF_CHADDR + 6) std::memcpy(chaddr, dhcp_pkt.data() + DHCP_OFF_CHADDR, 6);
    std::uint32_t out = client_out_ifindex(dhcp_lookup_client_lease_info(chaddr, vlan_id));
    return dhcp_send_l2_packet(frame, vlan_id, out, static_cast<std::uint16_t>(len), 0, out_slot(out));
}

int dhcpr_send_l2_nak_pkt_to_client(uif_t *pif, bytes_view dhcp_pkt, std::uint16_t vlan_id,
                                    const std::uint8_t src_mac[6], const std::uint8_t dst_mac[6],
                                    std::uint32_t src_ip, std::uint32_t dst_ip)
{
    std::uint8_t frame[DHCP_HAL_FRAME_MAX];
    int len = build_client_frame(frame, sizeof frame, dhcp_pkt, vlan_id, src_mac, dst_mac, src_ip, dst_ip);
    if (len < 0) return TAVO_ERR;
    std::uint32_t out = pif ? pif->ifindex : DHCP_IFINDEX_ALL;
    return dhcp_send_l2_packet(frame, vlan_id, out, static_cast<std::uint16_t>(len), 0, out_slot(out));
}

int dhcpr_reply_nak_to_client(uif_t *pif, std::uint16_t vlan_id, dhcpr_t *dhcpr, bytes_span dhcp_pkt,
                              std::uint32_t op50_request_ip)
{
    if (!dhcpr) return TAVO_PARAM;
    std::uint32_t dest = op50_request_ip ? op50_request_ip : 0xffffffffu;
    // Built over a copy of the request: a short request has no room for it.
    std::uint8_t nak[DHCP_PACKET_SIZE] = {};
    std::memcpy(nak, dhcp_pkt.data(), std::min<std::size_t>(dhcp_pkt.size(), DHCP_FIXED_HDR_LEN));
    nak[DHCP_OFF_OP] = BOOTREPLY;
    std::memset(nak + DHCP_OFF_SIADDR, 0, 4);
    wire_writer w(bytes_span(nak + DHCP_OFF_OPTIONS, DHCP_OPTIONS_LEN));
    w.u8(DHCP_SERVER_ID);
    w.u8(4);
    w.put(&dhcpr->local_ipaddr, 4);
    w.u8(DHCP_MESSAGE_TYPE);
    w.u8(1);
    w.u8(DHCPNAK);
    w.u8(DHCP_END);
    std::uint8_t chaddr[6];
    std::memcpy(chaddr, nak + DHCP_OFF_CHADDR, 6);
    DHCP_PKT_DEBUG("[PKT]dhcp_pktlen=%d sizeof(struct dhcp_packet)=%d sizeof(dhcp_pkt->options)=%d sizeof(optionptr)=%d",
                   static_cast<int>(dhcp_pkt.size()), DHCP_PACKET_SIZE, DHCP_OPTIONS_LEN, DHCPR_NAK_OPTIONS_LEN);
    DHCP_PKT_DEBUG("[PKT]Prepare packet sending to %s", ip_s(dest).s);
    dhcp_client_satistic_client_tx(vlan_id, chaddr, DHCPNAK);
    int rc = dhcpr_send_l2_nak_pkt_to_client(pif, bytes_view(nak, DHCPR_NAK_LEN), vlan_id, dhcpr->local_mac, chaddr,
                                             dhcpr->local_ipaddr, dest);
    DHCP_PKT_DEBUG("[PKT]========> send %s packet to client %s ip %s", "nack", mac_s(chaddr).s, ip_s(dest).s);
    return rc;
}

int dhcpr_pass_to_client(std::uint16_t vlan_id, dhcpr_t *dhcpr, bytes_span msg)
{
    if (!dhcpr || msg.size() < DHCP_FIXED_HDR_LEN) return TAVO_PARAM;
    bytes_view view(msg.data(), msg.size());
    int type = dhcp_get_packet_type(view);
    std::uint32_t xid = ntohl(rd32(view, DHCP_OFF_XID));
    std::uint32_t yiaddr = rd32(view, DHCP_OFF_YIADDR);
    std::uint8_t chaddr[6];
    std::memcpy(chaddr, msg.data() + DHCP_OFF_CHADDR, 6);
    mac_s mac(chaddr);
    if (type != DHCPOFFER && type != DHCPACK && type != DHCPNAK) {
        dhcp_pkt_statistic_udp_pkt_rx_discard(view);
        DHCP_PKT_DEBUG("[PKT]xid [%#x]: [client:%s] ip %s wrong msg type %s ", xid, mac.s, ip_s(yiaddr).s,
                       dhcp_msg_type_str(type));
        return TAVO_ERR;
    }
    dhcp_client_info_t *client = dhcp_lookup_client_lease_info(chaddr, vlan_id);
    if (!client) {
        DHCP_PKT_DEBUG("[vid:%4d]xid [%#x]: [client:%s] ip %s message %s failed to get client info", vlan_id, xid,
                       mac.s, ip_s(yiaddr).s, dhcp_msg_type_str(type));
        return TAVO_ERR;
    }
    std::uint32_t src = yiaddr ? dhcpr_get_if_same_prefix_ip(dhcpr, yiaddr) : 0;
    if (!src) src = dhcpr->local_ipaddr;
    wr32(msg, DHCP_OFF_SIADDR, src);
    wr32(msg, DHCP_OFF_GIADDR, src);
    std::uint32_t dst;
    const char *label;
    if (yiaddr) {
        dst = yiaddr;
        label = "yiaddr";
    } else if (client->op50_request_ip) {
        dst = client->op50_request_ip;
        label = "option50";
    } else if (client->req_ip_addr) {
        dst = client->req_ip_addr;
        label = "l3";
    } else {
        dst = 0xffffffffu;
        label = "broadcast";
    }
    DHCP_PKT_DEBUG("[vid:%4d]Prepare packet sending to %s ip %s", vlan_id, label, ip_s(dst).s);
    dhcp_client_satistic_client_tx(vlan_id, chaddr, type);
    static const std::uint8_t zero_mac[6] = {};
    const std::uint8_t *dmac = std::memcmp(client->req_mac, zero_mac, 6) ? client->req_mac : client->mac;
    int rc = dhcpr_send_l2_pkt_to_client(view, vlan_id, dhcpr->local_mac, dmac, src, dst);
    DHCP_PKT_DEBUG("[PKT]========> send %s packet to client %s ip %s", dhcp_msg_type_str(type), mac.s, ip_s(dst).s);
    return rc;
}

int dhcpr_proc_discovery_msg(interface *relay_if, dhcp_l2_pkt_t *p)
{
    std::uint16_t vid = p->l2fwd_info.rx_vlanid;
    std::uint32_t xid = p->dhcp_curr_xid;
    mac_s mac(p->dhcp_client_addr);
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(p->dhcp_client_addr, vid);
    if (c) {
        if (c->v4_curr_xid == xid) {
            DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] Update client info %s", vid, ntohl(xid), mac.s);
        } else {
            DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] XID changed update client info %s", vid, ntohl(xid), mac.s);
            dhcpr_clear_client_offer_info(c);
        }
        dhcp_update_client_info_from_request_msg(c, p);
    } else {
        c = dhcp_new_client_lease_info(p->dhcp_client_addr, vid, p->dhcp_msg_type);
        if (!c) {
            DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] Failed to create new client %s", vid, ntohl(xid), mac.s);
            return TAVO_MEMORY;
        }
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] Create new client %s", vid, ntohl(xid), mac.s);
        dhcp_update_client_info_from_request_msg(c, p);
    }
    c->v4_bind_type = DHCP_BIND_TYPE_RELAY;
    c->v4_lease_time = DHCP_CLIENT_LEASE_INIT;
    c->dhcp_v4 = 1;
    c->v4_curr_xid = xid;
    c->v4_last_update_msg = p->dhcp_msg_type;
    c->v4_last_update_time = dhcp_client_uptime();
    dhcp_client_satistic_client_rx(vid, p->dhcp_client_addr, p->dhcp_msg_type);
    return dhcpr_initial_offer_info_list(relay_if, c, xid);
}

int dhcpr_proc_request_msg(uif_t *pif, interface *relay_if, dhcp_l2_pkt_t *p)
{
    std::uint16_t vid = p->l2fwd_info.rx_vlanid;
    std::uint32_t xid = p->dhcp_curr_xid;
    mac_s mac(p->dhcp_client_addr);
    dhcpr_t *d = dhcpr_get_info_by_interface(relay_if);
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(p->dhcp_client_addr, vid);
    if (!c) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]client %s is null. reply nak package.", vid, mac.s);
        dhcpr_reply_nak_to_client(pif, vid, d, l2_msg_span(p), p->op50_request_ip);
        return 0;
    }
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] XID changed update client info %s curr_xid=%X", vid, ntohl(xid), mac.s,
                      ntohl(c->v4_curr_xid));
    if (c->v4_curr_xid == xid) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] Update client info %s", vid, ntohl(xid), mac.s);
    } else {
        c->v4_curr_xid = xid;
        if (c->ciaddr) {
            // A renewing client starts a new exchange with the server it has.
            DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] XID changed update client info %s", vid, ntohl(xid), mac.s);
            dhcpr_update_client_offer_info_xid(c, xid);
        } else {
            DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] XID changed update client info %s. clear offer information "
                              "and send nak package",
                              vid, ntohl(xid), mac.s);
            dhcpr_clear_client_offer_info(c);
            dhcpr_reply_nak_to_client(pif, vid, d, l2_msg_span(p), p->op50_request_ip);
        }
    }
    dhcp_update_client_info_from_request_msg(c, p);
    c->v4_bind_type = DHCP_BIND_TYPE_RELAY;
    c->dhcp_v4 = 1;
    c->v4_last_update_msg = p->dhcp_msg_type;
    c->v4_last_update_time = dhcp_client_uptime();
    dhcp_client_satistic_client_rx(vid, p->dhcp_client_addr, p->dhcp_msg_type);
    DHCPR_EVENT_DEBUG("[EVENT][vid:%4d][xid %#x] [mac %s] request ip", vid, ntohl(xid), mac.s);
    return 0;
}

int dhcp_l3relay_proc_dhcpv4_from_client(uif_t *pif, interface *relay_if, dhcp_l2_pkt_t *p)
{
    std::uint16_t vid = p->l2fwd_info.rx_vlanid;
    int type = p->dhcp_msg_type;
    uvlan_entry_t *vlan = vlan_get_entry(vid);
    if (!vlan) {
        DHCP_PKT_DEBUG("[vid:%4d]vlan %d not existed. Drop the %s packet from port %s ====>", vid, vid,
                       dhcp_msg_type_str(type), pif ? pif->name : "");
        return TAVO_VLAN;
    }
    if (type == DHCPDISCOVER) {
        // Relayed without option-82 processing on purpose.
        dhcpr_proc_discovery_msg(relay_if, p);
    } else if (type == DHCPREQUEST || type == DHCPDECLINE || type == DHCPRELEASE || type == DHCPINFORM) {
        if (dhcp_op82_is_enable() && dhcp_vlan_op82_check(vlan) && dhcp_process_option_82_info(pif, p) != 0) {
            zlog_err("[vid:%4d]====> Option 82 process fail. drop the packet on vlan %d.", vid, vid);
            return TAVO_ERR;
        }
        if (type == DHCPREQUEST) dhcpr_proc_request_msg(pif, relay_if, p);
    }
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(p->dhcp_client_addr, vid);
    if (!c) return 0;
    DHCP_PKT_DEBUG("[vid:%4d]checking vid %d client %s xid %#x", vid, vid, mac_s(p->dhcp_client_addr).s,
                   ntohl(p->dhcp_curr_xid));
    bytes_span msg = l2_msg_span(p);
    if (c->offer_info_list) {
        for (dhcp_relay_offer_info_t *e : *c->offer_info_list) {
            dhcp_assert(e != NULL);
            if (!e) continue;
            DHCP_PKT_DEBUG("[PKT]checking offer_info agent ip %s", ip_s(e->relay_agent_ip).s);
            DHCP_PKT_DEBUG("[PKT]                   server ip %s", ip_s(e->relay_server_ip).s);
            DHCP_PKT_DEBUG("[PKT]                    offer ip %s", ip_s(e->offer_client_ip).s);
            if (e->offer_client_ip) {
                // The server whose offer the client took gets the rest alone.
                dhcpr_send_pkt_upstream(relay_if, msg, e->relay_agent_ip, e->relay_server_ip, type);
                break;
            }
            if (type == DHCPDISCOVER) dhcpr_send_pkt_upstream(relay_if, msg, e->relay_agent_ip, e->relay_server_ip, type);
        }
    }
    if (type == DHCPRELEASE) dhcp_delete_client_by_vlan_mac(vid, p->dhcp_client_addr);
    return 0;
}

int dhcpr_proc_offer_msg(interface *relay_if, dhcp_l2_pkt_t *p)
{
    std::uint16_t vid = dhcp_if_vlan_id(relay_if);
    dhcp_client_info_t *c = dhcp_update_client_lease_info(vid, DHCP_BIND_TYPE_RELAY, p);
    if (!c) {
        DHCP_PKT_DEBUG("[vid:%4d]p_dhcp_client is null", vid);
        return TAVO_ERR;
    }
    dhcpr_t *d = dhcpr_get_info_by_interface(relay_if);
    relay_ip_info_t *r = dhcpr_find_relay_ip_info_by_ipv4(d, p->dhcp_gateway);
    int rc = dhcpr_update_relay_info_offer_ip(c, p->dhcp_curr_xid, p->dhcp_gateway, p->ipv4_src_addr, p->dhcp_offer_ip);
    if (r) {
        r->time_last_offer = dhcp_client_uptime();
        ++(rc == 0 ? r->cnt_xid_offer_match : r->cnt_xid_offer_notmatch);
    }
    DHCP_PKT_DEBUG("[vid:%4d]offer_info_list count is %d ", vid, static_cast<int>(dhcpr_offer_info_count(c)));
    return 0;
}

int dhcpr_proc_ack_msg(interface *relay_if, dhcp_l2_pkt_t *p)
{
    std::uint16_t vid = dhcp_if_vlan_id(relay_if);
    mac_s mac(p->dhcp_client_addr);
    dhcp_client_info_t *c = dhcp_update_client_lease_info(vid, DHCP_BIND_TYPE_RELAY, p);
    if (!c) {
        DHCP_PKT_DEBUG("[PKT]Can not find vlan %d client %s ", vid, mac.s);
        return TAVO_ERR;
    }
    DHCP_PKT_DEBUG("[PKT]vlan %d client %s get ip address %s", vid, mac.s, ip_s(p->dhcp_offer_ip).s);
    dhcp_ipsg_add_dynamic_client_info(vid, p->dhcp_client_addr, p->dhcp_offer_ip);
    return 0;
}

int dhcp_l3relay_proc_dhcpv4_from_server(interface *relay_if, dhcp_l2_pkt_t *p)
{
    std::uint16_t vid = dhcp_if_vlan_id(relay_if);
    int type = p->dhcp_msg_type;
    const char *tname = dhcp_msg_type_str(type);
    mac_s mac(p->dhcp_client_addr);
    if (!vlan_get_entry(vid)) {
        zlog_err("[vid:%4d]=====> failed to find vlan entry %d,drop!", vid, vid);
        return TAVO_ERR;
    }
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(p->dhcp_client_addr, vid);
    if (!c) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]=====> proc msg %s failed to find client info mac %s. drop!", vid, tname,
                          mac.s);
        return TAVO_ERR;
    }
    if (p->dhcp_curr_xid != c->v4_curr_xid) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]=====> proc msg %s client %s xid missmatch require xid [0x%08x] pkt [0x%08x]. "
                          "Drop",
                          vid, tname, mac.s, ntohl(c->v4_curr_xid), ntohl(p->dhcp_curr_xid));
        ++c->statis_server.dhcp_drop_xid_mismatch;
        return TAVO_ERR;
    }
    dhcpr_t *d = dhcpr_get_info_by_interface(relay_if);
    dhcp_client_satistic_server_rx(vid, p->dhcp_client_addr, type);
    dhcpr_relay_agent_statistic(d, p->dhcp_gateway, type);
    dhcpr_relay_server_statistic(d, p->op54_dhcp_server, type);
    int rc = 0;
    if (type == DHCPACK) {
        rc = dhcpr_proc_ack_msg(relay_if, p);
    } else if (type == DHCPOFFER) {
        zlog_err("[EVENT][vid:%4d]=====> proc msg %s   %s. dhcpr_proc_offer_msg!", vid, tname, mac.s);
        rc = dhcpr_proc_offer_msg(relay_if, p);
    }
    if (rc != 0) {
        DHCPR_EVENT_DEBUG("[EVENT][vid:%4d]=====> proc msg %s failed for client  %s. drop!", vid, tname, mac.s);
        return rc;
    }
    return dhcpr_pass_to_client(vid, d, l2_msg_span(p));
}
