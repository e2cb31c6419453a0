#include "dhcp/dhcpr_if.h"

#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_snoop.h"
#include "lib/log.h"
#include "platform/errcode.h"

int dhcp_relay_is_enable() { return g_dhcp_global_cfg.relay_enable; }

int dhcpr_relay_is_enable_on_vlan(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *info = vlan ? dhcp_get_vlan_info(vlan) : nullptr;
    return info ? info->relay_enable : 0;
}

dhcpr_t *dhcpr_interface_lookup_by_ipaddr(std::uint32_t) { return nullptr; }
dhcpr_t *dhcpr_interface_get_by_vlan_id(std::uint16_t) { return nullptr; }
int dhcpr_relay_is_enable_on_interface(const dhcpr_t *) { return 0; }
const char *dhcpr_interface_name(const dhcpr_t *) { return ""; }
std::uint16_t dhcpr_interface_vid(const dhcpr_t *) { return 0; }

int dhcp_l3relay_proc_dhcpv4_packet(uif_t *, dhcp_l2_pkt_t *p)
{
    zlog_err("[vid:%4d]no layer-3 relay in this daemon, frame dropped", p ? p->l2fwd_info.rx_vlanid : 0);
    return TAVO_UNAVAIL;
}
