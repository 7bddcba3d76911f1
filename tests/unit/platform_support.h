/// What the tests of the platform libraries have in common. They change the files and the network
/// of the host that they run on, and end at once on one that is not private.
#ifndef TESTS_PLATFORM_SUPPORT_H
#define TESTS_PLATFORM_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace PlatformTest {

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
bool Exists(const std::string& path);
/// Permission bits of a file.
unsigned Mode(const std::string& path);
ino_t Inode(const std::string& path);

/// Runs a shell command and fails the test unless it succeeds.
void Shell(const std::string& command);

/// Runs `work` in `count` child processes at once, each with its number; true when each of them
/// returned true. An exception counts as false and is printed.
bool InProcesses(int count, const std::function<bool(int number)>& work);

/// A file system mounted for the time of a test.
class Mounted {
public:
    /// An empty file system in memory on a new or existing directory.
    static Mounted Memory(const std::string& directory, const std::string& options);
    /// `source` shown at `target` too; both exist.
    static Mounted Bind(const std::string& source, const std::string& target);
    ~Mounted();
    Mounted(Mounted&& other) noexcept;
    Mounted& operator=(Mounted&&) = delete;

private:
    explicit Mounted(const std::string& directory) : directory_(directory) {}
    std::string directory_;
};

/// A test on a private host; the configuration store is absent when it starts and when it ends.
class HostTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    mode_t umask_ = 0;
};

/// The text of the exception of type `Failure` that `action` throws; fails the test if none.
template <typename Failure, typename Action>
std::string FailureText(Action&& action) {
    try {
        action();
    } catch (const Failure& failure) {
        return failure.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

} // namespace PlatformTest

#endif
