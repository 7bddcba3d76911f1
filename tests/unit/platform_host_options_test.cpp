#include <gmock/gmock.h>

#include <filesystem>
#include <limits>

#include "hostctl/host.h"
#include "orvcfg/config_store.h"
#include "platform_support.h"

namespace {

using namespace HostCtl;
using namespace PlatformTest;
using testing::HasSubstr;
using testing::StartsWith;

const char* const kVerify = "ActiveDirectoryVerifyAPXCertificate";

using HostOptionsTest = HostTest;

std::shared_ptr<Adv::AdvancedNode> Node(const std::string& branch, const std::string& option) {
    const auto root = HostFactory::GetHost()->GetAdvancedOptions()->Root();
    const auto node = std::dynamic_pointer_cast<Adv::AdvancedOptionBranch>(root->Child(branch));
    return node ? node->Child(option) : nullptr;
}

std::shared_ptr<Adv::AdvancedIntegerOption> Verify() {
    return std::dynamic_pointer_cast<Adv::AdvancedIntegerOption>(Node("UserVars", kVerify));
}

std::shared_ptr<Adv::AdvancedStringOption> Text(const std::string& option) {
    return std::dynamic_pointer_cast<Adv::AdvancedStringOption>(Node("UserVars", option));
}

void StoreValue(const char* branch, const char* option, const std::string& value) {
    using namespace OrvConfigStore;
    const ConfigStoreObjectId id(branch, "advanced_options", "hostctl");
    const auto store = ConfigStore::GetStore(sGlobalNamespace);
    auto object = store->GetObject(id);
    if (!object)
        object = std::make_shared<ConfigStoreObject>(id);
    object->SetValue(option, value);
    store->SetObject(object, 0);
}

TEST_F(HostOptionsTest, UnconfiguredHostVerifiesTheProxy) {
    ASSERT_NE(Verify(), nullptr);
    EXPECT_EQ(Verify()->Name(), kVerify);
    EXPECT_EQ(Verify()->GetValue(), 1);
}

TEST_F(HostOptionsTest, SetValueIsSeenByOtherHandlesAndProcesses) {
    const auto before = Verify();
    Verify()->SetValue(0);
    EXPECT_EQ(before->GetValue(), 0);
    EXPECT_TRUE(InProcesses(1, [](int) { return Verify()->GetValue() == 0; }));
}

TEST_F(HostOptionsTest, IntegersKeepTheirWholeRange) {
    for (const int64_t value : {std::numeric_limits<int64_t>::min(), int64_t{-1}, int64_t{2},
                                std::numeric_limits<int64_t>::max()}) {
        Verify()->SetValue(value);
        EXPECT_EQ(Verify()->GetValue(), value);
    }
}

TEST_F(HostOptionsTest, StoredTextThatIsNoIntegerIsAnErrorThatNamesTheOption) {
    for (const char* text : {"yes", "", "1x", " 1", "0x1", "9223372036854775808"}) {
        StoreValue("UserVars", kVerify, text);
        EXPECT_EQ(FailureText<Lib::HostCtlException>([] { Verify()->GetValue(); }),
                  "advanced option UserVars.ActiveDirectoryVerifyAPXCertificate: the stored value "
                  "'" +
                      std::string(text) + "' is not an integer");
    }
}

TEST_F(HostOptionsTest, UnknownBranchesAndOptionsAreEmpty) {
    EXPECT_EQ(HostFactory::GetHost()->GetAdvancedOptions()->Root()->Child("Nowhere"), nullptr);
    EXPECT_EQ(Node("UserVars", "Nothing"), nullptr);
    EXPECT_EQ(Node("UserVars", "activedirectoryverifyapxcertificate"), nullptr);
}

TEST_F(HostOptionsTest, StoredOptionsThatAreNotBuiltInAppearAsTexts) {
    StoreValue("UserVars", "Banner", "two\nlines");
    StoreValue("Misc", "Colour", "blue");
    ASSERT_NE(Text("Banner"), nullptr);
    EXPECT_EQ(Text("Banner")->GetValue(), "two\nlines");
    const auto colour =
        std::dynamic_pointer_cast<Adv::AdvancedStringOption>(Node("Misc", "Colour"));
    ASSERT_NE(colour, nullptr);
    colour->SetValue("green");
    EXPECT_EQ(colour->GetValue(), "green");
}

TEST_F(HostOptionsTest, ChildrenAreListedByName) {
    StoreValue("UserVars", "Banner", "text");
    StoreValue("UserVars", "Zone", "text");
    const auto root = HostFactory::GetHost()->GetAdvancedOptions()->Root();
    ASSERT_EQ(root->Children().size(), 1u);
    const auto branch =
        std::dynamic_pointer_cast<Adv::AdvancedOptionBranch>(root->Children().front());
    ASSERT_NE(branch, nullptr);
    EXPECT_EQ(branch->Name(), "UserVars");
    std::vector<std::string> names;
    for (const auto& child : branch->Children())
        names.push_back(child->Name());
    EXPECT_EQ(names, (std::vector<std::string>{kVerify, "Banner", "Zone"}));
}

TEST_F(HostOptionsTest, ProcessesThatSetOptionsOfOneBranchDoNotLoseThem) {
    for (const char* option : {"0", "1", "2", "3"})
        StoreValue("UserVars", option, "");
    EXPECT_TRUE(InProcesses(4, [](int number) {
        const auto option = Text(std::to_string(number));
        for (int i = 0; i < 50; ++i) {
            option->SetValue(std::to_string(i));
            if (option->GetValue() != std::to_string(i))
                return false;
        }
        return true;
    }));
    for (const char* option : {"0", "1", "2", "3"})
        EXPECT_EQ(Text(option)->GetValue(), "49");
}

TEST_F(HostOptionsTest, FailureOfTheStoreIsAFailureOfHostControl) {
    std::filesystem::create_directories("/var/lib/tessary");
    WriteFile("/var/lib/tessary/configstore.db", "garbage");
    for (const std::string& text :
         {FailureText<Lib::HostCtlException>([] { Verify()->GetValue(); }),
          FailureText<Lib::HostCtlException>([] { Verify()->SetValue(0); })}) {
        EXPECT_THAT(text, StartsWith("/var/lib/tessary/configstore.db: "));
        EXPECT_THAT(text, HasSubstr("not a database"));
    }
}

} // namespace
