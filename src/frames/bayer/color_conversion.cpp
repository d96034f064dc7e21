#include "lumoframekit/lumo_frame.h"

namespace lumoframekit {

void LUMOFrame::getDataInColorSpace(void** result, FrameDims* outDims, std::uint32_t, const std::int32_t*,
                                    std::uint32_t, HostAllocator*) {
    if (result != nullptr) *result = nullptr;
    if (outDims != nullptr) {
        if (const FrameDims* dims = getDimensions()) *outDims = *dims;
    }
}

}  // namespace lumoframekit
