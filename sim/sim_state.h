// Internal parts of the simulated switch SDK: the state directory, the file
// store and the text formats of the state files.  Not installed, not used
// outside sim/.
#ifndef KS_SIM_STATE_H
#define KS_SIM_STATE_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ks_sim {

constexpr unsigned kSlotCount = 8;
// State files are small text files; anything past this size is ignored.
constexpr std::size_t kMaxStateFileBytes = 1u << 20;
// At most this many logical ports for one module in module_split.
constexpr std::size_t kMaxSplitPorts = 8;
// Highest card type the SDK's card-type enumeration knows.
constexpr uint32_t kMaxCardType = 3;

// ---- state directory (sim_state.cpp) ----

// The one lock taken by every SDK call and by the hooks.
std::mutex &api_mutex();
// The state directory, without trailing slash.  Caller holds api_mutex().
const std::string &state_dir();
// Replaces the root (null or empty: none).  Caller holds api_mutex().
void set_root(const char *root);

std::string state_path(std::string_view name);
std::string slot_path(unsigned slot, std::string_view name);

// ---- file store (sim_state.cpp) ----

// Messages about I/O failures go to standard error, prefixed "ks-sim: ".
void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Reads a whole file (up to kMaxStateFileBytes).  False when it is missing
// or unreadable; `text` is then empty.
bool read_file(const std::string &path, std::string &text);
// Reads up to `want` bytes from the start of a file; returns the count read
// (0 when missing).
std::size_t read_prefix(const std::string &path, uint8_t *buffer, std::size_t want);
bool file_exists(const std::string &path);
// Replaces a file by writing PATH.tmp then renaming it over PATH, so that
// another process never sees half a file.  Creates directories on demand.
bool write_file_atomic(const std::string &path, std::string_view content);
// Appends with O_APPEND in one write; creates the file and its directories.
bool append_file(const std::string &path, std::string_view data);
// Removing a missing file is a success.
bool remove_file(const std::string &path);
bool rename_file(const std::string &from, const std::string &to);

// ---- text formats (sim_text.cpp) ----

struct IniIdentity {
    uint32_t card_type;   // 0..kMaxCardType
    uint32_t hw_revision; // 16-bit
    uint32_t minor;       // 16-bit
};

struct PortLine {
    uint32_t slot;        // 8-bit
    uint32_t module_port; // 8-bit, 0-based
    uint32_t local_port;  // 16-bit
    uint32_t width;       // 8-bit
    uint32_t log_port;    // 32-bit
};

struct SplitLine {
    uint32_t slot;
    uint32_t module;
    uint32_t log_ports[kMaxSplitPorts];
    std::size_t count;
};

// Splits text into lines without their line feeds (a final line without a
// line feed counts; a trailing line feed does not start an empty line).
std::vector<std::string_view> split_lines(std::string_view text);

// "CARD_TYPE HW_REVISION MINOR": false for "none", empty or malformed text.
bool parse_ini_identity(std::string_view text, IniIdentity &identity);
std::string format_ini_identity(const IniIdentity &identity);

// One decimal value 0..max, surrounding white space allowed.
bool parse_single_value(std::string_view text, uint32_t max, uint32_t &value);
// Queue of decimal values 0..max separated by white space; other tokens are
// dropped.
std::vector<uint32_t> parse_script(std::string_view text, uint32_t max);
// The values from index `first` on, separated by blanks, ending in a line feed.
std::string format_script(const std::vector<uint32_t> &values, std::size_t first);

bool parse_port_line(std::string_view line, PortLine &port);
std::string format_port_line(const PortLine &port);

bool parse_split_line(std::string_view line, SplitLine &split);

// True when a line of the fault list names `call` without a slot, or with
// `slot` (slot 0: the call has no slot, only the bare form applies).
bool fault_listed(std::string_view faults, std::string_view call, unsigned slot);

} // namespace ks_sim

#endif // KS_SIM_STATE_H
