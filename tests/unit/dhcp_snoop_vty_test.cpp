// Snooping, profile, VLAN and port commands as an operator types them:
// command -> exact output and result, and the configuration written, cleared
// and read back.
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
#include "dhcp/dhcp_vty.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_snoop_vty.h"
#include "lib/command.h"
#include "lib/vty.h"
#include "tests/support/hal_session.h"

namespace {

class DhcpSnoopVty : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(hal_.start("snoopvty_" + std::to_string(getpid())));
        cmd_init(1);
        dev_vty_init();
        dhcp_vty_init();  // the port node and its writer
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
        for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id) dhcp_option_free_profile(id);
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
    // The device as the manager reports it: VLANs 1, 10 and 20, one GE port.
    void reset()
    {
        wipe();
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        g_dhcp_global_cfg.relay_enable = 0;
        for (std::uint16_t vid : {1, 10, 20}) uvlan_create(vid), dhcp_vlan_init(vid);
        uif_t *p = uif_get_or_create(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0), true);
        uif_set_name(p, "ge1/1");
        dhcp_port_init(p);
        v->node = CONFIG_NODE;
    }
    void run(const char *cmd, const char *out = "", int rc = CMD_SUCCESS)
    {
        SCOPED_TRACE(cmd);
        v->out.clear();
        EXPECT_EQ(cmd_execute(v, cmd), rc);
        EXPECT_EQ(v->out, out);
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

TEST_F(DhcpSnoopVty, RunningConfigIsWrittenAndReadBack)
{
    // Refused while snooping is off; the session limit has its range.
    run("no ip dhcp information access-node-id", "dhcp-snooping is not enable\n", CMD_ERR_REFUSED);
    run("ip dhcp information client-info keep", "dhcp-snooping is not enable\n", CMD_ERR_REFUSED);
    run("ip dhcp max-session 4", "% Unknown command.\n", CMD_ERR_NO_MATCH);
    for (const char *cmd : {"ip dhcp-snooping", "ip dhcp max-session 100", "ip dhcp information",
                            "ip dhcp information access-node-id string OLT7", "ip dhcp information client-info drop",
                            "ip dhcp reply multicast keep", "ip dhcp information profile P1",
                            "circuit-id index 1 variable onu", "circuit-id index 2 delimiter space",
                            "circuit-id index 3 string olt", "vlan 10", "ip dhcp-snooping", "ip dhcp information",
                            "ip dhcp information circuit-id profile P1", "ip dhcp information remote-id sysname",
                            "ip dhcpv6 option18", "ip dhcpv6 option18 interface-id string if-18", "exit", "vlan 20"})
        run(cmd);
    run("ip verify source ip-address dynamic", "You should enable ip dhcp-snooping first\n");
    for (const char *cmd : {"exit", "interface ge1/1", "ip dhcp trust"}) run(cmd);

    const std::string before = running();
    EXPECT_EQ(before,
              "Current configuration:\n!\n"
              "ip dhcp-snooping \n!\nip dhcp max-session 100 \nip dhcp information \n"
              "ip dhcp information access-node-id string OLT7\nip dhcp information client-info drop\n"
              "ip dhcp reply multicast keep \n"
              "ip dhcp information profile P1 \n circuit-id index 1 variable onu \n"
              " circuit-id index 2 delimiter space \n circuit-id index 3 string olt \n!\n"
              "vlan 10\n ip dhcp-snooping \n ip dhcp information \n ip dhcp information circuit-id profile P1 \n"
              " ip dhcp information remote-id sysname\n ip dhcpv6 option18 \n"
              " ip dhcpv6 option18 interface-id string if-18\n!\n"
              "vlan 20\n ip verify source ip-address dynamic\n!\n"
              "interface ge1/1\n ip dhcp trust\n!\n"
              "end\n");
    std::string file = "/tmp/dhcp_snoop_vty_" + std::to_string(getpid()) + ".conf";
    std::ofstream(file) << before.substr(before.find('\n') + 1);
    reset();
    EXPECT_EQ(running(), "Current configuration:\n!\nip dhcp max-session 4000 \nend\n");
    EXPECT_EQ(cmd_load_config_file(file.c_str()), 0);
    unlink(file.c_str());
    EXPECT_EQ(running(), before);
}

}  // namespace
