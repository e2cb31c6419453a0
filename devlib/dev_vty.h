// The device library's own commands: entering a VLAN ("vlan <1-4094>") and a
// port ("interface IFNAME"). Daemons that add their work to these commands
// keep the element's handler in a saved pointer and put their own in its
// place, so the elements are not const.
#pragma once

#include "lib/command.h"

// VLAN_NODE: vty->index_sub holds the VLAN id.
extern cmd_element uvlan_vlan_cmd;
// IF_NODE: vty->index_sub holds the port's ifindex, vty->index the port.
extern cmd_element uif_interface_cmd;

// Installs the VLAN and port nodes and both commands in CONFIG_NODE.
void dev_vty_init();
