// Handlers of the device manager's notifications.
#pragma once

#include <cstdint>
#include "devlib/uclient.h"

extern char dhcp_sysname[33];
extern std::uint32_t dhcp_ha_switch_over_recovery_flag;

int dhcp_new_if(umsg_if_t *msg);
int dhcp_del_if(umsg_if_t *msg);
int dhcp_if_status(umsg_if_t *msg);
int dhcp_trunk_set(umsg_trunk_t *msg);
int dhcp_vlan_create(umsg_vlan_t *msg);
int dhcp_vlan_destroy(umsg_vlan_t *msg);
int dhcp_vlan_port(umsg_vlan_port_t *msg);
int dhcp_update_sysname(const char *name);
int dhcp_proc_onu_status_notify(umsg_onu_op_t *msg);
int dhcp_slot_cfg_sync_start(umsg_cfg_sync_t *msg);
int dhcp_slot_cfg_sync_end(umsg_cfg_sync_t *msg);
int dhcp_slot_switch_2_active_start(int slot);
int dhcp_slot_switch_2_active_end(int slot);

int dhcp_port_add_vlan(uif_t *port, const std::uint8_t *uvlan, int tag);
int dhcp_port_del_vlan(uif_t *port, const std::uint8_t *uvlan, int tag);
int dhcp_port_set_pvid(uif_t *port, std::uint16_t pvid);
int dhcp_vlan_is_in_port(uif_t *port, std::uint16_t vid);

// Fills the notification slots of the device-manager client.
void dhcp_zebra_register(uclient_s *uc);
