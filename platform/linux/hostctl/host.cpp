#include "hostctl/host.h"

#include "hostctl/advanced_options.h"

namespace HostCtl {

namespace Lib {

HostCtlException::HostCtlException(const std::string& text) : text_(text) {}
HostCtlException::~HostCtlException() = default;
const char* HostCtlException::what() const noexcept {
    return text_.c_str();
}

} // namespace Lib

namespace {

class LinuxHost final : public Host {
public:
    std::shared_ptr<Adv::AdvancedOptions> GetAdvancedOptions() override {
        return Adv::MakeAdvancedOptions();
    }
};

} // namespace

Host::~Host() = default;

std::shared_ptr<Host> HostFactory::GetHost() {
    return std::make_shared<LinuxHost>();
}

} // namespace HostCtl
