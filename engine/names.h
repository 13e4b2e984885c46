/// Names: free ones beside taken ones, hidden ones for what is not finished, and names of any bytes
/// as plain ASCII.

#ifndef TAVRO_ENGINE_NAMES_H
#define TAVRO_ENGINE_NAMES_H

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

/// The longest name that file systems take.
constexpr std::size_t TavroLongestName = 255;

/// `NAME copy NUMBER.EXT`, of `Longest` bytes at most; for number 0 the name itself. NAME is
/// shortened between UTF-8 characters where there is no room. An extension that leaves no room for
/// anything else counts as a part of NAME. `Longest` is 64 at least.
std::string TavroNumberedName(const std::string& Wanted, std::uint64_t Number,
                              std::size_t Longest = TavroLongestName);

/// Looks for free names, and remembers for each wanted name how far it has come, so that thousands
/// of entries of one name cost no more than as many of different names.
class TavroFreeNames {
public:
    /// The first of NAME, `NAME copy 1.EXT` … that is not taken, from the last one given on.
    ///
    /// @param Place    tells directories apart, for one that serves several: the same wanted name
    ///                 is counted for each by itself.
    /// @param IsTaken  asked for each candidate until it says no.
    std::string Choose(const std::string& Place, const std::string& Wanted,
                       const std::function<bool(const std::string&)>& IsTaken,
                       std::size_t Longest = TavroLongestName);

private:
    std::unordered_map<std::string, std::uint64_t> m_next;
};

/// A hidden name that nobody else uses: `.tavro-` and twelve random characters.
std::string TavroStagingName();

/// What all hidden names begin with that this thread gives, and no others: `.tavro-` and six of the
/// characters.
const std::string& TavroStagingPrefix();

/// The name of what steps aside for a moment where names cannot be exchanged: `-old` after that of
/// what comes.
std::string TavroAsideName(const std::string& StagingName);

/// Whether a name has the form that TavroStagingName or TavroAsideName gives.
bool TavroIsStagingName(const std::string& Name);
bool TavroIsAsideName(const std::string& Name);

/// Whether a text is the name of an entry in a directory: joined to one, it leads nowhere else.
bool TavroIsPlainName(const std::string& Name);

/// The last component of a path, and the path of the directory that holds it ("." when none is
/// named, "/" for an entry of the root).
std::string TavroNameOf(const std::string& Path);
std::string TavroParentOf(const std::string& Path);

/// `Directory` and `Name` with one separator between them.
std::string TavroJoin(const std::string& Directory, const std::string& Name);

/// Whether `Path` is below `Directory`, by their texts alone.
bool TavroIsBelow(const std::string& Directory, const std::string& Path);

/// Every byte but A-Z a-z 0-9 - . / _ ~ as % and two upper-case hexadecimal digits, as URIs and
/// trash records have it.
std::string TavroPercentEncode(const std::string& Bytes);

/// The bytes that a text stands for. A % that no two hexadecimal digits follow stands for itself.
std::string TavroPercentDecode(const std::string& Text);

#endif
