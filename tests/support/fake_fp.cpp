#include "tests/support/fake_fp.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

fake_fp::~fake_fp() { stop(); }

bool fake_fp::start(const std::string &path)
{
    stop();
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    if (path.size() >= sizeof sun.sun_path) return false;
    std::memcpy(sun.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0 || listen(fd, 4) < 0 ||
        pipe(wake_) < 0) {
        close(fd);
        return false;
    }
    std::lock_guard<std::mutex> lk(mu_);
    path_ = path;
    listen_fd_ = fd;
    registered_ = false;
    thread_ = std::thread(&fake_fp::run, this, fd, wake_[0]);
    return true;
}

void fake_fp::stop()
{
    if (thread_.joinable()) {
        (void)!write(wake_[1], "x", 1);
        thread_.join();
    }
    std::lock_guard<std::mutex> lk(mu_);
    for (int *fd : {&listen_fd_, &conn_fd_, &wake_[0], &wake_[1]}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    if (!path_.empty()) unlink(path_.c_str());
    path_.clear();
    registered_ = false;
}

bool fake_fp::running() const { std::lock_guard<std::mutex> lk(mu_); return listen_fd_ >= 0; }

void fake_fp::run(int listen_fd, int wake_fd)
{
    for (;;) {
        int conn;
        {
            std::lock_guard<std::mutex> lk(mu_);
            conn = conn_fd_;
        }
        pollfd p[3] = {{wake_fd, POLLIN, 0}, {listen_fd, POLLIN, 0}, {conn, POLLIN, 0}};
        if (poll(p, conn >= 0 ? 3 : 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (p[0].revents) return;
        if (p[1].revents & POLLIN) {
            int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                // A new module connection replaces the old one.
                std::lock_guard<std::mutex> lk(mu_);
                if (conn_fd_ >= 0) close(conn_fd_);
                conn_fd_ = fd;
                registered_ = false;
            }
            continue;
        }
        if (conn >= 0 && p[2].revents) handle(conn);
    }
}

void fake_fp::handle(int fd)
{
    std::vector<std::uint8_t> buf(8192);
    ssize_t n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
    std::unique_lock<std::mutex> lk(mu_);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        if (conn_fd_ == fd) {
            close(fd);
            conn_fd_ = -1;
            registered_ = false;
        }
        cv_.notify_all();
        return;
    }
    if (n < 0) return;
    buf.resize(static_cast<std::size_t>(n));
    fake_fp_msg m{};
    if (!hal_msg_hdr_decode(buf, m.hdr)) return;
    m.bytes = std::move(buf);

    if (m.hdr.nlmsg_type == HAL_MSG_TYPE_REGISTER) {
        hal_msg_u32_decode(m.bytes, module_);
        std::uint8_t ack[HAL_MSG_REG_LEN];
        hal_msg_u32_build(ack, HAL_MSG_TYPE_REGISTER, 0, m.hdr.nlmsg_seq, register_result_);
        send_locked(ack, sizeof ack);
        registered_ = true;
        ++registrations_;
        cv_.notify_all();
        return;
    }
    std::vector<std::uint8_t> reply;
    bool answer = false;
    if (responder_) {
        // The responder may call back into this object.
        responder r = responder_;
        lk.unlock();
        answer = r(m, reply);
        lk.lock();
    } else if (auto_reply_ && m.hdr.nlmsg_type != HAL_MSG_TYPE_PKT) {
        reply.resize(HAL_MSG_REG_LEN);
        answer = hal_msg_u32_build(reply, m.hdr.nlmsg_type, 0, m.hdr.nlmsg_seq, 0);
    }
    received_.push_back(std::move(m));
    if (answer && !reply.empty()) send_locked(reply.data(), reply.size());
    cv_.notify_all();
}

bool fake_fp::send_locked(const std::uint8_t *data, std::size_t len)
{
    if (conn_fd_ < 0) return false;
    return send(conn_fd_, data, len, MSG_NOSIGNAL) == static_cast<ssize_t>(len);
}

bool fake_fp::wait_registered(int timeout_ms)
{
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&] { return registered_; });
}

bool fake_fp::connected() const { std::lock_guard<std::mutex> lk(mu_); return conn_fd_ >= 0; }

std::uint32_t fake_fp::module() const { std::lock_guard<std::mutex> lk(mu_); return module_; }

int fake_fp::registrations() const { std::lock_guard<std::mutex> lk(mu_); return registrations_; }

void fake_fp::set_register_result(std::uint32_t result) { std::lock_guard<std::mutex> lk(mu_); register_result_ = result; }

bool fake_fp::send_pkt(const hal_msg_pkt_t &p)
{
    std::vector<std::uint8_t> msg(HAL_PKT_MSG_LEN);
    if (!hal_msg_pkt_build(msg, p, 0, 0, 0)) return false;
    return send_raw(msg);
}

bool fake_fp::send_pkt(std::uint32_t ifindex, std::uint16_t vid, bytes_view frame)
{
    hal_msg_pkt_t p{};
    p.ifindex = ifindex;
    p.fwd_info.vid = vid;
    p.len = static_cast<std::uint16_t>(frame.size());
    p.data = frame.data();
    return frame.size() <= HAL_PKT_DATA_MAX && send_pkt(p);
}

bool fake_fp::send_raw(bytes_view msg)
{
    std::lock_guard<std::mutex> lk(mu_);
    return send_locked(msg.data(), msg.size());
}

std::vector<fake_fp_msg> fake_fp::received() const { std::lock_guard<std::mutex> lk(mu_); return received_; }

bool fake_fp::wait_received(std::size_t n, int timeout_ms)
{
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&] { return received_.size() >= n; });
}

void fake_fp::clear_received() { std::lock_guard<std::mutex> lk(mu_); received_.clear(); }

void fake_fp::set_responder(responder r) { std::lock_guard<std::mutex> lk(mu_); responder_ = std::move(r); }

void fake_fp::set_auto_reply(bool on) { std::lock_guard<std::mutex> lk(mu_); auto_reply_ = on; }
