#include "commands.h"
#include "interrupt.h"
#include "tavroops.h"
#include "terminal.h"

#include <chrono>

namespace fs = std::filesystem;

namespace {

/// A count of entries on the terminal while a walk goes on, renewed ten times a second.
class LiveCount {
public:
    void CountOne() {
        ++m_count;
        // The clock is asked for only now and then: entries come faster than it answers.
        if (m_bTerminal && m_count % 1024 == 0) {
            ShowIfDue();
        }
    }

    ~LiveCount() {
        if (m_bShown) {
            std::fputs("\r\033[K", stderr);
        }
    }

    LiveCount() = default;
    LiveCount(const LiveCount&) = delete;
    LiveCount& operator=(const LiveCount&) = delete;

private:
    using Clock = std::chrono::steady_clock;

    void ShowIfDue() {
        const Clock::time_point now = Clock::now();
        if (now - m_shownAt < std::chrono::milliseconds(100)) {
            return;
        }
        m_shownAt = now;
        m_bShown = true;
        std::fprintf(stderr, "\r%s\033[K", TavroCountText(m_count, "entry").c_str());
    }

    const bool m_bTerminal = TavroIsTerminal(stderr);
    bool m_bShown = false;
    std::uint64_t m_count = 0;
    Clock::time_point m_shownAt = Clock::now();
};

std::uintmax_t Measure(const std::string& Directory) {
    LiveCount count;
    return TavroCalculateDirectorySize(Directory, [&count] {
        count.CountOne();
        return TavroWasInterrupted();
    });
}

/// A person reads the size in large units first; a script reads bytes, a tab and the path.
void PrintSize(std::uintmax_t Bytes, const std::string& Directory, bool bPartial) {
    const std::string mark = bPartial ? " (partial)" : "";
    if (TavroIsTerminal(stdout)) {
        const std::string exact = Bytes < 1000 ? "" : " (" + TavroCountText(Bytes, "byte") + ")";
        TavroPrintLine(stdout, TavroHumanSize(Bytes) + exact + mark + "  " + Directory);
        return;
    }
    TavroPrintLine(stdout, std::to_string(Bytes) + mark + "\t" + Directory);
    std::fflush(stdout); // the next folder may take long
}

} // namespace

int TavroRunSize(const std::vector<std::string>& Directories) {
    TavroCatchInterrupts();
    int exitCode = TavroExitDone;
    for (const std::string& directory : Directories) {
        std::error_code ec;
        const fs::file_status status = fs::status(directory, ec);
        if (!fs::is_directory(status)) {
            TavroPrintError("Not a directory: '" + directory + "'" +
                            (ec ? ": " + ec.message() : ""));
            exitCode = TavroExitFailed;
            continue;
        }
        fs::directory_iterator(directory, ec);
        if (ec) {
            TavroPrintError("Cannot read '" + directory + "': " + ec.message());
            exitCode = TavroExitFailed;
            continue;
        }
        const std::uintmax_t bytes = Measure(directory);
        PrintSize(bytes, directory, TavroWasInterrupted());
        if (TavroWasInterrupted()) {
            return TavroExitInterrupted;
        }
    }
    return exitCode;
}
