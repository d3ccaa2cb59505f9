// Fault injection through ZELSIM_FAULTS, read when the library loads. The
// test runs with:
//   ZELSIM_FAULTS=append_node:3:-5, version:1:0x20101,config:2:1,bogus,init:x:1,teardown:1:-2:3
#include <gtest/gtest.h>

#include "sim_test_util.h"

namespace {

// No reset here: it would forget the faults read at load time.
TEST(FaultsFromEnvironment, ArmedAtLoadAndMalformedItemsNoted) {
    int version = 0;
    EXPECT_EQ(0, kestrel_zel_nn_version(&version));
    EXPECT_EQ(0x20101, version);
    EXPECT_EQ(0, kestrel_zel_nn_version(&version));
    EXPECT_EQ(0x20100, version);

    EXPECT_EQ(0, kestrel_zel_nn_config());
    EXPECT_EQ(1, kestrel_zel_nn_config());
    EXPECT_EQ(0, kestrel_zel_nn_config());

    int id = 0;
    ASSERT_EQ(0, kestrel_zel_nn_init(&id));
    const kestrel_zel_nn_output out = simtest::rec(1, 1, 1, 4, 1);
    const kestrel_zel_nn_input in{1, 0};
    EXPECT_EQ(0, kestrel_zel_nn_append_node(id, 1, ZEL_OP_INPUT, 0, nullptr, 0, &out, 1));
    const unsigned char word[4] = {1, 2, 3, 4};
    EXPECT_EQ(0, kestrel_zel_nn_append_const_node(id, 2, 1, 1, 1, 1, word, 4));
    EXPECT_EQ(0, kestrel_zel_nn_append_node(id, 3, ZEL_OP_INPUT, 0, nullptr, 0, &out, 1));
    EXPECT_EQ(-5, kestrel_zel_nn_append_node(id, 4, ZEL_OP_OUTPUT, 0, &in, 1, nullptr, 0));
    EXPECT_EQ(0, kestrel_zel_nn_append_node(id, 5, ZEL_OP_OUTPUT, 0, &in, 1, nullptr, 0));
    EXPECT_EQ(4u, zelsim::nodes(id).size());  // the failed call appended nothing

    // The malformed items armed nothing: teardown works the first time.
    EXPECT_EQ(0, kestrel_zel_nn_teardown(id));
    const std::string notes = zelsim::notes();
    EXPECT_NE(std::string::npos, notes.find("'bogus'")) << notes;
    EXPECT_NE(std::string::npos, notes.find("'init:x:1'")) << notes;
    EXPECT_NE(std::string::npos, notes.find("'teardown:1:-2:3'")) << notes;
    EXPECT_EQ(std::string::npos, notes.find("append_node")) << notes;
}

}  // namespace
