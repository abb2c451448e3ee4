/*
 * Flushing whole-file rewrites to the disk and keeping the replaced file's
 * mode and owner (see durable_file.h).
 */
#include "durable_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "chassis_mgr.h"

namespace {

/* Only a regular file takes the old file's mode and owner: a temporary
 * path that leads to a device or a pipe is written through, never changed. */
void keep_mode_and_owner(int fd, const char *temp_path, const struct stat *replaced) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
    /* Owner first: a change of owner clears the set-id bits that the mode
     * then puts back. */
    bool kept = fchown(fd, replaced->st_uid, replaced->st_gid) == 0;
    kept = fchmod(fd, replaced->st_mode & 07777) == 0 && kept;
    if (!kept) CM_LOG(LOG_LEVEL_ERR, "Unable to keep the mode and owner of the replaced file on %s\n", temp_path);
}

/* fsync reports EINVAL for files that have nothing to flush (pipes,
 * character devices). */
bool sync_fd(int fd) { return fsync(fd) == 0 || errno == EINVAL; }

}  // namespace

FILE *durable_open_temp(const char *temp_path, const struct stat *replaced, const char *fopen_mode) {
    mode_t create_mode = replaced ? S_IRUSR | S_IWUSR : DURABLE_NEW_FILE_MODE;
    int fd = open(temp_path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, create_mode);
    if (fd < 0) return nullptr;
    if (replaced) keep_mode_and_owner(fd, temp_path, replaced);
    FILE *file = fdopen(fd, fopen_mode);
    if (!file) {
        int saved = errno;
        close(fd);
        errno = saved;
    }
    return file;
}

bool durable_flush(FILE *file) { return fflush(file) == 0 && sync_fd(fileno(file)); }

bool durable_sync_parent_dir(const char *path) {
    char dir[CM_PATH_SIZE];
    const char *slash = strrchr(path, '/');
    size_t length = slash ? (size_t)(slash - path) : 0;
    if (length == 0) length = slash ? 1 : 0;  // "/name": the root; "name": the working directory
    if (length >= sizeof dir) return false;
    if (length == 0) {
        strcpy(dir, ".");
    } else {
        memcpy(dir, path, length);
        dir[length] = '\0';
    }
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool synced = fd >= 0 && sync_fd(fd);
    if (fd >= 0) close(fd);
    if (!synced) CM_LOG(LOG_LEVEL_ERR, "Unable to flush directory %s\n", dir);
    return synced;
}
