// A program of somebody else's, built against the installed library and its installed headers.
#include <iostream>

#include "hostctl/host.h"
#include "tesauth/tesauth.h"

int main() {
    tessary::authentication::AuthenticationStoreFactory factory;
    for (const std::string& name : factory.GetRegisteredStores()) {
        std::cout << name << '\n';
    }
    const auto store = factory.CreateInstance("None");
    try {
        HostCtl::HostFactory::GetHost()->GetAdvancedOptions();
    } catch (const HostCtl::Lib::HostCtlException& failure) { // which stores let through
        std::cerr << failure.what() << '\n';
        return 2;
    }
    return store->IsActive() ? 0 : 1;
}
