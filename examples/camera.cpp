// A host for a real camera: opens a GenICam camera through Aravis, maps each buffer's standard
// pixel format to a frame type, acquires through a frame pool whose reserver runs under a memory
// limit, converts every frame (RGB for Bayer and color formats, the one band for monochrome),
// reports frames per second and dropped frames, and writes the last frame as a PNG.
//
//   camera [--camera ID] [--simulated] [--pixel-format NAME] [--frames N] [--fps N]
//          [--memory-mb N] [--min-free N] [--max-free N] [--output FILE.png] [--list]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "genicam_host.h"
#include "png_writer.h"

namespace {

struct Options {
    std::string camera, pixelFormat, output = "camera.png";
    bool simulated = false, list = false;
    int frames = 100;
    double fps = 0, memoryMb = 256;
    std::uint64_t minFree = 2, maxFree = 6;
};

void usage(std::FILE* to) {
    std::fprintf(to,
                 "usage: camera [options]\n"
                 "  --camera ID          device id of the camera (default: the first one found)\n"
                 "  --simulated          offer the camera stack's simulated camera (device id Fake_1)\n"
                 "  --pixel-format NAME  set the camera's pixel format first (standard name, e.g. BayerRG8)\n"
                 "  --frames N           frames to acquire (default 100)\n"
                 "  --fps N              ask the camera for this frame rate (default: as it is)\n"
                 "  --memory-mb N        memory limit for frame buffers in MiB (default 256)\n"
                 "  --min-free N         free frames the reserver keeps at least (default 2)\n"
                 "  --max-free N         free frames the reserver keeps at most (default 6)\n"
                 "  --output FILE        where the last converted frame is written as PNG (default camera.png)\n"
                 "  --list               list the camera's pixel formats and the frame types they map to\n");
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            usage(stdout);
            std::exit(0);
        }
        if (flag == "--simulated" || flag == "--list") {
            (flag == "--list" ? o.list : o.simulated) = true;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "camera: %s needs a value (see --help)\n", flag.c_str());
            return false;
        }
        const char* value = argv[++i];
        char* end = nullptr;
        const double n = std::strtod(value, &end);
        const bool number = end != value && *end == '\0' && n >= 0 && n <= 1e9;
        if (flag == "--camera")
            o.camera = value;
        else if (flag == "--pixel-format")
            o.pixelFormat = value;
        else if (flag == "--output")
            o.output = value;
        else if (!number) {
            std::fprintf(stderr, "camera: %s takes a number, not '%s'\n", flag.c_str(), value);
            return false;
        } else if (flag == "--frames" && n >= 1)
            o.frames = static_cast<int>(n);
        else if (flag == "--fps")
            o.fps = n;
        else if (flag == "--memory-mb" && n > 0)
            o.memoryMb = n;
        else if (flag == "--min-free")
            o.minFree = static_cast<std::uint64_t>(n);
        else if (flag == "--max-free")
            o.maxFree = static_cast<std::uint64_t>(n);
        else {
            std::fprintf(stderr, "camera: unknown option or value '%s %s' (see --help)\n", flag.c_str(), value);
            return false;
        }
    }
    if (o.minFree > o.maxFree) {
        std::fprintf(stderr, "camera: --min-free is above --max-free\n");
        return false;
    }
    if (o.simulated && o.camera.empty()) o.camera = "Fake_1";
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace camerahost;
    Options o;
    if (!parse(argc, argv, o)) return 2;
    std::string error;
    std::unique_ptr<Camera> camera = Camera::open(o.camera, o.simulated, error);
    if (!camera) {
        std::fprintf(stderr, "camera: %s\n", error.c_str());
        return 1;
    }
    if (o.list) {
        for (const Camera::Format& f : camera->pixelFormats()) {
            const auto code = lumoframekit::frameTypeFromPixelFormat(f.value);
            if (code != 0)
                std::printf("%-20s 0x%08X  frame type 0x%08X\n", f.name.c_str(), f.value, static_cast<unsigned>(code));
            else
                std::printf("%-20s 0x%08X  no frame type reproduces it\n", f.name.c_str(), f.value);
        }
        return 0;
    }
    if (!o.pixelFormat.empty() && !camera->setPixelFormat(o.pixelFormat, error)) {
        std::fprintf(stderr, "camera: cannot set pixel format '%s': %s\n", o.pixelFormat.c_str(), error.c_str());
        return 1;
    }
    if (o.fps > 0) camera->setFrameRate(o.fps);

    std::unique_ptr<FrameSink> sink;
    try {
        sink = std::make_unique<FrameSink>(static_cast<std::uint64_t>(o.memoryMb * 1048576.0), o.minFree, o.maxFree);
    } catch (rigutil::RGException* e) {
        std::fprintf(stderr, "camera: %s\n", e->getMessage());
        delete e;
        return 1;
    }
    std::printf("acquiring %d frames from %s\n", o.frames, camera->deviceId().c_str());
    Planes last;
    int converted = 0, refused = 0, unknown = 0, other = 0;
    std::uint32_t unknownFormat = 0;
    std::size_t frameBytes = 0;
    const auto start = std::chrono::steady_clock::now();
    auto lastReport = start;
    Camera::Stats stats;
    const bool ok = camera->acquire(
        o.frames,
        [&](const CameraBuffer& buffer) {
            Planes planes;
            switch (sink->take(buffer, planes)) {
                case Outcome::Converted:
                    ++converted;
                    last = std::move(planes);
                    break;
                case Outcome::Refused: ++refused; break;
                case Outcome::UnknownFormat:
                    ++unknown;
                    unknownFormat = buffer.pixelFormat;
                    break;
                default: ++other; break;
            }
            frameBytes = buffer.size;
            const auto now = std::chrono::steady_clock::now();
            if (now - lastReport > std::chrono::milliseconds(500)) {
                lastReport = now;
                std::printf("frames %d  %.1f frames/s  dropped %d (limit %d, incomplete %d)  free frames %llu\n",
                            converted + refused + unknown + other,
                            converted / std::chrono::duration<double>(now - start).count(), refused + stats.failed,
                            refused, stats.failed, static_cast<unsigned long long>(sink->freeFrames()));
                std::fflush(stdout);
            }
        },
        stats, error);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf(
        "%d frames converted in %.2f s: %.1f frames/s; dropped %d (%d refused by the memory limit, %d incomplete from "
        "the camera)\n",
        converted, seconds, converted / seconds, refused + stats.failed, refused, stats.failed);
    if (refused > 0)
        std::printf("a limit of %.3f MiB (1 frame held and up to %llu free) would have held the stream\n",
                    std::ceil(static_cast<double>((1 + sink->maxFree()) * frameBytes) / 1048.576) / 1000.0,
                    static_cast<unsigned long long>(sink->maxFree()));
    if (unknown > 0) {
        std::string name = "an unlisted format";
        for (const Camera::Format& f : camera->pixelFormats())
            if (f.value == unknownFormat) name = f.name;
        std::printf("%d buffers of pixel format %s (0x%08X): no frame type reproduces it\n", unknown, name.c_str(),
                    unknownFormat);
    }
    if (!ok) std::fprintf(stderr, "camera: %s\n", error.c_str());
    if (last.data() == nullptr) {
        std::fprintf(stderr, "camera: no frame was converted\n");
        return 1;
    }
    if (!writePng(o.output, last.data(), last.dims(), last.dataType(), static_cast<int>(last.bits()))) {
        std::fprintf(stderr, "camera: cannot write '%s'\n", o.output.c_str());
        return 1;
    }
    std::printf("wrote the last frame (%ux%u, %u bands)\npicture: %s\n", last.dims().width, last.dims().height,
                last.dims().bands, o.output.c_str());
    return ok ? 0 : 1;
}
