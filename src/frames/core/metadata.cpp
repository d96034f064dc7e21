#include "lumoframekit/metadata.h"

#include <cstring>
#include <memory>
#include <stdexcept>

namespace lumoframekit {

namespace {

void requireValues(const void* values, std::uint64_t count) {
    if (values == nullptr && count != 0) throw std::invalid_argument("metadata values must not be null");
}

// Copies count elements into a new array. Allocation failure propagates as std::bad_alloc
// (std::bad_array_new_length for counts beyond the address space).
template <typename T>
T* copyArray(const T* values, std::uint64_t count) {
    requireValues(values, count);
    T* copy = new T[count];
    for (std::uint64_t i = 0; i < count; ++i) copy[i] = values[i];
    return copy;
}

}  // namespace

MetaDataItem::~MetaDataItem() = default;
DoubleMetaDataItem::~DoubleMetaDataItem() = default;
TimeVectorMetaDataItem::~TimeVectorMetaDataItem() = default;
IntegerMetaDataItem::~IntegerMetaDataItem() = default;

CStrMetaDataItem::CStrMetaDataItem(const char* v) : value(nullptr) {
    requireValues(v, 1);
    const std::size_t length = std::strlen(v);
    value = new char[length + 1];
    std::memcpy(value, v, length + 1);
}

CStrMetaDataItem::~CStrMetaDataItem() { delete[] value; }

DoubleArrayMetaDataItem::DoubleArrayMetaDataItem(const double* v, std::uint64_t n)
    : values(copyArray(v, n)), count(n) {}

DoubleArrayMetaDataItem::~DoubleArrayMetaDataItem() { delete[] values; }

BooleanArrayMetaDataItem::BooleanArrayMetaDataItem(const bool* v, std::uint64_t n)
    : values(copyArray(v, n)), count(n) {}

BooleanArrayMetaDataItem::~BooleanArrayMetaDataItem() { delete[] values; }

// The whole pointer structure is allocated first, then the values are copied outermost index
// first. Arrays already made are freed when a later allocation fails.
Double2DArrayMetaDataItem::Double2DArrayMetaDataItem(const double* const* v, std::uint64_t r, std::uint64_t c)
    : values(nullptr), rows(r), cols(c) {
    requireValues(v, rows);
    auto outer = std::unique_ptr<double*[]>(new double*[rows]());
    try {
        for (std::uint64_t i = 0; i < rows; ++i) outer[i] = new double[cols];
    } catch (...) {
        for (std::uint64_t i = 0; i < rows; ++i) delete[] outer[i];
        throw;
    }
    for (std::uint64_t i = 0; i < rows; ++i) {
        if (cols != 0 && v[i] == nullptr) {
            for (std::uint64_t j = 0; j < rows; ++j) delete[] outer[j];
            throw std::invalid_argument("metadata values must not be null");
        }
        for (std::uint64_t j = 0; j < cols; ++j) outer[i][j] = v[i][j];
    }
    values = outer.release();
}

Double2DArrayMetaDataItem::~Double2DArrayMetaDataItem() {
    for (std::uint64_t i = 0; i < rows; ++i) delete[] values[i];
    delete[] values;
}

namespace {

void free3D(double*** values, std::uint64_t d1, std::uint64_t d2) {
    for (std::uint64_t i = 0; i < d1; ++i) {
        if (values[i] == nullptr) continue;
        for (std::uint64_t j = 0; j < d2; ++j) delete[] values[i][j];
        delete[] values[i];
    }
}

}  // namespace

Double3DArrayMetaDataItem::Double3DArrayMetaDataItem(const double* const* const* v, std::uint64_t n1, std::uint64_t n2,
                                                     std::uint64_t n3)
    : values(nullptr), d1(n1), d2(n2), d3(n3) {
    requireValues(v, d1);
    auto outer = std::unique_ptr<double**[]>(new double**[d1]());
    try {
        for (std::uint64_t i = 0; i < d1; ++i) {
            outer[i] = new double*[d2]();
            for (std::uint64_t j = 0; j < d2; ++j) outer[i][j] = new double[d3];
        }
        for (std::uint64_t i = 0; i < d1; ++i) {
            requireValues(v[i], d2);
            for (std::uint64_t j = 0; j < d2; ++j) {
                requireValues(v[i][j], d3);
                for (std::uint64_t k = 0; k < d3; ++k) outer[i][j][k] = v[i][j][k];
            }
        }
    } catch (...) {
        free3D(outer.get(), d1, d2);
        throw;
    }
    values = outer.release();
}

Double3DArrayMetaDataItem::~Double3DArrayMetaDataItem() {
    free3D(values, d1, d2);
    delete[] values;
}

}  // namespace lumoframekit
