/// Owner of a file descriptor.
#ifndef TESSARY_DIRECTORY_UNIQUE_FD_H
#define TESSARY_DIRECTORY_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace tessary::directory {

/// Closes its file descriptor when it goes; -1 stands for none.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() {
        if (fd_ >= 0)
            ::close(fd_);
    }

    int Get() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

} // namespace tessary::directory

#endif
