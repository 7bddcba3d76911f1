/// A line of the name-service switch's configuration, word by word.
#ifndef TESAUTHCTL_NSS_LINE_H
#define TESAUTHCTL_NSS_LINE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "lines.h"
#include "systemconfiguration/nss.h"

namespace ctl {

/// A service on a line; the offsets are those in the file's text.
struct NssWord {
    std::string name;
    std::size_t begin;
    std::size_t end; ///< behind the brackets that follow it, if any
};

/// Where a database's services are.
struct NssWords {
    std::vector<NssWord> services;
    /// Behind the database's word; npos when there is no such line, the last one's when several.
    std::size_t start = std::string::npos;
    std::size_t lineEnd = std::string::npos; ///< before the LF of that line
};

/// Finds a database's services in a text. Throws HintedError for a line of this database that some
/// reader would take for something else: without a colon or a blank behind it, with brackets that
/// are not closed or not apart from the services, or with a comment behind them; and for its second
/// line, where only lines are to be changed: the library takes both together, other readers one.
NssWords FindWords(const std::string& file, const std::string& text,
                   SystemConfiguration::NSSDatabase database, Way way);

} // namespace ctl

#endif
