/*
 * One line of /etc/tarnel/cards.conf: splitting it into its seven fields,
 * converting the numbers, and writing a data line in the one format that
 * every writer of the file produces.  Pure text work: no files, no logging,
 * so the reader, the writers, the tests and the fuzz target share it.
 *
 * A data line, fields separated by blanks or tabs:
 *   slot  detected  provisioned  configured  dirty  state  admin
 *   "1       400G        0G               400G        0  Online   enable\n"
 */
#ifndef CHMGR_CARDS_CONF_LINE_H
#define CHMGR_CARDS_CONF_LINE_H

#include <stddef.h>

#include <string_view>

/* Longest line the daemon writes, with its line feed and the NUL:
 * portd reads the file with a buffer of this size. */
#define CARDS_CONF_LINE_SIZE 256
#define CARDS_CONF_FIELD_COUNT 7

#define CARDS_CONF_STATE_ONLINE "Online"
#define CARDS_CONF_STATE_OFFLINE "Offline"
#define CARDS_CONF_ADMIN_DISABLE "disable"
#define CARDS_CONF_ADMIN_ENABLE "enable"

/* The fields of a data line.  The two words point into the line read. */
typedef struct _cardsConfEntry {
    int slot_id;
    int detected_speed;
    int provisioned_speed;
    int configured_speed;
    int dirty_flag;
    std::string_view state;
    std::string_view admin_state;
} cardsConfEntry;

/* A number read the way strtol reads it in base 10: leading white space
 * skipped, an optional sign, then digits up to the first other character
 * ("100G" reads as 100, "#" as 0).  Out-of-range values saturate at
 * LONG_MIN / LONG_MAX as strtol does. */
typedef struct _cardsConfNumber {
    long value;
    bool has_digits;   /* at least one digit was converted */
    bool fits_int;     /* the value is a 32-bit int */
} cardsConfNumber;

typedef enum {
    CARDS_CONF_LINE_OK = 0,
    CARDS_CONF_LINE_MISSING_FIELDS = 1,  /* fewer than seven fields */
} cardsConfParse;

/* The text a parser looks at: the line up to its first NUL byte, if any. */
std::string_view cards_conf_line_text(std::string_view raw);

cardsConfNumber cards_conf_number(std::string_view text);

/* The number as a field value: strtol's result used as a 32-bit int, so
 * 4294967299 is 3 and 4294967296 is 0, as the file's other readers see it. */
int cards_conf_int(cardsConfNumber number);

/* Steps to the next field from *pos: skips characters of `delims`, takes the
 * run up to the next one, and leaves *pos just past that delimiter.  False
 * when only delimiters are left. */
bool cards_conf_next_field(std::string_view text, size_t *pos, std::string_view delims,
                           std::string_view *field);

/* Field 1 (the slot) of a line, converted; no digits when the line has none. */
cardsConfNumber cards_conf_slot_field(std::string_view text);

/* Fields 1 and 4 (slot and configured speed) as text; false when the line
 * has fewer than four fields. */
bool cards_conf_slot_and_configured(std::string_view text, std::string_view *slot,
                                    std::string_view *configured);

/* All seven fields: 1 to 6 end at a blank or tab, 7 also at the line feed,
 * so the line feed never becomes part of the admin word.  Fields after the
 * seventh are ignored. */
cardsConfParse cards_conf_parse_line(std::string_view text, cardsConfEntry *entry);

/* Writes `entry` as a data line with its line feed into `out` and returns
 * its length; 0 when it would not fit CARDS_CONF_LINE_SIZE (only an unusual
 * state or admin word can make it that long). */
size_t cards_conf_format_line(const cardsConfEntry *entry, char (&out)[CARDS_CONF_LINE_SIZE]);

/* The admin word disables the slot when it starts with the seven characters
 * "disable" ("disabled" does, "Disable" does not). */
bool cards_conf_admin_disables(std::string_view admin_state);

/* Card type the slot is configured for by a speed: 100 gives the 16-port
 * card (3); any other positive speed the 4-port card (1); otherwise 0. */
int cards_conf_speed_card_type(int speed);

#endif /* CHMGR_CARDS_CONF_LINE_H */
