// Simulated switch SDK: the calls of sdk/ks_api.h over plain state files.
//
// The simulated firmware keeps nothing in memory: every call re-reads the
// files under the state directory (see docs/simulator.md), so tests and tools
// may change them between calls from any process.  One process-wide lock
// serialises the calls, which keeps the call log in call order and makes the
// read-modify-write of script queues and of the port map safe between the
// daemon's threads.

#include "ks_api.h"
#include "ks_sim.h"
#include "sim_state.h"

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace ks_sim;

namespace {

using Guard = std::lock_guard<std::mutex>;

constexpr ks_api_handle_t kOpenHandle = 1;
constexpr ks_device_id_t kPortDevice = 1;
constexpr std::size_t kIniHeaderBytes = 5;
// Local ports are numbered in blocks of 16 per slot, from 1.
constexpr uint32_t kLocalPortsPerSlot = 16;
constexpr uint32_t kUnsplitWidth = 4;
constexpr uint32_t kLocalPortMask = 0x3FF;

constexpr char kCallOpen[] = "ks_api_open";
constexpr char kCallSlotInfo[] = "ks_mgmt_slot_info_get";
constexpr char kCallControl[] = "ks_mgmt_slot_control_set";
constexpr char kCallIniOperation[] = "ks_mgmt_slot_ini_operation_set";
constexpr char kCallIniData[] = "ks_mgmt_slot_ini_data_set";
constexpr char kCallPortMapping[] = "ks_api_port_device_mapping_get";
constexpr char kCallModuleSplit[] = "ks_mgmt_phy_module_split_get";

bool valid_slot(unsigned slot)
{
    return slot >= 1 && slot <= kSlotCount;
}

// ---- call log and fault injection ----

bool fault_injected(std::string_view call, unsigned slot)
{
    std::string faults;
    return read_file(state_path("faults"), faults) && fault_listed(faults, call, slot);
}

void record_call(std::string line, bool faulted)
{
    if (faulted)
        line += " -> fault";
    line += '\n';
    append_file(state_path("calls.log"), line);
}

std::string slot_call(const char *call, unsigned slot)
{
    return std::string(call) + " slot=" + std::to_string(slot);
}

// How often a blocked call looks whether it may go on.
constexpr std::chrono::milliseconds kBlockedPoll{5};

// A call listed in `blocked` (same lines as `faults`) waits, before it does
// anything, until its line (or the file) is gone, like an SDK call that never
// returns.  It logs "CALL slot=N -> blocked" once when it starts waiting, and
// its usual line when it goes on.  The simulator's lock is not held while it
// waits, so other calls go on.
void wait_while_blocked(const char *call, unsigned slot)
{
    bool logged = false;
    for (;;) {
        {
            Guard guard(api_mutex());
            std::string blocked;
            if (!read_file(state_path("blocked"), blocked) || !fault_listed(blocked, call, slot))
                return;
            if (!logged)
                record_call((slot ? slot_call(call, slot) : std::string(call)) + " -> blocked", false);
            logged = true;
        }
        std::this_thread::sleep_for(kBlockedPoll);
    }
}

// ---- per-slot state ----

bool load_identity(unsigned slot, IniIdentity &identity)
{
    std::string text;
    return read_file(slot_path(slot, "ini_identity"), text) && parse_ini_identity(text, identity);
}

// Value of a one-number file; 0 when the file is missing or malformed.
uint32_t stored_value(unsigned slot, std::string_view name, uint32_t max)
{
    std::string text;
    uint32_t value = 0;
    if (read_file(slot_path(slot, name), text) && parse_single_value(text, max, value))
        return value;
    return 0;
}

// First value of a script queue.  With `consume` the value leaves the queue,
// and the file goes away once the queue is empty; without it (a faulted call)
// nothing changes.
bool script_value(unsigned slot, std::string_view name, uint32_t max, bool consume,
                  uint32_t &value)
{
    const std::string path = slot_path(slot, name);
    std::string text;
    if (!read_file(path, text))
        return false;
    const std::vector<uint32_t> queue = parse_script(text, max);
    if (queue.empty()) {
        if (consume)
            remove_file(path);
        return false;
    }
    value = queue.front();
    if (consume) {
        if (queue.size() == 1)
            remove_file(path);
        else
            write_file_atomic(path, format_script(queue, 1));
    }
    return true;
}

bool card_ready(unsigned slot, bool consume)
{
    uint32_t ready = 0;
    if (!script_value(slot, "ready_script", 1, consume, ready))
        ready = stored_value(slot, "ready", 1);
    return ready == 1;
}

ks_mgmt_slot_ini_status_e ini_status(unsigned slot, bool consume)
{
    constexpr uint32_t max = KS_MGMT_SLOT_INI_STATUS_IN_USE_E;
    uint32_t status = 0;
    if (!script_value(slot, "ini_status_script", max, consume, status))
        status = stored_value(slot, "ini_status", max);
    return static_cast<ks_mgmt_slot_ini_status_e>(status);
}

bool set_ini_status(unsigned slot, ks_mgmt_slot_ini_status_e status)
{
    return write_file_atomic(slot_path(slot, "ini_status"), std::to_string(status) + "\n");
}

// ---- port map ----

std::vector<PortLine> load_port_map()
{
    std::string text;
    read_file(state_path("port_map"), text);
    std::vector<PortLine> ports;
    PortLine port{};
    for (std::string_view line : split_lines(text)) {
        if (parse_port_line(line, port))
            ports.push_back(port);
    }
    return ports;
}

uint32_t card_port_count(uint32_t card_type)
{
    switch (card_type) {
    case KS_MGMT_SLOT_CARD_TYPE_KTR_4_400G_E:
        return 4;
    case KS_MGMT_SLOT_CARD_TYPE_KTR_8_200G_E:
        return 8;
    case KS_MGMT_SLOT_CARD_TYPE_KTR_16_100G_E:
        return 16;
    default:
        return 0;
    }
}

// The ports a card of this type brings in this slot: unsplit modules, one
// port each, the logical port equal to the local port.
std::vector<PortLine> card_ports(unsigned slot, uint32_t card_type)
{
    std::vector<PortLine> ports;
    for (uint32_t module = 0; module < card_port_count(card_type); ++module) {
        const uint32_t local = (slot - 1) * kLocalPortsPerSlot + module + 1;
        ports.push_back(PortLine{slot, module, local, kUnsplitWidth, local});
    }
    return ports;
}

// Replaces the slot's lines of port_map by `ports` (none: the slot's lines go
// away).  The new block goes before the first line of a higher slot, so a
// file kept in slot order stays so; every other line is kept as it is.
bool replace_slot_ports(unsigned slot, const std::vector<PortLine> &ports)
{
    const std::string path = state_path("port_map");
    std::string text;
    read_file(path, text);
    std::string block;
    for (const PortLine &port : ports)
        block += format_port_line(port);

    std::string rewritten;
    bool changed = !ports.empty();
    bool inserted = false;
    PortLine port{};
    for (std::string_view line : split_lines(text)) {
        const bool parsed = parse_port_line(line, port);
        if (parsed && port.slot == slot) {
            changed = true;
            continue;
        }
        if (parsed && port.slot > slot && !inserted) {
            rewritten += block;
            inserted = true;
        }
        rewritten.append(line);
        rewritten += '\n';
    }
    if (!inserted)
        rewritten += block;
    return !changed || write_file_atomic(path, rewritten);
}

void to_port_attributes(const PortLine &port, ks_port_attributes_t &attributes)
{
    std::memset(&attributes, 0, sizeof attributes);
    attributes.port_mapping.slot = static_cast<uint8_t>(port.slot);
    attributes.port_mapping.module_port = static_cast<uint8_t>(port.module_port);
    attributes.port_mapping.local_port = static_cast<uint16_t>(port.local_port);
    attributes.port_mapping.width = static_cast<uint8_t>(port.width);
    attributes.log_port = port.log_port;
}

// Fills the caller's port list with the slot's ports, never more than it holds.
void report_slot_ports(unsigned slot, ks_mgmt_slot_port_info_t &port_info)
{
    port_info.port_count = 0;
    if (port_info.port_attr_list_p == nullptr)
        return;
    for (const PortLine &port : load_port_map()) {
        if (port_info.port_count >= port_info.port_attr_list_size)
            break;
        if (port.slot == slot)
            to_port_attributes(port, port_info.port_attr_list_p[port_info.port_count++]);
    }
}

// ---- slot description ----

const char *card_name(uint32_t card_type)
{
    switch (card_type) {
    case KS_MGMT_SLOT_CARD_TYPE_KTR_4_400G_E:
        return "KTR9600-C4";
    case KS_MGMT_SLOT_CARD_TYPE_KTR_16_100G_E:
        return "KTR9600-C16";
    default:
        return "";
    }
}

// One slot of a slot-info query.  A slot without an INI identity (or a
// faulted query) gets a record holding only its slot id and fails.
bool query_slot_info(ks_slot_id_t slot, ks_mgmt_slot_info_t &info)
{
    const bool faulted = fault_injected(kCallSlotInfo, slot);
    record_call(slot_call(kCallSlotInfo, slot), faulted);

    std::memset(&info, 0, sizeof info);
    info.slot_id = slot;
    ks_mgmt_slot_description_t &description = info.slot_description;
    description.slot_state_info.slot_id = slot;
    IniIdentity identity{};
    if (faulted || !valid_slot(slot) || !load_identity(slot, identity))
        return false;

    description.slot_card_type = static_cast<ks_mgmt_slot_card_type_e>(identity.card_type);
    std::strncpy(description.slot_card_name, card_name(identity.card_type),
                 sizeof description.slot_card_name - 1);
    description.slot_card_ini_info.slot_card_hw_revision =
        static_cast<uint16_t>(identity.hw_revision);
    description.slot_card_ini_info.slot_card_minor_ini_version =
        static_cast<uint16_t>(identity.minor);
    description.slot_state_info.is_slot_card_valid = 1;
    description.slot_state_info.is_slot_card_ready = card_ready(slot, true) ? 1 : 0;
    return true;
}

// ---- INI operations ----

// Identity from the image header: bytes 0-1 minor version (little-endian),
// bytes 2-3 hardware revision (big-endian), byte 4 card type minus one.
IniIdentity identity_from_header(const uint8_t (&header)[kIniHeaderBytes])
{
    IniIdentity identity{};
    identity.minor = static_cast<uint32_t>(header[0] | (header[1] << 8));
    identity.hw_revision = static_cast<uint32_t>((header[2] << 8) | header[3]);
    identity.card_type = static_cast<uint32_t>(header[4]) + 1;
    return identity;
}

bool apply_ini(unsigned slot, ks_mgmt_slot_ini_operation_result_t &result)
{
    uint8_t header[kIniHeaderBytes] = {};
    const std::size_t got = read_prefix(slot_path(slot, "ini_image"), header, sizeof header);
    const IniIdentity identity = identity_from_header(header);
    // No image, a truncated one, or a card type the firmware does not know.
    const bool usable = got == kIniHeaderBytes && identity.card_type <= kMaxCardType;
    if (!usable || !write_file_atomic(slot_path(slot, "ini_identity"),
                                      format_ini_identity(identity))) {
        result.ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_ACTIVATION_ERROR_E;
        return false;
    }
    set_ini_status(slot, KS_MGMT_SLOT_INI_STATUS_IN_USE_E);
    if (!file_exists(state_path("manual_ports")))
        replace_slot_ports(slot, card_ports(slot, identity.card_type));
    result.ini_status = KS_MGMT_SLOT_INI_STATUS_IN_USE_E;
    result.ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_IDLE_E;
    report_slot_ports(slot, result.port_info);
    return true;
}

bool reset_ini(unsigned slot, ks_mgmt_slot_ini_operation_result_t &result)
{
    bool erased = remove_file(slot_path(slot, "ini_identity"));
    erased = remove_file(slot_path(slot, "ini_image")) && erased;
    erased = remove_file(slot_path(slot, "ini_transfer")) && erased;
    erased = set_ini_status(slot, KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E) && erased;
    if (!file_exists(state_path("manual_ports")))
        erased = replace_slot_ports(slot, {}) && erased;
    result.ini_status = KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E;
    result.ini_oper_status = erased ? KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_COMPLETE_E
                                    : KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_FAILED_E;
    return erased;
}

const char *ini_operation_name(int operation)
{
    switch (operation) {
    case KS_MGMT_SLOT_INI_OPERATION_RESET_E:
        return "RESET";
    case KS_MGMT_SLOT_INI_OPERATION_APPLY_E:
        return "APPLY";
    default:
        return nullptr;
    }
}

const char *control_operation_name(int operation)
{
    switch (operation) {
    case KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E:
        return "ACTIVATE";
    case KS_MGMT_SLOT_CONTROL_OPERATION_SOFT_RESET_E:
        return "SOFT_RESET";
    default:
        return nullptr;
    }
}

// "op=NAME", or the number for an operation the SDK does not define.
std::string operation_text(const char *name, int operation)
{
    return std::string(" op=") + (name != nullptr ? name : std::to_string(operation));
}

// ---- INI transfer ----

bool transfer_chunk(unsigned slot, const uint8_t *data, uint32_t size, bool last,
                    ks_mgmt_slot_ini_transfer_result_t &result)
{
    const std::string transfer = slot_path(slot, "ini_transfer");
    const std::string_view chunk(reinterpret_cast<const char *>(data), size);
    if (!append_file(transfer, chunk) ||
        (last && !rename_file(transfer, slot_path(slot, "ini_image")))) {
        result.ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_FAILED_E;
        return false;
    }
    result.ini_status = KS_MGMT_SLOT_INI_STATUS_VALID_E;
    result.ini_oper_status = last ? KS_MGMT_SLOT_INI_OPER_STATUS_READY_TO_APPLY_E
                                  : KS_MGMT_SLOT_INI_OPER_STATUS_READY_FOR_NEXT_TRANSFER_E;
    return true;
}

ks_status_t status_of(bool ok)
{
    return ok ? KS_STATUS_SUCCESS : KS_STATUS_FAILURE;
}

} // namespace

// ---- SDK calls ----

extern "C" ks_status_t ks_api_open(ks_log_cb_t log_cb, ks_api_handle_t *handle)
{
    (void)log_cb; // diagnostics go to standard error
    if (handle == nullptr)
        return KS_STATUS_FAILURE;
    wait_while_blocked(kCallOpen, 0);
    Guard guard(api_mutex());
    const bool faulted = fault_injected(kCallOpen, 0);
    record_call(kCallOpen, faulted);
    *handle = faulted ? 0 : kOpenHandle;
    return status_of(!faulted);
}

extern "C" ks_status_t ks_mgmt_slot_info_get(ks_api_handle_t handle,
                                             const ks_slot_id_t *slot_id_list,
                                             ks_mgmt_slot_info_t *slot_info_list,
                                             uint32_t *list_size)
{
    (void)handle;
    if (slot_id_list == nullptr || slot_info_list == nullptr || list_size == nullptr)
        return KS_STATUS_FAILURE;
    for (uint32_t i = 0; i < *list_size; ++i)
        wait_while_blocked(kCallSlotInfo, slot_id_list[i]);
    Guard guard(api_mutex());
    bool all_ok = true;
    for (uint32_t i = 0; i < *list_size; ++i)
        all_ok = query_slot_info(slot_id_list[i], slot_info_list[i]) && all_ok;
    return status_of(all_ok);
}

extern "C" ks_status_t ks_mgmt_slot_control_set(ks_api_handle_t handle, ks_slot_id_t slot_id,
                                                const ks_mgmt_slot_control_info_t *control_info)
{
    (void)handle;
    if (control_info == nullptr)
        return KS_STATUS_FAILURE;
    // Read as a plain integer: the caller's field may hold any value.
    int32_t operation = 0;
    static_assert(sizeof operation == sizeof control_info->operation);
    std::memcpy(&operation, &control_info->operation, sizeof operation);
    const char *name = control_operation_name(operation);

    wait_while_blocked(kCallControl, slot_id);
    Guard guard(api_mutex());
    const bool faulted = fault_injected(kCallControl, slot_id);
    record_call(slot_call(kCallControl, slot_id) + operation_text(name, operation), faulted);
    // The simulated card has nothing to do: the call log is the whole effect.
    return status_of(!faulted && name != nullptr && valid_slot(slot_id));
}

extern "C" ks_status_t ks_mgmt_slot_ini_operation_set(ks_api_handle_t handle,
                                                      ks_slot_id_t slot_id,
                                                      ks_mgmt_slot_ini_operation_e operation,
                                                      ks_mgmt_slot_ini_operation_result_t *result)
{
    (void)handle;
    if (result == nullptr)
        return KS_STATUS_FAILURE;
    const int op = static_cast<int>(operation);
    const char *name = ini_operation_name(op);

    wait_while_blocked(kCallIniOperation, slot_id);
    Guard guard(api_mutex());
    const bool faulted = fault_injected(kCallIniOperation, slot_id);
    record_call(slot_call(kCallIniOperation, slot_id) + operation_text(name, op), faulted);

    std::memset(&result->slot_state_info, 0, sizeof result->slot_state_info);
    result->slot_state_info.slot_id = slot_id;
    result->port_info.port_count = 0;
    if (!valid_slot(slot_id) || name == nullptr) {
        result->ini_status = KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E;
        result->ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_ILLEGAL_E;
        return KS_STATUS_FAILURE;
    }
    // Until the operation succeeds the slot keeps its current status.
    result->ini_status = ini_status(slot_id, false);
    if (faulted) {
        result->ini_oper_status = op == KS_MGMT_SLOT_INI_OPERATION_APPLY_E
                                      ? KS_MGMT_SLOT_INI_OPER_STATUS_ACTIVATION_ERROR_E
                                      : KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_FAILED_E;
        return KS_STATUS_FAILURE;
    }
    if (op == KS_MGMT_SLOT_INI_OPERATION_APPLY_E)
        return status_of(apply_ini(slot_id, *result));
    return status_of(reset_ini(slot_id, *result));
}

extern "C" ks_status_t ks_mgmt_slot_ini_data_set(ks_api_handle_t handle, ks_slot_id_t slot_id,
                                                 const ks_mgmt_slot_ini_data_t *ini_data,
                                                 ks_mgmt_slot_ini_transfer_result_t *result)
{
    (void)handle;
    if (ini_data == nullptr || result == nullptr)
        return KS_STATUS_FAILURE;
    const uint32_t size = ini_data->ini_data_size;
    const bool last = ini_data->is_last_chunk != 0;

    wait_while_blocked(kCallIniData, slot_id);
    Guard guard(api_mutex());
    const bool faulted = fault_injected(kCallIniData, slot_id);
    record_call(slot_call(kCallIniData, slot_id) + " size=" + std::to_string(size) +
                    " last=" + (last ? "1" : "0"),
                faulted);
    if (!valid_slot(slot_id)) {
        result->ini_status = KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E;
        result->ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_ILLEGAL_E;
        return KS_STATUS_FAILURE;
    }
    // An empty chunk transfers nothing: it is the INI status query, and the
    // only kind of call that takes a value off the status script.
    const bool query = size == 0;
    result->ini_status = ini_status(slot_id, query && !faulted);
    result->ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_IDLE_E;
    if (query)
        return status_of(!faulted);
    if (size > KS_MGMT_SLOT_INI_DATA_MAX) {
        result->ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_INI_ERROR_E;
        return KS_STATUS_FAILURE;
    }
    if (faulted) {
        result->ini_oper_status = KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_FAILED_E;
        return KS_STATUS_FAILURE;
    }
    return status_of(transfer_chunk(slot_id, ini_data->ini_data, size, last, *result));
}

extern "C" ks_status_t ks_api_port_device_mapping_get(ks_api_handle_t handle,
                                                      ks_device_id_t device_id,
                                                      ks_port_attributes_t *port_attr_list,
                                                      uint32_t *port_cnt)
{
    (void)handle;
    if (port_attr_list == nullptr || port_cnt == nullptr)
        return KS_STATUS_FAILURE;
    wait_while_blocked(kCallPortMapping, 0);
    Guard guard(api_mutex());
    const bool faulted = fault_injected(kCallPortMapping, 0);
    record_call(std::string(kCallPortMapping) + " device=" + std::to_string(device_id), faulted);

    const uint32_t capacity = *port_cnt;
    *port_cnt = 0;
    if (faulted)
        return KS_STATUS_FAILURE;
    if (device_id != kPortDevice)
        return KS_STATUS_SUCCESS; // the chassis has one switch device
    for (const PortLine &port : load_port_map()) {
        if (*port_cnt >= capacity)
            break;
        to_port_attributes(port, port_attr_list[(*port_cnt)++]);
    }
    return KS_STATUS_SUCCESS;
}

extern "C" ks_status_t ks_mgmt_phy_module_split_get(ks_api_handle_t handle,
                                                    const ks_mgmt_module_id_info_t *module_id,
                                                    const ks_mgmt_phy_module_split_params_t *split_params,
                                                    ks_mgmt_phy_module_split_info_t *split_info)
{
    (void)handle;
    if (module_id == nullptr || split_params == nullptr || split_info == nullptr)
        return KS_STATUS_FAILURE;
    const unsigned slot = module_id->slot_id;
    const unsigned module = module_id->module_id;

    wait_while_blocked(kCallModuleSplit, slot);
    Guard guard(api_mutex());
    const bool faulted = fault_injected(kCallModuleSplit, slot);
    record_call(slot_call(kCallModuleSplit, slot) + " module=" + std::to_string(module) +
                    " split=" + std::to_string(split_params->split_num) +
                    " width=" + std::to_string(split_params->port_width),
                faulted);
    std::memset(split_info, 0, sizeof *split_info);
    if (faulted || !valid_slot(slot))
        return KS_STATUS_FAILURE;

    std::string text;
    read_file(state_path("module_split"), text);
    SplitLine split{};
    for (std::string_view line : split_lines(text)) {
        if (!parse_split_line(line, split) || split.slot != slot || split.module != module)
            continue;
        for (std::size_t k = 0; k < split.count; ++k) {
            ks_port_attributes_t &port = split_info->port_attribs_list[k];
            port.log_port = split.log_ports[k];
            port.port_mapping.slot = static_cast<uint8_t>(slot);
            port.port_mapping.module_port = static_cast<uint8_t>(module);
            port.port_mapping.local_port = static_cast<uint16_t>(split.log_ports[k] & kLocalPortMask);
            port.port_mapping.width = split_params->port_width;
        }
        return KS_STATUS_SUCCESS;
    }
    return KS_STATUS_FAILURE; // the module is not split that way
}

// ---- simulator hooks ----

extern "C" void ks_sim_set_root(const char *root)
{
    Guard guard(api_mutex());
    set_root(root);
}

extern "C" const char *ks_sim_state_dir(void)
{
    Guard guard(api_mutex());
    return state_dir().c_str();
}
