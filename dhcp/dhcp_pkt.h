// A trapped frame with its forwarding information, parsed in place: offsets
// into the frame and the decoded DHCP fields.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/wire.h"

struct l2_fwd_info_t {
    std::uint32_t rx_ifindex;        // receive port
    std::uint32_t rx_sport_ifindex;  // service port, 0 none
    std::uint16_t rx_trunkid;
    std::uint16_t rx_vlanid;         // receive VLAN
    std::uint16_t relay_vid;
    std::uint16_t srv_vid;           // service VLAN of an ONU flow
    std::uint16_t usr_vid;           // user VLAN of an ONU flow
    std::uint32_t vlan_action;
};

// Addresses are kept as stored on the wire (network order); ports too.
struct dhcp_l2_pkt_t {
    l2_fwd_info_t l2fwd_info;
    std::uint8_t dhcp_client_addr[6];
    std::uint16_t mac_hdr_offset;
    std::uint8_t eth_src_mac[6];
    std::uint8_t eth_dst_mac[6];
    std::uint8_t vlan_depth;
    std::uint16_t vlan_stack[4];
    std::uint16_t eth_ip_proto;
    std::uint16_t ip_version;
    std::uint16_t ip_hdr_offset;
    std::uint16_t ip_hdr_len;
    std::uint16_t ip_data_len;
    std::uint32_t ipv4_src_addr;
    std::uint32_t ipv4_dst_addr;
    std::uint8_t ipv6_src_addr[16];
    std::uint8_t ipv6_dst_addr[16];
    std::uint16_t udp_hdr_offset;
    std::uint16_t udp_src_port;
    std::uint16_t udp_dst_port;
    std::uint16_t dhcp_hdr_offset;
    std::uint16_t dhcp_op_code;
    std::uint16_t dhcp_msg_type;
    std::uint16_t dhcp_msg_len;
    std::uint32_t dhcp_curr_xid;
    std::uint32_t dhcp_curr_ip;
    std::uint32_t dhcp_offer_ip;
    std::uint32_t dhcp_server;
    std::uint32_t dhcp_gateway;
    std::uint16_t raw_packet_len;
    char op12_host_name[32];
    std::uint32_t op50_request_ip;
    char op60_vendor_id[64];
    std::uint8_t op61_client_id[6];
    std::uint32_t op54_dhcp_server;
    std::uint32_t op1_subnet_mask;
    std::uint32_t op3_route_ip;
    std::uint32_t op51_lease_time;
    std::uint32_t op58_renewal_time;
    std::uint32_t op59_rebind_time;
    std::uint8_t *raw_packet;   // first byte of the frame; not owned
    std::uint16_t raw_buf_len;  // bytes writable at raw_packet (room for rewrites)
};

// The frame as far as it was received.
inline bytes_view dhcp_l2_frame(const dhcp_l2_pkt_t *p) { return bytes_view(p->raw_packet, p->raw_packet_len); }
// The DHCP message of a parsed frame, bounded by the frame.
bytes_view dhcp_l2_message(const dhcp_l2_pkt_t *p);

// 0, or TAVO_ERR for a frame that is not DHCPv4/DHCPv6 (logged).
int dhcp_parse_l2_pkt(dhcp_l2_pkt_t *ptr_l2pkt);

// Debug dumps of the parsed record and of the BOOTP header.
void dhcp_dump_l2packet(const dhcp_l2_pkt_t *ptr_l2pkt);
void dhcp_dump_packet(int vlan_id, bytes_view packet, int packet_length);
