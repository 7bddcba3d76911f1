// What the plug-in offers to the host's administrator.

#include "failures.h"
#include "run.h"

#include "directory/diagnosis.h"
#include "directory/key_rotation.h"

#include "maintenance_plugin.h"

namespace tessary::adldap {
namespace {

using namespace directory;

std::uint32_t SeverityNumber(Severity severity) {
    switch (severity) {
    case Severity::Ok:
        return ActiveDirectorySeverityOk;
    case Severity::Warning:
        return ActiveDirectorySeverityWarning;
    case Severity::Failure:
        break;
    }
    return ActiveDirectorySeverityFailure;
}

std::uint32_t ReportDiagnosis(const char* domain, ActiveDirectoryFindingFunction report,
                              void* context) {
    return Run([&] {
        Diagnose(domain ? domain : "", [&](const Finding& finding) {
            const ActiveDirectoryFinding reported{finding.check.c_str(),
                                                  SeverityNumber(finding.severity),
                                                  finding.text.c_str(), finding.remedy.c_str()};
            report(context, &reported);
        });
    });
}

std::uint32_t RotateMachineKey(std::uint32_t minimumAge, std::int32_t* rotated) {
    return Run([&] { *rotated = RotateKey(std::chrono::seconds(minimumAge)) ? 1 : 0; });
}

} // namespace
} // namespace tessary::adldap

extern "C" {

// Constants have internal linkage unless declared otherwise first.
[[gnu::visibility("default")]] extern const struct ActiveDirectoryClientMaintenance
    ActiveDirectoryClientMaintenance;

const struct ActiveDirectoryClientMaintenance ActiveDirectoryClientMaintenance = {
    .apiVersion = TESAUTH_MAINTENANCE_API_VERSION,
    .describeFailure = tessary::adldap::DescribeFailure,
    .diagnose = tessary::adldap::ReportDiagnosis,
    .rotateMachineKey = tessary::adldap::RotateMachineKey,
};

} // extern "C"
