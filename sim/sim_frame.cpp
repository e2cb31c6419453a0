#include "sim/sim_frame.h"

#include <cstring>

namespace {

bool is_tpid(std::uint16_t t)
{
    return t == SIM_TPID_8021Q || t == SIM_TPID_8021AD || t == SIM_TPID_9100;
}

// Layer 3/4 of a frame whose tags are parsed; leaves the flags false when
// the headers are not all there.
void parse_l3(bytes_view f, frame_info &fi)
{
    wire_reader r(f, fi.l3_off);
    if (fi.ethertype == SIM_ETH_IPV4) {
        std::uint8_t vihl, proto;
        std::uint16_t frag;
        if (!r.u8(vihl) || (vihl >> 4) != 4 || (vihl & 0x0f) < 5) return;
        std::size_t ihl = std::size_t(vihl & 0x0f) * 4;
        if (!r.skip(5) || !r.be16(frag) || !r.skip(1) || !r.u8(proto) || !r.skip(2) ||
            !r.be32(fi.ipv4_src))
            return;
        fi.ipv4 = true;
        fi.ip_proto = proto;
        // Only the first fragment carries the UDP header.
        if (proto != 17 || (frag & 0x1fff) != 0) return;
        wire_reader u(f, fi.l3_off + ihl);
        if (fi.l3_off + ihl > f.size() || !u.be16(fi.sport) || !u.be16(fi.dport)) return;
        fi.udp = true;
        bool v4 = fi.sport == 67 || fi.sport == 68 || fi.dport == 67 || fi.dport == 68;
        if (v4) fi.dhcp = DHCP_V4;
    } else if (fi.ethertype == SIM_ETH_IPV6) {
        std::uint8_t v, next;
        if (!r.u8(v) || (v >> 4) != 6 || !r.skip(5) || !r.u8(next) || !r.skip(33)) return;
        fi.ipv6 = true;
        fi.ip_proto = next;
        // Extension headers are not walked, as the module's own parser does not.
        if (next != 17 || !r.be16(fi.sport) || !r.be16(fi.dport)) return;
        fi.udp = true;
        bool v6 = fi.sport == 546 || fi.sport == 547 || fi.dport == 546 || fi.dport == 547;
        if (v6) fi.dhcp = DHCP_V6;
    }
}

} // namespace

frame_status sim_frame_parse(bytes_view f, frame_info &fi)
{
    fi = frame_info{};
    if (f.size() > SIM_FRAME_MAX) return FRAME_TOO_BIG;
    wire_reader r(f);
    std::uint16_t type;
    if (!r.copy(fi.dst, 6) || !r.copy(fi.src, 6) || !r.be16(type)) return FRAME_SHORT;
    while (is_tpid(type)) {
        std::uint16_t tci;
        if (!r.be16(tci)) return FRAME_SHORT;
        if (fi.ntags == SIM_MAX_TAGS) return FRAME_TOO_MANY_TAGS;
        fi.tags[fi.ntags++] = {type, tci};
        if (!r.be16(type)) return FRAME_SHORT;
    }
    fi.ethertype = type;
    fi.l3_off = r.pos();
    parse_l3(f, fi);
    return FRAME_OK;
}

bool sim_mac_is_group(const std::uint8_t mac[6]) { return mac[0] & 1; }

bool sim_mac_is_zero(const std::uint8_t mac[6])
{
    static const std::uint8_t zero[6] = {};
    return std::memcmp(mac, zero, 6) == 0;
}

bool frame_buf::assign(bytes_view b)
{
    if (b.size() > sizeof data) return false;
    if (!b.empty()) std::memcpy(data, b.data(), b.size());
    len = b.size();
    return true;
}

bool sim_frame_pop_tag(frame_buf &f)
{
    std::uint16_t type;
    if (!be16_at(f.view(), 12, type)) return false;
    if (!is_tpid(type)) return true;
    if (f.len < SIM_ETH_HLEN + SIM_TAG_LEN) return false;
    std::memmove(f.data + 12, f.data + 12 + SIM_TAG_LEN, f.len - 12 - SIM_TAG_LEN);
    f.len -= SIM_TAG_LEN;
    return true;
}

bool sim_frame_push_tag(frame_buf &f, std::uint16_t tpid, std::uint16_t tci)
{
    if (f.len < 12 || f.len + SIM_TAG_LEN > sizeof f.data) return false;
    std::memmove(f.data + 12 + SIM_TAG_LEN, f.data + 12, f.len - 12);
    f.len += SIM_TAG_LEN;
    bytes_span s(f.data, f.len);
    return put_be16_at(s, 12, tpid) && put_be16_at(s, 14, tci);
}

void sim_frame_strip_tags(frame_buf &f)
{
    std::uint16_t type;
    while (be16_at(f.view(), 12, type) && is_tpid(type) && f.len >= SIM_ETH_HLEN + SIM_TAG_LEN)
        sim_frame_pop_tag(f);
}

namespace {

std::uint32_t sum16(bytes_view b, std::uint32_t sum)
{
    std::size_t i = 0;
    for (; i + 1 < b.size(); i += 2) sum += (std::uint32_t(b[i]) << 8) | b[i + 1];
    if (i < b.size()) sum += std::uint32_t(b[i]) << 8;
    return sum;
}

} // namespace

bool sim_frame_fill_l4_checksum(bytes_span f)
{
    frame_info fi;
    if (sim_frame_parse(f, fi) != FRAME_OK) return false;
    const std::size_t l3 = fi.l3_off;
    std::uint32_t sum = 0;
    std::size_t l4 = 0, l4len = 0;
    std::uint8_t proto = 0;
    if (fi.ethertype == SIM_ETH_IPV4) {
        std::uint8_t vihl;
        std::uint16_t total, frag;
        if (!u8_at(f, l3, vihl) || !be16_at(f, l3 + 2, total) || !be16_at(f, l3 + 6, frag) ||
            !u8_at(f, l3 + 9, proto))
            return false;
        std::size_t ihl = std::size_t(vihl & 0x0f) * 4;
        // Offload never leaves a fragment's checksum undone.
        if ((frag & 0x3fff) || ihl < 20 || total < ihl || l3 + total > f.size()) return false;
        l4 = l3 + ihl;
        l4len = total - ihl;
        if (proto != 1) sum = sum16(bytes_view(f).subspan(l3 + 12, 8), proto + std::uint32_t(l4len));
    } else if (fi.ethertype == SIM_ETH_IPV6) {
        std::uint16_t plen;
        if (!be16_at(f, l3 + 4, plen) || !u8_at(f, l3 + 6, proto) || l3 + 40 + plen > f.size()) return false;
        l4 = l3 + 40;
        l4len = plen;
        sum = sum16(bytes_view(f).subspan(l3 + 8, 32), proto + std::uint32_t(l4len));
    } else {
        return false;
    }
    std::size_t off = proto == 17 ? 6 : proto == 6 ? 16 : (proto == 58 || (proto == 1 && fi.ipv4)) ? 2 : 0;
    if (!off || l4len < off + 2) return false;
    bytes_span seg = f.subspan(l4, l4len);
    put_be16_at(seg, off, 0);
    sum = sum16(seg, sum);
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    std::uint16_t cs = static_cast<std::uint16_t>(~sum);
    // RFC 768: a computed zero goes out as all ones (zero means "none").
    if (proto == 17 && cs == 0) cs = 0xffff;
    return put_be16_at(seg, off, cs);
}

classify_result sim_classify_port(const sim_port &owner, const frame_info &fi, classification &c)
{
    c = classification{};
    std::uint16_t tag = fi.ntags ? fi.tags[0].vid() : 0;
    if (tag == 0) {
        // Untagged and priority-tagged frames join the port VLAN.
        if (owner.pvid == 0) return CLASSIFY_NO_VLAN;
        c.vid = owner.pvid;
        c.pop_outer = fi.ntags > 0;
        return CLASSIFY_OK;
    }
    if (tag > SIM_VLAN_MAX ||
        !(owner.tagged.test(tag) || owner.untagged.test(tag) || owner.pvid == tag))
        return CLASSIFY_NO_VLAN;
    c.vid = tag;
    c.pop_outer = true;
    return CLASSIFY_OK;
}

classify_result sim_classify_onu(const sim_model &m, std::uint32_t onu, const frame_info &fi,
                                 classification &c)
{
    c = classification{};
    std::uint16_t tag = fi.ntags ? fi.tags[0].vid() : 0;
    for (auto &[id, sp] : m.servports) {
        if (sp.onu != onu) continue;
        bool match = tag == 0 ? !sp.user_tagged : (sp.user_tagged && sp.uservlan == tag);
        if (!match) continue;
        c.vid = sp.vlan;
        c.pop_outer = fi.ntags > 0;
        c.servport = &sp;
        return CLASSIFY_OK;
    }
    return CLASSIFY_NO_SERVPORT;
}

bool sim_egress_port(const sim_model &m, const sim_port &p, std::uint16_t vid, std::uint16_t &tag_vid)
{
    bool tagged = false;
    if (!m.port_in_vlan(p, vid, &tagged)) return false;
    tag_vid = tagged ? vid : 0;
    return true;
}

bool sim_egress_onu(const sim_model &m, const sim_port &onu, std::uint16_t vid, std::uint16_t &tag_vid)
{
    const sim_servport *sp = m.servport_for_vlan(onu.ifindex, vid);
    if (!sp) {
        // The module may address a client in its user VLAN (unicast renewals).
        for (auto &[id, s] : m.servports)
            if (s.onu == onu.ifindex && s.uservlan == vid) { sp = &s; break; }
    }
    if (!sp) return false;
    tag_vid = sp->user_tagged ? sp->uservlan : 0;
    return true;
}
