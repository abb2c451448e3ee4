#include "chmgr_sdk.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool update_ports_list_conf(ks_port_attributes_t *, int) { return false; }
bool delete_ports_list_conf(int, ks_port_attributes_t *, int) { return false; }
