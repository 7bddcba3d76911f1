#include "named_host.h"

#include <unistd.h>

namespace scripted {

NamedHostTest::NamedHostTest() {
    char name[65] = {};
    gethostname(name, sizeof name);
    oldName_ = name;
    Shell("cp /etc/hosts /run/hosts.before && cp /etc/resolv.conf /run/resolv.before && "
          "cp /etc/nsswitch.conf /run/nsswitch.before");
    Shell("ip link add mgmt0 type veth peer name mgmt1 && ip link set up dev mgmt1 && "
          "ip link set up dev mgmt0 && ip addr add 10.99.7.5/24 dev mgmt0");
    WriteFile("/etc/nsswitch.conf", "hosts: files\n");
    WriteFile(resolverFile, resolver);
}

NamedHostTest::~NamedHostTest() {
    sethostname(oldName_.c_str(), oldName_.size());
    Shell("ip link del mgmt0; cat /run/hosts.before > /etc/hosts; "
          "cat /run/resolv.before > /etc/resolv.conf; "
          "cat /run/nsswitch.before > /etc/nsswitch.conf");
}

void NamedHostTest::Name(const std::string& name, const std::string& hosts) {
    ASSERT_EQ(sethostname(name.c_str(), name.size()), 0);
    WriteFile(hostsFile, hosts);
}

} // namespace scripted
