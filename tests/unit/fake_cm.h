// A manual event loop with virtual time for unit tests: timers and
// time-outs fire only when a test advances the clock or runs a pass.
#ifndef FAKE_CM_H
#define FAKE_CM_H

#include "cm.h"

// Forgets every timer, time-out and poll; virtual time back to 0.
void fake_cm_reset();
// Moves virtual time forward second by second, running what falls due.
void fake_cm_advance(int seconds);
// Number of timers started and not stopped; of pending time-outs.
int fake_cm_timers();
int fake_cm_timeouts();
// Calls the poll callback watching `fd` with readiness `bits`; false if none.
bool fake_cm_fire_poll(int fd, int bits);
// Bits asked for by the poll watching `fd`, or -1.
int fake_cm_poll_events(int fd);
// The descriptor of the poll started last, or -1.
int fake_cm_last_poll_fd();

// Stream I/O, off until turned on (the transport then runs without
// receiving): one listening socket, whose peers the caller plays. The
// listener and its armed accept outlive fake_cm_reset; connections do not
// (reset hangs them up first).
void fake_cm_io_enable();
// A peer connects: the armed accept completes. False when none is armed.
bool fake_cm_io_connect();
// The newest open connection's armed read gets `data` as one chunk; false
// when there is no connection or no read armed on it.
bool fake_cm_io_deliver(const void *data, size_t size);
// The newest open connection's peer goes: its armed read reports the end.
bool fake_cm_io_hangup();
// Open connections.
int fake_cm_io_connections();

#endif
