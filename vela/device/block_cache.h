// Freed memory blocks kept for the next request of the same size.
//
// A video allocates the same frame-sized arrays and frees them again, frame
// after frame.  Large blocks come straight from the kernel, which maps them
// anew and zeroes every page on first touch: a tenth of a frame's time.  The
// cache keeps freed blocks of at least `smallest` bytes and hands one out
// again for a request of exactly its size, so the same pages serve every
// frame.  So that the memory held stays what a frame needs, a kept block goes
// back for good once `window` requests have passed without taking it (a size
// the frames no longer ask for, such as one of another number of labels); a
// request of a size not kept releases the oldest kept blocks while the blocks
// in use, those kept and the new one would hold more than a quarter above the
// most in use at once over the last window or two; and the oldest go first
// where the kept blocks would pass `limit` bytes.
//
// The quarter lets a block freed early in a frame, and asked for again in the
// next, stay kept through the frame's busiest moment beside the blocks in use
// there.  Without it a miss at that moment would release such a block, whose
// next request would miss in turn: a propagation run remade (and the kernel
// zeroed) about sixteen frame-sized blocks per frame that way.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <mutex>
#include <unordered_map>

namespace vela::device::detail {

class BlockCache {
 public:
    // release(p) gives a block back for good.
    using Release = void (*)(void*);

    BlockCache(std::size_t smallest, std::size_t limit, std::uint64_t window, Release release)
        : smallest_(smallest), limit_(limit), window_(window), release_(release) {}
    ~BlockCache() {
        for (const Kept& k : kept_) release_(k.p);
    }
    BlockCache(const BlockCache&) = delete;
    BlockCache& operator=(const BlockCache&) = delete;

    // A kept block of exactly `bytes`, or null.  Every request of at least
    // `smallest` bytes counts towards the window.
    void* take(std::size_t bytes) {
        if (bytes < smallest_) return nullptr;
        const std::lock_guard<std::mutex> lock(mutex_);
        ++requests_;
        if (window_ != 0 && requests_ % window_ == 0) {
            busiestBefore_ = busiest_;
            busiest_ = inUse_;
        }
        releaseStale();
        const auto found = bySize_.find(bytes);
        if (found == bySize_.end()) {
            // A size not kept: the block about to be made may take the place
            // of the oldest kept ones, so that a change of sizes (another
            // number of labels) does not add the new blocks to the old.
            const std::size_t busiest = std::max(busiest_, busiestBefore_);
            while (!kept_.empty() && inUse_ + keptBytes_ + bytes > busiest + busiest / 4) releaseOldest();
            return nullptr;
        }
        void* p = found->second->p;
        nowInUse(found->second->bytes);
        forget(found);
        return p;
    }

    // Notes the size of a block just allocated, so that it may be kept.
    void allocated(void* p, std::size_t bytes) {
        if (p == nullptr || bytes < smallest_) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        sizes_[p] = bytes;
        nowInUse(bytes);
    }

    // Keeps a freed block of a noted size; releases any other, and one larger
    // than the limit.
    void free(void* p) {
        if (p == nullptr) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = sizes_.find(p);
        if (found != sizes_.end()) inUse_ -= found->second;
        if (found == sizes_.end() || found->second > limit_) {
            if (found != sizes_.end()) sizes_.erase(found);
            release_(p);
            return;
        }
        const std::size_t bytes = found->second;
        while (keptBytes_ + bytes > limit_) releaseOldest();
        kept_.push_back(Kept{bytes, p, requests_});
        bySize_.emplace(bytes, std::prev(kept_.end()));
        keptBytes_ += bytes;
    }

    std::size_t keptBytes() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return keptBytes_;
    }

 private:
    struct Kept {
        std::size_t bytes;
        void* p;
        std::uint64_t since;  // requests_ when it was kept
    };
    using Entry = std::list<Kept>::iterator;

    // Drops a kept block from the lists (not from sizes_: it lives on).
    void forget(std::unordered_multimap<std::size_t, Entry>::iterator found) {
        keptBytes_ -= found->second->bytes;
        kept_.erase(found->second);
        bySize_.erase(found);
    }
    void releaseOldest() {
        const Entry oldest = kept_.begin();
        auto range = bySize_.equal_range(oldest->bytes);
        while (range.first->second != oldest) ++range.first;
        void* p = oldest->p;
        sizes_.erase(p);
        forget(range.first);
        release_(p);
    }
    void nowInUse(std::size_t bytes) {
        inUse_ += bytes;
        busiest_ = std::max(busiest_, inUse_);
    }
    void releaseStale() {
        while (!kept_.empty() && requests_ - kept_.front().since > window_) releaseOldest();
    }

    const std::size_t smallest_, limit_;
    const std::uint64_t window_;
    const Release release_;
    mutable std::mutex mutex_;
    std::unordered_map<void*, std::size_t> sizes_;  // every live or kept block of at least `smallest`
    std::list<Kept> kept_;                          // oldest first
    std::unordered_multimap<std::size_t, Entry> bySize_;
    std::size_t keptBytes_ = 0;
    std::uint64_t requests_ = 0;
    std::size_t inUse_ = 0;  // bytes of the noted blocks not freed
    // The most bytes in use at once since the current window of requests
    // began, and over the window before.
    std::size_t busiest_ = 0, busiestBefore_ = 0;
};

}  // namespace vela::device::detail
