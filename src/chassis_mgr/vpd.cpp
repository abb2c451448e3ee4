/*
 * Reader of the card's parsed EEPROM files ("vpd_parsed", "ini_parsed"):
 * text lines of a field name, a colon and a value.  One call takes one
 * field's value out of the file.
 */
#include <string.h>

#include "chassis_mgr.h"

namespace {

/* Whole files are read into a buffer of this size; the last byte always
 * stays a terminator, so at most VPD_BUFFER_SIZE - 1 bytes are searched. */
constexpr size_t VPD_BUFFER_SIZE = 4096;

/* Callers expect "ERROR" in the value whenever the field could not be had. */
void set_error_value(char *value, int buf_len) {
    if (value && buf_len > 0) strncpy(value, "ERROR", (size_t)buf_len);
}

}  // namespace

int get_vpd_value(const char *file_name, const char *field, char *value, int buf_len) {
    if (!file_name) {
        CM_LOG(LOG_LEVEL_ERR, "NULL file name\n");
        set_error_value(value, buf_len);
        return 0;
    }
    FILE *file = fopen(file_name, "re");
    if (!file) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open file %s\n", file_name);
        set_error_value(value, buf_len);
        return 0;
    }
    char buffer[VPD_BUFFER_SIZE];
    size_t bytes_read = fread(buffer, 1, VPD_BUFFER_SIZE - 1, file);
    fclose(file);
    /* Terminate at what was read: a short file never exposes stale stack bytes. */
    buffer[bytes_read] = '\0';
    if (bytes_read == VPD_BUFFER_SIZE - 1) CM_LOG(LOG_LEVEL_WARN, "The VPD buffer read is overflowing\n");

    char *found = field ? strstr(buffer, field) : nullptr;
    if (!found) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to locate field %s\n", field ? field : "(null)");
        set_error_value(value, buf_len);
        return 0;
    }
    /* The value is the token after the next colon, ended by any blank,
     * tab, carriage return or line feed. */
    char *save = nullptr;
    strtok_r(found, ":", &save);
    char *token = strtok_r(nullptr, " \t\n\r", &save);
    if (!token) {
        CM_LOG(LOG_LEVEL_ERR, "No vpd value for %s\n", field);
        set_error_value(value, buf_len);
        return 0;
    }
    /* Like the callers expect: a value of buf_len characters or more is
     * copied without a terminator (callers size their buffers for it). */
    if (value && buf_len > 0) strncpy(value, token, (size_t)buf_len);
    return 1;
}
