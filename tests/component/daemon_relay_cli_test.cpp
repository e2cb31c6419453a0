// The relay's commands against the real daemon through its shell: interface
// entry by kind of name, agents and servers, the shows, the VLAN trap the
// agent asks for, and the configuration surviving "write memory" and a restart.
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
const std::string NO_RELAY = "% No dhcp-relay be configured at this interface\n";

struct row {
    std::string line;
    int result;
    std::string output;
    std::string prompt = "olt(config-if)# ";
};

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

    void transcript(const std::vector<row> &rows)
    {
        std::vector<std::string> lines;
        for (const row &r : rows) lines.push_back(r.line);
        std::vector<vty_reply> got = d.vty_session(lines);
        ASSERT_EQ(got.size(), rows.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(got[i].output, rows[i].output) << rows[i].line;
            EXPECT_EQ(got[i].result, rows[i].result) << rows[i].line;
            EXPECT_EQ(got[i].prompt, rows[i].prompt) << rows[i].line;
        }
    }

    std::string show(const std::string &cmd) { return d.vty('X', cmd).output; }

    // VLAN trap requests (type 321) the forwarding plane got for `vid` with `enable`.
    int trap_requests(std::uint16_t vid, std::uint32_t enable)
    {
        int n = 0;
        for (const fake_fp_msg &m : fp.received()) {
            if (m.hdr.nlmsg_type != HAL_MSG_DHCP_VLAN_ENABLE) continue;
            bytes_view p = m.payload();
            // ifindex (4), VLAN (2), pad (2), enable (4), in host order.
            std::uint16_t v = 0;
            std::uint32_t on = 0;
            if (p.size() >= 12) {
                std::memcpy(&v, p.data() + 4, 2);
                std::memcpy(&on, p.data() + 8, 4);
            }
            if (v == vid && on == enable) ++n;
        }
        return n;
    }

    fake_devmgr dm;
    fake_fp fp;
    daemon_proc d{DHCP_BIN, DHCPSH_BIN};
    std::string conf;
};

TEST_F(DaemonRelayCli, TranscriptShowsAndRestart)
{
    const std::string cfg = "olt(config)# ";
    transcript({
        {"configure terminal", 0, "", cfg},
        {"ip dhcp-relay", 0, "", cfg},
        {"interface " + std::string(st_ifname(GE1)), 0, ""},
        {"interface gpon1/1/9", 104006, "% Interface gpon1/1/9 does not exist\n"},
        {"interface vlanif100", 0, ""},
        {"ip dhcp relay-server-address 10.9.9.9", 104006, NO_RELAY},
        {"ip dhcp relay-agent", 0, ""},
        {"ip dhcp relay-server-address 10.9.9.9", 0, ""},
        {"ip dhcpv6 relay-agent", 0, ""},
        {"ip dhcpv6 relay-server-address ::1", 0, "the address  ::1 is loopback,can not be a dhcpv6 server ip \n"},
        {"ip dhcpv6 relay-server-address 2001:db8::9", 0, ""},
        {"interface vlanif200", 0, ""},
        {"no ip dhcp relay-agent", 104006, NO_RELAY},
        {"exit", 0, "", cfg},
        {"no interface vlanif100", 0, "", cfg},
        {"show ip dhcp-relay", 0, " dhcp-relay is enable \n", cfg},
        {"show ip dhcp-relay server-address", 0,
         " current dhcp relay interface 2 \ninterface vlanif100 ip 0.0.0.0 mac 0000-0000-0000 \n"
         " dhcp relay-server 10.9.9.9\n dhcp relay-server 2001:db8::9\n",
         cfg},
        {"show ip dhcp interface vlanif200", 0,
         "  ifindex     :  0x0  \n  uifindex    :  0x300000c8  \n  flags       :  0x0 <>  \n dhcp relay is disable. \n", cfg},
    });
    // The agent asked the forwarding plane to trap the VLAN's DHCP frames.
    bool trapped = false;
    for (int waited = 0; waited < 2000 && !trapped; waited += 20) {
        trapped = trap_requests(100, 1) == 1;
        if (!trapped) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(trapped);

    const std::string running = show("show running-config");
    const std::string block = "interface vlanif100\n ip dhcp relay-agent \n ip dhcpv6 relay-agent \n"
                              " ip dhcp relay-server-address 10.9.9.9\n ip dhcpv6 relay-server-address 2001:db8::9\n"
                              "interface vlanif200\n";
    EXPECT_NE(running.find("!\nip dhcp-relay \n!\n"), std::string::npos) << running;
    EXPECT_NE(running.find(block), std::string::npos) << running;

    EXPECT_EQ(d.vty('X', "write memory").result, 0);
    ASSERT_TRUE(d.start(dm, {"-f", conf}));
    ASSERT_TRUE(d.wait_replayed(2));
    EXPECT_EQ(show("show running-config"), running);
    EXPECT_TRUE(d.log_lines(conf + ":").empty()) << "a saved line failed: " << d.log_lines(conf + ":")[0];

    // Turning the relay off takes every agent with it.
    transcript({{"configure terminal", 0, "", cfg}, {"no ip dhcp-relay", 0, "", cfg}});
    EXPECT_EQ(show("show ip dhcp-relay interface"), " dhcp-relay is disable \n");
    // The DHCPv6 agent and its server are not the global switch's.
    EXPECT_NE(show("show running-config")
                  .find("interface vlanif100\n ip dhcpv6 relay-agent \n ip dhcpv6 relay-server-address 2001:db8::9\n"
                        "interface vlanif200\nend\n"),
              std::string::npos)
        << show("show running-config");
    EXPECT_EQ(show("show running-config").find("ip dhcp relay"), std::string::npos);
    EXPECT_TRUE(d.alive());
}

}  // namespace
