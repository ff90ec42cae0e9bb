// JSON writer.
#include "Json.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vaporix::cli {

namespace {

/// Length of the well-formed UTF-8 sequence at `p` (of `n` bytes left), or 0.
size_t utf8Length(const unsigned char* p, size_t n) {
    const unsigned char c = p[0];
    size_t len;
    unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0) lo = 0xA0;  // no overlong forms
        if (c == 0xED) hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;  // nothing beyond U+10FFFF
    } else {
        return 0;
    }
    if (n < len || p[1] < lo || p[1] > hi) return 0;
    for (size_t k = 2; k < len; ++k)
        if (p[k] < 0x80 || p[k] > 0xBF) return 0;
    return len;
}

}  // namespace

std::string JsonWriter::escape(const std::string& s) {
    std::string out = "\"";
    const auto* bytes = reinterpret_cast<const unsigned char*>(s.data());
    for (size_t i = 0; i < s.size(); ++i) {
        const unsigned char c = bytes[i];
        if (c >= 0x80) {
            // Text from files need not be UTF-8: a byte that starts no well-formed sequence is
            // written as the character of that number, so that the document stays valid.
            const size_t len = utf8Length(bytes + i, s.size() - i);
            if (len) {
                out.append(s, i, len);
                i += len - 1;
            } else {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            }
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

void JsonWriter::newline() {
    mOut += '\n';
    mOut.append(mHasItems.size() * 2, ' ');
}

void JsonWriter::beforeValue() {
    if (mAfterKey) {
        mAfterKey = false;
        return;
    }
    if (!mHasItems.empty()) {
        if (mHasItems.back()) mOut += mInline.back() ? ", " : ",";
        mHasItems.back() = true;
        if (!mInline.back()) newline();
    }
}

JsonWriter& JsonWriter::beginObject() {
    beforeValue();
    mOut += '{';
    mHasItems.push_back(false);
    mInline.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    const bool had = mHasItems.back();
    mHasItems.pop_back();
    mInline.pop_back();
    if (had) newline();
    mOut += '}';
    if (mHasItems.empty()) mOut += '\n';
    return *this;
}

JsonWriter& JsonWriter::beginArray(bool inlineItems) {
    beforeValue();
    mOut += '[';
    mHasItems.push_back(false);
    mInline.push_back(inlineItems);
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    const bool had = mHasItems.back();
    const bool wasInline = mInline.back();
    mHasItems.pop_back();
    mInline.pop_back();
    if (had && !wasInline) newline();
    mOut += ']';
    return *this;
}

JsonWriter& JsonWriter::key(const std::string& k) {
    beforeValue();
    mOut += escape(k) + ": ";
    mAfterKey = true;
    return *this;
}

JsonWriter& JsonWriter::value(const std::string& s) {
    beforeValue();
    mOut += escape(s);
    return *this;
}

JsonWriter& JsonWriter::value(double d) {
    if (!std::isfinite(d)) return null();
    // Shortest text that reads back as the same double.
    char buf[40];
    for (int prec = 15; prec <= 17; ++prec) {
        std::snprintf(buf, sizeof buf, "%.*g", prec, d);
        if (std::strtod(buf, nullptr) == d) break;
    }
    return raw(buf);
}

JsonWriter& JsonWriter::value(float f) {
    if (!std::isfinite(f)) return null();
    // Shortest text that reads back as the same float32.
    char buf[40];
    for (int prec = 6; prec <= 9; ++prec) {
        std::snprintf(buf, sizeof buf, "%.*g", prec, static_cast<double>(f));
        if (std::strtof(buf, nullptr) == f) break;
    }
    return raw(buf);
}

JsonWriter& JsonWriter::value(int64_t i) { return raw(std::to_string(i)); }

JsonWriter& JsonWriter::value(bool b) { return raw(b ? "true" : "false"); }

JsonWriter& JsonWriter::null() { return raw("null"); }

JsonWriter& JsonWriter::raw(const std::string& text) {
    beforeValue();
    mOut += text;
    return *this;
}

}  // namespace vaporix::cli
