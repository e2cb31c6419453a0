#include "sim/sim_fpchan.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "devlib/ifindex.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/errcode.h"
#include "sim/sim_rules.h"
#include "sim/sim_switch.h"

namespace {

enum {
    MAX_CONNS = 8,
    RX_BATCH = 64,
    RX_BUF = 4096,              // the largest message is a 1680-byte packet
    SNDBUF = 4 << 20,
    MAC_REPLY_LEN = HAL_MSG_HDR_LEN + 8,
};

bool worth_logging(std::uint64_t n) { return n && (n & (n - 1)) == 0; }

std::vector<std::uint8_t> u32_reply(std::uint16_t type, std::uint32_t seq, std::uint32_t result)
{
    std::vector<std::uint8_t> r(HAL_MSG_REG_LEN);
    hal_msg_u32_build(r, type, 0, seq, result);
    return r;
}

} // namespace

struct sim_fpchan::conn {
    sim_fpchan *owner = nullptr;
    int fd = -1;
    thread *t_read = nullptr;
    bool registered = false;
    std::uint32_t module = 0;
};

struct sim_fpchan_tasks {
    static int accept(thread *t)
    {
        auto *ch = static_cast<sim_fpchan *>(THREAD_ARG(t));
        ch->accept_one();
        return 0;
    }
    static int read(thread *t)
    {
        auto *c = static_cast<sim_fpchan::conn *>(THREAD_ARG(t));
        c->owner->read_conn(*c);
        return 0;
    }
};

bool sim_pkt_msg_build(bytes_span msg, const hal_msg_pkt_t &p, const frame_info &fi)
{
    if (!hal_msg_pkt_build(msg, p, 0, 0, 0)) return false;
    // The layer-2/3 summary is informative; the module parses the frame itself.
    bytes_span payload = msg.subspan(HAL_MSG_HDR_LEN);
    wire_writer w(payload, HAL_PKT_OFF_VLAN_DEPTH);
    bool ok = w.u8(static_cast<std::uint8_t>(fi.ntags));
    wire_writer s(payload, HAL_PKT_OFF_VLAN_STACK);
    for (int i = 0; i < fi.ntags && i < 3; ++i) ok = ok && s.host(fi.tags[i].tpid) && s.host(fi.tags[i].tci);
    wire_writer t(payload, HAL_PKT_OFF_ETHTYPE);
    std::uint16_t proto = fi.ip_proto;
    return ok && t.host(fi.ethertype) && t.host(proto);
}

sim_fpchan::sim_fpchan(thread_master *tm, sim_model &m, sim_switch &sw) : tm_(tm), m_(m), sw_(sw) {}

sim_fpchan::~sim_fpchan() { stop(); }

bool sim_fpchan::start(const std::string &path)
{
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof sun.sun_path) {
        zlog_err("oltsim: channel path '%s' unusable", path.c_str());
        return false;
    }
    std::memcpy(sun.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0 || listen(fd, 8) < 0) {
        zlog_err("oltsim: cannot listen on %s: %s", path.c_str(), strerror(errno));
        if (fd >= 0) close(fd);
        return false;
    }
    path_ = path;
    listen_fd_ = fd;
    thread_add_read(tm_, sim_fpchan_tasks::accept, this, fd, &t_accept_);
    return true;
}

void sim_fpchan::stop()
{
    thread_cancel(&t_accept_);
    while (!conns_.empty()) drop_conn(conns_.back().get());
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        unlink(path_.c_str());
    }
    listen_fd_ = -1;
}

void sim_fpchan::accept_one()
{
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
        if (conns_.size() >= MAX_CONNS) {
            stats_.refused_conns++;
            zlog_err("oltsim: channel connection refused: %d open already", MAX_CONNS);
            close(fd);
        } else {
            int sndbuf = SNDBUF;
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
            auto c = std::make_unique<conn>();
            c->owner = this;
            c->fd = fd;
            thread_add_read(tm_, sim_fpchan_tasks::read, c.get(), fd, &c->t_read);
            conns_.push_back(std::move(c));
            stats_.connects++;
        }
    }
    thread_add_read(tm_, sim_fpchan_tasks::accept, this, listen_fd_, &t_accept_);
}

void sim_fpchan::drop_conn(conn *c)
{
    for (auto it = conns_.begin(); it != conns_.end(); ++it) {
        if (it->get() != c) continue;
        thread_cancel(&c->t_read);
        close(c->fd);
        if (c->registered) zlog_info("oltsim: module %u went away", c->module);
        stats_.disconnects++;
        conns_.erase(it);
        return;
    }
}

void sim_fpchan::read_conn(conn &c)
{
    std::uint8_t buf[RX_BUF];
    for (int i = 0; i < RX_BATCH; ++i) {
        ssize_t n = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT | MSG_TRUNC);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            drop_conn(&c);
            return;
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (static_cast<std::size_t>(n) > sizeof buf) {
            if (worth_logging(++stats_.rx_bad))
                zlog_err("oltsim: channel message of %zd bytes refused (%llu bad so far)", n,
                         (unsigned long long)stats_.rx_bad);
            continue;
        }
        bool was = c.registered;
        std::vector<std::uint8_t> reply = handle(bytes_view(buf, static_cast<std::size_t>(n)), c.registered, c.module);
        if (c.registered && !was) zlog_info("oltsim: module %u registered", c.module);
        if (!reply.empty() && send(c.fd, reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 &&
            errno != EAGAIN) {
            drop_conn(&c);
            return;
        }
    }
    thread_add_read(tm_, sim_fpchan_tasks::read, &c, c.fd, &c.t_read);
}

std::vector<std::uint8_t> sim_fpchan::handle(bytes_view dgram, bool &registered, std::uint32_t &module)
{
    stats_.rx_msgs++;
    hal_msg_hdr_t h{};
    if (!hal_msg_hdr_decode(dgram, h) || h.nlmsg_len < HAL_MSG_HDR_LEN || h.nlmsg_len > dgram.size()) {
        if (worth_logging(++stats_.rx_bad))
            zlog_err("oltsim: channel message of %zu bytes with bad framing dropped (%llu bad so far)",
                     dgram.size(), (unsigned long long)stats_.rx_bad);
        return {};
    }
    bytes_view msg = dgram.first(h.nlmsg_len);
    bytes_view payload = msg.subspan(HAL_MSG_HDR_LEN);
    auto bad = [&](const char *what) {
        if (worth_logging(++stats_.rx_bad))
            zlog_err("oltsim: channel %s (type %u, %u bytes) refused (%llu bad so far)", what,
                     h.nlmsg_type, h.nlmsg_len, (unsigned long long)stats_.rx_bad);
        return u32_reply(h.nlmsg_type, h.nlmsg_seq, TAVO_PARAM);
    };

    switch (h.nlmsg_type) {
    case HAL_MSG_TYPE_REGISTER: {
        std::uint32_t mod;
        if (!hal_msg_u32_decode(msg, mod)) return bad("short registration");
        registered = true;
        module = mod;
        stats_.registrations++;
        return u32_reply(h.nlmsg_type, h.nlmsg_seq, 0);
    }
    case HAL_MSG_TYPE_PKT: {
        hal_msg_pkt_t p{};
        if (!hal_msg_pkt_decode(payload, p)) {
            bad("short packet message");
            return {};
        }
        stats_.pkts_in++;
        sw_.from_module(p);
        return {};
    }
    case HAL_MSG_DHCP_VLAN_ENABLE:
    case HAL_MSG_DHCPV6_VLAN_ENABLE: {
        hal_msg_dhcp_s r{};
        if (!sim_dhcp_req_decode(payload, r)) return bad("short trap request");
        stats_.requests++;
        int family = h.nlmsg_type == HAL_MSG_DHCP_VLAN_ENABLE ? 4 : 6;
        int rc = sw_.traps().set(family, r.vid, r.enable != 0);
        zlog_info("oltsim: DHCPv%d trap %s on VLAN %u%s", family, r.enable ? "on" : "off",
                  r.vid, rc ? " refused" : "");
        return u32_reply(h.nlmsg_type, h.nlmsg_seq, static_cast<std::uint32_t>(rc));
    }
    case HAL_MSG_DHCP_IP_SOURCE: {
        hal_msg_dhcp_ip_source_s r{};
        if (!sim_ip_source_req_decode(payload, r)) return bad("short source-guard request");
        stats_.requests++;
        int rc = sw_.guard().apply(r);
        if (r.ifindex != SIM_GUARD_ALL_PORTS && !m_.port(r.ifindex))
            zlog_err("oltsim: source-guard rule names unknown port %#x (kept)", r.ifindex);
        if (rc) zlog_err("oltsim: source-guard request on VLAN %u port %#x action %u: result %d", r.vid,
                         r.ifindex, r.action, rc);
        return u32_reply(h.nlmsg_type, h.nlmsg_seq, static_cast<std::uint32_t>(rc));
    }
    case HAL_MSG_MAC_GET_PORT: {
        std::uint8_t mac[6];
        std::uint16_t vid;
        if (!sim_mac_req_decode(payload, mac, vid)) return bad("short MAC lookup");
        stats_.requests++;
        const sim_mac_entry *e = vid ? sw_.macs().lookup(vid, mac) : sw_.macs().lookup_any(mac);
        std::vector<std::uint8_t> r(MAC_REPLY_LEN);
        hal_msg_hdr_t rh{MAC_REPLY_LEN, h.nlmsg_type, 0, h.nlmsg_seq, 0};
        std::uint32_t result = e ? 0u : static_cast<std::uint32_t>(TAVO_NOT_FOUND);
        std::uint32_t port = e ? e->rx_ifindex : 0;
        wire_writer w(r, HAL_MSG_HDR_LEN);
        hal_msg_hdr_encode(r, rh);
        w.host(result);
        w.host(port);
        return r;
    }
    default:
        return bad("unknown message");
    }
}

bool sim_fpchan::deliver(const hal_msg_pkt_t &p, const frame_info &fi)
{
    conn *to = nullptr;
    for (auto it = conns_.rbegin(); it != conns_.rend() && !to; ++it)
        if ((*it)->registered) to = it->get();
    std::uint8_t msg[HAL_PKT_MSG_LEN];
    if (!to || !sim_pkt_msg_build(msg, p, fi)) {
        stats_.pkts_out_drop++;
        return false;
    }
    // Never wait for a slow module: a full socket drops the frame.
    if (send(to->fd, msg, sizeof msg, MSG_DONTWAIT | MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof msg)) {
        stats_.pkts_out_drop++;
        if (errno != EAGAIN && errno != EWOULDBLOCK) drop_conn(to);
        return false;
    }
    stats_.pkts_out++;
    return true;
}

int sim_fpchan::connections() const { return static_cast<int>(conns_.size()); }

std::uint32_t sim_fpchan::module() const
{
    for (auto it = conns_.rbegin(); it != conns_.rend(); ++it)
        if ((*it)->registered) return (*it)->module;
    return 0;
}
