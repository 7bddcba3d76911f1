/// The host and its advanced options.
///
/// Options form a tree of branches; "UserVars.SuppressWarning" is the option "SuppressWarning" in
/// the branch "UserVars" of the root branch. Every failure is thrown as Lib::HostCtlException.
/// Objects may be used from any thread.
#ifndef HOSTCTL_HOST_H
#define HOSTCTL_HOST_H

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#if defined(__GNUC__)
#define HOSTCTL_API __attribute__((visibility("default")))
#else
#define HOSTCTL_API
#endif

namespace HostCtl {

namespace Lib {

/// Any failure of host control.
class HOSTCTL_API HostCtlException : public std::exception {
public:
    explicit HostCtlException(const std::string& text);
    ~HostCtlException() override;
    const char* what() const noexcept override;

private:
    std::string text_;
};

} // namespace Lib

namespace Adv {

/// A node of the option tree: a branch or an option.
class HOSTCTL_API AdvancedNode {
public:
    virtual ~AdvancedNode();

    /// The node's own name, without the names of the branches above it.
    virtual std::string Name() const = 0;
};

/// A branch: a named set of nodes.
class HOSTCTL_API AdvancedOptionBranch : public AdvancedNode {
public:
    ~AdvancedOptionBranch() override;

    /// The child of that name, or an empty pointer.
    virtual std::shared_ptr<AdvancedNode> Child(const std::string& name) const = 0;

    /// All children, in the order of their names. The root lists the branches of the options that
    /// every host has.
    virtual std::vector<std::shared_ptr<AdvancedNode>> Children() const = 0;
};

/// An option that holds an integer.
class HOSTCTL_API AdvancedIntegerOption : public AdvancedNode {
public:
    ~AdvancedIntegerOption() override;

    /// The value as it is stored now, or the option's default. Throws Lib::HostCtlException when
    /// what is stored is no integer.
    virtual int64_t GetValue() const = 0;

    /// Stores a new value; it holds when the call returns.
    virtual void SetValue(int64_t value) = 0;
};

/// An option that holds a text.
class HOSTCTL_API AdvancedStringOption : public AdvancedNode {
public:
    ~AdvancedStringOption() override;
    virtual std::string GetValue() const = 0;
    virtual void SetValue(const std::string& value) = 0;
};

/// All advanced options of a host.
class HOSTCTL_API AdvancedOptions {
public:
    virtual ~AdvancedOptions();

    /// The root branch, or an empty pointer when the host has no options at all.
    virtual std::shared_ptr<AdvancedOptionBranch> Root() const = 0;
};

} // namespace Adv

/// This host.
class HOSTCTL_API Host {
public:
    virtual ~Host();
    virtual std::shared_ptr<Adv::AdvancedOptions> GetAdvancedOptions() = 0;
};

class HOSTCTL_API HostFactory {
public:
    static std::shared_ptr<Host> GetHost();
};

} // namespace HostCtl

#endif
