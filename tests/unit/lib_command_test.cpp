// Command engine: token kinds, abbreviation, alternatives, nodes, help,
// configuration writers, loading and saving. Commands are driven as an
// operator would type them, through a buffer vty.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <unistd.h>

#include "lib/command.h"
#include "lib/log.h"
#include "lib/vty.h"

namespace {

std::string g_called;                // grammar of the last command run
std::vector<std::string> g_args;     // its argv
bool g_global_snoop;
std::map<long, bool> g_vlan_snoop;   // VLAN id -> snooping

DEFUN(t_record, t_range_cmd, "t range <2-4094>", "Test\nRange\nVLAN id\n")
{
    g_called = self->string;
    g_args.assign(argv, argv + argc);
    return CMD_SUCCESS;
}
ALIAS(t_record, t_ip_cmd, "t ip A.B.C.D", "Test\nAddress\nIPv4 address\n")
ALIAS(t_record, t_pfx_cmd, "t pfx A.B.C.D/M", "Test\nPrefix\nIPv4 prefix\n")
ALIAS(t_record, t_v6_cmd, "t v6 X:X::X:X", "Test\nAddress\nIPv6 address\n")
ALIAS(t_record, t_mac_cmd, "t mac MMMM-MMMM-MMMM", "Test\nMAC\nMAC address\n")
ALIAS(t_record, t_word_cmd, "t word WORD", "Test\nWord\nAny word\n")
ALIAS(t_record, show_snoop_cmd, "show ip dhcp-snooping ", "Show\nIP\nSnooping\n")
ALIAS(t_record, show_relay_cmd, "show ip dhcp-relay", "Show\nIP\nRelay\n")
ALIAS(t_record, show_relay_if_cmd, "show ip dhcp-relay interface IFNAME", "Show\nIP\nRelay\nInterface\nName\n")
ALIAS(t_record, client_info_cmd, "ip dhcp information client-info (drop|keep|replace)",
      "IP\nDHCP\nOption 82\nClient option 82 policy\nPolicy\n")
ALIAS(t_record, v6_option_cmd, "ip dhcpv6 (option18|option37)", "IP\nDHCPv6\nOption\n")
ALIAS(t_record, delimiter_cmd, "circuit-id index <1-20> delimiter (space|,|/|:|dot)",
      "Circuit id\nTag\nPosition\nDelimiter\nDelimiter character\n")

DEFUN(global_snoop, global_snoop_cmd, "ip dhcp-snooping", "IP\nDHCP snooping\n")
{
    g_global_snoop = true;
    return CMD_SUCCESS;
}

DEFUN(vlan_enter, vlan_enter_cmd, "vlan <1-4094>", "VLAN\nVLAN id\n")
{
    vty->node = VLAN_NODE;
    vty->index_sub = std::atol(argv[0]);
    g_vlan_snoop.emplace(vty->index_sub, false);
    return CMD_SUCCESS;
}

DEFUN(vlan_snoop, vlan_snoop_cmd, "ip dhcp-snooping", "IP\nDHCP snooping on this VLAN\n")
{
    g_vlan_snoop[vty->index_sub] = true;
    return CMD_SUCCESS;
}

DEFUN(refuse, refuse_cmd, "refuse", "Always refused\n")
{
    vty_out(vty, "refused here%s", VTY_NEWLINE);
    return CMD_ERR_REFUSED;
}

DEFUN(bad_help, bad_help_cmd, "bad help (a|b) WORD", "Bad\nHelp\nOne line short\n")
{
    return CMD_SUCCESS;
}

int global_write(vty *vty)
{
    if (g_global_snoop) vty_out(vty, "ip dhcp-snooping%s", VTY_NEWLINE);
    return 0;
}

int vlan_write(vty *vty)
{
    for (auto &[id, on] : g_vlan_snoop) {
        vty_out(vty, "vlan %ld%s", id, VTY_NEWLINE);
        if (on) vty_out(vty, " ip dhcp-snooping%s", VTY_NEWLINE);
        vty_out(vty, "!%s", VTY_NEWLINE);
    }
    return 0;
}

int profile_write(vty *vty)
{
    vty_out(vty, "! profiles%s", VTY_NEWLINE);
    return 0;
}

cmd_node debug_node = {DEBUG_NODE, "%s(config)# ", 1};
cmd_node vlan_node = {VLAN_NODE, "%s(config-vlan)# ", 1};
cmd_node profile_node = {DHCP_OP82_PROFILE_NODE, "%s(config-profile)# ", 1};

class Command : public ::testing::Test {
protected:
    void SetUp() override
    {
        cmd_init(1);
        cmd_set_hostname("olt");
        // Writers registered out of node order on purpose.
        install_node(&profile_node, profile_write);
        install_node(&vlan_node, vlan_write);
        install_node(&debug_node, global_write);
        install_default(VLAN_NODE);
        install_default(DHCP_OP82_PROFILE_NODE);
        for (auto *c : {&t_range_cmd, &t_ip_cmd, &t_pfx_cmd, &t_v6_cmd, &t_mac_cmd, &t_word_cmd, &show_snoop_cmd,
                        &show_relay_cmd, &show_relay_if_cmd})
            install_element(ENABLE_NODE, c);
        for (auto *c : {&client_info_cmd, &v6_option_cmd, &global_snoop_cmd, &vlan_enter_cmd, &refuse_cmd})
            install_element(CONFIG_NODE, c);
        install_element(VLAN_NODE, &vlan_snoop_cmd);
        install_element(DHCP_OP82_PROFILE_NODE, &delimiter_cmd);
        sort_node();
        g_called.clear();
        g_args.clear();
        g_global_snoop = false;
        g_vlan_snoop.clear();
        v = vty_new_buffer(ENABLE_NODE);
        char tmpl[] = "/tmp/lib_command_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override
    {
        vty_free(v);
        std::system(("rm -rf " + dir).c_str());
    }
    int run(const std::string &line, node_type node)
    {
        v->node = node;
        return run(line);
    }
    int run(const std::string &line)
    {
        v->out.clear();
        g_called.clear();
        g_args.clear();
        return cmd_execute(v, line);
    }
    static std::string read_file(const std::string &path)
    {
        std::ifstream f(path);
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }
    vty *v = nullptr;
    std::string dir;
};

TEST_F(Command, ValueTokensAcceptTheirFormatUpToTheBoundaries)
{
    struct { const char *line; bool ok; } cases[] = {
        {"t range 2", true},          {"t range 4094", true},       {"t range 1", false},
        {"t range 4095", false},      {"t range 12x", false},       {"t range 99999999999999999999", false},
        {"t ip 1.2.3.4", true},       {"t ip 255.255.255.255", true}, {"t ip 256.1.1.1", false},
        {"t ip 1.2.3", false},        {"t ip 1.2.3.4.5", false},    {"t ip 1..2.3", false},
        {"t ip 1.2.3.", false},       {"t pfx 10.0.0.0/8", true},   {"t pfx 10.0.0.0/32", true},
        {"t pfx 10.0.0.0/33", false}, {"t pfx 10.0.0.0", false},    {"t pfx 10.0.0.0/", false},
        {"t v6 2001:db8::1", true},   {"t v6 ::", true},            {"t v6 2001:db8::g", false},
        {"t v6 1.2.3.4", false},      {"t mac 0011-22aa-BBcc", true}, {"t mac 0011-22aa-bbc", false},
        {"t mac 001122aabbcc", false}, {"t mac 0011-22aa-bbcg", false}, {"t mac 0011:22aa:bbcc", false},
        {"t word any-thing/1", true},
    };
    for (auto &c : cases) {
        int ret = run(c.line, ENABLE_NODE);
        EXPECT_EQ(ret == CMD_SUCCESS, c.ok) << c.line;
        if (!c.ok) { EXPECT_EQ(v->out, "% Unknown command.\n") << c.line; }
    }
    run("t mac 0011-22aa-BBcc");
    EXPECT_EQ(g_args, std::vector<std::string>{"0011-22aa-BBcc"});
}

TEST_F(Command, KeywordsMatchByUniquePrefixAndExactBeatsPrefix)
{
    EXPECT_EQ(run("sh ip dhcp-r", ENABLE_NODE), CMD_SUCCESS);
    EXPECT_EQ(g_called, "show ip dhcp-relay");
    EXPECT_EQ(run("sh i dhcp-s"), CMD_SUCCESS);
    EXPECT_EQ(g_called, "show ip dhcp-snooping ");

    EXPECT_EQ(run("show ip dhcp"), CMD_ERR_AMBIGUOUS);
    EXPECT_EQ(v->out, "% Ambiguous command.\n");
    EXPECT_EQ(run("show ip"), CMD_ERR_INCOMPLETE);
    EXPECT_EQ(v->out, "% Command incomplete.\n");
    EXPECT_EQ(run("show ip dhcp-relay interface"), CMD_ERR_INCOMPLETE);
    EXPECT_EQ(run("show ip dhcp-relay interface gpon0/1 extra"), CMD_ERR_NO_MATCH);
    EXPECT_EQ(run("show ip dhcp-relay int gpon0/1"), CMD_SUCCESS);
    EXPECT_EQ(g_args, std::vector<std::string>{"gpon0/1"});

    // "ip dhcp ..." exists next to "ip dhcpv6 ...": the exact word wins.
    EXPECT_EQ(run("ip dhcp information client-info keep", CONFIG_NODE), CMD_SUCCESS);
    EXPECT_EQ(g_called, "ip dhcp information client-info (drop|keep|replace)");
    EXPECT_EQ(run("ip dhcp"), CMD_ERR_INCOMPLETE);
    EXPECT_EQ(run("ip dhcp-snooping"), CMD_SUCCESS);
    // A variable takes any word, even one spelled like a keyword.
    EXPECT_EQ(run("t word word", ENABLE_NODE), CMD_SUCCESS);
    EXPECT_EQ(g_args, std::vector<std::string>{"word"});
}

TEST_F(Command, AlternativesPassTheTypedWord)
{
    EXPECT_EQ(run("ip dhcp information client-info k", CONFIG_NODE), CMD_SUCCESS);
    EXPECT_EQ(g_args, std::vector<std::string>{"k"});
    EXPECT_EQ(run("ip dhcp information client-info replace"), CMD_SUCCESS);
    EXPECT_EQ(g_args, std::vector<std::string>{"replace"});
    EXPECT_EQ(run("ip dhcp information client-info x"), CMD_ERR_NO_MATCH);

    EXPECT_EQ(run("ip dhcpv6 option"), CMD_ERR_AMBIGUOUS);
    EXPECT_EQ(run("ip dhcpv6 option3"), CMD_SUCCESS);
    EXPECT_EQ(g_args, std::vector<std::string>{"option3"});

    // Members made of punctuation; a range before the alternative.
    for (const char *d : {",", "/", ":", "dot", "d", "sp"}) {
        EXPECT_EQ(run(std::string("circuit-id index 20 delimiter ") + d, DHCP_OP82_PROFILE_NODE), CMD_SUCCESS) << d;
        EXPECT_EQ(g_args, (std::vector<std::string>{"20", d}));
    }
    EXPECT_EQ(run("circuit-id index 21 delimiter dot"), CMD_ERR_NO_MATCH);
}

TEST_F(Command, NodesMoveWithConfigureExitEndAndFallBackToTheParent)
{
    v->node = ENABLE_NODE;
    EXPECT_EQ(cmd_prompt(v), "olt# ");
    EXPECT_EQ(run("ip dhcp-snooping"), CMD_ERR_NO_MATCH);  // configuration needs "configure terminal"
    EXPECT_EQ(run("conf t"), CMD_SUCCESS);
    EXPECT_EQ(v->node, CONFIG_NODE);
    EXPECT_EQ(cmd_prompt(v), "olt(config)# ");
    // Registration sets are deliberate: an ENABLE-only show is not offered here.
    EXPECT_EQ(run("show ip dhcp-relay"), CMD_ERR_NO_MATCH);
    EXPECT_EQ(run("do show ip dhcp-relay"), CMD_SUCCESS);
    EXPECT_EQ(v->node, CONFIG_NODE);

    EXPECT_EQ(run("vlan 10"), CMD_SUCCESS);
    EXPECT_EQ(v->node, VLAN_NODE);
    EXPECT_EQ(cmd_prompt(v), "olt(config-vlan)# ");
    EXPECT_EQ(run("ip dhcp-snooping"), CMD_SUCCESS);  // the VLAN's command, not the global one
    EXPECT_TRUE(g_vlan_snoop[10]);
    EXPECT_FALSE(g_global_snoop);
    EXPECT_EQ(run("do show ip dhcp-relay"), CMD_SUCCESS);
    EXPECT_EQ(v->node, VLAN_NODE);

    // A parent command that fails leaves the operator where they were.
    EXPECT_EQ(run("refuse"), CMD_ERR_REFUSED);
    EXPECT_EQ(v->out, "refused here\n");
    EXPECT_EQ(v->node, VLAN_NODE);
    EXPECT_EQ(v->index_sub, 10);
    // A parent command that succeeds moves the session to the parent...
    EXPECT_EQ(run("hostname olt2"), CMD_SUCCESS);
    EXPECT_EQ(v->node, CONFIG_NODE);
    EXPECT_STREQ(cmd_hostname(), "olt2");
    // ... or wherever its handler goes.
    EXPECT_EQ(run("vlan 20"), CMD_SUCCESS);
    EXPECT_EQ(run("vlan 30"), CMD_SUCCESS);
    EXPECT_EQ(v->node, VLAN_NODE);
    EXPECT_EQ(v->index_sub, 30);
    EXPECT_EQ(run("bogus"), CMD_ERR_NO_MATCH);
    EXPECT_EQ(v->out, "% Unknown command.\n");

    EXPECT_EQ(run("exit"), CMD_SUCCESS);
    EXPECT_EQ(v->node, CONFIG_NODE);
    EXPECT_EQ(v->index_sub, 0);
    EXPECT_EQ(run("vlan 30"), CMD_SUCCESS);
    EXPECT_EQ(run("end"), CMD_SUCCESS);
    EXPECT_EQ(v->node, ENABLE_NODE);
    EXPECT_EQ(run("configure terminal"), CMD_SUCCESS);
    EXPECT_EQ(run("exit"), CMD_SUCCESS);
    EXPECT_EQ(v->node, ENABLE_NODE);
    EXPECT_FALSE(v->close_requested);
    EXPECT_EQ(run("exit"), CMD_SUCCESS);
    EXPECT_TRUE(v->close_requested);
}

TEST_F(Command, DescribeAndCompleteOfferTheNextTokens)
{
    v->node = ENABLE_NODE;
    using item = std::pair<std::string, std::string>;
    EXPECT_EQ(cmd_describe(v, "configure "), (std::vector<item>{{"terminal", "Configuration terminal"}}));
    EXPECT_EQ(cmd_describe(v, "show ip dhcp-relay "),
              (std::vector<item>{{"interface", "Interface"}, {"<cr>", ""}}));
    EXPECT_EQ(cmd_describe(v, "show ip dhcp-relay interface "), (std::vector<item>{{"IFNAME", "Name"}}));
    EXPECT_EQ(cmd_describe(v, "t ip 10.1"), (std::vector<item>{{"A.B.C.D", "IPv4 address"}}));
    EXPECT_TRUE(cmd_describe(v, "t ip 10.x").empty());
    EXPECT_EQ(cmd_describe(v, "sh ip dhcp-s"), (std::vector<item>{{"dhcp-snooping", "Snooping"}}));

    int status = 0;
    EXPECT_TRUE(cmd_describe(v, "show ip dhcp ", &status).empty());
    EXPECT_EQ(status, CMD_ERR_AMBIGUOUS);
    EXPECT_TRUE(cmd_describe(v, "nothing ", &status).empty());
    EXPECT_EQ(status, CMD_ERR_NO_MATCH);

    v->node = CONFIG_NODE;
    EXPECT_EQ(cmd_describe(v, "ip dhcp information client-info "),
              (std::vector<item>{{"drop", "Policy"}, {"keep", "Policy"}, {"replace", "Policy"}}));
    EXPECT_EQ(cmd_complete(v, "ip dhcp information client-info "),
              (std::vector<std::string>{"drop", "keep", "replace"}));
    EXPECT_EQ(cmd_complete(v, "ip dhcp information client-info k"), std::vector<std::string>{"keep"});
    EXPECT_EQ(cmd_complete(v, "ip dhcpv6 o"), (std::vector<std::string>{"option18", "option37"}));
    EXPECT_EQ(cmd_complete(v, "ip dh"), (std::vector<std::string>{"dhcp", "dhcp-snooping", "dhcpv6"}));
    EXPECT_EQ(cmd_complete(v, "do con"), std::vector<std::string>{"configure"});
    EXPECT_EQ(cmd_complete(v, "vlan "), std::vector<std::string>{});  // only a range follows
}

TEST_F(Command, HelpVerificationFindsCommandsWithTheWrongNumberOfHelpLines)
{
    EXPECT_EQ(cmd_verify_help(), 0);  // an alternative counts as one token
    install_element(CONFIG_NODE, &bad_help_cmd);
    install_element(VLAN_NODE, &bad_help_cmd);  // counted once
    EXPECT_EQ(cmd_verify_help(), 1);
}

TEST_F(Command, RunningConfigWritesHostnameThenNodesInNodeOrder)
{
    run("configure terminal", ENABLE_NODE);
    run("hostname olt1");
    run("ip dhcp-snooping");
    run("vlan 10");
    run(" ip dhcp-snooping");
    run("end");
    run("show running-config");
    EXPECT_EQ(v->out,
              "Current configuration:\n"
              "!\n"
              "hostname olt1\n"
              "!\n"
              "ip dhcp-snooping\n"    // DEBUG_NODE
              "vlan 10\n"             // VLAN_NODE
              " ip dhcp-snooping\n"
              "!\n"
              "! profiles\n"          // DHCP_OP82_PROFILE_NODE
              "end\n");
}

TEST_F(Command, LoadingReportsTheFailingLineAndAppliesTheRest)
{
    std::string cfg = dir + "/startup.conf", log = dir + "/log";
    std::ofstream(cfg) << "!\n"
                          "hostname olt9\n"
                          "vlan 10\n"
                          " ip dhcp-snooping\n"
                          " bogus line\r\n"
                          "!\n"
                          "ip dhcp-snooping\n"
                          "# comment\n"
                          "vlan 5000\n"
                          "vlan 20\n"
                          "refuse\n";
    ASSERT_TRUE(zlog_set_file(log.c_str()));
    EXPECT_EQ(cmd_load_config_file(cfg.c_str()), 3);
    zlog_set_file(nullptr);
    EXPECT_STREQ(cmd_hostname(), "olt9");
    EXPECT_TRUE(g_global_snoop);
    EXPECT_TRUE(g_vlan_snoop[10]);
    EXPECT_FALSE(g_vlan_snoop[20]);
    std::string text = read_file(log);
    EXPECT_NE(text.find(cfg + ":5: bogus line: % Unknown command."), std::string::npos) << text;
    EXPECT_NE(text.find(cfg + ":9: vlan 5000: % Unknown command."), std::string::npos) << text;
    EXPECT_NE(text.find(cfg + ":11: refuse: refused here"), std::string::npos) << text;
    EXPECT_EQ(cmd_load_config_file((dir + "/missing").c_str()), -1);
}

TEST_F(Command, WriteMemoryRoundTrips)
{
    std::string cfg = dir + "/dhcp.conf";
    cmd_set_config_file(cfg.c_str());
    run("configure terminal", ENABLE_NODE);
    run("hostname box");
    run("vlan 7");
    run("ip dhcp-snooping");
    run("vlan 8");
    run("write memory");
    EXPECT_EQ(v->out, "Configuration saved to " + cfg + "\n[OK]\n");
    EXPECT_EQ(read_file(cfg), "!\nhostname box\n!\nvlan 7\n ip dhcp-snooping\n!\nvlan 8\n!\n! profiles\nend\n");
    run("show running-config");
    std::string before = v->out;

    g_vlan_snoop.clear();
    cmd_set_hostname("other");
    EXPECT_EQ(cmd_load_config_file(cfg.c_str()), 0);
    run("show running-config", ENABLE_NODE);
    EXPECT_EQ(v->out, before);

    cmd_set_config_file((dir + "/no/such/dir/dhcp.conf").c_str());
    EXPECT_EQ(run("write file"), CMD_WARNING);
    EXPECT_EQ(v->out, "% Can't open configuration file " + dir + "/no/such/dir/dhcp.conf.\n");
}

} // namespace
