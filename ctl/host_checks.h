/// The part of a diagnosis that looks at the host's own files.
#ifndef TESAUTHCTL_HOST_CHECKS_H
#define TESAUTHCTL_HOST_CHECKS_H

#include "finding.h"

namespace ctl {

/// Looks at the settings files, the state folder, the keytab's permissions and the configuration
/// store. Changes nothing. What this user may not look at is a warning that says so.
void CheckHostFiles(const Report& report);

} // namespace ctl

#endif
