// Both builds of the simulator, opened the way the plug-in opens a runtime:
// every entry point is exported, and the noconfig build lacks exactly
// kestrel_zel_nn_config.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

namespace {

const char* const kEntryPoints[] = {
    "kestrel_zel_nn_init",         "kestrel_zel_nn_getlog",      "kestrel_zel_nn_snpprint",
    "kestrel_zel_nn_set_debug_level", "kestrel_zel_nn_prepare",  "kestrel_zel_nn_append_node",
    "kestrel_zel_nn_append_const_node", "kestrel_zel_nn_execute_new", "kestrel_zel_nn_execute",
    "kestrel_zel_nn_teardown",     "kestrel_zel_nn_version",     "kestrel_zel_nn_set_config_params"};

struct Library {
    explicit Library(const std::string& path) : handle(dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL)) {}
    ~Library() {
        if (handle != nullptr) dlclose(handle);
    }
    void* handle;
};

TEST(SimBuilds, FullBuildExportsEveryEntryPoint) {
    Library lib(ZELSIM_FULL_PATH);
    ASSERT_NE(nullptr, lib.handle) << dlerror();
    for (const char* name : kEntryPoints) EXPECT_NE(nullptr, dlsym(lib.handle, name)) << name;
    auto config = reinterpret_cast<int (*)()>(dlsym(lib.handle, "kestrel_zel_nn_config"));
    ASSERT_NE(nullptr, config);
    EXPECT_EQ(0, config());
    EXPECT_EQ(nullptr, dlsym(lib.handle, "_ZN6zelsim5store5stateEv"));  // internals stay hidden
}

TEST(SimBuilds, NoConfigBuildLacksOnlyConfig) {
    Library lib(ZELSIM_NOCONFIG_PATH);
    ASSERT_NE(nullptr, lib.handle) << dlerror();
    for (const char* name : kEntryPoints) EXPECT_NE(nullptr, dlsym(lib.handle, name)) << name;
    EXPECT_EQ(nullptr, dlsym(lib.handle, "kestrel_zel_nn_config"));
    auto version = reinterpret_cast<int (*)(int*)>(dlsym(lib.handle, "kestrel_zel_nn_version"));
    int value = 0;
    ASSERT_NE(nullptr, version);
    EXPECT_EQ(0, version(&value));
    EXPECT_EQ(0x20100, value);
}

}  // namespace
