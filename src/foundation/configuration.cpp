#include "tesauth/configuration.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "tesauth/atomic_file_stream.h"
#include "tesauth/exceptions.h"

namespace tessary::authentication {

namespace {

constexpr const char* whitespace = " \t"; // a carriage return is part of the text, on purpose

bool IsQuote(char c) {
    return c == '"' || c == '\'';
}

std::string TrimAndUnquote(const std::string& text, int lineNumber) {
    const auto first = text.find_first_not_of(whitespace);
    if (first == std::string::npos) {
        return text; // kept on purpose: a side of blanks alone is not trimmed
    }
    const auto last = text.find_last_not_of(whitespace);
    if (first == last) {
        if (IsQuote(text[first])) {
            throw ConfigurationError("Error parsing configuration at line " +
                                     string_cast<int>(lineNumber) + ": invalid quoting");
        }
        return text.substr(first, 1);
    }
    if (IsQuote(text[first]) && text[first] == text[last]) {
        return text.substr(first + 1, last - first - 1);
    }
    return text.substr(first, last - first + 1);
}

} // namespace

template <>
std::string string_cast<int>(int value) {
    return std::to_string(value);
}

std::pair<std::string, std::string> GetKeyValuePair(const std::string& line, int lineNumber) {
    const auto delimiter = line.find('=');
    if (delimiter == std::string::npos) {
        // "on line" here and "at line" for quoting: the two texts differ on purpose.
        throw ConfigurationError("Error parsing configuration on line " +
                                 string_cast<int>(lineNumber) + ": no delimiter found");
    }
    std::string key = TrimAndUnquote(line.substr(0, delimiter), lineNumber);
    std::string value = TrimAndUnquote(line.substr(delimiter + 1), lineNumber);
    return {std::move(key), std::move(value)};
}

Configuration::Configuration(const std::string& path) : filename(path) {
    errno = 0;
    std::ifstream file(filename);
    if (!file) {
        throw IOError("Unable to open '" + filename + "': " + std::strerror(errno));
    }
    std::string line;
    for (int lineNumber = 1; std::getline(file, line); ++lineNumber) {
        if (line.find_first_not_of(whitespace) != std::string::npos) {
            insert(GetKeyValuePair(line, lineNumber)); // the first of several equal keys wins
        }
    }
    if (file.bad()) { // a directory, or a disk that fails half-way
        throw IOError("Unable to open '" + filename + "': " + std::strerror(errno));
    }
}

Configuration::~Configuration() = default;

void Configuration::Write() const {
    AtomicFileStream file(filename.c_str(), std::ios_base::out);
    for (const auto& [key, value] : *this) {
        file << key << " = \"" << value << "\"\n" << std::flush;
    }
    // A full disk must not cost the host its settings: what is incomplete is not committed.
    if (!file) {
        throw IOError("Unable to write '" + filename + "': " + std::strerror(errno));
    }
    file.Commit();
}

const std::string& Configuration::operator[](const std::string& key) const {
    const auto entry = find(key);
    if (entry == end()) {
        throw InvalidKeyException(key);
    }
    return entry->second;
}

std::string& Configuration::operator[](const std::string& key) {
    return const_cast<std::string&>(std::as_const(*this)[key]);
}

} // namespace tessary::authentication
