// The operators of memory in libkeyview-host.so, which has a C++ runtime of its own. The module for
// clusters has the program's, and objects go from one to the other; so a program that replaces the
// operators, as under a sanitizer, must get every block of both. In a program without them the
// module's are those of the C++ library, which call malloc and free.
#include <dlfcn.h>

#include <cstdlib>
#include <new>

namespace {

// Of the program; null if it has none.
template <typename operation>
operation *of_program(const char *name) {
    return reinterpret_cast<operation *>(dlsym(RTLD_DEFAULT, name));
}

// Those without an exception, which would be one of another runtime.
using allocation = void *(size_t, const std::nothrow_t &);
using deallocation = void(void *);

void *allocate(allocation *own, size_t size) {
    return own != nullptr ? own(size, std::nothrow) : malloc(size == 0 ? 1 : size);
}

void *allocate_one(size_t size) {
    static allocation *const own = of_program<allocation>("_ZnwmRKSt9nothrow_t");
    return allocate(own, size);
}

void *allocate_array(size_t size) {
    static allocation *const own = of_program<allocation>("_ZnamRKSt9nothrow_t");
    return allocate(own, size);
}

void *required(void *block) {
    return block != nullptr ? block : throw std::bad_alloc();
}

}  // namespace

void *operator new(size_t size) {
    return required(allocate_one(size));
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return allocate_one(size);
}
void *operator new[](size_t size) {
    return required(allocate_array(size));
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return allocate_array(size);
}

void operator delete(void *block) noexcept {
    static deallocation *const own = of_program<deallocation>("_ZdlPv");
    own != nullptr ? own(block) : free(block);
}
void operator delete(void *block, size_t) noexcept {
    operator delete(block);
}
void operator delete[](void *block) noexcept {
    static deallocation *const own = of_program<deallocation>("_ZdaPv");
    own != nullptr ? own(block) : free(block);
}
void operator delete[](void *block, size_t) noexcept {
    operator delete[](block);
}
