// Ctrl-C acts between blocks: long work lets Python's signal handlers run there.
#pragma once

// Called without the GIL. Throws what a handler raises. Only Python's main thread runs handlers, so that the others do
// not take the GIL from anybody.
void checkSignals();

// With the GIL, on Python's main thread: after import and in forked children.
void rememberMainThread(unsigned long thread);
