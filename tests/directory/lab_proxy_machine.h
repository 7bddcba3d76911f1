#pragma once

#include "lab_commands.h"

#include <string>

/// The authentication proxy on a machine of the lab of its own.
namespace lab {

/// `tesauth-apxd` on one host, for others, run by the user nobody; ends when the object does.
class ProxyMachine {
public:
    /// Starts it on `host`, which is made anew, and waits until it serves. It knows the names of
    /// the hosts in `clients`, and answers all of the lab's network.
    /// \param settings more lines of its configuration
    /// \param network  another one that it answers, as the configuration has it
    explicit ProxyMachine(const std::string& host, const Words& clients,
                          const std::string& settings = "", const std::string& network = "");
    ~ProxyMachine();
    ProxyMachine(const ProxyMachine&) = delete;
    ProxyMachine& operator=(const ProxyMachine&) = delete;

    const std::string& Address() const { return address_; }
    /// As it printed it.
    const std::string& Thumbprint() const { return thumbprint_; }
    /// As PEM.
    std::string Certificate() const;

    /// Runs a command on its machine.
    Result On(const Words& words, const std::string& input = "") const;
    /// Sends it a signal, such as "STOP".
    void Signal(const std::string& name) const;
    /// Ends it, and waits until it has ended.
    void Stop();
    /// Starts it again, with what it has kept.
    void Start();

    /// How many descriptors and threads it has.
    std::size_t Descriptors() const;
    std::size_t Threads() const;
    /// The most memory that it has had, in mebibytes.
    long PeakMemory() const;

private:
    std::string host_;
    std::string address_;
    std::string thumbprint_;
};

/// The address of a host.
std::string AddressOf(const std::string& host);

/// Makes a host anew, takes the keys of the proxy's own account away from it, and gives it a name
/// that it resolves to its own address.
void MakeClient(const std::string& host);

/// Lets a host trust a certificate.
void ImportCertificate(const std::string& host, const std::string& pem);

} // namespace lab
