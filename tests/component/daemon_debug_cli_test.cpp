// The debugging switches as an operator drives them: dhcpsh against the
// running daemon, exact outputs and exit statuses, one transcript.
#include <gtest/gtest.h>
#include "tests/support/daemon_proc.h"
#include "tests/support/fake_devmgr.h"
#include "tests/support/fake_fp.h"

namespace {

class DaemonDebugCli : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dm.start());
        ASSERT_TRUE(fp.start(d.hal_path()));
        ASSERT_TRUE(d.start(dm));
    }
    fake_devmgr dm;
    fake_fp fp;
    daemon_proc d{DHCP_BIN, DHCPSH_BIN};
};

// Each row is one dhcpsh run; the daemon keeps its state from row to row.
TEST_F(DaemonDebugCli, Transcript)
{
    struct {
        std::vector<std::string> cmds;  // after "configure terminal" unless `enable_node`
        std::string out;
        int status;
        bool enable_node = false;
    } rows[] = {
        {{"show debugging dhcp"}, "  Dhcp debugging is off\n", 0},
        // Lines follow the bit order, not the order of the commands.
        {{"debug dhcp timer", "debug dhcp packet", "show debugging dhcp"},
         "  Dhcp packet debugging is on\n  Dhcp timer debugging is on\n", 0},
        {{"debug dhcp all", "show debugging dhcp"},
         "  Dhcp event debugging is on\n  Dhcp packet debugging is on\n  Dhcp interface debugging is on\n"
         "  Dhcp timer debugging is on\n  Dhcp diagnose debugging is on\n  Dhcp snmp debugging is on\n", 0},
        {{"no debug dhcp snmp", "no debug dhcp events", "no debug dhcp timer", "show debugging dhcp"},
         "  Dhcp packet debugging is on\n  Dhcp interface debugging is on\n  Dhcp diagnose debugging is on\n", 0},
        {{"no debug dhcp packet", "no debug dhcp interface", "no debug dhcp diagnose", "show debugging dhcp"},
         "  Dhcp debugging is off\n", 0},
        {{"debug dhcp events", "debug dhcp interface", "debug dhcp diagnose", "debug dhcp snmp", "show debugging dhcp"},
         "  Dhcp event debugging is on\n  Dhcp interface debugging is on\n  Dhcp diagnose debugging is on\n"
         "  Dhcp snmp debugging is on\n", 0},
        {{"debug dhcp client 00AA-bbcc-0001"}, "start monitoring log for client 00aa-bbcc-0001\n", 0},
        // Refusals leave the monitored client as it was, and stop the shell's command list.
        {{"debug dhcp client 0100-0000-0001", "no debug dhcp all"}, "% Mac address must be unicast\n", 1},
        {{"debug dhcp client ffff-ffff-ffff"}, "% Mac address must be unicast\n", 1},
        {{"debug dhcp client 0000-0000-0000"}, "% Invalid mac format\n", 1},
        {{"debug dhcp client 0011-2233"}, "% Unknown command.\n", 1},
        {{"show debugging dhcp"},
         "  Dhcp event debugging is on\n  Dhcp interface debugging is on\n  Dhcp diagnose debugging is on\n"
         "  Dhcp snmp debugging is on\n", 0},
        // "no debug dhcp all" keeps the monitored client.
        {{"no debug dhcp all", "show debugging dhcp"}, "  Dhcp debugging is off\n", 0},
        {{"no debug dhcp client"}, "stop monitoring log for client 00aa-bbcc-0001\n", 0},
        {{"no debug dhcp client"}, "stop monitoring log for client 0000-0000-0000\n", 0},
        // The switches live in the configuration node only.
        {{"debug dhcp packet"}, "% Unknown command.\n", 1, true},
        {{"debug dhcp bogus"}, "% Unknown command.\n", 1},
        {{"show debugging dhcp"}, "  Dhcp debugging is off\n", 0},
    };
    for (const auto &row : rows) {
        std::vector<std::string> cmds = row.cmds;
        if (!row.enable_node) cmds.insert(cmds.begin(), "configure terminal");
        SCOPED_TRACE(cmds.back());
        proc_result r = d.sh(cmds);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.status, row.status) << r.err;
    }
    EXPECT_TRUE(d.alive());
}

// The shell only says "failed"; the daemon's own result tells the refusals apart.
TEST_F(DaemonDebugCli, RefusalsCarryTheBadArgumentCode)
{
    std::vector<vty_reply> r = d.vty_session({"configure terminal", "debug dhcp client 0100-0000-0001",
                                              "debug dhcp client 0000-0000-0000", "debug dhcp client 0000-0000-0001",
                                              "no debug dhcp client"});
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[0].prompt, "OLT(config)# ");
    EXPECT_EQ(r[1].result, 104001);
    EXPECT_EQ(r[2].result, 104001);
    EXPECT_EQ(r[3].result, 0);
    EXPECT_EQ(r[3].output, "start monitoring log for client 0000-0000-0001\n");
    EXPECT_EQ(r[4].output, "stop monitoring log for client 0000-0000-0001\n");
    EXPECT_EQ(d.log_lines("Set dhcp debug on client 0000-0000-0001 ", 40).size(), 1u);
}

} // namespace
