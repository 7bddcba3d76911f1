#include "apxd_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace apxd_test {
namespace {

using tessary::directory::UniqueFd;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

const char* const program = "/usr/sbin/tesauth-apxd";

int StatusOf(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

std::string ReadAll(int fd) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (ssize_t size; (size = read(fd, buffer.data(), buffer.size())) > 0;)
        text.append(buffer.data(), static_cast<std::size_t>(size));
    return text;
}

void Append(std::string& text, std::uint32_t number, int bytes) {
    for (int i = bytes - 1; i >= 0; --i)
        text += static_cast<char>(number >> (8 * i));
}

void Append(std::string& text, const std::string& counted) {
    Append(text, static_cast<std::uint32_t>(counted.size()), 2);
    text += counted;
}

} // namespace

Process::Process(const Words& arguments, const std::string& notifySocket, uid_t user,
                 const std::function<void()>& prepare) {
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2");
    process_ = fork();
    if (process_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        if (!notifySocket.empty())
            setenv("NOTIFY_SOCKET", notifySocket.c_str(), 1);
        if (user != 0 && (setgid(user) != 0 || setuid(user) != 0))
            _exit(126);
        if (prepare)
            prepare();
        alarm(30);
        std::vector<char*> words = {const_cast<char*>(program)};
        for (const std::string& argument : arguments)
            words.push_back(const_cast<char*>(argument.c_str()));
        words.push_back(nullptr);
        execv(program, words.data());
        _exit(127);
    }
    out_ = UniqueFd(out[0]);
    err_ = UniqueFd(err[0]);
    close(out[1]);
    close(err[1]);
}

Process::~Process() {
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
}

void Process::Signal(int signal) const {
    kill(process_, signal);
}

std::string Process::Proc(const std::string& name) const {
    std::ifstream in("/proc/" + std::to_string(process_) + "/" + name);
    return {std::istreambuf_iterator<char>(in), {}};
}

Result Process::Wait() {
    Result result;
    result.out = ReadAll(out_.Get());
    result.err = ReadAll(err_.Get());
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = -1;
    result.status = StatusOf(status);
    return result;
}

Result Apxd(const Words& arguments) {
    return Process(arguments).Wait();
}

NotifySocket::NotifySocket() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    EXPECT_EQ(bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    chmod(path.c_str(), 0777);
}

NotifySocket::~NotifySocket() {
    unlink(path.c_str());
}

std::string NotifySocket::Next() const {
    pollfd watched{socket_.Get(), POLLIN, 0};
    std::array<char, 256> text{};
    if (poll(&watched, 1, 20'000) != 1)
        return "nothing";
    const ssize_t size = recv(socket_.Get(), text.data(), text.size(), 0);
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

void Write(const std::string& path, const std::string& text, mode_t mode) {
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
}

std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

std::string KeytabOf(const std::string& account) {
    std::string entry;
    Append(entry, 1, 2);
    Append(entry, "CORP.EXAMPLE");
    Append(entry, account);
    Append(entry, 1, 4);  // kind of name
    Append(entry, 0, 4);  // time
    Append(entry, 1, 1);  // version
    Append(entry, 18, 2); // AES-256
    Append(entry, std::string(32, 'k'));
    std::string text = "\x05\x02";
    Append(text, static_cast<std::uint32_t>(entry.size()), 4);
    return text + entry;
}

ProgramTest::ProgramTest() {
    std::filesystem::create_directories(folder);
    std::filesystem::remove_all(state);
    Configure("");
    Write(keytab, KeytabOf("svc-apxd"), 0600);
}

void ProgramTest::Configure(const std::string& more) {
    Write(file, "domain = \"corp.example\"\ncontainer = \"OU=Hosts,DC=corp,DC=example\"\n"
                "account = \"svc-apxd\"\nlisten = \"127.0.0.1\"\n" +
                    more);
}

void ProgramTest::MakeState() {
    std::filesystem::create_directory(state);
    chmod(state.c_str(), 0700);
}

void ProgramTest::ExpectFault(const std::string& part) {
    const Result result = Apxd({"--check"});
    EXPECT_EQ(result.status, 1) << part;
    EXPECT_THAT(result.err, AllOf(StartsWith(file + ":"), HasSubstr(part)));
}

} // namespace apxd_test
