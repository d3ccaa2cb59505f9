// Helpers of the simulator tests: records, a small graph builder over the
// runtime's entry points, and getlog as a string.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "zel_kestrel_runtime.h"
#include "zelsim/control.h"

namespace simtest {

// Output record of a rank-4 value.
inline kestrel_zel_nn_output rec(uint32_t b, uint32_t h, uint32_t w, uint32_t d, uint32_t elementSize) {
    kestrel_zel_nn_output r{};
    r.rank = 4;
    r.max_sizes[0] = b, r.max_sizes[1] = h, r.max_sizes[2] = w, r.max_sizes[3] = d;
    r.elementsize = elementSize;
    return r;
}

inline std::string getlog(int graphId) {
    std::vector<unsigned char> buf(4096, 0xAA);
    if (kestrel_zel_nn_getlog(graphId, buf.data(), static_cast<unsigned>(buf.size())) != 0) return "<getlog failed>";
    return std::string(reinterpret_cast<const char*>(buf.data()));
}

// One runtime graph, appended constant by constant; ids are given by the
// caller so that tests can break the id rules on purpose.
class Graph {
public:
    Graph() { EXPECT_EQ(0, kestrel_zel_nn_init(&mId)); }
    ~Graph() { kestrel_zel_nn_teardown(mId); }
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    int id() const { return mId; }

    int constant(uint32_t nodeId, uint32_t b, uint32_t h, uint32_t w, uint32_t d, const std::vector<uint8_t>& bytes) {
        return kestrel_zel_nn_append_const_node(mId, nodeId, b, h, w, d, bytes.empty() ? nullptr : bytes.data(),
                                                static_cast<unsigned>(bytes.size()));
    }
    int floatConstant(uint32_t nodeId, float value) {
        std::vector<uint8_t> bytes(4);
        std::memcpy(bytes.data(), &value, 4);
        return constant(nodeId, 1, 1, 1, 1, bytes);
    }
    int prepare() { return kestrel_zel_nn_prepare(mId); }
    std::string log() const { return getlog(mId); }

private:
    int mId = 0;
};

// Fresh simulator state for every test.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override { zelsim::reset(); }
    void TearDown() override { zelsim::reset(); }
};

}  // namespace simtest
