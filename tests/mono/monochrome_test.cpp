#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <typeinfo>
#include <vector>

#include "lumoframekit/lumoframekit.h"
#include "test_support.h"
#include "vector_widths.h"

using namespace lumoframekit;
using lumotest::FramePtr;
using lumotest::make;

namespace {

enum class Kind { U8, Inv, U16LE, U16BE, SLE, SBE, FLE, FBE };

// The monochrome formats by variant byte, written out from the format list.
struct Format {
    std::uint32_t variant;
    int bytes;
    Kind kind;
    std::uint32_t bits;
    std::int32_t dataType;
    bool bottomUpToo;
};

const Format formats[] = {
    {0x00, 1, Kind::U8, 8, 0, true},     {0x01, 2, Kind::U16LE, 10, 2, true}, {0x02, 2, Kind::U16LE, 12, 2, true},
    {0x03, 2, Kind::U16LE, 14, 2, true}, {0x04, 2, Kind::U16LE, 16, 2, true}, {0x05, 2, Kind::U16BE, 10, 2, true},
    {0x06, 2, Kind::U16BE, 12, 2, true}, {0x07, 2, Kind::U16BE, 14, 2, true}, {0x08, 2, Kind::U16BE, 16, 2, true},
    {0x09, 2, Kind::SLE, 16, 3, true},   {0x10, 4, Kind::SLE, 32, 5, true},   {0x11, 2, Kind::SBE, 16, 3, true},
    {0x12, 4, Kind::SBE, 32, 5, true},   {0x13, 4, Kind::FLE, 32, 6, true},   {0x14, 8, Kind::FLE, 64, 7, true},
    {0x15, 4, Kind::FBE, 32, 6, true},   {0x16, 8, Kind::FBE, 64, 7, true},   {0x17, 1, Kind::SLE, 8, 1, true},
    {0x1A, 1, Kind::Inv, 8, 0, false},   {0x1B, 2, Kind::U16LE, 9, 2, true},  {0x1C, 2, Kind::U16LE, 11, 2, true},
    {0x1D, 2, Kind::U16LE, 13, 2, true}, {0x1E, 2, Kind::U16LE, 15, 2, true}, {0x1F, 2, Kind::U16BE, 9, 2, true},
    {0x20, 2, Kind::U16BE, 11, 2, true}, {0x21, 2, Kind::U16BE, 13, 2, true}, {0x22, 2, Kind::U16BE, 15, 2, true},
};

struct Case {
    std::uint32_t code;
    Format format;
    bool bottomUp;
};

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (const Format& f : formats) {
        cases.push_back({0x11010000u | f.variant, f, false});
        if (f.bottomUpToo) cases.push_back({0x11010100u | f.variant, f, true});
    }
    return cases;
}

bool bigEndian(Kind k) { return k == Kind::U16BE || k == Kind::SBE || k == Kind::FBE; }

// The bytes of stored sample (row, column), in host order, complemented for the inverted format.
std::vector<std::uint8_t> hostSample(const Case& c, const std::uint8_t* raw, int width, int row, int column) {
    const int n = c.format.bytes;
    std::vector<std::uint8_t> s(raw + (row * width + column) * n, raw + (row * width + column + 1) * n);
    if (bigEndian(c.format.kind)) std::reverse(s.begin(), s.end());
    if (c.format.kind == Kind::Inv) s[0] = static_cast<std::uint8_t>(255 - s[0]);
    return s;
}

// Column-major host array, top row first, straight from the stored bytes.
std::vector<std::uint8_t> referencePlane(const Case& c, const std::vector<std::uint8_t>& raw, int width, int height) {
    const int n = c.format.bytes;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(width) * height * n);
    for (int x = 0; x < width; ++x)
        for (int y = 0; y < height; ++y) {
            const int stored = c.bottomUp ? height - 1 - y : y;
            const auto s = hostSample(c, raw.data(), width, stored, x);
            std::memcpy(&out[(static_cast<std::size_t>(x) * height + y) * n], s.data(), n);
        }
    return out;
}

std::uint8_t referenceDisplay(const Case& c, const std::vector<std::uint8_t>& sample) {
    std::uint64_t u = 0;
    for (int i = c.format.bytes - 1; i >= 0; --i) u = u << 8 | sample[i];
    switch (c.format.kind) {
        case Kind::U8:
        case Kind::Inv: return static_cast<std::uint8_t>(u);
        case Kind::U16LE:
        case Kind::U16BE: return static_cast<std::uint8_t>(u >> (c.format.bits - 8));
        case Kind::SLE:
        case Kind::SBE: {
            const std::uint64_t mask = c.format.bits == 64 ? ~0ull : (1ull << c.format.bits) - 1;
            return static_cast<std::uint8_t>(((u + (1ull << (c.format.bits - 1))) & mask) >> (c.format.bits - 8));
        }
        default:
            if (c.format.bytes == 4) {
                float f;
                std::memcpy(&f, sample.data(), 4);
                return static_cast<std::uint8_t>(static_cast<std::int32_t>(f * 255.0f));
            } else {
                double d;
                std::memcpy(&d, sample.data(), 8);
                return static_cast<std::uint8_t>(static_cast<std::int64_t>(d * 255.0));
            }
    }
}

// Random stored bytes; float formats get values in [-2, 2] so the display mapping is defined.
std::vector<std::uint8_t> randomImage(const Case& c, int width, int height, std::mt19937& rng) {
    std::vector<std::uint8_t> raw(static_cast<std::size_t>(width) * height * c.format.bytes);
    for (auto& b : raw) b = static_cast<std::uint8_t>(rng());
    if (c.format.kind == Kind::FLE || c.format.kind == Kind::FBE) {
        std::uniform_real_distribution<double> value(-2.0, 2.0);
        for (std::size_t i = 0; i < raw.size(); i += c.format.bytes) {
            std::uint8_t bytes[8];
            if (c.format.bytes == 4) {
                const float f = static_cast<float>(value(rng));
                std::memcpy(bytes, &f, 4);
            } else {
                const double d = value(rng);
                std::memcpy(bytes, &d, 8);
            }
            if (bigEndian(c.format.kind)) std::reverse(bytes, bytes + c.format.bytes);
            std::memcpy(&raw[i], bytes, c.format.bytes);
        }
    }
    return raw;
}

}  // namespace

TEST(MonochromeFactory, AcceptsExactlyTheListedCodes) {
    std::vector<std::uint32_t> accepted;
    for (const Case& c : allCases()) accepted.push_back(c.code);
    for (std::uint32_t packed : {0x18u, 0x19u, 0x23u, 0x24u}) accepted.push_back(0x11010000u | packed);
    EXPECT_EQ(accepted.size(), 57u);
    for (std::uint32_t code = 0x11010000u; code <= 0x11010230u; ++code) {
        const bool listed = std::find(accepted.begin(), accepted.end(), code) != accepted.end();
        FramePtr frame = make(code, 4, 2);
        ASSERT_EQ(frame != nullptr, listed) << std::hex << code;
        if (!frame) continue;
        EXPECT_EQ(frame->getFrameType(), code);
        EXPECT_EQ(frame->getColorSpace(), 1u);
        EXPECT_FALSE(frame->isBufferAllocated());
        EXPECT_EQ(frame->getDimensions()->bands, 1u);
    }
    for (std::uint32_t code : {0x11000000u, 0x11020000u, 0x12010000u, 0x10010000u})
        EXPECT_EQ(make(code, 4, 2), nullptr);
}

TEST(MonochromeFactory, EachCodeBuildsItsOwnDistinctClass) {
    EXPECT_NE(dynamic_cast<MonochromeFrame8bitTopDown*>(make(0x11010000, 2, 2).get()), nullptr);
    EXPECT_NE(dynamic_cast<MonochromeFrame15bitBEBottomUp*>(make(0x11010122, 2, 2).get()), nullptr);
    EXPECT_NE(dynamic_cast<MonochromeFrame15bitBETopDown*>(make(0x11010022, 2, 2).get()), nullptr);
    EXPECT_NE(dynamic_cast<MonochromeFrame8bitInv*>(make(0x1101001A, 2, 2).get()), nullptr);
    EXPECT_NE((dynamic_cast<MonochromeFrameINTBEBottomUp<int, unsigned int>*>(make(0x11010112, 2, 2).get())), nullptr);
    EXPECT_NE(dynamic_cast<MonochromeFrameFloatLETopDown<double>*>(make(0x11010014, 2, 2).get()), nullptr);
    EXPECT_NE(dynamic_cast<PackedMonochromeFrame*>(make(0x11010024, 2, 2).get()), nullptr);
    EXPECT_EQ(dynamic_cast<MonochromeFrame12bitLETopDown*>(make(0x11010001, 2, 2).get()), nullptr);
    std::vector<const std::type_info*> seen;
    for (const Case& c : allCases()) {
        FramePtr frame = make(c.code, 2, 2);
        const std::type_info* type = &typeid(*frame);
        for (const std::type_info* other : seen) EXPECT_NE(*type, *other) << std::hex << c.code;
        seen.push_back(type);
    }
}

TEST(MonochromeFrames, ConvertRawCopyAndDisplayLikeTheReference) {
    std::mt19937 rng(7);
    for (const Case& c : allCases()) {
        // 1024 rows: columns a multiple of 1 KiB apart, which stream at any size.
        std::vector<std::pair<int, int>> sizes = {{5, 3}, {7, 2}, {1, 1}, {3, 4}, {70, 1024}};
        if (c.format.bytes == 1 && c.format.kind != Kind::SLE) {
            sizes.push_back({1280, 720});   // blocked
            sizes.push_back({1290, 1024});  // blocked, streamed strips
        }
        for (auto [w, h] : sizes) {
            SCOPED_TRACE(::testing::Message() << std::hex << c.code << std::dec << " " << w << "x" << h);
            FramePtr frame = make(c.code, w, h);
            EXPECT_EQ(frame->getDataType(), c.format.dataType);
            EXPECT_EQ(frame->getBitsPerBand(), c.format.bits);
            ASSERT_EQ(frame->getBufferSize(), static_cast<std::uint64_t>(w) * h * c.format.bytes);
            const auto raw = randomImage(c, w, h, rng);
            frame->setBufferData(raw.data());

            std::vector<std::uint8_t> out(raw.size(), 0xCD);
            void* dest[] = {out.data(), nullptr};
            frame->getData(dest);
            EXPECT_EQ(out, referencePlane(c, raw, w, h));

            std::fill(out.begin(), out.end(), 0xCD);
            frame->getDataFromBuffer(dest, raw.data(), 0);
            EXPECT_EQ(out, referencePlane(c, raw, w, h));

            // Raw copy: stored samples (complemented for the inverted format), rows top-down.
            std::vector<std::uint8_t> expectRaw(raw.size());
            const std::size_t rowBytes = static_cast<std::size_t>(w) * c.format.bytes;
            for (int y = 0; y < h; ++y) {
                const int stored = c.bottomUp ? h - 1 - y : y;
                for (std::size_t i = 0; i < rowBytes; ++i) {
                    const std::uint8_t b = raw[stored * rowBytes + i];
                    expectRaw[y * rowBytes + i] = c.format.kind == Kind::Inv ? static_cast<std::uint8_t>(255 - b) : b;
                }
            }
            frame->getDataFromBuffer(dest, raw.data(), 1);
            EXPECT_EQ(out, expectRaw);

            auto* mono = dynamic_cast<MonochromeFrame*>(frame.get());
            for (int row = 0; row < std::min(h, 3); ++row) {
                std::vector<std::uint8_t> shown(w), expect(w);
                mono->getDisplayRow(shown.data(), row);
                for (int x = 0; x < w; ++x) {
                    auto s = hostSample(c, raw.data(), w, row, x);
                    expect[x] = referenceDisplay(c, s);
                }
                EXPECT_EQ(shown, expect) << "display row " << row;
            }
        }
    }
}

TEST(MonochromeFrames, BlockingStartsAt1280x720) {
    std::mt19937 rng(3);
    for (auto [w, h] : {std::pair{1279, 1080}, {1920, 719}, {1280, 720}, {1921, 1083}}) {
        for (std::uint32_t code : {0x11010000u, 0x11010100u, 0x1101001Au}) {
            FramePtr frame = make(code, w, h);
            const Case c = {code, code == 0x1101001Au ? formats[18] : formats[0], code == 0x11010100u};
            const auto raw = randomImage(c, w, h, rng);
            frame->setBufferData(raw.data());
            std::vector<std::uint8_t> out(raw.size());
            void* dest[] = {out.data(), nullptr};
            frame->getData(dest);
            EXPECT_EQ(out, referencePlane(c, raw, w, h)) << std::hex << code << std::dec << " " << w << "x" << h;
        }
    }
}

// Images past the size from which the copy-out streams whole lines (over 4 MiB in columns of 2048
// rows or more), one format of each sample size and operation, both row orders, into a host
// array of exactly the image's size. The 8-bit ones take the blocked path, a strip at a time.
TEST(MonochromeFrames, LargeImagesStreamLikeTheReference) {
    forEachStreamingChoice([&] {
        std::mt19937 rng(12);
        for (const Case& c : allCases()) {
            const bool chosen = c.format.variant == 0x00 || c.format.variant == 0x1A || c.format.variant == 0x08 ||
                                c.format.variant == 0x12 || c.format.variant == 0x14;
            if (!chosen) continue;
            const int h = 2048, w = (9 << 19) / (h * c.format.bytes) + 3;  // a little over 4.5 MiB
            FramePtr frame = make(c.code, w, h);
            const auto raw = randomImage(c, w, h, rng);
            frame->setBufferData(raw.data());
            std::vector<std::uint8_t> out(raw.size());
            void* dest[] = {out.data(), nullptr};
            frame->getData(dest);
            EXPECT_TRUE(out == referencePlane(c, raw, w, h)) << std::hex << c.code << std::dec << " " << w << "x" << h;
        }
    });
}

TEST(MonochromeFrames, DisplayOddities) {
    FramePtr floats = make(0x11010013, 7, 1);
    const float values[] = {1.0f, 0.5f, 1.5f, -0.5f, NAN, INFINITY, -1e30f};
    floats->setBufferData(reinterpret_cast<const std::uint8_t*>(values));
    std::uint8_t shown[7];
    dynamic_cast<MonochromeFrame*>(floats.get())->getDisplayRow(shown, 0);
    EXPECT_EQ(std::vector<int>(shown, shown + 7), (std::vector<int>{255, 127, 126, 129, 0, 255, 0}));

    FramePtr bytes = make(0x11010017, 3, 1);
    const std::int8_t signedValues[] = {-128, 0, 127};
    bytes->setBufferData(reinterpret_cast<const std::uint8_t*>(signedValues));
    dynamic_cast<MonochromeFrame*>(bytes.get())->getDisplayRow(shown, 0);
    EXPECT_EQ(std::vector<int>(shown, shown + 3), (std::vector<int>{0, 128, 255}));

    FramePtr shorts = make(0x11010009, 1, 1);
    const std::int16_t minusOne = -1;
    shorts->setBufferData(reinterpret_cast<const std::uint8_t*>(&minusOne));
    dynamic_cast<MonochromeFrame*>(shorts.get())->getDisplayRow(shown, 0);
    EXPECT_EQ(shown[0], 127);

    // Bits above the depth pass through into the host array and into the display shift.
    FramePtr tenBit = make(0x11010001, 1, 1);
    const std::uint16_t garbage = 0xFC01;
    tenBit->setBufferData(reinterpret_cast<const std::uint8_t*>(&garbage));
    std::uint16_t host = 0;
    void* dest[] = {&host, nullptr};
    tenBit->getData(dest);
    EXPECT_EQ(host, 0xFC01);
    dynamic_cast<MonochromeFrame*>(tenBit.get())->getDisplayRow(shown, 0);
    EXPECT_EQ(shown[0], 0x00);                                              // 0xFC01 >> 2 = 0x3F00, low byte 0
    dynamic_cast<MonochromeFrame*>(tenBit.get())->getDisplayRow(shown, 5);  // no such row: nothing
}

TEST(MonochromeFrames, RegionCopyCountsRowsFromTheTopForBothRowOrders) {
    // A 4 x 5 source of bytes 10 * row + column, stored top-down for one frame and bottom-up for
    // the other; both regions are columns 1..2, rows 1..3 of the image.
    std::vector<std::uint8_t> topDown(20), bottomUp(20);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 4; ++x) {
            topDown[y * 4 + x] = static_cast<std::uint8_t>(10 * y + x);
            bottomUp[(4 - y) * 4 + x] = static_cast<std::uint8_t>(10 * y + x);
        }
    FramePtr td = make(0x11010000, 2, 3), bu = make(0x11010100, 2, 3);
    ASSERT_NE(td->copyRegionToBuffer(topDown.data(), 4, 5, 1, 1), nullptr);
    ASSERT_NE(bu->copyRegionToBuffer(bottomUp.data(), 4, 5, 1, 1), nullptr);
    std::vector<std::uint8_t> a(6), b(6);
    void* da[] = {a.data(), nullptr};
    void* db[] = {b.data(), nullptr};
    td->getData(da);
    bu->getData(db);
    EXPECT_EQ(a, (std::vector<std::uint8_t>{11, 21, 31, 12, 22, 32}));
    EXPECT_EQ(b, a);

    FramePtr outside = make(0x11010000, 2, 3);
    EXPECT_EQ(outside->copyRegionToBuffer(topDown.data(), 4, 5, 3, 0), nullptr);
    EXPECT_EQ(outside->copyRegionToBuffer(topDown.data(), 4, 5, 0, 3), nullptr);
    EXPECT_EQ(outside->copyRegionToBuffer(topDown.data(), 4, 5, 0xFFFFFFFFu, 0), nullptr);
    EXPECT_FALSE(outside->isBufferAllocated());
}

TEST(MonochromeFrames, EmptyAndDegenerateFramesWriteNothing) {
    for (auto [w, h] : {std::pair{0, 5}, {5, 0}, {-3, 2}, {2, -3}}) {
        for (const Case& c : allCases()) {
            FramePtr frame = make(c.code, w, h);
            std::uint8_t sentinel[16];
            std::memset(sentinel, 0xAB, sizeof sentinel);
            void* dest[] = {sentinel, nullptr};
            if (w >= 0 && h >= 0) {
                ASSERT_NE(frame->allocateBuffer(), nullptr);
            }
            frame->getData(dest);
            frame->getDataFromBuffer(dest, sentinel + 8, 0);
            frame->getDataFromBuffer(dest, sentinel + 8, 1);
            dynamic_cast<MonochromeFrame*>(frame.get())->getDisplayRow(sentinel, 0);
            for (std::uint8_t b : sentinel) {
                ASSERT_EQ(b, 0xAB) << std::hex << c.code;
            }
        }
    }
    EXPECT_EQ(make(0x11010000, 5, 3)->getAlignedSize(), 24);
    EXPECT_EQ(make(0x11010000, 4, 3)->getAlignedSize(), 12);
}
