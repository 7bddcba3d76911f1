#include "hykctl/network.h"
#include "platform_support.h"

namespace {

using namespace PlatformTest;
using HostCtl::Lib::HostCtlException;
using HykCtl::Network::NetworkInfoImpl;

/// Two pairs of links on the private host's own network, which has nothing but a loopback else.
class ManagementInterfaceTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        Shell("ip link add lan0 type veth peer name lan0p");
        Shell("ip link add lan1 type veth peer name lan1p");
        for (const char* link : {"lan0", "lan0p", "lan1", "lan1p"})
            Shell(std::string("ip link set up dev ") + link);
    }
    void TearDown() override {
        Shell("ip route flush table main && ip link del lan0 && ip link del lan1");
        HostTest::TearDown();
    }
};

std::string Found() {
    const auto found = NetworkInfoImpl().GetManagementInterface();
    return found.Name() + " " + found.GetIpConfig().GetAddress().ToString();
}

TEST_F(ManagementInterfaceTest, NoneIsAnError) {
    EXPECT_EQ(FailureText<HostCtlException>([] { Found(); }),
              "no management interface: no network interface is up and has an IPv4 address");
}

TEST_F(ManagementInterfaceTest, WithoutADefaultRouteTheFirstWithAnAddress) {
    Shell("ip addr add 10.99.1.2/24 dev lan1");
    EXPECT_EQ(Found(), "lan1 10.99.1.2");
    Shell("ip addr add 10.99.0.2/24 dev lan0");
    const bool lan0IsFirst = system("test $(cat /sys/class/net/lan0/ifindex) -lt"
                                    " $(cat /sys/class/net/lan1/ifindex)") == 0;
    EXPECT_EQ(Found(), lan0IsFirst ? "lan0 10.99.0.2" : "lan1 10.99.1.2");
}

TEST_F(ManagementInterfaceTest, InterfaceThatIsDownDoesNotCount) {
    Shell("ip addr add 10.99.0.2/24 dev lan0 && ip link set down dev lan0");
    Shell("ip addr add 10.99.1.2/24 dev lan1");
    EXPECT_EQ(Found(), "lan1 10.99.1.2");
}

TEST_F(ManagementInterfaceTest, DefaultRouteDecides) {
    Shell("ip addr add 10.99.0.2/24 dev lan0 && ip addr add 10.99.1.2/24 dev lan1");
    Shell("ip route add default via 10.99.1.1 metric 200");
    EXPECT_EQ(Found(), "lan1 10.99.1.2");
    Shell("ip route add default via 10.99.0.1 metric 100");
    EXPECT_EQ(Found(), "lan0 10.99.0.2");
    Shell("ip route add default via 10.99.1.1"); // metric 0
    EXPECT_EQ(Found(), "lan1 10.99.1.2");
}

TEST_F(ManagementInterfaceTest, RouteOfAPartOfTheNetworkAndARefusalAreNoDefaultRoute) {
    Shell("ip addr add 10.99.0.2/24 dev lan0 && ip addr add 10.99.1.2/24 dev lan1");
    Shell("ip route add 0.0.0.0/1 via 10.99.1.1 && ip route add unreachable default metric 1");
    Shell("ip route add default via 10.99.1.1 metric 5");
    EXPECT_EQ(Found(), "lan1 10.99.1.2");
    Shell("ip route add default via 10.99.0.1 metric 3");
    EXPECT_EQ(Found(), "lan0 10.99.0.2");
}

TEST_F(ManagementInterfaceTest, DefaultRouteWithoutAnAddressIsPassedOver) {
    Shell("ip addr add 10.99.1.2/24 dev lan1 && ip route add default dev lan0 metric 1");
    EXPECT_EQ(Found(), "lan1 10.99.1.2");
}

TEST_F(ManagementInterfaceTest, FirstAddressCountsAndALabelIsNoName) {
    Shell("ip addr add 10.99.1.2/24 dev lan1 label lan1:old");
    Shell("ip addr add 10.99.1.3/24 dev lan1");
    Shell("ip route add default via 10.99.1.1");
    EXPECT_EQ(Found(), "lan1 10.99.1.2");
}

} // namespace
