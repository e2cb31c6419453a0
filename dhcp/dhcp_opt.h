// DHCPv4 message layout and option codec. A message is handled as a byte
// buffer (received messages may be shorter than the full layout); every field
// is read and written at its explicit offset, options are walked within the
// bytes actually present.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/wire.h"

// dhcp_packet field offsets (network byte order throughout).
enum {
    DHCP_OFF_OP = 0,
    DHCP_OFF_HTYPE = 1,
    DHCP_OFF_HLEN = 2,
    DHCP_OFF_HOPS = 3,
    DHCP_OFF_XID = 4,
    DHCP_OFF_SECS = 8,
    DHCP_OFF_FLAGS = 10,
    DHCP_OFF_CIADDR = 12,
    DHCP_OFF_YIADDR = 16,
    DHCP_OFF_SIADDR = 20,
    DHCP_OFF_GIADDR = 24,
    DHCP_OFF_CHADDR = 28,
    DHCP_OFF_SNAME = 44,
    DHCP_OFF_FILE = 108,
    DHCP_OFF_COOKIE = 236,
    DHCP_OFF_OPTIONS = 240,

    DHCP_CHADDR_LEN = 16,
    DHCP_SNAME_LEN = 64,
    DHCP_FILE_LEN = 128,
    DHCP_OPTIONS_LEN = 388,
    DHCP_PACKET_SIZE = 628,
    // The daemon never builds an option area longer than this.
    DHCP_OPTIONS_BUILD_MAX = 308,
    DHCP_FIXED_HDR_LEN = 240,
};

constexpr std::uint32_t DHCP_MAGIC = 0x63825363;
enum { BOOTREQUEST = 1, BOOTREPLY = 2, DHCP_BROADCAST_FLAG = 0x8000 };

// The whole message as built by the daemon.
struct dhcp_packet {
    std::uint8_t raw[DHCP_PACKET_SIZE];
};

enum {
    DHCP_PADDING = 0,
    DHCP_SUBNET = 1,
    DHCP_ROUTER = 3,
    DHCP_DNS_SERVER = 6,
    DHCP_HOST_NAME = 12,
    DHCP_DOMAIN_NAME = 15,
    DHCP_NAME_SERVICE = 44,
    DHCP_NETBIOS_TYPE = 46,
    DHCP_REQUESTED_IP = 50,
    DHCP_LEASE_TIME = 51,
    DHCP_OPTION_OVERLOAD = 52,
    DHCP_MESSAGE_TYPE = 53,
    DHCP_SERVER_ID = 54,
    DHCP_PARAM_REQ = 55,
    DHCP_MAX_SIZE = 57,
    DHCP_T1 = 58,
    DHCP_T2 = 59,
    DHCP_VENDOR = 60,
    DHCP_CLIENT_ID = 61,
    DHCP_AGENT_OPTIONS = 82,
    DHCP_END = 255,
};

enum {
    DHCPDISCOVER = 1,
    DHCPOFFER = 2,
    DHCPREQUEST = 3,
    DHCPDECLINE = 4,
    DHCPACK = 5,
    DHCPNAK = 6,
    DHCPRELEASE = 7,
    DHCPINFORM = 8,
};

// Value types and marks of the simple-option table.
enum {
    OPTION_IP = 1,
    OPTION_IP_PAIR,
    OPTION_STRING,
    OPTION_STRING_HOST,
    OPTION_U8,
    OPTION_U16,
    OPTION_U32,
    OPTION_S32,
    OPTION_BIN,
    OPTION_STATIC_ROUTES,
    OPTION_6RD,
    OPTION_TYPE_MASK = 0x0f,
    OPTION_REQ = 0x10,
    OPTION_LIST = 0x20,
};

struct dhcp_optflag {
    std::uint8_t flags;
    std::uint8_t code;
};

extern const dhcp_optflag dhcp_optflags[];
extern const std::uint8_t dhcp_option_lengths[];
// The table entry of a code, or null.
const dhcp_optflag *dhcp_optflag_find(int code);

// Decision codes for the relay-agent option of a frame.
enum { DHCP_OPCODE_DROP = 0, DHCP_OPCODE_FORWARD = 1, DHCP_OPCODE_ADD = 2, DHCP_OPCODE_REMOVE = 3 };
enum { DHCPPORTOPTIONPOLICY_REPLACE = 0, DHCPPORTOPTIONPOLICY_KEEP = 1, DHCPPORTOPTIONPOLICY_DROP = 2 };

// Option scan: honours overload into file and sname; the first occurrence
// wins. The value lies within `packet`.
bool dhcp_option_value(bytes_view packet, int code, bytes_view &value);
const std::uint8_t *dhcp_get_option(bytes_view packet, int code);
int dhcp_get_option_lengh(bytes_view packet, int code);

// Index of the end option in an option area; -1 when the area holds none.
int dhcp_end_option(bytes_view options);
// Appends a ready TLV (code, length, value) to a whole message; refused when
// the option area would pass the build limit. 0 or TAVO_FULL/TAVO_PARAM.
int dhcp_add_binary_option(bytes_span packet, bytes_view addopt);
// Appends an option whose length follows from its type in dhcp_optflags.
int dhcp_add_simple_option(bytes_span packet, std::uint8_t code, std::uint32_t data);

// A server pool's option list: one node per code, ascending.
struct option_set {
    std::uint8_t *data;  // code, length, value
    option_set *next;
};
option_set *dhcp_find_option(option_set *opt_list, std::uint8_t code);
void dhcp_attach_option(option_set **opt_list, const dhcp_optflag *optflag, const char *buffer, int length);
void dhcp_detach_option(option_set **opt_list, std::uint8_t code);
void dhcp_free_options(option_set **opt_list);

// Typed getters. The mac and string getters return shared static buffers.
std::uint32_t dhcp_pkt_get_option_integer(bytes_view packet, int code);  // host order
std::uint32_t dhcp_pkt_get_option_ip(bytes_view packet, int code);       // as stored
const std::uint8_t *dhcp_pkt_get_option_mac(bytes_view packet, int code);
const char *dhcp_pkt_get_option_string(bytes_view packet, int code);

std::uint32_t dhcp_get_op1_subnet(bytes_view packet);
std::uint32_t dhcp_get_op3_route_ip(bytes_view packet);
std::uint32_t dhcp_get_op50_request_ip(bytes_view packet);
std::uint32_t dhcp_get_op54_dhcp_server(bytes_view packet);
std::uint32_t dhcp_get_op51_lease_time(bytes_view packet);
std::uint32_t dhcp_get_op58_renewal_time(bytes_view packet);
std::uint32_t dhcp_get_op59_rebind_time(bytes_view packet);
const char *dhcp_get_op12_host_name(bytes_view packet);
const char *dhcp_get_op60_vendor(bytes_view packet);
const std::uint8_t *dhcp_get_op61_client_id(bytes_view packet);

// Option 53 of a message, 0 when absent or empty.
int dhcp_get_msg_type(bytes_view packet);
int dhcp_check_msg_type(int dhcp_msg_type, int trust_port);
void dhcp_init_header(dhcp_packet *packet, int type);

// Where the client-side policies for options 82, 18 and 37 come from; the
// snooping configuration installs its getters. Unset getters count as replace.
struct dhcp_option_policy_source {
    int (*op82)();
    int (*op18)();
    int (*op37)();
};
void dhcp_set_option_policy_source(const dhcp_option_policy_source &src);
int dhcp_get_packet_opcode(int is_from_client, int is_trust, int is_option_exist, int option);

const char *dhcp_msg_type_str(int type);
void dhcp_dump_option(int vlan_id, bytes_view packet);
