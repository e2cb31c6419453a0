// Relay-agent information: the client policies, every circuit-id and
// remote-id form, profiles and their expansion, removal from replies, and the
// rewrite of a real frame with lengths and checksums checked independently.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_option82.h"
#include "dhcp/dhcp_pkt.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_zebra.h"
#include "platform/errcode.h"
#include "platform/product.h"

namespace {

using bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t VID = 100;
const std::uint8_t CLIENT_MAC[6] = {0x00, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e};

// ---------------------------------------------------------------- frames ----

// A DHCP message: fixed header, cookie, then `opts` (which carry their end).
bytes message(std::uint8_t op, const bytes &opts)
{
    bytes m(DHCP_FIXED_HDR_LEN, 0);
    m[DHCP_OFF_OP] = op;
    m[DHCP_OFF_HTYPE] = 1;
    m[DHCP_OFF_HLEN] = 6;
    put_be32_at(m, DHCP_OFF_XID, 0x12345678);
    std::memcpy(&m[DHCP_OFF_CHADDR], CLIENT_MAC, 6);
    put_be32_at(m, DHCP_OFF_COOKIE, DHCP_MAGIC);
    m.insert(m.end(), opts.begin(), opts.end());
    return m;
}

const bytes DISCOVER_OPTS = {
    53, 1, 1,                       // DHCPDISCOVER
    61, 7, 1, 0x00, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e,  // client id
    255,
};
// A client's own option 82 (circuit "abc", remote "xy") followed by more options.
const bytes DISCOVER_WITH_82_OPTS = {
    53, 1, 1,
    82, 9, 1, 3, 'a', 'b', 'c', 2, 2, 'x', 'y',
    12, 4, 'h', 'o', 's', 't',      // host name, after option 82
    255,
};

// Independent ones'-complement sum, for verifying what the code wrote.
std::uint32_t sum16(const std::uint8_t *p, std::size_t n, std::uint32_t s = 0)
{
    for (std::size_t i = 0; i + 1 < n; i += 2) s += std::uint32_t(p[i] << 8 | p[i + 1]);
    if (n & 1) s += std::uint32_t(p[n - 1] << 8);
    while (s >> 16) s = (s & 0xffff) + (s >> 16);
    return s;
}
std::uint16_t rd16(const bytes &b, std::size_t off) { return std::uint16_t(b[off] << 8 | b[off + 1]); }

enum { ETH_LEN = 18, IP_OFF = 18, UDP_OFF = 38, MSG_OFF = 46 };

// A VLAN-tagged IPv4/UDP frame carrying msg, with correct lengths and checksums.
bytes frame_of(const bytes &msg)
{
    bytes f(MSG_OFF, 0);
    std::memset(&f[0], 0xff, 6);
    std::memcpy(&f[6], CLIENT_MAC, 6);
    f[12] = 0x81, f[13] = 0x00, f[14] = 0x00, f[15] = VID;  // 802.1Q, VLAN 100
    f[16] = 0x08, f[17] = 0x00;
    std::uint16_t udp_len = std::uint16_t(8 + msg.size());
    std::uint16_t ip_len = std::uint16_t(20 + udp_len);
    std::uint8_t ip[20] = {0x45, 0, std::uint8_t(ip_len >> 8), std::uint8_t(ip_len), 0, 1, 0, 0, 64, 17, 0, 0,
                           10, 0, 0, 2, 255, 255, 255, 255};
    std::memcpy(&f[IP_OFF], ip, 20);
    std::uint16_t ipsum = std::uint16_t(~sum16(&f[IP_OFF], 20));
    f[IP_OFF + 10] = std::uint8_t(ipsum >> 8), f[IP_OFF + 11] = std::uint8_t(ipsum);
    std::uint8_t udp[8] = {0, 68, 0, 67, std::uint8_t(udp_len >> 8), std::uint8_t(udp_len), 0, 0};
    std::memcpy(&f[UDP_OFF], udp, 8);
    f.insert(f.end(), msg.begin(), msg.end());
    std::uint8_t pseudo[12] = {10, 0, 0, 2, 255, 255, 255, 255, 0, 17, std::uint8_t(udp_len >> 8), std::uint8_t(udp_len)};
    std::uint16_t usum = std::uint16_t(~sum16(&f[UDP_OFF], udp_len, sum16(pseudo, 12)));
    f[UDP_OFF + 6] = std::uint8_t(usum >> 8), f[UDP_OFF + 7] = std::uint8_t(usum);
    return f;
}

// Checks the frame's headers against its actual size; returns the message.
bytes check_frame(const bytes &f)
{
    EXPECT_EQ(rd16(f, IP_OFF + 2), f.size() - IP_OFF) << "IP total length";
    EXPECT_EQ(rd16(f, UDP_OFF + 4), f.size() - UDP_OFF) << "UDP length";
    EXPECT_EQ(sum16(&f[IP_OFF], 20), 0xffffu) << "IP header checksum";
    std::uint16_t udp_len = std::uint16_t(f.size() - UDP_OFF);
    std::uint8_t pseudo[12] = {};
    std::memcpy(pseudo, &f[IP_OFF + 12], 8);
    pseudo[9] = 17, pseudo[10] = std::uint8_t(udp_len >> 8), pseudo[11] = std::uint8_t(udp_len);
    EXPECT_NE(rd16(f, UDP_OFF + 6), 0) << "UDP checksum present";
    EXPECT_EQ(sum16(&f[UDP_OFF], udp_len, sum16(pseudo, 12)), 0xffffu) << "UDP checksum";
    return bytes(f.begin() + MSG_OFF, f.end());
}

// All option 82 occurrences of a message's option area, as whole TLVs.
std::vector<bytes> options82(const bytes &msg)
{
    std::vector<bytes> out;
    std::size_t i = DHCP_OFF_OPTIONS;
    while (i + 1 < msg.size() && msg[i] != 255) {
        if (msg[i] == 0) { ++i; continue; }
        std::size_t n = 2 + msg[i + 1];
        if (msg[i] == 82) out.emplace_back(msg.begin() + long(i), msg.begin() + long(i + n));
        i += n;
    }
    return out;
}

bytes option82_of(const std::string &circuit, const std::string &remote)
{
    bytes o = {82, std::uint8_t(4 + circuit.size() + remote.size()), 1, std::uint8_t(circuit.size())};
    o.insert(o.end(), circuit.begin(), circuit.end());
    o.push_back(2);
    o.push_back(std::uint8_t(remote.size()));
    o.insert(o.end(), remote.begin(), remote.end());
    return o;
}

// ------------------------------------------------------------- fixture ----

class Option82 : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        std::string path = "/tmp/op82_product_" + std::to_string(getpid()) + ".ini";
        FILE *f = std::fopen(path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs("[product]\nsys_mac = 00:11:22:33:44:55\n", f);
        std::fclose(f);
        st_product_load(path.c_str());
        unlink(path.c_str());
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
    }
    void SetUp() override
    {
        uvlan_create(VID);
        ASSERT_EQ(dhcp_vlan_init(VID), 0);
        vlan_ = vlan_get_entry(VID);
        onu_ = port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 3, 5), "gpon-onu_1/2/3:5", "TAVO12345678");
        pon_ = port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, 2, 0, 3, 0), "gpon_1/2/3", "");
        ge_ = port(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0), "ge_1/1/1", "");
        dhcp_snoop_set_access_node_id("PON");
        dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_REPLACE);
        std::snprintf(dhcp_sysname, sizeof dhcp_sysname, "%s", "olt-a");
    }
    void TearDown() override
    {
        for (int id = 1; id <= DHCP_OPTION_PROFILE_MAX; ++id) dhcp_option_free_profile(id);
        for (std::uint16_t v = 1; v <= 4094; ++v)
            if (uvlan_entry_t *e = vlan_get_entry(v)) dhcp_vlan_free(e);
        uvlan_clear();
        uif_clear();
    }
    static uif_t *port(std::uint32_t ifindex, const char *name, const char *sn)
    {
        uif_t *p = uif_get_or_create(ifindex, false);
        uif_set_name(p, name);
        std::snprintf(p->onu_sn, sizeof p->onu_sn, "%s", sn);
        return p;
    }
    std::string circuit(const uif_t *pif, int vid = VID)
    {
        char buf[DHCP_OPTION82_TEXT_LEN];
        int n = dhcp_option82_circuit_id(pif, vid, buf, sizeof buf);
        EXPECT_EQ(std::size_t(n), std::strlen(buf));
        return buf;
    }
    std::string remote(int vid = VID)
    {
        char buf[DHCP_OPTION82_TEXT_LEN];
        int n = dhcp_option82_remote_id(vid, buf, sizeof buf);
        EXPECT_EQ(std::size_t(n), std::strlen(buf));
        return buf;
    }
    // Runs the policy over msg in a buffer with `room` spare bytes; returns
    // the result and leaves the message (cut to the result) in msg.
    int process(bytes &msg, const uif_t *pif, std::size_t room = 200)
    {
        std::size_t len = msg.size();
        msg.resize(len + room, 0xee);  // stale bytes behind the message
        int n = dhcp_option82_process(msg, int(len), pif, VID);
        msg.resize(n ? std::size_t(n) : len);
        return n;
    }
    int make_profile(const char *name)
    {
        int id = dhcp_option_get_free_profile_id();
        EXPECT_EQ(dhcp_option_initial_profile(id, name), 0);
        return id;
    }

    uvlan_entry_t *vlan_ = nullptr;
    uif_t *onu_ = nullptr, *pon_ = nullptr, *ge_ = nullptr;
};

// -------------------------------------------------------------- policies ----

TEST_F(Option82, PolicyDecisionsByPortSideAndClientOption)
{
    const std::string ours_circuit = "PON gpon-onu_1/2/3:5:100";
    const bytes ours = option82_of(ours_circuit, "OLT system:0011-2233-4455");
    const bytes theirs = option82_of("abc", "xy");
    enum outcome { DROP, KEEP, OURS };
    struct policy_case {
        const char *name;
        int policy;
        int side;        // 0 ONU, 1 PON port (both access), 2 GE uplink
        bool has82;
        outcome want;
    } cases[] = {
        {"access, none, replace", DHCPPORTOPTIONPOLICY_REPLACE, 0, false, OURS},
        {"access, none, drop", DHCPPORTOPTIONPOLICY_DROP, 0, false, OURS},
        {"access, none, keep", DHCPPORTOPTIONPOLICY_KEEP, 0, false, OURS},
        {"access, own, replace", DHCPPORTOPTIONPOLICY_REPLACE, 0, true, OURS},
        {"access, own, keep", DHCPPORTOPTIONPOLICY_KEEP, 0, true, KEEP},
        {"access, own, drop", DHCPPORTOPTIONPOLICY_DROP, 0, true, DROP},
        {"PON port, own, drop", DHCPPORTOPTIONPOLICY_DROP, 1, true, DROP},
        {"access, own, unknown policy counts as replace", 7, 0, true, OURS},
        {"uplink, none", DHCPPORTOPTIONPOLICY_DROP, 2, false, OURS},
        {"uplink, own, drop policy ignored", DHCPPORTOPTIONPOLICY_DROP, 2, true, KEEP},
        {"uplink, own, replace policy ignored", DHCPPORTOPTIONPOLICY_REPLACE, 2, true, KEEP},
    };
    for (const policy_case &c : cases) {
        SCOPED_TRACE(c.name);
        dhcp_snoop_set_client_op82_policy(c.policy);
        const uif_t *pif = c.side == 0 ? onu_ : c.side == 1 ? pon_ : ge_;
        bytes original = message(BOOTREQUEST, c.has82 ? DISCOVER_WITH_82_OPTS : DISCOVER_OPTS);
        bytes msg = original;
        int n = process(msg, pif);
        switch (c.want) {
        case DROP:
            EXPECT_EQ(n, 0);
            break;
        case KEEP:
            EXPECT_EQ(n, int(original.size()));
            EXPECT_EQ(msg, original);
            break;
        case OURS: {
            std::vector<bytes> found = options82(msg);
            ASSERT_EQ(found.size(), 1u);
            bytes want = c.side == 0 ? ours : option82_of("PON ge_1/1/1:100", "OLT system:0011-2233-4455");
            EXPECT_EQ(found[0], want);
            // Length grows by ours, less the client's when it was there.
            int removed = c.has82 ? int(theirs.size()) : 0;
            EXPECT_EQ(n, int(original.size()) - removed + int(want.size()));
            // Other options survive the cut; the message ends with END.
            EXPECT_EQ(dhcp_get_msg_type(msg), DHCPDISCOVER);
            if (c.has82) {
                bytes_view host;
                ASSERT_TRUE(dhcp_option_value(msg, DHCP_HOST_NAME, host));
                EXPECT_EQ(std::string(host.begin(), host.end()), "host");
            }
            EXPECT_EQ(msg.back(), 255);
            break;
        }
        }
    }
}

// Replace must remove every copy a client sent, or two options 82 leave.
TEST_F(Option82, ReplaceRemovesRepeatedClientOptions)
{
    bytes opts = {53, 1, 3, 82, 3, 1, 1, 'a', 82, 4, 2, 2, 'x', 'y', 50, 4, 10, 0, 0, 9, 255};
    bytes msg = message(BOOTREQUEST, opts);
    int n = process(msg, onu_);
    ASSERT_GT(n, 0);
    std::vector<bytes> found = options82(msg);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0][4], 'P');  // ours: "PON ..."
    EXPECT_EQ(dhcp_get_op50_request_ip(msg), 0x0900000au);
}

// A message without room for the option, or without an end option, is left
// as it was; nothing is written past the buffer.
TEST_F(Option82, NoRoomOrNoEndLeavesMessageAlone)
{
    bytes msg = message(BOOTREQUEST, DISCOVER_OPTS);
    std::size_t len = msg.size();
    auto exact = std::make_unique<std::uint8_t[]>(len + 10);
    std::memcpy(exact.get(), msg.data(), len);
    EXPECT_EQ(dhcp_option82_add(bytes_span(exact.get(), len + 10), int(len), onu_, VID), int(len));
    EXPECT_EQ(std::memcmp(exact.get(), msg.data(), len), 0);

    bytes no_end = message(BOOTREQUEST, {53, 1, 1, 0, 0});
    bytes copy = no_end;
    EXPECT_EQ(process(copy, onu_), int(no_end.size()));
    EXPECT_EQ(copy, no_end);
}

// Every truncation of a request with a client option, in an exact-size
// buffer: answers stay within the buffer and never exceed it.
TEST_F(Option82, TruncatedMessagesStayInBounds)
{
    for (int policy : {DHCPPORTOPTIONPOLICY_REPLACE, DHCPPORTOPTIONPOLICY_KEEP}) {
        dhcp_snoop_set_client_op82_policy(policy);
        bytes full = message(BOOTREQUEST, DISCOVER_WITH_82_OPTS);
        for (std::size_t len = 0; len <= full.size(); ++len) {
            auto buf = std::make_unique<std::uint8_t[]>(len);
            if (len) std::memcpy(buf.get(), full.data(), len);
            int n = dhcp_option82_process(bytes_span(buf.get(), len), int(len), onu_, VID);
            EXPECT_LE(n, int(len)) << len;
        }
    }
}

// ------------------------------------------------------- circuit/remote ----

TEST_F(Option82, CircuitIdForms)
{
    std::string long63(63, 'c');
    int pid = make_profile("prof");
    dhcp_option_profile_add_info(pid, 1, DHCP_OPTION_TAG_STRING, "X", DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(pid, 2, DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_SN);
    struct form {
        const char *name;
        int type;
        const char *text;
        const uif_t *pif;
        std::string want;
    } forms[] = {
        {"normal", DHCP_OPTION_NORMAL, nullptr, onu_, "PON gpon-onu_1/2/3:5:100"},
        {"normal on an uplink", DHCP_OPTION_NORMAL, nullptr, ge_, "PON ge_1/1/1:100"},
        {"onu-auth", DHCP_OPTION_ONU_AUTH, nullptr, onu_, "gpon-onu_1/2/3:5 SN:TAVO12345678"},
        {"user", DHCP_OPTION_USER, "my-circuit", onu_, "my-circuit"},
        {"sysname stores its text", DHCP_OPTION_SYSNAME, "stored", onu_, "stored"},
        {"user without text", DHCP_OPTION_USER, nullptr, onu_, ""},
        {"user cut to 62", DHCP_OPTION_USER, long63.c_str(), onu_, std::string(62, 'c')},
        {"profile", DHCP_OPTION_PROFILE, "prof", onu_, "XTAVO12345678"},
        {"missing profile", DHCP_OPTION_PROFILE, "gone", onu_, "PON gpon-onu_1/2/3:5:100"},
    };
    for (const form &f : forms) {
        SCOPED_TRACE(f.name);
        ASSERT_EQ(dhcp_vlan_op82_circuitid_set(vlan_, f.type, f.text), 0);
        EXPECT_EQ(circuit(f.pif), f.want);
    }
    // The access-node id is part of the default.
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_NORMAL, nullptr);
    dhcp_snoop_set_access_node_id("NODE-7");
    EXPECT_EQ(circuit(onu_), "NODE-7 gpon-onu_1/2/3:5:100");
}

TEST_F(Option82, CircuitIdWithoutVlanOrRecordIsTheDefault)
{
    EXPECT_EQ(circuit(onu_, 200), "PON gpon-onu_1/2/3:5:200");  // no such VLAN
    uvlan_create(201);                                           // VLAN without record
    EXPECT_EQ(circuit(onu_, 201), "PON gpon-onu_1/2/3:5:201");
    EXPECT_EQ(remote(200), "OLT system:0011-2233-4455");
}

TEST_F(Option82, RemoteIdForms)
{
    std::string long70(70, 'r');
    struct form {
        const char *name;
        int type;
        const char *text;
        std::string want;
    } forms[] = {
        {"normal: system MAC", DHCP_OPTION_NORMAL, nullptr, "OLT system:0011-2233-4455"},
        {"normal ignores text", DHCP_OPTION_NORMAL, "ignored", "OLT system:0011-2233-4455"},
        {"user", DHCP_OPTION_USER, "remote-1", "remote-1"},
        {"user cut to 62", DHCP_OPTION_USER, long70.c_str(), std::string(62, 'r')},
        {"sysname", DHCP_OPTION_SYSNAME, nullptr, "olt-a"},
    };
    for (const form &f : forms) {
        SCOPED_TRACE(f.name);
        ASSERT_EQ(dhcp_vlan_op82_remoteid_set(vlan_, f.type, f.text), 0);
        EXPECT_EQ(remote(), f.want);
    }
    // The global remote id is not used.
    dhcp_vlan_op82_remoteid_set(vlan_, DHCP_OPTION_NORMAL, nullptr);
    dhcp_snoop_set_remote_id(1);
    EXPECT_EQ(remote(), "OLT system:0011-2233-4455");
}

TEST_F(Option82, BuiltOptionLayoutAtFullLength)
{
    std::string c(62, 'c'), r(62, 'r');
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_USER, (c + "tail").c_str());
    dhcp_vlan_op82_remoteid_set(vlan_, DHCP_OPTION_USER, (r + "tail").c_str());
    std::uint8_t out[200];
    std::size_t n = dhcp_option82_build(onu_, VID, out);
    ASSERT_EQ(n, 2u + 64 + 64);
    EXPECT_EQ(bytes(out, out + n), option82_of(c, r));
    EXPECT_EQ(dhcp_option82_build(onu_, VID, bytes_span(out, n - 1)), 0u);  // too small: nothing
}

// ------------------------------------------------------------- profiles ----

TEST_F(Option82, ProfileExpansionOfEveryVariable)
{
    int id = make_profile("all");
    struct tag {
        int type;
        const char *value;
        DHCP_OPTION_VAR_TYPE var;
    } tags[] = {
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_ACCESS_NODE_ID},
        {DHCP_OPTION_TAG_DELIMITER, " ", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_RACK},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_FRAME},
        {DHCP_OPTION_TAG_DELIMITER, "/", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_SLOT},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_PORT},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_ONU},
        {DHCP_OPTION_TAG_DELIMITER, ":", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_UVLAN},
        {DHCP_OPTION_TAG_DELIMITER, ".", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_SVLAN},
        {DHCP_OPTION_TAG_STRING, "-sn=", DHCP_OPTION_VAR_FIX_STRING},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_SN},
        {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_FIX_STRING},  // contributes nothing
    };
    // Inserted out of order: expansion follows the index.
    for (int i = int(std::size(tags)) - 1; i >= 0; --i)
        ASSERT_EQ(dhcp_option_profile_add_info(id, std::uint32_t(i + 1), DHCP_OPTION_TAG_TYPE(tags[i].type),
                                               tags[i].value, tags[i].var),
                  0);
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_PROFILE, "all");
    // slot 2, port 3, ONU 5; uvlan and svlan are both the relay VLAN.
    EXPECT_EQ(circuit(onu_), "PON 11/235:100.100-sn=TAVO12345678");

    char fmt[256];
    EXPECT_STREQ(dhcp_option_profile_format(id, fmt, sizeof fmt),
                 "{access-node-id} {rack}{frame}/{slot}{port}{onu}:{uvlan}.{svlan}-sn={sn}{NULL}");
}

TEST_F(Option82, ProfileOf63CharactersIsUsedAnd64FallsBackToDefault)
{
    int id = make_profile("long");
    std::string a(31, 'a'), b(31, 'b');
    dhcp_option_profile_add_info(id, 1, DHCP_OPTION_TAG_STRING, a.c_str(), DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(id, 2, DHCP_OPTION_TAG_STRING, b.c_str(), DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(id, 3, DHCP_OPTION_TAG_DELIMITER, "/", DHCP_OPTION_VAR_FIX_STRING);
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_PROFILE, "long");
    char text[64];
    ASSERT_TRUE(dhcp_option_profile_expand(id, onu_->ifindex, onu_->onu_sn, VID, text, sizeof text));
    EXPECT_EQ(std::strlen(text), 63u);
    // 63 characters are accepted, then cut to 62 in the option.
    EXPECT_EQ(circuit(onu_), a + b);

    dhcp_option_profile_add_info(id, 4, DHCP_OPTION_TAG_DELIMITER, ":", DHCP_OPTION_VAR_FIX_STRING);
    EXPECT_FALSE(dhcp_option_profile_expand(id, onu_->ifindex, onu_->onu_sn, VID, text, sizeof text));
    EXPECT_EQ(circuit(onu_), "PON gpon-onu_1/2/3:5:100");
}

TEST_F(Option82, ProfileTableOperations)
{
    EXPECT_EQ(dhcp_option_get_free_profile_id(), 1);
    EXPECT_EQ(dhcp_option_initial_profile(1, "p1"), 0);
    EXPECT_EQ(dhcp_option_initial_profile(1, "other"), TAVO_UNAVAIL);
    EXPECT_EQ(dhcp_option_initial_profile(2, "p1"), TAVO_EXISTS);
    EXPECT_EQ(dhcp_option_initial_profile(0, "p0"), TAVO_PARAM);
    EXPECT_EQ(dhcp_option_initial_profile(33, "p33"), TAVO_PARAM);
    EXPECT_EQ(dhcp_option_initial_profile(3, "p3"), 0);
    EXPECT_EQ(dhcp_option_get_free_profile_id(), 2);  // lowest free
    EXPECT_EQ(dhcp_option_find_profile_id_by_name("p3"), 3);
    EXPECT_EQ(dhcp_option_find_profile_id_by_name("nope"), 0);

    // Tags: sorted by index, an existing index is changed in place.
    dhcp_option_profile_add_info(1, 5, DHCP_OPTION_TAG_STRING, "five", DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(1, 2, DHCP_OPTION_TAG_VARIABLE, "ignored", DHCP_OPTION_VAR_SLOT);
    dhcp_option_profile_add_info(1, 9, DHCP_OPTION_TAG_DELIMITER, ",", DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(1, 2, DHCP_OPTION_TAG_STRING, std::string(40, 's').c_str(), DHCP_OPTION_VAR_SN);
    const dhcp_option_profile_t *p = dhcp_option_profile_get(1);
    ASSERT_EQ(p->list.size(), 3u);
    std::vector<std::uint32_t> order;
    for (const dhcp_option_tag_var_t *t : p->list) order.push_back(t->index);
    EXPECT_EQ(order, (std::vector<std::uint32_t>{2, 5, 9}));
    const dhcp_option_tag_var_t *t2 = p->list.front();
    EXPECT_EQ(t2->type, DHCP_OPTION_TAG_STRING);
    EXPECT_EQ(t2->variable, DHCP_OPTION_VAR_FIX_STRING);  // cleared for a string
    EXPECT_EQ(std::string(t2->value), std::string(31, 's'));

    EXPECT_EQ(dhcp_option_profile_del_info(1, 7), TAVO_NOT_FOUND);
    EXPECT_EQ(dhcp_option_profile_del_info(1, 5), 0);
    EXPECT_EQ(p->list.size(), 2u);

    // In use while a VLAN's circuit-id names it.
    EXPECT_EQ(dhcp_option_profile_is_occupied(1), 0);
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_PROFILE, "p1");
    EXPECT_EQ(dhcp_option_profile_is_occupied(1), 1);
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_USER, "p1");
    EXPECT_EQ(dhcp_option_profile_is_occupied(1), 0);

    // Freed: the name is free again and the VLAN falls back to the default.
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_PROFILE, "p1");
    EXPECT_EQ(dhcp_option_free_profile(1), 0);
    EXPECT_EQ(dhcp_option_profile_get(1), nullptr);
    EXPECT_EQ(dhcp_option_find_profile_id_by_name("p1"), 0);
    EXPECT_EQ(circuit(onu_), "PON gpon-onu_1/2/3:5:100");
    EXPECT_EQ(dhcp_option_get_free_profile_id(), 1);
    EXPECT_EQ(dhcp_option_initial_profile(1, "p1"), 0);
    EXPECT_TRUE(dhcp_option_profile_get(1)->list.empty());
}

// ------------------------------------------------------ reply removal ----

// Required behaviour: the option is overwritten with END in place, so the
// options that followed it are cut off for the client.
TEST_F(Option82, RemoveFromReplyCutsOffWhatFollows)
{
    bytes msg = message(BOOTREPLY, {53, 1, 5, 82, 6, 1, 1, 'a', 2, 1, 'b', 51, 4, 0, 0, 0x0e, 0x10, 255});
    bytes before = msg;
    EXPECT_EQ(dhcp_option82_remove(msg), 8);
    EXPECT_EQ(msg.size(), before.size());  // the length is the caller's
    EXPECT_EQ(msg[DHCP_OFF_OPTIONS + 3], 255);
    for (int i = 4; i < 11; ++i) EXPECT_EQ(msg[DHCP_OFF_OPTIONS + std::size_t(i)], 0) << i;
    EXPECT_EQ(dhcp_get_msg_type(msg), DHCPACK);
    EXPECT_EQ(dhcp_get_option(msg, DHCP_AGENT_OPTIONS), nullptr);
    EXPECT_EQ(dhcp_get_option(msg, DHCP_LEASE_TIME), nullptr);  // cut off

    bytes none = message(BOOTREPLY, {53, 1, 5, 255});
    EXPECT_EQ(dhcp_option82_remove(none), 0);
    // An option 82 whose length runs past the message is not touched.
    bytes bad = message(BOOTREPLY, {53, 1, 5, 82, 40, 1});
    bytes bad_copy = bad;
    EXPECT_EQ(dhcp_option82_remove(bad), 0);
    EXPECT_EQ(bad, bad_copy);
}

// ---------------------------------------------------------- the frame ----

class Option82Frame : public Option82 {
protected:
    // Parses the frame in a 1600-byte buffer, runs the entry, and returns the
    // result with the rewritten frame in `out`.
    int run(const bytes &frame, const uif_t *pif, bytes &out)
    {
        buf_.assign(1600, 0);
        std::memcpy(buf_.data(), frame.data(), frame.size());
        pkt_ = dhcp_l2_pkt_t{};
        pkt_.l2fwd_info.rx_ifindex = pif->ifindex;
        pkt_.l2fwd_info.rx_vlanid = VID;
        pkt_.raw_packet = buf_.data();
        pkt_.raw_packet_len = std::uint16_t(frame.size());
        pkt_.raw_buf_len = std::uint16_t(buf_.size());
        EXPECT_EQ(dhcp_parse_l2_pkt(&pkt_), 0);
        int rc = dhcp_process_option_82_info(pif, &pkt_);
        out.assign(buf_.begin(), buf_.begin() + pkt_.raw_packet_len);
        return rc;
    }
    std::vector<std::uint8_t> buf_;
    dhcp_l2_pkt_t pkt_{};
};

TEST_F(Option82Frame, InsertedIntoADiscover)
{
    bytes msg = message(BOOTREQUEST, DISCOVER_OPTS);
    bytes frame = frame_of(msg);
    bytes out;
    ASSERT_EQ(run(frame, onu_, out), 0);
    bytes ours = option82_of("PON gpon-onu_1/2/3:5:100", "OLT system:0011-2233-4455");
    ASSERT_EQ(out.size(), frame.size() + ours.size());
    bytes got = check_frame(out);
    EXPECT_EQ(pkt_.dhcp_msg_len, got.size());
    EXPECT_EQ(pkt_.ip_data_len, out.size() - IP_OFF);
    // Everything up to the old end option is unchanged; ours takes its place.
    EXPECT_TRUE(std::equal(frame.begin(), frame.begin() + IP_OFF, out.begin()));
    EXPECT_TRUE(std::equal(msg.begin(), msg.end() - 1, got.begin()));
    EXPECT_EQ(bytes(got.begin() + long(msg.size()) - 1, got.end() - 1), ours);
    EXPECT_EQ(got.back(), 255);
}

TEST_F(Option82Frame, ReplacedWithLongerAndShorterOptions)
{
    struct size_case {
        const char *name;
        const char *circuit;
    } cases[] = {
        {"ours longer", "a-fairly-long-circuit-id-text"},
        {"ours shorter", "c1"},
    };
    for (const size_case &c : cases) {
        SCOPED_TRACE(c.name);
        dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_USER, c.circuit);
        dhcp_vlan_op82_remoteid_set(vlan_, DHCP_OPTION_USER, "r");
        bytes client82 = option82_of("client-circuit-abcdefgh", "client-remote");
        bytes opts = {53, 1, 3};
        opts.insert(opts.end(), client82.begin(), client82.end());
        opts.insert(opts.end(), {50, 4, 10, 0, 0, 7, 255});
        bytes frame = frame_of(message(BOOTREQUEST, opts));
        bytes out;
        ASSERT_EQ(run(frame, onu_, out), 0);
        bytes ours = option82_of(c.circuit, "r");
        EXPECT_EQ(long(out.size()) - long(frame.size()), long(ours.size()) - long(client82.size()));
        bytes got = check_frame(out);
        std::vector<bytes> found = options82(got);
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(found[0], ours);
        EXPECT_EQ(dhcp_get_op50_request_ip(got), 0x0700000au);
        EXPECT_EQ(dhcp_get_msg_type(got), DHCPREQUEST);
    }
}

TEST_F(Option82Frame, KeptAndDroppedFrames)
{
    bytes frame = frame_of(message(BOOTREQUEST, DISCOVER_WITH_82_OPTS));
    bytes out;
    dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_KEEP);
    ASSERT_EQ(run(frame, onu_, out), 0);
    EXPECT_EQ(out, frame);  // same length, so the same checksums

    dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_DROP);
    EXPECT_EQ(run(frame, onu_, out), TAVO_ERR);
}

}  // namespace
