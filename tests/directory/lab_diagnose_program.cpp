// Prints a host's diagnosis as a JSON array: lab_diagnose_program [DOMAIN].

#include "directory/diagnosis.h"
#include "directory/operation.h"

#include <iostream>

#include <nlohmann/json.hpp>

int main(int count, char** words) {
    using namespace tessary::directory;
    const Operation operation;
    auto findings = nlohmann::json::array();
    Diagnose(count > 1 ? words[1] : "", [&](const Finding& finding) {
        findings.push_back({{"check", finding.check},
                            {"severity", finding.severity == Severity::Ok        ? "ok"
                                         : finding.severity == Severity::Warning ? "warning"
                                                                                 : "failure"},
                            {"text", finding.text},
                            {"remedy", finding.remedy}});
    });
    std::cout << findings.dump(2) << '\n';
}
