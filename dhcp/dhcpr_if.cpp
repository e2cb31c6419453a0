#include "dhcp/dhcpr_if.h"

#include <arpa/inet.h>

#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcpr.h"
#include "lib/log.h"
#include "platform/errcode.h"

namespace {

struct ip_text {
    char s[INET_ADDRSTRLEN];
    explicit ip_text(std::uint32_t nip) { inet_ntop(AF_INET, &nip, s, sizeof s); }
};
struct mac_text {
    char s[18];
    explicit mac_text(const std::uint8_t *m)
    {
        std::snprintf(s, sizeof s, "%02x%02x-%02x%02x-%02x%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    }
};

dhcpr_t *relay_of(const interface *ifp) { return ifp && dhcp_if_info(ifp) ? dhcp_if_info(ifp)->info : nullptr; }

}  // namespace

int dhcpr_relay_is_enable_on_vlan(uvlan_entry_t *vlan)
{
    dhcp_vlan_t *info = vlan ? dhcp_get_vlan_info(vlan) : nullptr;
    return info ? info->relay_enable : 0;
}

dhcpr_t *dhcpr_interface_lookup_by_ipaddr(std::uint32_t nip) { return relay_of(dhcpr_if_lookup_by_ipaddr(nip)); }

dhcpr_t *dhcpr_interface_get_by_vlan_id(std::uint16_t vid) { return relay_of(dhcpr_if_get_by_vlan_id(vid)); }

int dhcpr_relay_is_enable_on_interface(const dhcpr_t *d)
{
    return d ? dhcpr_relay_is_enable_on_interface(static_cast<const interface *>(d->ifp)) : 0;
}

const char *dhcpr_interface_name(const dhcpr_t *d) { return d && d->ifp ? d->ifp->name : ""; }

std::uint16_t dhcpr_interface_vid(const dhcpr_t *d) { return d ? dhcp_if_vlan_id(d->ifp) : 0; }

int dhcp_l3relay_proc_dhcpv4_packet(uif_t *pif, dhcp_l2_pkt_t *p)
{
    if (!p) return TAVO_PARAM;
    std::uint16_t vid = p->l2fwd_info.rx_vlanid;
    const char *type = dhcp_msg_type_str(p->dhcp_msg_type);
    const char *port = pif ? pif->name : "";
    mac_text client(p->dhcp_client_addr);
    if (p->dhcp_op_code == BOOTREQUEST) {
        if (!vlan_get_entry(vid)) {
            DHCP_PKT_DEBUG("[vid:%4d]vlan %d not existed. Drop the %s packet from port %s ====>", vid, vid, type, port);
            return TAVO_VLAN;
        }
        interface *relay_if = dhcpr_if_get_by_vlan_id(vid);
        if (!dhcpr_relay_is_enable_on_interface(relay_if)) {
            char name[INTERFACE_NAMSIZ + 1];
            std::snprintf(name, sizeof name, "vlanif%d", vid);
            zlog_err("[vid:%4d]if %s dhcp relay disable . drop the packet ====> ", vid, name);
            return TAVO_PORT;
        }
        DHCP_PKT_DEBUG("[vid:%4d]handle port %s client %s xid 0x%08x message %s", vid, port, client.s,
                       ntohl(p->dhcp_curr_xid), type);
        return dhcp_l3relay_proc_dhcpv4_from_client(pif, relay_if, p);
    }
    if (p->dhcp_op_code == BOOTREPLY) {
        ip_text yiaddr(p->dhcp_offer_ip), src(p->ipv4_src_addr);
        interface *relay_if = dhcpr_if_lookup_by_ipaddr(p->dhcp_gateway);
        if (!relay_if) {
            zlog_err("[EVENT]=====> handle client %s xid 0x%08x message %s to ip %s from %s failed to find vlanif drop",
                     client.s, ntohl(p->dhcp_curr_xid), type, yiaddr.s, src.s);
            return TAVO_ERR;
        }
        if (!dhcpr_relay_is_enable_on_interface(relay_if)) {
            DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT,
                           "[EVENT]======> handle interface %s client %s xid 0x%08x message %s to ip %s from %s. relay "
                           "is disable, drop the packet",
                           relay_if->name, client.s, ntohl(p->dhcp_curr_xid), type, yiaddr.s, src.s);
            if (p->ipv4_dst_addr != p->dhcp_gateway)
                DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]packet gateway ip %s", ip_text(p->dhcp_gateway).s);
            return TAVO_ERR;
        }
        p->l2fwd_info.relay_vid = dhcp_if_vlan_id(relay_if);
        DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]handle port %s client %s xid 0x%08x message %s to ip %s from %s", port,
                       client.s, ntohl(p->dhcp_curr_xid), type, yiaddr.s, src.s);
        return dhcp_l3relay_proc_dhcpv4_from_server(relay_if, p);
    }
    return 0;
}
