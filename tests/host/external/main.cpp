// A program of somebody else's, built against the installed library and its installed headers.
#include <iostream>

#include "tesauth/tesauth.h"

int main() {
    tessary::authentication::AuthenticationStoreFactory factory;
    for (const std::string& name : factory.GetRegisteredStores()) {
        std::cout << name << '\n';
    }
    const auto store = factory.CreateInstance("None");
    return store->IsActive() ? 0 : 1;
}
