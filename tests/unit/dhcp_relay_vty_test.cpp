// Relay and interface commands as an operator types them: command -> exact
// output, result and node; the shows; the configuration written and read back.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <unistd.h>
#include <fstream>
#include <string>
#include <vector>

#include "devlib/dev_vty.h"
#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_if.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_snoop_vty.h"
#include "dhcp/dhcp_vty.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_vty.h"
#include "lib/command.h"
#include "lib/vty.h"
#include "tests/support/hal_session.h"

namespace {

const std::string NO_RELAY = "% No dhcp-relay be configured at this interface\n";
const std::string MAX_RELAY = "%Can not enable, maximum dhcp relay interface count 16 reach. \n";

struct row {
    std::string cmd, out;
    int rc = CMD_SUCCESS;
    node_type node = INTERFACE_NODE;  // where the session is afterwards
};

prefix v4(const char *addr, int len)
{
    prefix p{};
    p.family = AF_INET;
    p.prefixlen = std::uint8_t(len);
    inet_pton(AF_INET, addr, &p.u.prefix4);
    return p;
}

class DhcpRelayVty : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(hal_.start("relayvty_" + std::to_string(getpid())));
        cmd_init(1);
        dev_vty_init();
        dhcp_l3if_init();
        dhcp_vty_init();
        dhcp_debug_init();
        dhcpr_vty_init();
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
        dhcp_l3if_clear();
        g_dhcpr_vlanif_count = 0;
        g_dhcp_global_cfg.relay_enable = 0;
        g_dhcp_debug = 0;
        dhcp_client_tree_destroy();
        for (uif_t *p = uif_first(); p; p = uif_next(p)) dhcp_port_deinit(p);
        for (std::uint16_t vid = 1; vid <= 4094; ++vid) dhcp_vlan_free(vlan_get_entry(vid));
        uvlan_clear();
        uif_clear();
    }
    // VLANs 10 and 20 and one uplink port, as the device manager reports them.
    void reset()
    {
        wipe();
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        for (std::uint16_t vid : {10, 20}) uvlan_create(vid), dhcp_vlan_init(vid);
        uif_t *p = uif_get_or_create(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0), true);
        uif_set_name(p, "ge1/1");
        dhcp_port_init(p);
        v->node = CONFIG_NODE;
        v->index = nullptr;
    }
    void run(const std::vector<row> &rows)
    {
        for (const row &r : rows) {
            SCOPED_TRACE(r.cmd);
            v->out.clear();
            EXPECT_EQ(cmd_execute(v, r.cmd), r.rc);
            EXPECT_EQ(v->out, r.out);
            EXPECT_EQ(v->node, r.node);
        }
    }
    // Runs commands that must pass silently, wherever they leave the session.
    void quiet(const std::vector<std::string> &cmds)
    {
        for (const std::string &c : cmds) {
            SCOPED_TRACE(c);
            v->out.clear();
            EXPECT_EQ(cmd_execute(v, c), CMD_SUCCESS);
            EXPECT_EQ(v->out, "");
        }
    }
    std::string show(const std::string &cmd)
    {
        vty *s = vty_new_buffer(ENABLE_NODE);
        cmd_execute(s, cmd);
        std::string out = s->out;
        vty_free(s);
        return out;
    }
    std::string running() { return show("show running-config"); }

    hal_session hal_;
    vty *v = nullptr;
};

TEST_F(DhcpRelayVty, InterfaceCommandByKindOfName)
{
    quiet({"interface vlanif10", "ip dhcp relay-agent", "ip dhcp relay-server-address 10.1.1.1"});
    interface *ifp = if_lookup_by_name("vlanif10");
    ASSERT_NE(ifp, nullptr);
    void *record = ifp->info;
    const std::string long_name = "vlanif" + std::string(20, '9');
    run({
        {"interface ge1/1", "", CMD_SUCCESS, IF_NODE},
        {"interface lo:1", ""},
        {"interface eth1", ""},
        {"interface gpon1/1/9", "% Interface gpon1/1/9 does not exist\n", CMD_ERR_REFUSED, INTERFACE_NODE},
        {"exit", "", CMD_SUCCESS, CONFIG_NODE},
        {"interface " + long_name, "% dhcp Can't find interface " + long_name + "\n", CMD_WARNING, CONFIG_NODE},
        {"no interface vlanif10", "", CMD_SUCCESS, CONFIG_NODE},
        {"no interface nothing", "", CMD_SUCCESS, CONFIG_NODE},
        {"interface vlanif10", ""},
    });
    // Only VLAN interfaces get a DHCP record; the shell's interfaces do not.
    EXPECT_FALSE(dhcp_if_is_intialized(if_lookup_by_name("lo:1")));
    EXPECT_FALSE(dhcp_if_is_intialized(if_lookup_by_name("eth1")));
    EXPECT_EQ(if_lookup_by_name("ge1/1"), nullptr);
    EXPECT_EQ(if_lookup_by_name("gpon1/1/9"), nullptr);
    // "no interface" and entering again keep the record and its relay.
    EXPECT_EQ(if_lookup_by_name("vlanif10"), ifp);
    EXPECT_EQ(ifp->info, record);
    EXPECT_EQ(if_count(), 3u);
    EXPECT_TRUE(dhcpr_relay_is_enable_on_interface(ifp));
    EXPECT_EQ(dhcpr_get_relay_server_ipv4_count(dhcpr_info_get_by_interface(ifp)), 1u);
}

TEST_F(DhcpRelayVty, AgentAndServerRefusals)
{
    quiet({"interface vlanif10"});
    run({
        {"ip dhcp relay-server-address 10.1.1.1", NO_RELAY, CMD_ERR_REFUSED},
        {"no ip dhcp relay-server-address 10.1.1.1", NO_RELAY, CMD_ERR_REFUSED},
        {"no ip dhcp relay-agent", NO_RELAY, CMD_ERR_REFUSED},
        {"no ip dhcpv6 relay-agent", NO_RELAY, CMD_ERR_REFUSED},
        {"ip dhcp relay-server-address 1.2.3.256", "% Unknown command.\n", CMD_ERR_NO_MATCH},
        {"ip dhcp relay-agent", ""},
        {"ip dhcp relay-server-address 10.1.1.1", ""},
        {"ip dhcp relay-server-address 10.1.1.1", ""},
        {"ip dhcp relay-server-address 10.1.1.2", ""},
        // Each family needs its own agent.
        {"ip dhcpv6 relay-server-address 2001:db8::1", NO_RELAY, CMD_ERR_REFUSED},
        {"no ip dhcpv6 relay-server-address 2001:db8::1", NO_RELAY, CMD_ERR_REFUSED},
        {"ip dhcpv6 relay-agent", ""},
        // Told, but answered with success.
        {"ip dhcpv6 relay-server-address ::", "the address  :: is unspecified ,can not be a dhcpv6 server ip \n"},
        {"ip dhcpv6 relay-server-address ::1", "the address  ::1 is loopback,can not be a dhcpv6 server ip \n"},
        {"ip dhcpv6 relay-server-address ff02::1:2", "the address ff02::1:2 is multicast ,can not be a dhcpv6 server ip\n"},
        {"ip dhcpv6 relay-server-address 2001:db8::1", ""},
        {"no ip dhcp relay-server-address 10.9.9.9", ""},
    });
    const dhcpr_t *dhcpr = dhcpr_info_get_by_interface(if_lookup_by_name("vlanif10"));
    ASSERT_NE(dhcpr, nullptr);
    EXPECT_EQ(dhcpr_get_relay_server_ipv4_count(dhcpr), 2u);
    EXPECT_EQ(dhcpr_get_relay_server_ipv6_count(dhcpr), 1u);

    // Another DHCP role on the interface, and interfaces without a DHCP record.
    quiet({"interface vlanif20"});
    const std::string OTHER_ROLE = "%The interface has configure dhcp, undo it first\n";
    dhcp_info_t *info = dhcp_if_info(if_lookup_by_name("vlanif20"));
    info->v4_type = 2;
    run({{"ip dhcp relay-agent", OTHER_ROLE, CMD_ERR_REFUSED}});
    info->v4_type = 0, info->v6_type = 4;
    run({{"ip dhcpv6 relay-agent", OTHER_ROLE, CMD_ERR_REFUSED}});
    quiet({"interface lo:1"});
    run({{"ip dhcp relay-agent", MAX_RELAY, CMD_ERR_REFUSED}, {"no ip dhcp relay-agent", NO_RELAY, CMD_ERR_REFUSED}});
}

TEST_F(DhcpRelayVty, RelayInterfaceCap)
{
    for (int vid = 100; vid < 100 + DHCPR_VLANIF_MAX; ++vid) {
        uvlan_create(std::uint16_t(vid));
        dhcp_vlan_init(std::uint16_t(vid));
        quiet({"interface vlanif" + std::to_string(vid), "ip dhcp relay-agent"});
    }
    EXPECT_EQ(g_dhcpr_vlanif_count, std::uint32_t(DHCPR_VLANIF_MAX));
    run({
        {"interface vlanif10", ""},
        {"ip dhcp relay-agent", MAX_RELAY, CMD_ERR_REFUSED},
        {"ip dhcpv6 relay-agent", MAX_RELAY, CMD_ERR_REFUSED},
        // An agent already in force is not a new one.
        {"interface vlanif100", ""},
        {"ip dhcp relay-agent", ""},
        {"no ip dhcp relay-agent", ""},
        {"interface vlanif10", ""},
        {"ip dhcp relay-agent", ""},
    });
    EXPECT_EQ(g_dhcpr_vlanif_count, std::uint32_t(DHCPR_VLANIF_MAX));
}

TEST_F(DhcpRelayVty, RelayShows)
{
    EXPECT_EQ(show("show ip dhcp-relay"), " dhcp-relay is disable \n");
    EXPECT_EQ(show("show ip dhcp-relay interface"), " dhcp-relay is disable \n");
    quiet({"ip dhcp-relay", "ip dhcp-relay", "interface vlanif10"});
    interface *ifp = if_lookup_by_name("vlanif10");
    prefix a = v4("10.0.0.1", 24), b = v4("10.0.1.1", 24);
    dhcp_interface_address_add(ifp, &a);
    dhcp_interface_address_add(ifp, &b);
    quiet({"ip dhcp relay-agent", "ip dhcp relay-server-address 10.1.1.1", "ip dhcp relay-server-address 10.1.1.2",
           "ip dhcpv6 relay-agent", "ip dhcpv6 relay-server-address 2001:db8::1", "interface vlanif20", "exit",
           "interface eth1"});
    dhcpr_t *dhcpr = dhcpr_info_get_by_interface(ifp);
    ASSERT_NE(dhcpr, nullptr);
    dhcpr->local_ipaddr = a.u.prefix4.s_addr;
    relay_server_info_t *s1 = dhcpr->server_list.front();
    s1->tx_discovery = 7, s1->rx_offer = 6, s1->tx_request = 5, s1->rx_ack = 4, s1->tx_release = 3;
    ASSERT_FALSE(dhcpr->relay_ip_list.empty());
    relay_ip_info_t *r1 = dhcpr->relay_ip_list.front();
    r1->tx_discovery = 9, r1->rx_offer = 8, r1->tx_request = 2, r1->rx_ack = 1;

    EXPECT_EQ(show("show ip dhcp-relay"), " dhcp-relay is enable \n");
    const std::string rule(87, '=');
    EXPECT_EQ(show("show ip dhcp-relay interface"),
              " Interface     Major IP           Relay Enable        Relay Server \n" + rule + "\n"
              " vlanif10      10.0.0.1              enable           10.1.1.1           \n"
              "                                                      10.1.1.2           \n"
              "                                                      2001:db8::1      \n"
              " vlanif20        N/A                 disable          N/A              \n");
    EXPECT_EQ(show("show ip dhcp-relay interface vlanif10"),
              " interface    :  vlanif10 \n"
              " dhcp-relay   :  enable \n"
              " interface ipv4 address : \n"
              "   [ 1]         10.0.0.1/24 \n"
              "   [ 2]         10.0.1.1/24 \n"
              " ipv4 address : 10.0.0.1 \n"
              " relay ipv4 address : 10.0.0.1 \n"
              " relay gateway ipv4 address : fd " + std::string(dhcpr->server_fd < 10 && dhcpr->server_fd >= 0 ? " " : "") +
                  std::to_string(dhcpr->server_fd) + " \n"
              "   [ 1]         10.0.0.1/24 discovery[9] offer[8] request[2] ack[1]\n"
              "   [ 2]         10.0.1.1/24 discovery[0] offer[0] request[0] ack[0]\n"
              " relay-server :\n"
              "   [ 1]         10.1.1.1 discovery[7] offer[6] request[5] ack[4] release[3] \n"
              "   [ 2]         10.1.1.2 discovery[0] offer[0] request[0] ack[0] release[0] \n"
              "   [ 3]      2001:db8::1 discovery[0] offer[0] request[0] ack[0] release[0] \n");
    EXPECT_EQ(show("show ip dhcp-relay interface vlanif20"),
              " interface    :  vlanif20 \n dhcp-relay   :  disable \n interface ipv4 address : \n"
              " ipv4 address : N/A \n relay-server :               N/A\n");
    EXPECT_EQ(show("show ip dhcp-relay interface vlanif99"), "% interface vlanif99 not existed. \n");
    EXPECT_EQ(show("show ip dhcp-relay server-address"),
              " current dhcp relay interface 2 \n"
              "interface vlanif10 ip 10.0.0.1 mac 0000-0000-0000 \n"
              " dhcp relay-server 10.1.1.1\n dhcp relay-server 10.1.1.2\n dhcp relay-server 2001:db8::1\n");
}

TEST_F(DhcpRelayVty, InterfaceShowsIfindexInDecimalBehindHexPrefix)
{
    quiet({"interface vlanif10", "ip dhcp relay-agent", "ip dhcp relay-server-address 10.1.1.1", "interface vlanif20",
           "interface eth1", "interface vlanif30", "ip dhcp relay-agent"});
    interface *mgmt = if_get_by_name("mgmt0");
    ASSERT_EQ(dhcp_if_init(mgmt), 0);
    interface *ifp = if_lookup_by_name("vlanif10");
    dhcpr_info_get_by_interface(ifp)->local_ipaddr = v4("10.0.0.1", 32).u.prefix4.s_addr;
    // Kept on purpose: a decimal index behind "0x".
    ifp->ifindex = 26;
    ifp->uifindex = 0x6000a;
    ifp->flags = 0x1;
    prefix a = v4("10.0.0.1", 24);
    dhcp_interface_address_add(ifp, &a);

    EXPECT_EQ(show("show ip dhcp interface"),
              "  interface      dhcp-relay      relay-gateway  \n"
              "------------------------------------------------\n"
              "  vlanif10         enable         10.0.0.1           \n"
              "  vlanif20         disable \n"
              "  eth1             disable \n"
              "  vlanif30         enable   \n");
    EXPECT_EQ(show("show ip dhcp interface vlanif10"),
              "  ifindex     :  0x26  \n"
              "  uifindex    :  0x6000a  \n"
              "  flags       :  0x1 <UP>  \n"
              "  ipv4        :  10.0.0.1/24  \n"
              " dhcp relay is enable. \n"
              "  helper count  :  1  \n");
    EXPECT_TRUE(show("show ip dhcp interface eth1").ends_with("\n dhcp is disable. \n"));
    EXPECT_TRUE(show("show ip dhcp interface vlanif20").ends_with("\n dhcp relay is disable. \n"));
    run({{"show ip dhcp interface nope", "% interface nope not existed. \n", CMD_ERR_REFUSED}});
    // The diagnose switch adds the interface's fields and the relay's internals.
    g_dhcp_debug = DHCP_DEBUG_DIAGNOSE;
    const std::string diag = show("show ip dhcp interface vlanif10");
    for (const char *line : {"  status      :  ", "  hw_addrlen  :  ", "  bandwidth   :  ", "  dhcp ifp    :  ",
                             "  server_fd   :  ", "  server_t    :  ", "  ip          :  10.0.0.1  \n"})
        EXPECT_NE(diag.find(line), std::string::npos) << line;
}

TEST_F(DhcpRelayVty, RunningConfigIsWrittenAndReadBack)
{
    quiet({"ip dhcp-snooping", "interface ge1/1", "ip dhcp trust", "ip dhcp-relay", "interface vlanif10",
           "ip dhcp relay-agent", "ip dhcp relay-server-address 10.1.1.1", "ip dhcpv6 relay-agent",
           "ip dhcpv6 relay-server-address 2001:db8::1", "ip dhcp relay-server-address 10.1.1.2", "interface vlanif20",
           "ip dhcpv6 relay-agent", "interface vlanif30", "interface eth1", "interface lo:1"});
    // Interfaces named "eth..." are never written, even with a record.
    ASSERT_EQ(dhcp_if_init(if_lookup_by_name("eth1")), 0);
    const std::string before = running();
    EXPECT_EQ(before,
              "Current configuration:\n!\n"
              "ip dhcp-snooping \n!\nip dhcp max-session 4000 \n"
              "!\nip dhcp-relay \n!\n"
              "interface ge1/1\n ip dhcp trust\n!\n"
              "interface vlanif10\n ip dhcp relay-agent \n ip dhcpv6 relay-agent \n"
              " ip dhcp relay-server-address 10.1.1.1\n ip dhcpv6 relay-server-address 2001:db8::1\n"
              " ip dhcp relay-server-address 10.1.1.2\n"
              "interface vlanif20\n ip dhcpv6 relay-agent \n"
              "interface vlanif30\n"
              "end\n");
    std::string file = "/tmp/dhcp_relay_vty_" + std::to_string(getpid()) + ".conf";
    std::ofstream(file) << before.substr(before.find('\n') + 1);
    reset();
    dhcp_snoop_enable_set(0);
    EXPECT_EQ(running(), "Current configuration:\n!\nip dhcp max-session 4000 \nend\n");
    EXPECT_EQ(cmd_load_config_file(file.c_str()), 0);
    unlink(file.c_str());
    EXPECT_EQ(running(), before);
}

TEST_F(DhcpRelayVty, GlobalSwitchCascade)
{
    quiet({"interface ge1/1", "ip dhcp trust", "ip dhcp-relay", "interface vlanif10", "ip dhcp relay-agent",
           "ip dhcp relay-server-address 10.1.1.1", "exit"});
    const std::string trusted = "  ge1/1            support       trust    \n";
    EXPECT_NE(show("show ip dhcp port").find(trusted), std::string::npos);
    // A second "on" changes nothing; "off" takes every agent and its servers.
    quiet({"ip dhcp-relay"});
    EXPECT_EQ(g_dhcpr_vlanif_count, 1u);
    const std::uint64_t servers = MTYPE_DHCP_SERVER.n_alloc;
    quiet({"no ip dhcp-relay"});
    EXPECT_FALSE(dhcpr_relay_is_enable_on_interface(if_lookup_by_name("vlanif10")));
    EXPECT_EQ(dhcpr_info_get_by_interface(if_lookup_by_name("vlanif10")), nullptr);
    EXPECT_EQ(MTYPE_DHCP_SERVER.n_alloc, servers - 1);
    EXPECT_EQ(g_dhcpr_vlanif_count, 0u);
    // With snooping off, nothing keeps the uplink trusted.
    EXPECT_NE(show("show ip dhcp port").find("  ge1/1            support    un-trust    \n"), std::string::npos);
}

}  // namespace
