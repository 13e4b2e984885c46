#include "trash_contents.h"

#include "guard.h"
#include "measure.h"
#include "names.h"
#include "remove.h"
#include "trash_record.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <tuple>
#include <unordered_set>

// =================================================================================================
// Listing
// =================================================================================================

namespace {

/// Anything else, joined to a directory, would name another entry than one in that directory.
bool IsPlainName(const std::string& Name) {
    return !Name.empty() && Name != "." && Name != ".." && Name.find('/') == std::string::npos &&
           Name.find('\0') == std::string::npos;
}

/// The names in a directory of the trash. One that does not exist has none.
TavroFailure ListNames(const TavroDescriptor& Directory, const std::string& Path,
                       std::vector<std::string>& OutNames) {
    TavroListing listing;
    const int error = Directory.IsOpen() ? TavroListDirectory(Directory.Number(), listing) : 0;
    if (error != 0) {
        // One that may not be listed is open for looking up names alone.
        return TavroFail(TavroFailureKind::ReadTrash, error == EBADF ? EACCES : error, Path);
    }
    while (const char* name = listing.Next()) {
        OutNames.emplace_back(name);
    }
    return {};
}

/// The names of what has a record, readable or not.
TavroFailure ListRecords(const TavroOpenTrash& Trash, std::vector<std::string>& OutNames) {
    std::vector<std::string> files;
    TavroFailure failure = ListNames(Trash.Info, Trash.Folders.Info, files);
    for (const std::string& file : files) {
        if (std::optional<std::string> name = TavroItemOfRecord(file)) {
            OutNames.push_back(std::move(*name));
        }
    }
    return failure;
}

/// Nothing when there is no such item, or no record of it that can be read.
std::optional<TavroTrashItem> ReadItem(const TavroOpenTrash& Trash,
                                       std::shared_ptr<const TavroTrashFolders> Folders,
                                       const std::string& Name) {
    struct stat status = {};
    // The item is looked at before its record: whatever takes both names after that is another.
    if (!IsPlainName(Name) || TavroStatAt(Trash.Files.Number(), Name.c_str(), status) != 0) {
        return std::nullopt;
    }
    std::optional<TavroTrashRecord> record =
        TavroReadRecord(Trash.Info.Number(), Name, Trash.Folders.Home);
    if (!record) {
        return std::nullopt;
    }
    TavroTrashItem item;
    item.Name = Name;
    item.OriginalPath = std::move(record->Path);
    item.DeletionDate = std::move(record->Date);
    item.RecordTime = record->WrittenAt;
    item.bDirectory = S_ISDIR(status.st_mode);
    item.ByteCount = S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    item.ChangeTime = TavroNanoseconds(status.st_ctim);
    item.bLink = S_ISLNK(status.st_mode);
    item.Identity = TavroIdentityOf(status);
    item.Folders = std::move(Folders);
    return item;
}

bool IsListedBefore(const TavroTrashItem& A, const TavroTrashItem& B) {
    return std::tie(B.DeletionDate, B.RecordTime, A.Name) <
           std::tie(A.DeletionDate, A.RecordTime, B.Name);
}

TavroFailure ListItems(const TavroOpenTrash& Trash, bool bMeasure,
                       const std::function<bool()>& ShouldCancel,
                       std::vector<TavroTrashItem>& OutItems) {
    const auto folders = std::make_shared<const TavroTrashFolders>(Trash.Folders);
    std::vector<std::string> names;
    TavroFailure failure = ListRecords(Trash, names);
    OutItems.reserve(names.size());
    for (const std::string& name : names) {
        if (ShouldCancel && ShouldCancel()) {
            failure = {TavroFailureKind::Cancelled};
            break;
        }
        std::optional<TavroTrashItem> item = ReadItem(Trash, folders, name);
        if (!item) {
            continue;
        }
        TavroMeasurement measured;
        if (bMeasure && item->bDirectory) {
            if (!TavroMeasureEntry(Trash.Files.Number(), name, ShouldCancel, measured)) {
                failure = {TavroFailureKind::Cancelled};
                break;
            }
            item->ByteCount = measured.ByteCount;
        }
        OutItems.push_back(std::move(*item));
    }
    std::sort(OutItems.begin(), OutItems.end(), IsListedBefore);
    return failure;
}

} // namespace

std::string TavroTrashItem::TrashPath() const {
    return TavroJoin(Folders->Files, Name);
}

TavroTrashedEntry TavroTrashItem::Trashed() const {
    const std::string record = TavroJoin(Folders->Info, TavroRecordName(Name));
    return {{OriginalPath, TrashPath(), record, bDirectory || bLink}, Identity};
}

TavroFailure TavroListTrash(bool bMeasure, const std::function<bool()>& ShouldCancel,
                            std::vector<TavroTrashItem>& OutItems) {
    TavroOpenTrash trash;
    OutItems.clear();
    TavroFailure failure = trash.Open();
    return failure ? failure : ListItems(trash, bMeasure, ShouldCancel, OutItems);
}

std::uint64_t TavroCountUnlistedItems(const std::vector<TavroTrashItem>& Listed) {
    TavroOpenTrash trash;
    std::vector<std::string> names;
    if (trash.Open() || ListNames(trash.Files, trash.Folders.Files, names)) {
        return 0;
    }
    std::unordered_set<std::string> listed;
    for (const TavroTrashItem& item : Listed) {
        listed.insert(item.Name);
    }
    return static_cast<std::uint64_t>(
        std::count_if(names.begin(), names.end(),
                      [&](const std::string& name) { return listed.count(name) == 0; }));
}

// =================================================================================================
// Finding
// =================================================================================================

TavroFailure TavroTrashIndex::List() {
    m_bListed = true;
    TavroFailure failure = ListItems(m_trash, false, {}, m_items);
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        const TavroTrashItem& item = m_items[i];
        m_byName[item.Name] = i;
        m_byPath[item.OriginalPath].insert(i);
        m_pathsByName[TavroNameOf(item.OriginalPath)].insert(item.OriginalPath);
    }
    return failure;
}

void TavroTrashIndex::Drop(const TavroTrashItem& Item) {
    const auto known = m_byName.find(Item.Name);
    if (known == m_byName.end()) {
        return;
    }
    const std::string& path = m_items[known->second].OriginalPath;
    const auto samePath = m_byPath.find(path);
    samePath->second.erase(known->second);
    if (samePath->second.empty()) {
        m_byPath.erase(samePath);
        m_pathsByName[TavroNameOf(path)].erase(path);
    }
    m_byName.erase(known);
}

/// The newest one from any of the paths that a text can mean.
const TavroTrashItem* TavroTrashIndex::FindByPath(const std::string& Text) const {
    std::size_t newest = m_items.size();
    for (const std::string& path : {Text, TavroNameEntry(Text).Path, TavroFindOwnPath(Text)}) {
        const auto found = m_byPath.find(path);
        newest = found == m_byPath.end() ? newest : std::min(newest, *found->second.begin());
    }
    return newest == m_items.size() ? nullptr : &m_items[newest];
}

TavroFailure TavroTrashIndex::Find(const std::string& Text, TavroTrashItem& OutItem) {
    TavroFailure failure = m_trash.Files.IsOpen() ? TavroFailure() : m_trash.Open();
    if (!failure) {
        const auto folders = std::make_shared<const TavroTrashFolders>(m_trash.Folders);
        if (std::optional<TavroTrashItem> item = ReadItem(m_trash, folders, Text)) {
            OutItem = std::move(*item);
            return {};
        }
        failure = m_bListed ? TavroFailure() : List();
    }
    if (failure) {
        return failure;
    }
    const TavroTrashItem* found = FindByPath(Text);
    const auto named = m_pathsByName.find(Text.substr(0, Text.find_last_not_of('/') + 1));
    if (found == nullptr && named != m_pathsByName.end() && named->second.size() == 1) {
        found = &m_items[*m_byPath.at(*named->second.begin()).begin()];
    }
    if (found != nullptr) {
        OutItem = *found;
        return {};
    }
    std::string places;
    if (named != m_pathsByName.end()) {
        for (const std::string& place : named->second) {
            places += (places.empty() ? "'" : ", '") + place + "'";
        }
    }
    return {places.empty() ? TavroFailureKind::NotInTrash : TavroFailureKind::SeveralNamed,
            {},
            Text,
            places};
}

// =================================================================================================
// Removing
// =================================================================================================

namespace {

/// One that is gone already counts as removed.
TavroFailure RemoveRecord(const TavroOpenTrash& Trash, const std::string& Name) {
    const std::string file = TavroRecordName(Name);
    const int error =
        Trash.Info.IsOpen() ? TavroUnlinkAt(Trash.Info.Number(), file.c_str()) : ENOENT;
    return error == 0 || error == ENOENT
               ? TavroFailure()
               : TavroFail(TavroFailureKind::Remove, error, TavroJoin(Trash.Folders.Info, file));
}

/// Removes items one after the other.
class Emptying {
public:
    /// @param bGoesOn  with what was interrupted.
    explicit Emptying(const TavroCallbacks& Callbacks, bool bGoesOn = false)
        : m_callbacks(Callbacks), m_bGoesOn(bGoesOn) {}

    TavroFailure Open();
    TavroFailure ListRecorded(std::vector<std::string>& OutNames) const;
    TavroFailure Announce(std::vector<TavroStep> Steps) const;
    TavroStep StepOf(const TavroTrashItem& Item) const;
    TavroStep StepOfAll() const;
    std::vector<TavroTrashItem> ItemsOf(const std::vector<TavroStep>& Steps) const;

    std::vector<std::string> NamesFrom(std::int64_t Before) const;

    /// @param Items  listed items, or the names of what has a record.
    template <typename Items> TavroFailure RemoveEach(const Items& All);

private:
    TavroFailure Remove(const TavroTrashItem& Item);
    TavroFailure Remove(const std::string& Name);
    TavroFailure RemoveItem(const struct stat& Status);
    bool IsClaimedByOther(const TavroTrashItem& Item) const;
    int Sync() const;

    const TavroCallbacks& m_callbacks;
    const bool m_bGoesOn;
    TavroOpenTrash m_trash;
    TavroPlace m_item;
    TavroGuard m_guard{TavroAct::Delete};
};

TavroFailure Emptying::Open() {
    TavroPlaces places;
    TavroFailure failure = m_trash.Open();
    if (!failure && m_trash.Files.IsOpen()) {
        failure = places.Find(TavroJoin(m_trash.Folders.Files, "item"), m_item);
        failure.Path = m_trash.Folders.Files;
    }
    return failure;
}

TavroFailure Emptying::ListRecorded(std::vector<std::string>& OutNames) const {
    return ListRecords(m_trash, OutNames);
}

/// Tells what goes, unless it is nothing.
TavroFailure Emptying::Announce(std::vector<TavroStep> Steps) const {
    const auto isNothing = [](const TavroStep& step) { return step.Identity.Inode == 0; };
    Steps.erase(std::remove_if(Steps.begin(), Steps.end(), isNothing), Steps.end());
    return m_callbacks.BeforeActs && !Steps.empty()
               ? m_callbacks.BeforeActs(TavroOperationKind::Empty, Steps)
               : TavroFailure();
}

TavroStep Emptying::StepOf(const TavroTrashItem& Item) const {
    TavroStep step{TavroStepRole::Deleted};
    struct stat status = {};
    if (m_item.Directory && IsPlainName(Item.Name) &&
        TavroStatWithBirthAt(m_item.Number(), Item.Name.c_str(), status, step.SourceTime) == 0) {
        step.From = TavroJoin(m_item.Directory->OwnPath, Item.Name);
        step.Identity = TavroIdentityOf(status);
        step.ChangeTime = Item.RecordTime;
    }
    return step;
}

/// One step for the whole trash: what has a record by now goes, and this tells it from what comes.
TavroStep Emptying::StepOfAll() const {
    TavroStep step{TavroStepRole::Deleted};
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &now); // the clock of records' times
    if (m_item.Directory) {
        step.From = m_item.Directory->OwnPath;
        step.Identity = m_item.Directory->Identity;
        step.ChangeTime = TavroNanoseconds(now);
    }
    return step;
}

/// The names of what has a record from before a moment.
std::vector<std::string> Emptying::NamesFrom(std::int64_t Before) const {
    std::vector<std::string> names;
    ListRecorded(names);
    const auto isLater = [&](const std::string& name) {
        const auto record = TavroReadRecord(m_trash.Info.Number(), name, m_trash.Folders.Home);
        return !record || record->WrittenAt >= Before;
    };
    names.erase(std::remove_if(names.begin(), names.end(), isLater), names.end());
    return names;
}

/// The items of steps that are still there, in part at least. Of one that is gone its record may
/// be.
std::vector<TavroTrashItem> Emptying::ItemsOf(const std::vector<TavroStep>& Steps) const {
    std::vector<TavroTrashItem> items;
    for (const TavroStep& step : Steps) {
        TavroTrashItem item;
        struct stat status = {};
        std::int64_t birth = 0;
        item.Name = TavroNameOf(step.From);
        item.RecordTime = step.ChangeTime;
        const int error = m_item.Directory ? TavroStatWithBirthAt(m_item.Number(),
                                                                  item.Name.c_str(), status, birth)
                                           : ENOENT;
        item.Identity = error == 0 ? TavroIdentityOf(status) : TavroIdentity();
        item.ChangeTime = TavroNanoseconds(status.st_ctim);
        if (IsClaimedByOther(item)) {
            continue; // it was restored, and trashed again
        }
        if (error != 0 || (status.st_ino == step.Identity.Inode && birth == step.SourceTime)) {
            // Where nobody can tell whether it is the same, it stays.
            item.ChangeTime = error == 0 && birth == 0 ? 0 : item.ChangeTime;
            items.push_back(std::move(item));
        }
    }
    return items;
}

template <typename Items> TavroFailure Emptying::RemoveEach(const Items& All) {
    TavroFailure first;
    for (const auto& item : All) {
        TavroFailure failure = m_callbacks.ShouldCancel && m_callbacks.ShouldCancel()
                                   ? TavroFailure{TavroFailureKind::Cancelled}
                                   : Remove(item);
        if (failure.Kind == TavroFailureKind::Cancelled) {
            first = std::move(failure);
            break;
        }
        first = first ? first : failure;
    }
    const int error = m_callbacks.bSync ? Sync() : 0;
    return first || error == 0
               ? first
               : TavroFail(TavroFailureKind::Remove, error, TavroFindTrashFolders().Files);
}

TavroFailure Emptying::Remove(const TavroTrashItem& Item) {
    struct stat status = {};
    if (!IsPlainName(Item.Name)) {
        return {TavroFailureKind::NoItemName, {}, Item.Name};
    }
    m_item.Name = Item.Name;
    const int error =
        m_item.Directory ? TavroStatAt(m_item.Number(), Item.Name.c_str(), status) : ENOENT;
    if (error == ENOENT) {
        return IsClaimedByOther(Item) ? TavroFailure() : RemoveRecord(m_trash, Item.Name);
    }
    if (error != 0) {
        return TavroFail(TavroFailureKind::Remove, error, m_item.Path());
    }
    if (Item.Identity.Inode != 0 && (Item.Identity != TavroIdentityOf(status) ||
                                     Item.ChangeTime != TavroNanoseconds(status.st_ctim))) {
        return {TavroFailureKind::ItemChanged, {}, Item.Name};
    }
    TavroFailure failure = RemoveItem(status);
    return failure ? failure : RemoveRecord(m_trash, Item.Name);
}

/// Removes an item unless its record cannot be read. A record without an item stays: the item may
/// be on its way, unless this goes on with what has removed it. Most items are files, so what
/// removes nothing else is tried before any look.
TavroFailure Emptying::Remove(const std::string& Name) {
    struct stat status = {};
    if (!m_item.Directory || !IsPlainName(Name) ||
        !TavroReadRecord(m_trash.Info.Number(), Name, m_trash.Folders.Home)) {
        return {};
    }
    m_item.Name = Name;
    TavroFailure failure;
    if (TavroUnlinkAt(m_item.Number(), Name.c_str()) != 0) {
        if (TavroStatAt(m_item.Number(), Name.c_str(), status) != 0) {
            return m_bGoesOn ? RemoveRecord(m_trash, Name) : TavroFailure();
        }
        failure = RemoveItem(status);
    }
    return failure ? failure : RemoveRecord(m_trash, Name);
}

TavroFailure Emptying::RemoveItem(const struct stat& Status) {
    if (S_ISDIR(Status.st_mode)) {
        TavroFailure failure = m_guard.Check(m_item, Status);
        return failure
                   ? failure
                   : TavroRemoveTree(m_item, {TavroIdentityOf(Status), m_callbacks.ShouldCancel});
    }
    const int error = TavroUnlinkAt(m_item.Number(), m_item.Name.c_str());
    return error == 0 || error == ENOENT
               ? TavroFailure()
               : TavroFail(TavroFailureKind::Remove, error, m_item.Path());
}

/// Brings it to the disk that items are gone, and then that their records are.
int Emptying::Sync() const {
    if (!m_trash.Info.IsOpen()) {
        return 0;
    }
    const bool bOneLog = TavroDiskOf(m_trash.Info.Number()) == TavroDisk::OrderedLog;
    const int error =
        bOneLog || !m_trash.Files.IsOpen() ? 0 : TavroSyncFileSystem(m_trash.Files.Number());
    return error != 0 ? error : TavroSync(m_trash.Info.Number());
}

/// The record of an item that is gone may be that of another one, which is on its way.
bool Emptying::IsClaimedByOther(const TavroTrashItem& Item) const {
    struct stat status = {};
    return Item.RecordTime != 0 &&
           TavroStatAt(m_trash.Info.Number(), TavroRecordName(Item.Name).c_str(), status) == 0 &&
           TavroNanoseconds(status.st_mtim) != Item.RecordTime;
}

} // namespace

TavroFailure TavroRemoveFromTrash(const std::vector<TavroTrashItem>& Items,
                                  const TavroCallbacks& Callbacks) {
    Emptying emptying(Callbacks);
    TavroFailure failure = emptying.Open();
    if (!failure && Callbacks.BeforeActs) {
        std::vector<TavroStep> steps;
        steps.reserve(Items.size());
        for (const TavroTrashItem& item : Items) {
            steps.push_back(emptying.StepOf(item));
        }
        failure = emptying.Announce(std::move(steps));
    }
    return failure ? failure : emptying.RemoveEach(Items);
}

TavroFailure TavroEmptyTrash(const TavroCallbacks& Callbacks) {
    Emptying emptying(Callbacks);
    std::vector<std::string> names;
    TavroFailure failure = emptying.Open();
    failure = failure ? failure : emptying.ListRecorded(names);
    failure = failure || names.empty() ? failure : emptying.Announce({emptying.StepOfAll()});
    return failure ? failure : emptying.RemoveEach(names);
}

TavroFailure TavroFinishEmptying(const std::vector<TavroStep>& Steps,
                                 const TavroCallbacks& Callbacks) {
    Emptying emptying(Callbacks, true);
    TavroFailure failure = emptying.Open();
    const std::string all = emptying.StepOfAll().From;
    if (failure || Steps.empty() || all.empty()) {
        return failure;
    }
    if (Steps[0].From == all) {
        return emptying.RemoveEach(emptying.NamesFrom(Steps[0].ChangeTime));
    }
    return TavroParentOf(Steps[0].From) == all
               ? emptying.RemoveEach(emptying.ItemsOf(Steps))
               : TavroFailure{TavroFailureKind::NotInTrash, {}, Steps[0].From};
}

std::vector<TavroTrashItem> TavroItemsOlderThan(std::vector<TavroTrashItem> Items, int Days) {
    const double limit = 86400.0 * Days;
    const std::time_t now = std::time(nullptr);
    const auto isYoung = [&](const TavroTrashItem& item) {
        const std::optional<std::time_t> time = TavroTimeOfDate(item.DeletionDate);
        return !time || std::difftime(now, *time) <= limit;
    };
    Items.erase(std::remove_if(Items.begin(), Items.end(), isYoung), Items.end());
    return Items;
}

// =================================================================================================
// Examining and mending
// =================================================================================================

TavroFailure TavroExamineTrash(std::vector<TavroTrashFinding>& OutFindings) {
    TavroOpenTrash trash;
    std::vector<std::string> records;
    std::vector<std::string> items;
    OutFindings.clear();
    TavroFailure failure = trash.Open();
    failure = failure ? failure : ListRecords(trash, records);
    failure = failure ? failure : ListNames(trash.Files, trash.Folders.Files, items);
    if (failure) {
        return failure;
    }
    std::sort(records.begin(), records.end());
    std::sort(items.begin(), items.end());
    for (const std::string& name : items) {
        if (!std::binary_search(records.begin(), records.end(), name)) {
            OutFindings.push_back(
                {TavroTrashFault::ItemWithoutRecord, TavroJoin(trash.Folders.Files, name)});
        }
    }
    for (const std::string& name : records) {
        const std::string path = TavroJoin(trash.Folders.Info, TavroRecordName(name));
        if (!TavroReadRecord(trash.Info.Number(), name, trash.Folders.Home)) {
            OutFindings.push_back({TavroTrashFault::UnreadableRecord, path});
        } else if (!std::binary_search(items.begin(), items.end(), name)) {
            OutFindings.push_back({TavroTrashFault::RecordWithoutItem, path});
        }
    }
    return {};
}

std::string TavroDescribe(const TavroTrashFinding& Finding) {
    constexpr const char* ends[] = {" has no record of where it came from",
                                    " is the record of an entry that is not in the trash",
                                    " does not tell where its entry came from"};
    return "'" + Finding.Path + "'" + ends[static_cast<int>(Finding.Fault)];
}

namespace {

/// The name of the item that a finding is about; nothing when the finding is not about the trash.
std::optional<std::string> ItemNameOf(const TavroTrashFinding& Finding,
                                      const TavroTrashFolders& Folders) {
    const std::string file = TavroNameOf(Finding.Path);
    const std::string directory = TavroParentOf(Finding.Path);
    if (Finding.Fault != TavroTrashFault::ItemWithoutRecord) {
        return directory == Folders.Info ? TavroItemOfRecord(file) : std::nullopt;
    }
    return directory == Folders.Files && IsPlainName(file) ? std::optional<std::string>(file)
                                                           : std::nullopt;
}

/// Gives an item a record as of the home directory, and before that, if need be, a name that leaves
/// room for the record's.
TavroFailure RecordAnew(const TavroOpenTrash& Trash, const std::string& Name) {
    const std::string original = TavroJoin(Trash.Folders.Home, Name);
    mode_t mode = 0;
    if (Name.size() <= TavroLongestTrashName) {
        return TavroCreateRecord(Trash, Name, TavroRecordText(original, std::time(nullptr)), mode);
    }
    TavroTrashClaims claims(Trash);
    std::string shorter;
    if (TavroFailure failure = claims.Claim(Name, original, shorter)) {
        return failure;
    }
    const int files = Trash.Files.Number();
    const int error = TavroRenameNoReplace(files, Name.c_str(), files, shorter.c_str());
    if (error == 0) {
        return {};
    }
    claims.Drop(Name, shorter);
    return TavroFail(TavroFailureKind::ShortenName, error, TavroJoin(Trash.Folders.Files, Name));
}

/// How many names are tried for a record that is set aside.
constexpr std::uint64_t tries = 10000;

/// Sets an unreadable record aside, since it may still tell a person something.
TavroFailure SetAside(const TavroOpenTrash& Trash, const std::string& Name) {
    const std::string file = TavroRecordName(Name);
    const int info = Trash.Info.Number();
    int error = EEXIST;
    for (std::uint64_t i = 0; error == EEXIST && i < tries; ++i) {
        const std::string aside = TavroNumberedName("unreadable record", i);
        error = TavroRenameNoReplace(info, file.c_str(), info, aside.c_str());
    }
    return error == 0 ? TavroFailure()
                      : TavroFail(TavroFailureKind::SetRecordAside, error,
                                  TavroJoin(Trash.Folders.Info, file));
}

} // namespace

TavroFailure TavroMendTrash(const TavroTrashFinding& Finding) {
    TavroOpenTrash trash;
    TavroFailure failure = trash.Open();
    const std::optional<std::string> name = ItemNameOf(Finding, trash.Folders);
    if (!name || failure.Kind == TavroFailureKind::NoHome) {
        return {TavroFailureKind::NotInTrash, {}, Finding.Path};
    }
    struct stat status = {};
    const int error = IsPlainName(*name) && trash.Files.IsOpen()
                          ? TavroStatAt(trash.Files.Number(), name->c_str(), status)
                          : ENOENT;
    if (failure || (error != 0 && error != ENOENT)) {
        return failure ? failure
                       : TavroFail(TavroFailureKind::LookAt, error,
                                   TavroJoin(trash.Folders.Files, *name));
    }
    const bool bRecord =
        TavroStatAt(trash.Info.Number(), TavroRecordName(*name).c_str(), status) == 0;
    if (Finding.Fault == TavroTrashFault::ItemWithoutRecord) {
        return error != 0 || bRecord ? TavroFailure() : RecordAnew(trash, *name);
    }
    if (!bRecord ||
        (error == 0 && TavroReadRecord(trash.Info.Number(), *name, trash.Folders.Home))) {
        return {};
    }
    if (error != 0) {
        return RemoveRecord(trash, *name);
    }
    failure = SetAside(trash, *name);
    return failure ? failure : RecordAnew(trash, *name);
}
