#include "platform/hal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "lib/log.h"
#include "lib/thread.h"
#include "platform/errcode.h"
#include "platform/hal_msg.h"

namespace {

using hal_clock = std::chrono::steady_clock;

constexpr long HAL_BACKOFF_MIN_MS = 100;
constexpr long HAL_BACKOFF_MAX_MS = 5000;
constexpr int HAL_SEND_WAIT_MS = 1000;
constexpr auto HAL_RUN_BUDGET = std::chrono::milliseconds(50);
constexpr unsigned HAL_BUDGET_CHECK_EVERY = 10;
constexpr std::size_t HAL_RX_BUF = 8192;       // larger than any message we accept
constexpr std::size_t HAL_PENDING_MAX = 1024;  // messages held back during hal_send

struct hal_state {
    std::string path = HAL_DEFAULT_PATH;
    int module = 0;
    thread_master *master = nullptr;
    hal_recv_fn fn = nullptr;
    int fd = -1;
    thread *t_read = nullptr;
    thread *t_reconnect = nullptr;
    thread *t_pending = nullptr;
    long backoff_ms = HAL_BACKOFF_MIN_MS;
    bool outage_logged = false;  // one "lost" line per outage, one "restored" after it
    std::uint32_t seq = 0;
    std::deque<std::vector<std::uint8_t>> pending;
    std::vector<std::uint8_t> rxbuf = std::vector<std::uint8_t>(HAL_RX_BUF);
    hal_stats_t stats{};
};

hal_state g_hal;

enum class rx_result { msg, none, bad, closed };

int hal_read_task(thread *t);
int hal_reconnect_timer(thread *t);
int hal_pending_task(thread *t);

std::uint32_t hal_next_seq()
{
    if (++g_hal.seq == 0) ++g_hal.seq;
    return g_hal.seq;
}

void hal_arm_read()
{
    if (g_hal.fd >= 0 && g_hal.master)
        thread_add_read(g_hal.master, hal_read_task, nullptr, g_hal.fd, &g_hal.t_read);
}

void hal_arm_pending()
{
    if (!g_hal.pending.empty() && g_hal.master)
        thread_add_event(g_hal.master, hal_pending_task, nullptr, &g_hal.t_pending);
}

void hal_schedule_reconnect()
{
    if (!g_hal.master) return;
    thread_add_timer_msec(g_hal.master, hal_reconnect_timer, nullptr, g_hal.backoff_ms,
                          &g_hal.t_reconnect);
    g_hal.backoff_ms = std::min(g_hal.backoff_ms * 2, HAL_BACKOFF_MAX_MS);
}

void hal_disconnect(const char *why)
{
    thread_cancel(&g_hal.t_read);
    if (g_hal.fd >= 0) close(g_hal.fd);
    g_hal.fd = -1;
    ++g_hal.stats.disconnects;
    if (!g_hal.outage_logged) {
        zlog_err("Forwarding plane connection %s lost: %s", g_hal.path.c_str(), why);
        g_hal.outage_logged = true;
    }
    g_hal.backoff_ms = HAL_BACKOFF_MIN_MS;
    hal_schedule_reconnect();
}

bool hal_connect()
{
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    if (g_hal.path.size() >= sizeof sun.sun_path) {
        zlog_err("Forwarding plane path too long: %s", g_hal.path.c_str());
        return false;
    }
    std::memcpy(sun.sun_path, g_hal.path.c_str(), g_hal.path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) {
        close(fd);
        return false;
    }
    std::uint8_t reg[HAL_MSG_REG_LEN];
    hal_msg_u32_build(reg, HAL_MSG_TYPE_REGISTER, HAL_MSG_FLAG_REQUEST, hal_next_seq(),
                      static_cast<std::uint32_t>(g_hal.module));
    if (send(fd, reg, sizeof reg, MSG_DONTWAIT | MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof reg)) {
        close(fd);
        return false;
    }
    g_hal.fd = fd;
    g_hal.backoff_ms = HAL_BACKOFF_MIN_MS;
    ++g_hal.stats.connects;
    if (g_hal.outage_logged) {
        zlog_notice("Forwarding plane connection %s restored", g_hal.path.c_str());
        g_hal.outage_logged = false;
    }
    hal_arm_read();
    return true;
}

int hal_reconnect_timer(thread *)
{
    if (g_hal.fd < 0 && !hal_connect()) hal_schedule_reconnect();
    return 0;
}

// Reads one datagram into buf and checks its framing.
rx_result hal_read_one(std::vector<std::uint8_t> &buf, std::size_t &len)
{
    ssize_t n = recv(g_hal.fd, buf.data(), buf.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0) return (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) ? rx_result::none
                                                                                  : rx_result::closed;
    if (n == 0) return rx_result::closed;
    hal_msg_hdr_t h{};
    std::size_t got = static_cast<std::size_t>(n);
    if (got > buf.size() || !hal_msg_hdr_decode(bytes_view(buf.data(), got), h) ||
        h.nlmsg_len != got) {
        ++g_hal.stats.rx_bad;
        zlog_err("Forwarding plane message dropped: %zu bytes, nlmsg_len %u", got,
                 got >= HAL_MSG_HDR_LEN ? h.nlmsg_len : 0u);
        return rx_result::bad;
    }
    len = got;
    return rx_result::msg;
}

void hal_deliver(std::uint8_t *msg, std::size_t len, hal_recv_fn fn)
{
    hal_msg_hdr_t h{};
    hal_msg_hdr_decode(bytes_view(msg, len), h);
    if (h.nlmsg_type == HAL_MSG_TYPE_REGISTER) {
        std::uint32_t result = 0;
        if (!hal_msg_u32_decode(bytes_view(msg, len), result) || result != 0)
            zlog_err("Forwarding plane refused module %d (result %u)", g_hal.module, result);
        return;
    }
    ++g_hal.stats.rx_msgs;
    g_hal.stats.rx_bytes += len;
    if (fn) fn(h.nlmsg_type, msg + HAL_MSG_HDR_LEN, h.nlmsg_len);
}

void hal_hold(const std::uint8_t *msg, std::size_t len)
{
    if (g_hal.pending.size() >= HAL_PENDING_MAX) {
        ++g_hal.stats.rx_queue_drops;
        return;
    }
    g_hal.pending.emplace_back(msg, msg + len);
}

int hal_read_task(thread *)
{
    hal_recv(g_hal.fn);
    hal_arm_read();
    return 0;
}

int hal_pending_task(thread *)
{
    hal_recv(g_hal.fn);
    return 0;
}

bool hal_wait(short events, hal_clock::time_point deadline)
{
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - hal_clock::now());
        if (left.count() < 0) return false;
        pollfd p{g_hal.fd, events, 0};
        int r = poll(&p, 1, static_cast<int>(left.count()) + 1);
        if (r > 0) return true;
        if (r == 0) return false;
        if (errno != EINTR) return false;
    }
}

} // namespace

void hal_set_path(const char *path)
{
    if (path && *path) g_hal.path = path;
}

const char *hal_get_path() { return g_hal.path.c_str(); }

int hal_init(int module, thread_master *master, hal_recv_fn fn)
{
    if (!master) return TAVO_PARAM;
    if (g_hal.master) hal_close();
    g_hal.module = module;
    g_hal.master = master;
    g_hal.fn = fn;
    g_hal.stats = hal_stats_t{};
    g_hal.backoff_ms = HAL_BACKOFF_MIN_MS;
    g_hal.outage_logged = false;
    if (!hal_connect()) {
        zlog_err("Forwarding plane %s not reachable, retrying", g_hal.path.c_str());
        g_hal.outage_logged = true;
        hal_schedule_reconnect();
    }
    return 0;
}

void hal_close()
{
    thread_cancel(&g_hal.t_read);
    thread_cancel(&g_hal.t_reconnect);
    thread_cancel(&g_hal.t_pending);
    if (g_hal.fd >= 0) close(g_hal.fd);
    g_hal.fd = -1;
    g_hal.pending.clear();
    g_hal.master = nullptr;
    g_hal.fn = nullptr;
}

bool hal_is_connected() { return g_hal.fd >= 0; }

int hal_recv(hal_recv_fn fn)
{
    if (!fn) fn = g_hal.fn;
    auto start = hal_clock::now();
    unsigned handled = 0;
    int rc = 0;
    for (;;) {
        // Held-back messages are older than anything still in the socket.
        if (!g_hal.pending.empty()) {
            std::vector<std::uint8_t> msg = std::move(g_hal.pending.front());
            g_hal.pending.pop_front();
            hal_deliver(msg.data(), msg.size(), fn);
        } else {
            if (g_hal.fd < 0) break;
            std::size_t len = 0;
            rx_result r = hal_read_one(g_hal.rxbuf, len);
            if (r == rx_result::none) break;
            if (r == rx_result::closed) {
                hal_disconnect("peer closed");
                rc = -1;
                break;
            }
            if (r == rx_result::msg) hal_deliver(g_hal.rxbuf.data(), len, fn);
        }
        if (++handled % HAL_BUDGET_CHECK_EVERY == 0 && hal_clock::now() - start >= HAL_RUN_BUDGET)
            break;
    }
    hal_arm_pending();
    return rc;
}

int hal_send_async(const std::uint8_t *msg, std::size_t len)
{
    hal_msg_hdr_t h{};
    if (!msg || !hal_msg_hdr_decode(bytes_view(msg, len), h) || h.nlmsg_len != len)
        return TAVO_PARAM;
    if (g_hal.fd < 0) {
        ++g_hal.stats.tx_fail;
        return TAVO_UNAVAIL;
    }
    ssize_t n = send(g_hal.fd, msg, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(len)) {
        ++g_hal.stats.tx_msgs;
        return 0;
    }
    ++g_hal.stats.tx_fail;
    // A full socket drops this message; the packet path must never block.
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS)) return TAVO_FULL;
    hal_disconnect(n < 0 ? std::strerror(errno) : "short send");
    return TAVO_UNAVAIL;
}

int hal_send(std::uint8_t *msg, std::size_t len, std::uint8_t *reply, std::size_t reply_cap,
             std::size_t *reply_len)
{
    if (reply_len) *reply_len = 0;
    hal_msg_hdr_t h{};
    if (!msg || !hal_msg_hdr_decode(bytes_view(msg, len), h) || h.nlmsg_len != len)
        return TAVO_PARAM;
    if (g_hal.fd < 0) {
        ++g_hal.stats.tx_fail;
        return TAVO_UNAVAIL;
    }
    if (h.nlmsg_seq == 0) {
        h.nlmsg_seq = hal_next_seq();
        hal_msg_hdr_encode(bytes_span(msg, len), h);
    }
    auto deadline = hal_clock::now() + std::chrono::milliseconds(HAL_SEND_WAIT_MS);

    for (;;) {
        ssize_t n = send(g_hal.fd, msg, len, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n == static_cast<ssize_t>(len)) break;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) &&
            hal_wait(POLLOUT, deadline))
            continue;
        ++g_hal.stats.tx_fail;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return TAVO_TIMEOUT;
        hal_disconnect(n < 0 ? std::strerror(errno) : "short send");
        return TAVO_UNAVAIL;
    }
    ++g_hal.stats.tx_msgs;

    std::vector<std::uint8_t> buf(HAL_RX_BUF);
    int rc = TAVO_TIMEOUT;
    while (hal_wait(POLLIN, deadline)) {
        std::size_t got = 0;
        rx_result r = hal_read_one(buf, got);
        if (r == rx_result::closed) {
            hal_disconnect("peer closed");
            rc = TAVO_UNAVAIL;
            break;
        }
        if (r != rx_result::msg) continue;
        hal_msg_hdr_t rh{};
        hal_msg_hdr_decode(bytes_view(buf.data(), got), rh);
        if (rh.nlmsg_seq != h.nlmsg_seq || rh.nlmsg_type == HAL_MSG_TYPE_REGISTER) {
            hal_hold(buf.data(), got);
            continue;
        }
        std::size_t n = std::min(got, reply ? reply_cap : 0);
        if (n) std::memcpy(reply, buf.data(), n);
        if (reply_len) *reply_len = n;
        rc = (reply && got > reply_cap) ? TAVO_FULL : 0;
        break;
    }
    hal_arm_pending();
    return rc;
}

const hal_stats_t &hal_get_stats() { return g_hal.stats; }

int hal_send_request(std::uint8_t *msg, std::size_t len)
{
    std::uint8_t reply[64];
    std::size_t reply_len = 0;
    int rc = hal_send(msg, len, reply, sizeof reply, &reply_len);
    if (rc != 0) return rc;
    std::uint32_t result = 0;
    if (!hal_msg_u32_decode(bytes_view(reply, reply_len), result)) return TAVO_ERR;
    return static_cast<int>(result);
}
