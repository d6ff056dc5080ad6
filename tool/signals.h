// Signals that end the process: unfinished files are removed first, and an append restores what it found.
//
// Threads: the main one. One deferral at a time, since the handler knows only one.
#pragma once

// From here on a closed pipe, or a file that reaches its size limit, is a write error, not a signal.
void handleSignals();

// While one exists, a signal only requests the end: reading and throwIfEndAsked() then throw endedBySignal.
class signalDeferral {
public:
    signalDeferral();
    signalDeferral(const signalDeferral&) = delete;
    signalDeferral& operator=(const signalDeferral&) = delete;
    ~signalDeferral();
};

struct endedBySignal {
    int signal;
};

// Becomes readable once a signal has requested the end; -1 without a deferral.
int signalDescriptor();
void throwIfEndAsked();

// Ends the process as the signal itself would.
[[noreturn]] void endBy(int signal);
