// The switching pipeline against recorded I/O: learning and forwarding with
// egress tagging, the DHCP trap and what it tells the module, the IP source
// guard, frames sent by the module, and what device events clear.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "devlib/ifindex.h"
#include "platform/errcode.h"
#include "sim/sim_switch.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using tags_t = std::vector<std::pair<std::uint16_t, std::uint16_t>>;

constexpr std::uint32_t UP = 0x12101000;    // ge1/1/1: pvid 100, tagged 200
constexpr std::uint32_t ACC = 0x12102000;   // ge1/1/2: access port, pvid 100
constexpr std::uint32_t M3 = 0x12103000;    // ge1/1/3 and ge1/1/4: trunk1, tagged 100
constexpr std::uint32_t M4 = 0x12104000;
constexpr std::uint32_t PON = 0x4a201000;   // gpon1/2/1
constexpr std::uint32_t ONU1 = 0x52201001;  // servport1: user VLAN 10 tagged -> 100; servport2: untagged -> 200
constexpr std::uint32_t ONU2 = 0x52201002;  // servport3: untagged -> 100

const std::uint8_t MAC_A[6] = {0x02, 0, 0, 0, 0, 0x0a};
const std::uint8_t MAC_B[6] = {0x02, 0, 0, 0, 0, 0x0b};
const std::uint8_t MAC_C[6] = {0x02, 0, 0, 0, 0, 0x0c};
const std::uint8_t BCAST[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
const std::uint8_t VLANIF_MAC[6] = {0x02, 0x00, 0x5e, 0, 0, 0x01};

void be16(bytes &b, std::uint16_t v)
{
    b.push_back(std::uint8_t(v >> 8));
    b.push_back(std::uint8_t(v));
}

bytes frame(const std::uint8_t *dst, const std::uint8_t *src, tags_t tags, std::uint32_t ip_src = 0x0a000007,
            std::uint16_t sport = 1000, std::uint16_t dport = 2000)
{
    bytes b(dst, dst + 6);                     // destination
    b.insert(b.end(), src, src + 6);           // source
    for (auto [tpid, tci] : tags) {
        be16(b, tpid);                         // tag protocol id
        be16(b, tci);                          // VLAN
    }
    be16(b, 0x0800);                           // IPv4
    b.insert(b.end(), {0x45, 0, 0, 48});       // version, IHL, TOS, total length
    b.insert(b.end(), {0, 0, 0, 0, 64, 17});   // id, fragment, TTL, UDP
    b.insert(b.end(), {0, 0});                 // checksum
    for (int s = 24; s >= 0; s -= 8) b.push_back(std::uint8_t(ip_src >> s));  // source address
    b.insert(b.end(), {255, 255, 255, 255});   // destination address
    be16(b, sport);                            // UDP source port
    be16(b, dport);                            // UDP destination port
    be16(b, 28);                               // UDP length
    be16(b, 0);                                // checksum
    b.resize(b.size() + 20, 0xab);             // payload
    return b;
}

bytes dhcp(const std::uint8_t *dst, const std::uint8_t *src, tags_t tags)
{
    return frame(dst, src, tags, 0, 68, 67);
}

sim_port make_port(std::uint32_t ix, int type, const char *name, const char *linux_if)
{
    sim_port p;
    p.ifindex = ix;
    p.type = type;
    p.name = name;
    p.linux_if = linux_if;
    return p;
}

struct box {
    sim_model m;
    std::vector<std::pair<std::string, bytes>> sent;  // (linux interface, frame)
    std::vector<bytes> tapped;
    struct delivered {
        hal_msg_pkt_t p;
        bytes data;
    };
    std::vector<delivered> module;
    bool module_up = true;
    std::uint64_t clock = 1000;
    std::unique_ptr<sim_switch> sw;

    box()
    {
        for (int v : {100, 200, 300}) m.vlans.set(v);
        sim_port up = make_port(UP, PORT_TYPE_GE, "ge1/1/1", "up");
        up.pvid = 100;
        up.tagged.set(200);
        sim_port acc = make_port(ACC, PORT_TYPE_GE, "ge1/1/2", "acc");
        acc.pvid = 100;
        acc.role = SIM_ROLE_ACCESS;
        sim_port m3 = make_port(M3, PORT_TYPE_GE, "ge1/1/3", "m3");
        sim_port m4 = make_port(M4, PORT_TYPE_GE, "ge1/1/4", "m4");
        m3.trunk = m4.trunk = 1;
        sim_port t = make_port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1), PORT_TYPE_TRUNK, "trunk1", "");
        t.members = {M3, M4};
        t.tagged.set(100);
        sim_port pon = make_port(PON, PORT_TYPE_GPON, "gpon1/2/1", "");
        sim_port o1 = make_port(ONU1, PORT_TYPE_GONU, "gonu1/2/1:1", "onu1");
        sim_port o2 = make_port(ONU2, PORT_TYPE_GONU, "gonu1/2/1:2", "onu2");
        o1.pon = o2.pon = PON;
        o1.role = o2.role = SIM_ROLE_ACCESS;
        for (sim_port *p : {&up, &acc, &m3, &m4, &t, &pon, &o1, &o2}) m.ports[p->ifindex] = *p;
        m.servports[1] = sim_servport{1, st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 1), ONU1, 100, 1100, 10, true, 1};
        m.servports[2] = sim_servport{2, st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 2), ONU1, 200, 1200, 20, false, 0};
        m.servports[3] = sim_servport{3, st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 3), ONU2, 100, 1300, 100, false, 1};
        sim_vlanif vi;
        vi.vid = 100;
        vi.ifname = "vlanif100";
        std::copy(VLANIF_MAC, VLANIF_MAC + 6, vi.mac);
        m.vlanifs[100] = vi;

        sim_switch_io io;
        io.tx_port = [this](const sim_port &p, bytes_view f) {
            sent.emplace_back(p.linux_if, bytes(f.begin(), f.end()));
            return true;
        };
        io.tx_vlanif = [this](const sim_vlanif &, bytes_view f) {
            tapped.emplace_back(f.begin(), f.end());
            return true;
        };
        io.to_module = [this](const hal_msg_pkt_t &p, const frame_info &) {
            if (!module_up) return false;
            module.push_back({p, bytes(p.data, p.data + p.len)});
            return true;
        };
        io.now_ms = [this] { return clock; };
        sw = std::make_unique<sim_switch>(m, io);
    }

    std::map<std::string, bytes> take()
    {
        std::map<std::string, bytes> out;
        for (auto &[ifname, f] : sent) {
            EXPECT_EQ(out.count(ifname), 0u) << "two copies on " << ifname;
            out[ifname] = f;
        }
        sent.clear();
        return out;
    }
};

TEST(SimSwitch, FloodsThenSwitchesWithEachPortsTagging)
{
    box b;
    bytes from_acc = frame(MAC_B, MAC_A, {});
    b.sw->rx_port(ACC, from_acc);
    auto out = b.take();
    // Unknown destination: every member of VLAN 100 but the sender.
    EXPECT_EQ(out.size(), 4u);
    EXPECT_EQ(out.count("acc"), 0u);
    EXPECT_EQ(out["up"], from_acc) << "port VLAN: leaves untagged";
    EXPECT_EQ(out["onu2"], from_acc) << "untagged service port";
    EXPECT_EQ(out["onu1"], frame(MAC_B, MAC_A, {{0x8100, 10}})) << "back to the user VLAN";
    bytes trunk_copy = out.count("m3") ? out["m3"] : out["m4"];
    EXPECT_EQ(trunk_copy, frame(MAC_B, MAC_A, {{0x8100, 100}})) << "one trunk member, tagged";
    ASSERT_EQ(b.tapped.size(), 1u) << "the VLAN interface hears the flood";

    // The answer knows its way.
    b.sw->rx_port(ONU2, frame(MAC_A, MAC_B, {}));
    out = b.take();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out.count("acc"), 1u);
    ASSERT_NE(b.sw->macs().lookup(100, MAC_A), nullptr);
    EXPECT_EQ(b.sw->macs().lookup(100, MAC_A)->bport, ACC);
    EXPECT_EQ(b.sw->macs().lookup(100, MAC_B)->bport, ONU2);

    // Learnt behind a trunk member: the trunk is the port, the member the receive port.
    b.sw->rx_port(M4, frame(MAC_A, MAC_C, {{0x8100, 100}}));
    const sim_mac_entry *c = b.sw->macs().lookup(100, MAC_C);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->bport, st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1));
    EXPECT_EQ(c->rx_ifindex, M4);
    EXPECT_EQ(b.take()["acc"], frame(MAC_A, MAC_C, {})) << "the tag is gone on the access port";

    // Not back where it came from.
    b.sw->rx_port(M3, frame(MAC_C, MAC_A, {{0x8100, 100}}));
    EXPECT_TRUE(b.take().empty());
    EXPECT_EQ(b.sw->stats().filtered, 1u);
}

TEST(SimSwitch, IngressDropsAreCountedPerReason)
{
    box b;
    bytes jumbo = frame(MAC_B, MAC_A, {});
    jumbo.resize(1700, 0);
    struct {
        const char *what;
        std::uint32_t port;
        bytes f;
        std::uint64_t sim_port_counters::*counter;
    } cases[] = {
        {"VLAN the port is not in", ACC, frame(MAC_B, MAC_A, {{0x8100, 300}}), &sim_port_counters::rx_drop_vlan},
        {"ONU user VLAN without service port", ONU2, frame(MAC_B, MAC_A, {{0x8100, 33}}),
         &sim_port_counters::rx_drop_vlan},
        {"three tags", UP, frame(MAC_B, MAC_A, {{0x88a8, 1}, {0x8100, 2}, {0x8100, 3}}),
         &sim_port_counters::rx_drop_bad},
        {"runt", UP, bytes(10, 0), &sim_port_counters::rx_drop_bad},
        {"jumbo", UP, jumbo, &sim_port_counters::rx_drop_big},
    };
    for (auto &c : cases) {
        std::uint64_t before = b.m.port(c.port)->cnt.*c.counter;
        b.sw->rx_port(c.port, c.f);
        EXPECT_EQ(b.m.port(c.port)->cnt.*c.counter, before + 1) << c.what;
        EXPECT_TRUE(b.take().empty()) << c.what;
    }
    b.m.vlans.reset(200);
    b.sw->rx_port(UP, frame(MAC_B, MAC_A, {{0x8100, 200}}));
    EXPECT_EQ(b.m.port(UP)->cnt.rx_drop_vlan, 1u) << "a VLAN that does not exist";

    for (auto down : {+[](box &x) { x.m.port(UP)->up = false; }, +[](box &x) { x.m.port(UP)->admin = false; }}) {
        box d;
        down(d);
        d.sw->rx_port(UP, frame(MAC_B, MAC_A, {}));
        EXPECT_EQ(d.m.port(UP)->cnt.rx_drop_down, 1u);
        EXPECT_TRUE(d.take().empty());
    }
    box o;
    o.m.port(PON)->up = false;
    o.sw->rx_port(ONU2, frame(MAC_B, MAC_A, {}));
    EXPECT_EQ(o.m.port(ONU2)->cnt.rx_drop_down, 1u) << "an ONU behind a PON port that is down";
    o.sw->rx_port(0x12109000, frame(MAC_B, MAC_A, {}));
    EXPECT_EQ(o.sw->stats().rx_unknown_port, 1u);
}

TEST(SimSwitch, TrapHandsTheModuleWhereTheFrameCameFrom)
{
    box b;
    ASSERT_EQ(b.sw->traps().set(4, 100, true), 0);
    bytes disc = dhcp(BCAST, MAC_A, {{0x8100, 10}});
    b.sw->rx_port(ONU1, disc);
    EXPECT_TRUE(b.take().empty()) << "trapped frames are the module's to forward";
    EXPECT_TRUE(b.tapped.empty());
    ASSERT_EQ(b.module.size(), 1u);
    const hal_msg_pkt_t &p = b.module[0].p;
    EXPECT_EQ(p.ifindex, ONU1);
    EXPECT_EQ(p.fwd_info.tid, 0u);
    EXPECT_EQ(p.fwd_info.vid, 100);
    EXPECT_EQ(p.fwd_info.srv_if, b.m.servports[1].ifindex);
    EXPECT_EQ(p.fwd_info.srv_info.lltag, 1100);
    EXPECT_EQ(p.fwd_info.srv_info.uservlan, 10);
    EXPECT_EQ(p.fwd_info.srv_info.vlan_action, 1);
    EXPECT_EQ(b.module[0].data, dhcp(BCAST, MAC_A, {{0x8100, 100}}))
        << "the frame with the tag of the VLAN it was classified into";
    EXPECT_EQ(b.m.port(ONU1)->cnt.rx_trapped, 1u);
    EXPECT_NE(b.sw->macs().lookup(100, MAC_A), nullptr) << "trapped clients are learnt (MAC port lookups)";

    b.sw->rx_port(M3, dhcp(BCAST, MAC_B, {{0x8100, 100}}));
    ASSERT_EQ(b.module.size(), 2u);
    EXPECT_EQ(b.module[1].p.ifindex, M3);
    EXPECT_EQ(b.module[1].p.fwd_info.tid, 1u);
    EXPECT_EQ(b.module[1].p.fwd_info.srv_if, 0u);
    EXPECT_EQ(b.module[1].p.fwd_info.srv_info.lltag, 0);

    // Untrapped VLAN: switched like anything else.
    b.sw->rx_port(ONU1, dhcp(BCAST, MAC_A, {}));  // untagged: servport 2, VLAN 200
    EXPECT_EQ(b.module.size(), 2u);
    EXPECT_EQ(b.take().count("up"), 1u);

    // Addressed to the VLAN interface: trapped even without the VLAN trap.
    ASSERT_EQ(b.sw->traps().set(4, 100, false), 0);
    b.sw->rx_port(ONU2, dhcp(VLANIF_MAC, MAC_C, {}));
    EXPECT_EQ(b.module.size(), 3u);
    EXPECT_TRUE(b.tapped.empty());

    // No module: counted, not forwarded, not queued.
    b.module_up = false;
    ASSERT_EQ(b.sw->traps().set(4, 100, true), 0);
    b.sw->rx_port(ACC, dhcp(BCAST, MAC_A, {}));
    EXPECT_EQ(b.sw->stats().trap_undelivered, 1u);
    EXPECT_TRUE(b.take().empty());
}

TEST(SimSwitch, Dhcpv6TrapIsItsOwn)
{
    box b;
    bytes sol = {0x33, 0x33, 0, 1, 0, 2, 0x02, 0, 0, 0, 0, 0x0a,  // destination, source
                 0x86, 0xdd,                                      // IPv6
                 0x60, 0, 0, 0, 0, 8, 17, 1};                     // version, length 8, UDP, hop limit
    sol.resize(sol.size() + 32, 0);                               // addresses
    sol.insert(sol.end(), {0x02, 0x22, 0x02, 0x23, 0, 8, 0, 0});  // UDP 546 -> 547
    ASSERT_EQ(b.sw->traps().set(4, 100, true), 0);
    b.sw->rx_port(ACC, sol);
    EXPECT_TRUE(b.module.empty()) << "the DHCPv4 trap does not take DHCPv6";
    EXPECT_FALSE(b.take().empty());
    ASSERT_EQ(b.sw->traps().set(6, 100, true), 0);
    b.sw->rx_port(ACC, sol);
    EXPECT_EQ(b.module.size(), 1u);
}

TEST(SimSwitch, SourceGuardOnAccessPorts)
{
    box b;
    auto install = [&](std::uint32_t ifindex, std::uint16_t vid, const std::uint8_t *mac, std::uint32_t ip,
                       std::uint32_t action) {
        hal_msg_dhcp_ip_source_s r{ifindex, vid, {}, ip, action};
        std::copy(mac, mac + 6, r.mac);
        return b.sw->guard().apply(r);
    };
    ASSERT_EQ(install(SIM_GUARD_ALL_PORTS, 100, BCAST, 0, 0), 0);
    ASSERT_EQ(install(ONU2, 100, MAC_C, 0x0a000007, 0), 0);
    b.sw->rx_port(ONU2, frame(MAC_A, MAC_B, {}, 0x0a000001));
    EXPECT_EQ(b.sw->macs().lookup(100, MAC_B), nullptr) << "a refused source is not learnt";
    struct {
        const char *what;
        std::uint32_t port;
        bytes f;
        bool passes;
    } cases[] = {
        {"bound client", ONU2, frame(MAC_A, MAC_C, {}, 0x0a000007), true},
        {"bound client, other address", ONU2, frame(MAC_A, MAC_C, {}, 0x0a000008), false},
        {"address of another client", ONU2, frame(MAC_A, MAC_B, {}, 0x0a000007), false},
        {"bound MAC and address on another ONU", ONU1, frame(MAC_A, MAC_C, {{0x8100, 10}}, 0x0a000007),
         false},
        {"access Ethernet port", ACC, frame(MAC_A, MAC_B, {}, 0x0a000009), false},
        {"uplink is not guarded", UP, frame(MAC_A, MAC_B, {}, 0x0a000009), true},
        {"DHCP from an unbound client still gets through", ONU2, dhcp(BCAST, MAC_B, {}), true},
        {"VLAN 200 is not guarded", ONU1, frame(MAC_A, MAC_B, {}, 0x0a000009), true},
    };
    for (auto &c : cases) {
        std::uint64_t drops = b.m.port(c.port)->cnt.rx_drop_guard;
        b.sw->rx_port(c.port, c.f);
        EXPECT_EQ(b.m.port(c.port)->cnt.rx_drop_guard, drops + (c.passes ? 0 : 1)) << c.what;
        EXPECT_EQ(!b.take().empty(), c.passes) << c.what;
    }
}

TEST(SimSwitch, ModuleFramesLeaveWithThePortsTagging)
{
    box b;
    b.sw->rx_port(ACC, frame(BCAST, MAC_A, {}));  // learn A behind ge1/1/2
    b.take();
    b.tapped.clear();
    bytes tagged100 = frame(MAC_A, MAC_B, {{0x8100, 100}});
    bytes plain = frame(MAC_A, MAC_B, {});
    auto send = [&](std::uint32_t ifindex, std::uint16_t vid, const bytes &f, std::uint32_t src_if = 0) {
        hal_msg_pkt_t p{};
        p.ifindex = ifindex;
        p.fwd_info.vid = vid;
        p.src_if = src_if;
        p.len = static_cast<std::uint16_t>(f.size());
        p.data = f.data();
        return b.sw->from_module(p);
    };

    EXPECT_EQ(send(ONU1, 100, tagged100), 0);
    EXPECT_EQ(b.take()["onu1"], frame(MAC_A, MAC_B, {{0x8100, 10}})) << "retagged with the user VLAN";
    EXPECT_EQ(send(ONU1, 0, tagged100), 0);
    EXPECT_EQ(b.take()["onu1"], frame(MAC_A, MAC_B, {{0x8100, 10}})) << "VLAN 0: switched in the frame's VLAN";
    EXPECT_EQ(send(ONU1, 0, plain), 0);
    EXPECT_EQ(b.take()["onu1"], plain) << "VLAN 0, untagged: exactly as given";
    EXPECT_EQ(send(UP, 200, plain), 0);
    EXPECT_EQ(b.take()["up"], frame(MAC_A, MAC_B, {{0x8100, 200}}));
    EXPECT_EQ(send(b.m.servports[2].ifindex, 200, tagged100), 0);
    EXPECT_EQ(b.take()["onu1"], plain) << "a service port: its ONU, untagged flow";
    EXPECT_EQ(send(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1), 100, plain), 0);
    auto t = b.take();
    ASSERT_EQ(t.size(), 1u) << "one member of the trunk";
    EXPECT_EQ(t.begin()->second, tagged100);
    EXPECT_EQ(send(PON, 100, plain), 0);
    t = b.take();
    EXPECT_EQ(t.size(), 2u) << "both ONUs of the PON port";

    // To every member of the VLAN but the client's own port; not to the kernel.
    EXPECT_EQ(send(0xffffffffu, 100, tagged100, ACC), 0);
    t = b.take();
    EXPECT_EQ(t.count("acc"), 0u);
    EXPECT_EQ(t.count("up"), 1u);
    EXPECT_EQ(t.count("onu1"), 1u);
    EXPECT_EQ(t.count("onu2"), 1u);
    EXPECT_TRUE(b.tapped.empty());

    struct {
        const char *what;
        std::uint32_t ifindex;
        std::uint16_t vid;
        bytes f;
        int rc;
    } bad[] = {
        {"everywhere, but no VLAN", 0xffffffffu, 0, plain, TAVO_PARAM},
        {"VLAN 4095", UP, 4095, plain, TAVO_PARAM},
        {"shorter than an Ethernet header", UP, 0, bytes(13, 1), TAVO_PARAM},
        {"unknown port", 0x12109000, 100, plain, TAVO_PORT},
        {"index that means nothing", 0x7fffffff, 100, plain, TAVO_PORT},
    };
    for (auto &c : bad) {
        EXPECT_EQ(send(c.ifindex, c.vid, c.f), c.rc) << c.what;
        EXPECT_TRUE(b.take().empty()) << c.what;
    }
    EXPECT_EQ(b.sw->stats().mod_bad, 3u);
    EXPECT_EQ(b.sw->stats().mod_unknown_port, 2u);

    // Not a member, or down: nothing sent, counted on the port.
    EXPECT_EQ(send(ACC, 200, plain), 0);
    EXPECT_EQ(b.m.port(ACC)->cnt.tx_drop, 1u);
    b.m.port(ONU2)->online = false;
    EXPECT_EQ(send(ONU2, 100, plain), 0);
    EXPECT_TRUE(b.take().empty());
}

TEST(SimSwitch, DeviceEventsForgetWhatIsGone)
{
    box b;
    b.sw->rx_port(ACC, frame(BCAST, MAC_A, {}));
    b.sw->rx_port(UP, frame(BCAST, MAC_B, {{0x8100, 200}}));
    b.sw->traps().set(4, 200, true);
    hal_msg_dhcp_ip_source_s on{SIM_GUARD_ALL_PORTS, 200, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0, 0};
    b.sw->guard().apply(on);

    devmgr_msg_t down{};
    down.type = DEVMGR_IF_STATUS;
    down.ifm.ifindex = ACC;
    b.m.port(ACC)->up = false;
    b.sw->on_event(down);
    EXPECT_EQ(b.sw->macs().lookup(100, MAC_A), nullptr);
    EXPECT_NE(b.sw->macs().lookup(200, MAC_B), nullptr);

    devmgr_msg_t destroy{};
    destroy.type = DEVMGR_VLAN_DESTROY;
    uvlan_bitmap_set(destroy.vlan.uvlan, 200);
    b.sw->on_event(destroy);
    EXPECT_EQ(b.sw->macs().lookup(200, MAC_B), nullptr);
    EXPECT_FALSE(b.sw->traps().on(4, 200));
    EXPECT_FALSE(b.sw->guard().vlan_on(200));

    b.sw->rx_port(UP, frame(BCAST, MAC_C, {}));
    b.clock += 300001;
    b.sw->tick();
    EXPECT_EQ(b.sw->macs().size(), 0u) << "aged out";
}

} // namespace
