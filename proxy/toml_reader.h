/// A TOML file whose faults are told all at once, each with its place.
#ifndef TESSARY_PROXY_TOML_READER_H
#define TESSARY_PROXY_TOML_READER_H

#include <toml++/toml.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tessary::proxy {

/// Reads the keys at the top of a file. A value that is wrong is remembered as a fault, and counts
/// as missing.
class TomlReader {
public:
    /// \throws ConfigurationError when the file cannot be read, or is not TOML
    explicit TomlReader(const std::string& file);

    bool Has(const char* key) const { return table_.contains(key); }
    std::optional<std::string> Text(const char* key);
    std::optional<std::string> RequiredText(const char* key);
    std::int64_t Number(const char* key, std::int64_t least, std::int64_t most,
                        std::int64_t otherwise);
    /// The elements of a list of texts; nothing in place of one that is none.
    std::vector<std::optional<std::string>> Texts(const char* key);

    /// Remembers a fault in a value.
    void Blame(const char* key, const std::string& cause);
    /// Remembers a fault in an element of a list.
    void Blame(const char* key, std::size_t element, const std::string& cause);

    /// Sees to it that there is no key that has not been asked for.
    /// \throws ConfigurationError when there is any fault
    void End();

private:
    struct Fault {
        toml::source_position place;
        std::string text;
    };

    const toml::node* Find(const char* key);
    void BlameAt(const toml::source_region& place, const std::string& cause);

    std::string file_;
    toml::table table_;
    std::set<std::string, std::less<>> known_;
    std::vector<Fault> faults_;
};

} // namespace tessary::proxy

#endif
