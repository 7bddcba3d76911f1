// Joins as a client of the library does: lab_join_program DOMAIN[/UNIT] USER, the password on the
// standard input. What the library throws is printed: its class, its number, its text.

#include "tesauth/tesauth.h"

#include <cxxabi.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <typeinfo>

namespace {

struct Free {
    void operator()(char* text) const { std::free(text); }
};

std::string ClassOf(const std::exception& thrown) {
    int status = 0;
    const std::unique_ptr<char, Free> name(
        abi::__cxa_demangle(typeid(thrown).name(), nullptr, nullptr, &status));
    return status == 0 ? name.get() : typeid(thrown).name();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    std::string password;
    std::getline(std::cin, password);
    try {
        tessary::authentication::ActiveDirectoryStore store(10);
        store.JoinDomain(argv[1], {argv[2], password.c_str()}, false);
        std::cout << "joined" << std::endl;
    } catch (const tessary::authentication::Exception& thrown) {
        std::cout << ClassOf(thrown) << '\n'
                  << thrown.GetCode() << '\n'
                  << thrown.what() << std::endl;
    } catch (const std::exception& thrown) {
        std::cout << ClassOf(thrown) << "\n0\n" << thrown.what() << std::endl;
    }
    _exit(0); // calls that nobody waits for any more may still be running
}
