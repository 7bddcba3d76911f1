#include "freed_memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::string_view sought;
std::atomic<bool> looking = false;
std::atomic<int> found = 0;

void Look(void* memory) {
    if (looking && memory != nullptr) {
        const std::string_view bytes(static_cast<char*>(memory), malloc_usable_size(memory));
        found += bytes.find(sought) != std::string_view::npos;
    }
}

} // namespace

// Where only one of a pair is inlined, the compiler takes them for mismatched.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    Look(memory);
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    Look(memory);
    std::free(memory);
}

FreedMemoryWatch::FreedMemoryWatch(std::string_view secret) {
    sought = secret;
    found = 0;
    looking = true;
}

FreedMemoryWatch::~FreedMemoryWatch() {
    looking = false;
}

int FreedMemoryWatch::Found() const {
    return found;
}
