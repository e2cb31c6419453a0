// The oltsim program over its real sockets: a device-manager client gets the
// replay, the notifications and, after a manager restart, a connection on
// its announced port; a module registers, sets traps and sends odd messages;
// the control socket answers. No network interfaces are wired.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "devlib/devmgr_io.h"
#include "platform/hal_msg.h"

namespace {

using bytes = std::vector<std::uint8_t>;

std::uint16_t free_port()
{
    std::uint16_t port = 0;
    int fd = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &port);
    if (fd >= 0) close(fd);
    return port;
}

class oltsim_proc {
public:
    oltsim_proc()
    {
        char tmpl[] = "/tmp/sim_proc_XXXXXX";
        dir_ = mkdtemp(tmpl) ? tmpl : "/tmp";
        std::ofstream(dir_ + "/topo.ini") << "[system]\nmac = 02:00:00:00:00:01\nhostname = first\nvlans = 100\n"
                                             "[port ge1/1/1]\npvid = 100\n"
                                             "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = SN000001\n";
        sync_ = free_port();
        async_ = free_port();
        pid_ = fork();
        if (pid_ == 0) {
            std::string log = dir_ + "/oltsim.log";
            execl(OLTSIM_BIN, OLTSIM_BIN, "-t", (dir_ + "/topo.ini").c_str(), "--fp-socket", fp().c_str(),
                  "--ctl-socket", ctl().c_str(), "--devmgr-port", std::to_string(sync_).c_str(),
                  "--devmgr-async-port", std::to_string(async_).c_str(), "--client-port", "0", "--log-file",
                  log.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    ~oltsim_proc()
    {
        // Its log says more than a failed expectation.
        if (::testing::Test::HasFailure()) {
            std::ifstream log(dir_ + "/oltsim.log");
            std::cerr << "---- oltsim.log ----\n" << log.rdbuf() << "---- end ----\n";
        }
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        std::system(("rm -rf " + dir_).c_str());
    }
    std::string fp() const { return dir_ + "/fp.sock"; }
    std::string ctl() const { return dir_ + "/ctl.sock"; }
    std::uint16_t sync_port() const { return sync_; }
    std::uint16_t async_port() const { return async_; }

    // One command on the control socket; the whole answer, "" when unreachable.
    std::string cmd(const std::string &line) const
    {
        sockaddr_un sun{};
        sun.sun_family = AF_UNIX;
        std::strncpy(sun.sun_path, ctl().c_str(), sizeof sun.sun_path - 1);
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) {
            close(fd);
            return "";
        }
        std::string l = line + "\n";
        (void)!send(fd, l.data(), l.size(), MSG_NOSIGNAL);
        std::string out;
        char buf[4096];
        pollfd p{fd, POLLIN, 0};
        while (poll(&p, 1, 3000) > 0) {
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0) break;
            out.append(buf, static_cast<std::size_t>(n));
        }
        close(fd);
        return out;
    }
    bool wait_ready() const
    {
        for (int i = 0; i < 200; ++i) {
            if (cmd("show system").find("ok\n") != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    // Sends SIGTERM; the exit status, or -1.
    int terminate()
    {
        kill(pid_, SIGTERM);
        for (int i = 0; i < 250; ++i) {
            int st = 0;
            if (waitpid(pid_, &st, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }

private:
    std::string dir_;
    std::uint16_t sync_ = 0, async_ = 0;
    pid_t pid_ = -1;
};

// Reads messages until one of `type` arrives; the types seen on the way included.
std::vector<std::uint16_t> read_until(int fd, devmgr_rxbuf &rx, std::uint16_t type, devmgr_msg_t &last)
{
    std::vector<std::uint16_t> seen;
    for (;;) {
        devmgr_msg_t m{};
        if (devmgr_recv(fd, rx, m, 3000) != 1) return seen;
        seen.push_back(m.type);
        if (m.type == type) {
            last = m;
            return seen;
        }
    }
}

TEST(SimProcess, DeviceManagerReplaysNotifiesAndComesBack)
{
    oltsim_proc sim;
    ASSERT_TRUE(sim.wait_ready());

    std::uint16_t listen_port = 0;
    int lfd = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &listen_port);
    ASSERT_GE(lfd, 0);
    int sfd = devmgr_tcp_connect(INADDR_LOOPBACK, sim.sync_port(), 1000);
    ASSERT_GE(sfd, 0);
    devmgr_rxbuf srx;
    devmgr_msg_t hello{};
    hello.type = DEVMGR_HELLO;
    hello.seq = 5;
    std::strcpy(hello.hello.progname, "test");
    hello.hello.listen_port = listen_port;
    ASSERT_TRUE(devmgr_send(sfd, hello, 1000));
    devmgr_msg_t r{};
    ASSERT_EQ(devmgr_recv(sfd, srx, r, 3000), 1);
    EXPECT_EQ(r.type, DEVMGR_HELLO_ACK);
    EXPECT_EQ(r.seq, 5u);
    devmgr_msg_t gh{};
    gh.type = DEVMGR_GET_HOSTNAME;
    gh.seq = 6;
    ASSERT_TRUE(devmgr_send(sfd, gh, 1000));
    ASSERT_EQ(devmgr_recv(sfd, srx, r, 3000), 1);
    EXPECT_EQ(r.type, DEVMGR_HOSTNAME);
    EXPECT_STREQ(r.hostname, "first");

    int afd = devmgr_tcp_connect(INADDR_LOOPBACK, sim.async_port(), 1000);
    ASSERT_GE(afd, 0);
    devmgr_rxbuf arx;
    devmgr_msg_t last{};
    std::vector<std::uint16_t> replay = read_until(afd, arx, DEVMGR_REPLAY_END, last);
    ASSERT_FALSE(replay.empty());
    EXPECT_EQ(replay.front(), DEVMGR_REPLAY_START);
    EXPECT_EQ(replay.back(), DEVMGR_REPLAY_END);

    ASSERT_NE(sim.cmd("port ge1/1/1 down").find("ok\n"), std::string::npos);
    read_until(afd, arx, DEVMGR_IF_STATUS, last);
    EXPECT_EQ(last.ifm.ifindex, 0x12101000u);
    EXPECT_EQ(last.ifm.status, 0u);
    ASSERT_NE(sim.cmd("hostname second").find("ok\n"), std::string::npos);
    read_until(afd, arx, DEVMGR_HOST, last);
    EXPECT_STREQ(last.hostname, "second");

    // A restarted manager: the old async connection ends, the announced port is called.
    ASSERT_NE(sim.cmd("devmgr restart").find("ok\n"), std::string::npos);
    devmgr_msg_t m{};
    EXPECT_EQ(devmgr_recv(afd, arx, m, 3000), -1) << "old notification connection closed";
    pollfd p{lfd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 3000), 1);
    int back = accept(lfd, nullptr, nullptr);
    ASSERT_GE(back, 0);
    devmgr_rxbuf brx;
    replay = read_until(back, brx, DEVMGR_REPLAY_END, last);
    ASSERT_FALSE(replay.empty());
    EXPECT_EQ(replay.front(), DEVMGR_REPLAY_START);
    std::string show = sim.cmd("show devmgr");
    EXPECT_NE(show.find("async_clients=1 "), std::string::npos) << show;
    EXPECT_NE(show.find("hello_prog=test "), std::string::npos) << show;
    for (int fd : {lfd, sfd, afd, back}) close(fd);
    EXPECT_EQ(sim.terminate(), 0);
}

int fp_connect(const std::string &path)
{
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    std::strncpy(sun.sun_path, path.c_str(), sizeof sun.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bytes fp_request(int fd, const bytes &msg)
{
    (void)!send(fd, msg.data(), msg.size(), MSG_NOSIGNAL);
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 2000) != 1) return {};
    bytes r(4096);
    ssize_t n = recv(fd, r.data(), r.size(), 0);
    r.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return r;
}

TEST(SimProcess, ModuleChannelSurvivesBadInputAndDisconnects)
{
    oltsim_proc sim;
    ASSERT_TRUE(sim.wait_ready());
    int fd = fp_connect(sim.fp());
    ASSERT_GE(fd, 0);
    bytes reg(HAL_MSG_REG_LEN);
    hal_msg_u32_build(reg, HAL_MSG_TYPE_REGISTER, 1, 1, 1027);
    bytes ans = fp_request(fd, reg);
    std::uint32_t result = 99;
    ASSERT_TRUE(hal_msg_u32_decode(ans, result));
    EXPECT_EQ(result, 0u);

    bytes trap(28, 0);
    hal_msg_hdr_t h{28, 321, 1, 2, 0};
    hal_msg_hdr_encode(trap, h);
    std::uint16_t vid = 100;
    std::uint32_t enable = 1;
    std::memcpy(trap.data() + 20, &vid, 2);
    std::memcpy(trap.data() + 24, &enable, 4);
    ans = fp_request(fd, trap);
    ASSERT_TRUE(hal_msg_u32_decode(ans, result));
    EXPECT_EQ(result, 0u);
    EXPECT_NE(sim.cmd("show traps").find("trap vid=100 v4=1 v6=0\n"), std::string::npos);

    // Garbage, and a frame for a port that does not exist: neither is answered.
    bytes junk = {1, 2, 3};
    (void)!send(fd, junk.data(), junk.size(), MSG_NOSIGNAL);
    bytes frame(60, 0xee);
    hal_msg_pkt_t p{};
    p.ifindex = 0x12109000;
    p.len = 60;
    p.data = frame.data();
    bytes pkt(HAL_PKT_MSG_LEN);
    ASSERT_TRUE(hal_msg_pkt_build(pkt, p, 1, 0, 0));
    (void)!send(fd, pkt.data(), pkt.size(), MSG_NOSIGNAL);
    bytes unknown(20, 0);
    hal_msg_hdr_t uh{20, 999, 1, 3, 0};
    hal_msg_hdr_encode(unknown, uh);
    ans = fp_request(fd, unknown);
    ASSERT_TRUE(hal_msg_u32_decode(ans, result));
    EXPECT_EQ(result, 101004u) << "unknown requests get TAVO_PARAM, not silence";

    std::string fp = sim.cmd("show fp");
    EXPECT_NE(fp.find("module=1027 "), std::string::npos) << fp;
    EXPECT_NE(fp.find("rx_bad=2 "), std::string::npos) << fp;
    EXPECT_NE(sim.cmd("show counters").find("mod_unknown_port=1 "), std::string::npos);

    close(fd);
    std::string after;
    for (int i = 0; i < 50; ++i) {
        after = sim.cmd("show fp");
        if (after.find("connections=0 ") != std::string::npos) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_NE(after.find("connections=0 module=0 "), std::string::npos) << after;
    EXPECT_NE(sim.cmd("show traps").find("trap vid=100"), std::string::npos) << "traps outlive the module";

    fd = fp_connect(sim.fp());
    ASSERT_GE(fd, 0) << "a module coming back is accepted";
    ASSERT_FALSE(fp_request(fd, reg).empty());
    close(fd);
    EXPECT_EQ(sim.terminate(), 0);
}

TEST(SimProcess, ControlSocketAnswersAndRefuses)
{
    oltsim_proc sim;
    ASSERT_TRUE(sim.wait_ready());
    struct {
        const char *line;
        const char *want;
    } cases[] = {
        {"show system", "system mac=02:00:00:00:00:01 hostname=first vlans=100\nok\n"},
        {"show macs", "ok\n"},
        {"frobnicate", "error: unknown command (try help)\n"},
        {"show macs 5000", "error: VLAN id expected\n"},
        {"port ge1/1/9 down", "error: no port ge1/1/9\n"},
        {"vlan 200 create", "ok\n"},
        {"port ge1/1/1 vlan add 200 tagged", "ok\n"},
        {"onu gonu1/2/1:1 offline", "ok\n"},
        {"slot 1 sync start prio 3 app dhcp", "ok\n"},
        {"trap 100 v6 on", "ok\n"},
        {"show traps", "trap vid=100 v4=0 v6=1\nok\n"},
        {"trap 0 v4 on", "error: VLAN id expected\n"},
        {"slot 99 switchover start", "error: slot N (switchover|sync) (start|end)\n"},
    };
    for (auto &c : cases) EXPECT_EQ(sim.cmd(c.line), c.want) << c.line;
    std::string ports = sim.cmd("show ports");
    EXPECT_NE(ports.find("name=ge1/1/1 ifindex=0x12101000 type=ge present=1 status=up admin=up forwarding=1 "
                         "role=uplink linux= io=none trunk=0 pvid=100 tagged=200 untagged=\n"),
              std::string::npos)
        << ports;
    EXPECT_NE(ports.find("sn=SN000001 online=0\n"), std::string::npos) << ports;
    EXPECT_EQ(sim.terminate(), 0);
}

} // namespace
