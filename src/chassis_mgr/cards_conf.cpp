#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool update_info_from_cards_conf(void) { return false; }
bool check_cards_conf_for_valid_card(int) { return false; }
bool update_cards_conf(int, int, int, int, int, int, int) { return false; }
bool cards_conf_disable_slot(int, int) { return false; }
bool cards_conf_set_slot_online(int, int) { return false; }
bool cards_conf_clear_dirty_bits(void) { return false; }
