/// Tells a person that something is still going on.
#ifndef TESAUTHCTL_PROGRESS_H
#define TESAUTHCTL_PROGRESS_H

#include <functional>
#include <string>

namespace ctl {

/// Runs the work on a thread of its own and waits for it. Where a person is looking, a line on
/// standard error says every five seconds that it is still going on; from 30 seconds on `afterLong`
/// is added to it. Throws what the work throws.
void RunReported(const std::string& whatGoesOn, std::function<void()> work,
                 const std::string& afterLong = "");

} // namespace ctl

#endif
