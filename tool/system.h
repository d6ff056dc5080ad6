// What a command asks of its system beyond platform.h: descriptors that may not be ready yet, the writer's lock on a
// file by its name, the width of a terminal.
//
// Units:   bytes.
// Owner:   a descriptor that comes back is the caller's to close, by platform::_close.
// Failure: -1 with errno, unless told otherwise.
#pragma once

#include <string>

// As platform::_read and platform::_write, but a descriptor that does not block is waited for as any other is. Reading
// throws endedBySignal (signals.h) where a signal asks a deferral for the end.
int readWaiting(int descriptor, void* buffer, unsigned int count);
int writeWaiting(int descriptor, const void* buffer, unsigned int count);

// A descriptor that holds the lock of a writer on the file, which needs no right to write. EWOULDBLOCK while a writer
// has it. The lock goes with the descriptor.
int lockAgainstWriters(const std::string& name);
bool hasWriter(const std::string& name);

// The columns of standard error: 0 if it is no terminal, or one that cannot take a line back.
int terminalWidth();
