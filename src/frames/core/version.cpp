#include "lumoframekit/version.h"

namespace lumoframekit {

const char* versionString() { return LUMOFRAMEKIT_VERSION_STRING; }

}  // namespace lumoframekit
