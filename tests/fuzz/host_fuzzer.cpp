// Plays a host from arbitrary bytes: several frames, some standalone and some from a pool, go
// through fills (memcpy of getBufferSize() bytes into allocateBuffer()), region copies at any
// offset, setters, conversions of every kind, metadata, reference counts and pool control, in any
// order. Every buffer the host hands over holds exactly the bytes the call may touch, and the
// limiters are checked after every step: nothing is charged for frames without buffers, and both
// counts are 0 once every frame is gone.
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

#include "fuzz_input.h"
#include "lumoframekit/lumoframekit.h"
#include "rigutil/rg_exception.h"
#include "test_support.h"

using namespace lumoframekit;
using lumofuzz::frameCode;
using lumofuzz::Input;
using lumotest::ExactAllocator;

namespace {

constexpr std::uint64_t kMaxBytes = 4u << 20;

// What getData may write for the frame as it reports itself, or 0 when that is too large to hand.
std::size_t dataBytes(const IFrame& frame) {
    const FrameDims d = *frame.getDimensions();
    const std::uint64_t bytes =
        std::uint64_t{d.width} * d.height * d.bands * lumotest::elementBytes(frame.getDataType());
    return d.width > 4096 || d.height > 4096 || bytes > kMaxBytes ? 0 : static_cast<std::size_t>(bytes);
}

std::size_t sourceBytes(std::uint32_t code, std::int32_t width, std::int32_t height) {
    std::unique_ptr<IFrame> probe(frameFactory(static_cast<frametypes::FRAMETYPE>(code), width, height));
    const std::uint64_t size = probe ? probe->getBufferSize() : 0;
    return size > kMaxBytes ? 0 : static_cast<std::size_t>(size);
}

struct Host {
    MemoryLimiter own{0, 1u << 20};
    MemoryLimiter pooled{0, 1u << 20};
    FramePool* pool = createFramePool(&pooled);
    // Frames the host holds, one reference each (taken with incRefCount), with the code each was
    // made for: the layout of its sources, whatever frame type is set later.
    struct Held {
        IFrame* frame;
        std::uint32_t code;
    };
    std::vector<Held> frames;

    ~Host() {
        for (const Held& held : frames) held.frame->decRefCount();
        if (pool != nullptr) pool->destroy();
        // Every frame is gone: nothing may stay charged.
        if (own.getMemoryUsed() != 0 || pooled.getMemoryUsed() != 0) __builtin_trap();
    }

    void fill(IFrame& frame, Input& in) {
        std::uint8_t* buffer = frame.allocateBuffer();
        const std::uint64_t size = frame.getBufferSize();
        if (buffer == nullptr || size > kMaxBytes) return;
        auto bytes = std::make_unique<std::uint8_t[]>(size);
        for (std::uint64_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 131 + in.byte());
        std::memcpy(buffer, bytes.get(), size);
    }

    void regionCopy(IFrame& frame, std::uint32_t code, Input& in) {
        const std::int32_t srcWidth = in.byte() % 64, srcHeight = in.byte() % 64;
        const std::uint32_t x = in.byte() < 240 ? in.byte() % 48 : in.word();
        const std::uint32_t y = in.byte() < 240 ? in.byte() % 48 : in.word();
        const std::size_t bytes = sourceBytes(code, srcWidth, srcHeight);
        auto src = std::make_unique<std::uint8_t[]>(bytes);
        for (std::size_t i = 0; i < bytes; ++i) src[i] = static_cast<std::uint8_t>(i * 31 + 7);
        frame.copyRegionToBuffer(bytes ? src.get() : nullptr, static_cast<std::uint32_t>(srcWidth),
                                 static_cast<std::uint32_t>(srcHeight), x, y);
    }

    void getData(IFrame& frame, Input& in) {
        const std::size_t bytes = dataBytes(frame);
        if (bytes == 0) return;
        const FrameDims d = *frame.getDimensions();
        if (d.bands == 3 && in.byte() % 2) {
            const std::size_t plane = bytes / 3;
            auto r = std::make_unique<std::uint8_t[]>(plane), g = std::make_unique<std::uint8_t[]>(plane),
                 b = std::make_unique<std::uint8_t[]>(plane);
            void* named[] = {r.get(), g.get(), b.get(), nullptr};
            frame.getData(named);
        } else {
            auto block = std::make_unique<std::uint8_t[]>(bytes);
            void* one[] = {block.get(), nullptr};
            frame.getData(one);
        }
    }

    void convert(IFrame& frame, Input& in) {
        ExactAllocator allocator;
        allocator.giveNull = in.byte() % 16 == 0;
        void* result = nullptr;
        FrameDims dims{};
        const std::int32_t type = static_cast<std::int8_t>(in.byte()) % 10;
        const std::uint32_t space = in.byte() % 16;
        const std::uint32_t alignment = in.byte() % 6;
        if (dataBytes(frame) == 0 && frame.isBufferAllocated()) return;  // too large to hand out
        frame.getDataInColorSpace(&result, &dims, space, in.byte() % 3 ? &type : nullptr, alignment, &allocator);
        if (result != nullptr) {
            // Every byte of the array the host receives is read.
            std::uint64_t sum = 0;
            for (std::uint64_t i = 0; i < allocator.last; ++i) sum += static_cast<std::uint8_t*>(result)[i];
            volatile std::uint64_t sink = sum;
            (void)sink;
            allocator.release(result);
        }
        if (allocator.live != 0) __builtin_trap();  // an array was lost
    }

    void metadata(IFrame& frame, Input& in) {
        char name[2] = {static_cast<char>('a' + in.byte() % 3), 0};
        const double values[3] = {1.0, 2.0, 3.0};
        const double* rows[2] = {values, values};
        switch (in.byte() % 4) {
            case 0: frame.addIntegerMetaData(name, in.word()); break;
            case 1: frame.addCStrMetaData(name, "text"); break;
            case 2: frame.addDouble2DArrayMetaData(name, rows, in.byte() % 3, in.byte() % 4); break;
            default: frame.addDoubleArrayMetaData(name, values, in.byte() % 4); break;
        }
        std::vector<const char*> names(frame.getMetaDataCount());
        frame.getMetaDataNames(names.data());
    }

    void step(Input& in) {
        const std::uint8_t op = in.byte() % 20;
        if (op == 0 && frames.size() < 6) {
            const std::uint32_t code = frameCode(in);
            IFrame* frame = frameFactory(static_cast<frametypes::FRAMETYPE>(code), in.size(), in.size());
            if (frame == nullptr) return;
            frame->setMemoryLimiter(&own);
            frame->incRefCount();
            frames.push_back({frame, code});
            return;
        }
        if (op == 1 && frames.size() < 6) {
            if (pool == nullptr) return;
            const std::uint8_t pick = in.byte();
            // Mostly one format, so that frames are recycled.
            const std::uint32_t code = pick < 200 ? 0x06030019u + pick % 2 : frameCode(in);
            const std::int32_t w = pick < 200 ? 9 : in.size(), h = pick < 200 ? 5 : in.size();
            IFrame* frame = pool->getFrame(code, w, h);
            if (frame == nullptr) return;
            // A recycled frame carries nothing of its last holder.
            if (frame->getMetaDataCount() != 0 || frame->getTimeStamp() != 0.0) __builtin_trap();
            frame->incRefCount();
            frames.push_back({frame, code});
            return;
        }
        if (op == 2 && pool != nullptr) {
            try {
                switch (in.byte() % 4) {
                    case 0: pool->startReserver(in.byte() % 4, in.byte() % 6); break;
                    case 1: pool->stopReserver(); break;
                    case 2: pool->clear(); break;
                    default:
                        pooled.setMemoryLimit(std::uint64_t{in.byte()} << 10);
                        own.setMemoryLimit(std::uint64_t{in.byte()} << 10);
                        break;
                }
            } catch (rigutil::RGException* error) {
                delete error;
            }
            return;
        }
        if (op == 3 && pool != nullptr && in.byte() % 8 == 0) {
            // Frames in hand outlive their pool.
            pool->destroy();
            pool = nullptr;
            return;
        }
        if (frames.empty()) return;
        const std::size_t which = in.byte() % frames.size();
        IFrame& frame = *frames[which].frame;
        switch (op) {
            case 4:
            case 5: fill(frame, in); break;
            case 6:
            case 7: regionCopy(frame, frames[which].code, in); break;
            case 8: frame.setBufferData(nullptr); break;
            case 9: getData(frame, in); break;
            case 10:
            case 11: convert(frame, in); break;
            case 12: frame.setColorSpace(in.byte() % 10); break;
            case 13: frame.setFrameType(in.byte() % 2 ? frameCode(in) : frame.getFrameType()); break;
            case 14: metadata(frame, in); break;
            case 15: frame.setMemoryLimiter(in.byte() % 3 == 0 ? nullptr : in.byte() % 2 ? &own : &pooled); break;
            case 16: frame.setTimeStamp(in.byte()); break;
            case 17:
                // Handed to a second holder, who lets go at once.
                frame.incRefCount();
                frame.decRefCount();
                break;
            default:
                // Let go: back to its pool, or deleted.
                frames.erase(frames.begin() + static_cast<std::ptrdiff_t>(which));
                frame.decRefCount();
                break;
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    Host host;
    for (int step = 0; step < 64 && !in.empty(); ++step) {
        try {
            host.step(in);
        } catch (const std::bad_alloc&) {
            // Sizes no allocation can satisfy, without a limiter, are reported this way.
        } catch (const std::invalid_argument&) {
            // Unsupported depths and refused metadata values.
        }
        // Nothing is charged beyond the limits the host set, save what a lowered limit left.
        if (host.own.getMemoryUsed() > (1u << 20) || host.pooled.getMemoryUsed() > (1u << 20)) __builtin_trap();
    }
    return 0;
}
