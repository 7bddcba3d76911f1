#pragma once

#include "scripted_proxy.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "scripted_host.h"

namespace scripted {

/// The scripted proxy client installed as "script", named in the settings, and kept loaded with its
/// initial state as long as the object lives.
class InstalledProxy {
public:
    InstalledProxy() {
        InstallPlugin(SCRIPTED_PROXY_FILE, "script");
        WriteFile(proxyProviderFile, "provider = \"script\"\n");
        handle_ = dlopen("/usr/libexec/tesauth/libscript.so", RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
        state_ = reinterpret_cast<decltype(&scripted_proxy)>(dlsym(handle_, "scripted_proxy"))();
        initial_ = *state_;
    }
    ~InstalledProxy() {
        *state_ = initial_;
        dlclose(handle_);
    }
    InstalledProxy(const InstalledProxy&) = delete;
    InstalledProxy& operator=(const InstalledProxy&) = delete;

    ScriptedProxy* operator->() const { return state_; }

    /// What has been called since the last time.
    std::string TakeCalls() const {
        std::string calls = state_->calls;
        state_->calls[0] = '\0';
        return calls;
    }

private:
    void* handle_;
    ScriptedProxy* state_;
    ScriptedProxy initial_;
};

} // namespace scripted
