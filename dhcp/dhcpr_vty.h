// Commands of the layer-3 relay: the global switch, relay agents and servers
// per routed interface, their shows, and the lines they write back.
#pragma once

struct vty;
struct interface;

void dhcpr_vty_init();

// "ip dhcp-relay" between two "!" lines while the relay is on; returns 0.
int dhcpr_global_config_write(vty *vty);
// The relay lines of one interface block (the caller wrote "interface ...").
int dhcpr_if_config_write(vty *vty, interface *ifp);
