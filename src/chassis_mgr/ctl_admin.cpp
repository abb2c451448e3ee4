#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool pre_provision_cmd(ctlPreProvisionCmd *) { return false; }
bool set_linecard_disable(int, bool) { return false; }
