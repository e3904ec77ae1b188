// Profile and level names of HEVC streams, as qnvtool shows them.
#include <gtest/gtest.h>

#include "qnvutil/hevc/hevc_internal.h"

TEST(HevcNames, ProfilesAndLevels) {
    // Range extensions are told apart by constraint flags 43..38 (12bit 10bit
    // 8bit 422 420 mono) and 37 (intra), kept in the high 16 of 48 bits.
    const struct {
        uint32_t idc, flagsHi;
        const char* name;
    } profiles[] = {{1, 0, "Main"},           {2, 0, "Main 10"},          {3, 0, "Main Still Picture"},
                    {5, 0, "High Throughput"}, {9, 0, "Screen Extended"}, {7, 0, "unknown"},
                    {4, 0x0980, "Main 12"},   {4, 0x0FA0, "Main Intra"}, {4, 0, "Format Range Extensions"}};
    for (const auto& p : profiles) {
        HevcProfileTierLevel ptl{};
        ptl.general_profile_idc = p.idc;
        ptl.general_constraint_flags_hi = p.flagsHi;
        EXPECT_STREQ(qnv::hevc::profileName(ptl), p.name) << p.idc << " " << p.flagsHi;
    }
    EXPECT_EQ(qnv::hevc::levelName(93) + " " + qnv::hevc::levelName(120) + " " + qnv::hevc::levelName(153), "3.1 4 5.1");
}
