#include "domain_state.h"

#include "text.h"

#include <sstream>

namespace tessary::directory {
namespace {

struct Field {
    const char* key;
    std::string DomainState::*member;
};

constexpr Field fields[] = {
    {"domain", &DomainState::domain},
    {"netbios-name", &DomainState::netbiosName},
    {"realm", &DomainState::realm},
    {"domain-sid", &DomainState::domainSid},
    {"account", &DomainState::account},
    {"account-dn", &DomainState::accountDn},
    {"host-short-name", &DomainState::shortName},
    {"host-full-name", &DomainState::fullName},
};

} // namespace

const char* DomainState::Path() {
    // No object that is destroyed: operations may still run while the process exits.
    static constexpr char path[] = "/var/lib/tessary/domain_state";
    static_assert(std::string_view(path).starts_with(stateDirectory));
    return path;
}

std::vector<std::string> DomainState::KeytabPrincipals() const {
    std::vector<std::string> principals{AccountPrincipal()};
    for (const char* service : {"host/", "RestrictedKrbHost/"})
        for (const std::string& name : {shortName, fullName})
            principals.push_back(service + name + "@" + realm);
    return principals;
}

bool DomainState::IsNamed(const std::string& name) const {
    return EqualNames(name, domain) || EqualNames(name, netbiosName);
}

std::optional<DomainState> DomainState::Load() {
    const auto text = ReadFile(Path());
    if (!text)
        return std::nullopt;
    DomainState state;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t equals = line.find('=');
        for (const Field& field : fields)
            if (equals != std::string::npos && line.compare(0, equals, field.key) == 0)
                state.*field.member = line.substr(equals + 1);
    }
    // Damaged: a join writes the file anew.
    if (state.domain.empty() || state.realm.empty() || state.account.empty())
        return std::nullopt;
    return state;
}

bool DomainState::IsDamaged() {
    return ReadFile(Path()) && !Load();
}

void DomainState::Prepare(Replacement& file) const {
    std::string text;
    for (const Field& field : fields)
        text += std::string(field.key) + "=" + this->*field.member + "\n";
    file.Write(text);
}

void DomainState::Remove() {
    RemoveFile(Path());
}

} // namespace tessary::directory
