#include <sys/stat.h>

#include <filesystem>

#include "faults.h"
#include "scripted_host.h"
#include "tesauth/apx_proxy.h"
#include "tesauth/exceptions.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

const char* const file = "/etc/tessary/tesauth/thumbprints.conf";
constexpr const char* first = "0A:1B:2C:3D:4E:5F:60:71:82:93:A4:B5:C6:D7:E8:F9:0A:1B:2C:3D";
constexpr const char* second = "FF:1B:2C:3D:4E:5F:60:71:82:93:A4:B5:C6:D7:E8:F9:0A:1B:2C:3D";

std::string Line(const std::string& key, const std::string& thumbprint) {
    return key + " = \"" + thumbprint + "\"\n";
}

/// Which file is there now: every write puts a new one in its place.
ino_t Inode() {
    struct stat status = {};
    EXPECT_EQ(stat(file, &status), 0);
    return status.st_ino;
}

class APXThumbprintStoreTest : public HostTest {
protected:
    APXThumbprintStoreTest() { WriteFile(file, Line("10.0.0.1", first)); }
};

TEST_F(APXThumbprintStoreTest, LooksUpWithoutInserting) {
    APXThumbprintStore store(file);
    EXPECT_EQ(store.LookupThumbprint("10.0.0.1"), first);
    EXPECT_EQ(store.LookupThumbprint("10.0.0.2"), "");
    EXPECT_EQ(store.size(), 1u);
}

TEST_F(APXThumbprintStoreTest, NewKeyIsWritten) {
    APXThumbprintStore store(file);
    store.ImportThumbprint(second, "10.0.0.2");
    EXPECT_EQ(ReadFile(file), Line("10.0.0.1", first) + Line("10.0.0.2", second));
    EXPECT_EQ(store.LookupThumbprint("10.0.0.2"), second);
    EXPECT_EQ(APXThumbprintStore(file).LookupThumbprint("10.0.0.2"), second);
}

TEST_F(APXThumbprintStoreTest, OtherThumbprintReplacesTheStoredOne) {
    APXThumbprintStore store(file);
    const std::string others[] = {second, std::string(second, 4), std::string(second) + ":", ""};
    for (const std::string& thumbprint : others) {
        store.ImportThumbprint(thumbprint, "10.0.0.1");
        EXPECT_EQ(ReadFile(file), Line("10.0.0.1", thumbprint));
        EXPECT_EQ(store.LookupThumbprint("10.0.0.1"), thumbprint);
    }
}

TEST_F(APXThumbprintStoreTest, SameThumbprintIsNotWritten) {
    APXThumbprintStore store(file);
    const ino_t before = Inode();
    store.ImportThumbprint(first, "10.0.0.1");
    EXPECT_EQ(Inode(), before);
    std::string lowerCase = first;
    lowerCase[1] = 'a';
    store.ImportThumbprint(lowerCase, "10.0.0.1"); // other bytes, however alike
    EXPECT_NE(Inode(), before);
}

TEST_F(APXThumbprintStoreTest, EmptyThumbprintOfANewKeyIsWritten) {
    APXThumbprintStore store(file);
    store.ImportThumbprint("", "10.0.0.2");
    EXPECT_EQ(ReadFile(file), Line("10.0.0.1", first) + Line("10.0.0.2", ""));
}

TEST_F(APXThumbprintStoreTest, FailuresAreThoseOfTheSettingsFile) {
    EXPECT_EQ(TextOf<IOError>([] { APXThumbprintStore("/etc/tessary/none"); }),
              "Unable to open '/etc/tessary/none': No such file or directory");
    APXThumbprintStore store(file);
    const faults::Scope scope;
    faults::hooks.rename = [](const char*) { return EROFS; };
    EXPECT_THROW(store.ImportThumbprint(second, "10.0.0.1"), IOError);
    EXPECT_EQ(ReadFile(file), Line("10.0.0.1", first));
    // Kept on purpose: the map has it all the same, so that the same again writes nothing.
    EXPECT_EQ(store.LookupThumbprint("10.0.0.1"), second);
    EXPECT_NO_THROW(store.ImportThumbprint(second, "10.0.0.1"));
}

} // namespace
