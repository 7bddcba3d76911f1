/// The command's verbs, their arguments and their help.
#ifndef TESAUTHCTL_COMMAND_LINE_H
#define TESAUTHCTL_COMMAND_LINE_H

#include "verbs.h"

namespace ctl {

/// One verb of the command line.
struct Verb {
    const char* group; ///< the word before the name, or null
    const char* name;
    const char* description;
    const char* example;
    bool changesHost; ///< needs root
    Answer (*run)(const Arguments& arguments);
    const char* note = nullptr; ///< what else its help says
};

/// What a command line comes to: a verb to run, or, when that is null, an exit code; help, version
/// or the error have been written then.
struct CommandLine {
    const Verb* verb = nullptr;
    Arguments arguments;
    ExitCode exitCode = ExitCode::Done;
};

CommandLine ParseCommandLine(int argc, char** argv);

} // namespace ctl

#endif
