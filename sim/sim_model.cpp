#include "sim/sim_model.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "devlib/ifindex.h"
#include "devlib/mac.h"

sim_port *sim_model::port(std::uint32_t ifindex)
{
    auto it = ports.find(ifindex);
    return it == ports.end() ? nullptr : &it->second;
}

const sim_port *sim_model::port(std::uint32_t ifindex) const
{
    auto it = ports.find(ifindex);
    return it == ports.end() ? nullptr : &it->second;
}

sim_port *sim_model::port_by_name(const std::string &name)
{
    std::uint32_t ifindex = st_get_ifindex_by_ifname(name.c_str());
    return ifindex ? port(ifindex) : nullptr;
}

const sim_port &sim_model::vlan_owner(const sim_port &p) const
{
    if (p.trunk) {
        const sim_port *t = port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, p.trunk));
        if (t && t->present) return *t;
    }
    return p;
}

bool sim_model::port_in_vlan(const sim_port &p, std::uint16_t vid, bool *tagged) const
{
    if (vid < SIM_VLAN_MIN || vid > SIM_VLAN_MAX) return false;
    const sim_port &o = vlan_owner(p);
    bool t = o.tagged.test(vid);
    if (!t && !o.untagged.test(vid) && o.pvid != vid) return false;
    if (tagged) *tagged = t;
    return true;
}

const sim_servport *sim_model::servport_for_vlan(std::uint32_t onu, std::uint16_t vid) const
{
    for (auto &[id, sp] : servports)
        if (sp.onu == onu && sp.vlan == vid) return &sp;
    return nullptr;
}

bool sim_model::port_forwarding(const sim_port &p) const
{
    if (!p.present || !p.up || !p.admin) return false;
    if (sim_is_onu(p)) {
        const sim_port *pon = port(p.pon);
        return p.online && pon && pon->present && pon->up && pon->admin;
    }
    return true;
}

bool sim_is_onu(const sim_port &p) { return p.type == PORT_TYPE_GONU; }
bool sim_is_trunk(const sim_port &p) { return p.type == PORT_TYPE_TRUNK; }
bool sim_is_pon(const sim_port &p) { return p.type == PORT_TYPE_GPON; }

namespace {

bool parse_vid(const std::string &s, unsigned &v)
{
    if (s.empty() || s.size() > 4) return false;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    v = static_cast<unsigned>(std::atoi(s.c_str()));
    return v >= SIM_VLAN_MIN && v <= SIM_VLAN_MAX;
}

std::string trim(const std::string &s)
{
    std::size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    std::size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

} // namespace

bool sim_parse_vlan_list(const std::string &text, vlan_bits &out, std::string &bad)
{
    vlan_bits v;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t comma = text.find(',', pos);
        if (comma == std::string::npos) comma = text.size();
        std::string piece = trim(text.substr(pos, comma - pos));
        pos = comma + 1;
        if (piece.empty()) {
            if (comma == text.size()) break;
            bad = "empty item";
            return false;
        }
        std::size_t dash = piece.find('-');
        unsigned lo = 0, hi = 0;
        bool ok = dash == std::string::npos
                      ? parse_vid(piece, lo) && (hi = lo, true)
                      : parse_vid(trim(piece.substr(0, dash)), lo) &&
                            parse_vid(trim(piece.substr(dash + 1)), hi) && lo <= hi;
        if (!ok) {
            bad = piece;
            return false;
        }
        for (unsigned i = lo; i <= hi; ++i) v.set(i);
    }
    out = v;
    return true;
}

std::string sim_vlan_list_str(const vlan_bits &v)
{
    std::string s;
    for (unsigned i = SIM_VLAN_MIN; i <= SIM_VLAN_MAX; ++i) {
        if (!v.test(i)) continue;
        unsigned last = i;
        while (last < SIM_VLAN_MAX && v.test(last + 1)) ++last;
        if (!s.empty()) s += ',';
        s += std::to_string(i);
        if (last != i) s += "-" + std::to_string(last);
        i = last;
    }
    return s;
}

bool sim_parse_mac(const std::string &text, std::uint8_t mac[6])
{
    unsigned b[6];
    char tail;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4],
                    &b[5], &tail) == 6 &&
        text.size() == 17) {
        for (int i = 0; i < 6; ++i) mac[i] = static_cast<std::uint8_t>(b[i]);
        return true;
    }
    return tavo_str2mac(text.c_str(), mac) == 0;
}

std::string sim_mac_str(const std::uint8_t mac[6])
{
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    return buf;
}

const char *sim_port_type_str(int type)
{
    switch (type) {
    case PORT_TYPE_FE: return "fe";
    case PORT_TYPE_GE: return "ge";
    case PORT_TYPE_XE: return "xe";
    case PORT_TYPE_CE: return "ce";
    case PORT_TYPE_TRUNK: return "trunk";
    case PORT_TYPE_ETH: return "eth";
    case PORT_TYPE_GPON: return "gpon";
    case PORT_TYPE_GONU: return "gonu";
    case PORT_TYPE_MGMT: return "mgmt";
    default: return "other";
    }
}
