// Memory types of the DHCP group, in the order "show memory" lists them.
#pragma once

#include "lib/memory.h"

DECLARE_MTYPE(DHCP_SERVER)
DECLARE_MTYPE(DHCP_RELAY)
DECLARE_MTYPE(DHCP_LEASES)
DECLARE_MTYPE(DHCP_CLIENT)
DECLARE_MTYPE(DHCP_INFO)
DECLARE_MTYPE(DHCP_PORT)
DECLARE_MTYPE(DHCP_VLAN)
DECLARE_MTYPE(DHCP_OPTION_TAG)
DECLARE_MTYPE(DHCP_OFFER_INFO)
DECLARE_MTYPE(DHCP_V6_PKT)
DECLARE_MTYPE(LINK_NODE)
DECLARE_MTYPE(DHCP_OPTION)
DECLARE_MTYPE(DHCP_PREFIX)
DECLARE_MTYPE(DHCP_IP_SOURCE)

// Referenced from main so that the types are linked in and listed even
// before anything has been allocated under them.
void dhcp_memory_init();
