// Display ranks from decoding order: the bumping gives the ranks of the POC
// order when the stream keeps its reorder limit, with units waiting no longer
// than their pictures do; sequences, fields and skipped pictures take no
// shared ranks.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tools/qnvtool/display_order.h"

namespace {

using qnvtool::DisplayOrder;

struct Pushed {
    int32_t poc;
    bool starts = false;
    bool ranked = true;
};

// Ranks in decoding order, and the most units that waited at once.
std::pair<std::vector<int64_t>, size_t> run(uint32_t limit, const std::vector<Pushed>& units) {
    DisplayOrder order(limit);
    std::vector<int64_t> ranks;
    size_t most = 0;
    int64_t r = 0;
    for (const Pushed& u : units) {
        order.push(u.poc, u.starts, u.ranked);
        most = std::max(most, order.waiting());
        while (order.pop(r)) ranks.push_back(r);
    }
    order.finish();
    while (order.pop(r)) ranks.push_back(r);
    return {ranks, most};
}

TEST(DisplayOrder, RanksFollowPocOrderWithinTheReorderLimit) {
    // x264 B-pyramid (limit 2, groups of 4 pictures), x265 with a pyramid
    // of seven B-frames (limit 4, groups of 8), no B-frames. A unit waits
    // until its picture is displayed: at most a group and the limit wait.
    struct Stream {
        uint32_t limit, group;
        std::vector<int32_t> pocs;
    };
    const Stream streams[] = {{2, 4, {0, 8, 4, 2, 6, 16, 12, 10, 14, 18}},
                              {4, 8, {0, 16, 8, 4, 2, 6, 12, 10, 14, 32, 24, 20, 18, 22, 28, 26, 30}},
                              {0, 1, {0, 2, 4, 6, 8}}};
    for (const auto& [limit, group, pocs] : streams) {
        std::vector<Pushed> units;
        for (int32_t p : pocs) units.push_back({p});
        const auto [ranks, most] = run(limit, units);
        std::vector<int32_t> sorted = pocs;
        std::sort(sorted.begin(), sorted.end());
        std::vector<int64_t> expected;
        for (int32_t p : pocs) expected.push_back(std::find(sorted.begin(), sorted.end(), p) - sorted.begin());
        EXPECT_EQ(ranks, expected) << "limit " << limit;
        EXPECT_LE(most, group + limit);
    }
}

TEST(DisplayOrder, SequencesAndUnrankedUnits) {
    // A new sequence displays the old one first, whatever the POCs; a second
    // field and a skipped RASL picture take no rank.
    const auto [ranks, most] =
        run(2, {{0}, {8}, {4}, {0, true}, {-4, false, false}, {4}, {2}, {2, false, false}});
    EXPECT_EQ(ranks, (std::vector<int64_t>{0, 2, 1, 3, -1, 5, 4, -1}));
    (void)most;
}

TEST(DisplayOrder, AStreamBreakingItsLimitWaitsInBoundedMemory) {
    // Limit 0 claimed, but every unit's POC is below the first one's.
    std::vector<Pushed> units = {{1000000}};
    for (int i = 0; i < 500; ++i) units.push_back({i});
    const auto [ranks, most] = run(0, units);
    EXPECT_EQ(ranks.size(), units.size());
    EXPECT_LE(most, 70u);
}

}  // namespace
