/*
 * Start-up recovery of /etc/tarnel/cards.conf (see cards_conf_recovery.h).
 * Runs on the main thread before the start-up load, before any slot event
 * is handled; the pid file lock keeps any other instance out.
 */
#include "cards_conf_recovery.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cards_conf_line.h"
#include "chassis_mgr.h"
#include "durable_file.h"

namespace {

/* A cards.conf is a few hundred bytes; a temporary file larger than this
 * is not one worth restoring. */
constexpr off_t kLargestRestoredFile = 1 << 20;

bool file_missing(const char *path) {
    struct stat st;
    return lstat(path, &st) != 0 && errno == ENOENT;
}

/* The whole of a regular file of at most kLargestRestoredFile bytes. */
bool read_small_file(const char *path, std::string *text, struct timespec *modified) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kLargestRestoredFile;
    if (ok) {
        text->resize((size_t)st.st_size);
        ssize_t got = read(fd, text->data(), text->size());
        ok = got == (ssize_t)text->size();
        *modified = st.st_mtim;
    }
    close(fd);
    return ok;
}

bool newer(const struct timespec &a, const struct timespec &b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

/* Flushes a file written by a rewrite that may not have done so itself. */
void flush_file(const char *path) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

}  // namespace

bool cards_conf_text_complete(std::string_view text) {
    if (text.empty() || text.back() != '\n' || text.find('\0') != std::string_view::npos) return false;
    bool seen[MAX_SLOTS_FOR_9600] = {};
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string_view line = text.substr(start, end + 1 - start);
        start = end + 1;
        cardsConfNumber slot = cards_conf_slot_field(line);
        if (!slot.has_digits || slot.value < 1 || slot.value > MAX_SLOTS_FOR_9600) continue;
        cardsConfEntry entry;
        if (cards_conf_parse_line(line, &entry) == CARDS_CONF_LINE_OK) seen[slot.value - 1] = true;
    }
    for (bool slot_seen : seen)
        if (!slot_seen) return false;
    return true;
}

bool recover_cards_conf(void) {
    char main_path[CM_PATH_SIZE];
    env_path(main_path, sizeof main_path, CARDS_CONF_PATH);
    if (!file_missing(main_path)) return false;

    char best_path[CM_PATH_SIZE] = "";
    struct timespec best_time = {0, 0};
    for (int writer = 0; writer <= CARDS_CONF_LAST_WRITER; ++writer) {
        char temp_path[CM_PATH_SIZE];
        env_path(temp_path, sizeof temp_path, CARDS_CONF_PATH "%d", writer);
        std::string text;
        struct timespec modified;
        if (!read_small_file(temp_path, &text, &modified) || !cards_conf_text_complete(text)) continue;
        if (best_path[0] == '\0' || newer(modified, best_time)) {
            snprintf(best_path, sizeof best_path, "%s", temp_path);
            best_time = modified;
        }
    }
    if (best_path[0] == '\0') return false;

    CM_LOG(LOG_LEVEL_WARN, "%s is missing: restoring it from %s, left by an interrupted rewrite\n", main_path,
           best_path);
    flush_file(best_path);
    if (rename(best_path, main_path) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to rename %s\n", best_path);
        return false;
    }
    durable_sync_parent_dir(main_path);
    return true;
}
