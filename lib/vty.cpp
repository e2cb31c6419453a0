// Virtual terminals: buffered output for every vty, and the daemon's UNIX
// socket server. A session speaks the framed protocol of docs/vty-protocol.md
// (dhcpsh), or plain lines when its first byte is not a request code, so that
// a bare socket client works as a terminal.
#include "lib/vty.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <event2/event.h>
#include <list>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "lib/log.h"
#include "lib/memory.h"
#include "lib/thread.h"
#include "lib/wire.h"

DEFINE_MTYPE(LIB, VTY)

namespace {

constexpr size_t VTY_MAX_SESSIONS = 32;
constexpr size_t VTY_MAX_LINE = 64 * 1024;
constexpr size_t VTY_MAX_PENDING = 16 * 1024 * 1024;
constexpr size_t VTY_READ_BATCH = 16 * 1024;
constexpr size_t VTY_RECORD_MAX = 64 * 1024;  // output split into records of this size
constexpr size_t VTY_HEADER = 5;              // op byte + u32 length

enum class vty_proto { unknown, framed, term };

struct vty_session {
    vty v;
    thread *t_read = nullptr;
    event *ev_write = nullptr;
    std::string in;       // received, not yet handled
    std::string pending;  // encoded output not yet sent
    size_t sent = 0;      // bytes of `pending` already sent
    size_t skip = 0;      // rest of an over-long request still to discard
    bool discard_line = false;
    bool closing = false;  // close once the output has drained
    vty_proto proto = vty_proto::unknown;
    size_t unsent() const { return pending.size() - sent; }
};

thread_master *g_master;
std::string g_daemon;
int g_listen_fd = -1;
std::string g_listen_path;
thread *g_t_accept;
std::list<vty_session *> g_sessions;

bool is_op(char c) { return c == 'X' || c == '?' || c == 'T' || c == 'P'; }

void session_close(vty_session *s)
{
    thread_cancel(&s->t_read);
    if (s->ev_write) event_free(s->ev_write);
    if (s->v.fd >= 0) ::close(s->v.fd);
    g_sessions.remove(s);
    qdelete(MTYPE_VTY, s);
}

void put_record(vty_session *s, char op, const std::string &payload)
{
    std::uint8_t hdr[VTY_HEADER];
    wire_writer w(hdr);
    w.u8(static_cast<std::uint8_t>(op));
    w.be32(static_cast<std::uint32_t>(payload.size()));
    s->pending.append(reinterpret_cast<const char *>(hdr), sizeof hdr);
    s->pending.append(payload);
}

// Moves the command's output (and, framed, the end record) to the send queue.
void session_reply(vty_session *s, int ret)
{
    vty &v = s->v;
    if (v.close_requested) s->closing = true;
    if (s->proto == vty_proto::framed) {
        for (size_t off = 0; off < v.out.size(); off += VTY_RECORD_MAX)
            put_record(s, 'O', v.out.substr(off, VTY_RECORD_MAX));
        std::string end(5, '\0');
        wire_writer w(bytes_span(reinterpret_cast<std::uint8_t *>(end.data()), end.size()));
        w.be32(static_cast<std::uint32_t>(ret));
        w.u8(s->closing ? 1 : 0);
        put_record(s, 'E', end + (s->closing ? "" : cmd_prompt(&v)));
    } else {
        s->pending += v.out;
        if (!s->closing) s->pending += cmd_prompt(&v);
    }
    v.out.clear();
}

int describe(vty *v, const std::string &line)
{
    int status;
    auto items = cmd_describe(v, line, &status);
    if (status == CMD_ERR_AMBIGUOUS) vty_out(v, "%% Ambiguous command.%s", v->newline());
    else if (items.empty()) vty_out(v, "%% There is no matched command.%s", v->newline());
    size_t width = 0;
    for (auto &i : items) width = std::max(width, i.first.size());
    for (auto &i : items) {
        if (i.second.empty()) vty_out(v, "  %s%s", i.first.c_str(), v->newline());
        else vty_out(v, "  %-*s  %s%s", static_cast<int>(width), i.first.c_str(), i.second.c_str(), v->newline());
    }
    return status;
}

void run_request(vty_session *s, char op, const std::string &line)
{
    vty *v = &s->v;
    int ret = CMD_SUCCESS;
    switch (op) {
    case 'X': ret = cmd_execute(v, line); break;
    case '?': ret = describe(v, line); break;
    case 'T':
        for (auto &c : cmd_complete(v, line)) vty_out(v, "%s\n", c.c_str());
        break;
    default: break;
    }
    session_reply(s, ret);
}

enum class step { more, done, fail };

step handle_frame(vty_session *s)
{
    if (s->skip) {
        size_t k = std::min(s->skip, s->in.size());
        s->in.erase(0, k);
        s->skip -= k;
        if (s->skip) return step::more;
    }
    bytes_view in(reinterpret_cast<const std::uint8_t *>(s->in.data()), s->in.size());
    wire_reader r(in);
    std::uint8_t op;
    std::uint32_t len;
    if (!r.u8(op) || !r.be32(len)) return step::more;
    if (!is_op(static_cast<char>(op))) return step::fail;
    if (len > VTY_MAX_LINE) {
        s->in.erase(0, VTY_HEADER);
        s->skip = len;
        vty_out(&s->v, "%% Line too long.\n");
        session_reply(s, CMD_WARNING);
        return step::done;
    }
    bytes_view body;
    if (!r.take(len, body)) return step::more;
    std::string line(reinterpret_cast<const char *>(body.data()), body.size());
    s->in.erase(0, VTY_HEADER + len);
    run_request(s, static_cast<char>(op), line);
    return step::done;
}

step handle_term_line(vty_session *s)
{
    size_t nl = s->in.find('\n');
    if (nl == std::string::npos) {
        if (s->in.size() > VTY_MAX_LINE) {
            s->in.clear();
            if (!s->discard_line) s->pending += "% Line too long.\r\n";
            s->discard_line = true;
        }
        return step::more;
    }
    std::string line = s->in.substr(0, nl);
    s->in.erase(0, nl + 1);
    if (s->discard_line) {
        s->discard_line = false;
        s->pending += cmd_prompt(&s->v);
        return step::done;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty() && line.back() == '?') run_request(s, '?', line.substr(0, line.size() - 1));
    else run_request(s, 'X', line);
    return step::done;
}

// Sends what the socket takes now. Returns false when the session was closed.
bool session_flush(vty_session *s)
{
    while (s->unsent()) {
        ssize_t n = ::send(s->v.fd, s->pending.data() + s->sent, s->unsent(), MSG_NOSIGNAL);
        if (n > 0) {
            s->sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            event_add(s->ev_write, nullptr);
            return true;
        }
        session_close(s);  // the client went away
        return false;
    }
    s->pending.clear();
    s->sent = 0;
    if (s->closing) {
        session_close(s);
        return false;
    }
    return true;
}

int vty_read(thread *t);

// Handles buffered requests one at a time; while a reply waits for a slow
// client, nothing more is read from it.
void session_resume(vty_session *s)
{
    while (!s->unsent()) {
        if (s->proto == vty_proto::unknown && !s->in.empty()) {
            s->proto = is_op(s->in[0]) ? vty_proto::framed : vty_proto::term;
            s->v.type = s->proto == vty_proto::framed ? VTY_SHELL : VTY_TERM;
        }
        step st = s->in.empty() && !s->skip ? step::more
                  : s->proto == vty_proto::framed ? handle_frame(s)
                                                  : handle_term_line(s);
        if (st == step::fail) {
            zlog_err("vty: protocol error from client on fd %d, closing", s->v.fd);
            session_close(s);
            return;
        }
        if (s->unsent() > VTY_MAX_PENDING) {
            zlog_err("vty: client on fd %d does not read its output, closing", s->v.fd);
            session_close(s);
            return;
        }
        if (!session_flush(s)) return;
        if (st == step::more) break;
    }
    if (!s->unsent()) thread_add_read(g_master, vty_read, s, s->v.fd, &s->t_read);
}

void session_writable(evutil_socket_t, short, void *arg)
{
    auto *s = static_cast<vty_session *>(arg);
    if (session_flush(s) && !s->unsent()) session_resume(s);
}

int vty_read(thread *t)
{
    auto *s = static_cast<vty_session *>(THREAD_ARG(t));
    char buf[VTY_READ_BATCH];
    ssize_t n = ::recv(s->v.fd, buf, sizeof buf, 0);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        session_close(s);
        return 0;
    }
    if (n > 0) s->in.append(buf, static_cast<size_t>(n));
    session_resume(s);
    return 0;
}

int vty_accept(thread *)
{
    for (int i = 0; i < 8; ++i) {
        int fd = ::accept4(g_listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED) break;
            // Out of descriptors: back off instead of spinning on a readable socket.
            zlog_err("vty accept: %s", std::strerror(errno));
            thread_add_timer_msec(g_master, vty_accept, nullptr, 1000, &g_t_accept);
            return 0;
        }
        if (g_sessions.size() >= VTY_MAX_SESSIONS) {
            static const char msg[] = "% Too many sessions, try again later.\r\n";
            ::send(fd, msg, sizeof msg - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            ::close(fd);
            zlog_err("vty: refused a session, %zu open", g_sessions.size());
            continue;
        }
        auto *s = qnew<vty_session>(MTYPE_VTY);
        if (!s) {
            ::close(fd);
            break;
        }
        s->v.fd = fd;
        s->v.type = VTY_SHELL;
        s->v.node = ENABLE_NODE;
        s->ev_write = event_new(thread_master_base(g_master), fd, EV_WRITE, session_writable, s);
        g_sessions.push_back(s);
        thread_add_read(g_master, vty_read, s, fd, &s->t_read);
    }
    thread_add_read(g_master, vty_accept, nullptr, g_listen_fd, &g_t_accept);
    return 0;
}

void close_listener()
{
    thread_cancel(&g_t_accept);
    if (g_listen_fd < 0) return;
    ::close(g_listen_fd);
    g_listen_fd = -1;
    ::unlink(g_listen_path.c_str());
}

} // namespace

int vty_out(vty *vty, const char *fmt, ...)
{
    char small[512];
    va_list ap, again;
    va_start(ap, fmt);
    va_copy(again, ap);
    int n = std::vsnprintf(small, sizeof small, fmt, ap);
    va_end(ap);
    if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
        vty->out.append(small, static_cast<size_t>(n));
    } else if (n >= 0) {
        size_t old = vty->out.size();
        vty->out.resize(old + static_cast<size_t>(n) + 1);
        std::vsnprintf(vty->out.data() + old, static_cast<size_t>(n) + 1, fmt, again);
        vty->out.resize(old + static_cast<size_t>(n));
    }
    va_end(again);
    return n;
}

void vty_init(thread_master *master, const char *daemon_name)
{
    g_master = master;
    g_daemon = daemon_name ? daemon_name : "";
}

int vty_serv_sock(const char *path)
{
    sockaddr_un sa{};
    if (!g_master || !path || std::strlen(path) >= sizeof sa.sun_path) {
        zlog_err("vty: can't listen on %s", path ? path : "(null)");
        return -1;
    }
    // Remove the socket a previous run left, but never some other file.
    struct stat st;
    if (::lstat(path, &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            zlog_err("vty: %s exists and is not a socket", path);
            return -1;
        }
        ::unlink(path);
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, path, sizeof sa.sun_path - 1);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0 ||
        ::chmod(path, 0660) < 0 || ::listen(fd, 16) < 0) {
        zlog_err("vty: can't listen on %s: %s", path, std::strerror(errno));
        if (fd >= 0) ::close(fd);
        return -1;
    }
    if (g_listen_fd >= 0) {
        thread_cancel(&g_t_accept);
        ::close(g_listen_fd);
        if (g_listen_path != path) ::unlink(g_listen_path.c_str());
    }
    g_listen_fd = fd;
    g_listen_path = path;
    thread_add_read(g_master, vty_accept, nullptr, fd, &g_t_accept);
    return 0;
}

void vty_close_all()
{
    while (!g_sessions.empty()) session_close(g_sessions.front());
    close_listener();
}

int vty_session_count() { return static_cast<int>(g_sessions.size()); }

vty *vty_new_buffer(node_type node)
{
    vty *v = qnew<vty>(MTYPE_VTY);
    if (!v) return nullptr;
    v->type = VTY_FILE;
    v->node = node;
    return v;
}

void vty_free(vty *vty) { qdelete(MTYPE_VTY, vty); }
