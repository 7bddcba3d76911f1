#include "words.h"

namespace SystemConfiguration {

void AppendWords(std::string_view text, std::list<std::string>& words) {
    std::size_t begin = text.find_first_not_of(whiteSpace);
    while (begin != std::string_view::npos) {
        const std::size_t end = text.find_first_of(whiteSpace, begin);
        words.emplace_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(whiteSpace, end);
    }
}

} // namespace SystemConfiguration
