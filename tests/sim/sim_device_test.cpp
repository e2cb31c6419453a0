// Device events and the replay: a client that saw every notification since
// the start and a client that connects at the end hold the same state.
#include <gtest/gtest.h>

#include <cstring>
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

// What a client keeps from the notifications, with the client's rules: a
// port VLAN id empties the tagged and untagged sets, a destroyed VLAN leaves
// every port, a deleted port is forgotten.
struct client_view {
    struct port {
        std::string name, sn;
        std::uint32_t status = 0, admin = 0, trunk = 0;
        std::uint16_t pvid = 0;
        std::set<int> tagged, untagged;
        bool operator==(const port &) const = default;
    };
    std::string host;
    std::set<int> vlans;
    std::map<std::uint32_t, port> ports;
    std::map<std::uint32_t, std::pair<int, std::string>> onus;
    int replays = 0;
    bool in_replay = false;

    static std::set<int> vids(const std::uint8_t *bm)
    {
        std::set<int> s;
        for (int v = st_get_min_vlan_in_bitmap(bm); v >= 0; v = st_get_next_vlan_in_bitmap(bm, v)) s.insert(v);
        return s;
    }

    void apply(const devmgr_msg_t &m)
    {
        switch (m.type) {
        case DEVMGR_REPLAY_START: in_replay = true; break;
        case DEVMGR_REPLAY_END: in_replay = false; ++replays; break;
        case DEVMGR_HOST: host = m.hostname; break;
        case DEVMGR_IF_NEW: {
            port &p = ports[m.ifm.ifindex];
            p.name = m.ifm.name;
            p.sn = m.ifm.onu_sn;
            p.status = m.ifm.status;
            p.admin = m.ifm.admin;
            break;
        }
        case DEVMGR_IF_DEL: ports.erase(m.ifm.ifindex); onus.erase(m.ifm.ifindex); break;
        case DEVMGR_IF_STATUS:
        case DEVMGR_IF_ADMIN:
            if (ports.count(m.ifm.ifindex)) {
                ports[m.ifm.ifindex].status = m.ifm.status;
                ports[m.ifm.ifindex].admin = m.ifm.admin;
            }
            break;
        case DEVMGR_TRUNK_SET: ports[m.trunk.ifindex].trunk = m.trunk.trunk_id; break;
        case DEVMGR_VLAN_CREATE:
            for (int v : vids(m.vlan.uvlan)) vlans.insert(v);
            break;
        case DEVMGR_VLAN_DESTROY:
            for (int v : vids(m.vlan.uvlan)) {
                vlans.erase(v);
                for (auto &[ix, p] : ports) {
                    p.tagged.erase(v);
                    p.untagged.erase(v);
                }
            }
            break;
        case DEVMGR_VLAN_PORT: {
            port &p = ports[m.vlan_port.ifindex];
            std::set<int> &set = m.vlan_port.tag ? p.untagged : p.tagged;
            std::set<int> &other = m.vlan_port.tag ? p.tagged : p.untagged;
            if (m.vlan_port.op == UMSG_VLAN_PORT_PVID) {
                p.pvid = m.vlan_port.pvid;
                p.tagged.clear();
                p.untagged.clear();
            }
            for (int v : vids(m.vlan_port.uvlan)) {
                if (m.vlan_port.op == UMSG_VLAN_PORT_ADD) {
                    set.insert(v);
                    other.erase(v);
                } else if (m.vlan_port.op == UMSG_VLAN_PORT_DEL) {
                    set.erase(v);
                }
            }
            break;
        }
        case DEVMGR_ONU_STATUS: onus[m.onu.ifindex] = {m.onu.status, m.onu.onu_sn}; break;
        default: break;
        }
    }

    // Decodes a framed byte stream (a replay) message by message.
    std::vector<std::uint16_t> apply_stream(const std::vector<std::uint8_t> &bytes)
    {
        std::vector<std::uint16_t> types;
        bytes_view rest(bytes);
        while (!rest.empty()) {
            devmgr_hdr_t h{};
            std::size_t whole = 0;
            EXPECT_EQ(devmgr_frame(rest, h, whole), DEVMGR_FRAME_OK);
            if (whole == 0 || whole > rest.size()) break;
            devmgr_msg_t m{};
            EXPECT_EQ(devmgr_decode(h, rest.subspan(DEVMGR_HDR_LEN, h.length), m), DEVMGR_DEC_OK);
            apply(m);
            types.push_back(m.type);
            rest = rest.subspan(whole);
        }
        return types;
    }

    bool operator==(const client_view &o) const
    {
        return host == o.host && vlans == o.vlans && ports == o.ports && onus == o.onus;
    }
};

class topo_model {
public:
    topo_model()
    {
        char tmpl[] = "/tmp/sim_dev_XXXXXX";
        int fd = mkstemp(tmpl);
        const char *text = "[system]\nmac = 02:00:00:00:00:01\nhostname = olt-a\nvlans = 1,100,200\n"
                           "[port ge1/1/1]\nlinux = u\npvid = 100\ntagged = 200\n"
                           "[port ge1/1/2]\n[port ge1/1/3]\n"
                           "[trunk 1]\nmembers = ge1/1/2, ge1/1/3\nuntagged = 200\n"
                           "[port gpon1/2/1]\ntagged = 100\n"
                           "[onu gpon1/2/1 1]\nsn = ABCD0001\n"
                           "[onu gpon1/2/1 2]\nsn = ABCD0002\nstatus = offline\n"
                           "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\n";
        (void)!write(fd, text, strlen(text));
        close(fd);
        std::string err;
        EXPECT_TRUE(sim_topology_load(tmpl, m, err)) << err;
        unlink(tmpl);
    }
    sim_model m;
};

TEST(SimDevice, ReplayFollowsTheDocumentedOrder)
{
    topo_model t;
    sim_device dev(t.m);
    client_view c;
    std::vector<std::uint16_t> types = c.apply_stream(dev.replay());
    std::vector<std::uint16_t> want = {
        DEVMGR_REPLAY_START, DEVMGR_HOST, DEVMGR_VLAN_CREATE,
        DEVMGR_IF_NEW, DEVMGR_IF_NEW, DEVMGR_IF_NEW, DEVMGR_IF_NEW,  // ge1/1/1-3, trunk1 (index order)
        DEVMGR_IF_NEW, DEVMGR_IF_NEW, DEVMGR_IF_NEW,                 // gpon1/2/1, its two ONUs
        DEVMGR_VLAN_PORT, DEVMGR_VLAN_PORT,                          // ge1/1/1: port VLAN id, tagged
        DEVMGR_TRUNK_SET, DEVMGR_TRUNK_SET,                          // the members
        DEVMGR_VLAN_PORT,                                            // trunk1 untagged
        DEVMGR_VLAN_PORT,                                            // gpon1/2/1 tagged
        DEVMGR_ONU_STATUS, DEVMGR_ONU_STATUS, DEVMGR_REPLAY_END};
    EXPECT_EQ(types, want);
    EXPECT_EQ(c.host, "olt-a");
    EXPECT_EQ(c.vlans, (std::set<int>{1, 100, 200}));
    const auto &up = c.ports.at(0x12101000);
    EXPECT_EQ(up.pvid, 100) << "the port VLAN id came before the sets it would empty";
    EXPECT_EQ(up.tagged, std::set<int>{200});
    EXPECT_EQ(c.ports.at(0x52201001).sn, "ABCD0001");
    EXPECT_EQ(c.ports.at(0x52201002).status, 0u) << "offline ONU is not running";
    EXPECT_EQ(c.onus.at(0x52201002).first, 0);
    EXPECT_EQ(c.ports.at(0x12102000).trunk, 1u);
}

TEST(SimDevice, LateClientEndsEqualToOneThatSawEverything)
{
    topo_model t;
    sim_device dev(t.m);
    client_view early;
    early.apply_stream(dev.replay());
    dev.add_listener([&](const devmgr_msg_t &m) { early.apply(m); });

    vlan_bits v300, v200;
    v300.set(300);
    v200.set(200);
    const std::string steps[] = {
        dev.port_status("ge1/1/1", false),
        dev.port_admin("gpon1/2/1", false),
        dev.vlan_create(v300),
        dev.port_vlan("ge1/1/1", v300, true, false),
        dev.port_pvid("gpon1/2/1", 300),
        dev.port_vlan("gpon1/2/1", v200, true, true),
        dev.port_remove("trunk1"),
        dev.port_remove("ge1/1/3"),
        dev.port_add("ge1/1/3", "", ""),
        dev.port_trunk("ge1/1/2", 0),
        dev.onu_status("gonu1/2/1:2", true),
        dev.onu_status("gonu1/2/1:1", false),
        dev.port_add("gonu1/2/1:7", "x7", "NEW00007"),
        dev.set_hostname("olt-b"),
        dev.vlan_destroy(v200),
        dev.slot_switchover(1, true),
        dev.slot_cfg_sync(1, true, 5, "dhcp"),
    };
    for (const std::string &e : steps) EXPECT_EQ(e, "");

    client_view late;
    late.apply_stream(dev.replay());
    EXPECT_TRUE(late == early);
    EXPECT_EQ(late.host, "olt-b");
    EXPECT_EQ(late.ports.count(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1)), 0u);
    EXPECT_EQ(late.ports.at(0x52201007).sn, "NEW00007");
    EXPECT_EQ(late.ports.at(0x4a201000).pvid, 300);
    EXPECT_TRUE(late.ports.at(0x4a201000).tagged.empty()) << "VLAN 200 destroyed";
    EXPECT_EQ(late.ports.at(0x12101000).untagged, std::set<int>{300});
}

TEST(SimDevice, RefusedEventsChangeAndSendNothing)
{
    topo_model t;
    sim_device dev(t.m);
    int sent = 0;
    dev.add_listener([&](const devmgr_msg_t &) { ++sent; });
    vlan_bits v999, v100;
    v999.set(999);
    v100.set(100);
    struct {
        const char *what;
        std::string err;
    } cases[] = {
        {"unknown port", dev.port_status("ge1/1/9", false)},
        {"VLAN that does not exist", dev.port_vlan("ge1/1/1", v999, true, true)},
        {"ONU VLANs are its service ports'", dev.port_vlan("gonu1/2/1:1", v100, true, true)},
        {"trunk member VLANs are the trunk's", dev.port_pvid("ge1/1/2", 100)},
        {"port that exists", dev.port_add("ge1/1/1", "", "")},
        {"ONU without serial number", dev.port_add("gonu1/2/1:9", "", "")},
        {"ONU of a PON port not there", dev.port_add("gonu1/3/1:1", "", "S1")},
        {"not a physical port", dev.port_add("vlanif100", "", "")},
        {"Linux interface in use", dev.port_add("ge1/1/8", "u", "")},
        {"onu status of an uplink", dev.onu_status("ge1/1/1", false)},
        {"trunk that does not exist", dev.port_trunk("ge1/1/1", 9)},
        {"VLAN created twice", dev.vlan_create(v100)},
        {"VLAN destroyed that is not there", dev.vlan_destroy(v999)},
        {"host name too long", dev.set_hostname(std::string(64, 'h'))},
    };
    for (auto &c : cases) EXPECT_NE(c.err, "") << c.what;
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(t.m.hostname, "olt-a");
    EXPECT_EQ(t.m.ports.count(0x12108000), 0u);
}

} // namespace
