// Command engine: token kinds, abbreviation, alternatives, nodes, help,
// configuration writers, loading and saving. Commands are driven as an
// operator would type them, through a buffer vty.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "lib/command.h"
#include "lib/log.h"
#include "lib/vty.h"

namespace {

std::string g_called;  // grammar and argv of the last command run, "grammar: a b"
bool g_global_snoop;
std::map<long, bool> g_vlan_snoop;  // VLAN id -> snooping

DEFUN(t_record, t_range_cmd, "t range <2-4094>", "Test\nRange\nVLAN id\n")
{
    g_called = std::string(self->string) + ":";
    for (int i = 0; i < argc; ++i) g_called += std::string(" ") + argv[i];
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

DEFUN(bad_help, bad_help_cmd, "bad help (a|b) WORD", "Bad\nHelp\nOne line short\n") { return CMD_SUCCESS; }

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
        install_node(&profile_node, [](vty *vty) { vty_out(vty, "! profiles\n"); return 0; });
        install_node(&vlan_node, [](vty *vty) {
            for (auto &[id, on] : g_vlan_snoop) vty_out(vty, "vlan %ld\n%s!\n", id, on ? " ip dhcp-snooping\n" : "");
            return 0;
        });
        install_node(&debug_node, [](vty *vty) { if (g_global_snoop) vty_out(vty, "ip dhcp-snooping\n"); return 0; });
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
        std::filesystem::remove_all(dir);
    }
    int run(const std::string &line)
    {
        v->out.clear();
        g_called.clear();
        return cmd_execute(v, line);
    }
    static std::string read_file(const std::string &path)
    {
        std::stringstream ss;
        ss << std::ifstream(path).rdbuf();
        return ss.str();
    }
    vty *v = nullptr;
    std::string dir;
};

const std::map<int, std::string> kEngineError = {{CMD_ERR_NO_MATCH, "% Unknown command.\n"},
                                                 {CMD_ERR_AMBIGUOUS, "% Ambiguous command.\n"},
                                                 {CMD_ERR_INCOMPLETE, "% Command incomplete.\n"}};

TEST_F(Command, TokensMatchTheirFormatKeywordsByUniquePrefixAlternativesPassTheTypedWord)
{
    const int OK = CMD_SUCCESS, NO = CMD_ERR_NO_MATCH, AMB = CMD_ERR_AMBIGUOUS, INC = CMD_ERR_INCOMPLETE;
    const node_type E = ENABLE_NODE, C = CONFIG_NODE, P = DHCP_OP82_PROFILE_NODE;
    struct {
        node_type node;
        const char *line;
        int ret;
        const char *called = nullptr;  // checked when given
    } rows[] = {
        {E, "t range 2", OK, "t range <2-4094>: 2"}, {E, "t range 4094", OK}, {E, "t range 1", NO},
        {E, "t range 4095", NO}, {E, "t range 12x", NO}, {E, "t range 99999999999999999999", NO},
        {E, "t ip 1.2.3.4", OK}, {E, "t ip 255.255.255.255", OK}, {E, "t ip 256.1.1.1", NO}, {E, "t ip 1.2.3", NO},
        {E, "t ip 1.2.3.4.5", NO}, {E, "t ip 1..2.3", NO}, {E, "t ip 1.2.3.", NO},
        {E, "t pfx 10.0.0.0/8", OK}, {E, "t pfx 10.0.0.0/32", OK}, {E, "t pfx 10.0.0.0/33", NO},
        {E, "t pfx 10.0.0.0", NO}, {E, "t pfx 10.0.0.0/", NO},
        {E, "t v6 2001:db8::1", OK}, {E, "t v6 ::", OK}, {E, "t v6 2001:db8::g", NO}, {E, "t v6 1.2.3.4", NO},
        {E, "t mac 0011-22aa-BBcc", OK, "t mac MMMM-MMMM-MMMM: 0011-22aa-BBcc"}, {E, "t mac 0011-22aa-bbc", NO},
        {E, "t mac 001122aabbcc", NO}, {E, "t mac 0011-22aa-bbcg", NO}, {E, "t mac 0011:22aa:bbcc", NO},
        // A variable takes any word, even one spelled like a keyword.
        {E, "t word any-thing/1", OK}, {E, "t word word", OK, "t word WORD: word"},
        {E, "sh ip dhcp-r", OK, "show ip dhcp-relay:"},
        {E, "sh i dhcp-s", OK, "show ip dhcp-snooping :"},
        {E, "show ip dhcp", AMB}, {E, "show ip", INC}, {E, "show ip dhcp-relay interface", INC},
        {E, "show ip dhcp-relay interface gpon0/1 extra", NO},
        {E, "show ip dhcp-relay int gpon0/1", OK, "show ip dhcp-relay interface IFNAME: gpon0/1"},
        // "ip dhcp ..." exists next to "ip dhcpv6 ...": the exact word wins.
        {C, "ip dhcp information client-info keep", OK, "ip dhcp information client-info (drop|keep|replace): keep"},
        {C, "ip dhcp information client-info k", OK, "ip dhcp information client-info (drop|keep|replace): k"},
        {C, "ip dhcp information client-info x", NO}, {C, "ip dhcp", INC}, {C, "ip dhcp-snooping", OK},
        {C, "ip dhcpv6 option", AMB}, {C, "ip dhcpv6 option3", OK, "ip dhcpv6 (option18|option37): option3"},
        // Members made of punctuation; a range before the alternative.
        {P, "circuit-id index 20 delimiter ,", OK, "circuit-id index <1-20> delimiter (space|,|/|:|dot): 20 ,"},
        {P, "circuit-id index 20 delimiter /", OK}, {P, "circuit-id index 20 delimiter :", OK},
        {P, "circuit-id index 1 delimiter d", OK, "circuit-id index <1-20> delimiter (space|,|/|:|dot): 1 d"},
        {P, "circuit-id index 20 delimiter sp", OK}, {P, "circuit-id index 21 delimiter dot", NO},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.line);
        v->node = r.node;
        EXPECT_EQ(run(r.line), r.ret);
        EXPECT_EQ(v->out, r.ret == OK ? "" : kEngineError.at(r.ret));
        if (r.called) { EXPECT_EQ(g_called, r.called); }
    }
}

// One session, line after line: where the operator ends up and what is printed.
TEST_F(Command, NodesMoveWithConfigureExitEndAndFallBackToTheParent)
{
    const node_type E = ENABLE_NODE, C = CONFIG_NODE, V = VLAN_NODE;
    const char *const unknown = "% Unknown command.\n";
    struct {
        const char *line;
        int ret;
        node_type node;
        long index = -1;  // checked when not -1
        const char *out = "";
        const char *prompt = nullptr;
    } rows[] = {
        {"ip dhcp-snooping", CMD_ERR_NO_MATCH, E, -1, unknown, "olt# "},  // needs "configure terminal"
        {"conf t", CMD_SUCCESS, C, -1, "", "olt(config)# "},
        // Registration sets are deliberate: an ENABLE-only show is not offered here.
        {"show ip dhcp-relay", CMD_ERR_NO_MATCH, C, -1, unknown},
        {"do show ip dhcp-relay", CMD_SUCCESS, C},
        {"vlan 10", CMD_SUCCESS, V, 10, "", "olt(config-vlan)# "},
        {"ip dhcp-snooping", CMD_SUCCESS, V},  // the VLAN's command, not the global one
        {"do show ip dhcp-relay", CMD_SUCCESS, V},
        // A parent command that fails leaves the operator where they were ...
        {"refuse", CMD_ERR_REFUSED, V, 10, "refused here\n"},
        // ... one that succeeds moves the session to the parent, or wherever its handler goes.
        {"hostname olt2", CMD_SUCCESS, C, -1, "", "olt2(config)# "},
        {"vlan 20", CMD_SUCCESS, V, 20},
        {"vlan 30", CMD_SUCCESS, V, 30},
        {"bogus", CMD_ERR_NO_MATCH, V, 30, unknown},
        {"exit", CMD_SUCCESS, C, 0},
        {"vlan 30", CMD_SUCCESS, V},
        {"end", CMD_SUCCESS, E},
        {"configure terminal", CMD_SUCCESS, C},
        {"exit", CMD_SUCCESS, E},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.line);
        EXPECT_EQ(run(r.line), r.ret);
        EXPECT_EQ(v->node, r.node);
        EXPECT_EQ(v->out, r.out);
        if (r.index != -1) { EXPECT_EQ(v->index_sub, r.index); }
        if (r.prompt) { EXPECT_EQ(cmd_prompt(v), r.prompt); }
    }
    EXPECT_TRUE(g_vlan_snoop[10]);
    EXPECT_FALSE(g_global_snoop);
    EXPECT_FALSE(v->close_requested);
    EXPECT_EQ(run("exit"), CMD_SUCCESS);  // from the top node: the session ends
    EXPECT_TRUE(v->close_requested);
}

TEST_F(Command, DescribeAndCompleteOfferTheNextTokens)
{
    using item = std::pair<std::string, std::string>;
    using words = std::vector<std::string>;
    EXPECT_EQ(cmd_describe(v, "configure "), (std::vector<item>{{"terminal", "Configuration terminal"}}));
    EXPECT_EQ(cmd_describe(v, "show ip dhcp-relay "), (std::vector<item>{{"interface", "Interface"}, {"<cr>", ""}}));
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
    EXPECT_EQ(cmd_complete(v, "ip dhcp information client-info "), (words{"drop", "keep", "replace"}));
    EXPECT_EQ(cmd_complete(v, "ip dhcp information client-info k"), words{"keep"});
    EXPECT_EQ(cmd_complete(v, "ip dhcpv6 o"), (words{"option18", "option37"}));
    EXPECT_EQ(cmd_complete(v, "ip dh"), (words{"dhcp", "dhcp-snooping", "dhcpv6"}));
    EXPECT_EQ(cmd_complete(v, "do con"), words{"configure"});
    EXPECT_EQ(cmd_complete(v, "vlan "), words{});  // only a range follows
}

TEST_F(Command, HelpVerificationFindsCommandsWithTheWrongNumberOfHelpLines)
{
    EXPECT_EQ(cmd_verify_help(), 0);  // an alternative counts as one token
    install_element(CONFIG_NODE, &bad_help_cmd);
    install_element(VLAN_NODE, &bad_help_cmd);  // counted once
    EXPECT_EQ(cmd_verify_help(), 1);
}

// Hostname first, then the node writers in node order; "write memory" saves
// the same text, and loading it gives the same running configuration again.
TEST_F(Command, RunningConfigInNodeOrderAndWriteMemoryRoundTrips)
{
    std::string cfg = dir + "/dhcp.conf";
    cmd_set_config_file(cfg.c_str());
    for (const char *line : {"configure terminal", "hostname box", "ip dhcp-snooping", "vlan 7", " ip dhcp-snooping",
                             "vlan 8", "end"})
        ASSERT_EQ(run(line), CMD_SUCCESS) << line;
    const std::string body = "!\n"
                             "hostname box\n"
                             "!\n"
                             "ip dhcp-snooping\n"    // DEBUG_NODE
                             "vlan 7\n"              // VLAN_NODE
                             " ip dhcp-snooping\n"
                             "!\n"
                             "vlan 8\n"
                             "!\n"
                             "! profiles\n"          // DHCP_OP82_PROFILE_NODE
                             "end\n";
    run("show running-config");
    EXPECT_EQ(v->out, "Current configuration:\n" + body);
    run("write memory");
    EXPECT_EQ(v->out, "Configuration saved to " + cfg + "\n[OK]\n");
    EXPECT_EQ(read_file(cfg), body);

    g_vlan_snoop.clear();
    g_global_snoop = false;
    cmd_set_hostname("other");
    EXPECT_EQ(cmd_load_config_file(cfg.c_str()), 0);
    run("show running-config");
    EXPECT_EQ(v->out, "Current configuration:\n" + body);

    cmd_set_config_file((dir + "/no/such/dir/dhcp.conf").c_str());
    EXPECT_EQ(run("write file"), CMD_WARNING);
    EXPECT_EQ(v->out, "% Can't open configuration file " + dir + "/no/such/dir/dhcp.conf.\n");
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
    for (const char *line : {":5: bogus line: % Unknown command.", ":9: vlan 5000: % Unknown command.",
                             ":11: refuse: refused here"})
        EXPECT_NE(text.find(cfg + line), std::string::npos) << line << "\n" << text;
    EXPECT_EQ(cmd_load_config_file((dir + "/missing").c_str()), -1);
}

} // namespace
