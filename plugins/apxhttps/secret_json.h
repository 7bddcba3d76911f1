/// JSON with secrets in it.
#ifndef TESAUTH_APXHTTPS_SECRET_JSON_H
#define TESAUTH_APXHTTPS_SECRET_JSON_H

#include "secret_string.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

namespace tessary::apxhttps {

/// A document whose texts, names and containers lie in cleansed memory.
using SecretJson = nlohmann::basic_json<std::map, std::vector, SecretString, bool, std::int64_t,
                                        std::uint64_t, double, CleansingAllocator>;

/// A character that overwrites itself. The reader keeps the token that it is at in a vector of the
/// input's characters; of these it leaves nothing behind, however the vector grows. Only where the
/// text is no JSON does it put the token at fault into a message, which stays in freed memory.
class SecretChar {
public:
    SecretChar() = default;
    explicit SecretChar(char value) : value_(value) {}
    SecretChar(const SecretChar&) = default;
    SecretChar& operator=(const SecretChar&) = default;
    ~SecretChar() { *const_cast<volatile char*>(&value_) = 0; }
    operator char() const { return value_; }

private:
    char value_ = 0;
};

/// Walks over a text as characters that overwrite themselves.
class SecretReader {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = SecretChar;
    using difference_type = std::ptrdiff_t;
    using pointer = const SecretChar*;
    using reference = SecretChar;

    explicit SecretReader(const char* position) : position_(position) {}
    SecretChar operator*() const { return SecretChar(*position_); }
    SecretReader& operator++() {
        ++position_;
        return *this;
    }
    SecretReader operator++(int) { return SecretReader(position_++); }
    bool operator==(const SecretReader&) const = default;

private:
    const char* position_;
};

/// Reads a whole text.
/// \return a discarded value if the text is not JSON in UTF-8
/// \throws std::bad_alloc
inline SecretJson ParseSecretJson(const SecretString& text) {
    if (text.find('\0') != SecretString::npos) // the reader would take it for the end
        return SecretJson(SecretJson::value_t::discarded);
    return SecretJson::parse(SecretReader(text.data()), SecretReader(text.data() + text.size()),
                             nullptr, /*allow_exceptions=*/false);
}

} // namespace tessary::apxhttps

/// As much of it as the reader asks for.
template <>
struct std::char_traits<tessary::apxhttps::SecretChar> {
    using char_type = tessary::apxhttps::SecretChar;
    using int_type = int;
    static constexpr int_type eof() { return EOF; }
    static int_type to_int_type(const char_type& value) {
        return static_cast<unsigned char>(static_cast<char>(value));
    }
    static char_type to_char_type(int_type value) { return char_type(static_cast<char>(value)); }
};

#endif
