#pragma once
#include <cstdint>

#include "lumoframekit/frame.h"

namespace lumoframekit {

// The monochrome frame for a code of the 0x1101 family, or null when the code names none.
IFrame* makeMonochromeFrame(std::uint32_t code, std::int32_t width, std::int32_t height);

}  // namespace lumoframekit
