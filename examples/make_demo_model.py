#!/usr/bin/python3
"""Writes demo_model.json: a small quantized network in the model-file format
(the one zelrun and the conformance folder use), with input data and the
outputs it must produce.

The expected outputs are computed here in double precision from the real
values the quantized tensors stand for, real = scale * (q - zeroPoint), and
requantized with round-half-away-from-zero and a clamp to 0..255. Nothing
of the plug-in or of the runtime simulator is used, so the file checks both.

    input [1,8,8,3]
      CONV_2D 3x3, 8 filters, SAME, RELU        -> a [1,8,8,8]
      DEPTHWISE_CONV_2D 3x3, multiplier 1, SAME -> b [1,8,8,8]
      MAX_POOL_2D 2x2 / 2                       -> c [1,4,4,8]
      AVERAGE_POOL_2D 2x2 / 2                   -> d [1,4,4,8]
      ADD c + d                                 -> e [1,4,4,8]
      CONCATENATION e, c on the channel axis    -> f [1,4,4,16]
      FULLY_CONNECTED 256 -> 10                 -> g [1,10]
      RELU6                                     -> h [1,10]   (graph output)

Every operation is one the accelerator lowers: biases have scale input
scale * filter scale, accumulator outputs have a larger scale than that
product, pools keep their input's quantization and the concatenation has
one quantization for all its inputs and its output.

Run from anywhere: python3 examples/make_demo_model.py
"""

import json
import os

import numpy as np

SEED = 20240611
rng = np.random.default_rng(SEED)

# Android NN operation and operand codes.
ADD, AVERAGE_POOL_2D, CONCATENATION, CONV_2D, DEPTHWISE_CONV_2D = 0, 1, 2, 3, 4
FULLY_CONNECTED, MAX_POOL_2D, RELU6 = 9, 17, 21
SCALAR_INT32, TENSOR_INT32, TENSOR_QUANT8 = 1, 4, 5
PAD_SAME, PAD_VALID = 1, 2
ACT_NONE, ACT_RELU = 0, 1


def round_half_away(x):
    return np.sign(x) * np.floor(np.abs(x) + 0.5)


def quantize(real, scale, zero_point):
    q = round_half_away(np.asarray(real, dtype=np.float64) / scale) + zero_point
    return np.clip(q, 0, 255).astype(np.int64)


def dequantize(q, scale, zero_point):
    return scale * (np.asarray(q, dtype=np.float64) - zero_point)


def same_pads(size, filt, stride):
    out = (size + stride - 1) // stride
    needed = (out - 1) * stride + filt
    total = max(needed - size, 0)
    return total // 2, total - total // 2


def pad_nhwc(x, filt_h, filt_w, stride):
    top, bottom = same_pads(x.shape[1], filt_h, stride)
    left, right = same_pads(x.shape[2], filt_w, stride)
    return np.pad(x, ((0, 0), (top, bottom), (left, right), (0, 0)))


def conv2d(x, w, b):
    """x [1,H,W,C] real, w [O,kh,kw,C] real, b [O]; SAME, stride 1."""
    o, kh, kw, _ = w.shape
    xp = pad_nhwc(x, kh, kw, 1)
    h, wd = x.shape[1], x.shape[2]
    out = np.zeros((1, h, wd, o))
    for y in range(h):
        for xx in range(wd):
            patch = xp[0, y:y + kh, xx:xx + kw, :]
            out[0, y, xx, :] = np.tensordot(w, patch, axes=([1, 2, 3], [0, 1, 2])) + b
    return out


def depthwise(x, w, b):
    """x [1,H,W,C] real, w [1,kh,kw,C] real (multiplier 1), b [C]; SAME, stride 1."""
    _, kh, kw, c = w.shape
    xp = pad_nhwc(x, kh, kw, 1)
    h, wd = x.shape[1], x.shape[2]
    out = np.zeros((1, h, wd, c))
    for y in range(h):
        for xx in range(wd):
            patch = xp[0, y:y + kh, xx:xx + kw, :]
            out[0, y, xx, :] = np.sum(patch * w[0], axis=(0, 1)) + b
    return out


def pool(x, size, stride, reduce):
    n, h, w, c = x.shape
    oh, ow = (h - size) // stride + 1, (w - size) // stride + 1
    out = np.zeros((n, oh, ow, c))
    for y in range(oh):
        for xx in range(ow):
            window = x[:, y * stride:y * stride + size, xx * stride:xx * stride + size, :]
            out[:, y, xx, :] = reduce(window, axis=(1, 2))
    return out


class Model:
    def __init__(self):
        self.operands = []
        self.operations = []

    def add(self, type_, dims, scale=0.0, zero_point=0, lifetime="internal", data=None):
        entry = {"type": type_, "dims": list(dims), "scale": float(scale), "zeroPoint": int(zero_point),
                 "lifetime": lifetime}
        if data is not None:
            entry["data"] = [int(v) for v in np.asarray(data).reshape(-1)]
        self.operands.append(entry)
        return len(self.operands) - 1

    def scalar(self, value):
        return self.add(SCALAR_INT32, [], data=[value], lifetime="constant")

    def op(self, type_, inputs, outputs):
        self.operations.append({"type": type_, "inputs": inputs, "outputs": outputs})


def main():
    m = Model()

    # Quantization of every tensor: (scale, zero point).
    q_in = (1.0 / 128.0, 128)
    q_conv_w = (0.01, 128)
    q_a = (0.02, 128)
    q_dw_w = (0.01, 128)
    q_b = (0.03, 128)       # also c, d, e and f: pools keep it, concat needs it
    q_fc_w = (0.006, 128)
    q_g = (0.05, 128)       # also h

    # Data.
    x_q = rng.integers(0, 256, size=(1, 8, 8, 3))
    conv_w_q = rng.integers(128 - 50, 128 + 51, size=(8, 3, 3, 3))
    conv_b_q = rng.integers(-2000, 2001, size=(8,))
    dw_w_q = rng.integers(128 - 60, 128 + 61, size=(1, 3, 3, 8))
    dw_b_q = rng.integers(-1500, 1501, size=(8,))
    fc_w_q = rng.integers(128 - 40, 128 + 41, size=(10, 256))
    fc_b_q = rng.integers(5000, 35001, size=(10,))

    conv_b_scale = q_in[0] * q_conv_w[0]
    dw_b_scale = q_a[0] * q_dw_w[0]
    fc_b_scale = q_b[0] * q_fc_w[0]

    # Graph.
    x = m.add(TENSOR_QUANT8, [1, 8, 8, 3], *q_in, lifetime="input")
    conv_w = m.add(TENSOR_QUANT8, [8, 3, 3, 3], *q_conv_w, lifetime="constant", data=conv_w_q)
    conv_b = m.add(TENSOR_INT32, [8], conv_b_scale, 0, lifetime="constant", data=conv_b_q)
    pad_same, pad_valid = m.scalar(PAD_SAME), m.scalar(PAD_VALID)
    one, two = m.scalar(1), m.scalar(2)
    act_none, act_relu = m.scalar(ACT_NONE), m.scalar(ACT_RELU)
    a = m.add(TENSOR_QUANT8, [1, 8, 8, 8], *q_a)
    m.op(CONV_2D, [x, conv_w, conv_b, pad_same, one, one, act_relu], [a])

    dw_w = m.add(TENSOR_QUANT8, [1, 3, 3, 8], *q_dw_w, lifetime="constant", data=dw_w_q)
    dw_b = m.add(TENSOR_INT32, [8], dw_b_scale, 0, lifetime="constant", data=dw_b_q)
    b = m.add(TENSOR_QUANT8, [1, 8, 8, 8], *q_b)
    m.op(DEPTHWISE_CONV_2D, [a, dw_w, dw_b, pad_same, one, one, one, act_none], [b])

    c = m.add(TENSOR_QUANT8, [1, 4, 4, 8], *q_b)
    m.op(MAX_POOL_2D, [b, pad_valid, two, two, two, two, act_none], [c])
    d = m.add(TENSOR_QUANT8, [1, 4, 4, 8], *q_b)
    m.op(AVERAGE_POOL_2D, [b, pad_valid, two, two, two, two, act_none], [d])

    e = m.add(TENSOR_QUANT8, [1, 4, 4, 8], *q_b)
    m.op(ADD, [c, d, act_none], [e])

    axis = m.scalar(3)
    f = m.add(TENSOR_QUANT8, [1, 4, 4, 16], *q_b)
    m.op(CONCATENATION, [e, c, axis], [f])

    fc_w = m.add(TENSOR_QUANT8, [10, 256], *q_fc_w, lifetime="constant", data=fc_w_q)
    fc_b = m.add(TENSOR_INT32, [10], fc_b_scale, 0, lifetime="constant", data=fc_b_q)
    g = m.add(TENSOR_QUANT8, [1, 10], *q_g)
    m.op(FULLY_CONNECTED, [f, fc_w, fc_b, act_none], [g])

    h = m.add(TENSOR_QUANT8, [1, 10], *q_g, lifetime="output")
    m.op(RELU6, [g], [h])

    # Reference, tensor by tensor, each result stored in its own quantization.
    x_r = dequantize(x_q, *q_in)
    a_q = quantize(np.maximum(conv2d(x_r, dequantize(conv_w_q, *q_conv_w), conv_b_q * conv_b_scale), 0.0), *q_a)
    b_q = quantize(depthwise(dequantize(a_q, *q_a), dequantize(dw_w_q, *q_dw_w), dw_b_q * dw_b_scale), *q_b)
    c_q = quantize(pool(dequantize(b_q, *q_b), 2, 2, np.max), *q_b)
    d_q = quantize(pool(dequantize(b_q, *q_b), 2, 2, np.mean), *q_b)
    e_q = quantize(dequantize(c_q, *q_b) + dequantize(d_q, *q_b), *q_b)
    f_q = np.concatenate([e_q, c_q], axis=3)
    g_r = dequantize(f_q, *q_b).reshape(1, 256) @ dequantize(fc_w_q, *q_fc_w).T + fc_b_q * fc_b_scale
    g_q = quantize(g_r, *q_g)
    h_q = quantize(np.clip(dequantize(g_q, *q_g), 0.0, 6.0), *q_g)

    document = {
        "name": "demo_model",
        "origin": "examples/make_demo_model.py",
        "operands": m.operands,
        "operations": m.operations,
        "inputs": [x],
        "outputs": [h],
        "inputData": [[int(v) for v in x_q.reshape(-1)]],
        "expected": [[int(v) for v in h_q.reshape(-1)]],
        "tolerance": 1,
    }
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "demo_model.json")
    with open(path, "w") as out:
        out.write(render(document))
    print("wrote %s: expected output %s" % (path, document["expected"][0]))


def render(document):
    """The layout of the conformance files: one operand or operation a line."""
    lines = ["{"]
    lines.append('  "name": %s,' % json.dumps(document["name"]))
    lines.append('  "origin": %s,' % json.dumps(document["origin"]))
    lines.append('  "operands": [')
    lines.append(",\n".join("    " + json.dumps(o) for o in document["operands"]))
    lines.append("  ],")
    lines.append('  "operations": [')
    lines.append(",\n".join("    " + json.dumps(o) for o in document["operations"]))
    lines.append("  ],")
    for key in ("inputs", "outputs", "inputData", "expected"):
        lines.append('  "%s": %s,' % (key, json.dumps(document[key])))
    lines.append('  "tolerance": %s' % json.dumps(document["tolerance"]))
    lines.append("}")
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    main()
