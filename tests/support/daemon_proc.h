// The real dhcp daemon as a child process of a component test: its own
// temporary directory for every path (vty socket, pid file, forwarding-plane
// socket, log, product file), the scripted device manager's ports, the shell
// run against its vty, and the daemon killed by pid when the object goes
// (also when an assertion failed half-way).
#pragma once

#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

class fake_devmgr;

struct proc_result {
    int status = -1;  // exit code; 128 + signal when killed; -1 when timed out or not started
    std::string out, err;
};

// Runs argv to its end with stdin from /dev/null, capturing stdout and stderr.
// Killed (and reported as -1) after timeout_ms.
proc_result run_proc(const std::vector<std::string> &argv, int timeout_ms = 10000);

// A TCP port on 127.0.0.1 that refuses connections: bound, never listening,
// held until the object goes so that nobody else takes it meanwhile.
class refused_port {
public:
    refused_port();
    ~refused_port();
    refused_port(const refused_port &) = delete;
    refused_port &operator=(const refused_port &) = delete;
    unsigned short port() const { return port_; }

private:
    int fd_ = -1;
    unsigned short port_ = 0;
};

// What one request on the vty answered (docs/vty-protocol.md).
struct vty_reply {
    bool ok = false;  // a whole reply arrived
    int result = -1;
    std::string output, prompt;
};

class daemon_proc {
public:
    // The test binaries know where the build put both programs (DHCP_BIN, DHCPSH_BIN).
    daemon_proc(std::string dhcp_bin, std::string dhcpsh_bin);
    ~daemon_proc();
    daemon_proc(const daemon_proc &) = delete;
    daemon_proc &operator=(const daemon_proc &) = delete;

    const std::string &dir() const { return dir_; }
    std::string vty_path() const { return dir_ + "/dhcp.vty"; }
    std::string pid_path() const { return dir_ + "/dhcp.pid"; }
    std::string hal_path() const { return dir_ + "/fp.sock"; }
    std::string log_path() const { return dir_ + "/dhcp.log"; }
    std::string product_path() const { return dir_ + "/product.ini"; }
    std::string out_path() const { return dir_ + "/stdio.txt"; }  // the daemon's stdout and stderr

    // The daemon's command line: this instance's paths, the manager's ports
    // (none when dm is null), then `extra`.
    std::vector<std::string> args(const fake_devmgr *dm, const std::vector<std::string> &extra = {}) const;

    // Starts the daemon as a child (foreground) and waits until its vty
    // answers. False if it exited or did not answer within timeout_ms.
    bool start(const fake_devmgr &dm, const std::vector<std::string> &extra = {}, int timeout_ms = 10000);
    // Waits until the n-th device-manager replay has been applied.
    bool wait_replayed(int n, int timeout_ms = 10000) const;
    // Takes charge of a daemonised instance: it is killed by this pid at the end.
    void adopt(pid_t pid);
    pid_t pid() const { return pid_; }
    bool alive() const;
    void kill_now();

    // dhcpsh -s VTY -c CMD ... with its output and exit status.
    proc_result sh(const std::vector<std::string> &cmds, int timeout_ms = 10000) const;
    // One framed request on a fresh vty session ('X' command, 'P' prompt ...).
    vty_reply vty(char op, const std::string &line = "", int timeout_ms = 5000) const;
    // Command lines executed one after the other in one session; a reply each.
    std::vector<vty_reply> vty_session(const std::vector<std::string> &lines, int timeout_ms = 5000) const;

    std::string log() const;
    // Log lines that carry `text` (and, level >= 0, the level tag "[level]").
    std::vector<std::string> log_lines(const std::string &text, int level = -1) const;
    bool wait_log(const std::string &text, int timeout_ms = 5000, int level = -1, std::size_t count = 1) const;

private:
    // Children of this process started with this instance's paths.
    std::vector<pid_t> strays() const;
    std::vector<vty_reply> requests(const std::vector<std::pair<char, std::string>> &reqs, int timeout_ms) const;

    std::string dhcp_bin_, dhcpsh_bin_;
    std::string dir_;
    pid_t pid_ = -1;
    bool child_ = false;  // our own child (reaped with waitpid)
};
