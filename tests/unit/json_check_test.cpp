// json_check: every structural fault is found and named, on trees broken by
// hand. Each test repairs its tree before deleting it.
#include "json.h"
#include "json_test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using chmgr_test::Tree;

// The message json_check writes, or "sound" when it passes.
std::string check(const JsonNode *node) {
    char message[256];
    memset(message, 'X', sizeof message);
    if (json_check(node, message))
        return "sound";
    EXPECT_FALSE(json_check(node, nullptr));  // no message buffer: same verdict
    return message;
}

void set_raw_tag(JsonNode *node, unsigned value) {
    static_assert(sizeof(JsonTag) == sizeof(unsigned));
    memcpy(&node->tag, &value, sizeof value);
}

// [a, b, c] of numbers.
JsonNode *three_elements() {
    JsonNode *array = json_mkarray();
    for (int i = 1; i <= 3; ++i)
        json_append_element(array, json_mknumber(i));
    return array;
}

TEST(JsonCheck, SoundTreesPass) {
    Tree decoded(json_decode("{\"a\":[1,\"x\",{\"b\":null}],\"c\":{},\"d\":[]}"));
    EXPECT_EQ(check(decoded.node), "sound");
    Tree scalar(json_mkstring("caf\xC3\xA9"));
    EXPECT_EQ(check(scalar.node), "sound");
    EXPECT_EQ(check(json_find_member(decoded.node, "a")), "sound");  // a subtree alone
    EXPECT_TRUE(json_check(nullptr, nullptr));
}

TEST(JsonCheck, KeyWithInvalidUtf8) {
    Tree object(json_mkobject());
    JsonNode *member = json_mknull();
    json_append_member(object.node, "ok", member);
    free(member->key);
    member->key = strdup("\xC0\xAF");
    EXPECT_EQ(check(object.node), "key contains invalid UTF-8");
    EXPECT_EQ(check(member), "key contains invalid UTF-8");
}

TEST(JsonCheck, TagOutsideTheEnumeration) {
    Tree array(json_mkarray());
    JsonNode *element = json_mknull();
    json_append_element(array.node, element);
    set_raw_tag(element, 6);
    EXPECT_EQ(check(array.node), "tag is invalid (6)");
    set_raw_tag(element, 4000000000u);
    EXPECT_EQ(check(element), "tag is invalid (4000000000)");
    set_raw_tag(element, JSON_NULL);
}

TEST(JsonCheck, KeyIsCheckedBeforeTag) {
    Tree object(json_mkobject());
    JsonNode *member = json_mknull();
    json_append_member(object.node, "k", member);
    free(member->key);
    member->key = strdup("\xFF");
    set_raw_tag(member, 9);
    EXPECT_EQ(check(object.node), "key contains invalid UTF-8");
    set_raw_tag(member, JSON_NULL);
}

TEST(JsonCheck, StringNodeWithoutText) {
    Tree text(json_mkstring("x"));
    free(text.node->string_);
    text.node->string_ = nullptr;
    EXPECT_EQ(check(text.node), "string_ is NULL");
}

TEST(JsonCheck, StringWithInvalidUtf8) {
    Tree array(json_mkarray());
    JsonNode *text = json_mkstring("x");
    json_append_element(array.node, text);
    free(text->string_);
    text->string_ = strdup("ab\xED\xA0\x80");
    EXPECT_EQ(check(array.node), "string_ contains invalid UTF-8");
}

TEST(JsonCheck, HeadAndTailMustBeNullTogether) {
    Tree array(three_elements());
    JsonNode *head = array.node->children.head;
    JsonNode *tail = array.node->children.tail;
    array.node->children.head = nullptr;
    EXPECT_EQ(check(array.node), "head is NULL, but tail is not");
    array.node->children.head = head;
    array.node->children.tail = nullptr;
    EXPECT_EQ(check(array.node), "tail is NULL, but head is not");
    array.node->children.tail = tail;
    EXPECT_EQ(check(array.node), "sound");
}

TEST(JsonCheck, FirstChildWithPrevious) {
    Tree array(three_elements());
    JsonNode *head = array.node->children.head;
    head->prev = array.node->children.tail;
    EXPECT_EQ(check(array.node), "First child's prev pointer is not NULL");
    head->prev = nullptr;
}

TEST(JsonCheck, ContainerHoldingItself) {
    Tree array(json_mkarray());
    array.node->children.head = array.node;
    array.node->children.tail = array.node;
    EXPECT_EQ(check(array.node), "node is its own child");
    array.node->children.head = array.node->children.tail = nullptr;
}

// A cycle through the root: the inner array lists the root as its child and
// the root claims the inner array as its parent. The walk must stop.
TEST(JsonCheck, CycleBackToTheRootEnds) {
    Tree outer(json_mkarray());
    JsonNode *inner = json_mkarray();
    json_append_element(outer.node, inner);
    inner->children.head = inner->children.tail = outer.node;
    outer.node->parent = inner;
    EXPECT_EQ(check(outer.node), "node is its own child");
    outer.node->parent = nullptr;
    inner->children.head = inner->children.tail = nullptr;
}

TEST(JsonCheck, ChildPointingToItself) {
    Tree array(three_elements());
    JsonNode *second = array.node->children.head->next;
    JsonNode *saved = second->next;
    second->next = second;
    EXPECT_EQ(check(array.node), "child->next == child (cycle)");
    second->next = saved;
}

TEST(JsonCheck, ChildPointingBackToHead) {
    Tree array(three_elements());
    JsonNode *tail = array.node->children.tail;
    tail->next = array.node->children.head;
    EXPECT_EQ(check(array.node), "child->next == head (cycle)");
    tail->next = nullptr;
}

TEST(JsonCheck, ChildWithWrongParent) {
    Tree array(three_elements());
    Tree stranger(json_mkarray());
    JsonNode *second = array.node->children.head->next;
    second->parent = stranger.node;
    EXPECT_EQ(check(array.node), "child does not point back to parent");
    second->parent = nullptr;
    EXPECT_EQ(check(array.node), "child does not point back to parent");
    second->parent = array.node;
}

TEST(JsonCheck, NextWithWrongPrevious) {
    Tree array(three_elements());
    JsonNode *third = array.node->children.tail;
    JsonNode *saved = third->prev;
    third->prev = array.node->children.head;
    EXPECT_EQ(check(array.node), "child->next does not point back to child");
    third->prev = saved;
}

TEST(JsonCheck, ArrayElementWithKey) {
    Tree array(three_elements());
    array.node->children.tail->key = strdup("k");
    EXPECT_EQ(check(array.node), "Array element's key is not NULL");
    free(array.node->children.tail->key);
    array.node->children.tail->key = nullptr;
}

TEST(JsonCheck, ObjectMemberWithoutKey) {
    Tree object(json_mkobject());
    JsonNode *member = json_mknull();
    json_append_member(object.node, "k", member);
    free(member->key);
    member->key = nullptr;
    EXPECT_EQ(check(object.node), "Object member's key is NULL");
}

TEST(JsonCheck, TailNotAtTheEndOfTheList) {
    Tree array(three_elements());
    JsonNode *tail = array.node->children.tail;
    array.node->children.tail = array.node->children.head;
    EXPECT_EQ(check(array.node),
              "tail does not match pointer found by starting at head and following next links");
    array.node->children.tail = tail;
}

TEST(JsonCheck, FaultDeepInsideIsFound) {
    Tree root(json_decode("{\"a\":[1,[2,[3,{\"b\":\"c\"}]]],\"z\":0}"));
    ASSERT_NE(root.node, nullptr);
    JsonNode *a = json_find_member(root.node, "a");
    JsonNode *inner = json_find_element(json_find_element(json_find_element(a, 1), 1), 1);
    JsonNode *b = json_find_member(inner, "b");
    free(b->string_);
    b->string_ = strdup("\x80");
    EXPECT_EQ(check(root.node), "string_ contains invalid UTF-8");
}

// Faults are reported in walk order: a child's subtree before its later siblings.
TEST(JsonCheck, FirstFaultInWalkOrderWins) {
    Tree root(json_decode("[[\"x\"],{\"k\":1}]"));
    ASSERT_NE(root.node, nullptr);
    JsonNode *text = json_find_element(json_find_element(root.node, 0), 0);
    JsonNode *member = json_first_child(json_find_element(root.node, 1));
    free(member->key);
    member->key = nullptr;
    EXPECT_EQ(check(root.node), "Object member's key is NULL");
    free(text->string_);
    text->string_ = strdup("\xFF");
    EXPECT_EQ(check(root.node), "string_ contains invalid UTF-8");
    free(text->string_);
    text->string_ = strdup("x");
    member->key = strdup("k");
    EXPECT_EQ(check(root.node), "sound");
}

}  // namespace
