#include "sim/sim_devmgr.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "devlib/devmgr_io.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "sim/sim_device.h"

namespace {

enum {
    OUT_CAP = 8 << 20,      // a client that stops reading is dropped past this
    FLUSH_MS = 20,
    CONNECT_MS = 500,
    MAX_CONNS = 32,
};

} // namespace

struct sim_devmgr::conn {
    sim_devmgr *owner = nullptr;
    int fd = -1;
    bool async = false;
    thread *t_read = nullptr;
    std::unique_ptr<devmgr_rxbuf> rx;  // sync connections only
    std::vector<std::uint8_t> out;
};

struct sim_devmgr_tasks {
    static int accept_sync(thread *t)
    {
        static_cast<sim_devmgr *>(THREAD_ARG(t))->accept(false);
        return 0;
    }
    static int accept_async(thread *t)
    {
        static_cast<sim_devmgr *>(THREAD_ARG(t))->accept(true);
        return 0;
    }
    static int read(thread *t)
    {
        auto *c = static_cast<sim_devmgr::conn *>(THREAD_ARG(t));
        c->owner->read_conn(*c);
        return 0;
    }
    static int flush(thread *t)
    {
        static_cast<sim_devmgr *>(THREAD_ARG(t))->flush_all();
        return 0;
    }
};

sim_devmgr::sim_devmgr(thread_master *tm, sim_device &dev) : tm_(tm), dev_(dev) {}

sim_devmgr::~sim_devmgr() { stop(); }

bool sim_devmgr::start(std::uint16_t sync_port, std::uint16_t async_port, std::uint16_t client_port)
{
    stop();
    sync_listen_ = devmgr_tcp_listen(INADDR_LOOPBACK, sync_port, &sync_port_);
    async_listen_ = devmgr_tcp_listen(INADDR_LOOPBACK, async_port, &async_port_);
    if (sync_listen_ < 0 || async_listen_ < 0) {
        zlog_err("oltsim: device manager cannot listen on 127.0.0.1:%u/%u: %s", sync_port, async_port,
                 strerror(errno));
        stop();
        return false;
    }
    client_port_ = client_port;
    thread_add_read(tm_, sim_devmgr_tasks::accept_sync, this, sync_listen_, &t_sync_);
    thread_add_read(tm_, sim_devmgr_tasks::accept_async, this, async_listen_, &t_async_);
    zlog_info("oltsim: device manager on 127.0.0.1:%u (sync) and %u (async)", sync_port_, async_port_);

    // A client that outlived the previous manager waits on its listening port.
    std::vector<std::uint16_t> ports = hello_ports_;
    if (client_port_ && std::find(ports.begin(), ports.end(), client_port_) == ports.end())
        ports.push_back(client_port_);
    for (std::uint16_t p : ports) {
        int fd = devmgr_tcp_connect(INADDR_LOOPBACK, p, CONNECT_MS);
        if (fd < 0) continue;
        zlog_info("oltsim: reached a waiting client on port %u", p);
        add_async(fd);
    }
    return true;
}

void sim_devmgr::stop()
{
    thread_cancel(&t_sync_);
    thread_cancel(&t_async_);
    thread_cancel(&t_flush_);
    while (!conns_.empty()) drop(conns_.back().get());
    for (int *fd : {&sync_listen_, &async_listen_}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

bool sim_devmgr::restart()
{
    std::uint16_t s = sync_port_, a = async_port_, c = client_port_;
    stop();
    return start(s, a, c);
}

void sim_devmgr::accept(bool async)
{
    int lfd = async ? async_listen_ : sync_listen_;
    int fd = accept4(lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0 && conns_.size() >= MAX_CONNS) {
        zlog_err("oltsim: device manager connection refused: %d open already", MAX_CONNS);
        close(fd);
    } else if (fd >= 0 && async) {
        add_async(fd);
    } else if (fd >= 0) {
        auto c = std::make_unique<conn>();
        c->owner = this;
        c->fd = fd;
        c->rx = std::make_unique<devmgr_rxbuf>();
        thread_add_read(tm_, sim_devmgr_tasks::read, c.get(), fd, &c->t_read);
        conns_.push_back(std::move(c));
        stats_.sync_conns++;
    }
    if (async) thread_add_read(tm_, sim_devmgr_tasks::accept_async, this, async_listen_, &t_async_);
    else thread_add_read(tm_, sim_devmgr_tasks::accept_sync, this, sync_listen_, &t_sync_);
}

void sim_devmgr::add_async(int fd)
{
    auto c = std::make_unique<conn>();
    c->owner = this;
    c->fd = fd;
    c->async = true;
    thread_add_read(tm_, sim_devmgr_tasks::read, c.get(), fd, &c->t_read);
    conn *raw = c.get();
    conns_.push_back(std::move(c));
    stats_.async_conns++;
    stats_.replays++;
    send(*raw, dev_.replay());
}

void sim_devmgr::drop(conn *c)
{
    for (auto it = conns_.begin(); it != conns_.end(); ++it) {
        if (it->get() != c) continue;
        thread_cancel(&c->t_read);
        close(c->fd);
        conns_.erase(it);
        return;
    }
}

void sim_devmgr::read_conn(conn &c)
{
    if (c.async) {
        // Notifications flow one way; whatever arrives is read and ignored.
        std::uint8_t junk[1024];
        ssize_t n = recv(c.fd, junk, sizeof junk, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            drop(&c);
            return;
        }
        thread_add_read(tm_, sim_devmgr_tasks::read, &c, c.fd, &c.t_read);
        return;
    }
    if (c.rx->fill(c.fd) < 0) {
        drop(&c);
        return;
    }
    for (;;) {
        devmgr_msg_t m{};
        int r = c.rx->next(m);
        if (r == 0) break;
        if (r < 0) {
            stats_.broken++;
            zlog_err("oltsim: device manager client sent an unframeable stream, closing");
            drop(&c);
            return;
        }
        if (r == 2) {
            zlog_err("oltsim: device manager request type %#x unknown, skipped", m.type);
            continue;
        }
        if (!serve(c, m)) return;
    }
    thread_add_read(tm_, sim_devmgr_tasks::read, &c, c.fd, &c.t_read);
}

bool sim_devmgr::serve(conn &c, const devmgr_msg_t &m)
{
    stats_.requests++;
    devmgr_msg_t r{};
    r.seq = m.seq;
    switch (m.type) {
    case DEVMGR_HELLO:
        hello_ = m.hello;
        if (m.hello.listen_port &&
            std::find(hello_ports_.begin(), hello_ports_.end(), m.hello.listen_port) == hello_ports_.end())
            hello_ports_.push_back(m.hello.listen_port);
        zlog_info("oltsim: hello from %s pid %u, listening on %u", m.hello.progname, m.hello.pid,
                  m.hello.listen_port);
        r.type = DEVMGR_HELLO_ACK;
        r.result = 0;
        break;
    case DEVMGR_GET_HOSTNAME:
        r.type = DEVMGR_HOSTNAME;
        std::snprintf(r.hostname, sizeof r.hostname, "%s", dev_.model().hostname.c_str());
        break;
    case DEVMGR_CFG_SYNC_PRIO_SET:
        prio_ = m.prio;
        r.type = DEVMGR_RESULT;
        break;
    case DEVMGR_CFG_RECOVERY_RESULT:
        recovery_ = m.recovery;
        zlog_info("oltsim: %s reports configuration recovery of slot %u: %u", m.recovery.name,
                  m.recovery.slotid, m.recovery.result);
        r.type = DEVMGR_RESULT;
        break;
    default:
        zlog_err("oltsim: %s is not a request, ignored", devmgr_type_name(m.type));
        return true;
    }
    std::vector<std::uint8_t> out;
    devmgr_encode(r, out);
    return send(c, out);
}

bool sim_devmgr::send(conn &c, const std::vector<std::uint8_t> &bytes)
{
    if (c.out.empty()) {
        ssize_t n = ::send(c.fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            drop(&c);
            return false;
        }
        std::size_t done = n > 0 ? static_cast<std::size_t>(n) : 0;
        if (done == bytes.size()) return true;
        c.out.assign(bytes.begin() + static_cast<std::ptrdiff_t>(done), bytes.end());
    } else {
        c.out.insert(c.out.end(), bytes.begin(), bytes.end());
    }
    if (c.out.size() > OUT_CAP) {
        stats_.overflows++;
        zlog_err("oltsim: device manager client not reading, %zu bytes pending: dropped", c.out.size());
        drop(&c);
        return false;
    }
    thread_add_timer_msec(tm_, sim_devmgr_tasks::flush, this, FLUSH_MS, &t_flush_);
    return true;
}

void sim_devmgr::flush_all()
{
    std::vector<conn *> dead;
    bool pending = false;
    for (auto &c : conns_) {
        if (c->out.empty()) continue;
        ssize_t n = ::send(c->fd, c->out.data(), c->out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            dead.push_back(c.get());
            continue;
        }
        if (n > 0) c->out.erase(c->out.begin(), c->out.begin() + n);
        pending = pending || !c->out.empty();
    }
    for (conn *c : dead) drop(c);
    if (pending) thread_add_timer_msec(tm_, sim_devmgr_tasks::flush, this, FLUSH_MS, &t_flush_);
}

void sim_devmgr::notify(const devmgr_msg_t &m)
{
    std::vector<std::uint8_t> out;
    if (!devmgr_encode(m, out)) return;
    stats_.notifications++;
    // Collected first: a send may drop a connection.
    std::vector<conn *> targets;
    for (auto &c : conns_)
        if (c->async) targets.push_back(c.get());
    for (conn *c : targets) send(*c, out);
}

int sim_devmgr::sync_clients() const
{
    return static_cast<int>(std::count_if(conns_.begin(), conns_.end(), [](auto &c) { return !c->async; }));
}

int sim_devmgr::async_clients() const
{
    return static_cast<int>(std::count_if(conns_.begin(), conns_.end(), [](auto &c) { return c->async; }));
}
