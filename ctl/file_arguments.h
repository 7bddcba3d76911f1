/// What a command line says about a file of the host's that a verb reads or edits.
#ifndef TESAUTHCTL_FILE_ARGUMENTS_H
#define TESAUTHCTL_FILE_ARGUMENTS_H

#include <string>
#include <vector>

namespace ctl {

struct FileArguments {
    std::string file;
    std::string facility; ///< of a PAM policy
    std::string control;
    std::string module;
    std::vector<std::string> parameters;
    std::string database; ///< of the name-service switch
    std::string service;
    std::string criteria; ///< what goes into the service's brackets; empty: there are none
    std::string before;   ///< at most one of the three says where something new goes
    std::string after;
    bool first = false;
    bool rewrite = false;
    bool dryRun = false;
};

} // namespace ctl

#endif
