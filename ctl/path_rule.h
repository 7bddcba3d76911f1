/// Who may do what with a file or a folder of the host.
#ifndef TESAUTHCTL_PATH_RULE_H
#define TESAUTHCTL_PATH_RULE_H

#include <string>
#include <sys/types.h>

#include "finding.h"

namespace ctl {

/// What a file or folder has to be like; root has to own it in any case.
struct PathRule {
    std::string path;
    mode_t forbidden; ///< permissions that nobody may have
    const char* mend; ///< the mode that `chmod` gives it
};

/// Reports each way in which an existing path breaks its rule. Returns whether it keeps the rule.
bool ReportPath(const std::string& check, const PathRule& rule, const Report& report);

} // namespace ctl

#endif
