// The relay's commands against the real daemon through its shell: refusal
// code and prompts, the VLAN trap the agent asks for, and the configuration
// surviving "write memory", a restart and the global switch going off.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "devlib/ifindex.h"
#include "dhcp/dhcp_snoop.h"
#include "tests/support/daemon_proc.h"
#include "tests/support/fake_devmgr.h"
#include "tests/support/fake_fp.h"

namespace {

const std::uint32_t GE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);

class DaemonRelayCli : public ::testing::Test {
protected:
    void SetUp() override
    {
        dm.set_hostname("olt");
        dm.add_vlan(100);
        dm.add_port(GE1, st_ifname(GE1));
        dm.port_add_vlan(GE1, 100);
        ASSERT_TRUE(dm.start());
        fp.set_auto_reply(true);
        ASSERT_TRUE(fp.start(d.hal_path()));
        conf = d.dir() + "/dhcp.conf";
        ASSERT_TRUE(d.start(dm, {"-f", conf}));
        ASSERT_TRUE(fp.wait_registered(5000));
        ASSERT_TRUE(d.wait_replayed(1));
    }
    std::string running() { return d.vty('X', "show running-config").output; }
    // Whether the forwarding plane was asked to trap DHCP on `vid` (type 321).
    bool trapped(std::uint16_t vid)
    {
        for (const fake_fp_msg &m : fp.received()) {
            bytes_view p = m.payload();
            if (m.hdr.nlmsg_type != HAL_MSG_DHCP_VLAN_ENABLE || p.size() < 12) continue;
            // ifindex (4), VLAN (2), pad (2), enable (4), in host order.
            std::uint16_t v = 0;
            std::uint32_t on = 0;
            std::memcpy(&v, p.data() + 4, 2);
            std::memcpy(&on, p.data() + 8, 4);
            if (v == vid && on == 1) return true;
        }
        return false;
    }

    fake_devmgr dm;
    fake_fp fp;
    daemon_proc d{DHCP_BIN, DHCPSH_BIN};
    std::string conf;
};

TEST_F(DaemonRelayCli, ConfigureWriteRestartAndSwitchOff)
{
    std::vector<vty_reply> got = d.vty_session({"configure terminal", "ip dhcp-relay", "interface vlanif100",
        "ip dhcp relay-server-address 10.9.9.9", "ip dhcp relay-agent", "ip dhcp relay-server-address 10.9.9.9",
        "ip dhcpv6 relay-agent", "ip dhcpv6 relay-server-address 2001:db8::9", "interface vlanif200"});
    ASSERT_EQ(got.size(), 9u);
    for (std::size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i].result, i == 3 ? 104006 : 0) << i;
    EXPECT_EQ(got[3].output, "% No dhcp-relay be configured at this interface\n");
    EXPECT_EQ(got[3].prompt, "olt(config-if)# ");
    for (int waited = 0; waited < 2000 && !trapped(100); waited += 20)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(trapped(100)) << "the agent asks the forwarding plane to trap the VLAN's DHCP frames";

    const std::string before = running();
    EXPECT_NE(before.find("interface vlanif100\n ip dhcp relay-agent \n ip dhcpv6 relay-agent \n"
                          " ip dhcp relay-server-address 10.9.9.9\n ip dhcpv6 relay-server-address 2001:db8::9\n"),
              std::string::npos)
        << before;
    EXPECT_EQ(d.vty('X', "write memory").result, 0);
    ASSERT_TRUE(d.start(dm, {"-f", conf}));
    ASSERT_TRUE(d.wait_replayed(2));
    EXPECT_EQ(running(), before);
    EXPECT_TRUE(d.log_lines(conf + ":").empty()) << "a saved line failed: " << d.log_lines(conf + ":")[0];

    // The global switch takes the DHCPv4 agents; the DHCPv6 agent is not its.
    got = d.vty_session({"configure terminal", "no ip dhcp-relay"});
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].result, 0);
    const std::string after = running();
    EXPECT_NE(after.find("interface vlanif100\n ip dhcpv6 relay-agent \n ip dhcpv6 relay-server-address 2001:db8::9\n"
                         "interface vlanif200\nend\n"),
              std::string::npos)
        << after;
    EXPECT_EQ(after.find("ip dhcp relay"), std::string::npos) << after;
    EXPECT_EQ(after.find("ip dhcp-relay"), std::string::npos) << after;
    EXPECT_TRUE(d.alive());
}

}  // namespace
