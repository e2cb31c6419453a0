#include "sim/sim_switch.h"

#include <cstring>

#include "devlib/ifindex.h"
#include "lib/log.h"
#include "platform/errcode.h"

namespace {

// Drops are counted always and logged at 1, 2, 4, 8 ... so a flood of bad
// input cannot flood the log.
bool worth_logging(std::uint64_t n) { return n && (n & (n - 1)) == 0; }

std::uint32_t vlanif_index(std::uint16_t vid) { return st_ifindex_gen_by_logicinfo(PORT_TYPE_VLANIF, vid); }

} // namespace

sim_switch::sim_switch(sim_model &m, sim_switch_io io) : m_(m), io_(std::move(io)) {}

std::uint32_t sim_switch::bport_of(const sim_port &p) const
{
    return p.trunk ? st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, p.trunk) : p.ifindex;
}

bool sim_switch::trunk_forwarding(const sim_port &p) const
{
    if (!p.trunk) return true;
    const sim_port *t = m_.port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, p.trunk));
    return t && m_.port_forwarding(*t);
}

const sim_port *sim_switch::trunk_member(const sim_port &trunk, bytes_view frame) const
{
    const sim_port *live[64];
    std::size_t n = 0;
    for (std::uint32_t mi : trunk.members) {
        const sim_port *mp = m_.port(mi);
        if (mp && m_.port_forwarding(*mp) && !mp->linux_if.empty() && n < 64) live[n++] = mp;
    }
    if (n == 0) return nullptr;
    // Same pair of addresses, same member: keeps a conversation in order.
    unsigned h = frame.size() >= 12 ? unsigned(frame[5] ^ frame[11]) : 0;
    return live[h % n];
}

void sim_switch::rx_port(std::uint32_t ifindex, bytes_view frame)
{
    sim_port *p = m_.port(ifindex);
    if (!p) {
        if (worth_logging(++stats_.rx_unknown_port))
            zlog_err("oltsim: frame on unknown port %#x dropped (%llu so far)", ifindex,
                     (unsigned long long)stats_.rx_unknown_port);
        return;
    }
    p->cnt.rx_frames++;
    p->cnt.rx_bytes += frame.size();
    if (!m_.port_forwarding(*p) || !trunk_forwarding(*p)) {
        p->cnt.rx_drop_down++;
        return;
    }
    frame_info fi;
    frame_status st = sim_frame_parse(frame, fi);
    if (st != FRAME_OK) {
        std::uint64_t &c = st == FRAME_TOO_BIG ? p->cnt.rx_drop_big : p->cnt.rx_drop_bad;
        if (worth_logging(++c))
            zlog_err("oltsim: port %s: %s frame of %zu bytes dropped (%llu so far)", p->name.c_str(),
                     st == FRAME_TOO_BIG       ? "oversized"
                     : st == FRAME_TOO_MANY_TAGS ? "over-tagged"
                                               : "truncated",
                     frame.size(), (unsigned long long)c);
        return;
    }
    classification c;
    classify_result cr = sim_is_onu(*p) ? sim_classify_onu(m_, p->ifindex, fi, c)
                                        : sim_classify_port(m_.vlan_owner(*p), fi, c);
    if (cr != CLASSIFY_OK || !m_.vlans.test(c.vid)) {
        p->cnt.rx_drop_vlan++;
        return;
    }
    const std::uint32_t bport = bport_of(*p);

    // DHCP for the module: on trapped VLANs, and what is addressed to a VLAN interface.
    if (fi.dhcp != DHCP_NONE) {
        auto vi = m_.vlanifs.find(c.vid);
        bool to_vlanif = vi != m_.vlanifs.end() && std::memcmp(fi.dst, vi->second.mac, 6) == 0;
        bool vlan_trap = traps_.on(fi.dhcp, c.vid);
        if (vlan_trap || to_vlanif) {
            macs_.learn(c.vid, fi.src, bport, p->ifindex, now());
            hal_msg_pkt_t pk{};
            pk.ifindex = p->ifindex;
            pk.fwd_info.tid = p->trunk;
            pk.fwd_info.vid = c.vid;
            if (c.servport) {
                pk.fwd_info.srv_if = c.servport->ifindex;
                pk.fwd_info.srv_info.lltag = c.servport->lltag;
                pk.fwd_info.srv_info.uservlan = c.servport->uservlan;
                pk.fwd_info.srv_info.vlan_action = c.servport->action;
            }
            // As a switch's CPU port does: the frame carries one tag, the VLAN
            // it was classified into, whatever tags it had on the wire. A frame
            // sent back unchanged then leaves in that VLAN with the egress
            // port's tagging.
            frame_buf cpu;
            cpu.assign(frame);
            sim_frame_strip_tags(cpu);
            bool tagged = sim_frame_push_tag(cpu, SIM_TPID_8021Q, c.vid) && cpu.len <= HAL_PKT_DATA_MAX;
            bytes_view out = tagged ? cpu.view() : frame;
            pk.len = static_cast<std::uint16_t>(out.size());
            pk.data = out.data();
            if (io_.to_module && io_.to_module(pk, fi)) {
                p->cnt.rx_trapped++;
                stats_.trapped++;
                return;
            }
            // Without a module, DHCP for a VLAN interface is routed traffic
            // like any other (a relay in the kernel's namespace may want it);
            // a trap the module asked for still holds the frame.
            if (vlan_trap) {
                p->cnt.rx_trapped++;
                if (worth_logging(++stats_.trap_undelivered))
                    zlog_err("oltsim: trapped DHCP frame from %s in VLAN %u not delivered, no module "
                             "(%llu so far)", p->name.c_str(), c.vid,
                             (unsigned long long)stats_.trap_undelivered);
                return;
            }
        }
    }

    const sim_port &owner = m_.vlan_owner(*p);
    bool access = sim_is_onu(*p) || owner.role == SIM_ROLE_ACCESS;
    if (access && fi.ipv4 && fi.dhcp == DHCP_NONE &&
        !guard_.permits(c.vid, p->ifindex, fi.src, fi.ipv4_src)) {
        p->cnt.rx_drop_guard++;
        return;
    }

    mac_learn_result lr = macs_.learn(c.vid, fi.src, bport, p->ifindex, now());
    if (lr == MAC_LEARN_FULL && worth_logging(++stats_.learn_full))
        zlog_err("oltsim: MAC table full (%zu), %s not learnt", macs_.size(),
                 sim_mac_str(fi.src).c_str());
    if (lr == MAC_LEARN_MOVED) stats_.mac_moves++;

    frame_buf f;
    f.assign(frame);
    if (c.pop_outer && !sim_frame_pop_tag(f)) {
        p->cnt.rx_drop_bad++;
        return;
    }
    forward(c.vid, f, bport);
}

void sim_switch::rx_vlanif(std::uint16_t vid, bytes_view frame)
{
    auto vi = m_.vlanifs.find(vid);
    frame_info fi;
    if (vi == m_.vlanifs.end() || !m_.vlans.test(vid) || sim_frame_parse(frame, fi) != FRAME_OK ||
        fi.ntags) {
        stats_.vlanif_drop++;
        return;
    }
    stats_.vlanif_rx++;
    const std::uint32_t bport = vlanif_index(vid);
    macs_.learn(vid, fi.src, bport, bport, now());
    frame_buf f;
    f.assign(frame);
    forward(vid, f, bport);
}

void sim_switch::forward(std::uint16_t vid, const frame_buf &f, std::uint32_t from_bport)
{
    const std::uint8_t *dst = f.data;
    if (!sim_mac_is_group(dst)) {
        auto vi = m_.vlanifs.find(vid);
        if (vi != m_.vlanifs.end() && std::memcmp(dst, vi->second.mac, 6) == 0) {
            if (from_bport != vlanif_index(vid)) to_vlanif(vid, f);
            return;
        }
        if (const sim_mac_entry *e = macs_.lookup(vid, dst)) {
            if (e->bport == from_bport) {
                stats_.filtered++;
                return;
            }
            out_bport(e->bport, vid, f);
            return;
        }
    }
    stats_.flooded++;
    flood(vid, f, from_bport, true);
}

void sim_switch::flood(std::uint16_t vid, const frame_buf &f, std::uint32_t from_bport, bool vlanif)
{
    for (auto &[ix, p] : m_.ports) {
        if (!p.present || p.trunk || sim_is_pon(p) || ix == from_bport) continue;
        bool member = sim_is_onu(p) ? m_.servport_for_vlan(ix, vid) != nullptr : m_.port_in_vlan(p, vid);
        if (member) out_bport(ix, vid, f);
    }
    if (vlanif && from_bport != vlanif_index(vid) && m_.vlanifs.count(vid)) to_vlanif(vid, f);
}

bool sim_switch::to_vlanif(std::uint16_t vid, const frame_buf &f)
{
    auto vi = m_.vlanifs.find(vid);
    if (vi == m_.vlanifs.end() || !io_.tx_vlanif || !io_.tx_vlanif(vi->second, f.view())) {
        stats_.vlanif_drop++;
        return false;
    }
    stats_.vlanif_tx++;
    return true;
}

bool sim_switch::send_on(const sim_port &p, bytes_view frame)
{
    sim_port &w = *m_.port(p.ifindex);
    if (p.linux_if.empty() || !m_.port_forwarding(p) || !trunk_forwarding(p)) {
        w.cnt.tx_drop++;
        return false;
    }
    if (!io_.tx_port || !io_.tx_port(p, frame)) {
        w.cnt.tx_error++;
        return false;
    }
    w.cnt.tx_frames++;
    w.cnt.tx_bytes += frame.size();
    return true;
}

bool sim_switch::out_bport(std::uint32_t bport, std::uint16_t vid, const frame_buf &f)
{
    if (st_ifindex_get_port_type(bport) == PORT_TYPE_VLANIF) return to_vlanif(vid, f);
    sim_port *p = m_.port(bport);
    if (!p || !p->present) return false;
    std::uint16_t tag = 0;
    bool member = sim_is_onu(*p) ? sim_egress_onu(m_, *p, vid, tag) : sim_egress_port(m_, *p, vid, tag);
    const sim_port *out = p;
    if (sim_is_trunk(*p)) {
        if (!m_.port_forwarding(*p)) member = false;
        out = member ? trunk_member(*p, f.view()) : nullptr;
    }
    if (!member || !out) {
        p->cnt.tx_drop++;
        return false;
    }
    if (tag == 0) return send_on(*out, f.view());
    frame_buf t = f;
    if (!sim_frame_push_tag(t, SIM_TPID_8021Q, tag)) {
        p->cnt.tx_drop++;
        return false;
    }
    return send_on(*out, t.view());
}

bool sim_switch::out_raw(const sim_port &p, bytes_view frame)
{
    if (sim_is_trunk(p)) {
        const sim_port *mp = m_.port_forwarding(p) ? trunk_member(p, frame) : nullptr;
        if (!mp) {
            m_.port(p.ifindex)->cnt.tx_drop++;
            return false;
        }
        return send_on(*mp, frame);
    }
    return send_on(p, frame);
}

int sim_switch::from_module(const hal_msg_pkt_t &pk)
{
    stats_.mod_frames++;
    std::uint16_t vid = pk.fwd_info.vid;
    frame_buf f;
    if (pk.len < SIM_ETH_HLEN || !pk.data || !f.assign(bytes_view(pk.data, pk.len)) || vid > SIM_VLAN_MAX ||
        (pk.ifindex == 0xffffffffu && vid == 0)) {
        if (worth_logging(++stats_.mod_bad))
            zlog_err("oltsim: module frame for %#x VLAN %u length %u refused (%llu so far)", pk.ifindex,
                     vid, pk.len, (unsigned long long)stats_.mod_bad);
        return TAVO_PARAM;
    }
    // With a VLAN to tag with, the frame leaves as if switched in that VLAN.
    // Without one, a frame tagged with an existing VLAN is switched in it (as
    // the trapped frames come tagged); an untagged one leaves as it is.
    if (!vid && pk.ifindex != 0xffffffffu) {
        frame_info fi;
        if (sim_frame_parse(f.view(), fi) == FRAME_OK && fi.ntags > 0 && m_.vlans.test(fi.tags[0].vid()))
            vid = fi.tags[0].vid();
    }
    if (vid) sim_frame_strip_tags(f);
    auto sent = [&](bool ok) {
        ok ? stats_.mod_sent++ : stats_.mod_drop++;
        return 0;
    };

    if (pk.ifindex == 0xffffffffu) {
        std::uint32_t from = 0;
        if (const sim_port *sp = m_.port(pk.src_if)) from = bport_of(*sp);
        flood(vid, f, from, false);
        return sent(true);
    }
    const int type = st_ifindex_get_port_type(pk.ifindex);
    if (type == PORT_TYPE_VLANIF) {
        std::uint16_t v = static_cast<std::uint16_t>(st_ifindex_get_vlan_id(pk.ifindex));
        sim_frame_strip_tags(f);
        return sent(to_vlanif(v, f));
    }
    if (type == PORT_TYPE_GPON_SERVPORT) {
        auto it = m_.servports.find(st_ifindex_get_logic_id(pk.ifindex));
        const sim_port *onu = it != m_.servports.end() ? m_.port(it->second.onu) : nullptr;
        if (onu && onu->present)
            return sent(vid ? out_bport(onu->ifindex, vid, f) : out_raw(*onu, f.view()));
    }
    const sim_port *p = m_.port(pk.ifindex);
    if (p && p->present && sim_is_pon(*p)) {
        bool any = false;
        for (auto &[ix, o] : m_.ports) {
            if (!o.present || !sim_is_onu(o) || o.pon != p->ifindex) continue;
            if (vid ? m_.servport_for_vlan(ix, vid) == nullptr : false) continue;
            any = (vid ? out_bport(ix, vid, f) : out_raw(o, f.view())) || any;
        }
        return sent(any);
    }
    if (!p || !p->present) {
        if (worth_logging(++stats_.mod_unknown_port))
            zlog_err("oltsim: module frame for unknown port %#x dropped (%llu so far)", pk.ifindex,
                     (unsigned long long)stats_.mod_unknown_port);
        return TAVO_PORT;
    }
    return sent(vid ? out_bport(p->ifindex, vid, f) : out_raw(*p, f.view()));
}

void sim_switch::on_event(const devmgr_msg_t &m)
{
    switch (m.type) {
    case DEVMGR_IF_STATUS:
    case DEVMGR_IF_ADMIN:
    case DEVMGR_IF_DEL: {
        const sim_port *p = m_.port(m.ifm.ifindex);
        if (!p || !m_.port_forwarding(*p)) macs_.flush_port(m.ifm.ifindex);
        if (p && sim_is_pon(*p) && !m_.port_forwarding(*p))
            for (auto &[ix, o] : m_.ports)
                if (sim_is_onu(o) && o.pon == p->ifindex) macs_.flush_port(ix);
        break;
    }
    case DEVMGR_ONU_STATUS:
        if (m.onu.status != 1) macs_.flush_port(m.onu.ifindex);
        break;
    case DEVMGR_TRUNK_SET:
        macs_.flush_port(m.trunk.ifindex);
        break;
    case DEVMGR_VLAN_PORT:
        // Membership changed: addresses learnt there may no longer be reachable.
        macs_.flush_port(m.vlan_port.ifindex);
        break;
    case DEVMGR_VLAN_DESTROY:
        for (int vid = st_get_min_vlan_in_bitmap(m.vlan.uvlan); vid >= 0;
             vid = st_get_next_vlan_in_bitmap(m.vlan.uvlan, vid)) {
            macs_.flush_vlan(static_cast<std::uint16_t>(vid));
            traps_.clear_vlan(static_cast<std::uint16_t>(vid));
            guard_.clear_vlan(static_cast<std::uint16_t>(vid));
        }
        break;
    default: break;
    }
}

void sim_switch::tick() { macs_.age(now()); }
