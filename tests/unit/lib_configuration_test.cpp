#include <sys/mount.h>

#include <cstring>
#include <filesystem>

#include "faults.h"
#include "scripted_host.h"
#include "tesauth/configuration.h"
#include "tesauth/exceptions.h"

namespace {

using namespace tessary::authentication;
using namespace scripted;

using Map = std::map<std::string, std::string>;

class ConfigurationTest : public HostTest {
protected:
    ConfigurationTest() { std::filesystem::create_directories(folder); }
    ~ConfigurationTest() override { std::filesystem::remove_all(folder); }

    /// The map that a file of this text gives.
    Map Read(const std::string& text) const {
        WriteFile(path, text);
        return Configuration(path);
    }

    std::string ReadError(const std::string& text) const {
        return TextOf<ConfigurationError>([&] { Read(text); });
    }

    const std::string folder = "/run/configuration-test";
    const std::string path = folder + "/settings.conf";
};

TEST(KeyValuePairTest, Lines) {
    struct Row {
        const char *line, *key, *value;
    };
    const Row table[] = {
        {"key = \"value\"", "key", "value"},
        {"key=value", "key", "value"},
        {" \t key\t=\t value \t", "key", "value"},
        {"name = x=y", "name", "x=y"},
        {"= v", "", "v"},
        {"k =", "k", ""},
        {"=", "", ""},
        {"k = \t ", "k", " \t "}, // blanks alone are not trimmed
        {"  = v", "  ", "v"},
        {"'k' = 'v'", "k", "v"},
        {"\"k\" = v", "k", "v"},
        {"k = \"\"", "k", ""},
        {"k = ''", "k", ""},
        {"k = \"  v  \"", "k", "  v  "},
        {"k = \"a\"b\"", "k", "a\"b"},
        {"k = 'a\"b'", "k", "a\"b"},
        {"k = \"a\\\"b\"", "k", "a\\\"b"},
        {"k = \"\"v\"\"", "k", "\"v\""},
        {"k = \"v", "k", "\"v"},
        {"k = v\"", "k", "v\""},
        {"k = \"x'", "k", "\"x'"},
        {"k = 'x\"", "k", "'x\""},
        {"k = x", "k", "x"},
        {"k =  x  ", "k", "x"},
        {"# note = v", "# note", "v"},
        {"k = v\r", "k", "v\r"},
        {"k = \"v\"\r", "k", "\"v\"\r"},
        {"k = \r", "k", "\r"},
        {"k = \"v\" # note", "k", "\"v\" # note"},
        {"a b = c d", "a b", "c d"},
    };
    for (const Row& row : table) {
        const auto pair = GetKeyValuePair(row.line, 1);
        EXPECT_EQ(pair.first, row.key) << row.line;
        EXPECT_EQ(pair.second, row.value) << row.line;
    }
}

TEST(KeyValuePairTest, Errors) {
    struct Row {
        const char* line;
        int number;
        const char* text;
    };
    const Row table[] = {
        {"no delimiter", 1, "Error parsing configuration on line 1: no delimiter found"},
        {"# note", 27, "Error parsing configuration on line 27: no delimiter found"},
        {"", 3, "Error parsing configuration on line 3: no delimiter found"},
        {"k = \"", 12, "Error parsing configuration at line 12: invalid quoting"},
        {"k = '", 1, "Error parsing configuration at line 1: invalid quoting"},
        {" ' = v", 9, "Error parsing configuration at line 9: invalid quoting"},
        {"k =\t\"\t", -4, "Error parsing configuration at line -4: invalid quoting"},
    };
    for (const Row& row : table) {
        EXPECT_EQ(TextOf<ConfigurationError>([&] { GetKeyValuePair(row.line, row.number); }),
                  row.text);
    }
}

TEST(StringCastTest, DecimalTextOfANumber) {
    EXPECT_EQ(string_cast<int>(0), "0");
    EXPECT_EQ(string_cast<int>(-17), "-17");
    EXPECT_EQ(string_cast<int>(2147483647), "2147483647");
}

TEST_F(ConfigurationTest, Reads) {
    EXPECT_EQ(Read(""), Map());
    EXPECT_EQ(Read("\n \t \n\n"), Map());
    EXPECT_EQ(Read("b = \"2\"\na = \"1\"\n"), (Map{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(Read("a = \"1\""), (Map{{"a", "1"}})) << "last line without a line feed";
    EXPECT_EQ(Read("a = 1\r\n"), (Map{{"a", "1\r"}}));
    EXPECT_EQ(Read("a = \"1\"\r\n"), (Map{{"a", "\"1\"\r"}}));
    EXPECT_EQ(Read("k = " + std::string(100000, 'v') + "\n")["k"].size(), 100000u);
}

TEST_F(ConfigurationTest, FirstOfEqualKeysWins) {
    EXPECT_EQ(Read("key1 = \"a\"\nkey1 = \"b\"\n'key1' = c\n"), (Map{{"key1", "a"}}));
}

TEST_F(ConfigurationTest, ErrorsTellTheLineCountingBlankOnes) {
    EXPECT_EQ(ReadError("a = 1\n \t\n\nbroken\n"),
              "Error parsing configuration on line 4: no delimiter found");
    EXPECT_EQ(ReadError("\n\t\nb = '\n"), "Error parsing configuration at line 3: invalid quoting");
    EXPECT_EQ(ReadError("# a comment"),
              "Error parsing configuration on line 1: no delimiter found");
    EXPECT_EQ(ReadError("a = 1\n\r\n"), "Error parsing configuration on line 2: no delimiter found")
        << "a carriage return is no blank";
}

TEST_F(ConfigurationTest, FileThatCannotBeOpened) {
    EXPECT_EQ(TextOf<IOError>([&] { Configuration configuration(path); }),
              "Unable to open '" + path + "': No such file or directory");
    EXPECT_EQ(NamesIn(folder), std::vector<std::string>()) << "nothing is created";
    WriteFile(path, "");
    EXPECT_EQ(TextOf<IOError>([&] { Configuration configuration(path + "/below"); }),
              "Unable to open '" + path + "/below': Not a directory");
}

TEST_F(ConfigurationTest, FileThatCannotBeRead) {
    EXPECT_EQ(TextOf<IOError>([&] { Configuration configuration(folder); }),
              "Unable to open '" + folder + "': Is a directory");
}

TEST_F(ConfigurationTest, LookUpNeverAddsAKey) {
    WriteFile(path, "a = 1\n");
    Configuration configuration(path);
    const Configuration& constant = configuration;
    EXPECT_EQ(constant["a"], "1");
    configuration["a"] = "2";
    EXPECT_EQ(constant["a"], "2");
    const std::string text = "The specified key 'b' was not found in this configuration";
    EXPECT_EQ(TextOf<InvalidKeyException>([&] { configuration["b"] = "x"; }), text);
    EXPECT_EQ(TextOf<InvalidKeyException>([&] { constant["b"]; }), text);
    EXPECT_EQ(configuration, (Map{{"a", "2"}}));
    configuration.insert({"b", "3"});
    EXPECT_EQ(configuration["b"], "3");
}

TEST_F(ConfigurationTest, WritesKeysInOrder) {
    WriteFile(path, "b = 2\na = 1\nB = 3\n");
    Configuration(path).Write();
    EXPECT_EQ(ReadFile(path), "B = \"3\"\na = \"1\"\nb = \"2\"\n");
    EXPECT_EQ(NamesIn(folder), std::vector<std::string>{"settings.conf"});
}

TEST_F(ConfigurationTest, EmptyMapWritesAnEmptyFile) {
    WriteFile(path, "a = 1\n");
    Configuration configuration(path);
    configuration.clear();
    configuration.Write();
    EXPECT_EQ(ReadFile(path), "");
}

TEST_F(ConfigurationTest, EveryValueReadsBackUnchanged) {
    const Map values = {{"1", ""},       {"2", " blanks "}, {"3", "\"quoted\""}, {"4", "'"},
                        {"5", "\""},     {"6", "a=b"},      {"7", "\ttab\r"},    {"8", "\"x'"},
                        {"9", "\\n %s"}, {"a", "# not"}};
    WriteFile(path, "");
    Configuration configuration(path);
    configuration.insert(values.begin(), values.end());
    configuration.Write();
    EXPECT_EQ(Configuration(path), values);
}

TEST_F(ConfigurationTest, KeysAreWrittenRaw) {
    WriteFile(path, "");
    Configuration configuration(path);
    configuration.insert({" k ", "v"});
    configuration.Write();
    EXPECT_EQ(ReadFile(path), " k  = \"v\"\n");
}

TEST_F(ConfigurationTest, DestroyingWritesNothing) {
    WriteFile(path, "a = 1\n");
    {
        Configuration configuration(path);
        configuration["a"] = "2";
    }
    EXPECT_EQ(ReadFile(path), "a = 1\n");
}

TEST_F(ConfigurationTest, WriteGoesToTheFileThatWasReadAndKeepsItsMode) {
    WriteFile(path, "a = 1\n");
    std::filesystem::permissions(path, std::filesystem::perms(0640));
    const Configuration configuration(path);
    const Configuration copy(configuration);
    std::filesystem::remove(path);
    copy.Write();
    EXPECT_EQ(ReadFile(path), "a = \"1\"\n");
    EXPECT_EQ(Mode(path), 0600u) << "a new file";
    std::filesystem::permissions(path, std::filesystem::perms(0640));
    configuration.Write();
    EXPECT_EQ(Mode(path), 0640u);
}

TEST_F(ConfigurationTest, WriteWithoutATemporaryFileKeepsTheOldOne) {
    WriteFile(path, "a = 1\n");
    const Configuration configuration(path);
    const faults::Scope scope;
    faults::hooks.mkstemp = [](const char*) { return EACCES; };
    EXPECT_EQ(TextOf<IOError>([&] { configuration.Write(); }),
              "Unable to create temporary file to write '" + path + "': Permission denied");
    EXPECT_EQ(ReadFile(path), "a = 1\n");
}

/// A file system of a few pages.
class FullDiskTest : public ConfigurationTest {
protected:
    FullDiskTest() { EXPECT_EQ(mount("small", folder.c_str(), "tmpfs", 0, "size=16k"), 0); }
    ~FullDiskTest() override { umount(folder.c_str()); }
};

TEST_F(FullDiskTest, WriteThatDoesNotFitKeepsTheOldFile) {
    WriteFile(path, "a = 1\n");
    Configuration configuration(path);
    configuration["a"] = std::string(50000, 'x');
    EXPECT_EQ(TextOf<IOError>([&] { configuration.Write(); }),
              "Unable to write '" + path + "': No space left on device");
    EXPECT_EQ(ReadFile(path), "a = 1\n");
}

TEST_F(FullDiskTest, LaterLinesThatFitDoNotHideTheOneThatDidNot) {
    WriteFile(path, "a = 1\nb = 2\n");
    Configuration configuration(path);
    configuration["a"] = std::string(50000, 'x');
    EXPECT_EQ(TextOf<IOError>([&] { configuration.Write(); }).rfind("Unable to write '", 0), 0u);
    EXPECT_EQ(ReadFile(path), "a = 1\nb = 2\n");
}

template <typename Settings>
void ExpectBoundTo(const std::string& path) {
    SCOPED_TRACE(path);
    static_assert(sizeof(Settings) == sizeof(Configuration));
    static_assert(std::is_base_of_v<Configuration, Settings>);
    WriteFile(path, "z = 1\nprovider = p\nremote-authentication-store = s\n");
    {
        Settings settings;
        EXPECT_EQ(settings,
                  (Map{{"z", "1"}, {"provider", "p"}, {"remote-authentication-store", "s"}}));
        settings["z"] = "2";
        EXPECT_EQ(Settings()["z"], "1") << "each object reads the file";
        settings.Write();
    }
    EXPECT_EQ(ReadFile(path), "provider = \"p\"\nremote-authentication-store = \"s\"\nz = \"2\"\n");
    WriteFile(path, "broken\n");
    EXPECT_EQ(TextOf<ConfigurationError>([] { Settings(); }),
              "Error parsing configuration on line 1: no delimiter found");
    std::filesystem::remove(path);
    EXPECT_EQ(TextOf<IOError>([] { Settings(); }),
              "Unable to open '" + path + "': No such file or directory");
}

TEST_F(ConfigurationTest, TheLibrarysThreeFiles) {
    ExpectBoundTo<AuthenticationConfiguration>("/etc/tessary/tesauth/authentication.conf");
    ExpectBoundTo<ProviderConfiguration>("/etc/tessary/tesauth/provider.conf");
    ExpectBoundTo<APXProviderConfiguration>("/etc/tessary/tesauth/apxprovider.conf");
}

} // namespace
