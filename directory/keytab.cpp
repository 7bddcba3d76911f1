#include "keytab.h"

#include "error.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>

namespace tessary::directory {
namespace {

// What a keytab begins with. The library makes new files but does not fill empty ones.
constexpr std::string_view keytabFormat = "\x05\x02";

/// Closes a keytab at the end of a block.
class OpenKeytab {
public:
    explicit OpenKeytab(krb5_context context) : context_(context) {}
    OpenKeytab(const OpenKeytab&) = delete;
    OpenKeytab& operator=(const OpenKeytab&) = delete;
    ~OpenKeytab() {
        if (keytab_ && scanning_)
            krb5_kt_end_seq_get(context_, keytab_, &cursor_);
        if (keytab_)
            krb5_kt_close(context_, keytab_);
    }

    krb5_error_code Open(const std::string& name) {
        return krb5_kt_resolve(context_, name.c_str(), &keytab_);
    }
    krb5_error_code StartScan() {
        const krb5_error_code code = krb5_kt_start_seq_get(context_, keytab_, &cursor_);
        scanning_ = code == 0;
        return code;
    }
    krb5_error_code Next(krb5_keytab_entry& entry) {
        return krb5_kt_next_entry(context_, keytab_, &entry, &cursor_);
    }
    krb5_keytab Get() const { return keytab_; }

private:
    krb5_context context_;
    krb5_keytab keytab_ = nullptr;
    krb5_kt_cursor cursor_{};
    bool scanning_ = false;
};

struct EntryOwner {
    krb5_context context;
    krb5_keytab_entry entry{};

    explicit EntryOwner(krb5_context owner) : context(owner) {}
    EntryOwner(const EntryOwner&) = delete;
    EntryOwner& operator=(const EntryOwner&) = delete;
    ~EntryOwner() { krb5_free_keytab_entry_contents(context, &entry); }
};

bool Names(krb5_context context, krb5_const_principal principal,
           const std::vector<std::string>& names) {
    char* text = nullptr;
    if (krb5_unparse_name(context, principal, &text) != 0)
        throw Error(Status::NotEnoughMemory, "cannot name a keytab's principal");
    const bool found = std::find(names.begin(), names.end(), text) != names.end();
    krb5_free_unparsed_name(context, text);
    return found;
}

} // namespace

KeytabReplacement::KeytabReplacement(krb5_context context,
                                     const std::vector<std::string>& principals)
    : context_(context), file_(hostKeytab) {
    file_.KeepOwnerAndMode();
    file_.Write(keytabFormat);
    CopyOthers(principals);
}

void KeytabReplacement::Check(krb5_error_code code, const std::string& what) const {
    if (code == 0)
        return;
    const char* message = krb5_get_error_message(context_, code);
    const std::string text = what + " " + hostKeytab + ": " + message;
    krb5_free_error_message(context_, message);
    Status status = Status::InternalError;
    if (code == EACCES || code == EPERM || code == EROFS)
        status = Status::AccessDenied;
    else if (code == ENOMEM)
        status = Status::NotEnoughMemory;
    throw Error(status, text);
}

void KeytabReplacement::CopyOthers(const std::vector<std::string>& principals) {
    OpenKeytab old(context_);
    Check(old.Open(std::string("FILE:") + hostKeytab), "cannot open");
    const krb5_error_code started = old.StartScan();
    if (started == ENOENT || started == KRB5_KEYTAB_BADVNO) {
        // No keytab, or an empty file: nothing to keep. One with another content is not ours to
        // throw away.
        const auto content = ReadFile(hostKeytab);
        if (!content || content->empty())
            return;
    }
    Check(started, "cannot read");
    for (;;) {
        EntryOwner owner(context_);
        const krb5_error_code code = old.Next(owner.entry);
        if (code == KRB5_KT_END)
            return;
        Check(code, "cannot read");
        if (!Names(context_, owner.entry.principal, principals))
            Append(owner.entry);
    }
}

void KeytabReplacement::Append(krb5_keytab_entry& entry) {
    OpenKeytab keytab(context_);
    Check(keytab.Open(Name()), "cannot write");
    Check(krb5_kt_add_entry(context_, keytab.Get(), &entry), "cannot write");
    empty_ = false;
}

void KeytabReplacement::Add(const std::vector<std::string>& principals, int keyVersion,
                            const std::vector<AccountKey>& keys) {
    for (const std::string& name : principals) {
        krb5_principal principal = nullptr;
        Check(krb5_parse_name(context_, name.c_str(), &principal), "cannot name an entry of");
        struct Release {
            krb5_context context;
            void operator()(krb5_principal value) const { krb5_free_principal(context, value); }
        };
        const std::unique_ptr<krb5_principal_data, Release> owned(principal, Release{context_});
        for (const AccountKey& key : keys) {
            krb5_keytab_entry entry{};
            entry.principal = principal;
            entry.timestamp = static_cast<krb5_timestamp>(std::time(nullptr));
            entry.vno = static_cast<krb5_kvno>(keyVersion);
            entry.key = key.Get();
            Append(entry);
        }
    }
}

void KeytabReplacement::Commit() {
    if (empty_)
        RemoveFile(hostKeytab);
    else
        file_.Commit();
}

} // namespace tessary::directory
