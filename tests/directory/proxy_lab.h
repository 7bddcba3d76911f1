#pragma once

#include "account_keeper.h"
#include "lab_commands.h"

#include "directory/session.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <gmock/gmock.h>

/// While it lives, this host cannot tell which controller is the PDC emulator. Sessions that were
/// kept are at it nevertheless.
class PdcEmulatorIsHidden {
public:
    PdcEmulatorIsHidden();
    PdcEmulatorIsHidden(const PdcEmulatorIsHidden&) = delete;
    PdcEmulatorIsHidden& operator=(const PdcEmulatorIsHidden&) = delete;
    ~PdcEmulatorIsHidden();

private:
    std::string nameServers_;
};

/// A proxy's accounts, as the test makes them and as the domain's administrator sees them.
class ProxyLab : public testing::Test {
protected:
    static constexpr char domain[] = "corp.example";
    static constexpr char base[] = "DC=corp,DC=example";
    static constexpr char hosts[] = "OU=Hosts,DC=corp,DC=example";
    static constexpr char web[] = "OU=Web,OU=Hosts,DC=corp,DC=example";

    ProxyLab();
    ~ProxyLab() override;

    /// Ends the proxy and starts it again.
    tessary::proxy::AccountKeeper& Restart();
    void End() { keeper_.reset(); }
    tessary::proxy::AccountKeeper& Keeper() { return keeper_ ? *keeper_ : Restart(); }

    /// An account for a host, which the proxy has to give.
    tessary::proxy::NewAccount Make(const std::string& host, const std::string& container = "");

    /// Why the proxy gives none; "given" if it does.
    std::string Refused(const std::string& host, const std::string& container = "");
    /// The same, as a number and the text.
    struct Answer {
        std::uint32_t code = 0;
        std::string text;
        std::string detail;
    };
    Answer Ask(const std::string& host, const std::string& container = "");

    /// Lets time pass, as the proxy sees it.
    void Advance(std::chrono::minutes time) { passed_ += time; }
    /// The same, and has it look after its accounts.
    void Pass(std::chrono::minutes time);
    /// The same until an account that no host has taken over is disabled and looked at again.
    void PassUntilUnusedAreRemoved() {
        Pass(std::chrono::minutes(11));
        Pass(std::chrono::minutes(15));
    }

    /// What the proxy's record has of an account.
    std::optional<tessary::proxy::AccountRecord> Record(const std::string& account);

    /// A session with all rights.
    static tessary::directory::Session& Admin();
    /// Objects with a name; an account's is given with its '$'.
    static std::vector<tessary::directory::LdapEntry> Find(const std::string& account);
    /// Fails the test unless there is exactly one.
    static tessary::directory::LdapEntry Only(const std::string& account);
    static std::size_t Count(const std::string& account) { return Find(account).size(); }
    static void Change(const std::string& dn, const std::string& attribute,
                       const std::string& value);
    static void Disable(const std::string& account) {
        Change(Only(account).dn, "userAccountControl", "4098");
    }
    /// What a host does that takes an account over, as far as the proxy can see.
    static void ChangePassword(const std::string& account);
    /// Whether an account takes a password.
    static bool Takes(const std::string& account, std::string_view password);

    /// Why it gets no new password, for the log; fails the test unless the asker hears no reason.
    std::string WhyNoNewPassword(const std::string& host);

    std::string stateDirectory_;
    tessary::proxy::AccountSettings settings_;

private:
    static void DeleteComputers();

    std::chrono::seconds passed_{0};
    std::unique_ptr<tessary::proxy::AccountKeeper> keeper_;
};
