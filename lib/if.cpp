#include "lib/if.h"

int if_debug;
void set_if_debug_on() { if_debug = 1; }
void set_if_debug_off() { if_debug = 0; }
