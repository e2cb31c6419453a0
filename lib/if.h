// Interface library switches shared by the daemon's modules.
#pragma once

extern int if_debug;
void set_if_debug_on();
void set_if_debug_off();
