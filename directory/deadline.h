/// A point in time by which something has to be done.
#ifndef TESSARY_DIRECTORY_DEADLINE_H
#define TESSARY_DIRECTORY_DEADLINE_H

#include <algorithm>
#include <chrono>

namespace tessary::directory {

/// A point in time on the monotonic clock; a value, freely copied.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    static Deadline In(std::chrono::milliseconds time) { return Deadline(Clock::now() + time); }

    /// The earlier of this deadline and one that lies `time` ahead.
    Deadline AtMost(std::chrono::milliseconds time) const {
        return Deadline(std::min(end_, Clock::now() + time));
    }

    Deadline NoLaterThan(const Deadline& other) const {
        return Deadline(std::min(end_, other.end_));
    }
    Deadline Later(Clock::duration time) const { return Deadline(end_ + time); }

    bool Passed() const { return Clock::now() >= end_; }

    /// Time left, rounded up to whole milliseconds, as poll() takes it; 0 when it has passed.
    int Milliseconds() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
        return static_cast<int>(std::clamp<decltype(left)>(left, 0, 3'600'000));
    }

private:
    explicit Deadline(Clock::time_point end) : end_(end) {}

    Clock::time_point end_;
};

} // namespace tessary::directory

#endif
