// Snooping, profile, VLAN and port commands as an operator types them: a
// transcript of command -> exact output and result, then the configuration
// written, cleared and read back.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include "devlib/dev_vty.h"
#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_snoop_vty.h"
#include "lib/command.h"
#include "lib/vty.h"
#include "tests/support/hal_session.h"

namespace {

const int OK = CMD_SUCCESS, NO = CMD_ERR_REFUSED;

struct step {
    const char *cmd;
    const char *out;
    int rc;
};

class SnoopVty : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(hal_.start("snoopvty_" + std::to_string(getpid())));
        cmd_init(1);
        dev_vty_init();
        dhcp_snoop_vty_init();
        sort_node();
        ASSERT_EQ(cmd_verify_help(), 0);
        v = vty_new_buffer(CONFIG_NODE);
        reset();
    }
    void TearDown() override
    {
        wipe();
        vty_free(v);
        hal_.stop();
    }
    void wipe()
    {
        for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id)
            if (dhcp_option_profile_get(id)) dhcp_option_free_profile(id);
        dhcp_ipsg_init();
        dhcp_client_tree_destroy();
        for (uif_t *p = uif_first(); p; p = uif_next(p)) dhcp_port_deinit(p);
        for (std::uint16_t vid = 1; vid <= 4094; ++vid) dhcp_vlan_free(vlan_get_entry(vid));
        uvlan_clear();
        uif_clear();
        std::strcpy(g_access_node_id, DHCP_ACCESS_NODE_ID_INIT);
        dhcp_snoop_set_remote_id(0);
        dhcp_set_max_session_id(DHCP_MAX_SESSION_DEFAULT);
    }
    // The device as the manager reports it: VLANs 10 and 20, one GE port.
    void reset()
    {
        wipe();
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        dhcp_ipsg_init();
        g_dhcp_global_cfg.relay_enable = 0;
        for (std::uint16_t vid : {1, 10, 20}) {
            uvlan_create(vid);
            dhcp_vlan_init(vid);
        }
        uif_t *p = uif_get_or_create(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0), true);
        uif_set_name(p, "ge1/1");
        dhcp_port_init(p);
        v->node = CONFIG_NODE;
    }
    void play(const std::vector<step> &steps)
    {
        for (const step &s : steps) {
            SCOPED_TRACE(s.cmd);
            v->out.clear();
            EXPECT_EQ(cmd_execute(v, s.cmd), s.rc);
            EXPECT_EQ(v->out, s.out);
        }
    }
    std::string running()
    {
        vty *r = vty_new_buffer(ENABLE_NODE);
        cmd_write_running_config(r);
        std::string out = r->out;
        vty_free(r);
        return out;
    }

    hal_session hal_;
    vty *v = nullptr;
};

TEST_F(SnoopVty, GlobalCommandsAndTheirRefusals)
{
    play({
        {"ip dhcp information access-node-id string X", "dhcp-snooping is not enable\n", NO},
        {"no ip dhcp information access-node-id", "dhcp-snooping is not enable\n", NO},
        {"ip dhcp information client-info keep", "dhcp-snooping is not enable\n", NO},
        {"ip dhcp-snooping", "", OK},
        {"ip dhcp information access-node-id string " "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa",
         "Length of string should less than 63 \n", NO},
        {"no ip dhcp information access-node-id", "", OK},
        {"show ip dhcp-snooping ",
         " DHCP V4 snooping : enable \n Option82         : disable \n Access-Node-ID   : GPON-OLT \n"
         " Remote id        :  \n", OK},
        {"ip dhcp information client-info keep", "", OK},
        {"ip dhcp max-session 4", "% Unknown command.\n", CMD_ERR_NO_MATCH},
        {"ip dhcp-snooping vlan 10", "% Unknown command.\n", CMD_ERR_NO_MATCH},
        {"ip dhcp information profile a/b", "% Profile name can't include space or character: &;/\\\"\n", NO},
        {"ip dhcp information profile abcdefghijabcdefghijabcdefghijab", "% Max proifle name is 31\n", NO},
        {"no ip dhcp information profile P9", "% Profile P9 doesn't exist \n", NO},
    });
    EXPECT_EQ(dhcp_snoop_get_client_op82_policy(), 1);
}

TEST_F(SnoopVty, ProfileVlanAndPortCommands)
{
    play({
        {"ip dhcp information profile P1", "", OK},
        {"circuit-id index 1 variable slot", "", OK},
        {"circuit-id index 2 delimiter dot", "", OK},
        {"circuit-id index 3 string ab&c", "% String can't include space or character: &;/\\\"\n", NO},
        {"circuit-id index 3 string olt", "", OK},
        {"no circuit-id index 9", "% Index 9 not exist \n", NO},
        {"show ip dhcp information profile",
         "ip dhcp information profile P1 \n circuit-id index 1 variable slot \n circuit-id index 2 delimiter dot \n"
         " circuit-id index 3 string olt \n circuit-id option format: {slot}.olt \n", OK},
        {"vlan 10", "", OK},
        {"ip dhcp information circuit-id string ab", "% String length is between 3 and 63\n", NO},
        {"ip dhcp information circuit-id profile P2", "% Profile P2 Not existed.\n", NO},
        {"ip dhcp information circuit-id profile P1", "", OK},
        {"ip dhcpv6 option18 interface-id onu-auth", "please config [ip dhcpv6 option18] to enable option18 first \n", NO},
        {"ip verify source ip-address dynamic", "You should enable ip dhcp-snooping first\n", OK},
        {"exit", "", OK},
        {"no ip dhcp information profile P1", "% Profile P1 is in use, can not delete. \n", NO},
        {"interface ge1/1", "", OK},
        {"ip dhcp trust", "", OK},
    });
    EXPECT_EQ(dhcp_vlan_info_get_by_vid(10)->circuit_profile_id, 1);
    EXPECT_EQ(dhcp_vlan_info_get_by_vid(10)->ipverify_mode, 1);
    EXPECT_TRUE(dhcp_port_trust_check(uif_lookup_by_name("ge1/1")));
}

TEST_F(SnoopVty, RunningConfigIsWrittenAndReadBack)
{
    play({
        {"ip dhcp-snooping", "", OK},
        {"ip dhcp max-session 100", "", OK},
        {"ip dhcp information", "", OK},
        {"ip dhcp information access-node-id string OLT7", "", OK},
        {"ip dhcp information client-info drop", "", OK},
        {"ip dhcp reply multicast keep", "", OK},
        {"ip dhcp information profile P1", "", OK},
        {"circuit-id index 1 variable onu", "", OK},
        {"circuit-id index 2 delimiter space", "", OK},
        {"vlan 10", "", OK},
        {"ip dhcp-snooping", "", OK},
        {"ip dhcp information", "", OK},
        {"ip dhcp information circuit-id profile P1", "", OK},
        {"ip dhcp information remote-id sysname", "", OK},
        {"ip dhcpv6 option18", "", OK},
        {"ip dhcpv6 option18 interface-id string if-18", "", OK},
        {"exit", "", OK},
        {"vlan 20", "", OK},
        {"ip verify source ip-address dynamic", "You should enable ip dhcp-snooping first\n", OK},
        {"exit", "", OK},
        {"interface ge1/1", "", OK},
        {"ip dhcp trust", "", OK},
    });
    const std::string want =
        "Current configuration:\n!\n"
        "ip dhcp-snooping \n!\nip dhcp max-session 100 \nip dhcp information \n"
        "ip dhcp information access-node-id string OLT7\nip dhcp information client-info drop\n"
        "ip dhcp reply multicast keep \n"
        "ip dhcp information profile P1 \n circuit-id index 1 variable onu \n circuit-id index 2 delimiter space \n!\n"
        "vlan 10\n ip dhcp-snooping \n ip dhcp information \n ip dhcp information circuit-id profile P1 \n"
        " ip dhcp information remote-id sysname\n ip dhcpv6 option18 \n"
        " ip dhcpv6 option18 interface-id string if-18\n!\n"
        "vlan 20\n ip verify source ip-address dynamic\n!\n"
        "interface ge1/1\n ip dhcp trust\n!\n"
        "end\n";
    std::string before = running();
    EXPECT_EQ(before, want);

    std::string file = "/tmp/dhcp_snoop_vty_" + std::to_string(getpid()) + ".conf";
    std::ofstream(file) << before.substr(before.find('\n') + 1);
    reset();
    EXPECT_EQ(running(), "Current configuration:\n!\nip dhcp max-session 4000 \nend\n");
    EXPECT_EQ(cmd_load_config_file(file.c_str()), 0);
    unlink(file.c_str());
    EXPECT_EQ(running(), before);
}

}  // namespace
