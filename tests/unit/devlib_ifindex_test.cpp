// Interface index encoding and interface names.
#include <gtest/gtest.h>

#include <string>

#include "devlib/ifindex.h"
#include "platform/errcode.h"

namespace {

TEST(Ifindex, PhysicalRoundTrips)
{
    // One of each physical type, including every field at its largest value.
    const struct {
        int type, shelf, slot, subslot, port, subport, onu;
        const char *name;
    } rows[] = {
        {PORT_TYPE_FE, 0, 1, 0, 1, 0, -1, "fe0/1/1"},
        {PORT_TYPE_GE, 1, 2, 0, 3, 0, -1, "ge1/2/3"},
        {PORT_TYPE_XE, 3, 31, 3, 63, 0, -1, "xe3/31/3/63"},
        {PORT_TYPE_CE, 0, 0, 0, 0, 0, -1, "ce0/0/0"},
        {PORT_TYPE_ETH, 0, 9, 1, 2, 0, -1, "eth0/9/1/2"},
        {PORT_TYPE_GPON, 1, 2, 0, 16, 0, -1, "gpon1/2/16"},
        {PORT_TYPE_GONU, 1, 2, 0, 16, 128, 128, "gonu1/2/16:128"},
        {PORT_TYPE_GONU, 1, 2, 0, 1, 1, 1, "gonu1/2/1:1"},
        {PORT_TYPE_GEMPORT, 1, 2, 0, 1, 4095, -1, "gem1/2/1:4095"},
        {PORT_TYPE_GEMPORT, 1, 2, 0, 1, 0, -1, "gem1/2/1:0"},
        {PORT_TYPE_GPON_ONU_UNI, 1, 2, 0, 1, 5 << IFINDEX_UNI_BITS | 2, 5, "uni1/2/1:5:2"},
        {PORT_TYPE_MGMT, 0, 0, 0, 0, 0, -1, "mgmt0/0/0"},
    };
    for (const auto &c : rows) {
        SCOPED_TRACE(c.name);
        std::uint32_t ix = st_ifindex_gen_by_phyinfo(c.type, c.shelf, c.slot, c.subslot, c.port, c.subport);
        ASSERT_NE(ix, 0u);
        EXPECT_EQ(st_ifindex_get_port_type(ix), c.type);
        EXPECT_EQ(st_ifindex_get_shelf_id(ix), c.shelf);
        EXPECT_EQ(st_ifindex_get_slot_id(ix), c.slot);
        EXPECT_EQ(st_ifindex_get_subslot_id(ix), c.subslot);
        EXPECT_EQ(st_ifindex_get_port_id(ix), c.port);
        EXPECT_EQ(st_ifindex_get_subport_id(ix), c.subport);
        EXPECT_EQ(st_ifindex_get_onu_id(ix), c.onu);
        EXPECT_EQ(st_ifindex_get_vlan_id(ix), 0);
        EXPECT_EQ(st_ifindex_get_logic_id(ix), 0u);
        char name[32];
        ASSERT_EQ(st_get_ifname_by_ifindex(ix, name, sizeof name), 0);
        EXPECT_STREQ(name, c.name);
        EXPECT_EQ(st_get_ifindex_by_ifname(c.name), ix);
    }
}

TEST(Ifindex, LogicalRoundTripsAtBothEnds)
{
    const struct {
        int type;
        std::uint32_t n;
        const char *name;
    } rows[] = {
        {PORT_TYPE_TRUNK, 1, "trunk1"},        {PORT_TYPE_TRUNK, 128, "trunk128"},
        {PORT_TYPE_VLANIF, 1, "vlanif1"},      {PORT_TYPE_VLANIF, 4094, "vlanif4094"},
        {PORT_TYPE_LO, 0, "lo0"},              {PORT_TYPE_LO, 1023, "lo1023"},
        {PORT_TYPE_GPON_SERVPORT, 1, "servport1"}, {PORT_TYPE_GPON_SERVPORT, 16384, "servport16384"},
    };
    for (const auto &c : rows) {
        SCOPED_TRACE(c.name);
        std::uint32_t ix = st_ifindex_gen_by_logicinfo(c.type, c.n);
        ASSERT_NE(ix, 0u);
        EXPECT_EQ(st_ifindex_get_port_type(ix), c.type);
        EXPECT_EQ(st_ifindex_get_logic_id(ix), c.n);
        EXPECT_EQ(st_ifindex_get_slot_id(ix), -1);  // not a physical port
        EXPECT_EQ(st_ifindex_get_vlan_id(ix), c.type == PORT_TYPE_VLANIF ? int(c.n) : 0);
        EXPECT_STREQ(st_ifname(ix), c.name);
        EXPECT_EQ(st_get_ifindex_by_ifname(c.name), ix);
    }
    // Several names in one log line stay distinct.
    const char *a = st_ifname(st_ifindex_gen_by_logicinfo(PORT_TYPE_VLANIF, 100));
    const char *b = st_ifname(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 2));
    EXPECT_STREQ(a, "vlanif100");
    EXPECT_STREQ(b, "trunk2");
}

TEST(Ifindex, OutOfRangeFieldsAreRejected)
{
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 4, 0, 0, 1, 0), 0u);   // shelf
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 0, 32, 0, 1, 0), 0u);  // slot
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 0, 1, 4, 1, 0), 0u);   // sub-slot
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 0, 1, 0, 64, 0), 0u);  // port
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 0, 1, 0, 1, 1), 0u);   // GE has no sub-port
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, -1, 1, 0, 1, 0), 0u);
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, 1, 0), 0u);  // ONU 0
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GONU, 1, 1, 0, 1, 129), 0u);
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GEMPORT, 1, 1, 0, 1, 4096), 0u);
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_GPON_ONU_UNI, 1, 1, 0, 1, 5 << IFINDEX_UNI_BITS), 0u);
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_TRUNK, 0, 0, 0, 1, 0), 0u);  // logical type
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_FABRIC, 0, 0, 0, 1, 0), 0u);
    EXPECT_EQ(st_ifindex_gen_by_phyinfo(PORT_TYPE_MAX, 0, 0, 0, 1, 0), 0u);

    EXPECT_EQ(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 0), 0u);
    EXPECT_EQ(st_ifindex_gen_by_logicinfo(PORT_TYPE_TRUNK, 129), 0u);
    EXPECT_EQ(st_ifindex_gen_by_logicinfo(PORT_TYPE_VLANIF, 0), 0u);
    EXPECT_EQ(st_ifindex_gen_by_logicinfo(PORT_TYPE_VLANIF, 4095), 0u);
    EXPECT_EQ(st_ifindex_gen_by_logicinfo(PORT_TYPE_LO, 1024), 0u);
    EXPECT_EQ(st_ifindex_gen_by_logicinfo(PORT_TYPE_GPON_SERVPORT, 16385), 0u);
    EXPECT_EQ(st_ifindex_gen_by_logicinfo(PORT_TYPE_GE, 1), 0u);  // physical type
}

TEST(Ifindex, IndexesThatEncodeNothingHaveTypeZeroAndNoName)
{
    std::uint32_t vlanif = st_ifindex_gen_by_logicinfo(PORT_TYPE_VLANIF, 100);
    std::uint32_t ge = st_ifindex_gen_by_phyinfo(PORT_TYPE_GE, 0, 1, 0, 1, 0);
    for (std::uint32_t bad : {0u, 15u << 27, 31u << 27 | 1u,
                              vlanif | 1u << 20,                   // stray bits in a logical index
                              (vlanif & ~0xffffu) | 4095u,         // VLAN beyond 4094
                              ge | 1u,                             // GE with a sub-port
                              PORT_TYPE_GONU << 27 | 1u << 12}) {  // ONU 0
        SCOPED_TRACE(bad);
        EXPECT_EQ(st_ifindex_get_port_type(bad), 0);
        EXPECT_EQ(st_ifindex_get_slot_id(bad), -1);
        char name[32];
        EXPECT_EQ(st_get_ifname_by_ifindex(bad, name, sizeof name), TAVO_PARAM);
        EXPECT_STREQ(name, "");
    }
    EXPECT_EQ(std::string(st_ifname(0)), "unknown(0x0)");
    // A buffer too small is an error, not a cut name.
    char small[9];  // "vlanif100" needs 10
    EXPECT_EQ(st_get_ifname_by_ifindex(vlanif, small, sizeof small), TAVO_PARAM);
    EXPECT_STREQ(small, "");
}

TEST(Ifindex, OnlyCanonicalNamesParse)
{
    for (const char *bad : {"", "ge", "ge0/1", "ge0/1/1/", "ge0/1/0/1", "ge00/1/1", "ge0/1/01",
                            "GE0/1/1", "ge 0/1/1", "ge0/1/1 ", "gonu1/2/1", "gonu1/2/1:", "gonu1/2/1:0",
                            "gpon1/2/1:3", "vlanif0", "vlanif4095", "vlanif+1", "vlanif01", "trunk",
                            "uni1/2/1:5", "uni1/2/1:5:16", "xyz1", "ge1/2/3/4/5", "ge9999999/1/1"}) {
        EXPECT_EQ(st_get_ifindex_by_ifname(bad), 0u) << bad;
    }
    EXPECT_EQ(st_get_ifindex_by_ifname(nullptr), 0u);
}

} // namespace
