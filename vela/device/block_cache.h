// Freed memory blocks kept for the next request of the same size.
//
// A video allocates the same frame-sized arrays and frees them again, frame
// after frame.  Large blocks come straight from the kernel, which maps them
// anew and zeroes every page on first touch: a fifth of a frame's time.  The
// cache keeps freed blocks of at least `smallest` bytes, up to `limit` bytes in
// all, and hands one out again for a request of exactly its size, so the same
// pages serve every frame and the memory held stays what one frame needs.
#pragma once

#include <cstddef>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace vela::device::detail {

class BlockCache {
 public:
    // release(p) gives a block back for good.
    using Release = void (*)(void*);

    BlockCache(std::size_t smallest, std::size_t limit, Release release)
        : smallest_(smallest), limit_(limit), release_(release) {}
    ~BlockCache() {
        for (const auto& [bytes, p] : kept_) release_(p);
    }
    BlockCache(const BlockCache&) = delete;
    BlockCache& operator=(const BlockCache&) = delete;

    // A kept block of exactly `bytes`, or null.
    void* take(std::size_t bytes) {
        if (bytes < smallest_) return nullptr;
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = kept_.find(bytes);
        if (found == kept_.end()) return nullptr;
        void* p = found->second;
        kept_.erase(found);
        keptBytes_ -= bytes;
        return p;
    }

    // Notes the size of a block just allocated, so that it may be kept.
    void allocated(void* p, std::size_t bytes) {
        if (p == nullptr || bytes < smallest_) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        sizes_[p] = bytes;
    }

    // Keeps a freed block, releasing blocks kept before where the limit
    // asks (sizes a frame no longer uses would otherwise fill it for good);
    // a block larger than the limit is released.
    void free(void* p) {
        if (p == nullptr) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = sizes_.find(p);
        if (found == sizes_.end() || found->second > limit_) {
            if (found != sizes_.end()) sizes_.erase(found);
            release_(p);
            return;
        }
        const std::size_t bytes = found->second;
        while (keptBytes_ + bytes > limit_) {
            const auto old = kept_.begin();
            keptBytes_ -= old->first;
            sizes_.erase(old->second);
            release_(old->second);
            kept_.erase(old);
        }
        kept_.emplace(bytes, p);
        keptBytes_ += bytes;
    }

    std::size_t keptBytes() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return keptBytes_;
    }

 private:
    const std::size_t smallest_, limit_;
    const Release release_;
    mutable std::mutex mutex_;
    std::unordered_map<void*, std::size_t> sizes_;  // every live or kept block of at least `smallest`
    std::unordered_multimap<std::size_t, void*> kept_;
    std::size_t keptBytes_ = 0;
};

}  // namespace vela::device::detail
