#pragma once
// Reads a fuzz target's arguments from its input bytes; past the end every read gives 0.
#include <climits>
#include <cstdint>
#include <iterator>
#include <vector>

namespace lumofuzz {

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    std::uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    std::uint32_t word() {
        std::uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = v << 8 | byte();
        return v;
    }
    // Mostly small offsets, sometimes anything.
    std::uint32_t offset() { return byte() < 240 ? byte() % 48 : word(); }
    // Mostly small sizes, sometimes the extremes.
    std::int32_t size() {
        const std::uint8_t pick = byte();
        if (pick < 250) return pick % 40;
        static const std::int32_t extremes[] = {-1, INT32_MIN, INT32_MAX, 65536, 46341, -46341};
        return extremes[pick - 250];
    }
    std::vector<std::uint8_t> bytes(std::size_t n) {
        std::vector<std::uint8_t> out(n);
        for (auto& b : out) b = byte();
        return out;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

// A code of a known family with a low byte near its range, or now and then any code at all.
inline std::uint32_t frameCode(Input& in) {
    static const std::uint32_t families[] = {0x11010000, 0x11010100, 0x06030000, 0x01000000, 0x01000100, 0x05000000,
                                             0x05000100, 0x02000000, 0x03000000, 0x04000000, 0x07000000};
    const std::uint8_t pick = in.byte();
    if (pick >= 0xF0) return in.word();
    return families[pick % std::size(families)] | in.byte() % 0x26;
}

}  // namespace lumofuzz
