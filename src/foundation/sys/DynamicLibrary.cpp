// Dynamic libraries on POSIX: dlopen, dlsym and /proc/self/exe.
#include "foundation/sys/DynamicLibrary.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

namespace vaporix::sys {

void* openLibrary(const std::string& path, std::string* error) {
    // RTLD_LOCAL: the modules' own copies of what they link stay private to them.
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle && error) {
        const char* why = dlerror();
        *error = why ? why : "unknown error";
    }
    return handle;
}

void* findSymbol(void* library, const char* name) {
    if (!library || !name) return nullptr;
    return dlsym(library, name);
}

void closeLibrary(void* library) {
    if (library) dlclose(library);
}

std::string executableFolder() {
    char buffer[PATH_MAX + 1];
    const ssize_t n = readlink("/proc/self/exe", buffer, PATH_MAX);
    if (n <= 0) return {};
    std::string path(buffer, static_cast<size_t>(n));
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {};
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

}  // namespace vaporix::sys
