#include "apxd_fixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

#include "directory/error.h"

namespace apxd_test {

using namespace tessary::proxy;

DomainInfo ScriptedAccounts::Domain() {
    if (refusal)
        throw Refusal(*refusal);
    return {"CORP", "corp.example", "S-1-5-21-1-2-3"};
}

void ScriptedAccounts::ExpectHost(const std::string& host) const {
    if (!foreignHost.empty() && host == foreignHost)
        throw Refusal(tessary::proxy::Code::NotAllowed, "no accounts for such hosts");
}

NewAccount ScriptedAccounts::Create(const std::string& host, const std::string& container) {
    std::unique_lock lock(mutex_);
    asked_.push_back(host + "|" + container);
    if (host == held_) {
        ++holding_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return held_.empty(); });
        --holding_;
    }
    if (refusal)
        throw Refusal(*refusal);
    const std::string_view text = password;
    tessary::directory::Secret secret(text.size());
    text.copy(secret.Data(), text.size());
    return {"WEB1$", std::move(secret)};
}

std::vector<std::string> ScriptedAccounts::Asked() {
    const std::lock_guard lock(mutex_);
    return asked_;
}

void ScriptedAccounts::Hold(const std::string& host) {
    const std::lock_guard lock(mutex_);
    held_ = host;
}

void ScriptedAccounts::LetGo() {
    const std::lock_guard lock(mutex_);
    held_.clear();
    changed_.notify_all();
}

bool ScriptedAccounts::WaitForHeld(unsigned count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return holding_ >= count; });
}

LogSink Lines::Sink() {
    return [this](int, const std::string& line) {
        const std::lock_guard lock(mutex_);
        lines_.push_back(line);
    };
}

std::vector<std::string> Lines::All() {
    const std::lock_guard lock(mutex_);
    return lines_;
}

std::size_t Lines::Count(const std::string& part) {
    const auto lines = All();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        }));
}

Holdings Holdings::Now() {
    const auto count = [](const char* folder) {
        const std::filesystem::directory_iterator entries(folder);
        return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
    };
    return {count("/proc/self/fd"), count("/proc/self/task")};
}

std::ostream& operator<<(std::ostream& stream, const Holdings& holdings) {
    return stream << holdings.descriptors << " descriptors, " << holdings.threads << " threads";
}

std::size_t ResidentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t whole = 0;
    std::size_t resident = 0;
    file >> whole >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

const Identity& TestIdentity() {
    static const Identity identity = [] {
        const std::filesystem::path folder = testing::TempDir();
        const std::string name = (folder / ("apxd" + std::to_string(getpid()))).string();
        MakeIdentity({"proxy.corp.example", {}}, name + ".pem", name + ".key");
        Identity made = ReadIdentity(name + ".pem", name + ".key");
        std::filesystem::remove(name + ".pem");
        std::filesystem::remove(name + ".key");
        // What libraries open with their first use, they keep.
        const UniqueTlsContext context = MakeTlsContext(made);
        return made;
    }();
    return identity;
}

ServerTest::ServerTest() {
    settings_.front.listen = *IpAddress::Parse("127.0.0.1");
    settings_.front.allowedNetworks = {*Network::Parse("127.0.0.0/8")};
    settings_.front.connectionsPerAddress = 4096;
    settings_.front.requestsPerMinuteAndAddress = 100'000;
    settings_.front.requestsPerMinute = 100'000;
    settings_.workers = 4;
    settings_.workersPerAddress = 2;
    names_["web1.corp.example"] = {"127.0.0.1"};
    names_["honest.corp.example"] = {"127.0.0.9"};
    TestIdentity();
    std::thread([] {}).join(); // a sanitizer starts one of its own beside the first, which stays
    before_ = Holdings::Now();
}

void ServerTest::Start() {
    server_ = std::make_unique<Server>(
        settings_, TestIdentity(), accounts_,
        [this](const std::string& host, const tessary::directory::Deadline&) {
            return LookUp(host);
        },
        log_.Sink());
}

KnownAddresses ServerTest::LookUp(const std::string& host) const {
    ++looksUp_;
    KnownAddresses known;
    const auto place = names_.find(host);
    if (place == names_.end())
        return known;
    for (const std::string& text : place->second) {
        if (text == "fails")
            known.failure.emplace(tessary::directory::Status::NoController,
                                  "no name server answers");
        else
            known.addresses.push_back(*IpAddress::Parse(text));
    }
    return known;
}

void ServerTest::TearDown() {
    accounts_.LetGo();
    server_.reset();
    // A joined thread is still listed for a moment.
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!(Holdings::Now() == before_) && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_EQ(Holdings::Now(), before_);
}

int ServerTest::ServeHonestHost(const std::string& from) {
    return Ask(Port(), AccountRequestOf("honest.corp.example"), from).status;
}

bool ServerTest::WaitForConnections(unsigned most) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (server_->Connections() > most && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    return server_->Connections() <= most;
}

} // namespace apxd_test
