/// Owns a file descriptor.
#ifndef HYKCTL_DESCRIPTOR_H
#define HYKCTL_DESCRIPTOR_H

#include <unistd.h>

namespace HykCtl {

/// Closes the descriptor when it goes; may hold none (a negative number).
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0)
            close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return number_; }
    bool IsOpen() const { return number_ >= 0; }

private:
    int number_;
};

} // namespace HykCtl

#endif
