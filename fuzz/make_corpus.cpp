// Writes the seed messages of fuzz_intake into a directory, one file per
// scenario: whole forwarding-plane messages as the plane delivers them.
//
//   make_corpus fuzz/corpus
//
// The low byte of nlmsg_pid steers the fuzz run (see fuzz_intake.cpp):
// bit 0 debugging on, bit 1 also through the deferred queue.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "devlib/ifindex.h"
#include "dhcp/dhcp_opt.h"
#include "platform/hal_msg.h"
#include "platform/st_packet.h"

namespace {

using bytes = std::vector<std::uint8_t>;

enum : std::uint32_t { CTL_DEBUG = 1, CTL_QUEUE = 2 };

void append(bytes &b, std::initializer_list<std::uint8_t> v) { b.insert(b.end(), v); }
void append(bytes &b, const bytes &v) { b.insert(b.end(), v.begin(), v.end()); }
void append_text(bytes &b, const char *s)
{
    for (; *s; ++s) b.push_back(static_cast<std::uint8_t>(*s));
}
// A TLV option with a text value.
void option_text(bytes &b, std::uint8_t code, const char *s)
{
    bytes v;
    append_text(v, s);
    b.push_back(code);
    b.push_back(static_cast<std::uint8_t>(v.size()));
    append(b, v);
}
void put16(bytes &b, std::size_t off, std::uint16_t v) { put_be16_at(b, off, v); }

// The 236-byte BOOTP header of a client message.
bytes bootp_request(std::uint32_t xid, const std::uint8_t mac[6], std::uint32_t ciaddr)
{
    bytes b(DHCP_OFF_COOKIE, 0);
    b[DHCP_OFF_OP] = BOOTREQUEST;
    b[DHCP_OFF_HTYPE] = 1;  // Ethernet
    b[DHCP_OFF_HLEN] = 6;
    put_be32_at(b, DHCP_OFF_XID, xid);
    put16(b, DHCP_OFF_FLAGS, DHCP_BROADCAST_FLAG);
    put_be32_at(b, DHCP_OFF_CIADDR, ciaddr);
    for (int i = 0; i < 6; ++i) b[DHCP_OFF_CHADDR + i] = mac[i];
    return b;
}

// IPv4 + UDP around a DHCP message; lengths and the header checksum filled in.
bytes ipv4_udp(std::uint32_t src, std::uint32_t dst, std::uint16_t sport, std::uint16_t dport, const bytes &msg)
{
    bytes b;
    append(b, {
        0x45, 0x10,              // version 4, IHL 5; TOS
        0x00, 0x00,              // total length (below)
        0x00, 0x00, 0x00, 0x00,  // id, flags, fragment offset
        0x40, 0x11,              // TTL 64, protocol UDP
        0x00, 0x00,              // header checksum (below)
    });
    b.resize(20);
    put_be32_at(b, 12, src);
    put_be32_at(b, 16, dst);
    append(b, {
        0x00, 0x00,  // source port (below)
        0x00, 0x00,  // destination port (below)
        0x00, 0x00,  // UDP length (below)
        0x00, 0x00,  // UDP checksum: none
    });
    put16(b, 20, sport);
    put16(b, 22, dport);
    put16(b, 24, static_cast<std::uint16_t>(8 + msg.size()));
    put16(b, 2, static_cast<std::uint16_t>(28 + msg.size()));
    put16(b, 10, inet_cksum(bytes_view(b.data(), 20)));
    append(b, msg);
    return b;
}

// IPv6 + UDP around a DHCPv6 message (the UDP checksum is left 0).
bytes ipv6_udp(const bytes &src, const bytes &dst, std::uint16_t sport, std::uint16_t dport, const bytes &msg)
{
    bytes b;
    append(b, {
        0x60, 0x00, 0x00, 0x00,  // version 6, traffic class, flow label
        0x00, 0x00,              // payload length (below)
        0x11, 0x01,              // next header UDP, hop limit 1
    });
    append(b, src);
    append(b, dst);
    append(b, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});  // UDP header (below)
    put16(b, 4, static_cast<std::uint16_t>(8 + msg.size()));
    put16(b, 40, sport);
    put16(b, 42, dport);
    put16(b, 44, static_cast<std::uint16_t>(8 + msg.size()));
    append(b, msg);
    return b;
}

bytes ethernet(const std::uint8_t dst[6], const std::uint8_t src[6], int vid, std::uint16_t type, const bytes &l3)
{
    bytes b(dst, dst + 6);
    b.insert(b.end(), src, src + 6);
    if (vid >= 0) {
        append(b, {0x81, 0x00});                                      // 802.1Q
        append(b, {std::uint8_t(vid >> 8 & 0x0f), std::uint8_t(vid)});  // priority 0, VLAN id
    }
    append(b, {std::uint8_t(type >> 8), std::uint8_t(type)});
    append(b, l3);
    return b;
}

struct delivery {
    std::uint32_t ifindex;
    std::uint16_t vid;
    std::uint32_t srv_if = 0;
    std::uint16_t lltag = 0, uservlan = 0;
};

bytes channel_message(const delivery &d, const bytes &frame, std::uint32_t ctl, std::size_t tail = 0)
{
    hal_msg_pkt_t p{};
    p.ifindex = d.ifindex;
    p.fwd_info.vid = d.vid;
    p.fwd_info.srv_if = d.srv_if;
    p.fwd_info.srv_info.lltag = d.lltag;
    p.fwd_info.srv_info.uservlan = d.uservlan;
    p.len = static_cast<std::uint16_t>(frame.size());
    p.data = frame.data();
    bytes msg(HAL_PKT_MSG_LEN);
    if (!hal_msg_pkt_build(msg, p, 0, 0, ctl)) return {};
    if (tail) {
        // Bytes past the fixed layout, counted in nlmsg_len.
        msg.resize(msg.size() + tail, 0xa5);
        hal_msg_hdr_t h{static_cast<std::uint32_t>(msg.size()), HAL_MSG_TYPE_PKT, 0, 0, ctl};
        hal_msg_hdr_encode(msg, h);
    }
    return msg;
}

bool write_file(const std::string &dir, const char *name, const bytes &b)
{
    std::string path = dir + "/" + name;
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = !b.empty() && std::fwrite(b.data(), 1, b.size(), f) == b.size();
    return std::fclose(f) == 0 && ok;
}

const std::uint8_t BCAST[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
const std::uint8_t SERVER_MAC[6] = {0x00, 0x0e, 0xc6, 0x10, 0x00, 0x01};
const std::uint8_t CLIENT1[6] = {0x00, 0x0e, 0xc6, 0x00, 0x00, 0x01};
const std::uint8_t CLIENT2[6] = {0x00, 0x0e, 0xc6, 0x00, 0x00, 0x02};  // the fuzzer's monitored client
const std::uint8_t CLIENT3[6] = {0x00, 0x0e, 0xc6, 0x00, 0x00, 0x03};
const std::uint8_t CLIENT4[6] = {0x00, 0x0e, 0xc6, 0x00, 0x00, 0x04};
constexpr std::uint32_t SERVER_IP = 0xc0000201;  // 192.0.2.1
constexpr std::uint32_t CLIENT_IP = 0xc000020a;  // 192.0.2.10

// DISCOVER from a subscriber behind a tagged port.
bytes discover_frame()
{
    bytes m = bootp_request(0x3903f326, CLIENT1, 0);
    append(m, {0x63, 0x82, 0x53, 0x63});  // magic cookie
    append(m, {53, 1, 1});                 // message type: DISCOVER
    append(m, {61, 7, 1, 0x00, 0x0e, 0xc6, 0x00, 0x00, 0x01});  // client id: type 1, MAC
    option_text(m, 12, "onu-5-host");      // host name
    option_text(m, 60, "MSFT 5.0");        // vendor class
    append(m, {55, 6, 1, 3, 6, 15, 51, 54});  // parameter request list
    append(m, {57, 2, 0x05, 0xdc});           // maximum message size 1500
    append(m, {255});                         // end
    return ethernet(BCAST, CLIENT1, 100, ST_ETH_P_IPV4, ipv4_udp(0, 0xffffffff, 68, 67, m));
}

// The server's ACK to discover_frame's client, in VLAN 100 from the uplink.
bytes ack_frame()
{
    bytes m = bootp_request(0x3903f326, CLIENT1, 0);
    m[DHCP_OFF_OP] = BOOTREPLY;
    put_be32_at(m, DHCP_OFF_YIADDR, CLIENT_IP);
    append(m, {0x63, 0x82, 0x53, 0x63});        // magic cookie
    append(m, {53, 1, 5});                       // message type: ACK
    append(m, {54, 4, 0xc0, 0x00, 0x02, 0x01});  // server id 192.0.2.1
    append(m, {51, 4, 0x00, 0x00, 0x0e, 0x10});  // lease time 3600
    append(m, {1, 4, 0xff, 0xff, 0xff, 0x00});   // subnet mask
    append(m, {255});                            // end
    return ethernet(BCAST, SERVER_MAC, 100, ST_ETH_P_IPV4, ipv4_udp(SERVER_IP, 0xffffffff, 67, 68, m));
}

// REQUEST whose options continue in file and sname (overload 3).
bytes request_overload_frame()
{
    bytes m = bootp_request(0x5a5a0001, CLIENT2, 0);
    // sname (44..107): vendor class, end
    bytes sname;
    option_text(sname, 60, "vendor-in-sname");
    append(sname, {255});
    std::copy(sname.begin(), sname.end(), m.begin() + DHCP_OFF_SNAME);
    // file (108..235): host name, lease time, end
    bytes file;
    option_text(file, 12, "host-in-file");
    append(file, {51, 4, 0x00, 0x01, 0x51, 0x80});  // lease time 86400
    append(file, {255});
    std::copy(file.begin(), file.end(), m.begin() + DHCP_OFF_FILE);
    append(m, {0x63, 0x82, 0x53, 0x63});        // magic cookie
    append(m, {53, 1, 3});                       // message type: REQUEST
    append(m, {52, 1, 3});                       // overload: file and sname
    append(m, {50, 4, 0xc0, 0x00, 0x02, 0x0a});  // requested address 192.0.2.10
    append(m, {54, 4, 0xc0, 0x00, 0x02, 0x01});  // server id 192.0.2.1
    append(m, {0, 0});                           // padding
    append(m, {255});                            // end
    return ethernet(BCAST, CLIENT2, -1, ST_ETH_P_IPV4, ipv4_udp(0, 0xffffffff, 68, 67, m));
}

// Unicast renewal REQUEST from an ONU flow (service port, GEM VLAN 1001, user VLAN 10).
bytes request_renew_frame()
{
    bytes m = bootp_request(0x0badcafe, CLIENT4, CLIENT_IP);
    put16(m, DHCP_OFF_FLAGS, 0);                 // flags: unicast
    append(m, {0x63, 0x82, 0x53, 0x63});        // magic cookie
    append(m, {53, 1, 3});                       // message type: REQUEST
    append(m, {61, 7, 1, 0x00, 0x0e, 0xc6, 0x00, 0x00, 0x04});  // client id
    option_text(m, 12, "renewing");              // host name
    append(m, {82, 12,                           // relay agent information
               1, 4, 'p', 'o', 'n', '1',         //   circuit id
               2, 4, 0x00, 0x0e, 0xc6, 0x04});   //   remote id
    append(m, {255});                            // end
    return ethernet(SERVER_MAC, CLIENT4, 10, ST_ETH_P_IPV4, ipv4_udp(CLIENT_IP, SERVER_IP, 68, 67, m));
}

// SOLICIT from a subscriber, untagged.
bytes solicit_frame()
{
    bytes m;
    append(m, {1, 0x12, 0x34, 0x56});              // SOLICIT, transaction id
    append(m, {0, 1, 0, 10,                        // client id, 10 bytes
               0, 3, 0, 1,                         //   DUID-LL, Ethernet
               0x00, 0x0e, 0xc6, 0x00, 0x00, 0x03});
    append(m, {0, 8, 0, 2, 0, 0});                 // elapsed time 0
    append(m, {0, 3, 0, 12,                        // IA_NA, 12 bytes
               0, 0, 0, 1,                         //   IAID 1
               0, 0, 0, 0,                         //   T1
               0, 0, 0, 0});                       //   T2
    append(m, {0, 6, 0, 4, 0, 23, 0, 24});         // option request: DNS servers, domain list
    const bytes src = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x0e, 0xc6, 0xff, 0xfe, 0x00, 0x00, 0x03};
    const bytes dst = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x00, 0x02};
    const std::uint8_t mcast[6] = {0x33, 0x33, 0x00, 0x01, 0x00, 0x02};
    return ethernet(mcast, CLIENT3, -1, ST_ETH_P_IPV6, ipv6_udp(src, dst, 546, 547, m));
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    std::string dir = argv[1];
    delivery ge{st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0), 100};
    delivery ge_untagged{ge.ifindex, 200};
    delivery onu{st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 1, 5), 100,
                 st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 7), 1001, 10};

    // The fuzzer's configuration bits (nlmsg_pid from bit 8): snooping global
    // and per VLAN, option 82 with a profile circuit-id, source guard, the
    // uplink trusted.
    constexpr std::uint32_t SNOOPED = (0x7u | 3u << 3 | 1u << 9 | 1u << 10) << 8;
    struct seed {
        const char *name;
        bytes msg;
    } seeds[] = {
        {"discover-vlan", channel_message(ge, discover_frame(), 0)},
        {"discover-vlan-debug", channel_message(ge, discover_frame(), CTL_DEBUG | CTL_QUEUE)},
        {"request-overload", channel_message(ge_untagged, request_overload_frame(), CTL_DEBUG)},
        {"request-renew-onu", channel_message(onu, request_renew_frame(), CTL_DEBUG)},
        {"discover-long-message", channel_message(ge, discover_frame(), CTL_QUEUE, 368)},
        {"solicit-v6", channel_message(ge_untagged, solicit_frame(), 0)},
        {"solicit-v6-debug", channel_message(ge_untagged, solicit_frame(), CTL_DEBUG | CTL_QUEUE)},
        // Snooped: the exchange of one subscriber with option 82 and source guard.
        {"discover-onu-snooped", channel_message(onu, discover_frame(), CTL_DEBUG | SNOOPED)},
        {"ack-uplink-snooped", channel_message(ge, ack_frame(), CTL_DEBUG | SNOOPED)},
        {"request-renew-onu-snooped", channel_message(onu, request_renew_frame(), SNOOPED)},
    };
    for (const seed &s : seeds) {
        if (!write_file(dir, s.name, s.msg)) {
            std::fprintf(stderr, "%s: can't write %s/%s\n", argv[0], dir.c_str(), s.name);
            return 1;
        }
    }
    return 0;
}
