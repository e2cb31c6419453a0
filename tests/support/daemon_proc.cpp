#include "tests/support/daemon_proc.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "lib/wire.h"
#include "tests/support/fake_devmgr.h"

namespace {

using clk = std::chrono::steady_clock;

int ms_left(clk::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clk::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Forks and executes argv with stdin from /dev/null and the given stdout and
// stderr; the child dies with this process.
pid_t spawn(const std::vector<std::string> &argv, int out_fd, int err_fd)
{
    std::vector<char *> args;
    for (const auto &s : argv) args.push_back(const_cast<char *>(s.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec: the peers run threads.
        int null_fd = open("/dev/null", O_RDONLY);
        if (null_fd >= 0) dup2(null_fd, STDIN_FILENO);
        dup2(out_fd, STDOUT_FILENO);
        dup2(err_fd, STDERR_FILENO);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int exit_code(int status)
{
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

// Reaps pid within timeout_ms; the exit code, or -1 if it is still running.
int reap(pid_t pid, int timeout_ms)
{
    auto deadline = clk::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return exit_code(status);
        if (r < 0 && errno != EINTR) return -1;
        if (ms_left(deadline) == 0) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool send_all(int fd, const std::vector<std::uint8_t> &b)
{
    std::size_t done = 0;
    while (done < b.size()) {
        ssize_t n = send(fd, b.data() + done, b.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool recv_all(int fd, std::uint8_t *p, std::size_t len)
{
    while (len) {
        ssize_t n = recv(fd, p, len, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

proc_result run_proc(const std::vector<std::string> &argv, int timeout_ms)
{
    proc_result res;
    int out[2], err[2];
    if (argv.empty() || pipe2(out, O_CLOEXEC) < 0) return res;
    if (pipe2(err, O_CLOEXEC) < 0) {
        close(out[0]);
        close(out[1]);
        return res;
    }
    pid_t pid = spawn(argv, out[1], err[1]);
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        close(out[0]);
        close(err[0]);
        return res;
    }
    auto deadline = clk::now() + std::chrono::milliseconds(timeout_ms);
    pollfd p[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *sink[2] = {&res.out, &res.err};
    int open_fds = 2;
    while (open_fds > 0 && ms_left(deadline) > 0) {
        if (poll(p, 2, ms_left(deadline)) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (p[i].fd < 0 || !p[i].revents) continue;
            char buf[4096];
            ssize_t n = read(p[i].fd, buf, sizeof buf);
            if (n > 0) {
                sink[i]->append(buf, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(p[i].fd);
                p[i].fd = -1;
                --open_fds;
            }
        }
    }
    for (auto &pf : p)
        if (pf.fd >= 0) close(pf.fd);
    res.status = reap(pid, ms_left(deadline));
    if (res.status < 0) {
        kill(pid, SIGKILL);
        reap(pid, 5000);
    }
    return res;
}

refused_port::refused_port()
{
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sin;
    if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&sin), sizeof sin) == 0 &&
        getsockname(fd_, reinterpret_cast<sockaddr *>(&sin), &len) == 0)
        port_ = ntohs(sin.sin_port);
}

refused_port::~refused_port()
{
    if (fd_ >= 0) close(fd_);
}

daemon_proc::daemon_proc(std::string dhcp_bin, std::string dhcpsh_bin)
    : dhcp_bin_(std::move(dhcp_bin)), dhcpsh_bin_(std::move(dhcpsh_bin))
{
    // A daemonised instance is reparented to this process, so that it can be
    // reaped here instead of lingering as a zombie.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    char tmpl[] = "/tmp/dhcp-comp-XXXXXX";
    if (mkdtemp(tmpl)) dir_ = tmpl;
    std::ofstream(product_path()) << "[product]\n"
                                     "sys_mac = 00:0a:0b:0c:0d:00\n"
                                     "slot = 1\n"
                                     "hostname = prodfile\n";
}

daemon_proc::~daemon_proc()
{
    // The end of the log, and whatever the daemon printed (a crash trace), help
    // more than the failed expectation alone.
    if (::testing::Test::HasFailure()) {
        for (const std::string &path : {log_path(), out_path()}) {
            std::ifstream f(path);
            std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
            std::size_t cut = text.size() > 12000 ? text.size() - 12000 : 0;
            std::fprintf(stderr, "---- %s ----\n%s---- end ----\n", path.c_str(), text.c_str() + cut);
        }
    }
    kill_now();
    // A detached instance whose pid never reached the test (no pid file, or a
    // wrong one) was re-parented to this process: find it by its paths.
    for (pid_t stray : strays()) {
        kill(stray, SIGKILL);
        reap(stray, 5000);
    }
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

std::vector<pid_t> daemon_proc::strays() const
{
    std::vector<pid_t> found;
    std::error_code ec;
    if (dir_.empty()) return found;
    for (const auto &e : std::filesystem::directory_iterator("/proc", ec)) {
        const std::string name = e.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream stat(e.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        std::size_t close_paren = text.rfind(')');
        int ppid = 0;
        if (close_paren == std::string::npos ||
            std::sscanf(text.c_str() + close_paren + 1, " %*c %d", &ppid) != 1 || ppid != getpid())
            continue;
        std::ifstream cmd(e.path() / "cmdline");
        std::string argv((std::istreambuf_iterator<char>(cmd)), std::istreambuf_iterator<char>());
        if (argv.find(dir_ + "/") != std::string::npos) found.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return found;
}

std::vector<std::string> daemon_proc::args(const fake_devmgr *dm, const std::vector<std::string> &extra) const
{
    std::vector<std::string> a = {dhcp_bin_,       "--vty-socket",   vty_path(),     "--pid-file",
                                  pid_path(),      "--hal-socket",   hal_path(),     "--product-file",
                                  product_path(),  "--log-file",     log_path(),     "--devmgr-listen-port",
                                  "0"};
    if (dm) {
        a.insert(a.end(), {"--devmgr-port", std::to_string(dm->sync_port()), "--devmgr-async-port",
                           std::to_string(dm->async_port())});
    }
    a.insert(a.end(), extra.begin(), extra.end());
    return a;
}

bool daemon_proc::start(const fake_devmgr &dm, const std::vector<std::string> &extra, int timeout_ms)
{
    kill_now();
    int out_fd = open(out_path().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_t pid = spawn(args(&dm, extra), out_fd, out_fd);
    if (out_fd >= 0) close(out_fd);
    if (pid < 0) return false;
    pid_ = pid;
    child_ = true;
    auto deadline = clk::now() + std::chrono::milliseconds(timeout_ms);
    while (ms_left(deadline) > 0) {
        if (!alive()) return false;
        if (vty('P', "", 1000).ok) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

bool daemon_proc::wait_replayed(int n, int timeout_ms) const
{
    return wait_log("Device manager state replay done", timeout_ms, -1, static_cast<std::size_t>(n));
}

void daemon_proc::adopt(pid_t pid)
{
    kill_now();
    pid_ = pid;
    child_ = true;  // reparented to this process (a subreaper)
}

bool daemon_proc::alive() const
{
    if (pid_ <= 0) return false;
    // An exited child stays a zombie until reaped: peek without reaping, so
    // that kill_now still owns the pid.
    siginfo_t si{};
    if (child_ && waitid(P_PID, static_cast<id_t>(pid_), &si, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        si.si_pid == pid_)
        return false;
    return kill(pid_, 0) == 0;
}

void daemon_proc::kill_now()
{
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    if (child_) reap(pid_, 5000);
    pid_ = -1;
    child_ = false;
}

proc_result daemon_proc::sh(const std::vector<std::string> &cmds, int timeout_ms) const
{
    std::vector<std::string> argv = {dhcpsh_bin_, "-s", vty_path()};
    for (const auto &c : cmds) argv.insert(argv.end(), {"-c", c});
    return run_proc(argv, timeout_ms);
}

vty_reply daemon_proc::vty(char op, const std::string &line, int timeout_ms) const
{
    std::vector<vty_reply> r = requests({{op, line}}, timeout_ms);
    return r.empty() ? vty_reply{} : r[0];
}

std::vector<vty_reply> daemon_proc::vty_session(const std::vector<std::string> &lines, int timeout_ms) const
{
    std::vector<std::pair<char, std::string>> reqs;
    for (const auto &l : lines) reqs.emplace_back('X', l);
    return requests(reqs, timeout_ms);
}

std::vector<vty_reply> daemon_proc::requests(const std::vector<std::pair<char, std::string>> &reqs,
                                             int timeout_ms) const
{
    std::vector<vty_reply> replies;
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::string path = vty_path();
    if (path.size() >= sizeof sa.sun_path) return replies;
    std::memcpy(sa.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return replies;
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    bool up = connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
    for (const auto &[op, line] : reqs) {
        std::vector<std::uint8_t> req(5 + line.size());
        wire_writer w(req);
        w.u8(static_cast<std::uint8_t>(op));
        w.be32(static_cast<std::uint32_t>(line.size()));
        w.put(line.data(), line.size());
        vty_reply rep;
        up = up && send_all(fd, req);
        while (up) {
            std::uint8_t hdr[5];
            std::uint8_t type = 0;
            std::uint32_t len = 0;
            wire_reader r(hdr);
            if (!recv_all(fd, hdr, sizeof hdr) || !r.u8(type) || !r.be32(len) || len > (1u << 24)) break;
            std::vector<std::uint8_t> body(len);
            if (!recv_all(fd, body.data(), len)) break;
            if (type == 'O') {
                rep.output.append(body.begin(), body.end());
                continue;
            }
            if (type != 'E') break;
            wire_reader e(body);
            std::uint32_t result = 0;
            std::uint8_t flags = 0;
            if (!e.be32(result) || !e.u8(flags)) break;
            rep.result = static_cast<int>(result);
            rep.prompt.assign(body.begin() + static_cast<std::ptrdiff_t>(e.pos()), body.end());
            rep.ok = true;
            break;
        }
        up = up && rep.ok;
        replies.push_back(rep);
    }
    close(fd);
    return replies;
}

std::string daemon_proc::log() const
{
    std::ifstream f(log_path());
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::vector<std::string> daemon_proc::log_lines(const std::string &text, int level) const
{
    std::vector<std::string> lines;
    std::istringstream in(log());
    std::string tag = level >= 0 ? "[" + std::to_string(level) + "][" : "";
    for (std::string l; std::getline(in, l);)
        if (l.find(text) != std::string::npos && (tag.empty() || l.find(tag) != std::string::npos))
            lines.push_back(l);
    return lines;
}

bool daemon_proc::wait_log(const std::string &text, int timeout_ms, int level, std::size_t count) const
{
    auto deadline = clk::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (log_lines(text, level).size() >= count) return true;
        if (ms_left(deadline) == 0) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}
