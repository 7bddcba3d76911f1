/// The text of a hosts file.
#ifndef HYKCTL_HOSTS_TEXT_H
#define HYKCTL_HOSTS_TEXT_H

#include <string>
#include <vector>

namespace HykCtl {

/// An IPv4 address and the names it has; the first name is the canonical one.
struct HostsEntry {
    std::string address;
    std::vector<std::string> names;
};

/// Returns `text` with `entry` in it, by the rules of HostsFile::AddOrReplaceEntry. The names of
/// the entry are valid words, each of them once.
std::string WithHostsEntry(const std::string& text, const HostsEntry& entry);

} // namespace HykCtl

#endif
