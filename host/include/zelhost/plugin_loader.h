// Loads an accelerator plug-in library the way the host framework does:
// dlopen, look up the exported factory, create the accelerator with the
// host's accelerator context.
#pragma once

#include <string>

#include "arv/nnhal/accelerator.h"
#include "zelhost/host_graph.h"

namespace arv {
namespace nnhal {
namespace host {

// Name of the factory every plug-in exports.
constexpr const char kAcceleratorFactory[] = "CreateAccelerator_zel";

class PluginLoader {
public:
    PluginLoader() = default;
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    // When `runtimePath` is not empty, loads it first (RTLD_NOW | RTLD_GLOBAL)
    // so that the plug-in's own dlopen of the runtime's file name finds this
    // copy by its soname. Then loads `pluginPath` (RTLD_NOW | RTLD_LOCAL) and
    // looks the factory up. Returns "" or the message. May be called once.
    std::string load(const std::string& pluginPath, const std::string& runtimePath = "");

    // A new accelerator from the factory, or null (with `error` set) when
    // the library is not loaded or the factory returns null. The caller
    // disposes of it through release().
    IAccelerator* createAccelerator(std::string* error = nullptr);

    void* pluginHandle() const { return mPlugin; }
    // Handle of the preloaded runtime; null when none was preloaded.
    void* runtimeHandle() const { return mRuntime; }
    IAcceleratorContext* context() { return &mContext; }

    // The libraries stay loaded until the process ends, on purpose: the
    // plug-in keeps a process-wide controller and a background thread whose
    // code must not be unmapped under them.
    ~PluginLoader() = default;

private:
    void* mRuntime = nullptr;
    void* mPlugin = nullptr;
    CreateAcceleratorFn mFactory = nullptr;
    HostAcceleratorContext mContext;
};

}  // namespace host
}  // namespace nnhal
}  // namespace arv
