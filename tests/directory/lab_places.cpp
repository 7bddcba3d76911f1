#include "lab_places.h"

#include <chrono>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <thread>

namespace lab {
namespace {

/// The part of the controller that wbinfo asks starts last.
void AwaitWinbind(const Place& place) {
    using namespace std::chrono_literals;
    for (int i = 0; i < 300 && place.Try({"wbinfo", "--ping-dc"}).status != 0; ++i)
        std::this_thread::sleep_for(100ms);
}

} // namespace

Result Place::Try(const Words& words) const {
    Words all{std::getenv("TESAUTH_LAB"), "on", controller_};
    all.insert(all.end(), words.begin(), words.end());
    return Run(all);
}

std::vector<std::string> Place::Ask(const Words& words) const {
    const Result result = Try(words);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(words) << " on " << controller_
                                << result.out << result.err;
    std::vector<std::string> lines;
    std::istringstream stream(result.out);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string Place::AttributeOf(const std::string& user, const std::string& attribute) const {
    auto& lines = users_[user];
    if (lines.empty())
        lines = Ask({"samba-tool", "user", "show", user});
    for (const std::string& line : lines)
        if (line.rfind(attribute + ": ", 0) == 0)
            return line.substr(attribute.size() + 2);
    ADD_FAILURE() << user << " has no " << attribute;
    return "";
}

const std::map<std::string, std::string>& Place::Trusts() const {
    if (!trusts_.empty())
        return trusts_;
    const std::regex form(R"(.*Direction\[(\w+)\]\s+Name\[([^\]]+)\].*)");
    for (const std::string& line : Ask({"samba-tool", "domain", "trust", "list"})) {
        std::smatch parts;
        EXPECT_TRUE(std::regex_match(line, parts, form)) << line;
        trusts_[parts[2]] = parts[1];
    }
    return trusts_;
}

std::string ControllerOf(const testing::TestParamInfo<const Place*>& instance) {
    return instance.param->Controller();
}

void PlacesTest::SetUpTestSuite() {
    for (const Place* place : places)
        AwaitWinbind(*place);
}

std::uint32_t PlacesTest::Join(const Place& place) {
    home_ = &place;
    return plugin_.Join(place.Domain(), "", place.Admin(), place.Password());
}

std::string PlacesTest::Canonical(const Place& place, const std::string& user) const {
    const std::string sid = place.AttributeOf(user, "objectSid");
    const auto lines = place.Ask({"wbinfo", "--sid-to-name", sid});
    const std::string end = " 1"; // a user
    if (lines.size() != 1 || !lines[0].ends_with(end)) {
        ADD_FAILURE() << testing::PrintToString(lines);
        return "";
    }
    const std::string name = lines[0].substr(0, lines[0].size() - end.size());
    // A controller that knows the domain by a trust must think of the same user.
    const auto& trusts = home_->Trusts();
    const auto trust = trusts.find(place.Domain());
    if (trust != trusts.end() && trust->second != "INCOMING") {
        EXPECT_THAT(home_->Ask({"wbinfo", "--name-to-sid", name}),
                    testing::ElementsAre(sid + " SID_USER (1)"));
    }
    return name;
}

void PlacesTest::ExpectUser(const Place& place, const std::string& user, const Words& names) const {
    const std::string canonical = Canonical(place, user);
    for (const std::string& name : names)
        EXPECT_EQ(plugin_.User(name), canonical) << name;
}

} // namespace lab
