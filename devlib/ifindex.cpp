#include "devlib/ifindex.h"

#include <cstdio>
#include <cstring>

#include "platform/errcode.h"

// Bit layout (docs/ifindex.md):
//   type [31:27]
//   physical: shelf [26:25] slot [24:20] subslot [19:18] port [17:12] subport [11:0]
//   logical:  zero [26:16] number [15:0]
namespace {

constexpr unsigned TYPE_SHIFT = 27, SHELF_SHIFT = 25, SLOT_SHIFT = 20, SUBSLOT_SHIFT = 18,
                   PORT_SHIFT = 12;
constexpr std::uint32_t SHELF_MASK = 0x3, SLOT_MASK = 0x1f, SUBSLOT_MASK = 0x3, PORT_MASK = 0x3f,
                        SUBPORT_MASK = 0xfff, NUMBER_MASK = 0xffff;

enum class form { none, plain, onu, gem, uni, logical };

struct type_desc {
    const char *prefix;
    form kind;
    std::uint32_t min, max;  // sub-port range (physical) or number range (logical)
};

// Indexed by port type.
constexpr type_desc TYPES[PORT_TYPE_MAX] = {
    {nullptr, form::none, 0, 0},                          // FABRIC
    {"fe", form::plain, 0, 0},                            // FE
    {"ge", form::plain, 0, 0},                            // GE
    {"xe", form::plain, 0, 0},                            // XE
    {"ce", form::plain, 0, 0},                            // CE
    {"trunk", form::logical, 1, IFINDEX_TRUNK_MAX},       // TRUNK
    {"vlanif", form::logical, 1, 4094},                   // VLANIF
    {"lo", form::logical, 0, IFINDEX_LO_MAX},             // LO
    {"eth", form::plain, 0, 0},                           // ETH
    {"gpon", form::plain, 0, 0},                          // GPON
    {"gonu", form::onu, 1, IFINDEX_ONU_MAX},              // GONU
    {"gem", form::gem, 0, IFINDEX_GEM_MAX},               // GEMPORT
    {"servport", form::logical, 1, IFINDEX_SERVPORT_MAX}, // GPON_SERVPORT
    {"uni", form::uni, 0, 0},                             // GPON_ONU_UNI (range checked apart)
    {"mgmt", form::plain, 0, 0},                          // MGMT
};

bool subport_ok(int type, std::uint32_t sub)
{
    const type_desc &d = TYPES[type];
    if (d.kind == form::uni) {
        std::uint32_t onu = sub >> IFINDEX_UNI_BITS, uni = sub & ((1u << IFINDEX_UNI_BITS) - 1);
        return onu >= 1 && onu <= IFINDEX_ONU_MAX && uni >= 1;
    }
    return sub >= d.min && sub <= d.max;
}

int type_of(std::uint32_t ifindex)
{
    std::uint32_t type = ifindex >> TYPE_SHIFT;
    if (type == 0 || type >= PORT_TYPE_MAX) return 0;
    const type_desc &d = TYPES[type];
    if (d.kind == form::logical) {
        std::uint32_t n = ifindex & NUMBER_MASK;
        bool clean = (ifindex & ~(NUMBER_MASK | (0x1fu << TYPE_SHIFT))) == 0;
        return clean && n >= d.min && n <= d.max ? static_cast<int>(type) : 0;
    }
    return subport_ok(static_cast<int>(type), ifindex & SUBPORT_MASK) ? static_cast<int>(type) : 0;
}

bool physical(std::uint32_t ifindex)
{
    int t = type_of(ifindex);
    return t != 0 && TYPES[t].kind != form::logical;
}

int phy_field(std::uint32_t ifindex, unsigned shift, std::uint32_t mask)
{
    return physical(ifindex) ? static_cast<int>((ifindex >> shift) & mask) : -1;
}

// Decimal without sign or leading zeros; advances p.
bool parse_num(const char *&p, std::uint32_t &v)
{
    if (*p < '0' || *p > '9') return false;
    v = 0;
    int digits = 0;
    while (*p >= '0' && *p <= '9') {
        if (++digits > 6) return false;
        v = v * 10 + static_cast<std::uint32_t>(*p++ - '0');
    }
    return true;
}

} // namespace

std::uint32_t st_ifindex_gen_by_phyinfo(int type, int shelf, int slot, int subslot, int port,
                                        int subport)
{
    if (type <= 0 || type >= PORT_TYPE_MAX) return 0;
    const type_desc &d = TYPES[type];
    if (d.kind == form::none || d.kind == form::logical) return 0;
    if (shelf < 0 || static_cast<std::uint32_t>(shelf) > SHELF_MASK || slot < 0 ||
        static_cast<std::uint32_t>(slot) > SLOT_MASK || subslot < 0 ||
        static_cast<std::uint32_t>(subslot) > SUBSLOT_MASK || port < 0 ||
        static_cast<std::uint32_t>(port) > PORT_MASK || subport < 0 ||
        static_cast<std::uint32_t>(subport) > SUBPORT_MASK ||
        !subport_ok(type, static_cast<std::uint32_t>(subport)))
        return 0;
    return static_cast<std::uint32_t>(type) << TYPE_SHIFT |
           static_cast<std::uint32_t>(shelf) << SHELF_SHIFT |
           static_cast<std::uint32_t>(slot) << SLOT_SHIFT |
           static_cast<std::uint32_t>(subslot) << SUBSLOT_SHIFT |
           static_cast<std::uint32_t>(port) << PORT_SHIFT | static_cast<std::uint32_t>(subport);
}

std::uint32_t st_ifindex_gen_by_logicinfo(int type, std::uint32_t number)
{
    if (type <= 0 || type >= PORT_TYPE_MAX) return 0;
    const type_desc &d = TYPES[type];
    if (d.kind != form::logical || number < d.min || number > d.max) return 0;
    return static_cast<std::uint32_t>(type) << TYPE_SHIFT | number;
}

int st_ifindex_get_port_type(std::uint32_t ifindex) { return type_of(ifindex); }
int st_ifindex_get_shelf_id(std::uint32_t ifindex) { return phy_field(ifindex, SHELF_SHIFT, SHELF_MASK); }
int st_ifindex_get_slot_id(std::uint32_t ifindex) { return phy_field(ifindex, SLOT_SHIFT, SLOT_MASK); }
int st_ifindex_get_subslot_id(std::uint32_t ifindex) { return phy_field(ifindex, SUBSLOT_SHIFT, SUBSLOT_MASK); }
int st_ifindex_get_port_id(std::uint32_t ifindex) { return phy_field(ifindex, PORT_SHIFT, PORT_MASK); }
int st_ifindex_get_subport_id(std::uint32_t ifindex) { return phy_field(ifindex, 0, SUBPORT_MASK); }

std::uint32_t st_ifindex_get_logic_id(std::uint32_t ifindex)
{
    int t = type_of(ifindex);
    return t != 0 && TYPES[t].kind == form::logical ? ifindex & NUMBER_MASK : 0;
}

int st_ifindex_get_vlan_id(std::uint32_t ifindex)
{
    return type_of(ifindex) == PORT_TYPE_VLANIF ? static_cast<int>(ifindex & NUMBER_MASK) : 0;
}

int st_ifindex_get_onu_id(std::uint32_t ifindex)
{
    switch (type_of(ifindex)) {
    case PORT_TYPE_GONU: return static_cast<int>(ifindex & SUBPORT_MASK);
    case PORT_TYPE_GPON_ONU_UNI: return static_cast<int>((ifindex & SUBPORT_MASK) >> IFINDEX_UNI_BITS);
    default: return -1;
    }
}

int st_get_ifname_by_ifindex(std::uint32_t ifindex, char *buf, std::size_t len)
{
    int t = type_of(ifindex);
    if (!buf || len == 0) return TAVO_PARAM;
    buf[0] = '\0';
    if (t == 0) return TAVO_PARAM;
    const type_desc &d = TYPES[t];
    int n;
    if (d.kind == form::logical) {
        n = std::snprintf(buf, len, "%s%u", d.prefix, ifindex & NUMBER_MASK);
    } else {
        unsigned shelf = (ifindex >> SHELF_SHIFT) & SHELF_MASK, slot = (ifindex >> SLOT_SHIFT) & SLOT_MASK,
                 sub = (ifindex >> SUBSLOT_SHIFT) & SUBSLOT_MASK, port = (ifindex >> PORT_SHIFT) & PORT_MASK,
                 sp = ifindex & SUBPORT_MASK;
        char pos[32];
        // The sub-slot is shown only when there is one, so common names stay short.
        if (sub) std::snprintf(pos, sizeof pos, "%u/%u/%u/%u", shelf, slot, sub, port);
        else std::snprintf(pos, sizeof pos, "%u/%u/%u", shelf, slot, port);
        switch (d.kind) {
        case form::onu:
        case form::gem: n = std::snprintf(buf, len, "%s%s:%u", d.prefix, pos, sp); break;
        case form::uni:
            n = std::snprintf(buf, len, "%s%s:%u:%u", d.prefix, pos, sp >> IFINDEX_UNI_BITS,
                              sp & ((1u << IFINDEX_UNI_BITS) - 1));
            break;
        default: n = std::snprintf(buf, len, "%s%s", d.prefix, pos); break;
        }
    }
    if (n < 0 || static_cast<std::size_t>(n) >= len) {
        buf[0] = '\0';
        return TAVO_PARAM;
    }
    return 0;
}

std::uint32_t st_get_ifindex_by_ifname(const char *name)
{
    if (!name) return 0;
    const char *p = name;
    while ((*p >= 'a' && *p <= 'z')) ++p;
    std::size_t plen = static_cast<std::size_t>(p - name);
    int type = 0;
    for (int t = 1; t < PORT_TYPE_MAX; ++t)
        if (TYPES[t].prefix && std::strlen(TYPES[t].prefix) == plen &&
            std::strncmp(TYPES[t].prefix, name, plen) == 0)
            type = t;
    if (type == 0) return 0;
    const type_desc &d = TYPES[type];

    std::uint32_t ifindex = 0;
    if (d.kind == form::logical) {
        std::uint32_t n;
        if (!parse_num(p, n) || *p) return 0;
        ifindex = st_ifindex_gen_by_logicinfo(type, n);
    } else {
        std::uint32_t v[4];
        int count = 0;
        for (;;) {
            if (count == 4 || !parse_num(p, v[count++])) return 0;
            if (*p != '/') break;
            ++p;
        }
        if (count < 3) return 0;
        std::uint32_t sub = 0, a, b;
        if (d.kind == form::onu || d.kind == form::gem) {
            if (*p++ != ':' || !parse_num(p, sub)) return 0;
        } else if (d.kind == form::uni) {
            if (*p++ != ':' || !parse_num(p, a) || *p++ != ':' || !parse_num(p, b)) return 0;
            if (a > (SUBPORT_MASK >> IFINDEX_UNI_BITS) || b >= (1u << IFINDEX_UNI_BITS)) return 0;
            sub = a << IFINDEX_UNI_BITS | b;
        }
        if (*p) return 0;
        bool four = count == 4;
        std::uint32_t port = four ? v[3] : v[2], subslot = four ? v[2] : 0;
        if (v[0] > SHELF_MASK || v[1] > SLOT_MASK || subslot > SUBSLOT_MASK || port > PORT_MASK ||
            sub > SUBPORT_MASK)
            return 0;
        ifindex = st_ifindex_gen_by_phyinfo(type, int(v[0]), int(v[1]), int(subslot), int(port), int(sub));
    }
    // One name per index: forms that print differently (leading zeros, a zero
    // sub-slot spelled out) are not names.
    char canon[48];
    if (ifindex == 0 || st_get_ifname_by_ifindex(ifindex, canon, sizeof canon) != 0 ||
        std::strcmp(canon, name) != 0)
        return 0;
    return ifindex;
}

const char *st_ifname(std::uint32_t ifindex)
{
    // A few rotating buffers so one log line can name several interfaces.
    static thread_local char bufs[8][48];
    static thread_local unsigned next;
    char *b = bufs[next++ % 8];
    if (st_get_ifname_by_ifindex(ifindex, b, sizeof bufs[0]) != 0)
        std::snprintf(b, sizeof bufs[0], "unknown(0x%x)", ifindex);
    return b;
}
