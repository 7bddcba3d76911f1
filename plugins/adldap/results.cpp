#include "results.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace tessary::adldap {
namespace {

/// Copies a text to where `end` points and moves that behind it.
char* Append(char*& end, const std::string& text) {
    char* start = end;
    std::memcpy(start, text.c_str(), text.size() + 1);
    end += text.size() + 1;
    return start;
}

char* Allocate(std::size_t size) {
    void* block = std::malloc(size);
    if (!block)
        throw std::bad_alloc();
    return static_cast<char*>(block);
}

} // namespace

char* MakeText(const std::string& text) {
    char* end = Allocate(text.size() + 1);
    return Append(end, text);
}

char** MakeTexts(const std::vector<std::string>& texts) {
    std::size_t size = (texts.size() + 1) * sizeof(char*);
    for (const std::string& text : texts)
        size += text.size() + 1;
    char* end = Allocate(size);
    const auto pointers = reinterpret_cast<char**>(end);
    end += (texts.size() + 1) * sizeof(char*);
    for (std::size_t i = 0; i < texts.size(); ++i)
        pointers[i] = Append(end, texts[i]);
    pointers[texts.size()] = nullptr;
    return pointers;
}

ActiveDirectoryDomainNames** MakeDomains(const std::vector<directory::TrustedDomain>& domains) {
    using Names = ActiveDirectoryDomainNames;
    const std::size_t pointersSize = (domains.size() + 1) * sizeof(Names*);
    std::size_t size = pointersSize + domains.size() * sizeof(Names);
    for (const directory::TrustedDomain& domain : domains)
        size += domain.dnsName.size() + domain.netbiosName.size() + 2;
    char* block = Allocate(size);
    const auto pointers = reinterpret_cast<Names**>(block);
    const auto records = reinterpret_cast<Names*>(block + pointersSize);
    char* end = block + pointersSize + domains.size() * sizeof(Names);
    for (std::size_t i = 0; i < domains.size(); ++i) {
        char* dnsName = Append(end, domains[i].dnsName);
        char* netbiosName = Append(end, domains[i].netbiosName);
        pointers[i] = new (&records[i]) Names{dnsName, netbiosName};
    }
    pointers[domains.size()] = nullptr;
    return pointers;
}

} // namespace tessary::adldap
