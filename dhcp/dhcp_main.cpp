// The dhcp daemon: start-up in its fixed order, then the event loop for ever.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "devlib/dev_vty.h"
#include "devlib/uclient.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_intake.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_memory.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_snoop_vty.h"
#include "dhcp/dhcp_vty.h"
#include "dhcp/dhcpr_vty.h"
#include "dhcp/dhcp_stats.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpr.h"
#include "lib/command.h"
#include "lib/log.h"
#include "lib/memory.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "platform/crash.h"
#include "platform/hal.h"
#include "platform/product.h"


#define DHCP_VERSION "6.1"
#define ZLOG_DHCP 22
#define REC_SEQ_DHCP 450

thread_master *master;
uclient_s *uclient;

static const char *pid_file = "/var/run/dhcp.pid";
static const char *vty_path = "/var/run/dhcp.vty";
static const char *product_file = PRODUCT_DEFAULT_FILE;
static const char *config_file = "/etc/olt/dhcp.conf";
static const char *log_file = nullptr;
static bool config_given;
static bool log_stderr;
static std::uint16_t devmgr_port = 30000;
static std::uint16_t devmgr_async_port = 30008;

static thread *t_uclient_read;
static thread *t_uclient_serv;
static thread *t_mib_save;
static thread *t_client_check;

// Long options beyond "daemon" only move paths and ports, so that several
// instances can run side by side in tests.
enum {
    OPT_VTY = 1000, OPT_PID, OPT_HAL, OPT_DEVMGR_PORT, OPT_DEVMGR_ASYNC, OPT_DEVMGR_LISTEN,
    OPT_PRODUCT, OPT_LOG_FILE, OPT_STDERR,
};
static const struct option longopts[] = {
    {"daemon", no_argument, nullptr, 'd'},
    {"config-file", required_argument, nullptr, 'f'},
    {"vty-socket", required_argument, nullptr, OPT_VTY},
    {"pid-file", required_argument, nullptr, OPT_PID},
    {"hal-socket", required_argument, nullptr, OPT_HAL},
    {"devmgr-port", required_argument, nullptr, OPT_DEVMGR_PORT},
    {"devmgr-async-port", required_argument, nullptr, OPT_DEVMGR_ASYNC},
    {"devmgr-listen-port", required_argument, nullptr, OPT_DEVMGR_LISTEN},
    {"product-file", required_argument, nullptr, OPT_PRODUCT},
    {"log-file", required_argument, nullptr, OPT_LOG_FILE},
    {"log-stderr", no_argument, nullptr, OPT_STDERR},
    {nullptr, 0, nullptr, 0},
};

static std::uint16_t port_arg(const char *text, std::uint16_t fallback)
{
    char *end = nullptr;
    long v = std::strtol(text, &end, 10);
    return (end && *end == '\0' && v >= 0 && v <= 65535) ? static_cast<std::uint16_t>(v) : fallback;
}

static int dhcp_uclient_read(thread *t);

static int dhcp_uclient_read(thread *t)
{
    auto *uc = static_cast<uclient_s *>(THREAD_ARG(t));
    int fd = THREAD_FD(t);
    if (uclient_handle_async(uc, fd) < 0) {
        close(fd);
        if (uc->fd_async == fd) uc->fd_async = -1;
        zlog_debug("Connection closed, exiting...");
        return -1;
    }
    thread_add_read(master, dhcp_uclient_read, uc, fd, fd == uc->fd_async ? &t_uclient_read : nullptr);
    return 0;
}

static int dhcp_uclient_serv(thread *t)
{
    auto *uc = static_cast<uclient_s *>(THREAD_ARG(t));
    int sock = THREAD_FD(t);
    thread_add_read(master, dhcp_uclient_serv, uc, sock, &t_uclient_serv);
    sockaddr_in sin{};
    socklen_t len = sizeof sin;
    int fd = accept(sock, reinterpret_cast<sockaddr *>(&sin), &len);
    if (fd < 0) {
        if (errno == EINTR || errno == EAGAIN || errno == ECONNABORTED) return 0;
        zlog_err("accept async failed");
        // Not left armed on a closed descriptor whose number may be reused.
        thread_cancel(&t_uclient_serv);
        close(sock);
        return -1;
    }
    // A restarted manager: this connection now carries the notifications and
    // the one it replaces (if still open) is dropped.
    if (uc->fd_async >= 0 && uc->fd_async != fd) {
        thread_cancel(&t_uclient_read);
        close(uc->fd_async);
    }
    uc->fd_async = fd;
    thread_add_read(master, dhcp_uclient_read, uc, fd, &t_uclient_read);
    return 0;
}

static bool startup_config_loaded;
static thread *t_startup_config;
enum { DHCP_REPLAY_WAIT_S = 5 };

static int dhcp_load_startup_config()
{
    if (startup_config_loaded) return 0;
    startup_config_loaded = true;
    thread_cancel(&t_startup_config);
    int failed = cmd_load_config_file(config_file);
    if (failed < 0) zlog_err("Can't read configuration file %s", config_file);
    else if (failed > 0) zlog_err("%d line(s) of %s failed", failed, config_file);
    return 0;
}

static int dhcp_startup_config_timer(thread *)
{
    if (!startup_config_loaded) zlog_err("Device manager replay not finished; loading %s anyway", config_file);
    return dhcp_load_startup_config();
}

static int dhcp_mib_save_timer(thread *t)
{
    thread_add_timer(master, dhcp_mib_save_timer, nullptr, 10, &t_mib_save);
    return 0;
}

static int dhcp_client_info_check_timer(thread *t)
{
    dhcp_snooping_aging_client_info();
    thread_add_timer(master, dhcp_client_info_check_timer, nullptr, 5, &t_client_check);
    return 0;
}

static void dhcp_register_recovery_seq() { mono_api_cfg_sync_prio_set(30009, "dhcpr", REC_SEQ_DHCP); }

int main(int argc, char **argv)
{
    umask(027);
    const char *slash = std::strrchr(argv[0], '/');
    const char *progname = slash ? slash + 1 : argv[0];

    if (geteuid() != 0) {
        errno = EPERM;
        perror(progname);
        std::exit(1);
    }

    openzlog(progname, ZLOG_DHCP, LOG_PID | LOG_CONS | LOG_NDELAY, LOG_DAEMON);

    bool daemon_mode = false;
    opterr = 0;  // unknown options are ignored
    int opt;
    while ((opt = getopt_long(argc, argv, "df:", longopts, nullptr)) != EOF) {
        switch (opt) {
        case 'd': daemon_mode = true; break;
        case 'f': config_file = optarg; config_given = true; break;
        case OPT_VTY: vty_path = optarg; break;
        case OPT_PID: pid_file = optarg; break;
        case OPT_HAL: hal_set_path(optarg); break;
        case OPT_DEVMGR_PORT: devmgr_port = port_arg(optarg, devmgr_port); break;
        case OPT_DEVMGR_ASYNC: devmgr_async_port = port_arg(optarg, devmgr_async_port); break;
        case OPT_DEVMGR_LISTEN: uclient_set_listen_port(port_arg(optarg, 30027)); break;
        case OPT_PRODUCT: product_file = optarg; break;
        case OPT_LOG_FILE: log_file = optarg; break;
        case OPT_STDERR: log_stderr = true; break;
        default: break;
        }
    }
    if (log_file && !zlog_set_file(log_file)) std::fprintf(stderr, "%s: can't open log file %s\n", progname, log_file);
    zlog_set_stderr(log_stderr);

    master = thread_master_create("dhcp");
    st_init_crash_signal_handlers(argc, argv);

    cmd_init(1);
    vty_init(master, "dhcp");
    memory_init();
    dhcp_memory_init();
    cmd_set_config_file(config_file);

    uif_init();
    uvlan_init();
    dev_vty_init();
    dhcp_vlan_init(1);

    st_product_load(product_file);

    dhcp_l3if_init();
    dhcpr_init(master);
    dhcp_rtnl_init(master);
    dhcp_vty_init();
    dhcp_debug_init();
    dhcpr_vty_init();
    dhcp_snoop_vty_init();
    dhcp_snoop_init();
    dhcp_pkt_statistic_init();
    dhcp_ipsg_init();

    sort_node();
    cmd_verify_help();

    uclient = uclient_connect(progname, 0x7F000001, devmgr_port, devmgr_async_port);
    if (!uclient) {
        zlog_err("Failed to create uclient");
        std::exit(1);
    }
    dhcp_zebra_register(uclient);

    char name[64] = "";
    if (mono_api_get_hostname(name, sizeof name) == 0) dhcp_update_sysname(name);
    cmd_set_hostname(dhcp_sysname);
    dhcp_register_recovery_seq();

    thread_add_read(master, dhcp_uclient_read, uclient, uclient->fd_async, &t_uclient_read);
    thread_add_read(master, dhcp_uclient_serv, uclient, uclient->async_server_sock, &t_uclient_serv);

    if (daemon_mode && daemon(0, 0) < 0) {
        zlog_err("daemon failed: %s", std::strerror(errno));
        std::exit(1);
    }

    pid_output(pid_file);
    vty_serv_sock(vty_path);
    zlog_notice("DHCP %s starting", DHCP_VERSION);

    dhcp_pkt_queue_start(master);
    thread_add_timer(master, dhcp_mib_save_timer, nullptr, 10, &t_mib_save);
    hal_init(HAL_DHCP, master, dhcp_nl_msg);
    thread_add_timer(master, dhcp_client_info_check_timer, nullptr, 5, &t_client_check);

    // The startup configuration names ports and VLANs: it is applied once the
    // device manager has replayed them, or after a grace period without it.
    if (config_given) {
        uclient->replay_end = dhcp_load_startup_config;
        thread_add_timer(master, dhcp_startup_config_timer, nullptr, DHCP_REPLAY_WAIT_S, &t_startup_config);
    }

    thread fetch;
    while (thread_fetch(master, &fetch)) thread_call(&fetch);
    return 0;
}
