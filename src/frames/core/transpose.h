#pragma once
#include <cstddef>
#include <cstdint>

namespace lumoframekit {

// What happens to each sample on its way from a row-major image to a column-major array.
enum class SampleOp { Copy, ByteSwap, Complement };

// Where a transpose's columns go. Cached: stored in place, for scratch the next step reads and
// for images small enough to stay in the caches for the host. Streamed: in whole cache lines
// straight to memory, for large images, whose columns would otherwise each cost a page and a
// read of every line before it is written. Lines: stored in place, except that a strip of 8-bit
// columns that all start at the same offset from a line (a column stride of whole lines) sends
// its whole lines straight from the registers to memory with streaming stores, as does a strip
// of 8- or 16-bit columns that start at offsets of whole 8-byte words. Lines need vectors of a
// whole line: with narrower ones they are stored in place, as Cached.
enum class ColumnStores { Cached, Streamed, Lines };

// The size above which host arrays stream whatever their height (columnStoresFor): 8 MiB, so that
// on AMD processors with 512-bit vectors a 1920 x 1080 array of up to four bytes a pixel stays
// cached. Written in place, the columns' partial lines are each read from the shared cache before
// they are stored, and where that cache is slower to reach, streaming measured faster at 1080p
// and below: on a 16-core Intel Xeon, streamed above 1 MiB (five alternating runs, best ns a
// pixel, 1920 x 1080 / 1280 x 960) mono8 0.21 -> 0.11 / 0.14 -> 0.08, packed 12-bit
// 0.38 -> 0.20 / 0.36 -> 0.24, RGB24 0.65 -> 0.41 / 0.71 -> 0.33, planar RGB8 0.72 -> 0.39 /
// 0.59 -> 0.31, packed 4:2:2 0.68 -> 0.31 / 0.71 -> 0.24, so 1 MiB where wideSamplesStaged()
// (Intel processors); on a 2-core AMD EPYC with 256-bit vectors, streamed above 4 MiB, 1080p RGB24
// 1.46 -> 0.61, planar RGB8 1.61 -> 0.62, packed 4:2:2 1.15 -> 0.55, float 1.20 -> 0.82 (six
// alternating runs), where streaming above 1 MiB had slowed 1280 x 960 mono8 and RGB24
// (0.093 -> 0.131, 0.37 -> 0.55), so 4 MiB with vectors narrower than 512 bits.
std::uint64_t arraysStreamAbove();
// The stores for a host array of `bytes` in columns of `rows`: streamed for arrays that no longer
// stay in the caches between frames or are slower stored in place, above arraysStreamAbove(), and
// for tall ones (2048 rows or more) above 4 MiB, whose columns each span a page or more.
inline ColumnStores columnStoresFor(std::uint64_t bytes, std::uint64_t rows) {
    constexpr std::uint64_t MiB = std::uint64_t{1} << 20;
    return bytes > arraysStreamAbove() || (rows >= 2048 && bytes > 4 * MiB) ? ColumnStores::Streamed
                                                                            : ColumnStores::Cached;
}

// The stores for a transpose of samples into a host array (monochrome, planar RGB, RGB48, YUV
// luma), where columnStoresFor would stream it. Arrays of 8- and 16-bit samples take Lines at
// every size: where their columns are whole lines apart (20 MP's 3648 rows), that measured 1.2
// times faster for planar RGB8 at 20 MP and 1.7 times at 3840 x 2176; at 3840 x 2160, whose
// columns lie at four offsets, joining each line from two vectors measured 1.45 times faster
// (0.26 -> 0.18 ns a pixel) than storing the vectors in place; 16-bit columns joined so measured
// 1.6 times faster than 16-byte pieces in place (8 MP mono16 0.45 -> 0.28 ns a pixel, 1080p RGB48
// 1.30 -> 0.68). Since the in-place blocks ask for their rows ahead, Lines also beat streaming
// through staging for arrays larger than streamingThreshold() (20 MP mono8 0.20 -> 0.14 ns a
// pixel, planar RGB8 0.67 -> 0.50, RGB48 1.26 -> 1.03). 32-bit samples stream through staging
// above the threshold and are stored in place below it, where the array stays in the shared cache
// as a copy by the C library's memcpy would; 64-bit samples, whose strips are eight columns wide,
// are stored in place at every size (20 MP 1.25 -> 1.05 ns a pixel against streaming). Where
// wideSamplesStaged(), 16- and 64-bit arrays stream through staging above the threshold too. Below
// 512-bit vectors every array that columnStoresFor streams goes through staging: a vector of a
// column is half a line or less, and stored in place or streamed from the registers it leaves
// each line half written while the strip's other columns are stored (256-bit 20 MP mono8
// 0.42 -> 0.18 ns a pixel, mono16 0.69 -> 0.38, planar RGB8 1.21 -> 0.64, RGB48 3.0 -> 1.2), and
// the 32- and 64-bit in-place loops take twice the instructions or more for each line they wait
// on (8 MP float 1.07 -> 0.58, 20 MP double 1.56 -> 1.21; 128-bit 8 MP float 1.54 -> 0.72).
// Below 512 bits, 16-bit arrays go through staging above 2.5 MiB: in place their columns take
// 16-byte pieces, a quarter of a line each, and on a 2-core AMD EPYC with 256-bit vectors
// (medians of 100 calls alternating with the 4 MiB limit in one process) 1440 x 1080 mono16 took
// 0.54 times the time, 1600 x 1200 0.62 and 1920 x 1080 0.61, RGB48 at 800 x 600 0.64, where
// 1280 x 960 streamed above 2 MiB had taken 1.12. A transpose writes a strip of columns one
// source line (64 bytes) wide down the image at once, so columns of `sampleBytes` samples that
// collide in the cache (unlessColumnsCollide) stream at any size. The pixel split, the packed
// unpack, the RGB16 words, the YUV chroma and the demosaic's merges, which measured faster
// streamed, keep columnStoresFor.
ColumnStores transposeStoresFor(std::uint64_t bytes, std::uint64_t rows, std::uint64_t sampleBytes);

// Whether `columns` columns of a host array, columnBytes apart and written down the image a
// piece of each at a time, need more lines at once than the first-level cache sets their lines
// fall in hold: a column stride that is a multiple of 1 KiB (a square sensor's 1024 rows of
// bytes) puts every column's line in a few of the cache's sets, and nearly every piece then
// misses. The cache is `sets` sets of `ways` lines of lineBytes; any of them 0 means unknown.
bool columnsCollide(std::uint64_t columnBytes, std::uint64_t columns, std::uint64_t lineBytes, std::uint64_t sets,
                    std::uint64_t ways);
// `stores`, or Streamed where `columns` columns columnBytes apart collide in this processor's
// first-level data cache: streamed whole lines never wait on those sets, and such arrays
// measured 1.5 to 5 times faster streamed at every size.
ColumnStores unlessColumnsCollide(ColumnStores stores, std::uint64_t columnBytes, std::uint64_t columns);

// The array size above which transposes of 32-bit samples (and, where wideSamplesStaged(), of
// 16- and 64-bit ones) stream: LUMO_STREAM_ABOVE_MIB from the environment (in MiB, 0 to stream
// every such array that takes whole lines), else 16 MiB where wideSamplesStaged(), else a quarter
// of the shared (last-level) cache, the share the C library's memcpy keeps in the caches, or 8 MiB
// where the system does not tell the cache's size. Read once. setStreamingThreshold changes it
// (tests take each path at sizes they can afford) and returns the one before.
std::uint64_t streamingThreshold();
// The threshold a value of LUMO_STREAM_ABOVE_MIB (null when unset; ignored unless a whole
// decimal number of at most 2^40), a shared cache of the given bytes (0 or less when unknown) and
// wideSamplesStaged() give.
std::uint64_t streamingThresholdFrom(const char* mebibytes, long sharedCacheBytes, bool wideSamples);
std::uint64_t setStreamingThreshold(std::uint64_t bytes);

// Whether the transposes' large arrays of 16- and 64-bit samples stream through staging above
// streamingThreshold(), as 32-bit ones do, rather than taking Lines and being stored in place:
// on Intel processors. On a 16-core Intel Xeon with 512-bit vectors, staged against the stores
// above (ns a pixel): 20 MP mono16 0.50 -> 0.34, 8 MP RGB48 1.59 -> 0.99, 20 MP 1.70 -> 1.12,
// 8 MP float 1.01 -> 0.57, 2448 x 2048 double 3.55 -> 1.15, 20 MP 2.21 -> 1.38; below 16 MiB
// staging measured slower there (8 MP mono16 0.29 -> 0.33, 1080p RGB48 0.85 -> 1.02). On the
// AMD processors measured, staging was as slow or slower at every size (20 MP RGB48 1.04 -> 1.46,
// 20 MP double 1.07 -> 1.22). Decided from the processor's vendor when the library loads;
// setWideSamplesStaged changes it (tests take both paths on any machine) and returns the one before.
bool wideSamplesStaged();
bool setWideSamplesStaged(bool staged);

// Transposes rows x cols samples of SampleBytes bytes (1, 2, 4 or 8): the sample at row r,
// column c of src (rows srcRowBytes apart) goes to dst[(c * dstColumn + r) * SampleBytes]. With
// flipRows the source rows are read from the last upward, so a bottom-up image comes out top-down.
// Neither pointer needs any alignment.
template <int SampleBytes>
void transposeSamples(const std::uint8_t* src, std::size_t srcRowBytes, std::uint8_t* dst, std::size_t dstColumn,
                      std::size_t rows, std::size_t cols, bool flipRows, SampleOp op,
                      ColumnStores stores = ColumnStores::Cached);

// The widest vectors the kernels may use, in bits: 512 (the default, or LUMO_VECTOR_BITS from the
// environment) lets the kernels use the widest the processor has; tests lower it to check the
// narrower kernels, and 0 the portable build, against the same references. Returns the width of
// the kernels now in use, which is lower where the processor lacks the width asked for.
int limitVectorWidth(int bits);

}  // namespace lumoframekit
