// What the layer-2 path asks of the layer-3 relay. Relay interfaces come with
// the relay itself; until then none exists, so every hand-off to the relay
// stays unreachable and frames take the layer-2 path.
#pragma once

#include <cstdint>

struct dhcpr_t;  // a relay interface
struct uvlan_entry_t;

int dhcp_relay_is_enable();
int dhcpr_relay_is_enable_on_vlan(uvlan_entry_t *vlan);
dhcpr_t *dhcpr_interface_lookup_by_ipaddr(std::uint32_t nip);
dhcpr_t *dhcpr_interface_get_by_vlan_id(std::uint16_t vid);
int dhcpr_relay_is_enable_on_interface(const dhcpr_t *ifp);
const char *dhcpr_interface_name(const dhcpr_t *ifp);
std::uint16_t dhcpr_interface_vid(const dhcpr_t *ifp);

// Hand-off of a frame to the layer-3 relay. Not reachable while no relay
// interface exists; should it be reached, the frame is dropped with a log line.
int dhcp_l3relay_proc_dhcpv4_packet(struct uif_t *pif, struct dhcp_l2_pkt_t *ptr_l2pkt);
