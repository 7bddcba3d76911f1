#include "maintenance.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>

#include "tesauth/exceptions.h"

namespace ctl {

namespace auth = tessary::authentication;

namespace {

/// The library opens plug-ins for all to see.
const ActiveDirectoryClientMaintenance* LoadedTable() {
    return static_cast<const ActiveDirectoryClientMaintenance*>(
        dlsym(RTLD_DEFAULT, "ActiveDirectoryClientMaintenance"));
}

/// The sentence that a plug-in has for a status; empty when it has none.
std::string SentenceFor(size_t (*describe)(uint32_t, char*, size_t), uint32_t status) {
    if (describe == nullptr) {
        return "";
    }
    std::string sentence(255, '\0');
    const auto fill = [&] { return describe(status, sentence.data(), sentence.size() + 1); };
    std::size_t length = fill();
    if (length > sentence.size()) {
        sentence.resize(length);
        length = fill(); // another thread's failure may be longer still: then it is cut off
    }
    sentence.resize(length == 0 ? 0 : strnlen(sentence.data(), sentence.size()));
    return sentence;
}

std::string TextOrEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

/// What is no severity that we know is not in order.
Severity SeverityOf(uint32_t number) {
    return number <= ActiveDirectorySeverityFailure ? static_cast<Severity>(number)
                                                    : Severity::Failure;
}

void PassOn(void* report, const ActiveDirectoryFinding* finding) {
    (*static_cast<const Report*>(report))(
        {TextOrEmpty(finding->check), SeverityOf(finding->severity), TextOrEmpty(finding->text),
         TextOrEmpty(finding->remedy)});
}

} // namespace

std::optional<int32_t> Maintenance::VersionOfLoadedProvider() {
    const auto* table = LoadedTable();
    return table == nullptr ? std::nullopt : std::optional(table->apiVersion);
}

std::optional<Maintenance> Maintenance::OfLoadedProvider() {
    const auto* table = LoadedTable();
    if (table == nullptr || table->apiVersion != TESAUTH_MAINTENANCE_API_VERSION) {
        return std::nullopt;
    }
    return Maintenance(*table);
}

std::string Maintenance::DescribeFailure(uint32_t status) const {
    return SentenceFor(table_->describeFailure, status);
}

uint32_t Maintenance::Diagnose(const std::string& domain, const Report& report) const {
    auto* context = const_cast<Report*>(&report);
    return table_->diagnose(domain.empty() ? nullptr : domain.c_str(), PassOn, context);
}

bool Maintenance::RotateMachineKey(uint32_t minimumAgeSeconds) const {
    if (table_->rotateMachineKey == nullptr) {
        throw auth::CallNotImplementedException();
    }
    int32_t rotated = 0;
    if (const uint32_t status = table_->rotateMachineKey(minimumAgeSeconds, &rotated)) {
        auth::ThrowMappedException(status);
    }
    return rotated != 0;
}

std::string DescribeProxyFailure(uint32_t status) {
    const auto* table = static_cast<const APXProxyClientMaintenance*>(
        dlsym(RTLD_DEFAULT, "APXProxyClientMaintenance"));
    const bool usable = table != nullptr && table->apiVersion == TESAUTH_MAINTENANCE_API_VERSION;
    return usable && status != 0 ? SentenceFor(table->describeFailure, status) : "";
}

} // namespace ctl
