/*
 * Keeping the event-file watches in place.  A watch follows a file, not a
 * path: a file deleted and re-created, or replaced by a rename, loses its
 * watch, and a file (or the whole events directory) missing at start-up has
 * none.  The events directory is watched for files that come back; the
 * directory itself, when missing, is looked for again on every supervision
 * period.
 */
#pragma once

#include <sys/inotify.h>

/* Inotify instance watching the events directory (-1 while it is missing). */
extern int g_events_dir_ifd;

/* Places every slot watch and the directory watch (start-up). */
void place_event_watches(void);
/* A record read from a slot's inotify descriptor: a watch it ends is forgotten. */
void note_slot_watch_record(int slot_id, const struct inotify_event *record);
/* A slot's queue holds a record too large for one event-file record: the
 * watch is on a directory.  Drains the queue; true when a record of a
 * watched file was among those drained. */
bool drain_slot_watch_records(int slot_id);
/* Records of the events directory: files that came back are watched again. */
void handle_events_dir_wakeup(void);
/* Milliseconds until the missing events directory is looked for again, or
 * -1 when it is watched. */
int events_dir_retry_timeout_ms(void);
/* Looks for the missing events directory when its period has passed. */
void retry_events_dir(void);

/* Main loop side: queues a work item that re-reads the slot's event files. */
void queue_event_reread(int slot_id);

/* Start-up side: a slot whose event files could not be read at start-up is
 * given its start-up state (polled for a card) once they can be. */
void give_late_start_state(int slot_id);
