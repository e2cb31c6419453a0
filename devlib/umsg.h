// Device-manager notification records and their wire form (docs/devmgr-protocol.md).
#pragma once

#include <cstdint>
#include <string>
#include "lib/wire.h"

enum { UVLAN_BITMAP_LEN = 512, VLAN_ID_MAX = 4095 };

struct umsg_if_t {
    std::uint32_t ifindex;
    char name[20];
    std::uint32_t status;  // 1 running
    std::uint32_t admin;
    std::uint32_t duplex;
    std::uint32_t speed;
    std::uint32_t flags;
    char onu_sn[32];
};

struct umsg_onu_op_t {
    std::uint32_t ifindex;
    std::int32_t status;
    char onu_sn[9];
};

struct umsg_vlan_t {
    std::uint8_t uvlan[UVLAN_BITMAP_LEN];
};

enum { UMSG_VLAN_PORT_ADD = 1, UMSG_VLAN_PORT_DEL = 2, UMSG_VLAN_PORT_PVID = 3 };

struct umsg_vlan_port_t {
    std::uint32_t ifindex;
    std::uint16_t op;
    std::uint16_t tag;  // 0 tagged, non-zero untagged
    std::uint16_t pvid;
    std::uint8_t uvlan[UVLAN_BITMAP_LEN];
};

struct umsg_trunk_t {
    std::uint32_t ifindex;   // member port
    std::uint32_t trunk_id;  // 0 = leaves its trunk
};

struct umsg_cfg_sync_t {
    std::uint32_t appid;
    std::uint32_t slotid;
    std::uint32_t cfg_prio;
    std::uint32_t retcode;
    char appName[128];
};

// VLAN bitmap helpers (bit n of byte n/8, most significant bit first).
void uvlan_bitmap_set(std::uint8_t *bm, unsigned vid);
void uvlan_bitmap_clear(std::uint8_t *bm, unsigned vid);
bool uvlan_bitmap_test(const std::uint8_t *bm, unsigned vid);
// -1 when none.
int st_get_min_vlan_in_bitmap(const std::uint8_t *bm);
int st_get_next_vlan_in_bitmap(const std::uint8_t *bm, int vid);
// "1-3,10" style; at most len-1 characters.
void st_vlan_bitmap_to_str(const std::uint8_t *bm, char *buf, std::size_t len);
