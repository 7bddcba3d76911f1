/// The services of this host at which users may log in with a smart card.
#ifndef TESSARY_DIRECTORY_SMART_CARD_SERVICES_H
#define TESSARY_DIRECTORY_SMART_CARD_SERVICES_H

#include <string>
#include <vector>

namespace tessary::directory {

/// Names of PAM services, in the order in which they were set; empty when none have been.
std::vector<std::string> SmartCardServices();

/// Replaces the list; an empty one removes it.
/// \throws Error InvalidParameter when one cannot be the name of a PAM service
void SetSmartCardServices(const std::vector<std::string>& services);

} // namespace tessary::directory

#endif
