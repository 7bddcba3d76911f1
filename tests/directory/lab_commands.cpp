#include "lab_commands.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

#include <gmock/gmock.h>

namespace lab {
namespace {

void Check(int error, const char* what) {
    if (error != 0)
        throw std::system_error(error, std::generic_category(), what);
}

void CloseIfOpen(int& fd) {
    if (fd >= 0)
        close(fd);
    fd = -1;
}

int MakeFile() {
    const int fd = memfd_create("output", MFD_CLOEXEC);
    Check(fd < 0 ? errno : 0, "memfd_create");
    return fd;
}

std::string Content(int fd) {
    std::string text;
    char buffer[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(got));
    return text;
}

/// A command that has ended takes no more input; the test is to go on.
const bool sigpipeIgnored = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;

pid_t Spawn(const Words& words, int input, int out, int err) {
    std::vector<char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t usual;
    sigemptyset(&usual);
    sigaddset(&usual, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &usual);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t process = -1;
    const int error =
        posix_spawnp(&process, arguments[0], &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    Check(error, words[0].c_str());
    return process;
}

std::string BaseOf(const std::string& domain) {
    std::string base = "DC=";
    for (const char c : domain)
        base += c == '.' ? ",DC=" : std::string(1, c);
    return base;
}

/// Reads the format that ldapsearch prints without wrapped lines.
std::vector<Entry> ParseEntries(const std::string& text) {
    std::vector<Entry> entries;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto colon = line.find(": ");
        if (line.empty() || line[0] == '#' || colon == std::string::npos)
            continue;
        if (line.compare(0, colon, "dn") == 0)
            entries.emplace_back();
        if (!entries.empty())
            entries.back().emplace(line.substr(0, colon), line.substr(colon + 2));
    }
    return entries;
}

Words UnderClock(const std::string& clock) {
    return {"env", "LD_PRELOAD=/usr/$LIB/faketime/libfaketime.so.1", "FAKETIME=" + clock};
}

} // namespace

std::string Setting(const std::string& name) {
    const char* value = std::getenv(("TESAUTH_LAB_" + name).c_str());
    EXPECT_NE(value, nullptr) << name;
    return value ? value : "";
}

nlohmann::json Result::Json() const {
    auto json = nlohmann::json::parse(out, nullptr, false);
    return json.is_discarded() ? nlohmann::json() : json;
}

Command::Command(const Words& words) {
    int input[2];
    Check(pipe2(input, O_CLOEXEC) < 0 ? errno : 0, "pipe2");
    input_ = input[1];
    out_ = MakeFile();
    err_ = MakeFile();
    process_ = Spawn(words, input[0], out_, err_);
    close(input[0]);
}

Command::Command(Command&& other) noexcept
    : process_(std::exchange(other.process_, -1)), input_(std::exchange(other.input_, -1)),
      out_(std::exchange(other.out_, -1)), err_(std::exchange(other.err_, -1)) {}

Command::~Command() {
    CloseIfOpen(input_);
    if (process_ > 0) {
        kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
    }
    CloseIfOpen(out_);
    CloseIfOpen(err_);
}

void Command::Write(const std::string& text) {
    // Fits into the pipe; a command that has ended already takes none.
    const bool written = write(input_, text.data(), text.size()) >= 0;
    EXPECT_TRUE(written || errno == EPIPE) << errno;
}

void Command::AwaitOutput() const {
    using namespace std::chrono_literals;
    struct stat output {};
    for (int i = 0; i < 6000; ++i, std::this_thread::sleep_for(5ms))
        if (fstat(out_, &output) == 0 && output.st_size > 0)
            return;
    ADD_FAILURE() << "a command said nothing";
}

Result Command::Finish() {
    CloseIfOpen(input_);
    int status = 0;
    Check(waitpid(process_, &status, 0) < 0 ? errno : 0, "waitpid");
    process_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), Content(out_),
            Content(err_)};
}

Result Run(const Words& words, const std::string& input) {
    Command command(words);
    command.Write(input);
    return command.Finish();
}

void Lab(const Words& words) {
    Words all{std::getenv("TESAUTH_LAB")};
    all.insert(all.end(), words.begin(), words.end());
    const Result result = Run(all);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(words) << result.err;
}

Words WordsOn(const std::string& host, const Words& words) {
    Words all{std::getenv("TESAUTH_LAB"), "host", host};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

Result RunOn(const std::string& host, const Words& words, const std::string& input) {
    return Run(WordsOn(host, words), input);
}

Words WithClock(const std::string& offset, const Words& command) {
    Words words = UnderClock(offset);
    words.push_back("DONT_FAKE_MONOTONIC=1");
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

Words InHaste(int times, const Words& command) {
    Words words = UnderClock("+0 x" + std::to_string(times));
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

Result Ctl(const std::string& host, const Words& words, const std::string& input) {
    Words all{"tesauthctl"};
    all.insert(all.end(), words.begin(), words.end());
    return RunOn(host, all, input);
}

Result JoinAsAdmin(const std::string& host, const std::string& path) {
    return Ctl(host, {"join", path, "-U", Setting("ADMIN"), "--password-stdin", "--json"},
               Setting("PASSWORD") + "\n");
}

Result LeaveAsAdmin(const std::string& host) {
    return Ctl(host, {"leave", "-U", Setting("ADMIN"), "--password-stdin", "--json"},
               Setting("PASSWORD") + "\n");
}

void ExpectNothingLeft(const std::string& host) {
    const Result left = RunOn(host, {"find", "/etc", "/var/lib/tessary", "-name", "krb5.keytab*",
                                     "-o", "-name", "domain_state*"});
    EXPECT_EQ(left.out, "") << host;
    EXPECT_EQ(Ctl(host, {"status", "--json"}).Json()["joined"], false) << host;
}

NamedController RealController() {
    return {Setting("DC1"), Setting("DC1_ADDRESS")};
}

void UseOwnNameServer(const std::string& host, const std::vector<NamedController>& controllers) {
    constexpr int weight = 100;
    Words server{"dnsmasq",           "--conf-file=/dev/null",
                 "--no-resolv",       "--no-hosts",
                 "--user=root",       "--listen-address=127.0.0.1",
                 "--bind-interfaces", "--pid-file=/run/dnsmasq.pid",
                 "--address=/#/"};
    int priority = 0;
    for (const NamedController& controller : controllers) {
        server.push_back("--srv-host=_ldap._tcp.dc._msdcs." + Setting("DOMAIN") + "," +
                         controller.name + ",389," + std::to_string(++priority) + "," +
                         std::to_string(weight));
        server.push_back("--host-record=" + controller.name + "," + controller.address);
    }
    RunOn(host, {"sh", "-c",
                 "pid=$(cat /run/dnsmasq.pid) && kill \"$pid\" && "
                 "while kill -0 \"$pid\"; do sleep 0.01; done"});
    const Result started = RunOn(host, server);
    EXPECT_EQ(started.status, 0) << started.err;
    const Result settings = RunOn(host, {"tee", "/etc/resolv.conf"}, "nameserver 127.0.0.1\n");
    EXPECT_EQ(settings.status, 0) << settings.err;
}

std::vector<std::string> Values(const Entry& entry, const std::string& attribute) {
    std::vector<std::string> values;
    const auto [begin, end] = entry.equal_range(attribute);
    for (auto each = begin; each != end; ++each)
        values.push_back(each->second);
    return values;
}

std::vector<Entry> Search(const std::string& controller, const std::string& domain,
                          const std::string& filter, const Words& attributes) {
    // Who may open this socket may do anything.
    Words words{std::getenv("TESAUTH_LAB"),
                "on",
                controller,
                "ldapsearch",
                "-LLL",
                "-x",
                "-o",
                "ldif-wrap=no",
                "-H",
                "ldapi://%2Fvar%2Flib%2Fsamba%2Fprivate%2Fldap_priv%2Fldapi",
                "-b",
                BaseOf(domain),
                filter};
    words.insert(words.end(), attributes.begin(), attributes.end());
    const Result result = Run(words);
    EXPECT_EQ(result.status, 0) << result.err;
    return ParseEntries(result.out);
}

std::vector<std::string> Computers(const std::string& controller, const std::string& domain) {
    std::vector<std::string> names;
    for (const Entry& entry :
         Search(controller, domain, "(&(objectClass=computer)(primaryGroupID=515))",
                {"sAMAccountName"}))
        for (const std::string& name : Values(entry, "sAMAccountName"))
            names.push_back(name);
    return names;
}

} // namespace lab
