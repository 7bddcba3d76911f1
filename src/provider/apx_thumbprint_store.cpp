#include "tesauth/apx_proxy.h"

namespace tessary::authentication {

APXThumbprintStore::APXThumbprintStore(const std::string& file) : Configuration(file) {}
APXThumbprintStore::~APXThumbprintStore() = default;

std::string APXThumbprintStore::LookupThumbprint(const std::string& key) const {
    const auto stored = find(key);
    return stored != end() ? stored->second : "";
}

void APXThumbprintStore::ImportThumbprint(const std::string& thumbprint, const std::string& key) {
    const auto [stored, isNew] = emplace(key, thumbprint);
    if (!isNew) {
        if (stored->second == thumbprint) {
            return;
        }
        stored->second = thumbprint;
    }
    Write();
}

} // namespace tessary::authentication
