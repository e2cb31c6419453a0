// Snooping configuration: the VLAN trap requests as the forwarding plane
// receives them, the setters' cascades, trust and the ONU-aware trust, the
// port records and the device manager's notifications.
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
#include "platform/errcode.h"
#include "tests/support/hal_session.h"

namespace {

const std::uint32_t GE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 1, 1, 0, 1, 0);
const std::uint32_t FE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_FE, 1, 1, 0, 2, 0);
const std::uint32_t XE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_XE, 1, 9, 0, 1, 0);
const std::uint32_t CE1 = st_ifindex_gen_by_phyinfo(PORT_TYPE_CE, 1, 9, 0, 2, 0);
const std::uint32_t TRUNK1 = st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 1);
const std::uint32_t PON = st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON, 1, 2, 0, 1, 0);
const std::uint32_t ONU = st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 2, 0, 1, 5);

// A VLAN trap request as the forwarding plane decodes it: {type, slot, vid, enable};
// the fixed parts are checked here.
using trap = std::vector<std::uint32_t>;
trap decode(const fake_fp_msg &m)
{
    std::uint32_t len = 0, seq = 0, pid = 0, ifindex = 1, enable = 0;
    std::uint16_t type = 0, flags = 0, vid = 0, pad = 1;
    wire_reader r(m.bytes);
    r.host(len), r.host(type), r.host(flags), r.host(seq), r.host(pid), r.host(ifindex), r.host(vid), r.host(pad);
    r.host(enable);
    EXPECT_EQ(m.bytes.size(), 28u);
    EXPECT_EQ(len, 28u);
    EXPECT_EQ(flags, 1);
    EXPECT_NE(seq, 0u);
    EXPECT_EQ(ifindex | pad, 0u);
    return {type, pid, vid, enable};
}

class DhcpSnoop : public ::testing::Test {
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
        for (std::uint16_t v : {10, 20, 30}) uvlan_create(v), dhcp_vlan_init(v);
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
        std::strcpy(g_access_node_id, DHCP_ACCESS_NODE_ID_INIT);  // not reset by init
    }
    // The requests the plane received since the last call: all, or the traps decoded.
    std::vector<fake_fp_msg> take()
    {
        std::vector<fake_fp_msg> out = hal_.fp.received();
        hal_.fp.clear_received();
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
    void answer_with(std::uint32_t result)
    {
        hal_.fp.set_auto_reply(false);
        hal_.fp.set_responder([result](const fake_fp_msg &req, std::vector<std::uint8_t> &reply) {
            reply.resize(HAL_MSG_REG_LEN);
            return hal_msg_u32_build(reply, req.hdr.nlmsg_type, 0, req.hdr.nlmsg_seq, result);
        });
    }
    uif_t *port(std::uint32_t ifindex)
    {
        uif_t *p = uif_get_or_create(ifindex, true);
        uif_set_name(p, st_ifname(ifindex));
        return p;
    }
    std::string log_text()
    {
        std::stringstream ss;
        ss << std::ifstream(log_).rdbuf();
        return ss.str();
    }
    uvlan_entry_t *vlan(std::uint16_t vid) { return vlan_get_entry(vid); }

    hal_session hal_;
    std::string log_;
};

TEST_F(DhcpSnoop, TrapRequestsCarryTypeSlotVlanAndSwitchInTheirFixedLayout)
{
    EXPECT_EQ(hal_dhcp_vlan_enable(100, 1), 0);
    EXPECT_EQ(hal_dhcp_vlan_enable(4094, 0), 0);
    EXPECT_EQ(hal_dhcp_vlan_enable_slot(7, 1, 3), 0);
    EXPECT_EQ(hal_dhcpv6_vlan_enable(300, 1, 2), 0);
    EXPECT_EQ(traps(), (std::vector<trap>{{321, 0, 100, 1}, {321, 0, 4094, 0}, {321, 3, 7, 1}, {330, 2, 300, 1}}));
}

TEST_F(DhcpSnoop, VlanSnoopingProgramsThePlaneOnlyOnChangeAndWithoutRelay)
{
    ASSERT_TRUE(zlog_set_file(log_.c_str()));
    EXPECT_EQ(dhcp_vlan_snoop_set(vlan(10), 0), 0);  // already off: nothing at all
    EXPECT_EQ(log_text(), "");
    EXPECT_EQ(dhcp_vlan_snoop_set(vlan(10), 1), 0);
    EXPECT_EQ(dhcp_vlan_snoop_set(vlan(10), 1), 0);
    EXPECT_EQ(traps(), (std::vector<trap>{{321, 0, 10, 1}}));
    // The relay already traps its VLAN: the switch is only stored.
    dhcp_get_vlan_info(vlan(20))->relay_enable = 1;
    EXPECT_EQ(dhcp_vlan_snoop_set(vlan(20), 1), 0);
    EXPECT_EQ(dhcp_vlan_snooping_check(vlan(20)), 1);
    EXPECT_TRUE(traps().empty());
    // A refused request still stores the switch; a missing VLAN is refused.
    answer_with(TAVO_ERR);
    EXPECT_EQ(dhcp_vlan_snoop_set(vlan(30), 1), 0);
    EXPECT_EQ(dhcp_vlan_snooping_check(vlan(30)), 1);
    EXPECT_EQ(dhcp_vlan_snoop_set(nullptr, 1), TAVO_ERR);
    EXPECT_EQ(dhcp_vlan_init(99), TAVO_ERR);
    // A setter on a VLAN without record makes one; a second init keeps it.
    uvlan_create(40);
    EXPECT_EQ(dhcp_vlan_op82_set(vlan(40), 1), 0);
    EXPECT_EQ(dhcp_vlan_init(40), 0);
    EXPECT_EQ(dhcp_vlan_op82_check(vlan(40)), 1);
}

TEST_F(DhcpSnoop, DisablingVlanSnoopingSwitchesGuardAndOption82OffFirst)
{
    dhcp_vlan_snoop_set(vlan(10), 1);
    dhcp_vlan_op82_set(vlan(10), 1);
    dhcp_vlan_ipverify_set(vlan(10), 1);
    take();
    EXPECT_EQ(dhcp_vlan_snoop_set(vlan(10), 0), 0);
    std::vector<fake_fp_msg> got = take();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].hdr.nlmsg_type, HAL_MSG_DHCP_VLAN_ENABLE);
    EXPECT_EQ(got[1].hdr.nlmsg_type, HAL_MSG_DHCP_IP_SOURCE);  // the guard's VLAN rule withdrawn
    const dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan(10));
    EXPECT_EQ(rec->snooping_enable | rec->ipverify_mode | rec->option82_enable, 0);
}

// The switch is stored before it is compared, so the request is never sent.
TEST_F(DhcpSnoop, Dhcpv6VlanSnoopingOnlyRecordsTheSwitch)
{
    ASSERT_TRUE(zlog_set_file(log_.c_str()));
    for (int value : {1, 0, 1}) {
        EXPECT_EQ(dhcpv6_vlan_snoop_set(vlan(10), value), 0);
        EXPECT_EQ(dhcpv6_vlan_snooping_check(vlan(10)), value);
    }
    EXPECT_TRUE(take().empty());
    EXPECT_NE(log_text().find("[EVENT]the same action on vlan 10 ."), std::string::npos);
}

// Per port kind: uplink or not, whether its record keeps a client list,
// whether a new port from the device manager gets a record, and whether a
// global disable forgets its trust (for good, unless the relay is on).
TEST_F(DhcpSnoop, PortKindsAndTheGlobalDisable)
{
    const struct {
        std::uint32_t ifindex;
        int uplink;
        bool list, record_on_new, trust_forgotten;
    } cases[] = {
        {GE1, 1, true, true, true},     {XE1, 1, true, true, true},       {FE1, 1, false, false, true},
        {CE1, 1, false, false, true},   {TRUNK1, 1, false, false, false}, {PON, 0, true, false, false},
        {ONU, 0, true, false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(st_ifname(c.ifindex));
        umsg_if_t m{};
        m.ifindex = c.ifindex;
        st_get_ifname_by_ifindex(c.ifindex, m.name, sizeof m.name);
        dhcp_new_if(&m);
        uif_t *p = uif_lookup_by_index(c.ifindex);
        EXPECT_EQ(p && p->info, c.record_on_new);
        if (!p) p = port(c.ifindex);
        EXPECT_EQ(dhcp_port_is_uplink(p), c.uplink);
        dhcp_port_t *rec = dhcp_port_init(p);
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(rec->client != nullptr, c.list);
        EXPECT_EQ(dhcp_port_init(p), rec);  // found, not made again
        ASSERT_EQ(dhcp_port_trust_set(p, 1), 0);
    }
    dhcp_snoop_enable_set(1);
    dhcp_vlan_snoop_set(vlan(10), 1);
    dhcp_vlan_snoop_set(vlan(30), 1);
    take();
    dhcp_snoop_enable_set(0);
    EXPECT_EQ(traps(), (std::vector<trap>{{321, 0, 10, 0}, {321, 0, 30, 0}}));
    dhcp_snoop_enable_set(1);
    EXPECT_EQ(dhcp_vlan_snooping_check(vlan(10)), 0);
    for (const auto &c : cases)
        EXPECT_EQ(dhcp_port_trust_check(uif_lookup_by_index(c.ifindex)), !c.trust_forgotten) << st_ifname(c.ifindex);
    dhcp_port_trust_set(uif_lookup_by_index(GE1), 1);
    g_dhcp_global_cfg.relay_enable = 1;
    dhcp_snoop_enable_set(0);
    EXPECT_EQ(dhcp_port_trust_check(uif_lookup_by_index(GE1)), 1);
}

TEST_F(DhcpSnoop, TrustAnswersAndTheOnuFollowsItsPonPort)
{
    uif_t *ge = port(GE1), *xe = port(XE1), *onu = port(ONU);
    dhcp_port_trust_set(ge, 1);
    EXPECT_EQ(dhcp_snoop_port_is_trust(xe) & dhcp_snoop_port_is_trust(nullptr), 1) << "all trusted while off";
    dhcp_snoop_enable_set(1);
    EXPECT_EQ(dhcp_snoop_port_is_trust(ge), 1);
    EXPECT_EQ(dhcp_snoop_port_is_trust(xe), 0);  // no record
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 0);  // no PON port yet
    uif_t *pon = port(PON);
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 0);  // PON without record
    dhcp_port_trust_set(pon, 1);
    dhcp_port_trust_set(onu, 0);  // the ONU's own record does not matter
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 1);
    dhcp_port_trust_set(pon, 0);
    EXPECT_EQ(dhcp_port_trust_onu_check(onu), 0);
    EXPECT_EQ(dhcp_port_trust_onu_check(ge), 1);
    EXPECT_EQ(dhcp_port_trust_onu_check(nullptr), 0);
}

TEST_F(DhcpSnoop, GlobalOption82OffClearsEveryVlanSwitch)
{
    dhcp_op82_enable(1);
    dhcp_vlan_op82_set(vlan(10), 1);
    dhcp_vlan_op82_set(vlan(20), 1);
    dhcp_op82_enable(1);  // on again: VLANs untouched
    EXPECT_EQ(dhcp_vlan_op82_check(vlan(10)), 1);
    dhcp_op82_enable(0);
    EXPECT_EQ(dhcp_op82_is_enable() | dhcp_vlan_op82_check(vlan(10)) | dhcp_vlan_op82_check(vlan(20)), 0);
}

// Option 37 off keeps a copy of the system name, taken at that moment.
TEST_F(DhcpSnoop, Option18And37OffResetTheirTexts)
{
    dhcp_update_sysname("olt-east");
    dhcp_vlan_op18_set(vlan(10), 1);
    dhcp_vlan_op18_interfaceid_set(vlan(10), DHCP_OPTION_USER, "port-a");
    dhcp_vlan_op37_set(vlan(10), 1);
    dhcp_vlan_op37_remoteid_set(vlan(10), DHCP_OPTION_USER, "remote-a");
    const dhcp_vlan_t *rec = dhcp_get_vlan_info(vlan(10));
    dhcp_vlan_op18_set(vlan(10), 0);
    dhcp_vlan_op37_set(vlan(10), 0);
    EXPECT_EQ(rec->option18_enable | rec->option37_enable, 0);
    EXPECT_EQ(rec->ipv6_interfaceid_type | rec->ipv6_remoteid_type, DHCP_OPTION_NORMAL);
    EXPECT_EQ(rec->ipv6_interface_id, nullptr);
    ASSERT_NE(rec->ipv6_remote_id, nullptr);
    dhcp_update_sysname("olt-west");
    EXPECT_STREQ(rec->ipv6_remote_id, "olt-east");
}

TEST_F(DhcpSnoop, ClientPolicyStoresAnyValueAndLogsOnlyChanges)
{
    ASSERT_TRUE(zlog_set_file(log_.c_str()));
    for (int policy : {1, 1, 7}) dhcp_snoop_set_client_op82_policy(policy);
    EXPECT_EQ(dhcp_snoop_get_client_op82_policy(), 7);
    std::string log = log_text();
    EXPECT_NE(log.find("[EVENT]update client option82 policy keep."), std::string::npos);
    EXPECT_EQ(log.find("keep.", log.find("keep.") + 1), std::string::npos);
    EXPECT_NE(log.find("[EVENT]update client option82 policy UNKNOWN ERROR."), std::string::npos);
    // The access-node id keeps at most 63 characters.
    dhcp_snoop_set_access_node_id(std::string(63, 'a').c_str());
    EXPECT_EQ(std::string(dhcp_snoop_get_access_node_id()), std::string(63, 'a'));
    dhcp_snoop_set_access_node_id(std::string(70, 'b').c_str());
    EXPECT_EQ(std::string(dhcp_snoop_get_access_node_id()), std::string(63, 'b'));
}

TEST_F(DhcpSnoop, SlotRecoveryAndOnuNotification)
{
    // A card coming back is asked again to trap the snooped and relayed VLANs.
    dhcp_vlan_snoop_set(vlan(10), 1);
    dhcp_get_vlan_info(vlan(30))->relay_enable = 1;
    take();
    EXPECT_EQ(dhcp_snoop_proc_slot_recovery(4), 0);
    EXPECT_EQ(traps(), (std::vector<trap>{{321, 4, 10, 1}, {321, 4, 30, 1}}));

    // An ONU status of any kind clears that interface's bindings only.
    const std::uint8_t a[6] = {0, 1, 2, 3, 4, 5}, b[6] = {0, 1, 2, 3, 4, 6};
    for (int status : {1, 0, -1}) {
        dhcp_client_info_t *ca = dhcp_new_client_lease_info(a, 20, 1), *cb = dhcp_new_client_lease_info(b, 20, 1);
        ASSERT_TRUE(ca && cb);
        ca->client_ifindex = ONU;
        cb->client_ifindex = ONU + 1;
        dhcp_client_info_reindex(ca);
        dhcp_client_info_reindex(cb);
        umsg_onu_op_t o{};
        o.ifindex = ONU;
        o.status = status;
        dhcp_proc_onu_status_notify(&o);
        EXPECT_EQ(dhcp_lookup_client_lease_info(a, 20), nullptr) << status;
        EXPECT_NE(dhcp_lookup_client_lease_info(b, 20), nullptr) << status;
        dhcp_snooping_delete_all_client_info();
    }
}

} // namespace
