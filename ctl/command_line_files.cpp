#include "command_line_files.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>

namespace ctl {

namespace {

/// No word of a policy or of the name-service switch can begin with it.
constexpr char mark = '\n';

/// Whether the parser would take the word for something else, or we for a marked one.
bool IsMistaken(const std::string& word) {
    return !word.empty() && (word.front() == mark || (word.front() == '[' && word.back() == ']'));
}

const CLI::Validator
    notEmpty([](std::string& text) { return text.empty() ? std::string("must not be empty") : ""; },
             "TEXT", "not empty");

void AddWord(CLI::App& app, std::string& word, const char* name, const char* description) {
    app.add_option(name, word, description)->required()->check(notEmpty);
}

void AddPlace(CLI::App& app, FileArguments& arguments, const char* before, const char* after,
              const char* first) {
    auto* beforeOption = app.add_option("--before", arguments.before, before)->check(notEmpty);
    auto* afterOption =
        app.add_option("--after", arguments.after, after)->check(notEmpty)->excludes(beforeOption);
    app.add_flag("--first", arguments.first, first)->excludes(beforeOption)->excludes(afterOption);
}

void AddDryRun(CLI::App& app, FileArguments& arguments) {
    app.add_flag("--dry-run", arguments.dryRun, "Show the difference and change nothing");
}

void AddRewrite(CLI::App& app, FileArguments& arguments) {
    app.add_flag("--rewrite", arguments.rewrite,
                 "Write the whole file as the library writes it, instead of changing a line");
    AddDryRun(app, arguments);
}

void AddPamWords(const Verb& verb, CLI::App& app, FileArguments& arguments) {
    AddWord(app, arguments.facility, "FACILITY", "account, auth, password or session");
    if (verb.run == AddEntry) {
        AddWord(app, arguments.control, "CONTROL",
                "required, requisite, sufficient, optional, include, substack, or actions in "
                "brackets as one word");
    }
    AddWord(app, arguments.module, "MODULE", "Name or path of the module, as the file has it");
    if (verb.run == AddEntry) {
        app.add_option("PARAMETER", arguments.parameters,
                       "Words for the module; those that begin with \"-\" stand behind a \"--\"");
        AddPlace(app, arguments, "Put it before the facility's first entry with this module",
                 "Put it behind the facility's first entry with this module",
                 "Put it before all entries of the facility, not behind them");
    }
}

void AddNssWords(const Verb& verb, CLI::App& app, FileArguments& arguments) {
    AddWord(app, arguments.database, "DATABASE", "passwd, group, hosts, ...");
    AddWord(app, arguments.service, "SERVICE", "Where the database is looked up");
    if (verb.run == AddService) {
        AddPlace(app, arguments, "Put it before this service", "Put it behind this service",
                 "Put it before all services of the database, not behind them");
        app.add_option("--criteria", arguments.criteria,
                       "What stands in brackets behind the service, as \"NOTFOUND=return\"");
    }
}

} // namespace

void AddFileArguments(const Verb& verb, CLI::App& app, FileArguments& arguments) {
    const bool isPam = verb.run == FindEntry || verb.run == AddEntry || verb.run == RemoveEntry;
    const bool isNss = verb.run == AddService || verb.run == RemoveService;
    if (!isPam && !isNss && verb.run != ShowPolicy && verb.run != ShowSwitch &&
        verb.run != Restore) {
        return;
    }
    AddWord(app, arguments.file, "FILE", "The file; of a symbolic link, its target");
    if (isPam) {
        AddPamWords(verb, app, arguments);
    } else if (isNss) {
        AddNssWords(verb, app, arguments);
    }
    if (verb.run == Restore) {
        AddDryRun(app, arguments);
    } else if ((isPam || isNss) && verb.run != FindEntry) {
        AddRewrite(app, arguments);
    }
}

std::vector<std::string> MarkWords(int argc, const char* const* argv) {
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && (words[0] == "pam" || words[0] == "nss")) {
        bool onlyWords = false;
        std::vector<std::string> marked;
        for (const std::string& word : words) {
            if (!onlyWords && word == "--") {
                onlyWords = true;
            } else {
                marked.push_back(onlyWords || IsMistaken(word) ? mark + word : word);
            }
        }
        words = std::move(marked);
    }
    std::reverse(words.begin(), words.end());
    return words;
}

void RemoveMarks(FileArguments& arguments) {
    const auto unmark = [](std::string& word) {
        if (!word.empty() && word.front() == mark) {
            word.erase(0, 1);
        }
    };
    for (std::string* word : {&arguments.file, &arguments.facility, &arguments.control,
                              &arguments.module, &arguments.database, &arguments.service,
                              &arguments.criteria, &arguments.before, &arguments.after}) {
        unmark(*word);
    }
    std::for_each(arguments.parameters.begin(), arguments.parameters.end(), unmark);
}

} // namespace ctl
