// Formatting helpers of iString.
#include "foundation/iString.h"

#include <cctype>
#include <cstdio>

namespace vaporix {

iString iString::vformat(const char* fmt, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    iString out;
    if (n <= 0) return out;
    out.resize(static_cast<size_t>(n));
    std::vsnprintf(out.data(), static_cast<size_t>(n) + 1, fmt, args);
    return out;
}

iString iString::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    iString out = vformat(fmt, args);
    va_end(args);
    return out;
}

iString& iString::appendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    append(vformat(fmt, args));
    va_end(args);
    return *this;
}

iString iString::lower() const {
    iString out(*this);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

bool iString::endsWith(const std::string& suffix) const {
    return size() >= suffix.size() && compare(size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool iString::startsWith(const std::string& prefix) const {
    return size() >= prefix.size() && compare(0, prefix.size(), prefix) == 0;
}

}  // namespace vaporix
