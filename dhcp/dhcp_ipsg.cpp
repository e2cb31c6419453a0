#include "dhcp/dhcp_ipsg.h"

#include <arpa/inet.h>
#include <cstring>
#include <map>

#include "devlib/ifindex.h"
#include "devlib/mac.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/vty.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "platform/hal_msg.h"

const std::uint8_t st_acl_mac_invalid[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

namespace {

// VLAN in the top bits, then the MAC bytes: integer order is (vid, memcmp(mac)).
std::uint64_t key_of(const std::uint8_t mac[6], std::uint16_t vid)
{
    std::uint64_t k = vid;
    for (int i = 0; i < 6; ++i) k = (k << 8) | mac[i];
    return k;
}

using ipsg_table = std::map<std::uint64_t, dhcp_ip_souce_client_t *, std::less<std::uint64_t>,
                            dhcp_mt_allocator<std::pair<const std::uint64_t, dhcp_ip_souce_client_t *>,
                                              &MTYPE_DHCP_IP_SOURCE>>;
ipsg_table g_dhcp_ipSource_client_avltree_ptr;

struct mac_text {
    char s[16];
    explicit mac_text(const std::uint8_t mac[6]) { tavo_mac2str(mac, s); }
};

struct ip_text {
    char s[INET_ADDRSTRLEN];
    explicit ip_text(std::uint32_t stored) { inet_ntop(AF_INET, &stored, s, sizeof s); }
};

void remove_entry(dhcp_ip_souce_client_t *entry)
{
    g_dhcp_ipSource_client_avltree_ptr.erase(key_of(entry->mac, entry->vid));
    XFREE(DHCP_IP_SOURCE, entry);
}

dhcp_ip_souce_client_t *new_entry(std::uint32_t bind_type, const std::uint8_t mac[6], std::uint16_t vid,
                                  std::uint32_t ip_addr)
{
    if (g_dhcp_ipSource_client_avltree_ptr.size() >= DHCP_IP_SOURCE_MAX) {
        zlog_err("[EVENT]ip source guard table full(%d), client %s vlan %d not added", int(DHCP_IP_SOURCE_MAX),
                 mac_text(mac).s, vid);
        return nullptr;
    }
    auto *entry = static_cast<dhcp_ip_souce_client_t *>(XCALLOC(DHCP_IP_SOURCE, sizeof(dhcp_ip_souce_client_t)));
    if (!entry) {
        zlog_err("[EVENT]Can not allocate memory");
        return nullptr;
    }
    std::memcpy(entry->mac, mac, 6);
    entry->vid = vid;
    entry->ifindex = dhcp_snooping_get_client_ifindex(mac, vid);
    entry->bind_type = bind_type;
    entry->ip_addr = ip_addr;
    try {
        g_dhcp_ipSource_client_avltree_ptr.emplace(key_of(mac, vid), entry);
    } catch (const std::bad_alloc &) {
        zlog_err("[EVENT]Can not allocate memory");
        XFREE(DHCP_IP_SOURCE, entry);
        return nullptr;
    }
    return entry;
}

}  // namespace

void dhcp_ipsg_init()
{
    for (auto &kv : g_dhcp_ipSource_client_avltree_ptr) XFREE(DHCP_IP_SOURCE, kv.second);
    g_dhcp_ipSource_client_avltree_ptr.clear();
}

int hal_dhcp_ip_source_rule_slot(std::uint32_t ifindex, const std::uint8_t mac[6], std::uint16_t vid,
                                 std::uint32_t ip_addr, std::uint32_t action, std::uint32_t slot_id)
{
    std::uint8_t msg[int(HAL_MSG_HDR_LEN) + int(HAL_MSG_DHCP_IP_SOURCE_LEN)] = {};
    hal_msg_hdr_t hdr{sizeof msg, HAL_MSG_DHCP_IP_SOURCE, HAL_MSG_FLAG_REQUEST, 0, slot_id};
    hal_msg_hdr_encode(msg, hdr);
    wire_writer w(bytes_span(msg).subspan(HAL_MSG_HDR_LEN));
    w.host(ifindex);
    w.host(vid);
    w.put(mac, 6);
    w.host(ip_addr);  // stored as on the wire
    w.host(action);

    return hal_send_request(msg, sizeof msg);
}

int hal_dhcp_ip_source_rule(std::uint32_t ifindex, const std::uint8_t mac[6], std::uint16_t vid,
                            std::uint32_t ip_addr, std::uint32_t action)
{
    return hal_dhcp_ip_source_rule_slot(ifindex, mac, vid, ip_addr, action, 0);
}

int dhcp_vlan_ipverify_set(uvlan_entry_t *vlan, int mode)
{
    if (!vlan) return TAVO_ERR;
    if (!dhcp_get_vlan_info(vlan)) {
        int rc = dhcp_vlan_init(vlan->vid);
        if (rc != 0) return rc;
    }
    dhcp_vlan_t *v = dhcp_get_vlan_info(vlan);
    if (!v) return TAVO_MEMORY;
    v->ipverify_mode = std::uint8_t(mode);
    hal_dhcp_ip_source_rule(DHCP_IP_SOURCE_VLAN_IFINDEX, st_acl_mac_invalid, vlan->vid, 0,
                            mode ? DHCP_IP_SOURCE_ACTION_ADD : DHCP_IP_SOURCE_ACTION_DEL);
    zlog_info("[EVENT]%s hw ip source guard on vlan %d.", mode ? "enabled" : "disabled", vlan->vid);
    return 0;
}

int dhcp_vlan_ipverify_check(uvlan_entry_t *vlan)
{
    const dhcp_vlan_t *v = dhcp_get_vlan_info(vlan);
    return v ? v->ipverify_mode : 0;
}

int dhcp_ip_source_sync_agent_add_client(const dhcp_ip_souce_client_t *entry)
{
    if (!entry) return TAVO_PARAM;
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]hw add ip source client %s vlan %d on if %s", mac_text(entry->mac).s,
                   entry->vid, st_ifname(entry->ifindex));
    return hal_dhcp_ip_source_rule(entry->ifindex, entry->mac, entry->vid, entry->ip_addr, DHCP_IP_SOURCE_ACTION_ADD);
}

int dhcp_ip_source_sync_agent_delete_client(const dhcp_ip_souce_client_t *entry)
{
    if (!entry) return TAVO_PARAM;
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]hw delete ip source client %s vlan %d on if %s",
                   mac_text(entry->mac).s, entry->vid, st_ifname(entry->ifindex));
    return hal_dhcp_ip_source_rule(entry->ifindex, entry->mac, entry->vid, entry->ip_addr, DHCP_IP_SOURCE_ACTION_DEL);
}

dhcp_ip_souce_client_t *dhcp_ipSource_add_client(std::uint32_t bind_type, const std::uint8_t mac[6],
                                                 std::uint16_t vid, std::uint32_t ip_addr)
{
    if (!mac) return nullptr;
    dhcp_ip_souce_client_t *entry = dhcp_ipSource_client_lookup(mac, vid);
    if (entry && entry->ip_addr == ip_addr) {
        DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]find existed ip source client %s vlan %d on if %s", mac_text(mac).s,
                       vid, st_ifname(entry->ifindex));
        dhcp_ip_source_sync_agent_add_client(entry);
        return entry;
    }
    if (entry) {
        // The old rule goes before the new one arrives; bind type and port stay.
        dhcp_ip_souce_client_t old = *entry;
        entry->ip_addr = ip_addr;
        dhcp_ip_source_sync_agent_delete_client(&old);
        dhcp_ip_source_sync_agent_add_client(entry);
        zlog_info("[EVENT]update ip source client %s vlan %d on if %s ip addess %s ==> %s", mac_text(mac).s, vid,
                  st_ifname(entry->ifindex), ip_text(old.ip_addr).s, ip_text(ip_addr).s);
        return entry;
    }
    entry = new_entry(bind_type, mac, vid, ip_addr);
    if (!entry) return nullptr;
    dhcp_ip_source_sync_agent_add_client(entry);
    return entry;
}

int dhcp_ipsg_add_dynamic_client_info(std::uint16_t vid, const std::uint8_t mac[6], std::uint32_t ip_addr)
{
    uvlan_entry_t *vlan = vlan_get_entry(vid);
    if (!vlan) return TAVO_ERR;
    if (!dhcp_vlan_ipverify_check(vlan)) return 0;
    DHCP_PKT_DEBUG("[vid:%4d]ip source guard update lease information for client %s ip %s ", vid, mac_text(mac).s,
                   ip_text(ip_addr).s);
    if (!dhcp_ipSource_add_client(DHCP_BIND_TYPE_SNOOP, mac, vid, ip_addr)) {
        zlog_err("[vid:%4d]failed to ass ip source guard lease information for client %s ip %s ", vid,
                 mac_text(mac).s, ip_text(ip_addr).s);
        return TAVO_ERR;
    }
    return 0;
}

int dhcp_ipSource_delete_client(const std::uint8_t mac[6], std::uint16_t vid)
{
    if (!mac) return TAVO_ERR;
    dhcp_ip_souce_client_t *entry = dhcp_ipSource_client_lookup(mac, vid);
    if (!entry) {
        zlog_info("[EVENT]Can not find ip source client %s vlan %d", mac_text(mac).s, vid);
        return TAVO_ERR;
    }
    dhcp_ip_source_sync_agent_delete_client(entry);
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]delete ip source client %s client->mac:%s vlan %d ", mac_text(mac).s,
                   mac_text(entry->mac).s, entry->vid);
    remove_entry(entry);
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]delete ip source client %s vlan %d ", mac_text(mac).s, vid);
    return 0;
}

int dhcp_ipSource_delete_client_by_mac(const std::uint8_t mac[6])
{
    if (!mac || g_dhcp_ipSource_client_avltree_ptr.empty()) return 0;
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]Deleting ip source guard client %s current total %d", mac_text(mac).s,
                   int(g_dhcp_ipSource_client_avltree_ptr.size()));
    for (auto it = g_dhcp_ipSource_client_avltree_ptr.begin(); it != g_dhcp_ipSource_client_avltree_ptr.end();) {
        dhcp_ip_souce_client_t *entry = it->second;
        ++it;  // the entry may go
        if (std::memcmp(entry->mac, mac, 6) == 0) dhcp_ipSource_delete_client(mac, entry->vid);
    }
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]Ip source guard client %s deleted. current total %d", mac_text(mac).s,
                   int(g_dhcp_ipSource_client_avltree_ptr.size()));
    return 0;
}

dhcp_ip_souce_client_t *dhcp_ipSource_recovery_client(std::uint32_t bind_type, const std::uint8_t mac[6],
                                                      std::uint16_t vid, std::uint32_t ip_addr)
{
    if (!mac) return nullptr;
    dhcp_ip_souce_client_t *entry = dhcp_ipSource_client_lookup(mac, vid);
    if (entry) {
        DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]find existed ip source client %s vlan %d on if %s", mac_text(mac).s,
                       vid, st_ifname(entry->ifindex));
        return entry;
    }
    return new_entry(bind_type, mac, vid, ip_addr);
}

int dhcp_update_ip_source_client_lease_info(std::uint32_t bind_type, const std::uint8_t mac[6], std::uint16_t vid,
                                            std::uint32_t ip_addr)
{
    dhcp_ip_souce_client_t *entry = mac ? dhcp_ipSource_client_lookup(mac, vid) : nullptr;
    if (!entry) return TAVO_NOT_FOUND;
    entry->bind_type = bind_type;
    entry->vid = vid;
    entry->ip_addr = ip_addr;
    return 0;
}

std::uint32_t dhcp_ipSource_client_info_count() { return std::uint32_t(g_dhcp_ipSource_client_avltree_ptr.size()); }

dhcp_ip_souce_client_t *dhcp_ipSource_client_lookup(const std::uint8_t mac[6], std::uint16_t vid)
{
    if (!mac) return nullptr;
    auto it = g_dhcp_ipSource_client_avltree_ptr.find(key_of(mac, vid));
    return it == g_dhcp_ipSource_client_avltree_ptr.end() ? nullptr : it->second;
}

dhcp_ip_souce_client_t *dhcp_ipSource_client_first()
{
    auto it = g_dhcp_ipSource_client_avltree_ptr.begin();
    return it == g_dhcp_ipSource_client_avltree_ptr.end() ? nullptr : it->second;
}

dhcp_ip_souce_client_t *dhcp_ipSource_client_next(const dhcp_ip_souce_client_t *entry)
{
    if (!entry) return nullptr;
    auto it = g_dhcp_ipSource_client_avltree_ptr.upper_bound(key_of(entry->mac, entry->vid));
    return it == g_dhcp_ipSource_client_avltree_ptr.end() ? nullptr : it->second;
}

void dhcp_cli_show_ipSource_binding_info(struct vty *vty, const std::uint8_t *mac, std::uint16_t vid,
                                         std::uint32_t ifindex, int detail)
{
    static const std::uint8_t any_mac[6] = {};
    vty_out(vty, "Total info entries: %d %s", int(g_dhcp_ipSource_client_avltree_ptr.size()), VTY_NEWLINE);
    vty_out(vty, "%s", VTY_NEWLINE);
    if (g_dhcp_ipSource_client_avltree_ptr.empty()) return;
    if (detail) {
        // The detailed view was never provided; this line is what it shows.
        vty_out(vty, "TODO =========================================================================================================%s",
                VTY_NEWLINE);
    } else {
        vty_out(vty, "Source IP client information: %s", VTY_NEWLINE);
        vty_out(vty, "=========================================================================================================%s",
                VTY_NEWLINE);
        vty_out(vty, "      MAC       VLAN      Type   Interface           IPv4    %s", VTY_NEWLINE);
    }
    bool any = !mac || std::memcmp(mac, any_mac, 6) == 0;
    for (const auto &kv : g_dhcp_ipSource_client_avltree_ptr) {
        const dhcp_ip_souce_client_t *e = kv.second;
        if (!any && std::memcmp(e->mac, mac, 6) != 0) continue;
        if (vid && e->vid != vid) continue;
        if (ifindex && e->ifindex != ifindex) continue;
        vty_out(vty, "  %-14s%4d      %-6s %-19s %-15s%s", mac_text(e->mac).s, e->vid, dhcp_bind_type_str(e->bind_type),
                st_ifname(e->ifindex), ip_text(e->ip_addr).s, VTY_NEWLINE);
    }
}
