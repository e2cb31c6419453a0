// Start-up of the real daemon: who may start it, what it needs before it
// serves, and how it detaches.
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>
#include "tests/support/daemon_proc.h"
#include "tests/support/fake_devmgr.h"
#include "tests/support/fake_fp.h"

namespace fs = std::filesystem;

namespace {

pid_t read_pid_file(const std::string &path, int timeout_ms)
{
    for (int waited = 0; waited <= timeout_ms; waited += 20) {
        std::ifstream f(path);
        long pid = 0;
        if (f >> pid && pid > 0) return static_cast<pid_t>(pid);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -1;
}

TEST(DaemonStartup, NonRootIsRefusedBeforeAnythingIsCreated)
{
    daemon_proc d(DHCP_BIN, DHCPSH_BIN);
    fake_devmgr dm;
    ASSERT_TRUE(dm.start());
    // Writable for the unprivileged user, so a daemon that got further would
    // leave traces here; the program copied in, since the build tree may be closed to that user.
    fs::permissions(d.dir(), fs::perms::all);
    const std::string bin = d.dir() + "/dhcp";
    fs::copy_file(DHCP_BIN, bin);
    fs::permissions(bin, fs::perms(0755));
    std::vector<std::string> argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    for (auto &a : d.args(&dm)) argv.push_back(a);
    argv[4] = bin;

    proc_result r = run_proc(argv);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "dhcp: Operation not permitted\n");
    EXPECT_FALSE(fs::exists(d.log_path()));
    EXPECT_FALSE(fs::exists(d.pid_path()));
    EXPECT_FALSE(fs::exists(d.vty_path()));
    EXPECT_FALSE(dm.wait_hello(200)) << "refused daemon still contacted the device manager";
}

// Either connection of the device manager missing is fatal, not only the first.
TEST(DaemonStartup, UnreachableDeviceManagerExitsWithoutPidFile)
{
    fake_devmgr dm;
    ASSERT_TRUE(dm.start());
    refused_port closed_sync, closed_async;
    ASSERT_NE(closed_sync.port(), 0);
    ASSERT_NE(closed_async.port(), 0);
    struct {
        const char *what;
        unsigned short sync, async;
    } cases[] = {
        {"nothing listening", closed_sync.port(), closed_async.port()},
        {"async port refused", dm.sync_port(), closed_async.port()},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        daemon_proc d(DHCP_BIN, DHCPSH_BIN);
        proc_result r = run_proc(d.args(nullptr, {"--devmgr-port", std::to_string(c.sync), "--devmgr-async-port",
                                                  std::to_string(c.async)}));
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(d.log_lines("Failed to create uclient", 100).size(), 1u);
        EXPECT_FALSE(fs::exists(d.pid_path()));
        EXPECT_FALSE(fs::exists(d.vty_path()));
    }
}

// Unknown options are ignored, the daemon installs no handlers of its own for
// SIGHUP and SIGUSR1, and a host name the manager does not answer for comes
// from the product file until the replay brings the manager's.
TEST(DaemonStartup, ForegroundStartIgnoresUnknownOptionsHangupAndUser1)
{
    daemon_proc d(DHCP_BIN, DHCPSH_BIN);
    fake_devmgr dm;
    fake_fp fp;
    dm.set_hostname("from-manager");
    dm.set_answer_hostname(false);
    ASSERT_TRUE(dm.start());
    ASSERT_TRUE(fp.start(d.hal_path()));
    ASSERT_TRUE(d.start(dm, {"--no-such-option", "-z", "--colour=blue", "-q", "stray"}));
    EXPECT_TRUE(fp.wait_registered(5000));
    EXPECT_EQ(fp.module(), 1027u);
    EXPECT_EQ(read_pid_file(d.pid_path(), 2000), d.pid()) << "in the foreground the pid file names the daemon itself";
    EXPECT_EQ(d.log_lines("DHCP 6.1 starting", 60).size(), 1u);
    EXPECT_EQ(fs::status(d.vty_path()).permissions() & fs::perms::all, fs::perms(0660));
    ASSERT_EQ(kill(d.pid(), SIGHUP), 0);
    ASSERT_EQ(kill(d.pid(), SIGUSR1), 0);
    EXPECT_TRUE(d.wait_log("dhcp hostname change to prodfile"));
    ASSERT_TRUE(d.wait_log("dhcp hostname change to from-manager"));
    EXPECT_EQ(d.vty('P').prompt, "from-manager# ");
    EXPECT_TRUE(d.alive());
    EXPECT_TRUE(d.log_lines("SIGHUP received").empty());
}

// What a killed daemon leaves behind (vty socket, pid file) does not stop the next one.
TEST(DaemonStartup, StartsAgainAfterBeingKilled)
{
    daemon_proc d(DHCP_BIN, DHCPSH_BIN);
    fake_devmgr dm;
    fake_fp fp;
    ASSERT_TRUE(dm.start());
    ASSERT_TRUE(fp.start(d.hal_path()));
    ASSERT_TRUE(d.start(dm));
    ASSERT_TRUE(fp.wait_registered(5000));
    ASSERT_TRUE(d.wait_replayed(1));
    d.kill_now();
    ASSERT_TRUE(fs::exists(d.vty_path()));
    ASSERT_TRUE(d.start(dm));
    EXPECT_TRUE(fp.wait_registered(5000));
    EXPECT_EQ(fp.registrations(), 2);
    EXPECT_EQ(read_pid_file(d.pid_path(), 2000), d.pid());
    EXPECT_TRUE(d.wait_replayed(2)) << "second instance got no device state";
    EXPECT_EQ(d.sh({"configure terminal", "show debugging dhcp"}).out, "  Dhcp debugging is off\n");
}

TEST(DaemonStartup, DaemonModeDetachesAndWritesThePidOfTheDetachedProcess)
{
    for (const char *flag : {"-d", "--daemon"}) {
        SCOPED_TRACE(flag);
        daemon_proc d(DHCP_BIN, DHCPSH_BIN);
        fake_devmgr dm;
        ASSERT_TRUE(dm.start());
        proc_result r = run_proc(d.args(&dm, {flag}));
        // The process we started returns at once; the daemon lives on.
        ASSERT_EQ(r.status, 0) << r.err;
        pid_t pid = read_pid_file(d.pid_path(), 5000);
        ASSERT_GT(pid, 0);
        d.adopt(pid);
        // The process that was started has been reaped: a live pid is the detached one.
        EXPECT_TRUE(d.alive());
        vty_reply rep;
        for (int i = 0; i < 100 && !(rep = d.vty('P')).ok; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_TRUE(rep.ok) << "detached daemon does not serve its vty";
    }
}

} // namespace
