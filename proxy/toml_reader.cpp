#include "toml_reader.h"

#include "directory/error.h"
#include "directory/files.h"

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "configuration.h"

namespace tessary::proxy {
namespace {

std::string Place(const std::string& file, const toml::source_position& place) {
    return file + ":" + std::to_string(place.line) + ":" + std::to_string(place.column) + ": ";
}

std::string ReadWholeFile(const std::string& file) {
    std::error_code unknown;                     // is told when it is read
    if (std::filesystem::is_fifo(file, unknown)) // which somebody would have to write into
        throw ConfigurationError({file + ": it is no file"});
    std::optional<std::string> text;
    try {
        text = directory::ReadFile(file);
    } catch (const directory::Error& error) {
        throw ConfigurationError({file + ": " + error.what()});
    }
    if (!text)
        throw ConfigurationError({file + ": there is no such file"});
    return *text;
}

} // namespace

TomlReader::TomlReader(const std::string& file) : file_(file) {
    const std::string text = ReadWholeFile(file);
    try {
        table_ = toml::parse(text, file);
    } catch (const toml::parse_error& error) {
        throw ConfigurationError(
            {Place(file, error.source().begin) + std::string(error.description())});
    }
}

const toml::node* TomlReader::Find(const char* key) {
    known_.insert(key);
    return table_.get(key);
}

std::optional<std::string> TomlReader::Text(const char* key) {
    const toml::node* const node = Find(key);
    if (node == nullptr)
        return std::nullopt;
    if (!node->is_string())
        Blame(key, "text in quotes is wanted");
    return node->value_exact<std::string>();
}

std::optional<std::string> TomlReader::RequiredText(const char* key) {
    if (!Has(key))
        faults_.push_back({{1, 1}, Place(file_, {1, 1}) + "the key is missing: " + key});
    return Text(key);
}

std::int64_t TomlReader::Number(const char* key, std::int64_t least, std::int64_t most,
                                std::int64_t otherwise) {
    const toml::node* const node = Find(key);
    if (node == nullptr)
        return otherwise;
    const auto value = node->value_exact<std::int64_t>();
    if (value && *value >= least && *value <= most)
        return *value;
    Blame(key, "a whole number from " + std::to_string(least) + " to " + std::to_string(most) +
                   " is wanted");
    return otherwise;
}

std::vector<std::optional<std::string>> TomlReader::Texts(const char* key) {
    std::vector<std::optional<std::string>> texts;
    const toml::node* const node = Find(key);
    if (node == nullptr)
        return texts;
    const toml::array* const list = node->as_array();
    if (list == nullptr) {
        Blame(key, "a list of texts is wanted, in brackets");
        return texts;
    }
    for (std::size_t i = 0; i < list->size(); ++i) {
        texts.push_back((*list)[i].value_exact<std::string>());
        if (!texts.back())
            Blame(key, i, "text in quotes is wanted");
    }
    return texts;
}

void TomlReader::Blame(const char* key, const std::string& cause) {
    if (const toml::node* const node = table_.get(key))
        BlameAt(node->source(), key + std::string(": ") + cause);
}

void TomlReader::Blame(const char* key, std::size_t element, const std::string& cause) {
    BlameAt((*table_.get_as<toml::array>(key))[element].source(), key + std::string(": ") + cause);
}

void TomlReader::BlameAt(const toml::source_region& place, const std::string& cause) {
    faults_.push_back({place.begin, Place(file_, place.begin) + cause});
}

void TomlReader::End() {
    for (const auto& [key, node] : table_)
        if (!known_.contains(key.str()))
            BlameAt(key.source(), "there is no such key: " + std::string(key.str()));
    if (faults_.empty())
        return;
    std::stable_sort(faults_.begin(), faults_.end(), [](const Fault& a, const Fault& b) {
        return std::tie(a.place.line, a.place.column) < std::tie(b.place.line, b.place.column);
    });
    std::vector<std::string> texts;
    for (Fault& fault : faults_)
        texts.push_back(std::move(fault.text));
    throw ConfigurationError(std::move(texts));
}

} // namespace tessary::proxy
