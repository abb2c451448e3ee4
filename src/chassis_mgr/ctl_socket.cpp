#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

unsigned char g_ctl_resp_buf[CTL_BUF_SIZE];
debugCmdRespSlotState g_ctl_debug_cmd_resp;

void *ctl_thread(void *) { return nullptr; }
