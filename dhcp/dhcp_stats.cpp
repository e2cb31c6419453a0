#include "dhcp/dhcp_stats.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "devlib/ifindex.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_opt.h"

dhcp_pkt_statistic_t g_dhcp_stats_l2_pkt;
dhcp_pkt_statistic_t g_dhcp_stats_udp_pkt;

namespace {

// One direction of a set: the counters that rule A and rule B touch.
struct stat_side {
    std::uint32_t *bootp_request, *bootp_reply, *discovery, *offer, *request, *ack, *release, *nak, *decline,
        *inform, *others, *total;
};

stat_side rx_side(dhcp_pkt_statistic_t *s)
{
    return {&s->dhcp_rx_bootp_request, &s->dhcp_rx_bootp_reply, &s->dhcp_rx_discovery, &s->dhcp_rx_offer,
            &s->dhcp_rx_request,       &s->dhcp_rx_ack,         &s->dhcp_rx_release,   &s->dhcp_rx_nak,
            &s->dhcp_rx_decline,       &s->dhcp_rx_inform,      &s->dhcp_rx_others,    &s->dhcp_rx_total};
}

stat_side tx_side(dhcp_pkt_statistic_t *s)
{
    return {&s->dhcp_tx_bootp_request, &s->dhcp_tx_bootp_reply, &s->dhcp_tx_discovery, &s->dhcp_tx_offer,
            &s->dhcp_tx_request,       &s->dhcp_tx_ack,         &s->dhcp_tx_release,   &s->dhcp_tx_nak,
            &s->dhcp_tx_decline,       &s->dhcp_tx_inform,      &s->dhcp_tx_others,    &s->dhcp_tx_total};
}

std::uint32_t *type_counter(const stat_side &d, int msg_type)
{
    switch (msg_type) {
    case DHCPDISCOVER: return d.discovery;
    case DHCPOFFER: return d.offer;
    case DHCPREQUEST: return d.request;
    case DHCPDECLINE: return d.decline;
    case DHCPACK: return d.ack;
    case DHCPNAK: return d.nak;
    case DHCPRELEASE: return d.release;
    case DHCPINFORM: return d.inform;
    default: return d.others;
    }
}

// Rule A: the op code picks the BOOTP counter, the message type the other;
// totals are left alone.
void count_by_opcode(const stat_side &d, bytes_view dhcp_pkt, int msg_type)
{
    std::uint8_t op = 0;
    u8_at(dhcp_pkt, DHCP_OFF_OP, op);
    if (op == BOOTREQUEST)
        ++*d.bootp_request;
    else
        ++*d.bootp_reply;
    ++*type_counter(d, msg_type);
}

}  // namespace

void dhcp_pkt_statistic_init()
{
    std::memset(&g_dhcp_stats_l2_pkt, 0, sizeof g_dhcp_stats_l2_pkt);
    std::memset(&g_dhcp_stats_udp_pkt, 0, sizeof g_dhcp_stats_udp_pkt);
}

void dhcp_pkt_static_rx_set(dhcp_pkt_statistic_t *stats, bytes_view dhcp_pkt, int msg_type)
{
    if (!stats) {
        DHCP_PKT_DEBUG("[PKT]statistic point is NULL");
        return;
    }
    count_by_opcode(rx_side(stats), dhcp_pkt, msg_type);
}

void dhcp_pkt_static_tx_set(dhcp_pkt_statistic_t *stats, bytes_view dhcp_pkt, int msg_type)
{
    if (!stats) {
        DHCP_PKT_DEBUG("[PKT]statistic point is NULL");
        return;
    }
    count_by_opcode(tx_side(stats), dhcp_pkt, msg_type);
}

void dhcp_pkt_statistic_l2_pkt_rx(bytes_view dhcp_pkt, int msg_type, std::uint32_t ifindex, int vlan_id)
{
    DHCP_PKT_DEBUG("[vid:%4d]Recieve dhcp %s packet on %s vlan %d", vlan_id, dhcp_msg_type_str(msg_type),
                   st_ifname(ifindex), vlan_id);
    dhcp_pkt_static_rx_set(&g_dhcp_stats_l2_pkt, dhcp_pkt, msg_type);
}

void dhcp_pkt_statistic_l2_pkt_tx(bytes_view dhcp_pkt, int msg_type, std::uint32_t ifindex, int vlan_id)
{
    DHCP_PKT_DEBUG("[PKT]Send dhcp %s packet on %s vlan %d", dhcp_msg_type_str(msg_type), st_ifname(ifindex),
                   vlan_id);
    dhcp_pkt_static_tx_set(&g_dhcp_stats_l2_pkt, dhcp_pkt, msg_type);
}

void dhcp_pkt_statistic_untrust_drop(int msg_type, std::uint32_t ifindex, int vlan_id)
{
    DHCP_PKT_DEBUG("[PKT]Drop dhcp %s packet on %s vlan %d", dhcp_msg_type_str(msg_type), st_ifname(ifindex),
                   vlan_id);
    ++g_dhcp_stats_l2_pkt.dhcp_drop_untrust_reply;
}

void dhcp_pkt_statistic_udp_pkt_rx(bytes_view dhcp_pkt, std::uint32_t my_ipaddress, std::uint16_t my_port)
{
    int msg_type = dhcp_get_msg_type(dhcp_pkt);
    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) {
        char ip[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &my_ipaddress, ip, sizeof ip);
        zlog_debug("[PKT]Recieve dhcp %s packet on %s:%d", dhcp_msg_type_str(msg_type), ip, ntohs(my_port));
    }
    dhcp_pkt_static_rx_set(&g_dhcp_stats_udp_pkt, dhcp_pkt, msg_type);
}

void dhcp_pkt_statistic_udp_pkt_tx(bytes_view dhcp_pkt, std::uint32_t server_ipaddress, std::uint16_t my_port)
{
    int msg_type = dhcp_get_msg_type(dhcp_pkt);
    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) {
        char ip[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &server_ipaddress, ip, sizeof ip);
        zlog_debug("[PKT]Send dhcp %s packet to %s from port %d", dhcp_msg_type_str(msg_type), ip, ntohs(my_port));
    }
    dhcp_pkt_static_tx_set(&g_dhcp_stats_udp_pkt, dhcp_pkt, msg_type);
}

void dhcp_pkt_statistic_udp_pkt_rx_discard(bytes_view dhcp_pkt)
{
    DHCP_PKT_DEBUG("[PKT]Discard dhcp %s packet", dhcp_msg_type_str(dhcp_get_msg_type(dhcp_pkt)));
    ++g_dhcp_stats_udp_pkt.dhcp_rx_discard;
}

void dhcp_pkt_statistic_rx_discard() { ++g_dhcp_stats_udp_pkt.dhcp_rx_discard; }

void dhcp_client_pkt_statistic(dhcp_pkt_statistic_t *static_info, int msg_type, int rxflag)
{
    if (!static_info) {
        DHCP_PKT_DEBUG("[PKT]statistic point is NULL");
        return;
    }
    stat_side d = rxflag ? rx_side(static_info) : tx_side(static_info);
    ++*d.total;
    // Rule B: the BOOTP counter follows who sends the message type, not the op code.
    switch (msg_type) {
    case DHCPDISCOVER:
    case DHCPREQUEST:
    case DHCPDECLINE:
    case DHCPRELEASE:
    case DHCPINFORM:
        ++*d.bootp_request;
        break;
    case DHCPOFFER:
    case DHCPACK:
    case DHCPNAK:
        ++*d.bootp_reply;
        break;
    default:
        break;
    }
    ++*type_counter(d, msg_type);
}

const char *dhcp_pkt_statiss_dump(const dhcp_pkt_statistic_t *stats)
{
    static char buf[1024];
    static const dhcp_pkt_statistic_t zero{};
    const dhcp_pkt_statistic_t *s = stats ? stats : &zero;
    struct row {
        const char *label;
        std::uint32_t rx, tx;
    };
    const row rows[] = {
        {"Total        ", s->dhcp_rx_total, s->dhcp_tx_total},
        {"bootp_request", s->dhcp_rx_bootp_request, s->dhcp_tx_bootp_request},
        {"bootp_reply", s->dhcp_rx_bootp_reply, s->dhcp_tx_bootp_reply},
        {"discovery", s->dhcp_rx_discovery, s->dhcp_tx_discovery},
        {"Offer", s->dhcp_rx_offer, s->dhcp_tx_offer},
        {"Request", s->dhcp_rx_request, s->dhcp_tx_request},
        {"Ack", s->dhcp_rx_ack, s->dhcp_tx_ack},
        {"Release", s->dhcp_rx_release, s->dhcp_tx_release},
        {"Nack", s->dhcp_rx_nak, s->dhcp_tx_nak},
        {"decline", s->dhcp_rx_decline, s->dhcp_tx_decline},
        {"Inform", s->dhcp_rx_inform, s->dhcp_tx_inform},
        {"Other", s->dhcp_rx_others, s->dhcp_tx_others},
    };
    std::size_t n = 0;
    auto put = [&](int w) {
        if (w > 0) n += std::size_t(w);
        if (n >= sizeof buf) n = sizeof buf - 1;
    };
    put(std::snprintf(buf, sizeof buf, "       %-20s | %10s  | %10s %s", "             ", "RX Counter", "TX Counter",
                      "\n"));
    // Counters print as signed, as the shows always have: they wrap past 2^31.
    for (const row &r : rows)
        put(std::snprintf(buf + n, sizeof buf - n, "       %-20s | %10d  | %10d %s", r.label, int(r.rx), int(r.tx),
                          "\n"));
    return buf;
}
