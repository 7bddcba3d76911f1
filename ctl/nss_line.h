/// A line of the name-service switch's configuration, word by word.
#ifndef TESAUTHCTL_NSS_LINE_H
#define TESAUTHCTL_NSS_LINE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "systemconfiguration/nss.h"

namespace ctl {

/// A service on a line; the offsets are those in the file's text.
struct NssWord {
    std::string name;
    std::size_t begin;
    std::size_t end;   ///< behind the brackets that follow it, if any
    std::size_t after; ///< the end of what is before it on its line
};

/// Where a database's services are.
struct NssWords {
    std::vector<NssWord> services;
    /// Behind the database's word, of the last line that has it; npos when there is no such line.
    std::size_t start = std::string::npos;
    std::size_t lineEnd = std::string::npos; ///< before the LF of that line
};

/// Finds a database's services in a text. Throws HintedError for a line of this database that some
/// reader would take for something else: without a blank behind the colon, with brackets that are
/// not closed or not apart from the services, or with a comment behind them.
NssWords FindWords(const std::string& file, const std::string& text,
                   SystemConfiguration::NSSDatabase database);

} // namespace ctl

#endif
