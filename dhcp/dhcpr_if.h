// What the layer-2 path asks of the layer-3 relay: the global switch, the
// relay flag of a VLAN, the relay instance of a routed interface (by VLAN or
// by one of its addresses) and the hand-off of a trapped frame.
#pragma once

#include <cstdint>

struct dhcpr_s;
typedef dhcpr_s dhcpr_t;  // the relay instance of a routed interface
struct uvlan_entry_t;
struct uif_t;
struct dhcp_l2_pkt_t;

int dhcp_relay_is_enable();
int dhcpr_relay_is_enable_on_vlan(uvlan_entry_t *vlan);
// The instance of the relay interface owning that address (network order).
dhcpr_t *dhcpr_interface_lookup_by_ipaddr(std::uint32_t nip);
// The instance of "vlanif<vid>", or null.
dhcpr_t *dhcpr_interface_get_by_vlan_id(std::uint16_t vid);
int dhcpr_relay_is_enable_on_interface(const dhcpr_t *ifp);
const char *dhcpr_interface_name(const dhcpr_t *ifp);
std::uint16_t dhcpr_interface_vid(const dhcpr_t *ifp);

// Hand-off of a DHCPv4 frame to the layer-3 relay: 0 or a result code.
int dhcp_l3relay_proc_dhcpv4_packet(uif_t *pif, dhcp_l2_pkt_t *ptr_l2pkt);
