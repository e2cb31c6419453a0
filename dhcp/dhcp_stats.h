// DHCP packet counters: the records embedded in port, VLAN, relay and client
// records, the two global sets, the counting rules and the text dump.
#pragma once

#include <cstdint>

#include "lib/wire.h"

// Field order is part of the record (tables and shows walk it in this order).
struct dhcp_pkt_statistic_s {
    std::uint32_t dhcp_rx_bootp_request;
    std::uint32_t dhcp_rx_bootp_reply;
    std::uint32_t dhcp_rx_discovery;
    std::uint32_t dhcp_rx_offer;
    std::uint32_t dhcp_rx_request;
    std::uint32_t dhcp_rx_ack;
    std::uint32_t dhcp_rx_release;
    std::uint32_t dhcp_rx_nak;
    std::uint32_t dhcp_rx_decline;
    std::uint32_t dhcp_rx_inform;
    std::uint32_t dhcp_rx_others;
    std::uint32_t dhcp_rx_total;
    std::uint32_t dhcp_rx_discard;
    std::uint32_t dhcp_drop_mac_check;
    std::uint32_t dhcp_drop_untrust_reply;
    std::uint32_t dhcp_drop_request_conflict;
    std::uint32_t dhcp_drop_resource_limit;
    std::uint32_t dhcp_drop_client_missing;
    std::uint32_t dhcp_drop_xid_mismatch;
    std::uint32_t dhcp_drop_untrust_relay_from;
    std::uint32_t dhcp_tx_bootp_request;
    std::uint32_t dhcp_tx_bootp_reply;
    std::uint32_t dhcp_tx_discovery;
    std::uint32_t dhcp_tx_offer;
    std::uint32_t dhcp_tx_request;
    std::uint32_t dhcp_tx_ack;
    std::uint32_t dhcp_tx_release;
    std::uint32_t dhcp_tx_nak;
    std::uint32_t dhcp_tx_decline;
    std::uint32_t dhcp_tx_inform;
    std::uint32_t dhcp_tx_others;
    std::uint32_t dhcp_tx_total;
    std::uint32_t dhcp_tx_discard;
};
typedef dhcp_pkt_statistic_s dhcp_pkt_statistic_t;

struct dhcpv6_pkt_statistic_s {
    std::uint32_t dhcpv6_rx_total_request;
    std::uint32_t dhcpv6_rx_total_reply;
    std::uint32_t dhcpv6_rx_solicit;
    std::uint32_t dhcpv6_rx_advertise;
    std::uint32_t dhcpv6_rx_request;
    std::uint32_t dhcpv6_rx_confirm;
    std::uint32_t dhcpv6_rx_renew;
    std::uint32_t dhcpv6_rx_rebind;
    std::uint32_t dhcpv6_rx_reply;
    std::uint32_t dhcpv6_rx_release;
    std::uint32_t dhcpv6_rx_decline;
    std::uint32_t dhcpv6_rx_reconfigure;
    std::uint32_t dhcpv6_rx_inform_request;
    std::uint32_t dhcpv6_rx_relay_forw;
    std::uint32_t dhcpv6_rx_relay_repl;
    std::uint32_t dhcpv6_rx_others;
    std::uint32_t dhcpv6_rx_total;
    std::uint32_t dhcpv6_rx_discard;
    std::uint32_t dhcpv6_drop_mac_check;
    std::uint32_t dhcpv6_drop_untrust_reply;
    std::uint32_t dhcpv6_drop_request_conflict;
    std::uint32_t dhcpv6_drop_resource_limit;
    std::uint32_t dhcpv6_drop_client_missing;
    std::uint32_t dhcpv6_drop_xid_mismatch;
    std::uint32_t dhcpv6_drop_untrust_relay_from;
    std::uint32_t dhcpv6_tx_total_request;
    std::uint32_t dhcpv6_tx_total_reply;
    std::uint32_t dhcpv6_tx_solicit;
    std::uint32_t dhcpv6_tx_advertise;
    std::uint32_t dhcpv6_tx_request;
    std::uint32_t dhcpv6_tx_confirm;
    std::uint32_t dhcpv6_tx_renew;
    std::uint32_t dhcpv6_tx_rebind;
    std::uint32_t dhcpv6_tx_reply;
    std::uint32_t dhcpv6_tx_release;
    std::uint32_t dhcpv6_tx_decline;
    std::uint32_t dhcpv6_tx_reconfigure;
    std::uint32_t dhcpv6_tx_inform_request;
    std::uint32_t dhcpv6_tx_relay_forw;
    std::uint32_t dhcpv6_tx_relay_repl;
    std::uint32_t dhcpv6_tx_others;
    std::uint32_t dhcpv6_tx_total;
    std::uint32_t dhcpv6_tx_discard;
};
typedef dhcpv6_pkt_statistic_s dhcpv6_pkt_statistic_t;

enum { DHCPV6_PKT_RX = 0, DHCPV6_PKT_TX = 1, DHCPV6_PKT_DROP = 2 };

// Frames handled by the layer-2 path, and packets handled over UDP sockets.
extern dhcp_pkt_statistic_t g_dhcp_stats_l2_pkt;
extern dhcp_pkt_statistic_t g_dhcp_stats_udp_pkt;

void dhcp_pkt_statistic_init();

// By op code and message type into one direction of a set; totals untouched.
// A null set is logged and nothing counted.
void dhcp_pkt_static_rx_set(dhcp_pkt_statistic_t *stats, bytes_view dhcp_pkt, int msg_type);
void dhcp_pkt_static_tx_set(dhcp_pkt_statistic_t *stats, bytes_view dhcp_pkt, int msg_type);

// dhcp_pkt: the DHCP message (from its BOOTP header on).
void dhcp_pkt_statistic_l2_pkt_rx(bytes_view dhcp_pkt, int msg_type, std::uint32_t ifindex, int vlan_id);
void dhcp_pkt_statistic_l2_pkt_tx(bytes_view dhcp_pkt, int msg_type, std::uint32_t ifindex, int vlan_id);
void dhcp_pkt_statistic_untrust_drop(int msg_type, std::uint32_t ifindex, int vlan_id);

// Addresses and ports as stored on the wire; only used for debug lines.
void dhcp_pkt_statistic_udp_pkt_rx(bytes_view dhcp_pkt, std::uint32_t my_ipaddress, std::uint16_t my_port);
void dhcp_pkt_statistic_udp_pkt_tx(bytes_view dhcp_pkt, std::uint32_t server_ipaddress, std::uint16_t my_port);
void dhcp_pkt_statistic_udp_pkt_rx_discard(bytes_view dhcp_pkt);
void dhcp_pkt_statistic_rx_discard();

// Per-client counting: total plus the message's class and type. rxflag
// non-zero counts the receive side.
void dhcp_client_pkt_statistic(dhcp_pkt_statistic_t *static_info, int msg_type, int rxflag);

// Renders a set as the binding-detail table. The text lives in one static
// buffer that the next call overwrites.
const char *dhcp_pkt_statiss_dump(const dhcp_pkt_statistic_t *stats);
