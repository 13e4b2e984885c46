/// A bar for long work on a terminal.

#ifndef TAVRO_CLI_PROGRESS_BAR_H
#define TAVRO_CLI_PROGRESS_BAR_H

#include "progress.h"

#include <chrono>
#include <string>

/// Shows progress in one line of standard error, as wide as the window is at the time: how much,
/// how fast, how long it will take, and what is worked on. Nothing is shown for work of less than
/// half a second, into a pipe, or when it is to be quiet. The line is gone when the bar is.
class TavroProgressBar {
public:
    explicit TavroProgressBar(bool bQuiet);
    ~TavroProgressBar() {
        Clear();
    }
    TavroProgressBar(const TavroProgressBar&) = delete;
    TavroProgressBar& operator=(const TavroProgressBar&) = delete;

    /// What an operation is called with: progress is shown here, where there is somebody to see it,
    /// and an interrupt cancels. They refer to this bar.
    TavroCallbacks Callbacks();

    /// Shows another text instead, at most 20 times a second.
    void ShowText(const std::string& Text);

    /// Takes the line away, for a question or a sentence; the next text brings it back.
    void Clear();

private:
    using Clock = std::chrono::steady_clock;

    const bool m_bActive;
    const Clock::time_point m_begin = Clock::now();
    Clock::time_point m_due = m_begin + std::chrono::milliseconds(500);
    bool m_bShown = false;
};

#endif
