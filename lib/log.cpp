#include "lib/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace {
struct zlog_state {
    std::string ident = "dhcp";
    bool syslog_open = false;
    std::string file_path;
    FILE *file = nullptr;
    bool to_stderr = false;
};
zlog_state g_zlog;

int syslog_priority(int level)
{
    if (level >= LOG_LVL_ASSERT) return LOG_CRIT;
    if (level >= LOG_LVL_ERR) return LOG_ERR;
    if (level >= LOG_LVL_NOTICE) return LOG_NOTICE;
    if (level >= LOG_LVL_INFO) return LOG_INFO;
    return LOG_DEBUG;
}

const char *basename_of(const char *path, std::size_t len)
{
    for (std::size_t i = len; i > 0; --i)
        if (path[i - 1] == '/') return path + i;
    return path;
}
} // namespace

void openzlog(const char *progname, int protocol, int syslog_flags, int facility)
{
    (void)protocol;
    g_zlog.ident = progname ? progname : "dhcp";
    // Without a syslog daemon LOG_CONS would write every line to the console
    // synchronously (a third of a millisecond each): the log file is enough.
    if (access("/dev/log", W_OK) != 0) return;
    openlog(g_zlog.ident.c_str(), syslog_flags, facility);
    g_zlog.syslog_open = true;
}

void closezlog()
{
    if (g_zlog.syslog_open) closelog();
    g_zlog.syslog_open = false;
    if (g_zlog.file) fclose(g_zlog.file);
    g_zlog.file = nullptr;
}

bool zlog_set_file(const char *path)
{
    if (g_zlog.file) fclose(g_zlog.file);
    g_zlog.file = nullptr;
    g_zlog.file_path = path ? path : "";
    if (g_zlog.file_path.empty()) return true;
    g_zlog.file = fopen(g_zlog.file_path.c_str(), "a");
    if (!g_zlog.file) return false;
    setvbuf(g_zlog.file, nullptr, _IOLBF, 0);
    return true;
}

void zlog_rotate()
{
    if (!g_zlog.file_path.empty()) zlog_set_file(std::string(g_zlog.file_path).c_str());
}

void zlog_set_stderr(bool on) { g_zlog.to_stderr = on; }

void st_product_app_log(const char *file, std::size_t file_len, const char *func,
                        std::size_t func_len, int line, int level, const char *module,
                        const char *fmt, ...)
{
    char msg[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);

    const char *base = basename_of(file, file_len);
    if (g_zlog.syslog_open)
        syslog(syslog_priority(level), "[%d][%s] %s:%d %.*s: %s", level, module, base, line,
               (int)func_len, func, msg);
    if (g_zlog.file || g_zlog.to_stderr) {
        timeval tv;
        gettimeofday(&tv, nullptr);
        tm tmv;
        localtime_r(&tv.tv_sec, &tmv);
        char ts[32];
        strftime(ts, sizeof ts, "%Y/%m/%d %H:%M:%S", &tmv);
        if (g_zlog.file)
            fprintf(g_zlog.file, "%s.%03ld %s [%d][%s] %s:%d %.*s: %s\n", ts, (long)(tv.tv_usec / 1000),
                    g_zlog.ident.c_str(), level, module, base, line, (int)func_len, func, msg);
        if (g_zlog.to_stderr)
            fprintf(stderr, "%s.%03ld [%d][%s] %s:%d %.*s: %s\n", ts, (long)(tv.tv_usec / 1000), level,
                    module, base, line, (int)func_len, func, msg);
    }
}
