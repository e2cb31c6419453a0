#include "dhcp/dhcp_send.h"

#include <cstring>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpv6_msg.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "platform/hal_msg.h"
#include "platform/product.h"
#include "platform/st_packet.h"

namespace {

struct tx_fields {
    std::uint32_t slot;
    std::uint32_t ifindex;
    std::uint32_t flags;
    std::uint16_t vid;
    std::uint32_t src_if;
};

// Every outgoing frame is one zeroed 1680-byte packet message.
int hal_tx_frame(const tx_fields &f, const std::uint8_t *frame, std::uint16_t len)
{
    std::uint8_t msg[HAL_PKT_MSG_LEN] = {};
    hal_msg_pkt_t p{};
    p.ifindex = f.ifindex;
    p.flags = f.flags;
    p.fwd_info.vid = f.vid;
    p.src_if = f.src_if;
    p.len = len;
    p.data = frame;
    if (!hal_msg_pkt_build(bytes_span(msg, sizeof msg), p, HAL_MSG_FLAG_REQUEST, 0, f.slot)) return TAVO_ERR;
    return hal_send_async(msg, sizeof msg);
}

void hex_dump(int vid, const std::uint8_t *data, std::size_t len)
{
    char prefix[16];
    std::snprintf(prefix, sizeof prefix, "[vid:%4d]", vid);
    st_hex_dump_packet(prefix, bytes_view(data, len));
}

}  // namespace

int dhcp_tx_l2_packet(const dhcp_l2_pkt_t *p, std::uint32_t src_ifindex, std::uint32_t out_ifindex, int slotid)
{
    int vid = p->l2fwd_info.rx_vlanid;
    if (p->raw_packet_len >= DHCP_HAL_FRAME_MAX) {
        zlog_err("[vid:%4d]======> Drop pkt vid=%d, len=%d outif %#x sourceif %s to hal too big", vid, vid,
                 p->raw_packet_len, out_ifindex, st_ifname(src_ifindex));
        return TAVO_ERR;
    }
    DHCP_PKT_DEBUG("[vid:%4d]======> Send pkt to server vid=%d, len=%d outif %#x sourceif %s to hal", vid, vid,
                   p->raw_packet_len, out_ifindex, st_ifname(src_ifindex));
    return hal_tx_frame({std::uint32_t(slotid), out_ifindex, 0, 0, 0}, p->raw_packet, p->raw_packet_len);
}

int dhcp_send_l2_packet(const std::uint8_t *data, std::uint16_t vid, std::uint32_t ifindex,
                        std::uint16_t layer2_pkt_len, std::uint32_t src_ifindex, int slotid)
{
    if (layer2_pkt_len >= DHCP_HAL_FRAME_MAX) {
        zlog_err("[vid:%4d]======> Send pkt to client vid=%d, len=%d outif %#x sourceif %s to hal too big", vid, vid,
                 layer2_pkt_len, ifindex, st_ifname(src_ifindex));
        return TAVO_ERR;
    }
    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) {
        hex_dump(vid, data, layer2_pkt_len);
        zlog_debug("[vid:%4d]======> Send pkt to client vid=%d, len=%d outif %#x sourceif %#x to slot %d", vid, vid,
                   layer2_pkt_len, ifindex, src_ifindex, slotid);
    }
    return hal_tx_frame({std::uint32_t(slotid), ifindex, DHCP_FLAG_TO_CLIENT, vid, src_ifindex}, data,
                        layer2_pkt_len);
}

void dhcp_send_l2_packet_to_server(const dhcp_l2_pkt_t *p, std::uint32_t src_ifindex)
{
    int vid = p->l2fwd_info.rx_vlanid;
    int my_slot = st_product_slot_id_get();
    int rx_slot = st_ifindex_get_slot_id(p->l2fwd_info.rx_ifindex);
    // A frame taken in on a line card goes to the controller over the backplane.
    if (rx_slot > 0 && rx_slot != my_slot) {
        dhcp_tx_l2_packet(p, src_ifindex, st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, DHCP_BACKPLANE_TRUNK), rx_slot);
        return;
    }
    for (uif_t *ifp = uif_first(); ifp; ifp = uif_next(ifp)) {
        int type = st_ifindex_get_port_type(ifp->ifindex);
        // Ports are walked in ifindex order, which is type order: past the
        // trunks come only VLAN interfaces and the PON side, thousands of them.
        if (type > PORT_TYPE_TRUNK) break;
        if (!ifp->status) continue;
        if ((type == PORT_TYPE_GE || type == PORT_TYPE_XE) && ifp->trunk == 0) {
            DHCP_PKT_DEBUG("[vid:%4d]fwd packet to port %s", vid, ifp->name);
        } else if ((ifp->flags & UIF_FLAG_TRUNK_MEMBER_SKIP) || type == PORT_TYPE_TRUNK) {
            DHCP_PKT_DEBUG("[vid:%4d]fwd packet to trunk port %s", vid, ifp->name);
        } else {
            continue;
        }
        dhcp_tx_l2_packet(p, src_ifindex, ifp->ifindex, my_slot);
    }
    if (!DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) return;
    char mac[16];
    std::snprintf(mac, sizeof mac, "%02x%02x-%02x%02x-%02x%02x", p->dhcp_client_addr[0], p->dhcp_client_addr[1],
                  p->dhcp_client_addr[2], p->dhcp_client_addr[3], p->dhcp_client_addr[4], p->dhcp_client_addr[5]);
    if (p->ip_version == 6)
        zlog_debug("[vid:%4d]send srcif %s client %s DHCPv6 message %s to server", vid, st_ifname(src_ifindex), mac,
                   dhcpv6_msg_type_str(p->dhcp_msg_type));
    else
        zlog_debug("[vid:%4d]send srcif %s client %s message %s to server", vid, st_ifname(src_ifindex), mac,
                   dhcp_msg_type_str(p->dhcp_msg_type));
}

int dhcp_send_l2_packet_to_client(dhcp_l2_pkt_t *p, std::uint32_t src_ifindex)
{
    int vid = p->l2fwd_info.rx_vlanid;
    char client[16] = "";
    const std::uint8_t *c = p->dhcp_client_addr;
    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET))
        std::snprintf(client, sizeof client, "%02x%02x-%02x%02x-%02x%02x", c[0], c[1], c[2], c[3], c[4], c[5]);
    static const std::uint8_t bcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    if (std::memcmp(p->eth_dst_mac, bcast, 6) == 0 && !dhcp_reply_is_multicast_keep() && p->raw_packet_len >= 6) {
        std::memcpy(p->raw_packet, p->dhcp_client_addr, 6);
        std::memcpy(p->eth_dst_mac, p->dhcp_client_addr, 6);
        DHCP_PKT_DEBUG("[vid:%4d]change dmac to client mac %s", vid, client);
    }
    DHCP_PKT_DEBUG("[vid:%4d]send server message %s from %s to client %s", vid, dhcp_msg_type_str(p->dhcp_msg_type),
                   st_ifname(src_ifindex), client);
    uif_t *port = dhcp_snooping_get_client_interface_by_vlan_mac(p->dhcp_client_addr, p->l2fwd_info.rx_vlanid);
    std::uint32_t out = port ? port->ifindex : DHCP_IFINDEX_ALL;
    int slot = port ? st_ifindex_get_slot_id(port->ifindex) : 0;
    if (slot < 0) slot = 0;  // a logical port lives on this controller
    return dhcp_send_l2_packet(p->raw_packet, p->l2fwd_info.rx_vlanid, out, p->raw_packet_len, src_ifindex, slot);
}

int dhcp_packet_send(const std::uint8_t *buf, std::uint16_t vid, std::uint16_t len, std::uint32_t out_ifindex,
                     int is_from_client)
{
    if (!is_from_client) {
        if (out_ifindex == DHCP_IFINDEX_ALL) {
            zlog_err("Can not find correspond ONU for ifindex %#x", out_ifindex);
            return TAVO_ERR;
        }
        DHCP_PKT_DEBUG("[PKT]Send pkt vid=%d, len=%d to ONU", vid, len);
        return hal_tx_frame({0, out_ifindex, 0, vid, 0}, buf, len);
    }
    int sent = 0, rc = 0;
    for (uif_t *ifp = uif_first(); ifp; ifp = uif_next(ifp)) {
        int type = st_ifindex_get_port_type(ifp->ifindex);
        if (type == PORT_TYPE_GPON || type == PORT_TYPE_GONU) continue;
        if (out_ifindex != DHCP_IFINDEX_ALL && ifp->ifindex != out_ifindex) continue;
        if (vid != 0 && vid != 1 && !dhcp_vlan_is_in_port(ifp, vid)) continue;
        if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) {
            zlog_debug("[PKT]Send pkt vid=%d, len=%d to if %s", vid, len, ifp->name);
            hex_dump(vid, buf, len);
        }
        int r = hal_tx_frame({0, ifp->ifindex, 0, vid, 0}, buf, len);
        if (r && !rc) rc = r;
        ++sent;
    }
    if (sent) return rc;
    if (out_ifindex == DHCP_IFINDEX_ALL) {
        zlog_err("Not found uplink port for vid %d", vid);
        return TAVO_ERR;
    }
    zlog_err("uplink ifindex %#x do not have vid %d", out_ifindex, vid);
    return 0;
}
