#include "path_rule.h"

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <system_error>

namespace ctl {

namespace {

std::string Octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

} // namespace

bool ReportPath(const std::string& check, const PathRule& rule, const Report& report) {
    struct stat status = {};
    if (stat(rule.path.c_str(), &status) != 0) {
        const int error = errno;
        const bool lacksRights = error == EACCES;
        report({check, lacksRights ? Severity::Warning : Severity::Failure,
                rule.path + " could not be looked at: " + std::generic_category().message(error),
                lacksRights ? asRoot : "ls -l " + rule.path + " shows where it leads"});
        return false;
    }
    const bool rightOwner = status.st_uid == 0;
    if (!rightOwner) {
        report({check, Severity::Failure,
                rule.path + " belongs to user " + std::to_string(status.st_uid) + ", not to root",
                "chown root " + rule.path});
    }
    const bool rightMode = (status.st_mode & rule.forbidden) == 0;
    if (!rightMode) {
        const bool onlyRead = (status.st_mode & rule.forbidden & 0022) == 0;
        report({check, Severity::Failure,
                std::string(onlyRead ? "others than its owner may look into "
                                     : "others than its owner may change ") +
                    rule.path + " (mode " + Octal(status.st_mode) + ")",
                std::string("chmod ") + rule.mend + ' ' + rule.path});
    }
    return rightOwner && rightMode;
}

} // namespace ctl
