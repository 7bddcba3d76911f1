#include "verbs.h"

#include <algorithm>

#include "directory_diagnosis.h"
#include "host_checks.h"
#include "output.h"

namespace ctl {

namespace {

const char* NameOf(Severity severity) {
    static constexpr const char* names[] = {"ok", "warning", "failure"};
    return names[static_cast<int>(severity)];
}

/// The findings told so far.
class Told {
public:
    explicit Told(bool asJson) : asJson_(asJson) {}

    /// A line for the finding, at once, unless all of them are to be told in JSON.
    void Tell(const Finding& finding) {
        worst_ = std::max(worst_, finding.severity);
        if (asJson_) {
            Collect(finding);
            return;
        }
        const std::string severity = NameOf(finding.severity);
        Write(severity + std::string(textColumn - severity.size(), ' ') + finding.check + ": " +
              finding.text);
        if (finding.severity != Severity::Ok && !finding.remedy.empty()) {
            Write(std::string(textColumn, ' ') + finding.remedy);
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

    void Write(const std::string& line) {
        if (written_ && !TellLine(line)) {
            written_ = false;
        }
    }

    const bool asJson_;
    Severity worst_ = Severity::Ok;
    bool written_ = true;
    Json findings_ = Json::array();
};

} // namespace

Answer Diagnose(const Arguments& arguments) {
    Told told(arguments.json);
    const Report report = [&](const Finding& finding) { told.Tell(finding); };
    const LoadedProvider loaded = LoadProvider();
    DiagnoseDirectory(loaded, arguments.domain, std::chrono::seconds(arguments.diagnosisSeconds),
                      report);
    CheckProvider(loaded, report);
    CheckHostFiles(report);
    return told.Summary();
}

} // namespace ctl
