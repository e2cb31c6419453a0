#include "dhcp/dhcp_option82.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_zebra.h"
#include "platform/errcode.h"
#include "platform/product.h"
#include "platform/st_packet.h"

dhcp_option_profile_t g_dhcp_option_profile[DHCP_OPTION_PROFILE_MAX + 1];

namespace {

enum { UDP_HDR_LEN = 8, IPPROTO_UDP_NUM = 17, DHCP_OPTION82_MAX = 2 + 2 * (2 + DHCP_OPTION82_TEXT_LEN - 1) };

bool valid_id(int id) { return id >= 1 && id <= DHCP_OPTION_PROFILE_MAX; }

dhcp_option_profile_t *profile_of(int id)
{
    if (!valid_id(id) || !g_dhcp_option_profile[id].valid_flag) return nullptr;
    return &g_dhcp_option_profile[id];
}

void copy_text(char *dst, std::size_t cap, const char *src)
{
    std::size_t n = src ? std::min(std::strlen(src), cap - 1) : 0;
    if (n) std::memcpy(dst, src, n);
    dst[n] = 0;
}

const char *tag_text(const dhcp_option_tag_var_t *tag)
{
    return tag->type == DHCP_OPTION_TAG_VARIABLE ? dhcp_option_var_name(tag->variable) : tag->value;
}

const char *ifname_of(const uif_t *pif)
{
    if (!pif) return "";
    return pif->name[0] ? pif->name : st_ifname(pif->ifindex);
}
const char *onu_sn_of(const uif_t *pif) { return pif ? pif->onu_sn : ""; }

// Length of what snprintf kept in a buffer of len bytes.
int clipped(int n, std::size_t len) { return int(std::min<std::size_t>(n < 0 ? 0 : std::size_t(n), len ? len - 1 : 0)); }

// The default circuit-id: access node, interface and VLAN.
int normal_circuit_id(const uif_t *pif, int vid, char *buf, std::size_t len)
{
    return clipped(std::snprintf(buf, len, "%s %s:%d", g_access_node_id, ifname_of(pif), vid), len);
}

// Offset of the first `code` option within the options area of msg, or -1.
// Only the options field itself: a cut there never moves the fixed header.
int find_option_in_area(bytes_view msg, int code)
{
    std::size_t i = DHCP_OFF_OPTIONS;
    while (i < msg.size()) {
        std::uint8_t c = msg[i];
        if (c == DHCP_END) return -1;
        if (c == DHCP_PADDING) {
            ++i;
            continue;
        }
        if (i + 1 >= msg.size()) return -1;
        std::size_t next = i + 2 + msg[i + 1];
        if (next > msg.size()) return -1;
        if (c == code) return int(i);
        i = next;
    }
    return -1;
}

const char *action_str(int opcode)
{
    switch (opcode) {
    case DHCP_OPCODE_DROP: return "drop";
    case DHCP_OPCODE_FORWARD: return "keep";
    case DHCP_OPCODE_ADD: return "replace";
    default: return "UNKNOWN ERROR";
    }
}

void dump_options(int vid, bytes_view msg, const char *start, const char *end)
{
    if (!DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) return;
    zlog_debug("[vid:%4d]%s", vid, start);
    dhcp_dump_option(vid, msg);
    zlog_debug("[vid:%4d]%s", vid, end);
}

}  // namespace

// ------------------------------------------------------------- profiles ----

int dhcp_option_get_free_profile_id()
{
    for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id)
        if (!g_dhcp_option_profile[id].valid_flag) return id;
    return 0;
}

int dhcp_option_find_profile_id_by_name(const char *name)
{
    if (!name) return 0;
    for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id)
        if (g_dhcp_option_profile[id].valid_flag && std::strcmp(g_dhcp_option_profile[id].name, name) == 0)
            return id;
    return 0;
}

int dhcp_option_initial_profile(int id, const char *name)
{
    if (!valid_id(id) || !name) return TAVO_PARAM;
    dhcp_option_profile_t &p = g_dhcp_option_profile[id];
    if (p.valid_flag) return TAVO_UNAVAIL;
    if (dhcp_option_find_profile_id_by_name(name)) return TAVO_EXISTS;
    copy_text(p.name, sizeof p.name, name);
    p.valid_flag = 1;
    p.list.clear();
    return 0;
}

int dhcp_option_free_profile(int id)
{
    if (!valid_id(id)) return TAVO_PARAM;
    dhcp_option_profile_t &p = g_dhcp_option_profile[id];
    for (dhcp_option_tag_var_t *tag : p.list) XFREE(DHCP_OPTION_TAG, tag);
    p.list.clear();
    p.valid_flag = 0;
    std::memset(p.name, 0, sizeof p.name);
    return 0;
}

int dhcp_option_profile_is_occupied(int id)
{
    const dhcp_option_profile_t *p = profile_of(id);
    if (!p) return 0;
    for (int vid = 1; vid <= 4094; ++vid) {
        const dhcp_vlan_t *v = dhcp_vlan_info_get_by_vid(std::uint16_t(vid));
        if (v && v->circuit_type == DHCP_OPTION_PROFILE && v->circuit_id && std::strcmp(v->circuit_id, p->name) == 0)
            return 1;
    }
    return 0;
}

int dhcp_option_profile_add_info(int id, std::uint32_t index, DHCP_OPTION_TAG_TYPE type, const char *value,
                                 DHCP_OPTION_VAR_TYPE variable)
{
    dhcp_option_profile_t *p = profile_of(id);
    if (!p) return TAVO_PARAM;
    auto it = std::find_if(p->list.begin(), p->list.end(),
                           [&](const dhcp_option_tag_var_t *t) { return t->index >= index; });
    dhcp_option_tag_var_t *tag = nullptr;
    if (it != p->list.end() && (*it)->index == index) {
        tag = *it;
    } else {
        tag = static_cast<dhcp_option_tag_var_t *>(XCALLOC(DHCP_OPTION_TAG, sizeof(dhcp_option_tag_var_t)));
        if (!tag) return TAVO_MEMORY;
        tag->index = index;
        try {
            p->list.insert(it, tag);
        } catch (const std::bad_alloc &) {
            XFREE(DHCP_OPTION_TAG, tag);
            return TAVO_MEMORY;
        }
    }
    tag->type = type;
    if (type == DHCP_OPTION_TAG_VARIABLE) {
        tag->variable = variable;
        std::memset(tag->value, 0, sizeof tag->value);
    } else {
        copy_text(tag->value, sizeof tag->value, value);
        tag->variable = DHCP_OPTION_VAR_FIX_STRING;
    }
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]profile %d %s add %d tag type %d %s", id, p->name, int(index),
                   int(type), tag_text(tag));
    return 0;
}

int dhcp_option_profile_del_info(int id, std::uint32_t index)
{
    dhcp_option_profile_t *p = profile_of(id);
    if (!p) return TAVO_NOT_FOUND;
    auto it = std::find_if(p->list.begin(), p->list.end(),
                           [&](const dhcp_option_tag_var_t *t) { return t->index == index; });
    if (it == p->list.end()) return TAVO_NOT_FOUND;
    dhcp_option_tag_var_t *tag = *it;
    p->list.erase(it);
    DHCP_LOG_DEBUG(DHCP_DEBUG_EVENT, "[EVENT]profile %d %s del %d tag type %d %s", id, p->name, int(index),
                   int(tag->type), tag_text(tag));
    XFREE(DHCP_OPTION_TAG, tag);
    return 0;
}

const dhcp_option_profile_t *dhcp_option_profile_get(int id) { return profile_of(id); }

const char *dhcp_option_var_name(int variable)
{
    switch (variable) {
    case DHCP_OPTION_VAR_FIX_STRING: return "NULL";
    case DHCP_OPTION_VAR_ACCESS_NODE_ID: return "access-node-id";
    case DHCP_OPTION_VAR_RACK: return "rack";
    case DHCP_OPTION_VAR_FRAME: return "frame";
    case DHCP_OPTION_VAR_SLOT: return "slot";
    case DHCP_OPTION_VAR_PORT: return "port";
    case DHCP_OPTION_VAR_ONU: return "onu";
    case DHCP_OPTION_VAR_UVLAN: return "uvlan";
    case DHCP_OPTION_VAR_SVLAN: return "svlan";
    case DHCP_OPTION_VAR_SN: return "sn";
    default: return "unknown";
    }
}

const char *dhcp_option_profile_format(int id, char *buf, std::size_t len)
{
    if (!buf || !len) return buf;
    buf[0] = 0;
    const dhcp_option_profile_t *p = profile_of(id);
    if (!p) return buf;
    std::size_t n = 0;
    for (const dhcp_option_tag_var_t *tag : p->list) {
        int w = tag->type == DHCP_OPTION_TAG_VARIABLE
                    ? std::snprintf(buf + n, len - n, "{%s}", dhcp_option_var_name(tag->variable))
                    : std::snprintf(buf + n, len - n, "%s", tag->value);
        if (w < 0) break;
        n = std::min(n + std::size_t(w), len - 1);
    }
    return buf;
}

bool dhcp_option_profile_expand(int id, std::uint32_t ifindex, const char *onu_sn, int vid, char *buf,
                                std::size_t len)
{
    const dhcp_option_profile_t *p = profile_of(id);
    if (!p || !buf || !len) return false;
    char text[DHCP_OPTION82_PROFILE_TEXT_MAX + 1] = "";
    std::size_t n = 0;
    for (const dhcp_option_tag_var_t *tag : p->list) {
        char num[16];
        const char *piece = "";
        if (tag->type != DHCP_OPTION_TAG_VARIABLE) {
            piece = tag->value;
        } else {
            switch (tag->variable) {
            case DHCP_OPTION_VAR_ACCESS_NODE_ID: piece = g_access_node_id; break;
            case DHCP_OPTION_VAR_RACK:
            case DHCP_OPTION_VAR_FRAME: piece = "1"; break;
            case DHCP_OPTION_VAR_SLOT:
                std::snprintf(num, sizeof num, "%d", st_ifindex_get_slot_id(ifindex));
                piece = num;
                break;
            case DHCP_OPTION_VAR_PORT:
                std::snprintf(num, sizeof num, "%d", st_ifindex_get_port_id(ifindex));
                piece = num;
                break;
            case DHCP_OPTION_VAR_ONU:
                std::snprintf(num, sizeof num, "%d", st_ifindex_get_subport_id(ifindex));
                piece = num;
                break;
            // Both name the VLAN the request is relayed on.
            case DHCP_OPTION_VAR_UVLAN:
            case DHCP_OPTION_VAR_SVLAN:
                std::snprintf(num, sizeof num, "%d", vid);
                piece = num;
                break;
            case DHCP_OPTION_VAR_SN: piece = onu_sn ? onu_sn : ""; break;
            default: break;
            }
        }
        std::size_t plen = std::strlen(piece);
        if (n + plen > DHCP_OPTION82_PROFILE_TEXT_MAX) {
            DHCP_PKT_DEBUG("[PKT]profile %s too long, using default ", p->name);
            return false;
        }
        std::memcpy(text + n, piece, plen);
        n += plen;
        text[n] = 0;
    }
    DHCP_PKT_DEBUG("[PKT]circuit_len=%d str=\"%s\"", int(n), text);
    copy_text(buf, len, text);
    return true;
}

// ------------------------------------------------------------ the texts ----

int dhcp_option82_circuit_id(const uif_t *pif, int vid, char *buf, std::size_t len)
{
    if (!buf || !len) return 0;
    uvlan_entry_t *entry = vlan_get_entry(std::uint16_t(vid));
    if (!entry) {
        zlog_err("failed to get vlan entry,just return!");
        return normal_circuit_id(pif, vid, buf, len);
    }
    const dhcp_vlan_t *v = dhcp_get_vlan_info(entry);
    if (!v) return normal_circuit_id(pif, vid, buf, len);
    switch (v->circuit_type) {
    case DHCP_OPTION_ONU_AUTH:
        return clipped(std::snprintf(buf, len, "%s SN:%s", ifname_of(pif), onu_sn_of(pif)), len);
    case DHCP_OPTION_PROFILE: {
        int id = dhcp_option_find_profile_id_by_name(v->circuit_id);
        if (!id) {
            DHCP_PKT_DEBUG("[PKT]profile %s not existed, using default", v->circuit_id ? v->circuit_id : "");
            return normal_circuit_id(pif, vid, buf, len);
        }
        char text[DHCP_OPTION82_PROFILE_TEXT_MAX + 1];
        if (!dhcp_option_profile_expand(id, pif ? pif->ifindex : 0, onu_sn_of(pif), vid, text, sizeof text))
            return normal_circuit_id(pif, vid, buf, len);
        return clipped(std::snprintf(buf, len, "%s", text), len);
    }
    case DHCP_OPTION_SYSNAME:
    case DHCP_OPTION_USER:
        return clipped(std::snprintf(buf, len, "%s", v->circuit_id ? v->circuit_id : ""), len);
    default:
        return normal_circuit_id(pif, vid, buf, len);
    }
}

int dhcp_option82_remote_id(int vid, char *buf, std::size_t len)
{
    if (!buf || !len) return 0;
    uvlan_entry_t *entry = vlan_get_entry(std::uint16_t(vid));
    if (!entry) zlog_err("failed to get vlan entry,just return!");
    const dhcp_vlan_t *v = entry ? dhcp_get_vlan_info(entry) : nullptr;
    if (v && v->remote_type != DHCP_OPTION_NORMAL) {
        // "remote-id sysname" keeps no text of its own: the system name is it.
        const char *text = v->remote_type == DHCP_OPTION_SYSNAME ? dhcp_sysname : v->remote_id;
        return clipped(std::snprintf(buf, len, "%s", text ? text : ""), len);
    }
    std::uint8_t mac[6];
    st_product_mac_get(mac);
    return clipped(std::snprintf(buf, len, "OLT system:%02x%02x-%02x%02x-%02x%02x", mac[0], mac[1], mac[2], mac[3],
                                 mac[4], mac[5]),
                   len);
}

std::size_t dhcp_option82_build(const uif_t *pif, int vid, bytes_span out)
{
    char circuit[DHCP_OPTION82_TEXT_LEN], remote[DHCP_OPTION82_TEXT_LEN];
    std::size_t c = std::size_t(dhcp_option82_circuit_id(pif, vid, circuit, sizeof circuit));
    std::size_t r = std::size_t(dhcp_option82_remote_id(vid, remote, sizeof remote));
    std::size_t total = 2 + (2 + c) + (2 + r);
    wire_writer w(out);
    if (w.left() < total) return 0;
    w.u8(DHCP_AGENT_OPTIONS);
    w.u8(std::uint8_t(total - 2));
    w.u8(DHCP_OPTION82_SUB_CIRCUIT_ID);
    w.u8(std::uint8_t(c));
    w.put(circuit, c);
    w.u8(DHCP_OPTION82_SUB_REMOTE_ID);
    w.u8(std::uint8_t(r));
    w.put(remote, r);
    return total;
}

// --------------------------------------------------------- the message ----

int dhcp_option82_add(bytes_span packet, int length, const uif_t *pif, int vid)
{
    if (length < 0 || std::size_t(length) > packet.size()) return length;
    std::uint8_t opt[DHCP_OPTION82_MAX];
    std::size_t n = dhcp_option82_build(pif, vid, opt);
    bytes_view msg = packet.first(std::size_t(length));
    // The option goes where the end option is; without one inside the
    // message there is nowhere defined to put it.
    if (msg.size() <= DHCP_OFF_OPTIONS || dhcp_end_option(msg.subspan(DHCP_OFF_OPTIONS)) < 0 ||
        std::size_t(length) + n > packet.size()) {
        DHCP_PKT_DEBUG("[vid:%4d]no room for option 82 in a message of %d bytes", vid, length);
        return length;
    }
    std::memset(packet.data() + length, 0, n);
    if (dhcp_add_binary_option(packet.first(std::size_t(length) + n), bytes_view(opt, n)) != 0) return length;
    return length + int(n);
}

int dhcp_option82_process(bytes_span packet, int length, const uif_t *pif, int vid)
{
    if (length < 0 || std::size_t(length) > packet.size()) return 0;
    bytes_view msg = packet.first(std::size_t(length));
    int access = pif && (st_ifindex_get_port_type(pif->ifindex) == PORT_TYPE_GONU ||
                         st_ifindex_get_port_type(pif->ifindex) == PORT_TYPE_GPON);
    int exist = dhcp_get_option(msg, DHCP_AGENT_OPTIONS) != nullptr;
    int opcode = dhcp_get_packet_opcode(access, !access, exist, DHCP_AGENT_OPTIONS);
    DHCP_PKT_DEBUG("[vid:%4d]option 82 %sexisted and policy is %s", vid, exist ? "" : "not ", action_str(opcode));

    if (!exist) return dhcp_option82_add(packet, length, pif, vid);
    if (opcode == DHCP_OPCODE_DROP) {
        DHCP_PKT_DEBUG("[vid:%4d]drop the packets due to client option82", vid);
        return 0;
    }
    if (opcode != DHCP_OPCODE_ADD) {
        DHCP_PKT_DEBUG("[vid:%4d]keep option 82", vid);
        return length;
    }

    dump_options(vid, msg, "===========original packet start", "===========original packet end");
    // Every copy the client put in goes, so that ours is the only one.
    int off;
    while ((off = find_option_in_area(packet.first(std::size_t(length)), DHCP_AGENT_OPTIONS)) >= 0) {
        std::size_t optlen = 2 + std::size_t(packet[std::size_t(off) + 1]);
        std::size_t tail_len = std::size_t(length) - std::size_t(off) - optlen;
        std::memmove(packet.data() + off, packet.data() + off + optlen, tail_len);
        std::memset(packet.data() + length - optlen, 0, optlen);
        int new_length = length - int(optlen);
        DHCP_PKT_DEBUG("[vid:%4d]remove client option 82 length %d new length %d,tail_len %d", vid, int(optlen),
                       new_length, int(tail_len));
        length = new_length;
    }
    dump_options(vid, packet.first(std::size_t(length)), "=========== packet remove op82 start",
                 "=========== packet remove op82 end");
    length = dhcp_option82_add(packet, length, pif, vid);
    dump_options(vid, packet.first(std::size_t(length)), "=========== packet with new op82 start",
                 "=========== packet with new op82 end");
    DHCP_PKT_DEBUG("[vid:%4d]replace option 82 new length %d", vid, length);
    return length;
}

int dhcp_option82_remove(bytes_span packet)
{
    int off = find_option_in_area(packet, DHCP_AGENT_OPTIONS);
    if (off < 0) return 0;
    std::size_t optlen = 2 + std::size_t(packet[std::size_t(off) + 1]);
    // Overwritten in place, not cut: whatever followed is behind the end now.
    std::memset(packet.data() + off, 0, optlen);
    packet[std::size_t(off)] = DHCP_END;
    DHCP_PKT_DEBUG("[PKT]Remove Option 82 %d, len = %d, total len=%d", DHCP_AGENT_OPTIONS, int(optlen - 2),
                   int(optlen));
    return int(optlen);
}

// ------------------------------------------------------------ the frame ----

int dhcp_l2_pkt_update_dhcp_len(dhcp_l2_pkt_t *p, int new_len)
{
    if (!p || !p->raw_packet || p->ip_version != 4 || new_len < 0) return TAVO_ERR;
    std::size_t ip_off = p->ip_hdr_offset, udp_off = p->udp_hdr_offset, msg_off = p->dhcp_hdr_offset;
    std::size_t udp_len = std::size_t(new_len) + UDP_HDR_LEN;
    bytes_span frame(p->raw_packet, p->raw_buf_len);
    std::uint8_t vihl = 0;
    if (!u8_at(frame, ip_off, vihl)) return TAVO_ERR;
    std::size_t ihl = std::size_t(vihl & 0x0f) * 4;
    std::size_t ip_total = ihl + udp_len;
    if (udp_off != ip_off + ihl || msg_off != udp_off + UDP_HDR_LEN || msg_off + std::size_t(new_len) > frame.size() ||
        ip_total > 0xffff)
        return TAVO_ERR;

    int delta = new_len - int(p->dhcp_msg_len);
    p->dhcp_msg_len = std::uint16_t(new_len);
    p->raw_packet_len = std::uint16_t(int(p->raw_packet_len) + delta);

    put_be16_at(frame, udp_off + 4, std::uint16_t(udp_len));
    put_be16_at(frame, udp_off + 6, 0);
    std::uint8_t pseudo[12] = {};
    std::memcpy(pseudo, frame.data() + ip_off + 12, 8);  // source and destination as stored
    pseudo[9] = IPPROTO_UDP_NUM;
    put_be16_at(bytes_span(pseudo), 10, std::uint16_t(udp_len));
    std::uint32_t sum = inet_cksum_add(bytes_view(pseudo), 0);
    sum = inet_cksum_add(frame.subspan(udp_off, udp_len), sum);
    std::uint16_t udp_sum = inet_cksum_fold(sum);  // already complemented
    put_be16_at(frame, udp_off + 6, udp_sum ? udp_sum : 0xffff);  // 0 would mean "no checksum"

    put_be16_at(frame, ip_off + 2, std::uint16_t(ip_total));
    put_be16_at(frame, ip_off + 10, 0);
    put_be16_at(frame, ip_off + 10, inet_cksum(frame.subspan(ip_off, ihl)));
    p->ip_data_len = std::uint16_t(ip_total);
    return 0;
}

int dhcp_process_option_82_info(const uif_t *pif, dhcp_l2_pkt_t *p)
{
    if (!p || !p->raw_packet || p->dhcp_hdr_offset > p->raw_buf_len) return TAVO_ERR;
    int vid = p->l2fwd_info.rx_vlanid;
    const char *type = dhcp_msg_type_str(p->dhcp_msg_type);
    DHCP_PKT_DEBUG("[vid:%4d]Need option82 procesing for %s", vid, type);
    bytes_span room(p->raw_packet + p->dhcp_hdr_offset, std::size_t(p->raw_buf_len) - p->dhcp_hdr_offset);
    int n = dhcp_option82_process(room, p->dhcp_msg_len, pif, vid);
    if (n == 0) return TAVO_ERR;
    if (dhcp_l2_pkt_update_dhcp_len(p, n) != 0) return TAVO_ERR;
    DHCP_PKT_DEBUG("[vid:%4d]Option processed for %s message.", vid, type);
    if (DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) {
        st_hex_dump_packet("[PKT]", dhcp_l2_frame(p));
        dhcp_dump_option(vid, dhcp_l2_message(p));
    }
    return 0;
}
