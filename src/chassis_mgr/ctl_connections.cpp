/*
 * Receiving requests on many control connections at once.  Each connection
 * follows the framing of one request: a first receive of up to 1,024 bytes,
 * and, when the request's len asks for more than came, exactly one extra
 * receive.  Bytes are kept per connection and laid over the shared control
 * buffer only when the request is served, so what one client sends never
 * mixes with another's.
 */
#include "ctl_connections.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

void reset(CtlConnection *conn) {
    conn->fd = -1;
    conn->phase = CTL_CONN_FREE;
    conn->replay = false;
    conn->received = 0;
    conn->wanted = 0;
}

/* The request's len as the buffer will hold it when served: the bytes
 * received over the buffer's earlier contents.  Only the len field of the
 * buffer is read: another thread may be writing its status meanwhile. */
uint32_t len_after_receive(const CtlConnectionTable *table, const CtlConnection *conn) {
    constexpr size_t kLenEnd = offsetof(ctlCmdHeader, len) + sizeof(uint32_t);
    unsigned char header[sizeof(ctlCmdHeader)] = {};
    memcpy(header + offsetof(ctlCmdHeader, len), table->under + offsetof(ctlCmdHeader, len), sizeof(uint32_t));
    memcpy(header, conn->bytes, conn->received < kLenEnd ? conn->received : kLenEnd);
    return ctl_header_of(header).len;
}

void mark_ready(CtlConnectionTable *table, CtlConnection *conn) {
    conn->phase = CTL_CONN_READY;
    conn->ready_order = table->next_ready++;
}

int oldest_waiting(const CtlConnectionTable *table) {
    int oldest = -1;
    for (int i = 0; i < kCtlMaxConnections; ++i) {
        const CtlConnection &conn = table->conns[i];
        if (conn.phase != CTL_CONN_WAIT_FIRST && conn.phase != CTL_CONN_WAIT_REST) continue;
        if (oldest == -1 || conn.arrival < table->conns[oldest].arrival) oldest = i;
    }
    return oldest;
}

int free_entry(const CtlConnectionTable *table) {
    for (int i = 0; i < kCtlMaxConnections; ++i)
        if (table->conns[i].phase == CTL_CONN_FREE) return i;
    return -1;
}

bool would_block(ssize_t result) {
    return result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

CtlReceipt receive_first(CtlConnectionTable *table, int index, int64_t now_ms) {
    CtlConnection *conn = &table->conns[index];
    ssize_t got = recv(conn->fd, conn->bytes, CTL_BUF_SIZE, MSG_DONTWAIT);
    if (would_block(got)) return CTL_RECEIVED_NOTHING;
    /* A connection that brings nothing, at its end or with a failed
     * receive, is served the previous request again. */
    if (got < 0) got = 0;
    conn->received = (uint32_t)got;
    conn->replay = got == 0;

    /* Compared as unsigned 32-bit values: `len` above 1023 never asks for more. */
    uint32_t len = len_after_receive(table, conn);
    if (len <= CTL_BUF_SIZE - 1 && len > conn->received) {
        if (conn->replay) {  // at the end, the extra receive would find nothing more
            mark_ready(table, conn);
            return CTL_RECEIVED_SPLIT;
        }
        conn->wanted = len;
        conn->phase = CTL_CONN_WAIT_REST;
        conn->deadline_ms = now_ms + kCtlReceiveLimitMs;
        return CTL_RECEIVED_SPLIT;
    }
    mark_ready(table, conn);
    return CTL_RECEIVED_FIRST;
}

/* The one extra receive: whatever it brings (nothing at the end of the
 * stream, or an error) completes the request. */
CtlReceipt receive_rest(CtlConnectionTable *table, int index) {
    CtlConnection *conn = &table->conns[index];
    ssize_t got = recv(conn->fd, conn->bytes + conn->received, conn->wanted - conn->received, MSG_DONTWAIT);
    if (would_block(got)) return CTL_RECEIVED_NOTHING;
    if (got > 0) conn->received += (uint32_t)got;
    mark_ready(table, conn);
    return CTL_RECEIVED_REST;
}

}  // namespace

int64_t ctl_monotonic_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void ctl_conns_init(CtlConnectionTable *table) { ctl_conns_init_over(table, g_ctl_resp_buf); }

void ctl_conns_init_over(CtlConnectionTable *table, const unsigned char *under) {
    for (CtlConnection &conn : table->conns) reset(&conn);
    table->under = under;
    table->next_arrival = 0;
    table->next_ready = 0;
}

int ctl_conns_add(CtlConnectionTable *table, int fd, int64_t now_ms) {
    int index = free_entry(table);
    if (index == -1) {
        index = oldest_waiting(table);
        if (index == -1) {  // every held request is complete and waiting: refuse the newcomer
            close(fd);
            return -1;
        }
        ctl_conns_close(table, index);
    }
    CtlConnection *conn = &table->conns[index];
    reset(conn);
    conn->fd = fd;
    conn->phase = CTL_CONN_WAIT_FIRST;
    conn->arrival = table->next_arrival++;
    conn->deadline_ms = now_ms + kCtlReceiveLimitMs;
    return index;
}

int ctl_conns_poll_set(const CtlConnectionTable *table, struct pollfd *fds, int *index_of) {
    int count = 0;
    for (int i = 0; i < kCtlMaxConnections; ++i) {
        const CtlConnection &conn = table->conns[i];
        if (conn.phase != CTL_CONN_WAIT_FIRST && conn.phase != CTL_CONN_WAIT_REST) continue;
        fds[count] = {conn.fd, POLLIN, 0};
        index_of[count++] = i;
    }
    return count;
}

CtlReceipt ctl_conns_receive(CtlConnectionTable *table, int index, int64_t now_ms) {
    CtlConnection *conn = &table->conns[index];
    if (conn->phase == CTL_CONN_WAIT_FIRST) return receive_first(table, index, now_ms);
    if (conn->phase == CTL_CONN_WAIT_REST) return receive_rest(table, index);
    return CTL_RECEIVED_NOTHING;
}

void ctl_conns_expire(CtlConnectionTable *table, int64_t now_ms) {
    for (int i = 0; i < kCtlMaxConnections; ++i) {
        const CtlConnection &conn = table->conns[i];
        bool waiting = conn.phase == CTL_CONN_WAIT_FIRST || conn.phase == CTL_CONN_WAIT_REST;
        if (waiting && now_ms >= conn.deadline_ms) ctl_conns_close(table, i);
    }
}

int ctl_conns_poll_timeout(const CtlConnectionTable *table, int64_t now_ms) {
    if (ctl_conns_next_ready(table) != -1) return 0;
    return ctl_conns_receive_timeout(table, now_ms);
}

int ctl_conns_receive_timeout(const CtlConnectionTable *table, int64_t now_ms) {
    int64_t soonest = -1;
    for (const CtlConnection &conn : table->conns) {
        if (conn.phase != CTL_CONN_WAIT_FIRST && conn.phase != CTL_CONN_WAIT_REST) continue;
        if (soonest == -1 || conn.deadline_ms < soonest) soonest = conn.deadline_ms;
    }
    if (soonest == -1) return -1;
    return soonest <= now_ms ? 0 : (int)(soonest - now_ms);
}

int ctl_conns_next_ready(const CtlConnectionTable *table) {
    int first = -1;
    for (int i = 0; i < kCtlMaxConnections; ++i) {
        const CtlConnection &conn = table->conns[i];
        if (conn.phase != CTL_CONN_READY) continue;
        if (first == -1 || conn.ready_order < table->conns[first].ready_order) first = i;
    }
    return first;
}

void ctl_conns_close(CtlConnectionTable *table, int index) {
    CtlConnection *conn = &table->conns[index];
    if (conn->fd != -1) close(conn->fd);
    reset(conn);
}

void ctl_conns_release(CtlConnectionTable *table, int index) { reset(&table->conns[index]); }

void ctl_conns_close_all(CtlConnectionTable *table) {
    for (int i = 0; i < kCtlMaxConnections; ++i) ctl_conns_close(table, i);
}
