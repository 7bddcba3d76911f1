#include "ldap_connection.h"

#include "error.h"
#include "kerberos.h"
#include "ldap_error.h"
#include "resolver.h"
#include "socket.h"
#include "text.h"

#include <lber.h>
#include <openldap.h>
#include <sasl/sasl.h>
#include <sys/socket.h>

#include <charconv>
#include <memory>

namespace tessary::directory {
namespace {

constexpr std::chrono::seconds patience{8};    // with one answer
constexpr ber_len_t longestMessage = 16 << 20; // bytes

// The strength below which a connection counts as not encrypted, as SASL measures it.
// The other limits are the library's own: unless they are given, ldap.conf and the environment can
// lower them until no login is possible.
constexpr char securityProperties[] =
    "noanonymous,noplain,minssf=56,maxssf=2147483647,maxbufsize=65536";

struct MemoryDeleter {
    void operator()(char* text) const { ldap_memfree(text); }
};
struct ValuesDeleter {
    void operator()(berval** values) const { ldap_value_free_len(values); }
};
struct BerDeleter {
    void operator()(BerElement* ber) const { ber_free(ber, 0); }
};
using Text = std::unique_ptr<char, MemoryDeleter>;

/// Called before the login's first step, when the connection has a SASL state that can be told
/// which ticket to use. The ticket says all that there is to say: every question is answered with
/// nothing.
int OfferTicket(LDAP* handle, unsigned, void* credential, void* questions) {
    for (auto* question = static_cast<sasl_interact_t*>(questions);
         question->id != SASL_CB_LIST_END; ++question) {
        question->result = "";
        question->len = 0;
    }
    return ldap_set_option(handle, LDAP_OPT_X_SASL_GSS_CREDS, credential);
}

/// Attribute changes in the form that libldap takes. Points into the changes that it was made of.
class ModificationList {
public:
    explicit ModificationList(const std::vector<LdapChange>& changes) {
        for (const LdapChange& change : changes)
            items_.push_back(std::make_unique<Item>(change));
        for (const auto& item : items_)
            pointers_.push_back(&item->modification);
        pointers_.push_back(nullptr);
    }

    LDAPMod** Get() { return pointers_.data(); }

private:
    struct Item {
        explicit Item(const LdapChange& change) {
            for (std::string_view value : change.values)
                values.push_back({value.size(), const_cast<char*>(value.data())});
            for (berval& value : values)
                valuePointers.push_back(&value);
            valuePointers.push_back(nullptr);
            modification.mod_op = change.operation | LDAP_MOD_BVALUES;
            modification.mod_type = const_cast<char*>(change.attribute.c_str());
            modification.mod_bvalues = valuePointers.data();
        }

        std::vector<berval> values;
        std::vector<berval*> valuePointers;
        LDAPMod modification{};
    };

    std::vector<std::unique_ptr<Item>> items_;
    std::vector<LDAPMod*> pointers_;
};

} // namespace

const std::vector<std::string>& LdapEntry::Values(std::string_view attribute) const {
    // Not destroyed: operations may still run while the process exits.
    static const auto& none = *new std::vector<std::string>;
    const auto found = attributes_.find(LowerCase(attribute));
    return found == attributes_.end() ? none : found->second;
}

const std::string& LdapEntry::Value(std::string_view attribute) const {
    static const auto& none = *new std::string; // not destroyed, as above
    const auto& values = Values(attribute);
    return values.empty() ? none : values.front();
}

std::optional<long> LdapEntry::Number(std::string_view attribute) const {
    const std::string& text = Value(attribute);
    long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

LdapConnection::LdapConnection(UniqueFd socket, const std::string& host)
    : socket_(socket.Get()), host_(host) {
    // Late, a change or a deletion would hit what another attempt has made meanwhile.
    TakeBackUnsentOnClose(socket.Get());
    LDAP* handle = nullptr;
    const bool isIpv6 = host.find(':') != std::string::npos;
    const std::string url = "ldap://" + (isIpv6 ? "[" + host + "]" : host);
    const int result = ldap_init_fd(socket.Get(), LDAP_PROTO_TCP, url.c_str(), &handle);
    if (result != LDAP_SUCCESS)
        ThrowLdapError(result, "", "cannot set up a connection to " + host);
    socket.Release();
    handle_.reset(handle);

    // Memory for a message is taken by what the other end says of its length.
    Sockbuf* buffer = nullptr;
    ber_len_t limit = longestMessage;
    ldap_get_option(handle, LDAP_OPT_SOCKBUF, &buffer);
    ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &limit);

    // Whatever the host's ldap.conf says about these.
    const int version = LDAP_VERSION3;
    const int noLimit = LDAP_NO_LIMIT;
    SetOption(LDAP_OPT_PROTOCOL_VERSION, &version);
    SetOption(LDAP_OPT_SIZELIMIT, &noLimit);
    SetOption(LDAP_OPT_TIMELIMIT, &noLimit);
    SetOption(LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    SetOption(LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
    SetOption(LDAP_OPT_X_SASL_SECPROPS, securityProperties);
}

void LdapConnection::SetOption(int option, const void* value) {
    const int result = ldap_set_option(handle_.get(), option, value);
    if (result != LDAP_SUCCESS)
        throw Error(Status::InternalError, "libldap refuses option " + std::to_string(option));
}

void LdapConnection::ThrowFailed(int result, const std::string& what) const {
    if (result == LDAP_SERVER_DOWN && !answered_)
        throw Error(Status::ConnectionRefused, what + ": the connection was closed at once");
    ThrowLdapError(result, "", what);
}

void LdapConnection::ExpectLdap() {
    if (answered_)
        return;
    constexpr unsigned char firstOfMessage = 0x30;
    unsigned char first = 0;
    const ssize_t got = recv(socket_, &first, sizeof first, MSG_PEEK);
    answered_ = got > 0;
    if (answered_ && first != firstOfMessage)
        throw Error(Status::NoController, "what answers at " + host_ + " is no directory service");
}

LdapConnection::Message LdapConnection::TryReceive(int message, int extent) {
    Sockbuf* buffer = nullptr;
    ldap_get_option(handle_.get(), LDAP_OPT_SOCKBUF, &buffer);
    do {
        timeval none{0, 0};
        LDAPMessage* received = nullptr;
        const int type = ldap_result(handle_.get(), message, extent, &none, &received);
        if (type > 0) {
            answered_ = true;
            return Message(received);
        }
        if (type < 0) {
            int result = LDAP_OTHER;
            ldap_get_option(handle_.get(), LDAP_OPT_RESULT_CODE, &result);
            ThrowFailed(result, "no answer from " + host_);
        }
        // What was read ahead or decrypted together with an earlier message wakes no poll().
    } while (buffer && ber_sockbuf_ctrl(buffer, LBER_SB_OPT_DATA_READY, nullptr) > 0);
    return nullptr;
}

LdapConnection::Message LdapConnection::Receive(int message, const Deadline& deadline) {
    const Deadline end = deadline.AtMost(patience);
    for (;;) {
        if (Message received = TryReceive(message))
            return received;
        if (!WaitFor(socket_, POLLIN, end)) {
            ldap_abandon_ext(handle_.get(), message, nullptr, nullptr);
            throw Error(Status::TimedOut, "no answer from " + host_);
        }
    }
}

int LdapConnection::CheckResult(LDAPMessage* message, std::string& diagnostics) {
    int result = LDAP_OTHER;
    char* text = nullptr;
    const int parsed =
        ldap_parse_result(handle_.get(), message, &result, nullptr, &text, nullptr, nullptr, 0);
    const Text owned(text);
    diagnostics = text ? text : "";
    return parsed == LDAP_SUCCESS ? result : parsed;
}

void LdapConnection::ExpectSuccess(LDAPMessage* message, const std::string& what) {
    std::string diagnostics;
    const int result = CheckResult(message, diagnostics);
    if (result != LDAP_SUCCESS)
        ThrowLdapError(result, diagnostics, what);
}

void LdapConnection::Bind(const KerberosSession& session, const Deadline& deadline) {
    const GssCredential credential(session);
    const MutedResolver muted;
    const char* mechanism = nullptr;
    int message = 0;
    Message answer;
    for (;;) {
        const int result = ldap_sasl_interactive_bind(
            handle_.get(), nullptr, "GSSAPI", nullptr, nullptr, LDAP_SASL_QUIET, OfferTicket,
            credential.Get(), answer.get(), &mechanism, &message);
        if (result == LDAP_SUCCESS)
            return;
        if (result != LDAP_SASL_BIND_IN_PROGRESS) {
            char* text = nullptr;
            ldap_get_option(handle_.get(), LDAP_OPT_DIAGNOSTIC_MESSAGE, &text);
            const Text owned(text);
            ThrowLdapError(result, text ? text : "", "cannot log in to " + host_);
        }
        answer = Receive(message, deadline);
    }
}

int LdapConnection::StartRootSearch(const char* const* attributes) {
    int message = 0;
    const int result = ldap_search_ext(handle_.get(), "", LDAP_SCOPE_BASE, "(objectClass=*)",
                                       const_cast<char**>(attributes), 0, nullptr, nullptr, nullptr,
                                       LDAP_NO_LIMIT, &message);
    if (result != LDAP_SUCCESS)
        ThrowFailed(result, "cannot ask " + host_);
    return message;
}

std::optional<LdapEntry> LdapConnection::TryFinishSearch(int message) {
    // Nobody has proven to be a controller yet: one message at a time, and the first entry will do,
    // so that entries without end take no memory.
    ExpectLdap();
    const Message answer = TryReceive(message, LDAP_MSG_ONE);
    if (!answer)
        return std::nullopt;
    std::vector<LdapEntry> entries = Entries(answer.get());
    if (!entries.empty())
        return std::move(entries.front());
    if (ldap_msgtype(answer.get()) != LDAP_RES_SEARCH_RESULT)
        return std::nullopt;
    ExpectSuccess(answer.get(), "search on " + host_);
    return LdapEntry();
}

std::vector<LdapEntry> LdapConnection::Entries(LDAPMessage* message) {
    std::vector<LdapEntry> entries;
    LDAP* handle = handle_.get();
    for (LDAPMessage* item = ldap_first_entry(handle, message); item;
         item = ldap_next_entry(handle, item)) {
        LdapEntry& entry = entries.emplace_back();
        const Text dn(ldap_get_dn(handle, item));
        entry.dn = dn ? dn.get() : "";
        BerElement* position = nullptr;
        Text attribute(ldap_first_attribute(handle, item, &position));
        const std::unique_ptr<BerElement, BerDeleter> owned(position);
        for (; attribute; attribute.reset(ldap_next_attribute(handle, item, position))) {
            const std::unique_ptr<berval*, ValuesDeleter> values(
                ldap_get_values_len(handle, item, attribute.get()));
            auto& texts = entry.attributes_[LowerCase(attribute.get())];
            for (berval** value = values.get(); value && *value; ++value)
                texts.emplace_back((*value)->bv_val, (*value)->bv_len);
        }
    }
    return entries;
}

PendingSearch LdapConnection::StartSearch(const std::string& base, int scope,
                                          const std::string& filter,
                                          const std::vector<const char*>& attributes) {
    std::vector<const char*> list(attributes);
    list.push_back(nullptr);
    int message = 0;
    const int sent = ldap_search_ext(handle_.get(), base.c_str(), scope, filter.c_str(),
                                     const_cast<char**>(list.data()), 0, nullptr, nullptr, nullptr,
                                     LDAP_NO_LIMIT, &message);
    if (sent != LDAP_SUCCESS)
        ThrowLdapError(sent, "", "cannot search " + base);
    return {message, base};
}

PendingSearch LdapConnection::StartRead(const std::string& dn,
                                        const std::vector<const char*>& attributes) {
    return StartSearch(dn, LDAP_SCOPE_BASE, "(objectClass=*)", attributes);
}

std::vector<LdapEntry> LdapConnection::FinishSearch(const PendingSearch& search,
                                                    const Deadline& deadline) {
    const Message answer = Receive(search.message, deadline);
    ExpectSuccess(answer.get(), "cannot search " + search.base);
    return Entries(answer.get());
}

LdapEntry LdapConnection::FinishRead(const PendingSearch& search, const Deadline& deadline) {
    std::vector<LdapEntry> entries = FinishSearch(search, deadline);
    if (entries.empty())
        ThrowLdapError(LDAP_NO_SUCH_OBJECT, "", "cannot read " + search.base);
    return std::move(entries.front());
}

std::vector<LdapEntry> LdapConnection::Search(const std::string& base, int scope,
                                              const std::string& filter,
                                              const std::vector<const char*>& attributes,
                                              const Deadline& deadline) {
    return FinishSearch(StartSearch(base, scope, filter, attributes), deadline);
}

LdapEntry LdapConnection::Read(const std::string& dn, const std::vector<const char*>& attributes,
                               const Deadline& deadline) {
    return FinishRead(StartRead(dn, attributes), deadline);
}

int LdapConnection::StartChange(ChangeCall call, const std::string& what, const std::string& dn,
                                const std::vector<LdapChange>& changes) {
    ModificationList list(changes);
    int message = 0;
    const int sent = call(handle_.get(), dn.c_str(), list.Get(), nullptr, nullptr, &message);
    if (sent != LDAP_SUCCESS)
        ThrowLdapError(sent, "", what + dn);
    return message;
}

void LdapConnection::Add(const std::string& dn, const std::vector<LdapChange>& attributes,
                         const Deadline& deadline, const std::function<void()>& meanwhile) {
    const std::string what = "cannot create ";
    const int message = StartChange(ldap_add_ext, what, dn, attributes);
    meanwhile();
    ExpectSuccess(Receive(message, deadline).get(), what + dn);
}

void LdapConnection::Modify(const std::string& dn, const std::vector<LdapChange>& changes,
                            const Deadline& deadline) {
    const std::string what = "cannot change ";
    const int message = StartChange(ldap_modify_ext, what, dn, changes);
    ExpectSuccess(Receive(message, deadline).get(), what + dn);
}

int LdapConnection::DeleteOnce(const std::string& dn, LDAPControl** controls,
                               std::string& diagnostics, const Deadline& deadline) {
    int message = 0;
    const int sent = ldap_delete_ext(handle_.get(), dn.c_str(), controls, nullptr, &message);
    return sent == LDAP_SUCCESS ? CheckResult(Receive(message, deadline).get(), diagnostics) : sent;
}

void LdapConnection::Delete(const std::string& dn, const Deadline& deadline) {
    std::string diagnostics;
    const int result = DeleteOnce(dn, nullptr, diagnostics, deadline);
    if (result != LDAP_SUCCESS && result != LDAP_NO_SUCH_OBJECT)
        ThrowLdapError(result, diagnostics, "cannot delete " + dn);
}

void LdapConnection::DeleteTree(const std::string& dn, const Deadline& deadline) {
    char treeDelete[] = "1.2.840.113556.1.4.805";
    LDAPControl control{treeDelete, {0, nullptr}, 1};
    LDAPControl* controls[] = {&control, nullptr};

    // Without the control first: it asks for a right that not everybody has who may delete the
    // entry.
    std::string diagnostics;
    int result = DeleteOnce(dn, nullptr, diagnostics, deadline);
    if (result == LDAP_NOT_ALLOWED_ON_NONLEAF)
        result = DeleteOnce(dn, controls, diagnostics, deadline);
    if (result != LDAP_SUCCESS && result != LDAP_NO_SUCH_OBJECT)
        ThrowLdapError(result, diagnostics, "cannot delete " + dn);
}

std::string EscapeFilterValue(std::string_view value) {
    berval in{value.size(), const_cast<char*>(value.data())};
    berval out{0, nullptr};
    if (ldap_bv2escaped_filter_value(&in, &out) != 0)
        throw Error(Status::NotEnoughMemory, "cannot escape a filter value");
    const Text owned(out.bv_val);
    return std::string(out.bv_val, out.bv_len);
}

} // namespace tessary::directory
