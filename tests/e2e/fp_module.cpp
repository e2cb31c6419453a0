// A module on the forwarding-plane channel for end-to-end tests: registers,
// sends one IP source-guard request (329) and prints the plane's result.
//
//   fp_module SOCKET switch VID on|off
//   fp_module SOCKET rule VID IFINDEX MAC IPV4 add|del
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/hal_msg.h"

namespace {

constexpr std::uint16_t MSG_IP_SOURCE = 329;
constexpr int MODULE = 1027;

int usage()
{
    std::fprintf(stderr, "usage: fp_module SOCKET switch VID on|off\n"
                         "       fp_module SOCKET rule VID IFINDEX MAC IPV4 add|del\n");
    return 2;
}

// One request, one answer carrying a u32 result.
bool exchange(int fd, bytes_view msg, std::uint16_t type, std::uint32_t &result)
{
    if (send(fd, msg.data(), msg.size(), 0) != static_cast<ssize_t>(msg.size())) return false;
    std::uint8_t buf[2048];
    for (int i = 0; i < 100; ++i) {  // trapped frames may arrive first: skip them
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return false;
        hal_msg_hdr_t h{};
        bytes_view got(buf, static_cast<std::size_t>(n));
        if (hal_msg_hdr_decode(got, h) && h.nlmsg_type == type) return hal_msg_u32_decode(got, result);
    }
    return false;
}

bool parse_mac(const char *s, std::uint8_t mac[6])
{
    unsigned v[6];
    if (std::sscanf(s, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6) return false;
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<std::uint8_t>(v[i]);
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 5) return usage();
    std::string what = argv[2];
    std::uint32_t ifindex = 0xffffffffu, ip = 0, action = 0;
    std::uint8_t mac[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    auto vid = static_cast<std::uint16_t>(std::strtoul(argv[3], nullptr, 0));
    if (what == "switch") {
        action = std::string(argv[4]) == "on" ? 0 : 1;
    } else if (what == "rule" && argc == 8) {
        ifindex = static_cast<std::uint32_t>(std::strtoul(argv[4], nullptr, 0));
        in_addr a{};
        if (!parse_mac(argv[5], mac) || inet_pton(AF_INET, argv[6], &a) != 1) return usage();
        ip = a.s_addr;  // as on the wire
        action = std::string(argv[7]) == "add" ? 0 : 1;
    } else {
        return usage();
    }

    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", argv[1]);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        std::perror("connect");
        return 1;
    }
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    std::uint8_t reg[HAL_MSG_REG_LEN];
    std::uint32_t result = 1;
    hal_msg_u32_build(bytes_span(reg), HAL_MSG_TYPE_REGISTER, HAL_MSG_FLAG_REQUEST, 1, MODULE);
    if (!exchange(fd, bytes_view(reg), HAL_MSG_TYPE_REGISTER, result) || result != 0) {
        std::fprintf(stderr, "registration refused\n");
        return 1;
    }

    std::uint8_t msg[HAL_MSG_HDR_LEN + 20] = {};
    hal_msg_hdr_encode(bytes_span(msg), {sizeof msg, MSG_IP_SOURCE, HAL_MSG_FLAG_REQUEST, 2, 0});
    wire_writer w(bytes_span(msg), HAL_MSG_HDR_LEN);
    w.host(ifindex);
    w.host(vid);
    w.put(mac, 6);
    w.host(ip);
    w.host(action);
    if (!exchange(fd, bytes_view(msg), MSG_IP_SOURCE, result)) {
        std::fprintf(stderr, "no answer\n");
        return 1;
    }
    std::printf("result=%u\n", result);
    close(fd);
    return result == 0 ? 0 : 1;
}
