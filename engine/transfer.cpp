#include "transfer.h"

#include "changes.h"
#include "guard.h"
#include "measure.h"
#include "move.h"
#include "names.h"
#include "place.h"
#include "remove.h"
#include "tavropane.h"
#include "trash_record.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <optional>
#include <unordered_set>
#include <utility>

namespace {

using Kind = TavroFailureKind;

/// Where an entry is, and where it is to go.
struct Route {
    TavroPlace From;
    TavroPlace To;
};

int Look(const TavroPlace& Place, struct stat& OutStatus) {
    return TavroStatAt(Place.Number(), Place.Name.c_str(), OutStatus);
}

int RenameTo(const TavroPlace& From, const TavroPlace& To) {
    return TavroRenameNoReplace(From.Number(), From.Name.c_str(), To.Number(), To.Name.c_str());
}

/// Whether the answer is yes for the directory of a place, or for one above it.
template <typename Question> bool IsAnyAbove(const TavroPlace& Place, Question IsIt) {
    TavroIdentity at = Place.Directory->Identity;
    TavroDescriptor directory;
    for (int number = Place.Number(); !IsIt(at); number = directory.Number()) {
        TavroDescriptor above;
        struct stat status = {};
        if (TavroOpenAt(number, "..", O_PATH | O_DIRECTORY, above) != 0 ||
            TavroStat(above.Number(), status) != 0 || TavroIdentityOf(status) == at) {
            return false;
        }
        at = TavroIdentityOf(status);
        directory = std::move(above);
    }
    return true;
}

// =================================================================================================
// Directories that are merged
// =================================================================================================

using OpenDirectory = std::shared_ptr<TavroDirectory>;

/// Two directories that are merged, and what is still to be done in them.
struct Merge {
    std::string Name; ///< The source's, in the directory above.
    OpenDirectory From;
    OpenDirectory To;
    TavroListing Names;
    std::string Attributes; ///< The source's, before it was touched.
};

/// Opens a directory, and no link to one. One whose identity is known must be the same.
/// @param bForListing  one that may be searched but not listed will not do.
int Open(int Above, const char* Name, bool bForListing, TavroDirectory& Directory) {
    struct stat status = {};
    int error = TavroOpenDirectoryAt(Above, Name, Directory.Descriptor);
    if (error == EACCES && !bForListing) {
        error = TavroOpenAt(Above, Name, O_PATH | O_DIRECTORY, Directory.Descriptor);
    }
    error = error != 0 ? error : TavroStat(Directory.Descriptor.Number(), status);
    const TavroIdentity known = std::exchange(Directory.Identity, TavroIdentityOf(status));
    return error != 0 || known.Inode == 0 || known == Directory.Identity ? error : ESTALE;
}

int Open(const TavroPlace& Place, bool bForListing, OpenDirectory& OutDirectory) {
    OutDirectory = std::make_shared<TavroDirectory>();
    OutDirectory->Path = Place.Path();
    OutDirectory->OwnPath = Place.OwnPath();
    return Open(Place.Number(), Place.Name.c_str(), bForListing, *OutDirectory);
}

/// Opens a directory again, unless it is open, from one in it.
int Reopen(const TavroDirectory& Below, TavroDirectory& Directory) {
    if (Directory.Descriptor.IsOpen()) {
        return 0;
    }
    Directory.Path = TavroParentOf(Below.Path);
    Directory.OwnPath = TavroParentOf(Below.OwnPath);
    return Open(Below.Descriptor.Number(), "..", false, Directory);
}

/// Only what is needed to open it again is kept.
void Close(TavroDirectory& Directory) {
    Directory.Descriptor.Close();
    Directory.Path.clear();
    Directory.OwnPath.clear();
}

/// How many of the directories that are merged are open at once, on each side.
constexpr std::size_t openMerges = 4;

// =================================================================================================
// What a transfer has put somewhere
// =================================================================================================

class OwnWork {
public:
    void Add(const TavroPlace& Place, const TavroFileState& Arrived) {
        m_work.insert(Arrived.Identity);
        m_bDirectories = m_bDirectories || Arrived.IsDirectory();
        AddHolders(Place);
    }

    /// The directories above something.
    void AddHolders(const TavroPlace& Place) {
        IsAnyAbove(Place,
                   [&](const TavroIdentity& above) { return !m_holders.insert(above).second; });
    }

    /// Whether what is at a place was put there, by itself or with a directory that it is in.
    bool Includes(const TavroPlace& Place, const TavroIdentity& There) {
        if (m_work.count(There) != 0 || !m_bDirectories) {
            return m_work.count(There) != 0;
        }
        const std::vector<TavroIdentity>& above = AllAbove(Place);
        return std::any_of(above.begin(), above.end(), [&](const TavroIdentity& directory) {
            return m_work.count(directory) != 0;
        });
    }

    bool IsIn(const TavroIdentity& Directory) const {
        return m_holders.count(Directory) != 0;
    }

    /// Directories have gone elsewhere.
    void ForgetWays() {
        m_ways.clear();
    }

private:
    /// The directory of a place and all above it. Neighbours have the same.
    const std::vector<TavroIdentity>& AllAbove(const TavroPlace& Place) {
        for (const std::vector<TavroIdentity>& way : m_ways) {
            if (way.front() == Place.Directory->Identity) {
                return way;
            }
        }
        if (m_ways.size() == mostWays) {
            m_ways.clear();
        }
        std::vector<TavroIdentity>& way = m_ways.emplace_back();
        IsAnyAbove(Place, [&](const TavroIdentity& above) {
            way.push_back(above);
            return false;
        });
        return way;
    }

    static constexpr std::size_t mostWays = 4;

    std::unordered_set<TavroIdentity> m_work;
    std::unordered_set<TavroIdentity> m_holders; ///< All directories above it.
    bool m_bDirectories = false;                 ///< Some of it are directories.
    std::vector<std::vector<TavroIdentity>> m_ways;
};

// =================================================================================================
// Entries that wait
// =================================================================================================

/// One entry that is decided upon. Nothing of it shows before all that were decided upon with it
/// are on the disk, and the history knows of them.
struct Pending {
    std::unique_ptr<TavroStagedCopy> Copy; ///< Knows the places, also where nothing is copied.
    TavroFileState Source;
    bool bRename = false;   ///< Nothing is copied.
    bool bExchange = false; ///< Something is at its destination.
    TavroFileState Old;     ///< What is there.
    std::string AskedFrom;  ///< The paths as they are told,
    std::string AskedTo;
    std::string OwnFrom; ///< and as the history keeps them.
    std::string OwnTo;
    std::function<std::string()> NextName;
    TavroTransferItemPlan* Item = nullptr;
    bool bDone = false;
    bool bAgain = false; ///< Something was in the way.

    // Of what is replaced:

    std::string OldName; ///< Its name in the trash; empty: it does not go there.
    std::string Hidden;  ///< The name that it gets first.
};

/// A directory that was merged into another one, and is to be removed when it is empty.
struct Emptied {
    std::string Path;
    TavroIdentity Directory; ///< That holds it.
    TavroIdentity Identity;
    mode_t Mode;
    std::string Attributes;
    bool bTold = false; ///< It is in the journal.
};

/// An entry whose conflict is asked about when everything else is ready.
struct PutOff {
    Route Way; ///< In directories that are closed.
    TavroTransferItemPlan* Item;
};

/// From so many waiting entries on they are not let wait for more.
constexpr std::size_t mostPending = 20000;

/// How often an entry is tried whose destination appears and vanishes all the time.
constexpr int mostTries = 10;

/// How many free names are tried, when another process takes each.
constexpr int mostNames = 100;

// =================================================================================================
// Items
// =================================================================================================

/// One transfer on its way.
class Transfer {
public:
    Transfer(const TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
             TavroTransferReport& OutReport)
        : m_bMove(Plan.bMove), m_policy(Plan.ConflictPolicy), m_callbacks(Callbacks),
          m_report(OutReport), m_progress(Callbacks),
          m_judge(Plan.ConflictPolicy, Callbacks.OnConflict, Callbacks.bOverwriteOlder),
          m_changes(Callbacks.bSync) {}

    void Run(std::vector<TavroTransferItemPlan>& Items);

private:
    void KeepOrDiscard();
    bool CheckGuard(const std::vector<TavroTransferItemPlan>& Items);
    bool Measure(std::vector<TavroTransferItemPlan>& Items);
    std::string OwnPathOf(const std::string& Path);
    bool Announce(const std::vector<TavroTransferItemPlan>& Items);
    TavroFailure Tell(const std::vector<TavroStep>& Steps);
    TavroFailure TellBeforeSync(const std::vector<TavroStep>& Steps);
    bool FindPlaces(const TavroTransferItemPlan& Item, Route& OutRoute);
    bool FindAgainWhenEntangled(const TavroTransferItemPlan& Item, Route& IoRoute);
    void CarryOutItem(TavroTransferItemPlan& Item);
    void CarryOutPutOff();

    void TransferEntry(const Route& Way, TavroTransferItemPlan* Item = nullptr);
    void SettleConflict(const Route& Way, const struct stat& Source, const struct stat& There,
                        TavroTransferItemPlan* Item);
    static std::string FreeName(TavroFreeNames& Names, const TavroPlace& To);
    void KeepBoth(const Route& Way, const struct stat& Source, TavroTransferItemPlan* Item);
    void Replace(const Route& Way, const struct stat& Source, const struct stat& Old,
                 TavroTransferItemPlan* Item);
    void Prepare(const Route& Way, const struct stat& Source, const struct stat* Old,
                 TavroMoveOptions Options, TavroTransferItemPlan* Item);
    bool IsTaken(const TavroPlace& To, struct stat& OutThere);
    bool IsEntangled(const Route& Way, const struct stat& Source);
    void Remember(const Pending& Entry);

    bool BeginMerge(const Route& Way);
    void FinishMerges(const TavroPlace& Item);
    void RemoveEmptied();

    void Flush();
    TavroFailure ClaimTrash(std::vector<Pending>& Entries);
    TavroStep MainStep(const Pending& Entry, const TavroFileState& Staged) const;
    TavroFailure Journal(const std::vector<Pending>& Entries);
    TavroStep ReplacedStep(const Pending& Entry) const;
    void Publish(Pending& Entry);
    void Rename(Pending& Entry);
    void RenameBack(Pending& Entry, const TavroPlace& Now);
    void FailToRename(Pending& Entry, int Error);
    void RenameByCopying(Pending& Entry);
    void TrashReplaced(Pending& Entry);
    void PutBack(Pending& Entry, const TavroFailure& Why);
    bool NeedsFinish(const Pending& Entry) const;
    void Finish(Pending& Entry);
    void Note(Pending& Entry);
    void TryAgain(std::vector<Pending>& Entries);
    void Discard();
    void DropClaim(Pending& Entry);
    void GiveUp(Pending& Entry);

    bool IsInterrupted() {
        m_report.bCancelled = m_report.bCancelled || m_progress.ShouldCancel();
        return m_report.bCancelled;
    }

    bool IsCancelled() {
        return IsInterrupted() || m_bStopped;
    }

    void Fail(TavroFailure Failure) {
        m_report.bUnsettled = m_report.bUnsettled || Failure.Kind == Kind::LiesAt ||
                              Failure.Kind == Kind::RemoveIncompleteCopy;
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
    OwnWork m_ownWork;
    std::optional<TavroGuard> m_deletion;                      ///< Guards what is replaced.
    std::unordered_set<const TavroTransferItemPlan*> m_unseen; ///< What is not moved unseen.
    std::vector<Merge> m_merges;                               ///< The innermost last.
    bool m_bStopped = false;                                   ///< By an answer.
    bool m_bKeeping = false;                                   ///< What is whole after a cancel.
    bool m_bSingle = false;                                    ///< One file is all.
    bool m_bTree = false;                                      ///< One directory is all.
    std::uint64_t m_itemsFinished = 0;
    std::uint64_t m_bytesFinished = 0;

    TavroNameSearch m_search; ///< For what is at destinations.
    TavroDescriptor m_source; ///< A file that is to be copied next.
    std::vector<Pending> m_pending;
    std::unordered_set<std::string> m_pendingTo; ///< Own paths.
    OwnWork m_pendingWork;                       ///< What waits, as if it were done.
    std::vector<Emptied> m_emptied;              ///< Inner ones first.
    std::vector<PutOff> m_putOff;
    bool m_bLast = false;          ///< What was put off is in hand: nothing more can wait.
    std::vector<TavroStep> m_plan; ///< What the journal was not told.
    std::size_t m_createdTold = 0; ///< So many created directories are in the journal.
    TavroIdentity m_told;          ///< A new directory that the journal knew when it was empty,
    std::uint64_t m_toldOn = 0;    ///< when this device was synced.
    int m_tries = 0;               ///< More than 0: what was taken is tried again.
    TavroChanges m_changes;
    std::unique_ptr<TavroOpenTrash> m_trash; ///< Once something is replaced.
    std::unique_ptr<TavroTrashClaims> m_claims;
};

void Transfer::Run(std::vector<TavroTransferItemPlan>& Items) {
    if (CheckGuard(Items) && Measure(Items) && Announce(Items)) {
        for (TavroTransferItemPlan& item : Items) {
            CarryOutItem(item);
        }
        CarryOutPutOff();
        if (!m_report.bCancelled) {
            Flush();
        }
        if (m_report.bCancelled) {
            KeepOrDiscard();
        }
    }
    m_report.bCancelled = m_report.bCancelled || m_bStopped;
    m_progress.Tell();
}

/// What was interrupted is brought to its places as far as it is whole, or is given up.
void Transfer::KeepOrDiscard() {
    const bool bAnything = !m_pending.empty() || !m_report.Done.empty();
    m_bKeeping = bAnything && !m_bSingle && m_callbacks.BeforeActs && m_callbacks.ShouldKeep &&
                 m_callbacks.ShouldKeep();
    if (m_bKeeping) {
        m_progress.GoOn();
        Flush();
        m_report.bUnsettled = true;
    }
    Discard();
}

bool Transfer::CheckGuard(const std::vector<TavroTransferItemPlan>& Items) {
    if (!m_bMove) {
        return true;
    }
    TavroGuard guard(TavroAct::Move);
    for (const TavroTransferItemPlan& item : Items) {
        TavroPlace place;
        struct stat status = {};
        TavroFailure refusal = m_places.Find(item.SourcePath.string(), place);
        const int error = refusal ? refusal.Error.value() : Look(place, status);
        if (error == 0) {
            refusal = guard.Check(place, status);
        } else if (error == ENOENT || error == ENOTDIR || error == EACCES) {
            refusal = {}; // it cannot be moved either, which is told in its turn
        } else {
            refusal = TavroFail(Kind::Read, error, item.SourcePath.string());
            m_unseen.insert(&item);
        }
        if (refusal) {
            Fail(std::move(refusal));
        }
    }
    return m_report.Failed.size() == m_unseen.size();
}

bool Transfer::Measure(std::vector<TavroTransferItemPlan>& Items) {
    const auto shouldCancel = [this] { return IsCancelled(); };
    for (TavroTransferItemPlan& item : Items) {
        TavroMeasurement measurement;
        if (!m_progress.IsHeard() ||
            !TavroMeasureEntry(item.SourcePath.string(), shouldCancel, measurement)) {
            break;
        }
        item.ItemCount = measurement.FileCount + measurement.DirectoryCount;
        item.ByteCount = measurement.ByteCount;
        m_progress.Expect(item.ItemCount, item.ByteCount);
    }
    return !m_report.bCancelled;
}

/// The own path of an entry; its directory is looked up once for neighbours.
std::string Transfer::OwnPathOf(const std::string& Path) {
    TavroPlace place;
    return m_places.Find(Path, place) ? TavroFindOwnPath(Path) : place.OwnPath();
}

/// Tells the history what is planned. What is a single small file, and leaves nothing behind while
/// it waits, is told when it is whole.
bool Transfer::Announce(const std::vector<TavroTransferItemPlan>& Items) {
    std::vector<TavroStep> steps;
    steps.reserve(Items.size());
    for (const TavroTransferItemPlan& item : Items) {
        steps.push_back({TavroStepRole::Planned,
                         OwnPathOf(item.SourcePath.string()),
                         OwnPathOf(item.DestinationPath.string()),
                         "",
                         {},
                         0,
                         m_callbacks.bKeepBoth         ? TavroKeepBothMode
                         : m_callbacks.bOverwriteOlder ? TavroOverwriteOlderMode
                                                       : static_cast<std::uint32_t>(m_policy)});
    }
    const std::string parent = steps.empty() ? "/" : TavroParentOf(steps.front().To);
    TavroPlace place;
    struct stat status = {};
    const bool bOne = Items.size() == 1 && !m_places.Find(Items[0].SourcePath.string(), place) &&
                      Look(place, status) == 0;
    m_bTree = bOne && S_ISDIR(status.st_mode);
    m_bSingle = bOne && !m_bTree;
    if (!m_callbacks.BeforeActs || steps.empty() || (m_bSingle && TavroIsPresent(parent))) {
        m_plan = std::move(steps);
        return true;
    }
    for (const std::string& missing : TavroFindMissing(parent)) {
        steps.push_back({TavroStepRole::CreatedDirectory, "", missing});
    }
    TavroFailure failure = Tell(steps);
    const bool bCan = !failure;
    if (!bCan) {
        Fail(std::move(failure));
    }
    return bCan;
}

TavroFailure Transfer::Tell(const std::vector<TavroStep>& Steps) {
    return m_callbacks.BeforeActs
               ? m_callbacks.BeforeActs(
                     m_bMove ? TavroOperationKind::Move : TavroOperationKind::Copy, Steps)
               : TavroFailure();
}

TavroFailure Transfer::TellBeforeSync(const std::vector<TavroStep>& Steps) {
    return m_callbacks.BeforeSync && !Steps.empty()
               ? m_callbacks.BeforeSync(
                     m_bMove ? TavroOperationKind::Move : TavroOperationKind::Copy, Steps, m_toldOn)
               : TavroFailure();
}

/// Finds where an item is and is to go. Missing directories above its destination are created,
/// unless it could not go there.
bool Transfer::FindPlaces(const TavroTransferItemPlan& Item, Route& OutRoute) {
    const std::string destination = Item.DestinationPath.string();
    TavroFailure failure = m_places.Find(Item.SourcePath.string(), OutRoute.From);
    if (!failure) {
        failure = m_places.Find(destination, OutRoute.To);
    }
    if (failure && !m_pending.empty()) { // what waits may be what is missing
        Flush();
        failure = m_places.Find(Item.SourcePath.string(), OutRoute.From);
    } else if (failure) {
        failure = OutRoute.From.Directory ? TavroFailure() : failure;
    }
    if (failure) {
        Fail({Kind::Read, failure.Error, std::move(failure.Path)});
        return false;
    }
    failure = m_places.Find(destination, OutRoute.To);
    const std::string own = failure ? TavroFindOwnPath(destination) : OutRoute.To.OwnPath();
    struct stat status = {};
    if (TavroIsBelow(OutRoute.From.OwnPath(), own) && Look(OutRoute.From, status) == 0 &&
        S_ISDIR(status.st_mode)) {
        Fail({m_bMove ? Kind::MoveIntoItself : Kind::CopyIntoItself, {}, OutRoute.From.Path()});
        return false;
    }
    if (failure) {
        failure =
            m_places.FindOrCreate(destination, 0777, m_report.CreatedDirectories, OutRoute.To);
    }
    if (failure.Kind == Kind::LookAt) {
        failure = {Kind::CreateDirectory, failure.Error, TavroParentOf(destination)};
    }
    const bool bFound = !failure;
    if (!bFound) {
        Fail(std::move(failure));
    }
    return bFound;
}

/// What an earlier item does may lead its paths elsewhere.
bool Transfer::FindAgainWhenEntangled(const TavroTransferItemPlan& Item, Route& IoRoute) {
    if (!IsEntangled(IoRoute, {})) {
        return true;
    }
    Flush();
    return FindPlaces(Item, IoRoute);
}

void Transfer::CarryOutItem(TavroTransferItemPlan& Item) {
    Route way;
    if (IsCancelled() || m_unseen.count(&Item) != 0) {
        return;
    }
    if (TavroIsCddaPath(Item.SourcePath.string())) {
        Fail({Kind::AudioTrack, {}, Item.SourcePath.string()});
    } else if (FindPlaces(Item, way) && FindAgainWhenEntangled(Item, way)) {
        TransferEntry(way, &Item);
        FinishMerges(way.From);
    }
    if (!m_report.bCancelled) {
        m_itemsFinished += Item.ItemCount;
        m_bytesFinished += Item.ByteCount;
        m_progress.Reach(m_itemsFinished, m_bytesFinished);
    }
}

/// Asks again about what was put off. What was in its way may be gone by now.
void Transfer::CarryOutPutOff() {
    m_bLast = true;
    for (PutOff& next : m_putOff) {
        PutOff entry = std::move(next); // its directories stay open no longer than this
        if (IsCancelled()) {
            break;
        }
        TavroFailure failure = m_places.FindAgain(entry.Way.From);
        failure = failure ? failure : m_places.FindAgain(entry.Way.To);
        if (failure) {
            Fail({Kind::Read, failure.Error, std::move(failure.Path)});
            continue;
        }
        TransferEntry(entry.Way, entry.Item);
        FinishMerges(entry.Way.From);
    }
    m_putOff.clear();
}

// =================================================================================================
// Entries
// =================================================================================================

/// @param Item  the planned item that this entry is; null for an entry of a merged directory.
void Transfer::TransferEntry(const Route& Way, TavroTransferItemPlan* Item) {
    m_progress.Begin([&] { return Way.From.Path(); });
    if (IsCancelled() || (m_callbacks.IsDone && m_callbacks.IsDone(Way.From.Path()))) {
        return;
    }
    struct stat source = {};
    struct stat there = {};
    TavroDescriptor open;
    bool bOpen =
        !m_bMove && TavroOpenSource(Way.From.Number(), Way.From.Name.c_str(), open, source) == 0;
    int error = bOpen ? 0 : Look(Way.From, source);
    if (error == 0 && IsEntangled(Way, source)) {
        Flush();
        bOpen = false;
        error = Look(Way.From, source);
    }
    m_source = bOpen ? std::move(open) : TavroDescriptor();
    const bool bTaken = IsTaken(Way.To, there);
    if (error != 0) {
        Fail(TavroFail(!bTaken && m_bMove ? Kind::MoveTo : Kind::Read, error, Way.From.Path(),
                       !bTaken && m_bMove ? Way.To.Path() : ""));
    } else if (bTaken && TavroIdentityOf(source) == TavroIdentityOf(there)) {
        Fail({Kind::SameEntry, {}, Way.From.Path(), Way.To.Path()});
    } else if (bTaken && (!S_ISDIR(source.st_mode) || !S_ISDIR(there.st_mode))) {
        SettleConflict(Way, source, there, Item);
    } else if (!bTaken || !BeginMerge(Way)) {
        Prepare(Way, source, nullptr, {}, Item);
    }
    m_source.Close(); // what was not copied
}

/// Whether something is at a place. What comes there later is found when an entry is published.
bool Transfer::IsTaken(const TavroPlace& To, struct stat& OutThere) {
    return m_search.Look(To, OutThere) == 0;
}

/// Whether an entry has to do with what waits: is in it, holds it, or goes to where it goes.
bool Transfer::IsEntangled(const Route& Way, const struct stat& Source) {
    return !m_pending.empty() &&
           (m_pendingTo.count(Way.From.OwnPath()) != 0 ||
            m_pendingTo.count(Way.To.OwnPath()) != 0 ||
            (S_ISDIR(Source.st_mode) && m_pendingWork.IsIn(TavroIdentityOf(Source))) ||
            m_pendingWork.Includes(Way.From, TavroIdentityOf(Source)) ||
            m_pendingWork.Includes(Way.To, {}));
}

void Transfer::SettleConflict(const Route& Way, const struct stat& Source, const struct stat& There,
                              TavroTransferItemPlan* Item) {
    const auto freeName = [&] {
        TavroFreeNames names = m_freeNames; // none is given yet
        return FreeName(names, Way.To);
    };
    const TavroTransferConflict conflict = {Way.From.Path(),
                                            Way.To.Path(),
                                            S_ISDIR(Source.st_mode),
                                            S_ISDIR(There.st_mode),
                                            TavroStateOf(Source),
                                            TavroStateOf(There),
                                            freeName,
                                            !m_bLast && !m_bSingle && m_tries == 0};
    const TavroConflictAnswer answer = m_callbacks.bKeepBoth
                                           ? TavroConflictAnswer{TavroConflictChoice::KeepBoth}
                                           : m_judge.Judge(conflict);
    switch (answer.Choice) {
    case TavroConflictChoice::Overwrite:
        Replace(Way, Source, There, Item);
        break;
    case TavroConflictChoice::Rename:
        if (Item != nullptr) {
            Item->DestinationPath = TavroJoin(TavroParentOf(Way.To.Path()), answer.NewName);
            Item->bDestinationRenamed = true;
        }
        TransferEntry({Way.From, {Way.To.Directory, answer.NewName}}, Item);
        break;
    case TavroConflictChoice::OverwriteOlder: // the judge has decided
    case TavroConflictChoice::Skip:
        m_report.Skipped.push_back(Way.From.Path());
        break;
    case TavroConflictChoice::KeepBoth:
        KeepBoth(Way, Source, Item);
        break;
    case TavroConflictChoice::Later:
        m_putOff.push_back({{{TavroClosed(Way.From.Directory), Way.From.Name},
                             {TavroClosed(Way.To.Directory), Way.To.Name}},
                            Item});
        break;
    case TavroConflictChoice::Stop:
        m_bStopped = true;
        break;
    }
}

/// The next free name beside a place.
std::string Transfer::FreeName(TavroFreeNames& Names, const TavroPlace& To) {
    const TavroIdentity& which = To.Directory->Identity;
    const std::string place = std::to_string(which.Device) + ':' + std::to_string(which.Inode);
    return Names.Choose(place, To.Name, [&](const std::string& name) {
        struct stat status = {};
        return Look({To.Directory, name}, status) == 0;
    });
}

/// To the next free name beside a place, as often as one is taken.
void Transfer::KeepBoth(const Route& Way, const struct stat& Source, TavroTransferItemPlan* Item) {
    TavroMoveOptions options;
    options.NextName = [this, to = Way.To] { return FreeName(m_freeNames, to); };
    const Route free = {Way.From, {Way.To.Directory, options.NextName()}};
    Prepare(free, Source, nullptr, std::move(options), Item);
}

void Transfer::Replace(const Route& Way, const struct stat& Source, const struct stat& Old,
                       TavroTransferItemPlan* Item) {
    const TavroIdentity old = TavroIdentityOf(Old);
    const bool bDirectory = S_ISDIR(Old.st_mode);
    if (bDirectory && m_pendingWork.IsIn(old)) {
        Flush();
    }
    const auto isOld = [&](const TavroIdentity& above) { return above == old; };
    TavroFailure refusal = {Kind::None, {}, Way.From.Path(), Way.To.Path()};
    if (bDirectory && IsAnyAbove(Way.From, isOld)) {
        refusal.Kind = Kind::ReplaceHolder;
    } else if (m_ownWork.Includes(Way.To, old)) {
        refusal.Kind = Kind::ReplaceOwnWork;
    } else if (bDirectory && m_ownWork.IsIn(old)) {
        refusal.Kind = Kind::ReplaceHolderOfOwnWork;
    } else if (bDirectory) {
        m_deletion = m_deletion ? std::move(m_deletion) : TavroGuard(TavroAct::Delete);
        refusal = m_deletion->Check(Way.To, Old);
    }
    if (refusal) {
        Fail(std::move(refusal));
    } else {
        Prepare(Way, Source, &Old, {}, Item);
    }
}

/// Makes the copy, where there is one to make, and lets the entry wait.
void Transfer::Prepare(const Route& Way, const struct stat& Source, const struct stat* Old,
                       TavroMoveOptions Options, TavroTransferItemPlan* Item) {
    Pending entry;
    Options.bCopy = !m_bMove;
    Options.bNamed = !m_bSingle;
    const bool bOldStays = Old != nullptr && m_callbacks.bKeepReplaced; // and gets a record
    Options.bSync = m_bSingle && !bOldStays && m_callbacks.bSync; // else all reach it together
    const bool bSynced = Options.bSync;
    entry.Source = TavroStateOf(Source);
    entry.Item = Item;
    entry.AskedFrom = Way.From.Path();
    entry.AskedTo = Way.To.Path();
    entry.OwnFrom = Way.From.OwnPath();
    entry.OwnTo = Way.To.OwnPath();
    entry.NextName = Options.NextName;
    entry.bExchange = Old != nullptr;
    entry.Old = Old != nullptr ? TavroStateOf(*Old) : TavroFileState();
    entry.bRename =
        m_bMove && Way.From.Directory->Identity.Device == Way.To.Directory->Identity.Device;
    const int error =
        !m_bMove || entry.bRename ? 0 : TavroAccessAt(Way.From.Number(), ".", W_OK | X_OK);
    if (error != 0) {
        Fail(TavroFail(Kind::Move, error, entry.AskedFrom, entry.AskedTo));
        return;
    }
    if (m_bTree && Item != nullptr && Old == nullptr) {
        Options.OnMade = [&](const TavroFileState& made, const std::string& name) {
            m_told = made.Identity;
            TavroStep step = MainStep(entry, made);
            step.Staged = name;
            return TellBeforeSync({step});
        };
    }
    const bool bEarlier = m_callbacks.FindEarlier && S_ISDIR(Source.st_mode) && !entry.bRename;
    Options.Earlier = bEarlier ? m_callbacks.FindEarlier(entry.OwnTo) : TavroEarlierCopy();
    entry.Copy = std::make_unique<TavroStagedCopy>(Way.From, Way.To, std::move(Options), m_links,
                                                   m_progress);
    if (!entry.bRename && !entry.Copy->Stage(Source, std::move(m_source))) {
        Note(entry);
        return;
    }
    if (!entry.bRename && !bSynced) {
        m_changes.AddBytes(Way.To.Directory);
    }
    Remember(entry);
    entry.Copy->Rest();
    m_pending.push_back(std::move(entry));
    if (m_pending.size() == mostPending || m_tries > 0) {
        Flush();
    }
}

void Transfer::Remember(const Pending& Entry) {
    m_pendingTo.insert(Entry.OwnTo);
    m_pendingWork.AddHolders(Entry.Copy->To());
    if (Entry.Source.IsDirectory() && m_bMove) {
        m_pendingWork.Add(Entry.Copy->From(), Entry.Source);
    }
}

// =================================================================================================
// Merging
// =================================================================================================

/// @return false when there is no directory at the destination any more.
bool Transfer::BeginMerge(const Route& Way) {
    Merge merge;
    merge.Name = Way.From.Name;
    if (Open(Way.To, false, merge.To) != 0) {
        return false;
    }
    int error = Open(Way.From, true, merge.From);
    struct stat status = {};
    if (error == 0 && m_bMove && TavroStat(merge.From->Descriptor.Number(), status) == 0) {
        merge.Attributes =
            TavroPackAttributes(status, TavroReadAttributes(merge.From->Descriptor.Number()));
    }
    error = error != 0 ? error : TavroListDirectory(merge.From->Descriptor.Number(), merge.Names);
    if (error != 0) {
        Fail(TavroFail(Kind::Read, error, Way.From.Path()));
        return true;
    }
    if (merge.From->Identity == merge.To->Identity) {
        Fail({Kind::SameEntry, {}, Way.From.Path(), Way.To.Path()});
        return true;
    }
    m_merges.push_back(std::move(merge));
    if (m_merges.size() > openMerges) {
        const Merge& far = m_merges[m_merges.size() - openMerges - 1];
        Close(*far.From);
        Close(*far.To);
    }
    return true;
}

/// Carries out the merges that were begun, and those that begin on the way.
/// @param Item  the source that the outermost one began with.
void Transfer::FinishMerges(const TavroPlace& Item) {
    while (!m_merges.empty() && !m_report.bCancelled && !m_bStopped) {
        Merge& last = m_merges.back();
        if (const char* name = last.Names.Next()) {
            TransferEntry({{last.From, name}, {last.To, name}});
            continue;
        }
        const Merge left = std::move(last);
        m_merges.pop_back();
        const bool bOutermost = m_merges.empty();
        int error = bOutermost ? 0 : Reopen(*left.From, *m_merges.back().From);
        error = bOutermost || error != 0 ? error : Reopen(*left.To, *m_merges.back().To);
        if (error != 0) {
            // The way up is not the way that led down any more.
            Fail(TavroFail(Kind::Read, error, TavroParentOf(left.From->Path)));
            break;
        }
        if (m_bMove) {
            const TavroPlace place = {bOutermost ? Item.Directory : m_merges.back().From,
                                      left.Name};
            struct stat status = {};
            TavroStat(left.From->Descriptor.Number(), status);
            m_emptied.push_back({place.Path(), place.Directory->Identity, left.From->Identity,
                                 status.st_mode & 07777U, left.Attributes});
        }
    }
    m_merges.clear();
}

/// What was skipped or failed is still in it, and then it stays. What was put off may leave it yet.
void Transfer::RemoveEmptied() {
    if (!m_putOff.empty()) {
        return;
    }
    for (const Emptied& emptied : std::exchange(m_emptied, {})) {
        TavroPlace place;
        struct stat status = {};
        TavroFailure failure = m_places.Find(emptied.Path, place);
        int error = failure ? failure.Error.value() : Look(place, status);
        if (error == 0 && (TavroIdentityOf(status) != emptied.Identity ||
                           place.Directory->Identity != emptied.Directory)) {
            Fail({Kind::Changed, {}, emptied.Path});
            continue;
        }
        error = error != 0 ? error : TavroRemoveDirectoryAt(place.Number(), place.Name.c_str());
        if (error == 0) {
            m_report.RemovedDirectories.push_back(
                {emptied.Path, status.st_mode & 07777U, emptied.Attributes});
            m_changes.Add(place.Directory);
            m_places.Forget(place.OwnPath());
        } else if (error != ENOTEMPTY && error != EEXIST) {
            Fail(TavroFail(Kind::RemoveEmptied, error, emptied.Path));
        }
    }
}

// =================================================================================================
// Publishing
// =================================================================================================

/// Brings all that waits to its places: first to the disk, then into the history, then under its
/// names; what it replaces goes to the trash, and what was moved is removed where it was.
void Transfer::Flush() {
    std::vector<Pending> entries = std::exchange(m_pending, {});
    m_pendingTo.clear();
    m_pendingWork = OwnWork();
    m_search.Forget();
    TavroFailure failure = ClaimTrash(entries);
    const bool bTold = m_changes.Covers(m_toldOn);
    if (!entries.empty()) {
        m_progress.TellOfDisk();
    }
    int error = failure ? 0 : m_changes.Flush();
    m_told = bTold ? m_told : TavroIdentity();
    if (error != 0) {
        failure = TavroFail(Kind::Write, error, entries.empty() ? "" : entries[0].AskedTo);
    }
    if (failure) {
        for (const Pending& entry : entries) {
            Fail({failure.Kind, failure.Error, entry.AskedTo, failure.Other});
        }
    } else if ((failure = Journal(entries))) {
        Fail(failure);
    }
    if (failure) {
        m_pending = std::move(entries);
        Discard();
        return;
    }
    for (Pending& entry : entries) {
        if (!m_bKeeping && IsInterrupted()) {
            m_pending.push_back(std::move(entry));
        } else if ((failure = entry.Copy->Wake(m_places))) {
            entry.Copy->Report().Failure = {Kind::Read, failure.Error, entry.AskedFrom};
            DropClaim(entry);
            GiveUp(entry);
        } else {
            Publish(entry);
            entry.Copy->Rest();
        }
    }
    // A source goes, and so does what was replaced for good, only when the new entry is in its
    // place even after a power cut.
    const auto isLeft = [](const Pending& entry) { return !entry.Copy; };
    entries.erase(std::remove_if(entries.begin(), entries.end(), isLeft), entries.end());
    const auto isMovedAway = [this](const Pending& entry) { return m_bMove && !entry.bRename; };
    const bool bInOrder =
        m_changes.KeepsOrder() && std::none_of(entries.begin(), entries.end(), isMovedAway);
    error = bInOrder ? 0 : m_changes.Flush();
    bool bUnfinished = false;
    for (Pending& entry : entries) {
        if (!entry.bDone || !NeedsFinish(entry)) {
            continue;
        }
        failure = error != 0 ? TavroFail(Kind::Write, error, "") : entry.Copy->Wake(m_places);
        if (!failure) {
            Finish(entry);
            continue;
        }
        // It is in both places, until a look at the operation settles it.
        entry.Copy->Report().Failure = {failure.Kind, failure.Error, entry.AskedTo};
        m_report.bUnsettled = bUnfinished = true;
    }
    for (Pending& entry : entries) {
        if (!entry.bAgain) {
            Note(entry);
        }
    }
    if (m_report.bCancelled) {
        const auto isOver = [](const Pending& entry) { return !entry.bAgain; };
        std::remove_copy_if(std::make_move_iterator(entries.begin()),
                            std::make_move_iterator(entries.end()), std::back_inserter(m_pending),
                            isOver);
        return;
    }
    TryAgain(entries);
    if (error == 0) {
        RemoveEmptied();
        error = m_changes.Flush();
    }
    if (error != 0 && !bUnfinished) {
        Fail(TavroFail(Kind::Write, error, entries.empty() ? "" : entries[0].AskedTo));
    }
}

/// Claims a name in the trash for each entry that will be replaced. The records are on the disk
/// before that, by themselves or with what is brought there next.
TavroFailure Transfer::ClaimTrash(std::vector<Pending>& Entries) {
    std::size_t claimed = 0;
    std::string last;
    for (Pending& entry : Entries) {
        if (!entry.bExchange || !entry.OldName.empty()) {
            continue;
        }
        entry.Hidden = entry.bRename ? TavroStagingName() : entry.Copy->StagedName();
        if (!m_callbacks.bKeepReplaced) {
            continue;
        }
        TavroFailure failure;
        if (!m_trash) {
            m_trash = std::make_unique<TavroOpenTrash>();
            m_claims = std::make_unique<TavroTrashClaims>(*m_trash);
            failure = TellBeforeSync(std::exchange(m_plan, {}));
            failure = failure ? failure : TavroEnsurePrivateTrash();
            failure = failure ? failure : m_trash->Open();
        }
        failure = failure ? failure
                          : m_claims->Claim(TavroNameOf(entry.OwnTo), entry.OwnTo, entry.OldName);
        if (failure) {
            return failure;
        }
        last = entry.OldName;
        ++claimed;
    }
    struct stat info = {};
    const bool bLater =
        claimed == 0 || !m_callbacks.bSync ||
        (TavroStat(m_trash->Info.Number(), info) == 0 && m_changes.Covers(info.st_dev));
    const int error = bLater ? 0 : TavroSyncRecords(*m_trash, claimed, last);
    return error == 0 ? TavroFailure() : TavroFail(Kind::WriteRecord, error, m_trash->Folders.Info);
}

TavroStep Transfer::ReplacedStep(const Pending& Entry) const {
    return {TavroStepRole::Replaced,
            Entry.OwnTo,
            TavroJoin(m_trash->Folders.Files, Entry.OldName),
            TavroJoin(m_trash->Folders.Info, TavroRecordName(Entry.OldName)),
            Entry.Old.Identity,
            0,
            0,
            Entry.Old.IsDirectory()};
}

/// The step of what is copied or moved.
/// @param Staged  the copy as it waits.
TavroStep Transfer::MainStep(const Pending& Entry, const TavroFileState& Staged) const {
    TavroStep step{m_bMove ? TavroStepRole::Moved : TavroStepRole::Copied, Entry.OwnFrom,
                   Entry.OwnTo};
    step.Identity = Entry.Source.Identity;
    step.Staged = Entry.Hidden;
    if (!Entry.bRename) {
        step.Identity = Staged.Identity;
        step.Source = Entry.Source.Identity;
        step.SourceTime = Entry.Source.ChangeTime;
    }
    return step;
}

/// Tells the history what is going to be published, unless that is the directory that it knows.
TavroFailure Transfer::Journal(const std::vector<Pending>& Entries) {
    const bool bKnown = Entries.size() == 1 && m_told.Inode != 0 && !Entries[0].bRename &&
                        Entries[0].Copy->Staged().Identity == m_told &&
                        m_createdTold == m_report.CreatedDirectories.size();
    if (!m_callbacks.BeforeActs || bKnown || (Entries.empty() && m_emptied.empty())) {
        return {};
    }
    std::vector<TavroStep> steps;
    for (const Pending& entry : Entries) {
        TavroFileState staged = entry.bRename ? TavroFileState() : entry.Copy->Staged();
        if (!entry.bRename && staged.Identity.Inode == 0) { // it has no name yet
            entry.Copy->LookAtStaged(staged);
        }
        steps.push_back(MainStep(entry, staged));
        steps.back().Staged = entry.bRename ? entry.Hidden : entry.Copy->StagedName();
        if (!entry.OldName.empty()) {
            steps.push_back(ReplacedStep(entry));
            steps.back().Staged = entry.Hidden;
        }
    }
    for (; m_createdTold < m_report.CreatedDirectories.size(); ++m_createdTold) {
        steps.push_back({TavroStepRole::CreatedDirectory, "",
                         TavroFindOwnPath(m_report.CreatedDirectories[m_createdTold])});
    }
    for (Emptied& emptied : m_emptied) {
        if (!std::exchange(emptied.bTold, true)) {
            steps.push_back({TavroStepRole::RemovedDirectory,
                             emptied.Path,
                             "",
                             "",
                             {},
                             0,
                             emptied.Mode,
                             false,
                             emptied.Attributes});
        }
    }
    return Tell(steps);
}

void Transfer::Publish(Pending& Entry) {
    TavroMoveReport& report = Entry.Copy->Report();
    if (Entry.bRename) {
        Rename(Entry);
    } else {
        Entry.bDone = Entry.Copy->Publish(Entry.bExchange);
    }
    Entry.bAgain = report.Failure.Kind == Kind::Taken;
    if (Entry.bDone && m_bMove) { // a copy leaves its source's directory as it is
        m_changes.Add(Entry.Copy->From().Directory);
    }
    if (Entry.bDone) { // which changed last
        m_changes.Add(Entry.Copy->To().Directory);
    }
    if (Entry.bDone && !Entry.OldName.empty()) {
        TrashReplaced(Entry);
    } else {
        DropClaim(Entry);
    }
}

/// Moves by a rename; what is to replace something goes beside it first, so that both can exchange
/// their names.
void Transfer::Rename(Pending& Entry) {
    TavroMoveReport& report = Entry.Copy->Report();
    const TavroPlace& from = Entry.Copy->From();
    TavroPlace to = Entry.Copy->To();
    const std::string name = to.Name;
    to.Name = Entry.bExchange ? Entry.Hidden : name;
    int error = RenameTo(from, to);
    for (int i = 0; i < mostNames && error == EEXIST && Entry.NextName; ++i) {
        to.Name = Entry.NextName();
        error = RenameTo(from, to);
    }
    if (error == EXDEV) {
        RenameByCopying(Entry);
        return;
    }
    struct stat status = {};
    if (error == 0 && Entry.Source.Identity !=
                          (Look(to, status) == 0 ? TavroIdentityOf(status) : TavroIdentity())) {
        error = ESTALE; // another file had the name until the moment of the rename
        RenameBack(Entry, to);
    } else if (error == 0 && Entry.bExchange) {
        error = TavroExchange(to.Number(), to.Name.c_str(), to.Number(), name.c_str());
        if (error != 0) {
            RenameBack(Entry, to);
        }
        to.Name = name;
        Look(to, status); // it has another change time by that
    }
    if (error != 0) {
        FailToRename(Entry, error);
        return;
    }
    report.Name = to.Name;
    report.Arrived = TavroStateOf(status);
    Entry.bDone = true;
}

/// What was renamed gets its own name back, unless somebody has taken it already.
void Transfer::RenameBack(Pending& Entry, const TavroPlace& Now) {
    struct stat status = {};
    const int error = RenameTo(Now, Entry.Copy->From());
    if (error != 0 && Look(Now, status) != ENOENT) {
        Entry.Copy->Report().Below.push_back(
            TavroFail(Kind::LiesAt, error, Entry.AskedFrom, Now.Path()));
    }
}

void Transfer::FailToRename(Pending& Entry, int Error) {
    const bool bIntoItself = Error == EINVAL && Entry.Source.IsDirectory();
    const Kind kind = Error == ESTALE   ? Kind::Changed
                      : Error == EEXIST ? Kind::Taken
                      : Entry.bExchange ? Kind::Replace
                      : bIntoItself     ? Kind::MoveIntoItself
                                        : Kind::MoveTo;
    const bool bTo = kind == Kind::Taken || kind == Kind::Replace;
    Entry.Copy->Report().Failure =
        TavroFail(kind, kind == Kind::Changed ? 0 : Error, bTo ? Entry.AskedTo : Entry.AskedFrom,
                  bTo ? Entry.AskedFrom : Entry.AskedTo);
}

/// Of two mounts of one file system, or where one is a file system only in part.
void Transfer::RenameByCopying(Pending& Entry) {
    const Route way = {Entry.Copy->From(), Entry.Copy->To()};
    TavroMoveOptions options;
    options.bNamed = true;
    options.bSync = m_callbacks.bSync;
    options.NextName = Entry.NextName;
    Entry.bRename = false;
    Entry.Copy = std::make_unique<TavroStagedCopy>(way.From, way.To, options, m_links, m_progress);
    struct stat source = {};
    if (Look(way.From, source) != 0 || !Entry.Copy->Stage(source)) {
        return;
    }
    m_changes.AddBytes(way.To.Directory);
    Entry.Hidden = Entry.Copy->StagedName();
    const int error = m_changes.Flush();
    std::vector<Pending> one;
    one.push_back(std::move(Entry));
    TavroFailure failure =
        error == 0 ? Journal(one) : TavroFail(Kind::Write, error, one[0].AskedTo);
    Entry = std::move(one[0]);
    if (failure) {
        Entry.Copy->GiveUp();
        Entry.Copy->Report().Failure = std::move(failure);
        return;
    }
    Entry.bDone = Entry.Copy->Publish(Entry.bExchange);
}

/// What was replaced, and has the hidden name now, goes to the trash.
void Transfer::TrashReplaced(Pending& Entry) {
    const TavroPlace old = {Entry.Copy->To().Directory, Entry.Hidden};
    TavroPlace item;
    TavroFailure failure = m_places.Find(TavroJoin(m_trash->Folders.Files, Entry.OldName), item);
    if (!failure) {
        TavroMoveOptions options;
        options.bSync = m_callbacks.bSync;
        options.BeforePublish = [&](const TavroFileState& made, const std::string&) {
            TavroStep step = ReplacedStep(Entry);
            step.Source = std::exchange(step.Identity, made.Identity);
            step.Staged = Entry.Hidden; // it is there until it is in the trash
            return Tell({step});
        };
        TavroMoveReport report = TavroBringEntry(old, item, options, m_links, m_progress);
        failure = report.Failure;
        if (report.bCopyStays) { // the trash has all of it
            Fail({Kind::LiesAt, report.Below.empty() ? failure.Error : report.Below[0].Error,
                  Entry.AskedTo, old.Path()});
            failure = {};
        }
        FailAll(report.Below);
        Entry.Old.Identity = report.Arrived.Identity;
        m_changes.Add(item.Directory);
    }
    if (failure) {
        PutBack(Entry, failure);
        return;
    }
    m_report.Replaced.push_back(ReplacedStep(Entry));
}

/// What was replaced could not be kept: it gets its name back, and the new entry goes where it came
/// from.
void Transfer::PutBack(Pending& Entry, const TavroFailure& Why) {
    const TavroPlace& to = Entry.Copy->To();
    const TavroPlace hidden = {to.Directory, Entry.Hidden};
    const int error =
        TavroExchange(hidden.Number(), hidden.Name.c_str(), to.Number(), to.Name.c_str());
    if (error != 0) {
        Fail({Kind::LiesAt, Why.Error, Entry.AskedTo, hidden.Path()});
        return;
    }
    Entry.bDone = false;
    if (Entry.bRename) {
        RenameBack(Entry, hidden);
    } else {
        Entry.Copy->Withdraw(hidden.Name);
    }
    Entry.Copy->Report().Arrived = {};
    Entry.Copy->Report().Failure = {Kind::Replace, Why.Error, Entry.AskedTo, Entry.AskedFrom};
    DropClaim(Entry);
}

bool Transfer::NeedsFinish(const Pending& Entry) const {
    return (m_bMove && !Entry.bRename) || (Entry.bExchange && Entry.OldName.empty());
}

void Transfer::Finish(Pending& Entry) {
    if (m_bMove && !Entry.bRename) {
        Entry.Copy->RemoveSource();
        m_changes.Add(Entry.Copy->From().Directory);
    }
    if (Entry.bExchange && Entry.OldName.empty()) {
        const TavroPlace old = {Entry.Copy->To().Directory, Entry.Hidden};
        TavroFailure failure = TavroRemoveTree(old, {Entry.Old.Identity});
        m_changes.Add(old.Directory);
        if (failure) {
            Fail({Kind::LiesAt,
                  failure.Error ? failure.Error : TavroFail(Kind::Changed, ESTALE, "").Error,
                  Entry.AskedTo, old.Path()});
        }
    }
    Entry.Copy->Rest();
}

/// Takes over what became of an entry.
void Transfer::Note(Pending& Entry) {
    TavroMoveReport& report = Entry.Copy->Report();
    m_report.Lost.AccessLists += report.Lost.AccessLists;
    m_report.Lost.ExtendedAttributes += report.Lost.ExtendedAttributes;
    const std::string to = TavroJoin(TavroParentOf(Entry.AskedTo), report.Name);
    if (Entry.NextName && Entry.Item != nullptr) {
        Entry.Item->DestinationPath = to;
        Entry.Item->bDestinationRenamed = true;
    }
    if (Entry.bDone && (!report.Failure || report.bPartlyMoved)) {
        m_report.Done.push_back({Entry.AskedFrom, to, Entry.bExchange, report.Arrived});
    }
    if (report.Failure.Kind == Kind::Cancelled) {
        m_report.bCancelled = true;
    } else if (report.Failure) {
        Fail(std::move(report.Failure));
    }
    FailAll(report.Below);
    TavroPlace place;
    if (report.Arrived.Identity.Inode != 0 && !m_places.Find(to, place)) {
        m_ownWork.Add(place, report.Arrived);
    }
    if (report.Arrived.IsDirectory()) {
        m_ownWork.ForgetWays();
    }
    if (m_bMove && report.Arrived.IsDirectory()) {
        m_places.Forget(Entry.OwnFrom);
    }
}

/// What was in the way meanwhile is a conflict like any other.
void Transfer::TryAgain(std::vector<Pending>& Entries) {
    std::vector<Merge> merges = std::exchange(m_merges, {});
    for (Pending& entry : Entries) {
        if (!entry.bAgain) {
            continue;
        }
        GiveUp(entry);
        if (TavroFailure failure = entry.Copy->Wake(m_places)) {
            Fail({Kind::Read, failure.Error, entry.AskedFrom});
            continue;
        }
        const Route way = {entry.Copy->From(), entry.Copy->To()};
        if (m_tries == mostTries) {
            Fail(TavroFail(Kind::Taken, EEXIST, entry.AskedTo));
            continue;
        }
        ++m_tries;
        TransferEntry(way, entry.Item);
        FinishMerges(way.From);
        --m_tries;
    }
    m_merges = std::move(merges);
}

/// Nothing of what waits is done.
void Transfer::Discard() {
    for (Pending& entry : m_pending) {
        DropClaim(entry);
        GiveUp(entry);
    }
    m_pending.clear();
    m_emptied.clear();
    std::vector<std::string>& created = m_report.CreatedDirectories;
    TavroPlace place;
    while (m_report.Done.empty() && !created.empty() && !m_places.Find(created.back(), place) &&
           TavroRemoveDirectoryAt(place.Number(), place.Name.c_str()) == 0) {
        created.pop_back();
        m_changes.Add(place.Directory);
    }
    m_changes.Flush();
}

/// Nothing goes to the name in the trash that was claimed for what is replaced.
void Transfer::DropClaim(Pending& Entry) {
    if (!Entry.OldName.empty()) {
        m_claims->Drop(TavroNameOf(Entry.OwnTo), Entry.OldName);
        Entry.OldName.clear();
    }
}

/// Nothing is left of what waits, or it is told what is.
void Transfer::GiveUp(Pending& Entry) {
    if (Entry.bRename) {
        return;
    }
    TavroMoveReport& report = Entry.Copy->Report();
    std::vector<TavroFailure>& below = report.Below;
    if (TavroFailure failure = Entry.Copy->GiveUp(m_places)) {
        below.push_back({Kind::RemoveIncompleteCopy, failure.Error,
                         TavroJoin(TavroParentOf(Entry.AskedTo), Entry.Copy->StagedName())});
    }
    if (report.Failure.Kind == Kind::RemoveIncompleteCopy) {
        below.push_back(std::exchange(report.Failure, {}));
    }
    FailAll(below);
}

} // namespace

bool TavroCarryOutTransfer(TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
                           TavroTransferReport& OutReport) {
    OutReport = TavroTransferReport();
    Transfer(Plan, Callbacks, OutReport).Run(Plan.Items);
    return OutReport.Failed.empty() && !OutReport.bCancelled;
}

std::string TavroFreePathBeside(const std::string& Wanted) {
    const std::string name = TavroNameOf(Wanted);
    const std::string directory = Wanted.substr(0, Wanted.size() - name.size());
    return directory + TavroFreeNames().Choose("", name, [&](const std::string& candidate) {
        return TavroIsPresent(directory + candidate);
    });
}
