// Where a proxy is looked for.

#include "apxhttps_proxy_fixture.h"
#include "server_address.h"

#include <gtest/gtest.h>

namespace {

using tessary::apxhttps::ServerUrl;
using namespace std::string_literals;

TEST(ServerAddress, TakesHostsWithAndWithoutPort) {
    EXPECT_EQ(ServerUrl("192.0.2.7"), "https://192.0.2.7:8447");
    EXPECT_EQ(ServerUrl("192.0.2.7:443"), "https://192.0.2.7:443");
    EXPECT_EQ(ServerUrl("apx-1.corp.example"), "https://apx-1.corp.example:8447");
    EXPECT_EQ(ServerUrl("APX_1.corp.example.:65535"), "https://APX_1.corp.example.:65535");
    EXPECT_EQ(ServerUrl("[2001:db8::7]"), "https://[2001:db8::7]:8447");
    EXPECT_EQ(ServerUrl("[::1]:1"), "https://[::1]:1");
    EXPECT_EQ(ServerUrl(std::string(253, 'a')), "https://" + std::string(253, 'a') + ":8447");
}

class UnusableAddress : public testing::TestWithParam<std::string> {};

TEST_P(UnusableAddress, IsABadRequest) {
    EXPECT_EQ(proxied::StatusOf([] { ServerUrl(GetParam()); }), proxied::badRequest) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(ServerAddress, UnusableAddress,
                         testing::Values("", ":", ":8447", "host:", "host:0", "host:65536",
                                         "host:-1", "host:+1", "host: 1", "host:1 ", "host:1x",
                                         "host:0x10", "host:1:2", "::1", "2001:db8::7", "[::1",
                                         "[]", "[::1]8447", "[::1]:", "[::1]:0", "[host]",
                                         "[192.0.2.7]", "[fe80::1%lo]", "[::1]]", "host]",
                                         "[::1\0]"s, "user@host", "user:pass@host", "host/path",
                                         "host?query", "host#part", "https://host", "ho st",
                                         "host\r\n", "host\t", "host%41", "h\xc3\xb6st", "host\0"s,
                                         "a\0b"s, "*", "host\\x", std::string(254, 'a')));

} // namespace
