#include "genicam_host.h"

#include <arv.h>

#include <cstring>
#include <utility>

namespace camerahost {

using namespace lumoframekit;

Planes::Planes(void* data, const FrameDims& dims, std::int32_t dataType, std::uint32_t bits, HostAllocator* allocator)
    : data_(data), dims_(dims), dataType_(dataType), bits_(bits), allocator_(allocator) {}

Planes::Planes(Planes&& other) noexcept { *this = std::move(other); }

Planes& Planes::operator=(Planes&& other) noexcept {
    if (this != &other) {
        if (data_ != nullptr) allocator_->release(data_);
        data_ = std::exchange(other.data_, nullptr);
        dims_ = other.dims_;
        dataType_ = other.dataType_;
        bits_ = other.bits_;
        allocator_ = other.allocator_;
    }
    return *this;
}

Planes::~Planes() {
    if (data_ != nullptr) allocator_->release(data_);
}

std::size_t Planes::bytes() const {
    static const std::size_t sizes[8] = {1, 1, 2, 2, 4, 4, 4, 8};
    return std::size_t{dims_.width} * dims_.height * dims_.bands * sizes[dataType_ & 7];
}

FrameSink::FrameSink(std::uint64_t memoryLimit, std::uint64_t minFree, std::uint64_t maxFree)
    : limiter_(0, memoryLimit), pool_(createFramePool(&limiter_)), maxFree_(maxFree) {
    try {
        pool_->startReserver(minFree, maxFree);
    } catch (...) {
        pool_->destroy();
        throw;
    }
}

FrameSink::~FrameSink() { pool_->destroy(); }

std::uint32_t FrameSink::defaultView(frametypes::FRAMETYPE code) {
    return getFrameTypeColorSpace(code) == COLORSPACE_MONO ? COLORSPACE_MONO : COLORSPACE_RGB;
}

Outcome FrameSink::take(const CameraBuffer& buffer, Planes& planes, std::uint32_t colorSpace) {
    planes = Planes();
    const frametypes::FRAMETYPE code = frameTypeFromPixelFormat(buffer.pixelFormat);
    if (code == 0) return Outcome::UnknownFormat;
    IFrame* frame = pool_->getFrame(code, buffer.width, buffer.height);
    if (frame == nullptr) return Outcome::UnknownFormat;
    frame->incRefCount();
    Outcome outcome = Outcome::NotConverted;
    std::uint8_t* target = frame->allocateBuffer();
    if (target == nullptr) {
        outcome = Outcome::Refused;
    } else if (buffer.size < frame->getBufferSize()) {
        outcome = Outcome::ShortBuffer;
    } else {
        std::memcpy(target, buffer.data, frame->getBufferSize());
        void* data = nullptr;
        FrameDims dims{};
        frame->getDataInColorSpace(&data, &dims, colorSpace != 0 ? colorSpace : defaultView(code), nullptr, 0,
                                   &allocator_);
        if (data != nullptr) {
            planes = Planes(data, dims, frame->getDataType(), frame->getBitsPerBand(), &allocator_);
            outcome = Outcome::Converted;
        }
    }
    frame->decRefCount();
    return outcome;
}

namespace {

ArvCamera* arv(void* camera) { return static_cast<ArvCamera*>(camera); }

// The message of a GLib error, which it clears; empty when there was none.
std::string take(GError*& error) {
    std::string message = error != nullptr ? error->message : "";
    g_clear_error(&error);
    return message;
}

}  // namespace

std::unique_ptr<Camera> Camera::open(const std::string& id, bool simulated, std::string& error) {
    // The simulated camera alone: the other interfaces, which look for cameras on the network
    // and the bus, stay out of it.
    if (simulated) {
        arv_enable_interface("Fake");
        for (unsigned i = 0; i < arv_get_n_interfaces(); ++i)
            if (std::strcmp(arv_get_interface_id(i), "Fake") != 0) arv_disable_interface(arv_get_interface_id(i));
    }
    arv_update_device_list();
    std::string wanted = id;
    if (wanted.empty()) {
        if (arv_get_n_devices() == 0) {
            error = "no GenICam camera found";
            return nullptr;
        }
        wanted = arv_get_device_id(0);
    }
    GError* failure = nullptr;
    ArvCamera* camera = arv_camera_new(wanted.c_str(), &failure);
    if (camera == nullptr) {
        error = "cannot open camera '" + wanted + "': " + take(failure);
        return nullptr;
    }
    return std::unique_ptr<Camera>(new Camera(camera, wanted));
}

Camera::~Camera() { g_object_unref(arv(camera_)); }

std::vector<Camera::Format> Camera::pixelFormats() const {
    GError* failure = nullptr;
    guint count = 0, valueCount = 0;
    const char** names = arv_camera_dup_available_pixel_formats_as_strings(arv(camera_), &count, &failure);
    take(failure);
    gint64* values = arv_camera_dup_available_pixel_formats(arv(camera_), &valueCount, &failure);
    take(failure);
    std::vector<Format> formats;
    for (guint i = 0; names != nullptr && values != nullptr && i < count && i < valueCount; ++i)
        formats.push_back({names[i], static_cast<std::uint32_t>(values[i])});
    g_free(names);
    g_free(values);
    return formats;
}

bool Camera::setPixelFormat(const std::string& name, std::string& error) {
    GError* failure = nullptr;
    arv_camera_set_pixel_format_from_string(arv(camera_), name.c_str(), &failure);
    error = take(failure);
    return error.empty();
}

void Camera::setFrameRate(double rate) {
    GError* failure = nullptr;
    arv_camera_set_frame_rate(arv(camera_), rate, &failure);
    take(failure);
}

bool Camera::acquire(int count, const std::function<void(const CameraBuffer&)>& deliver, Stats& stats,
                     std::string& error) {
    GError* failure = nullptr;
    const guint payload = arv_camera_get_payload(arv(camera_), &failure);
    ArvStream* stream =
        failure == nullptr ? arv_camera_create_stream(arv(camera_), nullptr, nullptr, &failure) : nullptr;
    if (stream == nullptr) {
        error = "cannot open a stream: " + take(failure);
        return false;
    }
    for (int i = 0; i < 8; ++i) arv_stream_push_buffer(stream, arv_buffer_new(payload, nullptr));
    arv_camera_set_acquisition_mode(arv(camera_), ARV_ACQUISITION_MODE_CONTINUOUS, &failure);
    take(failure);
    arv_camera_start_acquisition(arv(camera_), &failure);
    if ((error = take(failure)).empty()) {
        int failedInARow = 0;
        while (stats.delivered < count && failedInARow < count) {
            ArvBuffer* buffer = arv_stream_timeout_pop_buffer(stream, 2000000);
            if (buffer == nullptr || arv_buffer_get_status(buffer) != ARV_BUFFER_STATUS_SUCCESS) {
                ++stats.failed;
                ++failedInARow;
                if (buffer != nullptr) arv_stream_push_buffer(stream, buffer);
                continue;
            }
            failedInARow = 0;
            std::size_t size = 0;
            const void* data = arv_buffer_get_image_data(buffer, &size);
            deliver({static_cast<std::uint32_t>(arv_buffer_get_image_pixel_format(buffer)),
                     arv_buffer_get_image_width(buffer), arv_buffer_get_image_height(buffer), data, size});
            ++stats.delivered;
            arv_stream_push_buffer(stream, buffer);
        }
        arv_camera_stop_acquisition(arv(camera_), &failure);
        take(failure);
        if (stats.delivered < count) error = "the camera stopped delivering complete buffers";
    }
    g_object_unref(stream);
    return error.empty();
}

}  // namespace camerahost
