#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "core/test_frame.h"

using namespace lumoframekit;
using lumotest::TestFrame;

TEST(MetaData, EveryKindIsADeepCopyReadByDynamicType) {
    TestFrame frame(1, 1, 1);
    char text[] = "exposure";
    double row0[] = {1, 2, 3}, row1[] = {4, 5, 6};
    const double* rows[] = {row0, row1};
    double a[] = {1, 2}, b[] = {3, 4}, c[] = {5, 6}, d[] = {7, 8};
    const double* plane0[] = {a, b};
    const double* plane1[] = {c, d};
    const double* const* cube[] = {plane0, plane1};
    bool flags[] = {true, false, true};

    frame.addDoubleMetaData("double", 1.5);
    frame.addTimeVectorMetaData("time", 99.25);
    frame.addCStrMetaData("text", text);
    frame.addIntegerMetaData("integer", -7);
    frame.addDoubleArrayMetaData("array", row0, 3);
    frame.addBooleanArrayMetaData("flags", flags, 3);
    frame.addDouble2DArrayMetaData("matrix", rows, 2, 3);
    frame.addDouble3DArrayMetaData("cube", cube, 2, 2, 2);
    text[0] = 'X';
    row0[0] = -1;
    a[1] = -1;
    flags[0] = false;

    EXPECT_EQ(frame.getMetaDataCount(), 8u);
    EXPECT_EQ(dynamic_cast<DoubleMetaDataItem*>(frame.getMetaData("double"))->value, 1.5);
    EXPECT_EQ(dynamic_cast<TimeVectorMetaDataItem*>(frame.getMetaData("time"))->value, 99.25);
    EXPECT_STREQ(dynamic_cast<CStrMetaDataItem*>(frame.getMetaData("text"))->value, "exposure");
    EXPECT_EQ(dynamic_cast<IntegerMetaDataItem*>(frame.getMetaData("integer"))->value, -7);
    auto* array = dynamic_cast<DoubleArrayMetaDataItem*>(frame.getMetaData("array"));
    ASSERT_EQ(array->count, 3u);
    EXPECT_EQ(array->values[0], 1);
    auto* bools = dynamic_cast<BooleanArrayMetaDataItem*>(frame.getMetaData("flags"));
    EXPECT_TRUE(bools->values[0]);
    auto* matrix = dynamic_cast<Double2DArrayMetaDataItem*>(frame.getMetaData("matrix"));
    EXPECT_EQ(matrix->rows, 2u);
    EXPECT_EQ(matrix->cols, 3u);
    EXPECT_EQ(matrix->values[0][0], 1);
    EXPECT_EQ(matrix->values[1][2], 6);
    auto* box = dynamic_cast<Double3DArrayMetaDataItem*>(frame.getMetaData("cube"));
    EXPECT_EQ(box->values[0][0][1], 2);
    EXPECT_EQ(box->values[1][1][1], 8);
    EXPECT_EQ(dynamic_cast<DoubleMetaDataItem*>(frame.getMetaData("integer")), nullptr);
}

TEST(MetaData, SameNameReplacesWhateverKindWasThere) {
    TestFrame frame(1, 1, 1);
    frame.addDoubleMetaData("gain", 2.0);
    frame.addIntegerMetaData("gain", 3);
    EXPECT_EQ(frame.getMetaDataCount(), 1u);
    auto* item = dynamic_cast<IntegerMetaDataItem*>(frame.getMetaData("gain"));
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->value, 3);
}

TEST(MetaData, NamesListInByteOrder) {
    TestFrame frame(1, 1, 1);
    for (const char* name : {"ab", "a", "B", "\xC3\xA9t\xC3\xA9", "_"}) frame.addIntegerMetaData(name, 1);
    std::vector<const char*> names(frame.getMetaDataCount());
    frame.getMetaDataNames(names.data());
    std::vector<std::string> listed(names.begin(), names.end());
    EXPECT_EQ(listed, (std::vector<std::string>{"B", "_", "a", "ab", "\xC3\xA9t\xC3\xA9"}));
}

TEST(MetaData, NullNamesAndUnknownNames) {
    TestFrame frame(1, 1, 1);
    EXPECT_EQ(frame.getMetaData("missing"), nullptr);
    try {
        frame.addDoubleMetaData(nullptr, 1.0);
        FAIL() << "a null name was accepted";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string: construction from null is not valid");
    }
    EXPECT_THROW(frame.getMetaData(nullptr), std::logic_error);
    EXPECT_EQ(frame.getMetaDataCount(), 0u);
}

TEST(MetaData, EmptyArraysAndRefusedValues) {
    TestFrame frame(1, 1, 1);
    frame.addDoubleArrayMetaData("none", nullptr, 0);
    EXPECT_EQ(dynamic_cast<DoubleArrayMetaDataItem*>(frame.getMetaData("none"))->count, 0u);
    frame.addDouble2DArrayMetaData("flat", nullptr, 0, 4);
    EXPECT_EQ(dynamic_cast<Double2DArrayMetaDataItem*>(frame.getMetaData("flat"))->rows, 0u);
    EXPECT_THROW(frame.addCStrMetaData("text", nullptr), std::invalid_argument);
    EXPECT_THROW(frame.addDoubleArrayMetaData("array", nullptr, 2), std::invalid_argument);
    const double* holes[] = {nullptr};
    EXPECT_THROW(frame.addDouble2DArrayMetaData("matrix", holes, 1, 2), std::invalid_argument);
    const double* const* planes[] = {holes};
    EXPECT_THROW(frame.addDouble3DArrayMetaData("cube", planes, 1, 1, 2), std::invalid_argument);
    EXPECT_THROW(frame.addDoubleArrayMetaData("huge", nullptr, 1ull << 60), std::invalid_argument);
    double one = 1;
    EXPECT_THROW(frame.addDoubleArrayMetaData("huge", &one, 1ull << 60), std::bad_array_new_length);
    EXPECT_EQ(frame.getMetaDataCount(), 2u);
}
