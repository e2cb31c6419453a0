// The device library's view of ports: created, updated and removed by the
// device manager's notifications; walked in ifindex order.
#pragma once

#include <cstdint>
#include "devlib/umsg.h"

enum { VLAN_MODE_ACCESS = 0, VLAN_MODE_TRUNK = 1 };

struct vlan_info_t {
    std::uint32_t mode;  // VLAN_MODE_ACCESS / VLAN_MODE_TRUNK
    std::uint16_t vid;   // port VLAN id
    std::uint8_t tagged[UVLAN_BITMAP_LEN];
    std::uint8_t untagged[UVLAN_BITMAP_LEN];
};

enum { UIF_FLAG_TRUNK_MEMBER_SKIP = 0x80 };

struct uif_t {
    std::uint32_t ifindex;
    char name[24];
    std::uint32_t status;  // non-zero: running
    std::uint32_t admin;
    std::uint32_t duplex;
    std::uint32_t speed;
    std::uint32_t flags;
    char onu_sn[33];
    std::uint32_t trunk;       // trunk id this port belongs to, 0 none
    void *info;                // the DHCP record of the port
    vlan_info_t *vlan_info;    // null for interfaces without VLAN membership
};

void uif_init();
void uif_clear();  // drops every port (tests)
uif_t *uif_lookup_by_index(std::uint32_t ifindex);
uif_t *uif_lookup_by_name(const char *name);
uif_t *uif_first();
uif_t *uif_next(const uif_t *ifp);
std::size_t uif_count();

// Used by the notification effects (uclient): the port record, created empty
// when new; with_vlan_info gives it (once) a VLAN membership record.
uif_t *uif_get_or_create(std::uint32_t ifindex, bool with_vlan_info);
void uif_set_name(uif_t *ifp, const char *name);  // keeps the name index current
int uif_delete(std::uint32_t ifindex);             // 0 or TAVO_NOT_FOUND
