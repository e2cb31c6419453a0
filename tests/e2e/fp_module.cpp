// A module on the forwarding-plane channel for the end-to-end tests: registers
// through the daemon's own channel code, sends one IP source-guard request and
// prints the plane's result.
//
//   fp_module SOCKET switch VID on|off
//   fp_module SOCKET rule VID IFINDEX MAC IPV4 add|del
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lib/thread.h"
#include "platform/hal.h"
#include "platform/hal_msg.h"

namespace {

constexpr std::uint16_t MSG_IP_SOURCE = 329;

int usage()
{
    std::fprintf(stderr, "usage: fp_module SOCKET switch VID on|off\n"
                         "       fp_module SOCKET rule VID IFINDEX MAC IPV4 add|del\n");
    return 2;
}

bool parse_mac(const char *s, std::uint8_t mac[6])
{
    unsigned v[6];
    char end;
    if (std::sscanf(s, "%x:%x:%x:%x:%x:%x%c", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &end) != 6)
        return false;
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<std::uint8_t>(v[i]);
    return true;
}

std::uint32_t hal_ignore(int, std::uint8_t *, std::uint32_t) { return 0; }

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 5) return usage();
    std::string what = argv[2], last = argv[argc - 1];
    std::uint32_t ifindex = 0xffffffffu, ip = 0;
    std::uint8_t mac[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    auto vid = static_cast<std::uint16_t>(std::strtoul(argv[3], nullptr, 0));
    bool ok = (what == "switch" && argc == 5 && (last == "on" || last == "off")) ||
              (what == "rule" && argc == 8 && (last == "add" || last == "del"));
    if (!ok) return usage();
    if (what == "rule") {
        ifindex = static_cast<std::uint32_t>(std::strtoul(argv[4], nullptr, 0));
        in_addr a{};
        if (!parse_mac(argv[5], mac) || inet_pton(AF_INET, argv[6], &a) != 1) return usage();
        ip = a.s_addr;  // network order, as on the wire
    }
    std::uint32_t action = (last == "on" || last == "add") ? 0 : 1;

    hal_set_path(argv[1]);
    hal_init(HAL_DHCP, thread_master_create("fp_module"), hal_ignore);
    if (!hal_is_connected()) {
        std::fprintf(stderr, "fp_module: %s not reachable\n", argv[1]);
        return 1;
    }
    std::uint8_t msg[HAL_MSG_HDR_LEN + 20] = {};
    hal_msg_hdr_encode(bytes_span(msg), {sizeof msg, MSG_IP_SOURCE, HAL_MSG_FLAG_REQUEST, 0, 0});
    wire_writer w(bytes_span(msg), HAL_MSG_HDR_LEN);
    w.host(ifindex);
    w.host(vid);
    w.put(mac, 6);
    w.host(ip);
    w.host(action);
    int result = hal_send_request(msg, sizeof msg);
    std::printf("result=%d\n", result);
    hal_close();
    return result == 0 ? 0 : 1;
}
