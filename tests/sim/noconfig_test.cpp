// Both builds of the simulator, opened the way the plug-in opens a runtime:
// every entry point is exported, internals stay hidden, and the noconfig
// build lacks exactly kestrel_zel_nn_config.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

namespace {

TEST(SimBuilds, ExportEveryEntryPointAndConfigOnlyInTheFullBuild) {
    const char* const entries[] = {"init",    "getlog",      "snpprint",          "set_debug_level",
                                   "prepare", "append_node", "append_const_node", "execute_new",
                                   "execute", "teardown",    "version",           "set_config_params"};
    for (const bool full : {true, false}) {
        SCOPED_TRACE(full ? "full build" : "noconfig build");
        void* lib = dlopen(full ? ZELSIM_FULL_PATH : ZELSIM_NOCONFIG_PATH, RTLD_LAZY | RTLD_LOCAL);
        ASSERT_NE(nullptr, lib) << dlerror();
        for (const char* name : entries) {
            EXPECT_NE(nullptr, dlsym(lib, (std::string("kestrel_zel_nn_") + name).c_str())) << name;
        }
        auto config = reinterpret_cast<int (*)()>(dlsym(lib, "kestrel_zel_nn_config"));
        EXPECT_EQ(full, config != nullptr);
        if (config != nullptr) {
            EXPECT_EQ(0, config());
        }
        auto version = reinterpret_cast<int (*)(int*)>(dlsym(lib, "kestrel_zel_nn_version"));
        int value = 0;
        ASSERT_NE(nullptr, version);
        EXPECT_EQ(0, version(&value));
        EXPECT_EQ(0x20100, value);
        EXPECT_EQ(nullptr, dlsym(lib, "_ZN6zelsim5store5stateEv"));
        dlclose(lib);
    }
}

}  // namespace
