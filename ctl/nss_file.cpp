#include "nss_file.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "nss_line.h"

namespace ctl {

using namespace SystemConfiguration;

namespace {

std::string Written(const NSSService& service) {
    std::ostringstream out;
    out << service;
    return out.str();
}

std::string Written(const NSSConfiguration& configuration) {
    std::ostringstream out;
    out << configuration;
    return out.str();
}

/// Throws HintedError for the first line that the library fails to read.
void CheckLines(const std::string& file, const std::string& text) {
    std::size_t number = 0;
    for (const std::string_view line : SplitLines(text)) {
        ++number;
        try {
            NSSConfiguration ignored;
            std::istringstream in{std::string(line)};
            in >> ignored;
        } catch (const std::out_of_range&) {
            throw AtLine(file, number,
                         "a single character of white space stands behind '" +
                             std::string(SplitWords(line).back()) + "'",
                         "remove the blank or carriage return at the end of the line; nothing was "
                         "changed");
        }
    }
}

HintedError NoSuchService(const std::string& file, NSSDatabase database, const std::string& name,
                          Way way) {
    const std::string text =
        file + " has no service '" + name + "' for " + static_cast<std::string>(database);
    return {text, way == Way::Rewrite ? "services behind brackets are not seen with --rewrite"
                                      : "the line of the database lists its services"};
}

template <typename Services, typename NameOf>
std::size_t IndexOf(const Services& services, const std::string& name, NameOf nameOf) {
    const auto found = std::find_if(services.begin(), services.end(),
                                    [&](const auto& service) { return nameOf(service) == name; });
    return static_cast<std::size_t>(found - services.begin());
}

const std::string& NameOfWord(const NssWord& word) {
    return word.name;
}

const std::string& NameOfService(const NSSService& service) {
    return service.module();
}

/// Where a new one goes among these; `missing` makes the exception for an anchor that is not there.
template <typename Services, typename NameOf, typename Missing>
std::size_t PositionFor(const Services& services, const Place& place, NameOf nameOf,
                        Missing missing) {
    if (place.kind == Place::First || place.kind == Place::Last) {
        return place.kind == Place::First ? 0 : services.size();
    }
    const std::size_t anchor = IndexOf(services, place.anchor, nameOf);
    if (anchor == services.size()) {
        throw missing(place.anchor);
    }
    return anchor + (place.kind == Place::After ? 1 : 0);
}

/// The text with a first service on a line that has none.
std::string WithFirstService(const std::string& text, const NssWords& line,
                             const std::string& service) {
    std::size_t at = line.lineEnd;
    if (at > line.start && text[at - 1] == '\r') {
        --at;
    }
    std::string changed = text;
    return changed.insert(at, (at > line.start ? "" : " ") + service);
}

/// \param behind that the new service stays on the line of the one before it
std::string WithWord(const std::string& text, const NssWords& words, std::size_t position,
                     bool behind, const std::string& service) {
    std::string changed = text;
    return behind ? changed.insert(words.services[position - 1].end, " " + service)
                  : changed.insert(words.services[position].begin, service + " ");
}

/// The word at this position and the white space before it; or behind it, if it is the first, so
/// that the line's columns stay.
std::string WithoutWord(const std::string& text, const NssWords& words, std::size_t position) {
    const NssWord& word = words.services[position];
    std::string changed = text;
    if (position == 0 && words.services.size() > 1) {
        return changed.erase(word.begin, words.services[1].begin - word.begin);
    }
    const std::size_t before = position == 0 ? words.start : words.services[position - 1].end;
    return changed.erase(before, word.end - before);
}

} // namespace

std::vector<NSSDatabase> NssDatabases() {
    std::vector<NSSDatabase> databases;
    for (std::uint32_t value = NSSDatabase::Passwd; value <= NSSDatabase::Aliases; ++value) {
        databases.emplace_back(static_cast<NSSDatabase::Database>(value));
    }
    return databases;
}

bool CanBeWritten(const NSSService& service) {
    const auto isWord = [](const std::string& text) {
        const auto words = SplitWords(text);
        return words.size() == 1 && words.front() == text &&
               text.find_first_of("[]#") == std::string::npos;
    };
    return isWord(service.module()) &&
           std::all_of(service.parameters().begin(), service.parameters().end(), isWord);
}

NssFile::NssFile(std::string name, std::string text)
    : name_(std::move(name)), text_(std::move(text)) {
    CheckLines(name_, text_);
}

NSSConfiguration NssFile::Configuration() const {
    NSSConfiguration configuration;
    std::istringstream in(text_);
    in >> configuration;
    return configuration;
}

std::string NssFile::Readable(std::string changed) const {
    try {
        CheckLines(name_, changed);
    } catch (const HintedError& failure) {
        throw HintedError(std::string(failure.what()) + ", once this is changed", failure.Hint());
    }
    return changed;
}

std::string NssFile::WithService(NSSDatabase database, const NSSService& added, const Place& place,
                                 Way way) const {
    const NssWords words = FindWords(name_, text_, database, way);
    const auto missing = [&](const std::string& name) {
        return NoSuchService(name_, database, name, way);
    };
    if (IndexOf(words.services, added.module(), NameOfWord) != words.services.size()) {
        throw HintedError(name_ + " has '" + added.module() + "' for " +
                              static_cast<std::string>(database) + " already",
                          "nothing was changed; to move it, remove it first");
    }
    if (way == Way::Rewrite) {
        NSSConfiguration configuration = Configuration();
        auto& services = configuration[database];
        const std::size_t position = PositionFor(services, place, NameOfService, missing);
        services.insert(services.begin() + static_cast<std::ptrdiff_t>(position), added);
        return Readable(Written(configuration));
    }
    const std::size_t position = PositionFor(words.services, place, NameOfWord, missing);
    if (!words.services.empty()) {
        const bool behind = place.kind == Place::Last || place.kind == Place::After;
        return Readable(WithWord(text_, words, position, behind, Written(added)));
    }
    return Readable(words.start == std::string::npos
                        ? WithLine(text_, std::string::npos,
                                   static_cast<std::string>(database) + ": " + Written(added),
                                   false)
                        : WithFirstService(text_, words, Written(added)));
}

std::string NssFile::WithoutService(NSSDatabase database, const std::string& service,
                                    Way way) const {
    const NssWords words = FindWords(name_, text_, database, way);
    if (way == Way::Rewrite) {
        NSSConfiguration configuration = Configuration();
        auto& services = configuration[database];
        const std::size_t position = IndexOf(services, service, NameOfService);
        if (position == services.size()) {
            throw NoSuchService(name_, database, service, way);
        }
        services.erase(services.begin() + static_cast<std::ptrdiff_t>(position));
        return Readable(Written(configuration));
    }
    const std::size_t position = IndexOf(words.services, service, NameOfWord);
    if (position == words.services.size()) {
        throw NoSuchService(name_, database, service, way);
    }
    return Readable(WithoutWord(text_, words, position));
}

} // namespace ctl
