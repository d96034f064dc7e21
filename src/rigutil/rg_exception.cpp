#include "rigutil/rg_exception.h"

namespace rigutil {

RGException::RGException(const char* identifier, const char* message)
    : identifier_(identifier ? identifier : ""), message_(message ? message : "") {}

// Defined here so that the type information lives in this library and is shared with the host.
RGException::~RGException() = default;

}  // namespace rigutil
