#include "chmgr_sdk.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool sdk_get_fw_ini_info(int, iniInfo *ini) {
    ini->card_type = 0;
    ini->hw_revision = 0;
    ini->minor = 0;
    return false;
}
bool sdk_check_ini_in_use(int, int *in_use) {
    *in_use = 0;
    return false;
}
bool sdk_reset_ini(int) { return false; }
bool sdk_program_ini(int, bool, iniInfo *) { return false; }
