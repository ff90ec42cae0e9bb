// A minimal streaming JSON writer for the tool's --json output.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vaporix::cli {

/// Builds one JSON document. Keys and values alternate inside objects; the writer inserts commas
/// and indentation. Non-finite numbers are written as null.
class JsonWriter {
public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    /// An inline array keeps its items on one line (for short lists of numbers).
    JsonWriter& beginArray(bool inlineItems = false);
    JsonWriter& endArray();
    JsonWriter& key(const std::string& k);
    JsonWriter& value(const std::string& s);
    JsonWriter& value(const char* s) { return value(std::string(s)); }
    JsonWriter& value(double d);
    JsonWriter& value(float f);
    JsonWriter& value(int64_t i);
    JsonWriter& value(int i) { return value(static_cast<int64_t>(i)); }
    JsonWriter& value(uint32_t i) { return value(static_cast<int64_t>(i)); }
    JsonWriter& value(bool b);
    JsonWriter& null();
    /// Writes a number that the writer formats itself ("1e+20", "0.5").
    JsonWriter& raw(const std::string& text);

    const std::string& str() const { return mOut; }
    static std::string escape(const std::string& s);

private:
    void beforeValue();
    void newline();
    std::string mOut;
    std::vector<bool> mHasItems;  // per open container
    std::vector<bool> mInline;    // per open container
    bool mAfterKey = false;
};

}  // namespace vaporix::cli
