// Layer-3 DHCP relay: per routed interface the relay instance, its servers,
// its relay (giaddr) addresses and sockets, the per-client offer list that
// ties a transaction to the server it went to, and the DHCPv4 forwarding
// between clients (trapped frames) and servers (UDP through the kernel).
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <netinet/in.h>
#include <sys/types.h>

#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_if.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_stats.h"
#include "dhcp/dhcpr_if.h"

struct thread;
struct thread_master;
struct uif_t;

enum { DHCP_SERVER_PORT = 67, DHCP_CLIENT_PORT = 68, DHCPV6_SERVER_PORT = 547 };
// The NAK built over a refused REQUEST: 240 fixed bytes, options 54, 53, END.
enum { DHCPR_NAK_LEN = 250, DHCPR_NAK_OPTIONS_LEN = 10 };
// The command layer's cap on relay interfaces (its refusal text names it).
enum { DHCPR_VLANIF_MAX = 16 };

// ---------------------------------------------------------------- records ----

struct relay_server_info_s {
    prefix server_ip;
    std::uint32_t tx_bootp_request;
    std::uint32_t rx_bootp_reply;
    std::uint32_t tx_discovery;
    std::uint32_t tx_request;
    std::uint32_t tx_decline;
    std::uint32_t tx_inform;
    std::uint32_t tx_release;
    std::uint32_t tx_drop;
    std::uint32_t rx_offer;
    std::uint32_t rx_ack;
    std::uint32_t rx_nack;
    std::uint32_t rx_drop;
    std::uint32_t others;
};
typedef relay_server_info_s relay_server_info_t;

struct relay_ip_info_s {
    prefix relay_ip;
    std::int32_t relay_fd;  // 0 when none
    std::uint32_t relay_fd_pkts_rx;
    std::uint32_t relay_fd_pkts_tx;
    std::uint32_t relay_fd_pkts_drop;
    std::uint32_t tx_bootp_request;
    std::uint32_t rx_bootp_reply;
    std::uint32_t tx_discovery;
    std::uint32_t tx_request;
    std::uint32_t tx_decline;
    std::uint32_t tx_inform;
    std::uint32_t tx_release;
    std::uint32_t tx_drop;
    std::uint32_t rx_offer;
    std::uint32_t rx_ack;
    std::uint32_t rx_nack;
    std::uint32_t rx_drop;
    std::uint32_t others;
    dhcpv6_pkt_statistic_t dhcpv6_pack_sta;
    std::uint32_t time_last_discovery;
    std::uint32_t time_last_offer;
    std::uint32_t cnt_xid_request_new;
    std::uint32_t cnt_xid_offer_match;
    std::uint32_t cnt_xid_offer_notmatch;
};
typedef relay_ip_info_s relay_ip_info_t;

struct dhcp_relay_offer_info_s {
    std::uint32_t xid;               // as stored in the message
    std::uint32_t relay_agent_ip;    // network order
    std::uint32_t relay_server_ip;   // network order
    std::uint32_t offer_client_ip;   // network order, 0 until an OFFER
};
typedef dhcp_relay_offer_info_s dhcp_relay_offer_info_t;

// Lists own their entries (allocated under DHCP_SERVER / TMP).
using dhcpr_server_list_t =
    std::list<relay_server_info_t *, dhcp_mt_allocator<relay_server_info_t *, &MTYPE_LINK_NODE>>;
using dhcpr_relay_ip_list_t = std::list<relay_ip_info_t *, dhcp_mt_allocator<relay_ip_info_t *, &MTYPE_LINK_NODE>>;

struct dhcpr_s {
    std::int32_t server_fd;  // -1 or 0 when closed
    std::uint32_t server_fd_pkts_rx;
    std::uint32_t server_fd_pkts_tx;
    std::uint32_t server_fd_pkts_drop;
    std::uint32_t kernel_ifindex;
    std::uint32_t local_ipaddr;  // network order
    std::uint8_t local_mac[6];
    interface *ifp;
    dhcpr_server_list_t server_list;
    dhcpr_relay_ip_list_t relay_ip_list;
    thread *t;
    thread *server_t;
    dhcp_pkt_statistic_t if_stats;
};
// dhcpr_t is the same record (declared by dhcpr_if.h for the layer-2 path).

// Descriptor of a message read on a socket.
struct dhcp_l3_pkt_s {
    interface *rx_interface;
    std::uint32_t vlan_id;
    std::uint8_t dhcp_client_addr[6];
    std::uint16_t dhcp_op_code;
    std::uint16_t dhcp_msg_type;
    std::uint32_t dhcp_curr_xid;
    std::uint32_t dhcp_curr_ip;
    std::uint32_t dhcp_offer_ip;
    std::uint32_t dhcp_server;
    std::uint32_t dhcp_gateway;
    std::uint16_t dhcp_msg_len;
    const std::uint8_t *dhcp_packet;
};
typedef dhcp_l3_pkt_s dhcp_l3_pkt_t;

// ---------------------------------------------------------------- globals ----

extern std::uint32_t g_dhcpr_vlanif_count;
extern char dhcprelay_sysname[32];

// The loop the relay's read tasks go on (the main thread master). Also
// called by dhcp_l3if_init's caller at start-up.
void dhcpr_init(thread_master *m);

// Seams for tests: the UDP send to a server and the frame sent to a client.
using dhcpr_sendto_fn = ssize_t (*)(int fd, const std::uint8_t *msg, std::size_t len, const sockaddr_in *to);
void dhcpr_set_sendto(dhcpr_sendto_fn fn);  // null restores sendto(2)

// -------------------------------------------------------- global switch ----

// Stores the switch; turning it off disables the relay on every interface
// and, with snooping off, untrusts the trusted uplink Ethernet ports.
void dhcp_relay_enable_set(int enable);
// int dhcp_relay_is_enable();  -- in dhcpr_if.h

// ------------------------------------------------------ VLAN trap switch ----

int dhcp_vlan_l3relay_enable(std::uint16_t vlan_id);
int dhcp_vlan_l3relay_disable(std::uint16_t vlan_id);
int dhcpv6_vlan_l3relay_enable(std::uint16_t vlan_id);
int dhcpv6_vlan_l3relay_disable(std::uint16_t vlan_id);

// ----------------------------------------------------- relay on interface ----
// 0, TAVO_PORT (not initialised / relay not on), TAVO_MEMORY.

int dhcpr_interface_enable(interface *ifp);
int dhcpr_interface_disable(interface *ifp);
int ipv6_dhcpr_interface_enable(interface *ifp);
int ipv6_dhcpr_interface_disable(interface *ifp);

// The instance when the interface is initialised and DHCPv4 or DHCPv6 relay
// is on, else null.
dhcpr_t *dhcpr_info_get_by_interface(const interface *ifp);
dhcpr_t *dhcpr_get_info_by_interface(const interface *ifp);
int dhcpr_relay_is_enable_on_interface(const interface *ifp);
int dhcpv6r_relay_is_enable_on_interface(const interface *ifp);
int dhcpr_relay_is_enable_by_ifname(const char *name);
int dhcpr_relay_is_enable_on_vlan(std::uint16_t vlan_id);

// ---------------------------------------------------------------- servers ----
// server_ip in network order.

// 0 (added, or already there), TAVO_PORT (relay not on), TAVO_MEMORY,
// or the socket start result (TAVO_ERR) for the first server.
int dhcpr_add_helper(interface *ifp, std::uint32_t server_ip);
// 0, TAVO_PORT (relay not on), TAVO_NOT_FOUND (no server on the interface).
int dhcpr_del_helper(interface *ifp, std::uint32_t server_ip);
int ipv6_dhcpr_add_helper(interface *ifp, const in6_addr &server_ip);
int ipv6_dhcpr_del_helper(interface *ifp, const in6_addr &server_ip);
void dhcpr_init_server(relay_server_info_t *server, const prefix *p);
void ipv6_dhcpr_init_server(relay_server_info_t *server, const prefix *p);
std::uint32_t dhcpr_get_relay_server_ipv4_count(const dhcpr_t *dhcpr);
std::uint32_t dhcpr_get_relay_server_ipv6_count(const dhcpr_t *dhcpr);
relay_server_info_t *dhcpr_find_server_info_by_ipv4(const dhcpr_t *dhcpr, std::uint32_t ip);
relay_server_info_t *dhcpr_get_relay_server_by_ip(const dhcpr_t *dhcpr, std::uint32_t ip);
relay_server_info_t *ipv6_dhcpr_find_server_info(const dhcpr_t *dhcpr, const in6_addr &ip);

// --------------------------------------------------------- relay addresses ----

int dhcpr_add_relay_ip(interface *ifp, const prefix *p);
int dhcpr_remove_relay_ip(interface *ifp, const prefix *p);
int dhcpr_update_add_relay_ip_all(interface *ifp);
int dhcpr_clear_relay_ip_all(interface *ifp);
relay_ip_info_t *dhcpr_find_relay_ip_info_by_ipv4(const dhcpr_t *dhcpr, std::uint32_t ip);
// The first IPv4 relay address whose prefix holds the address, else 0.
std::uint32_t dhcpr_get_if_same_prefix_ip(const dhcpr_t *dhcpr, std::uint32_t assigned_ipv4_addr);

// ---------------------------------------------------------------- sockets ----

int dhcpr_start_helper(interface *ifp, dhcpr_t *dhcpr);
int dhcpv6r_start_helper(interface *ifp, dhcpr_t *dhcpr);
int dhcpr_close_socket(dhcpr_t *dhcpr);
int dhcp6r_close_socket(dhcpr_t *dhcpr);
int dhcpr_reset_helper(interface *ifp);
int dhcpv6r_reset_helper(interface *ifp);
int dhcpr_recv_server(thread *t);
int dhcpr_recv_client(thread *t);
// 1 when the kernel knows a link of that name.
int st_product_kernel_if_exist(const char *ifname);

// ---------------------------------------------------------------- lookups ----

interface *dhcpr_interface_lookup_by_kifindex(std::uint32_t kernel_ifindex);
interface *dhcpr_interface_lookup_by_uifindex(std::uint32_t uifindex);
interface *dhcpr_interface_lookup_by_name(const char *name);
// The relay interface owning the IPv4 address (connected), or null.
// (dhcpr_interface_lookup_by_ipaddr of dhcpr_if.h answers its instance.)
interface *dhcpr_if_lookup_by_ipaddr(std::uint32_t ip);
interface *ipv6_dhcpr_interface_lookup_by_ipaddr(const in6_addr &ip);
// "vlanif<vid>", or null.
interface *dhcpr_if_get_by_vlan_id(std::uint16_t vlan_id);

// ------------------------------------------------------- interface events ----

void dhcpr_process_interface_up(interface *ifp);
void dhcpr_process_interface_down(interface *ifp);
void dhcpr_proc_helper_recovery();

// ------------------------------------------------------------ offer info ----

int dhcpr_initial_offer_info_list(interface *relay_if, dhcp_client_info_t *client, std::uint32_t xid);
int dhcpr_add_relay_info(dhcp_client_info_t *client, std::uint32_t xid, std::uint32_t relay_ip,
                         std::uint32_t server_ip);
dhcp_relay_offer_info_t *dhcpr_get_relay_offer_info(const dhcp_client_info_t *client, std::uint32_t xid,
                                                    std::uint32_t relay_ip, std::uint32_t server_ip);
int dhcpr_update_relay_info_offer_ip(dhcp_client_info_t *client, std::uint32_t xid, std::uint32_t relay_ip,
                                     std::uint32_t server_ip, std::uint32_t offered);
void dhcpr_update_client_offer_info_xid(dhcp_client_info_t *client, std::uint32_t xid);
void dhcpr_clear_client_offer_info(dhcp_client_info_t *client);
void dhcpr_deinitial_offer_info_list(dhcp_client_info_t *client);
std::size_t dhcpr_offer_info_count(const dhcp_client_info_t *client);

// ------------------------------------------------------------- statistics ----

void dhcp_pkt_statistic_on_relay_server(relay_server_info_t *server, int msg_type, int rx);
void dhcp_pkt_statistic_on_relay_ip(relay_ip_info_t *relay_ip, int msg_type, int rx);
int dhcpr_relay_server_statistic(dhcpr_t *dhcpr, std::uint32_t server_ip, int msg_type);
int dhcpr_relay_agent_statistic(dhcpr_t *dhcpr, std::uint32_t agent_ip, int msg_type);
void dhcp_client_satistic_server_rx(std::uint16_t vlan, const std::uint8_t mac[6], int msg_type);
void dhcp_client_satistic_server_tx(std::uint16_t vlan, const std::uint8_t mac[6], int msg_type);
void dhcp_client_satistic_client_rx(std::uint16_t vlan, const std::uint8_t mac[6], int msg_type);
void dhcp_client_satistic_client_tx(std::uint16_t vlan, const std::uint8_t mac[6], int msg_type);

// -------------------------------------------------------------- forwarding ----

int dhcp_l3relay_proc_dhcpv4_from_client(uif_t *pif, interface *relay_if, dhcp_l2_pkt_t *l2pkt);
int dhcp_l3relay_proc_dhcpv4_from_server(interface *relay_if, dhcp_l2_pkt_t *l2pkt);
int dhcpr_proc_discovery_msg(interface *relay_if, dhcp_l2_pkt_t *l2pkt);
int dhcpr_proc_request_msg(uif_t *pif, interface *relay_if, dhcp_l2_pkt_t *l2pkt);
int dhcpr_proc_offer_msg(interface *relay_if, dhcp_l2_pkt_t *l2pkt);
int dhcpr_proc_ack_msg(interface *relay_if, dhcp_l2_pkt_t *l2pkt);
// dhcp_msg: the message inside the trapped frame (giaddr rewritten in place).
int dhcpr_send_pkt_upstream(interface *relay_ifp, bytes_span dhcp_msg, std::uint32_t relay_agent_ip,
                            std::uint32_t relay_server_ip, int dhcp_msg_type);
int dhcpr_pass_to_server(bytes_view dhcp_pkt, int server_fd, std::uint32_t client_addr,
                         relay_server_info_t *server_info);
// 0 when the whole message was sent, else sent minus length.
int dhcpr_sendto_ip4(int sock, bytes_view msg, const sockaddr_in *to);
int dhcpr_pass_to_client(std::uint16_t vlan_id, dhcpr_t *dhcpr, bytes_span dhcp_pkt);
int dhcpr_reply_nak_to_client(uif_t *pif, std::uint16_t vlan_id, dhcpr_t *dhcpr, bytes_span dhcp_pkt,
                              std::uint32_t op50_request_ip);
// Frames to a client on the VLAN (IPv4/UDP 67 -> 68 around the message).
int dhcpr_send_l2_pkt_to_client(bytes_view dhcp_pkt, std::uint16_t vlan_id, const std::uint8_t src_mac[6],
                                const std::uint8_t dst_mac[6], std::uint32_t src_ip, std::uint32_t dst_ip);
int dhcpr_send_l2_nak_pkt_to_client(uif_t *pif, bytes_view dhcp_pkt, std::uint16_t vlan_id,
                                    const std::uint8_t src_mac[6], const std::uint8_t dst_mac[6],
                                    std::uint32_t src_ip, std::uint32_t dst_ip);
int dhcp_get_packet_type(bytes_view dhcp_packet);
int dhcp_parse_l3_pkt(dhcp_l3_pkt_t *l3pkt, interface *ifp, bytes_view dhcp_msg);
// "discovery" ... "release active", "UNKNOWN ERROR".
const char *dhcpr_msg_type_str(int type);
