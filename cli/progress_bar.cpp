#include "progress_bar.h"

#include "interrupt.h"
#include "terminal.h"

#include <algorithm>
#include <array>

namespace {

/// Seconds as 0:05, 1:40, 2:00:00.
std::string DurationText(double Seconds) {
    const auto whole = static_cast<unsigned long>(Seconds);
    const std::string hours = whole >= 3600 ? std::to_string(whole / 3600) + ":" : "";
    std::array<char, 8> text = {};
    std::snprintf(text.data(), text.size(), "%0*lu:%02lu", hours.empty() ? 1 : 2, whole / 60 % 60,
                  whole % 60);
    return hours + text.data();
}

/// "[#####---------------] 25 %  1.0 GB of 4.0 GB  120.0 MB/s  0:25 left"
std::string ProgressText(const TavroProgress& Progress, double Seconds) {
    if (Progress.ItemCount == 0) { // nobody has counted before
        return TavroCountText(Progress.ItemsDone, "item") + "  " +
               TavroHumanSize(Progress.BytesDone);
    }
    constexpr int width = 20;
    const bool bBytes = Progress.ByteCount != 0;
    const auto done = static_cast<double>(bBytes ? Progress.BytesDone : Progress.ItemsDone);
    const auto all = static_cast<double>(bBytes ? Progress.ByteCount : Progress.ItemCount);
    const double fraction = std::clamp(done / all, 0.0, 1.0);
    const int filled = static_cast<int>(fraction * width);
    std::string text = "[" + std::string(static_cast<std::size_t>(filled), '#') +
                       std::string(static_cast<std::size_t>(width - filled), '-') + "] " +
                       std::to_string(static_cast<int>(fraction * 100)) + " %  ";
    if (!bBytes) {
        return text + TavroGroupedNumber(Progress.ItemsDone) + " of " +
               TavroCountText(Progress.ItemCount, "item");
    }
    text += TavroHumanSize(Progress.BytesDone) + " of " + TavroHumanSize(Progress.ByteCount);
    if (Seconds > 0 && fraction > 0) {
        text += "  " + TavroHumanSize(static_cast<std::uint64_t>(done / Seconds)) + "/s  " +
                DurationText(Seconds / fraction - Seconds) + " left";
    }
    return text;
}

} // namespace

TavroProgressBar::TavroProgressBar(bool bQuiet) : m_bActive(!bQuiet && TavroIsTerminal(stderr)) {}

TavroCallbacks TavroProgressBar::Callbacks() {
    TavroCallbacks callbacks;
    callbacks.ShouldCancel = TavroWasInterrupted;
    if (m_bActive) { // who tells progress measures first
        callbacks.OnProgress = [this](const TavroProgress& progress) {
            const std::chrono::duration<double> seconds = Clock::now() - m_begin;
            m_due = progress.bToDisk ? Clock::time_point() : m_due; // it stands there for long
            ShowText(progress.bToDisk ? "Writing to disk"
                                      : ProgressText(progress, seconds.count()));
        };
    }
    return callbacks;
}

void TavroProgressBar::ShowText(const std::string& Text) {
    const Clock::time_point now = Clock::now();
    if (!m_bActive || now < m_due) {
        return;
    }
    m_due = now + std::chrono::milliseconds(50);
    m_bShown = true;
    std::fprintf(stderr, "\r%s\033[K", Text.c_str());
}

void TavroProgressBar::Clear() {
    if (m_bShown) {
        std::fputs("\r\033[K", stderr);
        m_bShown = false;
    }
}
