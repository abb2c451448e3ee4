/*
 * Reports to the service manager, when it asked for them (NOTIFY_SOCKET):
 * READY=1 once start-up is over and the control socket accepts
 * connections, STATUS= with the chassis summary whenever it changes, and
 * WATCHDOG=1 from the watchdog (watchdog.cpp).  Each report is one datagram
 * on that socket.  Without NOTIFY_SOCKET every call here does nothing.
 */
#pragma once

#include <stddef.h>

/* Opens the datagram socket named by NOTIFY_SOCKET; false (and nothing is
 * ever sent) when there is none or it cannot be opened. */
bool notify_init(void);
bool notify_enabled(void);

/* Sends `text` as one datagram, never waiting: a report the service manager
 * cannot take now is dropped.  False when it was not sent. */
bool notify_send(const char *text, size_t length);

/* The two halves of start-up, in either order: the main thread is about to
 * enter its poll loop; the control thread listens on its socket (or gave up
 * setting it up: the daemon then runs without it).  After both, READY=1 is
 * sent with the first STATUS= line, and the watchdog starts. */
void notify_startup_done(void);
void notify_control_socket_ready(void);

/* Sends STATUS= with the chassis summary when it differs from the last one
 * sent.  Called whenever a slot may have changed: at the end of each work
 * item and control request, and on each watchdog period. */
void notify_status_refresh(void);

/* Tests only: forgets what was sent and the start-up halves seen. */
void notify_reset_for_test(void);
