// What is left in a process's memory of a password that it was given.

#include "apxhttps_proxy_fixture.h"
#include "apxhttps_table.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#include <openssl/crypto.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace proxied;

constexpr std::size_t passwordSize = 40;
/// What is looked for: its end, as the allocator writes over the beginning of freed memory.
constexpr std::size_t soughtSize = 20;
/// It in another form, so that the one who looks for it is not found.
using Veiled = std::array<char, soughtSize>;
constexpr char veil = 0x55;

/// How often the password's end lies in this process's memory.
int Copies(const Veiled& veiled) {
    int copies = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0, end = 0;
        char mode[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, mode) != 3 || mode[0] != 'r' ||
            mode[1] != 'w') {
            continue;
        }
        const auto memory = reinterpret_cast<const volatile char*>(begin);
        for (std::size_t at = 0; at + soughtSize <= end - begin; ++at) {
            std::size_t same = 0;
            while (same < soughtSize && memory[at + same] == (veiled[same] ^ veil)) {
                ++same;
            }
            copies += same == soughtSize ? 1 : 0;
        }
    }
    return copies;
}

/// Asks the proxy at the address, gives the password back and looks for it.
/// \return the process's exit status: how many copies were found, or one that says why not
int Client(const std::string& address) {
    const APXProxyClientOperations* const operations = LoadApxhttps();
    char* name = nullptr;
    char* password = nullptr;
    if (!operations || operations->createMachineAccount(address.c_str(), "web1", nullptr, false, "",
                                                        nullptr, &name, &password) != 0) {
        return 100;
    }
    Veiled veiled;
    for (std::size_t i = 0; i < soughtSize; ++i) {
        veiled[i] = static_cast<char>(password[passwordSize - soughtSize + i] ^ veil);
    }
    if (Copies(veiled) != 1) { // the one that is looked at
        return 101;
    }
    operations->freeString(name);
    operations->freeString(password);
    return Copies(veiled);
}

TEST(Secrets, NothingIsLeftOfAPasswordThatWasGivenBack) {
    int address[2];
    ASSERT_EQ(pipe(address), 0);
    const pid_t client = fork(); // before there is a password
    if (client == 0) {
        char text[64] = {};
        _exit(read(address[0], text, sizeof text - 1) > 0 ? Client(text) : 102);
    }
    std::random_device random;
    std::string password;
    while (password.size() < passwordSize) {
        password += static_cast<char>('a' + random() % 26);
    }
    ScriptedProxyServer server(
        AnyCertificate(),
        {.answer = HttpAnswer(201, R"({"accountName":"WEB1$","password":")" + password + "\"}")});
    EXPECT_GT(write(address[1], server.Address().data(), server.Address().size()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(client, &status, 0), client);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    close(address[0]);
    close(address[1]);
}

} // namespace
