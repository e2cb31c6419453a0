// Sending whole frames back through the forwarding plane.
#pragma once

#include <cstdint>

#include "dhcp/dhcp_pkt.h"

enum { DHCP_IFINDEX_ALL = 0xffffffffu, DHCP_HAL_FRAME_MAX = 1600, DHCP_FLAG_TO_CLIENT = 129 };

// The trunk towards the controller on a line card.
enum { DHCP_BACKPLANE_TRUNK = 100 };

int dhcp_tx_l2_packet(const dhcp_l2_pkt_t *ptr_l2pkt, std::uint32_t src_ifindex, std::uint32_t out_ifindex,
                      int slotid);
int dhcp_send_l2_packet(const std::uint8_t *data, std::uint16_t vid, std::uint32_t ifindex,
                        std::uint16_t layer2_pkt_len, std::uint32_t src_ifindex, int slotid);
// Floods a client frame to the uplink side (ports and trunks that are up).
void dhcp_send_l2_packet_to_server(const dhcp_l2_pkt_t *ptr_l2pkt, std::uint32_t src_ifindex);
// Delivers a server frame to the client's port found in the binding table; a
// broadcast reply is turned into a unicast to the client unless the
// keep-multicast-reply switch is on.
int dhcp_send_l2_packet_to_client(dhcp_l2_pkt_t *ptr_l2pkt, std::uint32_t src_ifindex);
// Sends a ready frame towards the uplinks of a VLAN (from the client side) or
// to one port (from the server side).
int dhcp_packet_send(const std::uint8_t *buf, std::uint16_t vid, std::uint16_t len, std::uint32_t out_ifindex,
                     int is_from_client);
