// A runtime library the binding cannot use, built twice: once with a loader
// path that holds no runtime library (ZEL_MISSING_RUNTIME), once with the
// simulator variant built without kestrel_zel_nn_config. Either way one
// error line, an empty table and a heartbeat that reports version 0 (an
// unhealthy heartbeat makes createGraphExecutor answer 7: golden scenarios).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "foundation_support.h"
#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_test_peers.h"
#include "zel_utils.h"

namespace zel = arv::nnhal::zel;
using testing::ElementsAre;

namespace {

#if ZEL_MISSING_RUNTIME
// The loader's own text follows and names the library.
const std::string kLine = "Failed to load libzel_kestrel_runtime.so, error string: ";
#else
const std::string kLine = "loadFunction -- failed to load function kestrel_zel_nn_config";
#endif

void expectTheOneLine(const zeltest::LogCapture& log) {
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 1u);
    if (ZEL_MISSING_RUNTIME) {
        EXPECT_EQ(errors[0].rfind(kLine, 0), 0u) << errors[0];
        EXPECT_THAT(errors[0].substr(kLine.size()), testing::HasSubstr("libzel_kestrel_runtime.so"));
    } else {
        EXPECT_EQ(errors[0], kLine);
    }
}

TEST(UnusableRuntime, LoadLogsOneLineAndLeavesAnEmptyTable) {
    zeltest::LogCapture log;
    std::shared_ptr<zel::NnLib> lib = zel::NnLib::makeNnLib();
    ASSERT_TRUE(lib);
    expectTheOneLine(log);
    EXPECT_FALSE(peer(lib).isLoaded());
    EXPECT_FALSE(peer(lib).hasVersion());
    foundation::expectEveryWrapperFails(*lib);
}

TEST(UnusableRuntime, HeartbeatReportsVersionZeroWithError) {
    zel::Controller::getInstance();  // first use loads (and fails) outside the capture
    zeltest::LogCapture log;
    EXPECT_FALSE(zel::Controller::getInstance()->heartBeat());
    EXPECT_THAT(
        foundation::withoutWorkerLines(log.texts()),
        ElementsAre("In Controller::heartBeat()", "ZEL version: 0, has error: Yes", "Out Controller::heartBeat()"));
    EXPECT_FALSE(zel::isZelAvailable());
}

TEST(UnusableRuntime, ResetStillGivesABinding) {
    zeltest::LogCapture log;
    // The binding exists, only its table is empty.
    EXPECT_TRUE(zel::Controller::getInstance()->resetNnLib());
    expectTheOneLine(log);
    std::shared_ptr<zel::NnLib> lib = zel::Controller::getInstance()->getNnLib();
    ASSERT_TRUE(lib);
    foundation::expectEveryWrapperFails(*lib);
}

}  // namespace
