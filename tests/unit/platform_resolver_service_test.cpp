#include <gmock/gmock.h>
#include <net/if.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "hykctl/network.h"
#include "platform_support.h"

namespace {

using namespace PlatformTest;
using HostCtl::Lib::HostCtlException;
using HykCtl::Network::DnsConfigImpl;
using testing::ElementsAre;
using testing::IsEmpty;

const char* const kResolver = "/etc/resolv.conf";
const char* const kStub = "/run/systemd/resolve/stub-resolv.conf";
const char* const kBusFolder = "/run/dbus";

struct Domain {
    int link;
    std::string name;
    bool routeOnly;
};

void Require(int result, const char* what) {
    if (result < 0)
        throw std::runtime_error(std::string(what) + " failed");
}

/// A resolver service and a network service on the private host's own message bus. They note what
/// they are asked for as "SERVICE LINK: DOMAIN...", with a tilde before domains that only route.
class FakeServices {
public:
    std::vector<Domain> domains;
    bool linksAreBusy = false;
    bool networkServiceRefuses = false;
    std::vector<std::string> calls;

    void Start() {
        Require(sd_bus_open_system(&bus_), "open");
        Require(sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/resolve1",
                                         "org.freedesktop.resolve1.Manager", kResolverTable, this),
                "vtable");
        Require(sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/network1",
                                         "org.freedesktop.network1.Manager", kNetworkTable, this),
                "vtable");
        Require(sd_bus_request_name(bus_, "org.freedesktop.resolve1", 0), "name");
        Require(sd_bus_request_name(bus_, "org.freedesktop.network1", 0), "name");
        thread_ = std::thread([this] {
            while (!stop_)
                if (sd_bus_process(bus_, nullptr) == 0)
                    sd_bus_wait(bus_, 20000);
        });
    }

    void Stop() {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        bus_ = sd_bus_flush_close_unref(bus_);
    }

    ~FakeServices() { Stop(); }

private:
    static const sd_bus_vtable kResolverTable[];
    static const sd_bus_vtable kNetworkTable[];

    static int GetDomains(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                          void* self, sd_bus_error*) {
        sd_bus_message_open_container(reply, 'a', "(isb)");
        for (const Domain& domain : static_cast<FakeServices*>(self)->domains)
            sd_bus_message_append(reply, "(isb)", domain.link, domain.name.c_str(),
                                  int{domain.routeOnly});
        return sd_bus_message_close_container(reply);
    }

    int Note(const char* service, sd_bus_message* message) {
        int link = 0;
        const char* name = nullptr;
        int routeOnly = 0;
        sd_bus_message_read(message, "i", &link);
        std::string call = std::string(service) + " " + std::to_string(link) + ":";
        sd_bus_message_enter_container(message, 'a', "(sb)");
        while (sd_bus_message_read(message, "(sb)", &name, &routeOnly) > 0)
            call += std::string(" ") + (routeOnly ? "~" : "") + name;
        calls.push_back(call);
        return sd_bus_reply_method_return(message, nullptr);
    }

    static int SetResolver(sd_bus_message* message, void* data, sd_bus_error* error) {
        auto* self = static_cast<FakeServices*>(data);
        if (self->linksAreBusy)
            return sd_bus_error_set(error, "org.freedesktop.resolve1.LinkBusy", "Link is managed.");
        return self->Note("resolver", message);
    }

    static int SetNetwork(sd_bus_message* message, void* data, sd_bus_error* error) {
        auto* self = static_cast<FakeServices*>(data);
        if (self->networkServiceRefuses)
            return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied", "Not you.");
        return self->Note("network", message);
    }

    sd_bus* bus_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_ = false;
};

const sd_bus_vtable FakeServices::kResolverTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Domains", "a(isb)", FakeServices::GetDomains, 0, 0),
    SD_BUS_METHOD("SetLinkDomains", "ia(sb)", "", FakeServices::SetResolver,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};
const sd_bus_vtable FakeServices::kNetworkTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("SetLinkDomains", "ia(sb)", "", FakeServices::SetNetwork,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

const char* const kBusConfiguration = R"(<busconfig>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <pidfile>/run/dbus/pid</pidfile>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/><allow user="*"/>
  </policy>
</busconfig>
)";

class ResolverServiceTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        Shell("ip link add lan0 type veth peer name lan0p && ip link set up dev lan0");
        Shell("ip addr add 10.99.0.2/24 dev lan0 && ip route add default via 10.99.0.1");
        link_ = static_cast<int>(if_nametoindex("lan0"));
        std::filesystem::create_directories("/run/systemd/resolve");
        WriteFile(kStub, "nameserver 127.0.0.53\n");
        std::filesystem::remove(kResolver);
        ASSERT_EQ(symlink("../run/systemd/resolve/stub-resolv.conf", kResolver), 0);
    }

    void StartBus() {
        std::filesystem::create_directories(kBusFolder);
        WriteFile("/run/dbus/test.conf", kBusConfiguration);
        // The daemon prints its address once it listens.
        bus_ = popen("exec dbus-daemon --config-file=/run/dbus/test.conf --nofork --print-address",
                     "r");
        ASSERT_NE(bus_, nullptr);
        char address[200] = "";
        ASSERT_NE(fgets(address, sizeof address, bus_), nullptr);
        services_.Start();
    }

    void StopBus() {
        services_.Stop();
        if (!bus_)
            return;
        Shell("kill $(cat /run/dbus/pid)");
        pclose(bus_); // waits: at its end the daemon removes the socket, whosever it is
    }

    void TearDown() override {
        StopBus();
        std::filesystem::remove_all(kBusFolder);
        std::filesystem::remove_all("/run/systemd/resolve");
        std::filesystem::remove(kResolver);
        WriteFile(kResolver, "nameserver 127.0.0.1\n");
        Shell("ip link del lan0");
        HostTest::TearDown();
    }

    static void Add(const std::string& domain) {
        DnsConfigImpl config("defaultTcpipStack");
        config.AddUserSearchDomain(domain);
        config.SaveConfig();
    }

    std::string Call(const std::string& service, const std::string& domains) const {
        return service + " " + std::to_string(link_) + ": " + domains;
    }

    int link_ = 0;
    FILE* bus_ = nullptr;
    FakeServices services_;
};

TEST_F(ResolverServiceTest, DomainIsAddedToThoseOfTheManagementInterface) {
    services_.domains = {{0, "global.example", false},
                         {link_, "lan.example", false},
                         {link_, "route.example", true},
                         {link_ + 100, "other.example", false}};
    StartBus();
    Add("corp.example");
    EXPECT_THAT(services_.calls,
                ElementsAre(Call("resolver", "lan.example ~route.example corp.example")));
    EXPECT_EQ(ReadFile(kStub), "nameserver 127.0.0.53\n");
    EXPECT_TRUE(std::filesystem::is_symlink(kResolver));
}

TEST_F(ResolverServiceTest, DomainThatIsThereIsNotSetAgain) {
    services_.domains = {{link_, "CORP.example", false}};
    StartBus();
    Add("corp.example.");
    EXPECT_THAT(services_.calls, IsEmpty());
}

TEST_F(ResolverServiceTest, DomainThatOnlyRoutesIsMadeToBeSearched) {
    services_.domains = {{link_, "corp.example", true}};
    StartBus();
    Add("corp.example");
    EXPECT_THAT(services_.calls, ElementsAre(Call("resolver", "corp.example")));
}

TEST_F(ResolverServiceTest, LinkOfTheNetworkServiceIsSetThere) {
    services_.domains = {{link_, "lan.example", false}};
    services_.linksAreBusy = true;
    StartBus();
    Add("corp.example");
    EXPECT_THAT(services_.calls, ElementsAre(Call("network", "lan.example corp.example")));
}

TEST_F(ResolverServiceTest, RefusalIsAnErrorInTheServicesWords) {
    services_.linksAreBusy = true;
    services_.networkServiceRefuses = true;
    StartBus();
    EXPECT_EQ(FailureText<HostCtlException>([] { Add("corp.example"); }),
              "org.freedesktop.network1: cannot set the search domains: Not you.");
}

TEST_F(ResolverServiceTest, NoBusIsAnError) {
    EXPECT_EQ(FailureText<HostCtlException>([] { Add("corp.example"); }),
              "message bus: cannot connect: No such file or directory");
    EXPECT_EQ(ReadFile(kStub), "nameserver 127.0.0.53\n");
}

} // namespace
