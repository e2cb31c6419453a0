// Interval timing with a microsecond monotonic clock.
#pragma once

#include <chrono>

struct st_timing_t {
    std::chrono::steady_clock::time_point start;
    double inter_us;  // last start→stop interval
};

st_timing_t *st_timing_new();
void st_timing_free(st_timing_t *t);
void st_timing_start(st_timing_t *t);
void st_timing_stop(st_timing_t *t);
// Microseconds between the last start and stop.
double st_timing_get_inter(const st_timing_t *t);
