// Traffic ends for the oltsim benchmark (bench/bench_oltsim.sh runs them in
// network namespaces):
//   bench_oltsim send IFNAME COUNT SIZE [dhcp]  blast COUNT broadcast UDP frames
//                                               (dhcp: a DISCOVER, UDP 68->67)
//   bench_oltsim recv IFNAME SECONDS            count the sender's frames
//   bench_oltsim module SOCKPATH SECONDS        a null module: register as 1027,
//                                               count and drop trapped frames
// Counting ends one idle second after the first frame, or at SECONDS; the rate
// is taken from the first to the last frame seen.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "lib/wire.h"
#include "platform/hal_msg.h"
#include "platform/st_packet.h"

namespace {

using bench_clock = std::chrono::steady_clock;
const std::uint8_t SRC[6] = {0x02, 0xbe, 0x4c, 0x00, 0x00, 0x01};
constexpr std::uint32_t MODULE_DHCP = 1027;

std::vector<std::uint8_t> make_frame(std::size_t size, bool dhcp)
{
    std::size_t min = dhcp ? 14 + 28 + 244 : 14 + 28;
    std::vector<std::uint8_t> f(std::min<std::size_t>(std::max(size, min), 1514), 0);
    bytes_span b(f);
    std::memset(f.data(), 0xff, 6);
    std::memcpy(f.data() + 6, SRC, 6);
    put_be16_at(b, 12, 0x0800);
    f[14] = 0x45;
    put_be16_at(b, 16, std::uint16_t(f.size() - 14));
    f[22] = 64;
    f[23] = 17;
    std::memset(f.data() + 30, 0xff, 4);
    put_be16_at(b, 34, dhcp ? 68 : 9);
    put_be16_at(b, 36, dhcp ? 67 : 9);
    put_be16_at(b, 38, std::uint16_t(f.size() - 34));
    put_be16_at(b, 24, inet_cksum(bytes_view(f.data() + 14, 20)));
    if (dhcp) {
        bytes_span m(f.data() + 42, f.size() - 42);
        m[0] = 1, m[1] = 1, m[2] = 6;
        std::memcpy(m.data() + 28, SRC, 6);
        put_be32_at(m, 236, 0x63825363);
        m[240] = 53, m[241] = 1, m[242] = 1, m[243] = 255;
    }
    return f;
}

// proto 0 for the sender: it never reads, so it must not queue its own frames.
int packet_socket(const char *ifname, int proto)
{
    int fd = socket(AF_PACKET, SOCK_RAW, htons(std::uint16_t(proto)));
    sockaddr_ll a{};
    a.sll_family = AF_PACKET;
    a.sll_protocol = htons(std::uint16_t(proto));
    a.sll_ifindex = int(if_nametoindex(ifname));
    if (fd < 0 || a.sll_ifindex == 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        std::perror(ifname);
        std::exit(1);
    }
    int sz = 8 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &sz, sizeof sz) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &sz, sizeof sz);
    return fd;
}

// Counts what `take` accepts until one idle second after the first, or the cap.
template <class F> void count_until_idle(int fd, int seconds, F take)
{
    std::vector<std::uint8_t> buf(4096);
    long n = 0;
    bench_clock::time_point first{}, last{};
    auto deadline = bench_clock::now() + std::chrono::seconds(seconds);
    while (bench_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 1000) <= 0) {
            if (n) break;
            continue;
        }
        ssize_t got = recv(fd, buf.data(), buf.size(), 0);
        if (got <= 0) break;
        if (!take(bytes_view(buf.data(), std::size_t(got)))) continue;
        last = bench_clock::now();
        if (n++ == 0) first = last;
    }
    double s = std::chrono::duration<double>(last - first).count();
    std::printf("received=%ld seconds=%.3f rate=%.0f\n", n, s, n > 1 && s > 0 ? double(n - 1) / s : 0.0);
}

int do_send(const char *ifname, long count, std::size_t size, bool dhcp)
{
    int fd = packet_socket(ifname, 0);
    auto f = make_frame(size, dhcp);
    auto t0 = bench_clock::now();
    long sent = 0;
    for (long i = 0; i < count; ++i)
        if (send(fd, f.data(), f.size(), 0) == ssize_t(f.size())) ++sent;
    double s = std::chrono::duration<double>(bench_clock::now() - t0).count();
    std::printf("sent=%ld seconds=%.3f rate=%.0f\n", sent, s, s > 0 ? double(sent) / s : 0.0);
    return 0;
}

int do_module(const char *path, int seconds)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        std::perror("connect");
        return 1;
    }
    std::uint8_t reg[HAL_MSG_REG_LEN];
    hal_msg_u32_build(bytes_span(reg), HAL_MSG_TYPE_REGISTER, HAL_MSG_FLAG_REQUEST, 1, MODULE_DHCP);
    if (send(fd, reg, sizeof reg, 0) != ssize_t(sizeof reg)) {
        std::perror("register");
        return 1;
    }
    // Nothing is trapped to us before the answer, so it is the next message.
    std::uint8_t ans[64];
    pollfd p{fd, POLLIN, 0};
    ssize_t got = poll(&p, 1, 2000) == 1 ? recv(fd, ans, sizeof ans, 0) : -1;
    hal_msg_hdr_t h{};
    std::uint32_t result = 1;
    if (got <= 0 || !hal_msg_hdr_decode(bytes_view(ans, std::size_t(got)), h) ||
        h.nlmsg_type != HAL_MSG_TYPE_REGISTER || !hal_msg_u32_decode(bytes_view(ans, std::size_t(got)), result) ||
        result != 0) {
        std::fprintf(stderr, "registration not accepted\n");
        return 1;
    }
    std::printf("registered\n");
    std::fflush(stdout);
    count_until_idle(fd, seconds, [](bytes_view b) {
        hal_msg_hdr_t m{};
        return hal_msg_hdr_decode(b, m) && m.nlmsg_type == HAL_MSG_TYPE_PKT;
    });
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "send" && argc >= 5)
        return do_send(argv[2], std::atol(argv[3]), std::size_t(std::atol(argv[4])),
                       argc > 5 && std::string(argv[5]) == "dhcp");
    if (mode == "recv" && argc >= 4) {
        int fd = packet_socket(argv[2], ETH_P_ALL);
        count_until_idle(fd, std::atoi(argv[3]), [](bytes_view b) {
            return b.size() >= 12 && std::memcmp(b.data() + 6, SRC, 6) == 0;
        });
        return 0;
    }
    if (mode == "module" && argc >= 4) return do_module(argv[2], std::atoi(argv[3]));
    std::fprintf(stderr, "usage: bench_oltsim send IF COUNT SIZE [dhcp] | recv IF SECONDS | module SOCKPATH SECONDS\n");
    return 2;
}
