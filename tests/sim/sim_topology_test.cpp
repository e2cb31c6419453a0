// Topology file: a complete file comes out as the model it describes; every
// mistake is reported with the file, the line and the key.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>

#include "devlib/ifindex.h"
#include "sim/sim_topology.h"

namespace {

class topo_file {
public:
    explicit topo_file(const std::string &text)
    {
        char tmpl[] = "/tmp/sim_topo_XXXXXX";
        int fd = mkstemp(tmpl);
        path_ = tmpl;
        std::ofstream(path_) << text;
        close(fd);
    }
    ~topo_file() { unlink(path_.c_str()); }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

const char *FULL = R"(; every kind of section
[system]
mac = 0200-5e10-0001
hostname = Lab-OLT
vlans = 1,100,200-201

[port ge1/1/1]
linux = up0
pvid = 100
tagged = 200-201

[port ge1/1/3]
linux = t0
[port ge1/1/4]
linux = t1

[trunk 2]
members = ge1/1/3, ge1/1/4
tagged = 200
role = access

[port gpon1/2/1]
tagged = 100
status = down

[onu gpon1/2/1 5]
sn = ABCD00000005
linux = onu5
status = offline

[servport 7]
onu = gonu1/2/1:5
vlan = 100
uservlan = 10
user-tag = tagged
action = add

[servport 8]
onu = gonu1/2/1:5
vlan = 200
user-tag = untagged

[vlanif 200]
address = 192.0.2.1/24
)";

TEST(SimTopology, CompleteFileBuildsTheModel)
{
    topo_file f(FULL);
    sim_model m;
    std::string err;
    ASSERT_TRUE(sim_topology_load(f.path(), m, err)) << err;

    EXPECT_EQ(m.hostname, "Lab-OLT");
    EXPECT_EQ(sim_mac_str(m.mac), "02:00:5e:10:00:01");
    EXPECT_EQ(sim_vlan_list_str(m.vlans), "1,100,200-201");

    const sim_port *up = m.port(0x12101000);
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(up->linux_if, "up0");
    EXPECT_EQ(up->pvid, 100);
    EXPECT_EQ(sim_vlan_list_str(up->tagged), "200-201");
    EXPECT_EQ(up->role, SIM_ROLE_UPLINK);

    const sim_port *t = m.port(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 2));
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->name, "trunk2");
    EXPECT_EQ(t->role, SIM_ROLE_ACCESS);
    ASSERT_EQ(t->members.size(), 2u);
    EXPECT_EQ(m.port(t->members[0])->trunk, 2u);
    EXPECT_EQ(m.port(t->members[1])->trunk, 2u);
    // A member answers for VLANs through its trunk.
    EXPECT_TRUE(m.port_in_vlan(*m.port(t->members[0]), 200));
    EXPECT_FALSE(m.port_in_vlan(*m.port(t->members[0]), 100));

    EXPECT_FALSE(m.port(0x4a201000)->up);
    const sim_port *onu = m.port(0x52201005);  // gonu1/2/1:5
    ASSERT_NE(onu, nullptr);
    EXPECT_EQ(onu->name, "gonu1/2/1:5");
    EXPECT_EQ(onu->pon, 0x4a201000u);
    EXPECT_EQ(onu->sn, "ABCD00000005");
    EXPECT_FALSE(onu->online);
    EXPECT_EQ(onu->role, SIM_ROLE_ACCESS);

    ASSERT_EQ(m.servports.size(), 2u);
    const sim_servport &s7 = m.servports.at(7);
    EXPECT_EQ(s7.ifindex, st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 7));
    EXPECT_EQ(s7.onu, onu->ifindex);
    EXPECT_EQ(s7.uservlan, 10);
    EXPECT_EQ(s7.lltag, 100);  // defaults to the VLAN
    EXPECT_TRUE(s7.user_tagged);
    EXPECT_EQ(s7.action, SIM_VLAN_ACTION_ADD);
    const sim_servport &s8 = m.servports.at(8);
    EXPECT_EQ(s8.uservlan, 200);
    EXPECT_FALSE(s8.user_tagged);
    EXPECT_EQ(s8.action, SIM_VLAN_ACTION_TRANSLATE);

    const sim_vlanif &vi = m.vlanifs.at(200);
    EXPECT_EQ(vi.ifname, "vlanif200");
    EXPECT_EQ(sim_mac_str(vi.mac), "02:00:5e:10:00:01");
    EXPECT_EQ(vi.address, "192.0.2.1/24");
}

TEST(SimTopology, ShippedLabFileLoads)
{
    sim_model m;
    std::string err;
    ASSERT_TRUE(sim_topology_load(SIM_EXAMPLES "/lab.ini", m, err)) << err;
    EXPECT_EQ(m.servports.size(), 2u);
    EXPECT_NE(m.port_by_name("gonu1/2/1:2"), nullptr);
}

struct bad_case {
    const char *what;
    const char *text;
    int line;
    const char *where;  // "[section] key"
};

const char *SYS = "[system]\nmac = 02:00:00:00:00:01\nvlans = 100,200\n";  // lines 1-3

class SimTopologyErrors : public ::testing::TestWithParam<bad_case> {};

TEST_P(SimTopologyErrors, NameFileLineAndKey)
{
    const bad_case &c = GetParam();
    topo_file f(std::string(SYS) + c.text);
    sim_model m;
    m.hostname = "untouched";
    std::string err;
    ASSERT_FALSE(sim_topology_load(f.path(), m, err)) << c.what;
    std::string want = f.path() + ":" + std::to_string(c.line) + ": " + c.where + ":";
    EXPECT_EQ(err.rfind(want, 0), 0u) << c.what << "\n got: " << err << "\nwant: " << want;
    EXPECT_EQ(m.hostname, "untouched") << "a failed load leaves the model alone";
}

INSTANTIATE_TEST_SUITE_P(
    All, SimTopologyErrors,
    ::testing::Values(
        bad_case{"pvid of a VLAN that does not exist", "[port ge1/1/1]\nlinux = a\npvid = 300\n", 6,
                 "[port ge1/1/1] pvid"},
        bad_case{"reversed range", "[port ge1/1/1]\ntagged = 200-100\n", 5, "[port ge1/1/1] tagged"},
        bad_case{"VLAN 4095", "[port ge1/1/1]\nuntagged = 4095\n", 5, "[port ge1/1/1] untagged"},
        bad_case{"tagged and untagged at once", "[port ge1/1/1]\ntagged = 100\nuntagged = 100,200\n", 6,
                 "[port ge1/1/1] untagged"},
        bad_case{"misspelt key", "[port ge1/1/1]\nlinux = a\npvdi = 100\n", 6, "[port ge1/1/1] pvdi"},
        bad_case{"repeated key", "[port ge1/1/1]\nlinux = a\nlinux = b\n", 6, "[port ge1/1/1] linux"},
        bad_case{"a PON port is not wired", "[port gpon1/2/1]\nlinux = a\n", 5, "[port gpon1/2/1] linux"},
        bad_case{"not a port name", "\n[port gonu1/2/1:1]\n", 5, "[port gonu1/2/1:1]"},
        bad_case{"trunk index as a port", "[port trunk1]\n", 4, "[port trunk1] name"},
        bad_case{"same Linux interface twice", "[port ge1/1/1]\nlinux = a\n[port ge1/1/2]\nlinux = a\n", 7,
                 "[port ge1/1/2] linux"},
        bad_case{"ONU on an uplink", "[port ge1/1/1]\n[onu ge1/1/1 1]\nsn = X\n", 5, "[onu ge1/1/1 1] name"},
        bad_case{"ONU id 129", "[port gpon1/2/1]\n[onu gpon1/2/1 129]\nsn = X\n", 5,
                 "[onu gpon1/2/1 129] name"},
        bad_case{"ONU without serial number", "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nlinux = o\n", 5,
                 "[onu gpon1/2/1 1] sn"},
        bad_case{"serial number too long", "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = ABCD000000001\n", 6,
                 "[onu gpon1/2/1 1] sn"},
        bad_case{"service port of an unknown ONU", "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\n", 5,
                 "[servport 1] onu"},
        bad_case{"two service ports with one user VLAN",
                 "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = A\n"
                 "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\nuservlan = 10\n"
                 "[servport 2]\nonu = gonu1/2/1:1\nvlan = 200\nuservlan = 10\n",
                 14, "[servport 2] uservlan"},
        bad_case{"two untagged service ports on one ONU",
                 "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = A\n"
                 "[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\nuser-tag = untagged\n"
                 "[servport 2]\nonu = gonu1/2/1:1\nvlan = 200\nuser-tag = untagged\n",
                 14, "[servport 2] user-tag"},
        bad_case{"unknown VLAN action",
                 "[port gpon1/2/1]\n[onu gpon1/2/1 1]\nsn = A\n[servport 1]\nonu = gonu1/2/1:1\nvlan = 100\n"
                 "action = swap\n",
                 10, "[servport 1] action"},
        bad_case{"trunk member with its own VLANs",
                 "[port ge1/1/1]\nlinux = a\npvid = 100\n[trunk 1]\nmembers = ge1/1/1\n", 6,
                 "[port ge1/1/1] pvid"},
        bad_case{"trunk of an undefined port", "[trunk 1]\nmembers = ge1/1/9\n", 5, "[trunk 1] members"},
        bad_case{"VLAN interface without its VLAN", "[vlanif 300]\n", 4, "[vlanif 300] name"},
        bad_case{"VLAN interface with a bad address", "[vlanif 100]\naddress = 10.0.0.1/33\n", 5,
                 "[vlanif 100] address"},
        bad_case{"unknown section kind", "[bridge 1]\n", 4, "[bridge 1] name"},
        bad_case{"status neither up nor down", "[port ge1/1/1]\nstatus = sleeping\n", 5,
                 "[port ge1/1/1] status"}));

TEST(SimTopology, SystemSectionMistakes)
{
    struct {
        const char *text;
        std::string want;
    } cases[] = {
        {"[port ge1/1/1]\n", ":1: [system]"},
        {"[system]\nhostname = x\n", ":1: [system] mac:"},
        {"[system]\nmac = 01:00:5e:00:00:01\n", ":2: [system] mac:"},
        {"[system]\nmac = 02:00:00:00:00:01\nvlans = 1,x\n", ":3: [system] vlans:"},
        {"[system]\nmac = 02:00:00:00:00:01\n[system]\n", ":3: [system]:"},
        {"; a file with a line that is not INI\n[system]\nmac 02:00:00:00:00:01\n", ":3: expected"},
        {"vlans = 1\n[system]\n", ":1: vlans: key outside any section"},
    };
    for (auto &c : cases) {
        topo_file f(c.text);
        sim_model m;
        std::string err;
        EXPECT_FALSE(sim_topology_load(f.path(), m, err)) << c.text;
        EXPECT_EQ(err.rfind(f.path() + c.want, 0), 0u) << "got: " << err << "\nwant: " << f.path() + c.want;
    }
}

TEST(SimTopology, MissingFileIsNamed)
{
    sim_model m;
    std::string err;
    EXPECT_FALSE(sim_topology_load("/nonexistent/topo.ini", m, err));
    EXPECT_EQ(err.rfind("/nonexistent/topo.ini:", 0), 0u) << err;
}

} // namespace
