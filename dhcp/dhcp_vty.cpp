#include "dhcp/dhcp_vty.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "devlib/dev_vty.h"
#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_if.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_snoop_vty.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_vty.h"
#include "lib/command.h"
#include "lib/log.h"
#include "lib/vty.h"
#include "platform/errcode.h"

namespace {

const char *on_word(int on) { return on ? "enable" : "disable"; }

const char *circuit_text(const dhcp_vlan_t *rec) { return rec->circuit_id ? rec->circuit_id : ""; }

void vlan_v4_row(vty *vty, int vid, const dhcp_vlan_t *rec)
{
    vty_out(vty, " %-4d      %7s         %7s          %7s      %7s %s", vid, on_word(rec->snooping_enable),
            rec->ipverify_mode ? "dynamic" : "disable", on_word(rec->option82_enable),
            dhcp_option_type_word(rec->circuit_type), circuit_text(rec));
}

void vlan_v6_row(vty *vty, const dhcp_vlan_t *rec)
{
    vty_out(vty, "%7s        %7s         %7s", on_word(rec->ipv6_snooping_enable), on_word(rec->option18_enable),
            on_word(rec->option37_enable));
}

}  // namespace

DEFUN(show_ip_dhcp_port_cli, show_ip_dhcp_port_cmd, "show ip dhcp port",
      SHOW_STR IP_STR "DHCP\nPorts with a DHCP record\n")
{
    vty_out(vty, "  interface        dhcp      trust        %s", VTY_NEWLINE);
    vty_out(vty, "---------------------------------------------%s", VTY_NEWLINE);
    for (uif_t *pif = uif_first(); pif; pif = uif_next(pif)) {
        if (st_ifindex_get_port_type(pif->ifindex) == PORT_TYPE_GONU) continue;
        if (pif->flags & UIF_FLAG_TRUNK_MEMBER_SKIP) continue;
        if (!pif->info) continue;
        vty_out(vty, "  %-15s  support    %8s    %s", pif->name,
                dhcp_port_trust_onu_check(pif) ? "trust" : "un-trust", VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

DEFUN(show_ip_dhcp_vlan_cli, show_ip_dhcp_vlan_cmd, "show ip dhcp vlan",
      SHOW_STR IP_STR "DHCP\nVLANs\n")
{
    vty_out(vty, "  vlan     dhcp-snoop     ip verify       option82     circuit-id %s", VTY_NEWLINE);
    vty_out(vty, "%s%s", std::string(68, '-').c_str(), VTY_NEWLINE);
    for (int vid = 1; vid <= 4094; ++vid) {
        uvlan_entry_t *vlan = vlan_get_entry(std::uint16_t(vid));
        if (!vlan) continue;
        if (const dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan)) {
            vlan_v4_row(vty, vid, rec);
            vty_out(vty, "      %s", VTY_NEWLINE);
        } else {
            vty_out(vty, " %-4d   dhcp is not enabled NA %s", vid, VTY_NEWLINE);
        }
    }
    vty_out(vty, "%s", VTY_NEWLINE);
    vty_out(vty, "  vlan     dhcpv6-snoop    option18      option37%s", VTY_NEWLINE);
    vty_out(vty, "%s%s", std::string(51, '-').c_str(), VTY_NEWLINE);
    for (int vid = 1; vid <= 4094; ++vid) {
        uvlan_entry_t *vlan = vlan_get_entry(std::uint16_t(vid));
        if (!vlan) continue;
        if (const dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan)) {
            vty_out(vty, " %-4d      ", vid);
            vlan_v6_row(vty, rec);
            vty_out(vty, "      %s", VTY_NEWLINE);
        } else {
            vty_out(vty, " %-4d   dhcpv6 is not enabled NA %s", vid, VTY_NEWLINE);
        }
    }
    return CMD_SUCCESS;
}

DEFUN(show_ip_dhcp_vlan_id_cli, show_ip_dhcp_vlan_id_cmd, "show ip dhcp vlan <1-4094>",
      SHOW_STR IP_STR "DHCP\nVLANs\nVLAN id\n")
{
    int vid = std::atoi(argv[0]);
    uvlan_entry_t *vlan = vlan_get_entry(std::uint16_t(vid));
    if (!vlan) {
        vty_out(vty, "%% Vlan not exist!%s", VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    vty_out(vty, "  vlan     dhcp-snoop     ip verify       option82    circuit-id    dhcpv6-snoop     option18    "
                 "option37%s",
            VTY_NEWLINE);
    const dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan);
    if (!rec) {
        vty_out(vty, " %-4d   dhcp is not enabled NA %s", vid, VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    vlan_v4_row(vty, vid, rec);
    vty_out(vty, "      ");
    vlan_v6_row(vty, rec);
    vty_out(vty, "%s", VTY_NEWLINE);
    return CMD_SUCCESS;
}

// ------------------------------------------------------- interfaces ----

namespace {

// The device library's own "interface IFNAME", whose element we take over.
cmd_handler dhcp_port_interface_func;

// The shell's interface step: the interface object, created when missing,
// becomes the session's object.
int dhcp_shell_interface(vty *vty, const char *name)
{
    interface *ifp = if_get_by_name(name);
    if (!ifp) return CMD_WARNING;
    vty->index = ifp;
    vty->index_sub = 0;
    return CMD_SUCCESS;
}

int dhcp_shell_interface_failed(vty *vty, const char *name, int ret)
{
    vty_out(vty, "%% dhcp Can't find interface %s%s", name, VTY_NEWLINE);
    zlog_err("Can't find interface %s", name);
    return ret;
}

bool starts_with(const char *name, const char *head) { return std::strncmp(name, head, std::strlen(head)) == 0; }

struct ip_text {
    char s[INET6_ADDRSTRLEN];
    explicit ip_text(std::uint32_t nip) { inet_ntop(AF_INET, &nip, s, sizeof s); }
};

int dhcp_interface_cli(const cmd_element *self, vty *vty, int argc, const char *argv[])
{
    const char *name = argv[0];
    if (name[0] == 'v') {
        int ret = dhcp_shell_interface(vty, name);
        if (ret != CMD_SUCCESS) return dhcp_shell_interface_failed(vty, name, ret);
        vty->node = INTERFACE_NODE;
        auto *ifp = static_cast<interface *>(vty->index);
        if (!dhcp_if_is_intialized(ifp)) {
            if (dhcp_if_init(ifp) != 0) {
                zlog_info("dhcp_interface_add if %s initial failed", name);
                return TAVO_ERR;
            }
            // The management row would be added here; this build keeps no store.
        }
        return CMD_SUCCESS;
    }
    if (std::strcmp(name, "lo:1") == 0 || std::strcmp(name, "eth1") == 0) {
        int ret = dhcp_shell_interface(vty, name);
        if (ret != CMD_SUCCESS) return dhcp_shell_interface_failed(vty, name, ret);
        vty->node = INTERFACE_NODE;
        return CMD_SUCCESS;
    }
    if (uif_lookup_by_name(name)) {
        int ret = dhcp_port_interface_func(self, vty, argc, argv);
        if (ret != CMD_SUCCESS) {
            vty_out(vty, "%% DHCP not find port %s%s", name, VTY_NEWLINE);
            return ret;
        }
        return CMD_SUCCESS;
    }
    int ret = dhcp_port_interface_func(self, vty, argc, argv);
    if (ret != CMD_SUCCESS) return ret;
    auto *pif = static_cast<uif_t *>(vty->index);
    if (pif && st_ifindex_get_port_type(pif->ifindex) == PORT_TYPE_TRUNK)
        zlog_info("interface %s is a trunk, its members follow it", name);
    return CMD_SUCCESS;
}

}  // namespace

DEFUN(no_dhcp_interface_cli, no_dhcp_interface_cmd, "no interface IFNAME",
      NO_STR "Select an interface to configure\nInterface name\n")
{
    // Interfaces and their relay configuration outlive the command on purpose.
    return CMD_SUCCESS;
}

DEFUN(dhcp_interface_show_cli, dhcp_interface_show_cmd, "show ip dhcp interface",
      SHOW_STR IP_STR "DHCP\n" INTERFACE_STR)
{
    vty_out(vty, "  interface      dhcp-relay      relay-gateway  %s", VTY_NEWLINE);
    vty_out(vty, "------------------------------------------------%s", VTY_NEWLINE);
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp)) {
        const dhcp_info_t *info = dhcp_if_info(ifp);
        if (!info) {
            vty_out(vty, "  %-15s  disable %s", ifp->name, VTY_NEWLINE);
            continue;
        }
        if (starts_with(ifp->name, "mgmt")) continue;
        if (info->v4_type != DHCP_IF_TYPE_RELAY) {
            vty_out(vty, "  %-15s  disable %s", ifp->name, VTY_NEWLINE);
            continue;
        }
        vty_out(vty, "  %-15s  enable ", ifp->name);
        if (info->info && info->info->local_ipaddr) vty_out(vty, "        %-15s  ", ip_text(info->info->local_ipaddr).s);
        vty_out(vty, "  %s", VTY_NEWLINE);
    }
    if (g_dhcp_debug & DHCP_DEBUG_DIAGNOSE) {
        for (interface *ifp = if_first(); ifp; ifp = if_next(ifp))
            vty_out(vty, "Interface %s index %u flags %#llx %s mtu %u%s", ifp->name, ifp->ifindex,
                    static_cast<unsigned long long>(ifp->flags), if_flag_dump(ifp->flags), ifp->mtu, VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

DEFUN(dhcp_interface_show_detail_cli, dhcp_interface_show_detail_cmd, "show ip dhcp interface IFNAME",
      SHOW_STR IP_STR "DHCP\n" INTERFACE_STR "Interface name\n")
{
    interface *ifp = if_lookup_by_name(argv[0]);
    if (!ifp) {
        vty_out(vty, "%% interface %s not existed. %s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    const bool diagnose = g_dhcp_debug & DHCP_DEBUG_DIAGNOSE;
    // "0x" before a decimal index is what operators' scripts already parse.
    vty_out(vty, "  %-10s  :  0x%-d  %s", "ifindex", int(ifp->ifindex), VTY_NEWLINE);
    vty_out(vty, "  %-10s  :  0x%-x  %s", "uifindex", ifp->uifindex, VTY_NEWLINE);
    vty_out(vty, "  %-10s  :  0x%-llx %s  %s", "flags", static_cast<unsigned long long>(ifp->flags),
            if_flag_dump(ifp->flags), VTY_NEWLINE);
    for (const prefix &p : ifp->connected) {
        if (p.family != AF_INET) continue;
        char addr[INET6_ADDRSTRLEN];
        std::string text = std::string(dhcp_prefix_addr_str(&p, addr, sizeof addr)) + "/" + std::to_string(p.prefixlen);
        vty_out(vty, "  %-10s  :  %s  %s", "ipv4", text.c_str(), VTY_NEWLINE);
    }
    if (diagnose) {
        const struct {
            const char *label;
            long long value;
        } rows[] = {
            {"status", ifp->status},   {"metric", ifp->metric},         {"mtu", ifp->mtu},
            {"mtu6", ifp->mtu6},       {"hw_type", ifp->hw_type},       {"hw_addrlen", ifp->hw_addr_len},
            {"bandwidth", ifp->bandwidth}, {"ip_type", ifp->ip_type},
        };
        for (const auto &r : rows) vty_out(vty, "  %-10s  :  %-15d  %s", r.label, int(r.value), VTY_NEWLINE);
    }

    const dhcp_info_t *info = dhcp_if_info(ifp);
    if (!info) {
        vty_out(vty, " dhcp is disable. %s", VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    if (info->v4_type != DHCP_IF_TYPE_RELAY) {
        vty_out(vty, " dhcp relay is disable. %s", VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    const dhcpr_t *dhcpr = info->info;
    if (!dhcpr) {
        vty_out(vty, " !! dhcp relay is enable but not initialized. %s", VTY_NEWLINE);
        return CMD_SUCCESS;
    }
    vty_out(vty, " dhcp relay is enable. %s", VTY_NEWLINE);
    vty_out(vty, "  %-10s  :  %-d  %s", "helper count", int(dhcpr->server_list.size()), VTY_NEWLINE);
    if (diagnose) {
        vty_out(vty, "  %-10s  :  %-p  %s", "dhcp ifp", static_cast<const void *>(dhcpr->ifp), VTY_NEWLINE);
        vty_out(vty, "  %-10s  :  %-d  %s", "index", int(dhcpr->kernel_ifindex), VTY_NEWLINE);
        vty_out(vty, "  %-10s  :  %-s  %s", "ip", ip_text(dhcpr->local_ipaddr).s, VTY_NEWLINE);
        vty_out(vty, "  %-10s  :  %-lu  %s", "dhcp t", static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(dhcpr->t)),
                VTY_NEWLINE);
        vty_out(vty, "  %-10s  :  %-d  %s", "server_fd", int(dhcpr->server_fd), VTY_NEWLINE);
        vty_out(vty, "  %-10s  :  %-lu  %s", "server_t",
                static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(dhcpr->server_t)), VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

// ------------------------------------------------------------ writers ----

int dhcp_config_write_l3if(vty *vty)
{
    int written = 0;
    for (interface *ifp = if_first(); ifp; ifp = if_next(ifp)) {
        const dhcp_info_t *info = dhcp_if_info(ifp);
        if (!info || starts_with(ifp->name, "eth")) continue;
        vty_out(vty, "interface %s%s", ifp->name, VTY_NEWLINE);
        if (info->v4_type == DHCP_IF_TYPE_RELAY || info->v6_type == DHCP_IF_TYPE_RELAY) dhcpr_if_config_write(vty, ifp);
        ++written;
    }
    return written;
}

int dhcp_config_write_port(vty *vty)
{
    dhcp_snoop_port_config_write(vty);
    return 0;
}

// -------------------------------------------------------- registration ----

namespace {
cmd_node dhcp_l3if_node = {INTERFACE_NODE, "%s(config-if)# ", 1};
cmd_node dhcp_port_node = {IF_NODE, "%s(config-if)# ", 1};
}  // namespace

void dhcp_vty_init()
{
    install_node(&dhcp_l3if_node, dhcp_config_write_l3if);
    install_default(INTERFACE_NODE);
    install_node(&dhcp_port_node, dhcp_config_write_port);
    install_default(IF_NODE);

    for (const cmd_element *c : {&dhcp_interface_show_cmd, &dhcp_interface_show_detail_cmd}) {
        install_element(ENABLE_NODE, c);
        install_element(CONFIG_NODE, c);
    }

    // One "interface IFNAME" in the configuration node: ours, in the device
    // library's element, with the library's handler kept for ports.
    if (uif_interface_cmd.func != dhcp_interface_cli) {
        dhcp_port_interface_func = uif_interface_cmd.func;
        uif_interface_cmd.func = dhcp_interface_cli;
    }
    install_element(CONFIG_NODE, &uif_interface_cmd);
    install_element(CONFIG_NODE, &no_dhcp_interface_cmd);

    for (const cmd_element *c : {&show_ip_dhcp_port_cmd, &show_ip_dhcp_vlan_cmd, &show_ip_dhcp_vlan_id_cmd}) {
        install_element(ENABLE_NODE, c);
        install_element(CONFIG_NODE, c);
    }
}
