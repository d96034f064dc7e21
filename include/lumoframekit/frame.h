#pragma once
#include <cstdint>

#include "lumoframekit/export.h"
#include "lumoframekit/frame_types.h"
#include "lumoframekit/memory_limiter.h"
#include "lumoframekit/metadata.h"

namespace lumoframekit {

class FramePool;

// Width, height and number of bands of a frame's converted data.
struct FrameDims {
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t bands;
};

// Where getDataInColorSpace takes the host arrays from. The defaults are plain array allocation
// (new std::uint8_t[bytes]) and release (delete[]); a host derives to use its own memory.
// allocate may throw (the exception reaches the caller, nothing is lost) or return null (the
// conversion then gives a null result).
class LUMOFRAMEKIT_API HostAllocator {
public:
    virtual ~HostAllocator();
    virtual void* allocate(std::uint64_t bytes);
    virtual void release(void* array);
};

// The interface through which the host and the frame pool handle every frame.
//
// Host arrays are column-major: the sample of row y, column x lies at index x * height + y, row 0
// at the top of the image whatever the stored row order. Multi-band results hold their planes in
// the order R, G, B or Y, U, V.
//
// Destination plane lists (getData, getDataFromBuffer): dest is a null-terminated array of plane
// pointers. {p, nullptr} is one pointer and the planes lie back to back behind it;
// {r, g, b, nullptr} names each plane.
//
// The order of the virtual operations is part of the binary interface and never changes.
//
// Threads: any number of threads may read one frame at once (getData, getDataFromBuffer,
// getDataInColorSpace and the getters), also while other frames of the same pool are in use.
// Writes (the buffer operations, metadata, the setters) need the caller's exclusion against every
// other call on that frame. incRefCount and decRefCount may be called from any thread. Frames
// work from inside the host's own oneTBB tasks and arenas.
class LUMOFRAMEKIT_API IFrame {
public:
    virtual ~IFrame();

    // Reference counting: decRefCount returns the count while it stays above 0; when it reaches
    // 0 or below the frame is released (back to its pool, or deleted) and 0 is returned.
    virtual void incRefCount() = 0;
    virtual std::int32_t decRefCount() = 0;
    virtual void release() = 0;

    virtual double getTimeStamp() const = 0;
    virtual void setTimeStamp(double timeStamp) = 0;

    // Raw buffer: allocated on demand, counted against the frame's memory limiter if it has one.
    // Under a limiter a refused or failed allocation gives null; without one std::bad_alloc
    // reaches the caller. A size above 1 TiB (huge or wrapped dimensions) counts as failed
    // without the allocator being asked. allocateBuffer returns a buffer of at least getBufferSize() bytes or
    // null: a buffer kept from before a region copy that made the size grow is replaced (under
    // the limiter). A frame credits its limiter exactly what it charged, to the limiter it
    // charged, whatever is set later; the limiter must outlive the buffer.
    virtual std::uint64_t getBufferSize() const = 0;
    virtual std::uint8_t* allocateBuffer() = 0;
    // Copies getBufferSize() bytes from src into the buffer, allocating it first.
    virtual void setBufferData(const std::uint8_t* src) = 0;
    // Fills the buffer from a rectangle of a larger source image whose origin is
    // (xOffset, yOffset), counted from the top of the image.
    virtual std::uint8_t* copyRegionToBuffer(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                             std::uint32_t xOffset, std::uint32_t yOffset) = 0;
    virtual bool isBufferAllocated() const = 0;

    // Converts the frame's own buffer into the host planes; nothing without a buffer.
    virtual void getData(void** dest) = 0;
    // rawCopy 0: converts src (a raw image of this frame's layout) as getData does. Otherwise a
    // row-major copy of the stored samples, rows top-down, where the family defines one.
    virtual void getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) = 0;
    // Converts into a newly allocated host array in the requested color space (a ColorSpace flag)
    // and, when dataType is not null, element type (a DataType code). *result receives the array
    // or null when the conversion is not possible; *outDims the dimensions of the result.
    // allocator may be null for plain array allocation. A frame without pixels (never filled, or
    // refused by its limiter) gives null and asks nothing of the allocator. The conversion starts
    // from the color space getColorSpace reports while it matches the bands getData writes, and
    // from the format's own color space otherwise.
    virtual void getDataInColorSpace(void** result, FrameDims* outDims, std::uint32_t colorSpace,
                                     const std::int32_t* dataType, std::uint32_t alignment,
                                     HostAllocator* allocator) = 0;

    virtual std::int32_t getDataType() const = 0;
    // Size of the converted image with each row padded to a multiple of 4.
    virtual std::int64_t getAlignedSize() const = 0;
    virtual std::uint32_t getColorSpace() const = 0;
    virtual void setColorSpace(std::uint32_t colorSpace) = 0;
    virtual std::uint32_t getFrameType() const = 0;
    virtual void setFrameType(std::uint32_t frameType) = 0;
    virtual std::uint32_t getBitsPerBand() const = 0;

    // Metadata: named items owned by the frame. Adding under an existing name replaces the item.
    // A null name throws std::logic_error. Not thread-safe.
    virtual std::uint64_t getMetaDataCount() const = 0;
    virtual const FrameDims* getDimensions() const = 0;
    // Writes the names in ascending byte order into names[0 .. getMetaDataCount() - 1]; the
    // pointers stay valid until the item set changes.
    virtual void getMetaDataNames(const char** names) const = 0;
    // The item of that name, owned by the frame, or null.
    virtual MetaDataItem* getMetaData(const char* name) const = 0;
    virtual void addDoubleMetaData(const char* name, double value) = 0;
    virtual void addTimeVectorMetaData(const char* name, double value) = 0;
    virtual void addCStrMetaData(const char* name, const char* value) = 0;
    virtual void addDoubleArrayMetaData(const char* name, const double* values, std::uint64_t count) = 0;
    virtual void addDouble2DArrayMetaData(const char* name, const double* const* values, std::uint64_t rows,
                                          std::uint64_t cols) = 0;
    virtual void addDouble3DArrayMetaData(const char* name, const double* const* const* values, std::uint64_t d1,
                                          std::uint64_t d2, std::uint64_t d3) = 0;
    virtual void addBooleanArrayMetaData(const char* name, const bool* values, std::uint64_t count) = 0;
    virtual void addIntegerMetaData(const char* name, std::int64_t value) = 0;

    virtual void setFramePool(FramePool* pool) = 0;
    virtual FramePool* getFramePool() const = 0;
    virtual void setMemoryLimiter(IMemoryLimiter* limiter) = 0;
    virtual IMemoryLimiter* getMemoryLimiter() const = 0;
};

// Makes a frame for a frame-type code, without a buffer, or returns null for a code it does not
// accept. The caller owns the frame: release() it or delete it.
LUMOFRAMEKIT_API IFrame* frameFactory(frametypes::FRAMETYPE code, std::int32_t width, std::int32_t height);

}  // namespace lumoframekit
