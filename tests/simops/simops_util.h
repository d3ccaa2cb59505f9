// Builders for one-node runs of the simulator's kernels.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "zelsim/ops.h"

namespace simops {

using zelsim::NodeDesc;
using zelsim::OpSpec;
using zelsim::Tensor;

struct D4 {
    uint32_t b, h, w, c;
    uint32_t count() const { return b * h * w * c; }
};

// The bytes of `values` as they lie in memory.
template <typename T>
std::vector<uint8_t> bytesOf(const std::vector<T>& values) {
    std::vector<uint8_t> bytes(values.size() * sizeof(T));
    if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

template <typename T>
std::vector<T> valuesOf(const Tensor& t) {
    std::vector<T> v(t.data.size() / sizeof(T));
    if (!v.empty()) std::memcpy(v.data(), t.data.data(), v.size() * sizeof(T));
    return v;
}

inline Tensor tensor(D4 d, uint32_t elementSize, std::vector<uint8_t> data) {
    Tensor t;
    t.dims[0] = d.b, t.dims[1] = d.h, t.dims[2] = d.w, t.dims[3] = d.c;
    t.elementSize = elementSize;
    t.data = std::move(data);
    return t;
}

inline Tensor u8(D4 d, std::vector<uint8_t> v) {
    return tensor(d, 1, std::move(v));
}
inline Tensor i32(D4 d, const std::vector<int32_t>& v) {
    return tensor(d, 4, bytesOf(v));
}
inline Tensor scalar(float v) {
    return tensor({1, 1, 1, 1}, 4, bytesOf(std::vector<float>{v}));
}

// A shape-only constant (stride, window): dims 1xHxWx1 over one zero word.
inline Tensor hw(uint32_t h, uint32_t w) {
    return tensor({1, h, w, 1}, (h * w != 0 && 4 % (h * w) == 0) ? 4 / (h * w) : 1, std::vector<uint8_t>(4, 0));
}

inline std::vector<int32_t> ints(const Tensor& t) {
    return valuesOf<int32_t>(t);
}
inline std::vector<float> floats(const Tensor& t) {
    return valuesOf<float>(t);
}
inline float first(const Tensor& t) {
    return floats(t).at(0);
}

// Step of an int32 value from its range outputs.
inline double step32(const std::vector<Tensor>& outs) {
    return (static_cast<double>(first(outs[2])) - first(outs[1])) / 4294967296.0;
}

// One node run through findOp(op)->execute. Outputs are sized like the
// graph store sizes them from the node's records.
struct OpRun {
    NodeDesc node;
    std::vector<Tensor> ins;
    std::vector<Tensor> outs;
    std::string error;

    explicit OpRun(int32_t op, int32_t padding = 0) {
        node.op = op;
        node.padding = padding;
    }
    OpRun& in(Tensor t) {
        ins.push_back(std::move(t));
        return *this;
    }
    // Scalar inputs, e.g. the ranges of the inputs.
    OpRun& scalars(std::initializer_list<float> values) {
        for (float v : values) ins.push_back(scalar(v));
        return *this;
    }
    OpRun& out(D4 d, uint32_t elementSize) {
        outs.push_back(tensor(d, elementSize, std::vector<uint8_t>(size_t(d.count()) * elementSize, 0xEE)));
        return *this;
    }
    // Value record plus the two range records.
    OpRun& quantOut(D4 d, uint32_t elementSize) {
        return out(d, elementSize).out({1, 1, 1, 1}, 4).out({1, 1, 1, 1}, 4);
    }
    bool run() {
        const OpSpec* entry = zelsim::findOp(node.op);
        if (!entry || !entry->execute) {
            error = "no kernel";
            return false;
        }
        std::vector<const Tensor*> p;
        for (const Tensor& t : ins) p.push_back(&t);
        return entry->execute(node, p, outs, &error);
    }
};

// Small deterministic generator for test data.
struct Lcg {
    uint32_t s;
    explicit Lcg(uint32_t seed) : s(seed) {}
    uint32_t next() {
        s = s * 1664525u + 1013904223u;
        return s >> 8;
    }
    std::vector<uint8_t> bytes(size_t n) {
        std::vector<uint8_t> v(n);
        for (auto& b : v) b = static_cast<uint8_t>(next() & 0xFF);
        return v;
    }
};

// The real range of a host quantization (scale, zero point) as the
// plug-in makes it: single-precision products.
struct HostRange {
    float min, max;
};
inline HostRange hostRange(float scale, int32_t zero) {
    return {scale * static_cast<float>(0 - zero), scale * static_cast<float>(255 - zero)};
}

// Output size and leading pad of one window axis, as the node contract
// defines SAME (odd pixel at the end) and VALID.
inline uint32_t windowAxis(uint32_t in, uint32_t f, uint32_t s, bool same, uint32_t* pad) {
    if (!same) {
        *pad = 0;
        return (in - f) / s + 1;
    }
    const uint32_t out = (in + s - 1) / s;
    const int total = static_cast<int>((out - 1) * s + f) - static_cast<int>(in);
    *pad = total > 0 ? static_cast<uint32_t>(total / 2) : 0;
    return out;
}

}  // namespace simops
