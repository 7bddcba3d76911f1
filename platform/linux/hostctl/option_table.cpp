#include "hostctl/option_table.h"

#include <algorithm>

namespace HostCtl {
namespace Adv {

const std::vector<OptionDefinition>& BuiltInOptions() {
    static const std::vector<OptionDefinition> options = {
        // A host that nobody configured checks whom it hands its join to.
        {"UserVars", "ActiveDirectoryVerifyAPXCertificate", OptionType::Integer, "1"},
    };
    return options;
}

const OptionDefinition* FindOption(const std::string& branch, const std::string& name) {
    const auto& options = BuiltInOptions();
    const auto found = std::find_if(options.begin(), options.end(), [&](const auto& option) {
        return branch == option.branch && name == option.name;
    });
    return found == options.end() ? nullptr : &*found;
}

} // namespace Adv
} // namespace HostCtl
