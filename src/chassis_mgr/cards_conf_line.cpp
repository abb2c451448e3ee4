/*
 * Text work on one cards.conf line: fields, numbers and the data-line format.
 */
#include "cards_conf_line.h"

#include <limits.h>
#include <stdio.h>

#include "chassis_mgr.h"

namespace {

constexpr std::string_view kFieldDelims = " \t";
/* The last field also ends at the line feed. */
constexpr std::string_view kLastFieldDelims = " \t\n";

/* White space as strtol skips it in the C locale. */
bool is_c_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

int clamp_to_int_length(size_t size) { return size > (size_t)INT_MAX ? INT_MAX : (int)size; }

}  // namespace

std::string_view cards_conf_line_text(std::string_view raw) {
    size_t nul = raw.find('\0');
    return nul == std::string_view::npos ? raw : raw.substr(0, nul);
}

cardsConfNumber cards_conf_number(std::string_view text) {
    cardsConfNumber number = {0, false, true};
    size_t i = 0;
    while (i < text.size() && is_c_space(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    /* Accumulate towards the sign so that LONG_MIN itself is reachable. */
    long value = 0;
    bool saturated = false;
    for (; i < text.size() && is_digit(text[i]); ++i) {
        number.has_digits = true;
        int digit = text[i] - '0';
        if (saturated) continue;
        if (negative ? value < (LONG_MIN + digit) / 10 : value > (LONG_MAX - digit) / 10) {
            saturated = true;
            value = negative ? LONG_MIN : LONG_MAX;
            continue;
        }
        value = value * 10 + (negative ? -digit : digit);
    }
    number.value = value;
    number.fits_int = value >= INT_MIN && value <= INT_MAX;
    return number;
}

int cards_conf_int(cardsConfNumber number) { return (int)number.value; }

bool cards_conf_next_field(std::string_view text, size_t *pos, std::string_view delims,
                           std::string_view *field) {
    size_t start = *pos < text.size() ? text.find_first_not_of(delims, *pos) : std::string_view::npos;
    if (start == std::string_view::npos) {
        *pos = text.size();
        return false;
    }
    size_t end = text.find_first_of(delims, start);
    if (end == std::string_view::npos) {
        *field = text.substr(start);
        *pos = text.size();
    } else {
        *field = text.substr(start, end - start);
        *pos = end + 1;
    }
    return true;
}

cardsConfNumber cards_conf_slot_field(std::string_view text) {
    size_t pos = 0;
    std::string_view field;
    if (!cards_conf_next_field(text, &pos, kFieldDelims, &field)) return cardsConfNumber{0, false, true};
    return cards_conf_number(field);
}

bool cards_conf_slot_and_configured(std::string_view text, std::string_view *slot,
                                    std::string_view *configured) {
    size_t pos = 0;
    std::string_view skipped;
    return cards_conf_next_field(text, &pos, kFieldDelims, slot) &&
           cards_conf_next_field(text, &pos, kFieldDelims, &skipped) &&
           cards_conf_next_field(text, &pos, kFieldDelims, &skipped) &&
           cards_conf_next_field(text, &pos, kFieldDelims, configured);
}

cardsConfParse cards_conf_parse_line(std::string_view text, cardsConfEntry *entry) {
    std::string_view fields[CARDS_CONF_FIELD_COUNT];
    size_t pos = 0;
    for (int i = 0; i < CARDS_CONF_FIELD_COUNT; ++i) {
        std::string_view delims = i == CARDS_CONF_FIELD_COUNT - 1 ? kLastFieldDelims : kFieldDelims;
        if (!cards_conf_next_field(text, &pos, delims, &fields[i])) return CARDS_CONF_LINE_MISSING_FIELDS;
    }
    int *numbers[] = {&entry->slot_id, &entry->detected_speed, &entry->provisioned_speed,
                      &entry->configured_speed, &entry->dirty_flag};
    for (size_t i = 0; i < sizeof numbers / sizeof numbers[0]; ++i)
        *numbers[i] = cards_conf_int(cards_conf_number(fields[i]));
    entry->state = fields[5];
    entry->admin_state = fields[6];
    return CARDS_CONF_LINE_OK;
}

size_t cards_conf_format_line(const cardsConfEntry *entry, char (&out)[CARDS_CONF_LINE_SIZE]) {
    int length = snprintf(out, sizeof out, "%d       %dG        %dG               %3dG        %d  %.*s   %.*s\n",
                          entry->slot_id, entry->detected_speed, entry->provisioned_speed,
                          entry->configured_speed, entry->dirty_flag,
                          clamp_to_int_length(entry->state.size()), entry->state.data(),
                          clamp_to_int_length(entry->admin_state.size()), entry->admin_state.data());
    if (length < 0 || length >= (int)sizeof out) {
        out[0] = '\0';
        return 0;
    }
    return (size_t)length;
}

bool cards_conf_admin_disables(std::string_view admin_state) {
    return admin_state.substr(0, 7) == CARDS_CONF_ADMIN_DISABLE;
}

int cards_conf_speed_card_type(int speed) {
    if (speed <= 0) return CARD_TYPE_NONE;
    return speed == 100 ? CARD_TYPE_16X100G : CARD_TYPE_4X400G;
}
