#include "failures.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace tessary::adldap {
namespace {

struct Failures {
    std::mutex mutex;
    std::map<std::uint32_t, std::string> byStatus;
};

// Not destroyed: operations may still run while the process exits.
Failures& Known() {
    static auto& failures = *new Failures;
    return failures;
}

} // namespace

void RememberFailure(std::uint32_t status, const char* text) noexcept {
    try {
        Failures& known = Known();
        const std::lock_guard lock(known.mutex);
        known.byStatus[status] = text;
    } catch (...) {
        // Out of memory: the status has to do.
    }
}

std::size_t DescribeFailure(std::uint32_t status, char* buffer, std::size_t size) noexcept {
    try {
        Failures& known = Known();
        const std::lock_guard lock(known.mutex);
        const auto found = known.byStatus.find(status);
        const std::string_view text =
            found == known.byStatus.end() ? std::string_view("") : found->second;
        if (size > 0) {
            const std::size_t copied = std::min(text.size(), size - 1);
            std::memcpy(buffer, text.data(), copied);
            buffer[copied] = '\0';
        }
        return text.size();
    } catch (...) {
        return 0;
    }
}

} // namespace tessary::adldap
