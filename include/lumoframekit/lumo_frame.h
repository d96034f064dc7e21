#pragma once
#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "lumoframekit/frame.h"
#include "rigutil/rg_critical_section.h"

namespace lumoframekit {

// The state every frame shares: the raw buffer, its size, metadata, frame type, color space,
// reference count, time value and the links to a pool and a memory limiter. The format families
// derive from it and give its pure operations.
class LUMOFRAMEKIT_API LUMOFrame : public IFrame {
    friend class LUMOFramePool;

public:
    // Tells the pool (if any) to forget the frame, frees the buffer (crediting the limiter) and
    // deletes the metadata. Never throws.
    ~LUMOFrame() override;

    void incRefCount() override;
    std::int32_t decRefCount() override;
    void release() override;

    double getTimeStamp() const override;
    void setTimeStamp(double value) override;

    std::uint64_t getBufferSize() const override;
    std::uint8_t* allocateBuffer() override;
    void setBufferData(const std::uint8_t* src) override;
    bool isBufferAllocated() const override;

    void getDataFromBuffer(void** dest, const std::uint8_t* src, std::int32_t rawCopy) override;
    void getDataInColorSpace(void** result, FrameDims* outDims, std::uint32_t requested, const std::int32_t* dataType,
                             std::uint32_t alignment, HostAllocator* allocator) override;

    std::uint32_t getColorSpace() const override;
    void setColorSpace(std::uint32_t value) override;
    std::uint32_t getFrameType() const override;
    void setFrameType(std::uint32_t value) override;

    std::uint64_t getMetaDataCount() const override;
    void getMetaDataNames(const char** names) const override;
    MetaDataItem* getMetaData(const char* name) const override;
    void addDoubleMetaData(const char* name, double value) override;
    void addTimeVectorMetaData(const char* name, double value) override;
    void addCStrMetaData(const char* name, const char* value) override;
    void addDoubleArrayMetaData(const char* name, const double* values, std::uint64_t count) override;
    void addDouble2DArrayMetaData(const char* name, const double* const* values, std::uint64_t rows,
                                  std::uint64_t cols) override;
    void addDouble3DArrayMetaData(const char* name, const double* const* const* values, std::uint64_t d1,
                                  std::uint64_t d2, std::uint64_t d3) override;
    void addBooleanArrayMetaData(const char* name, const bool* values, std::uint64_t count) override;
    void addIntegerMetaData(const char* name, std::int64_t value) override;

    void setFramePool(FramePool* pool) override;
    FramePool* getFramePool() const override;
    void setMemoryLimiter(IMemoryLimiter* limiter) override;
    IMemoryLimiter* getMemoryLimiter() const override;

protected:
    // bufferSize = width * height * bytesPerPixel as a wrapping signed 32-bit product, then
    // sign-extended: a product of 2^31 or more becomes a huge size that no allocation satisfies.
    LUMOFrame(std::int32_t width, std::int32_t height, std::int32_t bytesPerPixel, std::uint32_t initialColorSpace);

    // Obtains a buffer of getBufferSize() bytes, under the limiter when one is set. A buffer kept
    // from before is reused while it is large enough and replaced when the size has grown since.
    void allocateFrameBuffer();
    // Releases the buffer and credits exactly what its allocation charged, to the limiter it was
    // charged to.
    void freeFrameBuffer();
    // Delivers the array that source.getData writes (its dimensions, holding data of color space
    // `space`) in the requested color space and element type: the shared conversion behind every
    // getDataInColorSpace. source is this frame or the frame holding its pixels, holder the frame
    // whose buffer holds them.
    void deliverInColorSpace(IFrame& source, const LUMOFrame& holder, std::uint32_t space, void** result,
                             FrameDims* outDims, std::uint32_t requested, const std::int32_t* dataType,
                             std::uint32_t alignment, HostAllocator* allocator);
    // Fills the buffer with height rows of width pixels of bytesPerPixel bytes taken from a
    // srcWidth x srcHeight image at (x, y), y counted from the top of the image; a bottom-up source
    // holds its top rows last. A region outside the source copies nothing and gives null.
    // Returns the start of the last row written, or the buffer (null when refused) for an empty
    // region.
    std::uint8_t* copyRowRegion(const std::uint8_t* src, std::uint32_t srcWidth, std::uint32_t srcHeight,
                                std::uint32_t x, std::uint32_t y, std::int32_t width, std::int32_t height,
                                std::int32_t bytesPerPixel, bool bottomUp);
    // Stores item under name, replacing (and deleting) an item of the same name.
    void insertMetaData(const char* name, MetaDataItem* item);

    std::uint8_t* buffer;
    std::uint64_t bufferSize;
    std::map<std::string, MetaDataItem*> metaData;
    std::uint32_t colorSpace;
    std::uint32_t frameType;
    std::int32_t refCount;
    double timeStamp;
    rigutil::RGCriticalSection lock;  // guards refCount only
    // Atomic because a pool detaches the frames it hands out (clear, stopReserver) while their
    // holders may be releasing them on other threads.
    std::atomic<FramePool*> framePool;
    IMemoryLimiter* memoryLimiter;
    // Bytes the current buffer was allocated with (0 without a buffer): the conversions check
    // their reads against it, since getBufferSize may change after the allocation.
    std::uint64_t allocatedSize;
    // Zeroed bytes allocated after the buffer and never charged to the limiter, for families whose
    // reads may run a little past the end of the buffer.
    std::uint32_t bufferSlack;
    // The color space the format gives, whatever the host sets later.
    std::uint32_t formatColorSpace;

private:
    void takeBuffer(std::uint64_t size);
    // A pooled frame handed to a new holder: no metadata, time stamp 0, count 0, the format's
    // color space.
    void prepareForReuse();

    // What the current buffer's allocation charged, and to which limiter (null: nothing).
    std::uint64_t chargedBytes;
    IMemoryLimiter* chargedLimiter;
};

}  // namespace lumoframekit
