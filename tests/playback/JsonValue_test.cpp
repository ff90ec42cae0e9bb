// Tests of the JSON document model: parsing, limits and writing that reads back the same.
#include "playback/JsonValue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

using vaporix::JsonValue;

TEST(JsonValue, ParsesAllKinds) {
    JsonValue v;
    std::string error;
    ASSERT_TRUE(JsonValue::parse(
        R"( {"a": [1, -2.5e3, true, false, null], "b": {"c": "x\"\\\/\n\u00e9\ud83d\ude00"}} )", v,
        error))
        << error;
    const JsonValue* a = v.find("a");
    ASSERT_TRUE(a && a->isArray());
    ASSERT_EQ(a->items().size(), 5u);
    EXPECT_EQ(a->items()[1].asNumber(), -2500.0);
    EXPECT_TRUE(a->items()[2].asBool());
    EXPECT_TRUE(a->items()[4].isNull());
    EXPECT_EQ(v.find("b")->find("c")->asString(), "x\"\\/\n\xc3\xa9\xf0\x9f\x98\x80");
    EXPECT_EQ(v.find("zz"), nullptr);
}

TEST(JsonValue, RejectsMalformedInputWithALine) {
    const char* bad[] = {"",      "{",   "[1,]",     "{\"a\" 1}", "[01x]",
                         "\"abc", "tru", "[1] [2]",  "{\"a\":}",  "\"\\q\"",
                         "[1.]",  "[-]", "\"\x01\"", "{1:2}",     "[1e]"};
    for (const char* text : bad) {
        JsonValue v;
        std::string error;
        EXPECT_FALSE(JsonValue::parse(text, v, error)) << text;
        EXPECT_NE(error.find("line"), std::string::npos) << text;
    }
    JsonValue v;
    std::string error;
    EXPECT_FALSE(JsonValue::parse("[\n1,\n2,\n}", v, error));
    EXPECT_NE(error.find("line 4"), std::string::npos) << error;
}

TEST(JsonValue, DeepNestingFailsInsteadOfOverflowing) {
    std::string deep(100000, '[');
    JsonValue v;
    std::string error;
    EXPECT_FALSE(JsonValue::parse(deep, v, error));
    EXPECT_NE(error.find("deep"), std::string::npos);
    std::string ok = std::string(100, '[') + std::string(100, ']');
    EXPECT_TRUE(JsonValue::parse(ok, v, error)) << error;
}

TEST(JsonValue, NumbersReadBackExactly) {
    const double values[] = {0.0,  -1.0,         80.0,      0.1,           0.2f, 0.999f,
                             1e20, 3.4028235e38, 1.0 / 3.0, -2147483648.0, 1e-7f};
    JsonValue arr = JsonValue::array();
    for (double d : values) arr.push(JsonValue::number(d));
    arr.push(JsonValue::number(NAN));
    const std::string text = arr.write();
    JsonValue back;
    std::string error;
    ASSERT_TRUE(JsonValue::parse(text, back, error)) << error;
    for (size_t i = 0; i < std::size(values); ++i) EXPECT_EQ(back.items()[i].asNumber(), values[i]);
    EXPECT_TRUE(back.items().back().isNull());
    EXPECT_NE(text.find("80,"), std::string::npos);  // integers print as integers
}

TEST(JsonValue, WritingRoundTripsStructure) {
    JsonValue doc = JsonValue::object();
    doc.set("name", JsonValue::string("tab\tquote\"ctl\x02"));
    JsonValue& list = doc.set("list", JsonValue::array());
    list.push(JsonValue::number(1));
    list.push(JsonValue::object()).set("k", JsonValue::boolean(true));
    doc.set("name", JsonValue::string("replaced"));
    for (int indent : {0, 2}) {
        JsonValue back;
        std::string error;
        ASSERT_TRUE(JsonValue::parse(doc.write(indent), back, error)) << error;
        EXPECT_EQ(back.members().size(), 2u);
        EXPECT_EQ(back.find("name")->asString(), "replaced");
        EXPECT_TRUE(back.find("list")->items()[1].find("k")->asBool());
    }
    // Repeated names in a document: the last wins.
    JsonValue v;
    std::string error;
    ASSERT_TRUE(JsonValue::parse(R"({"a":1,"a":2})", v, error));
    EXPECT_EQ(v.find("a")->asNumber(), 2.0);
}
