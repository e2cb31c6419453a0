// MAC table: learning, moves, the cap, ageing and flushes.
#include <gtest/gtest.h>

#include "sim/sim_mactable.h"

namespace {

const std::uint8_t A[6] = {0x02, 0, 0, 0, 0, 0x0a};
const std::uint8_t B[6] = {0x02, 0, 0, 0, 0, 0x0b};
const std::uint8_t C[6] = {0x02, 0, 0, 0, 0, 0x0c};

TEST(SimMacTable, LearnsPerVlanAndFollowsMoves)
{
    sim_mactable t(16, 1000);
    EXPECT_EQ(t.learn(200, A, 2, 2, 10), MAC_LEARN_NEW);
    EXPECT_EQ(t.learn(100, A, 1, 1, 0), MAC_LEARN_NEW) << "one entry per VLAN";
    EXPECT_EQ(t.learn(100, A, 1, 1, 10), MAC_LEARN_REFRESH);
    EXPECT_EQ(t.learn(100, A, 1, 4, 20), MAC_LEARN_MOVED) << "another member of the same trunk";
    EXPECT_EQ(t.lookup(100, A)->rx_ifindex, 4u);
    EXPECT_EQ(t.lookup(200, A)->bport, 2u);
    const std::uint8_t group[6] = {0x01, 0x00, 0x5e, 0, 0, 1}, zero[6] = {};
    for (const std::uint8_t *m : {group, zero}) EXPECT_EQ(t.learn(100, m, 1, 1, 0), MAC_LEARN_IGNORED);
    EXPECT_EQ(t.size(), 2u);

    std::uint16_t vid = 0;
    ASSERT_NE(t.lookup_any(A, &vid), nullptr);
    EXPECT_EQ(vid, 100) << "the lowest VLAN answers a lookup without one";
    EXPECT_EQ(t.lookup_any(B), nullptr);
}

TEST(SimMacTable, CapAgeingAndFlushes)
{
    sim_mactable t(2, 1000);
    EXPECT_EQ(t.learn(100, A, 1, 1, 0), MAC_LEARN_NEW);
    EXPECT_EQ(t.learn(100, B, 2, 2, 500), MAC_LEARN_NEW);
    EXPECT_EQ(t.learn(100, C, 3, 3, 500), MAC_LEARN_FULL);
    EXPECT_EQ(t.learn(100, A, 1, 1, 600), MAC_LEARN_REFRESH) << "known addresses still refresh when full";
    EXPECT_EQ(t.age(1499), 0u);
    EXPECT_EQ(t.age(1500), 1u) << "B, silent for the ageing time";
    EXPECT_EQ(t.lookup(100, B), nullptr);
    EXPECT_EQ(t.age(100), 0u) << "a clock behind an entry ages nothing";
    EXPECT_EQ(t.learn(200, C, 9, 10, 1500), MAC_LEARN_NEW) << "room again";
    EXPECT_EQ(t.flush_port(10), 1u) << "by receive port (a trunk member)";
    t.learn(200, C, 9, 10, 1500);
    EXPECT_EQ(t.flush_port(9), 1u) << "by forwarding port";
    EXPECT_EQ(t.size(), 1u);
}

} // namespace
