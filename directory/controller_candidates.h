/// Which controllers to ask, in what order.
#ifndef TESSARY_DIRECTORY_CONTROLLER_CANDIDATES_H
#define TESSARY_DIRECTORY_CONTROLLER_CANDIDATES_H

#include "error.h"
#include "resolver.h"

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace tessary::directory {

/// One address of a controller; its name as we came by it.
struct Candidate {
    std::string host;
    SocketAddress address;
};

/// The controllers of a domain, one after the other. Names are looked up only when it is their
/// turn: where the first one answers, no other name server query is needed.
class ControllerCandidates {
public:
    /// \param known hosts to begin with, before those that the domain's service records name
    ControllerCandidates(const std::string& domain, const std::vector<std::string>& known,
                         const Deadline& deadline);

    /// The next address, or nothing when there are no more.
    std::optional<Candidate> Next();

    /// Why the service records could not be read, if so.
    const std::optional<Error>& DiscoveryError() const { return discoveryError_; }

private:
    Resolver resolver_;
    std::string domain_;
    std::deque<std::string> hosts_;
    std::deque<Candidate> addresses_;
    bool discovered_ = false;
    std::optional<Error> discoveryError_;
};

} // namespace tessary::directory

#endif
