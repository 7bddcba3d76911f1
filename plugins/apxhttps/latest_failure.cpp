#include "latest_failure.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace tessary::apxhttps {
namespace {

struct Latest {
    std::mutex mutex;
    Status status = Status::Success;
    std::string reason;
};

/// Never destroyed: it may be asked while the process ends.
Latest& TheLatest() {
    static Latest& latest = *new Latest;
    return latest;
}

} // namespace

void RememberFailure(const Failure& failure) noexcept {
    try {
        std::string reason = failure.Reason();
        Latest& latest = TheLatest();
        const std::lock_guard lock(latest.mutex);
        latest.status = failure.Code();
        latest.reason.swap(reason);
    } catch (const std::exception&) {
        ForgetFailure();
    }
}

void ForgetFailure() noexcept {
    Latest& latest = TheLatest();
    const std::lock_guard lock(latest.mutex);
    latest.status = Status::Success;
}

std::size_t DescribeFailure(std::uint32_t status, char* buffer, std::size_t size) noexcept {
    Latest& latest = TheLatest();
    const std::lock_guard lock(latest.mutex);
    if (static_cast<Status>(status) != latest.status)
        return 0;
    if (size > 0) {
        const std::size_t copied = std::min(size - 1, latest.reason.size());
        std::memcpy(buffer, latest.reason.data(), copied);
        buffer[copied] = '\0';
    }
    return latest.reason.size();
}

} // namespace tessary::apxhttps
