/// What a person reads on a terminal: dates, summaries, columns. Into anything else goes what a
/// program reads.

#ifndef TAVRO_CLI_FORMAT_H
#define TAVRO_CLI_FORMAT_H

#include <cstdint>
#include <string>
#include <vector>

/// "FROM -> TO" for standard output.
std::string TavroShownStep(const std::string& From, const std::string& To);

/// Whether what was done is told entry by entry: all of it into a pipe or with -v, on a terminal
/// only a few. Else a summary is.
bool TavroTellsEach(std::size_t Count, bool bVerbose);

/// "Copied 60 files (180 MB) in 2 s"; no size for 0 bytes, no time below a second.
std::string TavroSummary(const std::string& Deed, const std::string& What, std::uint64_t Bytes,
                         std::uint64_t Seconds);

/// A time as people say it: "2 min ago", "3 days ago"; after a week, or in the future, the date.
std::string TavroShownTime(std::int64_t Time);

/// A time with its zone, for programs: 2024-03-05T14:07:09+01:00.
std::string TavroTimeText(std::int64_t Time);

/// How many columns a printable text takes.
std::size_t TavroTextWidth(const std::string& Text);

/// As much of a printable text as so many columns hold, with "…" for the rest.
std::string TavroClippedText(const std::string& Text, std::size_t Width);

enum class TavroStyle { Plain, Dim, Bold, Yellow };

struct TavroCell {
    std::string Text;
    TavroStyle Style = TavroStyle::Plain;
    bool bRight = false; ///< Stands at the right of its column.
};

/// Prints rows of cells: on a terminal printable and in columns, else as they are with `Separator`
/// between them.
void TavroPrintColumns(const std::vector<std::vector<TavroCell>>& Rows,
                       const std::string& Separator, bool bColor);

#endif
