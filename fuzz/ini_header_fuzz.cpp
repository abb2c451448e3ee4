/*
 * Feeds arbitrary bytes to the INI image header reader and, as the parsed
 * INI EEPROM file of slot 1, to the EEPROM identity reader, and checks:
 *  - the header gives minor = bytes 0-1 as the target reads them, revision
 *    = bytes 2-3 big-endian, card type = byte 4, missing bytes as zero;
 *  - the EEPROM reader never fails without a zero card type, and on
 *    success names the slot's raw EEPROM image.
 * Any violation aborts with a message on standard error.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "chassis_mgr.h"
#include "fuzz_sandbox.h"

namespace {

std::string g_root;
std::string g_parsed_path;

void check(bool ok, const char *what) {
    if (ok) return;
    fprintf(stderr, "ini_header_fuzz: %s\n", what);
    abort();
}

void check_header(const uint8_t *data, size_t size) {
    uint8_t header[5] = {};
    memcpy(header, data, size < 5 ? size : 5);
    iniInfo ini{};
    ini.card_type = -1;
    ini.hw_revision = -1;
    ini.minor = -1;
    FILE *file = size > 0 ? fmemopen(const_cast<uint8_t *>(data), size, "r") : fopen("/dev/null", "r");
    if (!file) return;
    ini_header_read(file, &ini);
    fclose(file);
    check(ini.minor == (header[0] | header[1] << 8), "minor version");
    check(ini.hw_revision == (header[2] << 8 | header[3]), "hardware revision");
    check(ini.card_type == header[4], "card type");
}

void check_eeprom(const uint8_t *data, size_t size) {
    FILE *file = fopen(g_parsed_path.c_str(), "w");
    check(file != nullptr, "cannot write ini_parsed");
    fwrite(data, 1, size, file);
    fclose(file);
    iniInfo ini{};
    bool ok = get_lc_eeprom_ini_info(1, &ini);
    if (!ok) return;
    std::string expected = g_root + "/var/run/hw-management/lc1/eeprom/ini";
    check(expected == ini.ini_file_name, "EEPROM image name");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_root = fuzz_sandbox::make_root("ini-header-fuzz");
    char err[256];
    if (g_root.empty() || !env_configure(g_root.c_str(), "0.0001", err, sizeof err)) abort();
    std::string dir = g_root + "/var/run/hw-management/lc1/eeprom";
    fuzz_sandbox::make_dirs(dir);
    g_parsed_path = dir + "/ini_parsed";
    g_log_level = LOG_LEVEL_CRIT;
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) g_slots_info[i].slot_id = i + 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    check_header(data, size);
    check_eeprom(data, size);
    return 0;
}
