// The device library's VLAN table and port membership.
#pragma once

#include <cstdint>
#include "devlib/uif.h"

struct uvlan_entry_t {
    std::uint16_t vid;
    void *info;  // the DHCP record of the VLAN
};

void uvlan_init();
void uvlan_clear();
int uvlan_create(std::uint16_t vid);   // 0, TAVO_EXISTS, TAVO_PARAM, TAVO_MEMORY
int uvlan_del(std::uint16_t vid);      // 0 or TAVO_NOT_FOUND
bool uvlan_is_exist(std::uint16_t vid);
uvlan_entry_t *vlan_get_entry(std::uint16_t vid);
std::size_t uvlan_count();

// Membership: tag 0 links into the tagged set, non-zero into the untagged set.
int uvlan_port_link(uif_t *port, const std::uint8_t *bitmap, int tag);
int uvlan_port_unlink(uif_t *port, const std::uint8_t *bitmap, int tag);
bool uvlan_is_in_port(const uif_t *port, std::uint16_t vid, int tag);
