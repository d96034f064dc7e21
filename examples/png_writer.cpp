#include "png_writer.h"

#include <png.h>

#include <algorithm>
#include <vector>

bool writePng(const std::string& path, const void* planes, const lumoframekit::FrameDims& dims, int type, int bits) {
    const std::uint32_t bands = dims.bands;
    if (bands != 1 && bands != 3) return false;
    const std::size_t n = static_cast<std::size_t>(dims.width) * dims.height;
    std::vector<std::uint8_t> pixels(n * bands);
    for (std::uint32_t x = 0; x < dims.width; ++x)
        for (std::uint32_t y = 0; y < dims.height; ++y)
            for (std::uint32_t c = 0; c < bands; ++c) {
                const std::size_t i = c * n + static_cast<std::size_t>(x) * dims.height + y;
                double v;
                switch (type) {
                    case 0: v = static_cast<const std::uint8_t*>(planes)[i] / 255.0; break;
                    case 1: v = (static_cast<const std::int8_t*>(planes)[i] + 128) / 255.0; break;
                    case 2: v = static_cast<const std::uint16_t*>(planes)[i] / ((1 << bits) - 1.0); break;
                    case 3: v = (static_cast<const std::int16_t*>(planes)[i] + 32768) / 65535.0; break;
                    case 4: v = static_cast<const std::uint32_t*>(planes)[i] / 4294967295.0; break;
                    case 5: v = (static_cast<const std::int32_t*>(planes)[i] + 2147483648.0) / 4294967295.0; break;
                    case 6: v = static_cast<const float*>(planes)[i]; break;
                    default: v = static_cast<const double*>(planes)[i]; break;
                }
                pixels[(static_cast<std::size_t>(y) * dims.width + x) * bands + c] =
                    static_cast<std::uint8_t>(std::clamp(v, 0.0, 1.0) * 255.0 + 0.5);
            }
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = dims.width;
    png.height = dims.height;
    png.format = bands == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
    return png_image_write_to_file(&png, path.c_str(), 0, pixels.data(), 0, nullptr) != 0;
}
