/* The chassis-mgr daemon; start-up and the main loop are in startup.cpp. */
#include "chassis_mgr.h"

int main(int argc, char **argv) { return chassis_mgr_main(argc, argv); }
