#include "frames/bayer/bayer_util.h"

#include <hwy/cache_control.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "frames/bayer/bayer_padded.h"

namespace lumoframekit {
namespace BayerUtil {

namespace {

// The task scheduler hands tasks over inside its own library, where ThreadSanitizer cannot see
// the synchronisation; these make the hand-over (a release) and the completion (an acquire)
// visible to it.
inline void synchronise(const void* token, bool release) {
#if defined(__SANITIZE_THREAD__)
    if (release)
        __tsan_release(const_cast<void*>(token));
    else
        __tsan_acquire(const_cast<void*>(token));
#else
    (void)token, (void)release;
#endif
}
inline void handOver(const void* token) { synchronise(token, true); }
inline void takeOver(const void* token) { synchronise(token, false); }
#if defined(__SANITIZE_THREAD__)
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
#endif
// A copy of an object whose last writer the thread checker cannot know.
template <typename Object>
Object unseenCopy(const Object& object) {
#if defined(__SANITIZE_THREAD__)
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    const Object copy = object;
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    return copy;
#else
    return object;
#endif
}

inline void pause() {
#if defined(__x86_64__)
    _mm_pause();
#endif
}

// Columns of sites a task writes before the columns are merged, once its pair has written them
// too: the merge then reads what the task has just written from its caches rather than from
// memory. On a 2-core Intel Xeon with 512-bit vectors (medians of 40 calls alternating with a
// single chunk in one process, ns a pixel), 5472 x 3648 8-bit 0.75 -> 0.71, 12-bit 1.13 -> 1.04,
// packed 12-bit 1.45 -> 1.40; 3840 x 2160 12-bit 1.33 -> 1.29; 1920 x 1080 the same. 32 and 128
// columns measured as 64 did. Against the whole columns of each pair merged at once, in pairs of
// calls of the two builds (ab_pair, 40 pairs), 5472 x 3648 took 0.91 to 0.94 times the time.
constexpr std::uint64_t kMergeChunkColumns = 64;

// Spins a little, then yields, until done() holds.
template <typename Done>
void waitUntil(Done done) {
    for (int spins = 0; !done(); ++spins) {
        if (spins < 256)
            pause();
        else
            std::this_thread::yield();
    }
}

}  // namespace

template <typename T>
void BayerTBBTask<T>::operator()() const {
    // The scheduler recycles task objects across threads inside its own library, where the thread
    // checker cannot see the hand-over: the fields are copied with that one read unchecked, and
    // everything the task does afterwards is checked.
    const BayerTBBTask task = unseenCopy(*this);
    task.run();
}

bool PaddedGate::takeSecondHalf() const {
    int expected = open;
    if (secondHalf.load(std::memory_order_relaxed) != open ||
        !secondHalf.compare_exchange_strong(expected, taken, std::memory_order_acquire))
        return false;
    writeSecondHalf(context);
    secondHalf.store(done, std::memory_order_release);
    return true;
}

void PaddedGate::finish(int parity, std::uint64_t chunk) const {
    if (chunksDone[parity][chunk].fetch_add(1, std::memory_order_acq_rel) == 1) mergeColumns(context, parity, chunk);
}

template <typename T>
void BayerTBBTask<T>::run() const {
    takeOver(padded.even);
    if (std::this_thread::get_id() != gate->caller &&
        gate->state.load(std::memory_order_acquire) == PaddedGate::writing)
        gate->takeSecondHalf();
    int state = PaddedGate::writing;
    waitUntil([&] { return (state = gate->state.load(std::memory_order_acquire)) != PaddedGate::writing; });
    if (state == PaddedGate::written) {
        const int parity = static_cast<int>(firstColumn % 2);  // padded column 2 is image column 0
        const std::uint64_t end = columnCount + 2, step = 2 * kMergeChunkColumns;
        BayerTBBTask chunk = *this;
        for (std::uint64_t p = firstColumn, index = 0; p < end; p += step, ++index) {
            chunk.firstColumn = p;
            chunk.columnCount = p + std::min(step, end - p) - 2;
            for (int plane = 0; plane < 3; ++plane)
                if (planes[plane] != nullptr)
                    chunk.planes[plane] = planes[plane] + index * kMergeChunkColumns * planeColumn;
            kernels->sites(chunk);
            gate->finish(parity, index);
        }
    }
    handOver(padded.even);
}

namespace {

struct Site {
    BayerSiteKind kind;
    std::uint64_t row, column;  // padded coordinates of the first site
};

// A task writes its sites column by column into planes of its own, contiguously; the rows of the
// two tasks that share a column are then interleaved into the host planes. Tasks thus never
// write the same cache lines.
template <typename T>
void interleave(const SampleKernels<T>& k, const T* evenRows, const T* oddRows, T* out, std::uint64_t height) {
    k.interleave(evenRows, oddRows, out, height / 2);
    if (height % 2 == 1) out[height - 1] = evenRows[height / 2];
}

template <typename T, typename Fill>
void demosaic(Fill fill, T* red, T* green, T* blue, std::pair<std::uint32_t, std::uint32_t> dims,
              std::uint32_t alignment, std::uint32_t bits, int sampleBits) {
    // The four site kinds at padded (2,2), (2,3), (3,2), (3,3) for each pattern.
    static constexpr BayerSiteKind layouts[5][4] = {
        {GreenOnRedRow, Red, Blue, GreenOnBlueRow}, {GreenOnBlueRow, Blue, Red, GreenOnRedRow},
        {Blue, GreenOnBlueRow, GreenOnRedRow, Red}, {},
        {Red, GreenOnRedRow, GreenOnBlueRow, Blue},
    };
    if (alignment > 4 || alignment == 3) return;
    const std::uint64_t height = dims.first, width = dims.second;
    if (height == 0 || width == 0) return;
    if (static_cast<double>(height + 4) * static_cast<double>(width + 4) * sizeof(T) > static_cast<double>(PTRDIFF_MAX))
        throw std::bad_array_new_length();
    // The bound is (2^sampleBits - 1) / 2^(sampleBits - bits); its integer part is what reaches the
    // planes.
    const int shift = std::clamp(sampleBits - static_cast<int>(std::min<std::uint32_t>(bits, 64)), 0, sampleBits);
    const std::int32_t upper = ((std::int32_t{1} << sampleBits) - 1) >> shift;

    Workspace workspace;
    const PaddedMosaic<T> padded = paddedStorage<T>(workspace, height, width);
    // A task writes the two planes it computes, column by column, into storage of its own; once
    // both tasks of a column parity have written a chunk of columns, their rows go into the host
    // planes, with the sites' own samples taken straight from the padded copy. Columns of sites
    // are padded to whole cache lines, so vector kernels store whole vectors.
    constexpr std::uint64_t perLine = lineBytes / sizeof(T);
    const std::uint64_t evenSites = (height + 1) / 2, oddSites = height / 2;
    const std::uint64_t columnOf[2] = {(evenSites + perLine - 1) / perLine * perLine,
                                       (oddSites + perLine - 1) / perLine * perLine};
    const std::uint64_t columns[2] = {(width + 1) / 2, width / 2};
    T* regions[4][3] = {};
    T* next =
        workspace.get<T>(2 * columnOf[0] * (columns[0] + columns[1]) + 2 * columnOf[1] * (columns[0] + columns[1]), 1);
    const Site sites[4] = {{layouts[alignment][0], 2, 2},
                           {layouts[alignment][1], 2, 3},
                           {layouts[alignment][2], 3, 2},
                           {layouts[alignment][3], 3, 3}};
    for (int t = 0; t < 4; ++t) {
        const std::uint64_t size = columnOf[t / 2] * columns[t % 2];
        for (int plane : {planeOfFirst(sites[t].kind), planeOfSecond(sites[t].kind)}) {
            regions[t][plane] = next;
            next += size;
        }
    }
    // The tasks are spawned before the padded copy is written, so that threads waking up to run
    // them do so while this thread writes it; they start on it once the gate opens. The copy's
    // second half goes to the first task to start on another thread while this thread writes the
    // first, else to this thread. Should a spawn fail, the gate is abandoned and the tasks already
    // spawned return once they have written what they took.
    PaddedGate gate;
    const SampleKernels<T>& k = kernels().of<T>();
    // A chunk of the columns of one parity into the host planes, once both of their tasks have
    // written it: the two tasks' rows interleaved, the sites' own samples taken from the padded
    // copy. Large host planes take whole columns streamed from staging memory.
    T* const out[3] = {red, green, blue};
    const bool stream = columnStoresFor(3 * width * height * sizeof(T), height) == ColumnStores::Streamed;
    const auto streamCopy = kernels().streamCopy;
    // How many tasks of its pair have written each chunk, the even columns' chunks first.
    auto chunksOf = [](std::uint64_t n) { return (n + kMergeChunkColumns - 1) / kMergeChunkColumns; };
    const std::uint64_t evenChunks = chunksOf(columns[0]);
    std::vector<std::atomic<int>> chunksDone(evenChunks + chunksOf(columns[1]));
    gate.chunksDone[0] = chunksDone.data();
    gate.chunksDone[1] = chunksDone.data() + evenChunks;
    auto merge = [&](int parity, std::uint64_t chunk) {
        thread_local std::vector<T> staging;
        if (stream) staging.resize(height);
        const std::uint64_t first = parity + 2 * chunk * kMergeChunkColumns;
        const std::uint64_t last = std::min(width, first + 2 * kMergeChunkColumns);
        for (int plane = 0; plane < 3; ++plane)
            for (auto x = first; x < last; x += 2) {
                const T* rows[2];
                for (int rowParity = 0; rowParity < 2; ++rowParity) {
                    const T* computed = regions[2 * rowParity + parity][plane];
                    const T* own = (rowParity == 0 ? padded.even : padded.odd) + (x + 2) * padded.stride + 1;
                    rows[rowParity] = computed != nullptr ? computed + x / 2 * columnOf[rowParity] : own;
                }
                T* const column = out[plane] + x * height;
                interleave(k, rows[0], rows[1], stream ? staging.data() : column, height);
                if (stream)
                    streamCopy(reinterpret_cast<std::uint8_t*>(column),
                               reinterpret_cast<const std::uint8_t*>(staging.data()), height * sizeof(T));
            }
        if (stream) hwy::FlushStream();
    };
    // What the tasks call back: the second half of the padded copy, and the merges.
    struct Shared {
        const PaddedMosaic<T>& padded;
        std::uint64_t width;
        const SampleKernels<T>& k;
        const Fill& fill;
        const decltype(merge)& mergeParity;
    } shared{padded, width, k, fill, merge};
    gate.context = &shared;
    gate.writeSecondHalf = [](const void* context) {
        const auto& s = *static_cast<const Shared*>(context);
        fillHalf(s.padded, s.width, s.k, s.fill, 1);
    };
    gate.mergeColumns = [](const void* context, int parity, std::uint64_t chunk) {
        static_cast<const Shared*>(context)->mergeParity(parity, chunk);
    };
    // The wait is isolated: while it waits, this thread runs only these four tasks, never another
    // of the host's own tasks, which could start a demosaic of its own on this thread.
    oneapi::tbb::this_task_arena::isolate([&] {
        oneapi::tbb::task_group group;
        struct Abandon {
            PaddedGate& gate;
            ~Abandon() {
                int writing = PaddedGate::writing;
                gate.state.compare_exchange_strong(writing, PaddedGate::abandoned, std::memory_order_release);
            }
        } abandon{gate};
        for (int t = 0; t < 4; ++t) {
            const Site& site = sites[t];
            const BayerTBBTask<T> task{
                height,          width,  site.column, site.row, 0, upper, {regions[t][0], regions[t][1], regions[t][2]},
                columnOf[t / 2], padded, site.kind,   &gate,    &k};
            handOver(padded.even);
            group.run(task);
        }
        fillHalf(padded, width, k, fill, 0);
        if (!gate.takeSecondHalf())  // a task on another thread is writing it
            waitUntil([&] { return gate.secondHalf.load(std::memory_order_acquire) == PaddedGate::done; });
        reflectEdges(padded, width);
        gate.state.store(PaddedGate::written, std::memory_order_release);
        group.wait();
        takeOver(padded.even);
    });
}

}  // namespace

void demosaic8(const std::uint8_t* mosaic, std::uint8_t* red, std::uint8_t* green, std::uint8_t* blue, std::uint64_t,
               std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment, std::uint32_t bits) {
    demosaic(fromColumns(mosaic, dims.first, dims.second), red, green, blue, dims, alignment, bits, 8);
}

void demosaic16(const std::uint16_t* mosaic, std::uint16_t* red, std::uint16_t* green, std::uint16_t* blue,
                std::uint64_t, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                std::uint32_t bits) {
    demosaic(fromColumns(mosaic, dims.first, dims.second), red, green, blue, dims, alignment, bits, 16);
}

void demosaicRows8(const std::uint8_t* rows, std::uint64_t rowSamples, std::uint8_t* red, std::uint8_t* green,
                   std::uint8_t* blue, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                   std::uint32_t bits) {
    demosaic(fromRows(rows, rowSamples, dims.first, dims.second), red, green, blue, dims, alignment, bits, 8);
}

void demosaicRows16(const std::uint16_t* rows, std::uint64_t rowSamples, std::uint16_t* red, std::uint16_t* green,
                    std::uint16_t* blue, std::pair<std::uint32_t, std::uint32_t> dims, std::uint32_t alignment,
                    std::uint32_t bits) {
    demosaic(fromRows(rows, rowSamples, dims.first, dims.second), red, green, blue, dims, alignment, bits, 16);
}

void demosaicParityRows16(ParityRows16 make, const void* context, std::uint16_t* scratch, std::uint16_t* red,
                          std::uint16_t* green, std::uint16_t* blue, std::pair<std::uint32_t, std::uint32_t> dims,
                          std::uint32_t alignment, std::uint32_t bits) {
    demosaic(fromParityRows(make, context, scratch, dims.first, dims.second), red, green, blue, dims, alignment, bits,
             16);
}

template struct BayerTBBTask<std::uint8_t>;
template struct BayerTBBTask<std::uint16_t>;

}  // namespace BayerUtil
}  // namespace lumoframekit
