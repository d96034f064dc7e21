#pragma once
// Standard camera pixel formats (the GenICam Pixel Format Naming Convention, and the older GigE
// Vision names it replaced) and the frame types that reproduce their byte layouts exactly.
#include <cstdint>

#include "lumoframekit/export.h"
#include "lumoframekit/frame_types.h"

namespace lumoframekit {

// The frame-type code whose buffer layout is the camera format's, or 0 for a format no frame
// type reproduces exactly. Packed formats ("...p", "...Packed") match while each image row holds
// whole packing groups (2 pixels; 4 for the 10-bit "...p" formats), which is how cameras send
// them; interleaved formats with a fourth byte deliver R, G and B and drop the fourth.
LUMOFRAMEKIT_API frametypes::FRAMETYPE frameTypeFromPixelFormat(std::uint32_t pfncValue);
// The same by name: the standard name ("Mono12p", "BayerRG8") or the older GigE Vision one
// ("RGB8Packed", "YUV422Packed"), compared exactly. 0 for a null or unknown name.
LUMOFRAMEKIT_API frametypes::FRAMETYPE frameTypeFromPixelFormatName(const char* pfncName);
// The standard name of the format a frame-type code reproduces, or null.
LUMOFRAMEKIT_API const char* pixelFormatName(frametypes::FRAMETYPE code);
// The standard value of that format, or 0.
LUMOFRAMEKIT_API std::uint32_t pixelFormatValue(frametypes::FRAMETYPE code);

}  // namespace lumoframekit
