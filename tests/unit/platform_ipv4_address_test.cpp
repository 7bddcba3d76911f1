#include <gtest/gtest.h>

#include "hostctl/network.h"

namespace {

using HostCtl::Lib::HostCtlException;
using HostCtl::Network::IpConfig;
using HostCtl::Network::Ipv4Address;

TEST(Ipv4AddressTest, AcceptsDottedQuads) {
    for (const char* text : {"0.0.0.0", "10.99.0.10", "192.168.1.1", "255.255.255.255"}) {
        EXPECT_TRUE(Ipv4Address::IsValidAddress(text)) << text;
        EXPECT_EQ(Ipv4Address(text).ToString(), text);
    }
}

TEST(Ipv4AddressTest, RefusesEverythingElse) {
    for (const std::string& text :
         {std::string(""), std::string("10.99.0"), std::string("10.99.0.1.2"),
          std::string("256.0.0.1"), std::string("010.0.0.1"), std::string("0x0a.0.0.1"),
          std::string("167772161"), std::string(" 10.0.0.1"), std::string("10.0.0.1 "),
          std::string("10.0.0.1\n"), std::string("10.0.0.1\0x", 10), std::string("10..0.1"),
          std::string("::1"), std::string("::ffff:10.0.0.1"), std::string("proxy.example"),
          std::string("10.0.0.1/24"), std::string("10.0.0.1:443"), std::string("-1.0.0.1")}) {
        EXPECT_FALSE(Ipv4Address::IsValidAddress(text)) << text;
        EXPECT_THROW(Ipv4Address{text}, HostCtlException) << text;
    }
}

TEST(Ipv4AddressTest, ExceptionNamesTheText) {
    try {
        Ipv4Address("proxy.example");
        FAIL();
    } catch (const HostCtlException& failure) {
        EXPECT_STREQ(failure.what(), "'proxy.example' is not an IPv4 address");
    }
}

TEST(Ipv4AddressTest, IpConfigHoldsItsAddress) {
    EXPECT_EQ(IpConfig(Ipv4Address("10.99.0.10")).GetAddress().ToString(), "10.99.0.10");
}

} // namespace
