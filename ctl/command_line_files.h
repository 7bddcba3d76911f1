/// The arguments of the verbs that read or edit a file of the host's.
#ifndef TESAUTHCTL_COMMAND_LINE_FILES_H
#define TESAUTHCTL_COMMAND_LINE_FILES_H

#include <string>
#include <vector>

#include "command_line.h"

namespace CLI {
class App;
}

namespace ctl {

/// What these verbs take; nothing for any other verb.
void AddFileArguments(const Verb& verb, CLI::App& app, FileArguments& arguments);

/// The words of a command line, in the reverse order, as the parser takes them. Those of these
/// verbs may begin with "-" behind a "--" and may be a list in brackets, which the parser takes for
/// something else: such words are marked until they are parsed.
std::vector<std::string> MarkWords(int argc, const char* const* argv);

/// Takes the marks off.
void RemoveMarks(FileArguments& arguments);

} // namespace ctl

#endif
