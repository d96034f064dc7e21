// The camera host against the camera stack's simulated GenICam camera: every pixel format it
// offers goes through the example's own path (camera buffers into pooled frames, converted), and
// the planes must hold the camera's own samples.
#include <gtest/gtest.h>

#include <arv.h>

#include <cstring>
#include <vector>

#include "genicam_host.h"

namespace {

using namespace camerahost;
using namespace lumoframekit;

// The camera's buffer as the planes should hold it: one plane per interleaved channel of
// `bytesPerSample`-byte samples, column-major.
std::vector<std::uint8_t> planesOf(const CameraBuffer& buffer, int bands, int bytesPerSample) {
    const std::size_t w = static_cast<std::size_t>(buffer.width), h = static_cast<std::size_t>(buffer.height);
    const auto* bytes = static_cast<const std::uint8_t*>(buffer.data);
    std::vector<std::uint8_t> out(w * h * bands * bytesPerSample);
    for (int c = 0; c < bands; ++c)
        for (std::size_t x = 0; x < w; ++x)
            for (std::size_t y = 0; y < h; ++y)
                std::memcpy(&out[((c * w + x) * h + y) * bytesPerSample],
                            &bytes[((y * w + x) * bands + c) * bytesPerSample], bytesPerSample);
    return out;
}

}  // namespace

TEST(SimulatedCamera, EveryOfferedFormatArrivesAsTheCamerasSamples) {
    std::string error;
    std::unique_ptr<Camera> camera = Camera::open("Fake_1", true, error);
    ASSERT_TRUE(camera) << error;
    camera->setFrameRate(200);
    const std::vector<Camera::Format> formats = camera->pixelFormats();
    ASSERT_GE(formats.size(), 7u);
    FrameSink sink(64ull << 20, 1, 3);
    for (const Camera::Format& format : formats) {
        SCOPED_TRACE(format.name);
        const frametypes::FRAMETYPE code = frameTypeFromPixelFormat(format.value);
        ASSERT_NE(code, 0u) << "the simulated camera offers a format the lookup does not know";
        EXPECT_EQ(frameTypeFromPixelFormatName(format.name.c_str()), code);
        ASSERT_TRUE(camera->setPixelFormat(format.name, error)) << error;
        const bool mosaic = (code >> 24) == 0x06;  // the Bayer family
        const int bands = FrameSink::defaultView(code) == COLORSPACE_MONO ? 1 : 3;
        const int sampleBytes = ARV_PIXEL_FORMAT_BIT_PER_PIXEL(format.value) / (mosaic ? 8 : 8 * bands) > 1 ? 2 : 1;
        Camera::Stats stats;
        int checked = 0;
        ASSERT_TRUE(camera->acquire(
            3,
            [&](const CameraBuffer& buffer) {
                ASSERT_EQ(buffer.pixelFormat, format.value);
                Planes planes;
                // A mosaic is compared as the camera sent it, then demosaiced as the host sees it.
                ASSERT_EQ(sink.take(buffer, planes, mosaic ? std::uint32_t{COLORSPACE_MONO} : 0u), Outcome::Converted);
                const std::vector<std::uint8_t> want = planesOf(buffer, mosaic ? 1 : bands, sampleBytes);
                ASSERT_EQ(planes.bytes(), want.size());
                EXPECT_EQ(std::memcmp(planes.data(), want.data(), want.size()), 0);
                if (mosaic) {
                    ASSERT_EQ(sink.take(buffer, planes), Outcome::Converted);
                    EXPECT_EQ(planes.dims().bands, 3u);
                }
                ++checked;
            },
            stats, error))
            << error;
        EXPECT_EQ(checked, 3);
        EXPECT_LE(sink.memoryUsed(), sink.memoryLimit());
    }
}

// The camera stack's own constants for the standard formats agree with the lookup's table.
TEST(SimulatedCamera, TheStacksFormatValuesMapToTheirNames) {
    const struct {
        ArvPixelFormat value;
        const char* name;
    } known[] = {
        {ARV_PIXEL_FORMAT_MONO_8, "Mono8"},
        {ARV_PIXEL_FORMAT_MONO_8_SIGNED, "Mono8s"},
        {ARV_PIXEL_FORMAT_MONO_10, "Mono10"},
        {ARV_PIXEL_FORMAT_MONO_10_PACKED, "Mono10Packed"},
        {ARV_PIXEL_FORMAT_MONO_12, "Mono12"},
        {ARV_PIXEL_FORMAT_MONO_12_PACKED, "Mono12Packed"},
        {ARV_PIXEL_FORMAT_MONO_14, "Mono14"},
        {ARV_PIXEL_FORMAT_MONO_16, "Mono16"},
        {ARV_PIXEL_FORMAT_BAYER_GR_8, "BayerGR8"},
        {ARV_PIXEL_FORMAT_BAYER_RG_8, "BayerRG8"},
        {ARV_PIXEL_FORMAT_BAYER_GB_8, "BayerGB8"},
        {ARV_PIXEL_FORMAT_BAYER_BG_8, "BayerBG8"},
        {ARV_PIXEL_FORMAT_BAYER_GR_10, "BayerGR10"},
        {ARV_PIXEL_FORMAT_BAYER_BG_12, "BayerBG12"},
        {ARV_PIXEL_FORMAT_BAYER_RG_16, "BayerRG16"},
        {ARV_PIXEL_FORMAT_BAYER_GB_10P, "BayerGB10p"},
        {ARV_PIXEL_FORMAT_BAYER_RG_12P, "BayerRG12p"},
        {ARV_PIXEL_FORMAT_BAYER_BG_10_PACKED, "BayerBG10Packed"},
        {ARV_PIXEL_FORMAT_BAYER_GR_12_PACKED, "BayerGR12Packed"},
        {ARV_PIXEL_FORMAT_RGB_8_PACKED, "RGB8"},
        {ARV_PIXEL_FORMAT_BGR_8_PACKED, "BGR8"},
        {ARV_PIXEL_FORMAT_RGBA_8_PACKED, "RGBa8"},
        {ARV_PIXEL_FORMAT_BGRA_8_PACKED, "BGRa8"},
        {ARV_PIXEL_FORMAT_RGB_10_PACKED, "RGB10"},
        {ARV_PIXEL_FORMAT_BGR_12_PACKED, "BGR12"},
        {ARV_PIXEL_FORMAT_RGB_8_PLANAR, "RGB8_Planar"},
        {ARV_PIXEL_FORMAT_RGB_16_PLANAR, "RGB16_Planar"},
        {ARV_PIXEL_FORMAT_YUV_422_YUYV_PACKED, "YUV422_8"},
        {ARV_PIXEL_FORMAT_YUV_422_PACKED, "YUV422_8_UYVY"},
        {ARV_PIXEL_FORMAT_YUV_411_PACKED, "YUV411_8_UYYVYY"},
        {ARV_PIXEL_FORMAT_YUV_444_PACKED, "YUV8_UYV"},
    };
    for (const auto& k : known) {
        const frametypes::FRAMETYPE code = frameTypeFromPixelFormat(k.value);
        EXPECT_NE(code, 0u) << k.name;
        EXPECT_STREQ(pixelFormatName(code), k.name);
    }
}

// Buffers the host cannot take are told apart, and none of them costs the limiter anything.
TEST(SimulatedCamera, BuffersTheHostCannotTakeAreNamedNotGuessed) {
    std::vector<std::uint8_t> bytes(64 * 64 * 2, 0x5A);
    FrameSink sink(3 * 64 * 64, 0, 2);
    Planes planes;
    EXPECT_EQ(sink.take({0x010E0104u /* Mono14p */, 64, 64, bytes.data(), bytes.size()}, planes),
              Outcome::UnknownFormat);
    EXPECT_EQ(sink.take({ARV_PIXEL_FORMAT_MONO_16, 64, 64, bytes.data(), bytes.size() - 1}, planes),
              Outcome::ShortBuffer);
    EXPECT_EQ(planes.data(), nullptr);
    EXPECT_EQ(sink.take({ARV_PIXEL_FORMAT_MONO_16, 64, 64, bytes.data(), bytes.size()}, planes), Outcome::Converted);
    EXPECT_EQ(planes.dims().bands, 1u);
    EXPECT_LE(sink.memoryUsed(), sink.memoryLimit());
    FrameSink starved(4096, 0, 2);
    EXPECT_EQ(starved.take({ARV_PIXEL_FORMAT_MONO_16, 64, 64, bytes.data(), bytes.size()}, planes), Outcome::Refused);
    EXPECT_EQ(starved.memoryUsed(), 0u);
}
