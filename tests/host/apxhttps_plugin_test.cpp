// The installed plug-in through its table.

#include "apxhttps_proxy_fixture.h"
#include "apxhttps_table.h"

#include <csignal>
#include <cstdio>

#include <gmock/gmock.h>

namespace {

using namespace proxied;
using testing::EndsWith;
using testing::SizeIs;

const std::string pluginFile = "/usr/libexec/tesauth/libapxhttps.so";

class Plugin : public testing::Test {
protected:
    void SetUp() override {
        operations_ = LoadApxhttps();
        ASSERT_NE(operations_, nullptr);
        maintenance_ = static_cast<const APXProxyClientMaintenance*>(
            dlsym(RTLD_DEFAULT, "APXProxyClientMaintenance"));
        ASSERT_NE(maintenance_, nullptr);
        EXPECT_EQ(maintenance_->apiVersion, 1);
    }

    std::uint32_t Domain(const std::string& address, bool verify = true) {
        return operations_->getDomainInfo(address.c_str(), verify, thumbprint_.c_str(),
                                          certificate_.c_str(), &texts_[0], &texts_[1], &texts_[2]);
    }

    std::uint32_t Account(const std::string& address, const char* hostName, const char* container,
                          const char* certificate = nullptr) {
        return operations_->createMachineAccount(address.c_str(), hostName, container, true,
                                                 thumbprint_.c_str(), certificate, &texts_[0],
                                                 &texts_[1]);
    }

    /// Why the latest operation failed with this status.
    std::string Reason(std::uint32_t status) const {
        char sentence[512];
        const std::size_t length = maintenance_->describeFailure(status, sentence, sizeof sentence);
        return length > 0 ? sentence : "";
    }

    /// A text that the plug-in returned, given back.
    std::string Take(int which) {
        const std::string text = texts_[which];
        operations_->freeString(texts_[which]);
        texts_[which] = untouched_;
        return text;
    }

    void ExpectUntouched() { EXPECT_THAT(texts_, testing::Each(static_cast<char*>(untouched_))); }

    const APXProxyClientOperations* operations_ = nullptr;
    const APXProxyClientMaintenance* maintenance_ = nullptr;
    std::string thumbprint_ = AnyCertificate().Thumbprint();
    std::string certificate_ = AnyCertificate().Pem();
    char untouched_[1] = {};
    char* texts_[3] = {untouched_, untouched_, untouched_};
};

TEST_F(Plugin, GivesTheDomain) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(200, domainBody)});
    for (const bool verify : {true, false}) {
        ASSERT_EQ(Domain(server.Address(), verify), success);
        EXPECT_EQ(Take(0), "CORP");
        EXPECT_EQ(Take(1), "corp.example");
        EXPECT_EQ(Take(2), "S-1-5-21-1-2-3");
    }
}

TEST_F(Plugin, GivesAMachineAccount) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(201, accountBody)});
    for (const char* container : {static_cast<const char*>(nullptr), "", "OU=Hosts"}) {
        ASSERT_EQ(Account(server.Address(), "web1", container), success);
        EXPECT_EQ(Take(0), "WEB1$");
        EXPECT_EQ(Take(1), "a-password-of-thirty-two-letters");
    }
    const auto requests = server.Requests();
    ASSERT_THAT(requests, SizeIs(3));
    EXPECT_THAT(requests[0], EndsWith("\r\n\r\n{\"hostName\":\"web1\"}"));
    EXPECT_THAT(requests[1], EndsWith("\r\n\r\n{\"hostName\":\"web1\"}"));
    EXPECT_THAT(requests[2], EndsWith("{\"container\":\"OU=Hosts\",\"hostName\":\"web1\"}"));
}

TEST_F(Plugin, FailureLeavesTheResultsAlone) {
    ScriptedProxyServer garbled(AnyCertificate(),
                                {HttpAnswer(200, R"({"netbiosName":"CORP","dnsName":"c"})")});
    EXPECT_EQ(Domain(garbled.Address()), internalError);
    ExpectUntouched();
    ScriptedProxyServer refusing(AnyCertificate(), {HttpAnswer(503, R"({"code":1311})")});
    EXPECT_EQ(Domain(refusing.Address()), noController);
    EXPECT_EQ(Account(refusing.Address(), "web1", nullptr), noController);
    thumbprint_ = "";
    EXPECT_EQ(Domain(refusing.Address()), untrusted);
    EXPECT_EQ(Account(refusing.Address(), "web1", nullptr), untrusted);
    EXPECT_EQ(Domain("no/address"), badRequest);
    EXPECT_EQ(operations_->createMachineAccount(nullptr, "web1", nullptr, true, "", nullptr,
                                                &texts_[0], &texts_[1]),
              badRequest);
    EXPECT_EQ(Account(refusing.Address(), nullptr, nullptr), badRequest);
    ExpectUntouched();
}

TEST_F(Plugin, TellsWhyAnOperationFailed) {
    EXPECT_EQ(Reason(notAllowed), "");
    ScriptedProxyServer refusing(
        AnyCertificate(),
        {HttpAnswer(403, R"({"code":5,"message":"this host has an account already"})")});
    EXPECT_EQ(Account(refusing.Address(), "web1", nullptr), notAllowed);
    EXPECT_EQ(Reason(notAllowed), "this host has an account already");
    EXPECT_EQ(Reason(noController), "") << "another failure's";
    char cut[8] = "xxxxxxx";
    EXPECT_EQ(maintenance_->describeFailure(notAllowed, cut, sizeof cut), 32u);
    EXPECT_STREQ(cut, "this ho");
    EXPECT_EQ(maintenance_->describeFailure(notAllowed, nullptr, 0), 32u);

    ScriptedProxyServer terse(AnyCertificate(), {HttpAnswer(503, R"({"code":1311})")});
    EXPECT_EQ(Domain(terse.Address()), noController);
    EXPECT_EQ(Reason(noController), "the answer was HTTP status 503");
    EXPECT_EQ(Reason(notAllowed), "") << "the latest counts";

    ScriptedProxyServer other(AnyCertificate(), {HttpAnswer(200, "{}")});
    EXPECT_EQ(Domain(other.Address()), internalError);
    EXPECT_EQ(Reason(internalError), "what answered is no authentication proxy");
    thumbprint_ = "00";
    EXPECT_EQ(Domain(other.Address()), untrusted);
    EXPECT_EQ(Reason(untrusted), "the proxy has another certificate than the trusted one: its "
                                 "thumbprint is another");
    thumbprint_ = AnyCertificate().Thumbprint();
    certificate_ = "no certificate";
    EXPECT_EQ(Domain(other.Address()), untrusted);
    EXPECT_EQ(Reason(untrusted), "the proxy has another certificate than the trusted one");
    EXPECT_EQ(Domain("127.0.0.1:1"), refused);
    EXPECT_THAT(Reason(refused), testing::HasSubstr("127.0.0.1"));
}

TEST_F(Plugin, TellsThatACertificateIsNotValidToday) {
    const ServerCertificate expired(ServerCertificate::Key::P256, -30, -1);
    const ServerCertificate notYet(ServerCertificate::Key::P256, 1, 30);
    const std::pair<const ServerCertificate*, const char*> rows[] = {
        {&expired, "the proxy's certificate has expired"},
        {&notYet, "the proxy's certificate is not valid yet by this host's clock"},
    };
    for (const auto& [certificate, reason] : rows) {
        ScriptedProxyServer server(*certificate, {HttpAnswer(200, domainBody)});
        thumbprint_ = certificate->Thumbprint();
        certificate_ = certificate->Pem();
        EXPECT_EQ(Domain(server.Address()), untrusted);
        EXPECT_EQ(Reason(untrusted), reason);
    }
}

TEST_F(Plugin, AsksForAnAccountOnlyWhoeverHasTheTrustedCertificate) {
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(201, accountBody)});
    ASSERT_EQ(Account(server.Address(), "web1", nullptr, certificate_.c_str()), success);
    Take(0);
    Take(1);
    // Another one with the same thumbprint, if somebody could make it.
    EXPECT_EQ(Account(server.Address(), "web1", nullptr, ServerCertificate().Pem().c_str()),
              untrusted);
    EXPECT_THAT(server.Requests(), SizeIs(1));
    ExpectUntouched();
}

TEST_F(Plugin, HasAReservedEntryThatMayBeCalled) {
    ASSERT_NE(operations_->reserved, nullptr);
    operations_->reserved();
}

TEST_F(Plugin, StaysLoaded) {
    void* const library = dlopen(pluginFile.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    dlclose(library);
    dlclose(library); // what SetUp() holds
    EXPECT_NE(dlopen(pluginFile.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

std::string OutputOf(const std::string& command) {
    std::string output;
    FILE* const pipe = popen(command.c_str(), "r");
    for (int c; (c = std::fgetc(pipe)) != EOF;) {
        output += static_cast<char>(c);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

TEST_F(Plugin, ShowsItsTableAndNothingElse) {
    EXPECT_EQ(OutputOf("nm -D --defined-only --format=just-symbols " + pluginFile),
              "APXProxyClientMaintenance\nAPXProxyClientOperations\n");
    EXPECT_THAT(OutputOf("readelf -Wd " + pluginFile), Not(testing::HasSubstr("libtesauth")));
}

} // namespace
