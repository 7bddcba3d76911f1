/// Any bytes as a PAM policy: the library and the model of it agree, or the process is aborted.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "sysconf_agreement.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string finding = SysconfTest::PAMDisagreement(text, true);
    if (!finding.empty()) {
        std::fputs(finding.c_str(), stderr);
        std::abort();
    }
    return 0;
}
