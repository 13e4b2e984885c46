/// One transfer on its way. It decides what becomes of each entry, and stages it (transfer.cpp);
/// what waits is then brought to its places all at once (publish.cpp).

#ifndef TAVRO_ENGINE_TRANSFER_RUN_H
#define TAVRO_ENGINE_TRANSFER_RUN_H

#include "changes.h"
#include "guard.h"
#include "move.h"
#include "names.h"
#include "own_work.h"
#include "transfer.h"
#include "trash_destinations.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

/// Where an entry is, and where it is to go.
struct TavroRoute {
    TavroPlace From;
    TavroPlace To;
};

/// Two directories that are merged, and what is still to be done in them.
struct TavroMerge {
    std::string Name; ///< The source's, in the directory above.
    std::shared_ptr<TavroDirectory> From;
    std::shared_ptr<TavroDirectory> To;
    TavroListing Names;
    std::string Attributes; ///< The source's, before it was touched.
};

/// One entry that is decided upon. Nothing of it shows before all that were decided upon with it
/// are on the disk, and the history knows of them.
struct TavroPendingEntry {
    std::unique_ptr<TavroStagedCopy> Copy; ///< Knows the places, also where nothing is copied.
    TavroFileState Source;
    bool bRename = false;   ///< Nothing is copied.
    bool bExchange = false; ///< Something is at its destination.
    TavroFileState Old;     ///< What is there.
    std::function<std::string()> NextName;
    TavroTransferItemPlan* Item = nullptr;
    bool bDone = false;
    bool bAgain = false; ///< Something was in the way.

    // Of what is replaced:

    TavroTrashDestination* Trash = nullptr;
    std::string OldName; ///< Its name in the trash; empty: it does not go there.
    std::string Hidden;  ///< The name that it gets first.

    /// The paths as they are told, and as the history keeps them.
    std::string AskedFrom() const {
        return Copy->From().Path();
    }
    std::string AskedTo() const {
        return Copy->To().Path();
    }
    std::string OwnFrom() const {
        return Copy->From().OwnPath();
    }
    std::string OwnTo() const {
        return Copy->To().OwnPath();
    }
};

/// A directory that was merged into another one, and is to be removed when it is empty.
struct TavroEmptied {
    std::string Path;
    TavroIdentity Directory; ///< That holds it.
    TavroIdentity Identity;
    mode_t Mode;
    std::string Attributes;
    bool bTold = false; ///< It is in the journal.
};

/// An entry whose conflict is asked about when everything else is ready.
struct TavroPutOff {
    TavroRoute Way; ///< In directories that are closed.
    TavroTransferItemPlan* Item;
};

/// One transfer on its way.
class TavroTransferRun {
public:
    TavroTransferRun(const TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
                     TavroTransferReport& OutReport)
        : m_bMove(Plan.bMove), m_policy(Plan.ConflictPolicy), m_callbacks(Callbacks),
          m_report(OutReport), m_progress(Callbacks),
          m_judge(Plan.ConflictPolicy, Callbacks.OnConflict, Callbacks.bOverwriteOlder),
          m_changes(Callbacks.bSync), m_trashes(false, Callbacks.bSync) {}

    void Run(std::vector<TavroTransferItemPlan>& Items);

private:
    using Entries = std::vector<TavroPendingEntry>;

    void KeepOrDiscard();
    bool CheckGuard(const std::vector<TavroTransferItemPlan>& Items);
    bool Measure(std::vector<TavroTransferItemPlan>& Items);
    std::string OwnPathOf(const std::string& Path);
    bool Announce(const std::vector<TavroTransferItemPlan>& Items);
    TavroFailure Tell(const std::vector<TavroStep>& Steps);
    TavroFailure TellBeforeSync(const std::vector<TavroStep>& Steps);
    bool FindPlaces(const TavroTransferItemPlan& Item, TavroRoute& OutRoute);
    bool FindAgainWhenEntangled(const TavroTransferItemPlan& Item, TavroRoute& IoRoute);
    void CarryOutItem(TavroTransferItemPlan& Item);
    void CarryOutPutOff();

    void TransferEntry(const TavroRoute& Way, TavroTransferItemPlan* Item = nullptr);
    void SettleConflict(const TavroRoute& Way, const struct stat& Source, const struct stat& There,
                        TavroTransferItemPlan* Item);
    static std::string FreeName(TavroFreeNames& Names, const TavroPlace& To);
    void KeepBoth(const TavroRoute& Way, const struct stat& Source, TavroTransferItemPlan* Item);
    void Replace(const TavroRoute& Way, const struct stat& Source, const struct stat& Old,
                 TavroTransferItemPlan* Item);
    void Prepare(const TavroRoute& Way, const struct stat& Source, const struct stat* Old,
                 TavroMoveOptions Options, TavroTransferItemPlan* Item);
    bool IsTaken(const TavroPlace& To, struct stat& OutThere);
    bool IsPending(const TavroPlace& Place) const;
    bool IsEntangled(const TavroRoute& Way, const struct stat& Source);
    void Remember(const TavroPendingEntry& Entry);

    bool BeginMerge(const TavroRoute& Way);
    void FinishMerges(const TavroPlace& Item);
    void RemoveEmptied();

    void Flush();
    std::string FirstOf(const Entries& Changed) const;
    bool Secure(Entries& Waiting);
    void PublishAll(Entries& IoEntries);
    bool FinishAll(Entries& Published);
    TavroFailure ClaimTrash(Entries& Waiting);
    TavroStep MainStep(const TavroPendingEntry& Entry, const TavroFileState& Staged) const;
    TavroFailure Journal(const Entries& Waiting);
    TavroStep ReplacedStep(const TavroPendingEntry& Entry) const;
    void Publish(TavroPendingEntry& Entry);
    void Rename(TavroPendingEntry& Entry);
    void RenameBack(TavroPendingEntry& Entry, const TavroPlace& Now);
    void FailToRename(TavroPendingEntry& Entry, int Error);
    void RenameByCopying(TavroPendingEntry& Entry);
    void TrashReplaced(TavroPendingEntry& Entry);
    void PutBack(TavroPendingEntry& Entry, const TavroFailure& Why);
    bool NeedsFinish(const TavroPendingEntry& Entry) const;
    void Finish(TavroPendingEntry& Entry);
    void Note(TavroPendingEntry& Entry);
    void TryAgain(Entries& Published);
    void Discard();
    void DropClaim(TavroPendingEntry& Entry);
    void GiveUp(TavroPendingEntry& Entry);

    bool IsInterrupted() {
        m_report.bCancelled = m_report.bCancelled || m_progress.ShouldCancel();
        return m_report.bCancelled;
    }

    bool IsCancelled() {
        return IsInterrupted() || m_bStopped;
    }

    void Fail(TavroFailure Failure) {
        m_report.bUnsettled = m_report.bUnsettled || Failure.Kind == TavroFailureKind::LiesAt ||
                              Failure.Kind == TavroFailureKind::RemoveIncompleteCopy;
        m_report.Failed.push_back(std::move(Failure));
    }

    void FailAll(std::vector<TavroFailure>& Failures) {
        for (TavroFailure& failure : Failures) {
            Fail(std::move(failure));
        }
        Failures.clear();
    }

    const bool m_bMove;
    const TavroTransferConflictPolicy m_policy;
    const TavroTransferCallbacks& m_callbacks;
    TavroTransferReport& m_report;
    TavroProgressTeller m_progress;
    TavroConflictJudge m_judge;
    TavroPlaces m_places;
    TavroHardLinks m_links;
    TavroFreeNames m_freeNames;
    TavroOwnWork m_ownWork;
    std::optional<TavroGuard> m_deletion;                      ///< Guards what is replaced.
    std::unordered_set<const TavroTransferItemPlan*> m_unseen; ///< What is not moved unseen.
    std::vector<TavroMerge> m_merges;                          ///< The innermost last.
    bool m_bStopped = false;                                   ///< By an answer.
    bool m_bKeeping = false;                                   ///< What is whole after a cancel.
    bool m_bSingle = false;                                    ///< One file is all.
    bool m_bTree = false;                                      ///< One directory is all.
    std::uint64_t m_itemsFinished = 0;
    std::uint64_t m_bytesFinished = 0;

    TavroNameSearch m_search; ///< For what is at destinations.
    TavroDescriptor m_source; ///< A file that is to be copied next.
    Entries m_pending;
    /// Where it waits to go, or to be copied from and removed: names in directories.
    std::unordered_map<TavroIdentity, std::unordered_set<std::string>> m_pendingNames;
    TavroOwnWork m_pendingWork;          ///< What waits, as if it were done.
    std::vector<TavroEmptied> m_emptied; ///< Inner ones first.
    std::vector<TavroPutOff> m_putOff;
    bool m_bLast = false;          ///< What was put off is in hand: nothing more can wait.
    std::vector<TavroStep> m_plan; ///< What the journal was not told.
    std::size_t m_createdTold = 0; ///< So many created directories are in the journal.
    TavroIdentity m_told;          ///< A new directory that the journal knew when it was empty,
    std::uint64_t m_toldOn = 0;    ///< when this device was synced.
    int m_tries = 0;               ///< More than 0: what was taken is tried again.
    TavroChanges m_changes;
    TavroTrashDestinations m_trashes; ///< For what is replaced.
};

#endif
