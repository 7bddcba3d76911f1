/// Results in the form in which they leave the plug-in.
#ifndef TESAUTH_ADLDAP_RESULTS_H
#define TESAUTH_ADLDAP_RESULTS_H

#include "directory/trusts.h"
#include "provider_plugin.h"

#include <string>
#include <vector>

namespace tessary::adldap {

// Each is one block of memory, pointers and texts together, so that Release() frees any of them.
// They throw std::bad_alloc.

char* MakeText(const std::string& text);

/// Ends with a null pointer.
char** MakeTexts(const std::vector<std::string>& texts);

/// Ends with a null pointer.
ActiveDirectoryDomainNames** MakeDomains(const std::vector<directory::TrustedDomain>& domains);

} // namespace tessary::adldap

#endif
