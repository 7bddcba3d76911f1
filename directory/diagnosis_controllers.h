/// What was found out about a domain's controllers, for a person.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_CONTROLLERS_H
#define TESSARY_DIRECTORY_DIAGNOSIS_CONTROLLERS_H

#include "diagnosis.h"
#include "diagnosis_probe.h"

#include <string>
#include <vector>

namespace tessary::directory {

/// A finding for each controller. One that cannot be used is a warning where another one can, else
/// a failure.
Findings ControllerFindings(const std::vector<ControllerReport>& controllers,
                            const std::string& domain);

/// A finding for each controller that serves the domain and told the time.
Findings ClockFindings(const std::vector<ControllerReport>& controllers, const std::string& domain);

/// The command that sets this host's clock.
std::string SetClockCommand();

} // namespace tessary::directory

#endif
