/// What a forest says of itself to those that trust it.
#ifndef TESSARY_DIRECTORY_FOREST_TRUST_INFO_H
#define TESSARY_DIRECTORY_FOREST_TRUST_INFO_H

#include <string>
#include <string_view>
#include <vector>

namespace tessary::directory {

/// The names of a trusted forest, as the directory keeps them with the trust: which user principal
/// names and hosts are that forest's, and which domains it has. What an administrator has turned
/// off, or what is in conflict with another forest, is left out.
struct ForestTrustInfo {
    struct Domain {
        std::string dnsName;
        std::string netbiosName;
    };

    std::vector<std::string> suffixes; ///< names that are the forest's, with all below them
    std::vector<std::string> excluded; ///< those of the names below that are not
    std::vector<Domain> domains;

    /// \param bytes the value of the trust's attribute msDS-TrustForestTrustInfo
    /// \return what could be read; nothing more after a damaged record
    static ForestTrustInfo Parse(std::string_view bytes);

    /// How well the forest's names fit a suffix: the length of the longest one that is the suffix
    /// or stands above it, 0 when none does or the suffix is excluded.
    std::size_t Fit(std::string_view suffix) const;
};

} // namespace tessary::directory

#endif
