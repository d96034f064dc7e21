// Runs the example host program as a host author would, on a small size.
#include <gtest/gtest.h>
#include <png.h>

#include <cstdlib>
#include <string>

#ifndef ACQUIRE_PROGRAM
#error "ACQUIRE_PROGRAM names the example program"
#endif

namespace {

int run(const std::string& arguments) {
    const int status = std::system((std::string(ACQUIRE_PROGRAM) + " " + arguments + " > /dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(AcquireExample, WritesAPngOfTheFrameSize) {
    const std::string out = ::testing::TempDir() + "acquire_smoke.png";
    for (const char* format : {"bayer12p-rggb", "bayer8-grbg", "bayer10p-lsb-bggr", "mono12p"}) {
        std::remove(out.c_str());
        ASSERT_EQ(run(std::string("--format ") + format + " --width 96 --height 64 --frames 5 --output " + out), 0) << format;
        png_image png{};
        png.version = PNG_IMAGE_VERSION;
        ASSERT_TRUE(png_image_begin_read_from_file(&png, out.c_str())) << format;
        EXPECT_EQ(png.width, 96u);
        EXPECT_EQ(png.height, 64u);
        png_image_free(&png);
    }
}

TEST(AcquireExample, BadFlagsFailClearly) {
    EXPECT_NE(run("--bogus 1"), 0);
    EXPECT_NE(run("--format nosuchformat"), 0);
    EXPECT_NE(run("--width abc"), 0);
    EXPECT_NE(run("--frames"), 0);
    EXPECT_NE(run("--input /nonexistent/picture.png --frames 1 --width 64 --height 64"), 0);
    EXPECT_EQ(run("--help"), 0);
}
