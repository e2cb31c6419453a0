// The client binding table: one record per (VLAN, MAC) learned from the DHCP
// exchanges, the session list that caps concurrent exchanges, deletes and
// ageing, and the texts the binding shows print.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_stats.h"

struct vty;

// Room of the binding table.
enum { DHCP_CLIENT_TREE_MAX = 114688 };

// Bind types.
enum {
    DHCP_BIND_TYPE_SNOOP = 1,
    DHCP_BIND_TYPE_RELAY = 2,
    DHCP_BIND_TYPE_STATIC = 3,
    DHCP_BIND_TYPE_SERVER = 4,
};
// "snoop", "relay", "static", "server", else "UNKNOWN ERROR".
const char *dhcp_bind_type_str(std::uint32_t type);

enum {
    DHCP_CLIENT_LEASE_INIT = 60,  // seconds a client without ACK is kept
    DHCP_VLAN_STACK_MAX = 3,
};

// The relay's record of one offer (xid, relay address, server, offered
// address); entries are allocated under DHCP_OFFER_INFO and owned by the list.
struct dhcp_relay_offer_info_s;
using dhcp_offer_info_list_t =
    std::list<dhcp_relay_offer_info_s *, dhcp_mt_allocator<dhcp_relay_offer_info_s *, &MTYPE_LINK_NODE>>;

// Addresses are kept as stored on the wire (network order); times are system
// up-time in seconds; lease times in seconds, host order.
struct dhcp_client_info_s {
    std::uint8_t mac[6];
    std::uint16_t vid;
    std::uint32_t client_ifindex;
    std::uint32_t client_sport_ifindex;
    std::uint32_t server_ifindex;
    std::uint32_t server_trunk_id;
    std::uint8_t req_mac[6];
    std::uint32_t req_ip_addr;
    std::uint8_t req_ipv6_addr[16];
    std::uint32_t v4_bind_type;
    std::uint32_t dhcp_v4;
    std::uint32_t ip_addr;
    std::uint32_t ip_server_addr;
    std::uint32_t v4_lease_time;
    std::uint32_t v4_create_time;
    std::uint32_t v4_create_msg_type;
    std::uint32_t v4_last_update_msg;
    std::uint32_t v4_last_update_time;
    std::uint32_t v6_bind_type;
    std::uint32_t dhcp_v6;
    std::uint8_t ipv6_addr[16];
    std::uint8_t ipv6_server_addr[16];
    std::uint32_t v6_lease_time;
    std::uint32_t v6_create_time;
    std::uint32_t v6_create_msg_type;
    std::uint32_t v6_last_update_msg;
    std::uint32_t v6_last_update_time;
    std::uint8_t v6_relay_ip[16];
    std::uint32_t v6_trans_id;
    std::uint32_t local_relay_ip;
    std::uint32_t in_vlan_stack_depth;
    std::uint16_t in_vlan_stack[DHCP_VLAN_STACK_MAX];
    std::uint32_t out_vlan_stack_depth;
    std::uint16_t out_vlan_stack[DHCP_VLAN_STACK_MAX];
    std::uint32_t v4_curr_xid;        // as stored in the message
    std::uint32_t ciaddr;
    std::uint32_t yiaddr;
    std::uint32_t siaddr_nip;
    std::uint32_t gateway_nip;
    char op12_host_name[32];
    std::uint32_t op50_request_ip;
    char op60_vendor_id[64];
    std::uint8_t op61_client_id[6];
    std::uint32_t op1_subnet_mask;
    std::uint32_t op3_route_ip;
    std::uint32_t op51_lease_time;
    std::uint32_t op54_dhcp_server;
    std::uint32_t op58_renewal_time;
    std::uint32_t op59_rebind_time;
    std::uint8_t client_identifier[6];
    std::uint32_t valid_time;
    std::uint8_t ia_address[16];
    dhcp_pkt_statistic_t statis_client;
    dhcp_pkt_statistic_t statis_server;
    dhcp_offer_info_list_t *offer_info_list;  // null on session copies

    // Book-keeping of the table's indexes, not part of the binding. Code that
    // changes client_ifindex outside this module calls
    // dhcp_client_info_reindex() afterwards.
    std::uint32_t idx_ifindex;  // the port the client is indexed under
    std::uint32_t idx_slot;     // its place in the table's scan array
};
typedef dhcp_client_info_s dhcp_client_info_t;

// Filter of bulk deletes, ageing and filtered shows.
enum {
    DHCP_CLIENT_FILTER_SHOW = 1,
    DHCP_CLIENT_FILTER_DELETE = 2,      // delete what matches, or age
    DHCP_CLIENT_FILTER_DELETE_ALL = 3,
};
struct dhcp_client_filter_s {
    std::uint32_t filter_action;
    struct vty *vty;
    std::uint32_t timestamp;  // up-time for ageing; 0: no ageing test
    std::uint8_t mac[6];
    std::uint16_t vid;
    std::uint32_t ifindex;
    std::uint32_t type;
    std::uint32_t detail_flag;
};
typedef dhcp_client_filter_s dhcp_client_filter_t;

// ------------------------------------------------------------- the table ----

// Creates the empty table with room for `capacity` records; false on failure.
bool dhcp_client_tree_create(std::size_t capacity);
// Drops every record and session without any side effect (shutdown, tests).
void dhcp_client_tree_destroy();

// Up-time in seconds, the clock of creation, update and ageing. Tests may
// put their own clock in place (null restores the system's).
std::uint32_t dhcp_client_uptime();
void dhcp_client_set_clock(std::uint32_t (*uptime_seconds)());

// Orders by VLAN id, then by the MAC bytes as memcmp does.
int dhcp_client_info_cmp(const dhcp_client_info_t *a, const dhcp_client_info_t *b);
void dhcp_client_info_init(dhcp_client_info_t *client, const std::uint8_t mac[6], std::uint16_t vlan_id);

dhcp_client_info_t *dhcp_lookup_client_lease_info(const std::uint8_t mac[6], std::uint16_t vid);
std::uint32_t dhcp_snooping_get_client_count();
// In table order.
dhcp_client_info_t *dhcp_client_info_top();
dhcp_client_info_t *dhcp_client_info_next(const dhcp_client_info_t *client);
// Brings the port index up to date after client_ifindex was written directly.
void dhcp_client_info_reindex(dhcp_client_info_t *client);

// The client's port: ifindex (0 when unknown) or the interface (null).
std::uint32_t dhcp_snooping_get_client_ifindex(const std::uint8_t mac[6], std::uint16_t vid);
uif_t *dhcp_snooping_get_client_interface_by_vlan_mac(const std::uint8_t mac[6], std::uint16_t vid);
// The VLAN tags of the first client with this MAC as ":%d" or ":%d.%d";
// 0, or TAVO_NOT_FOUND (buf left empty).
int dhcp_get_client_vlaninfo_by_mac_addr(const std::uint8_t mac[6], char *buf, std::size_t len);

// ------------------------------------------------------------- sessions ----

dhcp_client_info_t *dhcp_session_client_lookup(std::uint16_t vlan_id, const std::uint8_t mac[6]);
// The session of the client's key, reserved when missing; null when the
// list is full.
dhcp_client_info_t *dhcp_session_list_reserve_client_info(const dhcp_client_info_t *client);
void dhcp_session_list_free_client_info(const dhcp_client_info_t *client);
std::uint32_t dhcp_session_list_count();

// ------------------------------------------------ learning from messages ----

// A zeroed record with the key, a 60 s lease and the creation time, inserted
// into the table; null when it cannot be allocated or the table is full.
dhcp_client_info_t *dhcp_new_client_lease_info(const std::uint8_t mac[6], std::uint16_t vlan_id,
                                               std::uint32_t msg_type);
// Creates or refreshes the client of a DHCPv4 message; null when no session
// could be reserved for a client without address.
dhcp_client_info_t *dhcp_add_client_lease_info(std::uint32_t client_type, const dhcp_l2_pkt_t *l2pkt);
// Records a message of a known client (by vid and chaddr); null when unknown.
dhcp_client_info_t *dhcp_update_client_lease_info(std::uint16_t vid, std::uint32_t client_type,
                                                  const dhcp_l2_pkt_t *l2pkt);
void dhcp_update_client_info_from_request_msg(dhcp_client_info_t *client, const dhcp_l2_pkt_t *l2pkt);
void dhcp_update_client_info_from_reply_msg(dhcp_client_info_t *client, const dhcp_l2_pkt_t *l2pkt);
void dhcp_client_update_relasetime(dhcp_client_info_t *client, std::uint32_t lease_time);

// DHCPv6: the key is (rx VLAN, the frame's client address); the address is
// 16 bytes, null when the message carries none.
dhcp_client_info_t *dhcp_add_ipv6_client_lease_info(std::uint32_t client_type, std::uint32_t leasetime,
                                                    const dhcp_l2_pkt_t *l2pkt);
dhcp_client_info_t *dhcp_update_ipv6_client_lease_info(std::uint32_t client_type, const std::uint8_t mac[6],
                                                       std::uint16_t vid, const std::uint8_t *ipv6addr,
                                                       std::uint32_t leasetime);
void dhcp_update_ipv6_client_lease_info_from_request(dhcp_client_info_t *client, std::uint32_t client_type,
                                                     std::uint32_t leasetime, const dhcp_l2_pkt_t *l2pkt);

// --------------------------------------------------------------- deletes ----

void dhcp_client_info_delete(dhcp_client_info_t *client);
// Also withdraws the client's IP source guard entry. 0 or TAVO_NOT_FOUND.
int dhcp_delete_client_by_vlan_mac(std::uint16_t vlan, const std::uint8_t mac[6]);
int dhcp_snooping_delete_client_info_by_vlan_mac(const std::uint8_t mac[6], std::uint16_t vid);
int dhcp_snooping_delete_client_info_by_mac(const std::uint8_t mac[6]);
int dhcp_snooping_delete_client_info_by_vlan(std::uint16_t vid);
int dhcp_snooping_delete_client_info_by_type(std::uint32_t bind_type);
int dhcp_snooping_delete_client_info_by_port(std::uint32_t ifindex);
int dhcp_snooping_delete_all_client_info();
// The 5-second run of the binding ageing.
int dhcp_snooping_aging_client_info();

// Walks the table in key order applying the filter; returns how many
// clients it deleted (-1 for a null filter).
int dhcp_snooping_travers_client_by_filter(dhcp_client_filter_t *filter);
// 1 deleted, 0 kept (a null client ends a walk), -1 null filter.
int dhcp_snooping_delete_client_by_filter(dhcp_client_info_t *client, dhcp_client_filter_t *filter);

// ------------------------------------------------------------------ shows ----

// The record as text (one static buffer, overwritten by the next call);
// forVtyflag non-zero uses the terminal's line ends.
const char *dhcp_client_info_dump(const dhcp_client_info_t *client, int forVtyflag);
const char *dhcpv6_client_info_dump(const dhcp_client_info_t *client, int vlan_id, int forVtyflag);
// Zero arguments match everything.
void dhcp_cli_show_binding_info(struct vty *vty, const std::uint8_t *mac, std::uint16_t vlan, std::uint32_t ifindex,
                                std::uint32_t type, std::uint32_t detail_flag);
void dhcp_cli_show_binding_detail_info(struct vty *vty, const std::uint8_t mac[6], std::uint16_t vlan_id);
void dhcp_cli_show_client_server_info(struct vty *vty, const dhcp_client_info_t *client);
