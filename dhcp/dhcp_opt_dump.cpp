// Debug dump of every option of a message, one line per option.
#include <arpa/inet.h>
#include <cstdio>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_opt.h"

namespace {

const char *ip_text(bytes_view v, char *buf)
{
    std::uint8_t a[4] = {};
    for (std::size_t k = 0; k < 4 && k < v.size(); ++k) a[k] = v[k];
    inet_ntop(AF_INET, a, buf, INET_ADDRSTRLEN);
    return buf;
}

std::uint32_t be32_of(bytes_view v)
{
    std::uint32_t x = 0;
    be32_at(v, 0, x);
    return x;
}

void dump_one(int vid, int code, bytes_view v)
{
    int len = static_cast<int>(v.size());
    char ip[INET_ADDRSTRLEN];
    char text[3 * 256 + 1];
    std::size_t n = 0;
    switch (code) {
    case DHCP_SUBNET:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%s", vid, code, len, "subnet", ip_text(v, ip));
        return;
    case DHCP_ROUTER:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%s", vid, code, len, "router", ip_text(v, ip));
        return;
    case DHCP_DNS_SERVER:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%s", vid, code, len, "DNS", ip_text(v, ip));
        return;
    case DHCP_HOST_NAME:
        zlog_debug("[vid:%4d]option %2d len %2d %s", vid, code, len, "host-name");
        return;
    case DHCP_NAME_SERVICE:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%s", vid, code, len, "Name service", ip_text(v, ip));
        return;
    case DHCP_NETBIOS_TYPE:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%d", vid, code, len, "netbios-type", v.empty() ? 0 : v[0]);
        return;
    case DHCP_REQUESTED_IP:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%s", vid, code, len, "requested-ip", ip_text(v, ip));
        return;
    case DHCP_LEASE_TIME:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%d", vid, code, len, "lease-time", int(be32_of(v)));
        return;
    case DHCP_MESSAGE_TYPE: {
        int t = v.empty() ? 0 : v[0];
        zlog_debug("[vid:%4d]option %2d len %2d %s:%d (%s)", vid, code, len, "message-type", t,
                   dhcp_msg_type_str(t));
        return;
    }
    case DHCP_SERVER_ID:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%s", vid, code, len, "server-id", ip_text(v, ip));
        return;
    case DHCP_PARAM_REQ:
        for (std::uint8_t b : v) n += std::snprintf(text + n, sizeof text - n, "%02x ", b);
        text[n] = 0;
        zlog_debug("[vid:%4d]option %2d len %2d %s:%s", vid, code, len, "required-options", text);
        return;
    case DHCP_T1:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%d", vid, code, len, "renew-time", int(be32_of(v)));
        return;
    case DHCP_T2:
        zlog_debug("[vid:%4d]option %2d len %2d %s:%d", vid, code, len, "rebind-time", int(be32_of(v)));
        return;
    case DHCP_CLIENT_ID: {
        for (std::size_t k = 1; k < v.size(); ++k) n += std::snprintf(text + n, sizeof text - n, "%s%02x", k > 1 ? ":" : "", v[k]);
        text[n] = 0;
        zlog_debug("[vid:%4d]option %2d len %2d %s:type%d:%s", vid, code, len, "client-id", v.empty() ? 0 : v[0],
                   text);
        return;
    }
    case DHCP_AGENT_OPTIONS: {
        zlog_debug("[vid:%4d]option %2d len %2d", vid, code, len);
        wire_reader r(v);
        std::uint8_t sub = 0, slen = 0;
        bytes_view sv;
        while (r.u8(sub) && r.u8(slen) && r.take(slen, sv)) {
            std::size_t k = 0;
            for (; k < sv.size(); ++k) text[k] = (sv[k] >= 0x20 && sv[k] < 0x7f) ? char(sv[k]) : '.';
            text[k] = 0;
            zlog_debug("[vid:%4d]  sub-option %2d len %2d :%s", vid, sub, slen, text);
        }
        return;
    }
    default:
        for (std::uint8_t b : v) n += std::snprintf(text + n, sizeof text - n, "%02x ", b);
        text[n] = 0;
        zlog_debug("[vid:%4d]option %2d len %2d %s", vid, code, len, text);
        return;
    }
}

}  // namespace

void dhcp_dump_option(int vlan_id, bytes_view packet)
{
    if (!DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) return;
    std::size_t off = DHCP_OFF_OPTIONS;
    long rem = packet.size() > off ? long(std::min<std::size_t>(DHCP_OPTIONS_LEN, packet.size() - off)) : 0;
    unsigned overload = 0;
    bool file_done = false, sname_done = false;
    zlog_debug("[vid:%4d]rem=%d", vlan_id, int(rem));
    while (rem > 0) {
        std::uint8_t c = packet[off];
        if (c == DHCP_PADDING) {
            zlog_debug("[vid:%4d]Padding Option", vlan_id);
            ++off;
            --rem;
            continue;
        }
        if (c == DHCP_END) {
            std::size_t area = 0, alen = 0;
            if ((overload & 1) && !file_done) {
                file_done = true;
                area = DHCP_OFF_FILE;
                alen = DHCP_FILE_LEN;
                zlog_debug("[vid:%4d]End Option file", vlan_id);
            } else if ((overload & 2) && !sname_done) {
                sname_done = true;
                area = DHCP_OFF_SNAME;
                alen = DHCP_SNAME_LEN;
                zlog_debug("[vid:%4d]End Option sname", vlan_id);
            } else {
                break;
            }
            off = area;
            rem = packet.size() > area ? long(std::min(alen, packet.size() - area)) : 0;
            continue;
        }
        long olen = rem >= 2 ? packet[off + 1] : 0;
        if (rem < 2 || rem < olen + 2) {
            zlog_debug("[vid:%4d]remain length %d less then data len %d", vlan_id, int(rem), int(olen));
            break;
        }
        bytes_view v = packet.subspan(off + 2, std::size_t(olen));
        if (c == DHCP_OPTION_OVERLOAD) {
            if (olen >= 1) overload |= v[0];
            zlog_debug("[vid:%4d]option %d over load len %d ", vlan_id, c, int(olen));
        } else {
            dump_one(vlan_id, c, v);
        }
        off += std::size_t(olen) + 2;
        rem -= olen + 2;
    }
    zlog_debug("[vid:%4d]End of dhcp options", vlan_id);
}
