#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "sysconf_agreement.h"

namespace {

using namespace SysconfTest;

typedef std::vector<std::string> Tokens;
typedef std::string (*Compare)(const std::string& text, bool thorough);

/// Where every input takes several times as long, the longest are left out.
#ifdef SYSCONF_SHORTER_INPUTS
const std::size_t kLeftOut = 2;
const std::size_t kRandomInputs = 20'000;
#else
const std::size_t kLeftOut = 0;
const std::size_t kRandomInputs = 200'000;
#endif

const std::size_t kMostFindings = 5; ///< one cause has thousands of them

/// All texts that begin with a given one and go on with up to so many tokens, in every combination.
class Combinations {
public:
    Combinations(Compare compare, Tokens tokens) : compare_(compare), tokens_(std::move(tokens)) {}

    void Try(const std::string& beginning, std::size_t most) {
        text_ = beginning;
        TryLonger(most - kLeftOut);
    }

    std::size_t Tried() const { return tried_; }

private:
    void TryLonger(std::size_t most) {
        if (findings_ == kMostFindings)
            return;
        ++tried_;
        const std::string finding = compare_(text_, false);
        if (!finding.empty()) {
            ++findings_;
            ADD_FAILURE() << finding;
        }
        if (most == 0)
            return;
        const std::size_t length = text_.size();
        for (const std::string& token : tokens_) {
            text_ += token;
            TryLonger(most - 1);
            text_.resize(length);
        }
    }

    Compare compare_;
    Tokens tokens_;
    std::string text_;
    std::size_t tried_ = 0;
    std::size_t findings_ = 0;
};

/// How many sequences of up to `most` of `tokens` there are.
std::size_t CountOfCombinations(std::size_t tokens, std::size_t most) {
    std::size_t count = 1;
    for (std::size_t length = 1, ofLength = tokens; length <= most; ++length, ofLength *= tokens)
        count += ofLength;
    return count;
}

TEST(PAMModelTest, LibraryAgreesOnAllCombinations) {
    Combinations all(PAMDisagreement,
                     {"auth", "required", "[a", "b]", "x.so", " ", "\t", "\n", "#", "\r"});
    all.Try("", 6);
    EXPECT_EQ(all.Tried(), CountOfCombinations(10, 6 - kLeftOut));
#ifndef SYSCONF_SHORTER_INPUTS
    EXPECT_GE(all.Tried(), 1'000'000u);
#endif
    for (const char* beginning : {"auth [a", "auth\trequired\tx.so", "session optional y\nauth "})
        all.Try(beginning, 5);
}

TEST(PAMModelTest, LibraryAgreesOnAllCombinationsOfBytes) {
    Combinations all(PAMDisagreement,
                     {"[", "]", "a", " ", "\n", "\v", "\f", std::string(1, '\0'), "\xff", "-"});
    for (const char* beginning : {"", "auth ", "auth [", "auth required a"})
        all.Try(beginning, 4);
}

TEST(PAMModelTest, LibraryAgreesOnAllCombinationsOfLines) {
    Combinations all(PAMDisagreement,
                     {"account include y\n", "auth required x.so a b\n", "#%PAM-1.0\n", "\n",
                      "session [a=1  b=2]\tz #\r\n", "password\nsubstack\nx\n", " \t# note\n",
                      "-session optional x\n", "@include y\n", "auth required "});
    all.Try("", 5);
}

TEST(PAMModelTest, LibraryAgreesOnRandomTexts) {
    const Tokens tokens = {"auth",     "account", "password", "session",    "required", "requisite",
                           "optional", "include", "substack", "sufficient", "[",        "]",
                           "[a=1",     "b=2]",    "[x]",      "x.so",       "nullok",   "#",
                           " ",        " ",       " ",        " ",          "\t",       "\t",
                           "\n",       "\n",      "\r\n",     "\v"};
    std::mt19937 random(1);
    std::size_t findings = 0;
    for (std::size_t i = 0; i < kRandomInputs && findings < kMostFindings; ++i) {
        std::string text;
        for (std::size_t left = random() % 40; left > 0; --left) {
            if (random() % 30 == 0)
                text += static_cast<char>(random() % 256);
            else
                text += tokens[random() % tokens.size()];
        }
        const std::string finding = PAMDisagreement(text, true);
        EXPECT_EQ(finding, "") << ++findings;
    }
}

TEST(NSSModelTest, LibraryAgreesOnAllCombinations) {
    Combinations all(NSSDisagreement,
                     {"passwd:", "hosts:", "files", "[", "]", "[N=r]", " ", "\n", "\r", "#"});
    all.Try("", 6);
    EXPECT_EQ(all.Tried(), CountOfCombinations(10, 6 - kLeftOut));
#ifndef SYSCONF_SHORTER_INPUTS
    EXPECT_GE(all.Tried(), 1'000'000u);
#endif
}

/// The read position goes by how far a service is from the beginning of its line, so texts that
/// share a beginning are of most interest, and long ones, where it ends up on the line again.
TEST(NSSModelTest, LibraryAgreesOnAllCombinationsBehindADatabase) {
    Combinations all(NSSDisagreement, {"files", "[", "]", "a", " ", "\t", "\n", "\r", "[N=r b] "});
    all.Try("rpc:", 6);
    for (const char* beginning :
         {"\t passwd: files ", "rpc: a [", "group: x\nrpc: a] ", "rpc: a [b] files dns nis db"})
        all.Try(beginning, 5);
}

TEST(NSSModelTest, LibraryAgreesOnAllCombinationsOfBytes) {
    Combinations all(NSSDisagreement,
                     {"[", "]", "a", ":", " ", "\n", "\v", "\f", std::string(1, '\0'), "\xff"});
    for (const char* beginning : {"", "hosts: ", "\vrpc:", "rpc: a ", "rpc"})
        all.Try(beginning, 4);
}

TEST(NSSModelTest, LibraryAgreesOnAllCombinationsOfLines) {
    Combinations all(NSSDisagreement,
                     {"passwd: files sss\n", "hosts:\tfiles dns \n", "hosts: files  \n", "\n",
                      "hosts: files mdns [NOTFOUND=return] dns\n", "# note\n", "  # note\n",
                      "passwd: db [a\n", "gshadow: files\n", "aliases: x\r\n"});
    all.Try("", 5);
}

TEST(NSSModelTest, LibraryAgreesOnRandomTexts) {
    const Tokens tokens = {
        "passwd:",    "group:",     "shadow:",  "hosts:",   "netmasks:", "networks:",
        "protocols:", "services:",  "ethers:",  "rpc:",     "netgroup:", "bootparams:",
        "publickey:", "automount:", "aliases:", "gshadow:", "files",     "files",
        "sss",        "x",          "[",        "]",        "[N=r]",     "[!A=b c=d]",
        "#",          " ",          " ",        " ",        " ",         " ",
        " ",          " ",          "  ",       "\t",       "\n",        "\n",
        "  \n",       "\r\n"};
    std::mt19937 random(2);
    std::size_t findings = 0;
    for (std::size_t i = 0; i < kRandomInputs && findings < kMostFindings; ++i) {
        std::string text;
        // Most of them begin with a database, as otherwise little is read.
        if (random() % 4 != 0)
            text += tokens[random() % 15] + " ";
        for (std::size_t left = random() % 40; left > 0; --left) {
            if (random() % 30 == 0)
                text += static_cast<char>(random() % 256);
            else
                text += tokens[random() % tokens.size()];
        }
        const std::string finding = NSSDisagreement(text, true);
        EXPECT_EQ(finding, "") << ++findings;
    }
}

} // namespace
