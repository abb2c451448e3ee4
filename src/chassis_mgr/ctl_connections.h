/*
 * The connections the control thread holds while their requests arrive.
 * Requests are received from every connection at once; a request that is
 * complete waits its turn and is served in the order requests completed, so
 * a slow or silent client never delays another one.
 */
#pragma once

#include <poll.h>
#include <stdint.h>

#include "chassis_mgr.h"

/* At most this many connections are held at once.  When one more arrives,
 * the connection that has waited longest for its request is closed without
 * a reply to make room: it is the likeliest to be silent, and it would be
 * closed within the receive limit anyway. */
constexpr int kCtlMaxConnections = 16;

/* Each receive of a request (the first one, and the one extra receive of a
 * split request) must arrive within this limit; a connection whose limit
 * expires is closed without a reply.  A guard against a broken peer, not a
 * daemon timing, so the clock factor does not apply. */
constexpr int64_t kCtlReceiveLimitMs = 5000;

enum CtlConnPhase : uint8_t {
    CTL_CONN_FREE,
    CTL_CONN_WAIT_FIRST,  // accepted, nothing received yet
    CTL_CONN_WAIT_REST,   // split request: waiting for its one extra receive
    CTL_CONN_READY,       // complete, waiting to be served
};

struct CtlConnection {
    int fd;
    CtlConnPhase phase;
    bool replay;           // the first receive saw the end: serve the previous request again
    uint64_t arrival;      // accept order (oldest is evicted first)
    uint64_t ready_order;  // completion order (served first)
    int64_t deadline_ms;
    uint32_t received;
    uint32_t wanted;  // the request's len, for the extra receive
    unsigned char bytes[CTL_BUF_SIZE];
};

struct CtlConnectionTable {
    CtlConnection conns[kCtlMaxConnections];
    /* The buffer the requests are laid over when served; its len field
     * stands in for a len that a short request did not bring. */
    const unsigned char *under;
    uint64_t next_arrival;
    uint64_t next_ready;
};

/* An empty table whose requests are laid over g_ctl_resp_buf (ctl_conns_init)
 * or over `under`. */
void ctl_conns_init(CtlConnectionTable *table);
void ctl_conns_init_over(CtlConnectionTable *table, const unsigned char *under);
/* Takes ownership of fd; evicts the oldest waiting connection when full.
 * Returns the new connection's index, or -1 when it was refused (every
 * held request complete and waiting: fd is closed). */
int ctl_conns_add(CtlConnectionTable *table, int fd, int64_t now_ms);
/* Fills fds with the connections still receiving; index_of[i] is the table
 * index of fds[i].  Returns the count. */
int ctl_conns_poll_set(const CtlConnectionTable *table, struct pollfd *fds, int *index_of);
enum CtlReceipt : uint8_t {
    CTL_RECEIVED_NOTHING,  // would block, or a broken connection was closed
    CTL_RECEIVED_FIRST,    // first receive made, the request is complete
    CTL_RECEIVED_SPLIT,    // first receive made, len asks for one extra receive
    CTL_RECEIVED_REST,     // the extra receive made, the request is complete
};

/* One receive on a readable connection, with the framing rules; the caller
 * logs what the receipt says. */
CtlReceipt ctl_conns_receive(CtlConnectionTable *table, int index, int64_t now_ms);
/* Closes, without a reply, every connection whose receive limit has passed. */
void ctl_conns_expire(CtlConnectionTable *table, int64_t now_ms);
/* Milliseconds poll may wait: 0 when a request is ready, -1 when none waits. */
int ctl_conns_poll_timeout(const CtlConnectionTable *table, int64_t now_ms);
/* Milliseconds until the nearest receive limit, -1 when none: complete
 * requests are not counted (for a caller that may not serve them yet). */
int ctl_conns_receive_timeout(const CtlConnectionTable *table, int64_t now_ms);
/* Index of the request that completed first, or -1. */
int ctl_conns_next_ready(const CtlConnectionTable *table);
void ctl_conns_close(CtlConnectionTable *table, int index);
/* Frees the entry and leaves its descriptor open: someone else owns it now. */
void ctl_conns_release(CtlConnectionTable *table, int index);
void ctl_conns_close_all(CtlConnectionTable *table);
int64_t ctl_monotonic_ms(void);
