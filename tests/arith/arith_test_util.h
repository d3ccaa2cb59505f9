// Shape builders and refusal expectations shared by the arithmetic tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "zel_utils.h"

namespace arithtest {

using arv::nnhal::OperandType;
using arv::nnhal::zel::Shape;

inline Shape shapeOf(OperandType type, std::vector<uint32_t> dims, float scale = 0.0f, int32_t offset = 0) {
    Shape s;
    s.type = type;
    s.dimensions = std::move(dims);
    s.scale = scale;
    s.offset = offset;
    return s;
}
inline Shape q8(std::vector<uint32_t> dims, float scale = 0.5f, int32_t offset = 0) {
    return shapeOf(OperandType::TENSOR_QUANT8, std::move(dims), scale, offset);
}
inline Shape i32(std::vector<uint32_t> dims, float scale = 0.0f) {
    return shapeOf(OperandType::TENSOR_INT32, std::move(dims), scale);
}
inline Shape f32(std::vector<uint32_t> dims) {
    return shapeOf(OperandType::TENSOR_FP32, std::move(dims));
}

// An output record whose every field is recognisable, to prove that a
// refusal wrote nothing.
inline Shape untouched() {
    return shapeOf(OperandType::TENSOR_QUANT8, {7, 7}, 0.125f, 9);
}

inline void expectSameRecord(const Shape& a, const Shape& b) {
    EXPECT_EQ(a.type, b.type);
    EXPECT_EQ(a.dimensions, b.dimensions);
    EXPECT_EQ(a.scale, b.scale);
    EXPECT_EQ(a.offset, b.offset);
}

// A refusal is exactly one error line, the given one, and no write.
inline void expectRefused(bool ok, const zeltest::LogCapture& log, const std::string& line, const Shape& out) {
    EXPECT_FALSE(ok);
    EXPECT_EQ(log.texts(), std::vector<std::string>{line});
    EXPECT_EQ(log.errors().size(), 1u);
    expectSameRecord(out, untouched());
}

inline std::string nnCheck(const std::string& condition) {
    return "NN_CHECK failed: " + condition;
}

}  // namespace arithtest
