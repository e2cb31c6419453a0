#include "dhcp/dhcp_intake.h"
#include "dhcp/dhcp_l2relay.h"

#include <algorithm>
#include <cstring>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcpv6_msg.h"
#include "lib/thread.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "platform/hal_msg.h"
#include "platform/st_timing.h"

std::list<dhcp_pkt_node> g_dhcp_pkt_list;
std::uint64_t g_dhcp_pkt_handled_total;

static thread_master *g_intake_master;
static thread *g_pkt_timer;
static st_timing_t *g_dhcp_pkt_timing;

// Handling budget of one drain run, in microseconds: a burst of queued frames
// must not starve the shell and the other tasks.
static constexpr double DHCP_PKT_BUDGET_US = 50000.0;

std::uint32_t dhcp_nl_msg(int type, std::uint8_t *buf, std::uint32_t len)
{
    if (type != HAL_MSG_TYPE_PKT) {
        zlog_err("%s: invalid msg type %d", "dhcp_nl_msg", type);
        return TAVO_PARAM;
    }
    dhcp_pkt_msg(buf, len);
    return 0;
}

static void dhcp_trace_rx(const dhcp_l2_pkt_t &pkt)
{
    const l2_fwd_info_t &fwd = pkt.l2fwd_info;
    if (!DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) return;
    if (fwd.srv_vid) {
        zlog_debug("[vid:%4d]<======= recieve packet on port %s gem [%d:%d] vlan %d len %d", fwd.rx_vlanid,
                   st_ifname(fwd.rx_ifindex), fwd.srv_vid, fwd.usr_vid, fwd.rx_vlanid, pkt.raw_packet_len);
        zlog_debug("[vid:%4d]service port %s", fwd.rx_vlanid, st_ifname(fwd.rx_sport_ifindex));
        return;
    }
    zlog_debug("[vid:%4d]<======= recieve packet on port %s vlan %d len %d", fwd.rx_vlanid,
               st_ifname(fwd.rx_ifindex), fwd.rx_vlanid, pkt.raw_packet_len);
    if (fwd.rx_trunkid) zlog_debug("[vid:%4d]trunk id %d", fwd.rx_vlanid, fwd.rx_trunkid);
    if (fwd.rx_sport_ifindex)
        zlog_debug("[vid:%4d]service port %s", fwd.rx_vlanid, st_ifname(fwd.rx_sport_ifindex));
}

// The hand-off to the DHCPv4 paths.
static void dhcp_dispatch_v4(uif_t *port, dhcp_l2_pkt_t &pkt)
{
    const std::uint8_t *m = pkt.dhcp_client_addr;
    DHCP_PKT_DEBUG("[vid:%4d]%s from %02x%02x-%02x%02x-%02x%02x on port %s dispatched", pkt.l2fwd_info.rx_vlanid,
                   dhcp_msg_type_str(pkt.dhcp_msg_type), m[0], m[1], m[2], m[3], m[4], m[5], port->name);
    dhcp_proc_netlink_l2_packet(port, &pkt);
}

static void dhcp_dispatch_v6(uif_t *port, dhcp_l2_pkt_t &pkt)
{
    DHCP_PKT_DEBUG("[vid:%4d]DHCPv6 %s on port %s dispatched", pkt.l2fwd_info.rx_vlanid,
                   dhcpv6_msg_type_str(pkt.dhcp_msg_type), port->name);
}

int dhcp_pkt_msg(std::uint8_t *tipcMsg, std::uint32_t msgLen)
{
    // Only the bytes of the message are read, whatever its fields claim.
    std::size_t payload_len = msgLen > HAL_MSG_HDR_LEN ? msgLen - HAL_MSG_HDR_LEN : 0;
    hal_msg_pkt_t msg;
    if (!tipcMsg || !hal_msg_pkt_decode(bytes_view(tipcMsg, payload_len), msg)) {
        zlog_err("[vid:%4d]vlan %d recieve bad dhcp packet", 0, 0);
        return TAVO_ERR;
    }

    dhcp_l2_pkt_t pkt{};
    pkt.l2fwd_info.rx_ifindex = msg.ifindex;
    pkt.l2fwd_info.rx_sport_ifindex = msg.fwd_info.srv_if;
    pkt.l2fwd_info.rx_trunkid = static_cast<std::uint16_t>(msg.fwd_info.tid & 0xffff);
    pkt.l2fwd_info.rx_vlanid = msg.fwd_info.vid;
    pkt.l2fwd_info.srv_vid = msg.fwd_info.srv_info.lltag;
    pkt.l2fwd_info.usr_vid = msg.fwd_info.srv_info.uservlan;
    pkt.l2fwd_info.vlan_action = static_cast<std::uint32_t>(msg.fwd_info.srv_info.vlan_action);
    pkt.raw_packet_len = msg.len;
    pkt.raw_packet = tipcMsg + HAL_PKT_OFF_DATA;
    pkt.raw_buf_len = static_cast<std::uint16_t>(std::min<std::size_t>(payload_len - HAL_PKT_OFF_DATA,
                                                                       HAL_PKT_DATA_MAX));

    dhcp_trace_rx(pkt);

    std::uint16_t vid = pkt.l2fwd_info.rx_vlanid;
    if (dhcp_parse_l2_pkt(&pkt) != 0) {
        zlog_err("[vid:%4d]vlan %d recieve bad dhcp packet", vid, vid);
        dhcp_check_client_debug_end();
        return TAVO_ERR;
    }
    vid = pkt.l2fwd_info.rx_vlanid;

    uif_t *port = uif_lookup_by_index(pkt.l2fwd_info.rx_ifindex);
    if (!port) {
        std::uint32_t ifindex = pkt.l2fwd_info.rx_ifindex;
        if (st_ifindex_get_port_type(ifindex) != 0)
            zlog_err("[vid:%4d]Port %s[#%010x] is not existed.", vid, st_ifname(ifindex), ifindex);
        else
            DHCP_PKT_DEBUG("[vid:%4d]Port %s[#%010x] is not existed.", vid, st_ifname(ifindex), ifindex);
        dhcp_check_client_debug_end();
        return TAVO_PORT;
    }

    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) dhcp_dump_l2packet(&pkt);

    if (pkt.eth_ip_proto == 0x0800) {
        bytes_view dhcp_msg = dhcp_l2_message(&pkt);
        dhcp_dump_packet(vid, dhcp_msg, pkt.dhcp_msg_len);
        dhcp_dump_option(vid, dhcp_msg);
        dhcp_dispatch_v4(port, pkt);
    } else {
        DHCP_PKT_DEBUG("[PKT]DHCPv6 packet come, start processing.");
        dhcp_dispatch_v6(port, pkt);
    }

    dhcp_check_client_debug_end();
    return 0;
}

int dhcp_pkt_enqueue(const std::uint8_t *payload, std::uint32_t msg_len)
{
    if (!payload || msg_len <= HAL_MSG_HDR_LEN || msg_len - HAL_MSG_HDR_LEN > DHCP_HAL_PKT_BUF) return TAVO_PARAM;
    auto *rec = static_cast<dhcp_hal_pkt_t *>(XCALLOC(LINK_NODE, sizeof(dhcp_hal_pkt_t)));
    if (!rec) return TAVO_MEMORY;
    rec->buffer_len = static_cast<int>(msg_len);
    std::memcpy(rec->buffer, payload, msg_len - HAL_MSG_HDR_LEN);
    g_dhcp_pkt_list.push_back({rec});
    return 0;
}

int dhcp_pkt_process_timer(thread *t)
{
    if (!g_dhcp_pkt_list.empty())
        DHCP_PKT_DEBUG("[PKT]%llu packets handled, %zu in the list", (unsigned long long)g_dhcp_pkt_handled_total,
                       g_dhcp_pkt_list.size());

    if (!g_dhcp_pkt_timing) g_dhcp_pkt_timing = st_timing_new();
    st_timing_start(g_dhcp_pkt_timing);
    double sum = 0.0;
    int handled = 0;
    while (!g_dhcp_pkt_list.empty()) {
        dhcp_pkt_node *pkt_node = &g_dhcp_pkt_list.front();
        dhcp_assert((pkt_node)->data != NULL);
        handled++;
        g_dhcp_pkt_handled_total++;
        if (pkt_node->data)
            dhcp_pkt_msg(pkt_node->data->buffer, static_cast<std::uint32_t>(pkt_node->data->buffer_len));
        st_timing_stop(g_dhcp_pkt_timing);
        sum += st_timing_get_inter(g_dhcp_pkt_timing);
        st_timing_start(g_dhcp_pkt_timing);
        // Over budget: the node just handled stays at the head and is handled
        // again at the next run.
        if (sum > DHCP_PKT_BUDGET_US) break;
        dhcp_hal_pkt_t *rec = pkt_node->data;
        g_dhcp_pkt_list.pop_front();
        if (rec) XFREE(LINK_NODE, rec);
    }
    st_timing_stop(g_dhcp_pkt_timing);
    if (handled)
        DHCP_PKT_DEBUG("[PKT]Process %d packets use %f ms remains %zu", handled, sum / 1000.0,
                       g_dhcp_pkt_list.size());

    thread_master *m = t ? t->master : g_intake_master;
    if (m) thread_add_timer(m, dhcp_pkt_process_timer, nullptr, g_dhcp_pkt_list.empty() ? 1 : 0, &g_pkt_timer);
    return 0;
}

int dhcp_nl_receive(thread *t)
{
    thread_add_read(t->master, dhcp_nl_receive, t->arg, t->fd, nullptr);
    return hal_recv(dhcp_nl_msg) != 0 ? -1 : 0;
}

void dhcp_pkt_queue_start(thread_master *m)
{
    g_intake_master = m;
    if (!g_dhcp_pkt_timing) g_dhcp_pkt_timing = st_timing_new();
    thread_add_timer(m, dhcp_pkt_process_timer, nullptr, 1, &g_pkt_timer);
}
