#include "forest_trust_info.h"

#include "text.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace tessary::directory {
namespace {

enum RecordType : std::uint8_t { TopLevelName = 0, ExcludedName = 1, DomainNames = 2 };

constexpr std::uint32_t topLevelNameOff = 0x7; // new and not approved, turned off, in conflict
constexpr std::uint32_t domainOff = 0x3;       // its identifier is turned off, or in conflict

/// Takes little-endian numbers and counted texts off the front; once something is missing,
/// everything after it is.
class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    bool Good() const { return good_; }

    std::uint32_t Number() { return Unsigned(4); }
    std::uint8_t Byte() { return static_cast<std::uint8_t>(Unsigned(1)); }

    std::string_view Take(std::size_t size) {
        good_ = good_ && size <= rest_.size();
        if (!good_)
            return {};
        const std::string_view taken = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return taken;
    }

    std::string Text() { return std::string(Take(Number())); }

private:
    std::uint32_t Unsigned(std::size_t size) {
        const std::string_view bytes = Take(size);
        std::uint32_t number = 0;
        for (std::size_t i = bytes.size(); i-- > 0;)
            number = number << 8 | static_cast<unsigned char>(bytes[i]);
        return number;
    }

    std::string_view rest_;
    bool good_ = true;
};

void ReadRecord(Reader record, ForestTrustInfo& info) {
    constexpr std::size_t timeSize = 8;
    const std::uint32_t flags = record.Number();
    record.Take(timeSize);
    const std::uint8_t type = record.Byte();
    if (type == TopLevelName || type == ExcludedName) {
        std::string name = record.Text();
        if (record.Good() && !name.empty() && !(flags & topLevelNameOff))
            (type == TopLevelName ? info.suffixes : info.excluded).push_back(std::move(name));
    } else if (type == DomainNames) {
        record.Text(); // its security identifier
        ForestTrustInfo::Domain domain;
        domain.dnsName = record.Text();
        domain.netbiosName = record.Text();
        if (record.Good() && !domain.dnsName.empty() && !(flags & domainOff))
            info.domains.push_back(std::move(domain));
    }
}

bool IsAtOrBelow(std::string_view name, std::string_view top) {
    if (top.empty() || name.size() < top.size())
        return false;
    const std::size_t start = name.size() - top.size();
    return EqualNames(name.substr(start), top) && (start == 0 || name[start - 1] == '.');
}

} // namespace

ForestTrustInfo ForestTrustInfo::Parse(std::string_view bytes) {
    constexpr std::uint32_t knownVersion = 1;
    ForestTrustInfo info;
    Reader reader(bytes);
    if (reader.Number() != knownVersion)
        return info;
    for (std::uint32_t left = reader.Number(); left > 0 && reader.Good(); --left)
        ReadRecord(Reader(reader.Take(reader.Number())), info);
    return info;
}

std::size_t ForestTrustInfo::Fit(std::string_view suffix) const {
    for (const std::string& name : excluded)
        if (IsAtOrBelow(suffix, name))
            return 0;
    std::size_t best = 0;
    for (const std::string& name : suffixes)
        if (IsAtOrBelow(suffix, name))
            best = std::max(best, name.size());
    return best;
}

} // namespace tessary::directory
