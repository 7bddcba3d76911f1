#include "ctl_host.h"

#include <filesystem>
#include <sstream>

namespace ctl_test {

using scripted::ReadFile;
using scripted::WriteFile;

namespace {

constexpr const char* script = "/etc/tessary/scripted-provider.conf";
constexpr const char* calls = "/run/ctl-test-provider.log";

} // namespace

CtlTest::CtlTest() {
    scripted::InstallPlugin(SCRIPTED_PROVIDER_FILE, "scripted");
    WriteFile(scripted::providerFile, "provider = \"scripted\"\n");
    std::filesystem::remove(calls);
    Script("");
}

CtlTest::~CtlTest() {
    std::filesystem::remove(calls);
}

void CtlTest::Script(const std::string& lines) {
    WriteFile(script, "log=" + std::string(calls) + "\n" + lines);
}

void CtlTest::RemoveMaintenance() {
    scripted::InstallPlugin(BARE_PROVIDER_FILE, "scripted");
}

std::string CtlTest::Calls(const std::string& operation) {
    std::istringstream lines(ReadFile(calls));
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        if (line == operation || line.rfind(operation + "\t", 0) == 0) {
            found += line + "\n";
        }
    }
    std::replace(found.begin(), found.end(), '\t', '|');
    return found;
}

void CtlTest::Join(const std::string& domainPath) {
    const Result joined =
        Ctl({"join", domainPath, "-U", "bob", "--password-stdin", "--skip-hostname-check"},
            {.input = "secret\n"});
    ASSERT_EQ(joined.status, 0) << joined.err;
}

void CtlTest::PlayUnjoined() {
    Script("getActiveDomain.null=1\n"
           "getMachineAccountDN.status=1787\n"
           "getPreferredDomainControllers.items=\n"
           "getTrustedDomains.status=2\n"
           "getDomainTrustState.value=7\n");
}

Json JsonOf(const Result& result) {
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    Json json = Json::parse(result.out, nullptr, false);
    EXPECT_FALSE(json.is_discarded()) << result.out;
    return json;
}

void ExpectFailure(const Result& result, int status, const std::string& text) {
    EXPECT_EQ(result.status, status) << result.out << result.err;
    EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
}

} // namespace ctl_test
