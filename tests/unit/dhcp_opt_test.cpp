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

// The same bytes in an exact-size heap block, so a read past the end is caught.
std::unique_ptr<std::uint8_t[]> exact(const bytes &b)
{
    auto p = std::make_unique<std::uint8_t[]>(b.size());
    std::memcpy(p.get(), b.data(), b.size());
    return p;
}

TEST(OptionScan, FindsFirstOccurrenceAndItsLength)
{
    bytes m = message({
        0x00,                    // pad
        53, 1, 3,                // message type: request
        12, 5, 'h', 'o', 's', 't', '1',
        53, 1, 1,                // repeated: ignored
        255,
    });
    const std::uint8_t *v = dhcp_get_option(m, DHCP_MESSAGE_TYPE);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(*v, 3);
    EXPECT_EQ(dhcp_get_option_lengh(m, DHCP_HOST_NAME), 5);
    EXPECT_EQ(dhcp_get_option(m, DHCP_SERVER_ID), nullptr);
    EXPECT_EQ(dhcp_get_option_lengh(m, DHCP_SERVER_ID), 0);
}

TEST(OptionScan, MalformedAreasYieldNothing)
{
    // Only pads: the walk runs out of the 388 bytes without an end option.
    EXPECT_EQ(dhcp_get_option(message(bytes(DHCP_OPTIONS_LEN, 0)), DHCP_MESSAGE_TYPE), nullptr);

    // An option whose length runs past the area is never returned.
    bytes overrun = message({});
    overrun[DHCP_OFF_OPTIONS + 380] = 60;  // vendor id, claims 20 bytes with 6 left
    overrun[DHCP_OFF_OPTIONS + 381] = 20;
    EXPECT_EQ(dhcp_get_option(overrun, DHCP_VENDOR), nullptr);

    // A message cut inside its options: the scan stays within the bytes given.
    bytes full = message({53, 1, 1, 61, 7, 1, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 255});
    for (std::size_t len = 0; len < DHCP_OFF_OPTIONS + 13; ++len) {
        bytes cut(full.begin(), full.begin() + long(len));
        auto p = exact(cut);
        bytes_view v(p.get(), len);
        bool whole61 = len >= DHCP_OFF_OPTIONS + 12;
        EXPECT_EQ(dhcp_get_option(v, DHCP_CLIENT_ID) != nullptr, whole61) << len;
        dhcp_pkt_get_option_integer(v, DHCP_CLIENT_ID);
        dhcp_dump_option(1, v);
    }
}

TEST(OptionScan, OverloadContinuesIntoFileThenSname)
{
    bytes m = message({52, 1, 3, 255});  // overload: file and sname
    std::copy_n(bytes{51, 4, 0, 0, 0x0e, 0x10, 255}.begin(), 7, m.begin() + DHCP_OFF_FILE);
    std::copy_n(bytes{54, 4, 10, 0, 0, 1, 255}.begin(), 7, m.begin() + DHCP_OFF_SNAME);
    EXPECT_EQ(dhcp_get_op51_lease_time(m), 3600u);
    const std::uint8_t *sid = dhcp_get_option(m, DHCP_SERVER_ID);
    ASSERT_NE(sid, nullptr);
    EXPECT_EQ(sid, m.data() + DHCP_OFF_SNAME + 2);

    m[DHCP_OFF_OPTIONS + 2] = 1;  // file only: sname is no longer searched
    EXPECT_EQ(dhcp_get_option(m, DHCP_SERVER_ID), nullptr);
    EXPECT_EQ(dhcp_get_op51_lease_time(m), 3600u);
}

TEST(OptionAppend, BuildLimitIsSmallerThanTheArea)
{
    // End marker at index 296: a 10-byte option needs 296 + 12 + 1 > 307.
    bytes opts(296, 0);
    opts.push_back(255);
    bytes m = message(opts);
    bytes ten = {43, 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(dhcp_add_binary_option(m, ten), TAVO_FULL);
    EXPECT_EQ(m[DHCP_OFF_OPTIONS + 296], 255);
    EXPECT_EQ(m[DHCP_OFF_OPTIONS + 297], 0);

    // Eight bytes less fits exactly: 294 + 12 + 1 = 307.
    bytes m2 = message(bytes(294, 0));
    m2[DHCP_OFF_OPTIONS + 294] = 255;
    ASSERT_EQ(dhcp_add_binary_option(m2, ten), 0);
    EXPECT_EQ(m2[DHCP_OFF_OPTIONS + 294], 43);
    EXPECT_EQ(m2[DHCP_OFF_OPTIONS + 306], 255);

    // A TLV whose length byte claims more than it holds is refused.
    EXPECT_EQ(dhcp_add_binary_option(m2, bytes{43, 9, 1}), TAVO_PARAM);
}

TEST(OptionAppend, SimpleOptionsTakeTheirLengthFromTheTable)
{
    dhcp_packet pkt;
    dhcp_init_header(&pkt, DHCPACK);  // adds 53, 1, 5
    bytes_span m(pkt.raw, sizeof pkt.raw);
    EXPECT_EQ(dhcp_add_simple_option(m, DHCP_LEASE_TIME, 86400), 0);
    EXPECT_EQ(dhcp_add_simple_option(m, DHCP_MAX_SIZE, 576), 0);
    EXPECT_EQ(dhcp_add_simple_option(m, 82, 1), TAVO_PARAM);  // not a simple option
    const bytes want = {
        53, 1, 5,                     // value 5 lands in the first data byte
        51, 4, 0x00, 0x01, 0x51, 0x80,
        57, 2, 0x02, 0x40,
        255,
    };
    EXPECT_EQ(bytes(m.begin() + DHCP_OFF_OPTIONS, m.begin() + DHCP_OFF_OPTIONS + long(want.size())), want);
}

TEST(OptionGetters, DeliberateShapes)
{
    bytes m = message({
        61, 7, 1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,  // client id: type 1 + MAC
        12, 5, 'a', 'l', 'i', 'c', 'e',                // host name
        51, 1, 0x7f,                                   // short lease: still 4 bytes read
        54, 4, 192, 168, 1, 1,
        255,
    });
    const std::uint8_t *cid = dhcp_get_op61_client_id(m);
    EXPECT_EQ(bytes(cid, cid + 6), (bytes{0x01, 0x00, 0x11, 0x22, 0x33, 0x44}));
    EXPECT_STREQ(dhcp_get_op12_host_name(m), "alic");  // the last byte gives way
    EXPECT_EQ(dhcp_get_op51_lease_time(m), 0x7f36'04c0u);
    std::uint32_t sid = dhcp_get_op54_dhcp_server(m);
    EXPECT_EQ(std::memcmp(&sid, "\xc0\xa8\x01\x01", 4), 0);  // as stored
    EXPECT_EQ(dhcp_get_op50_request_ip(m), 0u);
    EXPECT_STREQ(dhcp_get_op60_vendor(m), "");
    const std::uint8_t *none = dhcp_pkt_get_option_mac(m, DHCP_REQUESTED_IP);
    EXPECT_EQ(bytes(none, none + 6), bytes(6, 0));
}

TEST(OptionList, SortedOneNodePerCode)
{
    option_set *list = nullptr;
    std::uint8_t dns1[4] = {8, 8, 8, 8}, dns2[4] = {1, 1, 1, 1}, mask[4] = {255, 255, 255, 0};
    dhcp_attach_option(&list, dhcp_optflag_find(DHCP_DNS_SERVER), reinterpret_cast<char *>(dns1), 4);
    dhcp_attach_option(&list, dhcp_optflag_find(DHCP_SUBNET), reinterpret_cast<char *>(mask), 4);
    dhcp_attach_option(&list, dhcp_optflag_find(DHCP_DNS_SERVER), reinterpret_cast<char *>(dns2), 4);  // list: grows
    dhcp_attach_option(&list, dhcp_optflag_find(DHCP_SUBNET), reinterpret_cast<char *>(dns2), 4);      // not a list
    dhcp_attach_option(&list, dhcp_optflag_find(DHCP_DOMAIN_NAME), "a.example", 9);
    dhcp_attach_option(&list, dhcp_optflag_find(DHCP_DOMAIN_NAME), "b.example", 9);  // not a list either

    ASSERT_NE(list, nullptr);
    EXPECT_EQ(bytes(list->data, list->data + 6), (bytes{1, 4, 255, 255, 255, 0}));
    option_set *dns = dhcp_find_option(list, DHCP_DNS_SERVER);
    ASSERT_EQ(dns, list->next);
    EXPECT_EQ(bytes(dns->data, dns->data + 10), (bytes{6, 8, 8, 8, 8, 8, 1, 1, 1, 1}));
    option_set *dom = dhcp_find_option(list, DHCP_DOMAIN_NAME);
    ASSERT_NE(dom, nullptr);
    EXPECT_EQ(dom->data[1], 9);

    // A string list joins its values with one space.
    dhcp_optflag names{OPTION_STRING | OPTION_LIST, 200};
    dhcp_attach_option(&list, &names, "x", 1);
    dhcp_attach_option(&list, &names, "yz", 2);
    option_set *n = dhcp_find_option(list, 200);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(bytes(n->data, n->data + 6), (bytes{200, 4, 'x', ' ', 'y', 'z'}));

    // Binary values are given in hexadecimal; a malformed text adds nothing.
    dhcp_optflag bin{OPTION_BIN, 150};
    dhcp_attach_option(&list, &bin, "0a0B:ff", 7);
    dhcp_optflag bad{OPTION_BIN, 151};
    dhcp_attach_option(&list, &bad, "0g", 2);
    option_set *b = dhcp_find_option(list, 150);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(bytes(b->data, b->data + 5), (bytes{150, 3, 0x0a, 0x0b, 0xff}));
    EXPECT_EQ(dhcp_find_option(list, 151), nullptr);

    dhcp_detach_option(&list, DHCP_DNS_SERVER);
    dhcp_detach_option(&list, 99);  // absent: nothing
    EXPECT_EQ(dhcp_find_option(list, DHCP_DNS_SERVER), nullptr);
    EXPECT_EQ(list->next->data[0], DHCP_DOMAIN_NAME);
    dhcp_free_options(&list);
    EXPECT_EQ(list, nullptr);
}

TEST(MessageType, AcceptedBySide)
{
    // type: {from client side, from server side}
    const int want[10][2] = {{0, 0}, {1, 0}, {0, 1}, {1, 0}, {1, 0}, {0, 1}, {0, 1}, {1, 0}, {1, 0}, {0, 0}};
    for (int t = 0; t < 10; ++t) {
        EXPECT_EQ(dhcp_check_msg_type(t, 0), want[t][0]) << t;
        EXPECT_EQ(dhcp_check_msg_type(t, 1), want[t][1]) << t;
    }
    EXPECT_STREQ(dhcp_msg_type_str(12), "release unkown");
    EXPECT_STREQ(dhcp_msg_type_str(14), "UNKNOWN ERROR");
    EXPECT_STREQ(dhcp_msg_type_str(0), "UNKNOWN ERROR");
}

TEST(Header, OpFollowsTheType)
{
    for (int type : {DHCPDISCOVER, DHCPOFFER, DHCPREQUEST, DHCPACK, DHCPNAK, DHCPINFORM}) {
        dhcp_packet pkt;
        std::memset(pkt.raw, 0xaa, sizeof pkt.raw);
        dhcp_init_header(&pkt, type);
        bool reply = type == DHCPOFFER || type == DHCPACK || type == DHCPNAK;
        EXPECT_EQ(pkt.raw[DHCP_OFF_OP], reply ? BOOTREPLY : BOOTREQUEST);
        EXPECT_EQ(pkt.raw[DHCP_OFF_HTYPE], 1);
        EXPECT_EQ(pkt.raw[DHCP_OFF_HLEN], 6);
        EXPECT_EQ(pkt.raw[DHCP_OFF_XID], 0);
        EXPECT_EQ(dhcp_get_msg_type(bytes_view(pkt.raw, sizeof pkt.raw)), type);
        std::uint32_t cookie = 0;
        be32_at(bytes_view(pkt.raw, sizeof pkt.raw), DHCP_OFF_COOKIE, cookie);
        EXPECT_EQ(cookie, DHCP_MAGIC);
        EXPECT_EQ(pkt.raw[DHCP_PACKET_SIZE - 1], 0);
    }
}

int g_op82 = DHCPPORTOPTIONPOLICY_REPLACE;

TEST(Decision, RelayOptionHandling)
{
    dhcp_set_option_policy_source({[] { return g_op82; }, [] { return int(DHCPPORTOPTIONPOLICY_KEEP); }, nullptr});
    EXPECT_EQ(dhcp_get_packet_opcode(0, 0, 1, 82), DHCP_OPCODE_REMOVE);   // server side, present
    EXPECT_EQ(dhcp_get_packet_opcode(0, 1, 0, 82), DHCP_OPCODE_FORWARD);  // server side, absent
    EXPECT_EQ(dhcp_get_packet_opcode(1, 1, 1, 82), DHCP_OPCODE_FORWARD);  // trusted client port
    EXPECT_EQ(dhcp_get_packet_opcode(1, 0, 0, 82), DHCP_OPCODE_ADD);
    const int policy_to_code[][2] = {{DHCPPORTOPTIONPOLICY_REPLACE, DHCP_OPCODE_ADD},
                                     {DHCPPORTOPTIONPOLICY_KEEP, DHCP_OPCODE_FORWARD},
                                     {DHCPPORTOPTIONPOLICY_DROP, DHCP_OPCODE_DROP},
                                     {7, DHCP_OPCODE_ADD}};
    for (auto [policy, code] : policy_to_code) {
        g_op82 = policy;
        EXPECT_EQ(dhcp_get_packet_opcode(1, 0, 1, 82), code) << policy;
    }
    EXPECT_EQ(dhcp_get_packet_opcode(1, 0, 1, 18), DHCP_OPCODE_FORWARD);  // its own policy
    EXPECT_EQ(dhcp_get_packet_opcode(1, 0, 1, 37), DHCP_OPCODE_ADD);      // no getter: replace
    EXPECT_EQ(dhcp_get_packet_opcode(1, 0, 1, 60), DHCP_OPCODE_ADD);      // invalid option: replace
    dhcp_set_option_policy_source({});
}

}  // namespace
