// Unit tests of the simulated switch SDK (library ks_sim): the state
// directory, slot information, INI status, port mapping and module split,
// the call log, INI transfer, apply and reset, and slot control.  Fault
// injection and malformed state are in ks_sim_faults_test.cpp.
//
// Every test runs in its own temporary root, set with ks_sim_set_root, and
// drives the simulator through its state files exactly as the system tests
// and the tools do: write a file, make an SDK call, compare results and file
// contents byte for byte.

#include "ks_sim_test_support.h"

#include <map>
#include <sstream>
#include <thread>

namespace {

using namespace chmgr_test;

// ---- root and state directory ----

TEST_F(KsSimTest, StateDirectoryFollowsTheRoot)
{
    EXPECT_STREQ(ks_sim_state_dir(), dir_.c_str());
    ks_sim_set_root((root_ + "//").c_str());
    EXPECT_STREQ(ks_sim_state_dir(), dir_.c_str());
    ks_sim_set_root("");
    EXPECT_STREQ(ks_sim_state_dir(), "/var/run/ks-sim");
    ks_sim_set_root(nullptr);
    EXPECT_STREQ(ks_sim_state_dir(), "/var/run/ks-sim");
    ks_sim_set_root(root_.c_str());
    EXPECT_STREQ(ks_sim_state_dir(), dir_.c_str());
}

TEST_F(KsSimTest, OpenGivesHandleAndCreatesStateDirectory)
{
    ASSERT_FALSE(fs::exists(dir_));
    ks_api_handle_t handle = 0;
    EXPECT_EQ(ks_api_open(nullptr, &handle), KS_STATUS_SUCCESS);
    EXPECT_EQ(handle, 1u);
    EXPECT_EQ(get("calls.log"), "ks_api_open\n");
}

// ---- slot information ----

TEST_F(KsSimTest, SlotInfoFailsWithoutIniIdentity)
{
    ks_mgmt_slot_info_t info{};
    EXPECT_EQ(slot_info(3, info), KS_STATUS_FAILURE);
    EXPECT_EQ(info.slot_id, 3);
    EXPECT_EQ(info.slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_NONE_E);

    put("slot3/ini_identity", "none\n");
    EXPECT_EQ(slot_info(3, info), KS_STATUS_FAILURE);
}

TEST_F(KsSimTest, SlotInfoReportsIniIdentity)
{
    put("slot3/ini_identity", "3 2 5\n");
    ks_mgmt_slot_info_t info{};
    ASSERT_EQ(slot_info(3, info), KS_STATUS_SUCCESS);
    const ks_mgmt_slot_description_t &description = info.slot_description;
    EXPECT_EQ(info.slot_id, 3);
    EXPECT_EQ(description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_KTR_16_100G_E);
    EXPECT_STREQ(description.slot_card_name, "KTR9600-C16");
    EXPECT_EQ(description.slot_card_ini_info.slot_card_hw_revision, 2);
    EXPECT_EQ(description.slot_card_ini_info.slot_card_minor_ini_version, 5);
    EXPECT_EQ(description.slot_state_info.slot_id, 3);
    EXPECT_EQ(description.slot_state_info.is_slot_card_valid, 1);
    EXPECT_EQ(description.slot_state_info.is_slot_card_ready, 0);
}

TEST_F(KsSimTest, SlotInfoNamesTheCardByType)
{
    ks_mgmt_slot_info_t info{};
    put("slot1/ini_identity", "1 4 0\n");
    ASSERT_EQ(slot_info(1, info), KS_STATUS_SUCCESS);
    EXPECT_EQ(info.slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_KTR_4_400G_E);
    EXPECT_STREQ(info.slot_description.slot_card_name, "KTR9600-C4");
    EXPECT_EQ(info.slot_description.slot_card_ini_info.slot_card_hw_revision, 4);

    put("slot2/ini_identity", "2 1 1\n");
    ASSERT_EQ(slot_info(2, info), KS_STATUS_SUCCESS);
    EXPECT_EQ(info.slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_KTR_8_200G_E);
    EXPECT_STREQ(info.slot_description.slot_card_name, "");

    put("slot8/ini_identity", "0 65535 65535\n");
    ASSERT_EQ(slot_info(8, info), KS_STATUS_SUCCESS);
    EXPECT_EQ(info.slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_NONE_E);
    EXPECT_EQ(info.slot_description.slot_card_ini_info.slot_card_hw_revision, 65535);
    EXPECT_EQ(info.slot_description.slot_card_ini_info.slot_card_minor_ini_version, 65535);
}

TEST_F(KsSimTest, ReadyFileSetsReadiness)
{
    put("slot5/ini_identity", "3 2 5\n");
    put("slot5/ready", "1\n");
    EXPECT_EQ(ready_of(5), 1);
    put("slot5/ready", "0\n");
    EXPECT_EQ(ready_of(5), 0);
}

TEST_F(KsSimTest, ReadyScriptIsConsumedOneValuePerQuery)
{
    put("slot2/ini_identity", "1 1 1\n");
    put("slot2/ready", "0\n");
    put("slot2/ready_script", "1 0\n1\n");
    EXPECT_EQ(ready_of(2), 1);
    EXPECT_EQ(get("slot2/ready_script"), "0 1\n");
    std::vector<int> seen;
    for (int i = 0; i < 4; ++i)
        seen.push_back(ready_of(2));
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 0, 0}));
    EXPECT_FALSE(exists("slot2/ready_script"));

    // An empty queue is removed at once and the ready file applies.
    put("slot2/ready", "1\n");
    put("slot2/ready_script", "\n");
    EXPECT_EQ(ready_of(2), 1);
    EXPECT_FALSE(exists("slot2/ready_script"));
}

TEST_F(KsSimTest, FailedSlotInfoKeepsTheReadyScript)
{
    put("slot2/ready_script", "1 1\n");
    ks_mgmt_slot_info_t info{};
    EXPECT_EQ(slot_info(2, info), KS_STATUS_FAILURE);
    EXPECT_EQ(get("slot2/ready_script"), "1 1\n");
}

TEST_F(KsSimTest, SlotInfoFillsEveryEntryOfTheList)
{
    put("slot4/ini_identity", "3 1 9\n");
    const uint8_t slots[3] = {4, 6, 4};
    ks_mgmt_slot_info_t infos[4];
    std::memset(infos, kGuardByte, sizeof infos);
    uint32_t size = 3;
    EXPECT_EQ(ks_mgmt_slot_info_get(kHandle, slots, infos, &size), KS_STATUS_FAILURE);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(infos[0].slot_description.slot_card_ini_info.slot_card_minor_ini_version, 9);
    EXPECT_EQ(infos[1].slot_id, 6);
    EXPECT_EQ(infos[1].slot_description.slot_state_info.is_slot_card_valid, 0);
    EXPECT_EQ(infos[2].slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_KTR_16_100G_E);
    EXPECT_TRUE(untouched(infos[3]));
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_info_get slot=4\n"
                                "ks_mgmt_slot_info_get slot=6\n"
                                "ks_mgmt_slot_info_get slot=4\n");
}

// ---- INI status query ----

TEST_F(KsSimTest, IniStatusQueryReportsStoredStatus)
{
    EXPECT_EQ(ini_status_of(6), KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E);
    for (int status = 0; status <= 3; ++status) {
        put("slot6/ini_status", std::to_string(status) + "\n");
        EXPECT_EQ(ini_status_of(6), status);
    }
    ks_mgmt_slot_ini_transfer_result_t result{};
    result.ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_ILLEGAL_E;
    ASSERT_EQ(ini_status_query(6, result), KS_STATUS_SUCCESS);
    EXPECT_EQ(result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_IDLE_E);
    EXPECT_FALSE(exists("slot6/ini_transfer"));
}

TEST_F(KsSimTest, IniStatusScriptIsConsumedOneValuePerQuery)
{
    put("slot1/ini_status", "1\n");
    put("slot1/ini_status_script", "0 0 3");
    std::vector<int> seen;
    for (int i = 0; i < 5; ++i)
        seen.push_back(ini_status_of(1));
    EXPECT_EQ(seen, (std::vector<int>{0, 0, 3, 1, 1}));
    EXPECT_FALSE(exists("slot1/ini_status_script"));
    EXPECT_EQ(get("slot1/ini_status"), "1\n");
}

// ---- port mapping and module split ----

TEST_F(KsSimTest, PortMappingReturnsPortMapLinesForDeviceOne)
{
    put("port_map", "3 0 33 4 33\n"
                    "3 1 34 2 1058\n"
                    "7 15 112 4 112\n");
    ks_status_t status = KS_STATUS_FAILURE;
    uint32_t count = 0;
    const auto ports = port_mapping(1, 128, status, count);
    ASSERT_EQ(status, KS_STATUS_SUCCESS);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(ports[1].port_mapping.slot, 3);
    EXPECT_EQ(ports[1].port_mapping.module_port, 1);
    EXPECT_EQ(ports[1].port_mapping.local_port, 34);
    EXPECT_EQ(ports[1].port_mapping.width, 2);
    EXPECT_EQ(ports[1].log_port, 1058u);
    EXPECT_EQ(ports[1].port_mode, 0u);
    EXPECT_EQ(ports[2].port_mapping.slot, 7);
    EXPECT_EQ(ports[2].port_mapping.module_port, 15);
    EXPECT_EQ(ports[2].port_mapping.local_port, 112);
    EXPECT_EQ(ports[2].port_mapping.width, 4);
    EXPECT_EQ(ports[2].log_port, 112u);
    EXPECT_TRUE(untouched(ports[3]));

    const auto other = port_mapping(2, 128, status, count);
    EXPECT_EQ(status, KS_STATUS_SUCCESS);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(untouched(other[0]));
}

TEST_F(KsSimTest, PortMappingNeverExceedsCallerCapacity)
{
    ks_status_t status = KS_STATUS_FAILURE;
    uint32_t count = 0;
    port_mapping(1, 128, status, count); // no port_map yet: no ports
    EXPECT_EQ(status, KS_STATUS_SUCCESS);
    EXPECT_EQ(count, 0u);

    put("port_map", expected_card_lines(1, 5));
    const auto ports = port_mapping(1, 2, status, count);
    EXPECT_EQ(status, KS_STATUS_SUCCESS);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(ports[1].port_mapping.local_port, 2);
    EXPECT_TRUE(untouched(ports[2]));

    port_mapping(1, 0, status, count);
    EXPECT_EQ(status, KS_STATUS_SUCCESS);
    EXPECT_EQ(count, 0u);
}

TEST_F(KsSimTest, ModuleSplitReturnsLogicalPortsOfTheModule)
{
    put("module_split", "3 4 1100 1101\n"
                        "3 5 2100 2101 2102 2103\n");
    ks_mgmt_phy_module_split_info_t info;
    std::memset(&info, kGuardByte, sizeof info);
    ASSERT_EQ(split_get(3, 5, 4, 2, info), KS_STATUS_SUCCESS);
    for (unsigned k = 0; k < 4; ++k) {
        const ks_port_attributes_t &port = info.port_attribs_list[k];
        EXPECT_EQ(port.log_port, 2100u + k);
        EXPECT_EQ(port.port_mapping.local_port, (2100u + k) & 0x3FF);
        EXPECT_EQ(port.port_mapping.slot, 3);
        EXPECT_EQ(port.port_mapping.module_port, 5);
        EXPECT_EQ(port.port_mapping.width, 2);
    }
    EXPECT_EQ(info.port_attribs_list[4].log_port, 0u);
    EXPECT_EQ(info.port_attribs_list[7].port_mapping.slot, 0);

    EXPECT_EQ(split_get(3, 6, 4, 2, info), KS_STATUS_FAILURE);
    EXPECT_EQ(split_get(4, 4, 4, 2, info), KS_STATUS_FAILURE);
}

TEST_F(KsSimTest, ModuleSplitKeepsAtMostEightPorts)
{
    put("module_split", "2 0 1 2 3 4 5 6 7 8 9 10\n");
    struct {
        ks_mgmt_phy_module_split_info_t info;
        uint8_t after[64];
    } buffer;
    std::memset(&buffer, kGuardByte, sizeof buffer);
    ASSERT_EQ(split_get(2, 0, 8, 1, buffer.info), KS_STATUS_SUCCESS);
    for (unsigned k = 0; k < 8; ++k)
        EXPECT_EQ(buffer.info.port_attribs_list[k].log_port, k + 1);
    EXPECT_TRUE(untouched(buffer.after));
}

// ---- call log ----

TEST_F(KsSimTest, CallLogHasOneLinePerCallInCallOrder)
{
    ks_api_handle_t handle = 0;
    ks_api_open(nullptr, &handle);
    ks_mgmt_slot_info_t info{};
    slot_info(2, info);
    ks_mgmt_slot_control_info_t control{KS_MGMT_SLOT_CONTROL_OPERATION_SOFT_RESET_E};
    ks_mgmt_slot_control_set(handle, 2, &control);
    control.operation = KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E;
    ks_mgmt_slot_control_set(handle, 2, &control);
    ini_operation(2, KS_MGMT_SLOT_INI_OPERATION_RESET_E);
    transfer(2, make_image({0x05, 0x00, 0x00, 0x02, 0x02}, 1300));
    ks_mgmt_slot_ini_transfer_result_t result{};
    ini_status_query(2, result);
    ini_operation(2, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    ks_status_t status = KS_STATUS_SUCCESS;
    uint32_t count = 0;
    port_mapping(1, 128, status, count);
    ks_mgmt_phy_module_split_info_t split{};
    split_get(2, 3, 2, 2, split);

    EXPECT_EQ(get("calls.log"), "ks_api_open\n"
                                "ks_mgmt_slot_info_get slot=2\n"
                                "ks_mgmt_slot_control_set slot=2 op=SOFT_RESET\n"
                                "ks_mgmt_slot_control_set slot=2 op=ACTIVATE\n"
                                "ks_mgmt_slot_ini_operation_set slot=2 op=RESET\n"
                                "ks_mgmt_slot_ini_data_set slot=2 size=512 last=0\n"
                                "ks_mgmt_slot_ini_data_set slot=2 size=512 last=0\n"
                                "ks_mgmt_slot_ini_data_set slot=2 size=276 last=1\n"
                                "ks_mgmt_slot_ini_data_set slot=2 size=0 last=0\n"
                                "ks_mgmt_slot_ini_operation_set slot=2 op=APPLY\n"
                                "ks_api_port_device_mapping_get device=1\n"
                                "ks_mgmt_phy_module_split_get slot=2 module=3 split=2 width=2\n");
}

TEST_F(KsSimTest, CallLogKeepsWholeLinesUnderConcurrentCalls)
{
    constexpr int kThreads = 4;
    constexpr int kCallsPerThread = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const auto slot = static_cast<ks_slot_id_t>(t + 1);
            ks_mgmt_slot_control_info_t control{KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E};
            for (int i = 0; i < kCallsPerThread; ++i)
                ks_mgmt_slot_control_set(kHandle, slot, &control);
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    // Every line whole, every call there: count the lines of each slot.
    std::istringstream log(get("calls.log"));
    std::map<std::string, int> lines;
    for (std::string line; std::getline(log, line);)
        ++lines[line];
    std::map<std::string, int> expected;
    for (int slot = 1; slot <= kThreads; ++slot)
        expected["ks_mgmt_slot_control_set slot=" + std::to_string(slot) + " op=ACTIVATE"] = kCallsPerThread;
    EXPECT_EQ(lines, expected);
}

// ---- INI transfer, apply and reset ----

TEST_F(KsSimTest, TransferKeepsChunksUntilTheLastOne)
{
    const std::vector<uint8_t> image = make_image({0x05, 0x00, 0x00, 0x02, 0x02}, 1300);
    ks_mgmt_slot_ini_transfer_result_t result{};
    ASSERT_EQ(send_chunk(3, image.data(), 512, false, result), KS_STATUS_SUCCESS);
    EXPECT_EQ(result.ini_status, KS_MGMT_SLOT_INI_STATUS_VALID_E);
    EXPECT_EQ(result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_READY_FOR_NEXT_TRANSFER_E);
    ASSERT_EQ(send_chunk(3, image.data() + 512, 512, false, result), KS_STATUS_SUCCESS);
    EXPECT_EQ(get("slot3/ini_transfer"), std::string(image.begin(), image.begin() + 1024));
    EXPECT_FALSE(exists("slot3/ini_image"));

    ASSERT_EQ(send_chunk(3, image.data() + 1024, 276, true, result), KS_STATUS_SUCCESS);
    EXPECT_EQ(result.ini_status, KS_MGMT_SLOT_INI_STATUS_VALID_E);
    EXPECT_EQ(result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_READY_TO_APPLY_E);
    EXPECT_FALSE(exists("slot3/ini_transfer"));
    EXPECT_EQ(get("slot3/ini_image"), std::string(image.begin(), image.end()));
}

TEST_F(KsSimTest, OversizedChunkIsRejected)
{
    ks_mgmt_slot_ini_data_t chunk{};
    chunk.ini_data_size = KS_MGMT_SLOT_INI_DATA_MAX + 1;
    chunk.is_last_chunk = 1;
    ks_mgmt_slot_ini_transfer_result_t result{};
    EXPECT_EQ(ks_mgmt_slot_ini_data_set(kHandle, 4, &chunk, &result), KS_STATUS_FAILURE);
    EXPECT_EQ(result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_INI_ERROR_E);
    EXPECT_FALSE(exists("slot4/ini_transfer"));
    EXPECT_FALSE(exists("slot4/ini_image"));

    chunk.ini_data_size = KS_MGMT_SLOT_INI_DATA_MAX;
    EXPECT_EQ(ks_mgmt_slot_ini_data_set(kHandle, 4, &chunk, &result), KS_STATUS_SUCCESS);
    EXPECT_EQ(get("slot4/ini_image").size(), std::size_t{KS_MGMT_SLOT_INI_DATA_MAX});
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_ini_data_set slot=4 size=1025 last=1\n"
                                "ks_mgmt_slot_ini_data_set slot=4 size=1024 last=1\n");
}

TEST_F(KsSimTest, ApplyOfSixteenPortImageSetsIdentityStatusAndPorts)
{
    transfer(3, make_image({0x05, 0x00, 0x00, 0x02, 0x02}, 1300));
    const Operation apply = ini_operation(3, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    ASSERT_EQ(apply.status, KS_STATUS_SUCCESS);
    EXPECT_EQ(apply.result.ini_status, KS_MGMT_SLOT_INI_STATUS_IN_USE_E);
    EXPECT_EQ(apply.result.slot_state_info.slot_id, 3);
    ASSERT_EQ(apply.result.port_info.port_count, 16u);
    for (unsigned i = 0; i < 16; ++i) {
        const ks_port_attributes_t &port = apply.ports[i];
        EXPECT_EQ(port.port_mapping.slot, 3);
        EXPECT_EQ(port.port_mapping.module_port, i);
        EXPECT_EQ(port.port_mapping.local_port, 33 + i);
        EXPECT_EQ(port.port_mapping.width, 4);
        EXPECT_EQ(port.log_port, 33 + i);
    }
    EXPECT_TRUE(untouched(apply.ports[16]));

    EXPECT_EQ(get("slot3/ini_identity"), "3 2 5\n");
    EXPECT_EQ(get("slot3/ini_status"), "3\n");
    EXPECT_EQ(get("port_map"), "3 0 33 4 33\n"
                               "3 1 34 4 34\n"
                               "3 2 35 4 35\n"
                               "3 3 36 4 36\n"
                               "3 4 37 4 37\n"
                               "3 5 38 4 38\n"
                               "3 6 39 4 39\n"
                               "3 7 40 4 40\n"
                               "3 8 41 4 41\n"
                               "3 9 42 4 42\n"
                               "3 10 43 4 43\n"
                               "3 11 44 4 44\n"
                               "3 12 45 4 45\n"
                               "3 13 46 4 46\n"
                               "3 14 47 4 47\n"
                               "3 15 48 4 48\n");

    ks_mgmt_slot_info_t info{};
    ASSERT_EQ(slot_info(3, info), KS_STATUS_SUCCESS);
    EXPECT_EQ(info.slot_description.slot_card_type, KS_MGMT_SLOT_CARD_TYPE_KTR_16_100G_E);
    EXPECT_EQ(info.slot_description.slot_card_ini_info.slot_card_hw_revision, 2);
    EXPECT_EQ(info.slot_description.slot_card_ini_info.slot_card_minor_ini_version, 5);
    EXPECT_EQ(ini_status_of(3), KS_MGMT_SLOT_INI_STATUS_IN_USE_E);

    ks_status_t status = KS_STATUS_FAILURE;
    uint32_t count = 0;
    port_mapping(1, 128, status, count);
    EXPECT_EQ(status, KS_STATUS_SUCCESS);
    EXPECT_EQ(count, 16u);
}

TEST_F(KsSimTest, ApplyReadsBothByteOrdersOfTheHeader)
{
    transfer(6, make_image({0x34, 0x12, 0x01, 0x02, 0x02}, 700));
    ASSERT_EQ(ini_operation(6, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("slot6/ini_identity"), "3 258 4660\n");
}

TEST_F(KsSimTest, ApplyOfFourPortImageGivesFourPorts)
{
    transfer(2, make_image({0x01, 0x00, 0x00, 0x03, 0x00}, 600));
    const Operation apply = ini_operation(2, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    ASSERT_EQ(apply.status, KS_STATUS_SUCCESS);
    EXPECT_EQ(apply.result.port_info.port_count, 4u);
    EXPECT_EQ(get("slot2/ini_identity"), "1 3 1\n");
    EXPECT_EQ(get("port_map"), "2 0 17 4 17\n"
                               "2 1 18 4 18\n"
                               "2 2 19 4 19\n"
                               "2 3 20 4 20\n");
    ks_mgmt_slot_info_t info{};
    ASSERT_EQ(slot_info(2, info), KS_STATUS_SUCCESS);
    EXPECT_STREQ(info.slot_description.slot_card_name, "KTR9600-C4");
}

TEST_F(KsSimTest, ApplyReplacesOnlyTheSlotsLinesInSlotOrder)
{
    put("port_map", "1 0 1 4 1\n"
                    "3 0 33 4 33\n"
                    "3 1 34 4 34\n"
                    "5 0 65 4 65\n");
    put("slot3/ini_image", as_text(make_image({0x00, 0x00, 0x00, 0x01, 0x00}, 5)));
    ASSERT_EQ(ini_operation(3, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("port_map"), "1 0 1 4 1\n" + expected_card_lines(3, 4) + "5 0 65 4 65\n");

    put("slot8/ini_image", as_text(make_image({0x00, 0x00, 0x00, 0x01, 0x00}, 5)));
    ASSERT_EQ(ini_operation(8, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("port_map"), "1 0 1 4 1\n" + expected_card_lines(3, 4) + "5 0 65 4 65\n" +
                                   expected_card_lines(8, 4));
}

TEST_F(KsSimTest, ApplyFailsWithoutCompleteHeader)
{
    Operation apply = ini_operation(7, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    EXPECT_EQ(apply.status, KS_STATUS_FAILURE);
    EXPECT_EQ(apply.result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_ACTIVATION_ERROR_E);
    EXPECT_EQ(apply.result.ini_status, KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E);
    EXPECT_EQ(apply.result.port_info.port_count, 0u);

    put("slot7/ini_identity", "3 2 5\n");
    put("slot7/ini_status", "3\n");
    put("slot7/ini_image", std::string("\x05\x00\x00\x02", 4));
    apply = ini_operation(7, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    EXPECT_EQ(apply.status, KS_STATUS_FAILURE);
    EXPECT_EQ(apply.result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_ACTIVATION_ERROR_E);
    EXPECT_EQ(apply.result.ini_status, KS_MGMT_SLOT_INI_STATUS_IN_USE_E);
    EXPECT_EQ(get("slot7/ini_identity"), "3 2 5\n");
    EXPECT_FALSE(exists("port_map"));

    // Card-type byte 3 would be card type 4, which the firmware does not know.
    put("slot1/ini_image", as_text(make_image({0x05, 0x00, 0x00, 0x02, 0x03}, 64)));
    apply = ini_operation(1, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    EXPECT_EQ(apply.status, KS_STATUS_FAILURE);
    EXPECT_EQ(apply.result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_ACTIVATION_ERROR_E);
    EXPECT_FALSE(exists("slot1/ini_identity"));
    EXPECT_FALSE(exists("slot1/ini_status"));
}

TEST_F(KsSimTest, ApplyReportsNoMorePortsThanTheListHolds)
{
    transfer(4, make_image({0x05, 0x00, 0x00, 0x02, 0x02}, 5));
    const Operation apply = ini_operation(4, KS_MGMT_SLOT_INI_OPERATION_APPLY_E, 3);
    ASSERT_EQ(apply.status, KS_STATUS_SUCCESS);
    EXPECT_EQ(apply.result.port_info.port_count, 3u);
    EXPECT_EQ(apply.ports[2].port_mapping.local_port, 51);
    EXPECT_TRUE(untouched(apply.ports[3]));
    EXPECT_EQ(get("port_map"), expected_card_lines(4, 16));

    ks_mgmt_slot_ini_operation_result_t result{};
    result.port_info.port_attr_list_size = 16;
    result.port_info.port_attr_list_p = nullptr;
    EXPECT_EQ(ks_mgmt_slot_ini_operation_set(kHandle, 4, KS_MGMT_SLOT_INI_OPERATION_APPLY_E, &result),
              KS_STATUS_SUCCESS);
    EXPECT_EQ(result.port_info.port_count, 0u);
}

TEST_F(KsSimTest, ManualPortsLeaveThePortMapAlone)
{
    const std::string manual = "3 0 33 2 1057\n"
                               "3 0 34 2 1058\n"
                               "4 0 49 4 49\n";
    put("manual_ports", "");
    put("port_map", manual);
    transfer(3, make_image({0x05, 0x00, 0x00, 0x02, 0x02}, 5));
    const Operation apply = ini_operation(3, KS_MGMT_SLOT_INI_OPERATION_APPLY_E);
    ASSERT_EQ(apply.status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("port_map"), manual);
    ASSERT_EQ(apply.result.port_info.port_count, 2u);
    EXPECT_EQ(apply.ports[1].log_port, 1058u);
    EXPECT_EQ(apply.ports[1].port_mapping.width, 2);
    EXPECT_EQ(get("slot3/ini_identity"), "3 2 5\n");

    EXPECT_EQ(ini_operation(3, KS_MGMT_SLOT_INI_OPERATION_RESET_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("port_map"), manual);
    EXPECT_FALSE(exists("slot3/ini_identity"));
}

TEST_F(KsSimTest, ResetErasesIdentityImageAndPorts)
{
    transfer(5, make_image({0x05, 0x00, 0x00, 0x02, 0x02}, 900));
    transfer(6, make_image({0x05, 0x00, 0x00, 0x02, 0x00}, 900));
    ASSERT_EQ(ini_operation(5, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    ASSERT_EQ(ini_operation(6, KS_MGMT_SLOT_INI_OPERATION_APPLY_E).status, KS_STATUS_SUCCESS);
    const uint8_t partial[4] = {9, 9, 9, 9};
    ks_mgmt_slot_ini_transfer_result_t chunk_result{};
    ASSERT_EQ(send_chunk(5, partial, 4, false, chunk_result), KS_STATUS_SUCCESS);
    ASSERT_TRUE(exists("slot5/ini_transfer"));

    const Operation reset = ini_operation(5, KS_MGMT_SLOT_INI_OPERATION_RESET_E);
    ASSERT_EQ(reset.status, KS_STATUS_SUCCESS);
    EXPECT_EQ(reset.result.ini_status, KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E);
    EXPECT_EQ(reset.result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_COMPLETE_E);
    EXPECT_EQ(reset.result.slot_state_info.slot_id, 5);
    EXPECT_EQ(reset.result.port_info.port_count, 0u);
    EXPECT_TRUE(untouched(reset.ports[0]));

    EXPECT_FALSE(exists("slot5/ini_identity"));
    EXPECT_FALSE(exists("slot5/ini_image"));
    EXPECT_FALSE(exists("slot5/ini_transfer"));
    EXPECT_EQ(get("slot5/ini_status"), "0\n");
    EXPECT_EQ(get("port_map"), expected_card_lines(6, 4));
    ks_mgmt_slot_info_t info{};
    EXPECT_EQ(slot_info(5, info), KS_STATUS_FAILURE);
    EXPECT_EQ(ini_status_of(5), KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E);
}

TEST_F(KsSimTest, ResetOfAnEmptySlotSucceeds)
{
    EXPECT_EQ(ini_operation(1, KS_MGMT_SLOT_INI_OPERATION_RESET_E).status, KS_STATUS_SUCCESS);
    EXPECT_EQ(get("slot1/ini_status"), "0\n");
    EXPECT_FALSE(exists("port_map"));
}

// ---- slot control ----

TEST_F(KsSimTest, ActivateAndSoftResetAreOnlyRecorded)
{
    put("slot2/ini_identity", "3 2 5\n");
    put("slot2/ready", "1\n");
    ks_mgmt_slot_control_info_t control{KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E};
    EXPECT_EQ(ks_mgmt_slot_control_set(kHandle, 2, &control), KS_STATUS_SUCCESS);
    control.operation = KS_MGMT_SLOT_CONTROL_OPERATION_SOFT_RESET_E;
    EXPECT_EQ(ks_mgmt_slot_control_set(kHandle, 2, &control), KS_STATUS_SUCCESS);

    EXPECT_EQ(state_files(), (std::set<std::string>{"calls.log", "slot2/ini_identity", "slot2/ready"}));
    EXPECT_EQ(get("slot2/ini_identity"), "3 2 5\n");
    EXPECT_EQ(get("slot2/ready"), "1\n");
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_control_set slot=2 op=ACTIVATE\n"
                                "ks_mgmt_slot_control_set slot=2 op=SOFT_RESET\n");
}

TEST_F(KsSimTest, UnknownOperationsFail)
{
    ks_mgmt_slot_control_info_t control{};
    const int32_t bogus = 7;
    std::memcpy(&control.operation, &bogus, sizeof bogus);
    EXPECT_EQ(ks_mgmt_slot_control_set(kHandle, 1, &control), KS_STATUS_FAILURE);

    ks_mgmt_slot_ini_operation_result_t result{};
    EXPECT_EQ(ks_mgmt_slot_ini_operation_set(kHandle, 1, static_cast<ks_mgmt_slot_ini_operation_e>(3),
                                             &result),
              KS_STATUS_FAILURE);
    EXPECT_EQ(result.ini_oper_status, KS_MGMT_SLOT_INI_OPER_STATUS_ILLEGAL_E);
    EXPECT_EQ(get("calls.log"), "ks_mgmt_slot_control_set slot=1 op=7\n"
                                "ks_mgmt_slot_ini_operation_set slot=1 op=3\n");
    EXPECT_EQ(state_files(), (std::set<std::string>{"calls.log"}));
}

} // namespace
