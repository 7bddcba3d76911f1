#include "hykctl/hosts_text.h"

#include <algorithm>
#include <optional>

#include "hostctl/network.h"
#include "hykctl/text_lines.h"

namespace HykCtl {
namespace {

using HostCtl::Network::Ipv4Address;

// The address under which an installer that knows no lasting one lists the host's own names.
constexpr const char* kInstallerAddress = "127.0.1.1";

/// A line of an IPv4 address, taken apart.
struct HostsLine {
    std::string address;
    std::vector<std::string> names;
    std::string comment; ///< from the blanks before the comment sign on
};

/// Nothing for comments, blank lines, IPv6 addresses and what is no entry at all.
std::optional<HostsLine> ParseLine(const std::string& body) {
    const std::string fields = body.substr(0, body.find('#'));
    std::vector<std::string> words = SplitWords(fields);
    if (words.empty() || !Ipv4Address::IsValidAddress(words.front()))
        return std::nullopt;
    HostsLine line;
    line.address = words.front();
    line.names.assign(words.begin() + 1, words.end());
    if (fields.size() < body.size())
        line.comment = body.substr(fields.find_last_not_of(" \t") + 1);
    return line;
}

bool Contains(const std::vector<std::string>& names, const std::string& name) {
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string& other) { return SameName(name, other); });
}

bool SharesName(const HostsLine& line, const HostsEntry& entry) {
    return std::any_of(line.names.begin(), line.names.end(),
                       [&](const std::string& name) { return Contains(entry.names, name); });
}

/// True when all of the line is about the host that the entry names, so that none of it is worth
/// keeping beside the entry.
bool IsAboutHost(const HostsLine& line, const HostsEntry& entry) {
    if (!SharesName(line, entry) || Contains(line.names, "localhost"))
        return false;
    return line.address == kInstallerAddress || Contains(entry.names, line.names.front());
}

std::string Format(const std::string& address, const std::vector<std::string>& names,
                   const std::string& comment) {
    std::string body = address;
    for (size_t i = 0; i < names.size(); ++i)
        body += (i == 0 ? "\t" : " ") + names[i];
    return body + comment;
}

/// The line that the entry is to stand in: the first of its address, else the first that is about
/// the host, else the end.
size_t PlaceOf(const std::vector<TextLine>& lines, const HostsEntry& entry) {
    size_t place = lines.size();
    for (size_t i = 0; i < lines.size(); ++i) {
        const auto line = ParseLine(lines[i].body);
        if (line && line->address == entry.address)
            return i;
        if (line && place == lines.size() && IsAboutHost(*line, entry))
            place = i;
    }
    return place;
}

/// Takes the entry's names off a line. Returns false when nothing is left of it.
bool TakeNamesOff(TextLine& textLine, const HostsEntry& entry) {
    const auto line = ParseLine(textLine.body);
    if (!line || !SharesName(*line, entry))
        return true;
    std::vector<std::string> kept;
    std::copy_if(line->names.begin(), line->names.end(), std::back_inserter(kept),
                 [&](const std::string& name) { return !Contains(entry.names, name); });
    if (kept.empty() || (line->address == kInstallerAddress && IsAboutHost(*line, entry))) {
        textLine.body = line->comment.substr(std::min(line->comment.find('#'), //
                                                      line->comment.size()));
        return !textLine.body.empty();
    }
    textLine.body = Format(line->address, kept, line->comment);
    return true;
}

void PutEntry(std::vector<TextLine>& lines, size_t place, const HostsEntry& entry) {
    if (place == lines.size()) {
        InsertLine(lines, place, Format(entry.address, entry.names, ""));
        return;
    }
    const auto line = ParseLine(lines[place].body);
    if (line->address != entry.address || line->names != entry.names)
        lines[place].body = Format(entry.address, entry.names, line->comment);
}

} // namespace

std::string WithHostsEntry(const std::string& text, const HostsEntry& entry) {
    const std::vector<TextLine> oldLines = SplitLines(text);
    const size_t place = PlaceOf(oldLines, entry);
    std::vector<TextLine> lines;
    size_t newPlace = std::string::npos;
    for (size_t i = 0; i < oldLines.size(); ++i) {
        TextLine line = oldLines[i];
        if (i == place)
            newPlace = lines.size();
        if (i == place || TakeNamesOff(line, entry))
            lines.push_back(line);
    }
    PutEntry(lines, std::min(newPlace, lines.size()), entry);
    return JoinLines(lines);
}

} // namespace HykCtl
