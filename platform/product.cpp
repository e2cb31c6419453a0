#include "platform/product.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iniparser.h>
#include <string>

#include "lib/log.h"
#include "platform/errcode.h"

namespace {

struct product_info {
    int slot = 1;
    std::uint32_t enterprise = 99999;
    std::uint8_t mac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    std::string hostname = "OLT";
};

product_info g_product;

int product_iniparser_error(const char *fmt, ...)
{
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    zlog_debug("iniparser: %s", text);
    return 0;
}

bool parse_u32(const char *s, unsigned long max, unsigned long &v)
{
    if (!s || !std::isdigit(static_cast<unsigned char>(*s))) return false;
    char *end = nullptr;
    errno = 0;
    v = std::strtoul(s, &end, 10);
    return errno == 0 && *end == '\0' && v <= max;
}

int hexdigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

// "00:11:22:33:44:55", "00-11-22-33-44-55" or "0011-2233-4455".
bool parse_mac(const char *s, std::uint8_t out[6])
{
    std::size_t n = std::strlen(s);
    std::uint8_t mac[6];
    if (n == 17) {
        for (int i = 0; i < 6; ++i) {
            int hi = hexdigit(s[i * 3]), lo = hexdigit(s[i * 3 + 1]);
            if (hi < 0 || lo < 0) return false;
            if (i < 5 && s[i * 3 + 2] != ':' && s[i * 3 + 2] != '-') return false;
            mac[i] = static_cast<std::uint8_t>(hi << 4 | lo);
        }
    } else if (n == 14) {
        for (int g = 0; g < 3; ++g) {
            const char *p = s + g * 5;
            if (g < 2 && p[4] != '-') return false;
            for (int k = 0; k < 2; ++k) {
                int hi = hexdigit(p[k * 2]), lo = hexdigit(p[k * 2 + 1]);
                if (hi < 0 || lo < 0) return false;
                mac[g * 2 + k] = static_cast<std::uint8_t>(hi << 4 | lo);
            }
        }
    } else {
        return false;
    }
    std::memcpy(out, mac, 6);
    return true;
}

bool valid_hostname(const char *s)
{
    std::size_t n = std::strlen(s);
    if (n == 0 || n > 63) return false;
    for (std::size_t i = 0; i < n; ++i)
        if (!std::isgraph(static_cast<unsigned char>(s[i]))) return false;
    return true;
}

} // namespace

int st_product_load(const char *path)
{
    g_product = product_info{};
    if (!path || !*path) path = PRODUCT_DEFAULT_FILE;
    iniparser_set_error_callback(product_iniparser_error);
    dictionary *d = iniparser_load(path);
    if (!d) {
        zlog_err("Product file %s not readable, using defaults", path);
        return TAVO_NOT_FOUND;
    }
    int rc = 0;
    auto bad = [&](const char *key, const char *value) {
        zlog_err("Product file %s: bad value \"%s\" for %s, default kept", path, value, key);
        rc = TAVO_PARAM;
    };
    unsigned long v = 0;
    if (const char *s = iniparser_getstring(d, "product:slot", nullptr)) {
        if (parse_u32(s, 31, v)) g_product.slot = static_cast<int>(v);
        else bad("product:slot", s);
    }
    if (const char *s = iniparser_getstring(d, "product:enterprise", nullptr)) {
        if (parse_u32(s, 0xffffffffUL, v) && v != 0) g_product.enterprise = static_cast<std::uint32_t>(v);
        else bad("product:enterprise", s);
    }
    if (const char *s = iniparser_getstring(d, "product:sys_mac", nullptr)) {
        if (!parse_mac(s, g_product.mac)) bad("product:sys_mac", s);
    }
    if (const char *s = iniparser_getstring(d, "product:hostname", nullptr)) {
        if (valid_hostname(s)) g_product.hostname = s;
        else bad("product:hostname", s);
    }
    iniparser_freedict(d);
    return rc;
}

int st_product_slot_id_get() { return g_product.slot; }

std::uint32_t st_product_enterprise_id_get() { return g_product.enterprise; }

const std::uint8_t *st_product_sys_mac_get() { return g_product.mac; }

void st_product_mac_get(std::uint8_t mac[6]) { std::memcpy(mac, g_product.mac, 6); }

const char *st_product_default_hostname() { return g_product.hostname.c_str(); }

std::uint32_t st_product_get_system_uptime()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint32_t>(ts.tv_sec * 100 + ts.tv_nsec / 10000000);
}
