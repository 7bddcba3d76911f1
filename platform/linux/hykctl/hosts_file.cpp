#include <algorithm>

#include "hykctl/hosts_text.h"
#include "hykctl/network.h"
#include "hykctl/text_file.h"
#include "hykctl/text_lines.h"

namespace HykCtl {
namespace Network {
namespace {

constexpr const char* kHostsFile = "/etc/hosts";

} // namespace

void HostsFile::AddOrReplaceEntry(const HostCtl::Network::Ipv4Address& address,
                                  const std::string& hostName,
                                  const std::vector<std::string>& aliases) {
    RequireWord(hostName, "host name");
    HostsEntry entry{address.ToString(), {hostName}};
    for (const std::string& alias : aliases) {
        RequireWord(alias, "host name");
        const bool known =
            std::any_of(entry.names.begin(), entry.names.end(),
                        [&](const std::string& name) { return SameName(name, alias); });
        if (!known)
            entry.names.push_back(alias);
    }
    EditTextFile(kHostsFile, [&](const std::string& text) { return WithHostsEntry(text, entry); });
}

} // namespace Network
} // namespace HykCtl
