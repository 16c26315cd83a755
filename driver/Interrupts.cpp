#include "driver/Interrupts.hpp"

#include <signal.h>

#include "tools/TaskHelper.hpp"

namespace whittle {

namespace {

volatile sig_atomic_t receivedSignal = 0;

extern "C" void onStopSignal(int signalNumber) {
    if (receivedSignal == 0) receivedSignal = signalNumber;
    stopRunningTools();
}

}  // namespace

void catchStopSignals() {
    for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction previous {};
        ::sigaction(signalNumber, nullptr, &previous);
        if (previous.sa_handler == SIG_IGN) continue;
        struct sigaction action {};
        action.sa_handler = onStopSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        ::sigaction(signalNumber, &action, nullptr);
    }
}

int stopSignal() { return receivedSignal; }

void allowToolsForCleanUp() { allowTools(); }

void forgetStopSignal() {
    receivedSignal = 0;
    allowTools();
}

}  // namespace whittle
