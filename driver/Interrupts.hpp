// Stopping a run on SIGINT, SIGTERM or SIGHUP: the running tool and everything it
// started are stopped at once, and the run then finishes its clean-up and ends with
// 128 + the signal's number.
#pragma once

namespace whittle {

// Installs the handlers; a signal that was ignored when the process started stays ignored.
void catchStopSignals();

// The first stop signal received, or 0.
int stopSignal();
inline bool interrupted() { return stopSignal() != 0; }

// Lets tools run again after an interruption, for the clean-up steps.
void allowToolsForCleanUp();

// Forgets the stop signal received and lets tools run again, so that a process that
// runs one request after another (a test program) starts each one uninterrupted.
void forgetStopSignal();

}  // namespace whittle
