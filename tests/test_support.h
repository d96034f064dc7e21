#pragma once
// Helpers shared by the frame tests.
#include <cstdint>
#include <memory>
#include <new>
#include <random>
#include <vector>

#include "lumoframekit/lumoframekit.h"

namespace lumotest {

struct FrameDeleter {
    void operator()(lumoframekit::IFrame* f) const { delete f; }
};
using FramePtr = std::unique_ptr<lumoframekit::IFrame, FrameDeleter>;

inline FramePtr make(std::uint32_t code, int width, int height) {
    return FramePtr(lumoframekit::frameFactory(static_cast<lumoframekit::frametypes::FRAMETYPE>(code), width, height));
}

inline std::vector<std::uint8_t> noise(std::size_t bytes, std::mt19937& rng) {
    std::vector<std::uint8_t> v(bytes);
    for (auto& b : v) b = static_cast<std::uint8_t>(rng());
    return v;
}

// getData into one block of three planes, pre-filled with a sentinel.
inline std::vector<std::uint8_t> planesOf(lumoframekit::IFrame& frame, std::size_t bytes, std::uint8_t fill = 0xA7) {
    std::vector<std::uint8_t> out(bytes, fill);
    void* dest[] = {out.data(), nullptr};
    frame.getData(dest);
    return out;
}

// A host allocator that fails on its k-th allocation and counts the arrays it has out.
class FailingAllocator : public lumoframekit::HostAllocator {
public:
    explicit FailingAllocator(int failAt) : failAt_(failAt) {}
    void* allocate(std::uint64_t bytes) override {
        if (++calls == failAt_) throw std::bad_alloc();
        ++live;
        return HostAllocator::allocate(bytes);
    }
    void release(void* array) override {
        --live;
        HostAllocator::release(array);
    }
    int calls = 0;
    int live = 0;

private:
    int failAt_;
};

}  // namespace lumotest
