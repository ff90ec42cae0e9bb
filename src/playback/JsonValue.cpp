// A small JSON document model: parsing with limits, and compact or indented writing.
#include "playback/JsonValue.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vaporix {

JsonValue JsonValue::boolean(bool b) {
    JsonValue v;
    v.mKind = Kind::Bool;
    v.mBool = b;
    return v;
}

JsonValue JsonValue::number(double d) {
    JsonValue v;
    v.mKind = Kind::Number;
    v.mNumber = d;
    return v;
}

JsonValue JsonValue::single(float f) {
    JsonValue v = number(static_cast<double>(f));
    v.mSingle = true;
    return v;
}

JsonValue JsonValue::string(std::string s) {
    JsonValue v;
    v.mKind = Kind::String;
    v.mString = std::move(s);
    return v;
}

JsonValue JsonValue::array() {
    JsonValue v;
    v.mKind = Kind::Array;
    return v;
}

JsonValue JsonValue::object() {
    JsonValue v;
    v.mKind = Kind::Object;
    return v;
}

const JsonValue* JsonValue::find(const std::string& key) const {
    if (mKind != Kind::Object) return nullptr;
    // The last of repeated names wins, as most readers do.
    for (auto it = mMembers.rbegin(); it != mMembers.rend(); ++it)
        if (it->first == key) return &it->second;
    return nullptr;
}

void JsonValue::append(std::string key, JsonValue v) {
    mMembers.emplace_back(std::move(key), std::move(v));
}

JsonValue& JsonValue::push(JsonValue v) {
    mItems.push_back(std::move(v));
    return mItems.back();
}

JsonValue& JsonValue::set(const std::string& key, JsonValue v) {
    for (auto& m : mMembers)
        if (m.first == key) return m.second = std::move(v);
    mMembers.emplace_back(key, std::move(v));
    return mMembers.back().second;
}

// ---------------------------------------------------------------------------------------------
// Writing

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

void writeString(std::string& out, const std::string& s) {
    out += '"';
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
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
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
    out += '"';
}

void writeNumber(std::string& out, double d, bool single) {
    if (!std::isfinite(d)) {
        out += "null";
        return;
    }
    char buf[40];
    if (single && !(d == std::floor(d) && std::fabs(d) < 1e15)) {
        const float f = static_cast<float>(d);
        for (int digits = 6; digits <= 9; ++digits) {
            std::snprintf(buf, sizeof buf, "%.*g", digits, d);
            if (std::strtof(buf, nullptr) == f) break;
        }
        out += buf;
        return;
    }
    // Integers print as integers; other values with the shortest of 9 (float) or 17 digits
    // that reads back exactly.
    if (d == std::floor(d) && std::fabs(d) < 1e15) {
        std::snprintf(buf, sizeof buf, "%.0f", d);
    } else {
        std::snprintf(buf, sizeof buf, "%.9g", d);
        if (std::strtod(buf, nullptr) != d) std::snprintf(buf, sizeof buf, "%.17g", d);
    }
    out += buf;
}

}  // namespace

void JsonValue::writeTo(std::string& out, int indent, int level) const {
    auto newline = [&](int lvl) {
        if (indent <= 0) return;
        out += '\n';
        out.append(static_cast<size_t>(indent * lvl), ' ');
    };
    switch (mKind) {
        case Kind::Null:
            out += "null";
            break;
        case Kind::Bool:
            out += mBool ? "true" : "false";
            break;
        case Kind::Number:
            writeNumber(out, mNumber, mSingle);
            break;
        case Kind::String:
            writeString(out, mString);
            break;
        case Kind::Array: {
            // Arrays of plain numbers stay on one line: curve tables and vectors read better so.
            bool flat = true;
            for (const JsonValue& v : mItems) flat = flat && !v.isArray() && !v.isObject();
            out += '[';
            for (size_t i = 0; i < mItems.size(); ++i) {
                if (i) out += flat && indent > 0 ? ", " : ",";
                if (!flat) newline(level + 1);
                mItems[i].writeTo(out, indent, level + 1);
            }
            if (!flat && !mItems.empty()) newline(level);
            out += ']';
            break;
        }
        case Kind::Object: {
            out += '{';
            for (size_t i = 0; i < mMembers.size(); ++i) {
                if (i) out += ',';
                newline(level + 1);
                writeString(out, mMembers[i].first);
                out += indent > 0 ? ": " : ":";
                mMembers[i].second.writeTo(out, indent, level + 1);
            }
            if (!mMembers.empty()) newline(level);
            out += '}';
            break;
        }
    }
}

std::string JsonValue::write(int indent) const {
    std::string out;
    writeTo(out, indent, 0);
    if (indent > 0) out += '\n';
    return out;
}

// ---------------------------------------------------------------------------------------------
// Parsing

namespace {

class Parser {
public:
    explicit Parser(const std::string& text) : mText(text) {}

    bool document(JsonValue& out, std::string& error) {
        bool ok = value(out, 0);
        if (ok) {
            skipSpace();
            if (mPos != mText.size()) ok = fail("unexpected text after the document");
        }
        if (!ok) error = mError;
        return ok;
    }

private:
    static constexpr int MAX_DEPTH = 128;

    bool fail(const char* what) {
        if (mError.empty()) {
            int line = 1;
            for (size_t i = 0; i < mPos && i < mText.size(); ++i)
                if (mText[i] == '\n') ++line;
            mError = std::string(what) + " at line " + std::to_string(line);
        }
        return false;
    }

    void skipSpace() {
        while (mPos < mText.size() && (mText[mPos] == ' ' || mText[mPos] == '\t' ||
                                       mText[mPos] == '\n' || mText[mPos] == '\r'))
            ++mPos;
    }

    bool literal(const char* word) {
        const size_t n = std::strlen(word);
        if (mText.compare(mPos, n, word) != 0) return fail("unknown literal");
        mPos += n;
        return true;
    }

    bool value(JsonValue& out, int depth) {
        if (depth > MAX_DEPTH) return fail("nesting too deep");
        skipSpace();
        if (mPos >= mText.size()) return fail("unexpected end of text");
        const char c = mText[mPos];
        if (c == '{') return object(out, depth);
        if (c == '[') return array(out, depth);
        if (c == '"') {
            std::string s;
            if (!string(s)) return false;
            out = JsonValue::string(std::move(s));
            return true;
        }
        if (c == 't') return literal("true") && (out = JsonValue::boolean(true), true);
        if (c == 'f') return literal("false") && (out = JsonValue::boolean(false), true);
        if (c == 'n') return literal("null") && (out = JsonValue(), true);
        return number(out);
    }

    bool number(JsonValue& out) {
        const size_t start = mPos;
        if (mPos < mText.size() && mText[mPos] == '-') ++mPos;
        auto digits = [&] {
            const size_t from = mPos;
            while (mPos < mText.size() && mText[mPos] >= '0' && mText[mPos] <= '9') ++mPos;
            return mPos > from;
        };
        if (!digits()) return fail("bad number");
        if (mPos < mText.size() && mText[mPos] == '.') {
            ++mPos;
            if (!digits()) return fail("bad number");
        }
        if (mPos < mText.size() && (mText[mPos] == 'e' || mText[mPos] == 'E')) {
            ++mPos;
            if (mPos < mText.size() && (mText[mPos] == '+' || mText[mPos] == '-')) ++mPos;
            if (!digits()) return fail("bad number");
        }
        out = JsonValue::number(std::strtod(mText.substr(start, mPos - start).c_str(), nullptr));
        return true;
    }

    static void appendUtf8(std::string& s, unsigned cp) {
        if (cp < 0x80) {
            s += static_cast<char>(cp);
        } else if (cp < 0x800) {
            s += static_cast<char>(0xC0 | (cp >> 6));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            s += static_cast<char>(0xE0 | (cp >> 12));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            s += static_cast<char>(0xF0 | (cp >> 18));
            s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }

    bool hex4(unsigned& out) {
        if (mPos + 4 > mText.size()) return fail("bad escape");
        out = 0;
        for (int k = 0; k < 4; ++k) {
            const char h = mText[mPos++];
            out <<= 4;
            if (h >= '0' && h <= '9')
                out |= static_cast<unsigned>(h - '0');
            else if (h >= 'a' && h <= 'f')
                out |= static_cast<unsigned>(h - 'a' + 10);
            else if (h >= 'A' && h <= 'F')
                out |= static_cast<unsigned>(h - 'A' + 10);
            else
                return fail("bad escape");
        }
        return true;
    }

    bool string(std::string& s) {
        ++mPos;  // opening quote
        while (mPos < mText.size()) {
            const char c = mText[mPos++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return fail("control character in string");
            if (c != '\\') {
                s += c;
                continue;
            }
            if (mPos >= mText.size()) break;
            const char e = mText[mPos++];
            switch (e) {
                case '"':
                    s += '"';
                    break;
                case '\\':
                    s += '\\';
                    break;
                case '/':
                    s += '/';
                    break;
                case 'b':
                    s += '\b';
                    break;
                case 'f':
                    s += '\f';
                    break;
                case 'n':
                    s += '\n';
                    break;
                case 'r':
                    s += '\r';
                    break;
                case 't':
                    s += '\t';
                    break;
                case 'u': {
                    unsigned cp = 0;
                    if (!hex4(cp)) return false;
                    // A surrogate pair makes one code point; a lone half becomes U+FFFD.
                    if (cp >= 0xD800 && cp < 0xDC00 && mText.compare(mPos, 2, "\\u") == 0) {
                        mPos += 2;
                        unsigned lo = 0;
                        if (!hex4(lo)) return false;
                        cp = lo >= 0xDC00 && lo < 0xE000
                                 ? 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00)
                                 : 0xFFFD;
                    } else if (cp >= 0xD800 && cp < 0xE000) {
                        cp = 0xFFFD;
                    }
                    appendUtf8(s, cp);
                    break;
                }
                default:
                    return fail("bad escape");
            }
        }
        return fail("unterminated string");
    }

    bool array(JsonValue& out, int depth) {
        ++mPos;
        out = JsonValue::array();
        skipSpace();
        if (mPos < mText.size() && mText[mPos] == ']') {
            ++mPos;
            return true;
        }
        for (;;) {
            JsonValue item;
            if (!value(item, depth + 1)) return false;
            out.push(std::move(item));
            skipSpace();
            if (mPos >= mText.size()) return fail("unterminated array");
            const char c = mText[mPos++];
            if (c == ']') return true;
            if (c != ',') return fail("expected ',' or ']'");
        }
    }

    bool object(JsonValue& out, int depth) {
        ++mPos;
        out = JsonValue::object();
        skipSpace();
        if (mPos < mText.size() && mText[mPos] == '}') {
            ++mPos;
            return true;
        }
        for (;;) {
            skipSpace();
            if (mPos >= mText.size() || mText[mPos] != '"') return fail("expected a member name");
            std::string key;
            if (!string(key)) return false;
            skipSpace();
            if (mPos >= mText.size() || mText[mPos] != ':') return fail("expected ':'");
            ++mPos;
            JsonValue item;
            if (!value(item, depth + 1)) return false;
            out.append(std::move(key), std::move(item));
            skipSpace();
            if (mPos >= mText.size()) return fail("unterminated object");
            const char c = mText[mPos++];
            if (c == '}') return true;
            if (c != ',') return fail("expected ',' or '}'");
        }
    }

    const std::string& mText;
    size_t mPos = 0;
    std::string mError;
};

}  // namespace

bool JsonValue::parse(const std::string& text, JsonValue& out, std::string& error) {
    Parser p(text);
    JsonValue v;
    if (!p.document(v, error)) return false;
    out = std::move(v);
    return true;
}

std::string jsonQuote(const std::string& text) {
    std::string out;
    writeString(out, text);
    return out;
}

}  // namespace vaporix
