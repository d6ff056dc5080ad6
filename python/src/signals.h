// Lets Ctrl-C act between the blocks of long work, where Python's signal handlers run.
#pragma once

// Called without the GIL. Throws what a handler raises. Only Python's main thread runs handlers, so other threads
// return without taking the GIL.
void checkSignals();

// Called with the GIL on Python's main thread, after import and in forked children.
void rememberMainThread(unsigned long thread);
