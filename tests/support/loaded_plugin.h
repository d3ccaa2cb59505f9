// The built plug-in, loaded once for the whole test program through the
// host's plug-in loader (with the simulator as its runtime), and kept
// loaded, as in a host. Needs ZEL_PLUGIN_PATH and ZEL_RUNTIME_PATH.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "zelhost/plugin_loader.h"

namespace zeltest {

inline arv::nnhal::host::PluginLoader& loadedPlugin() {
    static arv::nnhal::host::PluginLoader* loader = [] {
        auto* created = new arv::nnhal::host::PluginLoader;
        const std::string error = created->load(ZEL_PLUGIN_PATH, ZEL_RUNTIME_PATH);
        if (!error.empty()) ADD_FAILURE() << error;
        return created;
    }();
    return *loader;
}

}  // namespace zeltest
