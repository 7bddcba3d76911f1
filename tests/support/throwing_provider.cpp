/// A directory provider plug-in that breaks its promise not to throw.
#include <stdexcept>

#include "tesauth/plugin/provider_plugin.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

/// What the operations throw: a standard exception, or something that is none.
EXPORTED bool throwing_provider_throws_numbers;
bool throwing_provider_throws_numbers = false;

namespace {

template <typename Result, typename... Arguments>
Result Throw(Arguments...) {
    if (throwing_provider_throws_numbers) {
        throw 42;
    }
    throw std::runtime_error("thrown by the plug-in");
}

} // namespace

EXPORTED const ActiveDirectoryClientMetadata ActiveDirectoryClientMetadata;
const struct ActiveDirectoryClientMetadata ActiveDirectoryClientMetadata = {3, "", nullptr, "",
                                                                            nullptr};

EXPORTED const struct ActiveDirectoryClientOperations ActiveDirectoryClientOperations;
const struct ActiveDirectoryClientOperations ActiveDirectoryClientOperations = {
    3,     Throw, Throw, Throw, Throw, Throw, nullptr, Throw, Throw,
    Throw, Throw, Throw, Throw, Throw, Throw, Throw,   Throw,
};
