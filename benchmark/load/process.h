/* process.h - what a running process has cost so far, seen from outside. Everything is read from the kernel, which
 * bills processor time to the nanosecond, unlike the clock ticks of /proc/PID/stat. */
#pragma once

#include <functional>
#include <sys/types.h>
#include <vector>

struct Cost {
    double cpu_us;  /* processor time of all threads of the process */
    double time_us; /* time on the clock */
    double wakes;   /* how often its threads were woken, which is how often they had gone to sleep */
};

/* What the process spends while `work` runs in this one. */
Cost cost_of(pid_t process, const std::function<void()> &work);

double now_us();
double resident_kib(pid_t process);
int descriptor_count(pid_t process);

/* The middle one of the values; of an even number, the upper. */
double median(std::vector<double> values);
