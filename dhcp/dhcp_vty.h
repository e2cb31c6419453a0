// The daemon's port and VLAN overview shows.
#pragma once

void dhcp_vty_init();
