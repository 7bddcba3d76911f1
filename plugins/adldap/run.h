/// How an entry of the plug-in's tables runs.
#ifndef TESAUTH_ADLDAP_RUN_H
#define TESAUTH_ADLDAP_RUN_H

#include "failures.h"

#include "directory/error.h"
#include "directory/operation.h"

#include <cstdint>
#include <exception>
#include <new>

namespace tessary::adldap {

/// Runs one operation; no exception leaves the plug-in.
/// \return the status
template <typename Function>
std::uint32_t Run(Function function) noexcept {
    const auto failed = [](directory::Status status, const char* text) {
        RememberFailure(static_cast<std::uint32_t>(status), text);
        return static_cast<std::uint32_t>(status);
    };
    try {
        const directory::Operation operation;
        function();
        return static_cast<std::uint32_t>(directory::Status::Success);
    } catch (const directory::Error& error) {
        return failed(error.Code(), error.what());
    } catch (const std::bad_alloc&) {
        return failed(directory::Status::NotEnoughMemory, "out of memory");
    } catch (const std::exception& error) {
        return failed(directory::Status::InternalError, error.what());
    } catch (...) {
        return failed(directory::Status::InternalError, "a failure of unknown kind");
    }
}

} // namespace tessary::adldap

#endif
