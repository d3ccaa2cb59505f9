#include "zelhost/plugin_loader.h"

#include <dlfcn.h>

namespace arv {
namespace nnhal {
namespace host {

namespace {
std::string loaderError() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown loader error";
}
}  // namespace

std::string PluginLoader::load(const std::string& pluginPath, const std::string& runtimePath) {
    if (mPlugin != nullptr) return "plug-in already loaded";
    if (!runtimePath.empty()) {
        dlerror();
        mRuntime = dlopen(runtimePath.c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (mRuntime == nullptr) return "cannot load runtime " + runtimePath + ": " + loaderError();
    }
    dlerror();
    void* plugin = dlopen(pluginPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) return "cannot load plug-in " + pluginPath + ": " + loaderError();
    dlerror();
    void* symbol = dlsym(plugin, kAcceleratorFactory);
    if (symbol == nullptr) {
        const std::string message =
            "plug-in " + pluginPath + " does not export " + kAcceleratorFactory + ": " + loaderError();
        dlclose(plugin);  // nothing of it has run yet
        return message;
    }
    mPlugin = plugin;
    mFactory = reinterpret_cast<CreateAcceleratorFn>(symbol);
    return "";
}

IAccelerator* PluginLoader::createAccelerator(std::string* error) {
    if (mFactory == nullptr) {
        if (error) *error = "no plug-in loaded";
        return nullptr;
    }
    IAccelerator* accelerator = mFactory(&mContext);
    if (accelerator == nullptr && error) *error = std::string(kAcceleratorFactory) + " returned null";
    return accelerator;
}

}  // namespace host
}  // namespace nnhal
}  // namespace arv
