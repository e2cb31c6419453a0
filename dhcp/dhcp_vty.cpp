#include "dhcp/dhcp_vty.h"

#include <cstdlib>
#include <string>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/command.h"
#include "lib/vty.h"

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

void dhcp_vty_init()
{
    for (const cmd_element *c : {&show_ip_dhcp_port_cmd, &show_ip_dhcp_vlan_cmd, &show_ip_dhcp_vlan_id_cmd}) {
        install_element(ENABLE_NODE, c);
        install_element(CONFIG_NODE, c);
    }
}
