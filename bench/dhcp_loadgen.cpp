// A crowd of DHCP clients on one interface, for DORA-per-second benchmarks
// through whatever sits between them and a server (a layer-2 snooping OLT, a
// relay, nothing).
//
//   dhcp_loadgen --iface IF [--clients N] [--window W] [--timeout SECONDS]
//                [--retrans SECONDS] [--tries N] [--mac-base N] [--release]
//                [--release-rate PER_SECOND]
//
// Each simulated client behaves like a real one that has no address yet: an
// Ethernet broadcast from its own MAC (chaddr and Ethernet source), IPv4
// 0.0.0.0 -> 255.255.255.255, UDP 68 -> 67, giaddr 0, the broadcast flag set;
// DISCOVER, then on the OFFER a REQUEST (option 50 the offered address,
// option 54 the server), then the ACK. Up to W clients are in an exchange at
// once; a step without answer is sent again after --retrans seconds, up to
// --tries times, and a NAK starts over. Replies are matched by xid and chaddr.
// The whole run ends at --timeout. --release sends each bound client's
// RELEASE (unicast to the server that acknowledged it) once all are done,
// paced at --release-rate (2000/s).
//
// Prints one line: clients= completed= failed= seconds= dora_per_s=
// retransmits= released= cpu_s= ("seconds" runs from the first DISCOVER to
// the last ACK; cpu_s is this process's own CPU time). Exit status 0 when every client completed, 1 otherwise, 2 on bad use.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "lib/wire.h"
#include "platform/st_packet.h"

namespace {

using lg_clock = std::chrono::steady_clock;

enum : std::uint8_t {
    OP_REQUEST = 1,
    OP_REPLY = 2,
    MSG_DISCOVER = 1,
    MSG_OFFER = 2,
    MSG_REQUEST = 3,
    MSG_ACK = 5,
    MSG_NAK = 6,
    MSG_RELEASE = 7,
    OPT_PAD = 0,
    OPT_REQUESTED_IP = 50,
    OPT_MSG_TYPE = 53,
    OPT_SERVER_ID = 54,
    OPT_PRL = 55,
    OPT_MAX_SIZE = 57,
    OPT_CLIENT_ID = 61,
    OPT_END = 255,
};

constexpr std::uint32_t MAGIC = 0x63825363;
constexpr std::size_t ETH_LEN = 14, IP_LEN = 20, UDP_LEN = 8, BOOTP_FIXED = 236, BOOTP_MIN = 300;
constexpr std::uint16_t PORT_SERVER = 67, PORT_CLIENT = 68;
constexpr std::uint8_t MAC_PREFIX[2] = {0x02, 0x4c};  // locally administered

struct options {
    std::string iface;
    std::uint32_t clients = 1000;
    std::uint32_t window = 64;
    double timeout_s = 60;
    double retrans_s = 1.0;
    int tries = 4;
    std::uint32_t mac_base = 1;
    bool release = false;
    double release_rate = 2000;  // RELEASEs per second
};

enum class state { idle, selecting, requesting, bound, failed };

struct client {
    state st = state::idle;
    std::uint32_t xid = 0;
    std::uint32_t offered = 0;    // host order
    std::uint32_t server_id = 0;  // host order
    std::uint8_t server_mac[6] = {};
    int tries = 0;
    lg_clock::time_point deadline{};
};

// ---- frames ------------------------------------------------------------------

// Client MACs look random, as a real crowd's do: servers that pick an
// address from a hash of the MAC (dnsmasq) would otherwise offer one address
// to a whole run of neighbours at once. Multiplying by an odd constant is a
// bijection on 32 bits, undone by its inverse.
constexpr std::uint32_t MAC_MIX = 0x9e3779b1u;

std::uint32_t mix_inverse()
{
    std::uint32_t x = MAC_MIX;  // Newton's iteration: each step doubles the correct low bits
    for (int i = 0; i < 5; ++i) x *= 2 - MAC_MIX * x;
    return x;
}

void client_mac(const options &o, std::uint32_t i, std::uint8_t mac[6])
{
    std::uint32_t v = (o.mac_base + i) * MAC_MIX;
    mac[0] = MAC_PREFIX[0];
    mac[1] = MAC_PREFIX[1];
    mac[2] = std::uint8_t(v >> 24);
    mac[3] = std::uint8_t(v >> 16);
    mac[4] = std::uint8_t(v >> 8);
    mac[5] = std::uint8_t(v);
}

// The client's frame of `type` into buf; its length, 0 when it does not fit.
std::size_t build(bytes_span buf, const options &o, std::uint32_t i, const client &c, std::uint8_t type)
{
    std::uint8_t mac[6];
    client_mac(o, i, mac);
    bool release = type == MSG_RELEASE;
    std::uint32_t src_ip = release ? c.offered : 0, dst_ip = release ? c.server_id : 0xffffffffu;

    // The DHCP message first, so that the lengths below are known.
    std::vector<std::uint8_t> opts;
    auto opt = [&](std::initializer_list<std::uint8_t> bytes) {
        for (std::uint8_t b : bytes) opts.push_back(b);
    };
    auto opt_ip = [&](std::uint8_t code, std::uint32_t v) {
        opt({code, 4, std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)});
    };
    opt({OPT_MSG_TYPE, 1, type});
    opt({OPT_CLIENT_ID, 7, 1, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]});
    if (type == MSG_REQUEST) opt_ip(OPT_REQUESTED_IP, c.offered);
    if (type == MSG_REQUEST || release) opt_ip(OPT_SERVER_ID, c.server_id);
    if (!release) {
        opt({OPT_MAX_SIZE, 2, 0x05, 0xdc});
        opt({OPT_PRL, 4, 1, 3, 6, 51});
    }
    opt({OPT_END});
    std::size_t bootp_len = std::max(BOOTP_FIXED + 4 + opts.size(), BOOTP_MIN);
    std::size_t udp_len = UDP_LEN + bootp_len, ip_len = IP_LEN + udp_len, frame_len = ETH_LEN + ip_len;
    if (buf.size() < frame_len) return 0;
    std::fill(buf.begin(), buf.begin() + std::ptrdiff_t(frame_len), std::uint8_t(0));

    wire_writer w(buf);
    static const std::uint8_t bcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    w.put(release ? c.server_mac : bcast, 6);
    w.put(mac, 6);
    w.be16(ETHERTYPE_IP);

    std::size_t ip = w.pos();
    w.u8(0x45);
    w.u8(0);
    w.be16(std::uint16_t(ip_len));
    w.be16(0);       // id
    w.be16(0);       // fragment
    w.u8(64);        // TTL
    w.u8(IPPROTO_UDP);
    w.be16(0);       // checksum, below
    w.be32(src_ip);
    w.be32(dst_ip);

    std::size_t udp = w.pos();
    w.be16(PORT_CLIENT);
    w.be16(PORT_SERVER);
    w.be16(std::uint16_t(udp_len));
    w.be16(0);  // checksum, below

    std::size_t bootp = w.pos();
    w.u8(OP_REQUEST);
    w.u8(1);  // Ethernet
    w.u8(6);
    w.u8(0);  // hops
    w.be32(c.xid);
    w.be16(0);                            // secs
    w.be16(release ? 0 : 0x8000);         // broadcast flag: we have no address to take unicast on
    w.be32(release ? c.offered : 0);      // ciaddr
    w.zero(12);                           // yiaddr, siaddr, giaddr 0
    w.put(mac, 6);                        // chaddr
    w.zero(10 + 64 + 128);                // chaddr padding, sname, file
    w.be32(MAGIC);
    w.put(opts.data(), opts.size());
    if (w.pos() != bootp + BOOTP_FIXED + 4 + opts.size()) return 0;

    put_be16_at(buf, ip + 10, inet_cksum(bytes_view(buf).subspan(ip, IP_LEN)));
    std::uint8_t pseudo[12];
    wire_writer pw{bytes_span(pseudo)};
    pw.be32(src_ip);
    pw.be32(dst_ip);
    pw.u8(0);
    pw.u8(IPPROTO_UDP);
    pw.be16(std::uint16_t(udp_len));
    std::uint16_t sum = inet_cksum_fold(inet_cksum_add(bytes_view(buf).subspan(udp, udp_len),
                                                       inet_cksum_add(bytes_view(pseudo), 0)));
    put_be16_at(buf, udp + 6, sum ? sum : 0xffff);
    return frame_len;
}

// What a reply says, read at explicit offsets within the frame.
struct reply {
    std::uint8_t src_mac[6];
    std::uint8_t chaddr[6];
    std::uint32_t xid = 0;
    std::uint32_t yiaddr = 0;
    std::uint32_t siaddr = 0;
    std::uint32_t ip_src = 0;
    std::uint8_t type = 0;
    std::uint32_t server_id = 0;
};

// A BOOTREPLY to UDP port 68 inside an IPv4 frame (up to two VLAN tags).
bool parse_reply(bytes_view f, reply &r)
{
    wire_reader eth(f);
    std::uint16_t type = 0;
    if (!eth.skip(6) || !eth.copy(r.src_mac, 6) || !eth.be16(type)) return false;
    for (int tags = 0; (type == 0x8100 || type == 0x88a8) && tags < 2; ++tags)
        if (!eth.skip(2) || !eth.be16(type)) return false;
    if (type != ETHERTYPE_IP) return false;

    std::size_t ip = eth.pos();
    std::uint8_t vihl = 0, proto = 0;
    std::uint16_t total = 0;
    if (!u8_at(f, ip, vihl) || !be16_at(f, ip + 2, total) || !u8_at(f, ip + 9, proto) ||
        !be32_at(f, ip + 12, r.ip_src))
        return false;
    std::size_t ihl = std::size_t(vihl & 0x0f) * 4;
    if ((vihl >> 4) != 4 || ihl < IP_LEN || proto != IPPROTO_UDP || total < ihl + UDP_LEN ||
        ip + total > f.size())
        return false;
    bytes_view ipv = f.subspan(ip, total);  // Ethernet padding stays out

    std::uint16_t dport = 0, ulen = 0;
    if (!be16_at(ipv, ihl + 2, dport) || !be16_at(ipv, ihl + 4, ulen) || dport != PORT_CLIENT ||
        ulen < UDP_LEN || ihl + ulen > ipv.size())
        return false;
    bytes_view m = ipv.subspan(ihl + UDP_LEN, ulen - UDP_LEN);

    std::uint8_t op = 0;
    std::uint32_t cookie = 0;
    if (!u8_at(m, 0, op) || op != OP_REPLY || !be32_at(m, 4, r.xid) || !be32_at(m, 16, r.yiaddr) ||
        !be32_at(m, 20, r.siaddr) || !wire_reader(m, 28).copy(r.chaddr, 6) || !be32_at(m, BOOTP_FIXED, cookie) ||
        cookie != MAGIC)
        return false;

    // Options: one length check per step; a truncated option ends the walk.
    wire_reader opts(m, BOOTP_FIXED + 4);
    std::uint8_t code = 0, len = 0;
    while (opts.u8(code) && code != OPT_END) {
        if (code == OPT_PAD) continue;
        bytes_view v;
        if (!opts.u8(len) || !opts.take(len, v)) break;
        if (code == OPT_MSG_TYPE && len == 1) r.type = v[0];
        if (code == OPT_SERVER_ID && len == 4) be32_at(v, 0, r.server_id);
    }
    return r.type != 0;
}

// ---- the run -----------------------------------------------------------------

int open_socket(const std::string &iface)
{
    unsigned ifindex = if_nametoindex(iface.c_str());
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP));
    sockaddr_ll a{};
    a.sll_family = AF_PACKET;
    a.sll_protocol = htons(ETH_P_IP);
    a.sll_ifindex = int(ifindex);
    if (ifindex == 0 || fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        std::perror(iface.c_str());
        if (fd >= 0) close(fd);
        return -1;
    }
    int sz = 8 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &sz, sizeof sz) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &sz, sizeof sz);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &sz, sizeof sz) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
    return fd;
}

struct run_state {
    const options &o;
    int fd;
    std::vector<client> clients;
    std::vector<std::uint8_t> txbuf = std::vector<std::uint8_t>(2048);
    std::uint64_t retransmits = 0;
    std::uint32_t completed = 0, failed = 0, active = 0, next = 0;
    lg_clock::time_point first{}, last_ack{};
    bool started = false;

    void send_step(std::uint32_t i, std::uint8_t type)
    {
        client &c = clients[i];
        std::size_t n = build(txbuf, o, i, c, type);
        // A send refused by a full queue is retried like a lost frame.
        if (n) send(fd, txbuf.data(), n, 0);
        c.deadline = lg_clock::now() + std::chrono::duration_cast<lg_clock::duration>(
                                           std::chrono::duration<double>(o.retrans_s));
    }
    void start(std::uint32_t i)
    {
        client &c = clients[i];
        c.st = state::selecting;
        c.tries = 1;
        ++active;
        if (!started) {
            first = lg_clock::now();
            started = true;
        }
        send_step(i, MSG_DISCOVER);
    }
    void finish(std::uint32_t i, state st)
    {
        clients[i].st = st;
        --active;
        if (st == state::bound) {
            ++completed;
            last_ack = lg_clock::now();
        } else {
            ++failed;
        }
    }
    void on_reply(const reply &r)
    {
        if (std::memcmp(r.chaddr, MAC_PREFIX, 2) != 0) return;
        static const std::uint32_t inverse = mix_inverse();
        std::uint32_t v = 0;
        be32_at(bytes_view(r.chaddr), 2, v);
        std::uint32_t i = v * inverse - o.mac_base;
        if (i >= clients.size()) return;
        client &c = clients[i];
        if (r.xid != c.xid) return;
        if (c.st == state::selecting && r.type == MSG_OFFER && r.yiaddr) {
            c.offered = r.yiaddr;
            c.server_id = r.server_id ? r.server_id : r.siaddr ? r.siaddr : r.ip_src;
            c.st = state::requesting;
            c.tries = 1;
            send_step(i, MSG_REQUEST);
        } else if (c.st == state::requesting && r.type == MSG_ACK) {
            std::memcpy(c.server_mac, r.src_mac, 6);
            finish(i, state::bound);
        } else if (c.st == state::requesting && r.type == MSG_NAK) {
            // Start over, as a client does; it counts as a try.
            c.st = state::selecting;
            if (++c.tries > o.tries) finish(i, state::failed);
            else send_step(i, MSG_DISCOVER);
        }
    }
    void expire(lg_clock::time_point now)
    {
        for (std::uint32_t i = 0; i < next; ++i) {
            client &c = clients[i];
            if ((c.st != state::selecting && c.st != state::requesting) || now < c.deadline) continue;
            if (++c.tries > o.tries) {
                finish(i, state::failed);
                continue;
            }
            ++retransmits;
            send_step(i, c.st == state::selecting ? MSG_DISCOVER : MSG_REQUEST);
        }
    }
};

options parse_args(int argc, char **argv)
{
    options o;
    auto usage = [&] {
        std::fprintf(stderr,
                     "usage: %s --iface IF [--clients N] [--window W] [--timeout SECONDS] [--retrans SECONDS] "
                     "[--tries N] [--mac-base N] [--release] [--release-rate PER_SECOND]\n",
                     argv[0]);
        std::exit(2);
    };
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--release") o.release = true;
        else if (!v) usage();
        else if (a == "--iface") o.iface = argv[++i];
        else if (a == "--clients") o.clients = std::uint32_t(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--window") o.window = std::uint32_t(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--timeout") o.timeout_s = std::atof(argv[++i]);
        else if (a == "--retrans") o.retrans_s = std::atof(argv[++i]);
        else if (a == "--tries") o.tries = std::atoi(argv[++i]);
        else if (a == "--mac-base") o.mac_base = std::uint32_t(std::strtoul(argv[++i], nullptr, 0));
        else if (a == "--release-rate") o.release_rate = std::atof(argv[++i]);
        else usage();
    }
    if (o.iface.empty()) usage();
    o.clients = std::clamp<std::uint32_t>(o.clients, 1, 1000000);
    o.window = std::clamp<std::uint32_t>(o.window, 1, 65536);
    o.timeout_s = std::clamp(o.timeout_s, 0.1, 3600.0);
    o.retrans_s = std::clamp(o.retrans_s, 0.01, 60.0);
    o.tries = std::clamp(o.tries, 1, 100);
    o.release_rate = std::clamp(o.release_rate, 1.0, 1e6);
    return o;
}

}  // namespace

int main(int argc, char **argv)
{
    options o = parse_args(argc, argv);
    int fd = open_socket(o.iface);
    if (fd < 0) return 2;

    run_state rs{o, fd, std::vector<client>(o.clients)};
    // Distinct xids per run and client: the pid keeps two runs apart.
    std::uint32_t xid_base = (std::uint32_t(getpid()) << 20) ^ (o.mac_base * 0x9e3779b1u);
    for (std::uint32_t i = 0; i < o.clients; ++i) rs.clients[i].xid = xid_base + i;

    auto end = lg_clock::now() + std::chrono::duration_cast<lg_clock::duration>(std::chrono::duration<double>(o.timeout_s));
    std::vector<std::uint8_t> rx(4096);
    auto next_sweep = lg_clock::now();
    while (rs.completed + rs.failed < o.clients) {
        auto now = lg_clock::now();
        if (now >= end) break;
        while (rs.active < o.window && rs.next < o.clients) rs.start(rs.next++);
        // Retransmissions: a sweep every tenth of the retransmission time is
        // precise enough and keeps the scan off the per-frame path.
        if (now >= next_sweep) {
            rs.expire(now);
            next_sweep = now + std::chrono::duration_cast<lg_clock::duration>(
                                   std::chrono::duration<double>(o.retrans_s / 10));
        }
        pollfd p{fd, POLLIN, 0};
        int wait_ms = int(std::max<long>(1, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  std::min(next_sweep, end) - lg_clock::now())
                                                  .count()));
        if (poll(&p, 1, wait_ms) <= 0) continue;
        for (int batch = 0; batch < 256; ++batch) {
            ssize_t n = recv(fd, rx.data(), rx.size(), MSG_DONTWAIT);
            if (n <= 0) break;
            reply r{};
            if (parse_reply(bytes_view(rx.data(), std::size_t(n)), r)) rs.on_reply(r);
        }
    }
    std::uint32_t unfinished = o.clients - rs.completed - rs.failed;
    rs.failed += unfinished;

    std::uint32_t released = 0;
    if (o.release) {
        // Paced: nothing answers a RELEASE, and a burst overflows a server's
        // socket (dnsmasq's default buffer loses about a third of 2000 sent
        // back to back), leaving leases behind that the next crowd runs into.
        auto t0 = lg_clock::now();
        std::uint32_t sent = 0;
        for (std::uint32_t i = 0; i < o.clients; ++i) {
            if (rs.clients[i].st != state::bound) continue;
            auto due = t0 + std::chrono::duration_cast<lg_clock::duration>(
                                std::chrono::duration<double>(double(sent++) / o.release_rate));
            std::this_thread::sleep_until(due);
            std::size_t n = build(rs.txbuf, o, i, rs.clients[i], MSG_RELEASE);
            if (n && send(fd, rs.txbuf.data(), n, 0) == ssize_t(n)) ++released;
        }
    }
    close(fd);

    double seconds = rs.completed ? std::chrono::duration<double>(rs.last_ack - rs.first).count() : 0;
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    double cpu = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    std::printf("clients=%u completed=%u failed=%u seconds=%.3f dora_per_s=%.0f retransmits=%llu released=%u "
                "cpu_s=%.3f\n",
                o.clients, rs.completed, rs.failed, seconds, seconds > 0 ? rs.completed / seconds : 0.0,
                static_cast<unsigned long long>(rs.retransmits), released, cpu);
    return rs.completed == o.clients ? 0 : 1;
}
