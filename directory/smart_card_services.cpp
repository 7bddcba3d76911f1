#include "smart_card_services.h"

#include "files.h"
#include "stored_list.h"
#include "text.h"

#include <algorithm>
#include <string_view>

namespace tessary::directory {
namespace {

std::string Path() {
    return std::string(stateDirectory) + "/smart_card_services";
}

/// A service's name is that of its file: one component of a path, not a hidden one.
bool IsService(const std::string& text) {
    constexpr std::size_t longest = 255;
    return !text.empty() && text.size() <= longest && text.front() != '.' &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return IsLetterOrDigit(c) ||
                      std::string_view("._-+@").find(c) != std::string_view::npos;
           });
}

} // namespace

std::vector<std::string> SmartCardServices() {
    return ReadList(Path());
}

void SetSmartCardServices(const std::vector<std::string>& services) {
    ReplaceList(Path(), services, IsService, "the name of a service");
}

} // namespace tessary::directory
