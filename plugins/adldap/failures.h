/// Why operations failed, kept for whoever asks.
#ifndef TESAUTH_ADLDAP_FAILURES_H
#define TESAUTH_ADLDAP_FAILURES_H

#include <cstddef>
#include <cstdint>

namespace tessary::adldap {

/// Remembers the latest failure with a status. Any thread.
void RememberFailure(std::uint32_t status, const char* text) noexcept;

/// As the entry of the same name in the maintenance table. Any thread.
std::size_t DescribeFailure(std::uint32_t status, char* buffer, std::size_t size) noexcept;

} // namespace tessary::adldap

#endif
