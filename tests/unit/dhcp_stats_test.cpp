// Packet counters: the op-code rule of the global sets, the per-client rule,
// the discard and untrusted-drop counters, and the text dump.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_stats.h"

namespace {

using bytes = std::vector<std::uint8_t>;

bytes message(std::uint8_t op, int type)
{
    bytes m(DHCP_FIXED_HDR_LEN + 4, 0);
    m[DHCP_OFF_OP] = op;
    put_be32_at(m, DHCP_OFF_COOKIE, DHCP_MAGIC);
    m[DHCP_OFF_OPTIONS] = DHCP_MESSAGE_TYPE;
    m[DHCP_OFF_OPTIONS + 1] = 1;
    m[DHCP_OFF_OPTIONS + 2] = std::uint8_t(type);
    m[DHCP_OFF_OPTIONS + 3] = DHCP_END;
    return m;
}

// Counters of a set by name, so that an expectation lists only what changed.
using counter = std::uint32_t dhcp_pkt_statistic_t::*;
struct named {
    const char *name;
    counter field;
};
const named all_counters[] = {
    {"rx_bootp_request", &dhcp_pkt_statistic_t::dhcp_rx_bootp_request},
    {"rx_bootp_reply", &dhcp_pkt_statistic_t::dhcp_rx_bootp_reply},
    {"rx_discovery", &dhcp_pkt_statistic_t::dhcp_rx_discovery},
    {"rx_offer", &dhcp_pkt_statistic_t::dhcp_rx_offer},
    {"rx_request", &dhcp_pkt_statistic_t::dhcp_rx_request},
    {"rx_ack", &dhcp_pkt_statistic_t::dhcp_rx_ack},
    {"rx_release", &dhcp_pkt_statistic_t::dhcp_rx_release},
    {"rx_nak", &dhcp_pkt_statistic_t::dhcp_rx_nak},
    {"rx_decline", &dhcp_pkt_statistic_t::dhcp_rx_decline},
    {"rx_inform", &dhcp_pkt_statistic_t::dhcp_rx_inform},
    {"rx_others", &dhcp_pkt_statistic_t::dhcp_rx_others},
    {"rx_total", &dhcp_pkt_statistic_t::dhcp_rx_total},
    {"rx_discard", &dhcp_pkt_statistic_t::dhcp_rx_discard},
    {"drop_untrust_reply", &dhcp_pkt_statistic_t::dhcp_drop_untrust_reply},
    {"tx_bootp_request", &dhcp_pkt_statistic_t::dhcp_tx_bootp_request},
    {"tx_bootp_reply", &dhcp_pkt_statistic_t::dhcp_tx_bootp_reply},
    {"tx_discovery", &dhcp_pkt_statistic_t::dhcp_tx_discovery},
    {"tx_offer", &dhcp_pkt_statistic_t::dhcp_tx_offer},
    {"tx_request", &dhcp_pkt_statistic_t::dhcp_tx_request},
    {"tx_ack", &dhcp_pkt_statistic_t::dhcp_tx_ack},
    {"tx_release", &dhcp_pkt_statistic_t::dhcp_tx_release},
    {"tx_nak", &dhcp_pkt_statistic_t::dhcp_tx_nak},
    {"tx_decline", &dhcp_pkt_statistic_t::dhcp_tx_decline},
    {"tx_inform", &dhcp_pkt_statistic_t::dhcp_tx_inform},
    {"tx_others", &dhcp_pkt_statistic_t::dhcp_tx_others},
    {"tx_total", &dhcp_pkt_statistic_t::dhcp_tx_total},
};

// Every counter is 1 when named in `ones`, else 0.
void expect_exactly(const dhcp_pkt_statistic_t &s, std::vector<std::string> ones, const std::string &ctx)
{
    for (const named &c : all_counters) {
        bool want = false;
        for (const std::string &o : ones) want |= o == c.name;
        EXPECT_EQ(s.*c.field, want ? 1u : 0u) << ctx << ": " << c.name;
    }
}

TEST(StatsRecord, CounterOrderOthersEmbed)
{
    EXPECT_EQ(sizeof(dhcp_pkt_statistic_t), 33 * 4u);
    EXPECT_EQ(sizeof(dhcpv6_pkt_statistic_t), 43 * 4u);
    // Release comes before nak in the record although NAK is type 6.
    EXPECT_EQ(offsetof(dhcp_pkt_statistic_t, dhcp_rx_release) + 4, offsetof(dhcp_pkt_statistic_t, dhcp_rx_nak));
    EXPECT_EQ(offsetof(dhcp_pkt_statistic_t, dhcp_tx_bootp_request), 20 * 4u);
}

struct rule_case {
    std::uint8_t op;
    int type;
    std::vector<std::string> rule_a;  // rx side, by op code, no total
    std::vector<std::string> rule_b;  // rx side, by class, with total
};

const rule_case rule_cases[] = {
    {BOOTREQUEST, DHCPDISCOVER, {"rx_bootp_request", "rx_discovery"}, {"rx_total", "rx_bootp_request", "rx_discovery"}},
    {BOOTREPLY, DHCPOFFER, {"rx_bootp_reply", "rx_offer"}, {"rx_total", "rx_bootp_reply", "rx_offer"}},
    {BOOTREQUEST, DHCPREQUEST, {"rx_bootp_request", "rx_request"}, {"rx_total", "rx_bootp_request", "rx_request"}},
    {BOOTREQUEST, DHCPDECLINE, {"rx_bootp_request", "rx_decline"}, {"rx_total", "rx_bootp_request", "rx_decline"}},
    {BOOTREPLY, DHCPACK, {"rx_bootp_reply", "rx_ack"}, {"rx_total", "rx_bootp_reply", "rx_ack"}},
    {BOOTREPLY, DHCPNAK, {"rx_bootp_reply", "rx_nak"}, {"rx_total", "rx_bootp_reply", "rx_nak"}},
    {BOOTREQUEST, DHCPRELEASE, {"rx_bootp_request", "rx_release"}, {"rx_total", "rx_bootp_request", "rx_release"}},
    {BOOTREQUEST, DHCPINFORM, {"rx_bootp_request", "rx_inform"}, {"rx_total", "rx_bootp_request", "rx_inform"}},
    // Unknown types: rule A still counts the op code, rule B only total and others.
    {BOOTREQUEST, 0, {"rx_bootp_request", "rx_others"}, {"rx_total", "rx_others"}},
    {BOOTREPLY, 9, {"rx_bootp_reply", "rx_others"}, {"rx_total", "rx_others"}},
    // An op code other than 1 counts as a reply under rule A; rule B ignores it.
    {0, DHCPDISCOVER, {"rx_bootp_reply", "rx_discovery"}, {"rx_total", "rx_bootp_request", "rx_discovery"}},
    // A type sent by a client in a frame claiming to be a reply.
    {BOOTREPLY, DHCPREQUEST, {"rx_bootp_reply", "rx_request"}, {"rx_total", "rx_bootp_request", "rx_request"}},
};

TEST(StatsRules, OpCodeRuleOnTheLayer2SetAndClassRuleOnClients)
{
    for (const rule_case &c : rule_cases) {
        std::string ctx = "op " + std::to_string(c.op) + " type " + std::to_string(c.type);
        dhcp_pkt_statistic_init();
        dhcp_pkt_statistic_l2_pkt_rx(message(c.op, c.type), c.type, 0, 10);
        expect_exactly(g_dhcp_stats_l2_pkt, c.rule_a, ctx + " rule A");

        dhcp_pkt_statistic_t client{};
        dhcp_client_pkt_statistic(&client, c.type, 1);
        expect_exactly(client, c.rule_b, ctx + " rule B");
    }
}

// The transmit side, the UDP set and the drop counters each touch only their own fields.
TEST(StatsRules, DirectionsSetsAndDrops)
{
    dhcp_pkt_statistic_init();
    dhcp_pkt_statistic_l2_pkt_tx(message(BOOTREPLY, DHCPNAK), DHCPNAK, 0, 10);
    dhcp_pkt_statistic_untrust_drop(DHCPOFFER, 0, 10);
    expect_exactly(g_dhcp_stats_l2_pkt, {"tx_bootp_reply", "tx_nak", "drop_untrust_reply"}, "l2");

    dhcp_pkt_statistic_t client{};
    dhcp_client_pkt_statistic(&client, DHCPRELEASE, 0);
    expect_exactly(client, {"tx_total", "tx_bootp_request", "tx_release"}, "client tx");

    // The UDP set takes the type from option 53, whatever else is known.
    dhcp_pkt_statistic_udp_pkt_rx(message(BOOTREPLY, DHCPACK), 0x0100000a, 0x4300);
    dhcp_pkt_statistic_udp_pkt_tx(message(BOOTREQUEST, DHCPINFORM), 0x0100000a, 0x4300);
    expect_exactly(g_dhcp_stats_udp_pkt, {"rx_bootp_reply", "rx_ack", "tx_bootp_request", "tx_inform"}, "udp");
    dhcp_pkt_statistic_udp_pkt_rx_discard(message(BOOTREPLY, DHCPOFFER));
    dhcp_pkt_statistic_rx_discard();
    EXPECT_EQ(g_dhcp_stats_udp_pkt.dhcp_rx_discard, 2u);

    // Null sets count nothing; a message too short for its op code counts
    // as a reply, read within bounds.
    dhcp_pkt_static_rx_set(nullptr, message(BOOTREQUEST, 1), 1);
    dhcp_client_pkt_statistic(nullptr, 1, 1);
    dhcp_pkt_statistic_t s{};
    dhcp_pkt_static_rx_set(&s, bytes_view(), DHCPDISCOVER);
    expect_exactly(s, {"rx_bootp_reply", "rx_discovery"}, "empty message");
}

TEST(StatsDump, RowsLabelsAndColumns)
{
    dhcp_pkt_statistic_t s{};
    s.dhcp_rx_total = 7;
    s.dhcp_tx_total = 3;
    s.dhcp_rx_release = 11;  // the "Release" row
    s.dhcp_tx_nak = 12;      // the "Nack" row
    s.dhcp_rx_others = 5;
    std::string want =
        "       "
        "                     | RX Counter  | TX Counter \n"
        "       Total                |          7  |          3 \n"
        "       bootp_request        |          0  |          0 \n"
        "       bootp_reply          |          0  |          0 \n"
        "       discovery            |          0  |          0 \n"
        "       Offer                |          0  |          0 \n"
        "       Request              |          0  |          0 \n"
        "       Ack                  |          0  |          0 \n"
        "       Release              |         11  |          0 \n"
        "       Nack                 |          0  |         12 \n"
        "       decline              |          0  |          0 \n"
        "       Inform               |          0  |          0 \n"
        "       Other                |          5  |          0 \n";
    EXPECT_EQ(std::string(dhcp_pkt_statiss_dump(&s)), want);
}

TEST(StatsDump, SecondCallOverwritesTheSameBuffer)
{
    dhcp_pkt_statistic_t a{}, b{};
    a.dhcp_rx_ack = 1;
    b.dhcp_rx_ack = 2;
    const char *first = dhcp_pkt_statiss_dump(&a);
    std::string first_text = first;
    const char *second = dhcp_pkt_statiss_dump(&b);
    EXPECT_EQ(first, second);
    EXPECT_NE(first_text, std::string(first));
    EXPECT_NE(std::string(second).find("       Ack                  |          2  |"), std::string::npos);
}

}  // namespace
