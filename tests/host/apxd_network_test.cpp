#include "network.h"

#include <gtest/gtest.h>

namespace {

using namespace tessary::proxy;

IpAddress Address(const std::string& text) {
    const auto address = IpAddress::Parse(text);
    EXPECT_TRUE(address) << text;
    return address.value_or(IpAddress());
}

bool IsIn(const std::string& address, const std::string& network) {
    const auto parsed = Network::Parse(network);
    EXPECT_TRUE(parsed) << network;
    return parsed && parsed->Contains(Address(address));
}

TEST(IpAddressTest, SeesAnIpv4AddressWithinIpv6AsWhatItIs) {
    EXPECT_EQ(Address("::ffff:192.0.2.7"), Address("192.0.2.7"));
    EXPECT_TRUE(Address("::ffff:192.0.2.7").IsV4());
    EXPECT_EQ(Address("::ffff:192.0.2.7").Text(), "192.0.2.7");
    EXPECT_FALSE(Address("::192.0.2.7").IsV4());
    EXPECT_EQ(Address("2001:DB8:0::7").Text(), "2001:db8::7");
}

TEST(IpAddressTest, SurvivesTheWayThroughASocketsAddress) {
    for (const char* text : {"192.0.2.7", "2001:db8::7"}) {
        sockaddr_storage storage;
        Address(text).ToSocketAddress(8447, storage);
        const Peer peer = Peer::Of(reinterpret_cast<const sockaddr*>(&storage));
        EXPECT_EQ(peer.address, Address(text));
        EXPECT_EQ(peer.port, 8447);
    }
    EXPECT_EQ((Peer{Address("192.0.2.7"), 1}).Text(), "192.0.2.7:1");
    EXPECT_EQ((Peer{Address("2001:db8::7"), 1}).Text(), "[2001:db8::7]:1");
}

TEST(IpAddressTest, CountsAnIpv6HostByItsNetwork) {
    EXPECT_EQ(Address("2001:db8::7").Site(), Address("2001:db8::ffff:0:0:8").Site());
    EXPECT_NE(Address("2001:db8::7").Site(), Address("2001:db8:0:1::7").Site());
    EXPECT_NE(Address("192.0.2.7").Site(), Address("192.0.2.8").Site());
}

TEST(IpAddressTest, IsNothingElse) {
    for (const char* text : {"", "192.0.2", "192.0.2.256", "192.0.2.7 ", "192.0.2.07", "localhost",
                             "[::1]", "::1%lo", "1.2.3.4.5"})
        EXPECT_FALSE(IpAddress::Parse(text)) << text;
    EXPECT_FALSE(IpAddress::Parse(std::string("::1\0", 4)));
}

TEST(NetworkTest, HasTheAddressesWithItsPrefix) {
    EXPECT_TRUE(IsIn("192.0.2.0", "192.0.2.0/23"));
    EXPECT_TRUE(IsIn("192.0.3.255", "192.0.2.0/23"));
    EXPECT_FALSE(IsIn("192.0.4.0", "192.0.2.0/23"));
    EXPECT_FALSE(IsIn("192.0.1.255", "192.0.2.0/23"));
    EXPECT_TRUE(IsIn("::ffff:192.0.2.7", "192.0.2.0/24"));
    EXPECT_TRUE(IsIn("2001:db8:ffff::", "2001:db8::/32"));
    EXPECT_FALSE(IsIn("2001:db9::", "2001:db8::/32"));
    EXPECT_TRUE(IsIn("2001:db8::1", "2001:db8::/127"));
    EXPECT_FALSE(IsIn("2001:db8::2", "2001:db8::/127"));
    EXPECT_TRUE(IsIn("192.0.2.7", "192.0.2.7"));
    EXPECT_FALSE(IsIn("192.0.2.6", "192.0.2.7"));
    EXPECT_TRUE(IsIn("::1", "::1/128"));
}

TEST(NetworkTest, IsOfOneFamily) {
    EXPECT_TRUE(IsIn("255.255.255.255", "0.0.0.0/0"));
    EXPECT_TRUE(IsIn("ffff::1", "::/0"));
    EXPECT_FALSE(IsIn("192.0.2.7", "::/0"));
    EXPECT_FALSE(IsIn("::1", "0.0.0.0/0"));
}

TEST(NetworkTest, IsNothingElse) {
    for (const char* text : {"", "/8", "192.0.2.0/", "192.0.2.0/33", "192.0.2.0/-1", "192.0.2.0/+8",
                             "192.0.2.0/8", "192.0.2.1/24", "192.0.2.0/255.255.255.0", "192.0.2/24",
                             "192.0.2.0/24 ", "192.0.2.0/24/8", "2001:db8::/129", "2001:db8::1/64",
                             "::ffff:192.0.2.0/120", "::ffff:192.0.2.7", "corp.example"})
        EXPECT_FALSE(Network::Parse(text)) << text;
}

} // namespace
