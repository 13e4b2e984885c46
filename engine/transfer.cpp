#include "transfer.h"

#include "measure.h"
#include "place.h"
#include "tavropane.h"
#include "transfer_run.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace {

using Kind = TavroFailureKind;
using OpenDirectory = std::shared_ptr<TavroDirectory>;

/// Opens a directory, and no link to one. One whose identity is known must be the same.
/// @param bForListing  one that may be searched but not listed will not do.
int Open(int Above, const char* Name, bool bForListing, TavroDirectory& Directory) {
    struct stat status = {};
    int error = TavroOpenDirectoryAt(Above, Name, Directory.Descriptor);
    if (error == EACCES && !bForListing) {
        error = TavroOpenAt(Above, Name, O_PATH | O_DIRECTORY, Directory.Descriptor);
    }
    error = error != 0 ? error
                       : TavroStatWithMount(Directory.Descriptor.Number(), status, Directory.Mount);
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

/// From so many waiting entries on they are not let wait for more.
constexpr std::size_t mostPending = 20000;

} // namespace

void TavroTransferRun::Run(std::vector<TavroTransferItemPlan>& Items) {
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
        } else if (m_report.Done.empty()) {
            Discard(); // also directories that were created for nothing
        }
    }
    m_report.bCancelled = m_report.bCancelled || m_bStopped;
    m_progress.Tell();
}

/// What was interrupted is brought to its places as far as it is whole, or is given up.
void TavroTransferRun::KeepOrDiscard() {
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

bool TavroTransferRun::CheckGuard(const std::vector<TavroTransferItemPlan>& Items) {
    if (!m_bMove) {
        return true;
    }
    TavroGuard guard(TavroAct::Move);
    for (const TavroTransferItemPlan& item : Items) {
        TavroPlace place;
        struct stat status = {};
        TavroFailure refusal;
        const int error = m_places.Look(item.SourcePath.native(), place, status);
        if (error == 0) {
            refusal = guard.Check(place, status);
        } else if (!TavroIsMissing(error) && error != EACCES) { // else that is told in its turn
            refusal = TavroFail(Kind::Read, error, item.SourcePath.native());
            m_unseen.insert(&item);
        }
        if (refusal) {
            Fail(std::move(refusal));
        }
    }
    return m_report.Failed.size() == m_unseen.size();
}

bool TavroTransferRun::Measure(std::vector<TavroTransferItemPlan>& Items) {
    const auto shouldCancel = [this] { return IsCancelled(); };
    for (TavroTransferItemPlan& item : Items) {
        TavroMeasurement measurement;
        if (!m_progress.IsHeard() ||
            !TavroMeasureEntry(item.SourcePath.native(), shouldCancel, measurement)) {
            break;
        }
        item.ItemCount = measurement.FileCount + measurement.DirectoryCount;
        item.ByteCount = measurement.ByteCount;
        m_progress.Expect(item.ItemCount, item.ByteCount);
    }
    return !m_report.bCancelled;
}

/// The own path of an entry; its directory is looked up once for neighbours.
std::string TavroTransferRun::OwnPathOf(const std::string& Path) {
    TavroPlace place;
    return m_places.Find(Path, place) ? TavroFindOwnPath(Path) : place.OwnPath();
}

/// Tells the history what is planned. What is a single small file, and leaves nothing behind while
/// it waits, is told when it is whole.
bool TavroTransferRun::Announce(const std::vector<TavroTransferItemPlan>& Items) {
    std::vector<TavroStep> steps;
    steps.reserve(Items.size());
    for (const TavroTransferItemPlan& item : Items) {
        steps.push_back({TavroStepRole::Planned,
                         OwnPathOf(item.SourcePath.native()),
                         OwnPathOf(item.DestinationPath.native()),
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
    const bool bOne =
        Items.size() == 1 && m_places.Look(Items[0].SourcePath.native(), place, status) == 0;
    m_bTree = bOne && S_ISDIR(status.st_mode);
    m_bSingle = bOne && !m_bTree;
    if (!m_callbacks.BeforeActs || steps.empty() || (m_bSingle && TavroIsPresent(parent))) {
        m_plan = std::move(steps);
        return true;
    }
    for (const std::string& missing : TavroFindMissing(parent)) {
        steps.push_back({TavroStepRole::CreatedDirectory, "", missing});
    }
    if (TavroFailure failure = Tell(steps)) {
        Fail(std::move(failure));
        return false;
    }
    return true;
}

TavroFailure TavroTransferRun::Tell(const std::vector<TavroStep>& Steps) {
    return m_callbacks.Announce(m_bMove ? TavroOperationKind::Move : TavroOperationKind::Copy,
                                Steps);
}

TavroFailure TavroTransferRun::TellBeforeSync(const std::vector<TavroStep>& Steps) {
    return m_callbacks.BeforeSync && !Steps.empty()
               ? m_callbacks.BeforeSync(
                     m_bMove ? TavroOperationKind::Move : TavroOperationKind::Copy, Steps, m_toldOn)
               : TavroFailure();
}

namespace {

/// Whether an entry would go below itself. Most do not even go below what holds them.
/// @param OwnTo  where its place was not found.
bool IsBelowItself(const TavroRoute& Way, const std::string& OwnTo) {
    const std::string& holder = Way.From.Directory->OwnPath;
    if (OwnTo.empty() && Way.To.Directory->OwnPath.compare(0, holder.size(), holder) != 0) {
        return false;
    }
    return TavroIsBelow(Way.From.OwnPath(), OwnTo.empty() ? Way.To.OwnPath() : OwnTo);
}

} // namespace

/// Finds where an item is and is to go. Missing directories above its destination are created,
/// unless it could not go there.
bool TavroTransferRun::FindPlaces(const TavroTransferItemPlan& Item, TavroRoute& OutRoute) {
    const std::string& destination = Item.DestinationPath.native();
    OutRoute = {};
    TavroFailure failure = m_places.Find(Item.SourcePath.native(), OutRoute.From);
    if (!failure) {
        failure = m_places.Find(destination, OutRoute.To);
    }
    if (failure && !m_pending.empty()) { // what waits may be what is missing
        Flush();
        failure = m_places.Find(Item.SourcePath.native(), OutRoute.From);
    } else if (failure) {
        failure = OutRoute.From.Directory ? TavroFailure() : failure;
    }
    if (failure) {
        Fail({Kind::Read, failure.Error, std::move(failure.Path)});
        return false;
    }
    if (!OutRoute.To.Directory) {
        failure = m_places.Find(destination, OutRoute.To);
    }
    struct stat status = {};
    if (IsBelowItself(OutRoute, failure ? TavroFindOwnPath(destination) : "") &&
        TavroLookAt(OutRoute.From, status) == 0 && S_ISDIR(status.st_mode)) {
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
    if (failure) {
        Fail(std::move(failure));
        return false;
    }
    return true;
}

/// What an earlier item does may lead its paths elsewhere.
bool TavroTransferRun::FindAgainWhenEntangled(const TavroTransferItemPlan& Item,
                                              TavroRoute& IoRoute) {
    if (!IsEntangled(IoRoute, {})) {
        return true;
    }
    Flush();
    return FindPlaces(Item, IoRoute);
}

void TavroTransferRun::CarryOutItem(TavroTransferItemPlan& Item) {
    TavroRoute way;
    if (IsCancelled() || m_unseen.count(&Item) != 0) {
        return;
    }
    if (TavroIsCddaPath(Item.SourcePath.native())) {
        Fail({Kind::AudioTrack, {}, Item.SourcePath.native()});
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
void TavroTransferRun::CarryOutPutOff() {
    m_bLast = true;
    for (TavroPutOff& next : m_putOff) {
        TavroPutOff entry = std::move(next); // its directories stay open no longer than this
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
    // A merge that began late ends after those of the directories above it.
    std::stable_sort(m_emptied.begin(), m_emptied.end(),
                     [](const TavroEmptied& a, const TavroEmptied& b) { return a.Path > b.Path; });
}

// =================================================================================================
// Entries
// =================================================================================================

/// @param Item  the planned item that this entry is; null for an entry of a merged directory.
void TavroTransferRun::TransferEntry(const TavroRoute& Way, TavroTransferItemPlan* Item) {
    m_progress.Begin([&] { return Way.From.Path(); });
    if (IsCancelled() || (m_callbacks.IsDone && m_callbacks.IsDone(Way.From.Path()))) {
        return;
    }
    struct stat source = {};
    struct stat there = {};
    TavroDescriptor open;
    bool bOpen =
        !m_bMove && TavroOpenSource(Way.From.Number(), Way.From.Name.c_str(), open, source) == 0;
    int error = bOpen ? 0 : TavroLookAt(Way.From, source);
    if (error == 0 && IsEntangled(Way, source)) {
        Flush();
        bOpen = false;
        error = TavroLookAt(Way.From, source);
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
bool TavroTransferRun::IsTaken(const TavroPlace& To, struct stat& OutThere) {
    return m_search.Look(To, OutThere) == 0;
}

bool TavroTransferRun::IsPending(const TavroPlace& Place) const {
    const auto names = m_pendingNames.find(Place.Directory->Identity);
    return names != m_pendingNames.end() && names->second.count(Place.Name) != 0;
}

/// Whether an entry has to do with what waits: is in it, holds it, is moved by it, or goes to where
/// it goes.
bool TavroTransferRun::IsEntangled(const TavroRoute& Way, const struct stat& Source) {
    return !m_pending.empty() &&
           (IsPending(Way.From) || IsPending(Way.To) ||
            (S_ISDIR(Source.st_mode) && m_pendingWork.IsIn(TavroIdentityOf(Source))) ||
            m_pendingWork.Includes(Way.From, TavroIdentityOf(Source)) ||
            m_pendingWork.Includes(Way.To, {}));
}

void TavroTransferRun::SettleConflict(const TavroRoute& Way, const struct stat& Source,
                                      const struct stat& There, TavroTransferItemPlan* Item) {
    const auto freeName = [&] {
        TavroFreeNames names = m_freeNames; // none is given yet
        return FreeName(names, Way.To);
    };
    const TavroTransferConflict conflict = {
        Way.From.Path(),     Way.To.Path(), TavroStateOf(Source),
        TavroStateOf(There), freeName,      !m_bLast && !m_bSingle && m_tries == 0};
    const TavroConflictAnswer answer = m_callbacks.bKeepBoth
                                           ? TavroConflictAnswer{TavroConflictChoice::KeepBoth}
                                           : m_judge.Judge(conflict);
    struct stat now = {};
    switch (answer.Choice) {
    case TavroConflictChoice::Overwrite:
        if (answer.bAsked && (TavroLookAt(Way.To, now) != 0 ||
                              !TavroIsUnchanged(TavroStateOf(There), TavroStateOf(now)))) {
            m_search.Forget();
            TransferEntry(Way, Item); // what was shown is not there any more, or has changed
            break;
        }
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
std::string TavroTransferRun::FreeName(TavroFreeNames& Names, const TavroPlace& To) {
    const TavroIdentity& which = To.Directory->Identity;
    const std::string place = std::to_string(which.Device) + ':' + std::to_string(which.Inode);
    return Names.Choose(place, To.Name, [&](const std::string& name) {
        struct stat status = {};
        return TavroLookAt({To.Directory, name}, status) == 0;
    });
}

/// To the next free name beside a place, as often as one is taken.
void TavroTransferRun::KeepBoth(const TavroRoute& Way, const struct stat& Source,
                                TavroTransferItemPlan* Item) {
    TavroMoveOptions options;
    options.NextName = [this, to = Way.To] { return FreeName(m_freeNames, to); };
    const TavroRoute free = {Way.From, {Way.To.Directory, options.NextName()}};
    Prepare(free, Source, nullptr, std::move(options), Item);
}

void TavroTransferRun::Replace(const TavroRoute& Way, const struct stat& Source,
                               const struct stat& Old, TavroTransferItemPlan* Item) {
    const TavroIdentity old = TavroIdentityOf(Old);
    const bool bDirectory = S_ISDIR(Old.st_mode);
    if (bDirectory && m_pendingWork.IsIn(old)) {
        Flush();
    }
    const auto isOld = [&](const TavroIdentity& above) { return above == old; };
    TavroFailure refusal = {Kind::None, {}, Way.From.Path(), Way.To.Path()};
    if (bDirectory && TavroIsAnyAbove(Way.From, isOld)) {
        refusal.Kind = Kind::ReplaceHolder;
    } else if (m_ownWork.Includes(Way.To, old) ||
               (m_callbacks.IsOwnWork && m_callbacks.IsOwnWork(Way.To.Path()))) {
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
void TavroTransferRun::Prepare(const TavroRoute& Way, const struct stat& Source,
                               const struct stat* Old, TavroMoveOptions Options,
                               TavroTransferItemPlan* Item) {
    TavroPendingEntry entry;
    Options.bCopy = !m_bMove;
    Options.bNamed = !m_bSingle;
    const bool bOldStays = Old != nullptr && m_callbacks.bKeepReplaced; // and gets a record
    Options.bSync = m_bSingle && !bOldStays && m_callbacks.bSync; // else all reach it together
    const bool bSynced = Options.bSync;
    Options.BeforeNamed = [this] { return TellBeforeSync(std::exchange(m_plan, {})); };
    entry.Source = TavroStateOf(Source);
    entry.Item = Item;
    entry.NextName = Options.NextName;
    entry.bExchange = Old != nullptr;
    entry.Old = Old != nullptr ? TavroStateOf(*Old) : TavroFileState();
    entry.bRename =
        m_bMove && Way.From.Directory->Identity.Device == Way.To.Directory->Identity.Device;
    const int error =
        !m_bMove || entry.bRename ? 0 : TavroAccessAt(Way.From.Number(), ".", W_OK | X_OK);
    if (error != 0) {
        Fail(TavroFail(Kind::Move, error, Way.From.Path(), Way.To.Path()));
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
    Options.Earlier = bEarlier ? m_callbacks.FindEarlier(Way.To.OwnPath()) : TavroEarlierCopy();
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

void TavroTransferRun::Remember(const TavroPendingEntry& Entry) {
    const TavroPlace& to = Entry.Copy->To();
    m_pendingNames[to.Directory->Identity].insert(to.Name);
    m_pendingWork.AddHolders(to);
    if (m_bMove && !Entry.bRename) { // it is gone when that is done
        const TavroPlace& from = Entry.Copy->From();
        m_pendingNames[from.Directory->Identity].insert(from.Name);
        m_pendingWork.AddHolders(from);
    }
    if (Entry.Source.IsDirectory() && m_bMove) {
        m_pendingWork.Add(Entry.Copy->From(), Entry.Source);
    }
}

// =================================================================================================
// Merging
// =================================================================================================

/// @return false when there is no directory at the destination any more.
bool TavroTransferRun::BeginMerge(const TavroRoute& Way) {
    TavroMerge merge;
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
    m_merges.push_back(std::move(merge));
    if (m_merges.size() > openMerges) {
        const TavroMerge& far = m_merges[m_merges.size() - openMerges - 1];
        Close(*far.From);
        Close(*far.To);
    }
    return true;
}

/// Carries out the merges that were begun, and those that begin on the way.
/// @param Item  the source that the outermost one began with.
void TavroTransferRun::FinishMerges(const TavroPlace& Item) {
    while (!m_merges.empty() && !m_report.bCancelled && !m_bStopped) {
        TavroMerge& last = m_merges.back();
        if (const char* name = last.Names.Next()) {
            TransferEntry({{last.From, name}, {last.To, name}});
            continue;
        }
        const TavroMerge left = std::move(last);
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
void TavroTransferRun::RemoveEmptied() {
    if (!m_putOff.empty()) {
        return;
    }
    for (const TavroEmptied& emptied : std::exchange(m_emptied, {})) {
        TavroPlace place;
        struct stat status = {};
        int error = m_places.Look(emptied.Path, place, status);
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

bool TavroCarryOutTransfer(TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
                           TavroTransferReport& OutReport) {
    OutReport = TavroTransferReport();
    TavroTransferRun(Plan, Callbacks, OutReport).Run(Plan.Items);
    return OutReport.Failed.empty() && !OutReport.bCancelled;
}

std::string TavroFreePathBeside(const std::string& Wanted) {
    const std::string name = TavroNameOf(Wanted);
    const std::string directory = Wanted.substr(0, Wanted.size() - name.size());
    return directory + TavroFreeNames().Choose("", name, [&](const std::string& candidate) {
        return TavroIsPresent(directory + candidate);
    });
}
