// Subnormal floats (below 1.2e-38 in magnitude) on CPU threads: a scope in
// which the calling thread reads and writes them as zero.
#pragma once

namespace vela::device {

// While it lives, the calling CPU thread flushes subnormal floats to zero
// (when `flush`), then gets its own floating-point mode back: for host loops
// of work whose kernels declare flushSubnormals (vela/device/launch.h).
class SubnormalsFlushed {
 public:
    explicit SubnormalsFlushed(bool flush);
    ~SubnormalsFlushed();
    SubnormalsFlushed(const SubnormalsFlushed&) = delete;
    SubnormalsFlushed& operator=(const SubnormalsFlushed&) = delete;

 private:
    bool flush_;
    unsigned int saved_ = 0;
};

}  // namespace vela::device
