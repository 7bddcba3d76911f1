// Attacks the authentication proxy on this machine, from addresses that may ask it, until its
// standard input ends: lab_proxy_attacker KIND

#include "apxd_client.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <iostream>
#include <map>
#include <system_error>
#include <thread>

namespace {

using apxd_test::Client;
using tessary::directory::UniqueFd;

constexpr std::uint16_t port = 8447;
constexpr std::size_t addresses = 32;
constexpr std::size_t attackers = 4;
constexpr std::size_t connections = 2000;

std::atomic<bool> over = false;
std::atomic<std::size_t> attempts = 0;

/// Addresses of hosts by turns, so that no limit for one of them holds all others off.
std::string NextAddress() {
    static std::atomic<std::size_t> next = 0;
    return "127.0.1." + std::to_string(1 + next++ % addresses);
}

/// Attacks until it is over, by several at once. One that is not let in goes on.
void Repeat(const std::function<void()>& attack) {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < attackers; ++i)
        threads.emplace_back([&] {
            while (!over) {
                ++attempts;
                try {
                    attack();
                } catch (const std::system_error&) {
                    continue;
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

void AskMalformed() {
    static const std::vector<std::string> requests = apxd_test::MalformedRequests();
    static std::atomic<std::size_t> next = 0;
    apxd_test::Ask(port, requests[next++ % requests.size()], NextAddress());
}

void GreetOnly() {
    const Client client(port, NextAddress());
}

void AskForHealth() {
    apxd_test::Ask(port, apxd_test::GetRequest("/healthz"), NextAddress());
}

/// Of records that are as good as empty.
void GreetInCrumbs() {
    static const std::string greeting = apxd_test::UnfinishedGreeting(1).substr(0, 24'000);
    const UniqueFd socket = apxd_test::ConnectFrom(NextAddress(), port);
    send(socket.Get(), greeting.data(), greeting.size(), MSG_NOSIGNAL);
    apxd_test::IsEnded(socket.Get());
}

void SendBody() {
    Client client(port, NextAddress());
    client.Send(
        "POST /v1/machine-accounts HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\n"
        "Content-Length: 1073741824\r\n\r\n");
    const std::string piece(65536, ' ');
    for (std::size_t sent = 0; sent < (std::size_t{1} << 30) && !over; sent += piece.size())
        if (!client.Send(piece))
            return;
}

/// Holds as many connections as can be had; what is closed is opened again.
/// \param open    opens one
/// \param goOn    does what comes next, each second; returns whether the connection is still there
template <typename Connection>
void Hold(const std::function<Connection()>& open, const std::function<bool(Connection&)>& goOn) {
    std::vector<Connection> held;
    while (!over) {
        const auto next = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        std::erase_if(held, [&](Connection& each) { return !goOn(each); });
        while (held.size() < connections && !over && std::chrono::steady_clock::now() < next) {
            ++attempts;
            try {
                held.push_back(open());
            } catch (const std::system_error&) {
                continue;
            }
        }
        std::this_thread::sleep_until(next);
    }
}

void SendSlowly() {
    using Slow = std::unique_ptr<Client>;
    Hold<Slow>([] { return std::make_unique<Client>(port, NextAddress()); },
               [](Slow& client) { return client->IsUp() && client->Send("P"); });
}

void GreetWithoutEnd() {
    static const std::string greeting = apxd_test::UnfinishedGreeting(4096).substr(0, 16'000);
    Hold<UniqueFd>(
        [] {
            UniqueFd socket = apxd_test::ConnectFrom(NextAddress(), port);
            send(socket.Get(), greeting.data(), greeting.size(), MSG_NOSIGNAL);
            return socket;
        },
        [](UniqueFd& socket) {
            char byte = 0;
            return recv(socket.Get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) != 0;
        });
}

const std::map<std::string, std::function<void()>> attacks = {
    {"malformed", [] { Repeat(AskMalformed); }},
    {"handshakes", [] { Repeat(GreetOnly); }},
    {"bodies", [] { Repeat(SendBody); }},
    {"records", [] { Repeat(GreetInCrumbs); }},
    {"health", [] { Repeat(AskForHealth); }},
    {"slow", SendSlowly},
    {"greetings", GreetWithoutEnd},
};

} // namespace

int main(int argc, char** argv) {
    const auto attack = argc == 2 ? attacks.find(argv[1]) : attacks.end();
    if (attack == attacks.end())
        return 2;
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    std::thread waiting([] {
        // Once it is well under way.
        std::this_thread::sleep_for(std::chrono::seconds(3));
        std::cout << "ready" << std::endl;
        char byte = 0;
        while (read(STDIN_FILENO, &byte, 1) > 0) {
        }
        over = true;
    });
    attack->second();
    waiting.join();
    std::cout << attempts << std::endl;
    return 0;
}
