// The system's string class: a std::string with printf-style formatting and C-string access.
#pragma once

#include <cstdarg>
#include <string>

namespace vaporix {

class iString : public std::string {
public:
    using std::string::string;
    iString() = default;
    iString(const std::string& s) : std::string(s) {}
    iString(std::string&& s) : std::string(std::move(s)) {}

    /// printf-style formatting into a new string.
    static iString format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static iString vformat(const char* fmt, va_list args);

    /// Appends a printf-style text.
    iString& appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    /// Lower-case copy (ASCII letters only).
    iString lower() const;
    bool endsWith(const std::string& suffix) const;
    bool startsWith(const std::string& prefix) const;
};

}  // namespace vaporix
