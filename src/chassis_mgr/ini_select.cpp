#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool check_and_update_ini_for_lc_insert(int) { return false; }
bool compatible_ini(int, iniInfo *) { return false; }
bool get_sdk_packaged_ini_info(int, iniInfo *) { return false; }
bool get_lc_eeprom_ini_info(int, iniInfo *) { return false; }
