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

TEST(BlockCache, HandsAFreedBlockBackOnlyForItsOwnSizeAndKeepsNoSmallOnes) {
    released.clear();
    BlockCache cache(1000, 10000, release);
    void* big = allocate(cache, 4000);
    void* small = allocate(cache, 999);
    cache.free(big);
    cache.free(small);
    EXPECT_EQ(released, std::vector<void*>({small}));
    EXPECT_EQ(cache.take(999), nullptr);
    EXPECT_EQ(cache.take(4096), nullptr);
    EXPECT_EQ(cache.take(4000), big);
    EXPECT_EQ(cache.take(4000), nullptr);  // handed out once
    cache.free(big);
    EXPECT_EQ(cache.keptBytes(), 4000u);
}

TEST(BlockCache, StaysWithinItsLimitByReleasingWhatItKeptBefore) {
    released.clear();
    {
        BlockCache cache(1000, 10000, release);
        void* a = allocate(cache, 6000);
        void* b = allocate(cache, 5000);
        void* huge = allocate(cache, 20000);
        cache.free(a);
        cache.free(b);  // a goes to make room
        EXPECT_EQ(released, std::vector<void*>({a}));
        cache.free(huge);  // never kept
        EXPECT_EQ(released, std::vector<void*>({a, huge}));
        EXPECT_EQ(cache.keptBytes(), 5000u);
        EXPECT_EQ(cache.take(6000), nullptr);
        released.clear();
    }
    EXPECT_EQ(released.size(), 1u);  // b, with the cache
}

}  // namespace
