/// Ctrl-C and its like, noted for work that can stop cleanly.

#ifndef TAVRO_CLI_INTERRUPT_H
#define TAVRO_CLI_INTERRUPT_H

/// From now on SIGINT, SIGTERM and SIGHUP are noted instead of ending the process; those that were
/// ignored at its start stay ignored. A Ctrl-C after another signal ends it at once.
void TavroCatchInterrupts();

/// Whether a signal has been noted: the hook that cancels an operation.
bool TavroWasInterrupted();

/// Notes signals afresh, so that a question can be asked about one. @return the one that was noted.
int TavroForgetInterrupt();
void TavroRememberInterrupt(int Signal);

/// The exit code of what was cancelled: 128 and the number of the signal, 130 for Ctrl-C.
int TavroInterruptedExitCode();

/// Waits until standard input has something to read, or has ended.
/// @return false when a signal has been noted, be it before the wait.
bool TavroAwaitInput();

#endif
