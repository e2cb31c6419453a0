// The DHCPv4 frame dispatcher and the layer-2 (snooping) path.
#pragma once

#include <cstdint>

#include "dhcp/dhcp_pkt.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "lib/wire.h"

// 0 handled (forwarded, passed on or silently dropped); TAVO_PORT for a reply
// on an untrusted port or a request on an uplink; TAVO_VLAN for an unknown
// VLAN; TAVO_ERR for a reply to a relay interface that does not relay.
std::uint32_t dhcp_proc_netlink_l2_packet(uif_t *pif, dhcp_l2_pkt_t *ptr_l2pkt);
std::uint32_t dhcp_l2relay_proc_dhcpv4_packet(uif_t *pif, uvlan_entry_t *vlan_entry, dhcp_l2_pkt_t *ptr_l2pkt);
// Lease seconds from option 51 (host order); ten days when absent.
std::uint32_t dhcp_select_lease_time(bytes_view packet);
// The port reported as a frame's source: an ONU's PON port, else the index itself.
std::uint32_t dhcp_get_l2_packet_source_port(std::uint32_t ifindex);
