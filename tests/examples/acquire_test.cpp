// Runs the example host program as a host author would, on small sizes.
#include <gtest/gtest.h>
#include <png.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#ifndef ACQUIRE_PROGRAM
#error "ACQUIRE_PROGRAM names the example program"
#endif

namespace {

struct Outcome {
    int status;
    std::string output;  // stdout and stderr together
};

Outcome run(const std::string& arguments) {
    Outcome result{-1, {}};
    std::FILE* pipe = ::popen((std::string(ACQUIRE_PROGRAM) + " " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return result;
    std::array<char, 512> chunk;
    for (std::size_t n; (n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0;)
        result.output.append(chunk.data(), n);
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string scratch(const std::string& name) { return ::testing::TempDir() + name; }

// Reads a PNG as 8-bit gray, row-major.
std::vector<std::uint8_t> readGray(const std::string& path, unsigned& width, unsigned& height) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&png, path.c_str())) return {};
    png.format = PNG_FORMAT_GRAY;
    width = png.width;
    height = png.height;
    std::vector<std::uint8_t> gray(PNG_IMAGE_SIZE(png));
    if (!png_image_finish_read(&png, nullptr, gray.data(), 0, nullptr)) return {};
    return gray;
}

}  // namespace

TEST(AcquireExample, WritesAPngOfTheFrameSizeAndSaysWhere) {
    const std::string out = scratch("acquire_smoke.png");
    for (const char* format : {"bayer12p-rggb", "bayer8-grbg", "bayer10p-lsb-bggr", "mono12p"}) {
        std::remove(out.c_str());
        // A later --output wins, and the program names the file it wrote.
        const Outcome r = run(std::string("--output ignored.png --format ") + format +
                              " --width 96 --height 64 --frames 5 --output " + out);
        ASSERT_EQ(r.status, 0) << format << r.output;
        EXPECT_NE(r.output.find("picture: " + out + "\n"), std::string::npos) << r.output;
        unsigned width = 0, height = 0;
        EXPECT_FALSE(readGray(out, width, height).empty()) << format;
        EXPECT_EQ(width, 96u);
        EXPECT_EQ(height, 64u);
    }
}

TEST(AcquireExample, BrokenArgumentsAreNamedBeforeAnythingIsAcquired) {
    const struct {
        const char* arguments;
        const char* says;
    } cases[] = {
        {"--bogus 1", "unknown option '--bogus'"},
        {"--format nosuchformat", "unknown format 'nosuchformat'"},
        {"--width abc", "--width takes a number"},
        {"--frames", "--frames needs a value"},
        {"--type uint9", "unknown element type"},
        {"--format bayer8-rggb --width 63 --height 64", "even width and height"},
        {"--format mono12p --width 63 --height 64", "multiple of 2"},
        {"--format bayer10p-lsb-rggb --width 66 --height 64", "multiple of 4"},
        {"--min-free 5 --max-free 2", "--min-free 5 is above --max-free 2"},
        {"--output /nonexistent-folder/out.png", "cannot write the output"},
        {"--output /", "is a folder"},
        {"--input /nonexistent/picture.png", "cannot read the input"},
    };
    for (const auto& c : cases) {
        const Outcome r = run(std::string("--frames 1 ") + c.arguments);
        EXPECT_EQ(r.status, 2) << c.arguments;
        EXPECT_NE(r.output.find(c.says), std::string::npos) << c.arguments << " gave: " << r.output;
        EXPECT_EQ(r.output.find("acquiring"), std::string::npos) << c.arguments;
    }
    const Outcome help = run("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("rules, checked before acquiring"), std::string::npos);
}

// A limit below one frame drops every frame; the program says so and names a limit that holds,
// and that limit does hold.
TEST(AcquireExample, DroppedFramesAreReportedWithALimitThatHolds) {
    const std::string common =
        "--format bayer12p-rggb --width 96 --height 64 --frames 8 --output " + scratch("dropped.png");
    const Outcome refused = run(common + " --memory-mb 0.005");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("dropped 8 (buffers refused by the memory limit)"), std::string::npos)
        << refused.output;
    EXPECT_NE(refused.output.find("dropped 8 of 8 frames"), std::string::npos) << refused.output;
    const std::size_t advice = refused.output.find("would have held the stream: ");
    ASSERT_NE(advice, std::string::npos) << refused.output;
    const std::string limit = refused.output.substr(advice + 28, refused.output.find('\n', advice) - advice - 28);
    const Outcome held = run(common + " " + limit);
    EXPECT_EQ(held.status, 0) << limit << held.output;
    EXPECT_NE(held.output.find("dropped 0"), std::string::npos) << held.output;
    EXPECT_EQ(held.output.find("dropped 0 ("), std::string::npos) << held.output;
}

// Photographs are told apart by content, whatever their name, and cover the frame with their
// aspect kept: a 40 x 20 picture of four stripes (red, green, blue, white) seen by a square frame
// shows only the middle two.
TEST(AcquireExample, PhotographsAreReadByContentAndCroppedWithTheirAspectKept) {
    const unsigned char stripes[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
    std::vector<std::uint8_t> rgb(40 * 20 * 3);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 40; ++x)
            for (int c = 0; c < 3; ++c) rgb[(y * 40 + x) * 3 + c] = stripes[x / 10][c];
    const std::string png = scratch("stripes.PPM"), ppm = scratch("stripes.png");
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = 40;
    image.height = 20;
    image.format = PNG_FORMAT_RGB;
    ASSERT_TRUE(png_image_write_to_file(&image, png.c_str(), 0, rgb.data(), 0, nullptr));
    std::ofstream(ppm, std::ios::binary) << "P6\n40 20\n255\n" << std::string(rgb.begin(), rgb.end());

    for (const std::string& input : {png, ppm}) {
        const std::string out = scratch("stripes_out.png");
        const Outcome r = run("--format mono8 --width 32 --height 32 --frames 1 --input " + input + " --output " + out);
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find("40x20 scaled by 1.6 to 64x32 (aspect kept), cropped about its centre"),
                  std::string::npos)
            << r.output;
        unsigned width = 0, height = 0;
        const std::vector<std::uint8_t> gray = readGray(out, width, height);
        ASSERT_EQ(gray.size(), 32u * 32u);
        // The camera sees luminance (54 R + 183 G + 18 B) / 256: green 182 left, blue 17 right.
        EXPECT_NEAR(gray[16 * 32 + 2], 182, 2) << input;
        EXPECT_NEAR(gray[16 * 32 + 29], 17, 2) << input;
    }
}
