/*
 * /etc/tarnel/cards.conf: what the chassis manager and portd share about the
 * eight slots (speeds, dirty flag, online state, admin state).
 *
 * The start-up load copies the administrator's settings into the slot
 * records and normalises the file; the query asks whether a slot has a
 * configured speed; four writers change a line or a field.  Every change is
 * a whole-file rewrite: the new content goes to "cards.conf<N>" (N names the
 * writer: 0 the load, the slot number for update_cards_conf, 9 the
 * single-field writers), flushed to the disk, then the old file is removed
 * and the new one renamed into place, in that order, and the directory is
 * flushed.  portd may briefly find no file; that gap is accepted.  The new
 * file keeps the old one's mode and owner.
 *
 * Callers hold g_cards_conf_mutex around every call; nothing here takes it.
 */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <memory>
#include <string_view>

#include "cards_conf_line.h"
#include "cards_conf_recovery.h"
#include "chassis_mgr.h"
#include "durable_file.h"

namespace {

constexpr int kStartupLoadWriter = 0;
constexpr int kSingleFieldWriter = 9;

struct FileCloser {
    void operator()(FILE *file) const { fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

/* Whole lines of any length (a line is never split), NUL bytes included. */
class LineReader {
  public:
    explicit LineReader(FILE *file) : file_(file) {}
    ~LineReader() { free(buffer_); }
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    bool next(std::string_view *line) {
        ssize_t length = getline(&buffer_, &capacity_, file_);
        if (length <= 0) return false;
        *line = std::string_view(buffer_, (size_t)length);
        ++number_;
        return true;
    }
    long number() const { return number_; }

  private:
    FILE *file_;
    char *buffer_ = nullptr;
    size_t capacity_ = 0;
    long number_ = 0;
};

/* The temporary file being written; remembers whether every write worked
 * and whether the text so far ends at a line boundary. */
class Output {
  public:
    explicit Output(FILE *file) : file_(file) {}
    void put(std::string_view bytes) {
        if (bytes.empty()) return;
        if (fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) ok_ = false;
        at_line_start_ = bytes.back() == '\n';
    }
    /* A line written after a last line that had no line feed would merge
     * with it; give that line its line feed first. */
    void put_line(std::string_view line) {
        if (!at_line_start_) put("\n");
        put(line);
    }
    bool ok() const { return ok_; }

  private:
    FILE *file_;
    bool ok_ = true;
    bool at_line_start_ = true;
};

/* The two files of one rewrite. */
struct Rewrite {
    char main_path[CM_PATH_SIZE];
    char temp_path[CM_PATH_SIZE];
    FileHandle main;
    FileHandle temp;
};

enum class OnTempFailure { close_main, leave_main_open };
enum class RemoveWarning { slots, ports };

int clamp_length(std::string_view text) { return text.size() > (size_t)INT_MAX ? INT_MAX : (int)text.size(); }

/* Opens the main file ("r+": it must exist, it is never created here) and
 * the writer's temporary file "cards.conf<writer>". */
bool open_rewrite(Rewrite *rw, int writer, OnTempFailure on_temp_failure) {
    env_path(rw->main_path, sizeof rw->main_path, CARDS_CONF_PATH);
    rw->main.reset(fopen(rw->main_path, "r+e"));
    if (!rw->main) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open file %s\n", rw->main_path);
        return false;
    }
    env_path(rw->temp_path, sizeof rw->temp_path, CARDS_CONF_PATH "%d", writer);
    struct stat replaced;
    bool have_replaced = fstat(fileno(rw->main.get()), &replaced) == 0;
    rw->temp.reset(durable_open_temp(rw->temp_path, have_replaced ? &replaced : nullptr, "w"));
    if (!rw->temp) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open file %s\n", rw->temp_path);
        /* The start-up load has always left the main file open on this path. */
        if (on_temp_failure == OnTempFailure::leave_main_open) (void)rw->main.release();
        return false;
    }
    return true;
}

/* Flushes the temporary file to the disk, closes both files, removes the
 * main file, then renames the temporary file into its place and flushes the
 * directory; failures of the remove and the rename are logged and the call
 * still counts as done.  A temporary file that could not be written and
 * flushed completely never replaces the main file. */
bool finish_rewrite(Rewrite *rw, const Output &out, RemoveWarning warning) {
    rw->main.reset();
    bool flushed = durable_flush(rw->temp.get());
    bool closed = fclose(rw->temp.release()) == 0;
    bool written = out.ok() && flushed && closed;
    if (!written) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to write %s\n", rw->temp_path);
        remove(rw->temp_path);
        return false;
    }
    if (remove(rw->main_path) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to remove %s\n", rw->main_path);
        if (warning == RemoveWarning::ports)
            CM_LOG(LOG_LEVEL_ERR, "This may setup ports incorrectly\n");
        else
            CM_LOG(LOG_LEVEL_ERR, "This may setup slots incorrectly\n");
    }
    if (rename(rw->temp_path, rw->main_path) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to rename %s\n", rw->temp_path);
        CM_LOG(LOG_LEVEL_ERR, "This may setup slots incorrectly\n");
    }
    durable_sync_parent_dir(rw->main_path);
    return true;
}

void log_dropped_line(const Rewrite &rw, long number, const char *reason) {
    CM_LOG(LOG_LEVEL_ERR, "Dropping line %ld of %s: %s\n", number, rw.main_path, reason);
}

/* Parses a line already known to be a data line; logs and returns false
 * when it cannot be used. */
bool parse_data_line(const Rewrite &rw, long number, std::string_view text, cardsConfEntry *entry) {
    switch (cards_conf_parse_line(text, entry)) {
    case CARDS_CONF_LINE_OK:
        return true;
    case CARDS_CONF_LINE_MISSING_FIELDS:
        log_dropped_line(rw, number, "fewer than seven fields");
        return false;
    }
    return false;
}

size_t format_data_line(const Rewrite &rw, long number, const cardsConfEntry &entry,
                        char (&line)[CARDS_CONF_LINE_SIZE]) {
    size_t length = cards_conf_format_line(&entry, line);
    if (length == 0) log_dropped_line(rw, number, "rewritten line would exceed 255 characters");
    return length;
}

/* ---- start-up load ---------------------------------------------------- */

void log_loaded_line(const cardsConfEntry &entry) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, entry.slot_id,
                "detected speed = %d, provisioned speed = %d, configured speed = %d in cards.conf\n",
                entry.detected_speed, entry.provisioned_speed, entry.configured_speed);
    CM_LOG_SLOT(LOG_LEVEL_INFO, entry.slot_id, "dirty_flag = %d, state = %.*s, admin_state = %.*s in cards.conf\n",
                entry.dirty_flag, clamp_length(entry.state), entry.state.data(),
                clamp_length(entry.admin_state), entry.admin_state.data());
}

void apply_to_slot_record(const cardsConfEntry &entry) {
    slotInfo *slot = &g_slots_info[entry.slot_id - 1];
    /* An "enable" never clears it: the record starts enabled. */
    if (cards_conf_admin_disables(entry.admin_state)) slot->disabled = 1;
    log_loaded_line(entry);
    if (entry.provisioned_speed > 0) {
        slot->provisioned = 1;
        slot->provisioned_type = cards_conf_speed_card_type(entry.provisioned_speed);
    }
    if (entry.configured_speed > 0) slot->card_type = cards_conf_speed_card_type(entry.configured_speed);
}

/* A line whose first field reads as 0 (comment, header, blank line, slot
 * "0") is dropped silently.  Any other slot number outside 1 to 8 has no
 * slot record: its line is logged like every data line, and left out of
 * the rewrite without touching a record. */
void load_line(const Rewrite &rw, Output *out, long number, std::string_view raw) {
    std::string_view text = cards_conf_line_text(raw);
    int slot = cards_conf_int(cards_conf_slot_field(text));
    if (slot == 0) return;
    cardsConfEntry entry;
    if (!parse_data_line(rw, number, text, &entry)) return;
    if (slot < 1 || slot > MAX_SLOTS_FOR_9600) {
        log_loaded_line(entry);
        return;
    }
    cardsConfEntry written = entry;
    written.dirty_flag = 0;
    written.state = CARDS_CONF_STATE_OFFLINE;
    char line[CARDS_CONF_LINE_SIZE];
    size_t length = format_data_line(rw, number, written, line);
    if (length == 0) return;
    apply_to_slot_record(entry);
    out->put_line(std::string_view(line, length));
}

/* ---- single-field writers --------------------------------------------- */

enum class Field { admin_state, state, dirty_flag };

struct FieldEdit {
    Field field;
    int slot_id;        /* admin_state, state: the slot whose line changes */
    const char *word;   /* admin_state, state: the new word */
};

void edit_entry(const FieldEdit &edit, cardsConfEntry *entry) {
    switch (edit.field) {
    case Field::admin_state:
        if (entry->slot_id == edit.slot_id) entry->admin_state = edit.word;
        break;
    case Field::state:
        if (entry->slot_id == edit.slot_id) entry->state = edit.word;
        break;
    case Field::dirty_flag:
        entry->dirty_flag = 0;
        break;
    }
}

/* "#" lines pass through; a line whose first character after blanks and
 * tabs is a digit is a data line, rewritten; anything else is dropped. */
void edit_line(const Rewrite &rw, Output *out, const FieldEdit &edit, long number, std::string_view raw) {
    if (raw.front() == '#') {
        out->put(raw);
        return;
    }
    std::string_view text = cards_conf_line_text(raw);
    size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos || text[first] < '0' || text[first] > '9') return;
    cardsConfEntry entry;
    if (!parse_data_line(rw, number, text, &entry)) return;
    edit_entry(edit, &entry);
    char line[CARDS_CONF_LINE_SIZE];
    size_t length = format_data_line(rw, number, entry, line);
    if (length != 0) out->put_line(std::string_view(line, length));
}

bool rewrite_one_field(const FieldEdit &edit) {
    Rewrite rw;
    if (!open_rewrite(&rw, kSingleFieldWriter, OnTempFailure::close_main)) return false;
    Output out(rw.temp.get());
    {
        LineReader reader(rw.main.get());
        std::string_view raw;
        while (reader.next(&raw)) edit_line(rw, &out, edit, reader.number(), raw);
    }
    return finish_rewrite(&rw, out, RemoveWarning::slots);
}

}  // namespace

bool update_info_from_cards_conf(void) {
    Rewrite rw;
    if (!open_rewrite(&rw, kStartupLoadWriter, OnTempFailure::leave_main_open)) return false;
    Output out(rw.temp.get());
    {
        LineReader reader(rw.main.get());
        std::string_view raw;
        while (reader.next(&raw)) load_line(rw, &out, reader.number(), raw);
    }
    return finish_rewrite(&rw, out, RemoveWarning::slots);
}

bool check_cards_conf_for_valid_card(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, CARDS_CONF_PATH);
    FileHandle file(fopen(path, "r+e"));
    if (!file) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open file %s\n", path);
        return false;
    }
    LineReader reader(file.get());
    std::string_view raw;
    while (reader.next(&raw)) {
        std::string_view text = cards_conf_line_text(raw);
        CM_LOG(LOG_LEVEL_INFO, "cards.conf line - %.*s\n", clamp_length(text), text.data());
        std::string_view slot_text, speed_text;
        if (!cards_conf_slot_and_configured(text, &slot_text, &speed_text)) continue;
        CM_LOG(LOG_LEVEL_INFO, "From cards.conf slot = %.*s, speed = %.*s\n", clamp_length(slot_text),
               slot_text.data(), clamp_length(speed_text), speed_text.data());
        int slot = cards_conf_int(cards_conf_number(slot_text));
        int speed = cards_conf_int(cards_conf_number(speed_text));
        if (slot == slot_id && speed != 0) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "cards.conf entry valid for slot with speed %dG\n",
                        speed);
            return true;
        }
    }
    return false;
}

bool update_cards_conf(int slot_id, int detected_speed, int provisioned_speed, int configured_speed,
                       int dirty_flag, int online, int admin_state) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    cardsConfEntry entry = {slot_id,
                            detected_speed,
                            provisioned_speed,
                            configured_speed,
                            dirty_flag,
                            online == 1 ? CARDS_CONF_STATE_ONLINE : CARDS_CONF_STATE_OFFLINE,
                            admin_state == 1 ? CARDS_CONF_ADMIN_DISABLE : CARDS_CONF_ADMIN_ENABLE};
    Rewrite rw;
    if (!open_rewrite(&rw, slot_id, OnTempFailure::close_main)) return false;
    char new_line[CARDS_CONF_LINE_SIZE];
    std::string_view new_text(new_line, cards_conf_format_line(&entry, new_line));
    Output out(rw.temp.get());
    bool new_line_written = false;
    {
        LineReader reader(rw.main.get());
        std::string_view raw;
        while (reader.next(&raw)) {
            /* The slot number is the start of the line read as a number; a
             * comment or other text reads as 0. */
            long line_slot = cards_conf_number(cards_conf_line_text(raw)).value;
            if (line_slot == slot_id) {
                out.put_line(new_text);
                new_line_written = true;
                continue;
            }
            /* Deliberately slot_id + 1: the new line goes before the first
             * line at least two slots above it. */
            if (line_slot > slot_id + 1 && !new_line_written) {
                out.put_line(new_text);
                new_line_written = true;
            }
            out.put(raw);
        }
    }
    if (!new_line_written) out.put_line(new_text);
    return finish_rewrite(&rw, out, RemoveWarning::ports);
}

bool cards_conf_disable_slot(int slot_id, int disable) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    return rewrite_one_field(
        {Field::admin_state, slot_id, disable == 1 ? CARDS_CONF_ADMIN_DISABLE : CARDS_CONF_ADMIN_ENABLE});
}

bool cards_conf_set_slot_online(int slot_id, int online_state) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    /* Any non-zero value is "Online" here, unlike update_cards_conf. */
    return rewrite_one_field(
        {Field::state, slot_id, online_state != 0 ? CARDS_CONF_STATE_ONLINE : CARDS_CONF_STATE_OFFLINE});
}

bool cards_conf_clear_dirty_bits(void) { return rewrite_one_field({Field::dirty_flag, 0, nullptr}); }
