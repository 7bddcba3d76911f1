#include "preferred_controllers.h"

#include "files.h"
#include "stored_list.h"
#include "text.h"

#include <algorithm>
#include <string_view>

namespace tessary::directory {
namespace {

std::string Path() {
    return std::string(stateDirectory) + "/preferred_controllers";
}

bool IsHost(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return IsLetterOrDigit(c) || std::string_view(".-_:%").find(c) != std::string_view::npos;
    });
}

} // namespace

std::vector<std::string> PreferredControllers() {
    return ReadList(Path());
}

void SetPreferredControllers(const std::vector<std::string>& controllers) {
    ReplaceList(Path(), controllers, IsHost, "the name or the address of a host");
}

} // namespace tessary::directory
