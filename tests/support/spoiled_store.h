#pragma once

#include <string>

/// The host configuration store of a private host, made to fail.
namespace scripted {

/// The store fails from here on, whatever is asked of it. Returns the text of its failures.
std::string BreakConfigStore();

/// The store opens and can be read, but refuses changes from here on. Returns the text of what
/// refuses them.
std::string RefuseChanges();

/// The joined domain's name as it is stored; "(none)" when none is.
std::string StoredDomain();

} // namespace scripted
