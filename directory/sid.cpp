#include "sid.h"

#include <cstddef>
#include <cstdint>

namespace tessary::directory {

std::string SidText(const std::string& bytes) {
    constexpr std::size_t header = 8; // revision, count, authority in six bytes
    constexpr std::size_t partSize = 4;
    const auto at = [&](std::size_t i) {
        return static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[i]));
    };
    if (bytes.size() < header || bytes.size() != header + partSize * at(1))
        return "";
    std::uint64_t authority = 0;
    for (std::size_t i = 2; i < header; ++i)
        authority = authority << 8 | at(i);
    std::string text = "S-" + std::to_string(at(0)) + "-" + std::to_string(authority);
    for (std::size_t i = header; i < bytes.size(); i += partSize)
        text += "-" + std::to_string(at(i) | at(i + 1) << 8 | at(i + 2) << 16 | at(i + 3) << 24);
    return text;
}

} // namespace tessary::directory
