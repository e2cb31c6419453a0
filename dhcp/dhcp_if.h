// Routed interfaces known to the daemon ("vlanif<vid>" and the other kernel
// links), their connected addresses and their DHCP record. The kernel is the
// source of truth: links and addresses come from the rtnetlink cache, while
// the "interface IFNAME" command may create an interface before the kernel
// knows it.
#pragma once

#include <cstdint>
#include <list>
#include <netinet/in.h>

#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_stats.h"

struct thread_master;

enum { INTERFACE_NAMSIZ = 20, INTERFACE_HWADDR_MAX = 6 };

// An address with its prefix length; family AF_INET (2) or AF_INET6 (10).
struct prefix {
    std::uint8_t family;
    std::uint8_t prefixlen;
    union {
        in_addr prefix4;   // network order
        in6_addr prefix6;
        std::uint8_t prefix[16];
    } u;
};

// Interface flags as the kernel gives them (IFF_*).
enum : std::uint64_t { DHCP_IFF_UP = 0x1, DHCP_IFF_RUNNING = 0x40, DHCP_IFF_LOWER_UP = 0x10000 };

using dhcp_connected_list_t = std::list<prefix, dhcp_mt_allocator<prefix, &MTYPE_LINK_NODE>>;

struct interface {
    char name[INTERFACE_NAMSIZ + 1];
    std::uint32_t ifindex;     // the kernel's index; 0 while the kernel has no such link
    std::uint32_t uifindex;    // the device index (PORT_TYPE_VLANIF for "vlanif<vid>")
    std::uint8_t status;
    std::uint64_t flags;       // IFF_*
    int metric;
    std::uint32_t mtu;
    std::uint32_t mtu6;
    int hw_type;
    int hw_addr_len;
    std::uint8_t hw_addr[INTERFACE_HWADDR_MAX];
    std::uint32_t bandwidth;
    int ip_type;
    dhcp_connected_list_t connected;  // in the order the kernel reported them
    void *info;                       // dhcp_info_t, or null
};

struct dhcpr_s;

// The DHCP record of an interface.
struct dhcp_info_s {
    std::uint32_t v4_type;   // 1: layer-3 relay
    std::uint32_t v6_type;   // 1: layer-3 relay
    dhcp_pkt_statistic_t stats;
    dhcpr_s *info;           // relay instance, or null
};
typedef dhcp_info_s dhcp_info_t;

enum { DHCP_IF_TYPE_NONE = 0, DHCP_IF_TYPE_RELAY = 1 };

// ------------------------------------------------------------ the table ----

// Empties the interface table (start-up, tests).
void dhcp_l3if_init();
// Frees every interface and DHCP record, relay instances included (tests).
void dhcp_l3if_clear();

// In table order (creation order).
interface *if_first();
interface *if_next(const interface *ifp);
std::size_t if_count();
interface *if_lookup_by_name(const char *name);
interface *if_lookup_by_index(std::uint32_t kernel_ifindex);
interface *if_lookup_by_uifindex(std::uint32_t uifindex);
// The interface of that name, created when missing (the "interface IFNAME"
// command); null for a bad name or no memory.
interface *if_get_by_name(const char *name);

int if_is_up(const interface *ifp);
int if_is_running(const interface *ifp);
// The VLAN of a "vlanif<vid>" interface, 0 for any other.
std::uint16_t dhcp_if_vlan_id(const interface *ifp);
// The first connected IPv4 address (network order), 0 when none.
std::uint32_t dhcp_if_primary_ipv4(const interface *ifp);
// "UP,BROADCAST,RUNNING" style rendering of the flags (static buffer).
const char *if_flag_dump(std::uint64_t flags);

// ------------------------------------------------------ the DHCP record ----

// 1 when the interface carries a DHCP record.
int dhcp_if_is_intialized(const interface *ifp);
// Gives the interface its DHCP record (kept if present): 0 or TAVO_MEMORY.
int dhcp_if_init(interface *ifp);
dhcp_info_t *dhcp_if_info(const interface *ifp);
// Frees the record and whatever relay instance hangs off it.
void dhcp_if_deinit(interface *ifp);

// --------------------------------------------- kernel link/address events ----
// Fed by the rtnetlink cache; also the entry points for tests.

// A link appeared or changed: creates or updates the interface by name and
// runs the up/down transitions. mac may be null.
interface *dhcp_interface_add(const char *name, std::uint32_t kernel_ifindex, std::uint64_t flags,
                              const std::uint8_t *mac, std::uint32_t mtu);
// The kernel link went away: the relay closes its sockets; the interface and
// its configuration stay (as after "interface IFNAME"), without index.
void dhcp_interface_delete(std::uint32_t kernel_ifindex);
void dhcp_interface_up(interface *ifp);
void dhcp_interface_down(interface *ifp);
int dhcp_interface_address_add(interface *ifp, const prefix *p);
int dhcp_interface_address_delete(interface *ifp, const prefix *p);

// ------------------------------------------------------------ rtnetlink ----

// Starts the libnl route cache manager on links and addresses and registers
// its descriptor on the loop; the current state is fed in at once.
// 0 or TAVO_SYSTEM.
int dhcp_rtnl_init(thread_master *m);
void dhcp_rtnl_stop();

// Texts of a prefix: "a.b.c.d" or IPv6 form (static buffer per call site use).
const char *dhcp_prefix_addr_str(const prefix *p, char *buf, std::size_t len);
