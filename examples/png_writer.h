#pragma once
#include <cstdint>
#include <string>

#include <lumoframekit/lumoframekit.h>

// Writes column-major host planes as an 8-bit PNG: one band as gray, three as RGB. Each value is
// scaled from its element type (DataType code), unsigned 16-bit values from `bits` significant
// bits. False when the file cannot be written or the planes are not one or three bands.
bool writePng(const std::string& path, const void* planes, const lumoframekit::FrameDims& dims, int type, int bits);
