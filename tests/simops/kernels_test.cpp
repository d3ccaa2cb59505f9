// The integer kernels against the reference ones, over a sweep of shapes,
// paddings and zero points: wherever the integer form applies they must
// agree exactly.
#include "kernels.h"

#include "simops_util.h"
#include "zelsim/control.h"

namespace simops {
namespace {

using zelsim::detail::Affine8;
using zelsim::detail::makeAffine8;
namespace k = zelsim::kernels;

Affine8 affine(float scale, int32_t zero) {
    const HostRange r = hostRange(scale, zero);
    Affine8 a;
    EXPECT_TRUE(makeAffine8(r.min, r.max, &a));
    EXPECT_TRUE(a.integral);
    EXPECT_EQ(a.zero, zero);
    return a;
}

struct Sweep {
    uint32_t batches, inH, inW, inD, fH, fW, outD, stride;
    bool same;
    int32_t zi, zf;
};

const Sweep kSweeps[] = {
    {1, 7, 7, 3, 3, 3, 8, 2, true, 128, 128},    {2, 5, 6, 4, 2, 3, 5, 1, true, 0, 255},
    {1, 9, 4, 16, 1, 1, 33, 1, false, 17, 3},    {1, 6, 6, 5, 3, 3, 7, 3, false, 255, 0},
    {1, 1, 1, 70, 1, 1, 4, 1, true, 100, 101},   {3, 4, 4, 2, 4, 4, 3, 1, true, 50, 200},
    {1, 11, 3, 6, 5, 1, 18, 2, true, -255, 510}, {1, 5, 5, 4, 3, 3, 130, 1, true, 1, 254},
    {2, 20, 20, 8, 1, 1, 16, 1, true, 255, 255}, {1, 40, 40, 3, 3, 3, 8, 1, true, 0, 0},
    {1, 4, 2, 5, 3, 3, 6, 1, true, 9, 77},
};

// Both accumulation paths (the library GEMM where the build has it, and
// the portable loops) against the reference.
class BothPaths : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { zelsim::setPortableKernels(GetParam()); }
    void TearDown() override { zelsim::setPortableKernels(false); }
};
INSTANTIATE_TEST_SUITE_P(IntegerKernels, BothPaths, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& p) { return p.param ? "portable" : "library"; });

TEST_P(BothPaths, ConvMatchesReference) {
    Lcg g(99);
    for (const Sweep& w : kSweeps) {
        k::ConvShape s;
        s.batches = w.batches, s.inH = w.inH, s.inW = w.inW, s.inD = w.inD, s.fH = w.fH, s.fW = w.fW;
        s.outD = w.outD, s.strideH = s.strideW = w.stride;
        s.outH = windowAxis(w.inH, w.fH, w.stride, w.same, &s.padTop);
        s.outW = windowAxis(w.inW, w.fW, w.stride, w.same, &s.padLeft);
        const Affine8 ai = affine(0.5f, w.zi), af = affine(0.25f, w.zf);
        ASSERT_TRUE(k::integerSumsFit(k::convTaps(s), ai, af));
        const std::vector<uint8_t> in = g.bytes(w.batches * w.inH * w.inW * w.inD);
        const std::vector<uint8_t> f = g.bytes(w.fH * w.fW * w.inD * w.outD);
        const size_t n = static_cast<size_t>(s.batches) * s.outH * s.outW * s.outD;
        std::vector<int32_t> fast(n, -1), ref(n, -2);
        k::convInteger(s, in.data(), ai, f.data(), af, fast.data());
        k::convReference(s, in.data(), ai, f.data(), af, ai.step * af.step, ref.data());
        EXPECT_EQ(fast, ref) << "sweep " << (&w - kSweeps);
    }
}

TEST(IntegerKernels, DepthwiseMatchesReference) {
    Lcg g(98);
    for (const Sweep& w : kSweeps) {
        for (uint32_t mult : {1u, 2u, 3u}) {
            k::ConvShape s;
            s.batches = w.batches, s.inH = w.inH, s.inW = w.inW, s.inD = w.inD, s.fH = w.fH, s.fW = w.fW;
            s.mult = mult, s.outD = w.inD * mult, s.strideH = s.strideW = w.stride;
            s.outH = windowAxis(w.inH, w.fH, w.stride, w.same, &s.padTop);
            s.outW = windowAxis(w.inW, w.fW, w.stride, w.same, &s.padLeft);
            const Affine8 ai = affine(0.5f, w.zi), af = affine(0.25f, w.zf);
            const std::vector<uint8_t> in = g.bytes(w.batches * w.inH * w.inW * w.inD);
            const std::vector<uint8_t> f = g.bytes(w.fH * w.fW * s.outD);
            const size_t n = static_cast<size_t>(s.batches) * s.outH * s.outW * s.outD;
            std::vector<int32_t> fast(n, -1), ref(n, -2);
            k::depthwiseInteger(s, in.data(), ai, f.data(), af, fast.data());
            k::depthwiseReference(s, in.data(), ai, f.data(), af, ai.step * af.step, ref.data());
            EXPECT_EQ(fast, ref) << "sweep " << (&w - kSweeps) << " multiplier " << mult;
        }
    }
}

TEST_P(BothPaths, MatMulMatchesReference) {
    Lcg g(97);
    // Rows past one GEMM block and one thread's share; zero points at both
    // ends of the byte range (weights shifted into signed bytes must still
    // give w - zero exactly, -255..255).
    const uint32_t shapes[][5] = {{1, 1, 1, 3, 250},     {3, 17, 5, 0, 255},     {4, 64, 16, 255, 0},
                                  {9, 33, 37, 128, 128}, {5, 1024, 3, 255, 255}, {6, 40, 150, 0, 0},
                                  {300, 9, 64, 17, 200}, {600, 260, 70, 255, 0}};
    for (const auto& sh : shapes) {
        const Affine8 ai = affine(0.125f, static_cast<int32_t>(sh[3])), aw = affine(0.5f, static_cast<int32_t>(sh[4]));
        const std::vector<uint8_t> in = g.bytes(sh[0] * sh[1]), w = g.bytes(sh[1] * sh[2]);
        std::vector<int32_t> fast(sh[0] * sh[2], -1), ref(sh[0] * sh[2], -2);
        k::matmulInteger(sh[0], sh[1], sh[2], in.data(), ai, w.data(), aw, fast.data());
        k::matmulReference(sh[0], sh[1], sh[2], in.data(), ai, w.data(), aw, ai.step * aw.step, ref.data());
        EXPECT_EQ(fast, ref) << sh[0] << "x" << sh[1] << "x" << sh[2];
    }
}

// The largest products of both signs over a long depth: every pair of
// neighbouring products would overflow 16 bits, so a path that passed
// through saturating 16-bit sums would show here.
TEST_P(BothPaths, MatMulExtremeProducts) {
    const uint32_t rows = 3, depth = 1024, units = 17;
    const uint8_t extremes[][4] = {{255, 0, 0, 255}, {255, 0, 255, 0}, {0, 255, 255, 0}, {0, 255, 0, 255}};
    for (const auto& e : extremes) {
        const Affine8 ai = affine(0.125f, e[1]), aw = affine(0.5f, e[3]);
        const std::vector<uint8_t> in(rows * depth, e[0]), w(depth * units, e[2]);
        std::vector<int32_t> fast(rows * units, -1), ref(rows * units, -2);
        k::matmulInteger(rows, depth, units, in.data(), ai, w.data(), aw, fast.data());
        k::matmulReference(rows, depth, units, in.data(), ai, w.data(), aw, ai.step * aw.step, ref.data());
        EXPECT_EQ(fast, ref) << int(e[0]) << " zero " << int(e[1]) << " by " << int(e[2]) << " zero " << int(e[3]);
    }
}

// Zero rows of A are skipped by the product; the sums must not change.
TEST(IntegerKernels, GemmWithZeroRuns) {
    const uint32_t rows = 6, depth = 5, cols = 19;
    std::vector<int16_t> a(rows * depth, 0), b(depth * cols);
    for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<int16_t>(static_cast<int>(i % 23) - 11);
    a[0 * depth + 2] = 255;
    a[3 * depth + 4] = -255;
    a[5 * depth + 0] = 7;
    std::vector<int32_t> c(rows * cols, 99);
    k::gemmS16(rows, depth, cols, a.data(), b.data(), c.data());
    for (uint32_t r = 0; r < rows; ++r)
        for (uint32_t j = 0; j < cols; ++j) {
            int32_t want = 0;
            for (uint32_t d = 0; d < depth; ++d) want += a[r * depth + d] * b[d * cols + j];
            EXPECT_EQ(c[r * cols + j], want) << r << "," << j;
        }
}

// The bound that decides between the two forms (for zero point 0 it shows
// through the node in MatMul.LargestProductsAccumulate).
TEST(IntegerKernels, SumBound) {
    const Affine8 z0 = affine(0.5f, 0), z128 = affine(0.5f, 128);
    // |q - 128| <= 128: 131071 * 128 * 128 = 2147467264.
    EXPECT_TRUE(k::integerSumsFit(131071, z128, z128));
    EXPECT_FALSE(k::integerSumsFit(131072, z128, z128));
    Affine8 odd;
    ASSERT_TRUE(makeAffine8(0.3f, 1.7f, &odd));
    EXPECT_FALSE(odd.integral);
    EXPECT_FALSE(k::integerSumsFit(1, odd, z0));
}

}  // namespace
}  // namespace simops
