// The software OLT's device model: the box as the topology file describes it
// and as device-manager events change it. Plain records; the device module
// (sim_device) owns the changes and their notifications, the forwarding plane
// reads it.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

enum { SIM_VLAN_MIN = 1, SIM_VLAN_MAX = 4094 };

using vlan_bits = std::bitset<4096>;

enum sim_role { SIM_ROLE_UPLINK = 0, SIM_ROLE_ACCESS = 1 };

// Named VLAN actions of a service port; any other integer is carried as is.
enum sim_vlan_action { SIM_VLAN_ACTION_TRANSPARENT = 0, SIM_VLAN_ACTION_TRANSLATE = 1,
                       SIM_VLAN_ACTION_ADD = 2 };

struct sim_port_counters {
    std::uint64_t rx_frames, rx_bytes, tx_frames, tx_bytes;
    std::uint64_t rx_trapped;     // handed to the module
    std::uint64_t rx_drop_vlan;   // no VLAN or service port for the frame
    std::uint64_t rx_drop_guard;  // IP source guard
    std::uint64_t rx_drop_bad;    // malformed: short, truncated tag, too many tags
    std::uint64_t rx_drop_big;    // longer than a frame may be
    std::uint64_t rx_drop_down;   // port, ONU or interface not forwarding
    std::uint64_t tx_drop;        // nothing to send on (down, not a member, no interface)
    std::uint64_t tx_error;       // the send itself failed
};

// Every interface the device manager announces: physical ports, trunks and
// ONUs (GONU). Removed ports stay here with present=false so they can come back.
struct sim_port {
    std::uint32_t ifindex = 0;
    std::string name;
    int type = 0;                  // PORT_TYPE_*
    std::string linux_if;          // the Linux interface it is wired to, "" none
    bool present = true;
    bool up = true;                // operational status (IF_STATUS)
    bool admin = true;             // administrative status (IF_ADMIN)
    sim_role role = SIM_ROLE_UPLINK;
    std::uint32_t trunk = 0;       // trunk id of a member port, 0 none
    std::vector<std::uint32_t> members;  // trunks: member port ifindexes
    // VLAN membership; a trunk member uses its trunk's.
    std::uint16_t pvid = 0;
    vlan_bits tagged, untagged;
    // ONUs.
    std::uint32_t pon = 0;         // ifindex of the PON port
    int onu_id = 0;
    std::string sn;
    bool online = true;
    sim_port_counters cnt{};
};

// A GPON service port: the flow of one ONU with one user VLAN.
struct sim_servport {
    std::uint32_t id = 0;
    std::uint32_t ifindex = 0;     // PORT_TYPE_GPON_SERVPORT index
    std::uint32_t onu = 0;         // GONU ifindex
    std::uint16_t vlan = 0;        // VLAN the flow is switched in
    std::uint16_t lltag = 0;       // GEM VLAN
    std::uint16_t uservlan = 0;    // subscriber-side VLAN
    bool user_tagged = true;       // false: the subscriber sends it untagged
    std::int32_t action = SIM_VLAN_ACTION_TRANSLATE;
};

// A routed VLAN interface, a tap device in the kernel.
struct sim_vlanif {
    std::uint16_t vid = 0;
    std::string ifname;            // "vlanif<vid>" unless the topology says otherwise
    std::uint8_t mac[6] = {};
    std::string address;           // "a.b.c.d/len" set on the tap, "" none
};

struct sim_model {
    std::uint8_t mac[6] = {};
    std::string hostname = "OLT";
    vlan_bits vlans;
    std::map<std::uint32_t, sim_port> ports;         // by ifindex
    std::map<std::uint32_t, sim_servport> servports; // by service-port id
    std::map<std::uint16_t, sim_vlanif> vlanifs;     // by VLAN id

    sim_port *port(std::uint32_t ifindex);
    const sim_port *port(std::uint32_t ifindex) const;
    sim_port *port_by_name(const std::string &name);
    // The port whose VLAN membership governs p: its trunk for a member.
    const sim_port &vlan_owner(const sim_port &p) const;
    // Whether the (non-ONU) port p belongs to VLAN vid, and with which tagging.
    bool port_in_vlan(const sim_port &p, std::uint16_t vid, bool *tagged = nullptr) const;
    // The ONU's service port for VLAN vid (lowest id), null when none.
    const sim_servport *servport_for_vlan(std::uint32_t onu, std::uint16_t vid) const;
    // Whether a port forwards at all: present, up, admin up; ONUs also online
    // behind a working PON port.
    bool port_forwarding(const sim_port &p) const;
};

bool sim_is_onu(const sim_port &p);
bool sim_is_trunk(const sim_port &p);
bool sim_is_pon(const sim_port &p);

// "1,5,100-110" to a VLAN set; false (with the offending piece in bad) when
// a piece is not a number or range within 1-4094.
bool sim_parse_vlan_list(const std::string &text, vlan_bits &out, std::string &bad);
std::string sim_vlan_list_str(const vlan_bits &v);
// "02:00:5e:00:01:00" or "0200-5e00-0100".
bool sim_parse_mac(const std::string &text, std::uint8_t mac[6]);
std::string sim_mac_str(const std::uint8_t mac[6]);
const char *sim_port_type_str(int type);
