#include "dhcp/dhcp_l2relay.h"

#include <arpa/inet.h>
#include <cstdio>

#include "devlib/ifindex.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_send.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_stats.h"
#include "dhcp/dhcpr_if.h"
#include "platform/errcode.h"

namespace {

enum { DHCP_LEASE_TIME_DEFAULT = 864000 };

// Texts for the packet-path debug lines, formatted only when those lines are
// printed: the path runs for every frame, the lines rarely.
struct mac_str {
    char s[16] = "";
    explicit mac_str(const std::uint8_t *m)
    {
        if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET))
            std::snprintf(s, sizeof s, "%02x%02x-%02x%02x-%02x%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    }
};

struct ip_str {
    char s[INET_ADDRSTRLEN] = "";
    explicit ip_str(std::uint32_t nip)
    {
        if (!DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) return;
        in_addr a;
        a.s_addr = nip;
        inet_ntop(AF_INET, &a, s, sizeof s);
    }
};

}  // namespace

std::uint32_t dhcp_select_lease_time(bytes_view packet)
{
    bytes_view v;
    if (!dhcp_option_value(packet, DHCP_LEASE_TIME, v)) return DHCP_LEASE_TIME_DEFAULT;
    return dhcp_get_op51_lease_time(packet);
}

std::uint32_t dhcp_get_l2_packet_source_port(std::uint32_t ifindex)
{
    if (st_ifindex_get_port_type(ifindex) != PORT_TYPE_GONU) return ifindex;
    return st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, st_ifindex_get_shelf_id(ifindex), st_ifindex_get_slot_id(ifindex),
                                     st_ifindex_get_subslot_id(ifindex), st_ifindex_get_port_id(ifindex), 0);
}

std::uint32_t dhcp_proc_netlink_l2_packet(uif_t *pif, dhcp_l2_pkt_t *p)
{
    int vid = p->l2fwd_info.rx_vlanid;
    const char *type = dhcp_msg_type_str(p->dhcp_msg_type);
    mac_str client(p->dhcp_client_addr);
    bool reply = p->dhcp_op_code == BOOTREPLY;

    if (reply && !dhcp_port_trust_check(pif)) {
        DHCP_PKT_DEBUG("[vid:%4d]=====>drop the %s packet from un-trust port %s", vid, type, pif->name);
        return TAVO_PORT;
    }
    if (p->dhcp_op_code == BOOTREQUEST && dhcp_port_is_uplink(pif)) {
        DHCP_PKT_DEBUG("[vid:%4d]=====>drop the %s packet from trust port %s", vid, type, pif->name);
        return TAVO_PORT;
    }
    // A RELEASE ends the binding whatever becomes of the frame.
    if (p->dhcp_msg_type == DHCPRELEASE) {
        dhcp_snooping_delete_client_info_by_mac(p->dhcp_client_addr);
        dhcp_ipSource_delete_client_by_mac(p->dhcp_client_addr);
    }
    if (reply) {
        ip_str yiaddr(p->dhcp_offer_ip);
        dhcpr_t *rif = dhcpr_interface_lookup_by_ipaddr(p->dhcp_gateway);
        if (rif && dhcpr_relay_is_enable_on_interface(rif)) {
            dhcp_l3relay_proc_dhcpv4_packet(pif, p);
            DHCP_PKT_DEBUG("[vid:%4d]====> handle vlan %d-%s message %s ip %s by L3 relay from vlan %d.", vid,
                           dhcpr_interface_vid(rif), client.s, type, yiaddr.s, vid);
            return 0;
        }
        if (rif) {
            DHCP_PKT_DEBUG("[vid:%4d]====> Drop vlan %d-%s message %s ip %s by L3 relay from vlan %d. Relay disable on %s",
                           vid, dhcpr_interface_vid(rif), client.s, type, yiaddr.s, vid, dhcpr_interface_name(rif));
            return TAVO_ERR;
        }
        DHCP_PKT_DEBUG("[vid:%4d]====> vlan %d-%s message %s ip %s not handled by L3 relay from vlan %d. Relay disable on %s",
                       vid, vid, client.s, type, yiaddr.s, vid, pif->name);
    }

    uvlan_entry_t *vlan = vlan_get_entry(static_cast<std::uint16_t>(vid));
    if (!vlan) {
        DHCP_PKT_DEBUG("[vid:%4d]=====>vlan %d not existed. Drop the %s packet from port %s", vid, vid, type, pif->name);
        return TAVO_VLAN;
    }
    bool ipv4 = p->eth_ip_proto == 0x0800;
    if (dhcpr_relay_is_enable_on_vlan(vlan)) {
        if (ipv4) {
            DHCP_PKT_DEBUG("[vid:%4d]relay enable on vlanif%d, continue l3 relay processing", vid, vid);
            dhcp_l3relay_proc_dhcpv4_packet(pif, p);
        } else {
            DHCP_PKT_DEBUG("[vid:%4d]=====>IPV6 relay not support. Drop the %s packet from port %s", vid, type,
                           pif->name);
        }
        return 0;
    }
    if (ipv4) {
        DHCP_PKT_DEBUG("[vid:%4d]relay disable on vlan %d, continue l2 ipv4 processing", vid, vid);
        dhcp_l2relay_proc_dhcpv4_packet(pif, vlan, p);
    } else {
        DHCP_PKT_DEBUG("[vid:%4d]=====>IPV6 packet not support. Drop the %s packet from port %s", vid, type, pif->name);
    }
    return 0;
}

namespace {

// Forwarding, the last step of the layer-2 path.
std::uint32_t l2_forward(dhcp_l2_pkt_t *p, std::uint32_t src_port)
{
    if (p->dhcp_op_code == BOOTREQUEST) {
        dhcp_send_l2_packet_to_server(p, src_port);
        if (p->dhcp_msg_type == DHCPRELEASE) dhcp_delete_client_by_vlan_mac(p->l2fwd_info.rx_vlanid, p->dhcp_client_addr);
    } else {
        dhcp_send_l2_packet_to_client(p, src_port);
    }
    return 0;
}

}  // namespace

std::uint32_t dhcp_l2relay_proc_dhcpv4_packet(uif_t *pif, uvlan_entry_t *vlan_entry, dhcp_l2_pkt_t *p)
{
    int vid = p->l2fwd_info.rx_vlanid;
    std::uint32_t src_port = dhcp_get_l2_packet_source_port(pif->ifindex);
    // At layer 2 a reply is relayed in the VLAN it came in on, and the
    // binding table keys replies on the relay VLAN.
    p->l2fwd_info.relay_vid = p->l2fwd_info.rx_vlanid;
    const char *type = dhcp_msg_type_str(p->dhcp_msg_type);
    mac_str client(p->dhcp_client_addr);
    bytes_view msg = dhcp_l2_message(p);

    if (!dhcp_get_vlan_info(vlan_entry)) {
        zlog_err("[vid:%4d]failed to get dhcp vlan info %d,just fwd!", vid, vid);
        return l2_forward(p, src_port);
    }
    dhcp_pkt_statistic_l2_pkt_rx(msg, p->dhcp_msg_type, pif->ifindex, vid);
    DHCP_PKT_DEBUG("[vid:%4d]client[%d:%s] proc msg [%s]", vid, vid, client.s, type);

    if (dhcp_relay_is_enable()) {
        if (p->dhcp_op_code == BOOTREQUEST) {
            dhcpr_t *rif = dhcpr_interface_get_by_vlan_id(static_cast<std::uint16_t>(vid));
            if (rif && dhcpr_relay_is_enable_on_interface(rif)) {
                DHCP_PKT_DEBUG("[vid:%4d]====> BOOTREQUEST recieved on %s handled by L3 relay if %s.", vid, pif->name,
                               dhcpr_interface_name(rif));
                dhcp_l3relay_proc_dhcpv4_packet(pif, p);
                return 0;
            }
        } else {
            dhcpr_t *rif = dhcpr_interface_lookup_by_ipaddr(p->ipv4_dst_addr);
            if (rif && dhcpr_relay_is_enable_on_interface(rif)) {
                DHCP_PKT_DEBUG("[vid:%4d]====> BOOTREPLY recieved on %s handled by L3 relay if %s.", vid, pif->name,
                               dhcpr_interface_name(rif));
                dhcp_l3relay_proc_dhcpv4_packet(pif, p);
                return 0;
            }
        }
    }

    if (!dhcp_snoop_is_enable()) {
        DHCP_PKT_DEBUG("[vid:%4d]Global dhcp snooping is disable. forward packet from %s tx vlan %d", vid, pif->name,
                       vid);
        return l2_forward(p, src_port);
    }
    if (!dhcp_vlan_snooping_check(vlan_entry)) {
        DHCP_PKT_DEBUG("[vid:%4d]Vlan dhcp snooping is disable. forward from %s to server", vid, pif->name);
        return l2_forward(p, src_port);
    }

    if (p->dhcp_msg_type == DHCPDISCOVER || p->dhcp_msg_type == DHCPREQUEST) {
        dhcp_add_client_lease_info(1, p);
        DHCP_PKT_DEBUG("[vid:%4d]snoop add lease information for client %s vlan %d if %s ", vid, client.s, vid,
                       pif->name);
    } else if (p->dhcp_msg_type == DHCPACK && p->dhcp_offer_ip != 0) {
        ip_str yiaddr(p->dhcp_offer_ip);
        std::uint32_t lease = dhcp_select_lease_time(msg);
        DHCP_PKT_DEBUG("[vid:%4d]Snooping update lease information for client %s ip %s lease time %d,don't need update",
                       vid, client.s, yiaddr.s, int(lease));
        dhcp_update_client_lease_info(static_cast<std::uint16_t>(vid), 1, p);
        if (dhcp_vlan_ipverify_check(vlan_entry)) {
            DHCP_PKT_DEBUG("[vid:%4d]ip source guard update lease information for client %s ip %s ", vid, client.s,
                           yiaddr.s);
            dhcp_ipSource_add_client(1, p->dhcp_client_addr, static_cast<std::uint16_t>(vid), p->dhcp_offer_ip);
        }
    }

    if (dhcp_op82_is_enable() && dhcp_vlan_op82_check(vlan_entry) && p->dhcp_op_code == BOOTREQUEST) {
        if (dhcp_process_option_82_info(pif, p) != 0) {
            zlog_err("[vid:%4d]====> Option 82 process fail. drop the packet on vlan %d.", vid, vid);
            return TAVO_ERR;
        }
    }
    return l2_forward(p, src_port);
}
