/// Has a host of the lab diagnosed, and reads what was found.
#ifndef TESAUTH_TESTS_DIRECTORY_LAB_DIAGNOSIS_H
#define TESAUTH_TESTS_DIRECTORY_LAB_DIAGNOSIS_H

#include "lab_commands.h"

#include <chrono>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace lab_diagnosis {

using lab::Result;
using lab::Setting;
using lab::Words;

inline Words operator+(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/// A host that a domain's service records name.
struct Named {
    std::string host;
    std::string address; ///< empty for a name that does not resolve
    int priority;
};

/// Findings in the order in which they came.
class Report {
public:
    explicit Report(const nlohmann::json& findings) : findings_(findings) {
        for (const auto& finding : findings_) {
            const bool inOrder = finding["severity"] == "ok";
            EXPECT_EQ(finding["remedy"] == "", inOrder) << finding;
            EXPECT_NE(finding["text"], "") << finding;
            EXPECT_TRUE(checks_.insert(finding["check"].get<std::string>()).second) << finding;
        }
    }

    /// "ok keytab" and so on.
    Words Outline() const {
        Words lines;
        for (const auto& finding : findings_)
            lines.push_back(finding["severity"].get<std::string>() + " " +
                            finding["check"].get<std::string>());
        return lines;
    }
    /// The outline of what is not in order.
    Words Problems() const {
        Words lines;
        for (const std::string& line : Outline())
            if (line.compare(0, 3, "ok ") != 0)
                lines.push_back(line);
        return lines;
    }
    std::string Text(const std::string& check) const { return Field(check, "text"); }
    std::string Remedy(const std::string& check) const { return Field(check, "remedy"); }

private:
    std::string Field(const std::string& check, const char* name) const {
        for (const auto& finding : findings_)
            if (finding["check"] == check)
                return finding[name];
        ADD_FAILURE() << "nothing was said of " << check << ": " << findings_;
        return "";
    }

    nlohmann::json findings_;
    std::set<std::string> checks_;
};

class LabDiagnose : public testing::Test {
protected:
    LabDiagnose()
        : domain_(Setting("DOMAIN")), controller_(Setting("DC1")), address_(Setting("DC1_ADDRESS")),
          joinCommand_("tesauthctl join " + domain_ + " -U USER") {}

    void SetUp() override { lab::Lab({"fresh", "host1"}); }

    static Result On(const Words& words, const std::string& input = "") {
        return lab::RunOn("host1", words, input);
    }
    static void Succeed(const Words& words, const std::string& input = "") {
        const Result result = On(words, input);
        ASSERT_EQ(result.status, 0) << testing::PrintToString(words) << result.err << result.out;
    }
    static void Write(const std::string& file, const std::string& text) {
        Succeed({"tee", file}, text);
    }
    /// Whatever the name; programs that set one refuse some.
    static void SetHostName(const std::string& name) {
        Write("/proc/sys/kernel/hostname", name + "\n");
    }
    void OnController(const Words& words) {
        const Result result = lab::Run(Words{std::getenv("TESAUTH_LAB"), "on", "dc1"} + words);
        ASSERT_EQ(result.status, 0) << result.err << result.out;
    }

    void Join() {
        const Result joined =
            lab::Ctl("host1", {"join", domain_, "-U", Setting("ADMIN"), "--password-stdin"},
                     Setting("PASSWORD") + "\n");
        ASSERT_EQ(joined.status, 0) << joined.err;
    }

    /// Also sees that the host's files are left alone, down to their times.
    static Report DiagnoseAs(const Words& words) {
        const Words look{"find", "/etc", "/var/lib/tessary", "-printf", "%p %y %m %U %G %s %C@\\n"};
        const std::string before = On(look).out;
        const auto started = std::chrono::steady_clock::now();
        const Result result = On(words);
        // What is promised, whatever is dead.
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(15));
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.err, testing::IsEmpty());
        EXPECT_EQ(On(look).out, before) << "something on the host was changed";
        return Report(result.Json());
    }
    static Report Diagnose(const std::string& domain = "") { return DiagnoseAs(Program(domain)); }
    static Words Program(const std::string& domain = "") {
        return domain.empty() ? Words{LAB_DIAGNOSE_PROGRAM_FILE}
                              : Words{LAB_DIAGNOSE_PROGRAM_FILE, domain};
    }

    /// Gives the host a name server of its own, which knows these controllers and nothing else.
    void UseOwnNameServer(const std::vector<Named>& controllers) {
        Words server{"dnsmasq",           "--conf-file=/dev/null", "--no-resolv",
                     "--no-hosts",        "--user=root",           "--listen-address=127.0.0.1",
                     "--bind-interfaces", "--address=/#/",         "--pid-file=/run/dnsmasq.pid"};
        for (const Named& named : controllers) {
            const std::string rank = "," + std::to_string(named.priority) + ",1";
            server.push_back("--srv-host=" + controllerRecord_ + "," + named.host + ",389" + rank);
            server.push_back("--srv-host=" + ticketRecord_ + "," + named.host + ",88" + rank);
            if (!named.address.empty())
                server.push_back("--host-record=" + named.host + "," + named.address);
        }
        Succeed(server);
        Write("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    }

    std::string domain_;
    std::string controller_;
    std::string address_;
    std::string joinCommand_;
    std::string controllerRecord_ = "_ldap._tcp.dc._msdcs." + domain_;
    std::string ticketRecord_ = "_kerberos._tcp." + domain_;
};

} // namespace lab_diagnosis

#endif
