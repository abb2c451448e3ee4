/*
 * Inside the control interface: the read-only socket beside the control
 * socket, the buffers replies are built in, and the administration thread
 * that runs the commands which change a slot.
 *
 * Reads (SHOW_SUMMARY, SHOW_DETAIL, DEBUG_SLOT) take no lock and are answered
 * by the control thread as soon as they have arrived, on either socket.
 * Administration commands run one at a time, in the order they arrived, on
 * the administration thread, which owns g_ctl_resp_buf while one runs.
 */
#pragma once

#include <stdint.h>

#include "chassis_mgr.h"

#define CTL_READONLY_SOCKET_PATH "/run/chassismgr/chassismgr-ro"

/* Text of the reply to an administration command on the read-only socket. */
#define CTL_READONLY_REFUSED_TEXT "Read-only socket: administration commands need the control socket"

/* Listening descriptor of the read-only socket (-1 until it listens). */
extern relaxed<int> g_ctl_ro_sock_fd;
/* The read-only socket's requests are laid over, and its replies built in,
 * this buffer alone: nothing of an administration exchange reaches a reader,
 * and nothing a reader sends reaches a later administration reply. */
extern unsigned char g_ctl_ro_resp_buf[CTL_BUF_SIZE];

/* LINECARD_ENABLE, LINECARD_DISABLE, PRE_PROVISION_ENABLE, PRE_PROVISION_DISABLE. */
bool ctl_is_admin_command(uint32_t cmd);

/* A request that is not an administration command, lying in `msg` (a
 * 1,024-byte request buffer): a read is answered over it, any other code
 * closes without a reply.  Same contract as ctl_handle_request. */
bool ctl_handle_read_in(unsigned char *msg, ctlReply *reply);

/* The read-only socket's handling of the request in `msg`: the reads are
 * answered as on the control socket but log nothing into the rings (one
 * DEBUG console line at most) and leave the status document's file alone;
 * an administration command is refused with CTL_READONLY_REFUSED_TEXT;
 * any other code closes without a reply. */
bool ctl_handle_readonly_request(unsigned char *msg, ctlReply *reply);

/* The show and status-document answers over the request in `msg`;
 * `logged` false: nothing is logged (the read-only socket). */
bool ctl_answer_show(unsigned char *msg, bool detail, bool logged, ctlReply *reply);
bool ctl_answer_debug_slot(const unsigned char *msg, ctlReply *reply);
bool ctl_answer_debug_slot_from_memory(const unsigned char *msg, ctlReply *reply);

/* Sends a reply; a failure is logged at INFO as the control socket always did. */
void ctl_send_reply(int client, const ctlReply &reply, bool logged);

/* The administration thread.  ctl_admin_start creates it and gives the
 * descriptor that becomes readable whenever a command has ended.
 * ctl_admin_submit hands it a connection whose request lies in
 * g_ctl_resp_buf: it runs the command, replies and closes the connection.
 * ctl_admin_collect, called when that descriptor is readable, says whether
 * the command has ended (g_ctl_resp_buf is then the caller's again). */
bool ctl_admin_start(int *done_fd);
void ctl_admin_submit(int client);
bool ctl_admin_collect(void);
/* Lets a running command end, then ends the thread. */
void ctl_admin_stop(void);

/* A console line at DEBUG level that no ring receives. */
#define CM_LOG_CONSOLE_DEBUG(fmt, ...)                                                        \
    do {                                                                                      \
        if (g_log_level >= LOG_LEVEL_DEBUG)                                                   \
            _log_log(LOG_LEVEL_DEBUG, "%s:%d " CM_LOG_WORD_LOG_LEVEL_DEBUG fmt,               \
                     (int)sizeof("%s:%d " CM_LOG_WORD_LOG_LEVEL_DEBUG fmt), CM_LOG_FILE,      \
                     __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                    \
    } while (0)
