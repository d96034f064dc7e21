// The delivery of any frame in another color space and element type.
#include <algorithm>
#include <cstring>

#include "frames/bayer/bayer_util.h"
#include "frames/bayer/element_conversion.h"
#include "lumoframekit/lumo_frame.h"

namespace lumoframekit {

namespace {

// A host array owned until it is handed over; released through the host's allocator otherwise.
class HostArray {
public:
    HostArray(HostAllocator& allocator, std::uint64_t bytes) : allocator_(allocator) {
        data_ = allocator_.allocate(bytes);
        if (data_ != nullptr && bytes != 0) std::memset(data_, 0, bytes);  // no unwritten byte reaches the host
    }
    HostArray(const HostArray&) = delete;
    HostArray& operator=(const HostArray&) = delete;
    ~HostArray() {
        if (data_ != nullptr) allocator_.release(data_);
    }
    void* get() const { return data_; }
    void* handOver() { return std::exchange(data_, nullptr); }
    void swap(HostArray& other) { std::swap(data_, other.data_); }

private:
    HostAllocator& allocator_;
    void* data_;
};

inline std::uint8_t clampByte(int v) { return static_cast<std::uint8_t>(std::clamp(v, 0, 255)); }

// Y, U and V planes into R, G and B, each pixel from its original samples.
void yuvToRgb(std::uint8_t* planes, std::uint64_t n) {
    std::uint8_t* y = planes;
    std::uint8_t* u = planes + n;
    std::uint8_t* v = planes + 2 * n;
    for (std::uint64_t i = 0; i < n; ++i) {
        const int c = y[i] - 16, d = u[i] - 128, e = v[i] - 128;
        y[i] = clampByte((298 * c + 409 * e + 128) >> 8);
        u[i] = clampByte((298 * c - 100 * d - 208 * e + 128) >> 8);
        v[i] = clampByte((298 * c + 516 * d + 128) >> 8);
    }
}

// R, G and B planes into Y, U and V in place. Each sample is written before the next is
// computed, and the later terms read the written ones (Y where R stood, U where G stood): the
// values the host receives are defined by this order.
void rgbToYuv(std::uint8_t* planes, std::uint64_t n) {
    std::uint8_t* r = planes;
    std::uint8_t* g = planes + n;
    std::uint8_t* b = planes + 2 * n;
    for (std::uint64_t i = 0; i < n; ++i) {
        r[i] = static_cast<std::uint8_t>(((66 * r[i] + 129 * g[i] + 25 * b[i] + 128) >> 8) + 16);
        g[i] = static_cast<std::uint8_t>(((-38 * r[i] - 74 * g[i] + 112 * b[i] + 128) >> 8) - 128);
        b[i] = static_cast<std::uint8_t>(((112 * r[i] - 94 * g[i] - 18 * b[i] + 128) >> 8) - 128);
    }
}

template <typename T>
void monoToYuv(const T* mono, T* out, std::uint64_t n) {
    for (std::uint64_t i = 0; i < n; ++i) {
        const std::uint64_t v = mono[i];
        if constexpr (sizeof(T) == 1)
            out[i] = static_cast<T>(((v * 220 + 128) >> 8) + 16);
        else
            out[i] = static_cast<T>(((v * 56283 + 32768) >> 16) + 4112);
    }
    std::fill(out + n, out + 3 * n, static_cast<T>(sizeof(T) == 1 ? 128 : 32896));
}

void rgbToLuma(const std::uint8_t* planes, std::uint8_t* out, std::uint64_t n) {
    for (std::uint64_t i = 0; i < n; ++i)
        out[i] = static_cast<std::uint8_t>((54 * planes[i] + 183 * planes[n + i] + 18 * planes[2 * n + i]) >> 8);
}

}  // namespace

namespace {

// Bands an array in a color space holds; 0 for a value that names no single color space.
std::uint32_t bandsOf(std::uint32_t space) {
    switch (space) {
        case COLORSPACE_MONO: return 1;
        case COLORSPACE_RGB:
        case COLORSPACE_YUV: return 3;
        default: return 0;
    }
}

}  // namespace

void LUMOFrame::getDataInColorSpace(void** result, FrameDims* outDims, std::uint32_t requested,
                                    const std::int32_t* dataType, std::uint32_t alignment, HostAllocator* allocator) {
    // A color space set by the host is honoured while it describes the bands getData writes;
    // otherwise the array holds what the format gives.
    const std::uint32_t set = getColorSpace();
    const std::uint32_t space = bandsOf(set) == getDimensions()->bands ? set : formatColorSpace;
    deliverInColorSpace(*this, *this, space, result, outDims, requested, dataType, alignment, allocator);
}

void LUMOFrame::deliverInColorSpace(IFrame& source, const LUMOFrame& holder, std::uint32_t from, void** result,
                                    FrameDims* outDims, std::uint32_t requested, const std::int32_t* dataType,
                                    std::uint32_t alignment, HostAllocator* allocator) {
    static HostAllocator plainArrays;
    HostAllocator& host = allocator != nullptr ? *allocator : plainArrays;
    if (result != nullptr) *result = nullptr;
    const FrameDims dims = *source.getDimensions();
    if (outDims != nullptr) *outDims = dims;

    // A frame without pixels gives nothing and asks nothing of the host. Every format stores at
    // least a byte a pixel, so a smaller buffer (a size that wrapped, a negative geometry) holds
    // no image either.
    const std::uint64_t n = static_cast<std::uint64_t>(dims.width) * dims.height;
    if (holder.buffer == nullptr || holder.allocatedSize < n) return;
    const std::uint32_t bits = source.getBitsPerBand();
    const std::uint64_t sampleBytes = (bits + 7) / 8;
    const std::int32_t type = source.getDataType();
    // A frame without a format of its own (a subtype outside its tables) has no samples to give.
    if (sampleBytes != elementSize(type)) return;
    HostArray data(host, sampleBytes * n * dims.bands);
    if (data.get() == nullptr) return;
    void* list[] = {data.get(), nullptr};
    source.getData(list);

    // Color conversion: the first row of the table that the request matches decides.
    const bool bytes = type == DATATYPE_UINT8;
    const bool monoType = type == DATATYPE_UINT8 || type == DATATYPE_UINT16;
    std::uint32_t bands = dims.bands;
    auto* samples = static_cast<std::uint8_t*>(data.get());
    if ((from & requested) != 0) {
        // already in a requested color space
    } else if (from == COLORSPACE_YUV && (requested & COLORSPACE_RGB)) {
        if (!bytes) return;
        yuvToRgb(samples, n);
    } else if (from == COLORSPACE_RGB && (requested & COLORSPACE_YUV)) {
        if (!bytes) return;
        rgbToYuv(samples, n);
    } else if (from == COLORSPACE_MONO && (requested & COLORSPACE_RGB)) {
        if (!monoType) return;
        HostArray rgb(host, 3 * n * sampleBytes);
        if (rgb.get() == nullptr) return;
        for (int plane = 0; plane < 3; ++plane)
            std::memcpy(static_cast<std::uint8_t*>(rgb.get()) + plane * n * sampleBytes, samples, n * sampleBytes);
        data.swap(rgb);
        bands = 3;
    } else if (from == COLORSPACE_MONO && (requested & COLORSPACE_YUV)) {
        if (!monoType) return;
        HostArray yuv(host, 3 * n * sampleBytes);
        if (yuv.get() == nullptr) return;
        if (bytes)
            monoToYuv(samples, static_cast<std::uint8_t*>(yuv.get()), n);
        else
            monoToYuv(reinterpret_cast<const std::uint16_t*>(samples), static_cast<std::uint16_t*>(yuv.get()), n);
        data.swap(yuv);
        bands = 3;
    } else if (from == COLORSPACE_MONO && requested == COLORSPACE_DEMOSAIC) {
        if (!monoType) return;
        HostArray rgb(host, 3 * n * sampleBytes);
        if (rgb.get() == nullptr) return;
        const std::pair<std::uint32_t, std::uint32_t> size{dims.height, dims.width};
        if (bytes) {
            auto* planes = static_cast<std::uint8_t*>(rgb.get());
            BayerUtil::demosaic8(samples, planes, planes + n, planes + 2 * n, n, size, alignment, bits);
        } else {
            auto* planes = static_cast<std::uint16_t*>(rgb.get());
            BayerUtil::demosaic16(reinterpret_cast<const std::uint16_t*>(samples), planes, planes + n, planes + 2 * n,
                                  n, size, alignment, bits);
        }
        data.swap(rgb);
        bands = 3;
    } else if ((from == COLORSPACE_YUV || from == COLORSPACE_RGB) && (requested & COLORSPACE_MONO)) {
        // Luma: the Y plane as it is, or computed from RGB.
        if (!bytes) return;
        HostArray luma(host, n);
        if (luma.get() == nullptr) return;
        if (from == COLORSPACE_YUV)
            std::memcpy(luma.get(), samples, n);
        else
            rgbToLuma(samples, static_cast<std::uint8_t*>(luma.get()), n);
        data.swap(luma);
        bands = 1;
    } else {
        return;
    }

    // Element type.
    if (dataType != nullptr && *dataType != type) {
        HostArray converted(host, n * bands * elementSize(*dataType));
        if (converted.get() == nullptr) return;
        if (*dataType >= 0 && *dataType <= 7 && type >= 0 && type <= 7)
            convertElements(data.get(), type, converted.get(), *dataType, n * bands, bits);
        data.swap(converted);
    }
    if (outDims != nullptr) outDims->bands = bands;
    if (result != nullptr) *result = data.handOver();
}

}  // namespace lumoframekit
