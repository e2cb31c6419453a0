// The switching pipeline against recorded I/O: classification and egress
// tagging, learning and flooding, drops, the DHCP trap and what it tells the
// module, the IP source guard, frames sent by the module, device events.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "devlib/ifindex.h"
#include "platform/errcode.h"
#include "sim/sim_switch.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using tags_t = std::vector<std::pair<std::uint16_t, std::uint16_t>>;
using outs_t = std::map<std::string, bytes>;

constexpr std::uint32_t UP = 0x12101000;    // ge1/1/1: pvid 100, tagged 200
constexpr std::uint32_t ACC = 0x12102000;   // ge1/1/2: access port, pvid 100
constexpr std::uint32_t M3 = 0x12103000;    // ge1/1/3 and ge1/1/4: trunk1, tagged 100
constexpr std::uint32_t M4 = 0x12104000;
constexpr std::uint32_t PON = 0x4a201000;   // gpon1/2/1
constexpr std::uint32_t ONU1 = 0x52201001;  // servport1: user VLAN 10 tagged -> 100; servport2: untagged -> 200
constexpr std::uint32_t ONU2 = 0x52201002;  // servport3: untagged -> 100
const std::uint32_t TRUNK = st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1);

const std::uint8_t MAC_A[6] = {2, 0, 0, 0, 0, 0x0a}, MAC_B[6] = {2, 0, 0, 0, 0, 0x0b}, MAC_C[6] = {2, 0, 0, 0, 0, 0x0c};
const std::uint8_t BCAST[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, VLANIF_MAC[6] = {2, 0, 0x5e, 0, 0, 1};

std::uint8_t hi(std::uint16_t v) { return std::uint8_t(v >> 8); }
std::uint8_t lo(std::uint16_t v) { return std::uint8_t(v); }

// IPv4/UDP from ip_src; DHCP when the ports say so.
bytes frame(const std::uint8_t *dst, const std::uint8_t *src, tags_t tags, std::uint32_t ip_src = 0x0a000007,
            std::uint16_t sport = 1000, std::uint16_t dport = 2000)
{
    bytes b(dst, dst + 6);                                                     // destination
    b.insert(b.end(), src, src + 6);                                           // source
    for (auto [tpid, tci] : tags) b.insert(b.end(), {hi(tpid), lo(tpid), hi(tci), lo(tci)});
    b.insert(b.end(), {0x08, 0x00, 0x45, 0, 0, 48, 0, 0, 0, 0, 64, 17, 0, 0});  // IPv4, length 48, UDP
    for (int s = 24; s >= 0; s -= 8) b.push_back(std::uint8_t(ip_src >> s));    // source address
    b.insert(b.end(), {255, 255, 255, 255});                                   // destination address
    b.insert(b.end(), {hi(sport), lo(sport), hi(dport), lo(dport), 0, 28, 0, 0});  // UDP
    b.resize(b.size() + 20, 0xab);                                             // payload
    return b;
}

bytes dhcp(const std::uint8_t *dst, const std::uint8_t *src, tags_t tags) { return frame(dst, src, tags, 0, 68, 67); }

struct box {
    sim_model m;
    outs_t sent;  // by Linux interface; both trunk members count as "trunk1"
    std::vector<bytes> tapped;
    std::vector<std::pair<hal_msg_pkt_t, bytes>> module;
    bool module_up = true;
    std::uint64_t clock = 1000;
    std::unique_ptr<sim_switch> sw;

    box()
    {
        for (int v : {100, 200, 300}) m.vlans.set(v);
        const sim_role A = SIM_ROLE_ACCESS;
        const int GE = PORT_TYPE_GE, GO = PORT_TYPE_GONU;
        m.ports[UP] = {.ifindex = UP, .name = "ge1/1/1", .type = GE, .linux_if = "up", .pvid = 100};
        m.ports[ACC] = {.ifindex = ACC, .name = "ge1/1/2", .type = GE, .linux_if = "acc", .role = A, .pvid = 100};
        m.ports[M3] = {.ifindex = M3, .name = "ge1/1/3", .type = GE, .linux_if = "m3", .trunk = 1};
        m.ports[M4] = {.ifindex = M4, .name = "ge1/1/4", .type = GE, .linux_if = "m4", .trunk = 1};
        m.ports[TRUNK] = {.ifindex = TRUNK, .name = "trunk1", .type = PORT_TYPE_TRUNK, .members = {M3, M4}};
        m.ports[PON] = {.ifindex = PON, .name = "gpon1/2/1", .type = PORT_TYPE_GPON};
        m.ports[ONU1] = {.ifindex = ONU1, .name = "gonu1/2/1:1", .type = GO, .linux_if = "onu1", .role = A, .pon = PON};
        m.ports[ONU2] = {.ifindex = ONU2, .name = "gonu1/2/1:2", .type = GO, .linux_if = "onu2", .role = A, .pon = PON};
        m.ports[UP].tagged.set(200);
        m.ports[TRUNK].tagged.set(100);
        auto sp = [](std::uint32_t id) { return st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, id); };
        m.servports[1] = sim_servport{1, sp(1), ONU1, 100, 1100, 10, true, 1};
        m.servports[2] = sim_servport{2, sp(2), ONU1, 200, 1200, 20, false, 0};
        m.servports[3] = sim_servport{3, sp(3), ONU2, 100, 1300, 100, false, 1};
        m.vlanifs[100].vid = 100;
        std::copy(VLANIF_MAC, VLANIF_MAC + 6, m.vlanifs[100].mac);
        sim_switch_io io;
        io.tx_port = [this](const sim_port &p, bytes_view f) {
            std::string name = p.trunk ? "trunk1" : p.linux_if;
            EXPECT_EQ(sent.count(name), 0u) << "two copies on " << name;
            sent[name] = bytes(f.begin(), f.end());
            return true;
        };
        io.tx_vlanif = [this](const sim_vlanif &, bytes_view f) {
            tapped.emplace_back(f.begin(), f.end());
            return true;
        };
        io.to_module = [this](const hal_msg_pkt_t &p, const frame_info &) {
            if (module_up) module.emplace_back(p, bytes(p.data, p.data + p.len));
            return module_up;
        };
        io.now_ms = [this] { return clock; };
        sw = std::make_unique<sim_switch>(m, io);
    }

    outs_t take() { return std::exchange(sent, {}); }
};

TEST(SimSwitch, ClassifiesAndTagsPerPort)
{
    // A frame from MAC_A to MAC_B, learnt behind `to` in `vid`: where it leaves and with which tags.
    struct { const char *what; std::uint32_t from; tags_t in; std::uint16_t vid; std::uint32_t to; const char *out;
             tags_t tags_out; } cases[] = {
        {"untagged joins the port VLAN, leaves untagged on a PVID", ACC, {}, 100, UP, "up", {}},
        {"priority-tagged counts as untagged", ACC, {{0x8100, 0xe000}}, 100, UP, "up", {}},
        {"tagged with the port VLAN", UP, {{0x8100, 100}}, 100, ACC, "acc", {}},
        {"tagged member to an untagged service port", UP, {{0x8100, 200}}, 200, ONU1, "onu1", {}},
        {"user VLAN 10 of ONU 1 into VLAN 100", ONU1, {{0x8100, 10}}, 100, UP, "up", {}},
        {"ONU 1 untagged into VLAN 200, tagged member", ONU1, {}, 200, UP, "up", {{0x8100, 200}}},
        {"priority-tagged from an ONU is untagged", ONU1, {{0x8100, 0x2000}}, 200, UP, "up", {{0x8100, 200}}},
        {"back to the user VLAN", ONU2, {}, 100, ONU1, "onu1", {{0x8100, 10}}},
        {"one trunk member, tagged", ONU2, {}, 100, TRUNK, "trunk1", {{0x8100, 100}}},
        {"a trunk member classifies as its trunk", M3, {{0x8100, 100}}, 100, ONU2, "onu2", {}},
        {"QinQ: the outer tag classifies and goes", UP, {{0x88a8, 200}, {0x8100, 55}}, 200, ONU1, "onu1",
         {{0x8100, 55}}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        box b;
        b.sw->macs().learn(c.vid, MAC_B, c.to, c.to, b.clock);
        b.sw->rx_port(c.from, frame(MAC_B, MAC_A, c.in));
        EXPECT_EQ(b.take(), (outs_t{{c.out, frame(MAC_B, MAC_A, c.tags_out)}}));
        const sim_mac_entry *e = b.sw->macs().lookup(c.vid, MAC_A);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->bport, c.from == M3 ? TRUNK : c.from);
    }
}

TEST(SimSwitch, FloodsLearnsAndFilters)
{
    box b;
    bytes from_acc = frame(MAC_B, MAC_A, {});
    b.sw->rx_port(ACC, from_acc);
    EXPECT_EQ(b.take(), (outs_t{{"up", from_acc},
                                {"onu2", from_acc},
                                {"onu1", frame(MAC_B, MAC_A, {{0x8100, 10}})},
                                {"trunk1", frame(MAC_B, MAC_A, {{0x8100, 100}})}}))
        << "every member of VLAN 100 but the sender, each with its tagging";
    EXPECT_EQ(b.tapped.size(), 1u) << "the VLAN interface hears the flood";

    b.sw->rx_port(M4, frame(MAC_A, MAC_C, {{0x8100, 100}}));
    EXPECT_EQ(b.take(), (outs_t{{"acc", frame(MAC_A, MAC_C, {})}})) << "the answer knows its way";
    b.sw->rx_port(M3, frame(MAC_C, MAC_A, {{0x8100, 100}}));
    EXPECT_TRUE(b.take().empty()) << "not back where it came from";
    EXPECT_EQ(b.sw->stats().filtered, 1u);
    b.sw->rx_port(ONU2, frame(VLANIF_MAC, MAC_B, {}));
    EXPECT_TRUE(b.take().empty());
    EXPECT_EQ(b.tapped.size(), 2u) << "to the VLAN interface's MAC: its tap only";
}

TEST(SimSwitch, IngressDropsAreCountedPerReason)
{
    auto f = [](tags_t tags) { return frame(MAC_B, MAC_A, tags); };
    bytes jumbo = f({});
    jumbo.resize(1601, 0);
    using P = sim_port_counters;
    using M = sim_model &;
    struct { const char *what; void (*change)(M); std::uint32_t port; bytes f; std::uint64_t P::*counter; } cases[] = {
        {"VLAN the port is not in", nullptr, ACC, f({{0x8100, 300}}), &P::rx_drop_vlan},
        {"VLAN that does not exist", [](M m) { m.vlans.reset(200); }, UP, f({{0x8100, 200}}), &P::rx_drop_vlan},
        {"user VLAN without service port", nullptr, ONU2, f({{0x8100, 33}}), &P::rx_drop_vlan},
        {"the untagged flow's user VLAN as a tag", nullptr, ONU1, f({{0x8100, 20}}), &P::rx_drop_vlan},
        {"untagged without a PVID", [](M m) { m.ports[UP].pvid = 0; }, UP, f({}), &P::rx_drop_vlan},
        {"three tags", nullptr, UP, f({{0x88a8, 1}, {0x8100, 2}, {0x8100, 3}}), &P::rx_drop_bad},
        {"runt", nullptr, UP, bytes(10, 0), &P::rx_drop_bad},
        {"jumbo", nullptr, UP, jumbo, &P::rx_drop_big},
        {"port down", [](M m) { m.ports[UP].up = false; }, UP, f({}), &P::rx_drop_down},
        {"port admin down", [](M m) { m.ports[UP].admin = false; }, UP, f({}), &P::rx_drop_down},
        {"trunk down", [](M m) { m.ports[TRUNK].admin = false; }, M3, f({{0x8100, 100}}), &P::rx_drop_down},
        {"ONU offline", [](M m) { m.ports[ONU2].online = false; }, ONU2, f({}), &P::rx_drop_down},
        {"PON port down", [](M m) { m.ports[PON].up = false; }, ONU2, f({}), &P::rx_drop_down},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        box b;
        if (c.change) c.change(b.m);
        b.sw->rx_port(c.port, c.f);
        EXPECT_EQ(b.m.ports[c.port].cnt.*c.counter, 1u);
        EXPECT_TRUE(b.take().empty());
        EXPECT_EQ(b.sw->macs().size(), 0u);
    }
    box b;
    b.sw->rx_port(0x12109000, f({}));
    EXPECT_EQ(b.sw->stats().rx_unknown_port, 1u);
}

TEST(SimSwitch, TrapHandsTheModuleWhereTheFrameCameFrom)
{
    bytes sol = {0x33, 0x33, 0, 1, 0, 2, 0x02, 0, 0, 0, 0, 0x0a, 0x86, 0xdd,  // Ethernet, IPv6
                 0x60, 0, 0, 0, 0, 8, 17, 1};                                 // length 8, UDP
    sol.resize(sol.size() + 32, 0);                                           // addresses
    sol.insert(sol.end(), {0x02, 0x22, 0x02, 0x23, 0, 8, 0, 0});              // UDP 546 -> 547
    bytes sol100 = sol;
    sol100.insert(sol100.begin() + 12, {0x81, 0x00, 0, 100});
    using fields = std::tuple<std::uint32_t, std::uint32_t, std::uint16_t, std::uint32_t, std::uint16_t,
                              std::uint16_t, std::int32_t>;  // ifindex, tid, vid, srv_if, lltag, uservlan, action
    const std::uint32_t SP1 = st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 1);
    const std::uint32_t SP3 = st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 3);
    // data: as delivered, empty when switched instead; trap: 4 or 6, that trap on in VLAN 100.
    struct { const char *what; int trap; std::uint32_t from; bytes f, data; fields want; } cases[] = {
        {"ONU flow", 4, ONU1, dhcp(BCAST, MAC_A, {{0x8100, 10}}), dhcp(BCAST, MAC_A, {{0x8100, 100}}),
         {ONU1, 0, 100, SP1, 1100, 10, 1}},
        {"trunk member, its tags replaced", 4, M3, dhcp(BCAST, MAC_A, {{0x88a8, 100}, {0x8100, 7}}),
         dhcp(BCAST, MAC_A, {{0x8100, 100}}), {M3, 1, 100, 0, 0, 0, 0}},
        {"to the VLAN interface, no trap", 0, ONU2, dhcp(VLANIF_MAC, MAC_A, {}),
         dhcp(VLANIF_MAC, MAC_A, {{0x8100, 100}}), {ONU2, 0, 100, SP3, 1300, 100, 1}},
        {"untrapped VLAN", 4, ONU1, dhcp(BCAST, MAC_A, {}), {}, {}},
        {"DHCPv6, DHCPv4 trap", 4, ACC, sol, {}, {}},
        {"DHCPv6, DHCPv6 trap", 6, ACC, sol, sol100, {ACC, 0, 100, 0, 0, 0, 0}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        box b;
        ASSERT_EQ(c.trap ? b.sw->traps().set(c.trap, 100, true) : 0, 0);
        b.sw->rx_port(c.from, c.f);
        EXPECT_EQ(b.take().empty(), !c.data.empty()) << "trapped frames are the module's to forward";
        if (c.data.empty()) continue;
        EXPECT_TRUE(b.tapped.empty());
        ASSERT_EQ(b.module.size(), 1u);
        const hal_msg_pkt_t &p = b.module[0].first;
        const hal_fwd_info_t &w = p.fwd_info;
        EXPECT_EQ(fields(p.ifindex, w.tid, w.vid, w.srv_if, w.srv_info.lltag, w.srv_info.uservlan,
                         w.srv_info.vlan_action), c.want);
        EXPECT_EQ(b.module[0].second, c.data) << "one tag: the VLAN it was classified into";
        EXPECT_EQ(b.m.ports[c.from].cnt.rx_trapped, 1u);
        EXPECT_NE(b.sw->macs().lookup(100, MAC_A), nullptr) << "learnt, for the module's MAC port lookups";
        b.module_up = false;
        b.sw->rx_port(c.from, c.f);
        if (c.trap) {
            EXPECT_EQ(b.sw->stats().trap_undelivered, 1u) << "no module: a trap asked for holds the frame";
            EXPECT_TRUE(b.take().empty());
        } else {
            EXPECT_EQ(b.sw->stats().trap_undelivered, 0u);
            EXPECT_EQ(b.tapped.size(), 1u) << "no module: DHCP for a VLAN interface is routed like any frame";
        }
    }
}

TEST(SimSwitch, SourceGuardOnAccessPorts)
{
    struct { const char *what; std::uint32_t port; bytes f; bool passes; } cases[] = {
        {"bound client", ONU2, frame(MAC_A, MAC_C, {}, 0x0a000007), true},
        {"bound MAC, another address", ONU2, frame(MAC_A, MAC_C, {}, 0x0a000008), false},
        {"bound MAC and address on another ONU", ONU1, frame(MAC_A, MAC_C, {{0x8100, 10}}, 0x0a000007), false},
        {"access Ethernet port", ACC, frame(MAC_A, MAC_B, {}, 0x0a000009), false},
        {"uplink is not guarded", UP, frame(MAC_A, MAC_B, {}, 0x0a000009), true},
        {"DHCP from an unbound client", ONU1, dhcp(BCAST, MAC_B, {{0x8100, 10}}), true},
        {"VLAN 200 is not guarded", ONU1, frame(MAC_A, MAC_B, {}, 0x0a000009), true},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        box b;
        ASSERT_EQ(b.sw->guard().apply({SIM_GUARD_ALL_PORTS, 100, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0, 0}), 0);
        ASSERT_EQ(b.sw->guard().apply({ONU2, 100, {0x02, 0, 0, 0, 0, 0x0c}, 0x0a000007, 0}), 0);
        b.sw->rx_port(c.port, c.f);
        EXPECT_EQ(b.m.ports[c.port].cnt.rx_drop_guard, c.passes ? 0u : 1u);
        EXPECT_EQ(!b.take().empty(), c.passes);
        EXPECT_EQ(b.sw->macs().size(), c.passes ? 1u : 0u) << "a refused source is not learnt";
    }
}

TEST(SimSwitch, ModuleFramesLeaveWithThePortsTagging)
{
    const bytes t100 = frame(MAC_A, MAC_B, {{0x8100, 100}}), plain = frame(MAC_A, MAC_B, {});
    const bytes t10 = frame(MAC_A, MAC_B, {{0x8100, 10}});
    const std::uint32_t ALL = 0xffffffffu, SP2 = st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 2);
    struct {
        const char *what; std::uint32_t ifindex; std::uint16_t vid; bytes f; std::uint32_t src_if; int rc; outs_t outs;
    } cases[] = {
        {"retagged with the user VLAN", ONU1, 100, t100, 0, 0, {{"onu1", t10}}},
        {"addressed by the user VLAN", ONU1, 10, plain, 0, 0, {{"onu1", t10}}},
        {"VLAN 0: switched in the frame's VLAN", ONU1, 0, t100, 0, 0, {{"onu1", t10}}},
        {"VLAN 0, untagged: as given", ONU1, 0, plain, 0, 0, {{"onu1", plain}}},
        {"a service port: its ONU, its flow", SP2, 200, t100, 0, 0, {{"onu1", plain}}},
        {"a trunk: one member", TRUNK, 100, plain, 0, 0, {{"trunk1", t100}}},
        {"a PON port: its ONUs in the VLAN", PON, 100, plain, 0, 0, {{"onu1", t10}, {"onu2", plain}}},
        {"everywhere but the client's port, not the kernel", ALL, 100, t100, ACC, 0,
         {{"up", plain}, {"onu1", t10}, {"onu2", plain}, {"trunk1", t100}}},
        {"not a member", ACC, 200, plain, 0, 0, {}},
        {"everywhere, but no VLAN", ALL, 0, plain, 0, TAVO_PARAM, {}},
        {"VLAN 4095", UP, 4095, plain, 0, TAVO_PARAM, {}},
        {"shorter than an Ethernet header", UP, 0, bytes(13, 1), 0, TAVO_PARAM, {}},
        {"unknown port", 0x12109000, 100, plain, 0, TAVO_PORT, {}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        box b;
        hal_msg_pkt_t p{};
        p.ifindex = c.ifindex;
        p.fwd_info.vid = c.vid;
        p.src_if = c.src_if;
        p.len = static_cast<std::uint16_t>(c.f.size());
        p.data = c.f.data();
        EXPECT_EQ(b.sw->from_module(p), c.rc);
        EXPECT_EQ(b.take(), c.outs);
        EXPECT_TRUE(b.tapped.empty());
    }
}

TEST(SimSwitch, DeviceEventsForgetWhatIsGone)
{
    box b;
    for (auto [port, f] : {std::pair{ACC, frame(BCAST, MAC_A, {})}, {UP, frame(BCAST, MAC_B, {{0x8100, 200}})},
                           {M4, frame(BCAST, MAC_C, {{0x8100, 100}})}}) {
        b.sw->rx_port(port, f);
        b.take();
    }
    b.sw->traps().set(4, 200, true);
    b.sw->guard().apply({SIM_GUARD_ALL_PORTS, 200, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0, 0});

    devmgr_msg_t down{};
    down.type = DEVMGR_IF_STATUS;
    for (std::uint32_t ix : {ACC, M4}) {
        b.m.ports[ix].up = false;
        down.ifm.ifindex = ix;
        b.sw->on_event(down);
    }
    EXPECT_EQ(b.sw->macs().lookup(100, MAC_A), nullptr);
    EXPECT_EQ(b.sw->macs().lookup(100, MAC_C), nullptr) << "learnt through the trunk member that went down";
    EXPECT_NE(b.sw->macs().lookup(200, MAC_B), nullptr);

    devmgr_msg_t destroy{};
    destroy.type = DEVMGR_VLAN_DESTROY;
    uvlan_bitmap_set(destroy.vlan.uvlan, 200);
    b.sw->on_event(destroy);
    EXPECT_EQ(b.sw->macs().lookup(200, MAC_B), nullptr);
    EXPECT_FALSE(b.sw->traps().on(4, 200));
    EXPECT_FALSE(b.sw->guard().vlan_on(200));

    b.sw->rx_port(UP, frame(BCAST, MAC_C, {}));
    b.clock += 300000;
    b.sw->tick();
    EXPECT_EQ(b.sw->macs().size(), 0u) << "aged out";
}

} // namespace
