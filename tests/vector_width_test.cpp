#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "frames/kernels/kernels.h"

// The suites also run with LUMO_VECTOR_BITS set to each narrower width; where the processor lacks
// the width asked for, the run says so rather than passing on narrower kernels unseen.
TEST(VectorWidth, TheKernelsAskedForRun) {
    const char* asked = std::getenv("LUMO_VECTOR_BITS");
    const int bits = asked != nullptr && *asked != '\0' ? std::atoi(asked) : 512;
    const lumoframekit::Kernels& in = lumoframekit::kernels();
    std::printf("kernels in use: %s, %d-bit vectors\n", in.name, in.vectorBits);
    if (in.vectorBits < bits) GTEST_SKIP() << bits << "-bit kernels: not on this processor";
    EXPECT_EQ(in.vectorBits, bits);
}
