#include "transfer.h"

#include "guard.h"
#include "measure.h"
#include "move.h"
#include "names.h"
#include "place.h"
#include "remove.h"
#include "tavropane.h"

#include <cerrno>
#include <fcntl.h>
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

int RenameWithin(const TavroDirectory& Directory, const std::string& From, const std::string& To) {
    const int number = Directory.Descriptor.Number();
    return TavroRenameNoReplace(number, From.c_str(), number, To.c_str());
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

/// Options that take the next free name beside a place as often as one is taken.
/// @param Names  kept by reference, as is the place.
TavroMoveOptions ToFreeName(const TavroPlace& Place, TavroFreeNames& Names) {
    TavroMoveOptions options;
    options.NextName = [&] {
        const TavroIdentity& which = Place.Directory->Identity;
        return Names.Choose(std::to_string(which.Device) + ':' + std::to_string(which.Inode),
                            Place.Name, [&](const std::string& name) {
                                struct stat status = {};
                                return Look({Place.Directory, name}, status) == 0;
                            });
    };
    return options;
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
        m_directories += Arrived.IsDirectory() ? 1 : 0;
        IsAnyAbove(Place,
                   [&](const TavroIdentity& above) { return !m_holders.insert(above).second; });
    }

    /// Whether what is at a place was put there, by itself or with a directory that it is in.
    bool Includes(const TavroPlace& Place, const TavroIdentity& There) {
        if (m_work.count(There) != 0 || m_directories == 0) {
            return m_work.count(There) != 0;
        }
        const TavroIdentity& directory = Place.Directory->Identity;
        if (m_asked != directory || m_askedAt != m_directories) {
            m_asked = directory;
            m_askedAt = m_directories;
            m_bAnswer = IsAnyAbove(
                Place, [&](const TavroIdentity& above) { return m_work.count(above) != 0; });
        }
        return m_bAnswer;
    }

    bool IsIn(const TavroIdentity& Directory) const {
        return m_holders.count(Directory) != 0;
    }

private:
    std::unordered_set<TavroIdentity> m_work;
    std::unordered_set<TavroIdentity> m_holders; ///< All directories above it.
    std::size_t m_directories = 0;               ///< How many of it are directories.
    TavroIdentity m_asked;                       ///< The last directory that was asked about,
    std::size_t m_askedAt = 0;                   ///< at how many directories,
    bool m_bAnswer = false;                      ///< and the answer.
};

// =================================================================================================
// Items
// =================================================================================================

/// How often an entry is looked at whose destination appears and vanishes all the time.
constexpr int mostLooks = 10;

/// One transfer on its way.
class Transfer {
public:
    Transfer(const TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
             TavroTransferReport& OutReport)
        : m_bMove(Plan.bMove), m_report(OutReport), m_progress(Callbacks),
          m_judge(Plan.ConflictPolicy, Callbacks.OnConflict) {}

    void Run(std::vector<TavroTransferItemPlan>& Items);

private:
    bool CheckGuard(const std::vector<TavroTransferItemPlan>& Items);
    bool Measure(std::vector<TavroTransferItemPlan>& Items);
    bool FindPlaces(const TavroTransferItemPlan& Item, Route& OutRoute);
    void CarryOutItem(TavroTransferItemPlan& Item);

    void TransferEntry(const Route& Way, TavroTransferItemPlan* Item = nullptr);
    bool TryEntry(const Route& Way, TavroTransferItemPlan* Item);
    void SettleConflict(const Route& Way, const struct stat& Source, const struct stat& There,
                        TavroTransferItemPlan* Item);
    bool Bring(const Route& Way, bool bReplace);
    void KeepBoth(const Route& Way, TavroTransferItemPlan* Item);
    TavroMoveReport Carry(const Route& Way, TavroMoveOptions Options);
    void Note(const Route& Way, bool bReplaced, TavroMoveReport& Report);

    bool BeginMerge(const Route& Way);
    void FinishMerges(const TavroPlace& Item);
    void RemoveEmptied(const TavroPlace& Place, const TavroIdentity& Expected);

    void Replace(const Route& Way, bool bSourceDirectory, const struct stat& Old);
    void ReplaceByExchange(const Route& Way, const TavroIdentity& Old);
    int PutInPlace(const TavroPlace& Beside, const TavroPlace& To, std::string& OutOldName);
    void TakeBack(const Route& Back, const TavroIdentity& Arrived);
    void RemoveReplaced(const TavroPlace& To, const std::string& OldName, const TavroIdentity& Old);

    bool IsCancelled() {
        m_report.bCancelled = m_report.bCancelled || m_progress.ShouldCancel();
        return m_report.bCancelled;
    }

    /// @return true: the entry is dealt with.
    bool Fail(TavroFailure Failure) {
        m_report.Failed.push_back(std::move(Failure));
        return true;
    }

    const bool m_bMove;
    TavroTransferReport& m_report;
    TavroProgressTeller m_progress;
    TavroConflictJudge m_judge;
    TavroPlaces m_places;
    TavroHardLinks m_links;
    TavroFreeNames m_freeNames;
    OwnWork m_ownWork;
    std::optional<TavroGuard> m_deletion; ///< Guards what is replaced.
    std::vector<Merge> m_merges;          ///< The innermost last.
    bool m_bExpectTaken = false;          ///< The last place that was looked at was taken.
    std::uint64_t m_itemsFinished = 0;
    std::uint64_t m_bytesFinished = 0;
};

void Transfer::Run(std::vector<TavroTransferItemPlan>& Items) {
    if (CheckGuard(Items) && Measure(Items)) {
        for (TavroTransferItemPlan& item : Items) {
            CarryOutItem(item);
        }
    }
    m_progress.Tell();
}

bool Transfer::CheckGuard(const std::vector<TavroTransferItemPlan>& Items) {
    if (!m_bMove) {
        return true;
    }
    TavroGuard guard(TavroAct::Move);
    for (const TavroTransferItemPlan& item : Items) {
        TavroPlace place;
        struct stat status = {};
        TavroFailure refusal;
        if (!m_places.Find(item.SourcePath.string(), place) && Look(place, status) == 0) {
            refusal = guard.Check(place, status);
        }
        if (refusal) {
            Fail(std::move(refusal));
        }
    }
    return m_report.Failed.empty();
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

/// Finds where an item is and is to go. Missing directories above its destination are created,
/// unless it could not go there.
bool Transfer::FindPlaces(const TavroTransferItemPlan& Item, Route& OutRoute) {
    const std::string destination = Item.DestinationPath.string();
    TavroFailure failure = m_places.Find(Item.SourcePath.string(), OutRoute.From);
    if (failure) {
        return !Fail({Kind::Read, failure.Error, std::move(failure.Path)});
    }
    failure = m_places.Find(destination, OutRoute.To);
    const std::string own = failure ? TavroFindOwnPath(destination) : OutRoute.To.OwnPath();
    struct stat status = {};
    if (TavroIsBelow(OutRoute.From.OwnPath(), own) && Look(OutRoute.From, status) == 0 &&
        S_ISDIR(status.st_mode)) {
        return !Fail(
            {m_bMove ? Kind::MoveIntoItself : Kind::CopyIntoItself, {}, OutRoute.From.Path()});
    }
    if (failure) {
        failure =
            m_places.FindOrCreate(destination, 0777, m_report.CreatedDirectories, OutRoute.To);
    }
    if (failure.Kind == Kind::LookAt) {
        failure = {Kind::CreateDirectory, failure.Error, TavroParentOf(destination)};
    }
    return !failure || !Fail(std::move(failure));
}

void Transfer::CarryOutItem(TavroTransferItemPlan& Item) {
    Route way;
    if (IsCancelled()) {
        return;
    }
    if (TavroIsCddaPath(Item.SourcePath.string())) {
        Fail({Kind::AudioTrack, {}, Item.SourcePath.string()});
    } else if (FindPlaces(Item, way)) {
        TransferEntry(way, &Item);
        FinishMerges(way.From);
    }
    if (!m_report.bCancelled) {
        m_itemsFinished += Item.ItemCount;
        m_bytesFinished += Item.ByteCount;
        m_progress.Reach(m_itemsFinished, m_bytesFinished);
    }
}

// =================================================================================================
// Entries
// =================================================================================================

/// @param Item  the planned item that this entry is; null for an entry of a merged directory.
void Transfer::TransferEntry(const Route& Way, TavroTransferItemPlan* Item) {
    m_progress.Begin([&] { return Way.From.Path(); });
    for (int looks = 0; looks < mostLooks; ++looks) {
        if (IsCancelled() || TryEntry(Way, Item)) {
            return;
        }
    }
    Fail(TavroFail(Kind::Taken, EEXIST, Way.To.Path()));
}

/// @return false when the destination is not any more what it was a moment ago, be it that another
///         transfer was quicker.
bool Transfer::TryEntry(const Route& Way, TavroTransferItemPlan* Item) {
    struct stat source = {};
    struct stat there = {};
    if (!m_bExpectTaken && Bring(Way, false)) {
        return true;
    }
    m_bExpectTaken = Look(Way.To, there) == 0;
    if (!m_bExpectTaken) {
        return Bring(Way, false);
    }
    const int error = Look(Way.From, source);
    if (error != 0) {
        return Fail(TavroFail(Kind::Read, error, Way.From.Path()));
    }
    if (TavroIdentityOf(source) == TavroIdentityOf(there)) {
        return Fail({Kind::SameEntry, {}, Way.From.Path(), Way.To.Path()});
    }
    if (S_ISDIR(source.st_mode) && S_ISDIR(there.st_mode)) {
        return BeginMerge(Way);
    }
    SettleConflict(Way, source, there, Item);
    return true;
}

void Transfer::SettleConflict(const Route& Way, const struct stat& Source, const struct stat& There,
                              TavroTransferItemPlan* Item) {
    const bool bDirectory = S_ISDIR(Source.st_mode);
    switch (m_judge.Judge({Way.From.Path(), Way.To.Path(), bDirectory, S_ISDIR(There.st_mode)})) {
    case TavroConflictChoice::Overwrite:
        Replace(Way, bDirectory, There);
        break;
    case TavroConflictChoice::Skip:
        m_report.Skipped.push_back(Way.From.Path());
        break;
    case TavroConflictChoice::KeepBoth:
        KeepBoth(Way, Item);
        break;
    case TavroConflictChoice::Stop:
        m_report.bCancelled = true;
        break;
    }
}

/// @return false when something is at the destination.
bool Transfer::Bring(const Route& Way, bool bReplace) {
    TavroMoveOptions options;
    options.bReplace = bReplace;
    TavroMoveReport report = Carry(Way, std::move(options));
    // Whatever else failed, what is in the way comes first.
    struct stat there = {};
    const bool bMayBeTaken =
        report.Failure && report.Failure.Kind != Kind::Cancelled && !bReplace && !report.bCopyStays;
    if (report.Failure.Kind == Kind::Taken || (bMayBeTaken && Look(Way.To, there) == 0)) {
        return false;
    }
    Note(Way, bReplace, report);
    return true;
}

void Transfer::KeepBoth(const Route& Way, TavroTransferItemPlan* Item) {
    const TavroMoveOptions options = ToFreeName(Way.To, m_freeNames);
    Route free = {Way.From, {Way.To.Directory, options.NextName()}};
    TavroMoveReport report = Carry(free, options);
    free.To.Name = report.Name.empty() ? free.To.Name : report.Name;
    Note(free, false, report);
    if (Item != nullptr) {
        Item->DestinationPath = free.To.Path();
        Item->bDestinationRenamed = true;
    }
}

TavroMoveReport Transfer::Carry(const Route& Way, TavroMoveOptions Options) {
    Options.bCopy = !m_bMove;
    return TavroBringEntry(Way.From, Way.To, Options, m_links, m_progress);
}

/// Takes over what became of an entry.
void Transfer::Note(const Route& Way, bool bReplaced, TavroMoveReport& Report) {
    m_report.Lost.AccessLists += Report.Lost.AccessLists;
    m_report.Lost.ExtendedAttributes += Report.Lost.ExtendedAttributes;
    if (!Report.Failure || Report.bPartlyMoved) {
        m_report.Done.push_back({Way.From.Path(), Way.To.Path(), bReplaced, Report.Arrived});
    }
    if (Report.Failure.Kind == Kind::Cancelled) {
        m_report.bCancelled = true;
    } else if (Report.Failure) {
        Fail(std::move(Report.Failure));
    }
    for (TavroFailure& failure : Report.Below) {
        Fail(std::move(failure));
    }
    if (Report.Arrived.Identity.Inode != 0) {
        m_ownWork.Add(Way.To, Report.Arrived);
    }
    if (m_bMove && Report.Arrived.IsDirectory()) {
        m_places.Forget(Way.From.OwnPath());
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
    error = error != 0 ? error : TavroListDirectory(merge.From->Descriptor.Number(), merge.Names);
    if (error != 0) {
        return Fail(TavroFail(Kind::Read, error, Way.From.Path()));
    }
    if (merge.From->Identity == merge.To->Identity) {
        return Fail({Kind::SameEntry, {}, Way.From.Path(), Way.To.Path()});
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
    while (!m_merges.empty() && !m_report.bCancelled) {
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
            RemoveEmptied({bOutermost ? Item.Directory : m_merges.back().From, left.Name},
                          left.From->Identity);
        }
    }
    m_merges.clear();
}

/// What was skipped or failed is still in it, and then it stays.
void Transfer::RemoveEmptied(const TavroPlace& Place, const TavroIdentity& Expected) {
    struct stat status = {};
    int error = Look(Place, status);
    if (error == 0 && TavroIdentityOf(status) != Expected) {
        Fail({Kind::Changed, {}, Place.Path()});
        return;
    }
    error = error != 0 ? error : TavroRemoveDirectoryAt(Place.Number(), Place.Name.c_str());
    if (error == 0) {
        m_report.RemovedDirectories.push_back({Place.Path(), status.st_mode & 07777U});
        m_places.Forget(Place.OwnPath());
    } else if (error != ENOTEMPTY && error != EEXIST) {
        Fail(TavroFail(Kind::RemoveEmptied, error, Place.Path()));
    }
}

// =================================================================================================
// Replacing
// =================================================================================================

void Transfer::Replace(const Route& Way, bool bSourceDirectory, const struct stat& Old) {
    const TavroIdentity old = TavroIdentityOf(Old);
    const bool bDirectory = S_ISDIR(Old.st_mode);
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
    } else if (bSourceDirectory || bDirectory) {
        ReplaceByExchange(Way, old);
    } else {
        Bring(Way, true); // one rename: one of both is there at every moment
    }
}

/// A directory is neither replaced by one rename nor replaces anything by one. The new entry comes
/// beside the old one under a free name, for all to see while it may be the only one; then both
/// exchange their names, and the old one goes.
void Transfer::ReplaceByExchange(const Route& Way, const TavroIdentity& Old) {
    TavroFreeNames names;
    const TavroMoveOptions options = ToFreeName(Way.To, names);
    TavroPlace beside = {Way.To.Directory, options.NextName()};
    TavroMoveReport report = Carry({Way.From, beside}, options);
    beside.Name = report.Name.empty() ? beside.Name : report.Name;
    if (report.Failure && !report.bPartlyMoved) {
        Note({Way.From, beside}, false, report);
        return;
    }
    std::string oldName = beside.Name;
    const int error = PutInPlace(beside, Way.To, oldName);
    if (error != 0) {
        Fail(TavroFail(Kind::Replace, error, Way.To.Path()));
        if (report.bPartlyMoved) {
            Note({Way.From, beside}, false, report);
        } else {
            TakeBack({beside, Way.From}, report.Arrived.Identity);
        }
        return;
    }
    Note(Way, true, report);
    m_places.Forget(Way.To.OwnPath());
    RemoveReplaced(Way.To, oldName, Old);
}

/// Gives what lies beside a place the name of the place, and what is there another one.
/// @param OutOldName  set to it when that is not the name that lay beside.
/// @return 0, or the error number; all is as it was then, or it is said what is not.
int Transfer::PutInPlace(const TavroPlace& Beside, const TavroPlace& To, std::string& OutOldName) {
    int error = TavroExchange(To.Number(), Beside.Name.c_str(), To.Number(), To.Name.c_str());
    if (error != EINVAL && error != ENOSYS) {
        return error;
    }
    // The file system cannot exchange: the old entry steps aside.
    const TavroPlace aside = {To.Directory, TavroStagingName()};
    error = RenameWithin(*To.Directory, To.Name, aside.Name);
    if (error != 0) {
        return error;
    }
    error = RenameWithin(*To.Directory, Beside.Name, To.Name);
    const int back = error != 0 ? RenameWithin(*To.Directory, aside.Name, To.Name) : 0;
    if (back != 0) {
        Fail(TavroFail(Kind::OldEntryLiesAt, back, To.Path(), aside.Path()));
    }
    OutOldName = aside.Name;
    return error;
}

/// What could not take its place goes back to where it was.
void Transfer::TakeBack(const Route& Back, const TavroIdentity& Arrived) {
    TavroFailure failure;
    if (m_bMove) {
        TavroMoveOptions options;
        options.Expected = Arrived;
        failure = Carry(Back, std::move(options)).Failure;
    } else {
        failure = TavroRemoveTree(Back.From, {Arrived});
    }
    if (failure) {
        Fail({m_bMove ? Kind::OldEntryLiesAt : Kind::RemoveIncompleteCopy, failure.Error,
              m_bMove ? Back.To.Path() : Back.From.Path(), Back.From.Path()});
    }
}

/// Removes what was replaced, once what replaced it has reached the disk.
void Transfer::RemoveReplaced(const TavroPlace& To, const std::string& OldName,
                              const TavroIdentity& Old) {
    const std::string hidden = TavroStagingName();
    const bool bHidden = RenameWithin(*To.Directory, OldName, hidden) == 0;
    const TavroPlace old = {To.Directory, bHidden ? hidden : OldName};
    TavroFailure failure = TavroFail(Kind::Remove, TavroSyncFileSystem(To.Number()), "");
    if (!failure.Error) {
        failure = TavroRemoveTree(old, {Old});
    }
    if (failure) {
        Fail({Kind::ReplacedLiesAt,
              failure.Error ? failure.Error : TavroFail(Kind::Changed, ESTALE, "").Error, To.Path(),
              old.Path()});
    }
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
