// Commands of DHCP snooping, option 82, circuit-id profiles, IP source guard
// and port trust; their shows and the lines they write back.
#pragma once

#include "dhcp/dhcp_snoop.h"
#include "lib/command.h"

struct vty;

// A node without commands whose writer carries the global lines. The engine
// writes nodes in number order, and the global switches, then the profiles,
// must be read back before the VLANs that use them.
constexpr node_type DHCP_SNOOP_NODE = static_cast<node_type>(19);
static_assert(DHCP_SNOOP_NODE < VLAN_NODE && DHCP_SNOOP_NODE > DEBUG_NODE);

void dhcp_snoop_vty_init();

// Configuration writers; each returns the number of blocks it wrote.
int dhcp_snoop_global_config(vty *vty);
int dhcp_op82_profile_config(vty *vty);
int dhcp_snoop_vlan_config(vty *vty);
int dhcp_snoop_port_config_write(vty *vty);

// 1 when nothing of the record would be written back.
int dhcp_vlan_config_if_default(const dhcp_vlan_t *rec);

// The layer-2 counters as "show ip dhcp-snooping statistics" prints them.
void dhcp_snoop_statistics_show(vty *vty);
