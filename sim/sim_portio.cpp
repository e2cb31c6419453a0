#include "sim/sim_portio.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/log.h"
#include "lib/thread.h"
#include "sim/sim_frame.h"
#include "sim/sim_switch.h"

namespace {

enum {
    RX_BATCH = 64,        // frames per read run, then back to the loop
    RETRY_MS = 1000,
    RX_BUF = 2048,        // anything longer is oversized anyway
    SOCK_RCVBUF = 1 << 20,
};

// Interface flags and addresses go through an ordinary datagram socket.
bool ifreq_call(unsigned long req, ifreq &ifr)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) return false;
    bool ok = ioctl(s, req, &ifr) == 0;
    int err = errno;
    close(s);
    errno = err;
    return ok;
}

bool link_up(const std::string &name)
{
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", name.c_str());
    if (!ifreq_call(SIOCGIFFLAGS, ifr)) return false;
    if (ifr.ifr_flags & IFF_UP) return true;
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
    return ifreq_call(SIOCSIFFLAGS, ifr);
}

// A switch port is not a host interface: keep the kernel's IPv6 off it.
void write_proc(const std::string &path, const char *value)
{
    if (FILE *f = std::fopen(path.c_str(), "w")) {
        std::fputs(value, f);
        std::fclose(f);
    }
}

void quiet_ipv6(const std::string &name) { write_proc("/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6", "1"); }

// A switch port is no host interface: were the namespace's kernel to answer
// ARP on it for a VLAN interface's address, routed traffic would bypass the
// switch (and the DHCP trap) and reach the kernel straight from the port.
void quiet_port(const std::string &name)
{
    quiet_ipv6(name);
    write_proc("/proc/sys/net/ipv4/conf/" + name + "/arp_ignore", "8");
}

bool set_ipv4(const std::string &name, const std::string &cidr)
{
    std::size_t slash = cidr.find('/');
    in_addr a{};
    if (slash == std::string::npos || inet_pton(AF_INET, cidr.substr(0, slash).c_str(), &a) != 1) return false;
    int len = std::atoi(cidr.c_str() + slash + 1);
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", name.c_str());
    auto *sin = reinterpret_cast<sockaddr_in *>(&ifr.ifr_addr);
    sin->sin_family = AF_INET;
    sin->sin_addr = a;
    if (!ifreq_call(SIOCSIFADDR, ifr)) return false;
    sin->sin_addr.s_addr = htonl(len >= 32 ? 0xffffffffu : ~(0xffffffffu >> len));
    return ifreq_call(SIOCSIFNETMASK, ifr);
}

} // namespace

struct sim_portio::endpoint {
    sim_portio *owner = nullptr;
    bool tap = false;
    std::uint32_t ifindex = 0;  // ports
    std::uint16_t vid = 0;      // taps
    std::string ifname;
    int fd = -1;
    thread *t_read = nullptr;
    thread *t_retry = nullptr;
    bool waiting_logged = false;
    unsigned kernel_ifindex = 0;  // of the interface last opened
};

struct sim_portio_tasks {
    static int read(thread *t)
    {
        auto *e = static_cast<sim_portio::endpoint *>(THREAD_ARG(t));
        e->tap ? e->owner->read_tap(*e) : e->owner->read_port(*e);
        return 0;
    }
    static int retry(thread *t)
    {
        auto *e = static_cast<sim_portio::endpoint *>(THREAD_ARG(t));
        if (!e->owner->try_open(*e))
            thread_add_timer_msec(e->owner->tm_, retry, e, RETRY_MS, &e->t_retry);
        return 0;
    }
};

sim_portio::sim_portio(thread_master *tm, sim_model &m, sim_switch &sw) : tm_(tm), m_(m), sw_(sw) {}

sim_portio::~sim_portio() { stop(); }

void sim_portio::start()
{
    for (auto &[ix, p] : m_.ports)
        if (p.present && !p.linux_if.empty()) open_port(ix);
    for (auto &[vid, v] : m_.vlanifs) open_tap(vid);
}

void sim_portio::stop()
{
    for (auto &[k, e] : ports_) {
        thread_cancel(&e->t_read);
        thread_cancel(&e->t_retry);
        if (e->fd >= 0) close(e->fd);
    }
    ports_.clear();
    for (auto &[k, e] : taps_) {
        thread_cancel(&e->t_read);
        thread_cancel(&e->t_retry);
        if (e->fd >= 0) close(e->fd);
    }
    taps_.clear();
}

void sim_portio::open_port(std::uint32_t ifindex)
{
    const sim_port *p = m_.port(ifindex);
    if (!p || p->linux_if.empty()) return;
    auto &slot = ports_[ifindex];
    if (slot && slot->ifname == p->linux_if && (slot->fd >= 0 || slot->t_retry)) return;
    if (slot) close_port(ifindex);
    auto &e = ports_[ifindex];
    e = std::make_unique<endpoint>();
    e->owner = this;
    e->ifindex = ifindex;
    e->ifname = p->linux_if;
    if (!try_open(*e)) thread_add_timer_msec(tm_, sim_portio_tasks::retry, e.get(), RETRY_MS, &e->t_retry);
}

void sim_portio::close_port(std::uint32_t ifindex)
{
    auto it = ports_.find(ifindex);
    if (it == ports_.end()) return;
    endpoint &e = *it->second;
    thread_cancel(&e.t_read);
    thread_cancel(&e.t_retry);
    if (e.fd >= 0) close(e.fd);
    ports_.erase(it);
}

void sim_portio::open_tap(std::uint16_t vid)
{
    auto it = m_.vlanifs.find(vid);
    if (it == m_.vlanifs.end() || taps_.count(vid)) return;
    auto &e = taps_[vid];
    e = std::make_unique<endpoint>();
    e->owner = this;
    e->tap = true;
    e->vid = vid;
    e->ifname = it->second.ifname;
    if (!try_open(*e)) thread_add_timer_msec(tm_, sim_portio_tasks::retry, e.get(), RETRY_MS, &e->t_retry);
}

bool sim_portio::try_open(endpoint &e)
{
    if (e.tap) {
        const sim_vlanif &v = m_.vlanifs.at(e.vid);
        int fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ifreq ifr{};
        ifr.ifr_flags = IFF_TAP | IFF_NO_PI;
        std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", e.ifname.c_str());
        if (fd < 0 || ioctl(fd, TUNSETIFF, &ifr) < 0) {
            int err = errno;
            if (fd >= 0) close(fd);
            fail(e, "create", err);
            return false;
        }
        ifreq hw{};
        std::snprintf(hw.ifr_name, sizeof hw.ifr_name, "%s", e.ifname.c_str());
        hw.ifr_hwaddr.sa_family = ARPHRD_ETHER;
        std::memcpy(hw.ifr_hwaddr.sa_data, v.mac, 6);
        if (!ifreq_call(SIOCSIFHWADDR, hw)) zlog_err("oltsim: %s: cannot set MAC: %s", e.ifname.c_str(), strerror(errno));
        if (!link_up(e.ifname)) zlog_err("oltsim: %s: cannot bring up: %s", e.ifname.c_str(), strerror(errno));
        if (!v.address.empty() && !set_ipv4(e.ifname, v.address))
            zlog_err("oltsim: %s: cannot set address %s: %s", e.ifname.c_str(), v.address.c_str(), strerror(errno));
        e.fd = fd;
        e.waiting_logged = false;
        zlog_info("oltsim: VLAN interface %s up in VLAN %u", e.ifname.c_str(), e.vid);
        thread_add_read(tm_, sim_portio_tasks::read, &e, fd, &e.t_read);
        return true;
    }
    unsigned ifi = if_nametoindex(e.ifname.c_str());
    if (ifi == 0) {
        fail(e, "find", errno);
        return false;
    }
    // Each new interface is brought up once, before binding (binding to a down
    // interface reports an error); one taken down later stays down (someone
    // pulled the cable on purpose).
    if (ifi != e.kernel_ifindex) {
        quiet_port(e.ifname);
        if (!link_up(e.ifname)) zlog_err("oltsim: %s: cannot bring up: %s", e.ifname.c_str(), strerror(errno));
    }
    e.kernel_ifindex = ifi;
    // Protocol 0 until bound, so nothing from other interfaces slips in.
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        fail(e, "open", errno);
        return false;
    }
    int one = 1, rcv = SOCK_RCVBUF;
    setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one);
#ifdef PACKET_IGNORE_OUTGOING
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
#endif
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv);
    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = static_cast<int>(ifi);
    packet_mreq mr{};
    mr.mr_ifindex = static_cast<int>(ifi);
    mr.mr_type = PACKET_MR_PROMISC;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sll), sizeof sll) < 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mr, sizeof mr) < 0) {
        int err = errno;
        close(fd);
        fail(e, "bind", err);
        return false;
    }
    e.fd = fd;
    e.waiting_logged = false;
    const sim_port *p = m_.port(e.ifindex);
    zlog_info("oltsim: port %s on %s", p ? p->name.c_str() : "?", e.ifname.c_str());
    thread_add_read(tm_, sim_portio_tasks::read, &e, fd, &e.t_read);
    return true;
}

void sim_portio::fail(endpoint &e, const char *what, int err)
{
    thread_cancel(&e.t_read);
    if (e.fd >= 0) close(e.fd);
    e.fd = -1;
    // Said once per outage, not once per retry.
    if (!e.waiting_logged)
        zlog_err("oltsim: cannot %s interface %s: %s; retrying every second", what, e.ifname.c_str(),
                 strerror(err));
    e.waiting_logged = true;
}

void sim_portio::read_port(endpoint &e)
{
    std::uint8_t buf[std::size_t(RX_BUF) + SIM_TAG_LEN];
    for (int i = 0; i < RX_BATCH; ++i) {
        sockaddr_ll from{};
        iovec iov{buf, RX_BUF};
        alignas(cmsghdr) std::uint8_t ctrl[CMSG_SPACE(sizeof(tpacket_auxdata))];
        msghdr mh{};
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        mh.msg_control = ctrl;
        mh.msg_controllen = sizeof ctrl;
        ssize_t n = recvmsg(e.fd, &mh, MSG_TRUNC | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            if (errno == EINTR) continue;
            // Taken down: the socket stays bound and hears it again once up.
            if (errno == ENETDOWN && if_nametoindex(e.ifname.c_str()) == e.kernel_ifindex) {
                const sim_port *p = m_.port(e.ifindex);
                zlog_info("oltsim: interface %s of %s is down", e.ifname.c_str(), p ? p->name.c_str() : "?");
                break;
            }
            // Gone: reopen when it is back.
            fail(e, "read", errno);
            thread_add_timer_msec(tm_, sim_portio_tasks::retry, &e, RETRY_MS, &e.t_retry);
            return;
        }
        if (from.sll_pkttype == PACKET_OUTGOING) continue;
        std::size_t len = static_cast<std::size_t>(n);
        if (len > RX_BUF) {
            // Longer than any frame the switch takes; counted as oversized.
            if (sim_port *p = m_.port(e.ifindex)) {
                p->cnt.rx_frames++;
                p->cnt.rx_bytes += len;
                p->cnt.rx_drop_big++;
            }
            continue;
        }
        bool csum_undone = false;
        for (cmsghdr *c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c)) {
            if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA) continue;
            tpacket_auxdata aux;
            std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
            csum_undone = aux.tp_status & TP_STATUS_CSUMNOTREADY;
            // The kernel took the outer tag off; put it back where it was.
            if ((aux.tp_status & TP_STATUS_VLAN_VALID) && len >= 12) {
                std::uint16_t tpid = (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) ? aux.tp_vlan_tpid
                                                                                 : std::uint16_t(SIM_TPID_8021Q);
                std::memmove(buf + 12 + SIM_TAG_LEN, buf + 12, len - 12);
                bytes_span s(buf, len + SIM_TAG_LEN);
                put_be16_at(s, 12, tpid);
                put_be16_at(s, 14, aux.tp_vlan_tci);
                len += SIM_TAG_LEN;
            }
        }
        // A sender on a veth leaves its checksum to offload that never happens here.
        if (csum_undone) sim_frame_fill_l4_checksum(bytes_span(buf, len));
        sw_.rx_port(e.ifindex, bytes_view(buf, len));
    }
    if (e.fd >= 0) thread_add_read(tm_, sim_portio_tasks::read, &e, e.fd, &e.t_read);
}

void sim_portio::read_tap(endpoint &e)
{
    std::uint8_t buf[RX_BUF];
    for (int i = 0; i < RX_BATCH; ++i) {
        ssize_t n = read(e.fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            if (errno == EINTR) continue;
            fail(e, "read", errno);
            thread_add_timer_msec(tm_, sim_portio_tasks::retry, &e, RETRY_MS, &e.t_retry);
            return;
        }
        sw_.rx_vlanif(e.vid, bytes_view(buf, static_cast<std::size_t>(n)));
    }
    if (e.fd >= 0) thread_add_read(tm_, sim_portio_tasks::read, &e, e.fd, &e.t_read);
}

bool sim_portio::tx_port(const sim_port &p, bytes_view frame)
{
    auto it = ports_.find(p.ifindex);
    if (it == ports_.end() || it->second->fd < 0) return false;
    endpoint &e = *it->second;
    ssize_t n = send(e.fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(frame.size())) return true;
    if (n < 0 && (errno == ENXIO || errno == ENODEV)) {
        fail(e, "send on", errno);
        thread_add_timer_msec(tm_, sim_portio_tasks::retry, &e, RETRY_MS, &e.t_retry);
    }
    return false;
}

bool sim_portio::tx_vlanif(const sim_vlanif &v, bytes_view frame)
{
    auto it = taps_.find(v.vid);
    if (it == taps_.end() || it->second->fd < 0) return false;
    return write(it->second->fd, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size());
}

void sim_portio::on_event(const devmgr_msg_t &m)
{
    if (m.type == DEVMGR_IF_NEW) {
        const sim_port *p = m_.port(m.ifm.ifindex);
        if (p && p->present && !p->linux_if.empty()) open_port(p->ifindex);
    } else if (m.type == DEVMGR_IF_DEL) {
        close_port(m.ifm.ifindex);
    }
}

const char *sim_portio::port_state(std::uint32_t ifindex) const
{
    auto it = ports_.find(ifindex);
    if (it == ports_.end()) return "none";
    return it->second->fd >= 0 ? "open" : "waiting";
}

const char *sim_portio::vlanif_state(std::uint16_t vid) const
{
    auto it = taps_.find(vid);
    if (it == taps_.end()) return "none";
    return it->second->fd >= 0 ? "open" : "waiting";
}
