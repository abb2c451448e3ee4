/*
 * Whole-file rewrites that survive a power cut and keep what the
 * administrator set on the file.
 *
 * A rewrite writes the new content into a temporary file, flushes it to the
 * disk, then puts it in place of the old file; the directory is flushed
 * after, so the new name is on the disk too.  Without the first flush a
 * power cut shortly after the rename can leave an empty file under the old
 * name: the file system may commit the rename before the data.
 *
 * The temporary file takes the mode and owner of the file it replaces.  A
 * file made from nothing gets the usual mode for the process's umask, but
 * never write permission for others.
 */
#ifndef CHMGR_DURABLE_FILE_H
#define CHMGR_DURABLE_FILE_H

#include <stdio.h>
#include <sys/stat.h>

/* Mode for a file the daemon makes from nothing (the umask applies). */
#define DURABLE_NEW_FILE_MODE 0664

/* Opens `temp_path` for writing (created or truncated, close-on-exec) with
 * stdio mode `fopen_mode` ("w" or "w+").  With `replaced` (the stat of the
 * file it will replace) the file is created readable by its owner only and
 * then given the replaced file's mode and owner, so its content is never
 * readable by more users than the old file's.  Without, it gets
 * DURABLE_NEW_FILE_MODE.  Null when it cannot be opened (errno set; the
 * caller logs).  A failure to set mode or owner is logged and the file is
 * still returned. */
FILE *durable_open_temp(const char *temp_path, const struct stat *replaced, const char *fopen_mode);

/* Writes out stdio's buffer and flushes the file to the disk.  A file that
 * cannot be flushed (a pipe, a character device) counts as flushed.  False
 * on a write or flush error. */
bool durable_flush(FILE *file);

/* Flushes the directory holding `path`, so a rename or a new name within it
 * is on the disk; a failure is logged and returned. */
bool durable_sync_parent_dir(const char *path);

#endif /* CHMGR_DURABLE_FILE_H */
