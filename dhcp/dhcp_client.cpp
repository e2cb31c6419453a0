#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_l2relay.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <set>
#include <unordered_map>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/mac.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcpv6_msg.h"
#include "lib/log.h"
#include "lib/vty.h"
#include "platform/errcode.h"
#include "platform/product.h"

#define DHCP_EVENT_DEBUG(fmt, ...) DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, fmt, ##__VA_ARGS__)

namespace {

// (VLAN, MAC) packed so that integer order is the table's order: VLAN id
// first, then the MAC bytes as memcmp compares them.
using client_key = std::uint64_t;

std::uint64_t mac48(const std::uint8_t mac[6])
{
    std::uint64_t v = 0;
    for (int i = 0; i < 6; ++i) v = (v << 8) | mac[i];
    return v;
}

client_key make_key(std::uint16_t vid, const std::uint8_t mac[6]) { return (std::uint64_t(vid) << 48) | mac48(mac); }
client_key key_of(const dhcp_client_info_t *c) { return make_key(c->vid, c->mac); }
client_key key_with_vid(std::uint64_t mac, std::uint16_t vid) { return (std::uint64_t(vid) << 48) | mac; }

template <class T> using node_alloc = dhcp_mt_allocator<T, &MTYPE_LINK_NODE>;

// The table proper, in key order; it owns the records.
using tree_t = std::map<client_key, dhcp_client_info_t *, std::less<client_key>,
                        node_alloc<std::pair<const client_key, dhcp_client_info_t *>>>;
// The packet path looks clients up far more often than it walks them: a
// hash of the tree's nodes answers lookups and lets a delete skip the search.
struct hash_entry {
    dhcp_client_info_t *client;  // saves a hop through the tree node on lookups
    tree_t::iterator node;
};
using hash_t = std::unordered_map<client_key, hash_entry, std::hash<client_key>, std::equal_to<client_key>,
                                  node_alloc<std::pair<const client_key, hash_entry>>>;
// MAC -> the VLANs it is known in (deletes and lookups by MAC alone).
using mac_index_t = std::unordered_multimap<std::uint64_t, std::uint16_t, std::hash<std::uint64_t>,
                                            std::equal_to<std::uint64_t>,
                                            node_alloc<std::pair<const std::uint64_t, std::uint16_t>>>;
// Port -> its clients in table order (deletes by port, the port's client list).
using port_clients_t = std::set<client_key, std::less<client_key>, node_alloc<client_key>>;
using port_index_t = std::unordered_map<std::uint32_t, port_clients_t, std::hash<std::uint32_t>,
                                        std::equal_to<std::uint32_t>,
                                        node_alloc<std::pair<const std::uint32_t, port_clients_t>>>;
// Every record once, densely: ageing scans this instead of chasing the
// tree's nodes.
using scan_t = std::vector<dhcp_client_info_t *, node_alloc<dhcp_client_info_t *>>;

tree_t g_tree;
hash_t g_hash;
mac_index_t g_mac_index;
port_index_t g_port_index;
scan_t g_scan;
std::size_t g_tree_capacity;
bool g_tree_created;

// Sessions: insertion order is kept, the index spares the linear search.
using session_list_t = std::list<dhcp_client_info_t *, node_alloc<dhcp_client_info_t *>>;
using session_index_t = std::unordered_map<client_key, session_list_t::iterator, std::hash<client_key>,
                                           std::equal_to<client_key>,
                                           node_alloc<std::pair<const client_key, session_list_t::iterator>>>;
session_list_t *g_dhcp_client_session_list;
session_index_t g_session_index;

std::uint32_t (*g_clock)();

// Formatted on first use: most of the lines it feeds are debug lines that
// are not printed, and the learning path runs for every frame.
struct mac_text {
    const std::uint8_t *mac;
    mutable char buf[16] = "";
    explicit mac_text(const std::uint8_t m[6]) : mac(m) {}
    const char *c_str() const
    {
        if (!buf[0]) tavo_mac2str(mac, buf);
        return buf;
    }
};

struct ip_text {
    char buf[INET_ADDRSTRLEN];
    explicit ip_text(std::uint32_t stored)
    {
        in_addr a{};
        a.s_addr = stored;
        inet_ntop(AF_INET, &a, buf, sizeof buf);
    }
    const char *c_str() const { return buf; }
};

struct ip6_text {
    char buf[INET6_ADDRSTRLEN];
    explicit ip6_text(const std::uint8_t addr[16]) { inet_ntop(AF_INET6, addr, buf, sizeof buf); }
    const char *c_str() const { return buf; }
};

const char *msg_word(std::uint32_t type) { return dhcp_msg_type_str(static_cast<int>(type)); }

bool mac_is_zero(const std::uint8_t *mac)
{
    static const std::uint8_t zero[6] = {};
    return !mac || std::memcmp(mac, zero, 6) == 0;
}

bool ipv6_is_zero(const std::uint8_t *a)
{
    static const std::uint8_t zero[16] = {};
    return !a || std::memcmp(a, zero, 16) == 0;
}

void copy_text(char *dst, std::size_t cap, const char *src)
{
    std::size_t n = strnlen(src, cap - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

dhcp_client_info_t *find(client_key key)
{
    auto it = g_hash.find(key);
    return it == g_hash.end() ? nullptr : it->second.client;
}

void mac_index_erase(std::uint64_t mac, std::uint16_t vid)
{
    auto range = g_mac_index.equal_range(mac);
    for (auto it = range.first; it != range.second; ++it)
        if (it->second == vid) {
            g_mac_index.erase(it);
            return;
        }
}

void port_index_erase(std::uint32_t ifindex, client_key key)
{
    auto it = g_port_index.find(ifindex);
    if (it == g_port_index.end()) return;
    it->second.erase(key);
    if (it->second.empty()) g_port_index.erase(it);
}

// Adds a new record to the table and its indexes; false (nothing changed)
// when the table is full or an index node cannot be allocated.
bool tree_insert(dhcp_client_info_t *c)
{
    if (!g_tree_created || g_tree.size() >= g_tree_capacity) return false;
    client_key key = key_of(c);
    std::uint64_t mac = mac48(c->mac);
    c->idx_ifindex = c->client_ifindex;
    c->idx_slot = static_cast<std::uint32_t>(g_scan.size());
    tree_t::iterator node;
    bool in_tree = false, in_hash = false, in_mac = false, in_port = false;
    try {
        std::tie(node, in_tree) = g_tree.emplace(key, c);
        if (!in_tree) return false;
        in_hash = g_hash.emplace(key, hash_entry{c, node}).second;
        g_mac_index.emplace(mac, c->vid);
        in_mac = true;
        in_port = g_port_index[c->idx_ifindex].insert(key).second;
        g_scan.push_back(c);
        return true;
    } catch (const std::bad_alloc &) {
        if (in_port) port_index_erase(c->idx_ifindex, key);
        if (in_mac) mac_index_erase(mac, c->vid);
        if (in_hash) g_hash.erase(key);
        if (in_tree) g_tree.erase(node);
        return false;
    }
}

void tree_remove(dhcp_client_info_t *c)
{
    client_key key = key_of(c);
    port_index_erase(c->idx_ifindex, key);
    mac_index_erase(mac48(c->mac), c->vid);
    auto h = g_hash.find(key);
    if (h != g_hash.end()) {
        g_tree.erase(h->second.node);
        g_hash.erase(h);
    }
    // The last record takes the freed place in the scan array.
    std::uint32_t slot = c->idx_slot;
    if (slot < g_scan.size() && g_scan[slot] == c) {
        g_scan[slot] = g_scan.back();
        g_scan[slot]->idx_slot = slot;
        g_scan.pop_back();
    }
}

void set_client_ifindex(dhcp_client_info_t *c, std::uint32_t ifindex)
{
    c->client_ifindex = ifindex;
    dhcp_client_info_reindex(c);
}

// The frame's own tags: the service VLAN and then the user VLAN of an ONU
// flow; without a service VLAN the depth stays 0.
void packet_in_tags(const dhcp_l2_pkt_t *p, std::uint32_t &depth, std::uint16_t stack[DHCP_VLAN_STACK_MAX])
{
    depth = 0;
    stack[0] = stack[1] = stack[2] = 0;
    if (p->l2fwd_info.srv_vid) {
        stack[0] = p->l2fwd_info.srv_vid;
        depth = 1;
    }
    if (p->l2fwd_info.usr_vid) {
        stack[1] = p->l2fwd_info.usr_vid;
        if (depth) depth = 2;
    }
}

void set_out_tag(dhcp_client_info_t *c, const dhcp_l2_pkt_t *p)
{
    if (!p->l2fwd_info.rx_vlanid) return;
    c->out_vlan_stack[0] = p->l2fwd_info.rx_vlanid;
    c->out_vlan_stack_depth = 1;
}

std::uint32_t select_lease_time(const dhcp_l2_pkt_t *p) { return dhcp_select_lease_time(dhcp_l2_message(p)); }

bool filter_mac_match(const std::uint8_t *want, const std::uint8_t mac[6])
{
    return mac_is_zero(want) || std::memcmp(want, mac, 6) == 0;
}

void free_offer_list(dhcp_client_info_t *c)
{
    if (!c->offer_info_list) return;
    for (dhcp_relay_offer_info_s *entry : *c->offer_info_list) XFREE(DHCP_OFFER_INFO, entry);
    qdelete(MTYPE_LINK_NODE, c->offer_info_list);
    c->offer_info_list = nullptr;
}

// Keys of the clients a filter may delete, when an index can name a
// superset of them; false when the whole table has to be scanned.
bool filter_candidates(const dhcp_client_filter_t *f, std::vector<client_key> &keys)
{
    if (f->filter_action != DHCP_CLIENT_FILTER_DELETE || f->timestamp || f->type) return false;
    if (f->ifindex) {
        auto it = g_port_index.find(f->ifindex);
        if (it != g_port_index.end()) keys.insert(keys.end(), it->second.begin(), it->second.end());
    }
    if (f->vid) {
        client_key lo = std::uint64_t(f->vid) << 48, hi = (std::uint64_t(f->vid) + 1) << 48;
        for (auto it = g_tree.lower_bound(lo); it != g_tree.end() && it->first < hi; ++it) keys.push_back(it->first);
    } else {
        std::uint64_t mac = mac48(f->mac);
        auto range = g_mac_index.equal_range(mac);
        for (auto it = range.first; it != range.second; ++it) keys.push_back(key_with_vid(mac, it->second));
    }
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return true;
}

} // namespace

const char *dhcp_bind_type_str(std::uint32_t type)
{
    switch (type) {
    case DHCP_BIND_TYPE_SNOOP: return "snoop";
    case DHCP_BIND_TYPE_RELAY: return "relay";
    case DHCP_BIND_TYPE_STATIC: return "static";
    case DHCP_BIND_TYPE_SERVER: return "server";
    default: return "UNKNOWN ERROR";
    }
}

// ------------------------------------------------------------- the table ----

bool dhcp_client_tree_create(std::size_t capacity)
{
    dhcp_client_tree_destroy();
    try {
        g_hash.reserve(capacity);
        g_scan.reserve(capacity);
    } catch (const std::bad_alloc &) {
        return false;
    }
    g_tree_capacity = capacity;
    g_tree_created = true;
    return true;
}

void dhcp_client_tree_destroy()
{
    if (g_dhcp_client_session_list) {
        for (dhcp_client_info_t *s : *g_dhcp_client_session_list) XFREE(DHCP_CLIENT, s);
        qdelete(MTYPE_LINK_NODE, g_dhcp_client_session_list);
        g_dhcp_client_session_list = nullptr;
    }
    g_session_index = session_index_t();
    for (auto &kv : g_tree) {
        dhcp_client_info_t *c = kv.second;
        free_offer_list(c);
        XFREE(DHCP_CLIENT, c);
    }
    g_tree = tree_t();
    g_hash = hash_t();
    g_mac_index = mac_index_t();
    g_port_index = port_index_t();
    g_scan = scan_t();
    g_tree_created = false;
    g_tree_capacity = 0;
}

std::uint32_t dhcp_client_uptime() { return g_clock ? g_clock() : st_product_get_system_uptime() / 100; }

void dhcp_client_set_clock(std::uint32_t (*uptime_seconds)()) { g_clock = uptime_seconds; }

int dhcp_client_info_cmp(const dhcp_client_info_t *a, const dhcp_client_info_t *b)
{
    if (a->vid != b->vid) return a->vid < b->vid ? -1 : 1;
    return std::memcmp(a->mac, b->mac, 6);
}

void dhcp_client_info_init(dhcp_client_info_t *client, const std::uint8_t mac[6], std::uint16_t vlan_id)
{
    std::memcpy(client->mac, mac, 6);
    client->vid = vlan_id;
}

dhcp_client_info_t *dhcp_lookup_client_lease_info(const std::uint8_t mac[6], std::uint16_t vid)
{
    if (!mac) return nullptr;
    return find(make_key(vid, mac));
}

std::uint32_t dhcp_snooping_get_client_count() { return static_cast<std::uint32_t>(g_tree.size()); }

dhcp_client_info_t *dhcp_client_info_top() { return g_tree.empty() ? nullptr : g_tree.begin()->second; }

dhcp_client_info_t *dhcp_client_info_next(const dhcp_client_info_t *client)
{
    if (!client) return nullptr;
    auto it = g_tree.upper_bound(key_of(client));
    return it == g_tree.end() ? nullptr : it->second;
}

void dhcp_client_info_reindex(dhcp_client_info_t *client)
{
    if (!client || client->idx_ifindex == client->client_ifindex) return;
    client_key key = key_of(client);
    if (find(key) != client) {
        client->idx_ifindex = client->client_ifindex;  // not in the table (a session copy)
        return;
    }
    try {
        g_port_index[client->client_ifindex].insert(key);
    } catch (const std::bad_alloc &) {
        return;  // still found under its old port; retried at the next change
    }
    port_index_erase(client->idx_ifindex, key);
    client->idx_ifindex = client->client_ifindex;
}

std::uint32_t dhcp_snooping_get_client_ifindex(const std::uint8_t mac[6], std::uint16_t vid)
{
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(mac, vid);
    if (!c) {
        if (mac) zlog_info("[EVENT]Can not find dhcp snooping client %s vlan %d", mac_text(mac).c_str(), vid);
        return 0;
    }
    return c->client_ifindex;
}

uif_t *dhcp_snooping_get_client_interface_by_vlan_mac(const std::uint8_t mac[6], std::uint16_t vid)
{
    dhcp_client_info_t *c = dhcp_lookup_client_lease_info(mac, vid);
    if (!c) {
        if (mac) zlog_info("[EVENT]Can not find dhcp snooping client %s vlan %d", mac_text(mac).c_str(), vid);
        return nullptr;
    }
    return uif_lookup_by_index(c->client_ifindex);
}

int dhcp_get_client_vlaninfo_by_mac_addr(const std::uint8_t mac[6], char *buf, std::size_t len)
{
    if (buf && len) buf[0] = '\0';
    if (!mac || !buf || !len) return TAVO_PARAM;
    // The first of that MAC in table order: the lowest VLAN.
    auto range = g_mac_index.equal_range(mac48(mac));
    if (range.first == range.second) return TAVO_NOT_FOUND;
    std::uint16_t vid = range.first->second;
    for (auto it = range.first; it != range.second; ++it) vid = std::min(vid, it->second);
    dhcp_client_info_t *c = find(make_key(vid, mac));
    if (!c) return TAVO_NOT_FOUND;
    if (c->in_vlan_stack_depth >= 2)
        std::snprintf(buf, len, ":%d.%d", c->in_vlan_stack[0], c->in_vlan_stack[1]);
    else if (c->in_vlan_stack_depth == 1)
        std::snprintf(buf, len, ":%d", c->in_vlan_stack[0]);
    return 0;
}

dhcp_client_info_t *dhcp_port_client_first(const dhcp_client_list_t *list)
{
    if (!list) return nullptr;
    auto it = g_port_index.find(list->ifindex);
    if (it == g_port_index.end() || it->second.empty()) return nullptr;
    return find(*it->second.begin());
}

dhcp_client_info_t *dhcp_port_client_next(const dhcp_client_list_t *list, const dhcp_client_info_t *client)
{
    if (!list || !client) return nullptr;
    auto it = g_port_index.find(list->ifindex);
    if (it == g_port_index.end()) return nullptr;
    auto next = it->second.upper_bound(key_of(client));
    return next == it->second.end() ? nullptr : find(*next);
}

std::size_t dhcp_port_client_count(const dhcp_client_list_t *list)
{
    if (!list) return 0;
    auto it = g_port_index.find(list->ifindex);
    return it == g_port_index.end() ? 0 : it->second.size();
}

// ------------------------------------------------------------- sessions ----

dhcp_client_info_t *dhcp_session_client_lookup(std::uint16_t vlan_id, const std::uint8_t mac[6])
{
    if (!g_dhcp_client_session_list || !mac) return nullptr;
    auto it = g_session_index.find(make_key(vlan_id, mac));
    return it == g_session_index.end() ? nullptr : *it->second;
}

dhcp_client_info_t *dhcp_session_list_reserve_client_info(const dhcp_client_info_t *client)
{
    if (!client) return nullptr;
    if (!g_dhcp_client_session_list) {
        g_dhcp_client_session_list = qnew<session_list_t>(MTYPE_LINK_NODE);
        if (!g_dhcp_client_session_list) return nullptr;
    }
    if (dhcp_client_info_t *s = dhcp_session_client_lookup(client->vid, client->mac)) return s;

    session_list_t &list = *g_dhcp_client_session_list;
    if (list.size() >= g_dhcp_max_session) {
        DHCP_EVENT_DEBUG("[EVENT]last %s Failed to reserve session for vlan %d client %s. max-session %d",
                         msg_word(client->v4_last_update_msg), client->vid, mac_text(client->mac).c_str(),
                         g_dhcp_max_session);
        return nullptr;
    }
    auto *copy = static_cast<dhcp_client_info_t *>(XCALLOC(DHCP_CLIENT, sizeof(dhcp_client_info_t)));
    if (!copy) return nullptr;
    *copy = *client;
    copy->offer_info_list = nullptr;  // the relay's list stays with the table's record
    try {
        auto pos = list.insert(list.end(), copy);
        try {
            g_session_index.emplace(key_of(copy), pos);
        } catch (const std::bad_alloc &) {
            list.erase(pos);
            throw;
        }
    } catch (const std::bad_alloc &) {
        XFREE(DHCP_CLIENT, copy);
        return nullptr;
    }
    DHCP_EVENT_DEBUG("[EVENT]last %s reserve session for vland %d client %s list_count [%d].",
                     msg_word(client->v4_last_update_msg), client->vid, mac_text(client->mac).c_str(),
                     static_cast<int>(list.size()));
    return copy;
}

void dhcp_session_list_free_client_info(const dhcp_client_info_t *client)
{
    if (!client || !g_dhcp_client_session_list) return;
    auto it = g_session_index.find(key_of(client));
    if (it == g_session_index.end()) return;
    dhcp_client_info_t *s = *it->second;
    g_dhcp_client_session_list->erase(it->second);
    g_session_index.erase(it);
    XFREE(DHCP_CLIENT, s);
    DHCP_EVENT_DEBUG("[EVENT]last %s free session for vland %d client %s list_count [%d].",
                     msg_word(client->v4_last_update_msg), client->vid, mac_text(client->mac).c_str(),
                     static_cast<int>(g_dhcp_client_session_list->size()));
}

std::uint32_t dhcp_session_list_count()
{
    return g_dhcp_client_session_list ? static_cast<std::uint32_t>(g_dhcp_client_session_list->size()) : 0;
}

// ------------------------------------------------ learning from messages ----

dhcp_client_info_t *dhcp_new_client_lease_info(const std::uint8_t mac[6], std::uint16_t vlan_id,
                                               std::uint32_t msg_type)
{
    auto *c = static_cast<dhcp_client_info_t *>(XCALLOC(DHCP_CLIENT, sizeof(dhcp_client_info_t)));
    if (c) {
        dhcp_client_info_init(c, mac, vlan_id);
        c->v4_lease_time = DHCP_CLIENT_LEASE_INIT;
        c->v4_create_time = dhcp_client_uptime();
        c->v4_create_msg_type = msg_type;
        c->offer_info_list = qnew<dhcp_offer_info_list_t>(MTYPE_LINK_NODE);
        if (c->offer_info_list && tree_insert(c)) return c;
        free_offer_list(c);
        XFREE(DHCP_CLIENT, c);
    }
    zlog_err("[vid:%4d]Can not allocate memory %s", vlan_id, mac_text(mac).c_str());
    return nullptr;
}

void dhcp_update_client_info_from_request_msg(dhcp_client_info_t *client, const dhcp_l2_pkt_t *l2pkt)
{
    if (!client || !l2pkt) return;
    const l2_fwd_info_t &f = l2pkt->l2fwd_info;
    set_client_ifindex(client, f.rx_ifindex);
    client->client_sport_ifindex = f.rx_sport_ifindex;
    packet_in_tags(l2pkt, client->in_vlan_stack_depth, client->in_vlan_stack);
    set_out_tag(client, l2pkt);
    if (l2pkt->ipv4_src_addr) client->req_ip_addr = l2pkt->ipv4_src_addr;
    std::memcpy(client->req_mac, l2pkt->eth_src_mac, 6);
    client->ciaddr = l2pkt->dhcp_curr_ip;
    copy_text(client->op12_host_name, sizeof client->op12_host_name, l2pkt->op12_host_name);
    client->op50_request_ip = l2pkt->op50_request_ip;
    copy_text(client->op60_vendor_id, sizeof client->op60_vendor_id, l2pkt->op60_vendor_id);
    std::memcpy(client->op61_client_id, l2pkt->op61_client_id, 6);
}

void dhcp_update_client_info_from_reply_msg(dhcp_client_info_t *client, const dhcp_l2_pkt_t *l2pkt)
{
    if (!client || !l2pkt) return;
    client->server_ifindex = l2pkt->l2fwd_info.rx_ifindex;
    client->server_trunk_id = l2pkt->l2fwd_info.rx_trunkid;
    client->yiaddr = l2pkt->dhcp_offer_ip;
    client->siaddr_nip = l2pkt->dhcp_server;
    client->gateway_nip = l2pkt->dhcp_gateway;
    client->ip_addr = l2pkt->dhcp_offer_ip;
    // The frame's source, not option 54: the server as the client's network sees it.
    client->ip_server_addr = l2pkt->ipv4_src_addr;
    client->op1_subnet_mask = l2pkt->op1_subnet_mask;
    client->op3_route_ip = l2pkt->op3_route_ip;
    client->op51_lease_time = l2pkt->op51_lease_time;
    client->op54_dhcp_server = l2pkt->op54_dhcp_server;
    client->op58_renewal_time = l2pkt->op58_renewal_time;
    client->op59_rebind_time = l2pkt->op59_rebind_time;
    client->v4_lease_time = l2pkt->op51_lease_time;
}

void dhcp_client_update_relasetime(dhcp_client_info_t *client, std::uint32_t lease_time)
{
    if (client) client->v4_lease_time = lease_time;
}

dhcp_client_info_t *dhcp_add_client_lease_info(std::uint32_t client_type, const dhcp_l2_pkt_t *l2pkt)
{
    if (!l2pkt) return nullptr;
    const l2_fwd_info_t &f = l2pkt->l2fwd_info;
    bool request = l2pkt->dhcp_op_code == BOOTREQUEST;
    std::uint16_t vid = request ? f.rx_vlanid : f.relay_vid;
    const std::uint8_t *mac = l2pkt->dhcp_client_addr;
    std::uint32_t msg = l2pkt->dhcp_msg_type;
    std::uint32_t xid = l2pkt->dhcp_curr_xid;
    std::uint32_t now = dhcp_client_uptime();
    mac_text mtext(mac);

    dhcp_client_info_t *client = dhcp_lookup_client_lease_info(mac, vid);
    if (!client) {
        dhcp_client_info_t key{};
        dhcp_client_info_init(&key, mac, vid);
        key.v4_last_update_msg = msg;
        if (!dhcp_session_list_reserve_client_info(&key)) return nullptr;
        client = dhcp_new_client_lease_info(mac, vid, msg);
        if (!client) {
            // Nothing was created: the session must not outlive it.
            dhcp_session_list_free_client_info(&key);
            return nullptr;
        }
        if (request)
            dhcp_update_client_info_from_request_msg(client, l2pkt);
        else
            dhcp_update_client_info_from_reply_msg(client, l2pkt);
        client->dhcp_v4 = 1;
        client->v4_bind_type = client_type;
        client->v4_curr_xid = xid;
        client->v4_last_update_msg = msg;
        client->v4_last_update_time = now;
        DHCP_EVENT_DEBUG("[EVENT][vid:%4d]create client [%p][%s] by %s", vid, static_cast<void *>(client),
                         mtext.c_str(), msg_word(msg));
        return client;
    }

    if (msg == DHCPDISCOVER) client->v4_lease_time = DHCP_CLIENT_LEASE_INIT;
    if (xid == client->v4_curr_xid) {
        client->v4_last_update_msg = msg;
        client->v4_last_update_time = now;
        DHCP_EVENT_DEBUG("[EVENT][vid:%4d]update client [%d][%s] by %s", vid, vid, mtext.c_str(), msg_word(msg));
        std::uint32_t depth;
        std::uint16_t tags[DHCP_VLAN_STACK_MAX];
        packet_in_tags(l2pkt, depth, tags);
        DHCP_EVENT_DEBUG("[EVENT][vid:%4d]incoming vlaninfo %d:[%d][%d]", vid, depth, tags[0], tags[1]);
        if (depth != client->in_vlan_stack_depth || tags[0] != client->in_vlan_stack[0] ||
            tags[1] != client->in_vlan_stack[1]) {
            zlog_info("[EVENT][vid:%4d]update client [%d][%s] vlan %d:[%d][%d] ==> %d:[%d][%d] by %s", vid, vid,
                      mtext.c_str(), client->in_vlan_stack_depth, client->in_vlan_stack[0], client->in_vlan_stack[1],
                      depth, tags[0], tags[1], msg_word(msg));
            client->in_vlan_stack_depth = depth;
            std::memcpy(client->in_vlan_stack, tags, sizeof tags);
        }
        set_out_tag(client, l2pkt);
    } else {
        // A new exchange: what the old one assigned no longer holds.
        zlog_info("[EVENT][vid:%4d]reset client [%d][%s] curr 0x%08x to xid 0x%08x", vid, vid, mtext.c_str(),
                  ntohl(client->v4_curr_xid), ntohl(xid));
        client->ip_addr = 0;
        client->ip_server_addr = 0;
        client->v4_curr_xid = xid;
        client->v4_last_update_msg = msg;
        client->v4_last_update_time = now;
        DHCP_EVENT_DEBUG("[EVENT][vid:%4d]clean-update [%p][%s]", vid, static_cast<void *>(client), mtext.c_str());
    }

    // A client without an address is in an exchange, and every exchange
    // holds a session.
    if (client->ip_addr == 0 && !dhcp_session_list_reserve_client_info(client)) {
        DHCP_EVENT_DEBUG("[EVENT][vid:%4d]Failed to allocate session resource for %s", vid, mtext.c_str());
        return nullptr;
    }
    DHCP_EVENT_DEBUG("[EVENT][vid:%4d]update [%p][%s]", vid, static_cast<void *>(client), mtext.c_str());
    return client;
}

dhcp_client_info_t *dhcp_update_client_lease_info(std::uint16_t vid, std::uint32_t client_type,
                                                  const dhcp_l2_pkt_t *l2pkt)
{
    if (!l2pkt) return nullptr;
    std::uint32_t lease = select_lease_time(l2pkt);
    std::uint32_t msg = l2pkt->dhcp_msg_type;
    const std::uint8_t *mac = l2pkt->dhcp_client_addr;
    dhcp_client_info_t *client = dhcp_lookup_client_lease_info(mac, vid);
    if (!client) {
        zlog_info("[EVENT][vid:%4d]proc %s failed to find %s client %s vlanid %d", vid, msg_word(msg),
                  dhcp_bind_type_str(client_type), mac_text(mac).c_str(), vid);
        return nullptr;
    }
    client->v4_bind_type = client_type;
    client->v4_curr_xid = l2pkt->dhcp_curr_xid;
    if (l2pkt->dhcp_op_code == BOOTREPLY && msg == DHCPACK) {
        dhcp_update_client_info_from_reply_msg(client, l2pkt);
        dhcp_client_update_relasetime(client, lease);
        dhcp_session_list_free_client_info(client);
        DHCP_EVENT_DEBUG("[vid:%4d]ACK packet update client vlan %d mac %s info", vid, vid, mac_text(mac).c_str());
    } else if (l2pkt->dhcp_op_code == BOOTREQUEST &&
               (msg == DHCPDISCOVER || msg == DHCPREQUEST || msg == DHCPINFORM)) {
        dhcp_update_client_info_from_request_msg(client, l2pkt);
        DHCP_EVENT_DEBUG("[vid:%4d]request update client info by %s", vid, msg_word(msg));
    }
    client->v4_last_update_msg = msg;
    client->v4_last_update_time = dhcp_client_uptime();
    DHCP_EVENT_DEBUG("[EVENT][vid:%4d]update [%p][%s]  by message %s", vid, static_cast<void *>(client),
                     mac_text(mac).c_str(), msg_word(msg));
    return client;
}

dhcp_client_info_t *dhcp_add_ipv6_client_lease_info(std::uint32_t client_type, std::uint32_t leasetime,
                                                    const dhcp_l2_pkt_t *l2pkt)
{
    if (!l2pkt) return nullptr;
    std::uint16_t vid = l2pkt->l2fwd_info.rx_vlanid;
    const std::uint8_t *mac = l2pkt->dhcp_client_addr;
    dhcp_client_info_t *client = dhcp_lookup_client_lease_info(mac, vid);
    if (!client) {
        // A new DHCPv6 client is an exchange like a new DHCPv4 one: it is
        // bounded by the same sessions.
        dhcp_client_info_t key{};
        dhcp_client_info_init(&key, mac, vid);
        if (!dhcp_session_list_reserve_client_info(&key)) return nullptr;
        client = dhcp_new_client_lease_info(mac, vid, 0);
        if (!client) {
            dhcp_session_list_free_client_info(&key);
            return nullptr;
        }
        client->v6_create_time = dhcp_client_uptime();
        client->v6_create_msg_type = l2pkt->dhcp_msg_type;
        DHCP_EVENT_DEBUG("[EVENT][vid:%4d]create ipv6 client [%p][%s] by %s", vid, static_cast<void *>(client),
                         mac_text(mac).c_str(), dhcpv6_msg_type_str(l2pkt->dhcp_msg_type));
    }
    dhcp_update_ipv6_client_lease_info_from_request(client, client_type, leasetime, l2pkt);
    return client;
}

dhcp_client_info_t *dhcp_update_ipv6_client_lease_info(std::uint32_t client_type, const std::uint8_t mac[6],
                                                       std::uint16_t vid, const std::uint8_t *ipv6addr,
                                                       std::uint32_t leasetime)
{
    dhcp_client_info_t *client = dhcp_lookup_client_lease_info(mac, vid);
    if (!client) {
        if (mac) DHCP_EVENT_DEBUG("[EVENT][vid:%4d]failed to find ipv6 client %s", vid, mac_text(mac).c_str());
        return nullptr;
    }
    client->dhcp_v6 = 1;
    client->v6_bind_type = client_type;
    client->v6_lease_time = leasetime;
    client->valid_time = leasetime;
    client->v6_last_update_time = dhcp_client_uptime();
    if (!ipv6_is_zero(ipv6addr)) {
        std::memcpy(client->ipv6_addr, ipv6addr, 16);
        std::memcpy(client->ia_address, ipv6addr, 16);
        // Bound: the exchange is over.
        dhcp_session_list_free_client_info(client);
    }
    DHCP_EVENT_DEBUG("[EVENT][vid:%4d]update ipv6 client [%p][%s] lease %u", vid, static_cast<void *>(client),
                     mac_text(mac).c_str(), leasetime);
    return client;
}

void dhcp_update_ipv6_client_lease_info_from_request(dhcp_client_info_t *client, std::uint32_t client_type,
                                                     std::uint32_t leasetime, const dhcp_l2_pkt_t *l2pkt)
{
    if (!client || !l2pkt) return;
    enum { DHCPV6_HDR_LEN = 4, DHCPV6_OPT_HDR_LEN = 4, DHCPV6_OPTION_CLIENTID = 1, DHCPV6_RELAY_FORW = 12 };
    const l2_fwd_info_t &f = l2pkt->l2fwd_info;
    set_client_ifindex(client, f.rx_ifindex);
    client->client_sport_ifindex = f.rx_sport_ifindex;
    packet_in_tags(l2pkt, client->in_vlan_stack_depth, client->in_vlan_stack);
    set_out_tag(client, l2pkt);
    std::memcpy(client->req_mac, l2pkt->eth_src_mac, 6);
    std::memcpy(client->req_ipv6_addr, l2pkt->ipv6_src_addr, 16);
    client->dhcp_v6 = 1;
    client->v6_bind_type = client_type;
    client->v6_lease_time = leasetime;
    client->v6_last_update_msg = l2pkt->dhcp_msg_type;
    client->v6_last_update_time = dhcp_client_uptime();

    bytes_view msg = dhcp_l2_message(l2pkt);
    std::uint8_t type = 0;
    if (!u8_at(msg, 0, type) || type == DHCPV6_RELAY_FORW) return;
    wire_reader r(msg, 1);
    std::uint8_t xid[3];
    if (r.copy(xid, sizeof xid)) client->v6_trans_id = (std::uint32_t(xid[0]) << 16) | (xid[1] << 8) | xid[2];
    // The client identifier shown is the link-layer part of its DUID, which
    // ends every DUID-LL and DUID-LLT.
    std::uint16_t code = 0, len = 0;
    while (r.be16(code) && r.be16(len)) {
        bytes_view value;
        if (!r.take(len, value)) break;
        if (code != DHCPV6_OPTION_CLIENTID) continue;
        std::size_t n = std::min<std::size_t>(value.size(), 6);
        std::memset(client->client_identifier, 0, 6);
        std::memcpy(client->client_identifier + (6 - n), value.data() + value.size() - n, n);
        break;
    }
}

// --------------------------------------------------------------- deletes ----

void dhcp_client_info_delete(dhcp_client_info_t *client)
{
    if (!client) return;
    DHCP_EVENT_DEBUG("[EVENT]Delete client [%p][%s]", static_cast<void *>(client), mac_text(client->mac).c_str());
    // A client with an address holds no session; should one be left over
    // anyway, it goes with its client so that no session outlives the table.
    dhcp_session_list_free_client_info(client);
    // The client's source-guard rule goes with it (aged, released or deleted
    // in bulk); the deletes that withdraw it first leave nothing to find.
    if (dhcp_ipSource_client_lookup(client->mac, client->vid)) dhcp_ipSource_delete_client(client->mac, client->vid);
    free_offer_list(client);
    tree_remove(client);
    XFREE(DHCP_CLIENT, client);
}

int dhcp_delete_client_by_vlan_mac(std::uint16_t vlan, const std::uint8_t mac[6])
{
    if (!mac) return TAVO_PARAM;
    mac_text mtext(mac);
    mtext.c_str();  // now: `mac` may live in a record deleted below
    DHCP_EVENT_DEBUG("[vid:%4d]dhcp snooping delete lease [%d][%s]", vlan, vlan, mtext.c_str());
    DHCP_EVENT_DEBUG("[vid:%4d]ip sourece guard delete lease [%d][%s]", vlan, vlan, mtext.c_str());
    dhcp_ipSource_delete_client(mac, vlan);
    dhcp_client_info_t *client = dhcp_lookup_client_lease_info(mac, vlan);
    if (!client) return TAVO_NOT_FOUND;
    DHCP_EVENT_DEBUG("[EVENT][vid:%4d]delete client [%d][%s]", vlan, vlan, mtext.c_str());
    dhcp_client_info_delete(client);
    return 0;
}

int dhcp_snooping_delete_client_info_by_vlan_mac(const std::uint8_t mac[6], std::uint16_t vid)
{
    dhcp_client_info_t *client = dhcp_lookup_client_lease_info(mac, vid);
    if (!client) {
        if (mac) zlog_info("[EVENT]Can not find dhcp snooping client %s vlan %d", mac_text(mac).c_str(), vid);
        return TAVO_NOT_FOUND;
    }
    dhcp_client_info_delete(client);
    return 0;
}

namespace {

enum filter_hit { HIT_NONE, HIT_ALL, HIT_AGED, HIT_TYPE, HIT_PORT, HIT_VLAN, HIT_MAC };

// The per-client rule of a filter, in its fixed order.
filter_hit filter_rule(const dhcp_client_info_t *c, const dhcp_client_filter_t *f)
{
    if (f->filter_action == DHCP_CLIENT_FILTER_DELETE_ALL) return HIT_ALL;
    if (f->filter_action != DHCP_CLIENT_FILTER_DELETE) return HIT_NONE;
    if (f->timestamp) {
        // Unsigned differences: a client is old when both its v4 and v6
        // leases have run out since their last update.
        std::uint32_t age4 = f->timestamp - c->v4_last_update_time;
        std::uint32_t age6 = f->timestamp - c->v6_last_update_time;
        if (age4 >= c->v4_lease_time && age6 >= c->v6_lease_time) return HIT_AGED;
    }
    if (f->type && f->type == c->v4_bind_type) return HIT_TYPE;
    if (f->ifindex && f->ifindex == c->client_ifindex) return HIT_PORT;
    // The MAC is not compared once a VLAN is given.
    if (f->vid) return f->vid == c->vid ? HIT_VLAN : HIT_NONE;
    return std::memcmp(f->mac, c->mac, 6) == 0 ? HIT_MAC : HIT_NONE;
}

bool filter_hits(const dhcp_client_info_t *c, const dhcp_client_filter_t *f) { return filter_rule(c, f) != HIT_NONE; }

} // namespace

int dhcp_snooping_delete_client_by_filter(dhcp_client_info_t *client, dhcp_client_filter_t *filter)
{
    if (!client) {
        zlog_info("[EVENT]end of traverse client tree, remained client count %d", dhcp_snooping_get_client_count());
        if (filter)
            DHCP_EVENT_DEBUG("[EVENT]filter action %u timestamp %u mac %s vid %d ifindex %#x type %u",
                             filter->filter_action, filter->timestamp, mac_text(filter->mac).c_str(), filter->vid,
                             filter->ifindex, filter->type);
        return 0;
    }
    if (!filter) {
        zlog_info("[EVENT]filer not indicated");
        return -1;
    }
    switch (filter_rule(client, filter)) {
    case HIT_NONE: return 0;
    case HIT_ALL:
        DHCP_EVENT_DEBUG("[EVENT]Delete client all [%p][%s]", static_cast<void *>(client),
                         mac_text(client->mac).c_str());
        break;
    case HIT_AGED:
        DHCP_EVENT_DEBUG("[EVENT]Aging client %s by timestamp hit v4 lease %d[%d],v4 update %d, v6 lease %d,v6 "
                         "update %d current %d",
                         mac_text(client->mac).c_str(), client->v4_lease_time,
                         filter->timestamp - client->v4_last_update_time, client->v4_last_update_time,
                         client->v6_lease_time, client->v6_last_update_time, filter->timestamp);
        break;
    case HIT_TYPE: DHCP_EVENT_DEBUG("[EVENT]Delete client by bind_type hit"); break;
    case HIT_PORT: DHCP_EVENT_DEBUG("[EVENT]Delete client by port hit"); break;
    case HIT_VLAN: DHCP_EVENT_DEBUG("[EVENT]Delete client by vlan mac hit"); break;
    case HIT_MAC: DHCP_EVENT_DEBUG("[EVENT]Delete client by mac hit"); break;
    }
    dhcp_client_info_delete(client);
    return 1;
}

int dhcp_snooping_travers_client_by_filter(dhcp_client_filter_t *filter)
{
    if (!filter) {
        zlog_info("[EVENT]filer not indicated");
        return -1;
    }
    int deleted = 0;
    std::vector<client_key> keys;
    if (filter->filter_action == DHCP_CLIENT_FILTER_DELETE_ALL) {
        // The next node is taken before the current one goes.
        for (auto it = g_tree.begin(); it != g_tree.end();) {
            dhcp_client_info_t *c = it->second;
            ++it;
            deleted += dhcp_snooping_delete_client_by_filter(c, filter) > 0;
        }
    } else if (filter->filter_action == DHCP_CLIENT_FILTER_DELETE) {
        // The clients the rule hits are found first (through an index, or by
        // a scan of the dense array) and then deleted in table order, which
        // is what a walk of the tree testing each client would do.
        if (!filter_candidates(filter, keys)) {
            std::size_t n = g_scan.size();
            for (std::size_t i = 0; i < n; ++i) {
                if (i + 8 < n) __builtin_prefetch(&g_scan[i + 8]->v4_lease_time);
                if (filter_hits(g_scan[i], filter)) keys.push_back(key_of(g_scan[i]));
            }
            std::sort(keys.begin(), keys.end());
        }
        for (client_key key : keys)
            if (dhcp_client_info_t *c = find(key)) deleted += dhcp_snooping_delete_client_by_filter(c, filter) > 0;
    }
    dhcp_snooping_delete_client_by_filter(nullptr, filter);
    return deleted;
}

int dhcp_snooping_delete_client_info_by_mac(const std::uint8_t mac[6])
{
    if (!mac) return TAVO_PARAM;
    mac_text mtext(mac);
    zlog_info("[EVENT]Deleting client by mac %s current total %d", mtext.c_str(), dhcp_snooping_get_client_count());
    dhcp_client_filter_t filter{};
    filter.filter_action = DHCP_CLIENT_FILTER_DELETE;
    std::memcpy(filter.mac, mac, 6);
    dhcp_snooping_travers_client_by_filter(&filter);
    dhcp_ipSource_delete_client_by_mac(mac);
    zlog_info("[EVENT]Deleting client by mac %s done. remains %d", mtext.c_str(), dhcp_snooping_get_client_count());
    return 0;
}

int dhcp_snooping_delete_client_info_by_vlan(std::uint16_t vid)
{
    std::uint32_t count = dhcp_snooping_get_client_count();
    if (!count) {
        zlog_info("[EVENT]Delete client info by valn: %d no client", vid);
        return 0;
    }
    zlog_info("[EVENT]Delele client by vlan: %d current client %d", vid, count);
    dhcp_client_filter_t filter{};
    filter.filter_action = DHCP_CLIENT_FILTER_DELETE;
    filter.vid = vid;
    dhcp_snooping_travers_client_by_filter(&filter);
    zlog_info("[EVENT]Delete client by vlan: %d remains client %d", vid, dhcp_snooping_get_client_count());
    return 0;
}

int dhcp_snooping_delete_client_info_by_type(std::uint32_t bind_type)
{
    std::uint32_t count = dhcp_snooping_get_client_count();
    if (!count) {
        zlog_info("[EVENT]Delete client info by bind_type: %d no client", bind_type);
        return 0;
    }
    zlog_info("[EVENT]Delete client info by bind_type: %d current client %d", bind_type, count);
    dhcp_client_filter_t filter{};
    filter.filter_action = DHCP_CLIENT_FILTER_DELETE;
    filter.type = bind_type;
    dhcp_snooping_travers_client_by_filter(&filter);
    zlog_info("[EVENT]Delete client info by bind_type: %d remains client %d", bind_type,
              dhcp_snooping_get_client_count());
    return 0;
}

int dhcp_snooping_delete_client_info_by_port(std::uint32_t ifindex)
{
    const char *name = st_ifname(ifindex);
    std::uint32_t count = dhcp_snooping_get_client_count();
    if (!count) {
        zlog_info("[EVENT]Delete client info by port %s no clients", name);
        return 0;
    }
    zlog_info("[EVENT]Delete client info by port %s  current client %d ", name, count);
    dhcp_client_filter_t filter{};
    filter.filter_action = DHCP_CLIENT_FILTER_DELETE;
    filter.ifindex = ifindex;
    dhcp_snooping_travers_client_by_filter(&filter);
    zlog_info("[EVENT]Delete client info by port %s  remains client %d ", st_ifname(ifindex),
              dhcp_snooping_get_client_count());
    return 0;
}

int dhcp_snooping_delete_all_client_info()
{
    std::uint32_t count = dhcp_snooping_get_client_count();
    if (!count) {
        zlog_info("[EVENT]Force delete all client info. no client");
        return 0;
    }
    zlog_info("[EVENT]Force delete all client info current client %d", count);
    dhcp_client_filter_t filter{};
    filter.filter_action = DHCP_CLIENT_FILTER_DELETE_ALL;
    dhcp_snooping_travers_client_by_filter(&filter);
    return 0;
}

int dhcp_snooping_aging_client_info()
{
    std::uint32_t count = dhcp_snooping_get_client_count();
    std::uint32_t now = dhcp_client_uptime();
    if (!count) {
        DHCP_EVENT_DEBUG("[EVENT]Aging client info current timestamp %d current no client", now);
        return 0;
    }
    zlog_info("[EVENT]Aging client info current timestamp %d current client count : %d   ===> start", now, count);
    dhcp_client_filter_t filter{};
    filter.filter_action = DHCP_CLIENT_FILTER_DELETE;
    filter.timestamp = now;
    dhcp_snooping_travers_client_by_filter(&filter);
    zlog_info("[EVENT]Aging client info current timestamp %d current client remain: %d   ===> end", now,
              dhcp_snooping_get_client_count());
    return 0;
}

// ------------------------------------------------------------------ shows ----

namespace {

enum { DUMP_BUF_LEN = 4096 };

struct text_buf {
    char *buf;
    std::size_t cap;
    std::size_t len = 0;
    void add(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        if (len + 1 >= cap) return;
        va_list ap;
        va_start(ap, fmt);
        int n = std::vsnprintf(buf + len, cap - len, fmt, ap);
        va_end(ap);
        if (n > 0) len = std::min(cap - 1, len + std::size_t(n));
    }
};

const char *ifname_or_none(std::uint32_t ifindex) { return ifindex ? st_ifname(ifindex) : "-"; }

bool show_match(const dhcp_client_info_t *c, const std::uint8_t *mac, std::uint16_t vlan, std::uint32_t ifindex,
                std::uint32_t type)
{
    return filter_mac_match(mac, c->mac) && (!vlan || c->vid == vlan) && (!ifindex || c->client_ifindex == ifindex) &&
           (!type || c->v4_bind_type == type);
}

} // namespace

const char *dhcp_client_info_dump(const dhcp_client_info_t *client, int forVtyflag)
{
    static char buf[DUMP_BUF_LEN];
    text_buf t{buf, sizeof buf};
    buf[0] = '\0';
    if (!client) return buf;
    const char *nl = forVtyflag ? "\r\n" : "\n";
    const dhcp_client_info_t *c = client;
    t.add("  mac address      : %s%s", mac_text(c->mac).c_str(), nl);
    t.add("  vlan             : %d%s", c->vid, nl);
    t.add("  interface        : %s%s", ifname_or_none(c->client_ifindex), nl);
    t.add("  service port     : %s%s", ifname_or_none(c->client_sport_ifindex), nl);
    t.add("  vlan stack in    : %u:[%d][%d]%s", c->in_vlan_stack_depth, c->in_vlan_stack[0], c->in_vlan_stack[1], nl);
    t.add("  vlan stack out   : %u:[%d]%s", c->out_vlan_stack_depth, c->out_vlan_stack[0], nl);
    t.add("  bind type        : %s%s", dhcp_bind_type_str(c->v4_bind_type), nl);
    t.add("  ip address       : %s%s", ip_text(c->ip_addr).c_str(), nl);
    t.add("  server address   : %s%s", ip_text(c->ip_server_addr).c_str(), nl);
    t.add("  server port      : %s trunk %u%s", ifname_or_none(c->server_ifindex), c->server_trunk_id, nl);
    t.add("  lease time       : %u%s", c->v4_lease_time, nl);
    t.add("  create           : %u by %s%s", c->v4_create_time, msg_word(c->v4_create_msg_type), nl);
    t.add("  last update      : %u by %s%s", c->v4_last_update_time, msg_word(c->v4_last_update_msg), nl);
    t.add("  xid              : 0x%08x%s", ntohl(c->v4_curr_xid), nl);
    t.add("  request source   : %s %s%s", mac_text(c->req_mac).c_str(), ip_text(c->req_ip_addr).c_str(), nl);
    t.add("  ciaddr           : %s%s", ip_text(c->ciaddr).c_str(), nl);
    t.add("  yiaddr           : %s%s", ip_text(c->yiaddr).c_str(), nl);
    t.add("  siaddr           : %s%s", ip_text(c->siaddr_nip).c_str(), nl);
    t.add("  giaddr           : %s%s", ip_text(c->gateway_nip).c_str(), nl);
    t.add("  option 12        : %s%s", c->op12_host_name, nl);
    t.add("  option 50        : %s%s", ip_text(c->op50_request_ip).c_str(), nl);
    t.add("  option 60        : %s%s", c->op60_vendor_id, nl);
    t.add("  option 61        : %s%s", mac_text(c->op61_client_id).c_str(), nl);
    t.add("  option 1         : %s%s", ip_text(c->op1_subnet_mask).c_str(), nl);
    t.add("  option 3         : %s%s", ip_text(c->op3_route_ip).c_str(), nl);
    t.add("  option 51        : %u%s", c->op51_lease_time, nl);
    t.add("  option 54        : %s%s", ip_text(c->op54_dhcp_server).c_str(), nl);
    t.add("  option 58        : %u%s", c->op58_renewal_time, nl);
    t.add("  option 59        : %u%s", c->op59_rebind_time, nl);
    return buf;
}

const char *dhcpv6_client_info_dump(const dhcp_client_info_t *client, int vlan_id, int forVtyflag)
{
    static char buf[DUMP_BUF_LEN];
    text_buf t{buf, sizeof buf};
    buf[0] = '\0';
    if (!client) return buf;
    const char *nl = forVtyflag ? "\r\n" : "\n";
    const dhcp_client_info_t *c = client;
    t.add("  mac address      : %s%s", mac_text(c->mac).c_str(), nl);
    t.add("  vlan             : %d%s", vlan_id, nl);
    t.add("  interface        : %s%s", ifname_or_none(c->client_ifindex), nl);
    t.add("  bind type        : %s%s", dhcp_bind_type_str(c->v6_bind_type), nl);
    t.add("  ipv6 address     : %s%s", ip6_text(c->ipv6_addr).c_str(), nl);
    t.add("  server address   : %s%s", ip6_text(c->ipv6_server_addr).c_str(), nl);
    t.add("  relay address    : %s%s", ip6_text(c->v6_relay_ip).c_str(), nl);
    t.add("  request source   : %s%s", ip6_text(c->req_ipv6_addr).c_str(), nl);
    t.add("  lease time       : %u%s", c->v6_lease_time, nl);
    t.add("  valid time       : %u%s", c->valid_time, nl);
    t.add("  create           : %u by %s%s", c->v6_create_time, dhcpv6_msg_type_str(int(c->v6_create_msg_type)), nl);
    t.add("  last update      : %u by %s%s", c->v6_last_update_time, dhcpv6_msg_type_str(int(c->v6_last_update_msg)),
          nl);
    t.add("  transaction id   : 0x%06x%s", c->v6_trans_id, nl);
    t.add("  client id        : %s%s", mac_text(c->client_identifier).c_str(), nl);
    return buf;
}

void dhcp_cli_show_binding_info(struct vty *vty, const std::uint8_t *mac, std::uint16_t vlan, std::uint32_t ifindex,
                                std::uint32_t type, std::uint32_t detail_flag)
{
    if (!vty) return;
    std::uint32_t now = dhcp_client_uptime();
    std::vector<const dhcp_client_info_t *> rows;
    auto consider = [&](const dhcp_client_info_t *c) {
        if (show_match(c, mac, vlan, ifindex, type)) rows.push_back(c);
    };
    if (vlan) {
        client_key lo = std::uint64_t(vlan) << 48, hi = (std::uint64_t(vlan) + 1) << 48;
        for (auto it = g_tree.lower_bound(lo); it != g_tree.end() && it->first < hi; ++it) consider(it->second);
    } else {
        for (auto &kv : g_tree) consider(kv.second);
    }

    vty_out(vty, "Total binding entries: %d%s", static_cast<int>(rows.size()), VTY_NEWLINE);
    if (rows.empty()) return;
    vty_out(vty, "%-14s  %-4s  %-6s  %-20s  %-15s  %-10s  %-10s%s", "MAC", "VLAN", "Type", "Interface", "IPv4",
            "Lease", "Remain", VTY_NEWLINE);
    vty_out(vty, "--------------------------------------------------------------------------------------------%s",
            VTY_NEWLINE);
    int for_vty = vty->type == VTY_TERM;
    for (const dhcp_client_info_t *c : rows) {
        std::uint32_t age = now - c->v4_last_update_time;
        std::uint32_t remain = age < c->v4_lease_time ? c->v4_lease_time - age : 0;
        vty_out(vty, "%-14s  %-4d  %-6s  %-20s  %-15s  %-10u  %-10u%s", mac_text(c->mac).c_str(), c->vid,
                dhcp_bind_type_str(c->v4_bind_type), ifname_or_none(c->client_ifindex), ip_text(c->ip_addr).c_str(),
                c->v4_lease_time, remain, VTY_NEWLINE);
        if (detail_flag) vty_out(vty, "%s", dhcp_client_info_dump(c, for_vty));
    }
}

void dhcp_cli_show_client_server_info(struct vty *vty, const dhcp_client_info_t *client)
{
    if (!vty || !client) return;
    vty_out(vty, "  server side packet statistic %s", VTY_NEWLINE);
    vty_out(vty, "%s", dhcp_pkt_statiss_dump(&client->statis_server));
}

void dhcp_cli_show_binding_detail_info(struct vty *vty, const std::uint8_t mac[6], std::uint16_t vlan_id)
{
    if (!vty || !mac) return;
    mac_text mtext(mac);
    const dhcp_client_info_t *c = dhcp_lookup_client_lease_info(mac, vlan_id);
    if (!c) {
        vty_out(vty, "VLAN %d client %s not existed. %s", vlan_id, mtext.c_str(), VTY_NEWLINE);
        return;
    }
    int for_vty = vty->type == VTY_TERM;
    vty_out(vty, "VLAN %d client %s dhcpv4 info :%s", vlan_id, mtext.c_str(), VTY_NEWLINE);
    vty_out(vty, "=============================================================%s", VTY_NEWLINE);
    vty_out(vty, "%s", dhcp_client_info_dump(c, for_vty));
    vty_out(vty, "  client side packet statistic %s", VTY_NEWLINE);
    vty_out(vty, "%s", dhcp_pkt_statiss_dump(&c->statis_client));
    dhcp_cli_show_client_server_info(vty, c);
    if (c->dhcp_v6) {
        vty_out(vty, "VLAN %d client %s dhcpv6 info :%s", vlan_id, mtext.c_str(), VTY_NEWLINE);
        vty_out(vty, "=============================================================%s", VTY_NEWLINE);
        vty_out(vty, "%s", dhcpv6_client_info_dump(c, vlan_id, for_vty));
    }
}
