// What bench_l2path and bench_intake share: a box with an uplink and PON
// ports full of ONUs, snooping configured the way an operator would (one
// subscriber VLAN, the uplink trusted, option 82 with a circuit-id profile),
// clients spread over the ONUs, and the packet messages of their exchanges as
// the forwarding plane traps them (DISCOVER and REQUEST from an ONU's service
// port, the server's ACK from the uplink).
//
// One template message per kind is built once; a message for a client is the
// template copied and patched at fixed offsets (MACs, xid, addresses, receive
// port), so that a run of hundreds of thousands of frames costs no memory.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_stats.h"
#include "platform/hal_msg.h"
#include "platform/st_packet.h"

namespace bench_l2 {

constexpr std::uint16_t VID = 100;
constexpr std::uint32_t SERVER_IP = 0x0a000001;  // 10.0.0.1
const std::uint8_t SERVER_MAC[6] = {0x02, 0x5e, 0x00, 0x00, 0x00, 0x01};

// Offsets in a packet message: the frame (tagged once, as a CPU port hands
// it over) starts behind the channel header and the packet record.
constexpr std::size_t HDR = HAL_MSG_HDR_LEN;
constexpr std::size_t FRAME = HDR + std::size_t(HAL_PKT_OFF_DATA);
constexpr std::size_t ETH_SRC = FRAME + 6;
constexpr std::size_t BOOTP = FRAME + 18 + 20 + 8;
constexpr std::size_t OPTS = BOOTP + std::size_t(DHCP_OFF_OPTIONS);
constexpr std::size_t BOOTP_MIN = 300;

enum kind { DISCOVER, REQUEST, ACK, KINDS };

struct box {
    uif_t *uplink = nullptr;
    std::vector<uif_t *> onus;
    std::vector<std::uint32_t> onu_index;  // their ifindexes, for threads that must not touch uif_t
    std::vector<std::uint32_t> servports;  // one service port per ONU
};

struct client {
    std::uint8_t mac[6];
    std::uint32_t onu;   // index into box::onus
    std::uint32_t addr;  // host order
};

// The tables start-up creates, empty.
inline void init_tables()
{
    uif_init();
    uvlan_init();
    dhcp_snoop_init();
    dhcp_ipsg_init();
    dhcp_pkt_statistic_init();
}

inline uif_t *add_port(std::uint32_t ifindex)
{
    uif_t *p = uif_get_or_create(ifindex, true);
    char name[32];
    st_get_ifname_by_ifindex(ifindex, name, sizeof name);
    uif_set_name(p, name);
    p->status = 1;
    dhcp_port_init(p);
    return p;
}

// ge1/1/1 and `pons` PON ports of `per_pon` ONUs each, all on slot 1.
inline box make_box(int pons, int per_pon)
{
    box b;
    b.uplink = add_port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0));
    for (int pon = 1; pon <= pons; ++pon) {
        add_port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, 1, 0, pon, 0));
        for (int onu = 1; onu <= per_pon; ++onu) {
            uif_t *p = add_port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, pon, onu));
            std::snprintf(p->onu_sn, sizeof p->onu_sn, "BNCH%04X%04X", pon, onu);
            b.onus.push_back(p);
            b.onu_index.push_back(p->ifindex);
            b.servports.push_back(
                st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, std::uint32_t(b.servports.size() + 1)));
        }
    }
    return b;
}

// Global snooping, the VLAN snooped with option 82 whose circuit-id comes
// from a profile ("<access-node-id> <slot>/<port>:<onu>.<uvlan>"), the uplink
// trusted, the client's own option 82 replaced. 0 or the first failure.
inline int configure_snooping(const box &b)
{
    if (uvlan_create(VID) != 0 || dhcp_vlan_init(VID) != 0) return -1;
    uvlan_entry_t *vlan = vlan_get_entry(VID);
    dhcp_snoop_enable_set(1);
    dhcp_op82_enable(1);
    dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_REPLACE);
    int id = dhcp_option_get_free_profile_id();
    int rc = dhcp_option_initial_profile(id, "BENCH");
    struct { DHCP_OPTION_TAG_TYPE type; const char *text; DHCP_OPTION_VAR_TYPE var; } tags[] = {
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_ACCESS_NODE_ID},
        {DHCP_OPTION_TAG_DELIMITER, " ", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_SLOT},
        {DHCP_OPTION_TAG_DELIMITER, "/", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_PORT},
        {DHCP_OPTION_TAG_DELIMITER, ":", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_ONU},
        {DHCP_OPTION_TAG_DELIMITER, ".", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_UVLAN},
    };
    std::uint32_t index = 1;
    for (const auto &t : tags)
        if (rc == 0) rc = dhcp_option_profile_add_info(id, index++, t.type, t.text, t.var);
    if (rc == 0) rc = dhcp_vlan_snoop_set(vlan, 1);
    if (rc == 0) rc = dhcp_vlan_op82_set(vlan, 1);
    if (rc == 0) rc = dhcp_vlan_op82_circuitid_set(vlan, DHCP_OPTION_PROFILE, "BENCH");
    if (rc == 0) rc = dhcp_port_trust_set(b.uplink, 1);
    return rc;
}

// n clients with distinct, random-looking, locally administered MACs, spread
// round-robin over the ONUs.
inline std::vector<client> make_clients(std::size_t n, std::size_t onus)
{
    std::vector<client> out(n);
    for (std::size_t i = 0; i < n; ++i) {
        // An odd multiplier is a bijection on 32 bits: every MAC is distinct.
        std::uint32_t h = std::uint32_t(i) * 0x9e3779b1u;
        std::uint8_t mac[6] = {0x02, 0xbc, std::uint8_t(h >> 24), std::uint8_t(h >> 16), std::uint8_t(h >> 8),
                               std::uint8_t(h)};
        std::memcpy(out[i].mac, mac, 6);
        out[i].onu = std::uint32_t(i % onus);
        out[i].addr = 0x0a000000u + 2 + std::uint32_t(i);  // 10.0.0.2 ...
    }
    return out;
}

// Per kind: the template message and where its client-specific fields are.
struct traffic {
    std::array<std::vector<std::uint8_t>, KINDS> tmpl;
    std::array<std::size_t, KINDS> opt61{}, opt50{};  // value offsets, 0 when absent

    traffic()
    {
        for (int k = 0; k < KINDS; ++k) build(kind(k));
    }

    // Writes the message of `k` for client c (exchange xid) into msg, which
    // holds HAL_PKT_MSG_LEN bytes.
    void fill(bytes_span msg, kind k, const client &c, std::uint32_t xid, const box &b) const
    {
        std::memcpy(msg.data(), tmpl[k].data(), HAL_PKT_MSG_LEN);
        put_be32_at(msg, BOOTP + std::size_t(DHCP_OFF_XID), xid);
        wire_writer(msg, BOOTP + std::size_t(DHCP_OFF_CHADDR)).put(c.mac, 6);
        if (k == ACK) {
            put_be32_at(msg, BOOTP + std::size_t(DHCP_OFF_YIADDR), c.addr);
            return;  // received on the uplink, as the template says
        }
        wire_writer(msg, ETH_SRC).put(c.mac, 6);
        wire_writer(msg, opt61[k] + 1).put(c.mac, 6);
        if (opt50[k]) put_be32_at(msg, opt50[k], c.addr);
        std::uint32_t rx = b.onu_index[c.onu];
        wire_writer(msg, HDR + HAL_PKT_OFF_IFINDEX).host(rx);
        wire_writer(msg, HDR + HAL_PKT_OFF_FWD_IFINDEX).host(rx);
        wire_writer(msg, HDR + HAL_PKT_OFF_FWD_SRV_IF).host(b.servports[c.onu]);
    }

private:
    void build(kind k)
    {
        bool reply = k == ACK;
        std::vector<std::uint8_t> opts;
        // Byte by byte: gcc 12 -O2 takes vector::insert of a list here for an overflow.
        auto opt = [&](std::initializer_list<std::uint8_t> bytes) {
            for (std::uint8_t x : bytes) opts.push_back(x);
        };
        auto ip_opt = [&](std::uint8_t code, std::uint32_t v) {
            opt({code, 4, std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)});
        };
        opt({DHCP_MESSAGE_TYPE, 1, std::uint8_t(k == DISCOVER ? DHCPDISCOVER : k == REQUEST ? DHCPREQUEST : DHCPACK)});
        if (reply) {
            ip_opt(54, SERVER_IP);
            ip_opt(51, 3600);
            ip_opt(58, 1800);
            ip_opt(59, 3150);
            ip_opt(1, 0xffff0000u);
            ip_opt(3, SERVER_IP);
            ip_opt(6, SERVER_IP);
        } else {
            opt61[k] = OPTS + opts.size() + 2;
            opt({61, 7, 1, 0, 0, 0, 0, 0, 0});  // client id: type 1 and the MAC
            if (k == REQUEST) {
                opt50[k] = OPTS + opts.size() + 2;
                ip_opt(50, 0);
                ip_opt(54, SERVER_IP);
            }
            opt({57, 2, 0x05, 0xdc});                                       // max message size
            opt({60, 12, 'u', 'd', 'h', 'c', 'p', ' ', '1', '.', '3', '5', '.', '0'});  // vendor class
            opt({12, 6, 'c', 'p', 'e', '-', 'g', 'w'});                       // host name
            opt({55, 9, 1, 3, 6, 12, 15, 28, 42, 51, 54});                  // parameter request list
        }
        opt({DHCP_END});

        std::vector<std::uint8_t> bootp(std::max<std::size_t>(DHCP_OFF_OPTIONS + opts.size(), BOOTP_MIN), 0);
        bootp[DHCP_OFF_OP] = reply ? BOOTREPLY : BOOTREQUEST;
        bootp[DHCP_OFF_HTYPE] = 1;
        bootp[DHCP_OFF_HLEN] = 6;
        put_be16_at(bootp, DHCP_OFF_FLAGS, DHCP_BROADCAST_FLAG);
        if (reply) put_be32_at(bootp, DHCP_OFF_SIADDR, SERVER_IP);
        put_be32_at(bootp, DHCP_OFF_COOKIE, DHCP_MAGIC);
        std::memcpy(&bootp[DHCP_OFF_OPTIONS], opts.data(), opts.size());

        std::vector<std::uint8_t> f(18 + 20 + 8, 0);
        std::memset(f.data(), 0xff, 6);  // broadcast, as clients and servers with the flag send it
        std::memcpy(&f[6], SERVER_MAC, 6);  // a client's own MAC is patched in
        put_be16_at(f, 12, 0x8100);
        put_be16_at(f, 14, VID);
        put_be16_at(f, 16, 0x0800);
        f[18] = 0x45;
        put_be16_at(f, 18 + 2, std::uint16_t(28 + bootp.size()));
        f[18 + 8] = 64;
        f[18 + 9] = 17;
        if (reply) put_be32_at(f, 18 + 12, SERVER_IP);
        put_be32_at(f, 18 + 16, 0xffffffffu);
        put_be16_at(f, 18 + 10, inet_cksum(bytes_view(f).subspan(18, 20)));
        put_be16_at(f, 38, reply ? 67 : 68);
        put_be16_at(f, 38 + 2, reply ? 68 : 67);
        put_be16_at(f, 38 + 4, std::uint16_t(8 + bootp.size()));  // checksum 0: none
        for (std::uint8_t x : bootp) f.push_back(x);

        hal_msg_pkt_t p{};
        p.fwd_info.vid = VID;
        if (!reply) {
            p.fwd_info.srv_info.lltag = VID;
            p.fwd_info.srv_info.uservlan = VID;
            p.fwd_info.srv_info.vlan_action = 1;  // translate
        }
        p.len = std::uint16_t(f.size());
        p.data = f.data();
        tmpl[k].assign(HAL_PKT_MSG_LEN, 0);
        hal_msg_pkt_build(tmpl[k], p, 0, 0, 0);
    }
};

// The ACK's receive port is the uplink: set once in the template.
inline void set_uplink(traffic &t, const box &b)
{
    std::uint32_t up = b.uplink->ifindex;
    wire_writer(bytes_span(t.tmpl[ACK]), HDR + HAL_PKT_OFF_IFINDEX).host(up);
    wire_writer(bytes_span(t.tmpl[ACK]), HDR + HAL_PKT_OFF_FWD_IFINDEX).host(up);
}

// The order of a run: exchange e is client order[e % n] doing DISCOVER,
// REQUEST and ACK with a fresh xid, one frame per step.
struct mix {
    const std::vector<client> *clients;
    std::vector<std::uint32_t> order;
    std::uint32_t xid_base;
    void frame(std::uint64_t i, kind &k, const client *&c, std::uint32_t &xid) const
    {
        std::uint64_t e = i / KINDS;
        k = kind(i % KINDS);
        c = &(*clients)[order[e % order.size()]];
        xid = xid_base + std::uint32_t(e);
    }
};

}  // namespace bench_l2
