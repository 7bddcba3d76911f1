#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "scripted_provider.h"

/// What the tests of the library share: a private host whose files they may change, and the
/// scripted directory provider installed on it.
namespace scripted {

constexpr const char* pluginDirectory = "/usr/libexec/tesauth/";
constexpr const char* authenticationFile = "/etc/tessary/tesauth/authentication.conf";
constexpr const char* providerFile = "/etc/tessary/tesauth/provider.conf";
constexpr const char* proxyProviderFile = "/etc/tessary/tesauth/apxprovider.conf";

void WriteFile(const std::string& path, const std::string& text);
/// The text of a file; the text "(missing)" when there is none.
std::string ReadFile(const std::string& path);
/// Permission bits of a file.
unsigned Mode(const std::string& path);
/// The names in a folder, sorted.
std::vector<std::string> NamesIn(const std::string& folder);
/// Runs a shell command, which must succeed.
void Shell(const std::string& command);

/// Copies a built plug-in to /usr/libexec/tesauth/<subfolder>lib<name>.so.
void InstallPlugin(const std::string& builtFile, const std::string& name,
                   const std::string& subfolder = "");

/// Whether a shared object is loaded now.
bool IsLoaded(const std::string& path);

/// A private host without plug-ins, with the three settings files as they are shipped. Everything
/// below /etc/tessary, /usr/libexec/tesauth and /var/lib/tessary is cleared before and after. Fails
/// at once on a host that is not private.
class HostTest : public testing::Test {
protected:
    HostTest();
    ~HostTest() override;
};

/// A host with the scripted provider installed, named in the settings, and kept loaded for the
/// whole test, in its initial state.
class ProviderTest : public HostTest {
protected:
    ProviderTest();
    ~ProviderTest() override;

    /// Sets one key of the script.
    void Set(const std::string& key, const std::string& value) const;
    unsigned Calls(const std::string& operation) const;
    /// The arguments of one call; a null one as "(null)".
    std::vector<std::string> Arguments(const std::string& operation, unsigned call = 0) const;
    /// Buffers that went out and came back, in order.
    std::vector<const void*> Returned() const;
    std::vector<const void*> Released() const;

    const ScriptedProvider* provider;

private:
    void* handle_;
};

/// The text of the exception of class `Failure` that `action` throws. Fails when it throws nothing
/// or an exception of another class, a derived one included.
template <typename Failure, typename Action>
std::string TextOf(Action&& action) {
    try {
        std::forward<Action>(action)();
    } catch (const Failure& failure) {
        EXPECT_EQ(typeid(failure), typeid(Failure));
        return failure.what();
    } catch (const std::exception& other) {
        ADD_FAILURE() << "another exception: " << typeid(other).name() << ": " << other.what();
        return "";
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

} // namespace scripted
