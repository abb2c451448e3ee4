/*
 * chmgrctl: a slot as the operator sees it (see ctl_slot_view.h).
 */
#include "ctl_slot_view.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <optional>
#include <string_view>

#include "json.h"

namespace chmgrctl {

namespace {

struct StageInfo {
    const char *name;       // as shown
    const char *state_bit;  // as the daemon's state text names it
    double fixed_wait_s;    // fixed waits of the step that runs while the card is at this stage
};

/* The verified step waits one second for the power request to settle; the
 * ready step waits 30 s after the first enable, 15 s after the second and
 * 5 s after the reset before it polls the card. */
constexpr StageInfo kStages[kStageCount] = {
    {"PRESENT", "SLOT_PRESENT |", 0},  {"VERIFIED", "SLOT_VERIFIED |", 1}, {"POWERED", "SLOT_POWERED |", 0},
    {"SYNCED", "SLOT_SYNCED |", 0},    {"READY", "SLOT_READY |", 50},      {"ACTIVE", "SLOT_ACTIVE |", 0},
};

constexpr std::string_view kTransitioned = "Transitioned from ";
constexpr std::string_view kUnsupported = "Unsupported line card inserted(vpd_value = ";
constexpr std::string_view kMismatch = "Different card inserted than what is pre-provisioned";
constexpr std::string_view kWaitReload = "Transitioned to WAIT_RELOAD_PORTD";
constexpr std::string_view kHolding = "Holding reload because of this slot ";
constexpr std::string_view kNoIni = "Not able to find compatible INI";
/* The INI transfer's failures: the card never gets an INI to run. */
constexpr std::string_view kIniProgrammingFailed[] = {"Unable to program INI file", "Unable to apply INI",
                                                     "Unable to open ini file"};
/* What a failed reload of portd leaves in the daemon-wide log. */
constexpr std::string_view kPortdReloadFailed[] = {"process systemctl reload portd exited with ",
                                                  "Unable to launch systemctl reload portd"};
/* The reloads of portd a slot's own log records. */
constexpr std::string_view kPortdReloaded[] = {"portd reloaded", "Reloaded portd"};
/* A pre-provisioning's INI check names the provisioned type:
 * "INI in slot FW: ...,: From eeprom card type = N" (without the
 * ", HW revision = " of a card's check). */
constexpr std::string_view kIniInSlot = "INI in slot FW: ";
constexpr std::string_view kFromEepromType = ": From eeprom card type = ";

std::string member_string(JsonNode *object, const char *name) {
    JsonNode *value = object ? json_find_member(object, name) : nullptr;
    return value && value->tag == JSON_STRING ? value->string_ : "";
}

bool member_bool(JsonNode *object, const char *name) {
    JsonNode *value = object ? json_find_member(object, name) : nullptr;
    return value && value->tag == JSON_BOOL && value->bool_;
}

long long member_number(JsonNode *object, const char *name) {
    JsonNode *value = object ? json_find_member(object, name) : nullptr;
    return value && value->tag == JSON_NUMBER ? (long long)value->number_ : 0;
}

std::string without_line_feed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

std::vector<std::string> log_lines(JsonNode *object) {
    std::vector<std::string> out;
    JsonNode *lines = object ? json_find_member(object, "Log") : nullptr;
    if (!lines || lines->tag != JSON_ARRAY) return out;
    for (JsonNode *line = json_first_child(lines); line; line = line->next)
        if (line->tag == JSON_STRING) out.push_back(without_line_feed(line->string_));
    return out;
}

std::vector<RingLine> parsed_lines(const std::vector<std::string> &texts) {
    std::vector<RingLine> lines;
    for (const std::string &text : texts) {
        RingLine line;
        if (parse_ring_line(text, &line)) lines.push_back(line);
    }
    return lines;
}

void read_state(const std::string &state, SlotView *view) {
    view->state_text = state;
    while (!view->state_text.empty() && view->state_text.back() == ' ') view->state_text.pop_back();
    for (int i = 0; i < kStageCount; ++i)
        if (state.find(kStages[i].state_bit) != std::string::npos) view->stage_bits |= 1u << i;
    view->stuck = state.find("ERR") != std::string::npos;
    if (!(view->stage_bits & 1u)) return;  // no card: a synced slot keeps its bit
    for (int i = kStageCount - 1; i >= 0; --i) {
        bool reached = view->stage_bits & (1u << i);
        /* A slot keeps SYNCED from an earlier card or a pre-provisioning:
         * it says where the card is only once the card is powered. */
        if (i == STAGE_SYNCED && !(view->stage_bits & (1u << STAGE_POWERED))) reached = false;
        if (reached) {
            view->stage = (Stage)i;
            return;
        }
    }
}

/* The messages of the current card: those after its last "to SLOT_PRESENT". */
std::vector<RingLine> current_card_lines(const SlotView &view) {
    std::vector<RingLine> lines;
    for (const std::string &text : view.log) {
        RingLine line;
        if (!parse_ring_line(text, &line)) continue;
        bool empty = false;
        if (transition_stage(line.message, &empty) == STAGE_PRESENT || empty) lines.clear();
        lines.push_back(line);
    }
    return lines;
}

std::string part_number(const std::vector<RingLine> &lines) {
    for (auto it = lines.rbegin(); it != lines.rend(); ++it)
        if (it->message.rfind(kUnsupported, 0) == 0) {
            std::string part = it->message.substr(kUnsupported.size());
            if (!part.empty() && part.back() == ')') part.pop_back();
            return part;
        }
    return "";
}

bool has_message(const std::vector<RingLine> &lines, std::string_view prefix) {
    for (const RingLine &line : lines)
        if (line.message.rfind(prefix, 0) == 0) return true;
    return false;
}

/* The last line whose message starts with one of `prefixes`, if any. */
template <size_t N>
std::optional<RingLine> last_message(const std::vector<RingLine> &lines, const std::string_view (&prefixes)[N]) {
    for (auto it = lines.rbegin(); it != lines.rend(); ++it)
        for (std::string_view prefix : prefixes)
            if (it->message.rfind(prefix, 0) == 0) return *it;
    return std::nullopt;
}

/* The lines from the card's last verification on: an INI check that failed
 * before an enable took the card through its bring-up again is history. */
std::vector<RingLine> since_last_verification(const std::vector<RingLine> &lines) {
    for (size_t i = lines.size(); i-- > 0;) {
        bool empty = false;
        if (transition_stage(lines[i].message, &empty) == STAGE_VERIFIED)
            return std::vector<RingLine>(lines.begin() + (long)i, lines.end());
    }
    return lines;
}

/* The slot holding the portd reload that a slot parked at `since` waits
 * for: the last "Holding reload" line of the daemon-wide log since then. */
std::string reload_holder(const std::vector<RingLine> &daemon_log, double since) {
    for (auto it = daemon_log.rbegin(); it != daemon_log.rend() && it->epoch >= since; ++it)
        if (it->message.rfind(kHolding, 0) == 0) return it->message.substr(kHolding.size());
    return "";
}

void find_stage_start(const std::vector<RingLine> &lines, SlotView *view) {
    for (const RingLine &line : lines) {
        bool empty = false;
        if (transition_stage(line.message, &empty) != STAGE_NONE || empty) {
            view->stage_since = line.epoch;
            view->stage_since_clock = line.clock;
        }
    }
}

std::string other_card_type(const std::string &card) { return card == "C4" ? "C16" : card == "C16" ? "C4" : "?"; }

std::string waiting_reason(const std::vector<RingLine> &lines, const SlotView &view, const SlotContext &context) {
    std::string since = view.stage_since_clock.empty() ? "" : " since " + view.stage_since_clock;
    /* The ready step runs with the READY bit already set and still awaits
     * "ready" until its fixed waits and polls are over. */
    if (view.stage == STAGE_READY && view.awaited_event == "ready")
        return "in the ready step (enable, gearbox update, reset)" + since;
    bool known = !view.awaited_event.empty() && view.awaited_event != "none" && view.awaited_event != "empty";
    if (known) return "waiting for " + view.awaited_event + since;
    for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
        if (it->message.rfind(kWaitReload, 0) != 0) continue;
        /* Parked: the holder is named in the daemon-wide log. */
        std::string holder = reload_holder(parsed_lines(context.daemon_log), it->epoch);
        if (!holder.empty()) return "waiting for the portd reload, held by slot " + holder;
        return "waiting for the portd reload since " + it->clock;
    }
    return "in bring-up" + since;
}

/* A card whose cards.conf line is still dirty once it has left the reload
 * rendezvous: the reload of portd failed, and portd does not know its
 * ports.  Empty when that is not the case. */
std::string ports_not_taken(const SlotView &view, const std::vector<RingLine> &lines, const SlotContext &context) {
    bool present = view.stage_bits & (1u << STAGE_PRESENT);
    bool synced = view.stage_bits & (1u << STAGE_SYNCED);
    bool in_rendezvous = view.awaited_event == "synced" || view.awaited_event == "none";
    if (context.dirty != 1 || !present || !synced || in_rendezvous) return "";
    std::optional<RingLine> failure = last_message(parsed_lines(context.daemon_log), kPortdReloadFailed);
    if (!failure) failure = last_message(lines, kPortdReloaded);
    if (!failure) return "ports not taken by portd (reload failed)";
    return "ports not taken by portd (reload failed at " + failure->clock + ")";
}

/* Why a slot with a card is not in service; `held` set when it will not go
 * on by itself. */
std::string offline_reason(const SlotView &view, const SlotContext &context, bool *held) {
    std::vector<RingLine> lines = current_card_lines(view);
    *held = true;
    if (view.disabled) return "disabled by the administrator";
    std::string card = short_card_type(view.card_type);
    if (card == "none") {
        std::string part = part_number(lines);
        return part.empty() ? "unsupported card" : "unsupported card " + part;
    }
    if (view.provisioned && has_message(lines, kMismatch)) {
        std::string wanted = view.provisioned_type == "C4" || view.provisioned_type == "C16" ? view.provisioned_type
                                                                                            : other_card_type(card);
        return "pre-provisioned for " + wanted + " but a " + card + " is inserted";
    }
    /* The cause the daemon logged comes before its stuck verdict. */
    std::vector<RingLine> verification = since_last_verification(lines);
    if (has_message(verification, kNoIni)) return "no compatible INI for this card";
    if (last_message(verification, kIniProgrammingFailed)) return "INI programming failed for this card";
    if (view.stuck)
        return std::string("stuck at ") + stage_name(view.stage) + " after " + std::to_string(kStuckTries) + " tries";
    *held = false;
    std::string ports = ports_not_taken(view, lines, context);
    return ports.empty() ? waiting_reason(lines, view, context) : ports;
}

/* The type a pre-provisioning asked for, as its INI check logged it: "C4",
 * "C16", or empty when the slot's log no longer holds that line. */
std::string logged_provisioned_type(const SlotView &view) {
    for (auto it = view.log.rbegin(); it != view.log.rend(); ++it) {
        RingLine line;
        if (!parse_ring_line(*it, &line) || line.message.rfind(kIniInSlot, 0) != 0) continue;
        size_t at = line.message.rfind(kFromEepromType);
        if (at == std::string::npos || line.message.find(", HW revision = ", at) != std::string::npos) continue;
        int type = atoi(line.message.c_str() + at + kFromEepromType.size());
        return type == 1 ? "C4" : type == 3 ? "C16" : "";
    }
    return "";
}

std::string provisioned_type_from(int speed, const SlotView &view) {
    if (!view.provisioned) return "-";
    if (speed == 400) return "C4";
    if (speed == 100) return "C16";
    /* Not recorded: a pre-provisioning that failed after the daemon took
     * it (no INI, no synced slot) leaves cards.conf as it was. */
    std::string logged = logged_provisioned_type(view);
    if (!logged.empty()) return logged;
    /* Not recorded: a card it accepted is of its type. */
    if (view.stage >= STAGE_POWERED) {
        std::string card = short_card_type(view.card_type);
        if (card != "none") return card;
    }
    return "?";
}

}  // namespace

const char *stage_name(Stage stage) { return stage == STAGE_NONE ? "-" : kStages[stage].name; }

bool parse_ring_line(const std::string &line, RingLine *parsed) {
    std::string_view text = line;
    if (text.empty() || text[0] != '[') return false;
    size_t close = text.find(']');
    if (close == std::string_view::npos) return false;
    std::string_view tag = text.substr(1, close - 1);
    size_t colon = tag.rfind(':');
    parsed->level = std::string(colon == std::string_view::npos ? tag : tag.substr(colon + 1));
    text.remove_prefix(close + 1);
    /* "EPOCH.MICRO YYYY-MM-DD HH:MM:SS file:line message" */
    size_t fields[4];
    size_t at = 0;
    for (size_t &end : fields) {
        end = text.find(' ', at);
        if (end == std::string_view::npos) return false;
        at = end + 1;
    }
    std::string epoch(text.substr(0, fields[0]));
    char *end = nullptr;
    parsed->epoch = strtod(epoch.c_str(), &end);
    if (!end || *end != '\0') return false;
    parsed->clock = std::string(text.substr(fields[0] + 1, fields[2] - fields[0] - 1));
    parsed->message = without_line_feed(std::string(text.substr(fields[3] + 1)));
    return true;
}

Stage transition_stage(const std::string &message, bool *empty) {
    *empty = false;
    if (message.rfind(kTransitioned, 0) != 0) return STAGE_NONE;
    size_t to = message.find(" to SLOT_");
    if (to == std::string::npos) return STAGE_NONE;
    std::string name = message.substr(to + strlen(" to SLOT_"));
    if (name == "EMPTY") *empty = true;
    for (int i = 0; i < kStageCount; ++i)
        if (name == kStages[i].name) return (Stage)i;
    return STAGE_NONE;
}

std::string short_card_type(const std::string &card_type) {
    if (card_type == "KTR9600-C4") return "C4";
    if (card_type == "KTR9600-C16") return "C16";
    return "none";
}

double earliest_log_time(const SlotView &view) {
    for (const std::string &text : view.log) {
        RingLine line;
        if (parse_ring_line(text, &line) && line.epoch > 0) return line.epoch;
    }
    return 0;
}

std::vector<std::string> document_daemon_log(JsonNode *document) { return log_lines(document); }

void build_slot_view(const SlotSummary *summary, JsonNode *slot_object, int provisioned_speed, SlotView *view) {
    SlotContext context;
    context.provisioned_speed = provisioned_speed;
    build_slot_view(summary, slot_object, context, view);
}

void build_slot_view(const SlotSummary *summary, JsonNode *slot_object, const SlotContext &context, SlotView *view) {
    if (summary) {
        view->slot = summary->slot;
        view->oper_state = summary->state;
        view->card_type = summary->card_type;
        view->serial_no = summary->serial_no;
        view->hw_revision = summary->ini_major;
        view->ini_minor = summary->ini_minor;
        view->provisioned = summary->provisioned;
    }
    if (slot_object) {
        if (!summary) {
            view->slot = (uint32_t)member_number(slot_object, "SLOT");
            view->card_type = member_string(slot_object, "Card Type");
            view->serial_no = member_string(slot_object, "Serial No");
            view->provisioned = member_bool(slot_object, "Provisioned");
        }
        view->disabled = member_bool(slot_object, "Disabled");
        view->awaited_event = member_string(slot_object, "Exp Event");
        read_state(member_string(slot_object, "STATE"), view);
        JsonNode *up_time = json_find_member(slot_object, "Up Time");
        if (up_time)
            view->up_time_s = member_number(up_time, "Hours") * 3600 + member_number(up_time, "Minutes") * 60 +
                              member_number(up_time, "Seconds");
        view->log = log_lines(slot_object);
        find_stage_start(current_card_lines(*view), view);
        if (!summary)
            view->oper_state = !(view->stage_bits & 1u)                       ? "Empty"
                               : (view->stage_bits & (1u << STAGE_ACTIVE)) ? "Operational"
                                                                             : "Offline";
    }
    std::string card = short_card_type(view->card_type);
    view->ports = card == "C4" ? 4 : card == "C16" ? 16 : 0;
    if (card == "none" && (view->stage_bits & 1u)) {
        /* A card the daemon refused: it never read the serial number. */
        view->part_number = part_number(current_card_lines(*view));
        if (view->serial_no == "none" && !context.vpd_serial.empty()) view->serial_no = context.vpd_serial;
    }
    view->provisioned_type = provisioned_type_from(context.provisioned_speed, *view);
    if (view->oper_state == "Operational")
        view->reason = ports_not_taken(*view, current_card_lines(*view), context);
    else if (view->oper_state == "Empty")
        view->reason = view->disabled ? "disabled by the administrator" : "no card in the slot";
    else
        view->reason = offline_reason(*view, context, &view->held);
}

double remaining_fixed_wait(Stage stage, bool held, double elapsed_s, double scale) {
    if (stage == STAGE_NONE || held) return -1;
    double left = kStages[stage].fixed_wait_s * scale - elapsed_s;
    double total = left > 0 ? left : 0;
    for (int i = stage + 1; i < kStageCount; ++i) total += kStages[i].fixed_wait_s * scale;
    return total;
}

std::string duration_text(long long seconds) {
    if (seconds < 0) return "-";
    char text[48];
    if (seconds >= 3600)
        snprintf(text, sizeof text, "%lldh%02lldm%02llds", seconds / 3600, seconds % 3600 / 60, seconds % 60);
    else if (seconds >= 60)
        snprintf(text, sizeof text, "%lldm%02llds", seconds / 60, seconds % 60);
    else
        snprintf(text, sizeof text, "%llds", seconds);
    return text;
}

}  // namespace chmgrctl
