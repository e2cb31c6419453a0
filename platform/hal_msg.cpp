#include "platform/hal_msg.h"

#include <algorithm>

namespace {

template <class T> bool host_at(bytes_view b, std::size_t off, T &v)
{
    wire_reader r(b);
    return r.skip(off) && r.host(v);
}

} // namespace

bool hal_msg_hdr_decode(bytes_view msg, hal_msg_hdr_t &h)
{
    hal_msg_hdr_t t{};
    wire_reader r(msg);
    if (!(r.host(t.nlmsg_len) && r.host(t.nlmsg_type) && r.host(t.nlmsg_flags) &&
          r.host(t.nlmsg_seq) && r.host(t.nlmsg_pid)))
        return false;
    h = t;
    return true;
}

bool hal_msg_hdr_encode(bytes_span msg, const hal_msg_hdr_t &h)
{
    if (msg.size() < HAL_MSG_HDR_LEN) return false;
    wire_writer w(msg);
    return w.host(h.nlmsg_len) && w.host(h.nlmsg_type) && w.host(h.nlmsg_flags) &&
           w.host(h.nlmsg_seq) && w.host(h.nlmsg_pid);
}

bool hal_msg_pkt_decode(bytes_view payload, hal_msg_pkt_t &p)
{
    if (payload.size() < HAL_PKT_OFF_DATA) return false;
    hal_msg_pkt_t t{};
    bool ok = host_at(payload, HAL_PKT_OFF_IFINDEX, t.ifindex) &&
              host_at(payload, HAL_PKT_OFF_FLAGS, t.flags) &&
              host_at(payload, HAL_PKT_OFF_FWD_IFINDEX, t.fwd_info.ifindex) &&
              host_at(payload, HAL_PKT_OFF_FWD_TID, t.fwd_info.tid) &&
              host_at(payload, HAL_PKT_OFF_FWD_SRV_IF, t.fwd_info.srv_if) &&
              host_at(payload, HAL_PKT_OFF_FWD_VID, t.fwd_info.vid) &&
              host_at(payload, HAL_PKT_OFF_LLTAG, t.fwd_info.srv_info.lltag) &&
              host_at(payload, HAL_PKT_OFF_USERVLAN, t.fwd_info.srv_info.uservlan) &&
              host_at(payload, HAL_PKT_OFF_VLAN_ACTION, t.fwd_info.srv_info.vlan_action) &&
              host_at(payload, HAL_PKT_OFF_SRC_IF, t.src_if) &&
              host_at(payload, HAL_PKT_OFF_SRC_TID, t.src_tid) &&
              host_at(payload, HAL_PKT_OFF_LEN, t.len);
    if (!ok) return false;
    // The peer's length is only a claim: never beyond the data area nor the bytes received.
    std::size_t present = payload.size() - HAL_PKT_OFF_DATA;
    t.len = static_cast<std::uint16_t>(
        std::min<std::size_t>({t.len, std::size_t(HAL_PKT_DATA_MAX), present}));
    t.data = payload.data() + HAL_PKT_OFF_DATA;
    p = t;
    return true;
}

bool hal_msg_pkt_encode(bytes_span payload, const hal_msg_pkt_t &p)
{
    if (payload.size() < HAL_MSG_PKT_LEN || p.len > HAL_PKT_DATA_MAX) return false;
    if (p.len && !p.data) return false;
    wire_writer w(payload);
    // Fields the daemon does not use (layer-2 summary) go out as zeros.
    return w.host(p.ifindex) && w.host(p.flags) && w.host(p.fwd_info.ifindex) &&
           w.host(p.fwd_info.tid) && w.host(p.fwd_info.srv_if) && w.host(p.fwd_info.vid) &&
           w.zero(2) && w.host(p.fwd_info.srv_info.lltag) &&
           w.host(p.fwd_info.srv_info.uservlan) && w.host(p.fwd_info.srv_info.vlan_action) &&
           w.zero(HAL_PKT_OFF_SRC_IF - HAL_PKT_OFF_VLAN_DEPTH) && w.host(p.src_if) &&
           w.host(p.src_tid) && w.host(p.len) && w.put(p.data, p.len) &&
           w.zero(HAL_PKT_DATA_MAX - p.len) && w.zero(HAL_MSG_PKT_LEN - w.pos());
}

bool hal_msg_pkt_build(bytes_span msg, const hal_msg_pkt_t &p, std::uint16_t flags,
                       std::uint32_t seq, std::uint32_t pid)
{
    if (msg.size() < HAL_PKT_MSG_LEN) return false;
    hal_msg_hdr_t h{HAL_PKT_MSG_LEN, HAL_MSG_TYPE_PKT, flags, seq, pid};
    return hal_msg_hdr_encode(msg, h) && hal_msg_pkt_encode(msg.subspan(HAL_MSG_HDR_LEN), p);
}

bool hal_msg_u32_build(bytes_span msg, std::uint16_t type, std::uint16_t flags,
                       std::uint32_t seq, std::uint32_t value)
{
    if (msg.size() < HAL_MSG_REG_LEN) return false;
    hal_msg_hdr_t h{HAL_MSG_REG_LEN, type, flags, seq, 0};
    return hal_msg_hdr_encode(msg, h) && wire_writer(msg, HAL_MSG_HDR_LEN).host(value);
}

bool hal_msg_u32_decode(bytes_view msg, std::uint32_t &value)
{
    return host_at(msg, HAL_MSG_HDR_LEN, value);
}
