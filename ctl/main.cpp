#include <cstdio>
#include <exception>
#include <iostream>
#include <unistd.h>

#include "command_line.h"
#include "output.h"

namespace {

using namespace ctl;

Answer Run(const Verb& verb, const Arguments& arguments) {
    if (verb.changesHost && geteuid() != 0) {
        const std::string name =
            (verb.group == nullptr ? "" : verb.group + std::string(" ")) + verb.name;
        throw NotPermittedError(name + " changes this host and needs root");
    }
    return verb.run(arguments);
}

ActingAccount ActingAs(const Arguments& arguments) {
    if (!arguments.proxy.empty()) {
        return ActingAccount::Proxy;
    }
    return arguments.user.empty() ? ActingAccount::Host : ActingAccount::User;
}

ExitCode RunAndTell(const CommandLine& line) {
    const bool asJson = line.arguments.json;
    try {
        return Tell(Run(*line.verb, line.arguments), asJson);
    } catch (...) {
        return Tell(DescribeFailure(std::current_exception(), ActingAs(line.arguments)), asJson);
    }
}

} // namespace

int main(int argc, char** argv) {
    const CommandLine line = ParseCommandLine(argc, argv);
    const ExitCode exitCode = line.verb == nullptr ? line.exitCode : RunAndTell(line);
    std::cout.flush();
    std::fflush(nullptr);
    // Questions to a directory that does not answer are still running; exit() would tear down the
    // libraries that they are in.
    _exit(static_cast<int>(exitCode));
}
