#include "verbs.h"

#include <charconv>
#include <memory>

#include "hostctl/host.h"

namespace ctl {

using HostCtl::Adv::AdvancedIntegerOption;
using HostCtl::Adv::AdvancedNode;
using HostCtl::Adv::AdvancedOptionBranch;
using HostCtl::Adv::AdvancedStringOption;

namespace {

std::shared_ptr<AdvancedOptionBranch> RootBranch() {
    const auto options = HostCtl::HostFactory::GetHost()->GetAdvancedOptions();
    return options == nullptr ? nullptr : options->Root();
}

/// The full names of all options below a branch, comma between them.
std::string NamesBelow(const AdvancedOptionBranch& branch, const std::string& path) {
    std::string names;
    for (const auto& node : branch.Children()) {
        const auto* inner = dynamic_cast<const AdvancedOptionBranch*>(node.get());
        const std::string name = path + node->Name();
        names += (names.empty() ? "" : ", ") + (inner ? NamesBelow(*inner, name + ".") : name);
    }
    return names;
}

/// The node of a name with dots between its levels, or an empty pointer.
std::shared_ptr<AdvancedNode> Find(std::shared_ptr<AdvancedOptionBranch> branch,
                                   const std::string& name) {
    std::size_t start = 0;
    for (;;) {
        const auto dot = name.find('.', start);
        auto node = branch->Child(name.substr(start, dot - start));
        if (dot == std::string::npos || node == nullptr) {
            return node;
        }
        branch = std::dynamic_pointer_cast<AdvancedOptionBranch>(node);
        if (branch == nullptr) {
            return nullptr;
        }
        start = dot + 1;
    }
}

/// Calls `onInteger` or `onText` with the option of that name. Throws HintedError when the name is
/// no option's.
template <typename OnInteger, typename OnText>
Json WithOption(const std::string& name, OnInteger onInteger, OnText onText) {
    const auto root = RootBranch();
    const auto node = root == nullptr ? nullptr : Find(root, name);
    if (auto* integer = dynamic_cast<AdvancedIntegerOption*>(node.get())) {
        return onInteger(*integer);
    }
    if (auto* text = dynamic_cast<AdvancedStringOption*>(node.get())) {
        return onText(*text);
    }
    throw HintedError("the host has no option '" + name + "'",
                      "the options are " + (root == nullptr ? "none" : NamesBelow(*root, "")));
}

int64_t ParseInteger(const std::string& text) {
    int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        throw UsageError("the option takes an integer, not '" + text + "'");
    }
    return value;
}

Json Read(const std::string& name) {
    return WithOption(
        name, [](const AdvancedIntegerOption& option) { return Json(option.GetValue()); },
        [](const AdvancedStringOption& option) { return Json(option.GetValue()); });
}

std::string Plain(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

} // namespace

Answer GetOption(const Arguments& arguments) {
    const Json value = Read(arguments.name);
    return {Plain(value), {{"name", arguments.name}, {"value", value}}};
}

Answer SetOption(const Arguments& arguments) {
    const Json value = WithOption(
        arguments.name,
        [&](AdvancedIntegerOption& option) {
            const int64_t number = ParseInteger(arguments.value);
            option.SetValue(number);
            return Json(number);
        },
        [&](AdvancedStringOption& option) {
            option.SetValue(arguments.value);
            return Json(arguments.value);
        });
    return {arguments.name + " = " + Plain(value), {{"name", arguments.name}, {"value", value}}};
}

} // namespace ctl
