#pragma once
#include <string>

#include "rigutil/export.h"

namespace rigutil {

// The library's own error object. It is thrown as a pointer to a heap object: the catcher owns it
// and deletes it.
//   catch (rigutil::RGException* e) { log(e->getIdentifier(), e->getMessage()); delete e; }
// The identifier has the form component:class:kind, for example "benchkit:LUMOFramePool:threadError".
class RIGUTIL_API RGException {
public:
    RGException(const char* identifier, const char* message);
    virtual ~RGException();

    const char* getIdentifier() const noexcept { return identifier_.c_str(); }
    const char* getMessage() const noexcept { return message_.c_str(); }

private:
    std::string identifier_;
    std::string message_;
};

}  // namespace rigutil
