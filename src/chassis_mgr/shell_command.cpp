/*
 * Outside commands run through the shell.  Every caller judges the result the
 * same way: a command that could not be started, or that exited with a
 * non-zero code, is logged with its text.
 */
#include <stdlib.h>
#include <sys/wait.h>

#include "chassis_mgr.h"

int cm_system(const char *command) { return system(command); }

bool cm_command_succeeded(const char *command, int status) {
    if (status == -1) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to launch %s\n", command);
        return false;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "process %s exited with %d error code\n", command, WEXITSTATUS(status));
        return false;
    }
    return true;
}
