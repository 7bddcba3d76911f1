#pragma once

#include "scripted_proxy_server.h"

#include "client.h"
#include "run.h"

#include <chrono>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

/// What the tests of the proxy client share.
namespace proxied {

using tessary::apxhttps::AskForDomain;
using tessary::apxhttps::AskForMachineAccount;
using tessary::apxhttps::Limits;
using tessary::apxhttps::Proxy;

constexpr std::uint32_t success = 0;
constexpr std::uint32_t notAllowed = 5;
constexpr std::uint32_t outOfMemory = 8;
constexpr std::uint32_t badRequest = 87;
constexpr std::uint32_t refused = 1225;
constexpr std::uint32_t invalidConnection = 1229;
constexpr std::uint32_t noController = 1311;
constexpr std::uint32_t noSuchDomain = 1355;
constexpr std::uint32_t internalError = 1359;
constexpr std::uint32_t timedOut = 10060;
constexpr std::uint32_t untrusted = 0x80090325;

inline const std::string domainBody =
    R"({"netbiosName":"CORP","dnsName":"corp.example","sid":"S-1-5-21-1-2-3"})";
inline const std::string accountBody =
    R"({"accountName":"WEB1$","password":"a-password-of-thirty-two-letters"})";

/// For what must not fail because the machine is busy.
constexpr Limits patient{std::chrono::seconds(50), std::chrono::seconds(50)};

/// What a call ends with, as the plug-in's caller sees it.
template <typename Function>
std::uint32_t StatusOf(Function function) {
    return tessary::apxhttps::Run(function);
}

/// The certificate of proxies for which another makes no difference.
inline const ServerCertificate& AnyCertificate() {
    static const ServerCertificate certificate;
    return certificate;
}

/// A proxy whose certificate is trusted.
inline Proxy Trusting(const std::string& address,
                      const ServerCertificate& certificate = AnyCertificate()) {
    return {address, true, certificate.Thumbprint(), certificate.Pem()};
}

inline std::uint32_t DomainStatus(const Proxy& proxy, const Limits& limits = patient) {
    return StatusOf([&] { AskForDomain(proxy, limits); });
}

/// For what must not take as long as in earnest.
constexpr Limits shortLimits{std::chrono::milliseconds(300), std::chrono::milliseconds(400)};

/// What comes of asking a proxy that follows the script.
inline std::uint32_t StatusWith(const ProxyScript& script, const Limits& limits = patient) {
    ScriptedProxyServer server(AnyCertificate(), script);
    const std::uint32_t verified = DomainStatus(Trusting(server.Address()), limits);
    EXPECT_EQ(DomainStatus({server.Address(), false, "", ""}, limits), verified);
    return verified;
}

} // namespace proxied
