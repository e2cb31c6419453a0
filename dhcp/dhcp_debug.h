// Run-time debugging switches: category bits and one monitored client.
#pragma once

#include <cstdint>
#include "lib/log.h"

enum : std::uint32_t {
    DHCP_DEBUG_EVENT = 1,
    DHCP_DEBUG_PACKET = 2,
    DHCP_DEBUG_INTERFACE = 4,
    DHCP_DEBUG_TIMER = 8,
    DHCP_DEBUG_DIAGNOSE = 16,
    DHCP_DEBUG_SNMP = 32,
    DHCP_DEBUG_ALL = 63,
};

extern std::uint32_t g_dhcp_debug;
extern std::uint8_t g_dhcp_debug_client_mac[6];
extern std::uint32_t g_dhcp_debug_client;

void dhcp_debug_init();
void dhcp_set_client_debug(const std::uint8_t mac[6]);
void dhcp_clear_client_debug();
void dhcp_check_client_debug_start(const std::uint8_t mac[6]);
void dhcp_check_client_debug_end();

// A debug line of category c: written for the monitored client or when bit c is on.
#define DHCP_DEBUG_ON(c) (g_dhcp_debug_client || (g_dhcp_debug & (c)))
#define DHCP_LOG_DEBUG(c, fmt, ...) \
    do { if (DHCP_DEBUG_ON(c)) zlog_debug(fmt, ##__VA_ARGS__); } while (0)
// Packet-path lines ("under client debugging").
#define DHCP_PKT_DEBUG(fmt, ...) DHCP_LOG_DEBUG(DHCP_DEBUG_PACKET, fmt, ##__VA_ARGS__)
// Interface and timer lines are gated by their bit alone.
#define DHCP_BIT_DEBUG(c, fmt, ...) \
    do { if (g_dhcp_debug & (c)) zlog_debug(fmt, ##__VA_ARGS__); } while (0)
