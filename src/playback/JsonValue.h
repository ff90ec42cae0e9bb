// A small JSON document model: parsing with limits, and compact or indented writing.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vaporix {

/// One JSON value. Objects keep their members in document order; numbers are doubles.
class JsonValue {
public:
    enum class Kind : uint8_t { Null, Bool, Number, String, Array, Object };

    JsonValue() = default;
    static JsonValue boolean(bool b);
    static JsonValue number(double d);
    /// A number that is a 32-bit float: written with the fewest digits that read back as it.
    static JsonValue single(float f);
    static JsonValue string(std::string s);
    static JsonValue array();
    static JsonValue object();

    Kind kind() const { return mKind; }
    bool isNull() const { return mKind == Kind::Null; }
    bool isBool() const { return mKind == Kind::Bool; }
    bool isNumber() const { return mKind == Kind::Number; }
    bool isString() const { return mKind == Kind::String; }
    bool isArray() const { return mKind == Kind::Array; }
    bool isObject() const { return mKind == Kind::Object; }

    bool asBool() const { return mBool; }
    double asNumber() const { return mNumber; }
    const std::string& asString() const { return mString; }
    const std::vector<JsonValue>& items() const { return mItems; }
    const std::vector<std::pair<std::string, JsonValue>>& members() const { return mMembers; }

    /// The member named `key`, or null when absent (or when this is no object).
    const JsonValue* find(const std::string& key) const;

    /// Appends to an array; sets (or replaces) a member of an object.
    JsonValue& push(JsonValue v);
    JsonValue& set(const std::string& key, JsonValue v);
    /// Appends a member without looking for one of the same name.
    void append(std::string key, JsonValue v);

    /// The text of this value: compact, or indented by `indent` spaces per level. Numbers are
    /// written so that a float read back is the same float; non-finite ones as null.
    std::string write(int indent = 0) const;

    /// Parses a whole document. False with a message naming the line on malformed input,
    /// nesting deeper than 128 levels, or trailing text.
    static bool parse(const std::string& text, JsonValue& out, std::string& error);

private:
    void writeTo(std::string& out, int indent, int level) const;

    Kind mKind = Kind::Null;
    bool mBool = false;
    bool mSingle = false;
    double mNumber = 0.0;
    std::string mString;
    std::vector<JsonValue> mItems;
    std::vector<std::pair<std::string, JsonValue>> mMembers;
};

/// `text` as a JSON string, quotes included. Bytes that are not well-formed UTF-8 are written
/// as \u00XX, so that text read from files always gives a valid document.
std::string jsonQuote(const std::string& text);

}  // namespace vaporix
