// chmgrctl's common JSON form: the status document translated to it.
#include <gtest/gtest.h>

#include <string>

#include "ctl_json.h"
#include "json_test_support.h"

using chmgr_test::Tree;
using namespace chmgrctl;

namespace {

std::string encoded(const JsonNode *node) {
    char *text = json_encode(node);
    std::string result = text ? text : "";
    free(text);
    return result;
}

}  // namespace

TEST(ChmgrctlJson, StatusDocumentIsTranslatedToSnakeCaseWithoutLineFeeds) {
    Tree document(json_decode(
        "{\"chassis\": \"KTR9600\", \"Log\": [\"[INFO]1 2 3 a.cpp:1 started\\n\"],"
        " \"slot3\": {\"SLOT\": 3, \"STATE\": \"SLOT_PRESENT |SLOT_ACTIVE | \", \"Exp Event\": \"empty\","
        " \"Card Type\": \"KTR9600-C4\", \"Provisioned\": false, \"Disabled\": true, \"Serial No\": \"SN3\","
        " \"Up Time\": {\"Hours\": 1, \"Minutes\": 2, \"Seconds\": 5}, \"Log\": [\"x\\n\", \"y\"]}}"));
    ASSERT_NE(document.node, nullptr);
    Tree translated(translate_status_document(document.node));
    EXPECT_EQ(encoded(translated.node),
              "{\"schema_version\":2,\"command\":\"status\",\"chassis\":\"KTR9600\","
              "\"log\":[\"[INFO]1 2 3 a.cpp:1 started\"],\"slots\":[{\"slot\":3,"
              "\"state\":\"SLOT_PRESENT |SLOT_ACTIVE |\",\"awaited_event\":\"empty\",\"card_type\":\"KTR9600-C4\","
              "\"provisioned\":false,\"admin_state\":\"disabled\",\"serial_no\":\"SN3\",\"stuck\":false,"
              "\"up_time_seconds\":3725,\"log\":[\"x\",\"y\"]}]}");
}

TEST(ChmgrctlJson, MissingMembersBecomeNullAndErrIsFlagged) {
    Tree document(json_decode("{\"slot1\": {\"STATE\": \"SLOT_PRESENT |ERR \"}}"));
    Tree translated(translate_status_document(document.node));
    EXPECT_EQ(encoded(translated.node),
              "{\"schema_version\":2,\"command\":\"status\",\"chassis\":null,\"log\":[],\"slots\":[{\"slot\":null,"
              "\"state\":\"SLOT_PRESENT |ERR\",\"awaited_event\":null,\"card_type\":null,\"provisioned\":null,"
              "\"admin_state\":null,\"serial_no\":null,\"stuck\":true,\"up_time_seconds\":null,\"log\":[]}]}");
}

TEST(ChmgrctlJson, TheDaemonsNoneIsNull) {
    Tree document(json_decode("{\"slot2\": {\"SLOT\": 2, \"STATE\": \" \", \"Exp Event\": \"none\","
                              " \"Card Type\": \"none\", \"Provisioned\": false, \"Disabled\": false,"
                              " \"Serial No\": \"none\", \"Log\": []}}"));
    Tree translated(translate_status_document(document.node));
    EXPECT_EQ(encoded(translated.node),
              "{\"schema_version\":2,\"command\":\"status\",\"chassis\":null,\"log\":[],\"slots\":[{\"slot\":2,"
              "\"state\":\"\",\"awaited_event\":null,\"card_type\":null,\"provisioned\":false,"
              "\"admin_state\":\"enabled\",\"serial_no\":null,\"stuck\":false,\"up_time_seconds\":null,\"log\":[]}]}");
}

TEST(ChmgrctlJson, OnlyAnObjectIsADocument) {
    Tree array(json_decode("[1]"));
    EXPECT_EQ(translate_status_document(array.node), nullptr);
    EXPECT_EQ(translate_status_document(nullptr), nullptr);
}

TEST(ChmgrctlJson, UnitSeparatorInALogLineIsShownAsAQuestionMark) {
    Tree document(json_decode("{\"Log\": [\"a\\u001fb\\tc\"]}"));
    Tree translated(translate_status_document(document.node));
    std::string text = encoded(translated.node);
    EXPECT_NE(text.find("\"log\":[\"a?b\\tc\"]"), std::string::npos) << text;
    Tree again(json_decode(text.c_str()));
    EXPECT_NE(again.node, nullptr);
}
