// VLAN bitmaps, the port table and the VLAN table with port membership.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "devlib/ifindex.h"
#include "devlib/uclient.h"
#include "devlib/uif.h"
#include "devlib/uvlan.h"
#include "platform/errcode.h"

namespace {

TEST(VlanBitmap, MostSignificantBitFirstWalkAndTextCutAtAWholeRange)
{
    std::uint8_t bm[UVLAN_BITMAP_LEN] = {};
    for (unsigned v : {0u, 9u, 4095u, 4096u}) uvlan_bitmap_set(bm, v);  // 4096 is outside: ignored
    EXPECT_EQ(bm[0], 0x80);
    EXPECT_EQ(bm[1], 0x40);
    EXPECT_EQ(bm[511], 0x01);
    EXPECT_EQ(st_get_min_vlan_in_bitmap(bm), 0);
    EXPECT_EQ(st_get_next_vlan_in_bitmap(bm, 0), 9);
    EXPECT_EQ(st_get_next_vlan_in_bitmap(bm, 9), 4095);
    EXPECT_EQ(st_get_next_vlan_in_bitmap(bm, 4095), -1);
    EXPECT_FALSE(uvlan_bitmap_test(bm, 4096));
    uvlan_bitmap_clear(bm, 9);
    uvlan_bitmap_clear(bm, 0);
    uvlan_bitmap_clear(bm, 4095);
    EXPECT_EQ(st_get_min_vlan_in_bitmap(bm), -1);

    for (unsigned v : {1u, 2u, 3u, 10u, 100u, 101u, 4094u}) uvlan_bitmap_set(bm, v);
    char buf[64], small[12];  // room for "1-3,10" but not ",100-101"
    st_vlan_bitmap_to_str(bm, buf, sizeof buf);
    EXPECT_STREQ(buf, "1-3,10,100-101,4094");
    st_vlan_bitmap_to_str(bm, small, sizeof small);
    EXPECT_STREQ(small, "1-3,10");
    std::memset(bm, 0xff, sizeof bm);
    st_vlan_bitmap_to_str(bm, buf, sizeof buf);
    EXPECT_STREQ(buf, "0-4095");
}

class DevTables : public ::testing::Test {
protected:
    void SetUp() override { uif_init(); uvlan_init(); }
    void TearDown() override { uif_clear(); uvlan_clear(); }
    static umsg_if_t port_msg(const char *ifname, const char *name = "")
    {
        umsg_if_t m{};
        m.ifindex = st_get_ifindex_by_ifname(ifname);
        std::strncpy(m.name, name, sizeof m.name);
        m.status = 1;
        return m;
    }
};

TEST_F(DevTables, PortsAreCreatedUpdatedAndWalkedInIndexOrder)
{
    umsg_if_t m = port_msg("ge1/1/2");  // no name given: the encoded one is used
    uif_t *p = uclient_new_if(&m);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->name, "ge1/1/2");
    p->info = &m;  // owned by the daemon, must survive updates

    umsg_if_t renamed = port_msg("ge1/1/2", "uplink");
    renamed.status = 0;
    EXPECT_EQ(uclient_new_if(&renamed), p);
    EXPECT_EQ(p->status, 0u);
    EXPECT_EQ(p->info, &m);
    EXPECT_EQ(uif_lookup_by_name("uplink"), p);
    EXPECT_EQ(uif_lookup_by_name("ge1/1/2"), nullptr);
    renamed.admin = 2;
    renamed.status = 1;
    EXPECT_EQ(uclient_if_status(&renamed), p);
    EXPECT_EQ(p->status, 1u);
    EXPECT_EQ(p->admin, 2u);
    umsg_if_t unknown = port_msg("ge1/1/9"), bad = port_msg("ge1/1/9");
    bad.ifindex = 0x12345;
    EXPECT_EQ(uclient_if_status(&unknown), nullptr);
    EXPECT_EQ(uclient_new_if(&bad), nullptr);

    // Ethernet and PON ports carry VLAN membership, routed interfaces do not.
    for (const char *ifname : {"gpon1/2/1", "vlanif10"}) {
        umsg_if_t o = port_msg(ifname);
        ASSERT_NE(uclient_new_if(&o), nullptr) << ifname;
    }
    EXPECT_NE(p->vlan_info, nullptr);
    EXPECT_NE(uif_lookup_by_name("gpon1/2/1")->vlan_info, nullptr);
    EXPECT_EQ(uif_lookup_by_name("vlanif10")->vlan_info, nullptr);
    std::string walk;
    for (uif_t *i = uif_first(); i; i = uif_next(i)) walk += std::string(i->name) + " ";
    EXPECT_EQ(walk, "uplink vlanif10 gpon1/2/1 ");  // 0x121..., 0x300..., 0x4a2...
    EXPECT_EQ(uif_count(), 3u);

    EXPECT_EQ(uclient_del_if(&renamed), 0);
    EXPECT_EQ(uclient_del_if(&renamed), TAVO_NOT_FOUND);
    EXPECT_EQ(uif_lookup_by_name("uplink"), nullptr);
    EXPECT_EQ(uif_count(), 2u);
}

TEST_F(DevTables, TrunkMembershipSurvivesPortUpdates)
{
    umsg_if_t m = port_msg("ge1/1/1");
    uif_t *p = uclient_new_if(&m);
    umsg_trunk_t t{m.ifindex, 3};
    EXPECT_EQ(uclient_trunk_set(&t), 0);
    EXPECT_EQ(p->trunk, 3u);
    EXPECT_TRUE(p->flags & UIF_FLAG_TRUNK_MEMBER_SKIP);
    uclient_new_if(&m);  // a later port update keeps the trunk flag
    EXPECT_TRUE(p->flags & UIF_FLAG_TRUNK_MEMBER_SKIP);
    t.trunk_id = 0;
    EXPECT_EQ(uclient_trunk_set(&t), 0);
    EXPECT_EQ(p->trunk, 0u);
    EXPECT_FALSE(p->flags & UIF_FLAG_TRUNK_MEMBER_SKIP);
    t.trunk_id = 999;
    EXPECT_EQ(uclient_trunk_set(&t), TAVO_PARAM);
    umsg_trunk_t missing{st_get_ifindex_by_ifname("ge1/1/9"), 1};
    EXPECT_EQ(uclient_trunk_set(&missing), TAVO_NOT_FOUND);
}

TEST_F(DevTables, VlanTableAndMembership)
{
    EXPECT_TRUE(uvlan_is_exist(1));  // the default VLAN exists from the start
    EXPECT_EQ(uvlan_del(1), 0);
    EXPECT_EQ(uvlan_create(0), TAVO_PARAM);
    EXPECT_EQ(uvlan_create(4095), TAVO_PARAM);
    EXPECT_EQ(uvlan_create(10), 0);
    EXPECT_EQ(uvlan_create(10), TAVO_EXISTS);
    EXPECT_EQ(uvlan_create(4094), 0);
    ASSERT_NE(vlan_get_entry(10), nullptr);
    EXPECT_EQ(vlan_get_entry(10)->vid, 10);
    EXPECT_EQ(uvlan_count(), 2u);

    umsg_if_t m = port_msg("ge1/1/1");
    uif_t *p = uclient_new_if(&m);
    std::uint8_t bm[UVLAN_BITMAP_LEN] = {}, only10[UVLAN_BITMAP_LEN] = {};
    uvlan_bitmap_set(bm, 10);
    uvlan_bitmap_set(bm, 4094);
    uvlan_bitmap_set(only10, 10);
    EXPECT_EQ(uvlan_port_link(p, bm, 0), 0);
    EXPECT_TRUE(uvlan_is_in_port(p, 10, 0));
    EXPECT_FALSE(uvlan_is_in_port(p, 10, 1));
    // Linking untagged moves it out of the tagged set.
    EXPECT_EQ(uvlan_port_link(p, only10, 1), 0);
    EXPECT_TRUE(uvlan_is_in_port(p, 10, 1));
    EXPECT_FALSE(uvlan_is_in_port(p, 10, 0));
    EXPECT_EQ(uvlan_port_unlink(p, only10, 1), 0);
    EXPECT_FALSE(uvlan_is_in_port(p, 10, 1));

    // Deleting a VLAN removes it from the ports.
    EXPECT_TRUE(uvlan_is_in_port(p, 4094, 0));
    EXPECT_EQ(uvlan_del(4094), 0);
    EXPECT_EQ(uvlan_del(4094), TAVO_NOT_FOUND);
    EXPECT_FALSE(uvlan_is_in_port(p, 4094, 0));
    EXPECT_FALSE(uvlan_is_exist(4094));

    umsg_if_t lo = port_msg("lo1");
    uif_t *lp = uclient_new_if(&lo);
    EXPECT_EQ(uvlan_port_link(lp, bm, 0), TAVO_NOT_FOUND);
    EXPECT_FALSE(uvlan_is_in_port(lp, 10, 0));
    EXPECT_EQ(uvlan_port_link(nullptr, bm, 0), TAVO_PARAM);
}

} // namespace
