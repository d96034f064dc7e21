// The Python module: frames, pools and limiters with numpy arrays in and out. The host's
// column-major planes are numpy's Fortran order for shape (height, width, bands), so arrays are
// handed over without a copy.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <lumoframekit/lumoframekit.h>

namespace py = pybind11;
using namespace lumoframekit;

namespace {

const std::pair<const char*, frametypes::FRAMETYPE> kFrameTypeNames[] = {
#include "frame_type_names.inc"
};

py::dtype dtypeOf(std::int32_t dataType) {
    static const char* names[8] = {"uint8", "int8", "uint16", "int16", "uint32", "int32", "float32", "float64"};
    return py::dtype(dataType >= 0 && dataType < 8 ? names[dataType] : "uint8");
}

// The DataType code of a numpy dtype, or -1.
std::int32_t dataTypeOf(const py::dtype& dtype) {
    for (std::int32_t code = 0; code < 8; ++code)
        if (dtypeOf(code).equal(dtype)) return code;
    return -1;
}

// Hands getDataInColorSpace numpy arrays as its memory: the result becomes the array itself.
class NumpyAllocator : public HostAllocator {
public:
    void* allocate(std::uint64_t bytes) override {
        py::gil_scoped_acquire gil;
        py::array_t<std::uint8_t> array(static_cast<py::ssize_t>(bytes));
        void* data = array.mutable_data();
        arrays_.emplace(data, std::move(array));
        return data;
    }
    void release(void* data) override {
        py::gil_scoped_acquire gil;
        arrays_.erase(data);
    }
    // The array behind data, given up by the allocator.
    py::array_t<std::uint8_t> take(void* data) {
        auto found = arrays_.find(data);
        py::array_t<std::uint8_t> array = std::move(found->second);
        arrays_.erase(found);
        return array;
    }
    ~NumpyAllocator() override {
        py::gil_scoped_acquire gil;
        arrays_.clear();
    }

private:
    std::map<void*, py::array_t<std::uint8_t>> arrays_;
};

class PyFramePool;

// A frame held by Python: one reference on the frame while the object lives (or until it is
// released), and the owners the frame depends on (its pool and limiter) kept alive. Conversions
// run without the interpreter lock under a shared lock; release and writes take it alone.
class PyFrame {
public:
    PyFrame(IFrame* frame, py::object owner) : frame_(frame), owner_(std::move(owner)) { frame_->incRefCount(); }
    ~PyFrame() { dropFrame(); }

    // Releases the frame (back to its pool, or deleted); later use raises ValueError.
    void release() {
        py::gil_scoped_release unlocked;
        std::unique_lock lock(mutex_);
        dropFrame();
    }

    IFrame& frame() const {
        if (frame_ == nullptr) throw py::value_error("the frame has been released");
        return *frame_;
    }
    std::shared_mutex& mutex() { return mutex_; }

    const FrameDims& dims() const { return *frame().getDimensions(); }
    py::tuple shape() const { return py::make_tuple(dims().height, dims().width, dims().bands); }

    // A writable view of the frame's buffer that keeps this object alive.
    py::object bufferView(py::object self) {
        IFrame& f = frame();
        if (!f.isBufferAllocated()) return py::none();
        py::array_t<std::uint8_t> array({static_cast<py::ssize_t>(f.getBufferSize())}, {1}, f.allocateBuffer(), self);
        return py::memoryview(array);
    }

    py::object allocate(py::object self) {
        {
            std::unique_lock lock(mutex_);
            if (frame().allocateBuffer() == nullptr) refused();
        }
        return bufferView(self);
    }

    void setBuffer(const py::buffer& source) {
        const py::buffer_info info = source.request();
        const std::size_t bytes = static_cast<std::size_t>(info.size * info.itemsize);
        std::unique_lock lock(mutex_);
        IFrame& f = frame();
        if (!isContiguous(info)) throw py::value_error("set_buffer needs a contiguous buffer");
        if (bytes != f.getBufferSize())
            throw py::value_error("the buffer holds " + std::to_string(bytes) + " bytes; the frame needs " +
                                  std::to_string(f.getBufferSize()));
        std::uint8_t* target = f.allocateBuffer();
        if (target == nullptr) refused();
        py::gil_scoped_release unlocked;
        std::memcpy(target, info.ptr, bytes);
    }

    void copyRegion(const py::buffer& source, std::uint32_t srcWidth, std::uint32_t srcHeight, std::uint32_t x,
                    std::uint32_t y) {
        const py::buffer_info info = source.request();
        const std::size_t bytes = static_cast<std::size_t>(info.size * info.itemsize);
        std::unique_lock lock(mutex_);
        IFrame& f = frame();
        if (!isContiguous(info)) throw py::value_error("copy_region needs a contiguous buffer");
        // The source is read as a whole image of this frame's layout at its own size.
        std::unique_ptr<IFrame> probe(frameFactory(static_cast<frametypes::FRAMETYPE>(f.getFrameType()),
                                                   static_cast<std::int32_t>(srcWidth),
                                                   static_cast<std::int32_t>(srcHeight)));
        const std::uint64_t needed = probe ? probe->getBufferSize() : 0;
        if (probe == nullptr || srcWidth > 0x7FFFFFFFu || srcHeight > 0x7FFFFFFFu || bytes < needed)
            throw py::value_error("a " + std::to_string(srcWidth) + "x" + std::to_string(srcHeight) +
                                  " source of this format holds " + std::to_string(needed) + " bytes; the buffer has " +
                                  std::to_string(bytes));
        std::uint8_t* written;
        {
            py::gil_scoped_release unlocked;
            written = f.copyRegionToBuffer(static_cast<const std::uint8_t*>(info.ptr), srcWidth, srcHeight, x, y);
        }
        if (written == nullptr) {
            if (!f.isBufferAllocated()) refused();
            throw py::value_error("the region lies outside the source");
        }
    }

    py::array getData(py::object out) {
        std::shared_lock lock(mutex_, std::defer_lock);
        {
            py::gil_scoped_release unlocked;
            lock.lock();
        }
        IFrame& f = frame();
        if (!f.isBufferAllocated()) throw py::value_error("the frame holds no pixels");
        const py::dtype dtype = dtypeOf(f.getDataType());
        const FrameDims& d = dims();
        const std::vector<py::ssize_t> extent{d.height, d.width, d.bands};
        py::array array;
        if (out.is_none()) {
            array = py::array(dtype, extent, fortranStrides(dtype.itemsize()));
        } else {
            if (py::isinstance<py::array>(out)) array = py::reinterpret_borrow<py::array>(out);
            if (!array || !array.dtype().equal(dtype) || array.ndim() != 3 || array.shape(0) != extent[0] ||
                array.shape(1) != extent[1] || array.shape(2) != extent[2] || !(array.flags() & py::array::f_style) ||
                !array.writeable())
                throw py::value_error("out must be a writable Fortran-ordered array of shape " +
                                      py::repr(shape()).cast<std::string>() + " and dtype " +
                                      dtype.attr("name").cast<std::string>());
        }
        void* dest[] = {array.mutable_data(), nullptr};
        {
            py::gil_scoped_release unlocked;
            f.getData(dest);
        }
        return array;
    }

    py::object getDataInColorSpace(std::uint32_t colorSpace, py::object dtype, std::uint32_t pattern) {
        std::int32_t type = 0;
        const std::int32_t* wanted = nullptr;
        if (!dtype.is_none()) {
            type = dataTypeOf(py::dtype::from_args(dtype));
            if (type < 0)
                throw py::value_error(
                    "dtype must be one of uint8, int8, uint16, int16, uint32, int32, float32, float64");
            wanted = &type;
        }
        std::shared_lock lock(mutex_, std::defer_lock);
        NumpyAllocator allocator;
        void* result = nullptr;
        FrameDims dims{};
        {
            py::gil_scoped_release unlocked;
            lock.lock();
            frame().getDataInColorSpace(&result, &dims, colorSpace, wanted, pattern, &allocator);
        }
        if (result == nullptr) return py::none();
        const py::dtype resultType = dtypeOf(wanted != nullptr ? type : frame().getDataType());
        // Planes back to back, each column-major: as C order that is (bands, width, height), whose
        // transpose is the Fortran-ordered (height, width, bands).
        py::array flat = allocator.take(result);
        return flat.attr("view")(resultType)
            .attr("reshape")(py::make_tuple(dims.bands, dims.width, dims.height))
            .attr("T");
    }

private:
    static bool isContiguous(const py::buffer_info& info) {
        py::ssize_t expected = info.itemsize;
        for (py::ssize_t d = info.ndim - 1; d >= 0; --d) {
            if (info.shape[d] != 1 && info.strides[d] != expected) return false;
            expected *= info.shape[d];
        }
        return true;
    }
    [[noreturn]] static void refused() {
        PyErr_SetString(PyExc_MemoryError, "the memory limiter refused the frame's buffer");
        throw py::error_already_set();
    }
    std::vector<py::ssize_t> fortranStrides(py::ssize_t itemsize) const {
        const FrameDims& d = dims();
        return {itemsize, itemsize * static_cast<py::ssize_t>(d.height),
                itemsize * static_cast<py::ssize_t>(d.height) * d.width};
    }
    void dropFrame() {
        if (frame_ != nullptr) std::exchange(frame_, nullptr)->decRefCount();
    }

    IFrame* frame_;
    py::object owner_;
    std::shared_mutex mutex_;
};

// A pool and the limiter it charges, kept alive while the pool or its frames live.
class PyFramePool {
public:
    explicit PyFramePool(py::object limiter)
        : limiter_(std::move(limiter)),
          pool_(createFramePool(limiter_.is_none() ? nullptr : limiter_.cast<IMemoryLimiter*>())) {}
    ~PyFramePool() { destroy(); }

    FramePool& pool() const {
        if (pool_ == nullptr) throw py::value_error("the pool has been destroyed");
        return *pool_;
    }
    void destroy() {
        if (pool_ == nullptr) return;
        py::gil_scoped_release unlocked;
        std::exchange(pool_, nullptr)->destroy();
    }
    const py::object& limiter() const { return limiter_; }

private:
    py::object limiter_;
    FramePool* pool_;
};

// Metadata items as Python values: numbers, strings, and numpy arrays for the array kinds.
py::object itemValue(const MetaDataItem* item) {
    if (auto* d = dynamic_cast<const DoubleMetaDataItem*>(item)) return py::float_(d->value);
    if (auto* t = dynamic_cast<const TimeVectorMetaDataItem*>(item)) return py::float_(t->value);
    if (auto* s = dynamic_cast<const CStrMetaDataItem*>(item)) return py::str(s->value);
    if (auto* i = dynamic_cast<const IntegerMetaDataItem*>(item)) return py::int_(i->value);
    if (auto* a = dynamic_cast<const DoubleArrayMetaDataItem*>(item))
        return py::array_t<double>(static_cast<py::ssize_t>(a->count), a->values);
    if (auto* b = dynamic_cast<const BooleanArrayMetaDataItem*>(item))
        return py::array_t<bool>(static_cast<py::ssize_t>(b->count), b->values);
    if (auto* m = dynamic_cast<const Double2DArrayMetaDataItem*>(item)) {
        py::array_t<double> out({static_cast<py::ssize_t>(m->rows), static_cast<py::ssize_t>(m->cols)});
        for (std::uint64_t r = 0; r < m->rows; ++r)
            for (std::uint64_t c = 0; c < m->cols; ++c) out.mutable_at(r, c) = m->values[r][c];
        return out;
    }
    if (auto* c3 = dynamic_cast<const Double3DArrayMetaDataItem*>(item)) {
        py::array_t<double> out(
            {static_cast<py::ssize_t>(c3->d1), static_cast<py::ssize_t>(c3->d2), static_cast<py::ssize_t>(c3->d3)});
        for (std::uint64_t i = 0; i < c3->d1; ++i)
            for (std::uint64_t j = 0; j < c3->d2; ++j)
                for (std::uint64_t k = 0; k < c3->d3; ++k) out.mutable_at(i, j, k) = c3->values[i][j][k];
        return out;
    }
    return py::none();
}

// Stores value under name as the item kind its type calls for, or as `kind` when given: "double",
// "time", "string", "integer", "double_array", "bool_array", "double_2d", "double_3d".
void addMetadata(PyFrame& self, const std::string& name, py::object value, std::string kind) {
    std::unique_lock lock(self.mutex());
    IFrame& f = self.frame();
    if (kind.empty()) {
        if (py::isinstance<py::bool_>(value) || py::isinstance<py::int_>(value))
            kind = "integer";
        else if (py::isinstance<py::float_>(value))
            kind = "double";
        else if (py::isinstance<py::str>(value))
            kind = "string";
        else {
            py::array array = py::array::ensure(value);
            if (!array) throw py::type_error("metadata values are numbers, strings or arrays");
            if (array.dtype().kind() == 'b')
                kind = "bool_array";
            else
                kind = array.ndim() <= 1 ? "double_array" : array.ndim() == 2 ? "double_2d" : "double_3d";
        }
    }
    if (kind == "integer") return f.addIntegerMetaData(name.c_str(), value.cast<std::int64_t>());
    if (kind == "double") return f.addDoubleMetaData(name.c_str(), value.cast<double>());
    if (kind == "time") return f.addTimeVectorMetaData(name.c_str(), value.cast<double>());
    if (kind == "string") return f.addCStrMetaData(name.c_str(), value.cast<std::string>().c_str());
    if (kind == "bool_array") {
        auto a = py::array_t<bool, py::array::c_style | py::array::forcecast>::ensure(value);
        if (!a || a.ndim() > 1) throw py::value_error("a bool array has one dimension");
        return f.addBooleanArrayMetaData(name.c_str(), a.data(), static_cast<std::uint64_t>(a.size()));
    }
    auto a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(value);
    if (!a) throw py::type_error("metadata arrays hold numbers");
    if (kind == "double_array" && a.ndim() <= 1)
        return f.addDoubleArrayMetaData(name.c_str(), a.data(), static_cast<std::uint64_t>(a.size()));
    if (kind == "double_2d" && a.ndim() == 2) {
        std::vector<const double*> rows(static_cast<std::size_t>(a.shape(0)));
        for (std::size_t r = 0; r < rows.size(); ++r) rows[r] = a.data(static_cast<py::ssize_t>(r), 0);
        return f.addDouble2DArrayMetaData(name.c_str(), rows.data(), rows.size(),
                                          static_cast<std::uint64_t>(a.shape(1)));
    }
    if (kind == "double_3d" && a.ndim() == 3) {
        const auto d1 = static_cast<std::size_t>(a.shape(0)), d2 = static_cast<std::size_t>(a.shape(1));
        std::vector<const double*> rows(d1 * d2);
        std::vector<const double* const*> planes(d1);
        for (std::size_t i = 0; i < d1; ++i) {
            for (std::size_t j = 0; j < d2; ++j)
                rows[i * d2 + j] = a.data(static_cast<py::ssize_t>(i), static_cast<py::ssize_t>(j), 0);
            planes[i] = rows.data() + i * d2;
        }
        return f.addDouble3DArrayMetaData(name.c_str(), planes.data(), d1, d2, static_cast<std::uint64_t>(a.shape(2)));
    }
    throw py::value_error("unknown metadata kind '" + kind + "' for this value");
}

std::vector<std::string> metadataNames(PyFrame& self) {
    std::shared_lock lock(self.mutex());
    IFrame& f = self.frame();
    std::vector<const char*> names(static_cast<std::size_t>(f.getMetaDataCount()));
    f.getMetaDataNames(names.data());
    return {names.begin(), names.end()};
}

// frame.metadata: a mapping view of the frame's items.
struct Metadata {
    py::object owner;  // the Python frame
    PyFrame& frame() const { return owner.cast<PyFrame&>(); }
};

}  // namespace

PYBIND11_MODULE(lumoframekit, m) {
    m.doc() = "Camera frames held in memory and turned into numpy arrays.";
    m.attr("__version__") = versionString();

    static py::exception<rigutil::RGException*> error(m, "Error", PyExc_RuntimeError);
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(thrown);
        } catch (rigutil::RGException* e) {
            const std::string message = std::string(e->getIdentifier()) + ": " + e->getMessage();
            delete e;
            PyErr_SetString(error.ptr(), message.c_str());
        }
    });

    m.attr("COLORSPACE_MONO") = static_cast<std::uint32_t>(COLORSPACE_MONO);
    m.attr("COLORSPACE_RGB") = static_cast<std::uint32_t>(COLORSPACE_RGB);
    m.attr("COLORSPACE_YUV") = static_cast<std::uint32_t>(COLORSPACE_YUV);
    m.attr("COLORSPACE_DEMOSAIC") = static_cast<std::uint32_t>(COLORSPACE_DEMOSAIC);

    py::dict codes;
    for (const auto& [name, code] : kFrameTypeNames) codes[name] = static_cast<std::uint32_t>(code);
    m.attr("FrameType") =
        py::module_::import("enum").attr("IntEnum")("FrameType", codes, py::arg("module") = "lumoframekit");

    m.def(
        "frame_type_from_pixel_format",
        [](py::object format) -> py::object {
            const frametypes::FRAMETYPE code = py::isinstance<py::str>(format)
                                                   ? frameTypeFromPixelFormatName(format.cast<std::string>().c_str())
                                                   : frameTypeFromPixelFormat(format.cast<std::uint32_t>());
            if (code == 0) return py::int_(0);
            return py::module_::import("lumoframekit").attr("FrameType")(static_cast<std::uint32_t>(code));
        },
        py::arg("value_or_name"), "The frame type reproducing a standard camera pixel format (value or name), or 0.");
    m.def(
        "pixel_format_name",
        [](std::uint32_t code) -> py::object {
            const char* name = pixelFormatName(static_cast<frametypes::FRAMETYPE>(code));
            return name != nullptr ? py::object(py::str(name)) : py::none();
        },
        py::arg("frame_type"));

    py::class_<IMemoryLimiter>(m, "MemoryLimiterBase")
        .def_property_readonly("used", &IMemoryLimiter::getMemoryUsed)
        .def_property("limit", &IMemoryLimiter::getMemoryLimit, &IMemoryLimiter::setMemoryLimit)
        .def("reset", &IMemoryLimiter::reset);
    py::class_<MemoryLimiter, IMemoryLimiter>(m, "MemoryLimiter")
        .def(py::init([](std::uint64_t limit) { return new MemoryLimiter(0, limit); }), py::arg("limit"));
    py::class_<PhysicalMemoryMemoryLimiter, IMemoryLimiter>(m, "PhysicalMemoryMemoryLimiter")
        .def(py::init<std::uint64_t>(), py::arg("percent"));

    py::class_<Metadata>(m, "Metadata")
        .def("__getitem__",
             [](const Metadata& md, const std::string& name) {
                 std::shared_lock lock(md.frame().mutex());
                 const MetaDataItem* item = md.frame().frame().getMetaData(name.c_str());
                 if (item == nullptr) throw py::key_error(name);
                 return itemValue(item);
             })
        .def("__setitem__", [](const Metadata& md, const std::string& name,
                               py::object value) { addMetadata(md.frame(), name, std::move(value), ""); })
        .def("__contains__",
             [](const Metadata& md, const std::string& name) {
                 std::shared_lock lock(md.frame().mutex());
                 return md.frame().frame().getMetaData(name.c_str()) != nullptr;
             })
        .def("__len__", [](const Metadata& md) { return metadataNames(md.frame()).size(); })
        .def("__iter__", [](const Metadata& md) { return py::iter(py::cast(metadataNames(md.frame()))); })
        .def("keys", [](const Metadata& md) { return metadataNames(md.frame()); })
        .def("items", [](const Metadata& md) {
            py::list out;
            for (const std::string& name : metadataNames(md.frame()))
                out.append(py::make_tuple(name, itemValue(md.frame().frame().getMetaData(name.c_str()))));
            return out;
        });

    py::class_<PyFrame>(m, "Frame")
        .def_property_readonly("width", [](const PyFrame& f) { return f.dims().width; })
        .def_property_readonly("height", [](const PyFrame& f) { return f.dims().height; })
        .def_property_readonly("bands", [](const PyFrame& f) { return f.dims().bands; })
        .def_property_readonly("shape", &PyFrame::shape)
        .def_property_readonly("dtype", [](const PyFrame& f) { return dtypeOf(f.frame().getDataType()); })
        .def_property_readonly("bits_per_band", [](const PyFrame& f) { return f.frame().getBitsPerBand(); })
        .def_property(
            "color_space", [](const PyFrame& f) { return f.frame().getColorSpace(); },
            [](PyFrame& f, std::uint32_t space) {
                std::unique_lock lock(f.mutex());
                f.frame().setColorSpace(space);
            })
        .def_property_readonly("frame_type",
                               [](const PyFrame& f) {
                                   const std::uint32_t code = f.frame().getFrameType();
                                   py::object enumType = py::module_::import("lumoframekit").attr("FrameType");
                                   return enumType.attr("_value2member_map_").contains(py::int_(code))
                                              ? enumType(code)
                                              : py::object(py::int_(code));
                               })
        .def_property_readonly("buffer_size", [](const PyFrame& f) { return f.frame().getBufferSize(); })
        .def_property(
            "timestamp", [](const PyFrame& f) { return f.frame().getTimeStamp(); },
            [](PyFrame& f, double t) {
                std::unique_lock lock(f.mutex());
                f.frame().setTimeStamp(t);
            })
        .def_property_readonly("buffer", [](py::object self) { return self.cast<PyFrame&>().bufferView(self); })
        .def("allocate_buffer", [](py::object self) { return self.cast<PyFrame&>().allocate(self); })
        .def("set_buffer", &PyFrame::setBuffer, py::arg("data"))
        .def("copy_region", &PyFrame::copyRegion, py::arg("src"), py::arg("src_width"), py::arg("src_height"),
             py::arg("x"), py::arg("y"))
        .def("get_data", &PyFrame::getData, py::arg("out") = py::none())
        .def("get_data_in_color_space", &PyFrame::getDataInColorSpace, py::arg("color_space"),
             py::arg("dtype") = py::none(), py::arg("pattern") = 0)
        .def_property_readonly("metadata", [](py::object self) { return Metadata{self}; })
        .def("add_metadata", &addMetadata, py::arg("name"), py::arg("value"), py::arg("kind") = "")
        .def("release", &PyFrame::release)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](PyFrame& f, py::args) { f.release(); });

    m.def(
        "frame_factory",
        [](std::uint32_t code, std::int32_t width, std::int32_t height) {
            IFrame* frame = nullptr;
            try {
                frame = frameFactory(static_cast<frametypes::FRAMETYPE>(code), width, height);
            } catch (const std::invalid_argument& e) {
                throw py::value_error(e.what());
            }
            if (frame == nullptr)
                throw py::value_error("frame type " + std::to_string(code) + " is not one the factory makes");
            return std::make_unique<PyFrame>(frame, py::none());
        },
        py::arg("code"), py::arg("width"), py::arg("height"));

    py::class_<PyFramePool>(m, "FramePool")
        .def(
            "get_frame",
            [](py::object self, std::uint32_t code, std::int32_t width, std::int32_t height) {
                FramePool& pool = self.cast<PyFramePool&>().pool();
                IFrame* frame;
                {
                    py::gil_scoped_release unlocked;
                    frame = pool.getFrame(code, width, height);
                }
                if (frame == nullptr)
                    throw py::value_error("frame type " + std::to_string(code) + " is not one the factory makes");
                return std::make_unique<PyFrame>(frame, self);
            },
            py::arg("code"), py::arg("width"), py::arg("height"))
        .def_property_readonly("free_frame_count", [](const PyFramePool& p) { return p.pool().getFreeFrameCount(); })
        .def_property_readonly("limiter", &PyFramePool::limiter)
        .def(
            "start_reserver",
            [](PyFramePool& p, std::uint64_t minFree, std::uint64_t maxFree) {
                if (minFree > maxFree) throw py::value_error("min_free is above max_free");
                FramePool& pool = p.pool();
                py::gil_scoped_release unlocked;
                pool.startReserver(minFree, maxFree);
            },
            py::arg("min_free"), py::arg("max_free"))
        .def("stop_reserver",
             [](PyFramePool& p) {
                 FramePool& pool = p.pool();
                 py::gil_scoped_release unlocked;
                 pool.stopReserver();
             })
        .def("clear",
             [](PyFramePool& p) {
                 FramePool& pool = p.pool();
                 py::gil_scoped_release unlocked;
                 pool.clear();
             })
        .def("destroy", &PyFramePool::destroy)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](PyFramePool& p, py::args) { p.destroy(); });

    m.def(
        "create_frame_pool",
        [](py::object limiter) {
            if (!limiter.is_none() && !py::isinstance<IMemoryLimiter>(limiter))
                throw py::type_error("the limiter must be a MemoryLimiter or PhysicalMemoryMemoryLimiter");
            return std::make_unique<PyFramePool>(std::move(limiter));
        },
        py::arg("limiter") = py::none());
}
