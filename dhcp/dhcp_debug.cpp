#include "dhcp/dhcp_debug.h"

#include <cstring>

#include "devlib/mac.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/vty.h"

std::uint32_t g_dhcp_debug;
std::uint8_t g_dhcp_debug_client_mac[6];
std::uint32_t g_dhcp_debug_client;

static const std::uint8_t zero_mac[6] = {0, 0, 0, 0, 0, 0};

void dhcp_set_client_debug(const std::uint8_t mac[6])
{
    char buf[16];
    if (std::memcmp(mac, zero_mac, 6) == 0) {
        zlog_info("Set dhcp debug off client %s ", tavo_mac2str(g_dhcp_debug_client_mac, buf));
        std::memset(g_dhcp_debug_client_mac, 0, 6);
        return;
    }
    std::memcpy(g_dhcp_debug_client_mac, mac, 6);
    zlog_info("Set dhcp debug on client %s ", tavo_mac2str(mac, buf));
}

void dhcp_clear_client_debug() { std::memset(g_dhcp_debug_client_mac, 0, 6); }

void dhcp_check_client_debug_start(const std::uint8_t mac[6])
{
    if (std::memcmp(g_dhcp_debug_client_mac, zero_mac, 6) != 0 &&
        std::memcmp(mac, g_dhcp_debug_client_mac, 6) == 0) {
        g_dhcp_debug_client = 1;
        char buf[16];
        zlog_debug("<============ check dhcp debug is on client %s ", tavo_mac2str(mac, buf));
    } else {
        g_dhcp_debug_client = 0;
    }
}

void dhcp_check_client_debug_end() { g_dhcp_debug_client = 0; }

#define DHCP_STR "DHCP information\n"

DEFUN(debug_dhcp_events, debug_dhcp_events_cmd, "debug dhcp events",
      DEBUG_STR DHCP_STR "DHCP events\n")
{
    g_dhcp_debug |= DHCP_DEBUG_EVENT;
    return CMD_SUCCESS;
}

DEFUN(debug_dhcp_packet, debug_dhcp_packet_cmd, "debug dhcp packet",
      DEBUG_STR DHCP_STR "DHCP packets\n")
{
    g_dhcp_debug |= DHCP_DEBUG_PACKET;
    return CMD_SUCCESS;
}

DEFUN(debug_dhcp_interface, debug_dhcp_interface_cmd, "debug dhcp interface",
      DEBUG_STR DHCP_STR "DHCP interface and relay server events\n")
{
    g_dhcp_debug |= DHCP_DEBUG_INTERFACE;
    set_if_debug_on();
    return CMD_SUCCESS;
}

DEFUN(debug_dhcp_timer, debug_dhcp_timer_cmd, "debug dhcp timer",
      DEBUG_STR DHCP_STR "DHCP timers\n")
{
    g_dhcp_debug |= DHCP_DEBUG_TIMER;
    return CMD_SUCCESS;
}

DEFUN(debug_dhcp_diagnose, debug_dhcp_diagnose_cmd, "debug dhcp diagnose",
      DEBUG_STR DHCP_STR "DHCP diagnostics\n")
{
    g_dhcp_debug |= DHCP_DEBUG_DIAGNOSE;
    return CMD_SUCCESS;
}

DEFUN(debug_dhcp_snmp, debug_dhcp_snmp_cmd, "debug dhcp snmp",
      DEBUG_STR DHCP_STR "DHCP management store and MIB\n")
{
    g_dhcp_debug |= DHCP_DEBUG_SNMP;
    return CMD_SUCCESS;
}

DEFUN(debug_dhcp_all, debug_dhcp_all_cmd, "debug dhcp all",
      DEBUG_STR DHCP_STR "All DHCP debugging\n")
{
    // The interface library's switch is deliberately left as it is.
    g_dhcp_debug = DHCP_DEBUG_ALL;
    return CMD_SUCCESS;
}

DEFUN(debug_dhcp_client, debug_dhcp_client_cmd, "debug dhcp client MMMM-MMMM-MMMM",
      DEBUG_STR DHCP_STR "Monitor one client\nClient MAC address\n")
{
    std::uint8_t mac[6];
    if (tavo_str2mac(argv[0], mac) != 0) {
        vty_out(vty, "%% Invalid mac format%s", VTY_NEWLINE);
        return CMD_ERR_BAD_ARG;
    }
    static const std::uint8_t bcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    if ((mac[0] & 1) || std::memcmp(mac, bcast, 6) == 0) {
        vty_out(vty, "%% Mac address must be unicast%s", VTY_NEWLINE);
        return CMD_ERR_BAD_ARG;
    }
    if (std::memcmp(mac, zero_mac, 6) == 0) {
        vty_out(vty, "%% Invalid mac format%s", VTY_NEWLINE);
        return CMD_ERR_BAD_ARG;
    }
    dhcp_set_client_debug(mac);
    char buf[16];
    vty_out(vty, "start monitoring log for client %s%s", tavo_mac2str(mac, buf), VTY_NEWLINE);
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_events, no_debug_dhcp_events_cmd, "no debug dhcp events",
      NO_STR DEBUG_STR DHCP_STR "DHCP events\n")
{
    g_dhcp_debug &= ~DHCP_DEBUG_EVENT;
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_packet, no_debug_dhcp_packet_cmd, "no debug dhcp packet",
      NO_STR DEBUG_STR DHCP_STR "DHCP packets\n")
{
    g_dhcp_debug &= ~DHCP_DEBUG_PACKET;
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_interface, no_debug_dhcp_interface_cmd, "no debug dhcp interface",
      NO_STR DEBUG_STR DHCP_STR "DHCP interface and relay server events\n")
{
    g_dhcp_debug &= ~DHCP_DEBUG_INTERFACE;
    set_if_debug_off();
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_timer, no_debug_dhcp_timer_cmd, "no debug dhcp timer",
      NO_STR DEBUG_STR DHCP_STR "DHCP timers\n")
{
    g_dhcp_debug &= ~DHCP_DEBUG_TIMER;
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_diagnose, no_debug_dhcp_diagnose_cmd, "no debug dhcp diagnose",
      NO_STR DEBUG_STR DHCP_STR "DHCP diagnostics\n")
{
    g_dhcp_debug &= ~DHCP_DEBUG_DIAGNOSE;
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_snmp, no_debug_dhcp_snmp_cmd, "no debug dhcp snmp",
      NO_STR DEBUG_STR DHCP_STR "DHCP management store and MIB\n")
{
    g_dhcp_debug &= ~DHCP_DEBUG_SNMP;
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_all, no_debug_dhcp_all_cmd, "no debug dhcp all",
      NO_STR DEBUG_STR DHCP_STR "All DHCP debugging\n")
{
    // The monitored client stays.
    g_dhcp_debug = 0;
    return CMD_SUCCESS;
}

DEFUN(no_debug_dhcp_client, no_debug_dhcp_client_cmd, "no debug dhcp client",
      NO_STR DEBUG_STR DHCP_STR "Monitor one client\n")
{
    char buf[16];
    vty_out(vty, "stop monitoring log for client %s%s", tavo_mac2str(g_dhcp_debug_client_mac, buf),
            VTY_NEWLINE);
    dhcp_clear_client_debug();
    return CMD_SUCCESS;
}

DEFUN(show_debugging_dhcp, show_debugging_dhcp_cmd, "show debugging dhcp",
      "Show running system information\nDebugging functions\n" DHCP_STR)
{
    static const char *const lines[] = {
        "  Dhcp event debugging is on%s",    "  Dhcp packet debugging is on%s",
        "  Dhcp interface debugging is on%s", "  Dhcp timer debugging is on%s",
        "  Dhcp diagnose debugging is on%s", "  Dhcp snmp debugging is on%s",
    };
    if ((g_dhcp_debug & DHCP_DEBUG_ALL) == 0) {
        vty_out(vty, "  Dhcp debugging is off%s", VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    for (unsigned bit = 0; bit < 6; ++bit)
        if (g_dhcp_debug & (1u << bit)) vty_out(vty, lines[bit], VTY_NEWLINE);
    return CMD_SUCCESS;
}

void dhcp_debug_init()
{
    static const cmd_element *const cmds[] = {
        &debug_dhcp_events_cmd,    &debug_dhcp_packet_cmd,    &debug_dhcp_interface_cmd,
        &debug_dhcp_timer_cmd,     &debug_dhcp_diagnose_cmd,  &debug_dhcp_snmp_cmd,
        &debug_dhcp_all_cmd,       &debug_dhcp_client_cmd,    &no_debug_dhcp_events_cmd,
        &no_debug_dhcp_packet_cmd, &no_debug_dhcp_interface_cmd, &no_debug_dhcp_timer_cmd,
        &no_debug_dhcp_diagnose_cmd, &no_debug_dhcp_snmp_cmd, &no_debug_dhcp_all_cmd,
        &no_debug_dhcp_client_cmd, &show_debugging_dhcp_cmd,
    };
    for (const cmd_element *c : cmds) install_element(CONFIG_NODE, c);
}
