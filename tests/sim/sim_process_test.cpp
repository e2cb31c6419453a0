// The oltsim program over its real sockets: a device-manager client gets the
// replay, a notification for a control-socket command and, after a manager
// restart, a connection on its announced port. No network interfaces are wired.
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

namespace {

class oltsim_proc {
public:
    oltsim_proc()
    {
        char tmpl[] = "/tmp/sim_proc_XXXXXX";
        dir_ = mkdtemp(tmpl) ? tmpl : "/tmp";
        std::ofstream(dir_ + "/topo.ini") << "[system]\nmac = 02:00:00:00:00:01\nhostname = first\nvlans = 100\n"
                                             "[port ge1/1/1]\npvid = 100\n"
                                             "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = SN000001\n";
        for (std::uint16_t *port : {&sync_, &async_}) close(devmgr_tcp_listen(INADDR_LOOPBACK, 0, port));
        pid_ = fork();
        if (pid_ == 0) {
            execl(OLTSIM_BIN, OLTSIM_BIN, "-t", (dir_ + "/topo.ini").c_str(), "--fp-socket",
                  (dir_ + "/fp.sock").c_str(), "--ctl-socket", (dir_ + "/ctl.sock").c_str(), "--devmgr-port",
                  std::to_string(sync_).c_str(),
                  "--devmgr-async-port", std::to_string(async_).c_str(), "--client-port", "0", "--log-file",
                  (dir_ + "/oltsim.log").c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    ~oltsim_proc()
    {
        if (::testing::Test::HasFailure()) std::cerr << std::ifstream(dir_ + "/oltsim.log").rdbuf();
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        std::system(("rm -rf " + dir_).c_str());
    }
    std::uint16_t sync_ = 0, async_ = 0;

    // One command on the control socket; the whole answer, "" when unreachable.
    std::string cmd(const std::string &line) const
    {
        sockaddr_un sun{};
        sun.sun_family = AF_UNIX;
        std::strncpy(sun.sun_path, (dir_ + "/ctl.sock").c_str(), sizeof sun.sun_path - 1);
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) return close(fd), "";
        std::string l = line + "\n", out;
        (void)!send(fd, l.data(), l.size(), MSG_NOSIGNAL);
        char buf[4096];
        pollfd p{fd, POLLIN, 0};
        for (ssize_t n; poll(&p, 1, 3000) > 0 && (n = recv(fd, buf, sizeof buf, 0)) > 0;)
            out.append(buf, static_cast<std::size_t>(n));
        close(fd);
        return out;
    }
    bool wait_ready() const
    {
        for (int i = 0; i < 200 && cmd("show system").find("ok\n") == std::string::npos; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return cmd("show system").find("ok\n") != std::string::npos;
    }
    // SIGTERM; the exit status, or -1.
    int terminate()
    {
        kill(pid_, SIGTERM);
        for (int i = 0, st = 0; i < 250; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
            if (waitpid(pid_, &st, WNOHANG) == pid_) return pid_ = -1, WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        return -1;
    }

private:
    std::string dir_;
    pid_t pid_ = -1;
};

// Reads messages until one of `type`; the types seen on the way included.
std::vector<std::uint16_t> read_until(int fd, devmgr_rxbuf &rx, std::uint16_t type, devmgr_msg_t &last)
{
    std::vector<std::uint16_t> seen;
    while (devmgr_recv(fd, rx, last, 3000) == 1 && (seen.push_back(last.type), last.type != type)) {}
    return seen;
}

TEST(SimProcess, DeviceManagerAndControlSocket)
{
    oltsim_proc sim;
    ASSERT_TRUE(sim.wait_ready());
    std::uint16_t listen_port = 0;
    int lfd = devmgr_tcp_listen(INADDR_LOOPBACK, 0, &listen_port);
    int sfd = devmgr_tcp_connect(INADDR_LOOPBACK, sim.sync_, 1000);
    ASSERT_GE(sfd, 0);
    devmgr_msg_t m{};
    m.type = DEVMGR_HELLO;
    m.seq = 5;
    std::strcpy(m.hello.progname, "test");
    m.hello.listen_port = listen_port;
    ASSERT_TRUE(devmgr_send(sfd, m, 1000));
    devmgr_rxbuf srx, arx, brx;
    ASSERT_EQ(devmgr_recv(sfd, srx, m, 3000), 1);
    EXPECT_EQ(m.type, DEVMGR_HELLO_ACK);
    EXPECT_EQ(m.seq, 5u);

    int afd = devmgr_tcp_connect(INADDR_LOOPBACK, sim.async_, 1000);
    ASSERT_GE(afd, 0);
    std::vector<std::uint16_t> replay = read_until(afd, arx, DEVMGR_REPLAY_END, m);
    ASSERT_FALSE(replay.empty());
    EXPECT_EQ(replay.front(), DEVMGR_REPLAY_START);
    EXPECT_EQ(replay.back(), DEVMGR_REPLAY_END);
    EXPECT_EQ(sim.cmd("frobnicate"), "error: unknown command (try help)\n");
    EXPECT_EQ(sim.cmd("port ge1/1/9 down"), "error: no port ge1/1/9\n") << "refused: nothing sent";
    ASSERT_EQ(sim.cmd("port ge1/1/1 down"), "ok\n");
    EXPECT_EQ(read_until(afd, arx, DEVMGR_IF_STATUS, m), std::vector<std::uint16_t>{DEVMGR_IF_STATUS});
    EXPECT_EQ(m.ifm.ifindex, 0x12101000u);
    EXPECT_EQ(m.ifm.status, 0u);

    // A restarted manager: the old connection ends, the announced port is called and replayed.
    ASSERT_EQ(sim.cmd("devmgr restart"), "ok\n");
    EXPECT_EQ(devmgr_recv(afd, arx, m, 3000), -1) << "old notification connection closed";
    pollfd p{lfd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 3000), 1);
    int back = accept(lfd, nullptr, nullptr);
    replay = read_until(back, brx, DEVMGR_REPLAY_END, m);
    ASSERT_FALSE(replay.empty());
    EXPECT_EQ(replay.front(), DEVMGR_REPLAY_START);
    EXPECT_EQ(replay.back(), DEVMGR_REPLAY_END);
    std::string show = sim.cmd("show devmgr");
    EXPECT_NE(show.find(" async_clients=1 "), std::string::npos) << show;
    EXPECT_NE(show.find(" hello_prog=test "), std::string::npos) << show;
    for (int fd : {lfd, sfd, afd, back}) close(fd);
    EXPECT_EQ(sim.terminate(), 0);
}

} // namespace
