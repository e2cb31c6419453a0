#include "devlib/umsg.h"

#include <cstdio>

void uvlan_bitmap_set(std::uint8_t *bm, unsigned vid)
{
    if (vid <= VLAN_ID_MAX) bm[vid / 8] |= static_cast<std::uint8_t>(0x80u >> (vid % 8));
}

void uvlan_bitmap_clear(std::uint8_t *bm, unsigned vid)
{
    if (vid <= VLAN_ID_MAX) bm[vid / 8] &= static_cast<std::uint8_t>(~(0x80u >> (vid % 8)));
}

bool uvlan_bitmap_test(const std::uint8_t *bm, unsigned vid)
{
    return vid <= VLAN_ID_MAX && (bm[vid / 8] & (0x80u >> (vid % 8))) != 0;
}

int st_get_next_vlan_in_bitmap(const std::uint8_t *bm, int vid)
{
    unsigned v = vid < 0 ? 0 : static_cast<unsigned>(vid) + 1;
    while (v <= VLAN_ID_MAX) {
        // Whole empty bytes are skipped at once.
        if (v % 8 == 0 && bm[v / 8] == 0) {
            v += 8;
            continue;
        }
        if (uvlan_bitmap_test(bm, v)) return static_cast<int>(v);
        ++v;
    }
    return -1;
}

int st_get_min_vlan_in_bitmap(const std::uint8_t *bm) { return st_get_next_vlan_in_bitmap(bm, -1); }

void st_vlan_bitmap_to_str(const std::uint8_t *bm, char *buf, std::size_t len)
{
    if (!buf || len == 0) return;
    buf[0] = '\0';
    std::size_t used = 0;
    int vid = st_get_min_vlan_in_bitmap(bm);
    while (vid >= 0) {
        int last = vid;
        while (last < VLAN_ID_MAX && uvlan_bitmap_test(bm, static_cast<unsigned>(last) + 1)) ++last;
        char piece[16];
        int n = last == vid ? std::snprintf(piece, sizeof piece, "%s%d", used ? "," : "", vid)
                            : std::snprintf(piece, sizeof piece, "%s%d-%d", used ? "," : "", vid, last);
        // Only whole ranges go in, so a cut text never shows a wrong range.
        if (n < 0 || used + static_cast<std::size_t>(n) >= len) break;
        std::snprintf(buf + used, len - used, "%s", piece);
        used += static_cast<std::size_t>(n);
        vid = st_get_next_vlan_in_bitmap(bm, last);
    }
}
