// Interface index encoding shared by the daemon, the software OLT and tests.
// The table of fields and the interface-name forms are in docs/ifindex.md.
#pragma once

#include <cstddef>
#include <cstdint>

enum port_type_e {
    PORT_TYPE_FABRIC = 0,
    PORT_TYPE_FE = 1,
    PORT_TYPE_GE = 2,
    PORT_TYPE_XE = 3,
    PORT_TYPE_CE = 4,
    PORT_TYPE_TRUNK = 5,
    PORT_TYPE_VLANIF = 6,
    PORT_TYPE_LO = 7,
    PORT_TYPE_ETH = 8,
    PORT_TYPE_GPON = 9,
    PORT_TYPE_GONU = 10,
    PORT_TYPE_GEMPORT = 11,
    PORT_TYPE_GPON_SERVPORT = 12,
    PORT_TYPE_GPON_ONU_UNI = 13,
    PORT_TYPE_MGMT = 14,
    PORT_TYPE_MAX = 15,
};

// Ranges of the numbered parts.
enum {
    IFINDEX_ONU_MAX = 128,        // ONU id 1..128 (GONU sub-port)
    IFINDEX_GEM_MAX = 4095,       // GEM port id 0..4095 (GEMPORT sub-port)
    IFINDEX_UNI_BITS = 4,         // ONU_UNI sub-port = onu id << 4 | uni 1..15
    IFINDEX_TRUNK_MAX = 128,      // trunk 1..128
    IFINDEX_LO_MAX = 1023,        // loopback 0..1023
    IFINDEX_SERVPORT_MAX = 16384, // service port 1..16384
};

// Physical ports (FE/GE/XE/CE/GPON/GONU/GEMPORT/ONU_UNI/ETH/MGMT): shelf, slot,
// sub-slot, port and sub-port (ONU id, or GEM/UNI number). Returns 0 when a
// field is out of range.
std::uint32_t st_ifindex_gen_by_phyinfo(int type, int shelf, int slot, int subslot, int port,
                                        int subport);
// Logical interfaces (TRUNK, VLANIF, LO, GPON_SERVPORT): a number (trunk id,
// VLAN id, loopback id, service-port id). Returns 0 when out of range.
std::uint32_t st_ifindex_gen_by_logicinfo(int type, std::uint32_t number);

// 0 (PORT_TYPE_FABRIC) for an index that encodes nothing valid.
int st_ifindex_get_port_type(std::uint32_t ifindex);
int st_ifindex_get_shelf_id(std::uint32_t ifindex);
int st_ifindex_get_slot_id(std::uint32_t ifindex);
int st_ifindex_get_subslot_id(std::uint32_t ifindex);
int st_ifindex_get_port_id(std::uint32_t ifindex);
int st_ifindex_get_subport_id(std::uint32_t ifindex);
// The logical number of a logical interface (VLAN id of a vlanif ...).
std::uint32_t st_ifindex_get_logic_id(std::uint32_t ifindex);
int st_ifindex_get_vlan_id(std::uint32_t ifindex);
// ONU id of a GONU or ONU_UNI index, -1 otherwise. The shelf ... sub-port
// getters answer -1 for indexes that are not valid physical ports.
int st_ifindex_get_onu_id(std::uint32_t ifindex);

// Interface names, never containing blanks: 0 on success, TAVO_PARAM otherwise.
int st_get_ifname_by_ifindex(std::uint32_t ifindex, char *buf, std::size_t len);
// Parses a name back; 0 when it is not an interface name.
std::uint32_t st_get_ifindex_by_ifname(const char *name);
// Convenience: a static buffer holding the name, or "unknown(0x...)".
const char *st_ifname(std::uint32_t ifindex);
