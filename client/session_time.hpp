// The time keeping every session loop shares: the idle tick and its limits, elapsed times,
// and the statistics line that ends a transfer.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

// One wait for a datagram; a wait that ends without one is an idle tick.
constexpr int IDLE_TICK_USEC = 500000;
// 20 s of silence before the first answer (or, for a download, the metadata) end a session.
constexpr int EARLY_GIVE_UP_TICKS = 40;

// An option's seconds as the int the sessions take; capped rather than wrapped.
int clampSeconds(long seconds);
// The idle limit in ticks for a limit in seconds; capped rather than wrapped, so a huge limit
// never becomes one that ends the session at its first tick.
int idleLimitTicks(long timeoutSeconds);
// Whole seconds and microseconds from `from` to `to`, borrowing a second for the microseconds.
timeval timeBetween(const timeval &from, const timeval &to);

// "Elapsed time: hh:mm:ss.uuuuuu" (hours not reduced modulo 24), followed for a non-empty file
// and a positive time by "      Avg Bps: " and the bytes per second; no line end. Returns what
// snprintf returns.
int formatStatistics(char *buf, size_t size, timeval elapsed, uint32_t fileSize);
// The same line on standard output, with its line end.
void printStatistics(timeval elapsed, uint32_t fileSize);
