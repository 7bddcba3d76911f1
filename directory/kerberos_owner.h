/// Owners of what libkrb5 hands out.
#ifndef TESSARY_DIRECTORY_KERBEROS_OWNER_H
#define TESSARY_DIRECTORY_KERBEROS_OWNER_H

#include <krb5.h>

namespace tessary::directory {

/// Something that libkrb5 makes, or null, released with `Free` at the end of a block.
template <typename Type, auto Free>
class KerberosOwner {
public:
    /// \param context must outlive the owner
    explicit KerberosOwner(krb5_context context) : context_(context) {}
    KerberosOwner(const KerberosOwner&) = delete;
    KerberosOwner& operator=(const KerberosOwner&) = delete;
    ~KerberosOwner() {
        if (value_)
            Free(context_, value_);
    }

    /// Where libkrb5 puts it; call once.
    Type* Out() { return &value_; }
    Type Get() const { return value_; }

private:
    krb5_context context_;
    Type value_ = nullptr;
};

/// The same for a record that is ours and whose contents libkrb5 makes.
template <typename Type, auto FreeContents>
class KerberosContents {
public:
    /// \param context must outlive the owner
    explicit KerberosContents(krb5_context context) : context_(context) {}
    KerberosContents(const KerberosContents&) = delete;
    KerberosContents& operator=(const KerberosContents&) = delete;
    ~KerberosContents() { FreeContents(context_, &value_); }

    Type* Out() { return &value_; }
    const Type& Get() const { return value_; }

private:
    krb5_context context_;
    Type value_{};
};

using KeytabHandle = KerberosOwner<krb5_keytab, krb5_kt_close>;
using PrincipalHandle = KerberosOwner<krb5_principal, krb5_free_principal>;

} // namespace tessary::directory

#endif
