// Text formats of the simulator's state files.
//
// All files are whitespace-separated decimal fields.  A parser never trusts
// its input: a field that is not a plain decimal number within the range of
// the SDK field it feeds makes the whole line (or file) malformed, and the
// caller then falls back to the file's default.

#include "sim_state.h"

#include <charconv>
#include <cstdio>

namespace ks_sim {

namespace {

constexpr uint32_t kMax8 = 0xFF;
constexpr uint32_t kMax16 = 0xFFFF;
constexpr uint32_t kMax32 = 0xFFFFFFFF;

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

// Hands out the white-space separated tokens of a text one by one.
class Tokens {
public:
    explicit Tokens(std::string_view text) : rest_(text) {}

    bool next(std::string_view &token)
    {
        std::size_t start = 0;
        while (start < rest_.size() && is_blank(rest_[start]))
            ++start;
        std::size_t end = start;
        while (end < rest_.size() && !is_blank(rest_[end]))
            ++end;
        token = rest_.substr(start, end - start);
        rest_.remove_prefix(end);
        return !token.empty();
    }

    bool at_end() const
    {
        Tokens copy = *this;
        std::string_view ignored;
        return !copy.next(ignored);
    }

private:
    std::string_view rest_;
};

// Plain unsigned decimal (no sign, no blanks) not above `max`.
bool parse_decimal(std::string_view token, uint32_t max, uint32_t &value)
{
    uint32_t parsed = 0;
    const char *end = token.data() + token.size();
    const auto [stop, error] = std::from_chars(token.data(), end, parsed, 10);
    if (token.empty() || error != std::errc() || stop != end || parsed > max)
        return false;
    value = parsed;
    return true;
}

// Exactly `count` decimal fields, each within its own maximum.
bool parse_fields(std::string_view text, std::size_t count, const uint32_t *max, uint32_t *values)
{
    Tokens tokens(text);
    std::string_view token;
    for (std::size_t i = 0; i < count; ++i) {
        if (!tokens.next(token) || !parse_decimal(token, max[i], values[i]))
            return false;
    }
    return tokens.at_end();
}

} // namespace

std::vector<std::string_view> split_lines(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t feed = text.find('\n');
        if (feed == std::string_view::npos) {
            lines.push_back(text);
            break;
        }
        lines.push_back(text.substr(0, feed));
        text.remove_prefix(feed + 1);
    }
    return lines;
}

bool parse_ini_identity(std::string_view text, IniIdentity &identity)
{
    static constexpr uint32_t max[3] = {kMaxCardType, kMax16, kMax16};
    uint32_t values[3] = {};
    if (!parse_fields(text, 3, max, values))
        return false;
    identity = IniIdentity{values[0], values[1], values[2]};
    return true;
}

std::string format_ini_identity(const IniIdentity &identity)
{
    char line[48];
    std::snprintf(line, sizeof line, "%u %u %u\n", identity.card_type, identity.hw_revision,
                  identity.minor);
    return line;
}

bool parse_single_value(std::string_view text, uint32_t max, uint32_t &value)
{
    return parse_fields(text, 1, &max, &value);
}

std::vector<uint32_t> parse_script(std::string_view text, uint32_t max)
{
    std::vector<uint32_t> values;
    Tokens tokens(text);
    std::string_view token;
    uint32_t value = 0;
    while (tokens.next(token)) {
        if (parse_decimal(token, max, value))
            values.push_back(value);
    }
    return values;
}

std::string format_script(const std::vector<uint32_t> &values, std::size_t first)
{
    std::string text;
    for (std::size_t i = first; i < values.size(); ++i) {
        if (i > first)
            text += ' ';
        text += std::to_string(values[i]);
    }
    text += '\n';
    return text;
}

bool parse_port_line(std::string_view line, PortLine &port)
{
    static constexpr uint32_t max[5] = {kMax8, kMax8, kMax16, kMax8, kMax32};
    uint32_t values[5] = {};
    if (!parse_fields(line, 5, max, values))
        return false;
    port = PortLine{values[0], values[1], values[2], values[3], values[4]};
    return true;
}

std::string format_port_line(const PortLine &port)
{
    char line[64];
    std::snprintf(line, sizeof line, "%u %u %u %u %u\n", port.slot, port.module_port,
                  port.local_port, port.width, port.log_port);
    return line;
}

bool parse_split_line(std::string_view line, SplitLine &split)
{
    Tokens tokens(line);
    std::string_view token;
    SplitLine parsed{};
    if (!tokens.next(token) || !parse_decimal(token, kMax8, parsed.slot))
        return false;
    if (!tokens.next(token) || !parse_decimal(token, kMax8, parsed.module))
        return false;
    std::size_t listed = 0;
    uint32_t log_port = 0;
    while (tokens.next(token)) {
        if (!parse_decimal(token, kMax32, log_port))
            return false;
        // A module has at most kMaxSplitPorts sub-ports; further ones are ignored.
        if (parsed.count < kMaxSplitPorts)
            parsed.log_ports[parsed.count++] = log_port;
        ++listed;
    }
    if (listed == 0)
        return false;
    split = parsed;
    return true;
}

bool fault_listed(std::string_view faults, std::string_view call, unsigned slot)
{
    for (std::string_view line : split_lines(faults)) {
        Tokens tokens(line);
        std::string_view name;
        std::string_view slot_token;
        if (!tokens.next(name) || name != call)
            continue;
        if (!tokens.next(slot_token))
            return true; // the call fails for every slot
        uint32_t fault_slot = 0;
        if (slot != 0 && tokens.at_end() && parse_decimal(slot_token, kMax8, fault_slot) &&
            fault_slot == slot)
            return true;
    }
    return false;
}

} // namespace ks_sim
