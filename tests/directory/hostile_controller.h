#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

/// What listens where a domain controller should be, and does anything but a controller's work.
namespace lab {

class HostileController;

/// How one treats those who connect.
struct Manner {
    const char* name;
    int code; ///< with which a join fails where there is no other controller
    std::function<void(const HostileController& controller, int connection)> treat;
};

extern const Manner manners[];
extern const std::size_t mannerCount;

/// Finds a manner by its name.
const Manner& MannerNamed(const std::string& name);

/// Listens on the port of LDAP for as long as it lives, at an address of its own in the lab's
/// namespaces. Others may read its members from any thread.
class HostileController {
public:
    /// \param number 0 to 49: the last part of the address is 200 and this
    /// \throws std::system_error when it cannot listen
    HostileController(int number, const Manner& manner);
    ~HostileController();
    HostileController(const HostileController&) = delete;
    HostileController& operator=(const HostileController&) = delete;

    const std::string& Address() const { return address_; }

    /// How many have connected.
    int Visitors() const { return visitors_; }

    bool Stopping() const { return stopping_; }

    /// Sends as much as the other end takes.
    /// \return false when it takes no more, or it is time to stop
    bool Send(int connection, const std::string& data) const;

    /// Waits for a request.
    /// \return its message number; 0 when none came
    int AwaitRequest(int connection) const;

    /// Waits until the other end is gone, or it is time to stop.
    void Hold(int connection) const;

private:
    void Serve();

    std::string address_;
    const Manner& manner_;
    int listener_ = -1;
    std::atomic<int> visitors_ = 0;
    std::atomic<bool> stopping_ = false;
    std::thread server_;
};

/// The address of a hostile controller, with or without one that listens there.
std::string HostileAddress(int number);

} // namespace lab
