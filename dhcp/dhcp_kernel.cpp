#include "dhcp/dhcp_kernel.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dhcp/dhcp.h"
#include "dhcp/dhcp_debug.h"
#include "platform/st_packet.h"

namespace {

enum { IP_HDR = 20, UDP_HDR = 8, IP_UDP_DHCP_MAX = 576 };

// Bytes of the message up to and including the end option (the build limit
// caps the option area); the fixed header alone when no end option is found.
int dhcp_msg_wire_len(const dhcp_packet *p)
{
    int end = dhcp_end_option(bytes_view(p->raw + DHCP_OFF_OPTIONS, DHCP_OPTIONS_BUILD_MAX));
    if (end < 0) end = DHCP_OPTIONS_BUILD_MAX - 1;
    return DHCP_FIXED_HDR_LEN + end + 1;
}

}  // namespace

int dhcp_send_raw_packet(const dhcp_packet *dhcp_pkt, std::uint32_t source_nip, int source_port,
                         std::uint32_t dest_nip, int dest_port, const std::uint8_t *dest_arp, int ifindex)
{
    int fd = socket(PF_PACKET, SOCK_DGRAM, htons(ETH_P_IP));
    if (fd < 0) {
        zlog_err("socket(%s)", " PACKET");
        return -1;
    }
    sockaddr_ll dest{};
    dest.sll_family = AF_PACKET;
    dest.sll_protocol = htons(ETH_P_IP);
    dest.sll_ifindex = ifindex;
    dest.sll_halen = 6;
    std::memcpy(dest.sll_addr, dest_arp, 6);
    if (bind(fd, reinterpret_cast<sockaddr *>(&dest), sizeof dest) < 0) {
        zlog_err("bind(%s)", " PACKET");
        close(fd);
        return -1;
    }

    int msg_len = dhcp_msg_wire_len(dhcp_pkt);
    int total = IP_HDR + UDP_HDR + msg_len;
    std::uint8_t pkt[IP_UDP_DHCP_MAX] = {};
    bytes_span b(pkt, sizeof pkt);
    std::memcpy(pkt + IP_HDR + UDP_HDR, dhcp_pkt->raw, std::size_t(msg_len));
    put_be16_at(b, IP_HDR + 0, std::uint16_t(source_port));
    put_be16_at(b, IP_HDR + 2, std::uint16_t(dest_port));
    put_be16_at(b, IP_HDR + 4, std::uint16_t(UDP_HDR + msg_len));

    // UDP checksum over the pseudo header and the datagram.
    std::uint8_t pseudo[12] = {};
    wire_writer(bytes_span(pseudo, 4)).host(source_nip);
    wire_writer(bytes_span(pseudo + 4, 4)).host(dest_nip);
    pseudo[9] = 17;
    put_be16_at(bytes_span(pseudo, sizeof pseudo), 10, std::uint16_t(UDP_HDR + msg_len));
    std::uint32_t sum = inet_cksum_add(bytes_view(pseudo, sizeof pseudo), 0);
    std::uint16_t csum = inet_cksum_fold(inet_cksum_add(bytes_view(pkt + IP_HDR, std::size_t(UDP_HDR + msg_len)), sum));
    put_be16_at(b, IP_HDR + 6, csum ? csum : 0xffff);

    pkt[0] = 0x45;
    put_be16_at(b, 2, std::uint16_t(total));
    pkt[8] = 64;
    pkt[9] = 17;
    wire_writer(b, 12).host(source_nip);
    wire_writer(b, 16).host(dest_nip);
    put_be16_at(b, 10, inet_cksum(bytes_view(pkt, IP_HDR)));

    DHCP_PKT_DEBUG("[PKT]%s %d: %#x %d %#x %d %02x%02x-%02x%02x-%02x%02x  %d", __func__, __LINE__, ntohl(source_nip),
                   source_port, ntohl(dest_nip), dest_port, dest_arp[0], dest_arp[1], dest_arp[2], dest_arp[3],
                   dest_arp[4], dest_arp[5], ifindex);
    ssize_t n = sendto(fd, pkt, std::size_t(total), 0, reinterpret_cast<sockaddr *>(&dest), sizeof dest);
    close(fd);
    if (n < 0) {
        zlog_err("sendto%s", " PACKET");
        return -1;
    }
    return int(n);
}

int dhcp_send_kernel_packet(const dhcp_packet *dhcp_pkt, std::uint32_t source_nip, int source_port,
                            std::uint32_t dest_nip, int dest_port)
{
    int fd = socket(PF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) {
        zlog_err("socket(%s)", "UDP");
        return -1;
    }
    setsockopt_reuseaddr(fd);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(std::uint16_t(source_port));
    a.sin_addr.s_addr = source_nip;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0) {
        zlog_err("bind(%s)", "UDP");
        close(fd);
        return -1;
    }
    a.sin_port = htons(std::uint16_t(dest_port));
    a.sin_addr.s_addr = dest_nip;
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0) {
        zlog_err("connect %s", "UDP");
        close(fd);
        return -1;
    }
    ssize_t n = dhcp_safe_write(fd, dhcp_pkt->raw, std::size_t(dhcp_msg_wire_len(dhcp_pkt)));
    close(fd);
    if (n < 0) {
        zlog_err("write %s", "UDP");
        return -1;
    }
    return int(n);
}

int dhcp_recv_kernel_packet(dhcp_packet *packet, int fd)
{
    std::memset(packet->raw, 0, sizeof packet->raw);
    ssize_t n = dhcp_safe_read(fd, packet->raw, sizeof packet->raw);
    if (n < 0) {
        zlog_err("Packet read error on fd %d return %d, ignoring", fd, int(n));
        return -1;
    }
    if (n <= DHCP_OFF_COOKIE + 3) return -2;
    std::uint32_t cookie = 0;
    be32_at(bytes_view(packet->raw, sizeof packet->raw), DHCP_OFF_COOKIE, cookie);
    if (cookie != DHCP_MAGIC) {
        zlog_err("Packet with bad magic 0x%08x, ignoring", cookie);
        return -3;
    }
    return int(n);
}

int dhcpv6_recv_kernel_packet(std::uint8_t *packet, int fd)
{
    std::memset(packet, 0, DHCPV6_RECV_MAX);
    ssize_t n = dhcp_safe_read(fd, packet, DHCPV6_RECV_MAX);
    if (n >= 0 && DHCP_DEBUG_ON(DHCP_DEBUG_PACKET)) st_hex_dump_packet("[PKT]", bytes_view(packet, std::size_t(n)));
    if (n < 4) {
        zlog_err("Packet length %d too small %d, ignoring", int(n), 4);
        return -2;
    }
    return int(n);
}
