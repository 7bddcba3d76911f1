#include "verbs.h"

#include <algorithm>
#include <cctype>

#include "directory_diagnosis.h"
#include "host_checks.h"
#include "output.h"

namespace ctl {

namespace {

const char* NameOf(Severity severity) {
    static constexpr const char* names[] = {"ok", "warning", "failure"};
    return names[static_cast<int>(severity)];
}

/// A text as a single word of a command line, which no shell takes apart.
std::string ShellWord(const std::string& text) {
    const bool isPlain = std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_';
    });
    if (isPlain) {
        return text;
    }
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return word + "'";
}

/// The findings told so far.
class Told {
public:
    /// \param domain that the diagnosis is of; empty when none was named
    Told(const std::string& domain, bool asJson)
        : rootRemedy_(asRoot + (domain.empty() ? "" : ' ' + ShellWord(domain))), asJson_(asJson) {}

    /// A line for the finding, at once, unless all of them are to be told in JSON.
    void Tell(Finding finding) {
        worst_ = std::max(worst_, finding.severity);
        if (finding.remedy == asRoot) {
            finding.remedy = rootRemedy_;
        }
        if (asJson_) {
            Collect(finding);
        } else {
            WriteLines(finding);
        }
    }

    Answer Summary() const {
        Answer answer = {"", {{"findings", findings_}, {"worst", NameOf(worst_)}}};
        if (worst_ == Severity::Failure || !written_) {
            answer.exitCode = ExitCode::Failed;
        }
        return answer;
    }

private:
    static constexpr std::size_t textColumn = 9;

    void Collect(const Finding& finding) {
        findings_.push_back({{"check", finding.check},
                             {"severity", NameOf(finding.severity)},
                             {"text", finding.text},
                             {"remedy", finding.remedy.empty() ? Json() : Json(finding.remedy)}});
    }

    void WriteLines(const Finding& finding) {
        const std::string severity = NameOf(finding.severity);
        Write(severity + std::string(textColumn - severity.size(), ' ') + finding.check + ": " +
              finding.text);
        // Root, who runs it once, sees all that others may not look at.
        const bool isForRoot = finding.remedy.rfind(asRoot, 0) == 0;
        const bool isKnown = isForRoot && toldToRunAsRoot_;
        if (finding.severity != Severity::Ok && !finding.remedy.empty() && !isKnown) {
            Write(std::string(textColumn, ' ') + finding.remedy);
            toldToRunAsRoot_ = toldToRunAsRoot_ || isForRoot;
        }
    }

    void Write(const std::string& line) {
        if (written_ && !TellLine(line)) {
            written_ = false;
        }
    }

    const std::string rootRemedy_;
    const bool asJson_;
    bool toldToRunAsRoot_ = false;
    Severity worst_ = Severity::Ok;
    bool written_ = true;
    Json findings_ = Json::array();
};

} // namespace

Answer Diagnose(const Arguments& arguments) {
    Told told(arguments.domain, arguments.json);
    const Report report = [&](const Finding& finding) { told.Tell(finding); };
    const LoadedProvider loaded = LoadProvider();
    DiagnoseDirectory(loaded, arguments.domain, std::chrono::seconds(arguments.diagnosisSeconds),
                      report);
    CheckProvider(loaded, report);
    CheckHostFiles(report);
    return told.Summary();
}

} // namespace ctl
