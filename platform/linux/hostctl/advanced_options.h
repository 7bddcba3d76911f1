/// The host's advanced options, kept in the host configuration store.
///
/// A branch is the object of its name in the group "advanced_options" of the component "hostctl";
/// its options are the object's values. A built-in option that is not stored has its default. A
/// stored option that is not built in is a text option.
#ifndef HOSTCTL_ADVANCED_OPTIONS_H
#define HOSTCTL_ADVANCED_OPTIONS_H

#include <memory>

#include "hostctl/host.h"

namespace HostCtl {
namespace Adv {

std::shared_ptr<AdvancedOptions> MakeAdvancedOptions();

} // namespace Adv
} // namespace HostCtl

#endif
