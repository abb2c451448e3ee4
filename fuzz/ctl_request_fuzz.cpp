/*
 * Fuzz target of the control request handler: the input is what a client
 * sent, received into g_ctl_resp_buf (at most 1,024 bytes; the rest of the
 * buffer keeps the previous request, as in the daemon), and the request is
 * handled exactly as the control thread handles it, without a socket; the
 * same bytes are handled first as a request of the read-only socket, which
 * must change no slot and reply from its own buffers.  Every byte of a
 * reply is read, as sending it would.
 *
 * Side effects stay in a sandbox root made at start-up: cards.conf, the
 * hardware-management files, the simulated SDK's state, the status
 * document, and a stand-in `systemctl` first on PATH.  The clock factor is
 * tiny, so the polls of a disable or an un-provisioning cost microseconds.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "chassis_mgr.h"
#include "ctl_serving.h"
#include "fuzz_sandbox.h"
#include "ks_sim.h"

namespace {

std::string g_root;

void write_file(const std::string &path, const std::string &content, mode_t mode = 0644) {
    FILE *file = fopen(path.c_str(), "w");
    if (!file) abort();
    fputs(content.c_str(), file);
    fclose(file);
    chmod(path.c_str(), mode);
}

void make_sandbox(void) {
    /* /tmp only: /dev/shm may be mounted noexec, and the systemctl stand-in runs from here. */
    g_root = fuzz_sandbox::make_root("chmgr-fuzz", {"/tmp"});
    if (g_root.empty()) abort();
    for (const char *dir : {"/etc/tarnel", "/etc/brl", "/var/run/hw-management/events", "/var/run/hw-management/system",
                            "/var/run/ks-sim", "/run/chassismgr", "/bin"})
        fuzz_sandbox::make_dirs(g_root + dir);
    std::string conf;
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) {
        std::string n = std::to_string(slot);
        for (const char *event : {"present", "verified", "synced", "powered", "active", "ready"})
            write_file(g_root + "/var/run/hw-management/events/lc" + n + "_" + event, "0");
        write_file(g_root + "/var/run/hw-management/system/lc" + n + "_pwr", "0");
        fuzz_sandbox::make_dirs(g_root + "/var/run/hw-management/lc" + n + "/eeprom");
        conf += n + "       0G        0G                 0G        0  Offline   enable\n";
    }
    /* Slot 3 is synced and its firmware holds a fitting INI: pre-provisioning it gets far. */
    write_file(g_root + "/var/run/hw-management/events/lc3_synced", "1");
    fuzz_sandbox::make_dirs(g_root + "/var/run/ks-sim/slot3");
    write_file(g_root + "/var/run/ks-sim/slot3/ini_identity", "3 2 5\n");
    write_file(g_root + "/etc/tarnel/cards.conf", conf);
    write_file(g_root + "/etc/brl/chmgr_ports_list.txt", "");
    write_file(g_root + "/etc/tarnel/debug_slot", "");
    write_file(g_root + "/bin/systemctl", "#!/bin/sh\nexit 0\n", 0755);
    const char *path = getenv("PATH");
    setenv("PATH", (g_root + "/bin:" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
}

bool set_up(void) {
    make_sandbox();
    char err[256];
    if (!env_configure(g_root.c_str(), "0.000001", err, sizeof err)) abort();
    ks_sim_set_root(g_root.c_str());
    g_log_fd = fopen("/dev/null", "w");
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        g_slots_info[i].slot_id = i + 1;
        g_slots_info[i].trans_timer.timer_fd = -1;
        pthread_mutex_init(&g_slots_info[i].mutex, nullptr);
        slot_serial_set(i + 1, "none");
    }
    return true;
}

/* Reads every byte of a reply, so the sanitizers see one that lies outside its buffer. */
void touch_reply(const ctlReply &reply) {
    if (reply.size > sizeof(debugCmdRespSlotState)) abort();
    const volatile unsigned char *bytes = (const volatile unsigned char *)reply.data;
    unsigned sum = 0;
    for (size_t i = 0; i < reply.size; ++i) sum += bytes[i];
    (void)sum;
}

}  // namespace

/* The same request on the read-only socket first (it must change nothing
 * and never name an administration reply), then on the control socket. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ready = set_up();
    (void)ready;
    size_t taken = size < CTL_BUF_SIZE ? size : CTL_BUF_SIZE;
    memcpy(g_ctl_ro_resp_buf, data, taken);
    ctlReply reply;
    int states[MAX_SLOTS_FOR_9600];
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) states[i] = g_slots_info[i].current_state | g_slots_info[i].disabled << 8;
    if (ctl_handle_readonly_request(g_ctl_ro_resp_buf, &reply)) {
        touch_reply(reply);
        if (reply.data == g_ctl_resp_buf) abort();
    }
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i)
        if (states[i] != (g_slots_info[i].current_state | g_slots_info[i].disabled << 8)) abort();

    memcpy(g_ctl_resp_buf, data, taken);
    if (ctl_handle_request(&reply)) touch_reply(reply);
    return 0;
}
