#include "preferred_controllers.h"

#include "error.h"
#include "files.h"
#include "text.h"

#include <algorithm>
#include <sstream>
#include <string_view>

namespace tessary::directory {
namespace {

constexpr std::chrono::seconds lockTime{5};

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
    std::vector<std::string> controllers;
    std::istringstream lines(ReadFile(Path()).value_or(""));
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            controllers.push_back(line);
    return controllers;
}

void SetPreferredControllers(const std::vector<std::string>& controllers) {
    std::string text;
    for (const std::string& controller : controllers) {
        if (!IsHost(controller))
            throw Error(Status::InvalidParameter,
                        "'" + controller + "' is neither a name nor an address");
        text += controller + "\n";
    }
    const StateLock lock(preferenceLock, Deadline::In(lockTime));
    if (text.empty()) {
        RemoveFile(Path());
        return;
    }
    Replacement file(Path());
    file.Write(text);
    file.Commit();
}

} // namespace tessary::directory
