// Carrying out transfer plans. In this file, in order:
//
//   Progress       what is told, and how often
//   Conflicts      what is done where something is in the way
//   Transfer       one plan on its way, item by item
//   Operations     what the pane calls

#include "transfer.h"

#include "measure.h"
#include "no_replace.h"
#include "remove_tree.h"
#include "selection.h"
#include "tavroops.h"
#include "tavropane.h"
#include "tree_copy.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <random>
#include <set>
#include <unistd.h>

namespace fs = std::filesystem;

// =================================================================================================
// Progress
// =================================================================================================

namespace {

/// Counts what is done and tells it, at most 20 times a second.
class ProgressTeller {
public:
    explicit ProgressTeller(const TavroTransferCallbacks& Callbacks) : m_callbacks(Callbacks) {}

    void Expect(const TavroTransferItemPlan& Item) {
        m_progress.ItemCount += Item.ItemCount;
        m_progress.ByteCount += Item.ByteCount;
    }

    void Begin(const fs::path& Path) {
        m_progress.CurrentPath = Path.string();
        TellIfDue();
    }

    void AddBytes(std::uint64_t Bytes) {
        m_progress.BytesDone = Limited(m_progress.BytesDone + Bytes, m_progress.ByteCount);
        TellIfDue();
    }

    void AddEntry() {
        m_progress.ItemsDone = Limited(m_progress.ItemsDone + 1, m_progress.ItemCount);
    }

    /// The whole of a planned item is dealt with, however that was counted on the way.
    void Finish(const TavroTransferItemPlan& Item) {
        m_itemsFinished += Item.ItemCount;
        m_bytesFinished += Item.ByteCount;
        m_progress.ItemsDone = std::max(m_progress.ItemsDone, m_itemsFinished);
        m_progress.BytesDone = std::max(m_progress.BytesDone, m_bytesFinished);
        TellIfDue();
    }

    void Tell() const {
        if (m_callbacks.OnProgress) {
            m_callbacks.OnProgress(m_progress);
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    /// What grows while it is copied does not exceed what was measured. Nothing measured, no limit.
    static std::uint64_t Limited(std::uint64_t Count, std::uint64_t Measured) {
        return Measured == 0 ? Count : std::min(Count, Measured);
    }

    void TellIfDue() {
        const Clock::time_point now = Clock::now();
        if (now - m_toldAt >= std::chrono::milliseconds(50)) {
            m_toldAt = now;
            Tell();
        }
    }

    const TavroTransferCallbacks& m_callbacks;
    TavroTransferProgress m_progress;
    std::uint64_t m_itemsFinished = 0;
    std::uint64_t m_bytesFinished = 0;
    Clock::time_point m_toldAt = Clock::now();
};

} // namespace

// =================================================================================================
// Conflicts
// =================================================================================================

namespace {

/// Chooses what is done about a conflict: by the policy, by an answer for all, or by asking.
class ConflictJudge {
public:
    ConflictJudge(TavroTransferConflictPolicy Policy, const TavroTransferCallbacks& Callbacks)
        : m_policy(Policy), m_callbacks(Callbacks) {}

    TavroConflictChoice Judge(const TavroTransferConflict& Conflict) {
        const bool bKindsDiffer = Conflict.bSourceDirectory != Conflict.bDestinationDirectory;
        if (m_policy == TavroTransferConflictPolicy::Skip) {
            return TavroConflictChoice::Skip;
        }
        if (m_policy == TavroTransferConflictPolicy::Overwrite && !bKindsDiffer) {
            return TavroConflictChoice::Overwrite;
        }
        std::optional<TavroConflictChoice>& forAll = bKindsDiffer ? m_forAllKinds : m_forAll;
        if (forAll) {
            return *forAll;
        }
        if (!m_callbacks.OnConflict) {
            return TavroConflictChoice::Skip;
        }
        const TavroConflictAnswer answer = m_callbacks.OnConflict(Conflict);
        if (answer.bForAll) {
            forAll = answer.Choice;
        }
        return answer.Choice;
    }

private:
    const TavroTransferConflictPolicy m_policy;
    const TavroTransferCallbacks& m_callbacks;
    std::optional<TavroConflictChoice> m_forAll;
    std::optional<TavroConflictChoice> m_forAllKinds; ///< Between directories and other entries.
};

} // namespace

// =================================================================================================
// Transfer
// =================================================================================================

namespace {

/// The folder that an entry lies in.
fs::path ParentOf(const fs::path& Path) {
    return Path.has_parent_path() ? Path.parent_path() : fs::path(".");
}

/// A name beside `Destination` that nothing has: hidden, and never one that a person gives.
fs::path StagingPathBeside(const fs::path& Destination) {
    static constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    thread_local std::mt19937_64 random{std::random_device{}()};
    std::uniform_int_distribution<std::size_t> letter(0, sizeof letters - 2);
    fs::path candidate;
    do {
        std::string name = ".tavro-";
        for (int i = 0; i < 6; ++i) {
            name += letters[letter(random)];
        }
        candidate = Destination.parent_path() / name;
    } while (TavroIsPresent(candidate));
    return candidate;
}

bool StatusOf(const fs::path& Path, struct stat& OutStatus) {
    return lstat(Path.c_str(), &OutStatus) == 0;
}

bool IsSameEntry(const struct stat& A, const struct stat& B) {
    return A.st_dev == B.st_dev && A.st_ino == B.st_ino;
}

std::string Quoted(const fs::path& Path) {
    return "'" + Path.string() + "'";
}

std::string Sentence(const std::string& What, const fs::path& Path, const std::error_code& ec) {
    return What + " " + Quoted(Path) + ": " + ec.message();
}

/// Lets what `Sync` (fsync or syncfs) means for a directory reach the disk.
bool SyncDirectory(const fs::path& Directory, int (*Sync)(int), std::error_code& ec) {
    const int number = open(Directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // EINVAL: this file system does not sync directories. EACCES: one that may be written to but
    // not listed cannot be opened. Neither says that anything was lost.
    const bool bSynced = number < 0 ? errno == EACCES : (Sync(number) == 0 || errno == EINVAL);
    if (!bSynced) {
        ec.assign(errno, std::generic_category());
    }
    if (number >= 0) {
        close(number);
    }
    return bSynced;
}

/// Whether `Entry` itself, be it a link, lies somewhere below `Directory`.
bool Holds(const fs::path& Directory, const fs::path& Entry) {
    const fs::path parent = ParentOf(Entry);
    return TavroPathsEquivalentOrSame(Directory, parent) || TavroPathIsInside(Directory, parent);
}

/// Where an entry goes.
struct Place {
    fs::path Path;
    bool bReplace = false;
    fs::path Wanted = {}; ///< Not empty: `Path` may be any free path beside this one.
};

/// Renames without replacing anything. Where any free path will do, one that another process was
/// quicker to take is no obstacle.
void RenameToFree(const fs::path& From, Place& To, std::error_code& ec) {
    TavroRenameNoReplace(From, To.Path, ec);
    for (int i = 0; i < 100 && ec == std::errc::file_exists && !To.Wanted.empty(); ++i) {
        To.Path = TavroFreePathBeside(To.Wanted);
        TavroRenameNoReplace(From, To.Path, ec);
    }
}

/// One transfer on its way.
class Transfer {
public:
    Transfer(bool bMove, TavroTransferConflictPolicy Policy,
             const TavroTransferCallbacks& Callbacks, TavroTransferReport& OutReport)
        : m_bMove(bMove), m_callbacks(Callbacks), m_report(OutReport), m_progress(Callbacks),
          m_judge(Policy, Callbacks) {
        m_monitor.File.ShouldCancel = Callbacks.ShouldCancel;
        m_monitor.File.OnBytes = [this](std::uint64_t bytes) { m_progress.AddBytes(bytes); };
        m_monitor.OnEntryBegin = [this](const fs::path& path) { m_progress.Begin(path); };
        m_monitor.OnEntryDone = [this] { m_progress.AddEntry(); };
    }

    bool MeasureItems(std::vector<TavroTransferItemPlan>& Items);
    void CarryOutItem(TavroTransferItemPlan& Item);

    /// Creates the folder that an entry is to go into, unless the entry could not go there.
    bool Prepare(const fs::path& Source, const fs::path& Destination);

    /// Moves or copies to a path at which nothing is.
    void TransferToFreePath(const fs::path& Source, const fs::path& Destination) {
        Place place = {Destination};
        TransferToFreePlace(Source, place);
    }

    void TellProgress() const {
        m_progress.Tell();
    }

    bool CopyStays() const {
        return m_bCopyStays;
    }

private:
    void TransferEntry(const fs::path& Source, const fs::path& Destination,
                       TavroTransferItemPlan* Item);
    void MergeDirectory(const fs::path& Source, const fs::path& Destination);
    void ResolveConflict(const fs::path& Source, const fs::path& Destination,
                         const struct stat& SourceStatus, const struct stat& DestinationStatus,
                         TavroTransferItemPlan* Item);
    void Replace(const TavroTransferConflict& Conflict);
    void ReplaceFile(const fs::path& Source, const fs::path& Destination);
    void ReplaceOther(const fs::path& Source, const fs::path& Destination);
    void TransferToFreePlace(const fs::path& Source, Place& To);
    void Copy(const fs::path& Source, Place& To);
    bool Publish(TavroTreeCopy& Tree, const fs::path& Source, const fs::path& Staging, Place& To);
    bool RemoveSourceOfMove(TavroTreeCopy& Tree, const fs::path& Source,
                            const fs::path& Destination, bool bReplaced);
    bool IsRemovable(const fs::path& Source);

    bool ShouldCancel();
    bool Fail(const fs::path& Path, std::string Reason);
    void NoteDone(const fs::path& Source, const fs::path& Destination, bool bReplaced);
    bool IsOwnWork(fs::path Destination) const;
    bool HoldsOwnWork(const fs::path& Destination) const;
    void TakeFailures(const TavroTreeCopy& Tree, const fs::path& Staging,
                      const fs::path& Destination);

    const bool m_bMove;
    const TavroTransferCallbacks& m_callbacks;
    TavroTransferReport& m_report;
    ProgressTeller m_progress;
    ConflictJudge m_judge;
    TavroHardLinks m_hardLinks;
    TavroTreeMonitor m_monitor;
    std::set<std::pair<dev_t, ino_t>> m_ownWork; ///< What this transfer has put somewhere.
    bool m_bCopyStays = false; ///< A copy whose source was to go lies at its destination.
};

bool Transfer::ShouldCancel() {
    m_report.bCancelled =
        m_report.bCancelled || (m_callbacks.ShouldCancel && m_callbacks.ShouldCancel());
    return m_report.bCancelled;
}

bool Transfer::Fail(const fs::path& Path, std::string Reason) {
    m_report.Failed.push_back({Path, std::move(Reason)});
    return false;
}

void Transfer::NoteDone(const fs::path& Source, const fs::path& Destination, bool bReplaced) {
    m_report.Done.push_back({Source, Destination, bReplaced});
    struct stat status = {};
    if (StatusOf(Destination, status)) {
        m_ownWork.insert({status.st_dev, status.st_ino});
    }
}

/// Whether this transfer has put something there, by itself or with a folder that it is in.
bool Transfer::IsOwnWork(fs::path Destination) const {
    struct stat status = {};
    bool bKnown = !m_ownWork.empty() && StatusOf(Destination, status);
    while (bKnown && m_ownWork.count({status.st_dev, status.st_ino}) == 0) {
        const fs::path parent = ParentOf(Destination);
        bKnown = parent != Destination && stat(parent.c_str(), &status) == 0;
        Destination = parent;
    }
    return bKnown;
}

/// Whether this transfer has put something into the folder.
bool Transfer::HoldsOwnWork(const fs::path& Destination) const {
    return std::any_of(
        m_report.Done.begin(), m_report.Done.end(),
        [&](const TavroTransferredEntry& Entry) { return Holds(Destination, Entry.To); });
}

/// Nobody knows the hidden name under which a copy was to be made: its place is named instead,
/// except where the copy is left behind under that name.
void Transfer::TakeFailures(const TavroTreeCopy& Tree, const fs::path& Staging,
                            const fs::path& Destination) {
    for (TavroTransferFailure failure : Tree.Failures()) {
        const std::size_t at = failure.Reason.find(Staging.string());
        if (failure.Path != Staging && at != std::string::npos) {
            failure.Reason.replace(at, Staging.string().size(), Destination.string());
        }
        m_report.Failed.push_back(std::move(failure));
    }
}

bool Transfer::MeasureItems(std::vector<TavroTransferItemPlan>& Items) {
    for (TavroTransferItemPlan& item : Items) {
        TavroMeasurement measurement;
        if (!TavroMeasureEntry(item.SourcePath, m_callbacks.ShouldCancel, measurement)) {
            m_report.bCancelled = true;
            return false;
        }
        item.ItemCount = measurement.FileCount + measurement.DirectoryCount;
        item.ByteCount = measurement.ByteCount;
        m_progress.Expect(item);
    }
    return true;
}

bool Transfer::Prepare(const fs::path& Source, const fs::path& Destination) {
    struct stat source = {};
    if (StatusOf(Source, source) && S_ISDIR(source.st_mode) &&
        TavroPathIsInside(Source, Destination)) {
        return Fail(Source, std::string("Cannot ") + (m_bMove ? "move" : "copy") +
                                " a directory into itself: " + Quoted(Source));
    }
    std::error_code ec;
    const fs::path parent = ParentOf(Destination);
    fs::create_directories(parent, ec);
    return !ec || Fail(Source, Sentence("Cannot create the folder", parent, ec));
}

void Transfer::CarryOutItem(TavroTransferItemPlan& Item) {
    if (ShouldCancel()) {
        return;
    }
    if (TavroIsCddaPath(Item.SourcePath.string())) {
        Fail(Item.SourcePath, "Cannot read audio CD track " + Quoted(Item.SourcePath) +
                                  ": this build reads no discs");
    } else if (Prepare(Item.SourcePath, Item.DestinationPath)) {
        TransferEntry(Item.SourcePath, Item.DestinationPath, &Item);
    }
    if (!m_report.bCancelled) {
        m_progress.Finish(Item);
    }
}

/// `Item` is the planned item that this entry is; null for an entry of a merged directory.
void Transfer::TransferEntry(const fs::path& Source, const fs::path& Destination,
                             TavroTransferItemPlan* Item) {
    struct stat source = {};
    struct stat destination = {};
    if (ShouldCancel()) {
        return;
    }
    m_progress.Begin(Source);
    if (!StatusOf(Source, source)) {
        Fail(Source, Sentence("Cannot read", Source, {errno, std::generic_category()}));
    } else if (!StatusOf(Destination, destination)) {
        TransferToFreePath(Source, Destination);
    } else if (IsSameEntry(source, destination)) {
        Fail(Source, Quoted(Source) + " and " + Quoted(Destination) + " are the same");
    } else if (S_ISDIR(source.st_mode) && S_ISDIR(destination.st_mode)) {
        MergeDirectory(Source, Destination);
    } else {
        ResolveConflict(Source, Destination, source, destination, Item);
    }
}

void Transfer::MergeDirectory(const fs::path& Source, const fs::path& Destination) {
    std::error_code ec;
    const std::vector<fs::path> names = TavroListNames(Source, ec);
    if (ec) {
        Fail(Source, Sentence("Cannot read", Source, ec));
        return;
    }
    for (const fs::path& name : names) {
        TransferEntry(Source / name, Destination / name, nullptr);
    }
    if (!m_bMove || m_report.bCancelled) {
        return;
    }
    // What was skipped or failed is still in it, and then it stays.
    struct stat status = {};
    const bool bKnown = StatusOf(Source, status);
    if (rmdir(Source.c_str()) == 0) {
        if (bKnown) {
            m_report.RemovedFolders.push_back({Source, status.st_mode & 07777U});
        }
    } else if (errno != ENOTEMPTY && errno != EEXIST) {
        Fail(Source, Sentence("Cannot remove the emptied folder", Source,
                              {errno, std::generic_category()}));
    }
}

void Transfer::ResolveConflict(const fs::path& Source, const fs::path& Destination,
                               const struct stat& SourceStatus,
                               const struct stat& DestinationStatus, TavroTransferItemPlan* Item) {
    const TavroTransferConflict conflict = {Source, Destination, S_ISDIR(SourceStatus.st_mode),
                                            S_ISDIR(DestinationStatus.st_mode)};
    switch (m_judge.Judge(conflict)) {
    case TavroConflictChoice::Skip:
        m_report.Skipped.push_back(Source);
        break;
    case TavroConflictChoice::Stop:
        m_report.bCancelled = true;
        break;
    case TavroConflictChoice::Overwrite:
        Replace(conflict);
        break;
    case TavroConflictChoice::KeepBoth:
        Place free = {TavroFreePathBeside(Destination), false, Destination};
        TransferToFreePlace(Source, free);
        if (Item != nullptr) {
            Item->DestinationPath = free.Path;
            Item->bDestinationRenamed = true;
        }
        break;
    }
}

void Transfer::TransferToFreePlace(const fs::path& Source, Place& To) {
    if (!m_bMove) {
        Copy(Source, To);
        return;
    }
    std::error_code ec;
    RenameToFree(Source, To, ec);
    if (!ec) {
        NoteDone(Source, To.Path, false);
    } else if (ec == std::errc::cross_device_link) {
        Copy(Source, To);
    } else {
        Fail(Source, Sentence("Cannot move " + Quoted(Source) + " to", To.Path, ec));
    }
}

void Transfer::Replace(const TavroTransferConflict& Conflict) {
    const fs::path& source = Conflict.SourcePath;
    const fs::path& destination = Conflict.DestinationPath;
    if (Conflict.bDestinationDirectory && Holds(destination, source)) {
        Fail(source, "Cannot replace " + Quoted(destination) + ": it holds " + Quoted(source));
    } else if (IsOwnWork(destination)) {
        Fail(source,
             "Cannot replace " + Quoted(destination) + ": it was put there by this transfer");
    } else if (Conflict.bDestinationDirectory && HoldsOwnWork(destination)) {
        Fail(source,
             "Cannot replace " + Quoted(destination) + ": it holds what this transfer put there");
    } else if (Conflict.bSourceDirectory || Conflict.bDestinationDirectory) {
        ReplaceOther(source, destination);
    } else {
        ReplaceFile(source, destination);
    }
}

/// One rename puts the new file over the old one, so one of them is there at every moment.
void Transfer::ReplaceFile(const fs::path& Source, const fs::path& Destination) {
    Place place = {Destination, true};
    if (!m_bMove) {
        Copy(Source, place);
        return;
    }
    std::error_code ec;
    fs::rename(Source, Destination, ec);
    if (!ec) {
        NoteDone(Source, Destination, true);
    } else if (ec == std::errc::cross_device_link) {
        Copy(Source, place);
    } else {
        Fail(Source, Sentence("Cannot move " + Quoted(Source) + " to", Destination, ec));
    }
}

/// A directory is not replaced by one rename: the old entry steps aside until the new one is there
/// and has reached the disk.
void Transfer::ReplaceOther(const fs::path& Source, const fs::path& Destination) {
    const fs::path aside = StagingPathBeside(Destination);
    std::error_code ec;
    TavroRenameNoReplace(Destination, aside, ec);
    if (ec) {
        Fail(Source, Sentence("Cannot replace", Destination, ec));
        return;
    }
    const std::size_t doneBefore = m_report.Done.size();
    TransferToFreePath(Source, Destination);
    if (m_report.Done.size() == doneBefore) {
        TavroRenameNoReplace(aside, Destination, ec);
        if (ec) {
            Fail(Destination,
                 Sentence("What was at " + Quoted(Destination) + " lies at", aside, ec));
        }
        return;
    }
    m_report.Done.back().bReplaced = true;
    if (SyncDirectory(ParentOf(Destination), &syncfs, ec)) {
        TavroRemoveTree(aside, ec);
    }
    if (ec) {
        Fail(Destination, Sentence("What was at " + Quoted(Destination) +
                                       " was replaced, but cannot be removed; it lies at",
                                   aside, ec));
    }
}

/// A source that could not be removed afterwards is not copied in vain.
bool Transfer::IsRemovable(const fs::path& Source) {
    if (access(ParentOf(Source).c_str(), W_OK | X_OK) == 0) {
        return true;
    }
    return Fail(Source, Sentence("Cannot move", Source, {errno, std::generic_category()}));
}

/// Copies under a hidden name, then gives it its own; of a move between file systems, removes the
/// source after that.
void Transfer::Copy(const fs::path& Source, Place& To) {
    if (m_bMove && !IsRemovable(Source)) {
        return;
    }
    TavroTreeCopy tree(Source, m_hardLinks, m_monitor, m_bMove);
    const fs::path staging = StagingPathBeside(To.Path);
    const TavroTreeCopy::Outcome outcome = tree.Run(staging, To.bReplace || m_bMove);
    const bool bThere =
        outcome == TavroTreeCopy::Outcome::Whole || outcome == TavroTreeCopy::Outcome::Partial;
    if (bThere && Publish(tree, Source, staging, To) &&
        (!m_bMove || RemoveSourceOfMove(tree, Source, To.Path, To.bReplace))) {
        NoteDone(Source, To.Path, To.bReplace);
    }
    TakeFailures(tree, staging, To.Path);
    m_report.bCancelled = m_report.bCancelled || outcome == TavroTreeCopy::Outcome::Cancelled;
}

/// What is moved has reached the disk before it takes its own name: later it could only be taken
/// back from a place that others know already.
bool Transfer::Publish(TavroTreeCopy& Tree, const fs::path& Source, const fs::path& Staging,
                       Place& To) {
    TavroTransferFailure failure;
    std::error_code ec;
    if (m_bMove && Tree.IsDirectory() && !SyncDirectory(Staging, &syncfs, ec)) {
        Fail(Source, Sentence("Cannot write", To.Path, ec));
        Tree.GiveUp();
        return false;
    }
    if (m_bMove && !Tree.SourcesAreUnchanged(failure)) {
        Fail(failure.Path, failure.Reason);
        Tree.GiveUp();
        return false;
    }
    if (To.bReplace) {
        fs::rename(Staging, To.Path, ec);
    } else {
        RenameToFree(Staging, To, ec);
    }
    if (ec) {
        Fail(Source, Sentence("Cannot put the copy of " + Quoted(Source) + " at", To.Path, ec));
        Tree.GiveUp();
        return false;
    }
    Tree.MovedTo(To.Path);
    return true;
}

/// The source goes only when its copy is at the destination even after a power cut. When nothing of
/// it can be removed, the copy goes instead, so that the entry is where it was; a copy that
/// replaced something stays.
///
/// @return whether the entry counts as moved.
bool Transfer::RemoveSourceOfMove(TavroTreeCopy& Tree, const fs::path& Source,
                                  const fs::path& Destination, bool bReplaced) {
    std::error_code ec;
    std::uint64_t removed = 0;
    if (SyncDirectory(ParentOf(Destination), &fsync, ec)) {
        removed = Tree.RemoveSources();
    } else {
        Fail(Source, Sentence("Cannot write", Destination, ec));
    }
    m_bCopyStays = removed != 0 || bReplaced || !Tree.TakeBack();
    if (removed == 0 && m_bCopyStays) {
        Fail(Source, "A copy of " + Quoted(Source) + " stays at " + Quoted(Destination));
    }
    return removed != 0;
}

} // namespace

// =================================================================================================
// Operations
// =================================================================================================

namespace {

/// At most so many bytes of the beginning; no UTF-8 character is cut in two.
std::string Beginning(const std::string& Text, std::size_t MaximumSize) {
    if (Text.size() <= MaximumSize) {
        return Text;
    }
    const auto isContinuation = [&](std::size_t At) {
        return (static_cast<unsigned char>(Text[At]) & 0xC0U) == 0x80U;
    };
    std::size_t size = MaximumSize;
    // More than three in a row are no UTF-8.
    while (size > 0 && size + 3 > MaximumSize && isContinuation(size)) {
        --size;
    }
    return Text.substr(0, size);
}

/// "NAME copy 1.EXT", not longer than a name can be. An extension that leaves no room for anything
/// else counts as a part of NAME.
std::string NumberedName(const fs::path& Wanted, std::uint64_t Number) {
    constexpr std::size_t maximumSize = 255;
    const std::string copy = " copy " + std::to_string(Number);
    const std::string extension = Wanted.extension().string();
    if (copy.size() + extension.size() + 4 <= maximumSize) {
        const std::size_t room = maximumSize - copy.size() - extension.size();
        return Beginning(Wanted.stem().string(), room) + copy + extension;
    }
    return Beginning(Wanted.filename().string(), maximumSize - copy.size()) + copy;
}

} // namespace

fs::path TavroFreePathBeside(const fs::path& Wanted) {
    fs::path candidate = Wanted;
    for (std::uint64_t i = 1; TavroIsPresent(candidate); ++i) {
        candidate = Wanted.parent_path() / NumberedName(Wanted, i);
    }
    return candidate;
}

bool TavroCarryOutTransfer(TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
                           TavroTransferReport& OutReport) {
    OutReport = TavroTransferReport();
    Transfer transfer(Plan.bMove, Plan.ConflictPolicy, Callbacks, OutReport);
    if (transfer.MeasureItems(Plan.Items)) {
        for (TavroTransferItemPlan& item : Plan.Items) {
            transfer.CarryOutItem(item);
        }
    }
    transfer.TellProgress();
    return OutReport.Failed.empty() && !OutReport.bCancelled;
}

bool TavroMoveEntry(const fs::path& Source, const fs::path& Destination,
                    const TavroTransferCallbacks& Callbacks, std::string& ErrorMessage,
                    bool* OutCopyStays) {
    TavroTransferReport report;
    Transfer transfer(true, TavroTransferConflictPolicy::Skip, Callbacks, report);
    if (transfer.Prepare(Source, Destination)) {
        transfer.TransferToFreePath(Source, Destination);
    }
    transfer.TellProgress();
    const bool bMoved = report.Failed.empty() && !report.bCancelled;
    if (OutCopyStays != nullptr) {
        *OutCopyStays = !bMoved && transfer.CopyStays();
    }
    if (bMoved) {
        return true;
    }
    ErrorMessage = report.Failed.empty() ? "Cancelled" : report.Failed.front().Reason;
    return false;
}
