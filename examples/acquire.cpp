// An example host: plays a camera that delivers frames of a chosen format, acquires them through
// a frame pool whose reserver keeps free frames ready under a memory limit, attaches metadata,
// converts every frame to RGB planes and writes the last one as a PNG.
//
//   acquire [--format NAME] [--width N] [--height N] [--frames N] [--fps N] [--min-free N]
//           [--max-free N] [--memory-mb N] [--type NAME] [--input FILE.png|FILE.ppm] [--output FILE.png]
//
// Every argument is checked before the first frame is acquired; the rules are in --help.
#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <lumoframekit/lumoframekit.h>

#include "png_writer.h"

namespace {

using lumoframekit::IFrame;

// A format the example can render: its code, how many bits a sample holds and how it is stored.
enum class Storage { Bytes, Words, Packed2in3Msb, Packed2in3Lsb, Packed4in5 };
struct Format {
    std::string name;
    std::uint32_t code;
    int bits;
    Storage storage;
    bool mosaic;
};

std::vector<Format> formats() {
    std::vector<Format> list;
    const char* patterns[4] = {"grbg", "gbrg", "bggr", "rggb"};
    const struct {
        const char* prefix;
        int bits;
        Storage storage;
    } groups[9] = {{"bayer8", 8, Storage::Bytes},
                   {"bayer10", 10, Storage::Words},
                   {"bayer12", 12, Storage::Words},
                   {"bayer14", 14, Storage::Words},
                   {"bayer16", 16, Storage::Words},
                   {"bayer10p", 10, Storage::Packed2in3Msb},
                   {"bayer12p", 12, Storage::Packed2in3Msb},
                   {"bayer10p-lsb", 10, Storage::Packed4in5},
                   {"bayer12p-lsb", 12, Storage::Packed2in3Lsb}};
    for (int g = 0; g < 9; ++g)
        for (int a = 0; a < 4; ++a)
            list.push_back({std::string(groups[g].prefix) + "-" + patterns[a], 0x06030000u + 4u * g + a, groups[g].bits,
                            groups[g].storage, true});
    list.push_back({"mono8", 0x11010000u, 8, Storage::Bytes, false});
    list.push_back({"mono12", 0x11010002u, 12, Storage::Words, false});
    list.push_back({"mono16", 0x11010004u, 16, Storage::Words, false});
    list.push_back({"mono12p", 0x11010019u, 12, Storage::Packed2in3Msb, false});
    return list;
}

const char* typeNames[8] = {"uint8", "int8", "uint16", "int16", "uint32", "int32", "float", "double"};

struct Options {
    std::string format = "bayer12p-rggb";
    int width = 1920, height = 1080, frames = 120;
    double fps = 0;
    std::uint64_t minFree = 2, maxFree = 6;
    double memoryMb = 256;
    int type = -1;  // the frame's own element type
    std::string input, output = "acquired.png";
};

bool startsWithPngSignature(const std::string& path) {
    static const unsigned char signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    unsigned char head[8] = {};
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    const std::size_t got = std::fread(head, 1, sizeof head, file);
    std::fclose(file);
    return got == sizeof head && std::memcmp(head, signature, sizeof head) == 0;
}

void usage(std::FILE* to) {
    std::fprintf(to,
                 "usage: acquire [options]\n"
                 "  --format NAME     frame format (default bayer12p-rggb)\n"
                 "  --width N         frame width (default 1920)\n"
                 "  --height N        frame height (default 1080)\n"
                 "  --frames N        frames to acquire (default 120)\n"
                 "  --fps N           camera rate, 0 for as fast as possible (default 0)\n"
                 "  --min-free N      free frames the reserver keeps at least (default 2)\n"
                 "  --max-free N      free frames the reserver keeps at most (default 6)\n"
                 "  --memory-mb N     memory limit for frame buffers in MiB, fractions allowed (default 256)\n"
                 "  --type NAME       element type of the converted planes (default: the frame's own)\n"
                 "  --input FILE      a PNG or binary PPM photograph (told apart by content) to show instead\n"
                 "                    of the built-in scene; scaled to cover the frame with its aspect kept,\n"
                 "                    then cropped to the frame about its centre\n"
                 "  --output FILE     where the last converted frame is written as PNG (default acquired.png)\n"
                 "rules, checked before acquiring:\n"
                 "  width and height from 4 to 16384; Bayer formats need both even (whole 2x2 cells);\n"
                 "  packed formats need a width that holds whole packing groups (2 pixels, 4 for *10p-lsb);\n"
                 "  --min-free not above --max-free; the output's folder exists and is writable;\n"
                 "  the input exists and is readable\n"
                 "formats:");
    for (const Format& f : formats()) std::fprintf(to, " %s", f.name.c_str());
    std::fprintf(to, "\ntypes:");
    for (const char* t : typeNames) std::fprintf(to, " %s", t);
    std::fprintf(to, "\n");
}

bool parseNumber(const char* text, double low, double high, double& value) {
    char* end = nullptr;
    value = std::strtod(text, &end);
    return end != text && *end == '\0' && value >= low && value <= high;
}

// Returns false with a message for anything it does not understand.
bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            usage(stdout);
            std::exit(0);
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "acquire: %s needs a value (see --help)\n", flag.c_str());
            return false;
        }
        const char* value = argv[++i];
        double n = 0;
        auto number = [&](double low, double high) {
            if (parseNumber(value, low, high, n)) return true;
            std::fprintf(stderr, "acquire: %s takes a number from %g to %g, not '%s'\n", flag.c_str(), low, high,
                         value);
            return false;
        };
        if (flag == "--format") {
            o.format = value;
        } else if (flag == "--width") {
            if (!number(4, 16384)) return false;
            o.width = static_cast<int>(n);
        } else if (flag == "--height") {
            if (!number(4, 16384)) return false;
            o.height = static_cast<int>(n);
        } else if (flag == "--frames") {
            if (!number(1, 1e9)) return false;
            o.frames = static_cast<int>(n);
        } else if (flag == "--fps") {
            if (!number(0, 100000)) return false;
            o.fps = n;
        } else if (flag == "--min-free") {
            if (!number(0, 1000)) return false;
            o.minFree = static_cast<std::uint64_t>(n);
        } else if (flag == "--max-free") {
            if (!number(0, 1000)) return false;
            o.maxFree = static_cast<std::uint64_t>(n);
        } else if (flag == "--memory-mb") {
            if (!number(0.001, 1e6)) return false;
            o.memoryMb = n;
        } else if (flag == "--type") {
            const auto* found = std::find_if(std::begin(typeNames), std::end(typeNames),
                                             [&](const char* t) { return std::strcmp(t, value) == 0; });
            if (found == std::end(typeNames)) {
                std::fprintf(stderr, "acquire: unknown element type '%s' (see --help)\n", value);
                return false;
            }
            o.type = static_cast<int>(found - std::begin(typeNames));
        } else if (flag == "--input") {
            o.input = value;
        } else if (flag == "--output") {
            o.output = value;
        } else {
            std::fprintf(stderr, "acquire: unknown option '%s' (see --help)\n", flag.c_str());
            return false;
        }
    }
    return true;
}

// Pixels a packing group holds, so a row of the format holds whole groups; 1 when unpacked.
int packingGroup(const Format& f) {
    switch (f.storage) {
        case Storage::Packed2in3Msb:
        case Storage::Packed2in3Lsb: return 2;
        case Storage::Packed4in5: return 4;
        default: return 1;
    }
}

// The rules of --help for what parse() cannot check alone; a message naming the first broken one.
std::string validate(const Options& o, const Format& f) {
    namespace fs = std::filesystem;
    if (f.mosaic && (o.width % 2 != 0 || o.height % 2 != 0))
        return "Bayer format " + f.name + " needs an even width and height, not " + std::to_string(o.width) + "x" +
               std::to_string(o.height);
    if (o.width % packingGroup(f) != 0)
        return "packed format " + f.name + " needs a width that is a multiple of " + std::to_string(packingGroup(f)) +
               ", not " + std::to_string(o.width);
    if (o.minFree > o.maxFree)
        return "--min-free " + std::to_string(o.minFree) + " is above --max-free " + std::to_string(o.maxFree);
    if (!o.input.empty() && ::access(o.input.c_str(), R_OK) != 0) return "cannot read the input '" + o.input + "'";
    std::error_code error;
    const fs::path output(o.output);
    if (fs::is_directory(output, error)) return "the output '" + o.output + "' is a folder";
    const fs::path folder = output.has_parent_path() ? output.parent_path() : fs::path(".");
    const bool exists = fs::exists(output, error);
    if (exists ? ::access(output.c_str(), W_OK) != 0
               : !fs::is_directory(folder, error) || ::access(folder.c_str(), W_OK) != 0)
        return "cannot write the output '" + o.output + "'";
    return {};
}

// An RGB image, 8 bits a channel, row-major.
struct Image {
    int width = 0, height = 0;
    std::vector<std::uint8_t> rgb;
};

// Colour bars over a smooth gradient, with a zone plate of fine rings in the middle and a strip
// of single-pixel lines: colour, detail and gradients that show what demosaicing does.
Image syntheticScene(int width, int height) {
    Image img{width, height, std::vector<std::uint8_t>(static_cast<std::size_t>(width) * height * 3)};
    const std::uint8_t bars[8][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                                     {235, 16, 235},  {235, 16, 16},  {16, 16, 235},  {16, 16, 16}};
    const double cx = width / 2.0, cy = height / 2.0, radius = std::min(width, height) / 4.0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            std::uint8_t* p = &img.rgb[(static_cast<std::size_t>(y) * width + x) * 3];
            const double fy = static_cast<double>(y) / height;
            if (fy < 0.4) {
                const auto* bar = bars[x * 8 / width];
                for (int c = 0; c < 3; ++c) p[c] = bar[c];
            } else {
                const double fx = static_cast<double>(x) / width;
                p[0] = static_cast<std::uint8_t>(255 * fx);
                p[1] = static_cast<std::uint8_t>(255 * (fy - 0.4) / 0.6);
                p[2] = static_cast<std::uint8_t>(255 * (1 - fx));
            }
            const double dx = x - cx, dy = y - cy, r2 = dx * dx + dy * dy;
            if (r2 < radius * radius) {
                const std::uint8_t v =
                    static_cast<std::uint8_t>(127.5 + 127.5 * std::cos(r2 * 3.14159265 / (2.2 * radius)));
                p[0] = p[1] = p[2] = v;
            }
            if (fy > 0.9 && x % 2 == 0) p[0] = p[1] = p[2] = 255;
        }
    return img;
}

bool readPng(const std::string& path, Image& img) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&png, path.c_str())) return false;
    png.format = PNG_FORMAT_RGB;
    img.width = static_cast<int>(png.width);
    img.height = static_cast<int>(png.height);
    img.rgb.resize(PNG_IMAGE_SIZE(png));
    if (!png_image_finish_read(&png, nullptr, img.rgb.data(), 0, nullptr)) {
        png_image_free(&png);
        return false;
    }
    return true;
}

bool readPpm(const std::string& path, Image& img) {
    std::ifstream in(path, std::ios::binary);
    std::string magic;
    int maxValue = 0;
    if (!(in >> magic >> img.width >> img.height >> maxValue) || magic != "P6" || maxValue != 255 || img.width <= 0 ||
        img.height <= 0 || img.width > 16384 || img.height > 16384)
        return false;
    in.get();
    img.rgb.resize(static_cast<std::size_t>(img.width) * img.height * 3);
    return static_cast<bool>(
        in.read(reinterpret_cast<char*>(img.rgb.data()), static_cast<std::streamsize>(img.rgb.size())));
}

// The photograph scaled (nearest neighbour) by one factor so that it covers the frame, its aspect
// kept, and cropped about its centre to the frame; how it was fitted, for the user.
Image covering(const Image& src, int width, int height, std::string& how) {
    const double scale = std::max(static_cast<double>(width) / src.width, static_cast<double>(height) / src.height);
    const int scaledWidth = std::max(width, static_cast<int>(std::lround(src.width * scale)));
    const int scaledHeight = std::max(height, static_cast<int>(std::lround(src.height * scale)));
    const int left = (scaledWidth - width) / 2, top = (scaledHeight - height) / 2;
    char text[200];
    std::snprintf(text, sizeof text, "%dx%d scaled by %.4g to %dx%d (aspect kept)%s", src.width, src.height, scale,
                  scaledWidth, scaledHeight,
                  scaledWidth == width && scaledHeight == height ? "" : ", cropped about its centre");
    how = text;
    Image out{width, height, std::vector<std::uint8_t>(static_cast<std::size_t>(width) * height * 3)};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int sx = std::min(src.width - 1, static_cast<int>((x + left) / scale));
            const int sy = std::min(src.height - 1, static_cast<int>((y + top) / scale));
            std::memcpy(&out.rgb[(static_cast<std::size_t>(y) * width + x) * 3],
                        &src.rgb[(static_cast<std::size_t>(sy) * src.width + sx) * 3], 3);
        }
    return out;
}

// What the camera delivers: the scene sampled through the colour filter (or as luminance),
// scaled to the format's bits and stored or packed as the format says.
std::vector<std::uint8_t> cameraBytes(const Image& scene, const Format& f) {
    const int w = scene.width, h = scene.height;
    // Colour of each site of the 2 x 2 pattern, row 0 then row 1: 0 red, 1 green, 2 blue.
    const int sites[5][4] = {{1, 0, 2, 1}, {1, 2, 0, 1}, {2, 1, 1, 0}, {}, {0, 1, 1, 2}};
    const int alignment = f.mosaic ? std::array<int, 4>{0, 1, 2, 4}[(f.code & 0xFF) % 4] : 0;
    std::vector<std::uint16_t> samples(static_cast<std::size_t>(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::uint8_t* p = &scene.rgb[(static_cast<std::size_t>(y) * w + x) * 3];
            const int v8 =
                f.mosaic ? p[sites[alignment][(y % 2) * 2 + x % 2]] : (54 * p[0] + 183 * p[1] + 18 * p[2]) >> 8;
            samples[static_cast<std::size_t>(y) * w + x] =
                static_cast<std::uint16_t>((v8 * ((1 << f.bits) - 1) + 127) / 255);
        }
    std::vector<std::uint8_t> out;
    switch (f.storage) {
        case Storage::Bytes:
            for (std::uint16_t s : samples) out.push_back(static_cast<std::uint8_t>(s));
            break;
        case Storage::Words:
            for (std::uint16_t s : samples)
                out.push_back(static_cast<std::uint8_t>(s)), out.push_back(static_cast<std::uint8_t>(s >> 8));
            break;
        case Storage::Packed2in3Msb:
        case Storage::Packed2in3Lsb:
            for (std::size_t i = 0; i + 1 < samples.size(); i += 2) {
                const std::uint16_t a = samples[i], b = samples[i + 1];
                const int low = f.bits - 8;  // bits kept in the shared byte
                if (f.storage == Storage::Packed2in3Lsb)
                    out.insert(out.end(),
                               {static_cast<std::uint8_t>(a), static_cast<std::uint8_t>((a >> 8) | (b & 15) << 4),
                                static_cast<std::uint8_t>(b >> 4)});
                else
                    out.insert(out.end(),
                               {static_cast<std::uint8_t>(a >> low),
                                static_cast<std::uint8_t>((a & ((1 << low) - 1)) | (b & ((1 << low) - 1)) << 4),
                                static_cast<std::uint8_t>(b >> low)});
            }
            break;
        case Storage::Packed4in5:
            for (std::size_t i = 0; i + 3 < samples.size(); i += 4) {
                const std::uint64_t bits = samples[i] | std::uint64_t{samples[i + 1]} << 10 |
                                           std::uint64_t{samples[i + 2]} << 20 | std::uint64_t{samples[i + 3]} << 30;
                for (int k = 0; k < 5; ++k) out.push_back(static_cast<std::uint8_t>(bits >> (8 * k)));
            }
            break;
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) return 2;
    const auto all = formats();
    const auto found = std::find_if(all.begin(), all.end(), [&](const Format& f) { return f.name == o.format; });
    if (found == all.end()) {
        std::fprintf(stderr, "acquire: unknown format '%s' (see --help)\n", o.format.c_str());
        return 2;
    }
    const Format& format = *found;
    if (const std::string broken = validate(o, format); !broken.empty()) {
        std::fprintf(stderr, "acquire: %s (see --help)\n", broken.c_str());
        return 2;
    }
    Image scene;
    if (o.input.empty()) {
        scene = syntheticScene(o.width, o.height);
    } else {
        // Told apart by their first bytes, whatever the file is called.
        const bool png = startsWithPngSignature(o.input);
        Image photo;
        if (!(png ? readPng(o.input, photo) : readPpm(o.input, photo))) {
            std::fprintf(stderr, "acquire: cannot read '%s' as a %s image\n", o.input.c_str(),
                         png ? "PNG" : "binary PPM");
            return 1;
        }
        std::string how;
        scene = covering(photo, o.width, o.height, how);
        std::printf("input: %s, %s\n", o.input.c_str(), how.c_str());
    }
    const std::vector<std::uint8_t> delivered = cameraBytes(scene, format);

    // The host's side: a limiter for frame buffers, and a pool whose reserver keeps frames ready.
    lumoframekit::MemoryLimiter limiter(0, static_cast<std::uint64_t>(o.memoryMb * 1048576.0));
    lumoframekit::FramePool* pool = lumoframekit::createFramePool(&limiter);
    try {
        pool->startReserver(o.minFree, o.maxFree);
    } catch (rigutil::RGException* error) {
        std::fprintf(stderr, "acquire: %s\n", error->getMessage());
        delete error;
        pool->destroy();
        return 1;
    }
    std::printf("acquiring %d frames of %s, %dx%d, into RGB planes\n", o.frames, format.name.c_str(), o.width,
                o.height);

    lumoframekit::HostAllocator allocator;
    void* last = nullptr;
    lumoframekit::FrameDims lastDims{};
    int lastType = 0, dropped = 0;
    std::uint32_t bits = 8;
    // Frames alive with a buffer at most: the one held here and the free ones the reserver keeps.
    const std::uint64_t framesCharged = 1 + o.maxFree;
    const std::uint64_t limitBytes = limiter.getMemoryLimit();
    const auto mib = [](std::uint64_t bytes) { return static_cast<double>(bytes) / 1048576.0; };
    const auto start = std::chrono::steady_clock::now();
    auto lastReport = start;
    for (int i = 0; i < o.frames; ++i) {
        if (o.fps > 0) std::this_thread::sleep_until(start + std::chrono::duration<double>(i / o.fps));
        IFrame* frame = pool->getFrame(format.code, o.width, o.height);
        if (frame == nullptr) {
            std::fprintf(stderr, "acquire: the pool gave no frame for %s\n", format.name.c_str());
            break;
        }
        frame->incRefCount();
        // The driver's side: a buffer under the limit, filled with what the sensor delivered.
        std::uint8_t* buffer = frame->allocateBuffer();
        if (buffer != nullptr && frame->getBufferSize() != delivered.size()) {
            std::fprintf(stderr, "acquire: the frame wants %llu bytes, the camera delivered %zu\n",
                         static_cast<unsigned long long>(frame->getBufferSize()), delivered.size());
            frame->decRefCount();
            break;
        }
        if (buffer == nullptr) {
            ++dropped;  // the limiter refused: this image is lost, the stream goes on
        } else {
            std::memcpy(buffer, delivered.data(), delivered.size());
            frame->setTimeStamp(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
            frame->addIntegerMetaData("frameNumber", i);
            frame->addDoubleMetaData("exposureSeconds", 0.008);
            frame->addCStrMetaData("camera", "synthetic");

            // The host reads what it needs and converts.
            auto* number = dynamic_cast<lumoframekit::IntegerMetaDataItem*>(frame->getMetaData("frameNumber"));
            void* result = nullptr;
            lumoframekit::FrameDims dims{};
            const std::int32_t wanted = o.type;
            frame->getDataInColorSpace(&result, &dims, lumoframekit::COLORSPACE_RGB, o.type >= 0 ? &wanted : nullptr, 0,
                                       &allocator);
            if (result != nullptr && number != nullptr && number->value == i) {
                if (last) allocator.release(last);
                last = result;
                lastDims = dims;
                lastType = o.type >= 0 ? o.type : frame->getDataType();
                // Converted to another element type, 16-bit values span their whole range.
                bits = o.type >= 0 && o.type != frame->getDataType() ? 16 : frame->getBitsPerBand();
            } else if (result != nullptr) {
                allocator.release(result);
            }
        }
        frame->decRefCount();

        const auto now = std::chrono::steady_clock::now();
        if (now - lastReport > std::chrono::milliseconds(500) || i + 1 == o.frames) {
            lastReport = now;
            const double seconds = std::chrono::duration<double>(now - start).count();
            const double done = i + 1 - dropped;
            std::printf("frames %d/%d  %.1f frames/s  %.0f MB/s  free frames %llu  limiter %llu bytes  dropped %d%s\n",
                        i + 1, o.frames, done / seconds, done * static_cast<double>(delivered.size()) / seconds / 1e6,
                        static_cast<unsigned long long>(pool->getFreeFrameCount()),
                        static_cast<unsigned long long>(limiter.getMemoryUsed()), dropped,
                        dropped > 0 ? " (buffers refused by the memory limit)" : "");
            std::fflush(stdout);
        }
    }
    pool->destroy();
    if (dropped > 0) {
        const double needed = std::ceil(mib(framesCharged * delivered.size()) * 1000.0) / 1000.0;
        std::printf(
            "dropped %d of %d frames: the memory limit of %.3f MiB refused their buffers of %zu bytes each.\n"
            "A limit of %.3f MiB (%llu frames: 1 held and up to %llu free, which keep their buffers) "
            "would have held the stream: --memory-mb %.3f\n",
            dropped, o.frames, mib(limitBytes), delivered.size(), needed,
            static_cast<unsigned long long>(framesCharged), static_cast<unsigned long long>(o.maxFree), needed);
    }
    if (last == nullptr) {
        std::fprintf(stderr, "acquire: no frame was converted\n");
        return 1;
    }
    const bool written = writePng(o.output, last, lastDims, lastType, static_cast<int>(bits));
    allocator.release(last);
    if (!written) {
        std::fprintf(stderr, "acquire: cannot write '%s'\n", o.output.c_str());
        return 1;
    }
    std::printf("wrote the last frame (%ux%u RGB)\npicture: %s\n", lastDims.width, lastDims.height, o.output.c_str());
    return 0;
}
