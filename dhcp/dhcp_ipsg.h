// IP source guard: the table of permitted clients (one per VLAN and MAC), the
// per-VLAN switch, and the per-client rules installed in the forwarding plane.
#pragma once

#include <cstddef>
#include <cstdint>

#include "devlib/uvlan.h"

struct vty;

enum {
    HAL_MSG_DHCP_IP_SOURCE = 329,
    HAL_MSG_DHCP_IP_SOURCE_LEN = 20,  // hal_msg_dhcp_ip_source_s
    DHCP_IP_SOURCE_ACTION_ADD = 0,
    DHCP_IP_SOURCE_ACTION_DEL = 1,
    DHCP_IP_SOURCE_MAX = 1000,
};
// The per-VLAN switch travels as a rule on this port with the invalid MAC.
constexpr std::uint32_t DHCP_IP_SOURCE_VLAN_IFINDEX = 0xffffffffu;
extern const std::uint8_t st_acl_mac_invalid[6];

struct dhcp_ip_souce_client_s {
    std::uint8_t mac[6];
    std::uint16_t vid;
    std::uint32_t ifindex;    // the client's port when the entry was made
    std::uint32_t bind_type;  // 1 snoop, 2 relay, 3 static, 4 server
    std::uint32_t ip_addr;    // as stored on the wire
};
typedef dhcp_ip_souce_client_s dhcp_ip_souce_client_t;

// Empties the table (entries freed, no rules sent).
void dhcp_ipsg_init();

// One IP source rule to the forwarding plane (action 0 install, 1 withdraw);
// ip_addr as stored. 0, a channel failure code, or the plane's result.
int hal_dhcp_ip_source_rule(std::uint32_t ifindex, const std::uint8_t mac[6], std::uint16_t vid,
                            std::uint32_t ip_addr, std::uint32_t action);
int hal_dhcp_ip_source_rule_slot(std::uint32_t ifindex, const std::uint8_t mac[6], std::uint16_t vid,
                                 std::uint32_t ip_addr, std::uint32_t action, std::uint32_t slot_id);

// The VLAN switch; the plane's answer is not checked and existing entries
// stay as they are. 0, or TAVO_MEMORY / TAVO_ERR when the record is missing
// and cannot be made.
int dhcp_vlan_ipverify_set(uvlan_entry_t *vlan, int mode);
int dhcp_vlan_ipverify_check(uvlan_entry_t *vlan);

// Adds or refreshes the entry of (vid, mac) and installs its rule; null when
// it cannot be made (no memory, table full).
dhcp_ip_souce_client_t *dhcp_ipSource_add_client(std::uint32_t bind_type, const std::uint8_t mac[6],
                                                 std::uint16_t vid, std::uint32_t ip_addr);
// For the layer-3 relay: adds (bind type 1) when the VLAN's guard is on.
// 0, or TAVO_ERR for an unknown VLAN or a failed add.
int dhcp_ipsg_add_dynamic_client_info(std::uint16_t vid, const std::uint8_t mac[6], std::uint32_t ip_addr);
// Withdraws the rule and removes the entry; TAVO_ERR when there is none.
int dhcp_ipSource_delete_client(const std::uint8_t mac[6], std::uint16_t vid);
// Every entry of that MAC, in any VLAN.
int dhcp_ipSource_delete_client_by_mac(const std::uint8_t mac[6]);
// Restores a saved entry without sending a rule.
dhcp_ip_souce_client_t *dhcp_ipSource_recovery_client(std::uint32_t bind_type, const std::uint8_t mac[6],
                                                      std::uint16_t vid, std::uint32_t ip_addr);
// Overwrites bind type and address of the entry of (vid, mac); 0 or TAVO_NOT_FOUND.
int dhcp_update_ip_source_client_lease_info(std::uint32_t bind_type, const std::uint8_t mac[6], std::uint16_t vid,
                                            std::uint32_t ip_addr);
std::uint32_t dhcp_ipSource_client_info_count();

int dhcp_ip_source_sync_agent_add_client(const dhcp_ip_souce_client_t *entry);
int dhcp_ip_source_sync_agent_delete_client(const dhcp_ip_souce_client_t *entry);

// Lookup and table-order walk (VLAN, then MAC as memcmp orders it).
dhcp_ip_souce_client_t *dhcp_ipSource_client_lookup(const std::uint8_t mac[6], std::uint16_t vid);
dhcp_ip_souce_client_t *dhcp_ipSource_client_first();
dhcp_ip_souce_client_t *dhcp_ipSource_client_next(const dhcp_ip_souce_client_t *entry);

// "show ip source binding": zero mac/vid/ifindex match everything.
void dhcp_cli_show_ipSource_binding_info(struct vty *vty, const std::uint8_t *mac, std::uint16_t vid,
                                         std::uint32_t ifindex, int detail);
