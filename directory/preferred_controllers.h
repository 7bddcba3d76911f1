/// The controllers that the host's administrator wants to be asked first.
#ifndef TESSARY_DIRECTORY_PREFERRED_CONTROLLERS_H
#define TESSARY_DIRECTORY_PREFERRED_CONTROLLERS_H

#include <string>
#include <vector>

namespace tessary::directory {

/// Where the list is kept.
std::string PreferredControllersFile();

/// Names or addresses, in the order to ask them.
std::vector<std::string> PreferredControllers();

/// The same for whoever goes on without them: none for a user who may not read the list, as only
/// root may. The service records are there for everybody.
std::vector<std::string> PreferredIfVisible();

/// Replaces the list; an empty one removes it.
/// \throws Error InvalidParameter when one is neither a name nor an address
void SetPreferredControllers(const std::vector<std::string>& controllers);

} // namespace tessary::directory

#endif
