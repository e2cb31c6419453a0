// Frames per second the daemon takes in from the forwarding-plane channel and
// parses, beside plain SEQPACKET transfers of the same messages measured in the
// same run.
//
//   bench_intake [--count N] [--rounds R] [--cap SECONDS]
//
// The daemon side is the real channel (hal_init on an event loop, hal_recv's
// read runs) delivering to dhcp_nl_msg; the forwarding-plane end is a thread
// in this process that answers the registration and then sends N packet
// messages (a tagged DISCOVER received on a known port) as fast as the socket
// takes them. The references move the same messages over a connected
// SEQPACKET pair: read and drop, and read and echo back to the sender.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "dhcp/dhcp_intake.h"
#include "dhcp/dhcp_opt.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/hal.h"
#include "platform/hal_msg.h"
#include "platform/st_packet.h"

namespace {

using bench_clock = std::chrono::steady_clock;

struct options {
    std::uint64_t count = 500000;
    int rounds = 3;
    double cap_s = 20.0;
};

struct result {
    std::uint64_t done = 0;  // messages through before the end or the cap
    double seconds = 0;
    double rate() const { return seconds > 0 ? double(done) / seconds : 0; }
};

// ---- the message ----------------------------------------------------------

std::vector<std::uint8_t> discover_frame()
{
    static const std::uint8_t mac[6] = {0x00, 0x0e, 0xc6, 0x00, 0x00, 0x01};
    std::vector<std::uint8_t> m(DHCP_OFF_OPTIONS, 0);
    m[DHCP_OFF_OP] = BOOTREQUEST;
    m[DHCP_OFF_HTYPE] = 1;
    m[DHCP_OFF_HLEN] = 6;
    put_be32_at(m, DHCP_OFF_XID, 0x3903f326);
    put_be16_at(m, DHCP_OFF_FLAGS, DHCP_BROADCAST_FLAG);
    std::memcpy(&m[DHCP_OFF_CHADDR], mac, 6);
    put_be32_at(m, DHCP_OFF_COOKIE, DHCP_MAGIC);
    const std::uint8_t opts[] = {
        53, 1, DHCPDISCOVER,                           // message type
        61, 7, 1, 0x00, 0x0e, 0xc6, 0x00, 0x00, 0x01,  // client id
        12, 4, 'o', 'n', 'u', '5',                     // host name
        60, 8, 'M', 'S', 'F', 'T', ' ', '5', '.', '0', // vendor class
        55, 4, 1, 3, 6, 51,                            // parameter request list
        255,
    };
    m.insert(m.end(), opts, opts + sizeof opts);
    m.resize(300, 0);  // BOOTP minimum

    std::vector<std::uint8_t> f = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // destination: broadcast
        0x00, 0x0e, 0xc6, 0x00, 0x00, 0x01,  // source
        0x81, 0x00, 0x00, 0x64,              // 802.1Q, VLAN 100
        0x08, 0x00,                          // IPv4
        0x45, 0x00, 0x00, 0x00,              // version, IHL, TOS, total length (below)
        0x00, 0x00, 0x00, 0x00,              // id, fragment
        0x40, 0x11, 0x00, 0x00,              // TTL, UDP, checksum (below)
        0x00, 0x00, 0x00, 0x00,              // source 0.0.0.0
        0xff, 0xff, 0xff, 0xff,              // destination 255.255.255.255
        0x00, 0x44, 0x00, 0x43,              // UDP 68 -> 67
        0x00, 0x00, 0x00, 0x00,              // UDP length (below), checksum none
    };
    const std::size_t ip = 18, udp = 38;
    put_be16_at(f, ip + 2, static_cast<std::uint16_t>(28 + m.size()));
    put_be16_at(f, ip + 10, inet_cksum(bytes_view(f).subspan(ip, 20)));
    put_be16_at(f, udp + 4, static_cast<std::uint16_t>(8 + m.size()));
    f.insert(f.end(), m.begin(), m.end());
    return f;
}

std::vector<std::uint8_t> packet_message(std::uint32_t ifindex, const std::vector<std::uint8_t> &frame)
{
    hal_msg_pkt_t p{};
    p.ifindex = ifindex;
    p.fwd_info.vid = 100;
    p.len = static_cast<std::uint16_t>(frame.size());
    p.data = frame.data();
    std::vector<std::uint8_t> msg(HAL_PKT_MSG_LEN);
    if (!hal_msg_pkt_build(msg, p, 0, 0, 0)) msg.clear();
    return msg;
}

// ---- sockets ---------------------------------------------------------------

int listen_on(const std::string &path)
{
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    std::snprintf(sun.sun_path, sizeof sun.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0 || listen(fd, 4) < 0) {
        std::perror("listen");
        std::exit(1);
    }
    return fd;
}

int connect_to(const std::string &path)
{
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    std::snprintf(sun.sun_path, sizeof sun.sun_path, "%s", path.c_str());
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) {
        std::perror("connect");
        std::exit(1);
    }
    return fd;
}

// Blocking sends of the same message; stops early when the peer goes away.
std::uint64_t blast(int fd, const std::vector<std::uint8_t> &msg, std::uint64_t n)
{
    std::uint64_t sent = 0;
    while (sent < n && send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size())) ++sent;
    return sent;
}

// ---- references --------------------------------------------------------------

// Sender thread -> this thread, which reads each datagram and drops it.
result run_sink(const std::string &path, const std::vector<std::uint8_t> &msg, const options &o)
{
    int lfd = listen_on(path);
    int tx = connect_to(path);
    int rx = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
    timeval tv{0, 200000};
    setsockopt(rx, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    std::atomic<bench_clock::time_point> t0{};
    std::thread sender([&] {
        t0 = bench_clock::now();
        blast(tx, msg, o.count);
    });
    std::vector<std::uint8_t> buf(8192);
    result r;
    auto deadline = bench_clock::now() + std::chrono::duration<double>(o.cap_s);
    while (r.done < o.count && bench_clock::now() < deadline) {
        if (recv(rx, buf.data(), buf.size(), 0) > 0) ++r.done;
    }
    auto t1 = bench_clock::now();
    close(rx);
    sender.join();
    close(tx);
    close(lfd);
    unlink(path.c_str());
    r.seconds = std::chrono::duration<double>(t1 - t0.load()).count();
    return r;
}

// Sender thread, which also counts the echoes -> this thread, which sends
// each datagram back. Two threads, as many as the channel runs use.
result run_echo(const std::string &path, const std::vector<std::uint8_t> &msg, const options &o)
{
    int lfd = listen_on(path);
    int tx = connect_to(path);
    int rx = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
    timeval tv{0, 200000};
    setsockopt(rx, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(rx, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);  // the sender may stop at the cap

    bench_clock::time_point t0{}, t1{};
    std::atomic<bool> stop{false};
    result r;
    std::thread sender([&] {
        auto deadline = bench_clock::now() + std::chrono::duration<double>(o.cap_s);
        std::vector<std::uint8_t> buf(8192);
        std::uint64_t sent = 0;
        t0 = bench_clock::now();
        while (r.done < o.count && bench_clock::now() < deadline) {
            pollfd p{tx, static_cast<short>(POLLIN | (sent < o.count ? POLLOUT : 0)), 0};
            if (poll(&p, 1, 200) <= 0) continue;
            if (p.revents & (POLLERR | POLLHUP)) break;
            while (sent < o.count &&
                   send(tx, msg.data(), msg.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size()))
                ++sent;
            while (recv(tx, buf.data(), buf.size(), MSG_DONTWAIT) > 0) ++r.done;
        }
        t1 = bench_clock::now();
        stop = true;
    });
    std::vector<std::uint8_t> buf(8192);
    while (!stop) {
        ssize_t n = recv(rx, buf.data(), buf.size(), 0);
        if (n > 0 && send(rx, buf.data(), std::size_t(n), MSG_NOSIGNAL) != n) break;
    }
    sender.join();
    close(rx);
    close(tx);
    close(lfd);
    unlink(path.c_str());
    r.seconds = std::chrono::duration<double>(t1 - t0).count();
    return r;
}

// ---- the daemon's channel ----------------------------------------------------

struct channel_run {
    thread_master *master = nullptr;
    std::uint64_t target = 0;
    std::uint64_t delivered = 0;
    bench_clock::time_point t1{};
    bool parse = true;
};
channel_run g_run;

std::uint32_t bench_deliver(int type, std::uint8_t *buf, std::uint32_t len)
{
    std::uint32_t rc = g_run.parse ? dhcp_nl_msg(type, buf, len) : 0;
    if (++g_run.delivered == g_run.target) {
        g_run.t1 = bench_clock::now();
        thread_master_stop(g_run.master);
    }
    return rc;
}

int bench_cap_timer(thread *t)
{
    g_run.t1 = bench_clock::now();
    thread_master_stop(t->master);
    return 0;
}

// The forwarding-plane end: accepts the module, answers its registration,
// then sends the messages.
result run_channel(const std::string &path, const std::vector<std::uint8_t> &msg, const options &o, bool parse)
{
    int lfd = listen_on(path);
    std::atomic<bench_clock::time_point> t0{};
    std::atomic<int> fp_fd{-1};
    std::thread fp([&] {
        int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        fp_fd = fd;
        std::uint8_t reg[64];
        hal_msg_hdr_t h{};
        ssize_t n = recv(fd, reg, sizeof reg, 0);
        if (n < HAL_MSG_HDR_LEN || !hal_msg_hdr_decode(bytes_view(reg, std::size_t(n)), h) ||
            h.nlmsg_type != HAL_MSG_TYPE_REGISTER)
            return;
        std::uint8_t ack[HAL_MSG_REG_LEN];
        hal_msg_u32_build(ack, HAL_MSG_TYPE_REGISTER, 0, h.nlmsg_seq, 0);
        if (send(fd, ack, sizeof ack, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof ack)) return;
        t0 = bench_clock::now();
        blast(fd, msg, o.count);
    });

    g_run = channel_run{};
    g_run.master = thread_master_create("bench");
    g_run.target = o.count;
    g_run.parse = parse;
    thread *t_cap = nullptr;
    thread_add_timer_msec(g_run.master, bench_cap_timer, nullptr, static_cast<long>(o.cap_s * 1000), &t_cap);
    hal_set_path(path.c_str());
    hal_init(HAL_DHCP, g_run.master, bench_deliver);
    thread fetch;
    while (thread_fetch(g_run.master, &fetch)) thread_call(&fetch);

    hal_close();  // a sender still blocked gets EPIPE
    int fd = fp_fd.load();
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
    fp.join();
    if (fd >= 0) close(fd);
    close(lfd);
    unlink(path.c_str());
    thread_cancel(&t_cap);
    thread_master_free(g_run.master);

    result r;
    r.done = g_run.delivered;
    r.seconds = std::chrono::duration<double>(g_run.t1 - t0.load()).count();
    return r;
}

// The parse alone, no socket: what the intake could take if the channel cost
// nothing.
result run_parse_only(const std::vector<std::uint8_t> &msg, const options &o)
{
    std::vector<std::uint8_t> copy = msg;
    auto len = static_cast<std::uint32_t>(copy.size());
    result r;
    auto t0 = bench_clock::now();
    auto deadline = t0 + std::chrono::duration<double>(o.cap_s);
    while (r.done < o.count) {
        dhcp_nl_msg(HAL_MSG_TYPE_PKT, copy.data() + HAL_MSG_HDR_LEN, len);
        if ((++r.done & 0xfff) == 0 && bench_clock::now() >= deadline) break;
    }
    r.seconds = std::chrono::duration<double>(bench_clock::now() - t0).count();
    return r;
}

// ---- driver -------------------------------------------------------------------

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

options parse_args(int argc, char **argv)
{
    options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--count" && v) o.count = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--rounds" && v) o.rounds = std::atoi(argv[++i]);
        else if (a == "--cap" && v) o.cap_s = std::atof(argv[++i]);
        else {
            std::fprintf(stderr, "usage: %s [--count N] [--rounds R] [--cap SECONDS]\n", argv[0]);
            std::exit(2);
        }
    }
    o.count = std::clamp<std::uint64_t>(o.count, 1, 10000000);
    o.rounds = std::clamp(o.rounds, 1, 20);
    o.cap_s = std::clamp(o.cap_s, 1.0, 300.0);
    return o;
}

}  // namespace

int main(int argc, char **argv)
{
    options o = parse_args(argc, argv);
    zlog_set_stderr(false);  // no openzlog: log lines go nowhere

    uif_init();
    std::uint32_t port = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
    uif_t *ifp = uif_get_or_create(port, true);
    uif_set_name(ifp, "ge1/1/1");
    ifp->status = 1;

    std::vector<std::uint8_t> msg = packet_message(port, discover_frame());
    if (msg.empty()) return 1;
    {
        // The frame must go the whole way through the parser, not stop at a drop.
        std::vector<std::uint8_t> copy = msg;
        int rc = dhcp_pkt_msg(copy.data() + HAL_MSG_HDR_LEN, static_cast<std::uint32_t>(copy.size()));
        if (rc != 0) {
            std::fprintf(stderr, "bench frame rejected by dhcp_pkt_msg: %d\n", rc);
            return 1;
        }
    }

    std::string path = "/tmp/bench_intake." + std::to_string(getpid()) + ".sock";
    struct row {
        const char *name;
        std::vector<double> rates;
        std::uint64_t short_runs = 0;
    } rows[] = {
        {"SEQPACKET read and drop (reference)", {}},
        {"SEQPACKET read and echo (reference)", {}},
        {"channel to a counting callback", {}},
        {"channel to dhcp_nl_msg (intake + parse)", {}},
        {"dhcp_nl_msg alone, no socket (bound)", {}},
    };
    constexpr std::size_t n_rows = sizeof rows / sizeof rows[0];
    for (int round = 0; round < o.rounds; ++round) {
        result rs[] = {run_sink(path, msg, o), run_echo(path, msg, o), run_channel(path, msg, o, false),
                       run_channel(path, msg, o, true), run_parse_only(msg, o)};
        for (std::size_t i = 0; i < n_rows; ++i) {
            rows[i].rates.push_back(rs[i].rate());
            if (rs[i].done != o.count) ++rows[i].short_runs;
        }
    }

    double ref = median(rows[0].rates);
    std::printf("bench_intake: %llu packet messages of %zu bytes per run, AF_UNIX SOCK_SEQPACKET, "
                "median of %d rounds\n\n",
                static_cast<unsigned long long>(o.count), msg.size(), o.rounds);
    std::printf("%-42s %12s %10s %14s\n", "path", "frames/s", "vs drop", "min..max");
    for (const row &r : rows) {
        double m = median(r.rates);
        auto [lo, hi] = std::minmax_element(r.rates.begin(), r.rates.end());
        std::printf("%-42s %12.0f %10.2f %6.0fk..%.0fk%s\n", r.name, m, ref > 0 ? m / ref : 0, *lo / 1000,
                    *hi / 1000, r.short_runs ? "  (cap hit: partial)" : "");
    }
    return 0;
}
