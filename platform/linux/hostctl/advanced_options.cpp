#include "hostctl/advanced_options.h"

#include <charconv>
#include <set>
#include <utility>

#include "hostctl/option_table.h"
#include "orvcfg/config_store.h"
#include "orvcfg/sqlite_store.h"

namespace HostCtl {
namespace Adv {
namespace {

using OrvConfigStore::ConfigStore;
using OrvConfigStore::ConfigStoreObject;
using OrvConfigStore::ConfigStoreObjectId;

ConfigStoreObjectId BranchId(const std::string& branch) {
    return ConfigStoreObjectId(branch.c_str(), "advanced_options", "hostctl");
}

/// Runs an access to the store; its failures leave as HostCtlException.
template <typename Access>
auto Translated(Access&& access) {
    try {
        return access();
    } catch (const OrvConfigStore::ConfigStoreException& failure) {
        throw Lib::HostCtlException(failure.what());
    }
}

/// The stored values of a branch; an empty pointer when nothing is stored for it.
std::shared_ptr<ConfigStoreObject> StoredBranch(const std::string& branch) {
    return Translated([&] {
        return ConfigStore::GetStore(OrvConfigStore::sGlobalNamespace)->GetObject(BranchId(branch));
    });
}

/// Where an option stands, and how its text is read and written.
class OptionPlace {
public:
    OptionPlace(std::string branch, std::string name)
        : branch_(std::move(branch)), name_(std::move(name)) {}

    const std::string& Name() const { return name_; }
    std::string FullName() const { return branch_ + "." + name_; }

    std::string Read() const {
        std::string value;
        const auto stored = StoredBranch(branch_);
        if (stored && stored->GetValue(name_.c_str(), &value))
            return value;
        if (const OptionDefinition* definition = FindOption(branch_, name_))
            return definition->defaultValue;
        throw Lib::HostCtlException("advanced option " + FullName() + " is no longer set");
    }

    void Write(const std::string& value) const {
        Translated([&] {
            OrvConfigStore::UpdateGlobalObject(BranchId(branch_), [&](ConfigStoreObject& object) {
                object.SetValue(name_.c_str(), value);
            });
        });
    }

private:
    std::string branch_;
    std::string name_;
};

class IntegerOption final : public AdvancedIntegerOption {
public:
    explicit IntegerOption(OptionPlace place) : place_(std::move(place)) {}
    std::string Name() const override { return place_.Name(); }

    int64_t GetValue() const override {
        const std::string text = place_.Read();
        int64_t value = 0;
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc() || stop != end)
            throw Lib::HostCtlException("advanced option " + place_.FullName() +
                                        ": the stored value '" + text + "' is not an integer");
        return value;
    }

    void SetValue(int64_t value) override { place_.Write(std::to_string(value)); }

private:
    OptionPlace place_;
};

class StringOption final : public AdvancedStringOption {
public:
    explicit StringOption(OptionPlace place) : place_(std::move(place)) {}
    std::string Name() const override { return place_.Name(); }
    std::string GetValue() const override { return place_.Read(); }
    void SetValue(const std::string& value) override { place_.Write(value); }

private:
    OptionPlace place_;
};

class StoredBranchNode final : public AdvancedOptionBranch {
public:
    explicit StoredBranchNode(std::string name) : name_(std::move(name)) {}
    std::string Name() const override { return name_; }

    std::shared_ptr<AdvancedNode> Child(const std::string& name) const override {
        if (const OptionDefinition* definition = FindOption(name_, name))
            return MakeOption(name, definition->type);
        const auto stored = StoredBranch(name_);
        if (stored && stored->Values().count(name) != 0)
            return MakeOption(name, OptionType::Text);
        return nullptr;
    }

    std::vector<std::shared_ptr<AdvancedNode>> Children() const override {
        std::map<std::string, OptionType> found;
        if (const auto stored = StoredBranch(name_))
            for (const auto& [name, value] : stored->Values())
                found[name] = OptionType::Text;
        for (const OptionDefinition& definition : BuiltInOptions())
            if (name_ == definition.branch)
                found[definition.name] = definition.type;
        std::vector<std::shared_ptr<AdvancedNode>> children;
        for (const auto& [name, type] : found)
            children.push_back(MakeOption(name, type));
        return children;
    }

private:
    std::shared_ptr<AdvancedNode> MakeOption(const std::string& name, OptionType type) const {
        OptionPlace place(name_, name);
        if (type == OptionType::Integer)
            return std::make_shared<IntegerOption>(std::move(place));
        return std::make_shared<StringOption>(std::move(place));
    }

    std::string name_;
};

/// The root: the branches of the built-in options, listed; other branches are found by name when
/// something is stored for them.
class RootBranch final : public AdvancedOptionBranch {
public:
    std::string Name() const override { return ""; }

    std::shared_ptr<AdvancedNode> Child(const std::string& name) const override {
        if (BuiltInBranches().count(name) != 0 || StoredBranch(name))
            return std::make_shared<StoredBranchNode>(name);
        return nullptr;
    }

    std::vector<std::shared_ptr<AdvancedNode>> Children() const override {
        std::vector<std::shared_ptr<AdvancedNode>> children;
        for (const std::string& name : BuiltInBranches())
            children.push_back(std::make_shared<StoredBranchNode>(name));
        return children;
    }

private:
    static std::set<std::string> BuiltInBranches() {
        std::set<std::string> names;
        for (const OptionDefinition& definition : BuiltInOptions())
            names.insert(definition.branch);
        return names;
    }
};

class StoredOptions final : public AdvancedOptions {
public:
    std::shared_ptr<AdvancedOptionBranch> Root() const override {
        return std::make_shared<RootBranch>();
    }
};

} // namespace

AdvancedNode::~AdvancedNode() = default;
AdvancedOptionBranch::~AdvancedOptionBranch() = default;
AdvancedIntegerOption::~AdvancedIntegerOption() = default;
AdvancedStringOption::~AdvancedStringOption() = default;
AdvancedOptions::~AdvancedOptions() = default;

std::shared_ptr<AdvancedOptions> MakeAdvancedOptions() {
    return std::make_shared<StoredOptions>();
}

} // namespace Adv
} // namespace HostCtl
