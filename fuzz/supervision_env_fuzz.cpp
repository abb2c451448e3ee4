/*
 * Feeds arbitrary NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID values (the
 * input split at its first two line feeds) to the environment module and
 * checks what it takes: a socket name only when it is a path or "@name" that
 * fits a Unix socket address, taken as it is; a watchdog period only with a
 * socket, as a positive decimal number of microseconds within 64 bits, and
 * only when WATCHDOG_PID is unset or names this process.  A violation
 * aborts with a message on standard error.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "env.h"

namespace {

constexpr pid_t kSelf = 4242;

bool decimal(const std::string &text, uint64_t *value) {
    if (text.empty()) return false;
    uint64_t result = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        uint64_t digit = (uint64_t)(c - '0');
        if (result > (UINT64_MAX - digit) / 10) return false;
        result = result * 10 + digit;
    }
    *value = result;
    return true;
}

[[noreturn]] void violation(const char *what, const std::string &input) {
    fprintf(stderr, "supervision_env_fuzz: %s for '%s'\n", what, input.c_str());
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input(reinterpret_cast<const char *>(data), size);
    if (input.find('\0') != std::string::npos) return 0;  // an environment value holds no NUL
    size_t first = input.find('\n');
    size_t second = first == std::string::npos ? std::string::npos : input.find('\n', first + 1);
    std::string socket_name = input.substr(0, first);
    std::string usec = first == std::string::npos ? "" : input.substr(first + 1, second - first - 1);
    std::string pid = second == std::string::npos ? "" : input.substr(second + 1);

    env_configure_supervision(socket_name.c_str(), usec.c_str(), pid.empty() ? nullptr : pid.c_str(), kSelf);

    bool socket_ok = socket_name.size() >= 2 && socket_name.size() <= 107 &&
                     (socket_name[0] == '/' || socket_name[0] == '@');
    bool taken = env_notify_socket()[0] != '\0';
    if (socket_ok != taken) violation(socket_ok ? "refused a valid socket name" : "took an invalid socket name", input);
    if (taken && env_notify_socket() != socket_name) violation("changed the socket name", input);

    uint64_t period = 0;
    uint64_t named_pid = 0;
    bool for_us = pid.empty() || (decimal(pid, &named_pid) && named_pid == (uint64_t)kSelf);
    bool watchdog_ok = socket_ok && decimal(usec, &period) && period > 0 && for_us;
    if (env_watchdog_usec() != (watchdog_ok ? period : 0)) violation("misread the watchdog period", input);
    env_configure_supervision(nullptr, nullptr, nullptr, kSelf);
    return 0;
}
