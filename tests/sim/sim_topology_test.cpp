// Topology file: a complete file comes out as the model it describes; every
// mistake is reported with the file, the line and the key.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <unistd.h>

#include "devlib/ifindex.h"
#include "sim/sim_topology.h"

namespace {

// Writes text to a temporary file and loads it; err empty on success.
std::string load(const std::string &text, sim_model &m, std::string *path = nullptr)
{
    char tmpl[] = "/tmp/sim_topo_XXXXXX";
    close(mkstemp(tmpl));
    std::ofstream(tmpl) << text;
    std::string err;
    bool ok = sim_topology_load(tmpl, m, err);
    EXPECT_EQ(ok, err.empty());
    if (path) *path = tmpl;
    unlink(tmpl);
    return err;
}

TEST(SimTopology, CompleteFileBuildsTheModel)
{
    sim_model m;
    ASSERT_EQ(load("; every kind of section\n"
                   "[System]\nmac = 0200-5e10-0001\nhostname = Lab-OLT\nvlans = 1,100,200-201\n"
                   "[port ge1/1/1]\nlinux = up0\npvid = 100\nTagged = 200-201\n"
                   "[port ge1/1/3]\nlinux = t0\n[port ge1/1/4]\nlinux = t1\n"
                   "[trunk 2]\nmembers = ge1/1/3, ge1/1/4\ntagged = 200\nrole = access\n"
                   "[port gpon1/2/1]\nstatus = down\n"
                   "[onu gpon1/2/1 5]\nsn = ABCD00000005\nlinux = onu5\nstatus = offline\n"
                   "[servport 7]\nonu = gonu1/2/1:5\nvlan = 100\nuservlan = 10\naction = add\n"
                   "[servport 8]\nonu = gonu1/2/1:5\nvlan = 200\nuser-tag = untagged\n"
                   "[vlanif 200]\naddress = 192.0.2.1/24\n",
                   m),
              "");
    EXPECT_EQ(m.hostname, "Lab-OLT");
    EXPECT_EQ(sim_mac_str(m.mac), "02:00:5e:10:00:01");
    EXPECT_EQ(sim_vlan_list_str(m.vlans), "1,100,200-201");
    EXPECT_EQ(sim_vlan_list_str(m.port(0x12101000)->tagged), "200-201");

    const sim_port *t = m.port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 2));
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->role, SIM_ROLE_ACCESS);
    ASSERT_EQ(t->members.size(), 2u);
    const sim_port &member = *m.port(t->members[1]);
    EXPECT_EQ(member.trunk, 2u);
    EXPECT_TRUE(m.port_in_vlan(member, 200)) << "a member answers for VLANs through its trunk";

    EXPECT_FALSE(m.port(0x4a201000)->up);
    const sim_port *onu = m.port(0x52201005);
    ASSERT_NE(onu, nullptr);
    EXPECT_EQ(onu->name, "gonu1/2/1:5");
    EXPECT_EQ(onu->pon, 0x4a201000u);
    EXPECT_EQ(onu->sn, "ABCD00000005");
    EXPECT_FALSE(onu->online);
    EXPECT_EQ(onu->role, SIM_ROLE_ACCESS);

    const sim_servport &s7 = m.servports.at(7), &s8 = m.servports.at(8);
    EXPECT_EQ(s7.ifindex, st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 7));
    EXPECT_EQ(s7.onu, onu->ifindex);
    EXPECT_EQ(s7.uservlan, 10);
    EXPECT_EQ(s7.lltag, 100) << "the GEM VLAN defaults to the VLAN";
    EXPECT_TRUE(s7.user_tagged);
    EXPECT_EQ(s7.action, SIM_VLAN_ACTION_ADD);
    EXPECT_EQ(s8.uservlan, 200);
    EXPECT_FALSE(s8.user_tagged);
    EXPECT_EQ(s8.action, SIM_VLAN_ACTION_TRANSLATE);
    EXPECT_EQ(m.vlanifs.at(200).ifname, "vlanif200");
    EXPECT_EQ(sim_mac_str(m.vlanifs.at(200).mac), "02:00:5e:10:00:01") << "the system MAC by default";

    sim_model lab;
    std::string err;
    EXPECT_TRUE(sim_topology_load(SIM_EXAMPLES "/lab.ini", lab, err)) << err;
}

TEST(SimTopology, ErrorsNameFileLineAndKey)
{
    const std::string SYS = "[system]\nmac = 02:00:00:00:00:01\nvlans = 100,200\n";  // lines 1-3
    const std::string ONU = SYS + "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = A\n";    // lines 4-6
    struct { const char *what; std::string text, want; } cases[] = {
        {"no [system]", "[port ge1/1/1]\n", ":1: [system]"},
        {"no system MAC", "[system]\nhostname = x\n", ":1: [system] mac:"},
        {"group MAC", "[system]\nmac = 01:00:5e:00:00:01\n", ":2: [system] mac:"},
        {"section repeated", SYS + "[system]\n", ":4: [system]:"},
        {"not INI", SYS + "mac 02:00:00:00:00:01\n", ":4: expected"},
        {"pvid of a VLAN that does not exist", SYS + "[port ge1/1/1]\nlinux = a\npvid = 300\n",
         ":6: [port ge1/1/1] pvid:"},
        {"reversed range", SYS + "[port ge1/1/1]\ntagged = 200-100\n", ":5: [port ge1/1/1] tagged:"},
        {"tagged and untagged", SYS + "[port ge1/1/1]\ntagged = 100\nuntagged = 100,200\n",
         ":6: [port ge1/1/1] untagged:"},
        {"misspelt key", SYS + "[port ge1/1/1]\nlinux = a\npvdi = 100\n", ":6: [port ge1/1/1] pvdi:"},
        {"repeated key", SYS + "[port ge1/1/1]\nlinux = a\nlinux = b\n", ":6: [port ge1/1/1] linux:"},
        {"status neither up nor down", SYS + "[port ge1/1/1]\nstatus = sleeping\n", ":5: [port ge1/1/1] status:"},
        {"a PON port is not wired", SYS + "[port gpon1/2/1]\nlinux = a\n", ":5: [port gpon1/2/1] linux:"},
        {"an ONU is not a port", SYS + "\n[port gonu1/2/1:1]\n", ":5: [port gonu1/2/1:1]"},
        {"same Linux interface twice", SYS + "[port ge1/1/1]\nlinux = a\n[port ge1/1/2]\nlinux = a\n",
         ":7: [port ge1/1/2] linux:"},
        {"trunk member with its own VLANs", SYS + "[port ge1/1/1]\npvid = 100\n[trunk 1]\nmembers = ge1/1/1\n",
         ":5: [port ge1/1/1] pvid:"},
        {"trunk of an undefined port", SYS + "[trunk 1]\nmembers = ge1/1/9\n", ":5: [trunk 1] members:"},
        {"ONU id 129", SYS + "[port gpon1/2/1]\n[onu gpon1/2/1 129]\nsn = X\n", ":5: [onu gpon1/2/1 129] name:"},
        {"serial number too long", SYS + "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = ABCD000000001\n",
         ":6: [onu gpon1/2/1 1] sn:"},
        {"service port of an unknown ONU", SYS + "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\n",
         ":5: [servport 1] onu:"},
        {"two service ports with one user VLAN",
         ONU + "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\n[servport 2]\nonu = gonu1/2/1:1\nvlan = 200\n"
               "uservlan = 100\n",
         ":13: [servport 2] uservlan:"},
        {"two untagged service ports on one ONU",
         ONU + "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\nuser-tag = untagged\n"
               "[servport 2]\nonu = gonu1/2/1:1\nvlan = 200\nuser-tag = untagged\n",
         ":14: [servport 2] user-tag:"},
        {"unknown VLAN action", ONU + "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\naction = swap\n",
         ":10: [servport 1] action:"},
        {"VLAN interface without its VLAN", SYS + "[vlanif 300]\n", ":4: [vlanif 300] name:"},
        {"VLAN interface with a bad address", SYS + "[vlanif 100]\naddress = 10.0.0.1/33\n",
         ":5: [vlanif 100] address:"},
        {"unknown section kind", SYS + "[bridge 1]\n", ":4: [bridge 1] name:"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim_model m;
        m.hostname = "untouched";
        std::string path, err = load(c.text, m, &path);
        EXPECT_EQ(err.rfind(path + c.want, 0), 0u) << err;
        EXPECT_EQ(m.hostname, "untouched") << "a failed load leaves the model alone";
    }
    sim_model m;
    std::string err;
    EXPECT_FALSE(sim_topology_load("/nonexistent/topo.ini", m, err));
    EXPECT_EQ(err.rfind("/nonexistent/topo.ini:", 0), 0u) << err;
}

} // namespace
