// Calls to the system beyond platform.h: descriptors that may not be ready yet, and the width of a terminal.
//
// Units:   bytes.
// Failure: -1 with errno, unless stated otherwise.
#pragma once

// As platform::_read and platform::_write, but waits for a non-blocking descriptor too. Reading throws endedBySignal
// (signals.h) when a signal requests the end during a deferral.
int readWaiting(int descriptor, void* buffer, unsigned int count);
int writeWaiting(int descriptor, const void* buffer, unsigned int count);

// The columns of standard error; 0 if it is no terminal, or one that cannot redraw a line.
int terminalWidth();
