#include "choice.h"

#include "directory_sizes.h"
#include "measure.h"
#include "mounts.h"
#include "names.h"
#include "place.h"
#include "trash_record.h"

#include <algorithm>
#include <ctime>
#include <fnmatch.h>
#include <map>
#include <numeric>
#include <set>
#include <unordered_map>
#include <unordered_set>

// =================================================================================================
// Limits
// =================================================================================================

namespace {

/// Keeps what was in a directory or below it, by whatever links its path was recorded. Where a file
/// system does not answer, the text of the path tells.
void KeepBelow(const std::string& Directory, std::vector<TavroTrashItem>& IoItems) {
    std::unordered_map<std::string, std::string> resolved; // neighbours have the same parent
    const std::vector<std::string> silent = TavroFindSilentMounts();
    const auto isElsewhere = [&](const TavroTrashItem& item) {
        const auto [parent, bNew] = resolved.try_emplace(TavroParentOf(item.OriginalPath));
        if (bNew) {
            const std::string path = TavroJoin(parent->first, "x");
            parent->second = TavroFindAbove(silent, path).empty() ? TavroFindOwnPath(path) : path;
        }
        return !TavroIsBelow(Directory, parent->second);
    };
    IoItems.erase(std::remove_if(IoItems.begin(), IoItems.end(), isElsewhere), IoItems.end());
}

/// Keeps what was trashed at most so many days ago, or what was not. What has no date goes.
void KeepOfAge(int Days, bool bOlder, std::vector<TavroTrashItem>& IoItems) {
    const std::time_t now = std::time(nullptr);
    const auto isOther = [&](const TavroTrashItem& item) {
        const std::optional<std::time_t> time = TavroTimeOfDate(item.DeletionDate);
        return !time || (std::difftime(now, *time) > 86400.0 * Days) != bOlder;
    };
    IoItems.erase(std::remove_if(IoItems.begin(), IoItems.end(), isOther), IoItems.end());
}

// =================================================================================================
// Words
// =================================================================================================

/// A pattern without the slashes at its end, and with one in it as an absolute one.
std::string AbsolutePattern(std::string Pattern) {
    Pattern.erase(Pattern.find_last_not_of('/') + 1);
    if (Pattern.find('/') == std::string::npos || Pattern[0] == '/') {
        return Pattern;
    }
    std::string base = TavroParentOf(TavroNameEntry("x").Path);
    while (Pattern.compare(0, 2, "./") == 0 || Pattern.compare(0, 3, "../") == 0) {
        base = Pattern[1] == '.' ? TavroParentOf(base) : base;
        Pattern.erase(0, Pattern.find_first_not_of('/', Pattern.find('/')));
    }
    std::string escaped;
    for (const char byte : base) {
        escaped += std::string("*?[\\").find(byte) == std::string::npos ? "" : "\\";
        escaped += byte;
    }
    return TavroJoin(escaped, Pattern);
}

/// Finds what words mean among items.
class Chooser {
public:
    Chooser(const std::vector<TavroTrashItem>& Items, bool bNewestAlone);
    TavroFailure Choose(const std::string& Word);
    void ChooseAll();
    bool IsChosen(std::size_t Index) const {
        return m_chosen[Index];
    }

private:
    using Indices = std::vector<std::size_t>;
    using Table = std::unordered_map<std::string, Indices>;

    static Indices Find(const Table& Known, const std::string& Text);
    TavroFailure CheckOnePath(const std::string& Word, const Indices& Found) const;
    Indices Match(const std::string& Word) const;
    void Take(const Indices& Found);

    const std::vector<TavroTrashItem>& m_items;
    const bool m_bNewestAlone;
    std::vector<bool> m_chosen;
    Table m_byName, m_byPath, m_byOriginalName;
};

Chooser::Chooser(const std::vector<TavroTrashItem>& Items, bool bNewestAlone)
    : m_items(Items), m_bNewestAlone(bNewestAlone), m_chosen(Items.size()) {
    for (std::size_t i = 0; i < Items.size(); ++i) {
        m_byName[Items[i].Name].push_back(i);
        m_byPath[Items[i].OriginalPath].push_back(i);
        m_byOriginalName[TavroNameOf(Items[i].OriginalPath)].push_back(i);
    }
}

Chooser::Indices Chooser::Find(const Table& Known, const std::string& Text) {
    const auto found = Known.find(Text);
    return found == Known.end() ? Indices() : found->second;
}

TavroFailure Chooser::CheckOnePath(const std::string& Word, const Indices& Found) const {
    std::set<std::string> paths;
    for (const std::size_t i : Found) {
        paths.insert(m_items[i].OriginalPath);
    }
    return TavroCheckOnePath(Word, paths);
}

Chooser::Indices Chooser::Match(const std::string& Word) const {
    const std::string pattern = AbsolutePattern(Word);
    const bool bPath = pattern.find('/') != std::string::npos;
    const auto matches = [&](const std::string& text) {
        return fnmatch(pattern.c_str(), text.c_str(), FNM_PERIOD | (bPath ? FNM_PATHNAME : 0)) == 0;
    };
    Indices found;
    for (std::size_t i = 0; i < m_items.size() && TavroIsPattern(Word); ++i) {
        const std::string& path = m_items[i].OriginalPath;
        if (bPath ? matches(path) : matches(TavroNameOf(path)) || matches(m_items[i].Name)) {
            found.push_back(i);
        }
    }
    return found;
}

void Chooser::Take(const Indices& Found) {
    std::unordered_set<std::string> paths;
    for (const std::size_t i : Found) {
        if (!m_bNewestAlone || paths.insert(m_items[i].OriginalPath).second) {
            m_chosen[i] = true;
        }
    }
}

void Chooser::ChooseAll() {
    Indices all(m_items.size());
    std::iota(all.begin(), all.end(), std::size_t{0});
    Take(all);
}

/// Chooses what a word means.
/// @return no failure; NotInTrash, when that is nothing; or SeveralNamed.
TavroFailure Chooser::Choose(const std::string& Word) {
    Indices found = Find(m_byName, Word);
    // Several trashes may have it, and a person may mean what was here.
    Indices either = found.empty() ? found : Find(m_byPath, TavroNameEntry(Word).Path);
    either.insert(either.end(), found.begin(), found.end());
    if (TavroFailure failure = CheckOnePath(Word, either)) {
        return failure;
    }
    if (found.empty()) {
        for (const std::string& path : {Word, TavroNameEntry(Word).Path, TavroFindOwnPath(Word)}) {
            found = found.empty() ? Find(m_byPath, path) : found;
        }
    }
    if (found.empty()) {
        found = Find(m_byOriginalName, Word.substr(0, Word.find_last_not_of('/') + 1));
        if (TavroFailure failure = CheckOnePath(Word, found)) {
            return failure;
        }
    }
    found = found.empty() ? Match(Word) : found;
    Take(found);
    return found.empty() ? TavroFailure{TavroFailureKind::NotInTrash, {}, Word} : TavroFailure();
}

} // namespace

bool TavroIsPattern(const std::string& Word) {
    return Word.find_first_of("*?[") != std::string::npos;
}

std::vector<TavroFailure> TavroChooseItems(const TavroChoice& Choice,
                                           std::vector<TavroTrashItem>& IoItems) {
    std::vector<TavroFailure> failures;
    if (Choice.OlderThanDays > 0) {
        KeepOfAge(Choice.OlderThanDays, true, IoItems);
    }
    if (Choice.SinceDays > 0) {
        KeepOfAge(Choice.SinceDays, false, IoItems);
    }
    if (!Choice.Below.empty()) {
        KeepBelow(Choice.Below, IoItems);
    }
    if (Choice.Words.empty() && !Choice.bNewestAlone) {
        return failures;
    }
    Chooser chooser(IoItems, Choice.bNewestAlone);
    if (Choice.Words.empty()) {
        chooser.ChooseAll();
    }
    for (const std::string& word : Choice.Words) {
        TavroFailure failure = chooser.Choose(word);
        if (failure.Kind == TavroFailureKind::NotInTrash) {
            failure.Kind = Choice.IsLimited()     ? TavroFailureKind::NothingWithin
                           : TavroIsPattern(word) ? TavroFailureKind::NothingMatches
                                                  : failure.Kind;
        }
        if (failure) {
            failures.push_back(std::move(failure));
        }
    }
    std::vector<TavroTrashItem> chosen;
    for (std::size_t i = 0; i < IoItems.size(); ++i) {
        if (chooser.IsChosen(i)) {
            chosen.push_back(std::move(IoItems[i]));
        }
    }
    IoItems = std::move(chosen);
    return failures;
}

// =================================================================================================
// Sizes
// =================================================================================================

TavroFailure TavroMeasureItems(std::vector<TavroTrashItem>& IoItems,
                               const std::function<bool()>& ShouldCancel, bool bRemember) {
    std::map<std::shared_ptr<const TavroTrashFolders>, std::vector<TavroDirectorySize>> sizes;
    TavroFailure failure;
    for (std::size_t i = 0; i < IoItems.size(); ++i) {
        TavroTrashItem& item = IoItems[i];
        TavroMeasurement measured;
        if (!item.bDirectory) {
            continue;
        }
        if (!TavroMeasureEntry(item.TrashPath(), ShouldCancel, measured)) {
            failure = {TavroFailureKind::Cancelled};
            IoItems.resize(i);
            break;
        }
        item.ByteCount = measured.ByteCount;
        sizes[item.Folders].push_back(
            {item.Name, measured.DiskBytes, item.RecordTime / TavroSecond});
    }
    for (const auto& [folders, measured] : sizes) {
        TavroOpenTrash trash;
        if (bRemember && !trash.Open(*folders)) {
            TavroKeepDirectorySizes(trash, measured);
        }
    }
    return failure;
}

std::uint64_t TavroCountBytes(const std::vector<TavroTrashItem>& Items) {
    return std::accumulate(
        Items.begin(), Items.end(), std::uint64_t{0},
        [](std::uint64_t sum, const TavroTrashItem& item) { return sum + item.ByteCount; });
}

std::vector<TavroTrashItem> TavroOldestItems(std::vector<TavroTrashItem> Items,
                                             std::uint64_t Bytes) {
    const auto undated = std::find_if(Items.begin(), Items.end(), [](const TavroTrashItem& item) {
        return item.DeletionDate.empty();
    });
    std::reverse(Items.begin(), undated);
    std::uint64_t bytes = 0;
    std::size_t count = 0;
    while (count < Items.size() && bytes < Bytes) {
        bytes += Items[count++].ByteCount;
    }
    Items.resize(count);
    return Items;
}
