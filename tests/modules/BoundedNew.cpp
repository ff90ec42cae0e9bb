// Global operator new with a size cap, for tests and fuzz targets that feed damaged OpenVDB files.
//
// OpenVDB's reader allocates the compressed size a stream claims before it reads the bytes. A
// release build gets std::bad_alloc for an absurd claim (the module answers status 8); a
// sanitizer's new reports it and ends the process instead. Linked into a test program, these
// definitions replace every form of new and delete, so a claim above the cap throws as it would
// in a release build, and everything else goes to malloc (and so through the sanitizer).
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// Far more than any test grid needs, far less than the machine has.
constexpr std::size_t CAP = std::size_t{1} << 30;

void* allocate(std::size_t size, std::size_t align, bool nothrow) {
    void* p = nullptr;
    if (size <= CAP) {
        if (size == 0) size = 1;
        if (align <= alignof(std::max_align_t))
            p = std::malloc(size);
        else if (posix_memalign(&p, align, size) != 0)
            p = nullptr;
    }
    if (!p && !nothrow) throw std::bad_alloc();
    return p;
}

}  // namespace

void* operator new(std::size_t n) { return allocate(n, 0, false); }
void* operator new[](std::size_t n) { return allocate(n, 0, false); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return allocate(n, 0, true); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
    return allocate(n, 0, true);
}
void* operator new(std::size_t n, std::align_val_t a) {
    return allocate(n, static_cast<std::size_t>(a), false);
}
void* operator new[](std::size_t n, std::align_val_t a) {
    return allocate(n, static_cast<std::size_t>(a), false);
}
void* operator new(std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    return allocate(n, static_cast<std::size_t>(a), true);
}
void* operator new[](std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    return allocate(n, static_cast<std::size_t>(a), true);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}

// OpenVDB leaves the nodes it has read behind when a damaged file makes it throw half way
// through a tree's topology: a leak of the library on bad input, not of ours.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:readTopology\nleak:readBuffers\n";
}
