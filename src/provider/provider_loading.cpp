#include <dlfcn.h>
#include <iterator>
#include <sstream>

#include "plugin_library.h"
#include "tesauth/exceptions.h"
#include "tesauth/provider.h"
#include "text.h"

namespace tessary::authentication {

namespace {

constexpr const char* metadataSymbol = "ActiveDirectoryClientMetadata";
constexpr const char* operationsSymbol = "ActiveDirectoryClientOperations";

void AppendWords(const char* text, std::list<std::string>& words) {
    std::istringstream stream(TextOrEmpty(text));
    words.insert(words.end(), std::istream_iterator<std::string>(stream), {});
}

/// The loader's text for a symbol that is missing; a later look-up that succeeded has cleared it,
/// so the failing one is made again.
std::string MissingSymbolText(void* handle) {
    if (const char* reason = dlerror()) {
        return reason;
    }
    static_cast<void>(dlsym(handle, metadataSymbol));
    return TextOrEmpty(dlerror());
}

} // namespace

ActiveDirectoryProvider::ActiveDirectoryProvider(const std::string& name)
    : handle(plugin::Open(name, "Unable to open provider: ")) {
    metadata =
        static_cast<const ActiveDirectoryClientMetadata*>(dlsym(handle.get(), metadataSymbol));
    if (metadata != nullptr && metadata->apiVersion > TESAUTH_PROVIDER_API_VERSION) {
        throw InvalidActiveDirectoryProviderException(
            name, "The API version (" + std::to_string(metadata->apiVersion) +
                      ") is not supported by this version of libtesauth");
    }
    operations =
        static_cast<const ActiveDirectoryClientOperations*>(dlsym(handle.get(), operationsSymbol));
    if (metadata == nullptr || operations == nullptr) {
        throw InvalidActiveDirectoryProviderException(name, MissingSymbolText(handle.get()));
    }
    CacheMetadata();
}

ActiveDirectoryProvider::~ActiveDirectoryProvider() {
    handle.reset(); // before the strings go
}

const std::string& ActiveDirectoryProvider::PAMModule() const {
    return pamModule;
}

const std::list<std::string>& ActiveDirectoryProvider::PAMModuleParameters() const {
    return pamModuleParameters;
}

const std::string& ActiveDirectoryProvider::NSSModule() const {
    return nssModule;
}

const std::list<std::string>& ActiveDirectoryProvider::NSSModuleParameters() const {
    return nssModuleParameters;
}

int32_t ActiveDirectoryProvider::GetAPIVersion() const {
    return operations->apiVersion;
}

void ActiveDirectoryProvider::CacheMetadata() {
    pamModule = TextOrEmpty(metadata->pamModule);
    AppendWords(metadata->pamModuleParameters, pamModuleParameters);
    nssModule = TextOrEmpty(metadata->nssModule);
    AppendWords(metadata->nssModuleParameters, nssModuleParameters);
}

} // namespace tessary::authentication
