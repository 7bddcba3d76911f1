#include "systemconfiguration/nss.h"

#include <algorithm>
#include <istream>
#include <ostream>

#include "keyword_table.h"
#include "words.h"

namespace SystemConfiguration {
namespace {

constexpr KeywordTable<NSSDatabase::Database, InvalidDatabaseException, 15> databases{
    "Invalid Database: ",
    {{{NSSDatabase::Passwd, "passwd"},
      {NSSDatabase::Group, "group"},
      {NSSDatabase::Shadow, "shadow"},
      {NSSDatabase::Hosts, "hosts"},
      {NSSDatabase::Netmasks, "netmasks"},
      {NSSDatabase::Networks, "networks"},
      {NSSDatabase::Protocols, "protocols"},
      {NSSDatabase::Services, "services"},
      {NSSDatabase::Ethers, "ethers"},
      {NSSDatabase::Rpc, "rpc"},
      {NSSDatabase::Netgroup, "netgroup"},
      {NSSDatabase::Bootparams, "bootparams"},
      {NSSDatabase::Publickey, "publickey"},
      {NSSDatabase::Automount, "automount"},
      {NSSDatabase::Aliases, "aliases"}}}};

} // namespace

InvalidDatabaseException::InvalidDatabaseException(const std::string& message)
    : message_(message) {}

InvalidDatabaseException::~InvalidDatabaseException() = default;

const char* InvalidDatabaseException::what() const noexcept {
    return message_.c_str();
}

// Kept on purpose: the value stays what the memory happened to hold.
NSSDatabase::NSSDatabase() {}

NSSDatabase::NSSDatabase(Database database) : value_(database) {}

NSSDatabase::NSSDatabase(const std::string& name) : value_(databases.ValueOf(name)) {}

NSSDatabase& NSSDatabase::operator=(Database database) {
    value_ = database;
    return *this;
}

NSSDatabase& NSSDatabase::operator=(const std::string& name) {
    value_ = databases.ValueOf(name);
    return *this;
}

bool NSSDatabase::operator==(const NSSDatabase& other) const {
    return value_ == other.value_;
}

bool NSSDatabase::operator==(const std::string& name) const {
    return value_ == databases.ValueOf(name);
}

bool NSSDatabase::operator==(Database database) const {
    return value_ == database;
}

NSSDatabase::operator std::string() const {
    return databases.TextOf(value_);
}

NSSDatabase::operator Database() const {
    return value_;
}

NSSService::NSSService(const std::string& module) : module_(module) {}

bool NSSService::operator==(const NSSService& other) const {
    return module_ == other.module_ && parameters_ == other.parameters_;
}

std::ostream& operator<<(std::ostream& out, const NSSService& service) {
    out << service.module();
    const char* before = " [";
    for (const std::string& parameter : service.parameters()) {
        out << before << parameter;
        before = " ";
    }
    return service.parameters().empty() ? out : out << ']';
}

NSSConfiguration::NSSConfiguration() = default;

std::deque<NSSService>& NSSConfiguration::operator[](NSSDatabase database) {
    return databases_[database];
}

std::ostream& operator<<(std::ostream& out, const NSSConfiguration& configuration) {
    for (const auto& [database, services] : configuration.databases_) {
        out << static_cast<std::string>(database) << ':';
        for (const NSSService& service : services)
            out << ' ' << service;
        out << '\n';
    }
    return out;
}

namespace {

/// Reads the services of one line.
/// \param at just behind the database's name and the colon
void ReadServices(const std::string& line, std::size_t at, NSSDatabase database,
                  NSSConfiguration& configuration) {
    std::size_t close = line.find(']');
    for (;;) {
        const std::size_t begin = line.find_first_not_of(whiteSpace, at);
        if (begin == std::string::npos)
            return;
        const std::size_t end = std::min(line.find_first_of(whiteSpace, begin), line.size());
        NSSService service(line.substr(begin, end - begin));
        at = end;
        if (end < line.size()) {
            const std::size_t next =
                end + 1; // Kept on purpose: whatever separates, and at() throws
            const bool opens = line.at(next) == '[';
            if (close < next)
                close = line.find(']', next);
            if (opens)
                AppendWords(std::string_view(line).substr(next + 1, close - (next + 1)),
                            service.parameters());
            // Kept on purpose: counted from the line's beginning, so most often behind its end.
            if (close != std::string::npos)
                at = next + close;
        }
        configuration[database].push_back(std::move(service));
    }
}

void ReadLine(const std::string& line, NSSConfiguration& configuration) {
    const std::size_t begin = line.find_first_not_of(whiteSpace);
    if (begin == std::string::npos)
        return;
    const std::size_t end = std::min(line.find_first_of(whiteSpace, begin), line.size());
    // Kept on purpose: nobody looks whether the last character is a colon.
    if (const auto* database = databases.Find(line.substr(begin, end - begin - 1)))
        ReadServices(line, end, database->value, configuration);
}

} // namespace

std::istream& operator>>(std::istream& in, NSSConfiguration& configuration) {
    // Not all white space: what the positions in a line are counted from.
    constexpr char leading[] = " \t\r\n";
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line.front() == '#')
            continue;
        line.erase(0, line.find_first_not_of(leading));
        ReadLine(line, configuration);
    }
    return in;
}

} // namespace SystemConfiguration
