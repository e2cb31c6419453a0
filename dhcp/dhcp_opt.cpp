#include "dhcp/dhcp_opt.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_memory.h"
#include "lib/log.h"
#include "platform/errcode.h"

const dhcp_optflag dhcp_optflags[] = {
    {OPTION_IP | OPTION_REQ, 0x01},
    {OPTION_S32, 0x02},
    {OPTION_IP | OPTION_LIST | OPTION_REQ, 0x03},
    {OPTION_IP | OPTION_LIST | OPTION_REQ, 0x06},
    {OPTION_IP | OPTION_LIST, 0x09},
    {OPTION_STRING_HOST | OPTION_REQ, 0x0c},
    {OPTION_U16, 0x0d},
    {OPTION_STRING_HOST | OPTION_REQ, 0x0f},
    {OPTION_IP, 0x10},
    {OPTION_STRING, 0x11},
    {OPTION_U8, 0x17},
    {OPTION_U16, 0x1a},
    {OPTION_IP | OPTION_REQ, 0x1c},
    {OPTION_IP_PAIR | OPTION_LIST, 0x21},
    {OPTION_STRING_HOST, 0x28},
    {OPTION_IP | OPTION_LIST, 0x29},
    {OPTION_IP | OPTION_LIST | OPTION_REQ, 0x2a},
    {OPTION_IP | OPTION_LIST, 0x2c},
    {OPTION_U32, 0x33},
    {OPTION_IP, 0x36},
    {OPTION_STRING, 0x38},
    {OPTION_STRING_HOST, 0x42},
    {OPTION_STRING, 0x43},
    {OPTION_STATIC_ROUTES | OPTION_LIST, 0x79},
    {OPTION_6RD, 0xd4},
    {OPTION_STATIC_ROUTES | OPTION_LIST, 0xf9},
    {OPTION_STRING, 0xfc},
    // Not meant to be configured, but the daemon adds them itself.
    {OPTION_IP, 0x32},
    {OPTION_U8, 0x35},
    {OPTION_U16, 0x39},
    {0, 0},
};

const std::uint8_t dhcp_option_lengths[] = {0, 4, 8, 1, 1, 1, 2, 4, 4, 0, 5, 22};

const dhcp_optflag *dhcp_optflag_find(int code)
{
    for (const dhcp_optflag *f = dhcp_optflags; f->code; ++f)
        if (f->code == code) return f;
    return nullptr;
}

namespace {

// The one walk of an option area shared by the scanner and its length variant.
// On success `off`/`len` locate the value inside `packet`.
enum class scan_result { found, not_found, malformed };

struct option_area {
    std::size_t off;
    std::size_t len;
};

option_area area_of(bytes_view packet, std::size_t off, std::size_t len)
{
    if (packet.size() <= off) return {off, 0};
    return {off, std::min(len, packet.size() - off)};
}

scan_result dhcp_scan_option(bytes_view packet, int code, std::size_t &off, std::size_t &len)
{
    option_area area = area_of(packet, DHCP_OFF_OPTIONS, DHCP_OPTIONS_LEN);
    long rem = static_cast<long>(area.len);
    std::size_t i = area.off;
    unsigned overload = 0;
    bool file_done = false, sname_done = false;
    for (;;) {
        if (rem < 1) return scan_result::malformed;
        std::uint8_t c = packet[i];
        if (c == DHCP_PADDING) {
            ++i;
            --rem;
            continue;
        }
        if (c == DHCP_END) {
            if ((overload & 1) && !file_done) {
                file_done = true;
                area = area_of(packet, DHCP_OFF_FILE, DHCP_FILE_LEN);
            } else if ((overload & 2) && !sname_done) {
                sname_done = true;
                area = area_of(packet, DHCP_OFF_SNAME, DHCP_SNAME_LEN);
            } else {
                return scan_result::not_found;
            }
            i = area.off;
            rem = static_cast<long>(area.len);
            continue;
        }
        // A code in the last byte has no length byte: the option overruns.
        if (rem < 2) return scan_result::malformed;
        std::size_t olen = packet[i + 1];
        rem -= static_cast<long>(olen) + 2;
        if (rem < 0) continue;
        if (c == code) {
            off = i + 2;
            len = olen;
            return scan_result::found;
        }
        if (c == DHCP_OPTION_OVERLOAD && olen >= 1) overload |= packet[i + 2];
        i += olen + 2;
    }
}

bool pkt_debug() { return DHCP_DEBUG_ON(DHCP_DEBUG_PACKET); }

thread_local std::uint8_t g_opt_mac[6];
thread_local char g_opt_string[128];

dhcp_option_policy_source g_policy_source{};


}  // namespace

bool dhcp_option_value(bytes_view packet, int code, bytes_view &value)
{
    std::size_t off = 0, len = 0;
    switch (dhcp_scan_option(packet, code, off, len)) {
    case scan_result::found:
        value = packet.subspan(off, len);
        return true;
    case scan_result::malformed:
        DHCP_PKT_DEBUG("[PKT]bad packet, malformed option field");
        return false;
    case scan_result::not_found:
        DHCP_PKT_DEBUG("[PKT]Option %d not found", code);
        return false;
    }
    return false;
}

const std::uint8_t *dhcp_get_option(bytes_view packet, int code)
{
    bytes_view v;
    return dhcp_option_value(packet, code, v) ? v.data() : nullptr;
}

int dhcp_get_option_lengh(bytes_view packet, int code)
{
    std::size_t off = 0, len = 0;
    switch (dhcp_scan_option(packet, code, off, len)) {
    case scan_result::found:
        return static_cast<int>(len);
    case scan_result::malformed:
        if (pkt_debug()) zlog_err("bad packet, malformed option field");
        return 0;
    case scan_result::not_found:
        DHCP_PKT_DEBUG("Option %d not found", code);
        return 0;
    }
    return 0;
}

int dhcp_end_option(bytes_view options)
{
    std::size_t i = 0;
    while (i < options.size() && options[i] != DHCP_END) {
        if (options[i] == DHCP_PADDING) {
            ++i;
            continue;
        }
        if (i + 1 >= options.size()) return -1;
        i += options[i + 1] + 2;
    }
    return i < options.size() ? static_cast<int>(i) : -1;
}

int dhcp_add_binary_option(bytes_span packet, bytes_view addopt)
{
    if (addopt.size() < 2 || addopt.size() < std::size_t(addopt[1]) + 2u) {
        zlog_err("option 0x%02x did not fit into the packet", addopt.empty() ? 0 : addopt[0]);
        return TAVO_PARAM;
    }
    std::size_t optlen = std::size_t(addopt[1]) + 2;
    bytes_span opts = packet.size() > DHCP_OFF_OPTIONS
                          ? packet.subspan(DHCP_OFF_OPTIONS, std::min<std::size_t>(DHCP_OPTIONS_BUILD_MAX,
                                                                                  packet.size() - DHCP_OFF_OPTIONS))
                          : bytes_span();
    int end = dhcp_end_option(opts);
    if (end < 0 || std::size_t(end) + optlen + 1 > DHCP_OPTIONS_BUILD_MAX - 1 ||
        std::size_t(end) + optlen + 1 > opts.size()) {
        zlog_err("option 0x%02x did not fit into the packet", addopt[0]);
        return TAVO_FULL;
    }
    if (pkt_debug()) {
        char hex[2 * 257 + 1];
        std::size_t n = 0;
        for (std::size_t k = 0; k < optlen; ++k) n += std::snprintf(hex + n, sizeof hex - n, "%02x", addopt[k]);
        zlog_info("Adding option: %s", hex);
    }
    std::memcpy(opts.data() + end, addopt.data(), optlen);
    opts[end + optlen] = DHCP_END;
    return 0;
}

int dhcp_add_simple_option(bytes_span packet, std::uint8_t code, std::uint32_t data)
{
    const dhcp_optflag *f = dhcp_optflag_find(code);
    if (!f) {
        if (pkt_debug()) zlog_err("can't add option 0x%02x", code);
        return TAVO_PARAM;
    }
    std::uint8_t len = dhcp_option_lengths[f->flags & OPTION_TYPE_MASK];
    std::uint8_t opt[2 + 22] = {code, len};
    // The value is left-aligned: a 1-byte value lands in the first data byte.
    std::uint32_t v = len < 4 ? data << (8 * (4 - len)) : data;
    wire_writer(bytes_span(opt + 2, 4)).be32(v);
    return dhcp_add_binary_option(packet, bytes_view(opt, std::size_t(len) + 2));
}

option_set *dhcp_find_option(option_set *opt_list, std::uint8_t code)
{
    while (opt_list && opt_list->data[0] < code) opt_list = opt_list->next;
    return opt_list && opt_list->data[0] == code ? opt_list : nullptr;
}

namespace {

// Hex text ("0a0b0c", blanks and colons allowed between bytes) into bytes.
int hex_to_bytes(const char *text, std::uint8_t *out, int cap)
{
    int n = 0;
    for (const char *p = text; *p;) {
        if (*p == ' ' || *p == ':') {
            ++p;
            continue;
        }
        unsigned v = 0;
        for (int k = 0; k < 2; ++k, ++p) {
            char c = *p;
            if (c >= '0' && c <= '9') v = v * 16 + unsigned(c - '0');
            else if (c >= 'a' && c <= 'f') v = v * 16 + unsigned(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F') v = v * 16 + unsigned(c - 'A' + 10);
            else return -1;
        }
        if (n == cap) return -1;
        out[n++] = static_cast<std::uint8_t>(v);
    }
    return n;
}

}  // namespace

void dhcp_attach_option(option_set **opt_list, const dhcp_optflag *optflag, const char *buffer, int length)
{
    if (!opt_list || !optflag || !buffer || length < 0) return;
    int type = optflag->flags & OPTION_TYPE_MASK;
    auto *hex = static_cast<std::uint8_t *>(XCALLOC(TMP, 255));
    const std::uint8_t *value = reinterpret_cast<const std::uint8_t *>(buffer);
    option_set *existing = dhcp_find_option(*opt_list, optflag->code);

    if (!existing) {
        if (pkt_debug()) zlog_info("Attaching option %02x to list", optflag->code);
        if (type == OPTION_BIN) {
            length = hex_to_bytes(buffer, hex, 255);
            if (length < 0) {
                zlog_err("malformed hex string '%s'", buffer);
                XFREE(TMP, hex);
                return;
            }
            value = hex;
        }
        length = std::min(length, 255);
        auto *node = static_cast<option_set *>(XCALLOC(DHCP_OPTION, sizeof(option_set)));
        node->data = static_cast<std::uint8_t *>(XCALLOC(TMP, std::size_t(length) + 2));
        node->data[0] = optflag->code;
        node->data[1] = static_cast<std::uint8_t>(length);
        if (length) std::memcpy(node->data + 2, value, std::size_t(length));
        option_set **at = opt_list;
        while (*at && (*at)->data[0] < optflag->code) at = &(*at)->next;
        node->next = *at;
        *at = node;
    } else if (optflag->flags & OPTION_LIST) {
        if (pkt_debug()) zlog_info("Attaching option %02x to existing member of list", optflag->code);
        int old_len = existing->data[1];
        bool is_string = type == OPTION_STRING || type == OPTION_STRING_HOST;
        int add = length + (is_string ? 1 : 0);
        if (old_len + length < 255 && old_len + add <= 255) {
            auto *grown = static_cast<std::uint8_t *>(XREALLOC(TMP, existing->data, std::size_t(old_len + add) + 2));
            existing->data = grown;
            std::uint8_t *p = grown + 2 + old_len;
            if (is_string) *p++ = ' ';
            if (length) std::memcpy(p, value, std::size_t(length));
            grown[1] = static_cast<std::uint8_t>(old_len + add);
        }
    }
    XFREE(TMP, hex);
}

void dhcp_detach_option(option_set **opt_list, std::uint8_t code)
{
    if (!opt_list) return;
    for (option_set **at = opt_list; *at; at = &(*at)->next) {
        if ((*at)->data[0] != code) continue;
        option_set *node = *at;
        *at = node->next;
        XFREE(TMP, node->data);
        XFREE(DHCP_OPTION, node);
        return;
    }
}

void dhcp_free_options(option_set **opt_list)
{
    while (opt_list && *opt_list) dhcp_detach_option(opt_list, (*opt_list)->data[0]);
}

namespace {

// The getters look the option up with the scanner; a miss logs the same line
// for every code.
bool getter_lookup(bytes_view packet, int code, std::size_t &off, std::size_t &len)
{
    if (dhcp_scan_option(packet, code, off, len) == scan_result::found) return true;
    DHCP_PKT_DEBUG("[PKT]Not found message type");
    return false;
}

}  // namespace

std::uint32_t dhcp_pkt_get_option_integer(bytes_view packet, int code)
{
    std::size_t off = 0, len = 0;
    if (!getter_lookup(packet, code, off, len)) return 0;
    // Four bytes whatever the option's length, but never past the message.
    std::uint8_t b[4] = {};
    for (std::size_t k = 0; k < 4 && off + k < packet.size(); ++k) b[k] = packet[off + k];
    return (std::uint32_t(b[0]) << 24) | (std::uint32_t(b[1]) << 16) | (std::uint32_t(b[2]) << 8) | b[3];
}

std::uint32_t dhcp_pkt_get_option_ip(bytes_view packet, int code)
{
    std::size_t off = 0, len = 0;
    if (!getter_lookup(packet, code, off, len)) return 0;
    std::uint8_t b[4] = {};
    for (std::size_t k = 0; k < 4 && off + k < packet.size(); ++k) b[k] = packet[off + k];
    return stored32_at(bytes_view(b, 4), 0);
}

const std::uint8_t *dhcp_pkt_get_option_mac(bytes_view packet, int code)
{
    std::memset(g_opt_mac, 0, sizeof g_opt_mac);
    std::size_t off = 0, len = 0;
    if (!getter_lookup(packet, code, off, len)) return g_opt_mac;
    for (std::size_t k = 0; k < 6 && off + k < packet.size(); ++k) g_opt_mac[k] = packet[off + k];
    return g_opt_mac;
}

const char *dhcp_pkt_get_option_string(bytes_view packet, int code)
{
    std::memset(g_opt_string, 0, sizeof g_opt_string);
    std::size_t off = 0, len = 0;
    if (!getter_lookup(packet, code, off, len)) return g_opt_string;
    // Formatted with the option's length as the size limit, so the value's
    // last byte gives way to the terminator.
    std::size_t n = len ? std::min(len - 1, sizeof g_opt_string - 1) : 0;
    for (std::size_t k = 0; k < n && packet[off + k]; ++k) g_opt_string[k] = static_cast<char>(packet[off + k]);
    return g_opt_string;
}

std::uint32_t dhcp_get_op1_subnet(bytes_view p) { return dhcp_pkt_get_option_ip(p, DHCP_SUBNET); }
std::uint32_t dhcp_get_op3_route_ip(bytes_view p) { return dhcp_pkt_get_option_ip(p, DHCP_ROUTER); }
std::uint32_t dhcp_get_op50_request_ip(bytes_view p) { return dhcp_pkt_get_option_ip(p, DHCP_REQUESTED_IP); }
std::uint32_t dhcp_get_op54_dhcp_server(bytes_view p) { return dhcp_pkt_get_option_ip(p, DHCP_SERVER_ID); }
std::uint32_t dhcp_get_op51_lease_time(bytes_view p) { return dhcp_pkt_get_option_integer(p, DHCP_LEASE_TIME); }
std::uint32_t dhcp_get_op58_renewal_time(bytes_view p) { return dhcp_pkt_get_option_integer(p, DHCP_T1); }
std::uint32_t dhcp_get_op59_rebind_time(bytes_view p) { return dhcp_pkt_get_option_integer(p, DHCP_T2); }
const char *dhcp_get_op12_host_name(bytes_view p) { return dhcp_pkt_get_option_string(p, DHCP_HOST_NAME); }
const char *dhcp_get_op60_vendor(bytes_view p) { return dhcp_pkt_get_option_string(p, DHCP_VENDOR); }
const std::uint8_t *dhcp_get_op61_client_id(bytes_view p) { return dhcp_pkt_get_option_mac(p, DHCP_CLIENT_ID); }

int dhcp_get_msg_type(bytes_view packet)
{
    bytes_view v;
    if (!dhcp_option_value(packet, DHCP_MESSAGE_TYPE, v) || v.empty()) return 0;
    return v[0];
}

int dhcp_check_msg_type(int dhcp_msg_type, int trust_port)
{
    switch (dhcp_msg_type) {
    case DHCPDISCOVER:
    case DHCPREQUEST:
    case DHCPDECLINE:
    case DHCPRELEASE:
    case DHCPINFORM:
        return trust_port == 0;
    case DHCPOFFER:
    case DHCPACK:
    case DHCPNAK:
        return trust_port != 0;
    default:
        return 0;
    }
}

void dhcp_init_header(dhcp_packet *packet, int type)
{
    bytes_span p(packet->raw, DHCP_PACKET_SIZE);
    std::memset(packet->raw, 0, sizeof packet->raw);
    p[DHCP_OFF_OP] = (type == DHCPOFFER || type == DHCPACK || type == DHCPNAK) ? BOOTREPLY : BOOTREQUEST;
    p[DHCP_OFF_HTYPE] = 1;
    p[DHCP_OFF_HLEN] = 6;
    put_be32_at(p, DHCP_OFF_COOKIE, DHCP_MAGIC);
    p[DHCP_OFF_OPTIONS] = DHCP_END;
    dhcp_add_simple_option(p, DHCP_MESSAGE_TYPE, static_cast<std::uint32_t>(type));
}

void dhcp_set_option_policy_source(const dhcp_option_policy_source &src) { g_policy_source = src; }

int dhcp_get_packet_opcode(int is_from_client, int is_trust, int is_option_exist, int option)
{
    if (!is_from_client) return is_option_exist ? DHCP_OPCODE_REMOVE : DHCP_OPCODE_FORWARD;
    if (is_trust) return DHCP_OPCODE_FORWARD;
    if (!is_option_exist) return DHCP_OPCODE_ADD;
    int policy = DHCPPORTOPTIONPOLICY_REPLACE;
    int (*get)() = nullptr;
    switch (option) {
    case 37: get = g_policy_source.op37; break;
    case 82: get = g_policy_source.op82; break;
    case 18: get = g_policy_source.op18; break;
    default:
        zlog_err("[PKT]invalid DHCP option[%d]", option);
        break;
    }
    if (get) policy = get();
    if (policy == DHCPPORTOPTIONPOLICY_DROP) return DHCP_OPCODE_DROP;
    if (policy == DHCPPORTOPTIONPOLICY_KEEP) return DHCP_OPCODE_FORWARD;
    return DHCP_OPCODE_ADD;
}

const char *dhcp_msg_type_str(int type)
{
    static const char *const names[] = {nullptr,       "discovery",          "offer",          "request",
                                        "decline",     "ack",                "nack",           "release",
                                        "info",        "force renew",        "release query",  "release unassigned",
                                        "release unkown", "release active"};
    if (type >= 1 && type <= 13) return names[type];
    return "UNKNOWN ERROR";
}
