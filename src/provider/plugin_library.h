/// Loading of plug-ins, the same for directory providers and proxy clients.
#ifndef TESAUTH_PROVIDER_PLUGIN_LIBRARY_H
#define TESAUTH_PROVIDER_PLUGIN_LIBRARY_H

#include <memory>
#include <string>

namespace tessary::authentication::plugin {

/// Opens "lib<name>.so" in /usr/libexec/tesauth/lib64/, else in /usr/libexec/tesauth/. The name is
/// used as given. Throws IOError, `failurePrefix` followed by the loader's text for the second
/// path. The last owner of the handle closes the plug-in.
std::shared_ptr<void> Open(const std::string& name, const std::string& failurePrefix);

} // namespace tessary::authentication::plugin

#endif
