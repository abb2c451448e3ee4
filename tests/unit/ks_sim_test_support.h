// Shared fixture of the unit tests of the simulated switch SDK (library
// ks_sim): every test runs in its own temporary root, set with
// ks_sim_set_root, and drives the simulator through its state files exactly
// as the system tests and the tools do.
#ifndef CHMGR_KS_SIM_TEST_SUPPORT_H
#define CHMGR_KS_SIM_TEST_SUPPORT_H

#include "ks_api.h"
#include "ks_sim.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace chmgr_test {

namespace fs = std::filesystem;

inline constexpr ks_api_handle_t kHandle = 1;
inline constexpr uint8_t kGuardByte = 0xAB;

// An INI image: the 5-byte header followed by `size - 5` filler bytes.
inline std::vector<uint8_t> make_image(std::vector<uint8_t> header, std::size_t size)
{
    std::vector<uint8_t> image = std::move(header);
    for (std::size_t i = image.size(); i < size; ++i)
        image.push_back(static_cast<uint8_t>(i * 7));
    return image;
}

inline std::string as_text(const std::vector<uint8_t> &bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

// The port_map lines the firmware publishes for an unsplit card.
inline std::string expected_card_lines(unsigned slot, unsigned ports)
{
    std::string text;
    for (unsigned module = 0; module < ports; ++module) {
        const unsigned local = (slot - 1) * 16 + module + 1;
        text += std::to_string(slot) + " " + std::to_string(module) + " " +
                std::to_string(local) + " 4 " + std::to_string(local) + "\n";
    }
    return text;
}

class KsSimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/ks_sim_test.XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root_ = pattern;
        dir_ = root_ + "/var/run/ks-sim";
        ks_sim_set_root(root_.c_str());
    }

    void TearDown() override
    {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }

    // Writes a state file (relative to the state directory) the way tests
    // and tools do: NAME.tmp, then rename.
    void put(const std::string &name, std::string_view content)
    {
        const fs::path path = fs::path(dir_) / name;
        fs::create_directories(path.parent_path());
        const fs::path temp = path.string() + ".tmp";
        {
            std::ofstream out(temp, std::ios::binary | std::ios::trunc);
            out.write(content.data(), static_cast<std::streamsize>(content.size()));
        }
        fs::rename(temp, path);
    }

    // Content of a state file, or "<missing>".
    std::string get(const std::string &name) const
    {
        std::ifstream in(fs::path(dir_) / name, std::ios::binary);
        if (!in)
            return "<missing>";
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    bool exists(const std::string &name) const { return fs::exists(fs::path(dir_) / name); }

    void erase(const std::string &name) const { fs::remove(fs::path(dir_) / name); }

    // Every regular file under the state directory, relative, sorted.
    std::set<std::string> state_files() const
    {
        std::set<std::string> files;
        if (!fs::exists(dir_))
            return files;
        for (const auto &entry : fs::recursive_directory_iterator(dir_)) {
            if (entry.is_regular_file())
                files.insert(fs::relative(entry.path(), dir_).string());
        }
        return files;
    }

    static ks_status_t slot_info(uint8_t slot, ks_mgmt_slot_info_t &info)
    {
        uint32_t size = 1;
        return ks_mgmt_slot_info_get(kHandle, &slot, &info, &size);
    }

    static int ready_of(uint8_t slot)
    {
        ks_mgmt_slot_info_t info{};
        EXPECT_EQ(slot_info(slot, info), KS_STATUS_SUCCESS);
        return info.slot_description.slot_state_info.is_slot_card_ready;
    }

    static ks_status_t split_get(uint8_t slot, uint8_t module, uint8_t split, uint8_t width,
                                 ks_mgmt_phy_module_split_info_t &info)
    {
        const ks_mgmt_module_id_info_t module_id{slot, module};
        const ks_mgmt_phy_module_split_params_t params{split, width};
        return ks_mgmt_phy_module_split_get(kHandle, &module_id, &params, &info);
    }

    static ks_status_t ini_status_query(uint8_t slot, ks_mgmt_slot_ini_transfer_result_t &result)
    {
        ks_mgmt_slot_ini_data_t chunk{};
        return ks_mgmt_slot_ini_data_set(kHandle, slot, &chunk, &result);
    }

    static int ini_status_of(uint8_t slot)
    {
        ks_mgmt_slot_ini_transfer_result_t result{};
        EXPECT_EQ(ini_status_query(slot, result), KS_STATUS_SUCCESS);
        return result.ini_status;
    }

    static ks_status_t send_chunk(uint8_t slot, const uint8_t *data, uint32_t size, bool last,
                                  ks_mgmt_slot_ini_transfer_result_t &result)
    {
        ks_mgmt_slot_ini_data_t chunk{};
        std::memcpy(chunk.ini_data, data, size);
        chunk.ini_data_size = size;
        chunk.is_last_chunk = last ? 1 : 0;
        return ks_mgmt_slot_ini_data_set(kHandle, slot, &chunk, &result);
    }

    // Sends an image in chunks of 512 bytes, the last one marked.
    static void transfer(uint8_t slot, const std::vector<uint8_t> &image)
    {
        std::size_t offset = 0;
        while (offset < image.size()) {
            const std::size_t size = std::min<std::size_t>(512, image.size() - offset);
            const bool last = offset + size == image.size();
            ks_mgmt_slot_ini_transfer_result_t result{};
            ASSERT_EQ(send_chunk(slot, image.data() + offset, static_cast<uint32_t>(size), last,
                                 result),
                      KS_STATUS_SUCCESS);
            offset += size;
        }
    }

    // INI operation with a caller list of `capacity` port records.
    struct Operation {
        ks_status_t status;
        ks_mgmt_slot_ini_operation_result_t result;
        std::vector<ks_port_attributes_t> ports;
    };

    static Operation ini_operation(uint8_t slot, ks_mgmt_slot_ini_operation_e operation,
                                   uint32_t capacity = 128)
    {
        Operation op{};
        // One record more than announced, to see that it stays untouched.
        op.ports.resize(capacity + 1);
        std::memset(op.ports.data(), kGuardByte, op.ports.size() * sizeof(ks_port_attributes_t));
        op.result.slot_state_info.slot_id = slot;
        op.result.port_info.port_attr_list_size = capacity;
        op.result.port_info.port_attr_list_p = op.ports.data();
        op.status = ks_mgmt_slot_ini_operation_set(kHandle, slot, operation, &op.result);
        return op;
    }

    // True when every byte of a guard-filled object is still the guard byte.
    template <typename T>
    static bool untouched(const T &object)
    {
        const auto *bytes = reinterpret_cast<const uint8_t *>(&object);
        return std::all_of(bytes, bytes + sizeof object, [](uint8_t b) { return b == kGuardByte; });
    }

    static std::vector<ks_port_attributes_t> port_mapping(ks_device_id_t device, uint32_t capacity,
                                                          ks_status_t &status, uint32_t &count)
    {
        std::vector<ks_port_attributes_t> ports(capacity + 1);
        std::memset(ports.data(), kGuardByte, ports.size() * sizeof(ks_port_attributes_t));
        count = capacity;
        status = ks_api_port_device_mapping_get(kHandle, device, ports.data(), &count);
        return ports;
    }

    std::string root_;
    std::string dir_;
};

}  // namespace chmgr_test

#endif  // CHMGR_KS_SIM_TEST_SUPPORT_H
