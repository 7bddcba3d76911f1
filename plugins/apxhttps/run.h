/// How an entry of the plug-in's table runs.
#ifndef TESAUTH_APXHTTPS_RUN_H
#define TESAUTH_APXHTTPS_RUN_H

#include "latest_failure.h"
#include "status.h"

#include <cstdint>
#include <new>

namespace tessary::apxhttps {

/// Runs one operation; no exception leaves the plug-in.
/// \return the status
template <typename Function>
std::uint32_t Run(Function function) noexcept {
    const auto run = [&function] {
        try {
            function();
            return Status::Success;
        } catch (const Failure& failure) {
            RememberFailure(failure);
            return failure.Code();
        } catch (const std::bad_alloc&) {
            ForgetFailure();
            return Status::OutOfMemory;
        } catch (...) {
            ForgetFailure();
            return Status::InternalError;
        }
    };
    return static_cast<std::uint32_t>(run());
}

} // namespace tessary::apxhttps

#endif
