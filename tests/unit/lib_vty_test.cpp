// vty server: the framed protocol on a UNIX socket, plain terminal lines,
// large and slow output, vanishing clients and the session cap. The server
// runs on this thread's event loop; clients run on a helper thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "lib/command.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "lib/wire.h"

namespace {

constexpr size_t BIG = 3 * 1024 * 1024 + 17;

DEFUN(t_echo, t_echo_cmd, "echo WORD", "Echo\nText\n")
{
    vty_out(vty, "%s%s", argv[0], VTY_NEWLINE);
    return CMD_SUCCESS;
}

DEFUN(t_big, t_big_cmd, "big", "Large output\n")
{
    vty->out.append(BIG, 'x');
    return CMD_SUCCESS;
}

struct response {
    bool ok = false;  // an end record arrived
    std::string out;
    int result = -1;
    bool closing = false;
    std::string prompt;
    size_t largest_record = 0;
};

int connect_to(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval tv{5, 0};  // a broken server fails the test instead of hanging it
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool send_bytes(int fd, const std::string &s) { return send(fd, s.data(), s.size(), MSG_NOSIGNAL) == ssize_t(s.size()); }

bytes_view as_bytes(const std::string &s)
{
    return bytes_view(reinterpret_cast<const std::uint8_t *>(s.data()), s.size());
}

std::string request(char op, const std::string &line)
{
    std::string r(5, '\0');
    r[0] = op;
    put_be32_at(bytes_span(reinterpret_cast<std::uint8_t *>(r.data()), r.size()), 1, std::uint32_t(line.size()));
    return r + line;
}

bool recv_exact(int fd, std::string &buf, size_t n)
{
    buf.resize(n);
    size_t got = 0;
    while (got < n) {
        ssize_t k = recv(fd, buf.data() + got, n - got, 0);
        if (k <= 0) return false;
        got += size_t(k);
    }
    return true;
}

response read_response(int fd)
{
    response r;
    std::string hdr, body;
    std::uint32_t len = 0, result = 0;
    while (recv_exact(fd, hdr, 5) && be32_at(as_bytes(hdr), 1, len) && recv_exact(fd, body, len)) {
        r.largest_record = std::max(r.largest_record, body.size());
        if (hdr[0] == 'O') {
            r.out += body;
        } else {
            r.ok = hdr[0] == 'E' && be32_at(as_bytes(body), 0, result) && body.size() >= 5;
            r.result = int(result);
            r.closing = r.ok && (body[4] & 1);
            r.prompt = r.ok ? body.substr(5) : "";
            break;
        }
    }
    return r;
}

response ask(int fd, char op, const std::string &line)
{
    if (!send_bytes(fd, request(op, line))) return {};
    return read_response(fd);
}

// True once the peer has closed (EOF), false on data or time-out.
bool at_eof(int fd)
{
    char c;
    return recv(fd, &c, 1, 0) == 0;
}

class Vty : public ::testing::Test {
protected:
    void SetUp() override
    {
        cmd_init(1);
        cmd_set_hostname("olt");
        install_element(ENABLE_NODE, &t_echo_cmd);
        install_element(ENABLE_NODE, &t_big_cmd);
        m = thread_master_create("vty-test");
        vty_init(m, "test");
        char tmpl[] = "/tmp/lib_vty_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/dhcp.vty";
        ASSERT_EQ(vty_serv_sock(path.c_str()), 0);
        // Keeps thread_fetch from blocking for long, so the loop can check its exit.
        thread_add_timer_msec(m, tick, this, 10, &t_tick);
    }
    void TearDown() override
    {
        vty_close_all();
        thread_cancel(&t_tick);
        thread_master_free(m);
        std::system(("rm -rf " + dir).c_str());
    }
    static int tick(thread *t)
    {
        auto *self = static_cast<Vty *>(THREAD_ARG(t));
        thread_add_timer_msec(t->master, tick, self, 10, &self->t_tick);
        return 0;
    }
    // Serves until the client function (on its own thread) returns.
    void with_client(const std::function<void()> &client)
    {
        std::atomic<bool> done{false};
        std::thread t([&] { client(); done = true; });
        serve_until([&] { return done.load(); });
        t.join();
    }
    bool serve_until(const std::function<bool()> &cond)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        thread fetch;
        while (!cond()) {
            if (std::chrono::steady_clock::now() > deadline || !thread_fetch(m, &fetch)) return false;
            thread_call(&fetch);
        }
        return true;
    }
    thread_master *m = nullptr;
    thread *t_tick = nullptr;
    std::string dir, path;
};

TEST_F(Vty, ListensOnlyWhereItMayAndExecutesCommandsOverTheFramedProtocol)
{
    // Listening again replaces the stale socket, but no other file.
    ASSERT_EQ(vty_serv_sock(path.c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0660u);
    std::string plain = dir + "/plain";
    std::ofstream(plain) << "x";
    EXPECT_EQ(vty_serv_sock(plain.c_str()), -1);
    EXPECT_EQ(access(plain.c_str(), F_OK), 0);
    EXPECT_EQ(vty_serv_sock(std::string(200, 'p').c_str()), -1);

    with_client([&] {
        int fd = connect_to(path);
        ASSERT_GE(fd, 0);
        const std::uint8_t req[] = {
            'X',                     // op: execute
            0x00, 0x00, 0x00, 0x0a,  // length 10, big-endian
            'e', 'c', 'h', 'o', ' ', 'h', 'e', 'l', 'l', 'o',
        };
        ASSERT_TRUE(send_bytes(fd, std::string(reinterpret_cast<const char *>(req), sizeof req)));
        const std::uint8_t expected[] = {
            'O',                     // output record
            0x00, 0x00, 0x00, 0x06,  // length 6
            'h', 'e', 'l', 'l', 'o', '\n',
            'E',                     // end record
            0x00, 0x00, 0x00, 0x0a,  // length 10
            0x00, 0x00, 0x00, 0x00,  // result CMD_SUCCESS
            0x00,                    // flags: session stays open
            'o', 'l', 't', '#', ' ', // prompt
        };
        std::string got;
        ASSERT_TRUE(recv_exact(fd, got, sizeof expected));
        EXPECT_EQ(got, std::string(reinterpret_cast<const char *>(expected), sizeof expected));

        struct {
            char op;
            std::string line, out;
            int result;
            const char *prompt;
        } rows[] = {
            {'X', "bogus", "% Unknown command.\n", CMD_ERR_NO_MATCH, "olt# "},
            {'P', "", "", CMD_SUCCESS, "olt# "},
            {'X', "configure terminal", "", CMD_SUCCESS, "olt(config)# "},
            {'?', "do ech", "  echo  Echo\n", CMD_SUCCESS, "olt(config)# "},
            {'T', "e", "end\nexit\n", CMD_SUCCESS, "olt(config)# "},
            {'?', "zzz", "% There is no matched command.\n", CMD_ERR_NO_MATCH, "olt(config)# "},
            // An overlong request is refused and skipped; the session goes on.
            {'X', "echo " + std::string(70000, 'a'), "% Line too long.\n", CMD_WARNING, "olt(config)# "},
            {'X', "do echo next", "next\n", CMD_SUCCESS, "olt(config)# "},
            {'X', "end", "", CMD_SUCCESS, "olt# "},
        };
        for (const auto &r : rows) {
            SCOPED_TRACE(r.line.substr(0, 20));
            response got = ask(fd, r.op, r.line);
            EXPECT_TRUE(got.ok);
            EXPECT_EQ(got.out, r.out);
            EXPECT_EQ(got.result, r.result);
            EXPECT_EQ(got.prompt, r.prompt);
            EXPECT_FALSE(got.closing);
        }
        response r = ask(fd, 'X', "exit");
        EXPECT_TRUE(r.ok && r.closing);
        EXPECT_TRUE(at_eof(fd));
        close(fd);
    });
    EXPECT_TRUE(serve_until([] { return vty_session_count() == 0; }));
}

TEST_F(Vty, SlowVanishingAndMisbehavingClientsDoNotStopTheServer)
{
    with_client([&] {
        int slow = connect_to(path);  // large output, read late: bounded records
        ASSERT_TRUE(send_bytes(slow, request('X', "big")));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // let the socket fill up
        response r = read_response(slow);
        EXPECT_TRUE(r.ok);
        EXPECT_EQ(r.out.size(), BIG);
        EXPECT_EQ(r.out.find_first_not_of('x'), std::string::npos);
        EXPECT_LE(r.largest_record, 64u * 1024);
        EXPECT_EQ(ask(slow, 'X', "echo after").out, "after\n");
        close(slow);

        int a = connect_to(path);  // gone before its answer is written
        send_bytes(a, request('X', "big"));
        close(a);
        int b = connect_to(path);  // gone halfway through reading
        send_bytes(b, request('X', "big"));
        std::string part;
        recv_exact(b, part, 100000);
        close(b);
        int c = connect_to(path);  // half a header, then gone
        send_bytes(c, std::string("X\0\0", 3));
        close(c);
        int d = connect_to(path);  // framed, then an unknown request code
        EXPECT_TRUE(ask(d, 'P', "").ok);
        send_bytes(d, request('Z', "x"));
        EXPECT_TRUE(at_eof(d));
        close(d);

        int fd = connect_to(path);
        EXPECT_EQ(ask(fd, 'X', "echo alive").out, "alive\n");
        close(fd);
    });
    EXPECT_TRUE(serve_until([] { return vty_session_count() == 0; }));
}

TEST_F(Vty, PlainLinesMakeATerminalSession)
{
    with_client([&] {
        int fd = connect_to(path);
        ASSERT_TRUE(send_bytes(fd, "echo hi\r\nconfigure terminal\n"));
        std::string got;
        const std::string want = "hi\r\nolt# olt(config)# ";
        EXPECT_TRUE(recv_exact(fd, got, want.size()));
        EXPECT_EQ(got, want);
        ASSERT_TRUE(send_bytes(fd, "do ec?\n"));
        const std::string help = "  echo  Echo\r\nolt(config)# ";
        EXPECT_TRUE(recv_exact(fd, got, help.size()));
        EXPECT_EQ(got, help);
        close(fd);
    });
}

TEST_F(Vty, SessionsAreCapped)
{
    std::vector<int> fds;
    with_client([&] {
        for (int i = 0; i < 32; ++i) {
            int fd = connect_to(path);
            EXPECT_TRUE(ask(fd, 'P', "").ok) << i;
            fds.push_back(fd);
        }
        int extra = connect_to(path);
        std::string text;
        char buf[256];
        ssize_t n;
        while ((n = recv(extra, buf, sizeof buf, 0)) > 0) text.append(buf, size_t(n));
        EXPECT_EQ(text, "% Too many sessions, try again later.\r\n");
        close(extra);
    });
    EXPECT_EQ(vty_session_count(), 32);
    for (int fd : fds) close(fd);
    EXPECT_TRUE(serve_until([] { return vty_session_count() == 0; }));
}

TEST(VtyOut, FormatsOutputLongerThanAnyFixedBuffer)
{
    vty *v = vty_new_buffer(ENABLE_NODE);
    EXPECT_EQ(v->type, VTY_FILE);
    EXPECT_STREQ(v->newline(), "\n");
    std::string long_arg(5000, 'z');
    vty_out(v, "<%s>%d", long_arg.c_str(), 42);
    vty_out(v, "%s", "!");
    EXPECT_EQ(v->out, "<" + long_arg + ">42!");
    vty_free(v);
}

} // namespace
