// Relay-agent information (option 82) of client requests relayed at layer 2:
// keep/drop/replace of a client's own option, the circuit-id and remote-id
// texts, the circuit-id profiles, and the frame rewrite that follows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/wire.h"

struct uif_t;
struct dhcp_l2_pkt_t;

enum {
    DHCP_OPTION_PROFILE_MAX = 32,     // profile ids 1..32; entry 0 unused
    DHCP_OPTION_PROFILE_NAME_LEN = 32,
    DHCP_OPTION_TAG_VALUE_LEN = 32,
    DHCP_OPTION_TAG_INDEX_MAX = 20,   // the CLI's tag positions
    DHCP_OPTION82_TEXT_LEN = 63,      // circuit-id/remote-id buffers: at most 62 characters
    DHCP_OPTION82_PROFILE_TEXT_MAX = 63,
    DHCP_OPTION82_SUB_CIRCUIT_ID = 1,
    DHCP_OPTION82_SUB_REMOTE_ID = 2,
};

enum DHCP_OPTION_TAG_TYPE {
    DHCP_OPTION_TAG_DELIMITER = 0,
    DHCP_OPTION_TAG_STRING = 1,
    DHCP_OPTION_TAG_VARIABLE = 2,
};

enum DHCP_OPTION_VAR_TYPE {
    DHCP_OPTION_VAR_FIX_STRING = 0,
    DHCP_OPTION_VAR_ACCESS_NODE_ID = 1,
    DHCP_OPTION_VAR_RACK = 2,
    DHCP_OPTION_VAR_FRAME = 3,
    DHCP_OPTION_VAR_SLOT = 4,
    DHCP_OPTION_VAR_PORT = 5,
    DHCP_OPTION_VAR_ONU = 6,
    DHCP_OPTION_VAR_UVLAN = 7,
    DHCP_OPTION_VAR_SVLAN = 8,
    DHCP_OPTION_VAR_SN = 9,
};

struct dhcp_tag_var_s {
    std::uint32_t index;
    DHCP_OPTION_TAG_TYPE type;
    DHCP_OPTION_VAR_TYPE variable;        // for variables
    char value[DHCP_OPTION_TAG_VALUE_LEN];  // for delimiters and strings
};
typedef dhcp_tag_var_s dhcp_option_tag_var_t;

// Tags sorted by index; each tag allocated under DHCP_OPTION_TAG.
using dhcp_option_tag_list_t =
    std::list<dhcp_option_tag_var_t *, dhcp_mt_allocator<dhcp_option_tag_var_t *, &MTYPE_LINK_NODE>>;

struct dhcp_option_profile_s {
    int valid_flag;
    char name[DHCP_OPTION_PROFILE_NAME_LEN];
    dhcp_option_tag_list_t list;
};
typedef dhcp_option_profile_s dhcp_option_profile_t;

extern dhcp_option_profile_t g_dhcp_option_profile[DHCP_OPTION_PROFILE_MAX + 1];

// Profile table. Ids are 1..32; out-of-range ids are refused with TAVO_PARAM
// (or answer 0 / null).
int dhcp_option_get_free_profile_id();                   // lowest free id, or 0
int dhcp_option_find_profile_id_by_name(const char *name);  // id, or 0
int dhcp_option_initial_profile(int id, const char *name);  // 0, TAVO_UNAVAIL, TAVO_EXISTS
int dhcp_option_free_profile(int id);
int dhcp_option_profile_is_occupied(int id);  // 1 when a VLAN's circuit-id names it
int dhcp_option_profile_add_info(int id, std::uint32_t index, DHCP_OPTION_TAG_TYPE type, const char *value,
                                 DHCP_OPTION_VAR_TYPE variable);
int dhcp_option_profile_del_info(int id, std::uint32_t index);  // 0 or TAVO_NOT_FOUND
// The entry of a valid profile, or null (for shows and config writers).
const dhcp_option_profile_t *dhcp_option_profile_get(int id);
// The CLI word of a variable ("access-node-id" ... "sn"); "NULL" for the fixed
// string, "unknown" for anything else.
const char *dhcp_option_var_name(int variable);
// The profile's tags in order, variables as "{word}", into buf (terminated);
// returns buf.
const char *dhcp_option_profile_format(int id, char *buf, std::size_t len);
// Expands a profile for a request on ifindex/vid: the text, or false when the
// result would pass 63 characters. Exposed for the DHCPv6 interface-id.
bool dhcp_option_profile_expand(int id, std::uint32_t ifindex, const char *onu_sn, int vid, char *buf,
                                std::size_t len);

// Option texts for a request that came in on pif in VLAN vid (at most 62
// characters each; buf must hold DHCP_OPTION82_TEXT_LEN bytes).
int dhcp_option82_circuit_id(const uif_t *pif, int vid, char *buf, std::size_t len);
int dhcp_option82_remote_id(int vid, char *buf, std::size_t len);

// The whole option (code, length, sub-options) into out; returns its size, or
// 0 when out is too small.
std::size_t dhcp_option82_build(const uif_t *pif, int vid, bytes_span out);

// packet: the DHCP message from its first byte, with the writable room behind
// it; length: the message's current length.
// Appends our option; returns length plus the bytes added, or length when it
// does not fit.
int dhcp_option82_add(bytes_span packet, int length, const uif_t *pif, int vid);
// Applies the client policy: the new message length, or 0 to drop.
int dhcp_option82_process(bytes_span packet, int length, const uif_t *pif, int vid);
// Overwrites a reply's option 82 with an end option (what follows it is cut
// off for the receiver); returns the bytes of the option, 0 when absent.
int dhcp_option82_remove(bytes_span packet);

// After the DHCP message of a parsed IPv4 frame changed to new_len bytes:
// moves the frame end and rewrites UDP length, UDP checksum, IP total length
// and IP header checksum. 0, or TAVO_ERR when the frame cannot hold it.
int dhcp_l2_pkt_update_dhcp_len(dhcp_l2_pkt_t *ptr_l2pkt, int new_len);
// The layer-2 path's entry for a request on a VLAN with option 82: 0 when the
// frame was rewritten (or kept) and may go on, TAVO_ERR when it is dropped.
int dhcp_process_option_82_info(const uif_t *pif, dhcp_l2_pkt_t *ptr_l2pkt);
