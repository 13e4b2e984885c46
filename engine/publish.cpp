#include "names.h"
#include "place.h"
#include "remove.h"
#include "transfer_run.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

namespace {

using Kind = TavroFailureKind;

int RenameTo(const TavroPlace& From, const TavroPlace& To) {
    return TavroRenameNoReplace(From.Number(), From.Name.c_str(), To.Number(), To.Name.c_str());
}

/// How often an entry is tried whose destination appears and vanishes all the time.
constexpr int mostTries = 10;

/// How many free names are tried, when another process takes each.
constexpr int mostNames = 100;

} // namespace

/// Brings all that waits to its places: first to the disk, then into the history, then under its
/// names; what it replaces goes to the trash, and what was moved is removed where it was.
void TavroTransferRun::Flush() {
    Entries entries = std::exchange(m_pending, {});
    m_pendingNames.clear();
    m_pendingWork = TavroOwnWork();
    m_search.Forget();
    if (!Secure(entries)) {
        m_pending = std::move(entries);
        Discard();
        return;
    }
    PublishAll(entries);
    const bool bFinished = FinishAll(entries);
    for (TavroPendingEntry& entry : entries) {
        if (!entry.bAgain) {
            Note(entry);
        }
    }
    if (m_report.bCancelled) {
        const auto isOver = [](const TavroPendingEntry& entry) { return !entry.bAgain; };
        std::remove_copy_if(std::make_move_iterator(entries.begin()),
                            std::make_move_iterator(entries.end()), std::back_inserter(m_pending),
                            isOver);
        return;
    }
    TryAgain(entries);
    if (!bFinished) {
        return;
    }
    const std::string first = FirstOf(entries);
    RemoveEmptied();
    if (const int error = m_changes.Flush()) {
        Fail(TavroFail(Kind::Write, error, first));
    }
}

/// By which the changes are told of that did not reach the disk.
std::string TavroTransferRun::FirstOf(const Entries& Changed) const {
    const std::vector<std::string>& created = m_report.CreatedDirectories;
    return !Changed.empty()     ? Changed[0].AskedTo()
           : !m_emptied.empty() ? m_emptied[0].Path
           : !created.empty()   ? created[0]
                                : "";
}

/// Brings what waits to the disk, and tells the history what is going to be published.
/// @return whether both was done; if not, the report says why.
bool TavroTransferRun::Secure(Entries& Waiting) {
    if (TavroFailure failure = ClaimTrash(Waiting)) {
        const std::error_code why =
            failure.Error ? failure.Error : std::make_error_code(std::errc::not_a_directory);
        Fail(std::move(failure)); // of the trash
        for (const TavroPendingEntry& entry : Waiting) {
            Fail({entry.bExchange ? Kind::Replace : Kind::Write, why, entry.AskedTo(),
                  entry.AskedFrom()});
        }
        return false;
    }
    const bool bTold = m_changes.Covers(m_toldOn);
    if (!Waiting.empty()) {
        m_progress.TellOfDisk();
    }
    if (const int error = m_changes.Flush()) {
        for (const TavroPendingEntry& entry : Waiting) {
            Fail(TavroFail(Kind::Write, error, entry.AskedTo()));
        }
        if (Waiting.empty()) {
            Fail(TavroFail(Kind::Write, error, FirstOf(Waiting)));
        }
        return false;
    }
    m_told = bTold ? m_told : TavroIdentity();
    if (TavroFailure failure = Journal(Waiting)) {
        Fail(std::move(failure));
        return false;
    }
    return true;
}

/// Gives what waits its names. What could not be published, and is removed, is no entry any more.
void TavroTransferRun::PublishAll(Entries& IoEntries) {
    for (TavroPendingEntry& entry : IoEntries) {
        if (!m_bKeeping && IsInterrupted()) {
            m_pending.push_back(std::move(entry));
        } else if (TavroFailure failure = entry.Copy->Wake(m_places)) {
            entry.Copy->Report().Failure = {Kind::Read, failure.Error, entry.AskedFrom()};
            DropClaim(entry);
            GiveUp(entry);
        } else {
            Publish(entry);
            entry.Copy->Rest();
        }
    }
    const auto isLeft = [](const TavroPendingEntry& entry) { return !entry.Copy; };
    IoEntries.erase(std::remove_if(IoEntries.begin(), IoEntries.end(), isLeft), IoEntries.end());
}

/// A source goes, and so does what was replaced for good, only when the new entry is in its place
/// even after a power cut.
/// @return whether all names are on the disk, or will be before what is changed later; if not, the
///         report says why.
bool TavroTransferRun::FinishAll(Entries& Published) {
    const auto isMovedAway = [this](const TavroPendingEntry& entry) {
        return m_bMove && !entry.bRename;
    };
    const bool bInOrder =
        m_changes.KeepsOrder() && std::none_of(Published.begin(), Published.end(), isMovedAway);
    const int error = bInOrder ? 0 : m_changes.Flush();
    bool bTold = false;
    for (TavroPendingEntry& entry : Published) {
        if (!entry.bDone || !NeedsFinish(entry)) {
            continue;
        }
        TavroFailure failure =
            error != 0 ? TavroFail(Kind::Write, error, "") : entry.Copy->Wake(m_places);
        if (!failure) {
            Finish(entry);
            continue;
        }
        // It is in both places, until a look at the operation settles it.
        entry.Copy->Report().Failure = {failure.Kind, failure.Error, entry.AskedTo()};
        m_report.bUnsettled = bTold = true;
    }
    if (error != 0 && !bTold) {
        Fail(TavroFail(Kind::Write, error, FirstOf(Published)));
    }
    return error == 0;
}

/// Claims a name in the trash for each entry that will be replaced. The records are on the disk
/// before that, by themselves or with what is brought there next.
TavroFailure TavroTransferRun::ClaimTrash(Entries& Waiting) {
    TavroFailure failure;
    for (TavroPendingEntry& entry : Waiting) {
        if (!entry.bExchange || !entry.OldName.empty()) {
            continue;
        }
        entry.Hidden = entry.bRename ? TavroStagingName() : entry.Copy->StagedName();
        if (!m_callbacks.bKeepReplaced) {
            continue;
        }
        failure = TellBeforeSync(std::exchange(m_plan, {}));
        failure = failure ? failure
                          : m_trashes.Find(TavroVolumeOf(*entry.Copy->To().Directory), entry.Trash);
        failure = failure ? failure : entry.Trash->Claim(entry.OwnTo(), entry.OldName);
        if (failure) {
            return failure;
        }
    }
    return m_trashes.Sync(&m_changes);
}

TavroStep TavroTransferRun::ReplacedStep(const TavroPendingEntry& Entry) const {
    return {TavroStepRole::Replaced,
            Entry.OwnTo(),
            Entry.Trash->ItemPath(Entry.OldName),
            Entry.Trash->RecordPath(Entry.OldName),
            Entry.Old.Identity,
            0,
            0,
            Entry.Old.IsDirectory()};
}

/// The step of what is copied or moved.
/// @param Staged  the copy as it waits.
TavroStep TavroTransferRun::MainStep(const TavroPendingEntry& Entry,
                                     const TavroFileState& Staged) const {
    TavroStep step{m_bMove ? TavroStepRole::Moved : TavroStepRole::Copied, Entry.OwnFrom(),
                   Entry.OwnTo()};
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
TavroFailure TavroTransferRun::Journal(const Entries& Waiting) {
    const bool bKnown = Waiting.size() == 1 && m_told.Inode != 0 && !Waiting[0].bRename &&
                        Waiting[0].Copy->Staged().Identity == m_told &&
                        m_createdTold == m_report.CreatedDirectories.size();
    if (!m_callbacks.BeforeActs || bKnown || (Waiting.empty() && m_emptied.empty())) {
        return {};
    }
    std::vector<TavroStep> steps;
    for (const TavroPendingEntry& entry : Waiting) {
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
    for (TavroEmptied& emptied : m_emptied) {
        if (!std::exchange(emptied.bTold, true)) {
            steps.push_back({TavroStepRole::RemovedDirectory, emptied.Path, "", "",
                             emptied.Identity, 0, emptied.Mode, false, emptied.Attributes});
        }
    }
    return Tell(steps);
}

void TavroTransferRun::Publish(TavroPendingEntry& Entry) {
    if (Entry.bRename) {
        Rename(Entry); // it may become another copy
    } else {
        Entry.bDone = Entry.Copy->Publish(Entry.bExchange);
    }
    Entry.bAgain = Entry.Copy->Report().Failure.Kind == Kind::Taken;
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
void TavroTransferRun::Rename(TavroPendingEntry& Entry) {
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
    if (error == 0 &&
        Entry.Source.Identity !=
            (TavroLookAt(to, status) == 0 ? TavroIdentityOf(status) : TavroIdentity())) {
        error = ESTALE; // another file had the name until the moment of the rename
        RenameBack(Entry, to);
    } else if (error == 0 && Entry.bExchange) {
        error = TavroExchange(to.Number(), to.Name.c_str(), to.Number(), name.c_str());
        if (error != 0) {
            RenameBack(Entry, to);
        }
        to.Name = name;
        TavroLookAt(to, status); // it has another change time by that
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
void TavroTransferRun::RenameBack(TavroPendingEntry& Entry, const TavroPlace& Now) {
    struct stat status = {};
    const int error = RenameTo(Now, Entry.Copy->From());
    if (error != 0 && TavroLookAt(Now, status) != ENOENT) {
        Entry.Copy->Report().Below.push_back(
            TavroFail(Kind::LiesAt, error, Entry.AskedFrom(), Now.Path()));
    }
}

void TavroTransferRun::FailToRename(TavroPendingEntry& Entry, int Error) {
    const bool bIntoItself = Error == EINVAL && Entry.Source.IsDirectory();
    const Kind kind = Error == ESTALE   ? Kind::Changed
                      : Error == EEXIST ? Kind::Taken
                      : Entry.bExchange ? Kind::Replace
                      : bIntoItself     ? Kind::MoveIntoItself
                                        : Kind::MoveTo;
    const bool bTo = kind == Kind::Taken || kind == Kind::Replace;
    Entry.Copy->Report().Failure = TavroFail(kind, kind == Kind::Changed ? 0 : Error,
                                             bTo ? Entry.AskedTo() : Entry.AskedFrom(),
                                             bTo ? Entry.AskedFrom() : Entry.AskedTo());
}

/// Of two mounts of one file system, or where one is a file system only in part.
void TavroTransferRun::RenameByCopying(TavroPendingEntry& Entry) {
    const TavroRoute way = {Entry.Copy->From(), Entry.Copy->To()};
    TavroMoveOptions options;
    options.bNamed = true;
    options.bSync = m_callbacks.bSync;
    options.NextName = Entry.NextName;
    Entry.bRename = false;
    Entry.Copy = std::make_unique<TavroStagedCopy>(way.From, way.To, options, m_links, m_progress);
    struct stat source = {};
    if (TavroLookAt(way.From, source) != 0 || !Entry.Copy->Stage(source)) {
        return;
    }
    m_changes.AddBytes(way.To.Directory);
    Entry.Hidden = Entry.Copy->StagedName();
    const int error = m_changes.Flush();
    Entries one;
    one.push_back(std::move(Entry));
    TavroFailure failure =
        error == 0 ? Journal(one) : TavroFail(Kind::Write, error, one[0].AskedTo());
    Entry = std::move(one[0]);
    if (failure) {
        Entry.Copy->GiveUp();
        Entry.Copy->Report().Failure = std::move(failure);
        return;
    }
    Entry.bDone = Entry.Copy->Publish(Entry.bExchange);
}

/// What was replaced, and has the hidden name now, goes to the trash.
void TavroTransferRun::TrashReplaced(TavroPendingEntry& Entry) {
    const TavroPlace old = {Entry.Copy->To().Directory, Entry.Hidden};
    TavroPlace item;
    TavroFailure failure = Entry.Trash->Find(m_places, Entry.OldName, item);
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
                  Entry.AskedTo(), old.Path()});
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
void TavroTransferRun::PutBack(TavroPendingEntry& Entry, const TavroFailure& Why) {
    const TavroPlace& to = Entry.Copy->To();
    const TavroPlace hidden = {to.Directory, Entry.Hidden};
    const int error =
        TavroExchange(hidden.Number(), hidden.Name.c_str(), to.Number(), to.Name.c_str());
    if (error != 0) {
        Fail({Kind::LiesAt, Why.Error, Entry.AskedTo(), hidden.Path()});
        return;
    }
    Entry.bDone = false;
    if (Entry.bRename) {
        RenameBack(Entry, hidden);
    } else {
        Entry.Copy->Withdraw(hidden.Name);
    }
    Entry.Copy->Report().Arrived = {};
    Entry.Copy->Report().Failure = {Kind::Replace, Why.Error, Entry.AskedTo(), Entry.AskedFrom()};
    DropClaim(Entry);
}

bool TavroTransferRun::NeedsFinish(const TavroPendingEntry& Entry) const {
    return (m_bMove && !Entry.bRename) || (Entry.bExchange && Entry.OldName.empty());
}

void TavroTransferRun::Finish(TavroPendingEntry& Entry) {
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
                  Entry.AskedTo(), old.Path()});
        }
    }
    Entry.Copy->Rest();
}

/// Takes over what became of an entry.
void TavroTransferRun::Note(TavroPendingEntry& Entry) {
    TavroMoveReport& report = Entry.Copy->Report();
    m_report.Lost += report.Lost;
    const std::string to = TavroPlace{Entry.Copy->To().Directory, report.Name}.Path();
    if (Entry.NextName && Entry.Item != nullptr) {
        Entry.Item->DestinationPath = to;
        Entry.Item->bDestinationRenamed = true;
    }
    if (Entry.bDone && (!report.Failure || report.bPartlyMoved)) {
        m_report.Done.push_back({Entry.AskedFrom(), to, Entry.bExchange, report.Arrived});
    }
    // It is in both places, in part at least, until a look at the operation settles it.
    m_report.bUnsettled = m_report.bUnsettled || report.bCopyStays;
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
        m_places.Forget(Entry.OwnFrom());
    }
}

/// What was in the way meanwhile is a conflict like any other.
void TavroTransferRun::TryAgain(Entries& Published) {
    std::vector<TavroMerge> merges = std::exchange(m_merges, {});
    for (TavroPendingEntry& entry : Published) {
        if (!entry.bAgain) {
            continue;
        }
        GiveUp(entry);
        if (TavroFailure failure = entry.Copy->Wake(m_places)) {
            Fail({Kind::Read, failure.Error, entry.AskedFrom()});
            continue;
        }
        const TavroRoute way = {entry.Copy->From(), entry.Copy->To()};
        if (m_tries == mostTries) {
            Fail(TavroFail(Kind::Taken, EEXIST, entry.AskedTo()));
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
void TavroTransferRun::Discard() {
    for (TavroPendingEntry& entry : m_pending) {
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
void TavroTransferRun::DropClaim(TavroPendingEntry& Entry) {
    if (!Entry.OldName.empty()) {
        Entry.Trash->Claims.Drop(TavroNameOf(Entry.OwnTo()), Entry.OldName);
        Entry.OldName.clear();
    }
}

/// Removes what waits, and reports what could not be removed.
void TavroTransferRun::GiveUp(TavroPendingEntry& Entry) {
    if (Entry.bRename) {
        return;
    }
    TavroMoveReport& report = Entry.Copy->Report();
    std::vector<TavroFailure>& below = report.Below;
    if (TavroFailure failure = Entry.Copy->GiveUp(m_places)) {
        below.push_back({Kind::RemoveIncompleteCopy, failure.Error,
                         TavroPlace{Entry.Copy->To().Directory, Entry.Copy->StagedName()}.Path()});
    }
    if (report.Failure.Kind == Kind::RemoveIncompleteCopy) {
        below.push_back(std::exchange(report.Failure, {}));
    }
    FailAll(below);
}
