// Packet counters: the op-code rule of the global sets, the per-client rule,
// the drop counter, and the text dump.
#include <gtest/gtest.h>
#include <algorithm>
#include <cstddef>
#include <iterator>
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
    const std::uint8_t opts[] = {DHCP_MESSAGE_TYPE, 1, std::uint8_t(type), DHCP_END};
    std::copy(std::begin(opts), std::end(opts), m.end() - 4);
    return m;
}

// Every counter by name, so that an expectation lists only what changed.
#define C(f) {#f, &dhcp_pkt_statistic_t::dhcp_##f}
const struct {
    const char *name;
    std::uint32_t dhcp_pkt_statistic_t::*field;
} all_counters[] = {
    C(rx_bootp_request), C(rx_bootp_reply), C(rx_discovery), C(rx_offer), C(rx_request), C(rx_ack), C(rx_release),
    C(rx_nak), C(rx_decline), C(rx_inform), C(rx_others), C(rx_total), C(rx_discard), C(drop_untrust_reply),
    C(tx_bootp_request), C(tx_bootp_reply), C(tx_discovery), C(tx_offer), C(tx_request), C(tx_ack), C(tx_release),
    C(tx_nak), C(tx_decline), C(tx_inform), C(tx_others), C(tx_total),
};
#undef C

// Every counter is 1 when named in `ones`, else 0.
void expect_exactly(const dhcp_pkt_statistic_t &s, const std::vector<std::string> &ones)
{
    for (const auto &c : all_counters) {
        bool want = false;
        for (const std::string &o : ones) want |= o == c.name;
        EXPECT_EQ(s.*c.field, want ? 1u : 0u) << c.name;
    }
}

// Rule A (layer-2 set): the op code picks the BOOTP counter, no total.
// Rule B (per client): the sender of the type picks it, with the total.
TEST(DhcpStatsRules, OpCodeRuleOnTheLayer2SetAndClassRuleOnClients)
{
    const struct {
        std::uint8_t op;
        int type;
        std::string counter, bootp_a, bootp_b;  // "" for none
    } cases[] = {
        {1, DHCPDISCOVER, "discovery", "request", "request"}, {2, DHCPOFFER, "offer", "reply", "reply"},
        {1, DHCPREQUEST, "request", "request", "request"},    {1, DHCPDECLINE, "decline", "request", "request"},
        {2, DHCPACK, "ack", "reply", "reply"},                {2, DHCPNAK, "nak", "reply", "reply"},
        {1, DHCPRELEASE, "release", "request", "request"},    {1, DHCPINFORM, "inform", "request", "request"},
        {1, 0, "others", "request", ""},                      {2, 9, "others", "reply", ""},
        // An op code other than 1 is a reply to rule A; rule B goes by the type.
        {0, DHCPDISCOVER, "discovery", "reply", "request"},   {2, DHCPREQUEST, "request", "reply", "request"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("op " + std::to_string(c.op) + " type " + std::to_string(c.type));
        dhcp_pkt_statistic_init();
        dhcp_pkt_statistic_l2_pkt_rx(message(c.op, c.type), c.type, 0, 10);
        expect_exactly(g_dhcp_stats_l2_pkt, {"rx_bootp_" + c.bootp_a, "rx_" + c.counter});
        dhcp_pkt_statistic_t client{};
        dhcp_client_pkt_statistic(&client, c.type, 1);
        expect_exactly(client, {"rx_total", "rx_" + c.counter, c.bootp_b.empty() ? "" : "rx_bootp_" + c.bootp_b});
    }
}

TEST(DhcpStatsRules, TransmitSideAndDropTouchOnlyTheirFields)
{
    dhcp_pkt_statistic_init();
    dhcp_pkt_statistic_l2_pkt_tx(message(BOOTREPLY, DHCPNAK), DHCPNAK, 0, 10);
    dhcp_pkt_statistic_untrust_drop(DHCPOFFER, 0, 10);
    expect_exactly(g_dhcp_stats_l2_pkt, {"tx_bootp_reply", "tx_nak", "drop_untrust_reply"});
    dhcp_pkt_statistic_t client{};
    dhcp_client_pkt_statistic(&client, DHCPRELEASE, 0);
    expect_exactly(client, {"tx_total", "tx_bootp_request", "tx_release"});
    // A message too short for its op code counts as a reply, read within bounds.
    dhcp_pkt_statistic_t s{};
    dhcp_pkt_static_rx_set(&s, bytes_view(), DHCPDISCOVER);
    expect_exactly(s, {"rx_bootp_reply", "rx_discovery"});
}

// Release comes before Nack, as in the record; counters print signed.
TEST(DhcpStatsDump, RowsLabelsAndSignedColumns)
{
    dhcp_pkt_statistic_t s{};
    s.dhcp_rx_total = 7;
    s.dhcp_tx_total = 3;
    s.dhcp_rx_release = 11;  // the "Release" row
    s.dhcp_tx_nak = 12;      // the "Nack" row
    s.dhcp_rx_others = 0x80000000u;
    EXPECT_EQ(std::string(dhcp_pkt_statiss_dump(&s)),
              "                            | RX Counter  | TX Counter \n"
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
              "       Other                | -2147483648  |          0 \n");
}

}  // namespace
