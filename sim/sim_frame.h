// Frames as the switch sees them: tag parsing, VLAN classification at
// ingress (ports and ONU service ports), tagging at egress, and the few
// layer-3/4 facts the trap and the source guard need. No I/O here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/wire.h"
#include "sim/sim_model.h"

enum {
    SIM_ETH_HLEN = 14,
    SIM_TAG_LEN = 4,
    SIM_MAX_TAGS = 2,          // QinQ at most; a frame with more tags is malformed here
    SIM_FRAME_MAX = 1600,      // tags included; what the channel can carry
    SIM_FRAME_BUF = SIM_FRAME_MAX + 2 * SIM_TAG_LEN,
    SIM_TPID_8021Q = 0x8100,
    SIM_TPID_8021AD = 0x88a8,
    SIM_TPID_9100 = 0x9100,
    SIM_ETH_IPV4 = 0x0800,
    SIM_ETH_IPV6 = 0x86dd,
};

struct eth_tag {
    std::uint16_t tpid;
    std::uint16_t tci;
    std::uint16_t vid() const { return tci & 0x0fff; }
};

enum frame_status {
    FRAME_OK = 0,
    FRAME_SHORT,       // shorter than an Ethernet header, or a tag cut off
    FRAME_TOO_MANY_TAGS,
    FRAME_TOO_BIG,
};

enum dhcp_kind { DHCP_NONE = 0, DHCP_V4 = 4, DHCP_V6 = 6 };

struct frame_info {
    std::uint8_t dst[6];
    std::uint8_t src[6];
    int ntags;
    eth_tag tags[SIM_MAX_TAGS];  // outermost first
    std::uint16_t ethertype;     // after the tags
    std::size_t l3_off;
    // Layer 3/4, when the frame holds them whole enough to read.
    bool ipv4;
    bool ipv6;
    std::uint8_t ip_proto;       // IPv4 protocol / IPv6 next header
    std::uint32_t ipv4_src;      // as the bytes read big-endian
    bool udp;
    std::uint16_t sport, dport;
    dhcp_kind dhcp;
};

frame_status sim_frame_parse(bytes_view f, frame_info &fi);

bool sim_mac_is_group(const std::uint8_t mac[6]);
bool sim_mac_is_zero(const std::uint8_t mac[6]);

// A frame being switched: bytes in a fixed buffer with room to add a tag.
struct frame_buf {
    std::uint8_t data[SIM_FRAME_BUF];
    std::size_t len = 0;
    bytes_view view() const { return bytes_view(data, len); }
    bool assign(bytes_view b);
};

// Removes the outermost tag (a no-op on an untagged frame). False if the
// frame is too short to hold one.
bool sim_frame_pop_tag(frame_buf &f);
// Inserts an 802.1Q tag after the source MAC. False when there is no room.
bool sim_frame_push_tag(frame_buf &f, std::uint16_t tpid, std::uint16_t tci);
// Removes every VLAN tag (0x8100, 0x88a8, 0x9100) the frame starts with.
void sim_frame_strip_tags(frame_buf &f);

// Fills in the TCP, UDP or ICMP checksum of an IPv4/IPv6 frame whose sender
// left it to offload (veth does): the frame must carry a valid one onward.
// False (frame untouched) for anything else or an inconsistent length.
bool sim_frame_fill_l4_checksum(bytes_span f);

// Ingress classification.
enum classify_result {
    CLASSIFY_OK = 0,
    CLASSIFY_NO_VLAN,      // untagged without a port VLAN id, or tag not a member
    CLASSIFY_NO_SERVPORT,  // ONU frame whose user VLAN has no service port
};

struct classification {
    std::uint16_t vid;               // VLAN the frame is switched in
    bool pop_outer;                  // the outer tag is the classifying one: remove it
    const sim_servport *servport;    // ONU flows
};

// An uplink (or access Ethernet) port with this VLAN membership. A tag with
// VLAN 0 (priority tag) counts as untagged.
classify_result sim_classify_port(const sim_port &owner, const frame_info &fi, classification &c);
// A frame from an ONU's subscriber side: its user VLAN (the outer tag, or
// the untagged service port) picks the service port, whose VLAN it joins.
classify_result sim_classify_onu(const sim_model &m, std::uint32_t onu, const frame_info &fi,
                                 classification &c);

// Egress: the tag an untagged frame switched in vid gets on this port.
// Returns false when the port is not a member of vid; *tag_vid is 0 for untagged.
bool sim_egress_port(const sim_model &m, const sim_port &p, std::uint16_t vid, std::uint16_t &tag_vid);
// For an ONU: the service port for vid decides; its user VLAN as tag, or none.
bool sim_egress_onu(const sim_model &m, const sim_port &onu, std::uint16_t vid, std::uint16_t &tag_vid);
