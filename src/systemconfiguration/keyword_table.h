/// Values and the words that files have for them.
#ifndef SYSTEMCONFIGURATION_KEYWORD_TABLE_H
#define SYSTEMCONFIGURATION_KEYWORD_TABLE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace SystemConfiguration {

template <typename Value>
struct Keyword {
    Value value;
    const char* text;
};

/// Both directions search from the front. What is not in the table is an error of one kind, whose
/// messages begin with the same words.
template <typename Value, typename Exception, std::size_t size>
struct KeywordTable {
    const char* complaint;
    std::array<Keyword<Value>, size> keywords;

    /// The keyword with this text, or null.
    const Keyword<Value>* Find(const std::string& text) const {
        const auto found =
            std::find_if(keywords.begin(), keywords.end(),
                         [&](const Keyword<Value>& keyword) { return keyword.text == text; });
        return found == keywords.end() ? nullptr : &*found;
    }

    Value ValueOf(const std::string& text) const {
        const Keyword<Value>* found = Find(text);
        if (found == nullptr)
            throw Exception(complaint + text);
        return found->value;
    }

    /// Kept on purpose: the message about a value without a keyword lacks as many characters at its
    /// beginning as the value says; a value beyond its length leaves nothing of it.
    std::string TextOf(Value value) const {
        const auto found =
            std::find_if(keywords.begin(), keywords.end(),
                         [&](const Keyword<Value>& keyword) { return keyword.value == value; });
        if (found == keywords.end()) {
            const std::string_view message(complaint);
            throw Exception(
                std::string(message.substr(std::min<std::size_t>(value, message.size()))));
        }
        return found->text;
    }
};

} // namespace SystemConfiguration

#endif
