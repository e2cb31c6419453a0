#include "sim/sim_device.h"

#include <algorithm>
#include <cstring>

#include "devlib/ifindex.h"
#include "lib/log.h"

namespace {

void set_str(char *dst, std::size_t cap, const std::string &s)
{
    std::size_t n = std::min(s.size(), cap - 1);
    std::memcpy(dst, s.data(), n);
    std::memset(dst + n, 0, cap - n);
}

std::uint32_t speed_of(int type)
{
    switch (type) {
    case PORT_TYPE_FE: return 100;
    case PORT_TYPE_XE: return 10000;
    case PORT_TYPE_CE: return 100000;
    case PORT_TYPE_GPON: return 2488;
    case PORT_TYPE_TRUNK: return 0;
    default: return 1000;
    }
}

bool vlan_ports(int type) { return type != PORT_TYPE_GONU; }

} // namespace

void sim_vlan_bits_to_bitmap(const vlan_bits &v, std::uint8_t *bm)
{
    std::memset(bm, 0, UVLAN_BITMAP_LEN);
    for (unsigned vid = 0; vid <= VLAN_ID_MAX; ++vid)
        if (v.test(vid)) uvlan_bitmap_set(bm, vid);
}

umsg_if_t sim_device::if_record(const sim_port &p) const
{
    umsg_if_t r{};
    r.ifindex = p.ifindex;
    set_str(r.name, sizeof r.name, p.name);
    r.status = p.up && (!sim_is_onu(p) || p.online) ? 1 : 0;
    r.admin = p.admin ? 1 : 0;
    r.duplex = 1;
    r.speed = speed_of(p.type);
    if (sim_is_onu(p)) set_str(r.onu_sn, sizeof r.onu_sn, p.sn);
    return r;
}

std::vector<std::uint8_t> sim_device::replay() const
{
    std::vector<std::uint8_t> out;
    auto add = [&out](const devmgr_msg_t &m) { devmgr_encode(m, out); };
    devmgr_msg_t m{};
    m.type = DEVMGR_REPLAY_START;
    add(m);
    m = devmgr_msg_t{};
    m.type = DEVMGR_HOST;
    set_str(m.hostname, sizeof m.hostname, m_.hostname);
    add(m);
    if (m_.vlans.any()) {
        m = devmgr_msg_t{};
        m.type = DEVMGR_VLAN_CREATE;
        sim_vlan_bits_to_bitmap(m_.vlans, m.vlan.uvlan);
        add(m);
    }
    for (auto &[ifindex, p] : m_.ports) {
        if (!p.present) continue;
        m = devmgr_msg_t{};
        m.type = DEVMGR_IF_NEW;
        m.ifm = if_record(p);
        add(m);
    }
    for (auto &[ifindex, p] : m_.ports) {
        if (!p.present) continue;
        if (p.trunk) {
            m = devmgr_msg_t{};
            m.type = DEVMGR_TRUNK_SET;
            m.trunk = {ifindex, p.trunk};
            add(m);
        }
        if (!vlan_ports(p.type) || p.trunk) continue;
        auto vp = [&](std::uint16_t op, std::uint16_t tag, std::uint16_t pvid, const vlan_bits &v) {
            m = devmgr_msg_t{};
            m.type = DEVMGR_VLAN_PORT;
            m.vlan_port.ifindex = ifindex;
            m.vlan_port.op = op;
            m.vlan_port.tag = tag;
            m.vlan_port.pvid = pvid;
            sim_vlan_bits_to_bitmap(v, m.vlan_port.uvlan);
            add(m);
        };
        // The port VLAN id first: setting it empties the tagged and untagged sets.
        if (p.pvid) vp(UMSG_VLAN_PORT_PVID, 0, p.pvid, vlan_bits{});
        if (p.tagged.any()) vp(UMSG_VLAN_PORT_ADD, 0, 0, p.tagged);
        if (p.untagged.any()) vp(UMSG_VLAN_PORT_ADD, 1, 0, p.untagged);
    }
    for (auto &[ifindex, p] : m_.ports) {
        if (!p.present || !sim_is_onu(p)) continue;
        m = devmgr_msg_t{};
        m.type = DEVMGR_ONU_STATUS;
        m.onu.ifindex = ifindex;
        m.onu.status = p.online ? 1 : 0;
        set_str(m.onu.onu_sn, sizeof m.onu.onu_sn, p.sn);
        add(m);
    }
    m = devmgr_msg_t{};
    m.type = DEVMGR_REPLAY_END;
    add(m);
    return out;
}

void sim_device::emit(const devmgr_msg_t &m)
{
    for (auto &l : listeners_) l(m);
}

void sim_device::emit_if(std::uint16_t type, const sim_port &p)
{
    devmgr_msg_t m{};
    m.type = type;
    m.ifm = if_record(p);
    emit(m);
}

void sim_device::emit_vlan_port(std::uint32_t ifindex, std::uint16_t op, std::uint16_t tag,
                                std::uint16_t pvid, const vlan_bits &vids)
{
    devmgr_msg_t m{};
    m.type = DEVMGR_VLAN_PORT;
    m.vlan_port.ifindex = ifindex;
    m.vlan_port.op = op;
    m.vlan_port.tag = tag;
    m.vlan_port.pvid = pvid;
    sim_vlan_bits_to_bitmap(vids, m.vlan_port.uvlan);
    emit(m);
}

std::string sim_device::find(const std::string &name, sim_port *&p, bool present)
{
    p = m_.port_by_name(name);
    if (!p || (present && !p->present)) return "no port " + name;
    return "";
}

std::string sim_device::set_hostname(const std::string &name)
{
    if (name.empty() || name.size() >= DEVMGR_HOSTNAME_LEN) return "host name must be 1 to 63 characters";
    m_.hostname = name;
    devmgr_msg_t m{};
    m.type = DEVMGR_HOST;
    set_str(m.hostname, sizeof m.hostname, name);
    emit(m);
    return "";
}

std::string sim_device::port_status(const std::string &name, bool up)
{
    sim_port *p;
    std::string e = find(name, p);
    if (!e.empty()) return e;
    p->up = up;
    emit_if(DEVMGR_IF_STATUS, *p);
    return "";
}

std::string sim_device::port_admin(const std::string &name, bool up)
{
    sim_port *p;
    std::string e = find(name, p);
    if (!e.empty()) return e;
    p->admin = up;
    emit_if(DEVMGR_IF_ADMIN, *p);
    return "";
}

void sim_device::remove_one(sim_port &p)
{
    if (p.trunk) {
        devmgr_msg_t m{};
        m.type = DEVMGR_TRUNK_SET;
        m.trunk = {p.ifindex, 0};
        sim_port *t = m_.port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, p.trunk));
        if (t) t->members.erase(std::remove(t->members.begin(), t->members.end(), p.ifindex), t->members.end());
        p.trunk = 0;
        emit(m);
    }
    // The client forgets a removed port with its VLANs; so does the model.
    p.present = false;
    p.pvid = 0;
    p.tagged.reset();
    p.untagged.reset();
    emit_if(DEVMGR_IF_DEL, p);
}

std::string sim_device::port_remove(const std::string &name)
{
    sim_port *p;
    std::string e = find(name, p);
    if (!e.empty()) return e;
    if (sim_is_pon(*p)) {
        for (auto &[ix, o] : m_.ports)
            if (o.present && sim_is_onu(o) && o.pon == p->ifindex) remove_one(o);
    }
    if (sim_is_trunk(*p)) {
        std::vector<std::uint32_t> members = p->members;
        for (std::uint32_t mi : members) {
            sim_port *mp = m_.port(mi);
            if (!mp || !mp->trunk) continue;
            mp->trunk = 0;
            devmgr_msg_t m{};
            m.type = DEVMGR_TRUNK_SET;
            m.trunk = {mi, 0};
            emit(m);
        }
        p->members.clear();
    }
    remove_one(*p);
    return "";
}

std::string sim_device::port_add(const std::string &name, const std::string &linux_if,
                                 const std::string &sn)
{
    sim_port *p = m_.port_by_name(name);
    if (p && p->present) return "port " + name + " exists";
    if (sn.size() > 12) return "serial numbers have 1 to 12 characters";
    if (!linux_if.empty()) {
        for (auto &[ix, o] : m_.ports)
            if (o.linux_if == linux_if && (!p || o.ifindex != p->ifindex))
                return "interface " + linux_if + " is wired to " + o.name;
    }
    if (!p) {
        std::uint32_t ifindex = st_get_ifindex_by_ifname(name.c_str());
        int type = st_ifindex_get_port_type(ifindex);
        sim_port n;
        n.ifindex = ifindex;
        n.name = name;
        n.type = type;
        if (type == PORT_TYPE_GONU) {
            std::uint32_t pon = st_ifindex_gen_by_phyinfo(
                PORT_TYPE_GPON, st_ifindex_get_shelf_id(ifindex), st_ifindex_get_slot_id(ifindex),
                st_ifindex_get_subslot_id(ifindex), st_ifindex_get_port_id(ifindex), 0);
            const sim_port *pp = m_.port(pon);
            if (!pp || !pp->present) return "no PON port for " + name;
            if (sn.empty()) return "a new ONU needs a serial number (sn)";
            n.pon = pon;
            n.onu_id = st_ifindex_get_onu_id(ifindex);
            n.sn = sn;
            n.role = SIM_ROLE_ACCESS;
        } else if (!(type == PORT_TYPE_FE || type == PORT_TYPE_GE || type == PORT_TYPE_XE ||
                     type == PORT_TYPE_CE || type == PORT_TYPE_ETH || type == PORT_TYPE_MGMT ||
                     type == PORT_TYPE_GPON)) {
            return "cannot add " + name + ": not a physical port or ONU name";
        }
        if (st_ifindex_get_shelf_id(ifindex) != 1) return "ports are on shelf 1";
        p = &(m_.ports[ifindex] = n);
    } else if (sim_is_onu(*p)) {
        const sim_port *pp = m_.port(p->pon);
        if (!pp || !pp->present) return "PON port of " + name + " is not present";
    }
    if (!linux_if.empty()) p->linux_if = linux_if;
    if (!sn.empty() && sim_is_onu(*p)) p->sn = sn;
    p->present = true;
    emit_if(DEVMGR_IF_NEW, *p);
    if (sim_is_onu(*p)) {
        devmgr_msg_t m{};
        m.type = DEVMGR_ONU_STATUS;
        m.onu.ifindex = p->ifindex;
        m.onu.status = p->online ? 1 : 0;
        set_str(m.onu.onu_sn, sizeof m.onu.onu_sn, p->sn);
        emit(m);
    }
    return "";
}

std::string sim_device::vlan_create(const vlan_bits &vids)
{
    vlan_bits fresh = vids & ~m_.vlans;
    fresh.reset(0);
    fresh.reset(4095);
    if (fresh.none()) return "no new VLAN in the list";
    m_.vlans |= fresh;
    devmgr_msg_t m{};
    m.type = DEVMGR_VLAN_CREATE;
    sim_vlan_bits_to_bitmap(fresh, m.vlan.uvlan);
    emit(m);
    return "";
}

std::string sim_device::vlan_destroy(const vlan_bits &vids)
{
    vlan_bits gone = vids & m_.vlans;
    if (gone.none()) return "none of these VLANs exists";
    m_.vlans &= ~gone;
    // A destroyed VLAN has no members; the port VLAN id stays, as clients keep it.
    for (auto &[ix, p] : m_.ports) {
        p.tagged &= ~gone;
        p.untagged &= ~gone;
    }
    devmgr_msg_t m{};
    m.type = DEVMGR_VLAN_DESTROY;
    sim_vlan_bits_to_bitmap(gone, m.vlan.uvlan);
    emit(m);
    return "";
}

std::string sim_device::port_vlan(const std::string &name, const vlan_bits &vids, bool add, bool tagged)
{
    sim_port *p;
    std::string e = find(name, p);
    if (!e.empty()) return e;
    if (sim_is_onu(*p)) return "an ONU's VLANs come from its service ports";
    if (p->trunk) return name + " takes its VLANs from trunk" + std::to_string(p->trunk);
    if (add) {
        vlan_bits missing = vids & ~m_.vlans;
        if (missing.any()) return "VLAN " + sim_vlan_list_str(missing) + " does not exist";
        (tagged ? p->tagged : p->untagged) |= vids;
        (tagged ? p->untagged : p->tagged) &= ~vids;
    } else {
        (tagged ? p->tagged : p->untagged) &= ~vids;
    }
    emit_vlan_port(p->ifindex, add ? UMSG_VLAN_PORT_ADD : UMSG_VLAN_PORT_DEL, tagged ? 0 : 1, 0, vids);
    return "";
}

std::string sim_device::port_pvid(const std::string &name, std::uint16_t pvid)
{
    sim_port *p;
    std::string e = find(name, p);
    if (!e.empty()) return e;
    if (sim_is_onu(*p)) return "an ONU's VLANs come from its service ports";
    if (p->trunk) return name + " takes its VLANs from trunk" + std::to_string(p->trunk);
    if (pvid > SIM_VLAN_MAX) return "VLAN id out of range";
    if (pvid && !m_.vlans.test(pvid)) return "VLAN " + std::to_string(pvid) + " does not exist";
    p->pvid = pvid;
    p->tagged.reset();
    p->untagged.reset();
    emit_vlan_port(p->ifindex, UMSG_VLAN_PORT_PVID, 0, pvid, vlan_bits{});
    return "";
}

std::string sim_device::port_trunk(const std::string &name, std::uint32_t trunk_id)
{
    sim_port *p;
    std::string e = find(name, p);
    if (!e.empty()) return e;
    if (sim_is_onu(*p) || sim_is_pon(*p) || sim_is_trunk(*p)) return name + " cannot join a trunk";
    sim_port *t = nullptr;
    if (trunk_id) {
        t = m_.port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, trunk_id));
        if (!t || !t->present) return "no trunk" + std::to_string(trunk_id);
    }
    if (p->trunk) {
        sim_port *old = m_.port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, p->trunk));
        if (old) old->members.erase(std::remove(old->members.begin(), old->members.end(), p->ifindex),
                                    old->members.end());
    }
    p->trunk = trunk_id;
    if (t) t->members.push_back(p->ifindex);
    devmgr_msg_t m{};
    m.type = DEVMGR_TRUNK_SET;
    m.trunk = {p->ifindex, trunk_id};
    emit(m);
    return "";
}

std::string sim_device::onu_status(const std::string &name, bool online)
{
    sim_port *p;
    std::string e = find(name, p);
    if (!e.empty()) return e;
    if (!sim_is_onu(*p)) return name + " is not an ONU";
    p->online = online;
    devmgr_msg_t m{};
    m.type = DEVMGR_ONU_STATUS;
    m.onu.ifindex = p->ifindex;
    m.onu.status = online ? 1 : 0;
    set_str(m.onu.onu_sn, sizeof m.onu.onu_sn, p->sn);
    emit(m);
    emit_if(DEVMGR_IF_STATUS, *p);
    return "";
}

std::string sim_device::slot_switchover(std::uint32_t slot, bool start)
{
    devmgr_msg_t m{};
    m.type = start ? DEVMGR_SLOT_SWITCH_START : DEVMGR_SLOT_SWITCH_END;
    m.slot = slot;
    emit(m);
    return "";
}

std::string sim_device::slot_cfg_sync(std::uint32_t slot, bool start, std::uint32_t prio,
                                      const std::string &app)
{
    devmgr_msg_t m{};
    m.type = start ? DEVMGR_SLOT_CFG_SYNC_START : DEVMGR_SLOT_CFG_SYNC_END;
    m.cfg.slotid = slot;
    m.cfg.cfg_prio = prio;
    set_str(m.cfg.appName, sizeof m.cfg.appName, app);
    emit(m);
    return "";
}
