#include "op_support.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>

namespace zelsim {
namespace detail {

namespace {

constexpr double kTwo32 = 4294967296.0;
constexpr double kTwo31 = 2147483648.0;
constexpr double kInt32Max = 2147483647.0;

const Dims4 kScalarDims(1, 1, 1, 1);

}  // namespace

// ---------------------------------------------------------------------------
// Dims4

uint32_t Dims4::count() const {
    uint64_t n = 1;
    for (uint32_t v : d) {
        n *= v;
        if (n > UINT32_MAX) return UINT32_MAX;
    }
    return static_cast<uint32_t>(n);
}

bool Dims4::operator==(const Dims4& o) const {
    return d[0] == o.d[0] && d[1] == o.d[1] && d[2] == o.d[2] && d[3] == o.d[3];
}

std::string Dims4::str() const {
    std::ostringstream s;
    s << d[0] << 'x' << d[1] << 'x' << d[2] << 'x' << d[3];
    return s.str();
}

Dims4 recordDims(const kestrel_zel_nn_output& record) {
    return Dims4(record.max_sizes[0], record.max_sizes[1], record.max_sizes[2], record.max_sizes[3]);
}

// ---------------------------------------------------------------------------
// Quantization arithmetic

double Affine8::maxAbs() const {
    return std::max(std::fabs(value(0)), std::fabs(value(255)));
}

bool makeAffine8(float min, float max, Affine8* out) {
    if (!std::isfinite(min) || !std::isfinite(max) || !(max > min)) return false;
    Affine8 a;
    a.min = min;
    a.max = max;
    a.step = (a.max - a.min) / 255.0;
    const double zero = -a.min / a.step;
    const double nearest = std::round(zero);
    // Zero points far outside the byte range gain nothing from integer
    // kernels; keeping the bound small also keeps (q - zero) in 16 bits.
    if (std::fabs(zero - nearest) <= kZeroSnap && std::fabs(nearest) <= 32767.0 - 255.0) {
        a.integral = true;
        a.zero = static_cast<int32_t>(nearest);
    }
    *out = a;
    return true;
}

bool makeStep32(float min, float max, double* step) {
    if (!std::isfinite(min) || !std::isfinite(max) || !(max > min)) return false;
    *step = (static_cast<double>(max) - static_cast<double>(min)) / kTwo32;
    return true;
}

void rangeOfStep32(double step, float* min, float* max) {
    *max = static_cast<float>(step * kTwo31);
    *min = -*max;
}

double accumulatorStep(double base, double bound) {
    double step = base;
    if (!std::isfinite(bound) || !(step > 0.0)) return step;
    // At most a few thousand doublings before the bound fits (double range).
    for (int i = 0; i < 4096 && bound / step > kInt32Max; ++i) step *= 2.0;
    return step;
}

void coveringRange(double lo, double hi, float* min, float* max) {
    if (!(hi > lo)) hi = lo + 1.0;
    if (lo <= 0.0 && hi >= 0.0) {
        const double step = (hi - lo) / 255.0;
        double zero = std::round(-lo / step);
        if (lo < 0.0 && zero < 1.0) zero = 1.0;
        if (hi > 0.0 && zero > 254.0) zero = 254.0;
        double widened = 0.0;
        if (zero > 0.0) widened = std::max(widened, -lo / zero);
        if (zero < 255.0) widened = std::max(widened, hi / (255.0 - zero));
        lo = -zero * widened;
        hi = (255.0 - zero) * widened;
    }
    *min = static_cast<float>(lo);
    *max = static_cast<float>(hi);
}

// ---------------------------------------------------------------------------
// Validation

ArgView viewOf(const InputInfo& info) {
    ArgView v;
    if (info.isConst) {
        v.connected = true;
        v.isConst = true;
        v.dims = Dims4(info.constDims[0], info.constDims[1], info.constDims[2], info.constDims[3]);
        v.data = info.constData;
        const uint32_t n = v.dims.count();
        const size_t bytes = v.data ? v.data->size() : 0;
        v.elementSize = (n != 0 && bytes % n == 0 && bytes / n != 0) ? static_cast<uint32_t>(bytes / n) : 1;
    } else if (info.record) {
        v.connected = true;
        v.dims = recordDims(*info.record);
        v.elementSize = info.record->elementsize;
    }
    return v;
}

Validator::Validator(const char* name, const NodeDesc& node, const std::vector<InputInfo>& inputs)
    : mName(name), mNode(node) {
    mArgs.reserve(inputs.size());
    for (const InputInfo& i : inputs) mArgs.push_back(viewOf(i));
}

bool Validator::fail(const std::string& msg) {
    if (mError.empty()) mError = std::string(mName) + ": " + msg;
    return false;
}

std::string Validator::inputText(size_t i, const char* role) const {
    std::ostringstream s;
    s << "input " << i << " (" << role << ")";
    return s.str();
}

std::string Validator::outputText(size_t i, const char* role) const {
    std::ostringstream s;
    s << "output " << i << " (" << role << ")";
    return s.str();
}

bool Validator::inputCount(size_t n) {
    if (mArgs.size() == n) return true;
    std::ostringstream s;
    s << "expects " << n << (n == 1 ? " input" : " inputs") << ", got " << mArgs.size();
    return fail(s.str());
}

bool Validator::inputCountAtLeast(size_t n) {
    if (mArgs.size() >= n) return true;
    std::ostringstream s;
    s << "expects at least " << n << " inputs, got " << mArgs.size();
    return fail(s.str());
}

bool Validator::outputCount(size_t n) {
    if (mNode.outputs.size() == n) return true;
    std::ostringstream s;
    s << "expects " << n << (n == 1 ? " output" : " outputs") << ", got " << mNode.outputs.size();
    return fail(s.str());
}

bool Validator::windowPadding(bool* same) {
    if (mNode.padding == ZEL_NN_PAD_SAME || mNode.padding == ZEL_NN_PAD_VALID) {
        *same = mNode.padding == ZEL_NN_PAD_SAME;
        return true;
    }
    std::ostringstream s;
    s << "padding must be SAME (1) or VALID (2), got " << mNode.padding;
    return fail(s.str());
}

bool Validator::noPadding() {
    if (mNode.padding == ZEL_NN_PAD_NA) return true;
    std::ostringstream s;
    s << "padding must be 0, got " << mNode.padding;
    return fail(s.str());
}

bool Validator::connected(size_t i, const char* role) {
    if (mArgs[i].connected) return true;
    return fail(inputText(i, role) + " is not connected");
}

bool Validator::value(size_t i, const char* role, uint32_t elementSize) {
    if (!connected(i, role)) return false;
    const ArgView& a = mArgs[i];
    const bool sized = a.isConst ? (a.data && a.data->size() == static_cast<uint64_t>(a.dims.count()) * elementSize)
                                 : a.elementSize == elementSize;
    if (sized && a.dims.count() != 0) return true;
    std::ostringstream s;
    s << inputText(i, role) << " must hold elements of " << elementSize << " byte" << (elementSize == 1 ? "" : "s")
      << ", got dims " << a.dims.str() << " with element size " << a.elementSize;
    return fail(s.str());
}

bool Validator::scalarFloat(size_t i, const char* role) {
    if (!connected(i, role)) return false;
    const ArgView& a = mArgs[i];
    const bool ok = a.isConst ? (a.dims == kScalarDims && a.data && a.data->size() == 4)
                              : (a.elementSize == 4 && a.dims.count() == 1);
    if (ok) return true;
    return fail(inputText(i, role) +
                " must be a 1x1x1x1 float (a 4-byte constant or a one-element output of element size 4)");
}

bool Validator::hwShape(size_t i, const char* role, uint32_t* h, uint32_t* w) {
    if (!connected(i, role)) return false;
    const ArgView& a = mArgs[i];
    if (a.isConst && a.dims.d[0] == 1 && a.dims.d[3] == 1 && a.dims.d[1] >= 1 && a.dims.d[2] >= 1) {
        *h = a.dims.d[1];
        *w = a.dims.d[2];
        return true;
    }
    return fail(inputText(i, role) + " must be a constant of dims 1xHxWx1, got " + a.dims.str());
}

bool Validator::int32Const(size_t i, const char* role, uint32_t count, int32_t* values) {
    if (!connected(i, role)) return false;
    const ArgView& a = mArgs[i];
    if (a.isConst && a.dims.count() == count && a.data && a.data->size() == static_cast<size_t>(count) * 4) {
        for (uint32_t k = 0; k < count; ++k) values[k] = loadI32(a.data->data() + 4 * k);
        return true;
    }
    std::ostringstream s;
    s << inputText(i, role) << " must be an int32 constant of " << count << " element" << (count == 1 ? "" : "s");
    return fail(s.str());
}

bool Validator::constData(size_t i, const char* role, uint32_t elementSize) {
    if (!connected(i, role)) return false;
    const ArgView& a = mArgs[i];
    const uint64_t want = static_cast<uint64_t>(a.dims.count()) * elementSize;
    if (a.isConst && a.data && a.dims.count() != 0 && a.data->size() == want) return true;
    std::ostringstream s;
    s << inputText(i, role) << " must be a constant of " << elementSize << "-byte elements with all its data (dims "
      << a.dims.str() << ", " << (a.data ? a.data->size() : 0) << " bytes)";
    return fail(s.str());
}

bool Validator::outputRecord(size_t i, const char* role, const Dims4& dims, uint32_t elementSize) {
    const Dims4 got = outputDims(i);
    const uint32_t es = mNode.outputs[i].elementsize;
    if (got == dims && es == elementSize) return true;
    std::ostringstream s;
    s << outputText(i, role) << " must be " << dims.str() << " with element size " << elementSize << ", got "
      << got.str() << " with element size " << es;
    return fail(s.str());
}

bool Validator::outputElementSize(size_t i, const char* role, uint32_t elementSize) {
    const uint32_t es = mNode.outputs[i].elementsize;
    if (es == elementSize) return true;
    std::ostringstream s;
    s << outputText(i, role) << " must have element size " << elementSize << ", got " << es;
    return fail(s.str());
}

bool Validator::quantOutputs(const Dims4& dims, uint32_t elementSize) {
    return outputCount(3) && outputRecord(0, "value", dims, elementSize) && outputRecord(1, "min", kScalarDims, 4) &&
           outputRecord(2, "max", kScalarDims, 4);
}

bool windowAxis(uint32_t in, uint32_t window, uint32_t stride, bool same, uint32_t* out, uint32_t* padBefore) {
    if (stride == 0 || window == 0 || in == 0) return false;
    if (same) {
        const uint32_t n = (in - 1) / stride + 1;
        const uint64_t covered = static_cast<uint64_t>(n - 1) * stride + window;
        const uint64_t total = covered > in ? covered - in : 0;
        *out = n;
        *padBefore = static_cast<uint32_t>(total / 2);
        return true;
    }
    if (in < window) return false;
    *out = (in - window) / stride + 1;
    *padBefore = 0;
    return true;
}

bool broadcastDims(const Dims4& a, const Dims4& b, Dims4* out) {
    Dims4 r;
    for (int i = 0; i < 4; ++i) {
        if (a.d[i] == b.d[i] || b.d[i] == 1) {
            r.d[i] = a.d[i];
        } else if (a.d[i] == 1) {
            r.d[i] = b.d[i];
        } else {
            return false;
        }
    }
    *out = r;
    return true;
}

// ---------------------------------------------------------------------------
// Execution

Run::Run(const char* name, const std::vector<const Tensor*>& inputs, std::vector<Tensor>& outputs, std::string* error)
    : mName(name), mInputs(inputs), mOutputs(outputs), mError(error) {}

bool Run::fail(const std::string& msg) {
    if (mError) *mError = std::string(mName) + ": " + msg;
    return false;
}

bool Run::counts(size_t inputs, size_t outputs) {
    if (mInputs.size() == inputs && mOutputs.size() == outputs) {
        for (const Tensor* t : mInputs) {
            if (!t) return fail("an input is missing");
        }
        return true;
    }
    std::ostringstream s;
    s << "expects " << inputs << " inputs and " << outputs << " outputs, got " << mInputs.size() << " and "
      << mOutputs.size();
    return fail(s.str());
}

bool Run::atLeast(size_t inputs, size_t outputs) {
    if (mInputs.size() >= inputs && mOutputs.size() == outputs) {
        for (const Tensor* t : mInputs) {
            if (!t) return fail("an input is missing");
        }
        return true;
    }
    std::ostringstream s;
    s << "expects at least " << inputs << " inputs and " << outputs << " outputs, got " << mInputs.size() << " and "
      << mOutputs.size();
    return fail(s.str());
}

Dims4 Run::dimsOf(size_t i) const {
    const Tensor& t = *mInputs[i];
    return Dims4(t.dims[0], t.dims[1], t.dims[2], t.dims[3]);
}

bool Run::value(size_t i, uint32_t elementSize) {
    const uint32_t n = dimsOf(i).count();
    if (n != 0 && n != UINT32_MAX && mInputs[i]->data.size() == static_cast<uint64_t>(n) * elementSize) return true;
    std::ostringstream s;
    s << "input " << i << " holds " << mInputs[i]->data.size() << " bytes for dims " << dimsOf(i).str()
      << " of element size " << elementSize;
    return fail(s.str());
}

bool Run::scalarFloat(size_t i, float* v) {
    if (mInputs[i]->data.size() == 4) {
        *v = loadF32(mInputs[i]->data.data());
        return true;
    }
    std::ostringstream s;
    s << "input " << i << " must be one float, got " << mInputs[i]->data.size() << " bytes";
    return fail(s.str());
}

bool Run::range8(size_t minIdx, size_t maxIdx, Affine8* out) {
    float lo = 0.0f;
    float hi = 0.0f;
    if (!scalarFloat(minIdx, &lo) || !scalarFloat(maxIdx, &hi)) return false;
    if (makeAffine8(lo, hi, out)) return true;
    std::ostringstream s;
    s << "range [" << lo << ", " << hi << "] of inputs " << minIdx << " and " << maxIdx
      << " is not a finite non-empty range";
    return fail(s.str());
}

bool Run::range32(size_t minIdx, size_t maxIdx, double* step) {
    float lo = 0.0f;
    float hi = 0.0f;
    if (!scalarFloat(minIdx, &lo) || !scalarFloat(maxIdx, &hi)) return false;
    if (makeStep32(lo, hi, step)) return true;
    std::ostringstream s;
    s << "range [" << lo << ", " << hi << "] of inputs " << minIdx << " and " << maxIdx
      << " is not a finite non-empty range";
    return fail(s.str());
}

bool Run::output(size_t i, const Dims4& dims, uint32_t elementSize, uint8_t** data) {
    Tensor& t = mOutputs[i];
    const Dims4 have(t.dims[0], t.dims[1], t.dims[2], t.dims[3]);
    if (have != dims || t.elementSize != elementSize || dims.count() == UINT32_MAX) {
        std::ostringstream s;
        s << "output " << i << " is " << have.str() << " with element size " << t.elementSize << ", the result is "
          << dims.str() << " with element size " << elementSize;
        return fail(s.str());
    }
    const uint64_t bytes = static_cast<uint64_t>(dims.count()) * elementSize;
    if (bytes > static_cast<uint64_t>(SIZE_MAX / 2)) return fail("output " + std::to_string(i) + " is too large");
    t.data.resize(static_cast<size_t>(bytes));
    *data = t.data.data();
    return true;
}

bool Run::writeRange(float min, float max) {
    if (mOutputs.size() < 3) return fail("the range outputs are missing");
    for (size_t i = 1; i <= 2; ++i) {
        mOutputs[i].data.resize(4);
        storeF32(mOutputs[i].data.data(), i == 1 ? min : max);
    }
    return true;
}

int32_t loadI32(const uint8_t* p) {
    int32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

float loadF32(const uint8_t* p) {
    float v;
    std::memcpy(&v, p, 4);
    return v;
}

void storeI32(uint8_t* p, int32_t v) {
    std::memcpy(p, &v, 4);
}

void storeF32(uint8_t* p, float v) {
    std::memcpy(p, &v, 4);
}

}  // namespace detail
}  // namespace zelsim
