/// What a domain says of its controllers.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_RECORDS_H
#define TESSARY_DIRECTORY_DIAGNOSIS_RECORDS_H

#include "diagnosis.h"
#include "socket.h"

#include <string>
#include <vector>

namespace tessary::directory {

/// A controller to look at.
struct NamedController {
    std::string host;
    std::vector<SocketAddress> addresses; ///< empty when the name does not resolve; port 0
};

struct DomainRecords {
    Findings findings;
    /// In the records' order, each once; then those that are only preferred by this host. Of a very
    /// large domain the first fifty.
    std::vector<NamedController> controllers;
};

/// Looks up the domain's service records, and the controllers' addresses. Takes up to 6 seconds
/// when name servers are silent.
/// \param domain empty for nothing to look up
DomainRecords ReadDomainRecords(const std::string& domain);

} // namespace tessary::directory

#endif
