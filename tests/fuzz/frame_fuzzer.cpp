// Drives the host interface from arbitrary bytes: a frame of any code and a small size, then a
// sequence of buffer fills, region copies, conversions, display rows and metadata, each with
// arguments taken from the input. Every source the host passes holds exactly the bytes its
// width, height and format call for; every destination exactly what the call may write.
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <vector>

#include "fuzz_input.h"
#include "lumoframekit/lumoframekit.h"

using namespace lumoframekit;
using lumofuzz::frameCode;
using lumofuzz::Input;

namespace {

// Counts what it hands out, so that every array is accounted for and read back in full.
class CheckedAllocator : public HostAllocator {
public:
    void* allocate(std::uint64_t bytes) override {
        if (bytes > (64u << 20)) throw std::bad_alloc();
        ++live;
        sizes.push_back(bytes);
        return HostAllocator::allocate(bytes);
    }
    void release(void* array) override {
        --live;
        HostAllocator::release(array);
    }
    int live = 0;
    std::vector<std::uint64_t> sizes;
};

std::size_t bufferBytesOf(std::uint32_t code, std::int32_t width, std::int32_t height) {
    std::unique_ptr<IFrame> probe(frameFactory(static_cast<frametypes::FRAMETYPE>(code), width, height));
    const std::uint64_t size = probe ? probe->getBufferSize() : 0;
    return size > (8u << 20) ? 0 : static_cast<std::size_t>(size);
}

void exercise(Input& in) {
    const std::uint32_t code = frameCode(in);
    const std::int32_t width = static_cast<std::int8_t>(in.byte()) % 41;
    const std::int32_t height = static_cast<std::int8_t>(in.byte()) % 41;
    // The limiter outlives the frame, as a host's must: the frame credits it when it goes.
    MemoryLimiter limiter(0, std::uint64_t{in.byte()} * 64);
    std::unique_ptr<IFrame> frame(frameFactory(static_cast<frametypes::FRAMETYPE>(code), width, height));
    if (!frame) return;
    const std::size_t pixels =
        static_cast<std::size_t>(width > 0 ? width : 0) * static_cast<std::size_t>(height > 0 ? height : 0);
    for (int step = 0; step < 24 && !in.empty(); ++step) {
        switch (in.byte() % 10) {
            case 0: frame->setMemoryLimiter(in.byte() % 2 ? &limiter : nullptr); break;
            case 1: {
                const std::uint64_t size = frame->getBufferSize();
                if (size > (8u << 20)) break;
                const auto src = in.bytes(static_cast<std::size_t>(size));
                frame->setBufferData(src.data());
                break;
            }
            case 2: {
                const std::uint32_t srcWidth = in.byte() % 64, srcHeight = in.byte() % 64;
                const std::uint32_t x = in.offset(), y = in.offset();
                const std::size_t bytes =
                    bufferBytesOf(code, static_cast<std::int32_t>(srcWidth), static_cast<std::int32_t>(srcHeight));
                auto src = std::make_unique<std::uint8_t[]>(bytes);  // exactly the source's bytes
                for (std::size_t i = 0; i < bytes; ++i) src[i] = static_cast<std::uint8_t>(i * 31 + in.byte());
                frame->copyRegionToBuffer(bytes ? src.get() : nullptr, srcWidth, srcHeight, x, y);
                break;
            }
            case 3: {
                // Three planes of the widest sample, named or back to back.
                const std::size_t plane = pixels * 8;
                std::vector<std::uint8_t> r(plane), g(plane), b(plane), block(3 * plane);
                void* named[] = {r.data(), g.data(), b.data(), nullptr};
                void* one[] = {block.data(), nullptr};
                frame->getData(in.byte() % 2 ? named : one);
                break;
            }
            case 4: {
                const std::uint64_t size = frame->getBufferSize();
                if (size > (8u << 20)) break;
                const auto src = in.bytes(static_cast<std::size_t>(size));
                std::vector<std::uint8_t> out(pixels * 24 + 8);
                void* dest[] = {out.data(), nullptr};
                frame->getDataFromBuffer(dest, src.data(), static_cast<std::int32_t>(in.byte() % 3));
                break;
            }
            case 5:
                if (auto* mono = dynamic_cast<MonochromeFrame*>(frame.get())) {
                    std::vector<std::uint8_t> row(static_cast<std::size_t>(width > 0 ? width : 0) + 1);
                    mono->getDisplayRow(row.data(), static_cast<std::int32_t>(in.word()) % 50);
                }
                break;
            case 6: {
                CheckedAllocator allocator;
                void* result = nullptr;
                FrameDims dims{};
                const std::int32_t type = static_cast<std::int8_t>(in.byte()) % 10;
                const std::uint32_t space = in.byte() % 16;
                const std::uint32_t alignment = in.byte() % 6;
                frame->getDataInColorSpace(&result, &dims, space, in.byte() % 3 ? &type : nullptr, alignment,
                                           &allocator);
                if (result != nullptr) {
                    // Every byte of the array the host receives is read.
                    std::uint64_t sum = 0;
                    for (std::uint64_t i = 0; i < allocator.sizes.back(); ++i)
                        sum += static_cast<std::uint8_t*>(result)[i];
                    volatile std::uint64_t sink = sum;
                    (void)sink;
                    allocator.release(result);
                }
                if (allocator.live != 0) __builtin_trap();  // an array was lost
                break;
            }
            case 7: {
                char name[4] = {static_cast<char>('a' + in.byte() % 3), 0, 0, 0};
                const double values[3] = {1.0, 2.0, 3.0};
                const double* rows[2] = {values, values};
                const double* const* planes[2] = {rows, rows};
                const bool flags[2] = {true, false};
                switch (in.byte() % 8) {
                    case 0: frame->addDoubleMetaData(name, 1.5); break;
                    case 1: frame->addTimeVectorMetaData(name, 2.5); break;
                    case 2: frame->addCStrMetaData(name, "text"); break;
                    case 3: frame->addIntegerMetaData(name, in.word()); break;
                    case 4: frame->addDoubleArrayMetaData(name, values, in.byte() % 4); break;
                    case 5: frame->addBooleanArrayMetaData(name, flags, in.byte() % 3); break;
                    case 6: frame->addDouble2DArrayMetaData(name, rows, in.byte() % 3, in.byte() % 4); break;
                    default:
                        frame->addDouble3DArrayMetaData(name, planes, in.byte() % 3, in.byte() % 3, in.byte() % 4);
                        break;
                }
                std::vector<const char*> names(frame->getMetaDataCount());
                frame->getMetaDataNames(names.data());
                frame->getMetaData(name);
                break;
            }
            case 8: frame->allocateBuffer(); break;
            default: {
                std::uint8_t sink = 0;
                frame->getAlignedSize();
                frame->getDataType();
                frame->getBitsPerBand();
                sink = static_cast<std::uint8_t>(frame->getDimensions()->bands);
                (void)sink;
                break;
            }
        }
    }
    frame.reset();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    try {
        exercise(in);
    } catch (const std::bad_alloc&) {
        // Sizes no allocation can satisfy (negative dimensions) are reported this way.
    } catch (const std::invalid_argument&) {
        // Refused metadata values and unsupported depths.
    }
    return 0;
}
