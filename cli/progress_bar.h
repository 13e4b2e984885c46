/// A bar for long work on a terminal.

#ifndef TAVRO_CLI_PROGRESS_BAR_H
#define TAVRO_CLI_PROGRESS_BAR_H

#include "transfer.h"

#include <chrono>
#include <string>

/// Shows progress in one line of standard error: how much, how fast, how long it will take. Nothing
/// is shown for work of less than half a second, into a pipe, or when it is to be quiet. The line
/// is gone when the bar is.
class TavroProgressBar {
public:
    explicit TavroProgressBar(bool bQuiet);
    ~TavroProgressBar();
    TavroProgressBar(const TavroProgressBar&) = delete;
    TavroProgressBar& operator=(const TavroProgressBar&) = delete;

    void Show(const TavroTransferProgress& Progress);

    /// Takes the line away, for a question or a sentence; the next Show brings it back.
    void Clear();

private:
    using Clock = std::chrono::steady_clock;

    const bool m_bActive;
    const Clock::time_point m_begin = Clock::now();
    bool m_bShown = false;
};

/// Callbacks that show progress in `Bar`, which they refer to, and cancel after an interrupt.
TavroTransferCallbacks TavroMakeCallbacks(TavroProgressBar& Bar);

/// The text of the bar: "[#####---------------] 25 %  1.0 GB of 4.0 GB  120.0 MB/s  0:25 left".
std::string TavroProgressText(const TavroTransferProgress& Progress, double Seconds);

#endif
