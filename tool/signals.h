// Signals that end the process: what is not finished goes first, and an append puts back what it found.
//
// Threads: the main one. One deferral at a time, for the handler knows one.
#pragma once

// A closed pipe, or a file that reaches its limit, is an error of writing from here on, not a signal.
void handleSignals();

// While one lives, a signal only asks for the end: who reads, or looks, meets it as endedBySignal.
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

// Readable once a signal has asked for the end; -1 without a deferral.
int signalDescriptor();
void throwIfEndAsked();

// Ends the process as the signal does by itself.
[[noreturn]] void endBy(int signal);
