#include "platform/crash.h"

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include "lib/log.h"

static void crash_handler(int sig)
{
    // Only async-signal-safe calls until the re-raise.
    char head[64];
    int n = std::snprintf(head, sizeof head, "dhcp: fatal signal %d\n", sig);
    if (n > 0) (void)!write(STDERR_FILENO, head, static_cast<std::size_t>(n));
    void *frames[48];
    int depth = backtrace(frames, 48);
    backtrace_symbols_fd(frames, depth, STDERR_FILENO);
    signal(sig, SIG_DFL);
    raise(sig);
}

void st_init_crash_signal_handlers(int, char **)
{
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) signal(sig, crash_handler);
    // The daemon installs no handlers of its own for these.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    signal(SIGUSR1, SIG_IGN);
}

int pid_output(const char *path)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        zlog_err("Can't create pid file %s: %s", path, std::strerror(errno));
        return -1;
    }
    char buf[32];
    int n = std::snprintf(buf, sizeof buf, "%d\n", (int)getpid());
    bool ok = n > 0 && write(fd, buf, static_cast<std::size_t>(n)) == n;
    close(fd);
    return ok ? 0 : -1;
}
