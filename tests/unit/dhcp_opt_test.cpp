// Option codec: scanning with overload, appending within the build limit, the
// pool option list, typed getters, message types, header and decisions.
#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <vector>
#include "dhcp/dhcp_opt.h"
#include "platform/errcode.h"

namespace {

using bytes = std::vector<std::uint8_t>;

// A message of `size` bytes: fixed header with the cookie, then `opts`.
bytes message(const bytes &opts, std::size_t size = DHCP_PACKET_SIZE)
{
    bytes m(size, 0);
    m[DHCP_OFF_OP] = BOOTREQUEST;
    put_be32_at(m, DHCP_OFF_COOKIE, DHCP_MAGIC);
    std::copy(opts.begin(), opts.end(), m.begin() + DHCP_OFF_OPTIONS);
    return m;
}

TEST(DhcpOptionScan, FirstOccurrenceWinsAndMalformedAreasYieldNothing)
{
    bytes m = message({0, 53, 1, 3, 12, 5, 'h', 'o', 's', 't', '1', 53, 1, 1, 255});  // pad, type, name, type again
    EXPECT_EQ(dhcp_get_msg_type(m), DHCPREQUEST);
    EXPECT_EQ(dhcp_get_option_lengh(m, DHCP_HOST_NAME), 5);
    EXPECT_EQ(dhcp_get_option(m, DHCP_SERVER_ID), nullptr);
    EXPECT_EQ(dhcp_get_option_lengh(m, DHCP_SERVER_ID), 0);

    // Only pads: the walk runs out of the 388 bytes without an end option.
    EXPECT_EQ(dhcp_get_option(message(bytes(DHCP_OPTIONS_LEN, 0)), DHCP_MESSAGE_TYPE), nullptr);
    // An option whose length runs past the area is never returned.
    bytes overrun = message({});
    overrun[DHCP_OFF_OPTIONS + 380] = DHCP_VENDOR;
    overrun[DHCP_OFF_OPTIONS + 381] = 20;  // 6 bytes left
    EXPECT_EQ(dhcp_get_option(overrun, DHCP_VENDOR), nullptr);

    // Every cut of a message, in an exact-size heap block: the scan stays within it.
    bytes full = message({53, 1, 1, 61, 7, 1, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 255});
    for (std::size_t len = 0; len < DHCP_OFF_OPTIONS + 13; ++len) {
        auto p = std::make_unique<std::uint8_t[]>(len);
        std::memcpy(p.get(), full.data(), len);
        bytes_view v(p.get(), len);
        EXPECT_EQ(dhcp_get_option(v, DHCP_CLIENT_ID) != nullptr, len >= DHCP_OFF_OPTIONS + 12) << len;
        dhcp_pkt_get_option_integer(v, DHCP_CLIENT_ID);
        dhcp_dump_option(1, v);
    }
}

TEST(DhcpOptionScan, OverloadContinuesIntoFileThenSname)
{
    bytes m = message({52, 1, 3, 255});  // overload: file and sname
    std::copy_n(bytes{51, 4, 0, 0, 0x0e, 0x10, 255}.begin(), 7, m.begin() + DHCP_OFF_FILE);
    std::copy_n(bytes{54, 4, 10, 0, 0, 1, 255}.begin(), 7, m.begin() + DHCP_OFF_SNAME);
    EXPECT_EQ(dhcp_get_op51_lease_time(m), 3600u);
    EXPECT_EQ(dhcp_get_option(m, DHCP_SERVER_ID), m.data() + DHCP_OFF_SNAME + 2);
    m[DHCP_OFF_OPTIONS + 2] = 1;  // file only: sname is no longer searched
    EXPECT_EQ(dhcp_get_option(m, DHCP_SERVER_ID), nullptr);
    EXPECT_EQ(dhcp_get_op51_lease_time(m), 3600u);
}

TEST(DhcpOptionAppend, BuildLimitIsSmallerThanTheArea)
{
    const bytes ten = {43, 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    // End at 295: a 12-byte option and the end need 295 + 12 + 1 > 307.
    bytes m = message(bytes(295, 0));
    m[DHCP_OFF_OPTIONS + 295] = 255;
    EXPECT_EQ(dhcp_add_binary_option(m, ten), TAVO_FULL);
    EXPECT_EQ(m[DHCP_OFF_OPTIONS + 295], 255);
    EXPECT_EQ(m[DHCP_OFF_OPTIONS + 296], 0);
    // One byte less fits exactly: 294 + 12 + 1 = 307.
    m[DHCP_OFF_OPTIONS + 295] = 0;
    m[DHCP_OFF_OPTIONS + 294] = 255;
    ASSERT_EQ(dhcp_add_binary_option(m, ten), 0);
    EXPECT_EQ(m[DHCP_OFF_OPTIONS + 294], 43);
    EXPECT_EQ(m[DHCP_OFF_OPTIONS + 306], 255);
    // A TLV whose length byte claims more than it holds is refused.
    EXPECT_EQ(dhcp_add_binary_option(m, bytes{43, 9, 1}), TAVO_PARAM);

    // Simple options take their length from the table, values left-aligned.
    dhcp_packet pkt;
    dhcp_init_header(&pkt, DHCPACK);
    bytes_span s(pkt.raw, sizeof pkt.raw);
    EXPECT_EQ(dhcp_add_simple_option(s, DHCP_LEASE_TIME, 86400), 0);
    EXPECT_EQ(dhcp_add_simple_option(s, DHCP_MAX_SIZE, 576), 0);
    EXPECT_EQ(dhcp_add_simple_option(s, 82, 1), TAVO_PARAM);  // not a simple option
    const bytes want = {53, 1, 5, 51, 4, 0x00, 0x01, 0x51, 0x80, 57, 2, 0x02, 0x40, 255};
    EXPECT_EQ(bytes(s.begin() + DHCP_OFF_OPTIONS, s.begin() + DHCP_OFF_OPTIONS + long(want.size())), want);
}

TEST(DhcpOptionGetters, DeliberateShapes)
{
    bytes m = message({
        61, 7, 1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,  // client id: type 1 + MAC
        12, 5, 'a', 'l', 'i', 'c', 'e',
        51, 1, 0x7f,                                   // short lease: still 4 bytes read
        54, 4, 192, 168, 1, 1,
        255,
    });
    const std::uint8_t *cid = dhcp_get_op61_client_id(m);
    EXPECT_EQ(bytes(cid, cid + 6), (bytes{0x01, 0x00, 0x11, 0x22, 0x33, 0x44}));  // the type byte first
    EXPECT_STREQ(dhcp_get_op12_host_name(m), "alic");  // the last byte gives way
    EXPECT_EQ(dhcp_get_op51_lease_time(m), 0x7f36'04c0u);
    std::uint32_t sid = dhcp_get_op54_dhcp_server(m);
    EXPECT_EQ(std::memcmp(&sid, "\xc0\xa8\x01\x01", 4), 0);  // as stored
    EXPECT_EQ(dhcp_get_op50_request_ip(m), 0u);
    EXPECT_STREQ(dhcp_get_op60_vendor(m), "");
    const std::uint8_t *none = dhcp_pkt_get_option_mac(m, DHCP_REQUESTED_IP);
    EXPECT_EQ(bytes(none, none + 6), bytes(6, 0));
}

TEST(DhcpOptionList, SortedOneNodePerCode)
{
    option_set *list = nullptr;
    auto attach = [&](int code, const char *v, int n) { dhcp_attach_option(&list, dhcp_optflag_find(code), v, n); };
    auto node = [&](int code) {
        option_set *o = dhcp_find_option(list, std::uint8_t(code));
        return o ? bytes(o->data, o->data + 2 + o->data[1]) : bytes{};
    };
    attach(DHCP_DNS_SERVER, "\x08\x08\x08\x08", 4);
    attach(DHCP_SUBNET, "\xff\xff\xff\x00", 4);
    attach(DHCP_DNS_SERVER, "\x01\x01\x01\x01", 4);  // a list: grows
    attach(DHCP_SUBNET, "\x01\x01\x01\x01", 4);      // not a list: kept
    attach(DHCP_DOMAIN_NAME, "a.ex", 4);
    attach(DHCP_DOMAIN_NAME, "b.ex", 4);  // nor is a string
    // A string list joins its values with one space; binary values come in hex.
    dhcp_optflag names{OPTION_STRING | OPTION_LIST, 200}, bin{OPTION_BIN, 150}, bad{OPTION_BIN, 151};
    dhcp_attach_option(&list, &names, "x", 1);
    dhcp_attach_option(&list, &names, "yz", 2);
    dhcp_attach_option(&list, &bin, "0a0B:ff", 7);
    dhcp_attach_option(&list, &bad, "0g", 2);
    std::vector<bytes> all;
    for (option_set *o = list; o; o = o->next) all.push_back(node(o->data[0]));
    EXPECT_EQ(all, (std::vector<bytes>{{1, 4, 255, 255, 255, 0},
                                       {6, 8, 8, 8, 8, 8, 1, 1, 1, 1},
                                       {15, 4, 'a', '.', 'e', 'x'},
                                       {150, 3, 0x0a, 0x0b, 0xff},
                                       {200, 4, 'x', ' ', 'y', 'z'}}));
    dhcp_detach_option(&list, DHCP_DNS_SERVER);
    dhcp_detach_option(&list, 99);  // absent: nothing
    EXPECT_EQ(node(DHCP_DNS_SERVER), bytes{});
    EXPECT_EQ(list->next->data[0], DHCP_DOMAIN_NAME);
    dhcp_free_options(&list);
    EXPECT_EQ(list, nullptr);
}

TEST(DhcpMessageType, Names)
{
    EXPECT_STREQ(dhcp_msg_type_str(DHCPDISCOVER), "discovery");
    EXPECT_STREQ(dhcp_msg_type_str(12), "release unkown");
    EXPECT_STREQ(dhcp_msg_type_str(14), "UNKNOWN ERROR");
    EXPECT_STREQ(dhcp_msg_type_str(0), "UNKNOWN ERROR");
}

// Option 82's client policies are tested through the relay-agent path; here
// the sides, trust and the other options' policy sources.
TEST(DhcpDecision, RelayOptionHandling)
{
    dhcp_set_option_policy_source({[] { return int(DHCPPORTOPTIONPOLICY_DROP); },
                                   [] { return int(DHCPPORTOPTIONPOLICY_KEEP); }, nullptr});
    // {from client, trusted, option present, option} -> decision
    const int cases[][5] = {
        {0, 0, 1, 82, DHCP_OPCODE_REMOVE}, {0, 1, 0, 82, DHCP_OPCODE_FORWARD},  // server side
        {1, 1, 1, 82, DHCP_OPCODE_FORWARD}, {1, 0, 0, 82, DHCP_OPCODE_ADD},     // trusted; absent
        {1, 0, 1, 82, DHCP_OPCODE_DROP},    {1, 0, 1, 18, DHCP_OPCODE_FORWARD},  // each its own policy
        {1, 0, 1, 37, DHCP_OPCODE_ADD},     {1, 0, 1, 60, DHCP_OPCODE_ADD},      // no getter, invalid: replace
    };
    for (const auto &c : cases)
        EXPECT_EQ(dhcp_get_packet_opcode(c[0], c[1], c[2], c[3]), c[4]) << c[0] << c[1] << c[2] << " option " << c[3];
    dhcp_set_option_policy_source({});
}

}  // namespace
