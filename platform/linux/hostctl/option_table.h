/// The advanced options that every host has, and what they are until somebody sets them.
#ifndef HOSTCTL_OPTION_TABLE_H
#define HOSTCTL_OPTION_TABLE_H

#include <string>
#include <vector>

namespace HostCtl {
namespace Adv {

enum class OptionType { Integer, Text };

struct OptionDefinition {
    const char* branch;
    const char* name;
    OptionType type;
    const char* defaultValue;
};

const std::vector<OptionDefinition>& BuiltInOptions();

/// The definition of an option, or null when it is not built in.
const OptionDefinition* FindOption(const std::string& branch, const std::string& name);

} // namespace Adv
} // namespace HostCtl

#endif
