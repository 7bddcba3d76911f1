/// An open file descriptor that is closed at the end of its scope.
#ifndef TESAUTHCTL_UNIQUE_FD_H
#define TESAUTHCTL_UNIQUE_FD_H

#include <unistd.h>

namespace ctl {

class UniqueFd {
public:
    explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
    ~UniqueFd() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    /// Negative when opening failed.
    int Get() const { return descriptor_; }

private:
    int descriptor_;
};

} // namespace ctl

#endif
