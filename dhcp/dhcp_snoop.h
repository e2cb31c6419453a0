// DHCP snooping configuration: the global switches, the per-VLAN and per-port
// records, port trust, and the requests that make the forwarding plane trap
// (or stop trapping) the DHCP frames of a VLAN.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>

#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_stats.h"

// Allocator for the standard containers of the DHCP tables, so that their
// nodes are counted under a memory type like every other allocation.
template <class T, memtype *MT>
struct dhcp_mt_allocator {
    using value_type = T;
    template <class U> struct rebind { using other = dhcp_mt_allocator<U, MT>; };
    dhcp_mt_allocator() noexcept = default;
    template <class U> dhcp_mt_allocator(const dhcp_mt_allocator<U, MT> &) noexcept {}
    T *allocate(std::size_t n)
    {
        if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_alloc();
        void *p = qmalloc(*MT, n * sizeof(T));
        if (!p) throw std::bad_alloc();
        return static_cast<T *>(p);
    }
    void deallocate(T *p, std::size_t) noexcept { qfree(*MT, p); }
    template <class U> bool operator==(const dhcp_mt_allocator<U, MT> &) const noexcept { return true; }
    template <class U> bool operator!=(const dhcp_mt_allocator<U, MT> &) const noexcept { return false; }
};

// ---------------------------------------------------------------- global ----

struct dhcp_global_config_s {
    std::uint8_t snooping_enable;
    std::uint8_t relay_enable;        // written by the relay
    std::uint8_t information;         // option 82
    std::uint8_t information_ipv6;    // option 18
    std::uint8_t dai;
    std::uint8_t ipsg;
    std::uint8_t client_op82_policy;  // DHCPPORTOPTIONPOLICY_*: 0 replace, 1 keep, 2 drop
    std::uint8_t client_op18_policy;
    std::uint8_t client_op37_policy;
    std::uint8_t reply_mc_keep;
    std::uint32_t write_delay;
    char *tftp_ip;                    // owned, DHCP_INFO
    char *tftp_file;                  // owned, DHCP_INFO
    std::uint32_t write_expire;
};
typedef dhcp_global_config_s dhcp_global_config_t;

extern dhcp_global_config_t g_dhcp_global_cfg;

enum { DHCP_ID_TEXT_MAX = 63 };
// 63 characters; the 64th byte stays zero so that a full-length text is
// still terminated.
extern char g_access_node_id[DHCP_ID_TEXT_MAX + 1];
extern char g_remot_id[DHCP_ID_TEXT_MAX + 1];
extern std::uint32_t g_dhcp_max_session;

enum { DHCP_MAX_SESSION_DEFAULT = 4000 };
#define DHCP_ACCESS_NODE_ID_INIT "PON"
#define DHCP_ACCESS_NODE_ID_DEFAULT "GPON-OLT"  // what the "no" form restores

// Sets the start values and creates the binding table; exits the process
// with status 1 when the table cannot be created.
void dhcp_snoop_init();

int dhcp_snoop_is_enable();
void dhcp_snoop_enable_set(int enable);

void dhcp_op82_enable(int enable);
int dhcp_op82_is_enable();
void dhcpv6_op18_enable(int enable);
int dhcpv6_option_is_enable();

void dhcp_snoop_set_remote_id(int enable_flag);
const char *dhcp_snoop_get_remote_id();
void dhcp_snoop_set_access_node_id(const char *text);
const char *dhcp_snoop_get_access_node_id();

void dhcp_snoop_set_client_op82_policy(int policy);
int dhcp_snoop_get_client_op82_policy();
int dhcp_snoop_get_client_op18_policy();
int dhcp_snoop_get_client_op37_policy();
// "replace", "keep", "drop", or "UNKNOWN ERROR".
const char *dhcp_snoop_policy_str(int policy);

void dhcp_reply_set_multicast_keep_enable();
void dhcp_reply_set_multicast_keep_disable();
int dhcp_reply_is_multicast_keep();

void dhcp_set_max_session_id(std::uint32_t max_session);
std::uint32_t dhcp_get_max_session_id();

// ------------------------------------------------------------------ VLAN ----

typedef enum {
    DHCP_OPTION_NORMAL = 0,
    DHCP_OPTION_SYSNAME = 1,
    DHCP_OPTION_USER = 2,
    DHCP_OPTION_PROFILE = 3,
    DHCP_OPTION_ONU_AUTH = 4,
} st_dhcp_option_type_t;

struct dhcp_vlan_s {
    std::uint8_t snooping_enable;
    std::uint8_t relay_enable;
    std::uint32_t server_ip;
    std::uint32_t helper_ip;
    dhcp_pkt_statistic_t stats;
    std::uint8_t option82_enable;
    std::uint8_t policy;
    st_dhcp_option_type_t circuit_type;
    st_dhcp_option_type_t remote_type;
    std::uint8_t circuit_profile_id;       // <1-20>, written by the profile form of the command
    char *circuit_id;                      // owned, DHCP_VLAN, or null
    char *remote_id;                       // owned, DHCP_VLAN, or null
    std::uint8_t ipverify_mode;
    std::uint8_t ipv6_snooping_enable;
    std::uint8_t ipv6_relay_enable;
    std::uint8_t ipv6_server_ip[16];
    std::uint8_t ipv6_helper_ip[16];
    std::uint8_t option18_enable;
    std::uint8_t option37_enable;
    std::uint8_t ipv6_policy;
    std::uint8_t ipv6_interfaceid_type;    // st_dhcp_option_type_t
    std::uint8_t ipv6_remoteid_type;       // st_dhcp_option_type_t
    std::uint8_t ipv6_interface_profile_id;
    char *ipv6_interface_id;               // owned, DHCP_VLAN, or null
    char *ipv6_remote_id;                  // owned, DHCP_VLAN, or null
};
typedef dhcp_vlan_s dhcp_vlan_t;

// The record hung off a VLAN entry; null for a null VLAN or one without record.
dhcp_vlan_t *dhcp_get_vlan_info(uvlan_entry_t *vlan);
dhcp_vlan_t *dhcp_vlan_info_get_by_vid(std::uint16_t vid);

// 0, TAVO_ERR (no such VLAN) or TAVO_MEMORY. An existing record is kept.
int dhcp_vlan_init(std::uint16_t vid);
// Frees the VLAN's record and its texts (the VLAN is going away).
void dhcp_vlan_free(uvlan_entry_t *vlan);

int dhcp_vlan_snoop_set(uvlan_entry_t *vlan, int enable);
int dhcpv6_vlan_snoop_set(uvlan_entry_t *vlan, int enable);

int dhcp_vlan_snooping_check(uvlan_entry_t *vlan);
int dhcpv6_vlan_snooping_check(uvlan_entry_t *vlan);
int dhcp_vlan_op82_check(uvlan_entry_t *vlan);
int dhcp_vlan_op18_check(uvlan_entry_t *vlan);
int dhcp_vlan_op37_check(uvlan_entry_t *vlan);

int dhcp_vlan_op82_set(uvlan_entry_t *vlan, int enable);
int dhcp_vlan_op18_set(uvlan_entry_t *vlan, int enable);
int dhcp_vlan_op37_set(uvlan_entry_t *vlan, int enable);

// type is an st_dhcp_option_type_t; str is copied (null leaves no text,
// except for option 37 where it means the system name).
// "normal", "sysname", "user", "profile", "onu auth" or "UNKNOWN ERROR".
const char *dhcp_option_type_word(int type);
int dhcp_vlan_op82_circuitid_set(uvlan_entry_t *vlan, int type, const char *str);
int dhcp_vlan_op82_remoteid_set(uvlan_entry_t *vlan, int type, const char *str);
int dhcp_vlan_op18_interfaceid_set(uvlan_entry_t *vlan, int type, const char *str);
int dhcp_vlan_op37_remoteid_set(uvlan_entry_t *vlan, int type, const char *str);

// ------------------------------------------------------------------ port ----

struct dhcp_client_info_s;

// The clients learned on one port, kept by the binding table (which owns
// the clients); walk it with dhcp_port_client_first/next.
struct dhcp_client_list_s {
    std::uint32_t ifindex;
};
typedef dhcp_client_list_s dhcp_client_list_t;

struct dhcp_port_s {
    uif_t *pif;                   // not owned
    std::uint8_t trust;
    std::uint8_t dai_trust;
    std::uint8_t ipsg_trust;
    dhcp_client_list_t *client;   // GE, XE, GPON and GONU ports only
    dhcp_pkt_statistic_t pkt_stats;
};
typedef dhcp_port_s dhcp_port_t;

dhcp_port_t *dhcp_port_malloc();
void dhcp_port_free(dhcp_port_t *port);
// The port's record, created when missing; null when it cannot be allocated.
dhcp_port_t *dhcp_port_init(uif_t *pif);
void dhcp_port_deinit(uif_t *pif);
// The record, or null (logged).
dhcp_port_t *dhcp_port_get_info(uif_t *pif);

int dhcp_port_trust_set(uif_t *pif, int trust);
int dhcp_port_trust_check(uif_t *pif);
// Every port is trusted while global snooping is off.
int dhcp_snoop_port_is_trust(uif_t *pif);
// An ONU-side interface takes the trust of the PON port that carries it.
int dhcp_port_trust_onu_check(uif_t *pif);
int dhcp_port_is_uplink(uif_t *pif);

int dhcp_get_onu_phy_info(std::uint32_t ifindex, int *shelf, int *slot, int *port, int *onu);
std::uint32_t dhcp_get_onu_ifindex(int shelf, int slot, int port, int onu);
std::uint32_t dhcp_get_pon_ifindex_from_onu_ifindex(std::uint32_t ifindex);

// Clients whose port is the list's, in table order (VLAN, then MAC).
dhcp_client_info_s *dhcp_port_client_first(const dhcp_client_list_t *list);
dhcp_client_info_s *dhcp_port_client_next(const dhcp_client_list_t *list, const dhcp_client_info_s *client);
std::size_t dhcp_port_client_count(const dhcp_client_list_t *list);

// ------------------------------------------------------- forwarding plane ----

enum {
    HAL_MSG_DHCP_VLAN_ENABLE = 321,
    HAL_MSG_DHCPV6_VLAN_ENABLE = 330,
    HAL_MSG_DHCP_LEN = 12,  // hal_msg_dhcp_s
};

// Trap (1) or stop trapping (0) the DHCP frames of a VLAN, on every line card
// or on one. 0, a channel failure code, or the forwarding plane's result.
int hal_dhcp_vlan_enable(std::uint16_t vid, std::uint32_t enable);
int hal_dhcp_vlan_enable_slot(std::uint16_t vid, std::uint32_t enable, std::uint32_t slot_id);
int hal_dhcpv6_vlan_enable(std::uint16_t vid, std::uint32_t enable, std::uint32_t slot_id);

// A line card asks for the configuration again: its VLAN traps are replayed.
int dhcp_snoop_proc_slot_recovery(std::uint32_t slot_id);
