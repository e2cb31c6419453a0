// The daemon's entry into interface configuration ("interface IFNAME" for
// routed VLAN interfaces and device ports), the interface shows, the port and
// VLAN overview shows, and the writers of the interface and port nodes.
#pragma once

struct vty;

void dhcp_vty_init();

// Routed interfaces with a DHCP record: returns the number written.
int dhcp_config_write_l3if(vty *vty);
// Device ports (snooping trust): returns 0.
int dhcp_config_write_port(vty *vty);
