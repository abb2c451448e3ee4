/*
 * Fuzz target of the control thread's connection table: the input is a
 * script of client actions over socket pairs (connect, send bytes, end
 * sending, hang up, let time pass) interleaved with the thread's own steps
 * (one receive round, expiry, serving the first complete request, handing
 * an administration command over to its own thread).  Two tables are
 * driven, as the control thread drives them: the control socket's over
 * g_ctl_resp_buf and the read-only socket's over a buffer of its own.  Each
 * table must stay within its bounds whatever clients do: never more
 * connections than it holds, never more bytes than a request buffer, a
 * split request never asking past the buffer, requests served in the order
 * they completed, and a wait never longer than the receive limit.
 */
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "chassis_mgr.h"
#include "ctl_connections.h"

namespace {

constexpr int kMaxClients = 24;

struct Script {
    const uint8_t *data;
    size_t size;
    size_t at;
    bool more() const { return at < size; }
    uint8_t next() { return at < size ? data[at++] : 0; }
};

struct Clients {
    int fds[kMaxClients];
    int count;
};

bool set_up(void) {
    g_log_fd = fopen("/dev/null", "w");
    return true;
}

void check_table(const CtlConnectionTable &table) {
    for (const CtlConnection &conn : table.conns) {
        if (conn.phase == CTL_CONN_FREE) {
            if (conn.fd != -1) abort();
            continue;
        }
        if (conn.fd < 0 || conn.received > CTL_BUF_SIZE) abort();
        if (conn.phase == CTL_CONN_WAIT_REST && (conn.wanted > CTL_BUF_SIZE - 1 || conn.wanted <= conn.received)) abort();
    }
}

void receive_round(CtlConnectionTable *table, int64_t now) {
    struct pollfd fds[kCtlMaxConnections];
    int index_of[kCtlMaxConnections];
    int held = ctl_conns_poll_set(table, fds, index_of);
    if (held > kCtlMaxConnections) abort();
    if (poll(fds, (nfds_t)held, 0) <= 0) return;
    for (int i = 0; i < held; ++i)
        if (fds[i].revents != 0) ctl_conns_receive(table, index_of[i], now);
}

unsigned char g_readonly_buf[CTL_BUF_SIZE];

/* An administration command leaves the table with its descriptor, which
 * its new owner closes once it has replied. */
void serve_first(CtlConnectionTable *table, unsigned char *buffer, uint64_t *last_order) {
    int ready = ctl_conns_next_ready(table);
    if (ready == -1) return;
    const CtlConnection &conn = table->conns[ready];
    if (conn.ready_order < *last_order) abort();
    *last_order = conn.ready_order;
    if (!conn.replay) memcpy(buffer, conn.bytes, conn.received);
    uint32_t cmd = ctl_header_of(buffer).cmd;
    if (cmd == LINECARD_ENABLE || cmd == LINECARD_DISABLE || cmd == PRE_PROVISION_ENABLE ||
        cmd == PRE_PROVISION_DISABLE) {
        int fd = conn.fd;
        ctl_conns_release(table, ready);
        if (table->conns[ready].phase != CTL_CONN_FREE || table->conns[ready].fd != -1) abort();
        close(fd);
        return;
    }
    ctl_conns_close(table, ready);
}

void check_wait(const CtlConnectionTable &table, int64_t now) {
    int wait = ctl_conns_receive_timeout(&table, now);
    if (wait < -1 || wait > kCtlReceiveLimitMs) abort();
    int poll_wait = ctl_conns_poll_timeout(&table, now);
    if (poll_wait != 0 && poll_wait != wait) abort();
}

void client_step(Script *script, Clients *clients, CtlConnectionTable *table, int64_t now) {
    uint8_t op = script->next();
    int pick = clients->count ? script->next() % clients->count : 0;
    switch (op % 4) {
    case 0: {
        int pair[2];
        if (clients->count == kMaxClients || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return;
        ctl_conns_add(table, pair[0], now);
        clients->fds[clients->count++] = pair[1];
        return;
    }
    case 1: {
        if (!clients->count) return;
        size_t length = script->next() * 8u;
        uint8_t bytes[2048];
        for (size_t i = 0; i < length; ++i) bytes[i] = script->next();
        (void)send(clients->fds[pick], bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        return;
    }
    case 2:
        if (clients->count) shutdown(clients->fds[pick], SHUT_WR);
        return;
    default:
        if (!clients->count) return;
        close(clients->fds[pick]);
        clients->fds[pick] = clients->fds[--clients->count];
        return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ready = set_up();
    (void)ready;
    static CtlConnectionTable tables[2];
    unsigned char *buffers[2] = {g_ctl_resp_buf, g_readonly_buf};
    ctl_conns_init(&tables[0]);
    ctl_conns_init_over(&tables[1], g_readonly_buf);
    Clients clients[2] = {{{}, 0}, {{}, 0}};
    Script script = {data, size, 0};
    int64_t now = 0;
    uint64_t last_order[2] = {0, 0};
    while (script.more()) {
        uint8_t step = script.next();
        int t = (step >> 4) & 1;
        CtlConnectionTable *table = &tables[t];
        switch (step % 5) {
        case 0: client_step(&script, &clients[t], table, now); break;
        case 1: receive_round(table, now); break;
        case 2:
            now += script.next() * 40;
            ctl_conns_expire(table, now);
            break;
        case 3: serve_first(table, buffers[t], &last_order[t]); break;
        default: check_wait(*table, now); break;
        }
        check_table(*table);
    }
    for (int t = 0; t < 2; ++t) {
        ctl_conns_close_all(&tables[t]);
        for (int i = 0; i < clients[t].count; ++i) close(clients[t].fds[i]);
    }
    return 0;
}
