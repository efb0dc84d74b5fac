// A manual event loop with virtual time for unit tests: timers and
// time-outs fire only when a test advances the clock or runs a pass.
#ifndef FAKE_CM_H
#define FAKE_CM_H

#include "cm.h"

// Forgets every timer, time-out and poll; virtual time back to 0.
void fake_cm_reset();
// Runs what is due now (time-outs of 0 included): one loop pass.
void fake_cm_pass();
// Moves virtual time forward second by second, running what falls due.
void fake_cm_advance(int seconds);
double fake_cm_now();
// Number of timers started and not stopped; of pending time-outs; of polls.
int fake_cm_timers();
int fake_cm_timeouts();
// Calls the poll callback watching `fd` with readiness `bits`; false if none.
bool fake_cm_fire_poll(int fd, int bits);
// Bits asked for by the poll watching `fd`, or -1.
int fake_cm_poll_events(int fd);

#endif
