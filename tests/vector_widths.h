#pragma once
// Runs a check on the kernels of every vector width: the widths the processor lacks are skipped
// with a printed line, so that a run on a narrower machine says what it did not cover. The width
// in use before (the suite's own, from LUMO_VECTOR_BITS) is restored after.
#include <cstdint>
#include <cstdio>

#include "frames/core/transpose.h"
#include "frames/kernels/kernels.h"

template <typename Check>
void forEachVectorWidth(Check check) {
    const int before = lumoframekit::kernels().vectorBits;
    for (int bits : {512, 256, 128, 0}) {
        const int inUse = lumoframekit::limitVectorWidth(bits);
        if (inUse != bits) {
            std::printf("[  SKIPPED ] %d-bit kernels: not on this processor\n", bits);
            continue;
        }
        check(bits);
    }
    lumoframekit::limitVectorWidth(before);
}

// Runs a check with the large host arrays of the transposes streamed past the caches (those of
// 16- and 64-bit samples too, as on processors that stage them), then stored in place, whatever
// the machine's own choice; it is restored after.
template <typename Check>
void forEachStreamingChoice(Check check) {
    const std::uint64_t before = lumoframekit::setStreamingThreshold(0);
    const bool stagedBefore = lumoframekit::setWideSamplesStaged(true);
    for (bool streamed : {true, false}) {
        lumoframekit::setStreamingThreshold(streamed ? 0 : ~std::uint64_t{0});
        lumoframekit::setWideSamplesStaged(streamed);
        SCOPED_TRACE(streamed ? "large arrays streamed" : "large arrays stored in place");
        check();
    }
    lumoframekit::setWideSamplesStaged(stagedBefore);
    lumoframekit::setStreamingThreshold(before);
}
