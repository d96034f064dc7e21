#include "lumoframekit/frame.h"

namespace lumoframekit {

IFrame* frameFactory(frametypes::FRAMETYPE, std::int32_t, std::int32_t) { return nullptr; }

}  // namespace lumoframekit
