/// tesauth-apxd: makes machine accounts for hosts that have no domain credentials.
#include <CLI/CLI.hpp>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include "configuration.h"
#include "decision_log.h"
#include "directory_accounts.h"
#include "host_name.h"
#include "keytab_check.h"
#include "server.h"
#include "serving.h"
#include "start.h"

namespace {

using namespace tessary::proxy;

constexpr int succeeded = 0;
constexpr int failed = 1;
constexpr int misused = 2;
constexpr int misconfigured = 3;

constexpr std::chrono::seconds timeToEnd{10};
constexpr std::chrono::hours day{24};

struct CommandLine {
    std::string configuration = defaultConfiguration;
    std::string hostToRelease;
    bool release = false;
    bool check = false;
};

/// Whether what is written to a descriptor is logged by the service manager.
bool IsJournal(int fd) {
    const char* const journal = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return journal != nullptr && fstat(fd, &status) == 0 &&
           std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == journal;
}

/// Says what failed, to whoever is there, and once to each.
int Fail(const std::string& cause) {
    if (!IsJournal(STDERR_FILENO))
        std::cerr << "tesauth-apxd: " << cause << '\n';
    syslog(LOG_ERR, "%s", cause.c_str());
    return failed;
}

int Check(const std::string& file) {
    const CheckResult result = CheckConfiguration(file);
    for (const std::string& fault : result.faults)
        std::cerr << fault << '\n';
    for (const std::string& fact : result.facts)
        std::cout << fact << '\n';
    return result.faults.empty() ? succeeded : failed;
}

int Release(const std::string& file, const std::string& host) {
    const auto name = NormalizeHostName(host);
    if (!name)
        return Fail(Printable(host) + " is not a fully qualified host name");
    const Configuration configuration = ReadConfiguration(file);
    const uid_t user = getuid();
    BecomeOwnerOf(configuration.accounts.stateDirectory);
    ReleaseAccount(configuration.accounts.stateDirectory, *name);
    syslog(LOG_INFO, "%s: released by the user %u", name->c_str(), user);
    std::cout << "the account of " << *name << " may be given a new password once\n";
    return succeeded;
}

Identity Prepare(const Configuration& configuration) {
    AllowConnections(configuration.server.front.connections);
    CheckKeytab(configuration.accounts.keytab, configuration.accounts.account,
                configuration.accounts.domain);
    PrepareStateDirectory(configuration.accounts.stateDirectory);
    Identity identity = PrepareIdentity(configuration);
    std::cout << "thumbprint " << identity.Thumbprint() << std::endl; // a service's is logged
    for (const std::string& warning : Warnings(configuration))
        syslog(LOG_WARNING, "%s", warning.c_str());
    return identity;
}

/// The signals that end the server; taken by nothing but WaitForSignal().
sigset_t EndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    return signals;
}

int Serve(const std::string& file) {
    const sigset_t signals = EndingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    umask(077);
    const rlimit noCore{};
    setrlimit(RLIMIT_CORE, &noCore); // it would have keys in it

    const Configuration configuration = ReadConfiguration(file);
    const Identity identity = Prepare(configuration);
    const auto accounts = OpenDirectoryAccounts(configuration.accounts);
    Server server(configuration.server, identity, *accounts, SystemLookUp(), SystemLog());
    const Peer self{configuration.server.front.listen, server.Port()};
    syslog(LOG_INFO, "serving %s at %s", configuration.accounts.domain.c_str(),
           self.Text().c_str());
    sd_notify(0, "READY=1");

    WaitForSignal(signals, day,
                  [&] { WarnOfExpiry(identity, configuration.certificate, SystemLog()); });
    sd_notify(0, "STOPPING=1");
    EndServer(server, timeToEnd, SystemLog());
    return succeeded;
}

int Run(const CommandLine& line) {
    try {
        if (line.check)
            return Check(line.configuration);
        if (line.release)
            return Release(line.configuration, line.hostToRelease);
        return Serve(line.configuration);
    } catch (const ConfigurationError& error) {
        for (const std::string& fault : error.Faults())
            Fail(fault);
        return misconfigured;
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}

} // namespace

int main(int argc, char** argv) {
    CommandLine line;
    CLI::App app("Authentication proxy: makes machine accounts for hosts that have no domain "
                 "credentials");
    app.set_version_flag("--version", "tesauth-apxd " TESAUTH_APXD_VERSION);
    app.add_option("--config", line.configuration, "The configuration file")->capture_default_str();
    auto* const check =
        app.add_flag("--check", line.check, "Check the configuration and what it names, and end");
    auto* const release =
        app.add_subcommand("release", "Let the account of a host be given a new password once");
    release->add_option("host", line.hostToRelease, "The host's fully qualified name")->required();
    release->fallthrough();
    release->excludes(check);
    app.footer("Exit codes: 0 done, 1 failed, 2 wrong usage, 3 wrong configuration");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? succeeded : misused;
    }
    line.release = release->parsed();
    openlog("tesauth-apxd", LOG_PID, LOG_DAEMON);
    return Run(line);
}
