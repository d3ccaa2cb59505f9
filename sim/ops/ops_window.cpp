// Pooling nodes. Both keep the input's range: the bytes map to real values
// by one increasing affine function, so the maximum and the mean can be
// taken on the bytes themselves. Padded positions take no part: the
// maximum and the mean run over the window's positions inside the input.
#include <algorithm>
#include <sstream>

#include "op_list.h"
#include "op_support.h"

namespace zelsim {
namespace detail {

namespace {

constexpr const char* kMaxPool = "QuantizedMaxPool_8";
constexpr const char* kAvgPool = "QuantizedAvgPool_8";

enum PoolInput : size_t { kIn = 0, kInMin, kInMax, kWindow, kStride, kPoolInputs };

struct PoolShape {
    Dims4 in;
    uint32_t fH = 1, fW = 1, strideH = 1, strideW = 1;
    uint32_t outH = 0, outW = 0, padTop = 0, padLeft = 0;
};

std::string poolGeometry(const Dims4& in, const Dims4& window, const Dims4& stride, bool same, PoolShape* s) {
    s->in = in;
    s->fH = window.d[1];
    s->fW = window.d[2];
    s->strideH = stride.d[1];
    s->strideW = stride.d[2];
    std::ostringstream why;
    if (!windowAxis(in.d[1], s->fH, s->strideH, same, &s->outH, &s->padTop)) {
        why << "window height " << s->fH << " with stride " << s->strideH << " leaves no output for input height "
            << in.d[1];
        return why.str();
    }
    if (!windowAxis(in.d[2], s->fW, s->strideW, same, &s->outW, &s->padLeft)) {
        why << "window width " << s->fW << " with stride " << s->strideW << " leaves no output for input width "
            << in.d[2];
        return why.str();
    }
    return "";
}

std::string validatePool(const char* name, const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    Validator v(name, node, inputs);
    bool same = false;
    uint32_t fh = 0, fw = 0, sh = 0, sw = 0;
    if (!(v.inputCount(kPoolInputs) && v.windowPadding(&same) && v.value(kIn, "input", 1) &&
          v.scalarFloat(kInMin, "input min") && v.scalarFloat(kInMax, "input max") &&
          v.hwShape(kWindow, "window", &fh, &fw) && v.hwShape(kStride, "stride", &sh, &sw))) {
        return v.result();
    }
    PoolShape s;
    const std::string why = poolGeometry(v.arg(kIn).dims, Dims4(1, fh, fw, 1), Dims4(1, sh, sw, 1), same, &s);
    if (!why.empty()) {
        v.fail(why);
        return v.result();
    }
    v.quantOutputs(Dims4(s.in.d[0], s.outH, s.outW, s.in.d[3]), 1);
    return v.result();
}

// Calls reduce(first byte of the input pixel) for every window position
// inside the input, then store(output pixel, number of positions).
template <typename Reduce, typename Store>
void forEachWindow(const PoolShape& s, const uint8_t* in, Reduce reduce, Store store) {
    const uint32_t depth = s.in.d[3];
    size_t o = 0;
    for (uint32_t b = 0; b < s.in.d[0]; ++b) {
        for (uint32_t oy = 0; oy < s.outH; ++oy) {
            const int64_t y0 = static_cast<int64_t>(oy) * s.strideH - s.padTop;
            const int64_t yBegin = std::max<int64_t>(y0, 0);
            const int64_t yEnd = std::min<int64_t>(y0 + s.fH, s.in.d[1]);
            for (uint32_t ox = 0; ox < s.outW; ++ox, o += depth) {
                const int64_t x0 = static_cast<int64_t>(ox) * s.strideW - s.padLeft;
                const int64_t xBegin = std::max<int64_t>(x0, 0);
                const int64_t xEnd = std::min<int64_t>(x0 + s.fW, s.in.d[2]);
                uint32_t count = 0;
                for (int64_t y = yBegin; y < yEnd; ++y) {
                    for (int64_t x = xBegin; x < xEnd; ++x, ++count) {
                        reduce(in + ((static_cast<size_t>(b) * s.in.d[1] + y) * s.in.d[2] + x) * depth);
                    }
                }
                store(o, count);
            }
        }
    }
}

template <typename Kernel>
bool executePool(const char* name, const NodeDesc& node, const std::vector<const Tensor*>& inputs,
                 std::vector<Tensor>& outputs, std::string* error, Kernel kernel) {
    Run r(name, inputs, outputs, error);
    Affine8 a;
    float lo = 0.0f, hi = 0.0f;
    if (!(r.counts(kPoolInputs, 3) && r.value(kIn, 1) && r.range8(kInMin, kInMax, &a) && r.scalarFloat(kInMin, &lo) &&
          r.scalarFloat(kInMax, &hi))) {
        return false;
    }
    PoolShape s;
    const std::string why =
        poolGeometry(r.dimsOf(kIn), r.dimsOf(kWindow), r.dimsOf(kStride), node.padding == ZEL_NN_PAD_SAME, &s);
    if (!why.empty()) return r.fail(why);
    uint8_t* out = nullptr;
    if (!r.output(0, Dims4(s.in.d[0], s.outH, s.outW, s.in.d[3]), 1, &out)) return false;
    kernel(s, r.in(kIn).data.data(), out);
    return r.writeRange(lo, hi);
}

}  // namespace

std::string validateMaxPool(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validatePool(kMaxPool, node, inputs);
}

bool executeMaxPool(const NodeDesc& node, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                    std::string* error) {
    return executePool(kMaxPool, node, inputs, outputs, error, [](const PoolShape& s, const uint8_t* in, uint8_t* out) {
        const uint32_t depth = s.in.d[3];
        std::vector<uint8_t> best(depth);
        forEachWindow(
            s, in,
            [&](const uint8_t* px) {
                for (uint32_t c = 0; c < depth; ++c) best[c] = std::max(best[c], px[c]);
            },
            [&](size_t o, uint32_t) {
                std::copy(best.begin(), best.end(), out + o);
                std::fill(best.begin(), best.end(), uint8_t{0});
            });
    });
}

std::string validateAvgPool(const NodeDesc& node, const std::vector<InputInfo>& inputs) {
    return validatePool(kAvgPool, node, inputs);
}

// The mean rounds to nearest, halves up.
bool executeAvgPool(const NodeDesc& node, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs,
                    std::string* error) {
    return executePool(kAvgPool, node, inputs, outputs, error, [](const PoolShape& s, const uint8_t* in, uint8_t* out) {
        const uint32_t depth = s.in.d[3];
        std::vector<uint64_t> sum(depth);
        forEachWindow(
            s, in,
            [&](const uint8_t* px) {
                for (uint32_t c = 0; c < depth; ++c) sum[c] += px[c];
            },
            [&](size_t o, uint32_t count) {
                for (uint32_t c = 0; c < depth; ++c) {
                    out[o + c] = count ? static_cast<uint8_t>((2 * sum[c] + count) / (2 * uint64_t{count})) : 0;
                }
                std::fill(sum.begin(), sum.end(), uint64_t{0});
            });
    });
}

}  // namespace detail
}  // namespace zelsim
