// Whose keys a keytab has to have.

#include "keytab_check.h"

#include "directory/kerberos_owner.h"
#include "directory/kerberos_profile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include <gmock/gmock.h>

namespace tessary::proxy {
namespace {

class ProxyKeytabCheck : public testing::Test {
protected:
    ProxyKeytabCheck() {
        char name[] = "/run/keytabXXXXXX";
        const int file = mkstemp(name);
        close(file);
        unlink(name); // an empty file is no keytab
        path_ = name;
    }
    ~ProxyKeytabCheck() override { unlink(path_.c_str()); }

    void AddKey(const std::string& account, const std::string& realm) {
        const directory::KerberosContext context(directory::MakeKerberosContext(realm));
        directory::KeytabHandle keytab(context.get());
        directory::PrincipalHandle principal(context.get());
        ASSERT_EQ(krb5_kt_resolve(context.get(), ("FILE:" + path_).c_str(), keytab.Out()), 0);
        ASSERT_EQ(krb5_build_principal(context.get(), principal.Out(),
                                       static_cast<unsigned>(realm.size()), realm.c_str(),
                                       account.c_str(), nullptr),
                  0);
        krb5_octet key[32] = {1};
        krb5_keytab_entry entry{};
        entry.principal = principal.Get();
        entry.vno = 1;
        entry.key.enctype = ENCTYPE_AES256_CTS_HMAC_SHA1_96;
        entry.key.length = sizeof key;
        entry.key.contents = key;
        ASSERT_EQ(krb5_kt_add_entry(context.get(), keytab.Get(), &entry), 0);
        ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
    }

    std::string Fault() const {
        try {
            CheckKeytab(path_, "svc-apxd", "corp.example");
            return "none";
        } catch (const std::runtime_error& fault) {
            return fault.what();
        }
    }

    std::string path_;
};

TEST_F(ProxyKeytabCheck, KeyIsFoundAsTheLoginFindsIt) {
    const std::string missing = "the keytab " + path_ +
                                " has no key of svc-apxd@CORP.EXAMPLE, in capitals and small "
                                "letters as written here";
    AddKey("other", "CORP.EXAMPLE");
    EXPECT_EQ(Fault(), missing);
    AddKey("SVC-apxd", "CORP.EXAMPLE");
    EXPECT_EQ(Fault(), missing);
    AddKey("svc-apxd", "LAB.EXAMPLE");
    EXPECT_EQ(Fault(), missing);
    AddKey("svc-apxd", "corp.example");
    EXPECT_EQ(Fault(), missing);
    AddKey("svc-apxd", "CORP.EXAMPLE");
    EXPECT_EQ(Fault(), "none");
}

} // namespace
} // namespace tessary::proxy
