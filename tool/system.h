// What a command asks of its system beyond platform.h: descriptors that may not be ready yet, the width of a terminal.
//
// Units:   bytes.
// Failure: -1 with errno, unless told otherwise.
#pragma once

// As platform::_read and platform::_write, but a descriptor that does not block is waited for as any other is. Reading
// throws endedBySignal (signals.h) where a signal asks a deferral for the end.
int readWaiting(int descriptor, void* buffer, unsigned int count);
int writeWaiting(int descriptor, const void* buffer, unsigned int count);

// The columns of standard error: 0 if it is no terminal, or one that cannot take a line back.
int terminalWidth();
