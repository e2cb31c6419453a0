// DHCPv4 messages through the kernel: a raw packet socket (to a client that
// has no address yet) or a UDP socket, and reading from a DHCP socket.
#pragma once

#include <cstdint>

#include "dhcp/dhcp_opt.h"

// Addresses in network order, ports in host order; ifindex is the kernel's.
int dhcp_send_raw_packet(const dhcp_packet *dhcp_pkt, std::uint32_t source_nip, int source_port,
                         std::uint32_t dest_nip, int dest_port, const std::uint8_t *dest_arp, int ifindex);
int dhcp_send_kernel_packet(const dhcp_packet *dhcp_pkt, std::uint32_t source_nip, int source_port,
                            std::uint32_t dest_nip, int dest_port);
// Bytes read, -1 read error, -2 too short, -3 bad cookie.
int dhcp_recv_kernel_packet(dhcp_packet *packet, int fd);

enum { DHCPV6_RECV_MAX = 65539 };
// Bytes read or -2; `packet` holds DHCPV6_RECV_MAX bytes.
int dhcpv6_recv_kernel_packet(std::uint8_t *packet, int fd);
