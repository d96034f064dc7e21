#pragma once
#include <cstdint>

#include "lumoframekit/export.h"

namespace lumoframekit {

// A named value attached to a frame. The frame owns its items; the host tells the kinds apart by
// dynamic type (dynamic_cast) and reads their public fields. Every item holds a deep copy of what
// it was given.
class LUMOFRAMEKIT_API MetaDataItem {
public:
    MetaDataItem() = default;
    MetaDataItem(const MetaDataItem&) = delete;
    MetaDataItem& operator=(const MetaDataItem&) = delete;
    virtual ~MetaDataItem();
};

class LUMOFRAMEKIT_API DoubleMetaDataItem : public MetaDataItem {
public:
    explicit DoubleMetaDataItem(double v) : value(v) {}
    ~DoubleMetaDataItem() override;
    double value;
};

// A single time value, not a vector, whatever the name suggests.
class LUMOFRAMEKIT_API TimeVectorMetaDataItem : public MetaDataItem {
public:
    explicit TimeVectorMetaDataItem(double v) : value(v) {}
    ~TimeVectorMetaDataItem() override;
    double value;
};

// A NUL-terminated copy of the string.
class LUMOFRAMEKIT_API CStrMetaDataItem : public MetaDataItem {
public:
    explicit CStrMetaDataItem(const char* v);
    ~CStrMetaDataItem() override;
    char* value;
};

class LUMOFRAMEKIT_API IntegerMetaDataItem : public MetaDataItem {
public:
    explicit IntegerMetaDataItem(std::int64_t v) : value(v) {}
    ~IntegerMetaDataItem() override;
    std::int64_t value;
};

class LUMOFRAMEKIT_API DoubleArrayMetaDataItem : public MetaDataItem {
public:
    DoubleArrayMetaDataItem(const double* v, std::uint64_t n);
    ~DoubleArrayMetaDataItem() override;
    double* values;
    std::uint64_t count;
};

// One byte per flag.
class LUMOFRAMEKIT_API BooleanArrayMetaDataItem : public MetaDataItem {
public:
    BooleanArrayMetaDataItem(const bool* v, std::uint64_t n);
    ~BooleanArrayMetaDataItem() override;
    bool* values;
    std::uint64_t count;
};

// values[row][col]: an array of rows pointers, each to cols doubles.
class LUMOFRAMEKIT_API Double2DArrayMetaDataItem : public MetaDataItem {
public:
    Double2DArrayMetaDataItem(const double* const* v, std::uint64_t rows, std::uint64_t cols);
    ~Double2DArrayMetaDataItem() override;
    double** values;
    std::uint64_t rows;
    std::uint64_t cols;
};

// values[i][j][k] with extents d1, d2, d3.
class LUMOFRAMEKIT_API Double3DArrayMetaDataItem : public MetaDataItem {
public:
    Double3DArrayMetaDataItem(const double* const* const* v, std::uint64_t d1, std::uint64_t d2, std::uint64_t d3);
    ~Double3DArrayMetaDataItem() override;
    double*** values;
    std::uint64_t d1;
    std::uint64_t d2;
    std::uint64_t d3;
};

}  // namespace lumoframekit
