// Header parsing, one-line header renderings, hex dumps and the Internet
// checksum, shared by every packet path.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/wire.h"

enum {
    ST_ETH_HDR_LEN = 14,
    ST_ETH_TAG_LEN = 4,
    ST_ETH_MAX_TAGS = 4,  // deeper stacks are refused
    ST_ETH_P_IPV4 = 0x0800,
    ST_ETH_P_IPV6 = 0x86DD,
    ST_ETH_P_8021Q = 0x8100,
    ST_ETH_P_8021AD = 0x88A8,
    ST_ETH_P_QINQ_OLD = 0x9100,
};

struct st_eth_info_t {
    std::uint8_t dst[6];
    std::uint8_t src[6];
    std::uint8_t vlan_depth;
    std::uint16_t vlan_stack[ST_ETH_MAX_TAGS];  // priority/VLAN word of each tag, outer first
    std::uint16_t ethtype;                   // after the tags
    std::size_t hdr_len;                     // 14 + 4 per tag
};

// 0 when the frame holds a whole Ethernet header and at most ST_ETH_MAX_TAGS tags.
int st_packet_parse_eth(bytes_view frame, st_eth_info_t &eth);

// One-line renderings into buf (always terminated); they return buf. A header
// that does not fit in the bytes given renders as "<type> truncated".
const char *st_packet_dump_eth(bytes_view frame, char *buf, std::size_t len);
const char *st_packet_dump_ipv4(bytes_view ip, char *buf, std::size_t len);
const char *st_packet_dump_ipv6(bytes_view ip, char *buf, std::size_t len);
const char *st_packet_dump_udp(bytes_view udp, char *buf, std::size_t len);

// Debug-level hex dump, 16 bytes per line, each line starting with prefix.
void st_hex_dump_packet(const char *prefix, bytes_view data);

// Ones'-complement sum of 16-bit big-endian words (odd tail padded with zero),
// folded, starting from `sum` (chain calls for a pseudo header).
std::uint32_t inet_cksum_add(bytes_view data, std::uint32_t sum);
// The checksum field value of a running sum: folded and complemented.
std::uint16_t inet_cksum_fold(std::uint32_t sum);
std::uint16_t inet_cksum(bytes_view data);
