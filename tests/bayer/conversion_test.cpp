#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "frames/bayer/element_conversion.h"
#include "lumoframekit/lumoframekit.h"
#include "test_support.h"

using namespace lumoframekit;
using lumotest::FramePtr;
using lumotest::make;

namespace {

const int sizes[8] = {1, 1, 2, 2, 4, 4, 4, 8};
const bool isSigned[8] = {false, true, false, true, false, true, true, true};

// A source element, read as a number.
double readAsDouble(const std::uint8_t* p, int type) {
    switch (type) {
        case 0: return *p;
        case 1: return static_cast<std::int8_t>(*p);
        case 2: {
            std::uint16_t v;
            std::memcpy(&v, p, 2);
            return v;
        }
        case 3: {
            std::int16_t v;
            std::memcpy(&v, p, 2);
            return v;
        }
        case 4: {
            std::uint32_t v;
            std::memcpy(&v, p, 4);
            return v;
        }
        case 5: {
            std::int32_t v;
            std::memcpy(&v, p, 4);
            return v;
        }
        case 6: {
            float v;
            std::memcpy(&v, p, 4);
            return v;
        }
        default: {
            double v;
            std::memcpy(&v, p, 8);
            return v;
        }
    }
}

// The conversion rules, one source value at a time, written as the host contract states them.
std::vector<std::uint8_t> reference(const std::uint8_t* p, int from, int to, int b) {
    std::vector<std::uint8_t> out(sizes[to]);
    const double v = readAsDouble(p, from);
    if (to >= 6) {
        double r;
        if (from >= 6)
            r = v;
        else if (from == 0)
            r = v / 256.0;
        else if (from == 2)
            r = v / std::ldexp(1.0, b);
        else if (from == 1)
            r = (v + 128) / std::ldexp(1.0, b);
        else if (from == 3)
            r = (v + 32768) / std::ldexp(1.0, b);
        else if (from == 4)
            r = v * std::ldexp(1.0, -32);
        else
            r = (v + 2147483648.0) * std::ldexp(1.0, -32);
        if (to == 6) {
            const float f = static_cast<float>(r);
            std::memcpy(out.data(), &f, 4);
        } else {
            std::memcpy(out.data(), &r, 8);
        }
        return out;
    }
    const int w = 8 * sizes[to];
    std::int64_t result;
    if (from >= 6) {
        double scaled = v * std::ldexp(1.0, w) - (isSigned[to] ? std::ldexp(1.0, w - 1) : 0.0);
        const double lo = isSigned[to] ? -std::ldexp(1.0, w - 1) : 0.0;
        const double hi = isSigned[to] ? std::ldexp(1.0, w - 1) - 1 : std::ldexp(1.0, w) - 1;
        if (std::isnan(scaled)) scaled = 0;
        result = static_cast<std::int64_t>(std::trunc(std::clamp(scaled, lo, hi)));
    } else {
        const std::int64_t x = static_cast<std::int64_t>(v);
        std::int64_t s = b < w ? x * (std::int64_t{1} << (w - b)) : (x >> (b - w));
        bool offset;
        if (from == 0 || from == 2 || from == 4)
            offset = isSigned[to];
        else if (from == 1)
            offset = isSigned[to];
        else
            offset = !isSigned[to];
        if (offset) s += std::int64_t{1} << (w - 1);
        result = s;
    }
    const std::uint64_t bits = static_cast<std::uint64_t>(result);
    std::memcpy(out.data(), &bits, sizes[to]);  // low bytes: modulo 2^w
    return out;
}

}  // namespace

TEST(ElementConversion, EveryPairFollowsTheRules) {
    std::mt19937 rng(21);
    for (int from = 0; from < 8; ++from)
        for (int to = 0; to < 8; ++to) {
            if (from == to) continue;
            const std::vector<int> depths = from == 2                ? std::vector<int>{10, 12, 16}
                                            : from == 3              ? std::vector<int>{16}
                                            : from == 0 || from == 1 ? std::vector<int>{8}
                                                                     : std::vector<int>{32};
            for (int b : depths) {
                const int count = 64;
                std::vector<std::uint8_t> in(count * sizes[from]);
                for (auto& x : in) x = static_cast<std::uint8_t>(rng());
                if (from >= 6) {  // floats in [-0.25, 1.25], plus the ends and NaN
                    for (int i = 0; i < count; ++i) {
                        double d = (rng() % 1500) / 1000.0 - 0.25;
                        if (i == 0) d = 1.0;
                        if (i == 1) d = 0.0;
                        if (i == 2) d = NAN;
                        if (from == 6) {
                            const float f = static_cast<float>(d);
                            std::memcpy(&in[i * 4], &f, 4);
                        } else {
                            std::memcpy(&in[i * 8], &d, 8);
                        }
                    }
                }
                std::vector<std::uint8_t> out(count * sizes[to], 0xEE);
                convertElements(in.data(), from, out.data(), to, count, b);
                for (int i = 0; i < count; ++i) {
                    const auto expect = reference(&in[i * sizes[from]], from, to, b);
                    ASSERT_EQ(std::vector<std::uint8_t>(out.begin() + i * sizes[to], out.begin() + (i + 1) * sizes[to]),
                              expect)
                        << "from " << from << " to " << to << " bits " << b << " element " << i;
                }
            }
        }
}

TEST(ElementConversion, Asymmetries) {
    const std::int8_t minusOne = -1;
    std::uint8_t asByte = 0;
    convertElements(&minusOne, 1, &asByte, 0, 1, 8);
    EXPECT_EQ(asByte, 255);  // int8 to uint8 takes no offset
    std::int16_t asShort = 0;
    convertElements(&minusOne, 1, &asShort, 3, 1, 8);
    EXPECT_EQ(asShort, static_cast<std::int16_t>(-256 + 32768));  // int8 to int16 does
    const std::uint8_t top = 255;
    float asFloat = 0;
    convertElements(&top, 0, &asFloat, 6, 1, 12);
    EXPECT_EQ(asFloat, 0.99609375f);  // i / 256 whatever the bits per band
    const float one = 1.0f;
    std::uint16_t saturated = 0;
    convertElements(&one, 6, &saturated, 2, 1, 32);
    EXPECT_EQ(saturated, 65535);
}

TEST(ColorRoutes, MonochromeFramesGoToRgbYuvAndDemosaic) {
    FramePtr frame = make(0x11010000, 3, 2);
    const std::uint8_t pixels[] = {0, 100, 255, 16, 128, 200};
    frame->setBufferData(pixels);
    const std::uint8_t column[] = {0, 16, 100, 128, 255, 200};  // column-major

    FrameDims dims{};
    void* result = nullptr;
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_RGB, nullptr, 0, nullptr);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(dims.bands, 3u);
    for (int plane = 0; plane < 3; ++plane)
        EXPECT_EQ(std::memcmp(static_cast<std::uint8_t*>(result) + plane * 6, column, 6), 0);
    delete[] static_cast<std::uint8_t*>(result);

    frame->getDataInColorSpace(&result, &dims, COLORSPACE_YUV, nullptr, 0, nullptr);
    ASSERT_NE(result, nullptr);
    const auto* yuv = static_cast<std::uint8_t*>(result);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(yuv[i], ((column[i] * 220 + 128) >> 8) + 16);
        EXPECT_EQ(yuv[6 + i], 128);
        EXPECT_EQ(yuv[12 + i], 128);
    }
    delete[] static_cast<std::uint8_t*>(result);

    // Requests the monochrome frame already satisfies come back unchanged, one band.
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_MONO | COLORSPACE_RGB, nullptr, 0, nullptr);
    EXPECT_EQ(dims.bands, 1u);
    EXPECT_EQ(std::memcmp(result, column, 6), 0);
    delete[] static_cast<std::uint8_t*>(result);

    // Routes no row accepts give null and keep the reported dimensions.
    FramePtr signedFrame = make(0x11010017, 3, 2);
    signedFrame->setBufferData(pixels);
    signedFrame->getDataInColorSpace(&result, &dims, COLORSPACE_RGB, nullptr, 0, nullptr);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(dims.bands, 1u);
    frame->getDataInColorSpace(&result, &dims, 0, nullptr, 0, nullptr);
    EXPECT_EQ(result, nullptr);
}

TEST(ColorRoutes, SixteenBitMonoToYuvDoesNotOverflow) {
    FramePtr frame = make(0x11010004, 2, 1);
    const std::uint16_t pixels[] = {65535, 0};
    frame->setBufferData(reinterpret_cast<const std::uint8_t*>(pixels));
    void* result = nullptr;
    FrameDims dims{};
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_YUV, nullptr, 0, nullptr);
    ASSERT_NE(result, nullptr);
    const auto* yuv = static_cast<std::uint16_t*>(result);
    EXPECT_EQ(yuv[0], ((65535ull * 56283 + 32768) >> 16) + 4112);
    EXPECT_EQ(yuv[1], 4112);
    EXPECT_EQ(yuv[2], 32896);
    delete[] static_cast<std::uint8_t*>(result);
}

TEST(ColorRoutes, BayerFramesGiveMosaicRgbAndYuv) {
    std::mt19937 rng(2);
    const int w = 5, h = 4, n = w * h;
    std::vector<std::uint8_t> mosaic(n);
    for (auto& v : mosaic) v = static_cast<std::uint8_t>(rng());
    FramePtr frame = make(0x06030002, w, h);  // 8-bit bggr
    frame->setBufferData(mosaic.data());

    std::vector<std::uint8_t> rgb(3 * n);
    void* dest[] = {rgb.data(), nullptr};
    frame->getData(dest);

    void* result = nullptr;
    FrameDims dims{};
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_RGB, nullptr, 0, nullptr);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(std::vector<std::uint8_t>(static_cast<std::uint8_t*>(result), static_cast<std::uint8_t*>(result) + 3 * n),
              rgb);
    delete[] static_cast<std::uint8_t*>(result);

    // RGB to YUV in place: Y over R, then U from that Y, then V from that Y and U.
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_YUV, nullptr, 0, nullptr);
    ASSERT_NE(result, nullptr);
    const auto* yuv = static_cast<std::uint8_t*>(result);
    for (int i = 0; i < n; ++i) {
        const int r = rgb[i], g = rgb[n + i], b = rgb[2 * n + i];
        const std::uint8_t y = static_cast<std::uint8_t>(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
        const std::uint8_t u = static_cast<std::uint8_t>(((-38 * y - 74 * g + 112 * b + 128) >> 8) - 128);
        const std::uint8_t v = static_cast<std::uint8_t>(((112 * y - 94 * u - 18 * b + 128) >> 8) - 128);
        ASSERT_EQ(yuv[i], y);
        ASSERT_EQ(yuv[n + i], u);
        ASSERT_EQ(yuv[2 * n + i], v);
    }
    delete[] static_cast<std::uint8_t*>(result);

    // A one-band request gives the raw mosaic, column-major.
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_MONO, nullptr, 0, nullptr);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(dims.bands, 1u);
    for (int x = 0; x < w; ++x)
        for (int y = 0; y < h; ++y) ASSERT_EQ(static_cast<std::uint8_t*>(result)[x * h + y], mosaic[y * w + x]);
    delete[] static_cast<std::uint8_t*>(result);

    for (std::uint32_t request : {0u, 8u}) {
        frame->getDataInColorSpace(&result, &dims, request, nullptr, 0, nullptr);
        EXPECT_EQ(result, nullptr) << request;
        EXPECT_EQ(frame->getColorSpace(), 2u);
    }
}

TEST(ColorRoutes, DemosaicRequestOnAMonochromeFrameAndUnknownTargets) {
    const std::vector<std::uint8_t> pixels(16, 40);
    FramePtr frame = make(0x11010000, 4, 4);
    frame->setBufferData(pixels.data());
    void* result = nullptr;
    FrameDims dims{};
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_DEMOSAIC, nullptr, 4, nullptr);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(dims.bands, 3u);
    EXPECT_EQ(std::vector<std::uint8_t>(static_cast<std::uint8_t*>(result), static_cast<std::uint8_t*>(result) + 48),
              std::vector<std::uint8_t>(48, 40));
    delete[] static_cast<std::uint8_t*>(result);
    // A pattern with no layout demosaics nothing: the planes are zero, never stale memory.
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_DEMOSAIC, nullptr, 3, nullptr);
    EXPECT_EQ(std::vector<std::uint8_t>(static_cast<std::uint8_t*>(result), static_cast<std::uint8_t*>(result) + 48),
              std::vector<std::uint8_t>(48, 0));
    delete[] static_cast<std::uint8_t*>(result);
    const std::int32_t unknownType = 9;
    frame->getDataInColorSpace(&result, &dims, COLORSPACE_MONO, &unknownType, 0, nullptr);
    EXPECT_EQ(std::vector<std::uint8_t>(static_cast<std::uint8_t*>(result), static_cast<std::uint8_t*>(result) + 16),
              std::vector<std::uint8_t>(16, 0));
    delete[] static_cast<std::uint8_t*>(result);
}
