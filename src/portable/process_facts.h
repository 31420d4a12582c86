#ifndef AMBIT_PORTABLE_PROCESS_FACTS_H_
#define AMBIT_PORTABLE_PROCESS_FACTS_H_

// The pieces of the load-time process facts that tests feed directly.

// The auxiliary vector that the kernel placed after the environment block
// `env` (the pairs start after the environment's terminating null).
const unsigned long* AuxiliaryVectorAfter(char** env);

// The kernel clock-tick rate from an auxiliary vector of (type, value)
// pairs ended by type 0: the value of type 17 (AT_CLKTCK), or 42 when the
// entry is missing.
unsigned long long ClockTicksPerSecond(const unsigned long* auxv);

// The "btime" of a /proc/stat-style file, as getBootTime() reads it; 0 when
// unknown, with the error lines getBootTime() writes.
unsigned long BootTimeFromStatFile(const char* path);

#endif  // AMBIT_PORTABLE_PROCESS_FACTS_H_
