// The paged sector map against std::map: the same random operations must
// give the same answers, in the same order, with iterators that survive the
// changes of other entries.
#include "cache/sector_map.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace cache {
namespace {

_SECTOR Entry(long long slot) {
    return _SECTOR{slot, kSectorSize, 0, false, {}};
}

void ExpectSame(SectorMap& map, const std::map<long long, long long>& model) {
    ASSERT_EQ(map.size(), model.size());
    EXPECT_EQ(map.empty(), model.empty());
    auto expected = model.begin();
    for (const auto& [key, sector] : map) {
        ASSERT_NE(expected, model.end());
        EXPECT_EQ(key, expected->first);
        EXPECT_EQ(sector.offset, expected->second);
        ++expected;
    }
    EXPECT_EQ(expected, model.end());
}

TEST(SectorMapTest, AgreesWithAnOrderedMapUnderRandomChanges) {
    // Keys crowd three pages and their boundaries, and reach the largest
    // offsets a store accepts, so pages fill, empty and are skipped.
    std::vector<long long> keys;
    for (long long s = 0; s < 40; ++s) keys.push_back(s * kSectorSize);
    for (long long s = 1; s <= 20; ++s) keys.push_back((1LL << 40) - s * kSectorSize);
    for (long long s = 0; s < 20; ++s) keys.push_back((1LL << 50) + s * kSectorSize);

    SectorMap map;
    std::map<long long, long long> model;
    std::mt19937_64 random(11);
    for (int step = 0; step < 20000; ++step) {
        const long long key = keys[random() % keys.size()];
        switch (random() % 4) {
            case 0: {
                const auto [entry, added] = map.emplace(key, Entry(step));
                EXPECT_EQ(added, model.emplace(key, step).second);
                EXPECT_EQ(entry->first, key);
                EXPECT_EQ(entry->second.offset, model.at(key));
                break;
            }
            case 1: {
                const auto found = map.find(key);
                const auto modelFound = model.find(key);
                ASSERT_EQ(found == map.end(), modelFound == model.end());
                if (found == map.end()) break;
                const auto next = map.erase(found);
                const auto modelNext = model.erase(modelFound);
                ASSERT_EQ(next == map.end(), modelNext == model.end());
                if (next != map.end()) {
                    EXPECT_EQ(next->first, modelNext->first);
                }
                break;
            }
            default: {
                // Any offset inside a sector, or just before one.
                const long long probe = key + static_cast<long long>(random() % 3) - 1;
                const auto bound = map.lower_bound(probe);
                const auto modelBound = model.lower_bound(probe);
                ASSERT_EQ(bound == map.end(), modelBound == model.end()) << probe;
                if (bound != map.end()) {
                    EXPECT_EQ(bound->first, modelBound->first) << probe;
                }
                break;
            }
        }
        if (step % 1000 == 0) ExpectSame(map, model);
    }
    ExpectSame(map, model);
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.begin(), map.end());
}

TEST(SectorMapTest, EntriesStayInPlaceWhileOthersComeAndGo) {
    SectorMap map;
    _SECTOR& held = map.emplace(5 * kSectorSize, Entry(1)).first->second;
    const auto heldAt = map.find(5 * kSectorSize);
    // Neighbours in the same page and new pages before and after.
    for (long long s = 0; s < 64; ++s) {
        if (s != 5) map.emplace(s * kSectorSize, Entry(100 + s));
    }
    for (long long s = 0; s < 64; ++s) {
        if (s != 5) map.erase(map.find(s * kSectorSize));
    }
    EXPECT_EQ(&heldAt->second, &held);
    EXPECT_EQ(held.offset, 1);
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(map.begin(), heldAt);
    // Negative offsets are never keys: nothing is found, and every key is
    // at or after them.
    EXPECT_EQ(map.find(-kSectorSize), map.end());
    EXPECT_EQ(map.lower_bound(-1), heldAt);
}

}  // namespace
}  // namespace cache
