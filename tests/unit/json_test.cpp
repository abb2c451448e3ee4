// JSON document model: constructors, editing, lookups, encoders, the
// assertions that guard misuse, out-of-memory handling and the string builder.
#include "json.h"
#include "json_test_support.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
// Let an impossible allocation fail with null, as the C library's does,
// instead of stopping in the sanitizer: the library's own handling is tested.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif

namespace {

using chmgr_test::Tree;
using chmgr_test::take;

std::string encode(const JsonNode *node) {
    return take(json_encode(node));
}

std::string stringify(const JsonNode *node, const char *space) {
    return take(json_stringify(node, space));
}

std::string encode_number(double value) {
    Tree tree(json_mknumber(value));
    return encode(tree.node);
}

std::string encode_text(const char *text) {
    Tree tree(json_mkstring(text));
    return encode(tree.node);
}

// The assertion line the library writes: "<prog>: <file>:<line>: <function>:
// Assertion `<expr>' failed.\n", as a regular expression over all of stderr.
std::string assertion_pattern(const std::string &function, const std::string &expr) {
    auto escape = [](const std::string &text) {
        std::string out;
        for (char c : text) {
            if (strchr("\\^$.|?*+()[]{}", c) != nullptr)
                out += '\\';
            out += c;
        }
        return out;
    };
    return "^" + escape(program_invocation_short_name) + ": [^\n]*src/json\\.cpp:[0-9]+: " +
           escape(function) + ": Assertion `" + escape(expr) + "' failed\\.\n$";
}

// ---------------------------------------------------------------------------
// Constructors

void expect_detached(const JsonNode *node) {
    EXPECT_EQ(node->parent, nullptr);
    EXPECT_EQ(node->prev, nullptr);
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(node->key, nullptr);
}

TEST(JsonModel, ConstructorsMakeDetachedNodesOfEachKind) {
    Tree null_node(json_mknull());
    Tree true_node(json_mkbool(true));
    Tree false_node(json_mkbool(false));
    Tree number(json_mknumber(2.5));
    Tree array(json_mkarray());
    Tree object(json_mkobject());
    EXPECT_EQ(null_node.node->tag, JSON_NULL);
    EXPECT_EQ(true_node.node->tag, JSON_BOOL);
    EXPECT_TRUE(true_node.node->bool_);
    EXPECT_FALSE(false_node.node->bool_);
    EXPECT_EQ(number.node->tag, JSON_NUMBER);
    EXPECT_EQ(number.node->number_, 2.5);
    EXPECT_EQ(array.node->tag, JSON_ARRAY);
    EXPECT_EQ(object.node->tag, JSON_OBJECT);
    for (const Tree *tree : {&null_node, &true_node, &number, &array, &object})
        expect_detached(tree->node);
    EXPECT_EQ(array.node->children.head, nullptr);
    EXPECT_EQ(array.node->children.tail, nullptr);
    EXPECT_EQ(object.node->children.head, nullptr);
    EXPECT_EQ(object.node->children.tail, nullptr);
}

TEST(JsonModel, StringConstructorCopiesTheText) {
    char text[] = "slot";
    Tree tree(json_mkstring(text));
    text[0] = 'X';
    EXPECT_EQ(tree.node->tag, JSON_STRING);
    EXPECT_STREQ(tree.node->string_, "slot");
    EXPECT_NE(tree.node->string_, text);
    expect_detached(tree.node);
}

TEST(JsonModel, NodeFieldsAreInDocumentedOrder) {
    EXPECT_EQ(offsetof(JsonNode, parent), 0u);
    EXPECT_LT(offsetof(JsonNode, parent), offsetof(JsonNode, prev));
    EXPECT_LT(offsetof(JsonNode, prev), offsetof(JsonNode, next));
    EXPECT_LT(offsetof(JsonNode, next), offsetof(JsonNode, key));
    EXPECT_LT(offsetof(JsonNode, key), offsetof(JsonNode, tag));
    EXPECT_LT(offsetof(JsonNode, tag), offsetof(JsonNode, bool_));
    EXPECT_EQ(offsetof(JsonNode, bool_), offsetof(JsonNode, string_));
    EXPECT_EQ(offsetof(JsonNode, bool_), offsetof(JsonNode, number_));
    EXPECT_EQ(offsetof(JsonNode, bool_), offsetof(JsonNode, children));
    EXPECT_EQ(JSON_NULL, 0);
    EXPECT_EQ(JSON_BOOL, 1);
    EXPECT_EQ(JSON_STRING, 2);
    EXPECT_EQ(JSON_NUMBER, 3);
    EXPECT_EQ(JSON_ARRAY, 4);
    EXPECT_EQ(JSON_OBJECT, 5);
}

// ---------------------------------------------------------------------------
// Append, prepend, remove, delete

TEST(JsonModel, AppendAndPrependElementsLinkBothWays) {
    Tree array(json_mkarray());
    JsonNode *b = json_mknumber(2);
    JsonNode *c = json_mknumber(3);
    JsonNode *a = json_mknumber(1);
    json_append_element(array.node, b);
    json_append_element(array.node, c);
    json_prepend_element(array.node, a);
    EXPECT_EQ(array.node->children.head, a);
    EXPECT_EQ(array.node->children.tail, c);
    EXPECT_EQ(a->prev, nullptr);
    EXPECT_EQ(a->next, b);
    EXPECT_EQ(b->prev, a);
    EXPECT_EQ(b->next, c);
    EXPECT_EQ(c->prev, b);
    EXPECT_EQ(c->next, nullptr);
    for (JsonNode *node : {a, b, c}) {
        EXPECT_EQ(node->parent, array.node);
        EXPECT_EQ(node->key, nullptr);
    }
    EXPECT_EQ(encode(array.node), "[1,2,3]");
}

TEST(JsonModel, PrependIntoEmptyArraySetsHeadAndTail) {
    Tree array(json_mkarray());
    JsonNode *only = json_mknull();
    json_prepend_element(array.node, only);
    EXPECT_EQ(array.node->children.head, only);
    EXPECT_EQ(array.node->children.tail, only);
}

TEST(JsonModel, MembersCopyTheirKeyAndKeepInsertionOrder) {
    Tree object(json_mkobject());
    char key[] = "b";
    JsonNode *b = json_mkbool(true);
    json_append_member(object.node, key, b);
    key[0] = 'X';
    EXPECT_STREQ(b->key, "b");
    json_prepend_member(object.node, "a", json_mknumber(1));
    json_append_member(object.node, "a", json_mknumber(3));  // duplicates are kept
    EXPECT_EQ(encode(object.node), "{\"a\":1,\"b\":true,\"a\":3}");
    EXPECT_EQ(b->parent, object.node);
}

TEST(JsonModel, RemoveFromParentFixesLinksAndDropsTheKey) {
    Tree object(json_mkobject());
    JsonNode *a = json_mknumber(1);
    JsonNode *b = json_mknumber(2);
    JsonNode *c = json_mknumber(3);
    json_append_member(object.node, "a", a);
    json_append_member(object.node, "b", b);
    json_append_member(object.node, "c", c);

    json_remove_from_parent(b);
    expect_detached(b);
    EXPECT_EQ(a->next, c);
    EXPECT_EQ(c->prev, a);
    EXPECT_EQ(encode(object.node), "{\"a\":1,\"c\":3}");

    json_remove_from_parent(a);
    EXPECT_EQ(object.node->children.head, c);
    EXPECT_EQ(c->prev, nullptr);
    json_remove_from_parent(c);
    EXPECT_EQ(object.node->children.head, nullptr);
    EXPECT_EQ(object.node->children.tail, nullptr);
    EXPECT_EQ(encode(object.node), "{}");

    json_remove_from_parent(c);  // already detached: left as it is
    expect_detached(c);
    for (JsonNode *node : {a, b, c})
        json_delete(node);
}

TEST(JsonModel, RemovedTailLeavesPreviousAsTail) {
    Tree array(json_mkarray());
    JsonNode *a = json_mknumber(1);
    JsonNode *b = json_mknumber(2);
    json_append_element(array.node, a);
    json_append_element(array.node, b);
    json_remove_from_parent(b);
    EXPECT_EQ(array.node->children.tail, a);
    EXPECT_EQ(a->next, nullptr);
    json_delete(b);
}

TEST(JsonModel, DetachedNodeCanBeAppendedElsewhere) {
    Tree first(json_mkobject());
    Tree second(json_mkarray());
    JsonNode *value = json_mkstring("moved");
    json_append_member(first.node, "k", value);
    json_remove_from_parent(value);
    json_append_element(second.node, value);
    EXPECT_EQ(encode(first.node), "{}");
    EXPECT_EQ(encode(second.node), "[\"moved\"]");
}

TEST(JsonModel, DeleteUnlinksFromParentAndIgnoresNull) {
    json_delete(nullptr);
    Tree array(json_mkarray());
    JsonNode *nested = json_mkobject();
    json_append_member(nested, "s", json_mkstring("text"));
    json_append_element(array.node, json_mknumber(1));
    json_append_element(array.node, nested);
    json_append_element(array.node, json_mknumber(3));
    json_delete(nested);
    EXPECT_EQ(encode(array.node), "[1,3]");
    char message[256] = "";
    EXPECT_TRUE(json_check(array.node, message)) << message;
}

// ---------------------------------------------------------------------------
// Lookups

TEST(JsonLookup, FindElementByPosition) {
    Tree array(json_mkarray());
    EXPECT_EQ(json_find_element(array.node, 0), nullptr);  // empty array
    JsonNode *a = json_mknumber(10);
    JsonNode *b = json_mknumber(20);
    JsonNode *c = json_mknumber(30);
    json_append_element(array.node, a);
    json_append_element(array.node, b);
    json_append_element(array.node, c);
    EXPECT_EQ(json_find_element(array.node, 0), a);
    EXPECT_EQ(json_find_element(array.node, 1), b);
    EXPECT_EQ(json_find_element(array.node, 2), c);
    EXPECT_EQ(json_find_element(array.node, 3), nullptr);
    EXPECT_EQ(json_find_element(array.node, -1), nullptr);
    EXPECT_EQ(json_find_element(nullptr, 0), nullptr);
    Tree object(json_mkobject());
    json_append_member(object.node, "x", json_mknull());
    EXPECT_EQ(json_find_element(object.node, 0), nullptr);  // not an array
}

TEST(JsonLookup, FindMemberMatchesKeyBytesAndReturnsFirst) {
    Tree object(json_mkobject());
    JsonNode *first = json_mknumber(1);
    JsonNode *second = json_mknumber(2);
    JsonNode *accented = json_mknumber(3);
    json_append_member(object.node, "Slot", first);
    json_append_member(object.node, "Slot", second);
    json_append_member(object.node, "sl\xC3\xB6t", accented);
    EXPECT_EQ(json_find_member(object.node, "Slot"), first);
    EXPECT_EQ(json_find_member(object.node, "sl\xC3\xB6t"), accented);
    EXPECT_EQ(json_find_member(object.node, "slot"), nullptr);
    EXPECT_EQ(json_find_member(object.node, "Slot "), nullptr);
    EXPECT_EQ(json_find_member(object.node, ""), nullptr);
    EXPECT_EQ(json_find_member(nullptr, "Slot"), nullptr);
    Tree array(json_mkarray());
    EXPECT_EQ(json_find_member(array.node, "Slot"), nullptr);  // not an object
}

TEST(JsonLookup, FirstChildOfContainersOnly) {
    Tree array(json_mkarray());
    Tree object(json_mkobject());
    Tree scalar(json_mkstring("s"));
    EXPECT_EQ(json_first_child(array.node), nullptr);
    EXPECT_EQ(json_first_child(object.node), nullptr);
    JsonNode *element = json_mknull();
    JsonNode *member = json_mknull();
    json_append_element(array.node, element);
    json_append_member(object.node, "m", member);
    EXPECT_EQ(json_first_child(array.node), element);
    EXPECT_EQ(json_first_child(object.node), member);
    EXPECT_EQ(json_first_child(scalar.node), nullptr);
    EXPECT_EQ(json_first_child(nullptr), nullptr);
}

// ---------------------------------------------------------------------------
// Compact encoding

TEST(JsonEncode, Scalars) {
    Tree null_node(json_mknull());
    Tree yes(json_mkbool(true));
    Tree no(json_mkbool(false));
    EXPECT_EQ(encode(null_node.node), "null");
    EXPECT_EQ(encode(yes.node), "true");
    EXPECT_EQ(encode(no.node), "false");
    EXPECT_EQ(encode_text(""), "\"\"");
}

TEST(JsonEncode, NumbersUseSixteenSignificantDigits) {
    EXPECT_EQ(encode_number(0.1), "0.1");
    EXPECT_EQ(encode_number(1e300), "1e+300");
    EXPECT_EQ(encode_number(0), "0");
    EXPECT_EQ(encode_number(-0.0), "-0");
    EXPECT_EQ(encode_number(1), "1");
    EXPECT_EQ(encode_number(-42), "-42");
    EXPECT_EQ(encode_number(1.5), "1.5");
    EXPECT_EQ(encode_number(0.0001), "0.0001");
    EXPECT_EQ(encode_number(0.00001), "1e-05");
    EXPECT_EQ(encode_number(1e15), "1000000000000000");
    EXPECT_EQ(encode_number(9999999999999998.0), "9999999999999998");
    EXPECT_EQ(encode_number(1e16), "1e+16");
    EXPECT_EQ(encode_number(123456789012345680.0), "1.234567890123457e+17");
    EXPECT_EQ(encode_number(1.0 / 3), "0.3333333333333333");
    EXPECT_EQ(encode_number(3.141592653589793), "3.141592653589793");
    EXPECT_EQ(encode_number(std::numeric_limits<double>::max()), "1.797693134862316e+308");
    EXPECT_EQ(encode_number(std::numeric_limits<double>::denorm_min()),
              "4.940656458412465e-324");
    EXPECT_EQ(encode_number(-2.5e-7), "-2.5e-07");
}

TEST(JsonEncode, InfinityAndNanBecomeNull) {
    EXPECT_EQ(encode_number(std::numeric_limits<double>::infinity()), "null");
    EXPECT_EQ(encode_number(-std::numeric_limits<double>::infinity()), "null");
    EXPECT_EQ(encode_number(std::numeric_limits<double>::quiet_NaN()), "null");
    EXPECT_EQ(encode_number(-std::numeric_limits<double>::quiet_NaN()), "null");
}

// The number text must be exactly what "%.16g" gives, for any double.
TEST(JsonEncode, NumberTextMatchesPrintfForRandomDoubles) {
    std::mt19937_64 random(20231114);
    Tree number(json_mknumber(0));
    int mismatches = 0;
    for (int i = 0; i < 200000; ++i) {
        uint64_t bits = random();
        double value;
        switch (i % 4) {
        case 0: memcpy(&value, &bits, sizeof value); break;
        case 1: value = static_cast<double>(static_cast<int64_t>(bits) >> (bits % 64)); break;
        case 2: value = static_cast<double>(bits % 100000000) / std::pow(10.0, bits >> 60); break;
        default: value = static_cast<double>(bits % 20000000000000000ULL) + 0.5; break;
        }
        number.node->number_ = value;
        char expected[64];
        snprintf(expected, sizeof expected, "%.16g", value);
        std::string actual = encode(number.node);
        std::string wanted = std::isfinite(value) ? expected : "null";
        if (actual != wanted && ++mismatches <= 5)
            ADD_FAILURE() << "value " << expected << " encoded as " << actual;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(JsonEncode, StringEscapes) {
    EXPECT_EQ(encode_text("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(encode_text("\b\f\n\r\t"), "\"\\b\\f\\n\\r\\t\"");
    EXPECT_EQ(encode_text("/"), "\"/\"");      // solidus copied
    EXPECT_EQ(encode_text("\x7F"), "\"\x7F\"");  // DEL copied
    EXPECT_EQ(encode_text("\x1F"), "\"\x1F\"");  // 0x1F copied raw
    EXPECT_EQ(encode_text("\x1E"), "\"\\u001E\"");
    EXPECT_EQ(encode_text("\x01"), "\"\\u0001\"");
    EXPECT_EQ(encode_text("\x0B"), "\"\\u000B\"");
    EXPECT_EQ(encode_text("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "\"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\"");
}

TEST(JsonEncode, EveryControlByteHasItsPrescribedForm) {
    for (int c = 1; c < 0x20; ++c) {
        char text[2] = {static_cast<char>(c), '\0'};
        std::string expected;
        switch (c) {
        case '\b': expected = "\\b"; break;
        case '\f': expected = "\\f"; break;
        case '\n': expected = "\\n"; break;
        case '\r': expected = "\\r"; break;
        case '\t': expected = "\\t"; break;
        case 0x1F: expected = "\x1F"; break;
        default: {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u00%02X", c);
            expected = escape;
        }
        }
        EXPECT_EQ(encode_text(text), "\"" + expected + "\"") << "byte " << c;
    }
}

TEST(JsonEncode, EncodeStringQuotesOneString) {
    EXPECT_EQ(take(json_encode_string("")), "\"\"");
    EXPECT_EQ(take(json_encode_string("SLOT_READY")), "\"SLOT_READY\"");
    EXPECT_EQ(take(json_encode_string("line\n\"q\"\x1E")), "\"line\\n\\\"q\\\"\\u001E\"");
}

TEST(JsonEncode, ContainersHaveNoWhitespace) {
    Tree root(json_mkobject());
    JsonNode *list = json_mkarray();
    json_append_element(list, json_mknumber(1));
    json_append_element(list, json_mkstring("two"));
    json_append_element(list, json_mkarray());
    json_append_element(list, json_mkobject());
    json_append_member(root.node, "list", list);
    json_append_member(root.node, "k\"ey", json_mknull());
    EXPECT_EQ(encode(root.node), "{\"list\":[1,\"two\",[],{}],\"k\\\"ey\":null}");
    EXPECT_EQ(stringify(root.node, nullptr), encode(root.node));
}

TEST(JsonEncode, NullNodeEncodesAsNull) {
    EXPECT_EQ(encode(nullptr), "null");
    EXPECT_EQ(stringify(nullptr, "\t"), "null");
}

TEST(JsonEncode, SubtreeEncodesWithoutItsKeyOrSiblings) {
    Tree root(json_mkobject());
    JsonNode *inner = json_mkarray();
    json_append_element(inner, json_mkbool(false));
    json_append_member(root.node, "before", json_mknumber(1));
    json_append_member(root.node, "inner", inner);
    json_append_member(root.node, "after", json_mknumber(2));
    EXPECT_EQ(encode(inner), "[false]");
    EXPECT_EQ(stringify(inner, "\t"), "[\n\tfalse\n]");
}

// ---------------------------------------------------------------------------
// Indented encoding

TEST(JsonStringify, EmptyContainersStayOnOneLine) {
    Tree object(json_mkobject());
    Tree array(json_mkarray());
    EXPECT_EQ(stringify(object.node, "\t"), "{}");
    EXPECT_EQ(stringify(array.node, "\t"), "[]");
}

TEST(JsonStringify, SixLineExampleWithTab) {
    Tree root(json_mkobject());
    JsonNode *b = json_mkarray();
    json_append_element(b, json_mkbool(true));
    json_append_member(root.node, "a", json_mknumber(1));
    json_append_member(root.node, "b", b);
    EXPECT_EQ(stringify(root.node, "\t"), "{\n\t\"a\": 1,\n\t\"b\": [\n\t\ttrue\n\t]\n}");
}

TEST(JsonStringify, ScalarsAreWrittenAsCompact) {
    Tree number(json_mknumber(0.1));
    Tree text(json_mkstring("a\x1E"));
    EXPECT_EQ(stringify(number.node, "\t"), "0.1");
    EXPECT_EQ(stringify(text.node, "  "), "\"a\\u001E\"");
}

TEST(JsonStringify, MultiCharacterUnitAndNestedEmptyContainers) {
    Tree root(json_mkarray());
    JsonNode *object = json_mkobject();
    json_append_member(object, "x", json_mkarray());
    json_append_member(object, "y", json_mkobject());
    json_append_element(root.node, object);
    json_append_element(root.node, json_mknull());
    EXPECT_EQ(stringify(root.node, "  "),
              "[\n  {\n    \"x\": [],\n    \"y\": {}\n  },\n  null\n]");
    EXPECT_EQ(stringify(root.node, ""), "[\n{\n\"x\": [],\n\"y\": {}\n},\nnull\n]");
}

// ---------------------------------------------------------------------------
// Assertions stay active in every build type

using JsonDeathTest = ::testing::Test;

TEST(JsonDeathTest, AppendElementToNonArrayStops) {
    EXPECT_DEATH(
        {
            JsonNode *object = json_mkobject();
            json_append_element(object, json_mknull());
        },
        assertion_pattern("void json_append_element(JsonNode*, JsonNode*)",
                          "array->tag == JSON_ARRAY"));
    EXPECT_DEATH(
        {
            JsonNode *text = json_mkstring("x");
            json_prepend_element(text, json_mknull());
        },
        assertion_pattern("void json_prepend_element(JsonNode*, JsonNode*)",
                          "array->tag == JSON_ARRAY"));
}

TEST(JsonDeathTest, AppendAttachedElementStops) {
    EXPECT_DEATH(
        {
            JsonNode *first = json_mkarray();
            JsonNode *second = json_mkarray();
            JsonNode *element = json_mknull();
            json_append_element(first, element);
            json_append_element(second, element);
        },
        assertion_pattern("void json_append_element(JsonNode*, JsonNode*)",
                          "element->parent == NULL"));
    EXPECT_DEATH(
        {
            JsonNode *array = json_mkarray();
            JsonNode *element = json_mknull();
            json_append_element(array, element);
            json_prepend_element(array, element);
        },
        assertion_pattern("void json_prepend_element(JsonNode*, JsonNode*)",
                          "element->parent == NULL"));
}

TEST(JsonDeathTest, AppendMemberToNonObjectStops) {
    EXPECT_DEATH(
        {
            JsonNode *array = json_mkarray();
            json_append_member(array, "k", json_mknull());
        },
        assertion_pattern("void json_append_member(JsonNode*, const char*, JsonNode*)",
                          "object->tag == JSON_OBJECT"));
    EXPECT_DEATH(
        {
            JsonNode *number = json_mknumber(1);
            json_prepend_member(number, "k", json_mknull());
        },
        assertion_pattern("void json_prepend_member(JsonNode*, const char*, JsonNode*)",
                          "object->tag == JSON_OBJECT"));
}

TEST(JsonDeathTest, AppendAttachedMemberStops) {
    EXPECT_DEATH(
        {
            JsonNode *object = json_mkobject();
            JsonNode *value = json_mknull();
            json_append_member(object, "a", value);
            json_append_member(object, "b", value);
        },
        assertion_pattern("void json_append_member(JsonNode*, const char*, JsonNode*)",
                          "value->parent == NULL"));
    EXPECT_DEATH(
        {
            JsonNode *object = json_mkobject();
            JsonNode *value = json_mknull();
            json_append_member(object, "a", value);
            json_prepend_member(object, "b", value);
        },
        assertion_pattern("void json_prepend_member(JsonNode*, const char*, JsonNode*)",
                          "value->parent == NULL"));
}

TEST(JsonDeathTest, EncodingInvalidUtf8Stops) {
    const std::string pattern = "Assertion `utf8_validate\\(str\\)' failed\\.\n$";
    EXPECT_DEATH(free(json_encode_string("\xFF")), pattern);
    EXPECT_DEATH(free(json_encode_string("ok \xC0\x80")), pattern);  // overlong NUL
    EXPECT_DEATH(free(json_encode_string("\xED\xA0\x80")), pattern);  // surrogate
    EXPECT_DEATH(
        {
            JsonNode *text = json_mkstring("\xF4\x90\x80\x80");  // above U+10FFFF
            free(json_encode(text));
        },
        pattern);
    EXPECT_DEATH(
        {
            JsonNode *object = json_mkobject();
            json_append_member(object, "\xC3", json_mknull());  // truncated key
            free(json_stringify(object, "\t"));
        },
        pattern);
}

TEST(JsonDeathTest, EncodingMemberWithoutKeyStops) {
    EXPECT_DEATH(
        {
            JsonNode *object = json_mkobject();
            JsonNode *member = json_mknull();
            json_append_member(object, "k", member);
            free(member->key);
            member->key = nullptr;
            free(json_encode(object));
        },
        "Assertion `child->key != NULL' failed\\.\n$");
}

// ---------------------------------------------------------------------------
// Out of memory

// The whole of stderr; a sanitizer build may say first that it refused.
#if defined(__SANITIZE_ADDRESS__)
const char kOutOfMemory[] =
    "^(==[0-9]+==WARNING: AddressSanitizer failed to allocate [^\n]*\n)?Out of memory\\.\n$";
#else
const char kOutOfMemory[] = "^Out of memory\\.\n$";
#endif

TEST(JsonDeathTest, ImpossibleBufferIsOutOfMemory) {
    EXPECT_EXIT(
        {
            JsonStringBuilder sb;
            json_sb_init(&sb);
            json_sb_need(&sb, SIZE_MAX / 4);
        },
        ::testing::ExitedWithCode(1), kOutOfMemory);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Sanitizers reserve huge address ranges, so an address-space limit only
// works in plain builds.
// Appends megabyte strings until the address space runs out.
[[noreturn]] void exhaust_memory() {
    struct rlimit limit = {512ul << 20, 512ul << 20};
    setrlimit(RLIMIT_AS, &limit);
    std::string chunk(1 << 20, 'x');
    JsonNode *array = json_mkarray();
    for (;;)
        json_append_element(array, json_mkstring(chunk.c_str()));
}

TEST(JsonDeathTest, ExhaustedAddressSpaceIsOutOfMemory) {
    EXPECT_EXIT(exhaust_memory(), ::testing::ExitedWithCode(1), "^Out of memory\\.\n$");
}
#endif

// ---------------------------------------------------------------------------
// String builder growth

size_t usable(const JsonStringBuilder &sb) {
    return static_cast<size_t>(sb.end - sb.start);
}

TEST(JsonStringBuilder, StartsWithSixteenUsableBytes) {
    JsonStringBuilder sb;
    json_sb_init(&sb);
    EXPECT_EQ(usable(sb), 16u);
    EXPECT_EQ(sb.cur, sb.start);
    json_sb_put(&sb, "0123456789abcdef", 16);  // fills it exactly
    EXPECT_EQ(usable(sb), 16u);
    EXPECT_EQ(take(json_sb_finish(&sb)), "0123456789abcdef");  // the spare byte holds the NUL
}

TEST(JsonStringBuilder, DoublesUntilTheRequestFits) {
    JsonStringBuilder sb;
    json_sb_init(&sb);
    json_sb_put(&sb, "0123456789", 10);
    json_sb_need(&sb, 6);  // 10 + 6 fits in 16
    EXPECT_EQ(usable(sb), 16u);
    json_sb_need(&sb, 7);  // 17 needs 32
    EXPECT_EQ(usable(sb), 32u);
    json_sb_need(&sb, 100);  // 110 needs 128: 32 -> 64 -> 128
    EXPECT_EQ(usable(sb), 128u);
    json_sb_need(&sb, 118);  // exactly 128
    EXPECT_EQ(usable(sb), 128u);
    EXPECT_EQ(sb.cur - sb.start, 10);
    EXPECT_EQ(take(json_sb_finish(&sb)), "0123456789");
}

TEST(JsonStringBuilder, FreeReleasesAnUnfinishedBuffer) {
    JsonStringBuilder sb;
    json_sb_init(&sb);
    json_sb_put(&sb, "abc", 3);
    json_sb_free(&sb);
    EXPECT_EQ(sb.start, nullptr);
}

}  // namespace
