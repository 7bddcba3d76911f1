// Hosts named like domains that the proxy's domain has a trust with.

#include "proxy_lab.h"

namespace {

using LabProxyTrusts = ProxyLab;

TEST_F(LabProxyTrusts, NamesOfTrustedDomainsAreRefused) {
    const std::string refused = "5 the host's name is another one's already";
    settings_.hostDomains = {"example"};
    // The second one trusts this domain, too, which has made an account; the third one does not.
    ASSERT_EQ(Count("LAB$"), 1u);
    ASSERT_EQ(Count("THIRD$"), 0u);
    for (const char* host : {"lab.corp.example", "third.corp.example", "third.example"})
        EXPECT_EQ(Refused(host), refused) << host;
    EXPECT_EQ(Count("THIRD$"), 0u);
    EXPECT_EQ(Refused("fourth.corp.example"), "given");
}

} // namespace
