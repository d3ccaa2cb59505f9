// The runtime library cannot be found: this executable runs with a loader
// path that holds no runtime library.
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
using testing::StartsWith;

namespace {

const std::string kLoadFailure = "Failed to load libzel_kestrel_runtime.so, error string: ";

TEST(MissingRuntime, LoadLogsOneLineAndLeavesAnEmptyTable) {
    zeltest::LogCapture log;
    std::shared_ptr<zel::NnLib> lib = zel::NnLib::makeNnLib();
    ASSERT_TRUE(lib);
    EXPECT_FALSE(lib->isLoaded());
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors[0], StartsWith(kLoadFailure));
    // The loader's own text follows and names the library.
    EXPECT_GT(errors[0].size(), kLoadFailure.size());
    EXPECT_THAT(errors[0].substr(kLoadFailure.size()), testing::HasSubstr("libzel_kestrel_runtime.so"));
    foundation::expectEveryWrapperFails(*lib);
}

TEST(MissingRuntime, HeartbeatReportsVersionZeroWithError) {
    zel::Controller::getInstance();  // first use loads (and fails) outside the capture
    zeltest::LogCapture log;
    EXPECT_FALSE(zel::Controller::getInstance()->heartBeat());
    EXPECT_THAT(foundation::withoutWorkerLines(log.texts()),
                ElementsAre("In Controller::heartBeat()", "ZEL version: 0, has error: Yes",
                            "Out Controller::heartBeat()"));
    EXPECT_FALSE(zel::isZelAvailable());
}

TEST(MissingRuntime, ResetStillGivesABinding) {
    zeltest::LogCapture log;
    // The binding exists, only its table is empty.
    EXPECT_TRUE(zel::Controller::getInstance()->resetNnLib());
    EXPECT_EQ(log.startingWith(kLoadFailure).size(), 1u);
    std::shared_ptr<zel::NnLib> lib = zel::Controller::getInstance()->getNnLib();
    ASSERT_TRUE(lib);
    foundation::expectEveryWrapperFails(*lib);
}

}  // namespace
