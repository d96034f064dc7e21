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

// Every code the factory accepts, found by asking it over each family's range of codes.
inline std::vector<std::uint32_t> everyCode() {
    std::vector<std::uint32_t> codes;
    auto add = [&](std::uint32_t code) {
        if (make(code, 2, 2)) codes.push_back(code);
    };
    for (std::uint32_t low = 0; low < 0x26; ++low) {
        add(0x11010000u | low);
        add(0x11010100u | low);
        add(0x06030000u | low);
    }
    for (std::uint32_t family : {0x01000000u, 0x02000000u, 0x03000000u, 0x04000000u, 0x05000000u, 0x07000000u})
        for (std::uint32_t low = 0; low < 0x12; ++low) add(family | low);
    return codes;
}

inline std::size_t elementBytes(std::int32_t dataType) {
    static const std::size_t sizes[8] = {1, 1, 2, 2, 4, 4, 4, 8};
    return dataType >= 0 && dataType < 8 ? sizes[dataType] : 1;
}

// Exactly the bytes getData may write for the frame as it reports itself.
inline std::size_t dataBytes(const lumoframekit::IFrame& frame) {
    const lumoframekit::FrameDims d = *frame.getDimensions();
    return std::size_t{d.width} * d.height * d.bands * elementBytes(frame.getDataType());
}

// Host arrays of exactly the size asked for, so that AddressSanitizer sees one byte over; counts
// calls and arrays out, and hands out null when told to.
class ExactAllocator : public lumoframekit::HostAllocator {
public:
    void* allocate(std::uint64_t bytes) override {
        ++calls;
        if (giveNull) return nullptr;
        ++live;
        last = bytes;
        return new std::uint8_t[bytes];
    }
    void release(void* array) override {
        --live;
        delete[] static_cast<std::uint8_t*>(array);
    }
    int calls = 0;
    int live = 0;
    std::uint64_t last = 0;
    bool giveNull = false;
};

// The bytes of a whole source image of a code's layout, as a camera would deliver it.
inline std::size_t sourceBytes(std::uint32_t code, int width, int height) {
    FramePtr probe = make(code, width, height);
    return probe ? static_cast<std::size_t>(probe->getBufferSize()) : 0;
}

}  // namespace lumotest
