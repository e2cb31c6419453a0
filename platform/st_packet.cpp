#include "platform/st_packet.h"

#include <arpa/inet.h>
#include <cstdio>

#include "lib/log.h"

namespace {

bool is_tag_type(std::uint16_t t)
{
    return t == ST_ETH_P_8021Q || t == ST_ETH_P_8021AD || t == ST_ETH_P_QINQ_OLD;
}

const char *ipv4_text(bytes_view b, std::size_t off, char *buf)
{
    std::uint8_t a[4] = {};
    wire_reader r(b, off);
    r.copy(a, 4);
    inet_ntop(AF_INET, a, buf, INET_ADDRSTRLEN);
    return buf;
}

}  // namespace

int st_packet_parse_eth(bytes_view frame, st_eth_info_t &eth)
{
    eth = {};
    wire_reader r(frame);
    if (!r.copy(eth.dst, 6) || !r.copy(eth.src, 6) || !r.be16(eth.ethtype)) return -1;
    while (is_tag_type(eth.ethtype)) {
        if (eth.vlan_depth == ST_ETH_MAX_TAGS) return -1;
        std::uint16_t tci = 0;
        if (!r.be16(tci) || !r.be16(eth.ethtype)) return -1;
        eth.vlan_stack[eth.vlan_depth++] = tci;
    }
    eth.hdr_len = r.pos();
    return 0;
}

const char *st_packet_dump_eth(bytes_view frame, char *buf, std::size_t len)
{
    st_eth_info_t e;
    if (st_packet_parse_eth(frame, e) != 0) {
        std::snprintf(buf, len, "eth truncated");
        return buf;
    }
    int n = std::snprintf(buf, len, "eth %02x%02x-%02x%02x-%02x%02x > %02x%02x-%02x%02x-%02x%02x", e.src[0],
                          e.src[1], e.src[2], e.src[3], e.src[4], e.src[5], e.dst[0], e.dst[1], e.dst[2],
                          e.dst[3], e.dst[4], e.dst[5]);
    for (int i = 0; i < e.vlan_depth && n > 0 && std::size_t(n) < len; ++i)
        n += std::snprintf(buf + n, len - n, " vlan %d prio %d", e.vlan_stack[i] & 0xfff, e.vlan_stack[i] >> 13);
    if (n > 0 && std::size_t(n) < len) std::snprintf(buf + n, len - n, " type %#06x", e.ethtype);
    return buf;
}

const char *st_packet_dump_ipv4(bytes_view ip, char *buf, std::size_t len)
{
    std::uint8_t vihl = 0, ttl = 0, proto = 0;
    std::uint16_t total = 0;
    if (!u8_at(ip, 0, vihl) || !be16_at(ip, 2, total) || !u8_at(ip, 8, ttl) || !u8_at(ip, 9, proto) ||
        ip.size() < 20) {
        std::snprintf(buf, len, "ipv4 truncated");
        return buf;
    }
    char s[INET_ADDRSTRLEN], d[INET_ADDRSTRLEN];
    std::snprintf(buf, len, "ipv4 %s > %s ihl %d len %d ttl %d proto %d", ipv4_text(ip, 12, s), ipv4_text(ip, 16, d),
                  vihl & 0xf, total, ttl, proto);
    return buf;
}

const char *st_packet_dump_ipv6(bytes_view ip, char *buf, std::size_t len)
{
    std::uint16_t plen = 0;
    std::uint8_t next = 0, hops = 0;
    std::uint8_t s[16], d[16];
    wire_reader r(ip, 4);
    if (!r.be16(plen) || !r.u8(next) || !r.u8(hops) || !r.copy(s, 16) || !r.copy(d, 16)) {
        std::snprintf(buf, len, "ipv6 truncated");
        return buf;
    }
    char st[INET6_ADDRSTRLEN], dt[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, s, st, sizeof st);
    inet_ntop(AF_INET6, d, dt, sizeof dt);
    std::snprintf(buf, len, "ipv6 %s > %s plen %d next %d hops %d", st, dt, plen, next, hops);
    return buf;
}

const char *st_packet_dump_udp(bytes_view udp, char *buf, std::size_t len)
{
    std::uint16_t sp = 0, dp = 0, ulen = 0, sum = 0;
    wire_reader r(udp);
    if (!r.be16(sp) || !r.be16(dp) || !r.be16(ulen) || !r.be16(sum)) {
        std::snprintf(buf, len, "udp truncated");
        return buf;
    }
    std::snprintf(buf, len, "udp %d > %d len %d sum %#06x", sp, dp, ulen, sum);
    return buf;
}

void st_hex_dump_packet(const char *prefix, bytes_view data)
{
    char line[16 * 3 + 8];
    for (std::size_t off = 0; off < data.size(); off += 16) {
        int n = std::snprintf(line, sizeof line, "%04zx:", off);
        for (std::size_t i = off; i < data.size() && i < off + 16; ++i)
            n += std::snprintf(line + n, sizeof line - n, " %02x", data[i]);
        zlog_debug("%s%s", prefix ? prefix : "", line);
    }
}

std::uint32_t inet_cksum_add(bytes_view data, std::uint32_t sum)
{
    std::size_t i = 0;
    for (; i + 1 < data.size(); i += 2) sum += (std::uint32_t(data[i]) << 8) | data[i + 1];
    if (i < data.size()) sum += std::uint32_t(data[i]) << 8;
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return sum;
}

std::uint16_t inet_cksum_fold(std::uint32_t sum)
{
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum & 0xffff);
}

std::uint16_t inet_cksum(bytes_view data) { return inet_cksum_fold(inet_cksum_add(data, 0)); }
