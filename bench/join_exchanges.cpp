// What a join cannot do without, and no more: the exchanges with one controller that is known
// beforehand, one after the other. It looks up no name, looks for nothing else that may be in the
// way, writes no file and takes nothing back when it fails. How long it takes is the least that
// any join can take that leaves the same account behind and knows that the account works.
#include <krb5/krb5.h>
#include <ldap.h>
#include <openldap.h>
#include <sasl/sasl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

struct Arguments {
    std::string realm;
    std::string host;    // the controller's name
    std::string address; // and its IPv4 address
    std::string user;
    std::string password;
    std::string computer; // in capitals
};

/// Calls a function with what is to be released.
template <auto release>
struct Releaser {
    template <typename T>
    void operator()(T* what) const {
        release(what);
    }
};

void Unbind(LDAP* handle) {
    ldap_unbind_ext(handle, nullptr, nullptr);
}

using Handle = std::unique_ptr<LDAP, Releaser<Unbind>>;
using Message = std::unique_ptr<LDAPMessage, Releaser<ldap_msgfree>>;
using Values = std::unique_ptr<berval*, Releaser<ldap_value_free_len>>;
using Context = std::unique_ptr<std::remove_pointer_t<krb5_context>, Releaser<krb5_free_context>>;

void Require(bool done, const std::string& what) {
    if (!done)
        throw std::runtime_error(what);
}

void RequireLdap(int result, const std::string& what) {
    Require(result == LDAP_SUCCESS, what + ": " + ldap_err2string(result));
}

std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Kerberos

/// Gets a principal's initial ticket into `cache`, or into none.
/// \param salt of the principal's key where it is known: then the first question has the proof in
/// it
///     that is otherwise asked for, and one exchange is enough. Empty for a person's account: a
///     wrong guess counts as a wrong password there.
void GetInitialTicket(krb5_context context, const std::string& name, const std::string& password,
                      const std::string& salt, krb5_ccache cache) {
    krb5_principal principal = nullptr;
    Require(krb5_parse_name(context, name.c_str(), &principal) == 0, "cannot name " + name);
    krb5_get_init_creds_opt* options = nullptr;
    Require(krb5_get_init_creds_opt_alloc(context, &options) == 0, "no memory");
    if (cache)
        krb5_get_init_creds_opt_set_out_ccache(context, options, cache);
    krb5_preauthtype timestamp = KRB5_PADATA_ENC_TIMESTAMP;
    krb5_data saltData{};
    saltData.data = const_cast<char*>(salt.data());
    saltData.length = static_cast<unsigned>(salt.size());
    if (!salt.empty()) {
        krb5_get_init_creds_opt_set_preauth_list(options, &timestamp, 1);
        krb5_get_init_creds_opt_set_salt(options, &saltData);
    }
    krb5_creds ticket{};
    const krb5_error_code code = krb5_get_init_creds_password(
        context, &ticket, principal, password.c_str(), nullptr, nullptr, 0, nullptr, options);
    krb5_free_cred_contents(context, &ticket);
    krb5_get_init_creds_opt_free(context, options);
    krb5_free_principal(context, principal);
    Require(code == 0, "no ticket for " + name + ": " + krb5_get_error_message(context, code));
}

Context LogIn(const Arguments& arguments) {
    // GSSAPI finds the ticket there, and gets the one for the service by itself.
    setenv("KRB5CCNAME", "MEMORY:join", 1);
    krb5_context made = nullptr;
    Require(krb5_init_context(&made) == 0, "no Kerberos");
    Context context(made);
    krb5_ccache cache = nullptr;
    Require(krb5_cc_default(context.get(), &cache) == 0, "no ticket cache");
    GetInitialTicket(context.get(), arguments.user + "@" + arguments.realm, arguments.password, "",
                     cache);
    krb5_cc_close(context.get(), cache);
    return context;
}

// LDAP

/// Answers every question of the login with nothing: the ticket says it all.
int SayNothing(LDAP*, unsigned, void*, void* questions) {
    for (auto* question = static_cast<sasl_interact_t*>(questions);
         question->id != SASL_CB_LIST_END; ++question) {
        question->result = "";
        question->len = 0;
    }
    return LDAP_SUCCESS;
}

Handle Connect(const Arguments& arguments) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(LDAP_PORT);
    Require(inet_pton(AF_INET, arguments.address.c_str(), &address.sin_addr) == 1, "no address");
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int noDelay = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    Require(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "no connection");
    LDAP* handle = nullptr;
    RequireLdap(ldap_init_fd(fd, LDAP_PROTO_TCP, ("ldap://" + arguments.host).c_str(), &handle),
                "connecting");
    Handle connection(handle);
    const int version = LDAP_VERSION3;
    ldap_set_option(handle, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(handle, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    ldap_set_option(handle, LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
    ldap_set_option(handle, LDAP_OPT_X_SASL_SECPROPS, "minssf=56"); // sealed, that is
    return connection;
}

void Bind(LDAP* ldap) {
    RequireLdap(ldap_sasl_interactive_bind_s(ldap, nullptr, "GSSAPI", nullptr, nullptr,
                                             LDAP_SASL_QUIET, SayNothing, nullptr),
                "logging in");
}

int Ask(LDAP* ldap, const std::string& base, int scope, const std::string& filter,
        std::vector<const char*> attributes) {
    attributes.push_back(nullptr);
    int message = 0;
    RequireLdap(ldap_search_ext(ldap, base.c_str(), scope, filter.c_str(),
                                const_cast<char**>(attributes.data()), 0, nullptr, nullptr, nullptr,
                                LDAP_NO_LIMIT, &message),
                "searching " + base);
    return message;
}

Message Answer(LDAP* ldap, int message) {
    LDAPMessage* answer = nullptr;
    Require(ldap_result(ldap, message, LDAP_MSG_ALL, nullptr, &answer) > 0, "no answer");
    return Message(answer);
}

std::vector<std::string> ValuesIn(LDAP* ldap, const Message& answer, const char* attribute) {
    LDAPMessage* entry = ldap_first_entry(ldap, answer.get());
    const Values values(entry ? ldap_get_values_len(ldap, entry, attribute) : nullptr);
    Require(values != nullptr, std::string("no ") + attribute);
    std::vector<std::string> texts;
    for (berval** value = values.get(); *value; ++value)
        texts.emplace_back((*value)->bv_val, (*value)->bv_len);
    return texts;
}

struct Directory {
    std::string base;
    std::string configuration;
    std::string computers; // where new computers' accounts go
};

/// Asks nothing that takes a login, so it can come first.
Directory ReadRoot(LDAP* ldap) {
    const Message root = Answer(ldap, Ask(ldap, "", LDAP_SCOPE_BASE, "(objectClass=*)",
                                          {"defaultNamingContext", "configurationNamingContext"}));
    return {ValuesIn(ldap, root, "defaultNamingContext")[0],
            ValuesIn(ldap, root, "configurationNamingContext")[0], ""};
}

/// Reads what a member must know of its domain: both names and the SID, and where the account goes.
void ReadDomain(LDAP* ldap, Directory& directory) {
    const int names = Ask(ldap, "CN=Partitions," + directory.configuration, LDAP_SCOPE_ONELEVEL,
                          "(&(objectClass=crossRef)(nCName=" + directory.base + ")(nETBIOSName=*))",
                          {"nETBIOSName"});
    const int domain = Ask(ldap, directory.base, LDAP_SCOPE_BASE, "(objectClass=*)",
                           {"objectSid", "wellKnownObjects"});
    ValuesIn(ldap, Answer(ldap, names), "nETBIOSName");
    const Message answer = Answer(ldap, domain);
    ValuesIn(ldap, answer, "objectSid");
    constexpr std::string_view computers = "B:32:AA312825768811D1ADED00C04FD8D5CD:";
    for (const std::string& object : ValuesIn(ldap, answer, "wellKnownObjects"))
        if (object.starts_with(computers))
            directory.computers = object.substr(computers.size());
    Require(!directory.computers.empty(), "no container of computers");
}

std::string MakePassword() {
    constexpr char signs[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-";
    std::array<unsigned char, 64> random{};
    Require(getentropy(random.data(), random.size()) == 0, "no random bytes");
    std::string password;
    for (const unsigned char byte : random)
        password += signs[byte % 64];
    return password;
}

/// Adds the account in one piece, with its password.
void Add(LDAP* ldap, const Arguments& arguments, const std::string& dn,
         const std::string& password) {
    const std::string shortName = LowerCase(arguments.computer);
    const std::string fullName = shortName + "." + LowerCase(arguments.realm);
    std::string encoded;
    for (const char c : '"' + password + '"')
        (encoded += c) += '\0';
    struct Attribute {
        const char* name;
        std::vector<std::string> values;
    };
    const std::vector<Attribute> attributes{
        {"objectClass", {"computer"}},
        {"sAMAccountName", {arguments.computer + "$"}},
        {"userAccountControl", {"4096"}},
        {"dNSHostName", {fullName}},
        {"servicePrincipalName",
         {"HOST/" + shortName, "HOST/" + fullName, "RestrictedKrbHost/" + shortName,
          "RestrictedKrbHost/" + fullName}},
        {"msDS-SupportedEncryptionTypes", {"24"}},
        {"unicodePwd", {encoded}}};

    std::array<std::array<berval, 4>, 7> values{};
    std::array<std::array<berval*, 5>, 7> pointers{};
    std::array<LDAPMod, 7> changes{};
    std::array<LDAPMod*, 8> list{};
    for (std::size_t i = 0; i < attributes.size(); ++i) {
        const Attribute& attribute = attributes[i];
        for (std::size_t j = 0; j < attribute.values.size(); ++j) {
            const std::string& value = attribute.values[j];
            values[i][j] = {value.size(), const_cast<char*>(value.data())};
            pointers[i][j] = &values[i][j];
        }
        changes[i].mod_op = LDAP_MOD_ADD | LDAP_MOD_BVALUES;
        changes[i].mod_type = const_cast<char*>(attribute.name);
        changes[i].mod_bvalues = pointers[i].data();
        list[i] = &changes[i];
    }
    RequireLdap(ldap_add_ext_s(ldap, dn.c_str(), list.data(), nullptr, nullptr), "adding " + dn);
}

void Join(const Arguments& arguments) {
    const Context context = LogIn(arguments);
    const Handle ldap = Connect(arguments);
    Directory directory = ReadRoot(ldap.get());
    Bind(ldap.get());
    ReadDomain(ldap.get(), directory);

    const std::string dn = "CN=" + arguments.computer + "," + directory.computers;
    const std::string password = MakePassword();
    Add(ldap.get(), arguments, dn, password);
    // Without the version no keytab can be written.
    ValuesIn(ldap.get(),
             Answer(ldap.get(), Ask(ldap.get(), dn, LDAP_SCOPE_BASE, "(objectClass=*)",
                                    {"msDS-KeyVersionNumber"})),
             "msDS-KeyVersionNumber");
    GetInitialTicket(context.get(), arguments.computer + "$@" + arguments.realm, password,
                     arguments.realm + "host" + LowerCase(arguments.computer) + "." +
                         LowerCase(arguments.realm),
                     nullptr);
}

/// Deletes the account, whoever made it and wherever it is, if there is one.
void Undo(const Arguments& arguments) {
    const Context context = LogIn(arguments);
    const Handle ldap = Connect(arguments);
    const Directory directory = ReadRoot(ldap.get());
    Bind(ldap.get());
    const Message found =
        Answer(ldap.get(), Ask(ldap.get(), directory.base, LDAP_SCOPE_SUBTREE,
                               "(sAMAccountName=" + arguments.computer + "$)", {"objectClass"}));
    LDAPMessage* entry = ldap_first_entry(ldap.get(), found.get());
    if (!entry)
        return;
    const std::unique_ptr<char, Releaser<ldap_memfree>> dn(ldap_get_dn(ldap.get(), entry));
    RequireLdap(ldap_delete_ext_s(ldap.get(), dn.get(), nullptr, nullptr), "deleting");
}

} // namespace

int main(int argc, char** argv) {
    const std::string verb = argc == 8 ? argv[1] : "";
    if (verb != "join" && verb != "undo") {
        std::cerr << "usage: join_exchanges join|undo REALM CONTROLLER ADDRESS USER PASSWORD-FILE "
                     "COMPUTER\n";
        return 1;
    }
    Arguments arguments{argv[2], argv[3], argv[4], argv[5], "", argv[7]};
    try {
        std::ifstream file(argv[6]);
        Require(!!std::getline(file, arguments.password), "no password");
        verb == "join" ? Join(arguments) : Undo(arguments);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "join_exchanges: " << error.what() << "\n";
        return 1;
    }
}
