/// The name-service switch's configuration as a text that is edited.
#ifndef TESAUTHCTL_NSS_FILE_H
#define TESAUTHCTL_NSS_FILE_H

#include <cstddef>
#include <string>
#include <vector>

#include "lines.h"
#include "systemconfiguration/nss.h"

namespace ctl {

/// Every database, in the order in which the library writes them.
std::vector<SystemConfiguration::NSSDatabase> NssDatabases();

/// Whether the service is read as just this one: nothing in it is empty or has white space,
/// brackets or a '#' in it.
bool CanBeWritten(const SystemConfiguration::NSSService& service);

/// A configuration's text.
///
/// The library does not read what follows brackets on a line. Edits that change only the lines
/// concerned go by the words of the line themselves, so they know those services as well; those
/// that rewrite the file don't, and lose them.
class NssFile {
public:
    /// \param name for what is told
    /// Throws HintedError for a line that the library fails to read.
    NssFile(std::string name, std::string text);

    /// The configuration as the library reads it.
    SystemConfiguration::NSSConfiguration Configuration() const;

    // The text after an edit. Both throw HintedError when it cannot be made, as where a line of the
    // database is written in a way that other readers of the file take for something else; so it is
    // with two lines of one database, except for a rewrite.

    /// The new service goes among those of its database, onto a new last line if it has none. It
    /// must be one that can be written. Throws also when the database has it already.
    std::string WithService(SystemConfiguration::NSSDatabase database,
                            const SystemConfiguration::NSSService& added, const Place& place,
                            Way way) const;

    /// Without the first service of that name and the brackets behind it.
    std::string WithoutService(SystemConfiguration::NSSDatabase database,
                               const std::string& service, Way way) const;

private:
    /// Throws unless the library can read the changed text, too.
    std::string Readable(std::string changed) const;

    std::string name_;
    std::string text_;
};

} // namespace ctl

#endif
