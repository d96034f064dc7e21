#pragma once
// Marks the host's interface of the frame kit. The library is built with hidden visibility, so
// only what carries this macro is exported from the shared library.
#define LUMOFRAMEKIT_API __attribute__((visibility("default")))
