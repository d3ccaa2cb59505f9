// The blocked byte transpose against the plain element loop, over sizes that
// hit the 16x16 tiles, both block paths and every ragged edge.
#include <gtest/gtest.h>

#include <vector>

#include "zel_model.h"

namespace {

using arv::nnhal::zel::transpose;

struct Size {
    uint32_t rows;
    uint32_t cols;
};

class BlockedTranspose : public ::testing::TestWithParam<Size> {};

TEST_P(BlockedTranspose, MatchesTheElementLoop) {
    const Size s = GetParam();
    std::vector<uint8_t> data(size_t(s.rows) * s.cols);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 131 + (i >> 8) * 7);
    const std::vector<uint8_t> out = transpose(s.rows, s.cols, data.data());
    ASSERT_EQ(out.size(), data.size());
    for (uint32_t r = 0; r < s.rows; ++r) {
        for (uint32_t c = 0; c < s.cols; ++c) {
            ASSERT_EQ(out[size_t(c) * s.rows + r], data[size_t(r) * s.cols + c]) << "r=" << r << " c=" << c;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, BlockedTranspose,
                         ::testing::Values(Size{1, 1}, Size{1, 37}, Size{37, 1}, Size{16, 16}, Size{17, 33},
                                           Size{32, 48}, Size{64, 64}, Size{65, 129}, Size{100, 70}, Size{1001, 256},
                                           // above 4 MiB: through the scratch block, ragged on both sides
                                           Size{2100, 2050}, Size{70001, 65}));

}  // namespace
