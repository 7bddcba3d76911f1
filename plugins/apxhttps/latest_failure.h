/// Why the latest operations failed, for whoever asks afterwards.
#ifndef TESAUTH_APXHTTPS_LATEST_FAILURE_H
#define TESAUTH_APXHTTPS_LATEST_FAILURE_H

#include "status.h"

#include <cstddef>
#include <cstdint>

namespace tessary::apxhttps {

/// Remembers the reason of a failure in place of the one before. Any thread.
void RememberFailure(const Failure& failure) noexcept;

/// The latest failure is one without a reason. Any thread.
void ForgetFailure() noexcept;

/// Copies the reason of the latest failure, cut off where `size` says, and a final NUL.
/// \return its length; 0 when the latest failure had another status
std::size_t DescribeFailure(std::uint32_t status, char* buffer, std::size_t size) noexcept;

} // namespace tessary::apxhttps

#endif
