// Runtime binding (NnLib) and the controller, against the simulator build of
// the runtime library. The simulator is linked into this executable too, so
// its control API and the dlopen'ed library are one and the same instance.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "foundation_support.h"
#include "log_capture.h"
#include "zel_accelerator.h"
#include "zel_test_peers.h"
#include "zel_utils.h"
#include "zelsim/control.h"

namespace zel = arv::nnhal::zel;
using foundation::withoutWorkerLines;
using testing::ElementsAre;
using zel::Controller;
using zel::NnLib;

// The binding's dlclose: fails (with a loader message) while armed, and
// then leaves the library open, as a failing close would.
namespace {
bool gFailClose = false;
}
extern "C" int dlclose(void* handle) {
    if (gFailClose) {
        dlsym(RTLD_DEFAULT, "no symbol by this name");  // gives dlerror() a message
        return -1;
    }
    static const auto real = reinterpret_cast<int (*)(void*)>(dlsym(RTLD_NEXT, "dlclose"));
    return real(handle);
}

namespace {

// --- NnLib -------------------------------------------------------------------

class NnLibBinding : public testing::Test {
protected:
    void SetUp() override { zelsim::reset(); }
    void TearDown() override { zelsim::reset(); }
};

TEST_F(NnLibBinding, LoadsConfiguresOnceAndForwardsResults) {
    zeltest::LogCapture log;
    std::shared_ptr<NnLib> lib = NnLib::makeNnLib();
    ASSERT_TRUE(lib);
    EXPECT_TRUE(peer(lib).isLoaded());
    EXPECT_TRUE(peer(lib).hasVersion());
    EXPECT_TRUE(log.errors().empty());
    EXPECT_EQ(zelsim::callCount("config"), 1);

    int version = 0;
    EXPECT_EQ(lib->version(&version), 0);
    EXPECT_EQ(version, 0x20100);
    // The power-save entry is never bound.
    EXPECT_FALSE(lib->hasPowersaveLevel());
    EXPECT_EQ(lib->set_powersave_level(0), -1);

    int graphId = 0;
    ASSERT_EQ(lib->init(&graphId), 0);
    EXPECT_EQ(graphId, zelsim::lastGraphId());
    EXPECT_TRUE(zelsim::graphExists(graphId));

    // Results come back unchanged, whatever their value.
    zelsim::failCall("teardown", 1, -5);
    EXPECT_EQ(lib->teardown(graphId), -5);
    EXPECT_TRUE(zelsim::graphExists(graphId));
    EXPECT_EQ(lib->teardown(graphId), 0);
    EXPECT_FALSE(zelsim::graphExists(graphId));
    lib->resetFunctors();
}

TEST_F(NnLibBinding, ResetFunctorsEmptiesTheTableAndCloses) {
    std::shared_ptr<NnLib> lib = NnLib::makeNnLib();
    ASSERT_TRUE(lib && peer(lib).isLoaded());
    lib->resetFunctors();
    EXPECT_FALSE(peer(lib).isLoaded());
    EXPECT_FALSE(peer(lib).hasVersion());
    const int callsBefore = static_cast<int>(zelsim::calls().size());
    foundation::expectEveryWrapperFails(*lib);
    // Nothing reached the runtime.
    EXPECT_EQ(static_cast<int>(zelsim::calls().size()), callsBefore);
    // A second reset is harmless.
    lib->resetFunctors();
    EXPECT_FALSE(peer(lib).isLoaded());
}

TEST_F(NnLibBinding, FailedCloseIsLoggedAndTheLibraryCountsAsUnloaded) {
    std::shared_ptr<NnLib> lib = NnLib::makeNnLib();
    ASSERT_TRUE(lib && peer(lib).isLoaded());
    zeltest::LogCapture log;
    gFailClose = true;
    lib->resetFunctors();
    gFailClose = false;
    EXPECT_FALSE(peer(lib).isLoaded());
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("Failed to close libzel_kestrel_runtime.so library, error string: ", 0), 0u) << errors[0];
    EXPECT_GT(errors[0].size(),
              std::string("Failed to close libzel_kestrel_runtime.so library, error string: ").size());
    // Nothing is closed twice: a second reset has no handle left to close.
    gFailClose = true;
    lib->resetFunctors();
    gFailClose = false;
    EXPECT_EQ(log.errors().size(), 1u);
}

TEST_F(NnLibBinding, ConfigFailureClosesTheLibraryAgain) {
    zelsim::setConfigResult(1);
    zeltest::LogCapture log;
    std::shared_ptr<NnLib> lib = NnLib::makeNnLib();
    ASSERT_TRUE(lib);
    EXPECT_FALSE(peer(lib).isLoaded());
    EXPECT_EQ(zelsim::callCount("config"), 1);
    int version = 0;
    EXPECT_EQ(lib->version(&version), -1);
    EXPECT_EQ(version, 0);
    EXPECT_EQ(zelsim::callCount("version"), 0);
    foundation::expectEveryWrapperFails(*lib);
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(NnLibBinding, LoadFunctionReportsNullNamesAndMissingSymbols) {
    std::shared_ptr<NnLib> lib = NnLib::makeNnLib();
    ASSERT_TRUE(lib && peer(lib).isLoaded());
    zeltest::LogCapture log;
    EXPECT_EQ(lib->loadFunction<void*>(nullptr), nullptr);
    EXPECT_EQ(lib->loadFunction<void*>("kestrel_zel_nn_no_such_entry"), nullptr);
    EXPECT_NE(lib->loadFunction<void*>("kestrel_zel_nn_version"), nullptr);
    EXPECT_THAT(log.errors(), ElementsAre("loadFunction -- attempt to load funtion with NULL name",
                                          "loadFunction -- failed to load function kestrel_zel_nn_no_such_entry"));

    // Without an open library nothing is found, not even a symbol that the
    // process itself holds.
    lib->resetFunctors();
    log.clear();
    EXPECT_EQ(lib->loadFunction<void*>("kestrel_zel_nn_version"), nullptr);
    EXPECT_THAT(log.errors(), ElementsAre("loadFunction -- failed to load function kestrel_zel_nn_version"));
}

// --- Controller --------------------------------------------------------------

class ControllerTest : public testing::Test {
protected:
    void SetUp() override {
        zelsim::reset();
        Controller::getInstance()->resetNnLib();
    }
    void TearDown() override {
        zelsim::reset();
        Controller::getInstance()->resetNnLib();
    }
};

// A version call that fails is unhealthy whatever version it wrote; the
// versions the runtime answers are golden scenarios.
TEST_F(ControllerTest, FailedVersionCallIsUnhealthyAlsoThroughIsZelAvailable) {
    zelsim::setVersion(0x20100, -1);
    zeltest::LogCapture log;
    EXPECT_FALSE(Controller::getInstance()->heartBeat());
    EXPECT_FALSE(zel::isZelAvailable());
    const std::string line = "ZEL version: 20100, has error: Yes";
    EXPECT_THAT(withoutWorkerLines(log.texts()),
                ElementsAre("In Controller::heartBeat()", line, "Out Controller::heartBeat()", "In isZelAvailable()",
                            "In Controller::heartBeat()", line, "Out Controller::heartBeat()", "Out isZelAvailable()"));
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(ControllerTest, HeartbeatWithUnconfiguredRuntimeReportsVersionZero) {
    zelsim::setConfigResult(1);
    EXPECT_TRUE(Controller::getInstance()->resetNnLib());
    zeltest::LogCapture log;
    EXPECT_FALSE(Controller::getInstance()->heartBeat());
    EXPECT_EQ(log.count("ZEL version: 0, has error: Yes"), 1u);
    EXPECT_EQ(zelsim::callCount("version"), 0);
}

TEST_F(ControllerTest, TwoResetsInARowEachCloseAndGiveAFreshBinding) {
    std::shared_ptr<NnLib> first = Controller::getInstance()->getNnLib();
    const int configsBefore = zelsim::callCount("config");
    zeltest::LogCapture log;
    EXPECT_TRUE(Controller::getInstance()->resetNnLib());
    std::shared_ptr<NnLib> second = Controller::getInstance()->getNnLib();
    EXPECT_TRUE(Controller::getInstance()->resetNnLib());
    std::shared_ptr<NnLib> third = Controller::getInstance()->getNnLib();

    EXPECT_THAT(withoutWorkerLines(log.texts()),
                ElementsAre("NnLib reset !!!", "Closing NnLib()...", "Controller::getNnLib()", "NnLib reset !!!",
                            "Closing NnLib()...", "Controller::getNnLib()"));
    ASSERT_TRUE(first && second && third);
    EXPECT_NE(first, second);
    EXPECT_NE(second, third);
    EXPECT_NE(first, third);
    EXPECT_FALSE(peer(first).isLoaded());
    EXPECT_FALSE(peer(second).isLoaded());
    EXPECT_TRUE(peer(third).isLoaded());
    EXPECT_EQ(zelsim::callCount("config"), configsBefore + 2);
    EXPECT_EQ(Controller::getInstance()->getNnLib(), third) << "the current binding is shared";
    EXPECT_TRUE(Controller::getInstance()->heartBeat());
}

TEST_F(ControllerTest, CloseAndOpenByHand) {
    std::shared_ptr<NnLib> before = Controller::getInstance()->getNnLib();
    zeltest::LogCapture log;
    EXPECT_TRUE(Controller::getInstance()->closeNnLib());
    EXPECT_FALSE(peer(before).isLoaded());
    // Without a binding the heartbeat does not get as far as a version line.
    EXPECT_FALSE(Controller::getInstance()->heartBeat());
    EXPECT_EQ(log.startingWith("ZEL version").size(), 0u);
    // Closing twice is fine.
    EXPECT_TRUE(Controller::getInstance()->closeNnLib());
    EXPECT_EQ(log.count("Closing NnLib()..."), 2u);
    EXPECT_TRUE(Controller::getInstance()->openNnLib());
    EXPECT_TRUE(Controller::getInstance()->heartBeat());
}

}  // namespace
