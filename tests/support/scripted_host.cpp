#include "scripted_host.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace scripted {

namespace {

/// The mark that the private host leaves; what follows would spoil any other host.
void InsistOnPrivateHost() {
    if (access("/run/private-host", F_OK) != 0) {
        std::fprintf(stderr, "this test changes system files: run it on a private host\n");
        std::_Exit(1);
    }
}

void Clear() {
    for (const char* folder : {"/etc/tessary", pluginDirectory, "/var/lib/tessary"}) {
        fs::remove_all(folder);
    }
}

} // namespace

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::trunc | std::ios::binary);
    file << text;
    file.close();
    ASSERT_TRUE(file) << "cannot write " << path;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return "(missing)";
    }
    return std::string(std::istreambuf_iterator<char>(file), {});
}

unsigned Mode(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

std::vector<std::string> NamesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void Shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

void InstallPlugin(const std::string& builtFile, const std::string& name,
                   const std::string& subfolder) {
    const std::string folder = pluginDirectory + subfolder;
    fs::create_directories(folder);
    const std::string file = folder + "lib" + name + ".so";
    fs::remove(file); // it may be loaded: never write into it
    fs::copy_file(builtFile, file);
}

bool IsLoaded(const std::string& path) {
    void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

HostTest::HostTest() {
    InsistOnPrivateHost();
    Clear();
    fs::create_directories("/etc/tessary/tesauth");
    fs::create_directories(pluginDirectory);
    WriteFile(authenticationFile, "remote-authentication-store = \"None\"\n");
    WriteFile(providerFile, "provider = \"adldap\"\n");
    WriteFile(proxyProviderFile, "provider = \"apxhttps\"\n");
}

HostTest::~HostTest() {
    Clear();
}

ProviderTest::ProviderTest() {
    InstallPlugin(SCRIPTED_PROVIDER_FILE, "scripted");
    WriteFile(providerFile, "provider = \"scripted\"\n");
    handle_ = dlopen("/usr/libexec/tesauth/libscripted.so", RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        throw std::runtime_error(dlerror());
    }
    using Api = const ScriptedProvider* (*)();
    provider = reinterpret_cast<Api>(dlsym(handle_, "scripted_provider"))();
    provider->reset();
}

ProviderTest::~ProviderTest() {
    provider->reset(); // lets go of what hangs
    dlclose(handle_);
}

void ProviderTest::Set(const std::string& key, const std::string& value) const {
    provider->set(key.c_str(), value.c_str());
}

unsigned ProviderTest::Calls(const std::string& operation) const {
    return provider->calls(operation.c_str());
}

std::vector<std::string> ProviderTest::Arguments(const std::string& operation,
                                                 unsigned call) const {
    std::vector<std::string> arguments;
    for (unsigned i = 0; i < provider->argumentCount(operation.c_str(), call); ++i) {
        const char* text = provider->argument(operation.c_str(), call, i);
        arguments.push_back(text != nullptr ? text : "(null)");
    }
    return arguments;
}

std::vector<const void*> ProviderTest::Returned() const {
    std::vector<const void*> buffers;
    for (unsigned i = 0; i < provider->returnedCount(); ++i) {
        buffers.push_back(provider->returned(i));
    }
    return buffers;
}

std::vector<const void*> ProviderTest::Released() const {
    std::vector<const void*> buffers;
    for (unsigned i = 0; i < provider->releasedCount(); ++i) {
        buffers.push_back(provider->released(i));
    }
    return buffers;
}

} // namespace scripted
