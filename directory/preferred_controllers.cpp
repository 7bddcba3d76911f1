#include "preferred_controllers.h"

#include "error.h"
#include "files.h"
#include "names.h"
#include "stored_list.h"
#include "text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <string_view>

namespace tessary::directory {
namespace {

/// The name of an interface or its number.
bool IsZone(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return IsLetterOrDigit(c) || std::string_view(".-_").find(c) != std::string_view::npos;
    });
}

/// An IPv6 address may have a zone: "fe80::1%eth0".
bool IsAddress(const std::string& text) {
    in6_addr address;
    if (inet_pton(AF_INET, text.c_str(), &address) == 1)
        return true;
    const std::size_t percent = text.find('%');
    if (inet_pton(AF_INET6, text.substr(0, percent).c_str(), &address) != 1)
        return false;
    return percent == std::string::npos || IsZone(std::string_view(text).substr(percent + 1));
}

bool IsHost(const std::string& text) {
    if (IsAddress(text))
        return true;
    if (text.find_first_not_of("0123456789.") == std::string::npos)
        return false; // an address, but for a slip of the pen
    try {
        NormalizeDomainName(text); // hosts are named by the same rules
        return true;
    } catch (const Error&) {
        return false;
    }
}

} // namespace

std::string PreferredControllersFile() {
    return std::string(stateDirectory) + "/preferred_controllers";
}

std::vector<std::string> PreferredControllers() {
    return ReadList(PreferredControllersFile());
}

std::vector<std::string> PreferredIfVisible() {
    try {
        return PreferredControllers();
    } catch (const Error& error) {
        if (error.Code() != Status::AccessDenied)
            throw;
        return {};
    }
}

void SetPreferredControllers(const std::vector<std::string>& controllers) {
    ReplaceList(PreferredControllersFile(), controllers, IsHost,
                "the name or the address of a host");
}

} // namespace tessary::directory
