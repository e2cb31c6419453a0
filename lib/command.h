// Command engine: commands are data {grammar, help, handler} installed per node.
//
// Grammar tokens: keywords; WORD / IFNAME / STRING / PROFILE (any upper-case
// word) variables; <a-b> ranges; A.B.C.D; A.B.C.D/M; X:X::X:X; MMMM-MMMM-MMMM;
// (a|b|c) alternatives. Keywords match by unique prefix. A handler gets in argv
// the words the operator typed for every variable, range, address and
// alternative token, in order (keywords are not passed).
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

struct vty;

enum node_type {
    VIEW_NODE = 0,
    AUTH_NODE = 1,
    ENABLE_NODE = 6,
    CONFIG_NODE = 7,
    DEBUG_NODE = 8,
    VLAN_NODE = 20,
    DHCPR_NODE = 30,
    DHCPS_NODE = 31,
    DHCPS_POOL_NODE = 32,
    DHCP_OP82_PROFILE_NODE = 33,
    IF_NODE = 43,
    INTERFACE_NODE = 44,
    NODE_TYPE_MAX = 64,
};

// Command results. Handlers return CMD_SUCCESS or one of the system's codes.
enum {
    CMD_SUCCESS = 0,
    CMD_WARNING = 1,
    CMD_ERR_NO_MATCH = 2,
    CMD_ERR_AMBIGUOUS = 3,
    CMD_ERR_INCOMPLETE = 4,
    CMD_ERR_EXEED_ARGC_MAX = 5,
    CMD_ERR_NOTHING_TODO = 6,
    CMD_COMPLETE_FULL_MATCH = 7,
    CMD_COMPLETE_MATCH = 8,
    CMD_COMPLETE_LIST_MATCH = 9,
    CMD_SUCCESS_DAEMON = 10,
    CMD_ERR_BAD_ARG = 104001,   // bad argument
    CMD_ERR_REFUSED = 104006,   // refused
};

struct cmd_element;
using cmd_handler = int (*)(const cmd_element *self, vty *vty, int argc, const char *argv[]);

struct cmd_element {
    const char *string;  // grammar
    cmd_handler func;
    const char *doc;     // one help line per token, each ending in "\n"
};

// Declares handler `funcname` and its element `cmdname`.
#define DEFUN(funcname, cmdname, cmdstr, helpstr)                                          \
    static int funcname(const cmd_element *self, vty *vty, int argc, const char *argv[]); \
    static const cmd_element cmdname = {cmdstr, funcname, helpstr};                       \
    static int funcname([[maybe_unused]] const cmd_element *self, [[maybe_unused]] vty *vty, \
                        [[maybe_unused]] int argc, [[maybe_unused]] const char *argv[])

// Help lines shared by many commands.
#define SHOW_STR "Show running system information\n"
#define NO_STR "Negate a command or set its defaults\n"
#define IP_STR "IP information\n"
#define IPV6_STR "IPv6 information\n"
#define CLEAR_STR "Reset functions\n"
#define DEBUG_STR "Debugging functions\n"
#define INTERFACE_STR "Interface information\n"

// Another grammar for an existing handler.
#define ALIAS(funcname, cmdname, cmdstr, helpstr) \
    static const cmd_element cmdname = {cmdstr, funcname, helpstr};

struct cmd_node {
    node_type node;
    const char *prompt;  // printf format taking the host name, e.g. "%s(config)# "
    int vtysh;
};

using config_write_fn = int (*)(vty *vty);

void cmd_init(int terminal);
void install_node(cmd_node *node, config_write_fn func);
// Installs "exit", "end", "quit", "show running-config", "write memory" ... in the node.
void install_default(node_type node);
void install_element(node_type node, const cmd_element *cmd);
// Sorts commands within every node for help and completion output.
void sort_node();
// Checks that every installed command has one help line per token; returns the
// number of faulty commands and logs each.
int cmd_verify_help();

// The node a node's "exit" returns to.
node_type node_parent(node_type node);

// Host name used in prompts. Only a name set by the "hostname" command is
// written into the configuration.
void cmd_set_hostname(const char *name);
const char *cmd_hostname();
// The prompt of the vty's current node, e.g. "olt(config)# ".
std::string cmd_prompt(const vty *vty);

// Executes one line in the vty's current node (falling back to parent nodes
// for commands of configuration sub-nodes, as an operator expects). Prints the
// engine's own errors ("% Unknown command." ...) into the vty.
int cmd_execute(vty *vty, const std::string &line);
// "?" help for a partial line: one entry {token, help} per possible next token
// ("<cr>" when the line is complete). *status, when given, tells why the list
// is empty (CMD_ERR_NO_MATCH, CMD_ERR_AMBIGUOUS).
std::vector<std::pair<std::string, std::string>> cmd_describe(vty *vty, const std::string &line,
                                                              int *status = nullptr);
// TAB completion candidates for the last (partial) word of the line.
std::vector<std::string> cmd_complete(vty *vty, const std::string &line);

// Writes the whole running configuration (all node writers in node order).
void cmd_write_running_config(vty *vty);
// Startup configuration: the file loaded by -f and written by "write memory".
void cmd_set_config_file(const char *path);
const char *cmd_config_file();
// Loads a configuration file line by line; a failing line is reported with
// its number into the log and the rest still applies. Returns the number of
// failed lines, or -1 when the file cannot be read.
int cmd_load_config_file(const char *path);
