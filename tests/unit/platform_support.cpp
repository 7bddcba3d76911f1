#include "platform_support.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace PlatformTest {
namespace {

struct stat Info(const std::string& path) {
    struct stat info = {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path << ": " << std::strerror(errno);
    return info;
}

} // namespace

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    ASSERT_TRUE(file) << path;
}

bool Exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

unsigned Mode(const std::string& path) {
    return Info(path).st_mode & 07777;
}

ino_t Inode(const std::string& path) {
    return Info(path).st_ino;
}

void Shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

bool InProcesses(int count, const std::function<bool(int number)>& work) {
    std::vector<pid_t> children;
    for (int number = 0; number < count; ++number) {
        const pid_t child = fork();
        if (child == 0) {
            bool succeeded = false;
            try {
                succeeded = work(number);
            } catch (const std::exception& failure) {
                std::fprintf(stderr, "process %d: %s\n", number, failure.what());
            }
            _exit(succeeded ? 0 : 1);
        }
        children.push_back(child);
    }
    bool allSucceeded = true;
    for (const pid_t child : children) {
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || status != 0)
            allSucceeded = false;
    }
    return allSucceeded;
}

Mounted Mounted::Memory(const std::string& directory, const std::string& options) {
    std::filesystem::create_directories(directory);
    if (mount("test", directory.c_str(), "tmpfs", 0, options.c_str()) != 0)
        throw std::runtime_error("cannot mount " + directory + ": " + std::strerror(errno));
    return Mounted(directory);
}

Mounted Mounted::Bind(const std::string& source, const std::string& target) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw std::runtime_error("cannot mount " + target + ": " + std::strerror(errno));
    return Mounted(target);
}

Mounted::Mounted(Mounted&& other) noexcept : directory_(std::exchange(other.directory_, "")) {}

Mounted::~Mounted() {
    if (!directory_.empty() && umount2(directory_.c_str(), MNT_DETACH) != 0)
        ADD_FAILURE() << "cannot unmount " << directory_ << ": " << std::strerror(errno);
}

void HostTest::SetUp() {
    if (!Exists("/run/private-host")) {
        std::fputs("these tests change the host: run them on a private one\n", stderr);
        std::exit(1);
    }
    umask_ = umask(022);
    std::filesystem::remove_all("/var/lib/tessary");
}

void HostTest::TearDown() {
    umask(umask_);
    std::filesystem::remove_all("/var/lib/tessary");
}

} // namespace PlatformTest
