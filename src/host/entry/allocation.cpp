// The operators of memory in libkeyview-host.so, which has a C++ runtime of its own. The module for
// clusters has the program's, and objects go from one to the other; so a program that replaces the
// operators, as under a sanitizer, must get every block of both. In a program without them the
// module's are those of the C++ library, which call malloc and free.
#include <dlfcn.h>

#include <cstdlib>
#include <new>

namespace {

// Of the program. Those that allocate throw nothing: it would be an exception of another runtime.
struct operators {
    void *(*allocate)(size_t, const std::nothrow_t &);
    void *(*allocate_array)(size_t, const std::nothrow_t &);
    void (*free)(void *);
    void (*free_array)(void *);
};

template <typename operation>
bool find(const char *name, operation **out) {
    *out = reinterpret_cast<operation *>(dlsym(RTLD_DEFAULT, name));
    return *out != nullptr;
}

operators find_operators() {
    operators found = {};
    bool all = find("_ZnwmRKSt9nothrow_t", &found.allocate) &&
               find("_ZnamRKSt9nothrow_t", &found.allocate_array) && find("_ZdlPv", &found.free) &&
               find("_ZdaPv", &found.free_array);
    return all ? found : operators();
}

// Null in a program that has not all of them, whatever it loads later.
const operators &of_program() {
    static const operators found = find_operators();
    return found;
}

void *required(void *block) {
    return block != nullptr ? block : throw std::bad_alloc();
}

}  // namespace

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    auto *allocate = of_program().allocate;
    return allocate != nullptr ? allocate(size, std::nothrow) : malloc(size == 0 ? 1 : size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    auto *allocate = of_program().allocate_array;
    return allocate != nullptr ? allocate(size, std::nothrow) : malloc(size == 0 ? 1 : size);
}
void *operator new(size_t size) {
    return required(operator new(size, std::nothrow));
}
void *operator new[](size_t size) {
    return required(operator new[](size, std::nothrow));
}

void operator delete(void *block) noexcept {
    auto *give_back = of_program().free;
    give_back != nullptr ? give_back(block) : free(block);
}
void operator delete[](void *block) noexcept {
    auto *give_back = of_program().free_array;
    give_back != nullptr ? give_back(block) : free(block);
}
void operator delete(void *block, size_t) noexcept {
    operator delete(block);
}
void operator delete[](void *block, size_t) noexcept {
    operator delete[](block);
}
