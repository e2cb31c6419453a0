#include "dhcp/dhcp_zebra.h"

#include <cstdio>
#include <cstring>

#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_snoop.h"
#include "devlib/ifindex.h"
#include "devlib/uvlan.h"
#include "lib/command.h"
#include "platform/errcode.h"

char dhcp_sysname[33];
std::uint32_t dhcp_ha_switch_over_recovery_flag;

#define DHCP_EVENT_DEBUG(fmt, ...) DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, fmt, ##__VA_ARGS__)

// Only uplink Ethernet ports, trunks, PON ports and ONU-side interfaces matter here.
static bool dhcp_if_type_handled(int type)
{
    return type == PORT_TYPE_GE || type == PORT_TYPE_XE || type == PORT_TYPE_TRUNK ||
           type == PORT_TYPE_GPON || type == PORT_TYPE_GONU;
}

int dhcp_new_if(umsg_if_t *msg)
{
    int type = st_ifindex_get_port_type(msg->ifindex);
    if (!dhcp_if_type_handled(type)) return type;
    DHCP_EVENT_DEBUG("add port %.20s", msg->name);
    uif_t *port = uclient_new_if(msg);
    if (!port) {
        zlog_err("dhcp_new_if Fail to create port %.20s", msg->name);
        return TAVO_ERR;
    }
    if (type < PORT_TYPE_FE || type > PORT_TYPE_CE) return type;
    dhcp_port_init(port);
    if (!port->info) zlog_err("dhcp_new_if Fail to init dhcp on if %.20s %#x", msg->name, 0u);
    return 0;
}

int dhcp_del_if(umsg_if_t *msg)
{
    int type = st_ifindex_get_port_type(msg->ifindex);
    if (!dhcp_if_type_handled(type)) return type;
    DHCP_EVENT_DEBUG("delete if %.20s", msg->name);
    // Whatever the port's type, its DHCP record must not outlive it.
    if (uif_t *port = uif_lookup_by_index(msg->ifindex)) dhcp_port_deinit(port);
    return uclient_del_if(msg);
}

int dhcp_if_status(umsg_if_t *msg)
{
    uif_t *port = uclient_if_status(msg);
    if (!port) {
        zlog_info("unknown Port: %.20s", msg->name);
        return TAVO_NOT_FOUND;
    }
    int type = st_ifindex_get_port_type(port->ifindex);
    bool quiet = type == PORT_TYPE_GONU;
    if (port->status) {
        if (!quiet) zlog_info("Port[%s] state change to up.", port->name);
        else DHCP_BIT_DEBUG(DHCP_DEBUG_INTERFACE, "Port[%s] state change to up.", port->name);
        return 0;
    }
    if (!quiet) zlog_info("Port[%s] state change to down.", port->name);
    else DHCP_BIT_DEBUG(DHCP_DEBUG_INTERFACE, "Port[%s] state change to down.", port->name);
    if (type == PORT_TYPE_GPON) {
        // During a switch-over the PON's clients are still being restored: keep them.
        if (!dhcp_ha_switch_over_recovery_flag)
            zlog_info("remove client info on Port[%s].", port->name);
        else
            zlog_info("remove client info on Port[%s] holding.", port->name);
    }
    return 0;
}

int dhcp_trunk_set(umsg_trunk_t *msg) { return uclient_trunk_set(msg); }

int dhcp_port_add_vlan(uif_t *port, const std::uint8_t *uvlan, int tag)
{
    if (!port->vlan_info) {
        zlog_err("Failed to find vlan info on if %s", port->name);
        return TAVO_NOT_FOUND;
    }
    port->vlan_info->mode = VLAN_MODE_TRUNK;
    return uvlan_port_link(port, uvlan, tag);
}

int dhcp_port_del_vlan(uif_t *port, const std::uint8_t *uvlan, int tag)
{
    if (!port->vlan_info) {
        zlog_err("Failed to find vlan info on port %s", port->name);
        return TAVO_NOT_FOUND;
    }
    return uvlan_port_unlink(port, uvlan, tag);
}

int dhcp_port_set_pvid(uif_t *port, std::uint16_t pvid)
{
    vlan_info_t *vi = port->vlan_info;
    if (!vi) {
        zlog_err("Failed to find vlan info on port %s", port->name);
        return TAVO_NOT_FOUND;
    }
    vi->vid = pvid;
    if (vi->mode == VLAN_MODE_TRUNK) {
        std::memset(vi->tagged, 0, sizeof vi->tagged);
        std::memset(vi->untagged, 0, sizeof vi->untagged);
    }
    vi->mode = VLAN_MODE_ACCESS;
    DHCP_EVENT_DEBUG("Set if %s [%#x] pvid %d.", port->name, port->ifindex, pvid);
    return 0;
}

int dhcp_vlan_is_in_port(uif_t *port, std::uint16_t vid)
{
    if (!port->vlan_info) {
        zlog_err("Failed to find vlan info on port %s", port->name);
        return 0;
    }
    DHCP_BIT_DEBUG(DHCP_DEBUG_PACKET, "find vlan %d on port %s", vid, port->name);
    if (port->vlan_info->vid == vid) return 1;
    return uvlan_is_in_port(port, vid, 0) || uvlan_is_in_port(port, vid, 1);
}

int dhcp_vlan_port(umsg_vlan_port_t *msg)
{
    uif_t *port = uif_lookup_by_index(msg->ifindex);
    const char *name = port ? port->name : st_ifname(msg->ifindex);
    const char *tagtxt = msg->tag ? "untag" : "tag";
    DHCP_EVENT_DEBUG("Recive VLAN port msg: if[%s] op[%d] %s.", name, msg->op, tagtxt);
    int type = st_ifindex_get_port_type(msg->ifindex);
    if (type == PORT_TYPE_GPON || type == PORT_TYPE_GONU) return 0;
    if (!port) {
        zlog_err("Failed to find if, index = %#x", msg->ifindex);
        return TAVO_NOT_FOUND;
    }
    if (!port->vlan_info) {
        zlog_err("Failed to find vlan info, index = %#x", msg->ifindex);
        return TAVO_NOT_FOUND;
    }
    int ret = 0;
    switch (msg->op) {
    case UMSG_VLAN_PORT_ADD: ret = dhcp_port_add_vlan(port, msg->uvlan, msg->tag); break;
    case UMSG_VLAN_PORT_DEL: ret = dhcp_port_del_vlan(port, msg->uvlan, msg->tag); break;
    case UMSG_VLAN_PORT_PVID: ret = dhcp_port_set_pvid(port, msg->pvid); break;
    default: zlog_err("Unkown operation code %d", msg->op); break;
    }
    if (ret != 0) zlog_info("Recive VLAN port msg: if[%s] op[%d] %s.", name, msg->op, tagtxt);
    return 0;
}

int dhcp_vlan_create(umsg_vlan_t *msg)
{
    for (int vid = st_get_min_vlan_in_bitmap(msg->uvlan); vid >= 0;
         vid = st_get_next_vlan_in_bitmap(msg->uvlan, vid)) {
        if (vid == 0) continue;
        if (uvlan_is_exist(static_cast<std::uint16_t>(vid))) continue;
        if (uvlan_create(static_cast<std::uint16_t>(vid)) != 0) {
            zlog_err("Failed to create vlan %d", vid);
            break;
        }
        if (dhcp_vlan_init(static_cast<std::uint16_t>(vid)) != 0) {
            zlog_err("Failed to init dhcp vlan %d", vid);
            break;
        }
    }
    char text[4096];
    st_vlan_bitmap_to_str(msg->uvlan, text, sizeof text);
    zlog_info("dhcp create vlan %s", text);
    return 0;
}

int dhcp_vlan_destroy(umsg_vlan_t *msg)
{
    for (int vid = st_get_min_vlan_in_bitmap(msg->uvlan); vid >= 0;
         vid = st_get_next_vlan_in_bitmap(msg->uvlan, vid)) {
        if (vid == 0 || !uvlan_is_exist(static_cast<std::uint16_t>(vid))) continue;
        dhcp_vlan_free(vlan_get_entry(static_cast<std::uint16_t>(vid)));
        uvlan_del(static_cast<std::uint16_t>(vid));
        DHCP_EVENT_DEBUG("remove vlan %d", vid);
    }
    return 0;
}

int dhcp_update_sysname(const char *name)
{
    std::snprintf(dhcp_sysname, sizeof dhcp_sysname, "%.32s", name ? name : "");
    zlog_info("dhcp hostname change to %s", dhcp_sysname);
    cmd_set_hostname(dhcp_sysname);  // the shell's prompt follows the box's name
    return 0;
}

int dhcp_proc_onu_status_notify(umsg_onu_op_t *msg)
{
    zlog_info("proc %s sn %.9s status %d aging onu related clients info on the port",
              st_ifname(msg->ifindex), msg->onu_sn, msg->status);
    dhcp_snooping_delete_client_info_by_port(msg->ifindex);
    return 0;
}

int dhcp_slot_cfg_sync_start(umsg_cfg_sync_t *msg)
{
    zlog_info("Configuration sync start for slot %d ", (int)msg->slotid);
    dhcp_snoop_proc_slot_recovery(msg->slotid);
    mono_api_cfg_recovery_notify_result("dhcp", (int)msg->slotid, (int)msg->cfg_prio, 0);
    return 0;
}

int dhcp_slot_cfg_sync_end(umsg_cfg_sync_t *msg)
{
    zlog_info("Configuration sync end for slot %d ", (int)msg->slotid);
    return 0;
}

int dhcp_slot_switch_2_active_start(int slot)
{
    zlog_info("process switchover to active on slot %d start", slot);
    dhcp_ha_switch_over_recovery_flag = 1;
    return 0;
}

int dhcp_slot_switch_2_active_end(int slot)
{
    zlog_info("process switchover to active on slot %d ends", slot);
    dhcp_ha_switch_over_recovery_flag = 0;
    return 0;
}

void dhcp_zebra_register(uclient_s *uc)
{
    uc->if_new = dhcp_new_if;
    uc->if_del = dhcp_del_if;
    uc->trunk_set = dhcp_trunk_set;
    uc->if_status = dhcp_if_status;
    uc->vlan_create = dhcp_vlan_create;
    uc->vlan_destroy = dhcp_vlan_destroy;
    uc->vlan_port = dhcp_vlan_port;
    uc->host = dhcp_update_sysname;
    uc->onu_status_notify = dhcp_proc_onu_status_notify;
    uc->slot_switch_2_active_start = dhcp_slot_switch_2_active_start;
    uc->slot_switch_2_active_end = dhcp_slot_switch_2_active_end;
    uc->slot_cfg_sync_start = dhcp_slot_cfg_sync_start;
    uc->slot_cfg_sync_end = dhcp_slot_cfg_sync_end;
}
