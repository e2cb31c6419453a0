#include "devlib/dev_vty.h"

#include <cstdlib>

#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "lib/vty.h"

namespace {

// VLANs and ports come from the device manager; the shell only enters them.
int uvlan_vlan_cli(const cmd_element *, vty *vty, int, const char *argv[])
{
    long vid = std::strtol(argv[0], nullptr, 10);
    if (!vlan_get_entry(static_cast<std::uint16_t>(vid))) {
        vty_out(vty, "%% Vlan %ld does not exist%s", vid, VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    vty->node = VLAN_NODE;
    vty->index = nullptr;
    vty->index_sub = vid;
    return CMD_SUCCESS;
}

int uif_interface_cli(const cmd_element *, vty *vty, int, const char *argv[])
{
    uif_t *pif = uif_lookup_by_name(argv[0]);
    if (!pif) {
        vty_out(vty, "%% Interface %s does not exist%s", argv[0], VTY_NEWLINE);
        return CMD_ERR_REFUSED;
    }
    vty->node = IF_NODE;
    vty->index = pif;
    vty->index_sub = static_cast<long>(pif->ifindex);
    return CMD_SUCCESS;
}

cmd_node vlan_node = {VLAN_NODE, "%s(config-vlan)# ", 1};
cmd_node if_node = {IF_NODE, "%s(config-if)# ", 1};

}  // namespace

cmd_element uvlan_vlan_cmd = {"vlan <1-4094>", uvlan_vlan_cli, "Configure a VLAN\nVLAN id\n"};
cmd_element uif_interface_cmd = {"interface IFNAME", uif_interface_cli, "Select an interface to configure\nInterface name\n"};

void dev_vty_init()
{
    install_node(&vlan_node, nullptr);
    install_node(&if_node, nullptr);
    install_default(VLAN_NODE);
    install_default(IF_NODE);
    install_element(CONFIG_NODE, &uvlan_vlan_cmd);
    install_element(CONFIG_NODE, &uif_interface_cmd);
}
