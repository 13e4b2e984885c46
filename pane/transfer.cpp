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
        m_progress.BytesDone = std::min(m_progress.BytesDone + Bytes, m_progress.ByteCount);
        TellIfDue();
    }

    void AddEntry() {
        m_progress.ItemsDone = std::min(m_progress.ItemsDone + 1, m_progress.ItemCount);
    }

    /// The whole of a planned item is dealt with, however that was counted on the way.
    void Finish(const TavroTransferItemPlan& Item) {
        m_itemsFinished += Item.ItemCount;
        m_bytesFinished += Item.ByteCount;
        m_progress.ItemsDone = m_itemsFinished;
        m_progress.BytesDone = m_bytesFinished;
        TellIfDue();
    }

    void Tell() const {
        if (m_callbacks.OnProgress) {
            m_callbacks.OnProgress(m_progress);
        }
    }

private:
    using Clock = std::chrono::steady_clock;

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

/// Lets everything written to the file system of `Path` reach the disk.
bool SyncFileSystemOf(const fs::path& Path, std::error_code& ec) {
    const int directory = open(Path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool bSynced = directory >= 0 && syncfs(directory) == 0;
    if (!bSynced) {
        ec.assign(errno, std::generic_category());
    }
    if (directory >= 0) {
        close(directory);
    }
    return bSynced;
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

    /// Moves or copies to a path at which nothing is.
    void TransferToFreePath(const fs::path& Source, const fs::path& Destination);

    void TellProgress() const {
        m_progress.Tell();
    }

private:
    void TransferEntry(const fs::path& Source, const fs::path& Destination,
                       TavroTransferItemPlan* Item);
    void MergeDirectory(const fs::path& Source, const fs::path& Destination);
    void ResolveConflict(const fs::path& Source, const fs::path& Destination,
                         const struct stat& SourceStatus, const struct stat& DestinationStatus,
                         TavroTransferItemPlan* Item);
    void Replace(const fs::path& Source, const fs::path& Destination, bool bFileByFile);
    void ReplaceFile(const fs::path& Source, const fs::path& Destination);
    void ReplaceOther(const fs::path& Source, const fs::path& Destination);
    bool Copy(const fs::path& Source, const fs::path& Destination, bool bReplace);
    bool Publish(TavroTreeCopy& Tree, const fs::path& Source, const fs::path& Staging,
                 const fs::path& Destination, bool bReplace);
    void RemoveSourceOfMove(TavroTreeCopy& Tree, const fs::path& Source,
                            const fs::path& Destination, bool bReplaced);
    bool IsRemovable(const fs::path& Source);

    bool ShouldCancel();
    bool Fail(const fs::path& Path, std::string Reason);
    void NoteDone(const fs::path& Source, const fs::path& Destination, bool bReplaced);
    void TakeFailures(const TavroTreeCopy& Tree);

    const bool m_bMove;
    const TavroTransferCallbacks& m_callbacks;
    TavroTransferReport& m_report;
    ProgressTeller m_progress;
    ConflictJudge m_judge;
    TavroHardLinks m_hardLinks;
    TavroTreeMonitor m_monitor;
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
}

void Transfer::TakeFailures(const TavroTreeCopy& Tree) {
    m_report.Failed.insert(m_report.Failed.end(), Tree.Failures().begin(), Tree.Failures().end());
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

void Transfer::CarryOutItem(TavroTransferItemPlan& Item) {
    if (ShouldCancel()) {
        return;
    }
    if (TavroIsCddaPath(Item.SourcePath.string())) {
        Fail(Item.SourcePath, "Cannot read audio CD track " + Quoted(Item.SourcePath) +
                                  ": this build reads no discs");
        return;
    }
    std::error_code ec;
    const fs::path parent = Item.DestinationPath.parent_path();
    fs::create_directories(parent, ec);
    if (ec) {
        Fail(Item.SourcePath, Sentence("Cannot create the folder", parent, ec));
        return;
    }
    TransferEntry(Item.SourcePath, Item.DestinationPath, &Item);
    m_progress.Finish(Item);
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
    // A list of its own: entries leave the directory while a move goes through it.
    std::vector<fs::path> names;
    std::error_code ec;
    fs::directory_iterator listing(Source, ec);
    for (const fs::directory_iterator end; !ec && listing != end; listing.increment(ec)) {
        names.push_back(listing->path().filename());
    }
    if (ec) {
        Fail(Source, Sentence("Cannot read", Source, ec));
        return;
    }
    for (const fs::path& name : names) {
        TransferEntry(Source / name, Destination / name, nullptr);
    }
    if (m_bMove && !m_report.bCancelled) {
        // What was skipped or failed is still in it, and then it stays.
        rmdir(Source.c_str());
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
        Replace(Source, Destination, !conflict.bSourceDirectory && !conflict.bDestinationDirectory);
        break;
    case TavroConflictChoice::KeepBoth:
        const fs::path free = TavroFreePathBeside(Destination);
        if (Item != nullptr) {
            Item->DestinationPath = free;
            Item->bDestinationRenamed = true;
        }
        TransferToFreePath(Source, free);
        break;
    }
}

void Transfer::TransferToFreePath(const fs::path& Source, const fs::path& Destination) {
    if (!m_bMove) {
        Copy(Source, Destination, false);
        return;
    }
    std::error_code ec;
    TavroRenameNoReplace(Source, Destination, ec);
    if (!ec) {
        NoteDone(Source, Destination, false);
    } else if (ec == std::errc::cross_device_link) {
        Copy(Source, Destination, false);
    } else {
        Fail(Source, Sentence("Cannot move " + Quoted(Source) + " to", Destination, ec));
    }
}

void Transfer::Replace(const fs::path& Source, const fs::path& Destination, bool bFileByFile) {
    if (TavroPathIsInside(Destination, Source)) {
        Fail(Source, "Cannot replace " + Quoted(Destination) + ": it holds " + Quoted(Source));
        return;
    }
    if (bFileByFile) {
        ReplaceFile(Source, Destination);
    } else {
        ReplaceOther(Source, Destination);
    }
}

/// One rename puts the new file over the old one, so one of them is there at every moment.
void Transfer::ReplaceFile(const fs::path& Source, const fs::path& Destination) {
    if (!m_bMove) {
        Copy(Source, Destination, true);
        return;
    }
    std::error_code ec;
    fs::rename(Source, Destination, ec);
    if (!ec) {
        NoteDone(Source, Destination, true);
    } else if (ec == std::errc::cross_device_link) {
        Copy(Source, Destination, true);
    } else {
        Fail(Source, Sentence("Cannot move " + Quoted(Source) + " to", Destination, ec));
    }
}

/// A directory is not replaced by one rename: the old entry steps aside until the new one is there.
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
    TavroRemoveTree(aside, ec);
    if (ec) {
        Fail(Destination, Sentence("What was at " + Quoted(Destination) +
                                       " was replaced, but cannot be removed; it lies at",
                                   aside, ec));
    }
}

/// A source that could not be removed afterwards is not copied in vain.
bool Transfer::IsRemovable(const fs::path& Source) {
    const fs::path parent = Source.has_parent_path() ? Source.parent_path() : fs::path(".");
    if (access(parent.c_str(), W_OK | X_OK) == 0) {
        return true;
    }
    return Fail(Source, Sentence("Cannot move", Source, {errno, std::generic_category()}));
}

/// Copies under a hidden name, then gives it its own; of a move between file systems, removes the
/// source after that.
bool Transfer::Copy(const fs::path& Source, const fs::path& Destination, bool bReplace) {
    if (m_bMove && !IsRemovable(Source)) {
        return false;
    }
    TavroTreeCopy tree(Source, m_hardLinks, m_monitor, m_bMove);
    const fs::path staging = StagingPathBeside(Destination);
    const TavroTreeCopy::Outcome outcome = tree.Run(staging, bReplace);
    const bool bThere =
        outcome == TavroTreeCopy::Outcome::Whole || outcome == TavroTreeCopy::Outcome::Partial;
    const bool bPublished = bThere && Publish(tree, Source, staging, Destination, bReplace);
    if (bPublished && m_bMove) {
        RemoveSourceOfMove(tree, Source, Destination, bReplace);
    } else if (bPublished) {
        NoteDone(Source, Destination, bReplace);
    }
    TakeFailures(tree);
    m_report.bCancelled = m_report.bCancelled || outcome == TavroTreeCopy::Outcome::Cancelled;
    return bPublished;
}

bool Transfer::Publish(TavroTreeCopy& Tree, const fs::path& Source, const fs::path& Staging,
                       const fs::path& Destination, bool bReplace) {
    TavroTransferFailure failure;
    std::error_code ec;
    if (m_bMove && !Tree.SourcesAreUnchanged(failure)) {
        Fail(failure.Path, failure.Reason);
        Tree.GiveUp();
        return false;
    }
    if (bReplace) {
        fs::rename(Staging, Destination, ec);
    } else {
        TavroRenameNoReplace(Staging, Destination, ec);
    }
    if (ec) {
        Fail(Source, Sentence("Cannot put the copy of " + Quoted(Source) + " at", Destination, ec));
        Tree.GiveUp();
        return false;
    }
    Tree.MovedTo(Destination);
    return true;
}

/// The source goes only when the copy has reached the disk. When nothing of it can be removed, the
/// copy goes instead, so that the entry is where it was; a copy that replaced something stays.
void Transfer::RemoveSourceOfMove(TavroTreeCopy& Tree, const fs::path& Source,
                                  const fs::path& Destination, bool bReplaced) {
    std::error_code ec;
    std::uint64_t removed = 0;
    if (SyncFileSystemOf(Destination.parent_path(), ec)) {
        removed = Tree.RemoveSources();
    } else {
        Fail(Source, Sentence("Cannot write", Destination, ec));
    }
    if (removed == 0 && !bReplaced) {
        Tree.GiveUp();
        return;
    }
    if (removed != 0) {
        NoteDone(Source, Destination, bReplaced);
    }
}

} // namespace

// =================================================================================================
// Operations
// =================================================================================================

fs::path TavroFreePathBeside(const fs::path& Wanted) {
    fs::path candidate = Wanted;
    const fs::path stem = Wanted.stem();
    const std::string extension = Wanted.extension().string();
    for (std::uint64_t i = 1; TavroIsPresent(candidate); ++i) {
        candidate =
            Wanted.parent_path() / (stem.string() + " copy " + std::to_string(i) + extension);
    }
    return candidate;
}

bool TavroCarryOutTransfer(TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
                           TavroTransferReport& OutReport) {
    OutReport = TavroTransferReport();
    Transfer transfer(Plan.bMove, Plan.ConflictPolicy, Callbacks, OutReport);
    if (!transfer.MeasureItems(Plan.Items)) {
        return false;
    }
    for (TavroTransferItemPlan& item : Plan.Items) {
        transfer.CarryOutItem(item);
    }
    transfer.TellProgress();
    return OutReport.Failed.empty() && !OutReport.bCancelled;
}

bool TavroMoveEntry(const fs::path& Source, const fs::path& Destination,
                    const TavroTransferCallbacks& Callbacks, std::string& ErrorMessage) {
    std::error_code ec;
    const fs::path parent = Destination.parent_path();
    fs::create_directories(parent, ec);
    if (ec) {
        ErrorMessage = Sentence("Cannot create the folder", parent, ec);
        return false;
    }
    TavroTransferReport report;
    Transfer transfer(true, TavroTransferConflictPolicy::Skip, Callbacks, report);
    transfer.TransferToFreePath(Source, Destination);
    if (report.Failed.empty() && !report.bCancelled) {
        return true;
    }
    ErrorMessage = report.Failed.empty() ? "Cancelled" : report.Failed.front().Reason;
    return false;
}
