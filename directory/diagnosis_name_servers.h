/// Whether the host's name servers answer.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_NAME_SERVERS_H
#define TESSARY_DIRECTORY_DIAGNOSIS_NAME_SERVERS_H

#include "diagnosis.h"

#include <string>

namespace tessary::directory {

/// Asks each name server of /etc/resolv.conf, all at once, and waits 3 seconds at most. One that is
/// of no use is a warning where another one is, else a failure.
/// \param domain whose controllers they are asked for; empty for any answer at all
Findings CheckNameServers(const std::string& domain);

} // namespace tessary::directory

#endif
