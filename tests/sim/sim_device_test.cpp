// Device events and the replay: a client that saw every notification since
// the start and a client that connects at the end hold the same state.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "devlib/devmgr_proto.h"
#include "devlib/ifindex.h"
#include "sim/sim_device.h"
#include "sim/sim_topology.h"

namespace {

// What a client keeps, by the client's rules: a port VLAN id empties the
// tagged and untagged sets, a destroyed VLAN leaves every port, a deleted
// port is forgotten.
struct client_view {
    struct port {
        std::string name, sn;
        std::uint32_t status = 0, admin = 0, trunk = 0, online = 0;
        std::uint16_t pvid = 0;
        std::set<int> sets[2];  // tagged, untagged
        bool operator==(const port &) const = default;
    };
    std::string host;
    std::set<int> vlans;
    std::map<std::uint32_t, port> ports;
    bool operator==(const client_view &) const = default;

    static std::set<int> vids(const std::uint8_t *bm)
    {
        std::set<int> s;
        for (int v = st_get_min_vlan_in_bitmap(bm); v >= 0; v = st_get_next_vlan_in_bitmap(bm, v)) s.insert(v);
        return s;
    }

    void apply(const devmgr_msg_t &m)
    {
        port &p = ports[m.ifm.ifindex];  // the messages about a port carry it here, or:
        port &t = ports[m.trunk.ifindex], &o = ports[m.onu.ifindex], &v = ports[m.vlan_port.ifindex];
        switch (m.type) {
        case DEVMGR_HOST: host = m.hostname; break;
        case DEVMGR_IF_NEW: p.name = m.ifm.name; p.sn = m.ifm.onu_sn; [[fallthrough]];
        case DEVMGR_IF_STATUS:
        case DEVMGR_IF_ADMIN: p.status = m.ifm.status; p.admin = m.ifm.admin; break;
        case DEVMGR_IF_DEL: ports.erase(m.ifm.ifindex); break;
        case DEVMGR_TRUNK_SET: t.trunk = m.trunk.trunk_id; break;
        case DEVMGR_ONU_STATUS: o.online = m.onu.status; break;
        case DEVMGR_VLAN_CREATE: for (int id : vids(m.vlan.uvlan)) vlans.insert(id); break;
        case DEVMGR_VLAN_DESTROY:
            for (int id : vids(m.vlan.uvlan)) {
                vlans.erase(id);
                for (auto &[ix, q] : ports) q.sets[0].erase(id), q.sets[1].erase(id);
            }
            break;
        case DEVMGR_VLAN_PORT:
            if (m.vlan_port.op == UMSG_VLAN_PORT_PVID) {
                v.pvid = m.vlan_port.pvid;
                v.sets[0].clear();
                v.sets[1].clear();
            }
            for (int id : vids(m.vlan_port.uvlan)) {
                const bool add = m.vlan_port.op == UMSG_VLAN_PORT_ADD, untagged = m.vlan_port.tag;
                v.sets[untagged].erase(id);
                if (add) v.sets[!untagged].erase(id), v.sets[untagged].insert(id);
            }
            break;
        }
        ports.erase(0);  // the unused fields are zero
    }

    // A replay, message by message.
    void apply_stream(const std::vector<std::uint8_t> &stream)
    {
        bytes_view rest(stream);
        std::vector<std::uint16_t> types;
        while (!rest.empty()) {
            devmgr_hdr_t h{};
            std::size_t whole = 0;
            ASSERT_EQ(devmgr_frame(rest, h, whole), DEVMGR_FRAME_OK);
            devmgr_msg_t m{};
            ASSERT_EQ(devmgr_decode(h, rest.subspan(DEVMGR_HDR_LEN, h.length), m), DEVMGR_DEC_OK);
            apply(m);
            types.push_back(m.type);
            rest = rest.subspan(whole);
        }
        ASSERT_GE(types.size(), 2u);
        EXPECT_EQ(types.front(), DEVMGR_REPLAY_START);
        EXPECT_EQ(types.back(), DEVMGR_REPLAY_END);
    }
};

sim_model lab()
{
    char path[] = "/tmp/sim_dev_XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << "[system]\nmac = 02:00:00:00:00:01\nhostname = olt-a\nvlans = 1,100,200\n"
                           "[port ge1/1/1]\nlinux = u\npvid = 100\ntagged = 200\n"
                           "[port ge1/1/2]\n[port ge1/1/3]\n[trunk 1]\nmembers = ge1/1/2, ge1/1/3\nuntagged = 200\n"
                           "[port gpon1/2/1]\ntagged = 100\n[onu gpon1/2/1 1]\nsn = ABCD0001\n"
                           "[onu gpon1/2/1 2]\nsn = ABCD0002\nstatus = offline\n"
                           "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\n";
    sim_model m;
    std::string err;
    EXPECT_TRUE(sim_topology_load(path, m, err)) << err;
    unlink(path);
    return m;
}

TEST(SimDevice, LateClientEndsEqualToOneThatSawEverything)
{
    sim_model m = lab();
    sim_device dev(m);
    client_view early;
    early.apply_stream(dev.replay());
    EXPECT_EQ(early.host, "olt-a");
    EXPECT_EQ(early.vlans, (std::set<int>{1, 100, 200}));
    EXPECT_EQ(early.ports.at(0x12101000).pvid, 100);
    EXPECT_EQ(early.ports.at(0x12101000).sets[0], std::set<int>{200}) << "the PVID came before the set it empties";
    EXPECT_EQ(early.ports.at(0x12102000).trunk, 1u);
    EXPECT_EQ(early.ports.at(0x52201001).sn, "ABCD0001");
    EXPECT_EQ(early.ports.at(0x52201001).online, 1u);
    EXPECT_EQ(early.ports.at(0x52201002).status, 0u) << "an offline ONU is not running";
    EXPECT_EQ(early.ports.count(st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 1)), 0u) << "not announced";

    // Refused events must neither change the model nor send anything: either
    // would set the two clients apart.
    dev.add_listener([&](const devmgr_msg_t &msg) { early.apply(msg); });
    vlan_bits v100, v200, v300, v999;
    v100.set(100), v200.set(200), v300.set(300), v999.set(999);
    struct { const char *what; std::string err; bool ok; } steps[] = {
        {"a member's VLANs are its trunk's", dev.port_pvid("ge1/1/2", 100), false},
        {"port down", dev.port_status("ge1/1/1", false), true},
        {"PON port admin down", dev.port_admin("gpon1/2/1", false), true},
        {"VLAN created", dev.vlan_create(v300), true},
        {"port removed", dev.port_remove("ge1/1/1"), true},
        {"port back, without its VLANs", dev.port_add("ge1/1/1", "", ""), true},
        {"untagged member", dev.port_vlan("ge1/1/1", v300, true, false), true},
        {"PVID", dev.port_pvid("gpon1/2/1", 300), true},
        {"tagged member", dev.port_vlan("gpon1/2/1", v200, true, true), true},
        {"trunk removed", dev.port_remove("trunk1"), true},
        {"ONU online", dev.onu_status("gonu1/2/1:2", true), true},
        {"ONU offline", dev.onu_status("gonu1/2/1:1", false), true},
        {"new ONU", dev.port_add("gonu1/2/1:7", "x7", "NEW00007"), true},
        {"host name", dev.set_hostname("olt-b"), true},
        {"VLAN destroyed", dev.vlan_destroy(v200), true},
        {"switchover", dev.slot_switchover(1, true), true},
        {"unknown port", dev.port_status("ge1/1/9", false), false},
        {"VLAN that does not exist", dev.port_vlan("ge1/1/1", v999, true, true), false},
        {"ONU VLANs are its service ports'", dev.port_vlan("gonu1/2/1:1", v100, true, true), false},
        {"port that exists", dev.port_add("ge1/1/1", "", ""), false},
        {"ONU without serial number", dev.port_add("gonu1/2/1:9", "", ""), false},
        {"ONU of a PON port not there", dev.port_add("gonu1/3/1:1", "", "S1"), false},
        {"not a physical port", dev.port_add("vlanif100", "", ""), false},
        {"Linux interface in use", dev.port_add("ge1/1/8", "u", ""), false},
        {"ONU status of an uplink", dev.onu_status("ge1/1/1", false), false},
        {"trunk that does not exist", dev.port_trunk("ge1/1/1", 9), false},
        {"VLAN created twice", dev.vlan_create(v100), false},
        {"VLAN destroyed that is not there", dev.vlan_destroy(v999), false},
        {"host name too long", dev.set_hostname(std::string(64, 'h')), false},
    };
    for (auto &s : steps) EXPECT_EQ(s.err.empty(), s.ok) << s.what << ": " << s.err;

    client_view late;
    late.apply_stream(dev.replay());
    EXPECT_EQ(late, early);
    EXPECT_EQ(late.host, "olt-b");
    EXPECT_EQ(late.ports.count(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1)), 0u);
    EXPECT_EQ(late.ports.at(0x12102000).trunk, 0u) << "released by its trunk";
    EXPECT_EQ(late.ports.at(0x52201007).sn, "NEW00007");
    EXPECT_EQ(late.ports.at(0x4a201000).pvid, 300);
    EXPECT_TRUE(late.ports.at(0x4a201000).sets[0].empty()) << "VLAN 200 destroyed";
    EXPECT_EQ(late.ports.at(0x12101000).pvid, 0);
    EXPECT_EQ(late.ports.at(0x12101000).sets[1], std::set<int>{300});
}

} // namespace
