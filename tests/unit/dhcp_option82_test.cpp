// Relay-agent information: the client policies, every circuit-id and
// remote-id form, profiles and their expansion, removal from replies, and the
// rewrite of a real frame with lengths and checksums checked independently.
#include <gtest/gtest.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
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
const std::string DEFAULT_CIRCUIT = "PON gpon-onu_1/2/3:5:100", DEFAULT_REMOTE = "OLT system:0011-2233-4455";

// A DHCP message: fixed header, cookie, then `opts` (which carry their end).
bytes message(std::uint8_t op, const bytes &opts)
{
    bytes m(DHCP_FIXED_HDR_LEN, 0);
    m[DHCP_OFF_OP] = op;
    put_be32_at(m, DHCP_OFF_COOKIE, DHCP_MAGIC);
    m.insert(m.end(), opts.begin(), opts.end());
    return m;
}
const bytes DISCOVER_OPTS = {53, 1, 1, 61, 7, 1, 0x00, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 255};
// A client's own option 82 (circuit "abc", remote "xy") followed by a host name.
const bytes DISCOVER_WITH_82_OPTS = {53, 1, 1, 82, 9, 1, 3, 'a', 'b', 'c', 2, 2, 'x', 'y',
                                     12, 4, 'h', 'o', 's', 't', 255};

bytes option82_of(const std::string &circuit, const std::string &remote)
{
    bytes o = {82, std::uint8_t(4 + circuit.size() + remote.size()), 1, std::uint8_t(circuit.size())};
    o.insert(o.end(), circuit.begin(), circuit.end());
    o.insert(o.end(), {2, std::uint8_t(remote.size())});
    o.insert(o.end(), remote.begin(), remote.end());
    return o;
}

// All option 82 occurrences of a message's option area, as whole TLVs.
std::vector<bytes> options82(const bytes &msg)
{
    std::vector<bytes> out;
    for (std::size_t i = DHCP_OFF_OPTIONS; i + 1 < msg.size() && msg[i] != 255; i += msg[i] ? 2 + msg[i + 1] : 1)
        if (msg[i] == 82) out.emplace_back(msg.begin() + long(i), msg.begin() + long(i + 2 + msg[i + 1]));
    return out;
}

class DhcpOption82 : public ::testing::Test {
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
        for (std::uint16_t v = 1; v <= 4094; ++v) dhcp_vlan_free(vlan_get_entry(v));
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
    // The circuit-id (pif set) or remote-id text; the length returned must be the text's.
    std::string text(const uif_t *pif, int vid = VID)
    {
        char buf[DHCP_OPTION82_TEXT_LEN];
        int n = pif ? dhcp_option82_circuit_id(pif, vid, buf, sizeof buf)
                    : dhcp_option82_remote_id(vid, buf, sizeof buf);
        EXPECT_EQ(std::size_t(n), std::strlen(buf));
        return buf;
    }
    // Runs the policy over msg with 200 stale bytes behind it; leaves the
    // message cut to the result in msg.
    int process(bytes &msg, const uif_t *pif)
    {
        std::size_t len = msg.size();
        msg.resize(len + 200, 0xee);
        int n = dhcp_option82_process(msg, int(len), pif, VID);
        msg.resize(n ? std::size_t(n) : len);
        return n;
    }
    int make_profile(const char *name, std::vector<std::tuple<int, const char *, DHCP_OPTION_VAR_TYPE>> tags)
    {
        int id = dhcp_option_get_free_profile_id();
        EXPECT_EQ(dhcp_option_initial_profile(id, name), 0);
        std::uint32_t index = 1;
        for (auto [type, value, var] : tags)
            EXPECT_EQ(dhcp_option_profile_add_info(id, index++, DHCP_OPTION_TAG_TYPE(type), value, var), 0);
        return id;
    }

    uvlan_entry_t *vlan_ = nullptr;
    uif_t *onu_ = nullptr, *pon_ = nullptr, *ge_ = nullptr;
};

TEST_F(DhcpOption82, PolicyDecisionsByPortSideAndClientOption)
{
    enum outcome { DROP, KEEP, OURS };
    const int REPLACE = DHCPPORTOPTIONPOLICY_REPLACE, KEEP_ = DHCPPORTOPTIONPOLICY_KEEP;
    const int DROP_ = DHCPPORTOPTIONPOLICY_DROP;
    const struct {
        const char *name;
        int policy, side;  // side: 0 ONU, 1 PON port (both access), 2 GE uplink
        bool has82;
        outcome want;
    } cases[] = {
        {"access, none, drop", DROP_, 0, false, OURS},  {"access, none, keep", KEEP_, 0, false, OURS},
        {"access, own, replace", REPLACE, 0, true, OURS}, {"access, own, keep", KEEP_, 0, true, KEEP},
        {"access, own, drop", DROP_, 0, true, DROP},     {"PON port, own, drop", DROP_, 1, true, DROP},
        {"access, own, unknown policy is replace", 7, 0, true, OURS},
        {"uplink, none", DROP_, 2, false, OURS},          {"uplink, own, drop ignored", DROP_, 2, true, KEEP},
        {"uplink, own, replace ignored", REPLACE, 2, true, KEEP},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        dhcp_snoop_set_client_op82_policy(c.policy);
        const bytes original = message(BOOTREQUEST, c.has82 ? DISCOVER_WITH_82_OPTS : DISCOVER_OPTS);
        bytes msg = original;
        int n = process(msg, c.side == 0 ? onu_ : c.side == 1 ? pon_ : ge_);
        if (c.want != OURS) {
            EXPECT_EQ(n, c.want == DROP ? 0 : int(original.size()));
            EXPECT_EQ(msg, original);
            continue;
        }
        bytes want = option82_of(c.side == 0 ? DEFAULT_CIRCUIT : "PON ge_1/1/1:100", DEFAULT_REMOTE);
        EXPECT_EQ(options82(msg), std::vector<bytes>{want});
        // Ours replaces the client's (11 bytes) before the end; other options survive.
        EXPECT_EQ(n, int(original.size()) - (c.has82 ? 11 : 0) + int(want.size()));
        EXPECT_EQ(dhcp_get_msg_type(msg), DHCPDISCOVER);
        EXPECT_EQ(dhcp_get_option_lengh(msg, DHCP_HOST_NAME), c.has82 ? 4 : 0);
        EXPECT_EQ(msg.back(), 255);
    }
    // Replace removes every copy a client sent, or two options 82 leave.
    dhcp_snoop_set_client_op82_policy(REPLACE);
    bytes msg = message(BOOTREQUEST, {53, 1, 3, 82, 3, 1, 1, 'a', 82, 4, 2, 2, 'x', 'y', 50, 4, 10, 0, 0, 9, 255});
    ASSERT_GT(process(msg, onu_), 0);
    EXPECT_EQ(options82(msg), std::vector<bytes>{option82_of(DEFAULT_CIRCUIT, DEFAULT_REMOTE)});
    EXPECT_EQ(dhcp_get_op50_request_ip(msg), 0x0900000au);
}

// Without room for the option or without an end option the message is left
// as it was; every cut of a request stays within its exact-size buffer.
TEST_F(DhcpOption82, NoRoomNoEndAndTruncationsStayInBounds)
{
    bytes msg = message(BOOTREQUEST, DISCOVER_OPTS);
    std::size_t len = msg.size();
    auto exact = std::make_unique<std::uint8_t[]>(len + 10);
    std::memcpy(exact.get(), msg.data(), len);
    EXPECT_EQ(dhcp_option82_add(bytes_span(exact.get(), len + 10), int(len), onu_, VID), int(len));
    EXPECT_EQ(std::memcmp(exact.get(), msg.data(), len), 0);
    bytes no_end = message(BOOTREQUEST, {53, 1, 1, 0, 0}), copy = no_end;
    EXPECT_EQ(process(copy, onu_), int(no_end.size()));
    EXPECT_EQ(copy, no_end);

    for (int policy : {DHCPPORTOPTIONPOLICY_REPLACE, DHCPPORTOPTIONPOLICY_KEEP}) {
        dhcp_snoop_set_client_op82_policy(policy);
        bytes full = message(BOOTREQUEST, DISCOVER_WITH_82_OPTS);
        for (std::size_t n = 0; n <= full.size(); ++n) {
            auto buf = std::make_unique<std::uint8_t[]>(n);
            if (n) std::memcpy(buf.get(), full.data(), n);
            EXPECT_LE(dhcp_option82_process(bytes_span(buf.get(), n), int(n), onu_, VID), int(n)) << n;
        }
    }
}

TEST_F(DhcpOption82, CircuitAndRemoteIdForms)
{
    make_profile("prof", {{DHCP_OPTION_TAG_STRING, "X", DHCP_OPTION_VAR_FIX_STRING},
                          {DHCP_OPTION_TAG_VARIABLE, nullptr, DHCP_OPTION_VAR_SN}});
    const struct {
        const char *name;
        bool circuit;
        int type;
        const char *text;
        const uif_t *pif;
        std::string want;
    } forms[] = {
        {"normal", true, DHCP_OPTION_NORMAL, nullptr, onu_, DEFAULT_CIRCUIT},
        {"onu-auth", true, DHCP_OPTION_ONU_AUTH, nullptr, onu_, "gpon-onu_1/2/3:5 SN:TAVO12345678"},
        {"user", true, DHCP_OPTION_USER, "my-circuit", onu_, "my-circuit"},
        {"sysname stores its text", true, DHCP_OPTION_SYSNAME, "stored", onu_, "stored"},
        {"user without text", true, DHCP_OPTION_USER, nullptr, onu_, ""},
        {"profile", true, DHCP_OPTION_PROFILE, "prof", onu_, "XTAVO12345678"},
        {"missing profile", true, DHCP_OPTION_PROFILE, "gone", onu_, DEFAULT_CIRCUIT},
        {"remote normal: system MAC", false, DHCP_OPTION_NORMAL, "ignored", nullptr, DEFAULT_REMOTE},
        {"remote user", false, DHCP_OPTION_USER, "remote-1", nullptr, "remote-1"},
        {"remote sysname: the system name", false, DHCP_OPTION_SYSNAME, nullptr, nullptr, "olt-a"},
    };
    for (const auto &f : forms) {
        SCOPED_TRACE(f.name);
        ASSERT_EQ((f.circuit ? dhcp_vlan_op82_circuitid_set : dhcp_vlan_op82_remoteid_set)(vlan_, f.type, f.text), 0);
        EXPECT_EQ(text(f.pif), f.want);
    }
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_NORMAL, nullptr);
    dhcp_vlan_op82_remoteid_set(vlan_, DHCP_OPTION_NORMAL, nullptr);
    dhcp_snoop_set_access_node_id("NODE-7");
    dhcp_snoop_set_remote_id(1);  // the global remote id is not used
    EXPECT_EQ(text(onu_), "NODE-7 gpon-onu_1/2/3:5:100");
    EXPECT_EQ(text(nullptr), DEFAULT_REMOTE);
    // Without the VLAN, or without its record: the defaults.
    uvlan_create(201);
    EXPECT_EQ(text(onu_, 200), "NODE-7 gpon-onu_1/2/3:5:200");
    EXPECT_EQ(text(onu_, 201), "NODE-7 gpon-onu_1/2/3:5:201");
    EXPECT_EQ(text(nullptr, 200), DEFAULT_REMOTE);

    // Both texts are cut to 62 characters; a buffer one byte short gets nothing.
    const std::string c(62, 'c'), r(62, 'r');
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_USER, (c + "tail").c_str());
    dhcp_vlan_op82_remoteid_set(vlan_, DHCP_OPTION_USER, (r + "tail").c_str());
    std::uint8_t out[200];
    ASSERT_EQ(dhcp_option82_build(onu_, VID, out), 2u + 64 + 64);
    EXPECT_EQ(bytes(out, out + 130), option82_of(c, r));
    EXPECT_EQ(dhcp_option82_build(onu_, VID, bytes_span(out, 129)), 0u);
}

TEST_F(DhcpOption82, ProfileExpansionOfEveryVariable)
{
    using V = DHCP_OPTION_VAR_TYPE;
    const int VAR = DHCP_OPTION_TAG_VARIABLE, DELIM = DHCP_OPTION_TAG_DELIMITER;
    int id = make_profile("all", {});
    // Inserted out of order: expansion follows the index.
    const std::tuple<std::uint32_t, int, const char *, V> tags[] = {
        {15, VAR, nullptr, DHCP_OPTION_VAR_FIX_STRING},  // contributes nothing
        {14, VAR, nullptr, DHCP_OPTION_VAR_SN},    {13, DHCP_OPTION_TAG_STRING, "-sn=", V(0)},
        {12, VAR, nullptr, DHCP_OPTION_VAR_SVLAN}, {11, DELIM, ".", V(0)},
        {10, VAR, nullptr, DHCP_OPTION_VAR_UVLAN}, {9, DELIM, ":", V(0)},
        {8, VAR, nullptr, DHCP_OPTION_VAR_ONU},    {7, VAR, nullptr, DHCP_OPTION_VAR_PORT},
        {6, VAR, nullptr, DHCP_OPTION_VAR_SLOT},   {5, DELIM, "/", V(0)},
        {4, VAR, nullptr, DHCP_OPTION_VAR_FRAME},  {3, VAR, nullptr, DHCP_OPTION_VAR_RACK},
        {2, DELIM, " ", V(0)},                     {1, VAR, nullptr, DHCP_OPTION_VAR_ACCESS_NODE_ID},
    };
    for (auto [index, type, value, var] : tags)
        ASSERT_EQ(dhcp_option_profile_add_info(id, index, DHCP_OPTION_TAG_TYPE(type), value, var), 0);
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_PROFILE, "all");
    // slot 2, port 3, ONU 5; uvlan and svlan are both the relay VLAN.
    EXPECT_EQ(text(onu_), "PON 11/235:100.100-sn=TAVO12345678");
    char fmt[256];
    EXPECT_STREQ(dhcp_option_profile_format(id, fmt, sizeof fmt),
                 "{access-node-id} {rack}{frame}/{slot}{port}{onu}:{uvlan}.{svlan}-sn={sn}{NULL}");

    // 63 characters are used (and cut to 62 in the option); 64 fall back to the default.
    const std::string a(31, 'a'), b(31, 'b');
    int long_id = make_profile("long", {{DHCP_OPTION_TAG_STRING, a.c_str(), V(0)},
                                        {DHCP_OPTION_TAG_STRING, b.c_str(), V(0)}, {DELIM, "/", V(0)}});
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_PROFILE, "long");
    char exp[64];
    ASSERT_TRUE(dhcp_option_profile_expand(long_id, onu_->ifindex, onu_->onu_sn, VID, exp, sizeof exp));
    EXPECT_EQ(std::string(exp), a + b + "/");
    EXPECT_EQ(text(onu_), a + b);
    dhcp_option_profile_add_info(long_id, 4, DHCP_OPTION_TAG_DELIMITER, ":", V(0));
    EXPECT_FALSE(dhcp_option_profile_expand(long_id, onu_->ifindex, onu_->onu_sn, VID, exp, sizeof exp));
    EXPECT_EQ(text(onu_), DEFAULT_CIRCUIT);
}

TEST_F(DhcpOption82, ProfileTableOperations)
{
    const std::tuple<int, const char *, int> inits[] = {{1, "p1", 0},          {1, "other", TAVO_UNAVAIL},
                                                        {2, "p1", TAVO_EXISTS}, {0, "p0", TAVO_PARAM},
                                                        {33, "p33", TAVO_PARAM}, {3, "p3", 0}};
    for (auto [id, name, rc] : inits) EXPECT_EQ(dhcp_option_initial_profile(id, name), rc) << id << name;
    EXPECT_EQ(dhcp_option_get_free_profile_id(), 2);  // lowest free
    EXPECT_EQ(dhcp_option_find_profile_id_by_name("p3"), 3);
    // Tags: sorted by index, an existing index changed in place, texts cut to 31.
    dhcp_option_profile_add_info(1, 5, DHCP_OPTION_TAG_STRING, "five", DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(1, 2, DHCP_OPTION_TAG_VARIABLE, "ignored", DHCP_OPTION_VAR_SLOT);
    dhcp_option_profile_add_info(1, 9, DHCP_OPTION_TAG_DELIMITER, ",", DHCP_OPTION_VAR_FIX_STRING);
    dhcp_option_profile_add_info(1, 2, DHCP_OPTION_TAG_STRING, std::string(40, 's').c_str(), DHCP_OPTION_VAR_SN);
    char fmt[128];
    EXPECT_EQ(dhcp_option_profile_format(1, fmt, sizeof fmt), std::string(31, 's') + "five,");
    EXPECT_EQ(dhcp_option_profile_get(1)->list.front()->variable, DHCP_OPTION_VAR_FIX_STRING);  // cleared
    EXPECT_EQ(dhcp_option_profile_del_info(1, 7), TAVO_NOT_FOUND);
    EXPECT_EQ(dhcp_option_profile_del_info(1, 5), 0);
    EXPECT_EQ(dhcp_option_profile_format(1, fmt, sizeof fmt), std::string(31, 's') + ",");
    // In use while a VLAN's circuit-id names it; freed, the VLAN falls back to the default.
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_USER, "p1");
    EXPECT_EQ(dhcp_option_profile_is_occupied(1), 0);
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_PROFILE, "p1");
    EXPECT_EQ(dhcp_option_profile_is_occupied(1), 1);
    EXPECT_EQ(dhcp_option_free_profile(1), 0);
    EXPECT_EQ(dhcp_option_profile_get(1), nullptr);
    EXPECT_EQ(text(onu_), DEFAULT_CIRCUIT);
    EXPECT_EQ(dhcp_option_initial_profile(1, "p1"), 0);
    EXPECT_TRUE(dhcp_option_profile_get(1)->list.empty());
}

// The option is overwritten with END in place, so the options that followed
// it are cut off for the client.
TEST_F(DhcpOption82, RemoveFromReplyCutsOffWhatFollows)
{
    bytes msg = message(BOOTREPLY, {53, 1, 5, 82, 6, 1, 1, 'a', 2, 1, 'b', 51, 4, 0, 0, 0x0e, 0x10, 255});
    bytes want = message(BOOTREPLY, {53, 1, 5, 255, 0, 0, 0, 0, 0, 0, 0, 51, 4, 0, 0, 0x0e, 0x10, 255});
    EXPECT_EQ(dhcp_option82_remove(msg), 8);
    EXPECT_EQ(msg, want);
    bytes none = message(BOOTREPLY, {53, 1, 5, 255});
    EXPECT_EQ(dhcp_option82_remove(none), 0);
    // An option 82 whose length runs past the message is not touched.
    bytes bad = message(BOOTREPLY, {53, 1, 5, 82, 40, 1}), bad_copy = bad;
    EXPECT_EQ(dhcp_option82_remove(bad), 0);
    EXPECT_EQ(bad, bad_copy);
}

// Independent ones'-complement sum, for verifying what the code wrote.
std::uint32_t sum16(const std::uint8_t *p, std::size_t n, std::uint32_t s = 0)
{
    for (std::size_t i = 0; i + 1 < n; i += 2) s += std::uint32_t(p[i] << 8 | p[i + 1]);
    if (n & 1) s += std::uint32_t(p[n - 1] << 8);
    while (s >> 16) s = (s & 0xffff) + (s >> 16);
    return s;
}

// A client's option longer than ours: the frame shrinks, with its IP and UDP
// lengths and checksums rewritten. Keep leaves the frame; drop refuses it.
TEST_F(DhcpOption82, FrameRewriteKeepAndDrop)
{
    constexpr std::size_t IP = 18, UDP = 38, MSG = 46;
    // {IP header sum, UDP sum with its pseudo header}: 0xffff each when right.
    auto sums = [](const bytes &f) {
        const std::uint8_t pseudo[12] = {f[IP + 12], f[IP + 13], f[IP + 14], f[IP + 15], f[IP + 16], f[IP + 17], 0, 17,
                                         f[UDP + 4], f[UDP + 5]};
        return std::pair{sum16(&f[IP], 20), sum16(&f[UDP], f.size() - UDP, sum16(pseudo, 12))};
    };
    dhcp_vlan_op82_circuitid_set(vlan_, DHCP_OPTION_USER, "c1");
    dhcp_vlan_op82_remoteid_set(vlan_, DHCP_OPTION_USER, "r");
    const bytes client82 = option82_of("client-circuit-abcdefgh", "client-remote"), ours = option82_of("c1", "r");
    bytes opts = {53, 1, 3};
    opts.insert(opts.end(), client82.begin(), client82.end());
    opts.insert(opts.end(), {50, 4, 10, 0, 0, 7, 255});
    bytes frame = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x81, 0, 0, VID, 0x08, 0,
                   0x45, 0, 0, 0, 0, 1, 0, 0, 64, 17, 0, 0, 10, 0, 0, 2, 255, 255, 255, 255,  // IPv4 10.0.0.2 -> all
                   0, 68, 0, 67, 0, 0, 0, 0};                                                 // UDP 68 -> 67
    const bytes msg = message(BOOTREQUEST, opts);
    frame.insert(frame.end(), msg.begin(), msg.end());
    put_be16_at(frame, IP + 2, std::uint16_t(frame.size() - IP));
    put_be16_at(frame, UDP + 4, std::uint16_t(frame.size() - UDP));
    put_be16_at(frame, IP + 10, std::uint16_t(~sums(frame).first));
    put_be16_at(frame, UDP + 6, std::uint16_t(~sums(frame).second));
    auto run = [&](bytes &out) {
        bytes buf(1600, 0);
        std::copy(frame.begin(), frame.end(), buf.begin());
        dhcp_l2_pkt_t p{};
        p.l2fwd_info.rx_ifindex = onu_->ifindex;
        p.l2fwd_info.rx_vlanid = VID;
        p.raw_packet = buf.data();
        p.raw_packet_len = std::uint16_t(frame.size());
        p.raw_buf_len = std::uint16_t(buf.size());
        EXPECT_EQ(dhcp_parse_l2_pkt(&p), 0);
        int rc = dhcp_process_option_82_info(onu_, &p);
        out.assign(buf.begin(), buf.begin() + p.raw_packet_len);
        EXPECT_EQ(p.dhcp_msg_len + MSG, out.size());
        EXPECT_EQ(p.ip_data_len + IP, out.size());
        return rc;
    };
    bytes out;
    ASSERT_EQ(run(out), 0);
    ASSERT_EQ(out.size(), frame.size() - client82.size() + ours.size());
    EXPECT_TRUE(std::equal(frame.begin(), frame.begin() + IP, out.begin()));
    std::uint16_t ip_len = 0, udp_len = 0, udp_sum = 0;
    be16_at(out, IP + 2, ip_len), be16_at(out, UDP + 4, udp_len), be16_at(out, UDP + 6, udp_sum);
    EXPECT_EQ(ip_len, out.size() - IP);
    EXPECT_EQ(udp_len, out.size() - UDP);
    EXPECT_NE(udp_sum, 0);
    EXPECT_EQ(sums(out), std::pair(0xffffu, 0xffffu)) << "IP header and UDP checksums";
    const bytes got(out.begin() + MSG, out.end());
    EXPECT_EQ(options82(got), std::vector<bytes>{ours});
    EXPECT_EQ(dhcp_get_op50_request_ip(got), 0x0700000au);

    dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_KEEP);
    ASSERT_EQ(run(out), 0);
    EXPECT_EQ(out, frame);  // same length, so the same checksums
    dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_DROP);
    EXPECT_EQ(run(out), TAVO_ERR);
}

}  // namespace
