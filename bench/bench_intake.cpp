// Frames per second the daemon takes in from the forwarding-plane channel and
// parses, beside plain SEQPACKET transfers of the same messages measured in the
// same run.
//
//   bench_intake [--count N] [--rounds R] [--cap SECONDS] [--bindings N]
//
// The daemon side is the real channel (hal_init on an event loop, hal_recv's
// read runs) delivering to dhcp_nl_msg; the forwarding-plane end is a thread
// in this process that answers the registration and then sends N packet
// messages (a tagged DISCOVER received on a known port) as fast as the socket
// takes them. The references move the same messages over a connected
// SEQPACKET pair: read and drop, and read and echo back to the sender.
//
// The layer-2 row runs the snooping path for real behind the channel: VLAN
// 100 snooped with option 82 (circuit-id profile), the uplink trusted,
// --bindings clients learnt beforehand; the forwarding-plane thread sends
// their exchanges (DISCOVER and REQUEST from an ONU, ACK from the uplink) and
// reads back the frames the daemon forwards, one per message, as the echo
// reference reads its echoes.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <poll.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench/bench_l2_setup.h"
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
    std::size_t bindings = 100000;
};

struct result {
    std::uint64_t done = 0;  // messages through before the end or the cap
    std::uint64_t dropped = 0;  // frames the daemon could not send (socket full)
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

// The layer-2 path behind the channel: the forwarding-plane thread sends the
// snooped exchanges and reads back what the daemon forwards, alternating as
// the echo reference's sender does; small send bursts, so that the daemon's
// sends find the socket read and are not dropped.
struct l2_traffic {
    const bench_l2::traffic *t;
    const bench_l2::box *b;
    bench_l2::mix m;
    std::uint64_t first = 0;  // frame number of the run's first message
};

result run_channel_l2(const std::string &path, const l2_traffic &l2, const options &o)
{
    int lfd = listen_on(path);
    std::atomic<bool> daemon_done{false};
    bench_clock::time_point t0{}, t_last{};
    std::uint64_t back = 0;
    std::thread fp([&] {
        int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        std::uint8_t reg[64];
        hal_msg_hdr_t h{};
        ssize_t n = recv(fd, reg, sizeof reg, 0);
        if (n < HAL_MSG_HDR_LEN || !hal_msg_hdr_decode(bytes_view(reg, std::size_t(n)), h) ||
            h.nlmsg_type != HAL_MSG_TYPE_REGISTER) {
            close(fd);
            return;
        }
        std::uint8_t ack[HAL_MSG_REG_LEN];
        hal_msg_u32_build(ack, HAL_MSG_TYPE_REGISTER, 0, h.nlmsg_seq, 0);
        if (send(fd, ack, sizeof ack, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof ack)) {
            close(fd);
            return;
        }
        std::vector<std::uint8_t> msg(HAL_PKT_MSG_LEN), buf(8192);
        std::uint64_t sent = 0;
        auto deadline = bench_clock::now() + std::chrono::duration<double>(o.cap_s);
        t0 = bench_clock::now();
        t_last = t0;
        while (back < o.count && bench_clock::now() < deadline) {
            pollfd p{fd, static_cast<short>(POLLIN | (sent < o.count ? POLLOUT : 0)), 0};
            int r = poll(&p, 1, 100);
            if (r == 0 && daemon_done) break;  // nothing more is coming
            if (r <= 0) continue;
            if (p.revents & (POLLERR | POLLHUP)) break;
            ssize_t got;
            while ((got = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT)) > 0) {
                hal_msg_hdr_t f{};
                if (hal_msg_hdr_decode(bytes_view(buf.data(), std::size_t(got)), f) &&
                    f.nlmsg_type == HAL_MSG_TYPE_PKT) {
                    ++back;
                    t_last = bench_clock::now();
                }
            }
            for (int burst = 0; burst < 16 && sent < o.count; ++burst) {
                bench_l2::kind k;
                const bench_l2::client *c;
                std::uint32_t xid;
                l2.m.frame(l2.first + sent, k, c, xid);
                l2.t->fill(msg, k, *c, xid, *l2.b);
                if (send(fd, msg.data(), msg.size(), MSG_DONTWAIT | MSG_NOSIGNAL) != ssize_t(msg.size())) break;
                ++sent;
            }
        }
        shutdown(fd, SHUT_RDWR);
        close(fd);
    });

    g_run = channel_run{};
    g_run.master = thread_master_create("bench");
    g_run.target = o.count;
    g_run.parse = true;
    thread *t_cap = nullptr;
    thread_add_timer_msec(g_run.master, bench_cap_timer, nullptr, static_cast<long>(o.cap_s * 1000), &t_cap);
    hal_set_path(path.c_str());
    hal_init(HAL_DHCP, g_run.master, bench_deliver);
    std::uint64_t fail0 = hal_get_stats().tx_fail;
    thread fetch;
    while (thread_fetch(g_run.master, &fetch)) thread_call(&fetch);
    std::uint64_t dropped = hal_get_stats().tx_fail - fail0;
    daemon_done = true;
    fp.join();  // it stops once the last forwarded frame is read
    hal_close();
    close(lfd);
    unlink(path.c_str());
    thread_cancel(&t_cap);
    thread_master_free(g_run.master);

    result r;
    r.done = back;
    r.dropped = dropped;
    r.seconds = std::chrono::duration<double>(t_last - t0).count();
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
        else if (a == "--bindings" && v) o.bindings = std::strtoul(argv[++i], nullptr, 10);
        else {
            std::fprintf(stderr, "usage: %s [--count N] [--rounds R] [--cap SECONDS] [--bindings N]\n", argv[0]);
            std::exit(2);
        }
    }
    o.count = std::clamp<std::uint64_t>(o.count, 1, 10000000);
    o.rounds = std::clamp(o.rounds, 1, 20);
    o.cap_s = std::clamp(o.cap_s, 1.0, 300.0);
    o.bindings = std::clamp<std::size_t>(o.bindings, 1, DHCP_CLIENT_TREE_MAX);
    return o;
}

}  // namespace

int main(int argc, char **argv)
{
    options o = parse_args(argc, argv);
    zlog_set_stderr(false);  // no openzlog: log lines go nowhere

    // The box of bench_l2path, snooping configured. The channel rows' DISCOVER
    // comes in on the uplink ge1/1/1, so the path drops it right after the
    // parse (a request on an uplink), as it did before the box was there.
    bench_l2::init_tables();
    bench_l2::box box = bench_l2::make_box(8, 128);
    if (bench_l2::configure_snooping(box) != 0) {
        std::fprintf(stderr, "snooping configuration failed\n");
        return 1;
    }
    std::uint32_t port = box.uplink->ifindex;

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

    // Clients learnt and bound through the path before the runs (the channel
    // is not up yet: what the path sends is refused, which costs nothing).
    bench_l2::traffic l2t;
    bench_l2::set_uplink(l2t, box);
    std::vector<bench_l2::client> clients = bench_l2::make_clients(o.bindings, box.onus.size());
    {
        bench_l2::mix learn{&clients, std::vector<std::uint32_t>(clients.size()), 0x10000000u};
        std::iota(learn.order.begin(), learn.order.end(), 0u);
        std::vector<std::uint8_t> m(HAL_PKT_MSG_LEN);
        for (std::uint64_t i = 0; i < std::uint64_t(clients.size()) * bench_l2::KINDS; ++i) {
            bench_l2::kind k;
            const bench_l2::client *c;
            std::uint32_t xid;
            learn.frame(i, k, c, xid);
            l2t.fill(m, k, *c, xid, box);
            dhcp_nl_msg(HAL_MSG_TYPE_PKT, m.data() + HAL_MSG_HDR_LEN, HAL_PKT_MSG_LEN);
        }
        if (dhcp_snooping_get_client_count() != clients.size()) {
            std::fprintf(stderr, "learning left %u bindings of %zu\n", dhcp_snooping_get_client_count(),
                         clients.size());
            return 1;
        }
    }
    l2_traffic l2{&l2t, &box, {&clients, std::vector<std::uint32_t>(clients.size()), 0x20000000u}, 0};
    std::iota(l2.m.order.begin(), l2.m.order.end(), 0u);
    std::shuffle(l2.m.order.begin(), l2.m.order.end(), std::mt19937(7));

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
        {"channel into intake and the layer-2 path", {}},
    };
    constexpr std::size_t n_rows = sizeof rows / sizeof rows[0];
    constexpr std::size_t ECHO = 1, L2 = n_rows - 1;
    std::uint64_t l2_dropped = 0;
    for (int round = 0; round < o.rounds; ++round) {
        result rs[] = {run_sink(path, msg, o),          run_echo(path, msg, o), run_channel(path, msg, o, false),
                       run_channel(path, msg, o, true), run_parse_only(msg, o), run_channel_l2(path, l2, o)};
        l2.first += o.count;  // the next round goes on with the next clients
        l2_dropped += rs[L2].dropped;
        for (std::size_t i = 0; i < n_rows; ++i) {
            rows[i].rates.push_back(rs[i].rate());
            // Frames the daemon dropped on a full socket are not the cap.
            if (rs[i].done + rs[i].dropped < o.count) ++rows[i].short_runs;
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
    double echo = median(rows[ECHO].rates), l2rate = median(rows[L2].rates);
    std::printf("\nlayer-2 row: VLAN %d snooped, option 82 (circuit-id profile), uplink trusted, %zu bindings, "
                "%zu ONUs;\n  DISCOVER/REQUEST from the ONUs, ACK from the uplink; %llu forwarded frames dropped "
                "(socket full)\n",
                bench_l2::VID, clients.size(), box.onus.size(), static_cast<unsigned long long>(l2_dropped));
    std::printf("layer-2 row vs read and echo: %.2f (target >= 0.50: %s)\n", echo > 0 ? l2rate / echo : 0.0,
                echo > 0 && l2rate / echo >= 0.5 ? "met" : "MISSED");
    return 0;
}
