#include "plugin_library.h"

#include <dlfcn.h>

#include "tesauth/exceptions.h"
#include "text.h"

namespace tessary::authentication::plugin {

namespace {

constexpr const char* pluginDirectory = "/usr/libexec/tesauth/";

void* TryOpen(const std::string& path) {
    dlerror(); // an error that is still pending is not ours
    return dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
}

} // namespace

std::shared_ptr<void> Open(const std::string& name, const std::string& failurePrefix) {
    const std::string file = "lib" + name + ".so";
    void* handle = TryOpen(std::string(pluginDirectory) + "lib64" + "/" + file);
    if (handle == nullptr) {
        handle = TryOpen(pluginDirectory + file);
    }
    if (handle == nullptr) {
        throw IOError(failurePrefix + TextOrEmpty(dlerror()));
    }
    return {handle, [](void* opened) { dlclose(opened); }};
}

} // namespace tessary::authentication::plugin
