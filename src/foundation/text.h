/// Small rules of text that several parts of the library share.
#ifndef TESAUTH_FOUNDATION_TEXT_H
#define TESAUTH_FOUNDATION_TEXT_H

#include <cstddef>
#include <string>

namespace tessary::authentication {

/// A text of the C world; a null pointer counts as empty.
inline std::string TextOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

/// The text of a literal from `offset` characters after its start; an offset beyond its end gives
/// the empty text, so nothing past the literal is ever read.
template <std::size_t Size>
std::string TextFrom(const char (&literal)[Size], std::size_t offset) {
    return offset < Size ? std::string(literal + offset) : std::string();
}

} // namespace tessary::authentication

#endif
