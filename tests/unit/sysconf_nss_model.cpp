#include "sysconf_nss_model.h"

#include <sstream>
#include <stdexcept>

namespace SysconfTest {

namespace {

const std::vector<std::string> kDatabases = {
    "passwd", "group", "shadow",   "hosts",      "netmasks",  "networks",  "protocols", "services",
    "ethers", "rpc",   "netgroup", "bootparams", "publickey", "automount", "aliases"};

/// -1: no database has this name.
int DatabaseNamed(const std::string& name) {
    for (std::size_t i = 0; i < kDatabases.size(); ++i) {
        if (kDatabases[i] == name)
            return static_cast<int>(i);
    }
    return -1;
}

std::vector<std::string> Words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    std::string word;
    while (in >> word)
        words.push_back(word);
    return words;
}

/// The position of the next character. At the end the stream would rather tell none.
std::size_t PositionIn(std::istream& words, const std::string& line) {
    return words.eof() ? line.size() : static_cast<std::size_t>(words.tellg());
}

[[noreturn]] void ThrowOutOfRange(std::size_t index, std::size_t size) {
    throw std::out_of_range("basic_string::at: __n (which is " + std::to_string(index) +
                            ") >= this->size() (which is " + std::to_string(size) + ")");
}

} // namespace

void NSSModel::ReadServices(const std::string& line, std::istream& words, int database) {
    std::string word;
    while (word.clear(), words >> word) {
        Service service{word, {}};
        const std::size_t p = PositionIn(words, line);
        if (p < line.size()) {
            if (p + 1 == line.size())
                ThrowOutOfRange(p + 1, line.size());
            const std::size_t closing = line.find(']', p + 1);
            if (line[p + 1] == '[') {
                const std::string rest = line.substr(p + 2);
                // Without a "]" on the line all that is left of it stands in the brackets.
                service.parameters = Words(rest.substr(0, rest.find(']')));
            }
            if (closing != std::string::npos)
                words.seekg(static_cast<std::streamoff>(p + 1 + closing));
        }
        databases_[database].push_back(service);
    }
}

void NSSModel::ReadLine(std::string line) {
    if (line.empty() || line[0] == '#')
        return;
    while (!line.empty() && std::string(" \t\r\n").find(line[0]) != std::string::npos)
        line.erase(0, 1);
    if (line.empty())
        return;
    std::istringstream words(line);
    std::string name;
    words >> name;
    if (name.empty()) // other white space than what is taken off above
        return;
    name.erase(name.size() - 1);
    const int database = DatabaseNamed(name);
    if (database >= 0)
        ReadServices(line, words, database);
}

Reading NSSModel::Read(const std::string& text) {
    Reading reading;
    std::istringstream in(text);
    std::string line;
    try {
        while (std::getline(in, line))
            ReadLine(line);
    } catch (const std::out_of_range& error) {
        reading.thrown = std::string("std::out_of_range: ") + error.what();
    }
    reading.written = Written();
    NoteStream(in, reading);
    return reading;
}

std::string NSSModel::WrittenServices(const std::vector<Service>& services) {
    std::string written;
    for (const Service& service : services) {
        written += " " + service.module;
        for (std::size_t i = 0; i < service.parameters.size(); ++i)
            written += (i == 0 ? " [" : " ") + service.parameters[i];
        if (!service.parameters.empty())
            written += "]";
    }
    return written;
}

std::string NSSModel::Written() const {
    std::string written;
    for (const auto& [database, services] : databases_)
        written +=
            kDatabases[static_cast<std::size_t>(database)] + ":" + WrittenServices(services) + "\n";
    return written;
}

bool NSSModel::IsStable() const {
    for (const auto& [database, services] : databases_) {
        const std::string written = WrittenServices(services);
        const bool hasBrackets =
            written.find(']') != std::string::npos || written.find(" [", 1) != std::string::npos;
        if (services.size() > 1 && hasBrackets)
            return false;
    }
    return true;
}

} // namespace SysconfTest
