// What the plug-in logs. By itself: it logs once.

#include "apxhttps_proxy_fixture.h"
#include "log_recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

namespace {

using namespace proxied;
using testing::IsEmpty;
using testing::SizeIs;

TEST(Log, SaysOnceThatTheCertificateIsNotVerified) {
    LogRecorder log;
    ScriptedProxyServer server(AnyCertificate(), {HttpAnswer(200, domainBody)});
    ScriptedProxyServer refusing(AnyCertificate(), {HttpAnswer(403, R"({"code":5})")});
    EXPECT_EQ(DomainStatus(Trusting(server.Address())), success);
    EXPECT_EQ(DomainStatus({"un usable\n", false, "", ""}), badRequest);
    EXPECT_THAT(log.Take(), IsEmpty());

    EXPECT_EQ(DomainStatus({server.Address(), false, "", ""}), success);
    const auto messages = log.Take();
    ASSERT_THAT(messages, SizeIs(1));
    EXPECT_EQ(messages[0].priority, LOG_WARNING);
    EXPECT_EQ(messages[0].text, "The certificate of the authentication proxy https://" +
                                    server.Address() +
                                    " is not verified: whoever answers is taken for it.");

    EXPECT_EQ(DomainStatus({server.Address(), false, "", ""}), success);
    EXPECT_EQ(DomainStatus(Trusting(refusing.Address())), notAllowed);
    EXPECT_THAT(log.Take(), IsEmpty());
    EXPECT_EQ(DomainStatus({refusing.Address(), false, "", ""}), notAllowed);
    EXPECT_THAT(log.Take(), SizeIs(1)) << "each proxy is another risk";
}

} // namespace
