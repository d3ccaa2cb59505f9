// A runtime library without kestrel_zel_nn_config: this executable runs with
// the loader path on the simulator variant built without that entry point.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "foundation_support.h"
#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_utils.h"

namespace zel = arv::nnhal::zel;
using testing::ElementsAre;

namespace {

TEST(RuntimeWithoutConfig, BindingIsClosedAgainAfterOneLine) {
    zeltest::LogCapture log;
    std::shared_ptr<zel::NnLib> lib = zel::NnLib::makeNnLib();
    ASSERT_TRUE(lib);
    EXPECT_THAT(log.errors(), ElementsAre("loadFunction -- failed to load function kestrel_zel_nn_config"));
    EXPECT_FALSE(lib->isLoaded());
    EXPECT_FALSE(lib->hasVersion());
    foundation::expectEveryWrapperFails(*lib);
}

TEST(RuntimeWithoutConfig, HeartbeatReportsVersionZeroWithError) {
    zel::Controller::getInstance();
    zeltest::LogCapture log;
    EXPECT_FALSE(zel::Controller::getInstance()->heartBeat());
    EXPECT_EQ(log.count("ZEL version: 0, has error: Yes"), 1u);
}

}  // namespace
