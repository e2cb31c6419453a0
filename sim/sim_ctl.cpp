#include "sim/sim_ctl.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "devlib/ifindex.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "sim/sim_device.h"
#include "sim/sim_devmgr.h"
#include "sim/sim_fpchan.h"
#include "sim/sim_portio.h"
#include "sim/sim_switch.h"

namespace {

enum {
    MAX_CONNS = 8,
    LINE_MAX_ = 1024,
    IDLE_MS = 5000,    // a client that never finishes its line is dropped
    WRITE_MS = 20,
};

std::vector<std::string> split(const std::string &s)
{
    std::vector<std::string> w;
    std::istringstream in(s);
    for (std::string t; in >> t;) w.push_back(t);
    return w;
}

std::string hex(std::uint32_t v)
{
    char b[16];
    std::snprintf(b, sizeof b, "0x%08x", v);
    return b;
}

std::string ipv4(std::uint32_t v)
{
    in_addr a{htonl(v)};
    char b[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a, b, sizeof b);
    return b;
}

std::string port_name(const sim_model &m, std::uint32_t ifindex)
{
    if (const sim_port *p = m.port(ifindex)) return p->name;
    char b[32];
    return st_get_ifname_by_ifindex(ifindex, b, sizeof b) == 0 ? std::string(b) : hex(ifindex);
}

bool parse_u32(const std::string &s, std::uint32_t &v, std::uint32_t max)
{
    char *end = nullptr;
    errno = 0;
    unsigned long n = std::strtoul(s.c_str(), &end, 10);
    if (s.empty() || *end || errno || n > max || s[0] == '-') return false;
    v = static_cast<std::uint32_t>(n);
    return true;
}

bool updown(const std::string &s, bool &v)
{
    if (s == "up" || s == "online" || s == "start" || s == "on") v = true;
    else if (s == "down" || s == "offline" || s == "end" || s == "off") v = false;
    else return false;
    return true;
}

using lines = std::ostringstream;

void show_system(sim_ctl_ctx &c, lines &o)
{
    const sim_model &m = c.dev->model();
    o << "system mac=" << sim_mac_str(m.mac) << " hostname=" << m.hostname
      << " vlans=" << sim_vlan_list_str(m.vlans) << "\n";
}

void show_ports(sim_ctl_ctx &c, lines &o)
{
    const sim_model &m = c.dev->model();
    for (auto &[ix, p] : m.ports) {
        o << "port name=" << p.name << " ifindex=" << hex(ix) << " type=" << sim_port_type_str(p.type)
          << " present=" << p.present << " status=" << (p.up ? "up" : "down")
          << " admin=" << (p.admin ? "up" : "down") << " forwarding=" << m.port_forwarding(p)
          << " role=" << (p.role == SIM_ROLE_ACCESS ? "access" : "uplink")
          << " linux=" << p.linux_if << " io=" << (c.io ? c.io->port_state(ix) : "none")
          << " trunk=" << p.trunk << " pvid=" << p.pvid << " tagged=" << sim_vlan_list_str(p.tagged)
          << " untagged=" << sim_vlan_list_str(p.untagged);
        if (sim_is_trunk(p)) {
            o << " members=";
            for (std::size_t i = 0; i < p.members.size(); ++i)
                o << (i ? "," : "") << port_name(m, p.members[i]);
        }
        if (sim_is_onu(p))
            o << " pon=" << port_name(m, p.pon) << " onu_id=" << p.onu_id << " sn=" << p.sn
              << " online=" << p.online;
        o << "\n";
    }
}

void show_counters(sim_ctl_ctx &c, lines &o)
{
    const sim_model &m = c.dev->model();
    for (auto &[ix, p] : m.ports) {
        const sim_port_counters &k = p.cnt;
        o << "counters port=" << p.name << " rx_frames=" << k.rx_frames << " rx_bytes=" << k.rx_bytes
          << " tx_frames=" << k.tx_frames << " tx_bytes=" << k.tx_bytes << " rx_trapped=" << k.rx_trapped
          << " rx_drop_vlan=" << k.rx_drop_vlan << " rx_drop_guard=" << k.rx_drop_guard
          << " rx_drop_bad=" << k.rx_drop_bad << " rx_drop_big=" << k.rx_drop_big
          << " rx_drop_down=" << k.rx_drop_down << " tx_drop=" << k.tx_drop << " tx_error=" << k.tx_error
          << "\n";
    }
    const sim_switch_stats &s = c.sw->stats();
    o << "switch rx_unknown_port=" << s.rx_unknown_port << " trapped=" << s.trapped
      << " trap_undelivered=" << s.trap_undelivered << " learn_full=" << s.learn_full
      << " mac_moves=" << s.mac_moves << " flooded=" << s.flooded << " filtered=" << s.filtered
      << " vlanif_rx=" << s.vlanif_rx << " vlanif_tx=" << s.vlanif_tx << " vlanif_drop=" << s.vlanif_drop
      << " mod_frames=" << s.mod_frames << " mod_sent=" << s.mod_sent << " mod_bad=" << s.mod_bad
      << " mod_unknown_port=" << s.mod_unknown_port << " mod_drop=" << s.mod_drop << "\n";
}

void show_vlans(sim_ctl_ctx &c, lines &o)
{
    const sim_model &m = c.dev->model();
    for (unsigned vid = SIM_VLAN_MIN; vid <= SIM_VLAN_MAX; ++vid) {
        if (!m.vlans.test(vid)) continue;
        std::string tagged, untagged;
        for (auto &[ix, p] : m.ports) {
            if (!p.present || p.trunk || sim_is_pon(p)) continue;
            bool t = false;
            bool member = false;
            if (sim_is_onu(p)) {
                std::uint16_t tag = 0;
                member = sim_egress_onu(m, p, static_cast<std::uint16_t>(vid), tag) &&
                         m.servport_for_vlan(ix, static_cast<std::uint16_t>(vid));
                t = tag != 0;
            } else {
                member = m.port_in_vlan(p, static_cast<std::uint16_t>(vid), &t);
            }
            if (!member) continue;
            std::string &list = t ? tagged : untagged;
            list += (list.empty() ? "" : ",") + p.name;
        }
        auto vi = m.vlanifs.find(static_cast<std::uint16_t>(vid));
        o << "vlan vid=" << vid << " tagged=" << tagged << " untagged=" << untagged
          << " trap4=" << c.sw->traps().on(4, static_cast<std::uint16_t>(vid))
          << " trap6=" << c.sw->traps().on(6, static_cast<std::uint16_t>(vid))
          << " guard=" << c.sw->guard().vlan_on(static_cast<std::uint16_t>(vid))
          << " vlanif=" << (vi != m.vlanifs.end() ? vi->second.ifname : "") << "\n";
    }
}

void show_servports(sim_ctl_ctx &c, lines &o)
{
    const sim_model &m = c.dev->model();
    for (auto &[id, sp] : m.servports)
        o << "servport id=" << id << " ifindex=" << hex(sp.ifindex) << " onu=" << port_name(m, sp.onu)
          << " vlan=" << sp.vlan << " lltag=" << sp.lltag << " uservlan=" << sp.uservlan
          << " user_tag=" << (sp.user_tagged ? "tagged" : "untagged") << " action=" << sp.action << "\n";
}

void show_vlanifs(sim_ctl_ctx &c, lines &o)
{
    for (auto &[vid, v] : c.dev->model().vlanifs)
        o << "vlanif vid=" << vid << " ifname=" << v.ifname << " mac=" << sim_mac_str(v.mac)
          << " address=" << v.address << " io=" << (c.io ? c.io->vlanif_state(vid) : "none") << "\n";
}

bool show_macs(sim_ctl_ctx &c, const std::vector<std::string> &w, lines &o, std::string &err)
{
    std::uint32_t only = 0;
    if (w.size() > 2 && !parse_u32(w[2], only, SIM_VLAN_MAX)) {
        err = "VLAN id expected";
        return false;
    }
    const sim_model &m = c.dev->model();
    std::uint64_t now = c.now_ms ? c.now_ms() : 0;
    c.sw->macs().walk([&](std::uint16_t vid, const std::uint8_t mac[6], const sim_mac_entry &e) {
        if (only && vid != only) return;
        o << "mac vid=" << vid << " mac=" << sim_mac_str(mac) << " port=" << port_name(m, e.bport)
          << " rx_port=" << port_name(m, e.rx_ifindex)
          << " age=" << (now >= e.seen_ms ? (now - e.seen_ms) / 1000 : 0) << "\n";
    });
    return true;
}

void show_traps(sim_ctl_ctx &c, lines &o)
{
    for (unsigned vid = SIM_VLAN_MIN; vid <= SIM_VLAN_MAX; ++vid) {
        bool v4 = c.sw->traps().on(4, static_cast<std::uint16_t>(vid));
        bool v6 = c.sw->traps().on(6, static_cast<std::uint16_t>(vid));
        if (v4 || v6) o << "trap vid=" << vid << " v4=" << v4 << " v6=" << v6 << "\n";
    }
}

void show_guard(sim_ctl_ctx &c, lines &o)
{
    const sim_model &m = c.dev->model();
    c.sw->guard().walk_vlans([&](std::uint16_t vid) { o << "guard vid=" << vid << " on=1\n"; });
    c.sw->guard().walk([&](const sim_guard_rule &r) {
        o << "rule vid=" << r.vid << " port=" << port_name(m, r.ifindex) << " mac=" << sim_mac_str(r.mac)
          << " ip=" << ipv4(r.ip) << "\n";
    });
}

void show_fp(sim_ctl_ctx &c, lines &o)
{
    if (!c.fp) {
        o << "fp path= connections=0 module=0\n";
        return;
    }
    const sim_fpchan_stats &s = c.fp->stats();
    o << "fp path=" << c.fp->path() << " connections=" << c.fp->connections() << " module=" << c.fp->module()
      << " connects=" << s.connects << " disconnects=" << s.disconnects
      << " registrations=" << s.registrations << " rx_msgs=" << s.rx_msgs << " rx_bad=" << s.rx_bad
      << " requests=" << s.requests << " pkts_in=" << s.pkts_in << " pkts_out=" << s.pkts_out
      << " pkts_out_drop=" << s.pkts_out_drop << " refused_conns=" << s.refused_conns << "\n";
}

void show_devmgr(sim_ctl_ctx &c, lines &o)
{
    if (!c.dm) {
        o << "devmgr sync_port=0 async_port=0\n";
        return;
    }
    const sim_devmgr_stats &s = c.dm->stats();
    const devmgr_hello_t &h = c.dm->last_hello();
    const devmgr_recovery_t &r = c.dm->last_recovery();
    o << "devmgr sync_port=" << c.dm->sync_port() << " async_port=" << c.dm->async_port()
      << " sync_clients=" << c.dm->sync_clients() << " async_clients=" << c.dm->async_clients()
      << " replays=" << s.replays << " requests=" << s.requests << " notifications=" << s.notifications
      << " broken=" << s.broken << " overflows=" << s.overflows << " hello_prog=" << h.progname
      << " hello_pid=" << h.pid << " hello_port=" << h.listen_port << " recovery_app=" << r.name
      << " recovery_slot=" << r.slotid << " recovery_result=" << r.result << "\n";
}

const char *HELP =
    "show (system|ports|counters|vlans|servports|vlanifs|traps|guard|fp|devmgr)\n"
    "show macs [VID]\n"
    "hostname NAME\n"
    "port NAME (up|down)\n"
    "port NAME admin (up|down)\n"
    "port NAME remove\n"
    "port NAME add [linux IFNAME] [sn SERIAL]\n"
    "port NAME vlan (add|remove) VIDS [tagged|untagged]\n"
    "port NAME pvid VID\n"
    "port NAME trunk ID\n"
    "vlan VIDS (create|destroy)\n"
    "onu NAME (online|offline)\n"
    "slot N switchover (start|end)\n"
    "slot N sync (start|end) [prio P] [app NAME]\n"
    "trap VID (v4|v6) (on|off)\n"
    "mac flush [VID]\n"
    "mac age SECONDS\n"
    "devmgr restart\n";

bool port_cmd(sim_ctl_ctx &c, const std::vector<std::string> &w, std::string &err)
{
    if (w.size() < 3) {
        err = "incomplete port command";
        return false;
    }
    const std::string &name = w[1];
    const std::string &op = w[2];
    bool on;
    if (w.size() == 3 && updown(op, on) && (op == "up" || op == "down")) err = c.dev->port_status(name, on);
    else if (op == "admin" && w.size() == 4 && updown(w[3], on)) err = c.dev->port_admin(name, on);
    else if (op == "remove" && w.size() == 3) err = c.dev->port_remove(name);
    else if (op == "add") {
        std::string linux_if, sn;
        for (std::size_t i = 3; i < w.size(); i += 2) {
            if (i + 1 >= w.size()) {
                err = "value missing after " + w[i];
                return false;
            }
            if (w[i] == "linux") linux_if = w[i + 1];
            else if (w[i] == "sn") sn = w[i + 1];
            else {
                err = "unknown option " + w[i];
                return false;
            }
        }
        err = c.dev->port_add(name, linux_if, sn);
    } else if (op == "vlan" && (w.size() == 5 || w.size() == 6) && (w[3] == "add" || w[3] == "remove")) {
        vlan_bits v;
        std::string bad;
        if (!sim_parse_vlan_list(w[4], v, bad)) {
            err = "bad VLAN list item " + bad;
            return false;
        }
        bool tagged = w.size() == 5 || w[5] == "tagged";
        if (w.size() == 6 && w[5] != "tagged" && w[5] != "untagged") {
            err = "tagged or untagged expected";
            return false;
        }
        err = c.dev->port_vlan(name, v, w[3] == "add", tagged);
    } else if (op == "pvid" && w.size() == 4) {
        std::uint32_t v;
        if (!parse_u32(w[3], v, SIM_VLAN_MAX)) {
            err = "VLAN id expected";
            return false;
        }
        err = c.dev->port_pvid(name, static_cast<std::uint16_t>(v));
    } else if (op == "trunk" && w.size() == 4) {
        std::uint32_t v;
        if (!parse_u32(w[3], v, IFINDEX_TRUNK_MAX)) {
            err = "trunk id expected (0 leaves)";
            return false;
        }
        err = c.dev->port_trunk(name, v);
    } else {
        err = "unknown port command";
    }
    return err.empty();
}

bool slot_cmd(sim_ctl_ctx &c, const std::vector<std::string> &w, std::string &err)
{
    std::uint32_t slot;
    bool start;
    if (w.size() < 4 || !parse_u32(w[1], slot, 31) || !updown(w[3], start) ||
        (w[3] != "start" && w[3] != "end")) {
        err = "slot N (switchover|sync) (start|end)";
        return false;
    }
    if (w[2] == "switchover" && w.size() == 4) {
        err = c.dev->slot_switchover(slot, start);
    } else if (w[2] == "sync") {
        std::uint32_t prio = 0;
        std::string app = "dhcp";
        for (std::size_t i = 4; i < w.size(); i += 2) {
            if (i + 1 >= w.size()) {
                err = "value missing after " + w[i];
                return false;
            }
            if (w[i] == "prio" && parse_u32(w[i + 1], prio, 0xffffffffu)) continue;
            if (w[i] == "app") {
                app = w[i + 1];
                continue;
            }
            err = "bad option " + w[i];
            return false;
        }
        err = c.dev->slot_cfg_sync(slot, start, prio, app);
    } else {
        err = "slot N (switchover|sync) (start|end)";
    }
    return err.empty();
}

} // namespace

bool sim_ctl_exec(sim_ctl_ctx &c, const std::string &line, std::string &out)
{
    std::vector<std::string> w = split(line);
    lines o;
    std::string err;
    bool ok = true;
    if (w.empty() || w[0] == "help") {
        o << HELP;
    } else if (w[0] == "show" && w.size() >= 2) {
        const std::string &what = w[1];
        if (what == "system") show_system(c, o);
        else if (what == "ports") show_ports(c, o);
        else if (what == "counters") show_counters(c, o);
        else if (what == "vlans") show_vlans(c, o);
        else if (what == "servports") show_servports(c, o);
        else if (what == "vlanifs") show_vlanifs(c, o);
        else if (what == "macs") ok = show_macs(c, w, o, err);
        else if (what == "traps") show_traps(c, o);
        else if (what == "guard") show_guard(c, o);
        else if (what == "fp") show_fp(c, o);
        else if (what == "devmgr") show_devmgr(c, o);
        else ok = (err = "unknown show " + what, false);
    } else if (w[0] == "hostname" && w.size() == 2) {
        err = c.dev->set_hostname(w[1]);
        ok = err.empty();
    } else if (w[0] == "port") {
        ok = port_cmd(c, w, err);
    } else if (w[0] == "vlan" && w.size() == 3 && (w[2] == "create" || w[2] == "destroy")) {
        vlan_bits v;
        std::string bad;
        if (!sim_parse_vlan_list(w[1], v, bad)) ok = (err = "bad VLAN list item " + bad, false);
        else err = w[2] == "create" ? c.dev->vlan_create(v) : c.dev->vlan_destroy(v);
        ok = ok && err.empty();
    } else if (w[0] == "onu" && w.size() == 3 && (w[2] == "online" || w[2] == "offline")) {
        err = c.dev->onu_status(w[1], w[2] == "online");
        ok = err.empty();
    } else if (w[0] == "slot") {
        ok = slot_cmd(c, w, err);
    } else if (w[0] == "trap" && w.size() == 4 && (w[2] == "v4" || w[2] == "v6") &&
               (w[3] == "on" || w[3] == "off")) {
        // What the module's trap requests do, for tests without the module.
        std::uint32_t vid;
        if (!parse_u32(w[1], vid, SIM_VLAN_MAX) || vid == 0) ok = (err = "VLAN id expected", false);
        else c.sw->traps().set(w[2] == "v4" ? 4 : 6, static_cast<std::uint16_t>(vid), w[3] == "on");
    } else if (w[0] == "mac" && w.size() >= 2 && w[1] == "flush" && w.size() <= 3) {
        std::uint32_t vid = 0;
        if (w.size() == 3 && !parse_u32(w[2], vid, SIM_VLAN_MAX)) ok = (err = "VLAN id expected", false);
        else if (vid) c.sw->macs().flush_vlan(static_cast<std::uint16_t>(vid));
        else c.sw->macs().flush_all();
    } else if (w[0] == "mac" && w.size() == 3 && w[1] == "age") {
        std::uint32_t s;
        if (!parse_u32(w[2], s, 86400) || s == 0) ok = (err = "seconds from 1 to 86400 expected", false);
        else c.sw->macs().set_age_ms(std::uint64_t(s) * 1000);
    } else if (w[0] == "devmgr" && w.size() == 2 && w[1] == "restart") {
        if (!c.dm || !c.dm->restart()) ok = (err = "device manager did not restart", false);
    } else {
        ok = (err = "unknown command (try help)", false);
    }
    out = ok ? o.str() : err;
    return ok;
}

struct sim_ctl::conn {
    sim_ctl *owner = nullptr;
    int fd = -1;
    thread *t_read = nullptr;
    thread *t_timer = nullptr;   // idle limit while reading, write retries after
    std::string in;
    std::string out;
    bool answered = false;
    int write_waits = 0;
};

struct sim_ctl_tasks {
    static int accept(thread *t)
    {
        static_cast<sim_ctl *>(THREAD_ARG(t))->accept_one();
        return 0;
    }
    static int read(thread *t)
    {
        auto *c = static_cast<sim_ctl::conn *>(THREAD_ARG(t));
        c->owner->read_conn(*c);
        return 0;
    }
    static int timer(thread *t)
    {
        auto *c = static_cast<sim_ctl::conn *>(THREAD_ARG(t));
        if (c->answered) c->owner->flush(*c);
        else c->owner->drop(c);
        return 0;
    }
};

sim_ctl::sim_ctl(thread_master *tm, sim_ctl_ctx ctx) : tm_(tm), ctx_(std::move(ctx)) {}

sim_ctl::~sim_ctl() { stop(); }

bool sim_ctl::start(const std::string &path)
{
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof sun.sun_path) return false;
    std::memcpy(sun.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0 || listen(fd, 8) < 0) {
        zlog_err("oltsim: cannot listen on control socket %s: %s", path.c_str(), strerror(errno));
        if (fd >= 0) close(fd);
        return false;
    }
    path_ = path;
    listen_fd_ = fd;
    thread_add_read(tm_, sim_ctl_tasks::accept, this, fd, &t_accept_);
    return true;
}

void sim_ctl::stop()
{
    thread_cancel(&t_accept_);
    while (!conns_.empty()) drop(conns_.back().get());
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        unlink(path_.c_str());
    }
    listen_fd_ = -1;
}

void sim_ctl::accept_one()
{
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0 && conns_.size() >= MAX_CONNS) {
        close(fd);
    } else if (fd >= 0) {
        auto c = std::make_unique<conn>();
        c->owner = this;
        c->fd = fd;
        thread_add_read(tm_, sim_ctl_tasks::read, c.get(), fd, &c->t_read);
        thread_add_timer_msec(tm_, sim_ctl_tasks::timer, c.get(), IDLE_MS, &c->t_timer);
        conns_.push_back(std::move(c));
    }
    thread_add_read(tm_, sim_ctl_tasks::accept, this, listen_fd_, &t_accept_);
}

void sim_ctl::drop(conn *c)
{
    for (auto it = conns_.begin(); it != conns_.end(); ++it) {
        if (it->get() != c) continue;
        thread_cancel(&c->t_read);
        thread_cancel(&c->t_timer);
        close(c->fd);
        conns_.erase(it);
        return;
    }
}

void sim_ctl::read_conn(conn &c)
{
    char buf[512];
    ssize_t n = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        drop(&c);
        return;
    }
    if (n > 0) c.in.append(buf, static_cast<std::size_t>(n));
    std::size_t nl = c.in.find('\n');
    if (nl == std::string::npos && c.in.size() <= LINE_MAX_) {
        thread_add_read(tm_, sim_ctl_tasks::read, &c, c.fd, &c.t_read);
        return;
    }
    std::string result;
    bool ok = false;
    if (nl == std::string::npos) {
        result = "command line too long";
    } else {
        std::string line = c.in.substr(0, nl);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        ok = sim_ctl_exec(ctx_, line, result);
    }
    c.out = ok ? result + "ok\n" : "error: " + result + "\n";
    c.answered = true;
    thread_cancel(&c.t_timer);
    flush(c);
}

void sim_ctl::flush(conn &c)
{
    while (!c.out.empty()) {
        ssize_t n = send(c.fd, c.out.data(), c.out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            c.out.erase(0, static_cast<std::size_t>(n));
            continue;
        }
        // A reader that stalls for seconds loses its answer.
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) &&
            ++c.write_waits < IDLE_MS / WRITE_MS) {
            thread_add_timer_msec(tm_, sim_ctl_tasks::timer, &c, WRITE_MS, &c.t_timer);
            return;
        }
        break;
    }
    drop(&c);
}
