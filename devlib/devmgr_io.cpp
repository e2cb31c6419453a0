#include "devlib/devmgr_io.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using io_clock = std::chrono::steady_clock;

constexpr std::size_t RXBUF_CAP = DEVMGR_HDR_LEN + DEVMGR_MAX_PAYLOAD;

int ms_left(io_clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - io_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// 1 ready, 0 time-out, -1 error.
int wait_fd(int fd, short events, io_clock::time_point deadline)
{
    for (;;) {
        pollfd p{fd, events, 0};
        int r = poll(&p, 1, ms_left(deadline));
        if (r >= 0) return r > 0 ? 1 : 0;
        if (errno != EINTR) return -1;
    }
}

sockaddr_in loopback_addr(std::uint32_t addr, std::uint16_t port)
{
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(addr);
    sin.sin_port = htons(port);
    return sin;
}

} // namespace

devmgr_rxbuf::devmgr_rxbuf() : buf_(RXBUF_CAP) {}

int devmgr_rxbuf::fill(int fd)
{
    if (start_ > 0) {
        std::memmove(buf_.data(), buf_.data() + start_, end_ - start_);
        end_ -= start_;
        start_ = 0;
    }
    // A partial message is always smaller than the buffer, so there is room.
    ssize_t n = recv(fd, buf_.data() + end_, buf_.size() - end_, MSG_DONTWAIT);
    if (n > 0) {
        end_ += static_cast<std::size_t>(n);
        return static_cast<int>(n);
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;
    return -1;
}

int devmgr_rxbuf::next(devmgr_msg_t &m)
{
    devmgr_hdr_t h{};
    std::size_t whole = 0;
    bytes_view avail(buf_.data() + start_, end_ - start_);
    int f = devmgr_frame(avail, h, whole);
    if (f != DEVMGR_FRAME_OK) return f == DEVMGR_FRAME_MORE ? 0 : -1;
    int d = devmgr_decode(h, avail.subspan(DEVMGR_HDR_LEN, h.length), m);
    start_ += whole;
    if (d == DEVMGR_DEC_SHORT) return -1;
    return d == DEVMGR_DEC_UNKNOWN ? 2 : 1;
}

bool devmgr_send_bytes(int fd, const std::uint8_t *data, std::size_t len, int timeout_ms)
{
    auto deadline = io_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::size_t off = 0;
    while (off < len) {
        ssize_t n = send(fd, data + off, len - off, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            off += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) &&
            wait_fd(fd, POLLOUT, deadline) > 0)
            continue;
        return false;
    }
    return true;
}

bool devmgr_send(int fd, const devmgr_msg_t &m, int timeout_ms)
{
    std::vector<std::uint8_t> out;
    return devmgr_encode(m, out) && devmgr_send_bytes(fd, out.data(), out.size(), timeout_ms);
}

int devmgr_recv(int fd, devmgr_rxbuf &rx, devmgr_msg_t &m, int timeout_ms)
{
    auto deadline = io_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int r = rx.next(m);
        if (r == 1) return 1;
        if (r == 2) continue;
        if (r < 0) return -1;
        int w = wait_fd(fd, POLLIN, deadline);
        if (w <= 0) return w;
        if (rx.fill(fd) < 0) return -1;
    }
}

int devmgr_tcp_connect(std::uint32_t addr, std::uint16_t port, int timeout_ms)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in sin = loopback_addr(addr, port);
    if (connect(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) < 0) {
        auto deadline = io_clock::now() + std::chrono::milliseconds(timeout_ms);
        int err = 0;
        socklen_t len = sizeof err;
        if (errno != EINPROGRESS || wait_fd(fd, POLLOUT, deadline) <= 0 ||
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0 || err != 0) {
            close(fd);
            return -1;
        }
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

int devmgr_tcp_listen(std::uint32_t addr, std::uint16_t port, std::uint16_t *bound)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sin = loopback_addr(addr, port);
    socklen_t len = sizeof sin;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) < 0 || listen(fd, 8) < 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&sin), &len) < 0) {
        close(fd);
        return -1;
    }
    if (bound) *bound = ntohs(sin.sin_port);
    return fd;
}
