/// Ctrl-C, seen by work that can stop cleanly.

#ifndef TAVRO_CLI_INTERRUPT_H
#define TAVRO_CLI_INTERRUPT_H

/// From now on an interrupt or a request to terminate is noted instead of ending the process. A
/// second interrupt ends it at once.
void TavroCatchInterrupts();

/// Whether one has come since.
bool TavroWasInterrupted();

#endif
