/*
 * Bringing /etc/tarnel/cards.conf back at start-up.
 *
 * Every rewrite removes the file before it renames the new content into
 * place, so a process killed (or a switch losing power) between the two
 * leaves no cards.conf, only the complete new content in its temporary file
 * "cards.conf<N>" (N = 0 to 9, the writer).  Without the file every slot
 * would start enabled and not provisioned, and the administrator's settings
 * would be lost for good.
 */
#ifndef CHMGR_CARDS_CONF_RECOVERY_H
#define CHMGR_CARDS_CONF_RECOVERY_H

#include <string_view>

#define CARDS_CONF_PATH "/etc/tarnel/cards.conf"
/* Temporary files are CARDS_CONF_PATH followed by 0 to this number. */
#define CARDS_CONF_LAST_WRITER 9

/* A complete cards.conf text: it ends with a line feed, holds no NUL byte,
 * and has, for each slot 1 to 8, at least one data line with all seven
 * fields.  Other lines (comments, headers, blank lines, slot "0" lines,
 * slot numbers outside 1 to 8) may appear anywhere.  A rewrite cut short
 * lacks the final line feed or the lines of the last slots. */
bool cards_conf_text_complete(std::string_view text);

/* When cards.conf is missing, renames the newest complete temporary file
 * into its place (one WARN line names it).  True when a file was restored;
 * nothing is done when cards.conf exists or no temporary file is complete. */
bool recover_cards_conf(void);

#endif /* CHMGR_CARDS_CONF_RECOVERY_H */
