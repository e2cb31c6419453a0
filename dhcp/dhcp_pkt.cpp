#include "dhcp/dhcp_pkt.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_opt.h"
#include "platform/errcode.h"
#include "platform/st_packet.h"

namespace {

enum {
    IPV4_MIN_HDR = 20,
    IPV6_HDR_LEN = 40,
    UDP_HDR_LEN = 8,
    IPPROTO_UDP_NUM = 17,
    DHCP_SERVER_PORT = 67,
    DHCPV6_SERVER_PORT = 547,
};

bool client_debug() { return DHCP_DEBUG_ON(DHCP_DEBUG_PACKET); }

void trace_layer(int vid, const char *text) { DHCP_PKT_DEBUG("[vid:%4d]%s ", vid, text); }



void copy_text(char *dst, std::size_t max_chars, const char *src)
{
    std::size_t n = std::min(std::strlen(src), max_chars);
    std::memcpy(dst, src, n);
    dst[n] = 0;
}

int truncated(int vid, const char *what, std::size_t len)
{
    zlog_err("[vid:%4d]Truncated %s header(len=%d)", vid, what, int(len));
    return TAVO_ERR;
}

// The UDP header at udp_off: ports (one must be `server_port`), and a length
// that the frame holds and that leaves at least `min_msg` message bytes.
// Sets the UDP and message offsets and the message length.
int parse_udp(dhcp_l2_pkt_t *p, bytes_view frame, std::size_t udp_off, std::uint16_t server_port,
              const char *not_dhcp_fmt, std::size_t min_msg)
{
    int vid = p->l2fwd_info.rx_vlanid;
    bytes_view udp = frame.subspan(std::min(udp_off, frame.size()));
    if (udp.size() < UDP_HDR_LEN) return truncated(vid, "udp", udp.size());
    if (client_debug()) {
        char line[96];
        trace_layer(vid, st_packet_dump_udp(udp, line, sizeof line));
    }
    p->udp_hdr_offset = static_cast<std::uint16_t>(udp_off);
    p->udp_src_port = stored16_at(udp, 0);
    p->udp_dst_port = stored16_at(udp, 2);
    std::uint16_t sport = ntohs(p->udp_src_port), dport = ntohs(p->udp_dst_port);
    if (sport != server_port && dport != server_port) {
        zlog_err(not_dhcp_fmt, vid, sport, dport);
        return TAVO_ERR;
    }
    std::uint16_t ulen = 0;
    be16_at(udp, 4, ulen);
    std::size_t msg_off = udp_off + UDP_HDR_LEN;
    if (ulen < UDP_HDR_LEN + min_msg || msg_off + (ulen - UDP_HDR_LEN) > frame.size())
        return truncated(vid, "udp", udp.size());
    p->dhcp_hdr_offset = static_cast<std::uint16_t>(msg_off);
    p->dhcp_msg_len = static_cast<std::uint16_t>(ulen - UDP_HDR_LEN);
    return 0;
}

int parse_ipv4(dhcp_l2_pkt_t *p, bytes_view frame, std::size_t ip_off)
{
    int vid = p->l2fwd_info.rx_vlanid;
    bytes_view ip = frame.subspan(ip_off);
    std::uint8_t vihl = 0, proto = 0;
    std::uint16_t total = 0;
    if (ip.size() < IPV4_MIN_HDR) return truncated(vid, "ip", ip.size());
    u8_at(ip, 0, vihl);
    be16_at(ip, 2, total);
    u8_at(ip, 9, proto);
    std::size_t ihl = std::size_t(vihl & 0x0f) * 4;
    if (ihl < IPV4_MIN_HDR || ihl > ip.size()) return truncated(vid, "ip", ip.size());
    if (client_debug()) {
        char line[160];
        trace_layer(vid, st_packet_dump_ipv4(ip, line, sizeof line));
    }
    p->eth_ip_proto = ST_ETH_P_IPV4;
    p->ip_version = 4;
    p->ip_hdr_offset = static_cast<std::uint16_t>(ip_off);
    p->ip_hdr_len = static_cast<std::uint16_t>(ihl);
    p->ip_data_len = total;
    p->ipv4_src_addr = stored32_at(ip, 12);
    p->ipv4_dst_addr = stored32_at(ip, 16);
    if (proto != IPPROTO_UDP_NUM) {
        zlog_err("[vid:%4d]Not an udp packet(protocol=%d)", vid, proto);
        return TAVO_ERR;
    }

    if (parse_udp(p, frame, ip_off + ihl, DHCP_SERVER_PORT, "[vid:%4d]Not dhcp packet(sport=%d, dport=%d)", 0) != 0)
        return TAVO_ERR;
    bytes_view msg = frame.subspan(p->dhcp_hdr_offset, p->dhcp_msg_len);

    int type = dhcp_get_msg_type(msg);
    if (type == 0) {
        zlog_err("[vid:%4d]%s failed to get dhcp type", vid, "dhcp_parse_l2_pkt");
        return TAVO_ERR;
    }
    wire_reader(msg, DHCP_OFF_CHADDR).copy(p->dhcp_client_addr, 6);
    dhcp_check_client_debug_start(p->dhcp_client_addr);
    p->dhcp_op_code = msg[DHCP_OFF_OP];
    p->dhcp_curr_xid = stored32_at(msg, DHCP_OFF_XID);
    p->dhcp_curr_ip = stored32_at(msg, DHCP_OFF_CIADDR);
    p->dhcp_offer_ip = stored32_at(msg, DHCP_OFF_YIADDR);
    p->dhcp_server = stored32_at(msg, DHCP_OFF_SIADDR);
    p->dhcp_gateway = stored32_at(msg, DHCP_OFF_GIADDR);
    p->dhcp_msg_type = static_cast<std::uint16_t>(type);

    copy_text(p->op12_host_name, 30, dhcp_get_op12_host_name(msg));
    p->op50_request_ip = dhcp_get_op50_request_ip(msg);
    copy_text(p->op60_vendor_id, 62, dhcp_get_op60_vendor(msg));
    std::memcpy(p->op61_client_id, dhcp_get_op61_client_id(msg), 6);
    p->op1_subnet_mask = dhcp_get_op1_subnet(msg);
    p->op3_route_ip = dhcp_get_op3_route_ip(msg);
    p->op51_lease_time = dhcp_get_op51_lease_time(msg);
    p->op54_dhcp_server = dhcp_get_op54_dhcp_server(msg);
    p->op58_renewal_time = dhcp_get_op58_renewal_time(msg);
    p->op59_rebind_time = dhcp_get_op59_rebind_time(msg);

    std::uint16_t end = static_cast<std::uint16_t>(p->dhcp_hdr_offset + p->dhcp_msg_len);
    if (p->raw_packet_len != end) {
        DHCP_PKT_DEBUG("[vid:%4d]update raw paket length %d to %d", vid, p->raw_packet_len, end);
        p->raw_packet_len = end;
    }

    // A renewal comes by unicast and is handled in the user VLAN of its flow.
    if (type == DHCPREQUEST && p->ipv4_dst_addr != 0xffffffffu &&
        p->l2fwd_info.rx_vlanid != p->l2fwd_info.usr_vid) {
        DHCP_PKT_DEBUG("[vid:%4d]rx vlan %d change to bcm vlan %d", vid, p->l2fwd_info.rx_vlanid,
                       p->l2fwd_info.usr_vid);
        p->l2fwd_info.rx_vlanid = p->l2fwd_info.usr_vid;
    }
    return 0;
}

int parse_ipv6(dhcp_l2_pkt_t *p, bytes_view frame, std::size_t ip_off)
{
    int vid = p->l2fwd_info.rx_vlanid;
    bytes_view ip = frame.subspan(ip_off);
    if (ip.size() < IPV6_HDR_LEN) return truncated(vid, "ipv6", ip.size());
    if (client_debug()) {
        char line[160];
        trace_layer(vid, st_packet_dump_ipv6(ip, line, sizeof line));
    }
    std::uint16_t plen = 0;
    std::uint8_t next = 0;
    be16_at(ip, 4, plen);
    u8_at(ip, 6, next);
    p->eth_ip_proto = ST_ETH_P_IPV6;
    p->ip_version = 6;
    p->ip_hdr_offset = static_cast<std::uint16_t>(ip_off);
    p->ip_hdr_len = IPV6_HDR_LEN;
    p->ip_data_len = plen;
    wire_reader r(ip, 8);
    r.copy(p->ipv6_src_addr, 16);
    r.copy(p->ipv6_dst_addr, 16);
    if (next != IPPROTO_UDP_NUM) {
        zlog_err("[vid:%4d]Not an ipv6 udp packet(protocol=%d)", vid, next);
        return TAVO_ERR;
    }

    // Type and transaction id are the least a DHCPv6 message has.
    if (parse_udp(p, frame, ip_off + IPV6_HDR_LEN, DHCPV6_SERVER_PORT,
                  "[vid:%4d]Not dhcpv6 packet(sport=%d, dport=%d)", 4) != 0)
        return TAVO_ERR;
    std::uint32_t word = 0;
    be32_at(frame, p->dhcp_hdr_offset, word);
    p->dhcp_msg_type = static_cast<std::uint16_t>(word >> 24);
    p->dhcp_curr_xid = word & 0x00ffffff;
    return 0;
}

}  // namespace

bytes_view dhcp_l2_message(const dhcp_l2_pkt_t *p)
{
    bytes_view frame = dhcp_l2_frame(p);
    if (p->dhcp_hdr_offset >= frame.size()) return {};
    return frame.subspan(p->dhcp_hdr_offset, std::min<std::size_t>(p->dhcp_msg_len, frame.size() - p->dhcp_hdr_offset));
}

int dhcp_parse_l2_pkt(dhcp_l2_pkt_t *p)
{
    if (!p || !p->raw_packet) return TAVO_ERR;
    int vid = p->l2fwd_info.rx_vlanid;
    bytes_view frame = dhcp_l2_frame(p);
    p->mac_hdr_offset = 0;
    st_eth_info_t eth;
    if (st_packet_parse_eth(frame, eth) != 0) {
        zlog_err("[vid:%4d]Not an ip packet(eth protocol %#04x)", vid, eth.ethtype);
        return TAVO_ERR;
    }
    if (client_debug()) {
        char line[160];
        trace_layer(vid, st_packet_dump_eth(frame, line, sizeof line));
    }
    std::memcpy(p->eth_dst_mac, eth.dst, 6);
    std::memcpy(p->eth_src_mac, eth.src, 6);
    p->vlan_depth = eth.vlan_depth;
    std::memcpy(p->vlan_stack, eth.vlan_stack, sizeof p->vlan_stack);

    switch (eth.ethtype) {
    case ST_ETH_P_IPV4:
        return parse_ipv4(p, frame, eth.hdr_len);
    case ST_ETH_P_IPV6:
        return parse_ipv6(p, frame, eth.hdr_len);
    default:
        zlog_err("[vid:%4d]Not an ip packet(eth protocol %#04x)", vid, eth.ethtype);
        return TAVO_ERR;
    }
}

namespace {

const char *ip4(std::uint32_t nip, char *buf)
{
    in_addr a;
    a.s_addr = nip;
    inet_ntop(AF_INET, &a, buf, INET_ADDRSTRLEN);
    return buf;
}

}  // namespace

void dhcp_dump_l2packet(const dhcp_l2_pkt_t *p)
{
    if (!client_debug() || !p) return;
    const l2_fwd_info_t &f = p->l2fwd_info;
    int vid = f.rx_vlanid;
    char a[INET6_ADDRSTRLEN], b[INET6_ADDRSTRLEN];
    zlog_debug("[vid:%4d]rx_ifindex %#x sport %#x trunk %d vlan %d relay_vid %d srv_vid %d usr_vid %d action %u", vid,
               f.rx_ifindex, f.rx_sport_ifindex, f.rx_trunkid, f.rx_vlanid, f.relay_vid, f.srv_vid, f.usr_vid,
               f.vlan_action);
    zlog_debug("[vid:%4d]smac %02x%02x-%02x%02x-%02x%02x dmac %02x%02x-%02x%02x-%02x%02x tags %d proto %#06x", vid,
               p->eth_src_mac[0], p->eth_src_mac[1], p->eth_src_mac[2], p->eth_src_mac[3], p->eth_src_mac[4],
               p->eth_src_mac[5], p->eth_dst_mac[0], p->eth_dst_mac[1], p->eth_dst_mac[2], p->eth_dst_mac[3],
               p->eth_dst_mac[4], p->eth_dst_mac[5], p->vlan_depth, p->eth_ip_proto);
    if (p->ip_version == 4)
        zlog_debug("[vid:%4d]ipv4 %s > %s ip_off %d hdr %d len %d", vid, ip4(p->ipv4_src_addr, a),
                   ip4(p->ipv4_dst_addr, b), p->ip_hdr_offset, p->ip_hdr_len, p->ip_data_len);
    else
        zlog_debug("[vid:%4d]ipv6 %s > %s ip_off %d len %d", vid, inet_ntop(AF_INET6, p->ipv6_src_addr, a, sizeof a),
                   inet_ntop(AF_INET6, p->ipv6_dst_addr, b, sizeof b), p->ip_hdr_offset, p->ip_data_len);
    zlog_debug("[vid:%4d]udp %d > %d udp_off %d dhcp_off %d msg %d (%s) len %d xid %#x frame %d", vid,
               ntohs(p->udp_src_port), ntohs(p->udp_dst_port), p->udp_hdr_offset, p->dhcp_hdr_offset,
               p->dhcp_msg_type, p->ip_version == 4 ? dhcp_msg_type_str(p->dhcp_msg_type) : "v6", p->dhcp_msg_len,
               ntohl(p->dhcp_curr_xid), p->raw_packet_len);
}

void dhcp_dump_packet(int vlan_id, bytes_view packet, int packet_length)
{
    if (!client_debug()) return;
    if (packet.size() < DHCP_FIXED_HDR_LEN) {
        zlog_debug("[vid:%4d]dhcp message too short %d", vlan_id, int(packet.size()));
        return;
    }
    char ci[INET_ADDRSTRLEN], yi[INET_ADDRSTRLEN], si[INET_ADDRSTRLEN], gi[INET_ADDRSTRLEN];
    std::uint32_t xid = 0, cookie = 0;
    std::uint16_t secs = 0, flags = 0;
    be32_at(packet, DHCP_OFF_XID, xid);
    be16_at(packet, DHCP_OFF_SECS, secs);
    be16_at(packet, DHCP_OFF_FLAGS, flags);
    be32_at(packet, DHCP_OFF_COOKIE, cookie);
    zlog_debug("[vid:%4d]dhcp len %d op %d htype %d hlen %d hops %d xid %#x secs %d flags %#x", vlan_id,
               packet_length, packet[DHCP_OFF_OP], packet[DHCP_OFF_HTYPE], packet[DHCP_OFF_HLEN],
               packet[DHCP_OFF_HOPS], xid, secs, flags);
    zlog_debug("[vid:%4d]ciaddr %s yiaddr %s siaddr %s giaddr %s", vlan_id, ip4(stored32_at(packet, DHCP_OFF_CIADDR), ci),
               ip4(stored32_at(packet, DHCP_OFF_YIADDR), yi), ip4(stored32_at(packet, DHCP_OFF_SIADDR), si),
               ip4(stored32_at(packet, DHCP_OFF_GIADDR), gi));
    const std::uint8_t *ch = packet.data() + DHCP_OFF_CHADDR;
    zlog_debug("[vid:%4d]chaddr %02x%02x-%02x%02x-%02x%02x cookie %#x", vlan_id, ch[0], ch[1], ch[2], ch[3], ch[4],
               ch[5], cookie);
}
