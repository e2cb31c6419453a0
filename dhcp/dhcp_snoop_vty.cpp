#include "dhcp/dhcp_snoop_vty.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "devlib/dev_vty.h"
#include "devlib/mac.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_stats.h"
#include "lib/vty.h"
#include "platform/errcode.h"

namespace {

enum {
    VLAN_ID_FIRST = 1,
    VLAN_ID_LAST = 4094,
    PROFILE_NAME_MAX = DHCP_OPTION_PROFILE_NAME_LEN - 1,  // 31
    TAG_STRING_MAX = DHCP_OPTION_TAG_VALUE_LEN - 1,       // 31
    OPTION_TEXT_MIN = 3,
    OPTION_TEXT_MAX = DHCP_ID_TEXT_MAX,                   // 63
};

// Characters that would not survive a round trip through a configuration file.
const char PROFILE_BAD_CHARS[] = " &;/\\\"";

const char *enable_word(int on) { return on ? "enable" : "disable"; }

long arg_long(const char *s) { return std::strtol(s, nullptr, 10); }

// A setter's non-zero result, as the operator sees it.
int setter_result(vty *vty, int ret)
{
    if (ret == 0) return CMD_SUCCESS;
    vty_out(vty, "%s%s", st_errcode_get_str(ret), VTY_NEWLINE);
    return CMD_ERR_REFUSED;
}

// The VLAN of a VLAN_NODE session, looked up each time: the device manager
// may have removed it meanwhile (the setters then refuse a null VLAN).
uvlan_entry_t *node_vlan(vty *vty) { return vlan_get_entry(static_cast<std::uint16_t>(vty->index_sub)); }

bool snooping_required(vty *vty)
{
    if (dhcp_snoop_is_enable()) return true;
    vty_out(vty, "dhcp-snooping is not enable%s", VTY_NEWLINE);
    return false;
}

bool profile_name_ok(vty *vty, const char *name)
{
    if (std::strlen(name) > PROFILE_NAME_MAX) {
        vty_out(vty, "%% Max proifle name is %d%s", int(PROFILE_NAME_MAX), VTY_NEWLINE);
        return false;
    }
    if (std::strpbrk(name, PROFILE_BAD_CHARS)) {
        vty_out(vty, "%% Profile name can't include space or character: &;/\\\"%s", VTY_NEWLINE);
        return false;
    }
    return true;
}

bool option_text_ok(vty *vty, const char *text)
{
    std::size_t n = std::strlen(text);
    if (n >= OPTION_TEXT_MIN && n <= OPTION_TEXT_MAX) return true;
    vty_out(vty, "%% String length is between 3 and 63%s", VTY_NEWLINE);
    return false;
}

// Delimiters are written back as the words that set them.
const char *delimiter_word(const char *value)
{
    if (std::strcmp(value, " ") == 0) return "space";
    if (std::strcmp(value, ".") == 0) return "dot";
    return value;
}

void write_profile_tags(vty *vty, const dhcp_option_profile_t *p)
{
    for (const dhcp_option_tag_var_t *tag : p->list) {
        int index = static_cast<int>(tag->index);
        switch (tag->type) {
        case DHCP_OPTION_TAG_VARIABLE:
            vty_out(vty, " circuit-id index %d variable %s %s", index, dhcp_option_var_name(tag->variable),
                    VTY_NEWLINE);
            break;
        case DHCP_OPTION_TAG_DELIMITER:
            vty_out(vty, " circuit-id index %d delimiter %s %s", index, delimiter_word(tag->value), VTY_NEWLINE);
            break;
        case DHCP_OPTION_TAG_STRING:
            vty_out(vty, " circuit-id index %d string %s %s", index, tag->value, VTY_NEWLINE);
            break;
        }
    }
}

std::string vlan_port_names(std::uint16_t vid, int tag)
{
    std::string names;
    for (uif_t *pif = uif_first(); pif; pif = uif_next(pif)) {
        if (!uvlan_is_in_port(pif, vid, tag)) continue;
        if (!names.empty()) names += ' ';
        names += pif->name;
    }
    return names;
}

}  // namespace

#define DHCP_STR "DHCP information\n"
#define SNOOP_STR "DHCP snooping\n"
#define SNOOP6_STR "DHCPv6 snooping\n"
#define DHCPV6_STR "DHCPv6 information\n"
#define OP82_STR "Relay agent information (option 82)\n"
#define CIRCUIT_STR "Circuit id of the relay agent information\n"
#define REMOTE_STR "Remote id of the relay agent information\n"
#define PROFILE_STR "Circuit-id profile\n"
#define INDEX_STR "Tag of the circuit id\nTag position\n"
#define OP18_STR "Interface id (option 18)\n"
#define OP37_STR "Remote id (option 37)\n"
#define BINDING_STR "Client bindings\n"

// ------------------------------------------------------------- global ----

DEFUN(dhcp_snoop_enable_cli, dhcp_snoop_enable_cmd, "ip dhcp-snooping", IP_STR SNOOP_STR)
{
    dhcp_snoop_enable_set(1);
    return CMD_SUCCESS;
}

DEFUN(no_dhcp_snoop_enable_cli, no_dhcp_snoop_enable_cmd, "no ip dhcp-snooping", NO_STR IP_STR SNOOP_STR)
{
    dhcp_snoop_enable_set(0);
    return CMD_SUCCESS;
}

// The remote id follows the option-82 switch, as the management store applies it.
DEFUN(dhcp_op82_enable_cli, dhcp_op82_enable_cmd, "ip dhcp information", IP_STR DHCP_STR OP82_STR)
{
    dhcp_op82_enable(1);
    dhcp_snoop_set_remote_id(1);
    return CMD_SUCCESS;
}

DEFUN(no_dhcp_op82_enable_cli, no_dhcp_op82_enable_cmd, "no ip dhcp information",
      NO_STR IP_STR DHCP_STR OP82_STR)
{
    dhcp_op82_enable(0);
    dhcp_snoop_set_remote_id(0);
    return CMD_SUCCESS;
}

DEFUN(dhcpv6_op18_enable_cli, dhcpv6_op18_enable_cmd, "ip dhcpv6 information", IP_STR DHCPV6_STR OP18_STR)
{
    dhcpv6_op18_enable(1);
    return CMD_SUCCESS;
}

DEFUN(no_dhcpv6_op18_enable_cli, no_dhcpv6_op18_enable_cmd, "no ip dhcpv6 information",
      NO_STR IP_STR DHCPV6_STR OP18_STR)
{
    dhcpv6_op18_enable(0);
    return CMD_SUCCESS;
}

DEFUN(dhcp_access_node_id_cli, dhcp_access_node_id_cmd, "ip dhcp information access-node-id string STRING",
      IP_STR DHCP_STR OP82_STR "Access node id used in circuit ids\nA fixed text\nThe text\n")
{
    if (!snooping_required(vty)) return CMD_ERR_REFUSED;
    if (std::strlen(argv[0]) > OPTION_TEXT_MAX) {
        vty_out(vty, "Length of string should less than %d %s", int(OPTION_TEXT_MAX), VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    dhcp_snoop_set_access_node_id(argv[0]);
    return CMD_SUCCESS;
}

DEFUN(no_dhcp_access_node_id_cli, no_dhcp_access_node_id_cmd, "no ip dhcp information access-node-id",
      NO_STR IP_STR DHCP_STR OP82_STR "Access node id used in circuit ids\n")
{
    if (!snooping_required(vty)) return CMD_ERR_REFUSED;
    dhcp_snoop_set_access_node_id(DHCP_ACCESS_NODE_ID_DEFAULT);
    return CMD_SUCCESS;
}

DEFUN(dhcp_client_info_cli, dhcp_client_info_cmd, "ip dhcp information client-info (drop|keep|replace)",
      IP_STR DHCP_STR OP82_STR
      "What to do with a client's own option 82\nDrop the request, keep it, or replace it by ours\n")
{
    if (!snooping_required(vty)) return CMD_ERR_REFUSED;
    int policy = argv[0][0] == 'd' ? DHCPPORTOPTIONPOLICY_DROP
                 : argv[0][0] == 'k' ? DHCPPORTOPTIONPOLICY_KEEP
                                     : DHCPPORTOPTIONPOLICY_REPLACE;
    dhcp_snoop_set_client_op82_policy(policy);
    return CMD_SUCCESS;
}

DEFUN(dhcp_reply_mc_keep_cli, dhcp_reply_mc_keep_cmd, "ip dhcp reply multicast keep",
      IP_STR DHCP_STR "Server replies\nBroadcast replies\nKeep them broadcast\n")
{
    dhcp_reply_set_multicast_keep_enable();
    return CMD_SUCCESS;
}

DEFUN(no_dhcp_reply_mc_keep_cli, no_dhcp_reply_mc_keep_cmd, "no ip dhcp reply multicast keep",
      NO_STR IP_STR DHCP_STR "Server replies\nBroadcast replies\nKeep them broadcast\n")
{
    dhcp_reply_set_multicast_keep_disable();
    return CMD_SUCCESS;
}

DEFUN(dhcp_max_session_cli, dhcp_max_session_cmd, "ip dhcp max-session <5-10000>",
      IP_STR DHCP_STR "Clients in the middle of an exchange at once\nNumber of sessions\n")
{
    dhcp_set_max_session_id(static_cast<std::uint32_t>(arg_long(argv[0])));
    return CMD_SUCCESS;
}

// Only the stored switch: the forwarding plane is not asked to trap the VLAN.
DEFUN(dhcp_snoop_vlan_cli, dhcp_snoop_vlan_cmd, "ip dhcp-snooping vlan <2-4094>",
      IP_STR SNOOP_STR "VLAN\nVLAN id\n")
{
    long vid = arg_long(argv[0]);
    uvlan_entry_t *vlan = vlan_get_entry(static_cast<std::uint16_t>(vid));
    if (!vlan) {
        vty_out(vty, "!vlan %ld is not existed.%s", vid, VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    if (!rec) {
        vty_out(vty, "Failed to get dhcp info on vlan %ld is not existed.%s", vid, VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    rec->snooping_enable = 1;
    return CMD_SUCCESS;
}

DEFUN(no_dhcp_snoop_vlan_cli, no_dhcp_snoop_vlan_cmd, "no ip dhcp-snooping vlan <2-4094>",
      NO_STR IP_STR SNOOP_STR "VLAN\nVLAN id\n")
{
    long vid = arg_long(argv[0]);
    uvlan_entry_t *vlan = vlan_get_entry(static_cast<std::uint16_t>(vid));
    if (!vlan) {
        vty_out(vty, "vlan %ld is not existed.", vid);
        return CMD_ERR_REFUSED;
    }
    dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    if (!rec) {
        vty_out(vty, "Failed to get dhcp info on vlan %ld is not existed.%s", vid, VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    rec->snooping_enable = 0;
    return CMD_SUCCESS;
}

// The device library's own "vlan" handler, which ours runs first.
static cmd_handler dhcp_vlan_cmd_func;

static int dhcp_vlan_cli(const cmd_element *self, vty *vty, int argc, const char *argv[])
{
    int ret = dhcp_vlan_cmd_func ? dhcp_vlan_cmd_func(self, vty, argc, argv) : CMD_SUCCESS;
    if (ret != CMD_SUCCESS) return ret;
    return setter_result(vty, dhcp_vlan_init(static_cast<std::uint16_t>(arg_long(argv[0]))));
}

DEFUN(dhcp_op82_profile_cli, dhcp_op82_profile_cmd, "ip dhcp information profile PROFILE",
      IP_STR DHCP_STR OP82_STR PROFILE_STR "Profile name\n")
{
    const char *name = argv[0];
    if (!profile_name_ok(vty, name)) return CMD_ERR_REFUSED;
    int id = dhcp_option_find_profile_id_by_name(name);
    if (!id) {
        id = dhcp_option_get_free_profile_id();
        if (!id) {
            vty_out(vty, "%% Reach max profile count %d! %s", int(DHCP_OPTION_PROFILE_MAX), VTY_NEWLINE);
            return CMD_ERR_REFUSED;
        }
        int ret = dhcp_option_initial_profile(id, name);
        if (ret != 0) return setter_result(vty, ret);
    }
    vty->node = DHCP_OP82_PROFILE_NODE;
    vty->index = nullptr;
    vty->index_sub = id;
    return CMD_SUCCESS;
}

DEFUN(no_dhcp_op82_profile_cli, no_dhcp_op82_profile_cmd, "no ip dhcp information profile PROFILE",
      NO_STR IP_STR DHCP_STR OP82_STR PROFILE_STR "Profile name\n")
{
    const char *name = argv[0];
    if (!profile_name_ok(vty, name)) return CMD_ERR_REFUSED;
    int id = dhcp_option_find_profile_id_by_name(name);
    if (!id) {
        vty_out(vty, "%% Profile %s doesn't exist %s", name, VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    if (dhcp_option_profile_is_occupied(id)) {
        vty_out(vty, "%% Profile %s is in use, can not delete. %s", name, VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    return setter_result(vty, dhcp_option_free_profile(id));
}

// ------------------------------------------------------------ profile ----

DEFUN(circuit_id_variable_cli, circuit_id_variable_cmd,
      "circuit-id index <1-20> variable (access-node-id|rack|frame|slot|port|onu|uvlan|svlan|sn)",
      CIRCUIT_STR INDEX_STR "A value taken from the request\nThe value\n")
{
    static const struct {
        const char *prefix;
        DHCP_OPTION_VAR_TYPE var;
    } words[] = {
        {"a", DHCP_OPTION_VAR_ACCESS_NODE_ID}, {"r", DHCP_OPTION_VAR_RACK},  {"f", DHCP_OPTION_VAR_FRAME},
        {"sl", DHCP_OPTION_VAR_SLOT},          {"p", DHCP_OPTION_VAR_PORT},  {"o", DHCP_OPTION_VAR_ONU},
        {"u", DHCP_OPTION_VAR_UVLAN},          {"sv", DHCP_OPTION_VAR_SVLAN}, {"sn", DHCP_OPTION_VAR_SN},
    };
    for (const auto &w : words)
        if (std::strncmp(argv[1], w.prefix, std::strlen(w.prefix)) == 0)
            return setter_result(vty, dhcp_option_profile_add_info(int(vty->index_sub), std::uint32_t(arg_long(argv[0])),
                                                                   DHCP_OPTION_TAG_VARIABLE, nullptr, w.var));
    vty_out(vty, "%% Failed to get variable type %s %s", argv[1], VTY_NEWLINE);
    return CMD_ERR_REFUSED;
}

DEFUN(circuit_id_delimiter_cli, circuit_id_delimiter_cmd, "circuit-id index <1-20> delimiter (space|,|/|:|dot)",
      CIRCUIT_STR INDEX_STR "A delimiter\nThe delimiter\n")
{
    const char *value = argv[1][0] == 's' ? " " : argv[1][0] == 'd' ? "." : argv[1];
    return setter_result(vty, dhcp_option_profile_add_info(int(vty->index_sub), std::uint32_t(arg_long(argv[0])),
                                                           DHCP_OPTION_TAG_DELIMITER, value,
                                                           DHCP_OPTION_VAR_FIX_STRING));
}

DEFUN(circuit_id_string_cli, circuit_id_string_cmd, "circuit-id index <1-20> string STRING",
      CIRCUIT_STR INDEX_STR "A fixed text\nThe text\n")
{
    if (std::strlen(argv[1]) > TAG_STRING_MAX) {
        vty_out(vty, "%% Max proifle name is %d%s", int(TAG_STRING_MAX), VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    if (std::strpbrk(argv[1], PROFILE_BAD_CHARS)) {
        vty_out(vty, "%% String can't include space or character: &;/\\\"%s", VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    return setter_result(vty, dhcp_option_profile_add_info(int(vty->index_sub), std::uint32_t(arg_long(argv[0])),
                                                           DHCP_OPTION_TAG_STRING, argv[1],
                                                           DHCP_OPTION_VAR_FIX_STRING));
}

DEFUN(no_circuit_id_cli, no_circuit_id_cmd, "no circuit-id index <1-20>", NO_STR CIRCUIT_STR INDEX_STR)
{
    long index = arg_long(argv[0]);
    int ret = dhcp_option_profile_del_info(int(vty->index_sub), std::uint32_t(index));
    if (ret == TAVO_NOT_FOUND) {
        vty_out(vty, "%% Index %ld not exist %s", index, VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    return setter_result(vty, ret);
}

// --------------------------------------------------------------- VLAN ----

DEFUN(vlan_snoop_cli, vlan_snoop_cmd, "ip dhcp-snooping", IP_STR SNOOP_STR)
{
    return setter_result(vty, dhcp_vlan_snoop_set(node_vlan(vty), 1));
}

DEFUN(no_vlan_snoop_cli, no_vlan_snoop_cmd, "no ip dhcp-snooping", NO_STR IP_STR SNOOP_STR)
{
    return setter_result(vty, dhcp_vlan_snoop_set(node_vlan(vty), 0));
}

DEFUN(vlan_snoop6_cli, vlan_snoop6_cmd, "ip dhcpv6-snooping", IP_STR SNOOP6_STR)
{
    return setter_result(vty, dhcpv6_vlan_snoop_set(node_vlan(vty), 1));
}

DEFUN(no_vlan_snoop6_cli, no_vlan_snoop6_cmd, "no ip dhcpv6-snooping", NO_STR IP_STR SNOOP6_STR)
{
    return setter_result(vty, dhcpv6_vlan_snoop_set(node_vlan(vty), 0));
}

DEFUN(vlan_op82_cli, vlan_op82_cmd, "ip dhcp information", IP_STR DHCP_STR OP82_STR)
{
    return setter_result(vty, dhcp_vlan_op82_set(node_vlan(vty), 1));
}

DEFUN(no_vlan_op82_cli, no_vlan_op82_cmd, "no ip dhcp information", NO_STR IP_STR DHCP_STR OP82_STR)
{
    return setter_result(vty, dhcp_vlan_op82_set(node_vlan(vty), 0));
}

// Only the first eight letters tell the two words apart.
static bool is_option18(const char *word) { return std::strncmp(word, "option18", 8) == 0; }

DEFUN(vlan_op18_op37_cli, vlan_op18_op37_cmd, "ip dhcpv6 (option18|option37)",
      IP_STR DHCPV6_STR "Interface id (option 18) or remote id (option 37)\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    return setter_result(vty, is_option18(argv[0]) ? dhcp_vlan_op18_set(vlan, 1) : dhcp_vlan_op37_set(vlan, 1));
}

DEFUN(no_vlan_op18_op37_cli, no_vlan_op18_op37_cmd, "no ip dhcpv6 (option18|option37)",
      NO_STR IP_STR DHCPV6_STR "Interface id (option 18) or remote id (option 37)\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    return setter_result(vty, is_option18(argv[0]) ? dhcp_vlan_op18_set(vlan, 0) : dhcp_vlan_op37_set(vlan, 0));
}

DEFUN(vlan_circuit_string_cli, vlan_circuit_string_cmd, "ip dhcp information circuit-id string STRING",
      IP_STR DHCP_STR OP82_STR CIRCUIT_STR "A fixed text\nThe text\n")
{
    if (!option_text_ok(vty, argv[0])) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op82_circuitid_set(node_vlan(vty), DHCP_OPTION_USER, argv[0]));
}

DEFUN(vlan_circuit_onu_auth_cli, vlan_circuit_onu_auth_cmd, "ip dhcp information circuit-id onu-auth",
      IP_STR DHCP_STR OP82_STR CIRCUIT_STR "The ONU's interface and serial number\n")
{
    return setter_result(vty, dhcp_vlan_op82_circuitid_set(node_vlan(vty), DHCP_OPTION_ONU_AUTH, nullptr));
}

DEFUN(vlan_circuit_profile_cli, vlan_circuit_profile_cmd, "ip dhcp information circuit-id profile PROFILE",
      IP_STR DHCP_STR OP82_STR CIRCUIT_STR PROFILE_STR "Profile name\n")
{
    int id = dhcp_option_find_profile_id_by_name(argv[0]);
    if (!id) {
        vty_out(vty, "%% Profile %s Not existed.%s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    uvlan_entry_t *vlan = node_vlan(vty);
    int ret = dhcp_vlan_op82_circuitid_set(vlan, DHCP_OPTION_PROFILE, argv[0]);
    if (ret == 0) dhcp_get_vlan_info(vlan)->circuit_profile_id = static_cast<std::uint8_t>(id);
    return setter_result(vty, ret);
}

DEFUN(no_vlan_circuit_cli, no_vlan_circuit_cmd, "no ip dhcp information circuit-id",
      NO_STR IP_STR DHCP_STR OP82_STR CIRCUIT_STR)
{
    return setter_result(vty, dhcp_vlan_op82_circuitid_set(node_vlan(vty), DHCP_OPTION_NORMAL, nullptr));
}

DEFUN(vlan_remote_sysname_cli, vlan_remote_sysname_cmd, "ip dhcp information remote-id sysname",
      IP_STR DHCP_STR OP82_STR REMOTE_STR "The system name\n")
{
    return setter_result(vty, dhcp_vlan_op82_remoteid_set(node_vlan(vty), DHCP_OPTION_SYSNAME, nullptr));
}

DEFUN(vlan_remote_string_cli, vlan_remote_string_cmd, "ip dhcp information remote-id string STRING",
      IP_STR DHCP_STR OP82_STR REMOTE_STR "A fixed text\nThe text\n")
{
    if (!option_text_ok(vty, argv[0])) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op82_remoteid_set(node_vlan(vty), DHCP_OPTION_USER, argv[0]));
}

DEFUN(no_vlan_remote_cli, no_vlan_remote_cmd, "no ip dhcp information remote-id",
      NO_STR IP_STR DHCP_STR OP82_STR REMOTE_STR)
{
    return setter_result(vty, dhcp_vlan_op82_remoteid_set(node_vlan(vty), DHCP_OPTION_NORMAL, nullptr));
}

static bool op18_required(vty *vty, uvlan_entry_t *vlan)
{
    if (dhcp_vlan_op18_check(vlan)) return true;
    vty_out(vty, "please config [ip dhcpv6 option18] to enable option18 first %s", VTY_NEWLINE);
    return false;
}

static bool op37_required(vty *vty, uvlan_entry_t *vlan)
{
    if (dhcp_vlan_op37_check(vlan)) return true;
    vty_out(vty, "please config [ip dhcpv6 option37] to enable option37 first %s", VTY_NEWLINE);
    return false;
}

DEFUN(vlan_op18_string_cli, vlan_op18_string_cmd, "ip dhcpv6 option18 interface-id string STRING",
      IP_STR DHCPV6_STR OP18_STR "Interface id\nA fixed text\nThe text\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    if (!op18_required(vty, vlan) || !option_text_ok(vty, argv[0])) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op18_interfaceid_set(vlan, DHCP_OPTION_USER, argv[0]));
}

DEFUN(vlan_op18_onu_auth_cli, vlan_op18_onu_auth_cmd, "ip dhcpv6 option18 interface-id onu-auth",
      IP_STR DHCPV6_STR OP18_STR "Interface id\nThe ONU's interface and serial number\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    if (!op18_required(vty, vlan)) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op18_interfaceid_set(vlan, DHCP_OPTION_ONU_AUTH, nullptr));
}

DEFUN(vlan_op18_profile_cli, vlan_op18_profile_cmd, "ip dhcpv6 option18 interface-id profile PROFILE",
      IP_STR DHCPV6_STR OP18_STR "Interface id\n" PROFILE_STR "Profile name\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    if (!op18_required(vty, vlan)) return CMD_ERR_REFUSED;
    int id = dhcp_option_find_profile_id_by_name(argv[0]);
    if (!id) {
        vty_out(vty, "%% Profile %s Not existed.%s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    int ret = dhcp_vlan_op18_interfaceid_set(vlan, DHCP_OPTION_PROFILE, argv[0]);
    if (ret == 0) dhcp_get_vlan_info(vlan)->ipv6_interface_profile_id = static_cast<std::uint8_t>(id);
    return setter_result(vty, ret);
}

DEFUN(no_vlan_op18_interface_cli, no_vlan_op18_interface_cmd, "no ip dhcpv6 option18 interface-id",
      NO_STR IP_STR DHCPV6_STR OP18_STR "Interface id\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    if (!op18_required(vty, vlan)) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op18_interfaceid_set(vlan, DHCP_OPTION_NORMAL, nullptr));
}

DEFUN(vlan_op37_sysname_cli, vlan_op37_sysname_cmd, "ip dhcpv6 option37 remote-id sysname",
      IP_STR DHCPV6_STR OP37_STR "Remote id\nThe system name\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    if (!op37_required(vty, vlan)) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op37_remoteid_set(vlan, DHCP_OPTION_SYSNAME, nullptr));
}

DEFUN(vlan_op37_string_cli, vlan_op37_string_cmd, "ip dhcpv6 option37 remote-id string STRING",
      IP_STR DHCPV6_STR OP37_STR "Remote id\nA fixed text\nThe text\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    if (!op37_required(vty, vlan) || !option_text_ok(vty, argv[0])) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op37_remoteid_set(vlan, DHCP_OPTION_USER, argv[0]));
}

DEFUN(no_vlan_op37_remote_cli, no_vlan_op37_remote_cmd, "no ip dhcpv6 option37 remote-id",
      NO_STR IP_STR DHCPV6_STR OP37_STR "Remote id\n")
{
    uvlan_entry_t *vlan = node_vlan(vty);
    if (!op37_required(vty, vlan)) return CMD_ERR_REFUSED;
    return setter_result(vty, dhcp_vlan_op37_remoteid_set(vlan, DHCP_OPTION_NORMAL, nullptr));
}

#define VERIFY_STR "IP source guard\nBy source address\nOf the client\nLearned from DHCP\n"

DEFUN(vlan_ipverify_cli, vlan_ipverify_cmd, "ip verify source ip-address dynamic", IP_STR VERIFY_STR)
{
    uvlan_entry_t *vlan = node_vlan(vty);
    // A warning only: the guard is switched on all the same.
    if (vlan && !dhcp_vlan_snooping_check(vlan)) vty_out(vty, "You should enable ip dhcp-snooping first%s", VTY_NEWLINE);
    return setter_result(vty, dhcp_vlan_ipverify_set(vlan, 1));
}

DEFUN(no_vlan_ipverify_cli, no_vlan_ipverify_cmd, "no ip verify source ip-address dynamic", NO_STR IP_STR VERIFY_STR)
{
    return setter_result(vty, dhcp_vlan_ipverify_set(node_vlan(vty), 0));
}

// --------------------------------------------------------------- port ----

static uif_t *node_port(vty *vty)
{
    if (vty->node != IF_NODE) return nullptr;
    return uif_lookup_by_index(static_cast<std::uint32_t>(vty->index_sub));
}

DEFUN(port_trust_cli, port_trust_cmd, "ip dhcp trust", IP_STR DHCP_STR "Accept server replies on this port\n")
{
    uif_t *pif = node_port(vty);
    if (!pif) {
        vty_out(vty, "should in port node%s", VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    return setter_result(vty, dhcp_port_trust_set(pif, 1));
}

DEFUN(no_port_trust_cli, no_port_trust_cmd, "no ip dhcp trust",
      NO_STR IP_STR DHCP_STR "Accept server replies on this port\n")
{
    uif_t *pif = node_port(vty);
    if (!pif) {
        vty_out(vty, "should in port node%s", VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    return setter_result(vty, dhcp_port_trust_set(pif, 0));
}

// -------------------------------------------------------------- shows ----

DEFUN(show_dhcp_snoop_cli, show_dhcp_snoop_cmd, "show ip dhcp-snooping ", SHOW_STR IP_STR SNOOP_STR)
{
    vty_out(vty, " DHCP V4 snooping : %s %s", enable_word(dhcp_snoop_is_enable()), VTY_NEWLINE);
    vty_out(vty, " Option82         : %s %s", enable_word(dhcp_op82_is_enable()), VTY_NEWLINE);
    vty_out(vty, " Access-Node-ID   : %s %s", dhcp_snoop_get_access_node_id(), VTY_NEWLINE);
    vty_out(vty, " Remote id        : %s %s", dhcp_snoop_get_remote_id(), VTY_NEWLINE);
    return CMD_SUCCESS;
}

DEFUN(show_dhcpv6_snoop_cli, show_dhcpv6_snoop_cmd, "show ip dhcpv6-snooping ", SHOW_STR IP_STR SNOOP6_STR)
{
    vty_out(vty, " DHCP V6 snooping : %s %s", enable_word(dhcp_snoop_is_enable()), VTY_NEWLINE);
    return CMD_SUCCESS;
}

DEFUN(show_dhcp_snoop_vlan_brief_cli, show_dhcp_snoop_vlan_brief_cmd, "show ip dhcp-snooping vlan brief",
      SHOW_STR IP_STR SNOOP_STR "VLAN\nOne line per VLAN\n")
{
    for (int vid = VLAN_ID_FIRST; vid <= VLAN_ID_LAST; ++vid) {
        dhcp_vlan_t *rec = dhcp_vlan_info_get_by_vid(static_cast<std::uint16_t>(vid));
        if (!rec) continue;
        if (rec->snooping_enable) vty_out(vty, "vid: %4d   snooping: enable  %s", vid, VTY_NEWLINE);
        else vty_out(vty, "vid: %4d   snooping: disable %s", vid, VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

DEFUN(show_dhcp_snoop_vlan_cli, show_dhcp_snoop_vlan_cmd, "show ip dhcp-snooping vlan <2-4094>",
      SHOW_STR IP_STR SNOOP_STR "VLAN\nVLAN id\n")
{
    long vid = arg_long(argv[0]);
    auto v = static_cast<std::uint16_t>(vid);
    dhcp_vlan_t *rec = dhcp_vlan_info_get_by_vid(v);
    if (!rec) {
        vty_out(vty, "vlan %ld is not exsited.%s ", vid, VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    vty_out(vty, "%-4ld %-5s %-10s%s", vid, "snoop", enable_word(rec->snooping_enable), VTY_NEWLINE);
    vty_out(vty, "%-4s %-7s: %s%s", "", "op82", enable_word(rec->option82_enable), VTY_NEWLINE);
    vty_out(vty, "%-4s %-7s: %s%s", "", "circuit", dhcp_option_type_word(rec->circuit_type), VTY_NEWLINE);
    vty_out(vty, "%-4s %-7s: %s%s", "", "remote", dhcp_option_type_word(rec->remote_type), VTY_NEWLINE);
    vty_out(vty, "%-4s %-7s: %s%s", "", "verify", rec->ipverify_mode ? "dynamic" : "disable", VTY_NEWLINE);
    vty_out(vty, "%-4s %-8s: %s%s%s", "", "TagPorts", vlan_port_names(v, 0).c_str(), "", VTY_NEWLINE);
    vty_out(vty, "%-4s %-8s: %s%s%s", "", "Untag", vlan_port_names(v, 1).c_str(), "", VTY_NEWLINE);
    return CMD_SUCCESS;
}

void dhcp_snoop_statistics_show(vty *vty)
{
    const dhcp_pkt_statistic_t &s = g_dhcp_stats_l2_pkt;
    // Every group has the same rows; a side counts only the types it sends
    // (acks and naks have no row). The set keeps drops by reason, and the
    // only one by type is the untrusted reply, an offer to the client.
    struct group {
        const char *title;
        std::uint32_t discover, offer, request, decline, release, inform;
    } groups[] = {
        {"Client Request message :", s.dhcp_rx_discovery, 0, s.dhcp_rx_request, s.dhcp_rx_decline,
         s.dhcp_rx_release, s.dhcp_rx_inform},
        {"Server Reply message   :", 0, s.dhcp_rx_offer, 0, 0, 0, 0},
        {"Drop message          :", 0, s.dhcp_drop_untrust_reply, 0, 0, 0, 0},
    };
    vty_out(vty, "DHCP Snooping Packet statistics: %s", VTY_NEWLINE);
    for (const group &g : groups) {
        vty_out(vty, "%s%s", g.title, VTY_NEWLINE);
        const std::pair<const char *, std::uint32_t> rows[] = {
            {"   Discover: %s", g.discover}, {"   Offer   : %s", g.offer},   {"   Request : %s", g.request},
            {"   Decline : %s", g.decline},  {"   Release : %s", g.release}, {"   Inform  : %s", g.inform},
        };
        for (const auto &r : rows) {
            std::string value = std::to_string(r.second) + VTY_NEWLINE;
            vty_out(vty, r.first, value.c_str());
        }
    }
}

DEFUN(show_dhcp_snoop_statistics_cli, show_dhcp_snoop_statistics_cmd, "show ip dhcp-snooping statistics",
      SHOW_STR IP_STR SNOOP_STR "Packet counters\n")
{
    dhcp_snoop_statistics_show(vty);
    return CMD_SUCCESS;
}

DEFUN(show_binding_cli, show_binding_cmd, "show ip dhcp-snooping binding", SHOW_STR IP_STR SNOOP_STR BINDING_STR)
{
    dhcp_cli_show_binding_info(vty, nullptr, 0, 0, 0, 0);
    return CMD_SUCCESS;
}

DEFUN(show_binding_vlan_cli, show_binding_vlan_cmd, "show ip dhcp-snooping binding vlan <2-4094>",
      SHOW_STR IP_STR SNOOP_STR BINDING_STR "VLAN\nVLAN id\n")
{
    dhcp_cli_show_binding_info(vty, nullptr, static_cast<std::uint16_t>(arg_long(argv[0])), 0, 0, 0);
    return CMD_SUCCESS;
}

DEFUN(show_binding_interface_cli, show_binding_interface_cmd, "show ip dhcp-snooping binding interface IFNAME",
      SHOW_STR IP_STR SNOOP_STR BINDING_STR INTERFACE_STR "Interface name\n")
{
    uif_t *pif = uif_lookup_by_name(argv[0]);
    if (!pif) {
        vty_out(vty, "Param Error!!.%s ", VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    dhcp_cli_show_binding_info(vty, nullptr, 0, pif->ifindex, 0, 0);
    return CMD_SUCCESS;
}

DEFUN(show_binding_mac_cli, show_binding_mac_cmd, "show ip dhcp-snooping binding vlan <2-4094> mac MMMM-MMMM-MMMM",
      SHOW_STR IP_STR SNOOP_STR BINDING_STR "VLAN\nVLAN id\nClient\nClient MAC address\n")
{
    std::uint8_t mac[6];
    if (tavo_str2mac(argv[1], mac) != 0) {
        vty_out(vty, "Param Error!!.%s ", VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    dhcp_cli_show_binding_detail_info(vty, mac, static_cast<std::uint16_t>(arg_long(argv[0])));
    return CMD_SUCCESS;
}

DEFUN(show_ip_source_cli, show_ip_source_cmd, "show ip source binding",
      SHOW_STR IP_STR "IP source guard\nPermitted clients\n")
{
    dhcp_cli_show_ipSource_binding_info(vty, nullptr, 0, 0, 0);
    return CMD_SUCCESS;
}

DEFUN(show_op82_profile_cli, show_op82_profile_cmd, "show ip dhcp information profile",
      SHOW_STR IP_STR DHCP_STR OP82_STR PROFILE_STR)
{
    for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id) {
        const dhcp_option_profile_t *p = dhcp_option_profile_get(id);
        if (!p) continue;
        vty_out(vty, "ip dhcp information profile %s %s", p->name, VTY_NEWLINE);
        write_profile_tags(vty, p);
        char format[256];
        vty_out(vty, " circuit-id option format: %s %s", dhcp_option_profile_format(id, format, sizeof format),
                VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

// ------------------------------------------------------------ writers ----

int dhcp_snoop_global_config(vty *vty)
{
    const dhcp_global_config_t &g = g_dhcp_global_cfg;
    if (g.snooping_enable) vty_out(vty, "ip dhcp-snooping %s!%s", VTY_NEWLINE, VTY_NEWLINE);
    if (g_dhcp_max_session) vty_out(vty, "ip dhcp max-session %d %s", int(g_dhcp_max_session), VTY_NEWLINE);
    // The access-node id and the client policy are kept only with option 82 on.
    if (g.information) {
        vty_out(vty, "ip dhcp information %s", VTY_NEWLINE);
        if (g_access_node_id[0])
            vty_out(vty, "ip dhcp information access-node-id string %s%s", g_access_node_id, VTY_NEWLINE);
        if (g.client_op82_policy) {
            const char *word = g.client_op82_policy == DHCPPORTOPTIONPOLICY_KEEP   ? "keep"
                               : g.client_op82_policy == DHCPPORTOPTIONPOLICY_DROP ? "drop"
                                                                                   : "UNKNOWN ERROR";
            vty_out(vty, "ip dhcp information client-info %s%s", word, VTY_NEWLINE);
        }
    }
    if (g.information_ipv6) vty_out(vty, "ip dhcpv6 information %s", VTY_NEWLINE);
    if (g.reply_mc_keep) vty_out(vty, "ip dhcp reply multicast keep %s", VTY_NEWLINE);
    return 1;
}

int dhcp_op82_profile_config(vty *vty)
{
    int written = 0;
    for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id) {
        const dhcp_option_profile_t *p = dhcp_option_profile_get(id);
        if (!p) continue;
        vty_out(vty, "ip dhcp information profile %s %s", p->name, VTY_NEWLINE);
        write_profile_tags(vty, p);
        vty_out(vty, "!%s", VTY_NEWLINE);
        ++written;
    }
    return written;
}

int dhcp_vlan_config_if_default(const dhcp_vlan_t *rec)
{
    if (!rec) return 1;
    return !rec->snooping_enable && !rec->option82_enable && rec->circuit_type == DHCP_OPTION_NORMAL &&
           rec->remote_type == DHCP_OPTION_NORMAL && !rec->ipverify_mode && !rec->ipv6_snooping_enable &&
           !rec->option18_enable && !rec->option37_enable && rec->ipv6_interfaceid_type == DHCP_OPTION_NORMAL &&
           rec->ipv6_remoteid_type == DHCP_OPTION_NORMAL;
}

int dhcp_snoop_vlan_config(vty *vty)
{
    int written = 0;
    for (int vid = VLAN_ID_FIRST; vid <= VLAN_ID_LAST; ++vid) {
        const dhcp_vlan_t *v = dhcp_vlan_info_get_by_vid(static_cast<std::uint16_t>(vid));
        if (!v || dhcp_vlan_config_if_default(v)) continue;
        const char *nl = VTY_NEWLINE;
        vty_out(vty, "vlan %d%s", vid, nl);
        if (v->snooping_enable) vty_out(vty, " ip dhcp-snooping %s", nl);
        if (v->option82_enable) vty_out(vty, " ip dhcp information %s", nl);
        if (v->circuit_type == DHCP_OPTION_USER && v->circuit_id)
            vty_out(vty, " ip dhcp information circuit-id string %s%s", v->circuit_id, nl);
        else if (v->circuit_type == DHCP_OPTION_ONU_AUTH)
            vty_out(vty, " ip dhcp information circuit-id onu-auth %s", nl);
        else if (v->circuit_type == DHCP_OPTION_PROFILE && v->circuit_id)
            vty_out(vty, " ip dhcp information circuit-id profile %s %s", v->circuit_id, nl);
        if (v->remote_type == DHCP_OPTION_USER && v->remote_id)
            vty_out(vty, " ip dhcp information remote-id string %s%s", v->remote_id, nl);
        else if (v->remote_type == DHCP_OPTION_SYSNAME)
            vty_out(vty, " ip dhcp information remote-id sysname%s", nl);
        if (v->ipverify_mode == 1) vty_out(vty, " ip verify source ip-address dynamic%s", nl);
        if (v->ipv6_snooping_enable) vty_out(vty, " ip dhcpv6-snooping %s", nl);
        if (v->option18_enable) vty_out(vty, " ip dhcpv6 option18 %s", nl);
        if (v->option37_enable) vty_out(vty, " ip dhcpv6 option37 %s", nl);
        if (v->ipv6_interfaceid_type == DHCP_OPTION_USER && v->ipv6_interface_id)
            vty_out(vty, " ip dhcpv6 option18 interface-id string %s%s", v->ipv6_interface_id, nl);
        else if (v->ipv6_interfaceid_type == DHCP_OPTION_ONU_AUTH)
            vty_out(vty, " ip dhcpv6 option18 interface-id onu-auth %s", nl);
        else if (v->ipv6_interfaceid_type == DHCP_OPTION_PROFILE && v->ipv6_interface_id)
            vty_out(vty, " ip dhcpv6 option18 interface-id profile %s %s", v->ipv6_interface_id, nl);
        if (v->ipv6_remoteid_type == DHCP_OPTION_USER && v->ipv6_remote_id)
            vty_out(vty, " ip dhcpv6 option37 remote-id string %s%s", v->ipv6_remote_id, nl);
        else if (v->ipv6_remoteid_type == DHCP_OPTION_SYSNAME)
            vty_out(vty, " ip dhcpv6 option37 remote-id sysname%s", nl);
        vty_out(vty, "!%s", nl);
        ++written;
    }
    return written;
}

int dhcp_snoop_port_config_write(vty *vty)
{
    if (!dhcp_snoop_is_enable() && !g_dhcp_global_cfg.relay_enable) return 0;
    int written = 0;
    for (uif_t *pif = uif_first(); pif; pif = uif_next(pif)) {
        const auto *rec = static_cast<const dhcp_port_t *>(pif->info);
        if (!rec || (pif->flags & UIF_FLAG_TRUNK_MEMBER_SKIP)) continue;
        // An untrusted port with a record still gets its (empty) block.
        vty_out(vty, "interface %s%s", pif->name, VTY_NEWLINE);
        if (rec->trust) vty_out(vty, " ip dhcp trust%s", VTY_NEWLINE);
        vty_out(vty, "!%s", VTY_NEWLINE);
        ++written;
    }
    return written;
}

// -------------------------------------------------------- registration ----

namespace {

// Global lines first, then the profiles the VLAN blocks may name.
int dhcp_snoop_node_config(vty *vty)
{
    dhcp_snoop_global_config(vty);
    dhcp_op82_profile_config(vty);
    return 0;
}

cmd_node dhcp_snoop_node = {DHCP_SNOOP_NODE, "", 1};
cmd_node dhcp_vlan_node = {VLAN_NODE, "%s(config-vlan)# ", 1};
cmd_node dhcp_op82_profile_node = {DHCP_OP82_PROFILE_NODE, "%s(config-dhcp-profile)# ", 1};

}  // namespace

void dhcp_snoop_vty_init()
{
    install_node(&dhcp_snoop_node, dhcp_snoop_node_config);
    install_node(&dhcp_vlan_node, dhcp_snoop_vlan_config);
    install_node(&dhcp_op82_profile_node, nullptr);
    install_default(VLAN_NODE);
    install_default(DHCP_OP82_PROFILE_NODE);

    // "vlan <1-4094>" keeps the device library's work and adds ours after it.
    if (uvlan_vlan_cmd.func != dhcp_vlan_cli) {
        dhcp_vlan_cmd_func = uvlan_vlan_cmd.func;
        uvlan_vlan_cmd.func = dhcp_vlan_cli;
    }

    // Installed on purpose in no node: "ip dhcp-snooping vlan <2-4094>" and its
    // "no" form, "ip dhcpv6 information" and its "no" form, "show ip
    // dhcp-snooping vlan brief", "show ip dhcp-snooping vlan <2-4094>", "show
    // ip dhcpv6-snooping " and "show ip dhcp-snooping statistics".
    static const cmd_element *const global[] = {
        &dhcp_snoop_enable_cmd,      &no_dhcp_snoop_enable_cmd,  &dhcp_op82_enable_cmd,
        &no_dhcp_op82_enable_cmd,    &dhcp_access_node_id_cmd,   &no_dhcp_access_node_id_cmd,
        &dhcp_client_info_cmd,       &dhcp_reply_mc_keep_cmd,    &no_dhcp_reply_mc_keep_cmd,
        &dhcp_max_session_cmd,       &uvlan_vlan_cmd,            &dhcp_op82_profile_cmd,
        &no_dhcp_op82_profile_cmd,
    };
    for (const cmd_element *c : global) install_element(CONFIG_NODE, c);

    static const cmd_element *const shows[] = {
        &show_dhcp_snoop_cmd,       &show_binding_cmd,     &show_binding_vlan_cmd, &show_binding_interface_cmd,
        &show_binding_mac_cmd,      &show_ip_source_cmd,   &show_op82_profile_cmd,
    };
    for (const cmd_element *c : shows) {
        install_element(ENABLE_NODE, c);
        install_element(CONFIG_NODE, c);
    }
    install_element(DHCP_OP82_PROFILE_NODE, &show_op82_profile_cmd);

    static const cmd_element *const profile[] = {
        &circuit_id_variable_cmd, &circuit_id_delimiter_cmd, &circuit_id_string_cmd, &no_circuit_id_cmd,
    };
    for (const cmd_element *c : profile) install_element(DHCP_OP82_PROFILE_NODE, c);

    static const cmd_element *const vlan[] = {
        &vlan_snoop_cmd,          &no_vlan_snoop_cmd,         &vlan_snoop6_cmd,
        &no_vlan_snoop6_cmd,      &vlan_op82_cmd,             &no_vlan_op82_cmd,
        &vlan_op18_op37_cmd,      &no_vlan_op18_op37_cmd,     &vlan_circuit_string_cmd,
        &vlan_circuit_onu_auth_cmd, &vlan_circuit_profile_cmd, &no_vlan_circuit_cmd,
        &vlan_remote_sysname_cmd, &vlan_remote_string_cmd,    &no_vlan_remote_cmd,
        &vlan_op18_string_cmd,    &vlan_op18_onu_auth_cmd,    &vlan_op18_profile_cmd,
        &no_vlan_op18_interface_cmd, &vlan_op37_sysname_cmd,  &vlan_op37_string_cmd,
        &no_vlan_op37_remote_cmd, &vlan_ipverify_cmd,         &no_vlan_ipverify_cmd,
    };
    for (const cmd_element *c : vlan) install_element(VLAN_NODE, c);

    install_element(IF_NODE, &port_trust_cmd);
    install_element(IF_NODE, &no_port_trust_cmd);
}
