#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

#include "hykctl/network.h"
#include "hykctl/resolv_text.h"
#include "hykctl/resolved_link.h"
#include "hykctl/text_file.h"
#include "hykctl/text_lines.h"

namespace HykCtl {
namespace Network {
namespace {

// A Linux host has one network stack.
constexpr const char* kNetworkStack = "defaultTcpipStack";
constexpr const char* kResolverFile = "/etc/resolv.conf";

// What the resolver file may be a link to when the resolver service writes it: an edit there would
// be lost at the service's next change, and the service would not search the domain itself.
constexpr std::array<std::string_view, 4> kServiceFiles = {
    "/run/systemd/resolve/stub-resolv.conf",
    "/run/systemd/resolve/resolv.conf",
    "/usr/lib/systemd/resolv.conf",
    "/lib/systemd/resolv.conf",
};

bool BelongsToService() {
    const std::string target =
        std::filesystem::path(FollowLinks(kResolverFile)).lexically_normal().string();
    return std::find(kServiceFiles.begin(), kServiceFiles.end(), target) != kServiceFiles.end();
}

} // namespace

DnsConfigImpl::DnsConfigImpl(const std::string& networkStack) : networkStack_(networkStack) {
    if (networkStack_ != kNetworkStack)
        throw HostCtl::Lib::HostCtlException("no network stack '" + networkStack_ +
                                             "' on this host");
}

void DnsConfigImpl::AddUserSearchDomain(const std::string& domain) {
    RequireWord(domain, "domain name");
    added_.push_back(domain);
}

void DnsConfigImpl::SaveConfig() {
    if (added_.empty())
        return;
    if (BelongsToService())
        AddLinkDomains(NetworkInfoImpl().GetManagementInterface().Name(), added_);
    else
        EditTextFile(kResolverFile,
                     [&](const std::string& text) { return WithSearchDomains(text, added_); });
    added_.clear();
}

} // namespace Network
} // namespace HykCtl
