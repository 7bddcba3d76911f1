/// What a domain says of its controllers.
#ifndef TESSARY_DIRECTORY_DIAGNOSIS_RECORDS_H
#define TESSARY_DIRECTORY_DIAGNOSIS_RECORDS_H

#include "diagnosis.h"
#include "resolver.h"

#include <string>
#include <vector>

namespace tessary::directory {

/// Where a controller's name comes from: one of the two, or both.
struct Origin {
    bool record = true;     ///< the domain's service records
    bool preferred = false; ///< the list of controllers that this host asks first
};

/// A controller to look at.
struct NamedController {
    std::string host;
    HostAddresses lookup;
    Origin origin;
};

struct DomainRecords {
    Findings findings;
    bool found = false; ///< the domain has service records
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
