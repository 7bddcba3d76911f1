#include "lab_proxy_machine.h"

#include <gtest/gtest.h>

namespace lab {
namespace {

constexpr const char* stateFolder = "/var/lib/tesauth-apxd";
constexpr const char* configuration = "/etc/tessary/tesauth/apxd.toml";

std::string Trimmed(const std::string& text) {
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

} // namespace

std::string AddressOf(const std::string& host) {
    const Result result =
        RunOn(host, {"sh", "-c", "awk -v name=$(hostname) '$3 == name { print $1 }' /etc/hosts"});
    EXPECT_EQ(result.status, 0) << result.err;
    return Trimmed(result.out);
}

ProxyMachine::ProxyMachine(const std::string& host, const Words& clients,
                           const std::string& settings, const std::string& network)
    : host_(host) {
    Lab({"fresh", host});
    address_ = AddressOf(host);
    std::string names;
    for (const std::string& client : clients)
        names += AddressOf(client) + " " + client + "." + Setting("DOMAIN") + "\n";
    const Result known = On({"tee", "-a", "/etc/hosts"}, names);
    EXPECT_EQ(known.status, 0) << known.err;
    const Result written =
        On({"tee", configuration}, "domain = \"" + Setting("DOMAIN") + "\"\naccount = \"" +
                                       Setting("PROXY_ACCOUNT") + "\"\ncontainer = \"" +
                                       Setting("PROXY_CONTAINER") +
                                       "\"\nkeytab = \"/run/apxd.keytab\"\n"
                                       "allowed_networks = [\"10.99.0.0/24\"" +
                                       (network.empty() ? "" : ", " + network) + "]\n" + settings);
    EXPECT_EQ(written.status, 0) << written.err;
    // As a user of its own, who sees nothing of what is only root's.
    const Result prepared = On({"sh", "-ec",
                                "install -o nobody -m 0600 " + Setting("PROXY_KEYTAB") +
                                    " /run/apxd.keytab; install -d -o nobody -m 0700 " +
                                    stateFolder + "; install -d -m 0700 /var/lib/tessary"});
    EXPECT_EQ(prepared.status, 0) << prepared.err;
    Start();
}

ProxyMachine::~ProxyMachine() {
    On({"sh", "-c", "kill -CONT $(cat /run/apxd.pid) && kill -KILL $(cat /run/apxd.pid)"});
}

void ProxyMachine::Start() {
    const Result started = On({"bash", "-c", R"(
        setsid sh -c 'echo $$ >/run/apxd.pid
            exec setpriv --reuid nobody --regid nogroup --clear-groups tesauth-apxd' </dev/null \
            >/run/apxd.out 2>/run/apxd.err &
        for try in {1..500}; do
            (exec 3<>/dev/tcp/127.0.0.1/8447) 2>/dev/null && exit 0
            sleep 0.02
        done
        cat /run/apxd.err >&2
        exit 1)"});
    EXPECT_EQ(started.status, 0) << started.err;
    const std::string printed = On({"cat", "/run/apxd.out"}).out;
    EXPECT_EQ(printed.rfind("thumbprint ", 0), 0u) << printed;
    thumbprint_ = Trimmed(printed.substr(printed.find(' ') + 1));
}

void ProxyMachine::Stop() {
    const Result ended = On({"sh", "-c",
                             "pid=$(cat /run/apxd.pid) && kill $pid && "
                             "while kill -0 $pid 2>/dev/null; do sleep 0.02; done"});
    EXPECT_EQ(ended.status, 0) << ended.err;
}

std::string ProxyMachine::Certificate() const {
    return On({"sh", "-c",
               std::string("cat ") + stateFolder +
                   "/*.pem | sed -n "
                   "'/BEGIN CERTIFICATE/,/END CERTIFICATE/p'"})
        .out;
}

Result ProxyMachine::On(const Words& words, const std::string& input) const {
    return RunOn(host_, words, input);
}

void ProxyMachine::Signal(const std::string& name) const {
    const Result sent = On({"sh", "-c", "kill -" + name + " $(cat /run/apxd.pid)"});
    EXPECT_EQ(sent.status, 0) << sent.err;
}

std::size_t ProxyMachine::Descriptors() const {
    return std::stoul(On({"sh", "-c", "ls /proc/$(cat /run/apxd.pid)/fd | wc -l"}).out);
}

std::size_t ProxyMachine::Threads() const {
    return std::stoul(On({"sh", "-c", "ls /proc/$(cat /run/apxd.pid)/task | wc -l"}).out);
}

long ProxyMachine::PeakMemory() const {
    const Result peak = On(
        {"sh", "-c", "awk '/VmHWM/ { print int($2 / 1024) }' /proc/$(cat /run/apxd.pid)/status"});
    return std::stol(peak.out);
}

void MakeClient(const std::string& host) {
    Lab({"fresh", host});
    const Result hidden = RunOn(host, {"mount", "--bind", "/dev/null", Setting("PROXY_KEYTAB")});
    EXPECT_EQ(hidden.status, 0) << hidden.err;
}

void ImportCertificate(const std::string& host, const std::string& pem) {
    const Result written = RunOn(host, {"tee", "/run/proxy.pem"}, pem);
    EXPECT_EQ(written.status, 0) << written.err;
    const Result imported = Ctl(host, {"proxy", "import-certificate", "/run/proxy.pem"});
    EXPECT_EQ(imported.status, 0) << imported.err;
}

} // namespace lab
