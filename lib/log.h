// Application log: every line carries time, level, module tag, file:line and
// function; it goes to syslog (ident given to openzlog) and to an optional file.
#pragma once

#include <cstddef>

enum {
    LOG_LVL_DEBUG = 20,
    LOG_LVL_INFO = 40,
    LOG_LVL_NOTICE = 60,
    LOG_LVL_ERR = 100,
    LOG_LVL_ASSERT = 120,
};

void openzlog(const char *progname, int protocol, int syslog_flags, int facility);
void closezlog();
// Also write every line to this file (appending); nullptr or "" stops it.
bool zlog_set_file(const char *path);
void zlog_rotate();
// Echo lines to stderr as well (foreground runs).
void zlog_set_stderr(bool on);

void st_product_app_log(const char *file, std::size_t file_len, const char *func,
                        std::size_t func_len, int line, int level, const char *module,
                        const char *fmt, ...) __attribute__((format(printf, 8, 9)));

#define APP_LOG(level, module, fmt, ...)                                                   \
    st_product_app_log(__FILE__, sizeof(__FILE__) - 1, __func__, sizeof(__func__) - 1,    \
                       __LINE__, level, module, fmt, ##__VA_ARGS__)

#define zlog_debug(fmt, ...) APP_LOG(LOG_LVL_DEBUG, "LIB", fmt, ##__VA_ARGS__)
#define zlog_info(fmt, ...) APP_LOG(LOG_LVL_INFO, "LIB", fmt, ##__VA_ARGS__)
#define zlog_notice(fmt, ...) APP_LOG(LOG_LVL_NOTICE, "LIB", fmt, ##__VA_ARGS__)
#define zlog_err(fmt, ...) APP_LOG(LOG_LVL_ERR, "LIB", fmt, ##__VA_ARGS__)

// Non-fatal assertion: logs "Assertion `expr' failed" at level 120 and goes on.
#define dhcp_assert(expr)                                                  \
    do {                                                                   \
        if (!(expr)) APP_LOG(LOG_LVL_ASSERT, "LIB", "Assertion `%s' failed", #expr); \
    } while (0)
