#include "progress_bar.h"

#include "format.h"
#include "interrupt.h"
#include "names.h"
#include "terminal.h"

#include <algorithm>
#include <array>
#include <sys/ioctl.h>
#include <vector>

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

/// The pieces of the line, from left to right; the name comes last.
enum Place : std::size_t { Bar, Percent, Amount, Rate, Left, Name };

struct Piece {
    Place Where;
    std::string Text;
};

/// As much of a line as its width holds.
/// @param Pieces  those most worth first. Bar and amount leave room for some of the name.
std::string LineOf(const std::vector<Piece>& Pieces, const std::string& NameText,
                   std::size_t Width) {
    constexpr std::size_t gap = 2;
    const std::size_t nameRoom = gap + std::min<std::size_t>(TavroTextWidth(NameText), 10);
    std::array<std::string, Name + 1> texts;
    std::size_t used = 0;
    for (const Piece& piece : Pieces) {
        const bool bLess = piece.Where == Bar || piece.Where == Amount;
        const std::size_t needed = piece.Text.size() + (used == 0 ? 0 : gap);
        if (used + needed + (bLess ? nameRoom : 0) <= Width) {
            texts.at(piece.Where) = piece.Text;
            used += needed;
        }
    }
    if (used + nameRoom <= Width) {
        texts.back() = TavroClippedText(NameText, Width - used - gap);
    }
    std::string line;
    for (const std::string& text : texts) {
        line += (line.empty() || text.empty() ? "" : "  ") + text;
    }
    return line;
}

/// "[##--------]  25 %  1.0 GB of 4.0 GB  120 MB/s  0:25 left  film.mkv"
std::string ProgressText(const TavroProgress& Progress, double Seconds, std::size_t Width) {
    const std::string name = TavroPrintableText(TavroNameOf(Progress.CurrentPath));
    if (Progress.ItemCount == 0) { // nobody has counted before
        return LineOf({{Percent, TavroCountText(Progress.ItemsDone, "item")},
                       {Rate, TavroHumanSize(Progress.BytesDone)}},
                      name, Width);
    }
    const bool bBytes = Progress.ByteCount != 0;
    const auto done = static_cast<double>(bBytes ? Progress.BytesDone : Progress.ItemsDone);
    const auto all = static_cast<double>(bBytes ? Progress.ByteCount : Progress.ItemCount);
    const double fraction = std::clamp(done / all, 0.0, 1.0);
    constexpr std::size_t width = 10;
    const auto filled = static_cast<std::size_t>(fraction * width);
    std::vector<Piece> pieces = {
        {Percent, std::to_string(static_cast<int>(fraction * 100)) + " %"}};
    if (fraction > 0) {
        pieces.push_back({Left, DurationText(Seconds / fraction - Seconds) + " left"});
    }
    if (bBytes && Seconds > 0) {
        pieces.push_back({Rate, TavroHumanSize(static_cast<std::uint64_t>(done / Seconds)) + "/s"});
    }
    pieces.push_back({Amount, bBytes ? TavroHumanSize(Progress.BytesDone) + " of " +
                                           TavroHumanSize(Progress.ByteCount)
                                     : TavroGroupedNumber(Progress.ItemsDone) + " of " +
                                           TavroCountText(Progress.ItemCount, "item")});
    pieces.push_back(
        {Bar, "[" + std::string(filled, '#') + std::string(width - filled, '-') + "]"});
    return LineOf(pieces, name, Width);
}

/// The columns of the window as it is now, but the last: what reaches it may begin another line.
std::size_t Width() {
    struct winsize window = {};
    const bool bKnown = ioctl(fileno(stderr), TIOCGWINSZ, &window) == 0 && window.ws_col > 0;
    return bKnown ? window.ws_col - 1U : 79;
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
                                      : ProgressText(progress, seconds.count(), Width()));
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
    std::fprintf(stderr, "\r%s\033[K", TavroClippedText(Text, Width()).c_str());
}

void TavroProgressBar::Clear() {
    if (m_bShown) {
        std::fputs("\r\033[K", stderr);
        m_bShown = false;
    }
}
