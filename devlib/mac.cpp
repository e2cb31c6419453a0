#include "devlib/mac.h"

#include <cstdio>

#include "platform/errcode.h"

static int hexval(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

int tavo_str2mac(const char *str, std::uint8_t mac[6])
{
    if (!str) return TAVO_PARAM;
    std::uint8_t out[6];
    int n = 0;
    for (int group = 0; group < 3; ++group) {
        for (int i = 0; i < 4; ++i) {
            int v = hexval(str[n++]);
            if (v < 0) return TAVO_PARAM;
            int byte = group * 2 + i / 2;
            out[byte] = static_cast<std::uint8_t>(i % 2 ? (out[byte] | v) : (v << 4));
        }
        char sep = str[n++];
        if (group < 2 ? sep != '-' : sep != '\0') return TAVO_PARAM;
    }
    for (int i = 0; i < 6; ++i) mac[i] = out[i];
    return 0;
}

char *tavo_mac2str(const std::uint8_t mac[6], char *buf)
{
    std::snprintf(buf, 15, "%02x%02x-%02x%02x-%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return buf;
}
