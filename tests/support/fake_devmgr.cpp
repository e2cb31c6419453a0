#include "tests/support/fake_devmgr.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "devlib/devmgr_io.h"

namespace {

constexpr int SEND_TIMEOUT_MS = 2000;
const std::uint8_t NO_VLANS[UVLAN_BITMAP_LEN] = {};

void set_str(char *dst, std::size_t cap, const std::string &s)
{
    std::size_t n = std::min(s.size(), cap - 1);
    std::memcpy(dst, s.data(), n);
    dst[n] = '\0';
}

// One builder per message, shared by the replay and the notifications.
devmgr_msg_t msg(std::uint16_t type)
{
    devmgr_msg_t m{};
    m.type = type;
    return m;
}

devmgr_msg_t host_msg(const std::string &name)
{
    devmgr_msg_t m = msg(DEVMGR_HOST);
    set_str(m.hostname, sizeof m.hostname, name);
    return m;
}

devmgr_msg_t if_msg(std::uint16_t type, const umsg_if_t &info)
{
    devmgr_msg_t m = msg(type);
    m.ifm = info;
    return m;
}

devmgr_msg_t vlan_msg(std::uint16_t type, const std::uint8_t *bitmap)
{
    devmgr_msg_t m = msg(type);
    std::memcpy(m.vlan.uvlan, bitmap, UVLAN_BITMAP_LEN);
    return m;
}

devmgr_msg_t vlan_port_msg(std::uint32_t ifindex, std::uint16_t op, std::uint16_t tag, std::uint16_t pvid,
                           const std::uint8_t *bitmap)
{
    devmgr_msg_t m = msg(DEVMGR_VLAN_PORT);
    m.vlan_port.ifindex = ifindex;
    m.vlan_port.op = op;
    m.vlan_port.tag = tag;
    m.vlan_port.pvid = pvid;
    std::memcpy(m.vlan_port.uvlan, bitmap, UVLAN_BITMAP_LEN);
    return m;
}

devmgr_msg_t trunk_msg(std::uint32_t member, std::uint32_t trunk_id)
{
    devmgr_msg_t m = msg(DEVMGR_TRUNK_SET);
    m.trunk = {member, trunk_id};
    return m;
}

devmgr_msg_t onu_msg(std::uint32_t ifindex, int status, const std::string &sn)
{
    devmgr_msg_t m = msg(DEVMGR_ONU_STATUS);
    m.onu.ifindex = ifindex;
    m.onu.status = status;
    set_str(m.onu.onu_sn, sizeof m.onu.onu_sn, sn);
    return m;
}

// A bitmap holding one VLAN.
struct one_vlan {
    explicit one_vlan(std::uint16_t vid) { uvlan_bitmap_set(bm, vid); }
    std::uint8_t bm[UVLAN_BITMAP_LEN] = {};
};

} // namespace

fake_devmgr::~fake_devmgr() { stop(); }

bool fake_devmgr::start(std::uint16_t sync_port, std::uint16_t async_port)
{
    stop();
    std::lock_guard<std::mutex> lk(mu_);
    if (sync_port == 0 && async_port == 0) {
        sync_port = sync_port_;
        async_port = async_port_;
    }
    sync_listen_ = devmgr_tcp_listen(INADDR_LOOPBACK, sync_port, &sync_port_);
    async_listen_ = devmgr_tcp_listen(INADDR_LOOPBACK, async_port, &async_port_);
    if (sync_listen_ < 0 || async_listen_ < 0 || pipe(wake_) < 0) {
        for (int *fd : {&sync_listen_, &async_listen_}) {
            if (*fd >= 0) close(*fd);
            *fd = -1;
        }
        return false;
    }
    // A restarted manager finds the client where it said it listens.
    if (hello_seen_ && hello_.listen_port) {
        int fd = devmgr_tcp_connect(INADDR_LOOPBACK, hello_.listen_port, SEND_TIMEOUT_MS);
        if (fd >= 0) {
            async_conns_.push_back(fd);
            replay_locked(fd);
        }
    }
    thread_ = std::thread(&fake_devmgr::run, this, wake_[0]);
    return true;
}

void fake_devmgr::stop()
{
    if (thread_.joinable()) {
        (void)!write(wake_[1], "x", 1);
        thread_.join();
    }
    std::lock_guard<std::mutex> lk(mu_);
    for (int *fd : {&sync_listen_, &async_listen_, &wake_[0], &wake_[1]}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    for (auto &c : sync_conns_) close(c.fd);
    for (int fd : async_conns_) close(fd);
    sync_conns_.clear();
    async_conns_.clear();
    cv_.notify_all();
}

std::uint16_t fake_devmgr::sync_port() const { std::lock_guard<std::mutex> lk(mu_); return sync_port_; }

std::uint16_t fake_devmgr::async_port() const { std::lock_guard<std::mutex> lk(mu_); return async_port_; }

void fake_devmgr::run(int wake_fd)
{
    for (;;) {
        std::vector<pollfd> p;
        {
            std::lock_guard<std::mutex> lk(mu_);
            p.push_back({wake_fd, POLLIN, 0});
            p.push_back({sync_listen_, POLLIN, 0});
            p.push_back({async_listen_, POLLIN, 0});
            for (auto &c : sync_conns_) p.push_back({c.fd, POLLIN, 0});
            for (int fd : async_conns_) p.push_back({fd, POLLIN, 0});
        }
        if (poll(p.data(), p.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (p[0].revents) return;
        std::unique_lock<std::mutex> lk(mu_);
        if (p[1].revents & POLLIN) {
            int fd = accept4(sync_listen_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) sync_conns_.push_back({fd, {}});
        }
        if (p[2].revents & POLLIN) {
            int fd = accept4(async_listen_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                async_conns_.push_back(fd);
                replay_locked(fd);
            }
        }
        for (std::size_t i = 3; i < p.size(); ++i) {
            if (!p[i].revents) continue;
            int fd = p[i].fd;
            auto sc = std::find_if(sync_conns_.begin(), sync_conns_.end(),
                                   [fd](const sync_conn &c) { return c.fd == fd; });
            if (sc != sync_conns_.end()) {
                serve_sync(*sc);
                continue;
            }
            // The async side is one-way: anything readable is the client going away.
            std::uint8_t junk[256];
            ssize_t n = recv(fd, junk, sizeof junk, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN)) {
                close(fd);
                async_conns_.erase(std::remove(async_conns_.begin(), async_conns_.end(), fd),
                                   async_conns_.end());
            }
        }
        // Closed sync connections are marked with fd -1 by serve_sync.
        sync_conns_.erase(std::remove_if(sync_conns_.begin(), sync_conns_.end(),
                                         [](const sync_conn &c) { return c.fd < 0; }),
                          sync_conns_.end());
        cv_.notify_all();
    }
}

void fake_devmgr::serve_sync(sync_conn &c)
{
    std::uint8_t buf[4096];
    ssize_t n = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        close(c.fd);
        c.fd = -1;
        return;
    }
    if (n < 0) return;
    c.in.insert(c.in.end(), buf, buf + n);
    for (;;) {
        devmgr_hdr_t h{};
        std::size_t whole = 0;
        int f = devmgr_frame(c.in, h, whole);
        if (f == DEVMGR_FRAME_MORE) return;
        devmgr_msg_t m{};
        if (f == DEVMGR_FRAME_BAD ||
            devmgr_decode(h, bytes_view(c.in).subspan(DEVMGR_HDR_LEN, h.length), m) == DEVMGR_DEC_SHORT) {
            close(c.fd);
            c.fd = -1;
            return;
        }
        c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(whole));
        requests_.push_back(m);
        answer(c.fd, m);
    }
}

void fake_devmgr::answer(int fd, const devmgr_msg_t &req)
{
    devmgr_msg_t r{};
    r.seq = req.seq;
    switch (req.type) {
    case DEVMGR_HELLO:
        hello_ = req.hello;
        hello_seen_ = true;
        r.type = DEVMGR_HELLO_ACK;
        break;
    case DEVMGR_GET_HOSTNAME:
        if (!answer_hostname_) return;
        r.type = DEVMGR_HOSTNAME;
        set_str(r.hostname, sizeof r.hostname, hostname_);
        break;
    case DEVMGR_CFG_SYNC_PRIO_SET:
    case DEVMGR_CFG_RECOVERY_RESULT:
        r.type = DEVMGR_RESULT;
        r.result = result_;
        break;
    default: return;
    }
    devmgr_send(fd, r, SEND_TIMEOUT_MS);
}

void fake_devmgr::replay_locked(int fd)
{
    std::vector<std::uint8_t> out;
    auto add = [&](const devmgr_msg_t &m) { devmgr_encode(m, out); };
    add(msg(DEVMGR_REPLAY_START));
    add(host_msg(hostname_));
    if (st_get_min_vlan_in_bitmap(vlans_) >= 0) add(vlan_msg(DEVMGR_VLAN_CREATE, vlans_));
    for (auto &[ifindex, p] : ports_) add(if_msg(DEVMGR_IF_NEW, p.info));
    for (auto &[ifindex, p] : ports_) {
        if (p.trunk) add(trunk_msg(ifindex, p.trunk));
        // The port VLAN id first: setting it empties the tagged and untagged sets.
        if (p.pvid) add(vlan_port_msg(ifindex, UMSG_VLAN_PORT_PVID, 0, p.pvid, NO_VLANS));
        if (st_get_min_vlan_in_bitmap(p.tagged) >= 0) add(vlan_port_msg(ifindex, UMSG_VLAN_PORT_ADD, 0, 0, p.tagged));
        if (st_get_min_vlan_in_bitmap(p.untagged) >= 0)
            add(vlan_port_msg(ifindex, UMSG_VLAN_PORT_ADD, 1, 0, p.untagged));
    }
    for (auto &[ifindex, o] : onus_) add(onu_msg(ifindex, o.status, o.sn));
    add(msg(DEVMGR_REPLAY_END));
    devmgr_send_bytes(fd, out.data(), out.size(), SEND_TIMEOUT_MS);
    ++replays_;
}

void fake_devmgr::send_all_locked(const std::vector<std::uint8_t> &bytes)
{
    for (int fd : async_conns_) devmgr_send_bytes(fd, bytes.data(), bytes.size(), SEND_TIMEOUT_MS);
}

void fake_devmgr::push_locked(const devmgr_msg_t &m)
{
    std::vector<std::uint8_t> out;
    if (devmgr_encode(m, out)) send_all_locked(out);
}

void fake_devmgr::push(const devmgr_msg_t &m) { std::lock_guard<std::mutex> lk(mu_); push_locked(m); }

void fake_devmgr::push_raw(bytes_view bytes)
{
    std::lock_guard<std::mutex> lk(mu_);
    send_all_locked(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}

void fake_devmgr::set_hostname(const std::string &name)
{
    std::lock_guard<std::mutex> lk(mu_);
    hostname_ = name;
    push_locked(host_msg(name));
}

void fake_devmgr::add_port(std::uint32_t ifindex, const std::string &name, bool up)
{
    umsg_if_t m{};
    m.ifindex = ifindex;
    set_str(m.name, sizeof m.name, name);
    m.status = up ? 1 : 0;
    m.admin = 1;
    add_port(m);
}

void fake_devmgr::add_port(const umsg_if_t &info)
{
    std::lock_guard<std::mutex> lk(mu_);
    ports_[info.ifindex].info = info;
    push_locked(if_msg(DEVMGR_IF_NEW, info));
}

void fake_devmgr::del_port(std::uint32_t ifindex)
{
    std::lock_guard<std::mutex> lk(mu_);
    umsg_if_t info{};
    info.ifindex = ifindex;
    if (auto it = ports_.find(ifindex); it != ports_.end()) {
        info = it->second.info;
        ports_.erase(it);
    }
    onus_.erase(ifindex);
    push_locked(if_msg(DEVMGR_IF_DEL, info));
}

void fake_devmgr::set_port_status(std::uint32_t ifindex, bool up)
{
    std::lock_guard<std::mutex> lk(mu_);
    umsg_if_t unknown{};
    unknown.ifindex = ifindex;
    auto it = ports_.find(ifindex);
    umsg_if_t &info = it != ports_.end() ? it->second.info : unknown;
    info.status = up ? 1 : 0;
    push_locked(if_msg(DEVMGR_IF_STATUS, info));
}

void fake_devmgr::add_vlan(std::uint16_t vid)
{
    std::lock_guard<std::mutex> lk(mu_);
    uvlan_bitmap_set(vlans_, vid);
    push_locked(vlan_msg(DEVMGR_VLAN_CREATE, one_vlan(vid).bm));
}

void fake_devmgr::del_vlan(std::uint16_t vid)
{
    std::lock_guard<std::mutex> lk(mu_);
    uvlan_bitmap_clear(vlans_, vid);
    for (auto &[ifindex, p] : ports_) {
        uvlan_bitmap_clear(p.tagged, vid);
        uvlan_bitmap_clear(p.untagged, vid);
    }
    push_locked(vlan_msg(DEVMGR_VLAN_DESTROY, one_vlan(vid).bm));
}

void fake_devmgr::port_add_vlan(std::uint32_t ifindex, std::uint16_t vid, bool tagged)
{
    std::lock_guard<std::mutex> lk(mu_);
    port_state &p = ports_[ifindex];
    uvlan_bitmap_set(tagged ? p.tagged : p.untagged, vid);
    uvlan_bitmap_clear(tagged ? p.untagged : p.tagged, vid);
    push_locked(vlan_port_msg(ifindex, UMSG_VLAN_PORT_ADD, tagged ? 0 : 1, 0, one_vlan(vid).bm));
}

void fake_devmgr::port_del_vlan(std::uint32_t ifindex, std::uint16_t vid, bool tagged)
{
    std::lock_guard<std::mutex> lk(mu_);
    port_state &p = ports_[ifindex];
    uvlan_bitmap_clear(tagged ? p.tagged : p.untagged, vid);
    push_locked(vlan_port_msg(ifindex, UMSG_VLAN_PORT_DEL, tagged ? 0 : 1, 0, one_vlan(vid).bm));
}

void fake_devmgr::set_pvid(std::uint32_t ifindex, std::uint16_t pvid)
{
    std::lock_guard<std::mutex> lk(mu_);
    port_state &p = ports_[ifindex];
    // Same rule as the client: a port VLAN id makes the port an access port.
    p.pvid = pvid;
    std::memset(p.tagged, 0, sizeof p.tagged);
    std::memset(p.untagged, 0, sizeof p.untagged);
    push_locked(vlan_port_msg(ifindex, UMSG_VLAN_PORT_PVID, 0, pvid, NO_VLANS));
}

void fake_devmgr::set_trunk(std::uint32_t member, std::uint32_t trunk_id)
{
    std::lock_guard<std::mutex> lk(mu_);
    ports_[member].trunk = trunk_id;
    push_locked(trunk_msg(member, trunk_id));
}

void fake_devmgr::set_onu_status(std::uint32_t ifindex, int status, const std::string &sn)
{
    std::lock_guard<std::mutex> lk(mu_);
    onus_[ifindex] = {status, sn};
    push_locked(onu_msg(ifindex, status, sn));
}

bool fake_devmgr::wait_hello(int timeout_ms)
{
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&] { return hello_seen_; });
}

devmgr_hello_t fake_devmgr::hello() const { std::lock_guard<std::mutex> lk(mu_); return hello_; }

bool fake_devmgr::wait_async_clients(int n, int timeout_ms)
{
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms),
                        [&] { return static_cast<int>(async_conns_.size()) >= n; });
}

int fake_devmgr::async_clients() const
{
    std::lock_guard<std::mutex> lk(mu_);
    return static_cast<int>(async_conns_.size());
}

int fake_devmgr::replays() const { std::lock_guard<std::mutex> lk(mu_); return replays_; }

std::vector<devmgr_msg_t> fake_devmgr::requests() const { std::lock_guard<std::mutex> lk(mu_); return requests_; }

bool fake_devmgr::wait_request(std::uint16_t type, int timeout_ms)
{
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&] {
        return std::any_of(requests_.begin(), requests_.end(),
                           [type](const devmgr_msg_t &m) { return m.type == type; });
    });
}

void fake_devmgr::set_answer_hostname(bool on) { std::lock_guard<std::mutex> lk(mu_); answer_hostname_ = on; }

void fake_devmgr::set_result(std::uint32_t result) { std::lock_guard<std::mutex> lk(mu_); result_ = result; }
