#pragma once

#include "adldap_calls.h"
#include "lab_commands.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

/// The lab's three domains as their controllers' own tools see them: CORP and LAB trust each other,
/// CORP trusts THIRD.
namespace lab {

// What Plugin answers in place of a text.
inline constexpr char accessDenied[] = "status 5";
inline constexpr char connectionRefused[] = "status 1225";
inline constexpr char noController[] = "status 1311";
inline constexpr char invalidName[] = "status 1315";
inline constexpr char noSuchUser[] = "status 1317";
inline constexpr char noSuchDomain[] = "status 1355";
inline constexpr char keyRejected[] = "status 1786";

/// One of the domains.
class Place {
public:
    Place(const char* suffix, const char* controller) : suffix_(suffix), controller_(controller) {}

    std::string Domain() const { return Setting("DOMAIN" + suffix_); }
    std::string Netbios() const { return Setting("NETBIOS" + suffix_); }
    std::string Admin() const { return Setting("ADMIN" + suffix_); }
    std::string Password() const { return Setting("PASSWORD" + suffix_); }
    const std::string& Controller() const { return controller_; }

    /// Runs a tool on the controller.
    Result Try(const Words& words) const;
    /// The lines of a tool's answer; it has to succeed.
    std::vector<std::string> Ask(const Words& words) const;

    /// An attribute as `samba-tool user show` prints it. Asked once: users stay as they are made.
    std::string AttributeOf(const std::string& user, const std::string& attribute) const;

    /// Each domain that this one has a trust with and the trust's direction, as samba-tool says.
    const std::map<std::string, std::string>& Trusts() const;

private:
    std::string suffix_;     // of its settings
    std::string controller_; // the lab's name for the machine
    mutable std::map<std::string, std::vector<std::string>> users_;
    mutable std::map<std::string, std::string> trusts_;
};

inline const Place corp("", "dc1");
inline const Place other("2", "dc2");
inline const Place third("3", "dc3");
inline const Place* const places[] = {&corp, &other, &third};

/// Names an instance of a test by its domain's controller.
std::string ControllerOf(const testing::TestParamInfo<const Place*>& instance);

/// A test on a host that is joined to the domain that is the test's parameter.
class PlacesTest : public testing::TestWithParam<const Place*> {
protected:
    static void SetUpTestSuite();
    void SetUp() override { ASSERT_EQ(Join(*GetParam()), 0u); }
    void TearDown() override { EXPECT_EQ(plugin_.LeaveAs(home_->Admin(), home_->Password()), 0u); }

    std::uint32_t Join(const Place& place);

    /// A user's canonical name as the controllers' name service gives it, asked by the identifier
    /// that the user's own domain knows the user by.
    std::string Canonical(const Place& place, const std::string& user) const;

    /// Expects the plug-in to give the user's canonical name for each of these.
    void ExpectUser(const Place& place, const std::string& user, const Words& names) const;

    Plugin plugin_;
    const Place* home_ = nullptr; ///< where the host is joined
};

} // namespace lab
