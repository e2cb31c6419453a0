#include "sim/sim_topology.h"

#include <arpa/inet.h>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iniparser.h>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

#include "devlib/ifindex.h"

namespace {

// iniparser keeps no line numbers; this index of the same file supplies them
// (and catches what iniparser would silently merge: repeated keys and sections).
struct line_index {
    std::vector<std::string> sections;                  // in file order
    std::map<std::string, int> section_line;
    std::map<std::string, int> key_line;                // "section:key"
    std::map<std::string, std::vector<std::string>> keys;  // per section, in file order
};

enum { MAX_LINE = 1000 };

std::string trim(const std::string &s)
{
    std::size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    std::size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

std::string lower(std::string s)
{
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::vector<std::string> words(const std::string &s, const char *seps = " \t")
{
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos < s.size()) {
        std::size_t b = s.find_first_not_of(seps, pos);
        if (b == std::string::npos) break;
        std::size_t e = s.find_first_of(seps, b);
        if (e == std::string::npos) e = s.size();
        out.push_back(s.substr(b, e - b));
        pos = e;
    }
    return out;
}

std::string where(const std::string &file, int line) { return file + ":" + std::to_string(line) + ": "; }

bool scan(const std::string &file, line_index &ix, std::string &err)
{
    std::ifstream in(file);
    if (!in) {
        err = file + ": cannot open";
        return false;
    }
    std::string raw, section;
    bool in_section = false;
    int lineno = 0;
    while (std::getline(in, raw)) {
        int first = ++lineno;
        if (raw.size() > MAX_LINE) {
            err = where(file, first) + "line longer than " + std::to_string(MAX_LINE) + " characters";
            return false;
        }
        std::string line = trim(raw);
        // A trailing backslash continues the line (as iniparser reads it).
        while (!line.empty() && line.back() == '\\' && std::getline(in, raw)) {
            ++lineno;
            line.pop_back();
            line += trim(raw);
            if (line.size() > MAX_LINE) {
                err = where(file, first) + "line longer than " + std::to_string(MAX_LINE) + " characters";
                return false;
            }
        }
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line.front() == '[') {
            if (line.back() != ']' || line.size() < 3) {
                err = where(file, first) + "malformed section header";
                return false;
            }
            section = lower(trim(line.substr(1, line.size() - 2)));
            if (section.empty() || section.find(':') != std::string::npos) {
                err = where(file, first) + "[" + section + "]: section names hold no ':' and are not empty";
                return false;
            }
            if (ix.section_line.count(section)) {
                err = where(file, first) + "[" + section + "]: section repeated (first at line " +
                      std::to_string(ix.section_line[section]) + ")";
                return false;
            }
            ix.sections.push_back(section);
            ix.section_line[section] = first;
            ix.keys[section];
            in_section = true;
            continue;
        }
        std::size_t eq = line.find('=');
        if (eq == std::string::npos || trim(line.substr(0, eq)).empty()) {
            err = where(file, first) + "expected 'key = value', '[section]' or a comment";
            return false;
        }
        std::string key = lower(trim(line.substr(0, eq)));
        if (!in_section) {
            err = where(file, first) + key + ": key outside any section";
            return false;
        }
        std::string full = section + ":" + key;
        if (ix.key_line.count(full)) {
            err = where(file, first) + "[" + section + "] " + key + ": key repeated (first at line " +
                  std::to_string(ix.key_line[full]) + ")";
            return false;
        }
        ix.key_line[full] = first;
        ix.keys[section].push_back(key);
    }
    return true;
}

std::string g_ini_error;

int capture_ini_error(const char *fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (g_ini_error.empty()) g_ini_error = trim(buf);
    return 0;
}

struct dict_free {
    void operator()(dictionary *d) const { iniparser_freedict(d); }
};

class loader {
public:
    loader(const std::string &file, const line_index &ix, dictionary *d, sim_model &m)
        : file_(file), ix_(ix), d_(d), m_(m)
    {
    }

    bool run(std::string &err);

private:
    bool fail(const std::string &sec, const std::string &key, const std::string &msg)
    {
        auto kl = ix_.key_line.find(sec + ":" + key);
        int line = kl != ix_.key_line.end() ? kl->second : ix_.section_line.at(sec);
        err_ = where(file_, line) + "[" + sec + "] " + key + ": " + msg;
        return false;
    }
    bool has(const std::string &sec, const std::string &key) const
    {
        return ix_.key_line.count(sec + ":" + key) != 0;
    }
    std::string get(const std::string &sec, const std::string &key, const char *def = "") const
    {
        std::string full = sec + ":" + key;
        const char *v = iniparser_getstring(d_, full.c_str(), nullptr);
        return v ? trim(v) : def;
    }
    bool allowed(const std::string &sec, std::initializer_list<const char *> keys)
    {
        for (const std::string &k : ix_.keys.at(sec)) {
            bool ok = false;
            for (const char *a : keys) ok = ok || k == a;
            if (!ok) return fail(sec, k, "unknown key here");
        }
        return true;
    }
    bool number(const std::string &sec, const std::string &key, long lo, long hi, long &v);
    bool vlan(const std::string &sec, const std::string &key, std::uint16_t &v);
    bool choice(const std::string &sec, const std::string &key, const char *yes, const char *no,
                bool &v);
    bool linux_name(const std::string &sec, sim_port &p);
    bool membership(const std::string &sec, sim_port &p);

    bool system(const std::string &sec);
    bool port(const std::string &sec, const std::vector<std::string> &w);
    bool trunk(const std::string &sec, const std::vector<std::string> &w);
    bool onu(const std::string &sec, const std::vector<std::string> &w);
    bool servport(const std::string &sec, const std::vector<std::string> &w);
    bool vlanif(const std::string &sec, const std::vector<std::string> &w);

    const std::string &file_;
    const line_index &ix_;
    dictionary *d_;
    sim_model &m_;
    std::string err_;
    std::set<std::string> linux_used_;
};

bool loader::number(const std::string &sec, const std::string &key, long lo, long hi, long &v)
{
    std::string s = get(sec, key);
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end || errno || n < lo || n > hi)
        return fail(sec, key, "'" + s + "' is not a number from " + std::to_string(lo) + " to " +
                                  std::to_string(hi));
    v = n;
    return true;
}

bool loader::vlan(const std::string &sec, const std::string &key, std::uint16_t &v)
{
    long n;
    if (!number(sec, key, SIM_VLAN_MIN, SIM_VLAN_MAX, n)) return false;
    if (!m_.vlans.test(static_cast<std::size_t>(n)))
        return fail(sec, key, "VLAN " + std::to_string(n) + " is not in [system] vlans");
    v = static_cast<std::uint16_t>(n);
    return true;
}

bool loader::choice(const std::string &sec, const std::string &key, const char *yes,
                    const char *no, bool &v)
{
    if (!has(sec, key)) return true;
    std::string s = lower(get(sec, key));
    if (s == yes) v = true;
    else if (s == no) v = false;
    else return fail(sec, key, "'" + s + "' is neither '" + yes + "' nor '" + no + "'");
    return true;
}

bool loader::linux_name(const std::string &sec, sim_port &p)
{
    if (!has(sec, "linux")) return true;
    std::string s = get(sec, "linux");
    if (s.empty() || s.size() >= 16 || s.find_first_of(" /:") != std::string::npos)
        return fail(sec, "linux", "'" + s + "' is not a Linux interface name");
    if (!linux_used_.insert(s).second)
        return fail(sec, "linux", "interface " + s + " is wired to another port already");
    p.linux_if = s;
    return true;
}

bool loader::membership(const std::string &sec, sim_port &p)
{
    if (has(sec, "pvid") && !vlan(sec, "pvid", p.pvid)) return false;
    for (const char *key : {"tagged", "untagged"}) {
        if (!has(sec, key)) continue;
        vlan_bits v;
        std::string bad;
        if (!sim_parse_vlan_list(get(sec, key), v, bad))
            return fail(sec, key, "'" + bad + "' is not a VLAN id or range within 1-4094");
        vlan_bits missing = v & ~m_.vlans;
        if (missing.any())
            return fail(sec, key, "VLAN " + sim_vlan_list_str(missing) + " not in [system] vlans");
        (std::strcmp(key, "tagged") == 0 ? p.tagged : p.untagged) = v;
    }
    vlan_bits both = p.tagged & p.untagged;
    if (both.any())
        return fail(sec, "untagged", "VLAN " + sim_vlan_list_str(both) + " is also tagged");
    return true;
}

bool loader::system(const std::string &sec)
{
    if (!allowed(sec, {"mac", "hostname", "vlans"})) return false;
    if (!has(sec, "mac")) return fail(sec, "mac", "missing (the system MAC address)");
    if (!sim_parse_mac(get(sec, "mac"), m_.mac) || (m_.mac[0] & 1))
        return fail(sec, "mac", "'" + get(sec, "mac") + "' is not a unicast MAC address");
    if (has(sec, "hostname")) {
        std::string h = get(sec, "hostname");
        if (h.empty() || h.size() > 63 || h.find_first_of(" \t") != std::string::npos)
            return fail(sec, "hostname", "1 to 63 characters without blanks");
        m_.hostname = h;
    }
    if (has(sec, "vlans")) {
        std::string bad;
        if (!sim_parse_vlan_list(get(sec, "vlans"), m_.vlans, bad))
            return fail(sec, "vlans", "'" + bad + "' is not a VLAN id or range within 1-4094");
    }
    return true;
}

bool loader::port(const std::string &sec, const std::vector<std::string> &w)
{
    std::uint32_t ifindex = w.size() == 2 ? st_get_ifindex_by_ifname(w[1].c_str()) : 0;
    int type = st_ifindex_get_port_type(ifindex);
    bool physical = type == PORT_TYPE_FE || type == PORT_TYPE_GE || type == PORT_TYPE_XE ||
                    type == PORT_TYPE_CE || type == PORT_TYPE_ETH || type == PORT_TYPE_MGMT ||
                    type == PORT_TYPE_GPON;
    if (!physical)
        return fail(sec, "name", "expected [port NAME] with an fe, ge, xe, ce, eth, mgmt or gpon name");
    if (st_ifindex_get_shelf_id(ifindex) != 1)
        return fail(sec, "name", "ports are on shelf 1 (" + w[1] + ")");
    if (type == PORT_TYPE_GPON) {
        if (!allowed(sec, {"status", "admin", "pvid", "tagged", "untagged"})) return false;
    } else if (!allowed(sec, {"linux", "role", "status", "admin", "pvid", "tagged", "untagged"})) {
        return false;
    }
    sim_port p;
    p.ifindex = ifindex;
    p.name = w[1];
    p.type = type;
    bool access = false;
    if (!linux_name(sec, p) || !choice(sec, "role", "access", "uplink", access) ||
        !choice(sec, "status", "up", "down", p.up) || !choice(sec, "admin", "up", "down", p.admin) ||
        !membership(sec, p))
        return false;
    p.role = access ? SIM_ROLE_ACCESS : SIM_ROLE_UPLINK;
    m_.ports[ifindex] = p;
    return true;
}

bool loader::trunk(const std::string &sec, const std::vector<std::string> &w)
{
    long id = w.size() == 2 ? std::strtol(w[1].c_str(), nullptr, 10) : 0;
    std::uint32_t ifindex = id > 0 ? st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, static_cast<std::uint32_t>(id)) : 0;
    if (!ifindex || std::to_string(id) != w[1])
        return fail(sec, "name", "expected [trunk N] with N from 1 to 128");
    if (!allowed(sec, {"members", "role", "status", "admin", "pvid", "tagged", "untagged"})) return false;
    sim_port t;
    t.ifindex = ifindex;
    t.name = "trunk" + w[1];
    t.type = PORT_TYPE_TRUNK;
    bool access = false;
    if (!choice(sec, "role", "access", "uplink", access) ||
        !choice(sec, "status", "up", "down", t.up) || !choice(sec, "admin", "up", "down", t.admin) ||
        !membership(sec, t))
        return false;
    t.role = access ? SIM_ROLE_ACCESS : SIM_ROLE_UPLINK;
    if (!has(sec, "members")) return fail(sec, "members", "missing (the member ports)");
    for (const std::string &name : words(get(sec, "members"), " \t,")) {
        sim_port *mp = m_.port_by_name(name);
        if (!mp)
            return fail(sec, "members", name + " is not a port defined before this section");
        if (mp->type == PORT_TYPE_GPON || mp->type == PORT_TYPE_MGMT)
            return fail(sec, "members", name + " cannot join a trunk");
        if (mp->trunk)
            return fail(sec, "members", name + " is in trunk" + std::to_string(mp->trunk) + " already");
        std::string msec = "port " + name;
        for (const char *k : {"pvid", "tagged", "untagged"})
            if (has(msec, k)) return fail(msec, k, "a trunk member takes its VLANs from trunk" + w[1]);
        mp->trunk = static_cast<std::uint32_t>(id);
        t.members.push_back(mp->ifindex);
    }
    if (t.members.empty()) return fail(sec, "members", "no member ports");
    m_.ports[ifindex] = t;
    return true;
}

bool loader::onu(const std::string &sec, const std::vector<std::string> &w)
{
    if (w.size() != 3) return fail(sec, "name", "expected [onu PON-PORT ONU-ID], e.g. [onu gpon1/2/1 5]");
    const sim_port *pon = m_.port_by_name(w[1]);
    if (!pon || pon->type != PORT_TYPE_GPON)
        return fail(sec, "name", w[1] + " is not a gpon port defined before this section");
    long id = std::strtol(w[2].c_str(), nullptr, 10);
    if (id < 1 || id > IFINDEX_ONU_MAX || std::to_string(id) != w[2])
        return fail(sec, "name", "ONU id '" + w[2] + "' is not from 1 to 128");
    if (!allowed(sec, {"sn", "linux", "status"})) return false;
    sim_port o;
    o.ifindex = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, st_ifindex_get_slot_id(pon->ifindex),
                                          st_ifindex_get_subslot_id(pon->ifindex),
                                          st_ifindex_get_port_id(pon->ifindex), static_cast<int>(id));
    char name[32];
    st_get_ifname_by_ifindex(o.ifindex, name, sizeof name);
    o.name = name;
    o.type = PORT_TYPE_GONU;
    o.role = SIM_ROLE_ACCESS;
    o.pon = pon->ifindex;
    o.onu_id = static_cast<int>(id);
    if (!has(sec, "sn")) return fail(sec, "sn", "missing (the ONU serial number)");
    o.sn = get(sec, "sn");
    if (o.sn.empty() || o.sn.size() > 12 || o.sn.find_first_of(" \t") != std::string::npos)
        return fail(sec, "sn", "1 to 12 characters without blanks");
    for (auto &[ix, p] : m_.ports)
        if (sim_is_onu(p) && p.sn == o.sn) return fail(sec, "sn", "also the serial number of " + p.name);
    if (!linux_name(sec, o) || !choice(sec, "status", "online", "offline", o.online)) return false;
    m_.ports[o.ifindex] = o;
    return true;
}

bool loader::servport(const std::string &sec, const std::vector<std::string> &w)
{
    long id = w.size() == 2 ? std::strtol(w[1].c_str(), nullptr, 10) : 0;
    if (id < 1 || id > IFINDEX_SERVPORT_MAX || std::to_string(id) != w[1])
        return fail(sec, "name", "expected [servport N] with N from 1 to 16384");
    if (!allowed(sec, {"onu", "vlan", "uservlan", "lltag", "user-tag", "action"})) return false;
    sim_servport sp;
    sp.id = static_cast<std::uint32_t>(id);
    sp.ifindex = st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, sp.id);
    if (!has(sec, "onu")) return fail(sec, "onu", "missing (the ONU, e.g. gonu1/2/1:5)");
    const sim_port *o = m_.port_by_name(get(sec, "onu"));
    if (!o || !sim_is_onu(*o))
        return fail(sec, "onu", get(sec, "onu") + " is not an ONU defined before this section");
    sp.onu = o->ifindex;
    if (!has(sec, "vlan")) return fail(sec, "vlan", "missing (the VLAN of the flow)");
    if (!vlan(sec, "vlan", sp.vlan)) return false;
    long n;
    sp.uservlan = sp.vlan;
    if (has(sec, "uservlan")) {
        if (!number(sec, "uservlan", SIM_VLAN_MIN, SIM_VLAN_MAX, n)) return false;
        sp.uservlan = static_cast<std::uint16_t>(n);
    }
    sp.lltag = sp.vlan;
    if (has(sec, "lltag")) {
        if (!number(sec, "lltag", SIM_VLAN_MIN, SIM_VLAN_MAX, n)) return false;
        sp.lltag = static_cast<std::uint16_t>(n);
    }
    if (!choice(sec, "user-tag", "tagged", "untagged", sp.user_tagged)) return false;
    if (has(sec, "action")) {
        std::string a = lower(get(sec, "action"));
        char *end = nullptr;
        long v = std::strtol(a.c_str(), &end, 10);
        if (a == "transparent") sp.action = SIM_VLAN_ACTION_TRANSPARENT;
        else if (a == "translate") sp.action = SIM_VLAN_ACTION_TRANSLATE;
        else if (a == "add") sp.action = SIM_VLAN_ACTION_ADD;
        else if (!a.empty() && !*end && v >= INT32_MIN && v <= INT32_MAX) sp.action = static_cast<std::int32_t>(v);
        else return fail(sec, "action", "'" + a + "' is not transparent, translate, add or a number");
    }
    for (auto &[oid, other] : m_.servports) {
        if (other.onu != sp.onu) continue;
        if (other.uservlan == sp.uservlan)
            return fail(sec, "uservlan", "service port " + std::to_string(oid) + " of " + o->name +
                                             " has user VLAN " + std::to_string(sp.uservlan) + " already");
        if (!other.user_tagged && !sp.user_tagged)
            return fail(sec, "user-tag", "service port " + std::to_string(oid) + " of " + o->name +
                                             " takes the untagged frames already");
    }
    m_.servports[sp.id] = sp;
    return true;
}

bool loader::vlanif(const std::string &sec, const std::vector<std::string> &w)
{
    long id = w.size() == 2 ? std::strtol(w[1].c_str(), nullptr, 10) : 0;
    if (id < SIM_VLAN_MIN || id > SIM_VLAN_MAX || std::to_string(id) != w[1])
        return fail(sec, "name", "expected [vlanif VID] with VID from 1 to 4094");
    if (!m_.vlans.test(static_cast<std::size_t>(id)))
        return fail(sec, "name", "VLAN " + w[1] + " is not in [system] vlans");
    if (!allowed(sec, {"ifname", "mac", "address"})) return false;
    sim_vlanif v;
    v.vid = static_cast<std::uint16_t>(id);
    v.ifname = "vlanif" + w[1];
    std::memcpy(v.mac, m_.mac, 6);
    if (has(sec, "ifname")) {
        v.ifname = get(sec, "ifname");
        if (v.ifname.empty() || v.ifname.size() >= 16 || v.ifname.find_first_of(" /:") != std::string::npos)
            return fail(sec, "ifname", "'" + v.ifname + "' is not a Linux interface name");
    }
    if (has(sec, "mac") && (!sim_parse_mac(get(sec, "mac"), v.mac) || (v.mac[0] & 1)))
        return fail(sec, "mac", "'" + get(sec, "mac") + "' is not a unicast MAC address");
    if (has(sec, "address")) {
        v.address = get(sec, "address");
        std::size_t slash = v.address.find('/');
        in_addr a{};
        long len = slash == std::string::npos ? -1 : std::strtol(v.address.c_str() + slash + 1, nullptr, 10);
        if (slash == std::string::npos || inet_pton(AF_INET, v.address.substr(0, slash).c_str(), &a) != 1 ||
            len < 1 || len > 32 || std::to_string(len) != v.address.substr(slash + 1))
            return fail(sec, "address", "'" + v.address + "' is not an IPv4 address with a prefix length");
    }
    m_.vlanifs[v.vid] = v;
    return true;
}

bool loader::run(std::string &err)
{
    if (!ix_.section_line.count("system")) {
        err = file_ + ":1: [system]: missing section (system MAC, host name, VLANs)";
        return false;
    }
    bool ok = system("system");
    // Later kinds refer to earlier ones: ports, then trunks, ONUs, service ports, VLAN interfaces.
    for (const char *kind : {"port", "trunk", "onu", "servport", "vlanif"}) {
        for (const std::string &sec : ix_.sections) {
            if (!ok) break;
            std::vector<std::string> w = words(sec);
            if (w.empty() || w[0] != kind) continue;
            std::string k = w[0];
            ok = k == "port" ? port(sec, w)
                 : k == "trunk" ? trunk(sec, w)
                 : k == "onu" ? onu(sec, w)
                 : k == "servport" ? servport(sec, w)
                 : vlanif(sec, w);
        }
    }
    for (const std::string &sec : ix_.sections) {
        if (!ok) break;
        std::vector<std::string> w = words(sec);
        static const std::set<std::string> kinds = {"system", "port", "trunk", "onu", "servport", "vlanif"};
        if (w.empty() || !kinds.count(w[0]))
            ok = fail(sec, "name", "unknown section kind (system, port, trunk, onu, servport, vlanif)");
    }
    if (!ok) err = err_;
    return ok;
}

} // namespace

bool sim_topology_load(const std::string &path, sim_model &out, std::string &err)
{
    line_index ix;
    if (!scan(path, ix, err)) return false;
    g_ini_error.clear();
    iniparser_set_error_callback(capture_ini_error);
    std::unique_ptr<dictionary, dict_free> d(iniparser_load(path.c_str()));
    iniparser_set_error_callback(nullptr);
    if (!d) {
        err = path + ": " + (g_ini_error.empty() ? "cannot be read" : g_ini_error);
        return false;
    }
    sim_model m;
    loader l(path, ix, d.get(), m);
    if (!l.run(err)) return false;
    out = std::move(m);
    return true;
}
