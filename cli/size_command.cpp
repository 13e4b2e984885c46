// `tavro size`.

#include "command.h"
#include "measure.h"
#include "names.h"
#include "posix.h"
#include "progress_bar.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

struct Size {
    std::uint64_t Bytes = 0;
    std::string Path;
    std::string Mark; ///< Says that it is not all.
};

bool IsLarger(const Size& A, const Size& B) {
    return A.Bytes != B.Bytes ? A.Bytes > B.Bytes : A.Path < B.Path;
}

/// Measures what one argument names.
class Measuring {
public:
    /// @param Depth     how far down what is below is kept, too.
    /// @param OutSizes  the argument, and then what is below, the largest first.
    TavroFailure Run(const std::string& Path, int Depth, std::vector<Size>& OutSizes) {
        TavroDescriptor opened;
        struct stat status = {};
        int error = TavroOpenDirectory(Path, opened);
        error = error == ENOTDIR ? TavroStatTargetAt(AT_FDCWD, Path.c_str(), status) : error;
        if (error != 0) {
            return TavroFail(TavroIsMissing(error) ? TavroFailureKind::NoSuchEntry
                                                   : TavroFailureKind::LookAt,
                             error, Path);
        }
        const bool bDirectory = opened.IsOpen();
        error = bDirectory ? TavroAccessAt(opened.Number(), ".", R_OK) : 0;
        if (error != 0) {
            return TavroFail(TavroFailureKind::Read, error, Path);
        }
        const std::uint64_t bytes =
            bDirectory ? SumBelow(opened.Number(), Path, Depth) : FileSize(status);
        m_bar.Clear();
        std::sort(m_below.begin(), m_below.end(), IsLarger);
        OutSizes = {{bytes, Path, m_bComplete ? "" : " (partial)"}};
        OutSizes.insert(OutSizes.end(), m_below.begin(), m_below.end());
        return {};
    }

private:
    static std::uint64_t FileSize(const struct stat& Status) {
        return S_ISREG(Status.st_mode) ? static_cast<std::uint64_t>(Status.st_size) : 0;
    }

    bool CountOne() {
        // The clock is asked for only now and then: entries come faster than it answers.
        if (++m_count % 1024 == 0) {
            m_bar.ShowText(TavroCountText(m_count, "entry"));
        }
        return TavroWasInterrupted();
    }

    std::uint64_t SumBelow(int Directory, const std::string& Path, int Depth) {
        if (Depth == 0) {
            bool bComplete = false;
            const std::uint64_t bytes = TavroMeasureDirectorySize(
                Directory, [this] { return CountOne(); }, bComplete);
            m_bComplete = m_bComplete && bComplete;
            return bytes;
        }
        TavroListing listing;
        TavroListDirectory(Directory, listing); // what cannot be read counts nothing
        std::uint64_t sum = 0;
        for (const char* name = listing.Next(); name != nullptr; name = listing.Next()) {
            m_bComplete = m_bComplete && !CountOne();
            if (!m_bComplete) {
                break;
            }
            const std::string path = TavroJoin(Path, name);
            TavroDescriptor opened;
            struct stat status = {};
            const bool bDirectory = TavroOpenDirectoryAt(Directory, name, opened) == 0;
            const std::uint64_t bytes = bDirectory ? SumBelow(opened.Number(), path, Depth - 1)
                                        : TavroStatTargetAt(Directory, name, status) == 0
                                            ? FileSize(status)
                                            : 0;
            m_below.push_back({bytes, path, ""});
            sum += bytes;
        }
        return sum;
    }

    TavroProgressBar m_bar{false};
    std::uint64_t m_count = 0;
    std::vector<Size> m_below;
    bool m_bComplete = true;
};

/// Several sizes for a person: in large units, with bars, and with their total.
void PrintTable(const std::vector<Size>& Sizes, std::uint64_t Total, bool bTotal) {
    constexpr std::uint64_t barWidth = 10;
    const std::uint64_t most = std::min_element(Sizes.begin(), Sizes.end(), IsLarger)->Bytes;
    const auto print = [&](const Size& size, std::uint64_t filled) {
        const std::string human = TavroHumanSize(size.Bytes);
        TavroPrintLine(stdout, std::string(10 - std::min<std::size_t>(human.size(), 10), ' ') +
                                   human + "  " + std::string(filled, '#') +
                                   std::string(barWidth - filled, ' ') + "  " +
                                   TavroShownPath(stdout, size.Path) + size.Mark);
    };
    for (const Size& size : Sizes) {
        const auto part = static_cast<double>(size.Bytes) / static_cast<double>(most);
        print(size, most == 0 ? 0 : static_cast<std::uint64_t>(part * barWidth + 0.5));
    }
    if (bTotal) {
        print({Total, "in all", ""}, 0);
    }
}

/// A script reads bytes, a tab and the path.
void PrintLines(const std::vector<Size>& Sizes) {
    for (const Size& size : Sizes) {
        TavroPrintLine(stdout, std::to_string(size.Bytes) + size.Mark + "\t" + size.Path);
    }
    std::fflush(stdout); // the next may take long
}

/// What was measured, each argument with what is below it.
void Print(const std::vector<std::vector<Size>>& Groups) {
    std::vector<Size> sizes;
    std::uint64_t total = 0;
    for (const std::vector<Size>& group : Groups) {
        total += group.front().Bytes;
        sizes.insert(sizes.end(), group.begin(), group.end());
    }
    if (!TavroIsTerminal(stdout)) {
        PrintLines(sizes);
    } else if (sizes.size() > 1) {
        PrintTable(sizes, total, Groups.size() > 1);
    } else if (sizes.size() == 1) {
        const std::string exact = total < 1000 ? "" : " (" + TavroCountText(total, "byte") + ")";
        TavroPrintLine(stdout, TavroHumanSize(total) + exact + sizes[0].Mark + "  " +
                                   TavroShownPath(stdout, sizes[0].Path));
    }
}

int RunSize(const std::vector<std::string>& Paths, int Depth, bool bSort) {
    TavroCatchInterrupts();
    const bool bAtOnce = !bSort && !TavroIsTerminal(stdout);
    int exitCode = TavroExitDone;
    std::vector<std::vector<Size>> groups;
    for (std::size_t i = 0; i < Paths.size() && !TavroWasInterrupted(); ++i) {
        std::vector<Size> sizes;
        if (const TavroFailure failure = Measuring().Run(Paths[i], Depth, sizes)) {
            exitCode = TavroPrintFailure(failure);
        } else if (bAtOnce) {
            Print({sizes});
        } else {
            groups.push_back(std::move(sizes));
        }
    }
    if (bSort) {
        std::stable_sort(groups.begin(), groups.end(), [](const auto& a, const auto& b) {
            return IsLarger(a.front(), b.front());
        });
    }
    Print(groups);
    return TavroWasInterrupted() ? TavroInterruptedExitCode() : exitCode;
}

} // namespace

void TavroAddSize(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "size", "Add up the sizes of files and directories",
                                        "size -s ~/Music ~/Videos");
    CLI::Option* names =
        TavroAddNames(*command, "ENTRY", 1, "The entries to measure", "something to measure");
    CLI::Option* sort = command->add_flag("-s,--sort", "Print the largest entry first");
    CLI::Option* depth = command->add_option("-d,--depth");
    depth->type_name("DEPTH")->description(
        "Also list what is up to DEPTH levels below, largest first");
    TavroCheckNumber(*depth, 1, 100, "a number of levels");
    Table[command] = [=] {
        return RunSize(TavroValues(names), depth->empty() ? 0 : depth->as<int>(), !sort->empty());
    };
}
