#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "frames/color/pixel_gather.h"
#include "frames/core/format_table.h"
#include "frames/core/planes.h"
#include "lumoframekit/color_frames.h"

namespace lumoframekit {

namespace {

// A macro-pixel: pixels and bytes per group and, for each pixel position, the byte of its Y and of
// the U and V it uses.
struct PackedFormat {
    std::int32_t pixelsPerGroup;
    std::int32_t bytesPerGroup;
    std::uint8_t y[8], u[8], v[8];
};

// clang-format off
constexpr PackedFormat packedFormats[] = {
    {.pixelsPerGroup = 2, .bytesPerGroup = 4,  .y = {0, 2},                     .u = {1, 1},                   .v = {3, 3}},
    {.pixelsPerGroup = 2, .bytesPerGroup = 4,  .y = {1, 3},                     .u = {0, 0},                   .v = {2, 2}},
    {.pixelsPerGroup = 2, .bytesPerGroup = 4,  .y = {0, 2},                     .u = {3, 3},                   .v = {1, 1}},
    {.pixelsPerGroup = 4, .bytesPerGroup = 6,  .y = {1, 2, 4, 5},               .u = {0, 0, 0, 0},             .v = {3, 3, 3, 3}},
    {.pixelsPerGroup = 1, .bytesPerGroup = 3,  .y = {1},                        .u = {0},                      .v = {2}},
    {.pixelsPerGroup = 8, .bytesPerGroup = 12, .y = {1, 3, 5, 7, 8, 9, 10, 11}, .u = {0, 0, 0, 0, 4, 4, 4, 4}, .v = {2, 2, 2, 2, 6, 6, 6, 6}},
    {.pixelsPerGroup = 1, .bytesPerGroup = 3,  .y = {2},                        .u = {0},                      .v = {1}},
};
// clang-format on

const PackedFormat* formatOf(std::int32_t subtype) { return rowOf(packedFormats, subtype); }

std::int32_t groupsFor(std::int64_t pixels, std::int32_t pixelsPerGroup) {
    return static_cast<std::int32_t>(std::ceil(static_cast<double>(pixels) / pixelsPerGroup));
}

// Where each pixel of a row comes from: the byte of its group within the row and its position in
// the group. A row starts at the start phase within group 0, runs through the middle groups and
// ends in the group after them short of the tail pad; pixels past that are not delivered.
struct PixelSource {
    std::int64_t groupByte;
    std::int32_t position;
};

std::vector<PixelSource> rowLayout(const PackedFormat& f, std::int32_t width, std::int32_t groupsPerRow,
                                   std::int32_t phase, std::int32_t tail) {
    std::vector<PixelSource> row;
    row.reserve(static_cast<std::size_t>(std::max(width, 0)));
    auto take = [&](std::int64_t group, std::int32_t from, std::int32_t to) {
        for (std::int32_t k = from; k < to && static_cast<std::int32_t>(row.size()) < width; ++k)
            row.push_back({group * f.bytesPerGroup, k});
    };
    const std::int32_t ppg = f.pixelsPerGroup;
    take(0, phase, ppg);
    for (std::int64_t g = 1; g <= groupsPerRow - 2; ++g) take(g, 0, ppg);
    const std::int32_t last = ppg - (tail + phase);
    if (last > 0) take(groupsPerRow <= 2 ? 1 : groupsPerRow - 1, 0, std::min(last, ppg));
    return row;
}

}  // namespace

YUVPackedFrame::YUVPackedFrame(std::int32_t w, std::int32_t h, std::int32_t sub)
    : LUMOFrame(w, h, 0, COLORSPACE_YUV), subtype(sub), width(w), height(h) {
    if (const PackedFormat* f = formatOf(sub)) layOutRows(groupsFor(w, f->pixelsPerGroup));
    dims = {static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h), 3};
}

void YUVPackedFrame::layOutRows(std::int32_t groups) {
    const PackedFormat& f = *formatOf(subtype);
    groupsPerRow = groups;
    rowStride =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(f.bytesPerGroup) * static_cast<std::uint32_t>(groups));
    tailPad =
        static_cast<std::int32_t>((static_cast<std::int64_t>(groups) * f.pixelsPerGroup - width) % f.pixelsPerGroup);
    bufferSize = wrappedSize(static_cast<std::int64_t>(rowStride) * height);
}

std::int32_t YUVPackedFrame::getDataType() const { return DATATYPE_UINT8; }
std::int64_t YUVPackedFrame::getAlignedSize() const { return alignedPixelRows(width, height); }
std::uint32_t YUVPackedFrame::getBitsPerBand() const { return 8; }
const FrameDims* YUVPackedFrame::getDimensions() const { return &dims; }

void YUVPackedFrame::getData(void** dest) {
    const PackedFormat* f = formatOf(subtype);
    if (!isBufferAllocated() || f == nullptr || width <= 0 || height <= 0 || rowStride <= 0) return;
    const std::int64_t h = height;
    const Planes out = planesOf(dest, static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(h));
    if (!out.valid) return;
    const std::vector<PixelSource> row = rowLayout(*f, width, groupsPerRow, startPhase, tailPad);
    // Every byte read must lie in the buffer.
    std::int64_t furthest = 0;
    for (const PixelSource& p : row)
        furthest = std::max<std::int64_t>(
            furthest, p.groupByte + std::max({f->y[p.position], f->u[p.position], f->v[p.position]}));
    if ((h - 1) * rowStride + furthest >= static_cast<std::int64_t>(allocatedSize)) return;
    // Rows that start at a group and run through whole groups repeat every 16 pixels: split them a
    // row at a time and transpose.
    bool plain = true;
    for (std::size_t x = 0; x < row.size() && plain; ++x)
        plain = row[x].groupByte == static_cast<std::int64_t>(x / f->pixelsPerGroup) * f->bytesPerGroup &&
                row[x].position == static_cast<std::int32_t>(x % f->pixelsPerGroup);
    if (plain && row.size() == static_cast<std::size_t>(width)) {
        PixelBlock block{{}, static_cast<std::size_t>(16 / f->pixelsPerGroup * f->bytesPerGroup)};
        for (int i = 0; i < 16; ++i) {
            const int group = i / f->pixelsPerGroup * f->bytesPerGroup, k = i % f->pixelsPerGroup;
            block.byteOf[0][i] = static_cast<std::uint8_t>(group + f->y[k]);
            block.byteOf[1][i] = static_cast<std::uint8_t>(group + f->u[k]);
            block.byteOf[2][i] = static_cast<std::uint8_t>(group + f->v[k]);
        }
        splitInterleaved(buffer, static_cast<std::size_t>(rowStride), buffer + allocatedSize,
                         static_cast<std::size_t>(width), static_cast<std::size_t>(h), false, block, out.plane);
        return;
    }
    for (std::size_t x = 0; x < row.size(); ++x) {
        const std::uint8_t* group = buffer + row[x].groupByte;
        const std::int32_t k = row[x].position;
        const std::int64_t first = static_cast<std::int64_t>(x) * h;
        for (std::int64_t y = 0; y < h; ++y, group += rowStride) {
            out.plane[0][first + y] = group[f->y[k]];
            out.plane[1][first + y] = group[f->u[k]];
            out.plane[2][first + y] = group[f->v[k]];
        }
    }
}

std::uint8_t* YUVPackedFrame::copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth,
                                                 std::uint32_t srcHeight, std::uint32_t xOffset,
                                                 std::uint32_t yOffset) {
    const PackedFormat* f = formatOf(subtype);
    if (f == nullptr || src == nullptr || !regionInside(width, height, srcWidth, srcHeight, xOffset, yOffset))
        return nullptr;
    const std::int32_t ppg = f->pixelsPerGroup, bpg = f->bytesPerGroup;
    if (xOffset == 0 && yOffset == 0 && srcWidth == static_cast<std::uint32_t>(width) &&
        srcHeight == static_cast<std::uint32_t>(height)) {
        // The whole image: rows of whole groups from phase 0. A layout left by an earlier region
        // at another phase is given up first, since its rows are longer than the source's.
        if (startPhase != 0 || groupsPerRow != groupsFor(width, ppg)) {
            freeFrameBuffer();
            startPhase = 0;
            layOutRows(groupsFor(width, ppg));
        }
        setBufferData(src);
        return buffer;
    }
    const std::int64_t srcGroups = groupsFor(srcWidth, ppg);
    const std::int32_t phase = static_cast<std::int32_t>(xOffset % static_cast<std::uint32_t>(ppg));
    std::int32_t groups = groupsPerRow;
    if (phase != startPhase)
        groups =
            static_cast<std::int32_t>(std::min<std::int64_t>(groupsFor(width, ppg) + (phase != 0 ? 1 : 0), srcGroups));
    // The rows copied must lie in the source, whose rows hold whole groups.
    const std::int64_t stride = static_cast<std::int64_t>(bpg) * groups;
    const std::int64_t start = (xOffset / ppg + static_cast<std::int64_t>(yOffset) * srcGroups) * bpg;
    if (height > 0 && start + (height - 1) * srcGroups * bpg + stride > srcGroups * bpg * srcHeight) return nullptr;

    if (phase != startPhase) {
        startPhase = phase;
        if (groups != groupsPerRow) {
            // A new row length: the old buffer goes (credited at its own size) and a new one is
            // sized for the new rows.
            freeFrameBuffer();
            layOutRows(groups);
        }
    }
    std::uint8_t* target = allocateBuffer();
    if (target == nullptr || height < 1) return target;
    if (allocatedSize < static_cast<std::uint64_t>(rowStride) * static_cast<std::uint64_t>(height)) return nullptr;
    for (std::int32_t i = 0; i < height; ++i)
        std::memcpy(target + static_cast<std::int64_t>(i) * rowStride, src + start + i * srcGroups * bpg,
                    static_cast<std::size_t>(rowStride));
    return target;
}

}  // namespace lumoframekit
