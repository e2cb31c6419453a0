// Snooping configuration: the VLAN trap requests as the forwarding plane
// receives them, the setters' cascades, trust and the ONU-aware trust, the
// port and VLAN records made and dropped by the device-manager handlers.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "devlib/ifindex.h"
#include "devlib/uclient.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "dhcp/dhcp_client.h"
#include "dhcp/dhcp_ipsg.h"
#include "dhcp/dhcp_opt.h"
#include "dhcp/dhcp_snoop.h"
#include "dhcp/dhcp_zebra.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/errcode.h"
#include "platform/hal.h"
#include "tests/support/hal_session.h"

namespace {

const std::uint32_t GE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
const std::uint32_t FE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_FE, 1, 1, 0, 2, 0);
const std::uint32_t XE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_XE, 1, 9, 0, 1, 0);
const std::uint32_t CE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_CE, 1, 9, 0, 2, 0);
const std::uint32_t TRUNK1 = st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1);
const std::uint32_t PON = st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, 2, 0, 1, 0);
const std::uint32_t ONU = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 1, 5);

// A VLAN trap request as the forwarding plane decodes it.
struct trap {
    std::uint32_t len;
    std::uint16_t type, flags;
    std::uint32_t seq, pid;
    std::uint32_t ifindex;
    std::uint16_t vid, pad;
    std::uint32_t enable;
};

trap decode(const fake_fp_msg &m)
{
    trap t{};
    wire_reader r(m.bytes);
    r.host(t.len);
    r.host(t.type);
    r.host(t.flags);
    r.host(t.seq);
    r.host(t.pid);
    r.host(t.ifindex);
    r.host(t.vid);
    r.host(t.pad);
    r.host(t.enable);
    EXPECT_EQ(m.bytes.size(), 28u);
    return t;
}

class Snoop : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        log_ = "/tmp/snoop_log_" + std::to_string(getpid()) + "_" + name;
        uif_init();
        uvlan_init();
        dhcp_snoop_init();
        dhcp_ipsg_init();
        g_dhcp_global_cfg.relay_enable = 0;
        ASSERT_TRUE(hal_.start("snoop_" + name));
        for (std::uint16_t v : {10, 20, 30}) {
            uvlan_create(v);
            ASSERT_EQ(dhcp_vlan_init(v), 0);
        }
    }
    void TearDown() override
    {
        zlog_set_file(nullptr);
        unlink(log_.c_str());
        hal_.stop();
        dhcp_ipsg_init();
        dhcp_client_tree_destroy();
        for (uif_t *p = uif_first(); p; p = uif_next(p)) dhcp_port_deinit(p);
        for (std::uint16_t v = 1; v <= 4094; ++v) dhcp_vlan_free(vlan_get_entry(v));
        uvlan_clear();
        uif_clear();
        // Values that live beside the record and are not reset by init.
        std::strcpy(g_access_node_id, DHCP_ACCESS_NODE_ID_INIT);
        dhcp_snoop_set_remote_id(0);
        dhcp_set_max_session_id(DHCP_MAX_SESSION_DEFAULT);
    }
    std::vector<fake_fp_msg> take()
    {
        std::vector<fake_fp_msg> out = fp_.received();
        fp_.clear_received();
        return out;
    }
    std::vector<trap> traps()
    {
        std::vector<trap> out;
        for (const fake_fp_msg &m : take())
            if (m.hdr.nlmsg_type == HAL_MSG_DHCP_VLAN_ENABLE || m.hdr.nlmsg_type == HAL_MSG_DHCPV6_VLAN_ENABLE)
                out.push_back(decode(m));
        return out;
    }
    uif_t *port(std::uint32_t ifindex)
    {
        uif_t *p = uif_get_or_create(ifindex, true);
        char name[32];
        st_get_ifname_by_ifindex(ifindex, name, sizeof name);
        uif_set_name(p, name);
        return p;
    }
    void capture_log() { ASSERT_TRUE(zlog_set_file(log_.c_str())); }
    std::string log_text()
    {
        std::ifstream f(log_);
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }

    hal_session hal_;
    fake_fp &fp_ = hal_.fp;
    std::string log_;
};

TEST_F(Snoop, TrapRequestsCarryTypeSlotVlanAndSwitchInTheirFixedLayout)
{
    struct {
        const char *what;
        int (*send)();
        std::uint16_t type;
        std::uint32_t pid, vid, enable;
    } cases[] = {
        {"all cards, on", [] { return hal_dhcp_vlan_enable(100, 1); }, 321, 0, 100, 1},
        {"all cards, off", [] { return hal_dhcp_vlan_enable(4094, 0); }, 321, 0, 4094, 0},
        {"one card", [] { return hal_dhcp_vlan_enable_slot(7, 1, 3); }, 321, 3, 7, 1},
        {"dhcpv6, one card", [] { return hal_dhcpv6_vlan_enable(300, 1, 2); }, 330, 2, 300, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.send(), 0);
        std::vector<fake_fp_msg> got = take();
        ASSERT_EQ(got.size(), 1u);
        trap t = decode(got[0]);
        EXPECT_EQ(t.len, 28u);
        EXPECT_EQ(t.type, c.type);
        EXPECT_EQ(t.flags, 1);
        EXPECT_NE(t.seq, 0u);
        EXPECT_EQ(t.pid, c.pid);
        EXPECT_EQ(t.ifindex, 0u);
        EXPECT_EQ(t.vid, c.vid);
        EXPECT_EQ(t.pad, 0);
        EXPECT_EQ(t.enable, c.enable);
    }
}

TEST_F(Snoop, TrapRequestReturnsThePlaneResultOrTheChannelFailure)
{
    fp_.set_auto_reply(false);
    fp_.set_responder([](const fake_fp_msg &req, std::vector<std::uint8_t> &reply) {
        reply.resize(HAL_MSG_REG_LEN);
        hal_msg_u32_build(reply, req.hdr.nlmsg_type, 0, req.hdr.nlmsg_seq, TAVO_VLAN);
        return true;
    });
    EXPECT_EQ(hal_dhcp_vlan_enable(10, 1), TAVO_VLAN);
    hal_close();
    EXPECT_EQ(hal_dhcp_vlan_enable(10, 1), TAVO_UNAVAIL);
}

TEST_F(Snoop, VlanSnoopingProgramsThePlaneOnlyOnChangeAndWithoutRelay)
{
    uvlan_entry_t *v10 = vlan_get_entry(10), *v20 = vlan_get_entry(20);
    capture_log();
    EXPECT_EQ(dhcp_vlan_snoop_set(v10, 0), 0);  // already off: nothing at all
    EXPECT_TRUE(traps().empty());
    EXPECT_EQ(log_text(), "");

    EXPECT_EQ(dhcp_vlan_snoop_set(v10, 1), 0);
    std::vector<trap> t = traps();
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].vid, 10);
    EXPECT_EQ(t[0].enable, 1u);
    EXPECT_EQ(dhcp_vlan_snooping_check(v10), 1);
    EXPECT_EQ(dhcp_vlan_snoop_set(v10, 1), 0);
    EXPECT_TRUE(traps().empty());

    // The relay already traps its VLAN: the switch is only stored.
    dhcp_get_vlan_info(v20)->relay_enable = 1;
    EXPECT_EQ(dhcp_vlan_snoop_set(v20, 1), 0);
    EXPECT_EQ(dhcp_vlan_snooping_check(v20), 1);
    EXPECT_TRUE(traps().empty());
}

TEST_F(Snoop, VlanSnoopingIgnoresAFailedRequestAndRefusesAMissingVlan)
{
    fp_.set_auto_reply(false);
    fp_.set_responder([](const fake_fp_msg &req, std::vector<std::uint8_t> &reply) {
        reply.resize(HAL_MSG_REG_LEN);
        hal_msg_u32_build(reply, req.hdr.nlmsg_type, 0, req.hdr.nlmsg_seq, TAVO_ERR);
        return true;
    });
    EXPECT_EQ(dhcp_vlan_snoop_set(vlan_get_entry(10), 1), 0);
    EXPECT_EQ(dhcp_vlan_snooping_check(vlan_get_entry(10)), 1);
    EXPECT_EQ(dhcp_vlan_snoop_set(nullptr, 1), TAVO_ERR);
    EXPECT_EQ(dhcp_vlan_snooping_check(nullptr), 0);
    EXPECT_EQ(dhcp_vlan_init(99), TAVO_ERR);
}

TEST_F(Snoop, VlanSetterCreatesAMissingRecord)
{
    uvlan_create(40);
    uvlan_entry_t *v40 = vlan_get_entry(40);
    ASSERT_EQ(dhcp_get_vlan_info(v40), nullptr);
    EXPECT_EQ(dhcp_vlan_op82_check(v40), 0);
    EXPECT_EQ(dhcp_vlan_op82_set(v40, 1), 0);
    ASSERT_NE(dhcp_get_vlan_info(v40), nullptr);
    EXPECT_EQ(dhcp_vlan_op82_check(v40), 1);
    // A second init keeps the record and its settings.
    EXPECT_EQ(dhcp_vlan_init(40), 0);
    EXPECT_EQ(dhcp_vlan_op82_check(v40), 1);
}

TEST_F(Snoop, DisablingVlanSnoopingSwitchesGuardAndOption82OffFirst)
{
    uvlan_entry_t *v10 = vlan_get_entry(10);
    dhcp_vlan_snoop_set(v10, 1);
    dhcp_vlan_op82_set(v10, 1);
    dhcp_vlan_ipverify_set(v10, 1);
    take();
    EXPECT_EQ(dhcp_vlan_snoop_set(v10, 0), 0);
    std::vector<fake_fp_msg> got = take();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].hdr.nlmsg_type, HAL_MSG_DHCP_VLAN_ENABLE);
    EXPECT_EQ(got[1].hdr.nlmsg_type, HAL_MSG_DHCP_IP_SOURCE);  // the guard's VLAN rule withdrawn
    dhcp_vlan_t *rec = dhcp_get_vlan_info(v10);
    EXPECT_EQ(rec->snooping_enable, 0);
    EXPECT_EQ(rec->ipverify_mode, 0);
    EXPECT_EQ(rec->option82_enable, 0);
}

TEST_F(Snoop, Dhcpv6VlanSnoopingOnlyRecordsTheSwitch)
{
    uvlan_entry_t *v10 = vlan_get_entry(10);
    capture_log();
    for (int value : {1, 0, 1}) {
        EXPECT_EQ(dhcpv6_vlan_snoop_set(v10, value), 0);
        EXPECT_EQ(dhcpv6_vlan_snooping_check(v10), value);
    }
    EXPECT_TRUE(take().empty());
    EXPECT_NE(log_text().find("[EVENT]the same action on vlan 10 ."), std::string::npos);
}

TEST_F(Snoop, GlobalDisableTurnsVlansOffAndForgetsEthernetUplinkTrust)
{
    for (std::uint32_t i : {GE1, FE1, XE1, CE1, TRUNK1, PON, ONU}) ASSERT_EQ(dhcp_port_trust_set(port(i), 1), 0);
    dhcp_snoop_enable_set(1);
    dhcp_vlan_snoop_set(vlan_get_entry(10), 1);
    dhcp_vlan_snoop_set(vlan_get_entry(30), 1);
    take();

    dhcp_snoop_enable_set(0);
    std::vector<trap> t = traps();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0].vid, 10);
    EXPECT_EQ(t[1].vid, 30);
    EXPECT_EQ(t[0].enable, 0u);
    EXPECT_EQ(dhcp_vlan_snooping_check(vlan_get_entry(10)), 0);
    struct {
        std::uint32_t ifindex;
        int trust;
    } expect[] = {{GE1, 0}, {FE1, 0}, {XE1, 0}, {CE1, 0}, {TRUNK1, 1}, {PON, 1}, {ONU, 1}};
    for (const auto &e : expect) EXPECT_EQ(dhcp_port_trust_check(uif_lookup_by_index(e.ifindex)), e.trust) << e.ifindex;

    // Enabling again restores nothing.
    dhcp_snoop_enable_set(1);
    EXPECT_EQ(dhcp_port_trust_check(uif_lookup_by_index(GE1)), 0);
    EXPECT_EQ(dhcp_vlan_snooping_check(vlan_get_entry(10)), 0);
}

TEST_F(Snoop, GlobalDisableKeepsUplinkTrustWhileRelayIsOn)
{
    ASSERT_EQ(dhcp_port_trust_set(port(GE1), 1), 0);
    dhcp_snoop_enable_set(1);
    g_dhcp_global_cfg.relay_enable = 1;
    dhcp_snoop_enable_set(0);
    EXPECT_EQ(dhcp_port_trust_check(uif_lookup_by_index(GE1)), 1);
}

TEST_F(Snoop, GlobalOption82OffClearsEveryVlanSwitch)
{
    dhcp_op82_enable(1);
    dhcp_vlan_op82_set(vlan_get_entry(10), 1);
    dhcp_vlan_op82_set(vlan_get_entry(20), 1);
    dhcp_op82_enable(1);  // on again: VLANs untouched
    EXPECT_EQ(dhcp_vlan_op82_check(vlan_get_entry(10)), 1);
    dhcp_op82_enable(0);
    EXPECT_EQ(dhcp_op82_is_enable(), 0);
    EXPECT_EQ(dhcp_vlan_op82_check(vlan_get_entry(10)), 0);
    EXPECT_EQ(dhcp_vlan_op82_check(vlan_get_entry(20)), 0);
}

TEST_F(Snoop, Option18And37OffResetTheirTexts)
{
    uvlan_entry_t *v10 = vlan_get_entry(10);
    dhcp_update_sysname("olt-east");
    dhcp_vlan_op18_set(v10, 1);
    dhcp_vlan_op18_interfaceid_set(v10, DHCP_OPTION_USER, "port-a");
    dhcp_vlan_op37_set(v10, 1);
    dhcp_vlan_op37_remoteid_set(v10, DHCP_OPTION_USER, "remote-a");
    dhcp_vlan_t *rec = dhcp_get_vlan_info(v10);
    EXPECT_STREQ(rec->ipv6_interface_id, "port-a");
    EXPECT_STREQ(rec->ipv6_remote_id, "remote-a");

    dhcp_vlan_op18_set(v10, 0);
    EXPECT_EQ(rec->option18_enable, 0);
    EXPECT_EQ(rec->ipv6_interfaceid_type, DHCP_OPTION_NORMAL);
    EXPECT_EQ(rec->ipv6_interface_id, nullptr);

    // Option 37 off keeps a copy of the system name, taken now.
    dhcp_vlan_op37_set(v10, 0);
    EXPECT_EQ(rec->option37_enable, 0);
    EXPECT_EQ(rec->ipv6_remoteid_type, DHCP_OPTION_NORMAL);
    ASSERT_NE(rec->ipv6_remote_id, nullptr);
    EXPECT_STREQ(rec->ipv6_remote_id, "olt-east");
    dhcp_update_sysname("olt-west");
    EXPECT_STREQ(rec->ipv6_remote_id, "olt-east");
}

TEST_F(Snoop, GlobalValuesStartAsSetByInit)
{
    EXPECT_EQ(dhcp_snoop_is_enable(), 0);
    EXPECT_EQ(g_dhcp_global_cfg.write_expire, 60u);
    EXPECT_EQ(g_dhcp_global_cfg.tftp_ip, nullptr);
    EXPECT_STREQ(dhcp_snoop_get_access_node_id(), "PON");
    EXPECT_EQ(dhcp_get_max_session_id(), 4000u);
    EXPECT_EQ(dhcp_snoop_get_client_op18_policy(), DHCPPORTOPTIONPOLICY_REPLACE);
    // The option codec asks this module for the client policies.
    dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_DROP);
    EXPECT_EQ(dhcp_get_packet_opcode(1, 0, 1, 82), DHCP_OPCODE_DROP);
    dhcp_snoop_set_client_op82_policy(DHCPPORTOPTIONPOLICY_REPLACE);
}

TEST_F(Snoop, ClientPolicyStoresAnyValueAndLogsOnlyChanges)
{
    capture_log();
    dhcp_snoop_set_client_op82_policy(1);
    dhcp_snoop_set_client_op82_policy(1);
    dhcp_snoop_set_client_op82_policy(7);
    EXPECT_EQ(dhcp_snoop_get_client_op82_policy(), 7);
    std::string log = log_text();
    EXPECT_NE(log.find("[EVENT]update client option82 policy keep."), std::string::npos);
    EXPECT_EQ(log.find("keep.", log.find("keep.") + 1), std::string::npos);
    EXPECT_NE(log.find("[EVENT]update client option82 policy UNKNOWN ERROR."), std::string::npos);
}

TEST_F(Snoop, AccessNodeIdKeepsAtMost63CharactersTerminated)
{
    std::string s63(63, 'a'), s70(70, 'b');
    dhcp_snoop_set_access_node_id(s63.c_str());
    EXPECT_EQ(std::string(dhcp_snoop_get_access_node_id()), s63);
    dhcp_snoop_set_access_node_id(s70.c_str());
    EXPECT_EQ(std::string(dhcp_snoop_get_access_node_id()), std::string(63, 'b'));
    dhcp_snoop_set_access_node_id(DHCP_ACCESS_NODE_ID_DEFAULT);
    EXPECT_STREQ(dhcp_snoop_get_access_node_id(), "GPON-OLT");
}

TEST_F(Snoop, TrustAnswersByPortAndGlobalSwitch)
{
    uif_t *ge = port(GE1), *xe = port(XE1);
    dhcp_port_trust_set(ge, 1);
    // Every port counts as trusted while snooping is off.
    EXPECT_EQ(dhcp_snoop_port_is_trust(ge), 1);
    EXPECT_EQ(dhcp_snoop_port_is_trust(xe), 1);
    EXPECT_EQ(dhcp_snoop_port_is_trust(nullptr), 1);
    dhcp_snoop_enable_set(1);
    EXPECT_EQ(dhcp_snoop_port_is_trust(ge), 1);
    EXPECT_EQ(dhcp_snoop_port_is_trust(xe), 0);  // no record
    EXPECT_EQ(dhcp_port_trust_check(xe), 0);
    dhcp_port_trust_set(xe, 0);
    EXPECT_EQ(dhcp_snoop_port_is_trust(xe), 0);
    dhcp_port_trust_set(ge, 0);
    EXPECT_EQ(dhcp_snoop_port_is_trust(ge), 0);
}

TEST_F(Snoop, OnuInterfaceIsTrustedExactlyWhenItsPonPortIs)
{
    uif_t *onu = port(ONU);
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 0);  // no PON port yet
    uif_t *pon = port(PON);
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 0);  // PON without record
    dhcp_port_trust_set(pon, 1);
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 1);
    dhcp_port_trust_set(onu, 0);  // the ONU's own record does not matter
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 1);
    dhcp_port_trust_set(pon, 0);
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 0);
    dhcp_port_trust_set(port(GE1), 1);
    EXPECT_EQ(dhcp_port_trust_onu_check(uif_lookup_by_index(GE1)), 1);
    EXPECT_EQ(dhcp_port_trust_onu_check(nullptr), 0);
}

TEST_F(Snoop, UplinksAreTheEthernetPortsAndTrunks)
{
    struct {
        std::uint32_t ifindex;
        int uplink;
    } cases[] = {{FE1, 1}, {GE1, 1}, {XE1, 1}, {CE1, 1}, {TRUNK1, 1}, {PON, 0}, {ONU, 0}};
    for (const auto &c : cases) EXPECT_EQ(dhcp_port_is_uplink(port(c.ifindex)), c.uplink) << st_ifname(c.ifindex);
    EXPECT_EQ(dhcp_port_is_uplink(nullptr), 1);
}

TEST_F(Snoop, PortRecordHasAClientListOnlyWhereClientsAreLearned)
{
    struct {
        std::uint32_t ifindex;
        bool list;
    } cases[] = {{GE1, true}, {XE1, true}, {PON, true}, {ONU, true}, {FE1, false}, {CE1, false}, {TRUNK1, false}};
    for (const auto &c : cases) {
        uif_t *p = port(c.ifindex);
        dhcp_port_t *rec = dhcp_port_init(p);
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(rec->pif, p);
        EXPECT_EQ(rec->client != nullptr, c.list) << st_ifname(c.ifindex);
        EXPECT_EQ(dhcp_port_init(p), rec);  // found, not made again
    }
    uif_t *ge = uif_lookup_by_index(GE1);
    dhcp_port_deinit(ge);
    EXPECT_EQ(ge->info, nullptr);
    EXPECT_EQ(dhcp_port_get_info(ge), nullptr);
}

TEST_F(Snoop, OnuNumbersAndThePonPortAboveAnOnu)
{
    int shelf = 0, slot = 0, pn = 0, onu = 0;
    ASSERT_EQ(dhcp_get_onu_phy_info(ONU, &shelf, &slot, &pn, &onu), 0);
    EXPECT_EQ(shelf, 1);
    EXPECT_EQ(slot, 2);
    EXPECT_EQ(pn, 1);
    EXPECT_EQ(onu, 5);
    EXPECT_EQ(dhcp_get_onu_ifindex(1, 2, 1, 5), ONU);
    EXPECT_EQ(dhcp_get_pon_ifindex_from_onu_ifindex(ONU), PON);
    EXPECT_EQ(dhcp_get_onu_phy_info(PON, &shelf, &slot, &pn, &onu), TAVO_ERR);
    EXPECT_EQ(dhcp_get_pon_ifindex_from_onu_ifindex(GE1), 0u);
}

TEST_F(Snoop, SlotRecoveryReplaysTheVlanTrapsToThatCard)
{
    dhcp_vlan_snoop_set(vlan_get_entry(10), 1);
    dhcp_get_vlan_info(vlan_get_entry(30))->relay_enable = 1;
    take();
    EXPECT_EQ(dhcp_snoop_proc_slot_recovery(4), 0);
    std::vector<trap> t = traps();
    ASSERT_EQ(t.size(), 2u);
    for (const trap &x : t) {
        EXPECT_EQ(x.type, 321);
        EXPECT_EQ(x.pid, 4u);
        EXPECT_EQ(x.enable, 1u);
    }
    EXPECT_EQ(t[0].vid, 10);
    EXPECT_EQ(t[1].vid, 30);
}

// ------------------------------------------------- device-manager handlers ----

umsg_if_t if_msg(std::uint32_t ifindex)
{
    umsg_if_t m{};
    m.ifindex = ifindex;
    st_get_ifname_by_ifindex(ifindex, m.name, sizeof m.name);
    m.status = 1;
    return m;
}

TEST_F(Snoop, NewPortGetsARecordOnlyForGeAndXe)
{
    struct {
        std::uint32_t ifindex;
        bool record;
    } cases[] = {{GE1, true}, {XE1, true}, {TRUNK1, false}, {PON, false}, {ONU, false}, {FE1, false}, {CE1, false}};
    for (const auto &c : cases) {
        umsg_if_t m = if_msg(c.ifindex);
        dhcp_new_if(&m);
        uif_t *p = uif_lookup_by_index(c.ifindex);
        EXPECT_EQ(p && p->info, c.record) << st_ifname(c.ifindex);
    }
    umsg_if_t m = if_msg(GE1);
    dhcp_del_if(&m);
    EXPECT_EQ(uif_lookup_by_index(GE1), nullptr);
}

TEST_F(Snoop, VlanCreateMakesRecordsAndKeepsExistingOnes)
{
    dhcp_vlan_op82_set(vlan_get_entry(10), 1);
    umsg_vlan_t m{};
    uvlan_bitmap_set(m.uvlan, 10);
    uvlan_bitmap_set(m.uvlan, 50);
    dhcp_vlan_create(&m);
    EXPECT_NE(dhcp_vlan_info_get_by_vid(50), nullptr);
    EXPECT_EQ(dhcp_vlan_op82_check(vlan_get_entry(10)), 1);

    umsg_vlan_t d{};
    uvlan_bitmap_set(d.uvlan, 50);
    dhcp_vlan_destroy(&d);
    EXPECT_EQ(vlan_get_entry(50), nullptr);
}

TEST_F(Snoop, OnuStatusOfAnyKindClearsThatInterfacesBindings)
{
    const std::uint8_t a[6] = {0, 1, 2, 3, 4, 5}, b[6] = {0, 1, 2, 3, 4, 6};
    const std::uint32_t other = dhcp_get_onu_ifindex(1, 2, 1, 6);
    for (int status : {1, 0, -1}) {
        dhcp_client_info_t *ca = dhcp_new_client_lease_info(a, 10, 1);
        dhcp_client_info_t *cb = dhcp_new_client_lease_info(b, 10, 1);
        ASSERT_TRUE(ca && cb);
        ca->client_ifindex = ONU;
        cb->client_ifindex = other;
        dhcp_client_info_reindex(ca);
        dhcp_client_info_reindex(cb);
        umsg_onu_op_t m{};
        m.ifindex = ONU;
        m.status = status;
        dhcp_proc_onu_status_notify(&m);
        EXPECT_EQ(dhcp_lookup_client_lease_info(a, 10), nullptr) << status;
        EXPECT_NE(dhcp_lookup_client_lease_info(b, 10), nullptr) << status;
        dhcp_snooping_delete_all_client_info();
    }
}

} // namespace
