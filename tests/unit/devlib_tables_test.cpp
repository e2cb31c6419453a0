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

TEST(VlanBitmap, MostSignificantBitFirstAndWalk)
{
    std::uint8_t bm[UVLAN_BITMAP_LEN] = {};
    uvlan_bitmap_set(bm, 0);
    uvlan_bitmap_set(bm, 9);
    uvlan_bitmap_set(bm, 4095);
    uvlan_bitmap_set(bm, 4096);  // outside the bitmap: ignored
    EXPECT_EQ(bm[0], 0x80);
    EXPECT_EQ(bm[1], 0x40);
    EXPECT_EQ(bm[511], 0x01);
    EXPECT_EQ(st_get_min_vlan_in_bitmap(bm), 0);
    EXPECT_EQ(st_get_next_vlan_in_bitmap(bm, 0), 9);
    EXPECT_EQ(st_get_next_vlan_in_bitmap(bm, 9), 4095);
    EXPECT_EQ(st_get_next_vlan_in_bitmap(bm, 4095), -1);
    EXPECT_FALSE(uvlan_bitmap_test(bm, 4096));
    uvlan_bitmap_clear(bm, 9);
    EXPECT_FALSE(uvlan_bitmap_test(bm, 9));
    std::uint8_t empty[UVLAN_BITMAP_LEN] = {};
    EXPECT_EQ(st_get_min_vlan_in_bitmap(empty), -1);
}

TEST(VlanBitmap, TextOfRangesCutAtAWholeRange)
{
    std::uint8_t bm[UVLAN_BITMAP_LEN] = {};
    for (unsigned v : {1u, 2u, 3u, 10u, 100u, 101u, 4094u}) uvlan_bitmap_set(bm, v);
    char buf[64];
    st_vlan_bitmap_to_str(bm, buf, sizeof buf);
    EXPECT_STREQ(buf, "1-3,10,100-101,4094");
    char small[12];  // room for "1-3,10" but not ",100-101"
    st_vlan_bitmap_to_str(bm, small, sizeof small);
    EXPECT_STREQ(small, "1-3,10");
    std::uint8_t all[UVLAN_BITMAP_LEN];
    std::memset(all, 0xff, sizeof all);
    st_vlan_bitmap_to_str(all, buf, sizeof buf);
    EXPECT_STREQ(buf, "0-4095");
}

class DevTables : public ::testing::Test {
protected:
    void SetUp() override
    {
        uif_init();
        uvlan_init();
    }
    void TearDown() override
    {
        uif_clear();
        uvlan_clear();
    }
    static umsg_if_t port_msg(std::uint32_t ifindex, const char *name = "")
    {
        umsg_if_t m{};
        m.ifindex = ifindex;
        std::strncpy(m.name, name, sizeof m.name);
        m.status = 1;
        return m;
    }
};

TEST_F(DevTables, NewIfCreatesThenUpdatesAndKeepsNameIndexCurrent)
{
    std::uint32_t ge = st_get_ifindex_by_ifname("ge1/1/2");
    std::uint32_t vif = st_get_ifindex_by_ifname("vlanif10");
    umsg_if_t m = port_msg(ge);  // no name given: the encoded one is used
    uif_t *p = uclient_new_if(&m);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->name, "ge1/1/2");
    ASSERT_NE(p->vlan_info, nullptr);  // Ethernet ports carry membership
    p->info = &m;                      // owned by the daemon, must survive updates

    umsg_if_t renamed = port_msg(ge, "uplink");
    renamed.status = 0;
    EXPECT_EQ(uclient_new_if(&renamed), p);
    EXPECT_EQ(p->status, 0u);
    EXPECT_EQ(p->info, &m);
    EXPECT_EQ(uif_lookup_by_name("uplink"), p);
    EXPECT_EQ(uif_lookup_by_name("ge1/1/2"), nullptr);

    umsg_if_t v = port_msg(vif);
    uif_t *vp = uclient_new_if(&v);
    ASSERT_NE(vp, nullptr);
    EXPECT_EQ(vp->vlan_info, nullptr);  // routed interfaces do not
    umsg_if_t bad = port_msg(0x12345);
    EXPECT_EQ(uclient_new_if(&bad), nullptr);

    // Walk in index order.
    EXPECT_EQ(uif_count(), 2u);
    EXPECT_EQ(uif_first()->ifindex, std::min(ge, vif));
    EXPECT_EQ(uif_next(uif_first())->ifindex, std::max(ge, vif));
    EXPECT_EQ(uif_next(uif_next(uif_first())), nullptr);

    EXPECT_EQ(uclient_del_if(&renamed), 0);
    EXPECT_EQ(uclient_del_if(&renamed), TAVO_NOT_FOUND);
    EXPECT_EQ(uif_lookup_by_name("uplink"), nullptr);
    EXPECT_EQ(uif_count(), 1u);
}

TEST_F(DevTables, StatusAndTrunkMembership)
{
    std::uint32_t ge = st_get_ifindex_by_ifname("ge1/1/1");
    umsg_if_t m = port_msg(ge);
    uclient_new_if(&m);
    m.status = 0;
    m.admin = 2;
    uif_t *p = uclient_if_status(&m);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->status, 0u);
    EXPECT_EQ(p->admin, 2u);
    umsg_if_t unknown = port_msg(st_get_ifindex_by_ifname("ge1/1/9"));
    EXPECT_EQ(uclient_if_status(&unknown), nullptr);

    umsg_trunk_t t{ge, 3};
    EXPECT_EQ(uclient_trunk_set(&t), 0);
    EXPECT_EQ(p->trunk, 3u);
    EXPECT_TRUE(p->flags & UIF_FLAG_TRUNK_MEMBER_SKIP);
    // A later port update keeps the trunk flag.
    uclient_new_if(&m);
    EXPECT_TRUE(p->flags & UIF_FLAG_TRUNK_MEMBER_SKIP);
    t.trunk_id = 0;
    EXPECT_EQ(uclient_trunk_set(&t), 0);
    EXPECT_EQ(p->trunk, 0u);
    EXPECT_FALSE(p->flags & UIF_FLAG_TRUNK_MEMBER_SKIP);
    t.trunk_id = 999;
    EXPECT_EQ(uclient_trunk_set(&t), TAVO_PARAM);
    umsg_trunk_t missing{unknown.ifindex, 1};
    EXPECT_EQ(uclient_trunk_set(&missing), TAVO_NOT_FOUND);
}

TEST_F(DevTables, VlanTableAndMembership)
{
    uvlan_init();  // the default VLAN exists from the start
    EXPECT_TRUE(uvlan_is_exist(1));
    EXPECT_EQ(uvlan_del(1), 0);
    EXPECT_EQ(uvlan_create(0), TAVO_PARAM);
    EXPECT_EQ(uvlan_create(4095), TAVO_PARAM);
    EXPECT_EQ(uvlan_create(10), 0);
    EXPECT_EQ(uvlan_create(10), TAVO_EXISTS);
    EXPECT_EQ(uvlan_create(4094), 0);
    ASSERT_NE(vlan_get_entry(10), nullptr);
    EXPECT_EQ(vlan_get_entry(10)->vid, 10);
    EXPECT_EQ(uvlan_count(), 2u);

    umsg_if_t m = port_msg(st_get_ifindex_by_ifname("ge1/1/1"));
    uif_t *p = uclient_new_if(&m);
    std::uint8_t bm[UVLAN_BITMAP_LEN] = {};
    uvlan_bitmap_set(bm, 10);
    uvlan_bitmap_set(bm, 4094);
    EXPECT_EQ(uvlan_port_link(p, bm, 0), 0);
    EXPECT_TRUE(uvlan_is_in_port(p, 10, 0));
    EXPECT_FALSE(uvlan_is_in_port(p, 10, 1));
    // Linking untagged moves it out of the tagged set.
    std::uint8_t only10[UVLAN_BITMAP_LEN] = {};
    uvlan_bitmap_set(only10, 10);
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

    umsg_if_t lo = port_msg(st_get_ifindex_by_ifname("lo1"));
    uif_t *lp = uclient_new_if(&lo);
    EXPECT_EQ(uvlan_port_link(lp, bm, 0), TAVO_NOT_FOUND);
    EXPECT_FALSE(uvlan_is_in_port(lp, 10, 0));
    EXPECT_EQ(uvlan_port_link(nullptr, bm, 0), TAVO_PARAM);
}

} // namespace
