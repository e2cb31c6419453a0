#include "devlib/devmgr_proto.h"

#include <cstring>

namespace {

enum {
    LEN_HELLO = DEVMGR_NAME_LEN + 2 + 4,
    LEN_U32 = 4,
    LEN_PRIO = 4 + DEVMGR_NAME_LEN + 4,
    LEN_RECOVERY = DEVMGR_NAME_LEN + 12,
    LEN_IF = 4 + 20 + 5 * 4 + 32,
    LEN_TRUNK = 8,
    LEN_VLAN = UVLAN_BITMAP_LEN,
    LEN_VLAN_PORT = 4 + 2 + 2 + 2 + UVLAN_BITMAP_LEN,
    LEN_ONU = 4 + 4 + 9,
    LEN_CFG = 4 * 4 + 128,
};

struct type_info {
    std::uint16_t type;
    const char *name;
    int len;
};

constexpr type_info TYPES[] = {
    {DEVMGR_HELLO, "HELLO", LEN_HELLO},
    {DEVMGR_HELLO_ACK, "HELLO_ACK", LEN_U32},
    {DEVMGR_GET_HOSTNAME, "GET_HOSTNAME", 0},
    {DEVMGR_HOSTNAME, "HOSTNAME", DEVMGR_HOSTNAME_LEN},
    {DEVMGR_CFG_SYNC_PRIO_SET, "CFG_SYNC_PRIO_SET", LEN_PRIO},
    {DEVMGR_CFG_RECOVERY_RESULT, "CFG_RECOVERY_RESULT", LEN_RECOVERY},
    {DEVMGR_RESULT, "RESULT", LEN_U32},
    {DEVMGR_IF_NEW, "IF_NEW", LEN_IF},
    {DEVMGR_IF_DEL, "IF_DEL", LEN_IF},
    {DEVMGR_IF_STATUS, "IF_STATUS", LEN_IF},
    {DEVMGR_IF_ADMIN, "IF_ADMIN", LEN_IF},
    {DEVMGR_TRUNK_SET, "TRUNK_SET", LEN_TRUNK},
    {DEVMGR_VLAN_CREATE, "VLAN_CREATE", LEN_VLAN},
    {DEVMGR_VLAN_DESTROY, "VLAN_DESTROY", LEN_VLAN},
    {DEVMGR_VLAN_PORT, "VLAN_PORT", LEN_VLAN_PORT},
    {DEVMGR_HOST, "HOST", DEVMGR_HOSTNAME_LEN},
    {DEVMGR_ONU_STATUS, "ONU_STATUS", LEN_ONU},
    {DEVMGR_SLOT_SWITCH_START, "SLOT_SWITCH_START", LEN_U32},
    {DEVMGR_SLOT_SWITCH_END, "SLOT_SWITCH_END", LEN_U32},
    {DEVMGR_SLOT_CFG_SYNC_START, "SLOT_CFG_SYNC_START", LEN_CFG},
    {DEVMGR_SLOT_CFG_SYNC_END, "SLOT_CFG_SYNC_END", LEN_CFG},
    {DEVMGR_REPLAY_START, "REPLAY_START", 0},
    {DEVMGR_REPLAY_END, "REPLAY_END", 0},
};

const type_info *find_type(std::uint16_t type)
{
    for (const type_info &t : TYPES)
        if (t.type == type) return &t;
    return nullptr;
}

// Fixed-size text fields: NUL-padded on the wire, always terminated when read.
bool put_str(wire_writer &w, const char *s, std::size_t field)
{
    std::size_t n = strnlen(s, field);
    return w.put(s, n) && w.zero(field - n);
}

bool get_str(wire_reader &r, char *dst, std::size_t field)
{
    if (!r.copy(dst, field)) return false;
    dst[field - 1] = '\0';
    return true;
}

bool put_if(wire_writer &w, const umsg_if_t &m)
{
    return w.be32(m.ifindex) && put_str(w, m.name, sizeof m.name) && w.be32(m.status) &&
           w.be32(m.admin) && w.be32(m.duplex) && w.be32(m.speed) && w.be32(m.flags) &&
           put_str(w, m.onu_sn, sizeof m.onu_sn);
}

bool get_if(wire_reader &r, umsg_if_t &m)
{
    return r.be32(m.ifindex) && get_str(r, m.name, sizeof m.name) && r.be32(m.status) &&
           r.be32(m.admin) && r.be32(m.duplex) && r.be32(m.speed) && r.be32(m.flags) &&
           get_str(r, m.onu_sn, sizeof m.onu_sn);
}

bool put_cfg(wire_writer &w, const umsg_cfg_sync_t &m)
{
    return w.be32(m.appid) && w.be32(m.slotid) && w.be32(m.cfg_prio) && w.be32(m.retcode) &&
           put_str(w, m.appName, sizeof m.appName);
}

bool get_cfg(wire_reader &r, umsg_cfg_sync_t &m)
{
    return r.be32(m.appid) && r.be32(m.slotid) && r.be32(m.cfg_prio) && r.be32(m.retcode) &&
           get_str(r, m.appName, sizeof m.appName);
}

bool put_payload(wire_writer &w, const devmgr_msg_t &m)
{
    switch (m.type) {
    case DEVMGR_HELLO:
        return put_str(w, m.hello.progname, DEVMGR_NAME_LEN) && w.be16(m.hello.listen_port) &&
               w.be32(m.hello.pid);
    case DEVMGR_HELLO_ACK:
    case DEVMGR_RESULT: return w.be32(m.result);
    case DEVMGR_GET_HOSTNAME:
    case DEVMGR_REPLAY_START:
    case DEVMGR_REPLAY_END: return true;
    case DEVMGR_HOSTNAME:
    case DEVMGR_HOST: return put_str(w, m.hostname, DEVMGR_HOSTNAME_LEN);
    case DEVMGR_CFG_SYNC_PRIO_SET:
        return w.be32(m.prio.appid) && put_str(w, m.prio.name, DEVMGR_NAME_LEN) && w.be32(m.prio.prio);
    case DEVMGR_CFG_RECOVERY_RESULT:
        return put_str(w, m.recovery.name, DEVMGR_NAME_LEN) && w.be32(m.recovery.slotid) &&
               w.be32(m.recovery.cfg_prio) && w.be32(m.recovery.result);
    case DEVMGR_IF_NEW:
    case DEVMGR_IF_DEL:
    case DEVMGR_IF_STATUS:
    case DEVMGR_IF_ADMIN: return put_if(w, m.ifm);
    case DEVMGR_TRUNK_SET: return w.be32(m.trunk.ifindex) && w.be32(m.trunk.trunk_id);
    case DEVMGR_VLAN_CREATE:
    case DEVMGR_VLAN_DESTROY: return w.put(m.vlan.uvlan, UVLAN_BITMAP_LEN);
    case DEVMGR_VLAN_PORT:
        return w.be32(m.vlan_port.ifindex) && w.be16(m.vlan_port.op) && w.be16(m.vlan_port.tag) &&
               w.be16(m.vlan_port.pvid) && w.put(m.vlan_port.uvlan, UVLAN_BITMAP_LEN);
    case DEVMGR_ONU_STATUS:
        return w.be32(m.onu.ifindex) && w.be32(static_cast<std::uint32_t>(m.onu.status)) &&
               put_str(w, m.onu.onu_sn, sizeof m.onu.onu_sn);
    case DEVMGR_SLOT_SWITCH_START:
    case DEVMGR_SLOT_SWITCH_END: return w.be32(m.slot);
    case DEVMGR_SLOT_CFG_SYNC_START:
    case DEVMGR_SLOT_CFG_SYNC_END: return put_cfg(w, m.cfg);
    default: return false;
    }
}

bool get_payload(wire_reader &r, devmgr_msg_t &m)
{
    switch (m.type) {
    case DEVMGR_HELLO:
        return get_str(r, m.hello.progname, DEVMGR_NAME_LEN) && r.be16(m.hello.listen_port) &&
               r.be32(m.hello.pid);
    case DEVMGR_HELLO_ACK:
    case DEVMGR_RESULT: return r.be32(m.result);
    case DEVMGR_GET_HOSTNAME:
    case DEVMGR_REPLAY_START:
    case DEVMGR_REPLAY_END: return true;
    case DEVMGR_HOSTNAME:
    case DEVMGR_HOST: return get_str(r, m.hostname, DEVMGR_HOSTNAME_LEN);
    case DEVMGR_CFG_SYNC_PRIO_SET:
        return r.be32(m.prio.appid) && get_str(r, m.prio.name, DEVMGR_NAME_LEN) && r.be32(m.prio.prio);
    case DEVMGR_CFG_RECOVERY_RESULT:
        return get_str(r, m.recovery.name, DEVMGR_NAME_LEN) && r.be32(m.recovery.slotid) &&
               r.be32(m.recovery.cfg_prio) && r.be32(m.recovery.result);
    case DEVMGR_IF_NEW:
    case DEVMGR_IF_DEL:
    case DEVMGR_IF_STATUS:
    case DEVMGR_IF_ADMIN: return get_if(r, m.ifm);
    case DEVMGR_TRUNK_SET: return r.be32(m.trunk.ifindex) && r.be32(m.trunk.trunk_id);
    case DEVMGR_VLAN_CREATE:
    case DEVMGR_VLAN_DESTROY: return r.copy(m.vlan.uvlan, UVLAN_BITMAP_LEN);
    case DEVMGR_VLAN_PORT:
        return r.be32(m.vlan_port.ifindex) && r.be16(m.vlan_port.op) && r.be16(m.vlan_port.tag) &&
               r.be16(m.vlan_port.pvid) && r.copy(m.vlan_port.uvlan, UVLAN_BITMAP_LEN);
    case DEVMGR_ONU_STATUS: {
        std::uint32_t status = 0;
        if (!(r.be32(m.onu.ifindex) && r.be32(status) && get_str(r, m.onu.onu_sn, sizeof m.onu.onu_sn)))
            return false;
        m.onu.status = static_cast<std::int32_t>(status);
        return true;
    }
    case DEVMGR_SLOT_SWITCH_START:
    case DEVMGR_SLOT_SWITCH_END: return r.be32(m.slot);
    case DEVMGR_SLOT_CFG_SYNC_START:
    case DEVMGR_SLOT_CFG_SYNC_END: return get_cfg(r, m.cfg);
    default: return false;
    }
}

} // namespace

int devmgr_payload_len(std::uint16_t type)
{
    const type_info *t = find_type(type);
    return t ? t->len : -1;
}

const char *devmgr_type_name(std::uint16_t type)
{
    const type_info *t = find_type(type);
    return t ? t->name : "UNKNOWN";
}

bool devmgr_hdr_decode(bytes_view b, devmgr_hdr_t &h)
{
    devmgr_hdr_t t{};
    wire_reader r(b);
    if (!(r.be16(t.type) && r.be16(t.flags) && r.be32(t.seq) && r.be32(t.length))) return false;
    h = t;
    return true;
}

bool devmgr_hdr_encode(bytes_span b, const devmgr_hdr_t &h)
{
    if (b.size() < DEVMGR_HDR_LEN) return false;
    wire_writer w(b);
    return w.be16(h.type) && w.be16(h.flags) && w.be32(h.seq) && w.be32(h.length);
}

bool devmgr_encode(const devmgr_msg_t &m, std::vector<std::uint8_t> &out)
{
    int len = devmgr_payload_len(m.type);
    if (len < 0) return false;
    std::size_t start = out.size();
    out.resize(start + DEVMGR_HDR_LEN + static_cast<std::size_t>(len));
    bytes_span whole(out.data() + start, DEVMGR_HDR_LEN + static_cast<std::size_t>(len));
    devmgr_hdr_t h{m.type, m.flags, m.seq, static_cast<std::uint32_t>(len)};
    wire_writer w(whole.subspan(DEVMGR_HDR_LEN));
    if (!devmgr_hdr_encode(whole, h) || !put_payload(w, m) || w.left() != 0) {
        out.resize(start);
        return false;
    }
    return true;
}

int devmgr_decode(const devmgr_hdr_t &h, bytes_view payload, devmgr_msg_t &m)
{
    m = devmgr_msg_t{};
    m.type = h.type;
    m.flags = h.flags;
    m.seq = h.seq;
    int len = devmgr_payload_len(h.type);
    if (len < 0) return DEVMGR_DEC_UNKNOWN;
    if (payload.size() < static_cast<std::size_t>(len)) return DEVMGR_DEC_SHORT;
    wire_reader r(payload.first(static_cast<std::size_t>(len)));
    return get_payload(r, m) ? DEVMGR_DEC_OK : DEVMGR_DEC_SHORT;
}

int devmgr_frame(bytes_view stream, devmgr_hdr_t &h, std::size_t &frame_len)
{
    devmgr_hdr_t t{};
    if (!devmgr_hdr_decode(stream, t)) return DEVMGR_FRAME_MORE;
    if (t.length > DEVMGR_MAX_PAYLOAD) return DEVMGR_FRAME_BAD;
    std::size_t whole = DEVMGR_HDR_LEN + static_cast<std::size_t>(t.length);
    if (stream.size() < whole) return DEVMGR_FRAME_MORE;
    h = t;
    frame_len = whole;
    return DEVMGR_FRAME_OK;
}
