// A small host: plays a camera delivering 12-bit monochrome frames, converts each frame into the
// host's column-major array and reports the rate.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <lumoframekit/lumoframekit.h>

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::atoi(argv[1]) : 100;
    const int width = 1920, height = 1080;
    lumoframekit::MemoryLimiter limiter(0, 256ull << 20);

    // A synthetic scene: a diagonal gradient with fine stripes, 12 significant bits per sample.
    std::vector<std::uint16_t> scene(static_cast<std::size_t>(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            scene[static_cast<std::size_t>(y) * width + x] = static_cast<std::uint16_t>(((x + y) * 4095 / (width + height)) ^ ((x & 1) << 4));

    std::vector<std::uint16_t> plane(scene.size());
    void* dest[] = {plane.data(), nullptr};
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < frames; ++i) {
        lumoframekit::IFrame* frame = lumoframekit::frameFactory(lumoframekit::frametypes::MONO12_LE_TOPDOWN, width, height);
        frame->setMemoryLimiter(&limiter);
        frame->setBufferData(reinterpret_cast<const std::uint8_t*>(scene.data()));
        frame->setTimeStamp(i / 30.0);
        frame->addIntegerMetaData("frameNumber", i);
        frame->getData(dest);
        frame->release();
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d frames of %dx%d 12-bit: %.1f frames/s, %.0f MB/s, limiter holds %llu bytes\n", frames, width,
                height, frames / seconds, frames * scene.size() * 2 / seconds / 1e6,
                static_cast<unsigned long long>(limiter.getMemoryUsed()));
    std::printf("sample at column 100, row 50: %u\n", plane[100 * height + 50]);
    return 0;
}
