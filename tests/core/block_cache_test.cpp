#include "vela/device/block_cache.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

using vela::device::detail::BlockCache;

std::vector<void*> released;
void release(void* p) {
    released.push_back(p);
    std::free(p);
}

// A block of `bytes` as the backend makes one, noted in the cache.
void* allocate(BlockCache& cache, std::size_t bytes) {
    void* p = std::malloc(bytes);
    cache.allocated(p, bytes);
    return p;
}

TEST(BlockCache, HandsAFreedBlockBackForItsOwnSizeAndTradesItForANewSize) {
    released.clear();
    BlockCache cache(1000, 10000, 100, release);
    void* big = allocate(cache, 4000);
    void* small = allocate(cache, 999);
    cache.free(big);
    cache.free(small);  // too small to keep
    EXPECT_EQ(released, std::vector<void*>({small}));
    EXPECT_EQ(cache.take(999), nullptr);
    EXPECT_EQ(cache.take(4000), big);
    EXPECT_EQ(cache.take(4000), nullptr);  // handed out once
    cache.free(big);
    EXPECT_EQ(cache.keptBytes(), 4000u);
    EXPECT_EQ(cache.take(5000), nullptr);  // another size: the new block replaces the kept one
    EXPECT_EQ(released, std::vector<void*>({small, big}));
    EXPECT_EQ(cache.keptBytes(), 0u);
}

TEST(BlockCache, KeepsABlockTheNextFrameWantsThroughAMissAtItsBusiestMoment) {
    released.clear();
    BlockCache cache(1000, 100000, 100, release);
    // Each frame: a 2000-byte block used early and freed, then three
    // 4000-byte ones at once, and beside them one of a size no frame asked
    // for before (such as a list of points), which misses.  The first
    // frames make their blocks while the busiest moment is not yet known.
    auto take = [&](std::size_t bytes) {
        void* p = cache.take(bytes);
        return p != nullptr ? p : allocate(cache, bytes);
    };
    for (int frame = 0; frame < 4; ++frame) {
        void* early = cache.take(2000);
        EXPECT_TRUE(early != nullptr || frame < 2) << "frame " << frame;
        if (early == nullptr) early = allocate(cache, 2000);
        cache.free(early);
        std::vector<void*> busy;
        for (int i = 0; i < 3; ++i) busy.push_back(take(4000));
        busy.push_back(take(1000 + static_cast<std::size_t>(frame)));
        for (void* p : busy) cache.free(p);
    }
    // Near what a frame needs: its busiest moment held 3 x 4000 + 1003 bytes.
    EXPECT_LE(cache.keptBytes(), 13003u + 13003u / 4);
    // A frame of larger sizes (another number of labels): the kept blocks
    // give way to its new ones.
    void* larger = take(20000);
    EXPECT_EQ(cache.keptBytes(), 0u);
    cache.free(larger);
}

TEST(BlockCache, StaysWithinItsLimitByReleasingWhatItKeptFirst) {
    released.clear();
    {
        BlockCache cache(1000, 10000, 100, release);
        void* a = allocate(cache, 6000);
        void* b = allocate(cache, 5000);
        void* huge = allocate(cache, 20000);
        cache.free(a);
        cache.free(b);  // a goes to make room
        EXPECT_EQ(released, std::vector<void*>({a}));
        cache.free(huge);  // never kept
        EXPECT_EQ(released, std::vector<void*>({a, huge}));
        EXPECT_EQ(cache.keptBytes(), 5000u);
        released.clear();
    }
    EXPECT_EQ(released.size(), 1u);  // b, with the cache
}

TEST(BlockCache, ReleasesABlockNoRequestHasTakenForItsWindow) {
    released.clear();
    BlockCache cache(1000, 10000, 3, release);
    void* a = allocate(cache, 2000);
    void* b = allocate(cache, 3000);
    cache.free(a);  // kept after 0 requests
    cache.free(b);
    for (int request = 1; request <= 3; ++request) {
        EXPECT_EQ(cache.take(3000), b);
        cache.free(b);
    }
    EXPECT_TRUE(released.empty());
    EXPECT_EQ(cache.take(3000), b);  // the fourth request: a has waited too long
    EXPECT_EQ(released, std::vector<void*>({a}));
    cache.free(b);
}

}  // namespace
