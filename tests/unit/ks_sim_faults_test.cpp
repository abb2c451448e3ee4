// Unit tests of the simulated switch SDK (library ks_sim) under faults: the
// fault injection file, and robustness against slots outside the chassis,
// null pointers and malformed or arbitrary state files.

#include "ks_sim_test_support.h"

namespace {

using namespace chmgr_test;

// ---- fault injection ----

TEST_F(KsSimTest, FaultForEverySlotFailsTheCall)
{
    put("slot1/ini_identity", "3 2 5\n");
    put("slot3/ini_identity", "3 2 5\n");
    put("faults", "ks_mgmt_slot_info_get\n");
    ks_mgmt_slot_info_t info{};
    EXPECT_EQ(slot_info(1, info), KS_STATUS_FAILURE);
    EXPECT_EQ(info.slot_id, 1);
    EXPECT_EQ(info.slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_NONE_E);
    EXPECT_EQ(slot_info(3, info), KS_STATUS_FAILURE);
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_info_get slot=1 -> fault\n"
                                "ks_mgmt_slot_info_get slot=3 -> fault\n");

    erase("faults");
    EXPECT_EQ(slot_info(3, info), KS_STATUS_SUCCESS);
    EXPECT_EQ(info.slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_KTR_16_100G_E);
}

TEST_F(KsSimTest, FaultForOneSlotLeavesOtherSlotsAlone)
{
    put("slot3/ini_image", std::string("\x05\x00\x00\x02\x02", 5));
    put("slot4/ini_image", std::string("\x05\x00\x00\x02\x02", 5));
    put("slot3/ini_status", "2\n");
    put("faults", "ks_mgmt_slot_ini_operation_set 3\n");

    Operation faulted = ini_operation(3, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    EXPECT_EQ(faulted.status, KS_STATUS_FAILURE);
    EXPECT_EQ(faulted.result.ini_status, KS_MGMT_SLOT_INI_STATUS_READY_TO_USE_E);
    EXPECT_EQ(faulted.result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_ACTIVATION_ERROR_E);
    EXPECT_EQ(faulted.result.slot_state_info.slot_id, 3);
    EXPECT_EQ(faulted.result.port_info.port_count, 0u);
    EXPECT_FALSE(exists("slot3/ini_identity"));
    EXPECT_EQ(get("slot3/ini_status"), "2\n");
    EXPECT_FALSE(exists("port_map"));

    faulted = ini_operation(3, KS_MGMT_SLOT_INI_OPERATION_RESET_E);
    EXPECT_EQ(faulted.status, KS_STATUS_FAILURE);
    EXPECT_EQ(faulted.result.ini_status, KS_MGMT_SLOT_INI_STATUS_READY_TO_USE_E);
    EXPECT_EQ(faulted.result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_FAILED_E);
    EXPECT_TRUE(exists("slot3/ini_image"));

    EXPECT_EQ(ini_operation(4, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("slot4/ini_identity"), "3 2 5\n");
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_ini_operation_set slot=3 op=APPLY -> fault\n"
                                "ks_mgmt_slot_ini_operation_set slot=3 op=RESET -> fault\n"
                                "ks_mgmt_slot_ini_operation_set slot=4 op=APPLY\n");

    erase("faults");
    EXPECT_EQ(ini_operation(3, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("slot3/ini_identity"), "3 2 5\n");
}

TEST_F(KsSimTest, FaultedStatusQueryReportsCurrentStatusAndKeepsScript)
{
    put("slot2/ini_status_script", "3 1\n");
    put("faults", "ks_mgmt_slot_ini_data_set 2\n");
    ks_mgmt_slot_ini_transfer_result_t result{};
    EXPECT_EQ(ini_status_query(2, result), KS_STATUS_FAILURE);
    EXPECT_EQ(result.ini_status, KS_MGMT_SLOT_INI_STATUS_IN_USE_E);
    EXPECT_EQ(get("slot2/ini_status_script"), "3 1\n");

    const uint8_t bytes[3] = {1, 2, 3};
    EXPECT_EQ(send_chunk(2, bytes, 3, true, result), KS_STATUS_FAILURE);
    EXPECT_EQ(result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_FAILED_E);
    EXPECT_FALSE(exists("slot2/ini_transfer"));
    EXPECT_FALSE(exists("slot2/ini_image"));
}

TEST_F(KsSimTest, FaultsOfCallsWithoutSlot)
{
    put("faults", "ks_api_open 1\n"
                  "ks_api_port_device_mapping_get\n");
    ks_api_handle_t handle = 0;
    EXPECT_EQ(ks_api_open(nullptr, &handle), KS_STATUS_SUCCESS);
    put("port_map", expected_card_lines(1, 4));
    ks_status_t status = KS_STATUS_SUCCESS;
    uint32_t count = 0;
    port_mapping(1, 128, status, count);
    EXPECT_EQ(status, KS_STATUS_FAILURE);
    EXPECT_EQ(count, 0u);

    put("faults", "ks_api_open\n");
    EXPECT_EQ(ks_api_open(nullptr, &handle), KS_STATUS_FAILURE);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(get("calls.log"), "ks_api_open\n"
                                "ks_api_port_device_mapping_get device=1 -> fault\n"
                                "ks_api_open -> fault\n");
}

TEST_F(KsSimTest, FaultOfControlAndModuleSplitForOneSlot)
{
    put("module_split", "5 0 10 11\n6 0 20 21\n");
    put("faults", "ks_mgmt_slot_control_set 5\n"
                  "ks_mgmt_phy_module_split_get 6\n");
    ks_mgmt_slot_control_info_t control{KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E};
    EXPECT_EQ(ks_mgmt_slot_control_set(kHandle, 5, &control), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_slot_control_set(kHandle, 6, &control), KS_STATUS_SUCCESS);
    ks_mgmt_phy_module_split_info_t info{};
    EXPECT_EQ(split_get(5, 0, 2, 2, info), KS_STATUS_SUCCESS);
    EXPECT_EQ(split_get(6, 0, 2, 2, info), KS_STATUS_FAILURE);
    EXPECT_EQ(info.port_attribs_list[0].log_port, 0u);
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_control_set slot=5 op=ACTIVATE -> fault\n"
                                "ks_mgmt_slot_control_set slot=6 op=ACTIVATE\n"
                                "ks_mgmt_phy_module_split_get slot=5 module=0 split=2 width=2\n"
                                "ks_mgmt_phy_module_split_get slot=6 module=0 split=2 width=2 -> fault\n");
}

// ---- robustness ----

TEST_F(KsSimTest, SlotsOutsideTheChassisFail)
{
    put("slot0/ini_identity", "3 2 5\n");
    put("slot9/ini_identity", "3 2 5\n");
    put("module_split", "9 0 1 2\n");
    for (uint8_t slot : {uint8_t{0}, uint8_t{9}, uint8_t{255}}) {
        ks_mgmt_slot_info_t info{};
        EXPECT_EQ(slot_info(slot, info), KS_STATUS_FAILURE);
        ks_mgmt_slot_control_info_t control{KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E};
        EXPECT_EQ(ks_mgmt_slot_control_set(kHandle, slot, &control), KS_STATUS_FAILURE);
        EXPECT_EQ(ini_operation(slot, KS_MGMT_SLOT_INI_OPERATION_RESET_E).status, KS_STATUS_FAILURE);
        ks_mgmt_slot_ini_transfer_result_t result{};
        EXPECT_EQ(ini_status_query(slot, result), KS_STATUS_FAILURE);
        const uint8_t byte = 1;
        EXPECT_EQ(send_chunk(slot, &byte, 1, true, result), KS_STATUS_FAILURE);
        ks_mgmt_phy_module_split_info_t split{};
        EXPECT_EQ(split_get(slot, 0, 2, 2, split), KS_STATUS_FAILURE);
    }
    EXPECT_EQ(state_files(), (std::set<std::string>{"calls.log", "module_split", "slot0/ini_identity",
                                                    "slot9/ini_identity"}));
}

TEST_F(KsSimTest, NullPointersGiveFailure)
{
    EXPECT_EQ(ks_api_open(nullptr, nullptr), KS_STATUS_FAILURE);
    const uint8_t slot = 1;
    ks_mgmt_slot_info_t info{};
    uint32_t size = 1;
    EXPECT_EQ(ks_mgmt_slot_info_get(kHandle, nullptr, &info, &size), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_slot_info_get(kHandle, &slot, nullptr, &size), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_slot_info_get(kHandle, &slot, &info, nullptr), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_slot_control_set(kHandle, 1, nullptr), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_slot_ini_operation_set(kHandle, 1, KS_MGMT_SLOT_INI_OPERATION_APPLY_E, nullptr),
              KS_STATUS_FAILURE);
    ks_mgmt_slot_ini_data_t chunk{};
    ks_mgmt_slot_ini_transfer_result_t result{};
    EXPECT_EQ(ks_mgmt_slot_ini_data_set(kHandle, 1, nullptr, &result), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_slot_ini_data_set(kHandle, 1, &chunk, nullptr), KS_STATUS_FAILURE);
    ks_port_attributes_t port{};
    uint32_t count = 1;
    EXPECT_EQ(ks_api_port_device_mapping_get(kHandle, 1, nullptr, &count), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_api_port_device_mapping_get(kHandle, 1, &port, nullptr), KS_STATUS_FAILURE);
    const ks_mgmt_module_id_info_t module{1, 0};
    const ks_mgmt_phy_module_split_params_t params{2, 2};
    ks_mgmt_phy_module_split_info_t split{};
    EXPECT_EQ(ks_mgmt_phy_module_split_get(kHandle, nullptr, &params, &split), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_phy_module_split_get(kHandle, &module, nullptr, &split), KS_STATUS_FAILURE);
    EXPECT_EQ(ks_mgmt_phy_module_split_get(kHandle, &module, &params, nullptr), KS_STATUS_FAILURE);
    EXPECT_TRUE(state_files().empty());
}

TEST_F(KsSimTest, MalformedIniIdentityMeansNoIni)
{
    ks_mgmt_slot_info_t info{};
    for (const char *text : {"", "\n", "3 2\n", "3 2 5 1\n", "x y z\n", "4 1 1\n", "3 65536 1\n",
                             "-3 2 5\n", "+3 2 5\n", "3 2 0x5\n", "3,2,5\n", "99999999999999999999 1 1\n",
                             "\xff\xfe\x00\x01"}) {
        put("slot1/ini_identity", text);
        EXPECT_EQ(slot_info(1, info), KS_STATUS_FAILURE) << text;
    }
    put("slot1/ini_identity", "  3\t2 5  \r\n");
    EXPECT_EQ(slot_info(1, info), KS_STATUS_SUCCESS);
    put("slot1/ini_identity", "3 2 5");
    EXPECT_EQ(slot_info(1, info), KS_STATUS_SUCCESS);
}

TEST_F(KsSimTest, MalformedFlagsReadAsZero)
{
    put("slot1/ini_identity", "3 2 5\n");
    for (const char *text : {"", "yes\n", "2\n", "1 1\n", "-1\n", "0x1\n"}) {
        put("slot1/ready", text);
        EXPECT_EQ(ready_of(1), 0) << text;
    }
    for (const char *text : {"", "yes\n", "4\n", "3 3\n", "-1\n", "3.0\n"}) {
        put("slot1/ini_status", text);
        EXPECT_EQ(ini_status_of(1), 0) << text;
    }
}

TEST_F(KsSimTest, MalformedScriptValuesAreSkipped)
{
    put("slot1/ini_identity", "3 2 5\n");
    put("slot1/ready_script", "x 1 7 -1 0\n");
    EXPECT_EQ(ready_of(1), 1);
    EXPECT_EQ(get("slot1/ready_script"), "0\n");

    put("slot1/ini_status_script", "9 junk 2\n");
    EXPECT_EQ(ini_status_of(1), 2);
    EXPECT_FALSE(exists("slot1/ini_status_script"));
}

TEST_F(KsSimTest, MalformedPortMapLinesAreSkippedAndKept)
{
    const std::string lines = "# hand-made map\n"
                              "1 0 1 4 1\n"
                              "1 1 2 4\n"
                              "\n"
                              "256 0 3 4 3\n"
                              "1 2 3 4 3 extra\n"
                              "1 3 4 4 4";
    put("port_map", lines);
    ks_status_t status = KS_STATUS_FAILURE;
    uint32_t count = 0;
    const auto ports = port_mapping(1, 128, status, count);
    EXPECT_EQ(status, KS_STATUS_SUCCESS);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(ports[0].port_mapping.local_port, 1);
    EXPECT_EQ(ports[1].port_mapping.local_port, 4);

    put("slot2/ini_image", as_text(make_image({0x00, 0x00, 0x00, 0x01, 0x00}, 5)));
    ASSERT_EQ(ini_operation(2, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("port_map"), "# hand-made map\n"
                               "1 0 1 4 1\n"
                               "1 1 2 4\n"
                               "\n"
                               "256 0 3 4 3\n"
                               "1 2 3 4 3 extra\n"
                               "1 3 4 4 4\n" +
                                   expected_card_lines(2, 4));
}

TEST_F(KsSimTest, MalformedModuleSplitLinesAreSkipped)
{
    put("module_split", "3 0\n"
                        "3 0 x 1\n"
                        "3 0 4294967296\n"
                        "junk\n"
                        "3 0 4294967295 7\n");
    ks_mgmt_phy_module_split_info_t split{};
    ASSERT_EQ(split_get(3, 0, 2, 2, split), KS_STATUS_SUCCESS);
    EXPECT_EQ(split.port_attribs_list[0].log_port, 4294967295u);
    EXPECT_EQ(split.port_attribs_list[0].port_mapping.local_port, 0x3FF);
    EXPECT_EQ(split.port_attribs_list[1].log_port, 7u);
}

TEST_F(KsSimTest, MalformedFaultLinesAreIgnored)
{
    put("slot1/ini_identity", "3 2 5\n");
    put("faults", "# comment\n"
                  "ks_mgmt_slot_info_get x\n"
                  "ks_mgmt_slot_info_get 1 2\n"
                  "ks_mgmt_slot_info_get 2\n"
                  "ks_mgmt_slot_info_get1\n"
                  "\n");
    ks_mgmt_slot_info_t info{};
    EXPECT_EQ(slot_info(1, info), KS_STATUS_SUCCESS);
    EXPECT_EQ(slot_info(2, info), KS_STATUS_FAILURE);
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_info_get slot=1\n"
                                "ks_mgmt_slot_info_get slot=2 -> fault\n");
}

TEST_F(KsSimTest, ArbitraryBytesInEveryStateFileAreHarmless)
{
    const char *names[] = {"slot1/ini_identity", "slot1/ready", "slot1/ready_script",
                           "slot1/ini_status", "slot1/ini_status_script", "slot1/ini_image",
                           "port_map", "module_split", "faults"};
    uint32_t seed = 12345;
    for (int round = 0; round < 50; ++round) {
        for (const char *name : names) {
            std::string junk(seed % 200, '\0');
            for (char &c : junk) {
                seed = seed * 1103515245 + 12345;
                // Mostly digits, blanks and line feeds, so that some lines almost parse.
                c = "0123456789 \n\t-x#"[(seed >> 16) % 17];
            }
            put(name, junk);
        }
        ks_mgmt_slot_info_t info{};
        slot_info(1, info);
        ks_mgmt_slot_ini_transfer_result_t result{};
        ini_status_query(1, result);
        const Operation apply = ini_operation(1, KS_MGMT_SLOT_INI_OPERATION_APPLY_E, 4);
        EXPECT_LE(apply.result.port_info.port_count, 4u);
        EXPECT_TRUE(untouched(apply.ports[4]));
        ks_status_t status = KS_STATUS_SUCCESS;
        uint32_t count = 0;
        const auto ports = port_mapping(1, 8, status, count);
        EXPECT_LE(count, 8u);
        EXPECT_TRUE(untouched(ports[8]));
        ks_mgmt_phy_module_split_info_t split{};
        split_get(1, static_cast<uint8_t>(round % 4), 2, 2, split);
    }
}

} // namespace
