#pragma once
#include <atomic>
#include <cstdint>
#include <thread>
#include <utility>

#include "frames/kernels/kernels.h"

namespace lumoframekit {
namespace BayerUtil {

// Colors of the top-left 2 x 2 cell of the sensor, row 0 then row 1. 3 is not a pattern: codes
// 3 and above 4 demosaic nothing.
enum BayerAlignment : std::uint32_t { grbg = 0, gbrg = 1, bggr = 2, rggb = 4 };

// What a mosaic site holds, and where its missing colors lie.
enum BayerSiteKind : std::uint32_t {
    GreenOnRedRow = 0,   // green; red left and right, blue above and below
    GreenOnBlueRow = 1,  // green; red above and below, blue left and right
    Red = 2,             // red; blue on the diagonals
    Blue = 3,            // blue; red on the diagonals
};

// Where a task's two computed values go: the planes of the first (horizontal chroma at green
// sites, green at red and blue ones) and of the second (vertical chroma; the diagonal chroma). A
// site's own sample is not stored by its task: the planes take it from the padded copy.
constexpr int planeOfFirst(BayerSiteKind kind) { return kind == GreenOnRedRow ? 0 : kind == GreenOnBlueRow ? 2 : 1; }
constexpr int planeOfSecond(BayerSiteKind kind) { return kind == GreenOnRedRow || kind == Red ? 2 : 0; }

// The mosaic padded by two reflected samples on every side, each padded column split by row
// parity: even[p * stride + k] is padded row 2k of padded column p, odd[p * stride + k] row 2k + 1.
// Sites of one kind then lie contiguously, so a task reads its neighbourhoods as vectors.
template <typename T>
struct PaddedMosaic {
    const T* even;
    const T* odd;
    std::uint64_t stride;
};

// Whether the padded mosaic the tasks read has been written, and which thread writes it (and
// then waits for the tasks). The copy is made in two independent halves: the calling thread
// writes the first; the second is written by the first task to start on another thread, if one
// starts before the calling thread gets to it.
//
// The gate also holds the merges: the sites of the even image columns come from two tasks, those
// of the odd ones from the other two. Each task writes its columns a chunk at a time, and the
// second task of a pair to finish a chunk merges the chunk's columns into the host planes, while
// what it just wrote is still in its caches and the other tasks work on.
struct PaddedGate {
    static constexpr int writing = 0, written = 1, abandoned = 2;
    static constexpr int open = 0, taken = 1, done = 2;  // states of the second half
    std::atomic<int> state{writing};
    mutable std::atomic<int> secondHalf{open};
    std::atomic<int>* chunksDone[2] = {};  // by the parity of the columns: tasks done with each chunk
    std::thread::id caller = std::this_thread::get_id();
    void (*writeSecondHalf)(const void* context) = nullptr;
    void (*mergeColumns)(const void* context, int parity, std::uint64_t chunk) = nullptr;
    const void* context = nullptr;

    // Writes the second half if nobody has taken it yet: true if this call wrote it.
    bool takeSecondHalf() const;
    // Called by each task once a chunk of its sites is written: the second of a pair merges it.
    void finish(int parity, std::uint64_t chunk) const;
};

// One of the four demosaic tasks: every site of one kind over the whole image, written into
// column-major planes.
template <typename T>
struct BayerTBBTask {
    std::uint64_t columnLength;  // image height
    std::uint64_t columnCount;   // image width
    std::uint64_t firstColumn;   // padded column of the first site (2 or 3)
    std::uint64_t firstRow;      // padded row of the first site (2 or 3)
    std::uint64_t firstIndex;    // output index of the first site
    std::int32_t upper;          // largest value a computed sample may take: the clamp bound truncated
    T* planes[3];                // red, green, blue; the plane of the sites' own color is not written
    std::uint64_t planeColumn;   // elements from one column of sites to the next in the planes
    PaddedMosaic<T> padded;
    BayerSiteKind kind;
    const PaddedGate* gate;           // the task starts once the padded copy is written
    const SampleKernels<T>* kernels;  // the table the whole demosaic uses

    void operator()() const;
    void run() const;
};

// Demosaics a column-major mosaic (element (y, x) at x * height + y) into three column-major
// planes by gradient-corrected interpolation, in four parallel tasks, one per site kind. dims is
// {height, width}. Computed values are clamped below 2^bits and truncated; each site's own color
// is copied unchanged. Images smaller than 3 x 3 are padded by reflection held at the edges.
void demosaic8(const std::uint8_t* mosaic, std::uint8_t* red, std::uint8_t* green, std::uint8_t* blue,
               std::uint64_t pixels, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
               std::uint32_t bits);
void demosaic16(const std::uint16_t* mosaic, std::uint16_t* red, std::uint16_t* green, std::uint16_t* blue,
                std::uint64_t pixels, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                std::uint32_t bits);

// The same from a row-major, top-down mosaic whose rows start rowSamples samples apart, as a
// frame buffer holds it: the padded copy is then transposed straight from the rows.
void demosaicRows8(const std::uint8_t* rows, std::uint64_t rowSamples, std::uint8_t* red, std::uint8_t* green,
                   std::uint8_t* blue, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                   std::uint32_t bits);
void demosaicRows16(const std::uint16_t* rows, std::uint64_t rowSamples, std::uint16_t* red, std::uint16_t* green,
                    std::uint16_t* blue, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                    std::uint32_t bits);

// Writes the rows of one parity (0 the even rows, 1 the odd) of a row-major, top-down mosaic, one
// after another and `width` samples apart, to `out`; `context` is the caller's.
using ParityRows16 = void (*)(const void* context, int parity, std::uint16_t* out);
// The same from a mosaic of 3 rows or more that `make` writes a parity at a time, as a packed one
// is unpacked: the even rows into the start of `scratch` (height x width samples), the odd ones
// after them, each half by the thread that writes that half of the padded copy, so that two
// threads make the rows at once.
void demosaicParityRows16(ParityRows16 make, const void* context, std::uint16_t* scratch, std::uint16_t* red,
                          std::uint16_t* green, std::uint16_t* blue, std::pair<std::uint32_t, std::uint32_t> dims,
                          std::uint32_t alignment, std::uint32_t bits);

}  // namespace BayerUtil
}  // namespace lumoframekit
