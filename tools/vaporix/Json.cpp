// JSON writer.
#include "Json.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "playback/JsonValue.h"

namespace vaporix::cli {

std::string JsonWriter::escape(const std::string& s) { return jsonQuote(s); }

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
