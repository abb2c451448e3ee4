// JSON decoding and validation: a conformance table of valid and invalid
// documents, the values decoding yields, and nesting far deeper than any
// call stack could take.
#include "json.h"
#include "json_test_support.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using chmgr_test::Tree;
using chmgr_test::take;

// ---------------------------------------------------------------------------
// Conformance table. A valid document lists the compact text its tree
// encodes to; an invalid one lists nothing.

struct Case {
    const char *text;
    bool valid;
    const char *compact;
};

constexpr Case Valid(const char *text, const char *compact) {
    return Case{text, true, compact};
}

constexpr Case Invalid(const char *text) {
    return Case{text, false, nullptr};
}

const Case kCases[] = {
    // Literals
    Valid("null", "null"),
    Valid("true", "true"),
    Valid("false", "false"),
    Invalid("nul"),
    Invalid("nulll"),
    Invalid("tru"),
    Invalid("falsey"),
    Invalid("True"),
    Invalid("NULL"),
    Invalid("Infinity"),
    Invalid("-Infinity"),
    Invalid("NaN"),
    Invalid("undefined"),
    // Numbers
    Valid("0", "0"),
    Valid("-0", "-0"),
    Valid("-0.0", "-0"),
    Valid("1", "1"),
    Valid("-1", "-1"),
    Valid("123", "123"),
    Valid("1.5", "1.5"),
    Valid("-1.5", "-1.5"),
    Valid("0.5", "0.5"),
    Valid("0.1", "0.1"),
    Valid("1e5", "100000"),
    Valid("1E5", "100000"),
    Valid("1e+5", "100000"),
    Valid("1e-5", "1e-05"),
    Valid("0e0", "0"),
    Valid("0E-0", "0"),
    Valid("1.5e300", "1.5e+300"),
    Valid("-2.5E-7", "-2.5e-07"),
    Valid("123456789012345678", "1.234567890123457e+17"),
    Valid("9007199254740993", "9007199254740992"),
    Valid("1e400", "null"),   // overflows to infinity, which encodes as null
    Valid("-1e400", "null"),
    Valid("1e-400", "0"),      // underflows to zero
    Valid("4.9e-324", "4.940656458412465e-324"),
    Valid("100000000000000000000000000000000000000", "1e+38"),
    Invalid(""),
    Invalid("-"),
    Invalid("--1"),
    Invalid("+1"),
    Invalid("01"),
    Invalid("-01"),
    Invalid("00"),
    Invalid("0.0.0"),
    Invalid("1."),
    Invalid(".5"),
    Invalid("-.5"),
    Invalid("1.e5"),
    Invalid("1e"),
    Invalid("1e+"),
    Invalid("1e-"),
    Invalid("1e5.5"),
    Invalid("1ee5"),
    Invalid("0x10"),
    Invalid("1_000"),
    Invalid("- 1"),
    Invalid("1 2"),
    // Strings
    Valid("\"\"", "\"\""),
    Valid("\"abc\"", "\"abc\""),
    Valid("\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"", "\"\\\"\\\\/\\b\\f\\n\\r\\t\""),
    Valid("\"\\u0041\"", "\"A\""),
    Valid("\"\\u00e9\\u00C9\"", "\"\xC3\xA9\xC3\x89\""),
    Valid("\"\\u20AC\"", "\"\xE2\x82\xAC\""),
    Valid("\"\\uFFFF\"", "\"\xEF\xBF\xBF\""),
    Valid("\"\\u0001\"", "\"\\u0001\""),
    Valid("\"\\u001e\"", "\"\\u001E\""),
    Valid("\"\\u001f\"", "\"\x1F\""),
    Valid("\"\\u007f\"", "\"\x7F\""),
    Valid("\"\\ud83d\\ude00\"", "\"\xF0\x9F\x98\x80\""),
    Valid("\"\\uD83D\\uDE00\"", "\"\xF0\x9F\x98\x80\""),
    Valid("\"\\udbff\\udfff\"", "\"\xF4\x8F\xBF\xBF\""),
    Valid("\"\\ud800\\udc00\"", "\"\xF0\x90\x80\x80\""),
    Valid("\"\xC2\x80\"", "\"\xC2\x80\""),
    Valid("\"caf\xC3\xA9\"", "\"caf\xC3\xA9\""),
    Valid("\"\xE2\x82\xAC\"", "\"\xE2\x82\xAC\""),
    Valid("\"\xED\x9F\xBF\"", "\"\xED\x9F\xBF\""),          // U+D7FF, just below surrogates
    Valid("\"\xEE\x80\x80\"", "\"\xEE\x80\x80\""),          // U+E000, just above
    Valid("\"\xEF\xBF\xBF\"", "\"\xEF\xBF\xBF\""),
    Valid("\"\xF0\x90\x80\x80\"", "\"\xF0\x90\x80\x80\""),  // U+10000
    Valid("\"\xF4\x8F\xBF\xBF\"", "\"\xF4\x8F\xBF\xBF\""),  // U+10FFFF
    Valid("\"\x7F\"", "\"\x7F\""),
    Invalid("\"abc"),
    Invalid("\""),
    Invalid("\"\\"),
    Invalid("\"\\\""),
    Invalid("'a'"),
    Invalid("\"\\u0000\""),
    Invalid("\"a\\u0000\""),
    Invalid("\"\\u00\""),
    Invalid("\"\\u00G0\""),
    Invalid("\"\\u"),
    Invalid("\"\\x41\""),
    Invalid("\"\\a\""),
    Invalid("\"\\U0041\""),
    Invalid("\"\\'\""),
    Invalid("\"\\ud83d\""),               // lone high surrogate
    Invalid("\"\\ud83dx\""),
    Invalid("\"\\ud83d\\\""),
    Invalid("\"\\ud83d\\u0041\""),        // high followed by a non-surrogate
    Invalid("\"\\ud83d\\ud83d\""),        // two high surrogates
    Invalid("\"\\ude00\""),               // lone low surrogate
    Invalid("\"\\ude00\\ud83d\""),        // reversed pair
    Invalid("\"\\ud83d \\ude00\""),       // not directly followed
    Invalid("\"\x01\""),
    Invalid("\"\t\""),
    Invalid("\"\n\""),
    Invalid("\"\x1F\""),
    Invalid("\"\x80\""),                  // lone continuation byte
    Invalid("\"\xBF\""),
    Invalid("\"\xC0\x80\""),              // overlong NUL
    Invalid("\"\xC1\xBF\""),              // overlong
    Invalid("\"\xE0\x80\x80\""),
    Invalid("\"\xE0\x9F\xBF\""),          // overlong three-byte form
    Invalid("\"\xED\xA0\x80\""),          // encoded surrogate
    Invalid("\"\xED\xBF\xBF\""),
    Invalid("\"\xF0\x80\x80\x80\""),
    Invalid("\"\xF0\x8F\xBF\xBF\""),      // overlong four-byte form
    Invalid("\"\xF4\x90\x80\x80\""),      // above U+10FFFF
    Invalid("\"\xF5\x80\x80\x80\""),
    Invalid("\"\xF8\x88\x80\x80\x80\""),
    Invalid("\"\xFE\""),
    Invalid("\"\xFF\""),
    Invalid("\"\xC2\""),                  // truncated sequences
    Invalid("\"\xE2\x82\""),
    Invalid("\"\xF0\x9F\x98\""),
    Invalid("\"\xC2\x41\""),              // bad continuation
    Invalid("\"\xE2\x41\xAC\""),
    Invalid("\"\xC2"),
    // Arrays
    Valid("[]", "[]"),
    Valid("[ ]", "[]"),
    Valid("[1]", "[1]"),
    Valid("[1,2]", "[1,2]"),
    Valid(" [1, 2] ", "[1,2]"),
    Valid("[\n1\r,\t2 ]", "[1,2]"),
    Valid("[[]]", "[[]]"),
    Valid("[[],[[]],{}]", "[[],[[]],{}]"),
    Valid("[null,true,false,\"s\",0,{\"k\":[]}]", "[null,true,false,\"s\",0,{\"k\":[]}]"),
    Invalid("["),
    Invalid("]"),
    Invalid("[1"),
    Invalid("[1,"),
    Invalid("[1,]"),
    Invalid("[,1]"),
    Invalid("[,]"),
    Invalid("[1,,2]"),
    Invalid("[1 2]"),
    Invalid("[1}"),
    Invalid("[1]]"),
    Invalid("[[]"),
    Invalid("[1:2]"),
    // Objects
    Valid("{}", "{}"),
    Valid("{ }", "{}"),
    Valid("{\"a\":1}", "{\"a\":1}"),
    Valid("{ \"a\" : 1 , \"b\" : [ ] }", "{\"a\":1,\"b\":[]}"),
    Valid("{\"a\":1,\"a\":2}", "{\"a\":1,\"a\":2}"),
    Valid("{\"\":null}", "{\"\":null}"),
    Valid("{\"\\n\\u00e9\":{\"x\":{}}}", "{\"\\n\xC3\xA9\":{\"x\":{}}}"),
    Invalid("{"),
    Invalid("}"),
    Invalid("{\"a\"}"),
    Invalid("{\"a\":}"),
    Invalid("{\"a\" 1}"),
    Invalid("{\"a\"::1}"),
    Invalid("{a:1}"),
    Invalid("{1:1}"),
    Invalid("{null:1}"),
    Invalid("{'a':1}"),
    Invalid("{\"a\":1,}"),
    Invalid("{,\"a\":1}"),
    Invalid("{\"a\":1 \"b\":2}"),
    Invalid("{\"a\":1]"),
    Invalid("{\"a\":1"),
    Invalid("{\"\\u0000\":1}"),
    Invalid("{\"\xFF\":1}"),
    // Whitespace: only blank, tab, line feed and carriage return
    Valid(" \t\n\r1 \t\n\r", "1"),
    Valid("\n{\n\t\"a\" :\r\n[ true ]\n}\n", "{\"a\":[true]}"),
    Invalid(" "),
    Invalid("\f1"),
    Invalid("\v1"),
    Invalid("1\f"),
    Invalid("[1,\v2]"),
    Invalid("\xC2\xA0" "1"),              // no-break space
    Invalid("\xEF\xBB\xBF" "1"),          // byte order mark
    // Trailing garbage and comments
    Invalid("1x"),
    Invalid("[]x"),
    Invalid("{}{}"),
    Invalid("null null"),
    Invalid("\"a\"\"b\""),
    Invalid("[1]//"),
    Invalid("/*c*/1"),
    Invalid("1,"),
};

class JsonConformance : public ::testing::TestWithParam<Case> {};

TEST_P(JsonConformance, DecodeAndValidateGiveThePrescribedResult) {
    const Case &c = GetParam();
    Tree tree(json_decode(c.text));
    EXPECT_EQ(json_validate(c.text), c.valid);
    if (!c.valid) {
        EXPECT_EQ(tree.node, nullptr);
        return;
    }
    ASSERT_NE(tree.node, nullptr);
    char message[256] = "";
    EXPECT_TRUE(json_check(tree.node, message)) << message;
    std::string compact = take(json_encode(tree.node));
    EXPECT_EQ(compact, c.compact);
    // Both encodings decode to a tree that encodes the same way again, except
    // when a string holds 0x1F: the encoder writes that byte raw and the
    // decoder refuses raw control bytes.
    bool raw_control = compact.find('\x1F') != std::string::npos;
    for (const char *space : {static_cast<const char *>(nullptr), "\t", "  "}) {
        std::string text = take(json_stringify(tree.node, space));
        Tree again(json_decode(text.c_str()));
        if (raw_control) {
            EXPECT_EQ(again.node, nullptr) << text;
            continue;
        }
        ASSERT_NE(again.node, nullptr) << text;
        EXPECT_EQ(take(json_encode(again.node)), compact);
    }
}

std::string case_name(const ::testing::TestParamInfo<Case> &info) {
    return (info.param.valid ? "valid_" : "invalid_") + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(Documents, JsonConformance, ::testing::ValuesIn(kCases), case_name);

// ---------------------------------------------------------------------------
// Values decoding yields

TEST(JsonDecode, BlanksAroundAnArrayAreAccepted) {
    Tree tree(json_decode(" [1, 2] "));
    ASSERT_NE(tree.node, nullptr);
    EXPECT_EQ(tree.node->tag, JSON_ARRAY);
    EXPECT_EQ(json_find_element(tree.node, 0)->number_, 1);
    EXPECT_EQ(json_find_element(tree.node, 1)->number_, 2);
    EXPECT_EQ(json_find_element(tree.node, 2), nullptr);
}

TEST(JsonDecode, ListedFailures) {
    EXPECT_EQ(json_decode("[1,]"), nullptr);
    EXPECT_EQ(json_decode("01"), nullptr);
    EXPECT_EQ(json_decode("\"\\u0000\""), nullptr);
    EXPECT_FALSE(json_validate("[1,]"));
    EXPECT_FALSE(json_validate("01"));
    EXPECT_FALSE(json_validate("\"\\u0000\""));
}

// 0x1F is the one control byte the encoder copies raw, so a decoded "\u001f"
// encodes to text that does not decode again.
TEST(JsonDecode, UnitSeparatorDoesNotSurviveARoundTrip) {
    Tree tree(json_decode("\"a\\u001fb\""));
    ASSERT_NE(tree.node, nullptr);
    EXPECT_STREQ(tree.node->string_, "a\x1F" "b");
    std::string text = take(json_encode(tree.node));
    EXPECT_EQ(text, "\"a\x1F" "b\"");
    EXPECT_EQ(json_decode(text.c_str()), nullptr);
    EXPECT_FALSE(json_validate(text.c_str()));
}

// Sixteen significant digits do not always name one double: the double just
// above 1e23 is written 1e+23, which reads back as the double below it.
TEST(JsonDecode, NumberTextIsNotAlwaysAFixedPoint) {
    Tree first(json_decode("100000000000000008388608"));
    ASSERT_NE(first.node, nullptr);
    std::string once = take(json_encode(first.node));
    EXPECT_EQ(once, "1e+23");
    Tree second(json_decode(once.c_str()));
    std::string twice = take(json_encode(second.node));
    EXPECT_EQ(twice, "9.999999999999999e+22");
    Tree third(json_decode(twice.c_str()));
    EXPECT_EQ(take(json_encode(third.node)), twice);
}

TEST(JsonDecode, NumbersConvertLikeStrtod) {
    const char *texts[] = {"0.1", "-0", "1e-400", "1e400", "2.2250738585072011e-308",
                           "4.9406564584124654e-324", "123456789012345678901234567890",
                           "0.30000000000000004", "-17", "999999999999999", "1.7976931348623157e308"};
    for (const char *text : texts) {
        Tree tree(json_decode(text));
        ASSERT_NE(tree.node, nullptr) << text;
        ASSERT_EQ(tree.node->tag, JSON_NUMBER);
        double expected = strtod(text, nullptr);
        EXPECT_EQ(memcmp(&tree.node->number_, &expected, sizeof expected), 0) << text;
    }
    Tree negative_zero(json_decode("-0"));
    EXPECT_TRUE(std::signbit(negative_zero.node->number_));
}

TEST(JsonDecode, StringsAreStoredAsUtf8) {
    Tree tree(json_decode("[\"a\\tb\", \"\\u00e9\\u20ac\\ud83d\\ude00\", \"\\/\", \"raw \xC3\xA9\"]"));
    ASSERT_NE(tree.node, nullptr);
    EXPECT_STREQ(json_find_element(tree.node, 0)->string_, "a\tb");
    EXPECT_STREQ(json_find_element(tree.node, 1)->string_, "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_STREQ(json_find_element(tree.node, 2)->string_, "/");
    EXPECT_STREQ(json_find_element(tree.node, 3)->string_, "raw \xC3\xA9");
}

TEST(JsonDecode, ObjectsKeepKeysInOrderWithDuplicates) {
    Tree tree(json_decode("{\"b\":1,\"a\":true,\"b\":\"x\",\"k\\\"ey\":null}"));
    ASSERT_NE(tree.node, nullptr);
    const char *keys[] = {"b", "a", "b", "k\"ey"};
    const JsonNode *member = json_first_child(tree.node);
    for (const char *key : keys) {
        ASSERT_NE(member, nullptr);
        EXPECT_STREQ(member->key, key);
        EXPECT_EQ(member->parent, tree.node);
        member = member->next;
    }
    EXPECT_EQ(member, nullptr);
    EXPECT_EQ(json_find_member(tree.node, "b")->number_, 1);
    EXPECT_TRUE(json_find_member(tree.node, "a")->bool_);
}

TEST(JsonDecode, ArrayElementsHaveNoKey) {
    Tree tree(json_decode("{\"list\":[{\"x\":1},2]}"));
    ASSERT_NE(tree.node, nullptr);
    const JsonNode *list = json_find_member(tree.node, "list");
    for (const JsonNode *e = json_first_child(list); e != nullptr; e = e->next)
        EXPECT_EQ(e->key, nullptr);
}

// The text ends at its NUL: bytes after it are never looked at.
TEST(JsonDecode, StopsAtTheTerminatingNul) {
    const char text[] = "[1, \"ab\0cd\"]";
    EXPECT_EQ(json_decode(text), nullptr);
    EXPECT_FALSE(json_validate(text));
    const char complete[] = "[1]\0garbage";
    Tree tree(json_decode(complete));
    EXPECT_NE(tree.node, nullptr);
}

// Every prefix of a valid document is cut at a NUL; each must fail cleanly
// (or succeed where the prefix is itself a document) without reading on.
TEST(JsonDecode, EveryTruncationFailsCleanly) {
    const std::string document =
        "{\"chassis\":\"X\",\"Log\":[\"a\\n\",\"\\ud83d\\ude00\"],\"n\":-1.5e+3,\"t\":true,"
        "\"f\":false,\"z\":null,\"e\":{},\"u\":\"\xE2\x82\xAC\"}";
    for (size_t length = 0; length < document.size(); ++length) {
        std::vector<char> heap(document.begin(), document.begin() + static_cast<long>(length));
        heap.push_back('\0');
        JsonNode *node = json_decode(heap.data());
        EXPECT_EQ(node, nullptr) << "length " << length;
        EXPECT_FALSE(json_validate(heap.data()));
        json_delete(node);
    }
    Tree whole(json_decode(document.c_str()));
    EXPECT_NE(whole.node, nullptr);
}

// ---------------------------------------------------------------------------
// Deep nesting: nothing recurses, so depth costs memory, never stack.

constexpr size_t kDeep = 1000000;

// Runs `work` on a thread with a deliberately small stack.
template <class Work>
void run_on_small_stack(Work work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
    pthread_t thread;
    auto entry = [](void *argument) -> void * {
        (*static_cast<Work *>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, entry, &work), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST(JsonDeep, MillionOpenBracketsFailCleanly) {
    std::string text(kDeep, '[');
    bool decoded = true;
    bool validated = true;
    run_on_small_stack([&] {
        JsonNode *node = json_decode(text.c_str());
        decoded = node != nullptr;
        json_delete(node);
        validated = json_validate(text.c_str());
    });
    EXPECT_FALSE(decoded);
    EXPECT_FALSE(validated);
}

TEST(JsonDeep, MillionNestedArraysDecodeEncodeCheckAndDelete) {
    std::string text = std::string(kDeep, '[') + std::string(kDeep, ']');
    bool validated = false;
    bool checked = false;
    std::string compact;
    run_on_small_stack([&] {
        validated = json_validate(text.c_str());
        JsonNode *root = json_decode(text.c_str());
        if (root == nullptr)
            return;
        checked = json_check(root, nullptr);
        compact = take(json_encode(root));
        json_delete(root);
    });
    EXPECT_TRUE(validated);
    EXPECT_TRUE(checked);
    EXPECT_TRUE(compact == text);
}

TEST(JsonDeep, DeepObjectsWithOneBadByteAtTheBottom) {
    std::string good;
    for (size_t i = 0; i < 200000; ++i)
        good += "{\"k\":";
    std::string bad = good + "01" + std::string(200000, '}');
    good += '0';
    good.append(200000, '}');
    bool good_ok = false;
    bool bad_ok = true;
    run_on_small_stack([&] {
        Tree tree(json_decode(good.c_str()));
        good_ok = tree.node != nullptr && json_validate(good.c_str());
        JsonNode *node = json_decode(bad.c_str());
        bad_ok = node != nullptr || json_validate(bad.c_str());
        json_delete(node);
    });
    EXPECT_TRUE(good_ok);
    EXPECT_FALSE(bad_ok);
}

TEST(JsonDeep, HandBuiltDeepTreeEncodesChecksAndDeletes) {
    bool checked = false;
    std::string compact;
    run_on_small_stack([&] {
        JsonNode *root = json_mkarray();
        JsonNode *cur = root;
        for (size_t i = 1; i < kDeep; ++i) {
            JsonNode *next = json_mkobject();
            if (cur->tag == JSON_ARRAY)
                json_append_element(cur, next);
            else
                json_append_member(cur, "k", next);
            cur = next;
        }
        checked = json_check(root, nullptr);
        compact = take(json_encode(root));
        json_delete(root);
    });
    EXPECT_TRUE(checked);
    // An array holding kDeep - 1 nested objects; all but the innermost hold "k".
    std::string expected = "[";
    for (size_t i = 0; i < kDeep - 2; ++i)
        expected += "{\"k\":";
    expected.append("{}").append(kDeep - 2, '}').append("]");
    EXPECT_TRUE(compact == expected) << compact.substr(0, 40);
}

TEST(JsonDeep, IndentedEncodingOfDeepArrays) {
    // Indentation grows with depth, so the text grows with its square; a
    // few thousand levels keep it at a few megabytes.
    constexpr size_t depth = 3000;
    std::string expected;
    for (size_t i = 0; i < depth - 1; ++i)
        expected.append("[\n").append(i + 1, '\t');
    expected += "[]";
    for (size_t i = depth - 1; i-- > 0;)
        expected.append("\n").append(i, '\t').append("]");
    std::string actual;
    run_on_small_stack([&] {
        JsonNode *root = json_decode(std::string(std::string(depth, '[') + std::string(depth, ']')).c_str());
        actual = take(json_stringify(root, "\t"));
        json_delete(root);
    });
    EXPECT_TRUE(actual == expected);
}

}  // namespace
