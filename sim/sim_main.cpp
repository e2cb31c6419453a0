// oltsim: the software OLT. Reads a topology file, then plays the device
// manager and the forwarding plane for the daemon on one event loop.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <string>
#include <syslog.h>
#include <unistd.h>

#include "devlib/devmgr_proto.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "sim/sim_ctl.h"
#include "sim/sim_device.h"
#include "sim/sim_devmgr.h"
#include "sim/sim_fpchan.h"
#include "sim/sim_portio.h"
#include "sim/sim_switch.h"
#include "sim/sim_topology.h"

namespace {

const char *USAGE =
    "usage: oltsim -t TOPOLOGY [options]\n"
    "  -t, --topology FILE          topology file (INI, see docs/oltsim.md)\n"
    "      --check                  read the topology file and exit\n"
    "      --fp-socket PATH         forwarding-plane channel (default /var/run/olt_fp.sock)\n"
    "      --devmgr-port N          device manager sync port (default 30000)\n"
    "      --devmgr-async-port N    device manager async port (default 30008)\n"
    "      --client-port N          reach a waiting client here at start-up (default 30027, 0 off)\n"
    "      --ctl-socket PATH        control socket (default /var/run/oltsim.ctl)\n"
    "      --mac-age SECONDS        MAC ageing time (default 300)\n"
    "      --pid-file PATH          write the process id here\n"
    "      --log-file PATH          log to this file as well\n"
    "      --log-stderr             log to stderr as well\n";

int g_sigpipe[2] = {-1, -1};

void on_signal(int)
{
    int saved = errno;
    (void)!write(g_sigpipe[1], "x", 1);
    errno = saved;
}

int on_signal_task(thread *t)
{
    thread_master_stop(static_cast<thread_master *>(THREAD_ARG(t)));
    return 0;
}

struct ticker {
    thread_master *tm;
    sim_switch *sw;
    thread *t = nullptr;
};

int on_tick(thread *t)
{
    auto *k = static_cast<ticker *>(THREAD_ARG(t));
    k->sw->tick();
    thread_add_timer_msec(k->tm, on_tick, k, 1000, &k->t);
    return 0;
}

std::uint64_t now_ms()
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

bool port_arg(const char *s, std::uint16_t &v, bool zero_ok)
{
    char *end = nullptr;
    long n = std::strtol(s, &end, 10);
    if (!*s || *end || n < (zero_ok ? 0 : 1) || n > 65535) return false;
    v = static_cast<std::uint16_t>(n);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    enum { O_CHECK = 1000, O_FP, O_DM, O_DMA, O_CLIENT, O_CTL, O_AGE, O_PID, O_LOG, O_LOGERR };
    static const option opts[] = {
        {"topology", required_argument, nullptr, 't'},
        {"check", no_argument, nullptr, O_CHECK},
        {"fp-socket", required_argument, nullptr, O_FP},
        {"devmgr-port", required_argument, nullptr, O_DM},
        {"devmgr-async-port", required_argument, nullptr, O_DMA},
        {"client-port", required_argument, nullptr, O_CLIENT},
        {"ctl-socket", required_argument, nullptr, O_CTL},
        {"mac-age", required_argument, nullptr, O_AGE},
        {"pid-file", required_argument, nullptr, O_PID},
        {"log-file", required_argument, nullptr, O_LOG},
        {"log-stderr", no_argument, nullptr, O_LOGERR},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    std::string topo, fp_path = "/var/run/olt_fp.sock", ctl_path = "/var/run/oltsim.ctl", pid_file, log_file;
    std::uint16_t dm_port = DEVMGR_DEFAULT_SYNC_PORT, dma_port = DEVMGR_DEFAULT_ASYNC_PORT;
    std::uint16_t client_port = DEVMGR_DEFAULT_LISTEN_PORT;
    long mac_age = 300;
    bool check = false, log_stderr = false, wrote_pid = false;
    for (int c; (c = getopt_long(argc, argv, "t:h", opts, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
        case 't': topo = optarg; break;
        case O_CHECK: check = true; break;
        case O_FP: fp_path = optarg; break;
        case O_DM: ok = port_arg(optarg, dm_port, false); break;
        case O_DMA: ok = port_arg(optarg, dma_port, false); break;
        case O_CLIENT: ok = port_arg(optarg, client_port, true); break;
        case O_CTL: ctl_path = optarg; break;
        case O_AGE: mac_age = std::strtol(optarg, nullptr, 10); ok = mac_age > 0 && mac_age <= 86400; break;
        case O_PID: pid_file = optarg; break;
        case O_LOG: log_file = optarg; break;
        case O_LOGERR: log_stderr = true; break;
        case 'h': std::fputs(USAGE, stdout); return 0;
        default: ok = false; break;
        }
        if (!ok) {
            std::fprintf(stderr, "oltsim: bad option or value\n%s", USAGE);
            return 2;
        }
    }
    if (topo.empty()) {
        std::fputs(USAGE, stderr);
        return 2;
    }

    sim_model model;
    std::string err;
    if (!sim_topology_load(topo, model, err)) {
        std::fprintf(stderr, "oltsim: %s\n", err.c_str());
        return 1;
    }
    if (check) {
        std::printf("%s: %zu ports, %zu service ports, %zu VLAN interfaces\n", topo.c_str(), model.ports.size(),
                    model.servports.size(), model.vlanifs.size());
        return 0;
    }

    openzlog("oltsim", 0, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    if (!log_file.empty() && !zlog_set_file(log_file.c_str()))
        std::fprintf(stderr, "oltsim: cannot open log file %s\n", log_file.c_str());
    zlog_set_stderr(log_stderr);
    std::signal(SIGPIPE, SIG_IGN);

    thread_master *tm = thread_master_create("oltsim");
    int rc = 0;
    {
        sim_device dev(model);
        sim_portio *io_ptr = nullptr;
        sim_fpchan *fp_ptr = nullptr;
        sim_switch_io sio;
        sio.tx_port = [&](const sim_port &p, bytes_view f) { return io_ptr && io_ptr->tx_port(p, f); };
        sio.tx_vlanif = [&](const sim_vlanif &v, bytes_view f) { return io_ptr && io_ptr->tx_vlanif(v, f); };
        sio.to_module = [&](const hal_msg_pkt_t &p, const frame_info &fi) { return fp_ptr && fp_ptr->deliver(p, fi); };
        sio.now_ms = now_ms;
        sim_switch sw(model, sio);
        sw.macs().set_age_ms(static_cast<std::uint64_t>(mac_age) * 1000);
        sim_portio io(tm, model, sw);
        sim_fpchan fp(tm, model, sw);
        sim_devmgr dm(tm, dev);
        io_ptr = &io;
        fp_ptr = &fp;
        dev.add_listener([&](const devmgr_msg_t &m) {
            sw.on_event(m);
            io.on_event(m);
            dm.notify(m);
        });
        sim_ctl_ctx ctx;
        ctx.dev = &dev;
        ctx.sw = &sw;
        ctx.io = &io;
        ctx.fp = &fp;
        ctx.dm = &dm;
        ctx.now_ms = now_ms;
        sim_ctl ctl(tm, ctx);

        thread *t_sig = nullptr;
        ticker tick{tm, &sw};
        if (pipe2(g_sigpipe, O_CLOEXEC | O_NONBLOCK) < 0 || !fp.start(fp_path) ||
            !dm.start(dm_port, dma_port, client_port) || !ctl.start(ctl_path)) {
            std::fprintf(stderr, "oltsim: start-up failed (see the log)\n");
            rc = 1;
        } else {
            struct sigaction sa{};
            sa.sa_handler = on_signal;
            sigaction(SIGTERM, &sa, nullptr);
            sigaction(SIGINT, &sa, nullptr);
            thread_add_read(tm, on_signal_task, tm, g_sigpipe[0], &t_sig);
            thread_add_timer_msec(tm, on_tick, &tick, 1000, &tick.t);
            io.start();
            if (!pid_file.empty()) {
                if (FILE *f = std::fopen(pid_file.c_str(), "w")) {
                    std::fprintf(f, "%d\n", getpid());
                    std::fclose(f);
                    wrote_pid = true;
                }
            }
            zlog_info("oltsim: %s loaded: %zu ports, %zu service ports, %zu VLAN interfaces", topo.c_str(),
                      model.ports.size(), model.servports.size(), model.vlanifs.size());
            thread t;
            while (thread_fetch(tm, &t)) thread_call(&t);
            zlog_info("oltsim: stopping");
        }
        thread_cancel(&t_sig);
        thread_cancel(&tick.t);
        ctl.stop();
        dm.stop();
        fp.stop();
        io.stop();
    }
    thread_master_free(tm);
    if (wrote_pid) unlink(pid_file.c_str());
    closezlog();
    return rc;
}
