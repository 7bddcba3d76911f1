#include <array>
#include <csignal>
#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "ctl_host.h"

namespace ctl_test {
namespace {

using scripted::WriteFile;

constexpr const char* passwordFile = "/run/ctl-test-password";

class PasswordTest : public CtlTest {
protected:
    ~PasswordTest() override { unlink(passwordFile); }

    static Result JoinFromInput(const std::string& input) {
        return Ctl(
            {"join", "corp.example", "-U", "bob", "--password-stdin", "--skip-hostname-check"},
            {.input = input});
    }
    static Result JoinFromFile(const char* file) {
        return Ctl({"join", "corp.example", "-U", "bob", "--password-file", file,
                    "--skip-hostname-check"});
    }
    static void WritePasswordFile(const std::string& text, mode_t mode) {
        WriteFile(passwordFile, text);
        ASSERT_EQ(chmod(passwordFile, mode), 0);
    }
};

struct Line {
    const char* name;
    std::string text;
    std::string password;
};

class FirstLineTest : public PasswordTest, public testing::WithParamInterface<Line> {
protected:
    /// The provider writes an absent unit as "(null)".
    static std::string Taken() {
        const std::string call = Calls("joinDomain");
        const std::string before = "joinDomain|corp.example|(null)|bob|";
        EXPECT_EQ(call.rfind(before, 0), 0U) << call;
        return call.size() > before.size()
                   ? call.substr(before.size(), call.size() - before.size() - 1)
                   : "";
    }
};

TEST_P(FirstLineTest, IsThePasswordOnStandardInput) {
    EXPECT_EQ(JoinFromInput(GetParam().text).status, 0);
    EXPECT_EQ(Taken(), GetParam().password);
}

TEST_P(FirstLineTest, IsThePasswordInAFile) {
    WritePasswordFile(GetParam().text, 0640);
    EXPECT_EQ(JoinFromFile(passwordFile).status, 0);
    EXPECT_EQ(Taken(), GetParam().password);
}

INSTANTIATE_TEST_SUITE_P(Ends, FirstLineTest,
                         testing::Values(Line{"LineFeed", "secret\n", "secret"},
                                         Line{"CarriageReturn", "secret\r\n", "secret"},
                                         Line{"Nothing", "secret", "secret"},
                                         Line{"NothingAfterCarriageReturn", "secret\r", "secret\r"},
                                         Line{"MoreLines", "secret\nother\n", "secret"},
                                         Line{"Blanks", " secret \n", " secret "},
                                         Line{"Longest", std::string(1023, 'x') + "\n",
                                              std::string(1023, 'x')}),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(PasswordTest, WhatIsNoPasswordIsRefused) {
    const Result empty = JoinFromInput("\n");
    ExpectFailure(empty, 1, "empty or no password was specified");
    ExpectFailure(JoinFromInput(""), 1, "empty or no password was specified");
    ExpectFailure(JoinFromInput(std::string(1024, 'x') + "\n"), 1, "longer than 1023 bytes");
    ExpectFailure(JoinFromInput(std::string("sec\0ret\n", 8)), 1, "contains a NUL byte");
    EXPECT_EQ(Calls("joinDomain"), "");
}

TEST_F(PasswordTest, AFileThatEveryoneCanReadIsRefused) {
    WritePasswordFile("secret\n", 0604);
    ExpectFailure(JoinFromFile(passwordFile), 1, "everyone on this host can read");
    EXPECT_EQ(Calls("joinDomain"), "");
}

TEST_F(PasswordTest, AFileThatCannotBeReadIsAFailure) {
    ExpectFailure(JoinFromFile("/run/no-such-file"), 1, "/run/no-such-file: No such file");
    ExpectFailure(JoinFromFile("/run"), 1, "cannot read the password from /run");
}

TEST_F(PasswordTest, WithoutSourceAndTerminalTheSourcesAreNamed) {
    const Result result = Ctl({"join", "corp.example", "-U", "bob"}, {.input = "secret\n"});
    ExpectFailure(result, 2, "--password-stdin or --password-file");
}

/// The command at a terminal of its own; we hold the terminal's other side.
class PromptTest : public CtlTest {
protected:
    void Start(const Words& arguments) {
        child_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
        ASSERT_GE(child_, 0);
        if (child_ == 0) {
            alarm(30);
            Execute(arguments);
        }
    }

    void StartJoin() {
        Start({"join", "corp.example", "-U", "bob", "--skip-hostname-check"});
        ReadUntil("Password for bob: ");
    }

    ~PromptTest() override {
        if (child_ > 0 && !ended_) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
        close(terminal_);
    }

    /// Reads what the terminal shows until it has shown that, or nothing more comes.
    void ReadUntil(const std::string& text) {
        std::array<char, 256> buffer{};
        while (shown_.find(text) == std::string::npos) {
            const ssize_t count = read(terminal_, buffer.data(), buffer.size());
            ASSERT_GT(count, 0) << "shown so far: " << shown_;
            shown_.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

    void Type(const std::string& text) {
        ASSERT_EQ(write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    bool Echoes() const {
        termios settings = {};
        EXPECT_EQ(tcgetattr(terminal_, &settings), 0);
        return (settings.c_lflag & ECHO) != 0;
    }

    int End() {
        int waitStatus = 0;
        EXPECT_EQ(waitpid(child_, &waitStatus, 0), child_);
        ended_ = true;
        return StatusOf(waitStatus);
    }

    int terminal_ = -1;
    pid_t child_ = -1;
    bool ended_ = false;
    std::string shown_;
};

TEST_F(PromptTest, ThePasswordIsReadWithoutShowingIt) {
    StartJoin();
    EXPECT_FALSE(Echoes());
    Type("hush hush\n");
    ReadUntil("joined corp.example");
    EXPECT_TRUE(Echoes());
    EXPECT_EQ(End(), 0);
    EXPECT_EQ(shown_.find("hush"), std::string::npos) << shown_;
    EXPECT_EQ(Calls("joinDomain"), "joinDomain|corp.example|(null)|bob|hush hush\n");
}

TEST_F(PromptTest, LeavingAsksToo) {
    Start({"leave", "-U", "bob"});
    ReadUntil("Password for bob: ");
    Type("hush\n");
    ReadUntil("left corp.example");
    EXPECT_EQ(End(), 0);
    EXPECT_EQ(Calls("partDomain"), "partDomain|bob|hush\n");
}

TEST_F(PromptTest, NothingIsAskedWhenAFileIsNamed) {
    WriteFile(passwordFile, "secret\n");
    ASSERT_EQ(chmod(passwordFile, 0600), 0);
    Start({"leave", "-U", "bob", "--password-file", passwordFile});
    ReadUntil("left corp.example");
    EXPECT_EQ(End(), 0);
    EXPECT_EQ(shown_.find("Password"), std::string::npos);
    unlink(passwordFile);
}

TEST_F(PromptTest, TheEndOfInputIsNoPassword) {
    StartJoin();
    Type("\x04");
    ReadUntil("no password was typed");
    EXPECT_TRUE(Echoes());
    EXPECT_EQ(End(), 1);
    EXPECT_EQ(Calls("joinDomain"), "");
}

class PromptSignalTest : public PromptTest, public testing::WithParamInterface<int> {};

TEST_P(PromptSignalTest, EndsTheCommandAndLeavesTheTerminalAsItWas) {
    StartJoin();
    // With its other side held open, the terminal outlives the command.
    const int slave = open(ptsname(terminal_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(slave, 0);
    EXPECT_FALSE(Echoes());
    Type("hush"); // half a password
    ASSERT_EQ(kill(child_, GetParam()), 0);
    EXPECT_EQ(End(), 128 + GetParam());
    EXPECT_TRUE(Echoes());
    close(slave);
    EXPECT_EQ(Calls("joinDomain"), "");
}

INSTANTIATE_TEST_SUITE_P(Signals, PromptSignalTest,
                         testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT));

TEST_F(PromptTest, AStopThatIsNoStopAsksAnew) {
    // The command leads a session of its own here, and nobody could continue it: the system drops
    // its stop, and it has to ask again.
    StartJoin();
    shown_.clear();
    Type("half\x04"); // reaches the command without a line end, and counts no more afterwards
    ASSERT_EQ(kill(child_, SIGTSTP), 0);
    ReadUntil("Password for bob: ");
    EXPECT_FALSE(Echoes());
    Type("hush\n");
    ReadUntil("joined corp.example");
    EXPECT_EQ(End(), 0);
    EXPECT_EQ(Calls("joinDomain"), "joinDomain|corp.example|(null)|bob|hush\n");
}

} // namespace
} // namespace ctl_test
