#include "platform/st_timing.h"

st_timing_t *st_timing_new() { return new st_timing_t{std::chrono::steady_clock::now(), 0.0}; }

void st_timing_free(st_timing_t *t) { delete t; }

void st_timing_start(st_timing_t *t)
{
    if (t) t->start = std::chrono::steady_clock::now();
}

void st_timing_stop(st_timing_t *t)
{
    if (!t) return;
    t->inter_us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t->start).count();
}

double st_timing_get_inter(const st_timing_t *t) { return t ? t->inter_us : 0.0; }
