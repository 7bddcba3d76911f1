#pragma once

#include <string>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "apx_plugin.h"
#include "maintenance_plugin.h"

/// The installed plug-in, as the library loads it.
inline const APXProxyClientOperations* LoadApxhttps() {
    void* const library = dlopen("/usr/libexec/tesauth/libapxhttps.so", RTLD_LAZY | RTLD_GLOBAL);
    EXPECT_NE(library, nullptr) << dlerror();
    return library ? static_cast<const APXProxyClientOperations*>(
                         dlsym(library, "APXProxyClientOperations"))
                   : nullptr;
}
