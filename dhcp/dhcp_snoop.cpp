#include "dhcp/dhcp_snoop.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "devlib/ifindex.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_zebra.h"
#include "lib/log.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "platform/hal_msg.h"
#include "platform/product.h"

dhcp_global_config_t g_dhcp_global_cfg;
char g_access_node_id[DHCP_ID_TEXT_MAX + 1] = DHCP_ACCESS_NODE_ID_INIT;
char g_remot_id[DHCP_ID_TEXT_MAX + 1];
std::uint32_t g_dhcp_max_session = DHCP_MAX_SESSION_DEFAULT;

#define DHCP_EVENT_DEBUG(fmt, ...) DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, fmt, ##__VA_ARGS__)

namespace {

enum { VLAN_ID_FIRST = 1, VLAN_ID_LAST = 4094, DHCP_WRITE_EXPIRE_INIT = 60 };

const char *enable_word(int enable) { return enable ? "enable" : "disable"; }
const char *enabled_word(int enable) { return enable ? "enabled" : "disabled"; }


}  // namespace

const char *dhcp_option_type_word(int type)
{
    switch (type) {
    case DHCP_OPTION_NORMAL: return "normal";
    case DHCP_OPTION_SYSNAME: return "sysname";
    case DHCP_OPTION_USER: return "user";
    case DHCP_OPTION_PROFILE: return "profile";
    case DHCP_OPTION_ONU_AUTH: return "onu auth";
    default: return "UNKNOWN ERROR";
    }
}

namespace {

// The VLAN's record, made on first use: 0, TAVO_ERR or TAVO_MEMORY.
int vlan_record(uvlan_entry_t *vlan, dhcp_vlan_t **rec)
{
    *rec = nullptr;
    if (!vlan) return TAVO_ERR;
    if (!vlan->info) {
        int ret = dhcp_vlan_init(vlan->vid);
        if (ret != 0) return ret;
    }
    *rec = static_cast<dhcp_vlan_t *>(vlan->info);
    return 0;
}

// Replaces an owned text by a copy of str (or by nothing).
int set_text(char **slot, const char *str)
{
    if (*slot) XFREE(DHCP_VLAN, *slot);
    if (!str) return 0;
    std::size_t n = std::strlen(str);
    auto *copy = static_cast<char *>(XMALLOC(DHCP_VLAN, n + 1));
    if (!copy) return TAVO_MEMORY;
    std::memcpy(copy, str, n + 1);
    *slot = copy;
    return 0;
}

bool port_keeps_clients(int type)
{
    return type == PORT_TYPE_GONU || type == PORT_TYPE_GPON || type == PORT_TYPE_XE || type == PORT_TYPE_GE;
}

int hal_dhcp_trap_request(std::uint16_t type, std::uint16_t vid, std::uint32_t enable, std::uint32_t slot_id)
{
    std::uint8_t msg[std::size_t(HAL_MSG_HDR_LEN) + std::size_t(HAL_MSG_DHCP_LEN)] = {};
    hal_msg_hdr_t h{sizeof msg, type, HAL_MSG_FLAG_REQUEST, 0, slot_id};
    hal_msg_hdr_encode(msg, h);
    wire_writer w(bytes_span(msg), HAL_MSG_HDR_LEN);
    w.host<std::uint32_t>(0);  // ifindex: not used by these requests
    w.host<std::uint16_t>(vid);
    w.zero(2);
    w.host<std::uint32_t>(enable);

    return hal_send_request(msg, sizeof msg);
}

} // namespace

// ---------------------------------------------------------------- global ----

void dhcp_snoop_init()
{
    dhcp_global_config_t &g = g_dhcp_global_cfg;
    g.snooping_enable = 0;
    g.information = 0;
    g.dai = 0;
    g.ipsg = 0;
    g.client_op82_policy = DHCPPORTOPTIONPOLICY_REPLACE;
    g.client_op18_policy = DHCPPORTOPTIONPOLICY_REPLACE;
    g.client_op37_policy = DHCPPORTOPTIONPOLICY_REPLACE;
    g.reply_mc_keep = 0;
    g.write_delay = 0;
    if (g.tftp_ip) XFREE(DHCP_INFO, g.tftp_ip);
    if (g.tftp_file) XFREE(DHCP_INFO, g.tftp_file);
    g.write_expire = DHCP_WRITE_EXPIRE_INIT;

    dhcp_set_option_policy_source({dhcp_snoop_get_client_op82_policy, dhcp_snoop_get_client_op18_policy,
                                   dhcp_snoop_get_client_op37_policy});

    if (!dhcp_client_tree_create(DHCP_CLIENT_TREE_MAX)) {
        zlog_err("[EVENT]Failed to initial snooping binding info ");
        std::exit(1);
    }
}

int dhcp_snoop_is_enable() { return g_dhcp_global_cfg.snooping_enable; }

void dhcp_snoop_enable_set(int enable)
{
    dhcp_global_config_t &g = g_dhcp_global_cfg;
    if (g.snooping_enable == static_cast<std::uint8_t>(enable)) {
        DHCP_EVENT_DEBUG("[EVENT]Dhcp snooping is already %s.", enabled_word(enable));
        return;
    }
    g.snooping_enable = static_cast<std::uint8_t>(enable);
    zlog_info("[EVENT]%s global dhcp snooping.", enable_word(enable));
    if (enable) return;

    for (int vid = VLAN_ID_FIRST; vid <= VLAN_ID_LAST; ++vid) {
        uvlan_entry_t *vlan = vlan_get_entry(static_cast<std::uint16_t>(vid));
        dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
        if (!rec || rec->snooping_enable != 1) continue;
        if (dhcp_vlan_snoop_set(vlan, 0) != 0) zlog_info("[EVENT]disable dhcp vlan %d snooping failed", vid);
        DHCP_EVENT_DEBUG("[EVENT]disable snooping on vlan %d.", vid);
    }

    // Without snooping nor relay the uplinks' trust means nothing; it is
    // forgotten on purpose and not restored by a later enable.
    if (g.relay_enable) return;
    for (uif_t *pif = uif_first(); pif; pif = uif_next(pif)) {
        int type = st_ifindex_get_port_type(pif->ifindex);
        if (type < PORT_TYPE_FE || type > PORT_TYPE_CE) continue;
        if (!dhcp_port_trust_check(pif)) continue;
        dhcp_port_trust_set(pif, 0);
    }
}

void dhcp_op82_enable(int enable)
{
    zlog_info("[EVENT]%s global dhcp option 82", enable_word(enable));
    g_dhcp_global_cfg.information = static_cast<std::uint8_t>(enable);
    if (enable) return;
    for (int vid = VLAN_ID_FIRST; vid <= VLAN_ID_LAST; ++vid) {
        uvlan_entry_t *vlan = vlan_get_entry(static_cast<std::uint16_t>(vid));
        dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
        if (!rec || rec->option82_enable != 1) continue;
        if (dhcp_vlan_op82_set(vlan, 0) != 0) zlog_info("[EVENT]disable option82 on dhcp vlan %d failed", vid);
    }
}

int dhcp_op82_is_enable() { return g_dhcp_global_cfg.information; }

void dhcpv6_op18_enable(int enable)
{
    zlog_info("[EVENT]Set dhcpv6 option 18 %s", enable_word(enable));
    g_dhcp_global_cfg.information_ipv6 = static_cast<std::uint8_t>(enable);
}

int dhcpv6_option_is_enable() { return g_dhcp_global_cfg.information_ipv6; }

void dhcp_snoop_set_remote_id(int enable_flag)
{
    if (!enable_flag) {
        std::memset(g_remot_id, 0, DHCP_ID_TEXT_MAX);
        return;
    }
    std::uint8_t mac[6];
    st_product_mac_get(mac);
    std::snprintf(g_remot_id, DHCP_ID_TEXT_MAX + 1, "%02x%02x-%02x%02x-%02x%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
}

const char *dhcp_snoop_get_remote_id() { return g_remot_id; }

void dhcp_snoop_set_access_node_id(const char *text)
{
    if (!text) text = "";
    zlog_info("[EVENT]%s update access_node_id %s.", __func__, text);
    std::strncpy(g_access_node_id, text, DHCP_ID_TEXT_MAX);
    g_access_node_id[DHCP_ID_TEXT_MAX] = '\0';
}

const char *dhcp_snoop_get_access_node_id() { return g_access_node_id; }

const char *dhcp_snoop_policy_str(int policy)
{
    switch (policy) {
    case DHCPPORTOPTIONPOLICY_REPLACE: return "replace";
    case DHCPPORTOPTIONPOLICY_KEEP: return "keep";
    case DHCPPORTOPTIONPOLICY_DROP: return "drop";
    default: return "UNKNOWN ERROR";
    }
}

void dhcp_snoop_set_client_op82_policy(int policy)
{
    if (g_dhcp_global_cfg.client_op82_policy == static_cast<std::uint8_t>(policy)) return;
    g_dhcp_global_cfg.client_op82_policy = static_cast<std::uint8_t>(policy);
    zlog_info("[EVENT]update client option82 policy %s.", dhcp_snoop_policy_str(policy));
}

int dhcp_snoop_get_client_op82_policy() { return g_dhcp_global_cfg.client_op82_policy; }
int dhcp_snoop_get_client_op18_policy() { return g_dhcp_global_cfg.client_op18_policy; }
int dhcp_snoop_get_client_op37_policy() { return g_dhcp_global_cfg.client_op37_policy; }

void dhcp_reply_set_multicast_keep_enable() { g_dhcp_global_cfg.reply_mc_keep = 1; }
void dhcp_reply_set_multicast_keep_disable() { g_dhcp_global_cfg.reply_mc_keep = 0; }
int dhcp_reply_is_multicast_keep() { return g_dhcp_global_cfg.reply_mc_keep; }

void dhcp_set_max_session_id(std::uint32_t max_session) { g_dhcp_max_session = max_session; }
std::uint32_t dhcp_get_max_session_id() { return g_dhcp_max_session; }

// ------------------------------------------------------------------ VLAN ----

dhcp_vlan_t *dhcp_get_vlan_info(uvlan_entry_t *vlan) { return vlan ? static_cast<dhcp_vlan_t *>(vlan->info) : nullptr; }

dhcp_vlan_t *dhcp_vlan_info_get_by_vid(std::uint16_t vid) { return dhcp_get_vlan_info(vlan_get_entry(vid)); }

int dhcp_vlan_init(std::uint16_t vid)
{
    uvlan_entry_t *vlan = vlan_get_entry(vid);
    if (!vlan) {
        zlog_err("Failed to get vlan %d", vid);
        return TAVO_ERR;
    }
    if (vlan->info) return 0;
    void *rec = XCALLOC(DHCP_VLAN, sizeof(dhcp_vlan_t));
    if (!rec) {
        zlog_err("Failed to initial dhcp info on vlan %d", vid);
        return TAVO_MEMORY;
    }
    vlan->info = rec;
    return 0;
}

void dhcp_vlan_free(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    if (!rec) return;
    if (rec->circuit_id) XFREE(DHCP_VLAN, rec->circuit_id);
    if (rec->remote_id) XFREE(DHCP_VLAN, rec->remote_id);
    if (rec->ipv6_interface_id) XFREE(DHCP_VLAN, rec->ipv6_interface_id);
    if (rec->ipv6_remote_id) XFREE(DHCP_VLAN, rec->ipv6_remote_id);
    XFREE(DHCP_VLAN, rec);
    vlan->info = nullptr;
}

int dhcp_vlan_snoop_set(uvlan_entry_t *vlan, int enable)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    if (rec->snooping_enable == static_cast<std::uint8_t>(enable)) return 0;

    // With the relay on the plane already traps this VLAN for the relay.
    if (!rec->relay_enable) {
        hal_dhcp_vlan_enable(vlan->vid, static_cast<std::uint32_t>(enable));
        DHCP_EVENT_DEBUG("[EVENT]%s hw to monitor dhcp packets on vlan %d.", enable_word(enable), vlan->vid);
    }
    rec->snooping_enable = static_cast<std::uint8_t>(enable);

    if (!enable) {
        if (rec->ipverify_mode) {
            ret = dhcp_vlan_ipverify_set(vlan, 0);
            if (ret != 0) zlog_info("[EVENT]%s", st_errcode_get_str(ret));
        }
        if (rec->option82_enable) dhcp_vlan_op82_set(vlan, 0);
        DHCP_EVENT_DEBUG("[EVENT]%s dhcp snooping on vlan %d .", enabled_word(0), vlan->vid);
    }
    zlog_info("[EVENT]%s dhcp snooping on vlan %d .", enabled_word(enable), vlan->vid);
    return 0;
}

int dhcpv6_vlan_snoop_set(uvlan_entry_t *vlan, int enable)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    // Stored before it is compared, so the request below is never sent: the
    // switch is only recorded, the trap of DHCPv6 frames is set up elsewhere.
    rec->ipv6_snooping_enable = static_cast<std::uint8_t>(enable);
    if (rec->ipv6_snooping_enable == static_cast<std::uint8_t>(enable)) {
        zlog_info("[EVENT]the same action on vlan %d .", vlan->vid);
        return 0;
    }
    // Either way the plane is left alone while the DHCPv6 relay traps the VLAN.
    if (!rec->ipv6_relay_enable) {
        ret = hal_dhcpv6_vlan_enable(vlan->vid, static_cast<std::uint32_t>(enable), 0);
        if (ret != 0) {
            zlog_err("[EVENT]%s hw to monitor dhcpv6 packets on vlan %d failed", enable_word(enable), vlan->vid);
            return TAVO_ERR;
        }
        zlog_info("[EVENT]%s hw to monitor dhcpv6 packets on vlan %d.success", enable_word(enable), vlan->vid);
    }
    zlog_info("[EVENT]%s dhcpv6 snooping on vlan %d .", enable_word(enable), vlan->vid);
    return 0;
}

int dhcp_vlan_snooping_check(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    return rec ? rec->snooping_enable : 0;
}

int dhcpv6_vlan_snooping_check(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    return rec ? rec->ipv6_snooping_enable : 0;
}

int dhcp_vlan_op82_check(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    return rec ? rec->option82_enable : 0;
}

int dhcp_vlan_op18_check(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    return rec ? rec->option18_enable : 0;
}

int dhcp_vlan_op37_check(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    return rec ? rec->option37_enable : 0;
}

int dhcp_vlan_op82_set(uvlan_entry_t *vlan, int enable)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    rec->option82_enable = static_cast<std::uint8_t>(enable);
    zlog_info("[EVENT]%s option82 on vlan %d ", enable_word(enable), vlan->vid);
    return 0;
}

int dhcp_vlan_op18_set(uvlan_entry_t *vlan, int enable)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    rec->option18_enable = static_cast<std::uint8_t>(enable);
    zlog_info("[EVENT]%s option18 on vlan %d ", enable_word(enable), vlan->vid);
    if (!enable) {
        ret = dhcp_vlan_op18_interfaceid_set(vlan, DHCP_OPTION_NORMAL, nullptr);
        if (ret != 0) zlog_info("[EVENT]%s", st_errcode_get_str(ret));
    }
    return 0;
}

int dhcp_vlan_op37_set(uvlan_entry_t *vlan, int enable)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    rec->option37_enable = static_cast<std::uint8_t>(enable);
    if (!enable) {
        // The reset stores the system name as text, with the type back to normal.
        ret = dhcp_vlan_op37_remoteid_set(vlan, DHCP_OPTION_NORMAL, nullptr);
        if (ret != 0) zlog_info("[EVENT]%s", st_errcode_get_str(ret));
    }
    zlog_info("[EVENT]%s option37 on vlan %d ", enable_word(enable), vlan->vid);
    return 0;
}

int dhcp_vlan_op82_circuitid_set(uvlan_entry_t *vlan, int type, const char *str)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    rec->circuit_type = static_cast<st_dhcp_option_type_t>(type);
    ret = set_text(&rec->circuit_id, str);
    DHCP_EVENT_DEBUG("[EVENT]Set vlan %d option82 circuit id %s", vlan->vid, str ? str : "");
    return ret;
}

int dhcp_vlan_op82_remoteid_set(uvlan_entry_t *vlan, int type, const char *str)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    rec->remote_type = static_cast<st_dhcp_option_type_t>(type);
    ret = set_text(&rec->remote_id, str);
    DHCP_EVENT_DEBUG("[EVENT]Set vlan %d option82 remote id %s,str:%s", vlan->vid, dhcp_option_type_word(type),
                     str ? str : "");
    return ret;
}

int dhcp_vlan_op18_interfaceid_set(uvlan_entry_t *vlan, int type, const char *str)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    rec->ipv6_interfaceid_type = static_cast<std::uint8_t>(type);
    ret = set_text(&rec->ipv6_interface_id, str);
    DHCP_EVENT_DEBUG("[EVENT]Set vlan %d option18 interface id %s", vlan->vid, str ? str : "");
    return ret;
}

int dhcp_vlan_op37_remoteid_set(uvlan_entry_t *vlan, int type, const char *str)
{
    dhcp_vlan_t *rec;
    int ret = vlan_record(vlan, &rec);
    if (ret != 0) return ret;
    rec->ipv6_remoteid_type = static_cast<std::uint8_t>(type);
    // The system name is copied as it is now; a later host-name change does
    // not follow.
    ret = set_text(&rec->ipv6_remote_id, str ? str : dhcp_sysname);
    DHCP_EVENT_DEBUG("[EVENT]Set vlan %d option37 remote id %s,str:%s dhcp_sysname:%s ", vlan->vid,
                     dhcp_option_type_word(type), str ? str : "", dhcp_sysname);
    return ret;
}

// ------------------------------------------------------------------ port ----

dhcp_port_t *dhcp_port_malloc() { return static_cast<dhcp_port_t *>(XCALLOC(DHCP_PORT, sizeof(dhcp_port_t))); }

void dhcp_port_free(dhcp_port_t *port)
{
    if (!port) return;
    if (port->client) XFREE(LINK_NODE, port->client);
    XFREE(DHCP_PORT, port);
}

dhcp_port_t *dhcp_port_init(uif_t *pif)
{
    if (!pif) return nullptr;
    if (pif->info) return static_cast<dhcp_port_t *>(pif->info);
    dhcp_port_t *port = dhcp_port_malloc();
    if (!port) {
        zlog_err("[PORT]Failed to malloc memory for dhcp if %s", pif->name);
        return nullptr;
    }
    port->pif = pif;
    if (port_keeps_clients(st_ifindex_get_port_type(pif->ifindex))) {
        port->trust = 0;
        port->client = static_cast<dhcp_client_list_t *>(XCALLOC(LINK_NODE, sizeof(dhcp_client_list_t)));
        if (!port->client) {
            dhcp_port_free(port);
            zlog_err("[PORT]Failed to malloc memory for dhcp if %s", pif->name);
            return nullptr;
        }
        port->client->ifindex = pif->ifindex;
    }
    pif->info = port;
    DHCP_EVENT_DEBUG("[PORT]Initialize dhcp port %s", pif->name);
    return port;
}

void dhcp_port_deinit(uif_t *pif)
{
    if (!pif || !pif->info) return;
    // Only the list goes: its clients belong to the binding table.
    dhcp_port_free(static_cast<dhcp_port_t *>(pif->info));
    pif->info = nullptr;
    DHCP_EVENT_DEBUG("[PORT]de-initialize dhcp port %s", pif->name);
}

dhcp_port_t *dhcp_port_get_info(uif_t *pif)
{
    if (!pif || !pif->info) {
        zlog_info("[PORT]%s not have dhcp info", pif ? pif->name : "");
        return nullptr;
    }
    return static_cast<dhcp_port_t *>(pif->info);
}

int dhcp_port_trust_set(uif_t *pif, int trust)
{
    if (!pif) return TAVO_PORT;
    dhcp_port_t *port = dhcp_port_init(pif);
    if (!port) return TAVO_MEMORY;
    if (port->trust != static_cast<std::uint8_t>(trust)) {
        port->trust = static_cast<std::uint8_t>(trust);
        zlog_info("[PORT]set port %s dhcp mode %s", pif->name, trust ? "trust" : "untrust");
    }
    return 0;
}

int dhcp_port_trust_check(uif_t *pif)
{
    if (!pif || !pif->info) return 0;
    return static_cast<dhcp_port_t *>(pif->info)->trust ? 1 : 0;
}

int dhcp_snoop_port_is_trust(uif_t *pif)
{
    if (!dhcp_snoop_is_enable()) return 1;
    return dhcp_port_trust_check(pif);
}

int dhcp_port_trust_onu_check(uif_t *pif)
{
    if (!pif) return 0;
    uif_t *governing = pif;
    if (st_ifindex_get_port_type(pif->ifindex) == PORT_TYPE_GONU) {
        std::uint32_t pon = st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, st_ifindex_get_slot_id(pif->ifindex), 0,
                                                      st_ifindex_get_port_id(pif->ifindex), 0);
        governing = uif_lookup_by_index(pon);
        if (!governing) return 0;
    }
    if (!governing->info) return 0;
    return static_cast<dhcp_port_t *>(governing->info)->trust;
}

int dhcp_port_is_uplink(uif_t *pif)
{
    if (!pif) return 1;
    int type = st_ifindex_get_port_type(pif->ifindex);
    return type >= PORT_TYPE_FE && type <= PORT_TYPE_TRUNK ? 1 : 0;
}

int dhcp_get_onu_phy_info(std::uint32_t ifindex, int *shelf, int *slot, int *port, int *onu)
{
    if (st_ifindex_get_port_type(ifindex) != PORT_TYPE_GONU) {
        zlog_err("Interface %#x is not onu interface", ifindex);
        return TAVO_ERR;
    }
    if (shelf) *shelf = st_ifindex_get_shelf_id(ifindex);
    if (slot) *slot = st_ifindex_get_slot_id(ifindex);
    if (port) *port = st_ifindex_get_port_id(ifindex);
    if (onu) *onu = st_ifindex_get_subport_id(ifindex);
    return 0;
}

std::uint32_t dhcp_get_onu_ifindex(int shelf, int slot, int port, int onu)
{
    return st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, shelf, slot, 0, port, onu);
}

std::uint32_t dhcp_get_pon_ifindex_from_onu_ifindex(std::uint32_t ifindex)
{
    if (st_ifindex_get_port_type(ifindex) != PORT_TYPE_GONU) {
        zlog_err("Interface %#x is not onu interface", ifindex);
        return 0;
    }
    return st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, st_ifindex_get_slot_id(ifindex), 0,
                                     st_ifindex_get_port_id(ifindex), 0);
}

// ------------------------------------------------------- forwarding plane ----

int hal_dhcp_vlan_enable(std::uint16_t vid, std::uint32_t enable)
{
    return hal_dhcp_trap_request(HAL_MSG_DHCP_VLAN_ENABLE, vid, enable, 0);
}

int hal_dhcp_vlan_enable_slot(std::uint16_t vid, std::uint32_t enable, std::uint32_t slot_id)
{
    return hal_dhcp_trap_request(HAL_MSG_DHCP_VLAN_ENABLE, vid, enable, slot_id);
}

int hal_dhcpv6_vlan_enable(std::uint16_t vid, std::uint32_t enable, std::uint32_t slot_id)
{
    return hal_dhcp_trap_request(HAL_MSG_DHCPV6_VLAN_ENABLE, vid, enable, slot_id);
}

int dhcp_snoop_proc_slot_recovery(std::uint32_t slot_id)
{
    // A line card coming back knows nothing: every VLAN whose DHCP frames the
    // daemon needs is trapped again on that card.
    for (int vid = VLAN_ID_FIRST; vid <= VLAN_ID_LAST; ++vid) {
        dhcp_vlan_t *rec = dhcp_vlan_info_get_by_vid(static_cast<std::uint16_t>(vid));
        if (!rec) continue;
        if (rec->snooping_enable || rec->relay_enable) {
            int ret = hal_dhcp_vlan_enable_slot(static_cast<std::uint16_t>(vid), 1, slot_id);
            DHCP_EVENT_DEBUG("[EVENT]slot %u recovery vlan %d dhcp trap ret %d", slot_id, vid, ret);
        }
        if (rec->ipv6_relay_enable) {
            int ret = hal_dhcpv6_vlan_enable(static_cast<std::uint16_t>(vid), 1, slot_id);
            DHCP_EVENT_DEBUG("[EVENT]slot %u recovery vlan %d dhcpv6 trap ret %d", slot_id, vid, ret);
        }
    }
    return 0;
}
