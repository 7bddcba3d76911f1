#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "command_line_files.h"

namespace ctl {

namespace {

constexpr const char* exitCodes = "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 not permitted";

constexpr const char* readsFile =
    "Reads the file as the library does and changes nothing. A file with a line that the library\n"
    "does not take for what it is, is refused with the line's number.";

constexpr const char* changesLines =
    "Changes only the line concerned and keeps every other byte of the file, because comments,\n"
    "spacing, order and lines of other programs are the administrator's. With --rewrite it writes\n"
    "the whole file anew in the library's form, which loses all these, for those who want it so.\n"
    "Either way the difference is shown first, and before the first change a backup is made,\n"
    "FILE.tesauth-backup, which `restore` puts back.";

constexpr const char* restoresFile =
    "Puts back every byte of FILE.tesauth-backup, because any other way could lose some, and\n"
    "removes the backup. The difference is shown first.";

constexpr int longestTimeoutSeconds = 86400;

/// A hundred years, and still a number of seconds that the provider can be told.
constexpr int mostDays = 36500;

const Verb verbs[] = {
    {"store", "list", "List the stores; a star marks the active one", "tesauthctl store list",
     false, ListStores},
    {"store", "show", "Print the name of the active store", "tesauthctl store show", false,
     ShowStore},
    {"store", "activate", "Make a store the host's active one",
     "tesauthctl store activate \"Active Directory\"", true, ActivateStore},
    {nullptr, "join", "Join this host to a domain",
     "tesauthctl join corp.example/Servers/Hosts -U Administrator", true, Join,
     "With --proxy no credentials are needed: an authentication proxy makes the machine account.\n"
     "Its certificate has to be imported first, see `proxy import-certificate`."},
    {nullptr, "leave", "Leave the domain; with a user's credentials its account is removed too",
     "tesauthctl leave -U Administrator", true, Leave},
    {nullptr, "status", "Show what this host is joined to and how well that works",
     "tesauthctl status --timeout 2", false, ShowStatus},
    {nullptr, "diagnose", "Look for what is wrong with this host, its domain and the way between",
     "tesauthctl diagnose corp.example", false, Diagnose},
    {nullptr, "rotate-key", "Give this host's machine account a new key",
     "tesauthctl rotate-key --older-than 30", true, RotateKey},
    {nullptr, "trusts", "List the domains that the joined domain trusts", "tesauthctl trusts",
     false, ListTrustedDomains},
    {nullptr, "trust", "Show how the joined domain trusts another one",
     "tesauthctl trust lab.example", false, ShowTrust},
    {nullptr, "dc", "Find a domain controller of a domain", "tesauthctl dc corp.example", false,
     FindDomainController},
    {nullptr, "user", "Print the canonical name of a user", "tesauthctl user alice@corp.example",
     false, ShowUser},
    {nullptr, "principal", "Print this host's principal in a domain",
     "tesauthctl principal corp.example", false, ShowPrincipal},
    {"dcs", "get", "List the preferred domain controllers", "tesauthctl dcs get", false,
     GetDomainControllers},
    {"dcs", "set", "Set the preferred domain controllers; none means no preference",
     "tesauthctl dcs set dc1.corp.example 192.0.2.7", true, SetDomainControllers},
    {"smartcard", "get", "List the services that take smart cards", "tesauthctl smartcard get",
     false, GetSmartCardServices},
    {"smartcard", "set", "Set the services that take smart cards; none means no service",
     "tesauthctl smartcard set login sshd", true, SetSmartCardServices},
    {"proxy", "domain", "Print the domain that an authentication proxy serves",
     "tesauthctl proxy domain 192.0.2.7", false, ShowProxyDomain,
     "Asks without verifying the proxy's certificate: what it answers is not yet to be trusted."},
    {"proxy", "import-certificate", "Trust an authentication proxy by its certificate",
     "tesauthctl proxy import-certificate proxy.pem", true, ImportCertificate,
     "Takes the place of the certificate that was imported before. Compare the thumbprint with\n"
     "the one that the proxy printed when it was started."},
    {"proxy", "show", "Show the certificate that this host trusts its proxy by",
     "tesauthctl proxy show", false, ShowCertificate},
    {"option", "get", "Print an advanced option of this host",
     "tesauthctl option get UserVars.ActiveDirectoryVerifyAPXCertificate", false, GetOption},
    {"option", "set", "Set an advanced option of this host",
     "tesauthctl option set UserVars.ActiveDirectoryVerifyAPXCertificate 1", true, SetOption},
    {"pam", "show", "Print a PAM policy as the library reads and writes it",
     "tesauthctl pam show /etc/pam.d/login", false, ShowPolicy, readsFile},
    {"pam", "find", "Print the first entry that has a module",
     "tesauthctl pam find /etc/pam.d/login auth pam_unix.so", false, FindEntry, readsFile},
    {"pam", "add", "Add an entry to a PAM policy",
     "tesauthctl pam add /etc/pam.d/common-session session optional pam_sss.so", false, AddEntry,
     changesLines},
    {"pam", "remove", "Remove the first entry that has a module from a PAM policy",
     "tesauthctl pam remove /etc/pam.d/common-session session pam_sss.so", false, RemoveEntry,
     changesLines},
    {"pam", "restore", "Put back what a PAM policy was before the first change",
     "tesauthctl pam restore /etc/pam.d/common-session", false, Restore, restoresFile},
    {"nss", "show", "Print the name-service switch as the library reads and writes it",
     "tesauthctl nss show /etc/nsswitch.conf", false, ShowSwitch, readsFile},
    {"nss", "add", "Add a service to a database of the name-service switch",
     "tesauthctl nss add /etc/nsswitch.conf passwd sss --after files", false, AddService,
     changesLines},
    {"nss", "remove", "Remove a service from a database of the name-service switch",
     "tesauthctl nss remove /etc/nsswitch.conf passwd sss", false, RemoveService, changesLines},
    {"nss", "restore", "Put back what the name-service switch was before the first change",
     "tesauthctl nss restore /etc/nsswitch.conf", false, Restore, restoresFile},
};

struct Group {
    const char* name;
    const char* description;
};

constexpr Group groups[] = {
    {"store", "Which accounts this host authenticates"},
    {"dcs", "Domain controllers that this host asks first"},
    {"smartcard", "Services that take smart cards"},
    {"proxy", "The authentication proxy that this host joins through"},
    {"option", "Advanced options of this host"},
    {"pam", "Entries of a PAM policy, in the file of a service"},
    {"nss", "Services of the name-service switch, in its file"},
};

const CLI::Validator
    notEmpty([](std::string& text) { return text.empty() ? std::string("must not be empty") : ""; },
             "TEXT", "not empty");

void AddDomain(CLI::App& app, Arguments& arguments, const char* name, const char* description) {
    app.add_option(name, arguments.domain, description)->required()->check(notEmpty);
}

void AddTimeout(CLI::App& app, int& seconds) {
    app.add_option("--timeout", seconds, "Seconds to wait for the directory")
        ->check(CLI::Range(1, longestTimeoutSeconds))
        ->capture_default_str();
}

CLI::Option* AddUser(CLI::App& app, Arguments& arguments) {
    auto* user =
        app.add_option(
               "-U,--user", arguments.user,
               "User of the directory who does this. Unless told otherwise, the password is "
               "asked for at the terminal")
            ->check(notEmpty);
    auto* fromInput = app.add_flag("--password-stdin", arguments.password.standardInput,
                                   "Take the first line of standard input as the password")
                          ->needs(user);
    app.add_option("--password-file", arguments.password.file,
                   "Take the first line of this file as the password")
        ->check(notEmpty)
        ->needs(user)
        ->excludes(fromInput);
    return user;
}

CLI::Option* AddName(CLI::App& app, Arguments& arguments, const char* name,
                     const char* description) {
    return app.add_option(name, arguments.name, description)->required();
}

/// Any number of names, none as well. The brackets around an IPv6 address fall away.
void AddNames(CLI::App& app, Arguments& arguments, const char* name, const char* description) {
    app.add_option(name, arguments.names, description)->check(notEmpty);
}

void AddProxy(CLI::App& app, Arguments& arguments, const char* name) {
    app.add_option(name, arguments.proxy, "IPv4 address of the authentication proxy")
        ->check(notEmpty);
}

void AddJoin(CLI::App& app, Arguments& arguments) {
    auto* domain =
        app.add_option("DOMAIN[/UNIT]", arguments.domain,
                       "Domain, and organisational unit for the machine account, from the top")
            ->check(notEmpty);
    auto* user = AddUser(app, arguments);
    AddProxy(app, arguments, "--proxy");
    auto* proxy = app.get_option("--proxy")->excludes(domain)->excludes(user);
    app.add_option(
           "--ou", arguments.organizationalUnit,
           "Organisational unit for the machine account, from the top (SERVERS/HOSTS) or as "
           "a distinguished name; the proxy's own unless told")
        ->check(notEmpty)
        ->needs(proxy);
    app.add_flag("--skip-hostname-check", arguments.skipHostnameCheck,
                 "Neither check nor complete the host's name first");
}

void RequireDomainOrProxy(const Arguments& arguments) {
    if (arguments.proxy.empty() && arguments.domain.empty()) {
        throw CLI::RequiredError("DOMAIN or --proxy");
    }
    if (arguments.proxy.empty() && arguments.user.empty()) {
        throw CLI::RequiredError("--user or --proxy");
    }
}

void AddDiagnose(CLI::App& app, Arguments& arguments) {
    app.add_option("DOMAIN", arguments.domain,
                   "DNS name of the domain; the one that the host is joined to unless told")
        ->check(notEmpty);
    AddTimeout(app, arguments.diagnosisSeconds);
}

void AddOlderThan(CLI::App& app, Arguments& arguments) {
    app.add_option("--older-than", arguments.olderThanDays,
                   "Leave a key alone that is younger than so many days")
        ->check(CLI::Range(0, mostDays))
        ->capture_default_str();
}

/// Whether a verb waits for the directory no longer than it is told.
bool IsBoundedQuestion(const Verb& verb) {
    static constexpr Answer (*questions[])(const Arguments&) = {
        ShowStatus,    ListTrustedDomains,   ShowTrust,           FindDomainController, ShowUser,
        ShowPrincipal, GetDomainControllers, GetSmartCardServices};
    return std::find(std::begin(questions), std::end(questions), verb.run) != std::end(questions);
}

/// What each verb takes beyond --json.
void AddArguments(const Verb& verb, CLI::App& app, Arguments& arguments) {
    if (verb.run == ActivateStore) {
        AddName(app, arguments, "NAME", "Name of the store, see `store list`");
    } else if (verb.run == Join) {
        AddJoin(app, arguments);
    } else if (verb.run == Leave) {
        AddUser(app, arguments);
    } else if (verb.run == Diagnose) {
        AddDiagnose(app, arguments);
    } else if (verb.run == RotateKey) {
        AddOlderThan(app, arguments);
    } else if (verb.run == ShowTrust || verb.run == FindDomainController ||
               verb.run == ShowPrincipal) {
        AddDomain(app, arguments, "DOMAIN", "DNS name of the domain");
    } else if (verb.run == ShowUser) {
        AddName(app, arguments, "NAME",
                "DOMAIN\\NAME, NAME@DOMAIN, DOMAIN/CONTAINER/NAME or a distinguished name")
            ->check(notEmpty);
    } else if (verb.run == SetDomainControllers) {
        AddNames(app, arguments, "CONTROLLER", "Name or address, the first choice first");
    } else if (verb.run == SetSmartCardServices) {
        AddNames(app, arguments, "SERVICE", "Name of a service, as PAM has it");
    } else if (verb.run == ShowProxyDomain) {
        AddProxy(app, arguments, "ADDRESS");
        app.get_option("ADDRESS")->required();
    } else if (verb.run == ImportCertificate) {
        app.add_option("FILE", arguments.file.file, "The proxy's certificate, as PEM")
            ->required()
            ->check(notEmpty);
    } else if (verb.run == GetOption || verb.run == SetOption) {
        AddName(app, arguments, "NAME", "Name of the option, dots between its levels");
    }
    if (verb.run == SetOption) {
        app.add_option("VALUE", arguments.value, "New value")->required();
    }
    AddFileArguments(verb, app, arguments.file);
    if (IsBoundedQuestion(verb)) {
        AddTimeout(app, arguments.timeoutSeconds);
    }
}

void AddVerb(const Verb& verb, CLI::App& parent, CommandLine& line) {
    CLI::App* app = parent.add_subcommand(verb.name, verb.description);
    AddArguments(verb, *app, line.arguments);
    app->add_flag("--json", line.arguments.json, "Answer in JSON");
    app->footer((verb.note == nullptr ? "" : verb.note + std::string("\n")) +
                "Example: " + verb.example + "\n" + exitCodes);
    app->callback([&verb, &line] {
        if (verb.run == Join) {
            RequireDomainOrProxy(line.arguments);
        }
        line.verb = &verb;
    });
}

/// Writes why the command line was refused. Words that nobody expected are told only if they are
/// options: one of the others may be a password that does not belong here.
ExitCode Refuse(const CLI::App& app, const CLI::ParseError& error) {
    if (dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr) {
        return app.exit(error) == 0 ? ExitCode::Done : ExitCode::WrongUsage;
    }
    std::string options;
    for (const std::string& word : app.remaining(true)) {
        if (word.rfind('-', 0) == 0) {
            options += " " + word.substr(0, word.find('='));
        }
    }
    std::cerr << (options.empty() ? "Too many arguments" : "No such option:" + options)
              << "\nRun with --help for more information.\n";
    return ExitCode::WrongUsage;
}

} // namespace

CommandLine ParseCommandLine(int argc, char** argv) {
    CommandLine line;
    CLI::App app("Configures how this host authenticates users against a directory", "tesauthctl");
    app.set_version_flag("--version", "tesauthctl " TESAUTHCTL_VERSION);
    app.require_subcommand(1);
    app.footer(std::string("Each verb has its own --help.\nExample: tesauthctl status\n") +
               exitCodes);
    for (const Group& group : groups) {
        app.add_subcommand(group.name, group.description)->require_subcommand(1)->footer(exitCodes);
    }
    for (const Verb& verb : verbs) {
        AddVerb(verb, verb.group == nullptr ? app : *app.get_subcommand(verb.group), line);
    }
    try {
        app.parse(MarkWords(argc, argv));
        RemoveMarks(line.arguments.file);
    } catch (const CLI::ParseError& error) {
        line.verb = nullptr;
        line.exitCode = Refuse(app, error);
    }
    return line;
}

} // namespace ctl
