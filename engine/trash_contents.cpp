#include "trash_contents.h"

#include "directory_sizes.h"
#include "guard.h"
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

/// The names in a directory of the trash. One that does not exist has none.
TavroFailure ListNames(const TavroDescriptor& Directory, const std::string& Path,
                       std::vector<std::string>& OutNames) {
    TavroListing listing;
    const int error = Directory.IsOpen() ? TavroListDirectory(Directory.Number(), listing) : 0;
    if (error != 0) {
        // One that may not be listed is open for looking up names alone.
        return TavroFail(TavroFailureKind::Read, error == EBADF ? EACCES : error, Path);
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
    if (!TavroIsPlainName(Name) || TavroStatAt(Trash.Files.Number(), Name.c_str(), status) != 0) {
        return std::nullopt;
    }
    std::optional<TavroTrashRecord> record = TavroReadRecord(Trash, Name);
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
    return std::tie(B.DeletionDate, B.RecordTime, A.Name, A.Folders->Root) <
           std::tie(A.DeletionDate, A.RecordTime, B.Name, B.Folders->Root);
}

TavroFailure ListItems(const TavroOpenTrash& Trash, const std::function<bool()>& ShouldCancel,
                       std::vector<TavroTrashItem>& OutItems) {
    const auto folders = std::make_shared<const TavroTrashFolders>(Trash.Folders);
    std::vector<std::string> names;
    TavroFailure failure = ListRecords(Trash, names);
    OutItems.reserve(OutItems.size() + names.size());
    for (const std::string& name : names) {
        if (ShouldCancel && ShouldCancel()) {
            failure = {TavroFailureKind::Cancelled};
            break;
        }
        if (std::optional<TavroTrashItem> item = ReadItem(Trash, folders, name)) {
            OutItems.push_back(std::move(*item));
        }
    }
    return failure;
}

} // namespace

std::string TavroTrashItem::TrashPath() const {
    return TavroJoin(Folders->Files, Name);
}

TavroTrashedEntry TavroTrashItem::Trashed() const {
    const std::string record = TavroJoin(Folders->Info, TavroRecordName(Name));
    return {{OriginalPath, TrashPath(), record, bDirectory || bLink},
            Identity,
            {},
            Folders->bVolume ? Folders->Base : std::string()};
}

TavroFailure TavroListTrash(const std::function<bool()>& ShouldCancel,
                            std::vector<TavroTrashItem>& OutItems,
                            const TavroWhichTrashes& Trashes) {
    TavroFailure first;
    OutItems.clear();
    for (const TavroTrashFolders& folders : Trashes) {
        TavroOpenTrash trash;
        TavroFailure failure = trash.Open(folders);
        failure = failure ? failure : ListItems(trash, ShouldCancel, OutItems);
        first = first ? first : failure;
        if (failure.Kind == TavroFailureKind::Cancelled) {
            first = std::move(failure);
            break;
        }
    }
    std::sort(OutItems.begin(), OutItems.end(), IsListedBefore);
    return first;
}

std::uint64_t TavroCountUnlistedItems(const std::vector<TavroTrashItem>& Listed,
                                      const TavroWhichTrashes& Trashes) {
    std::unordered_set<std::string> listed;
    for (const TavroTrashItem& item : Listed) {
        listed.insert(item.TrashPath());
    }
    std::uint64_t count = 0;
    for (const TavroTrashFolders& folders : Trashes) {
        TavroOpenTrash trash;
        std::vector<std::string> names;
        if (!trash.Open(folders)) {
            ListNames(trash.Files, folders.Files, names);
        }
        for (const std::string& name : names) {
            count += 1 - listed.count(TavroJoin(folders.Files, name));
        }
    }
    return count;
}

// =================================================================================================
// Finding
// =================================================================================================

TavroFailure TavroTrashIndex::List() {
    m_bListed = true;
    TavroFailure failure = TavroListTrash({}, m_items, m_trashes);
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        const TavroTrashItem& item = m_items[i];
        m_byTrashPath[item.TrashPath()] = i;
        m_byPath[item.OriginalPath].insert(i);
        m_pathsByName[TavroNameOf(item.OriginalPath)].insert(item.OriginalPath);
    }
    return failure;
}

void TavroTrashIndex::Drop(const TavroTrashItem& Item) {
    const auto known = m_byTrashPath.find(Item.TrashPath());
    if (known == m_byTrashPath.end()) {
        return;
    }
    const std::string& path = m_items[known->second].OriginalPath;
    const auto samePath = m_byPath.find(path);
    samePath->second.erase(known->second);
    if (samePath->second.empty()) {
        m_byPath.erase(samePath);
        m_pathsByName[TavroNameOf(path)].erase(path);
    }
    m_byTrashPath.erase(known);
}

TavroFailure TavroCheckOnePath(const std::string& Word, const std::set<std::string>& Paths) {
    std::string text;
    for (const std::string& path : Paths) {
        text += (text.empty() ? "'" : ", '") + path + "'";
    }
    return Paths.size() < 2 ? TavroFailure()
                            : TavroFailure{TavroFailureKind::SeveralNamed, {}, Word, text};
}

/// The item of a name in the trash. Several trashes can have one.
TavroFailure TavroTrashIndex::FindByName(const std::string& Name,
                                         std::optional<TavroTrashItem>& OutItem) {
    std::set<std::string> places;
    if (m_open.empty()) {
        std::vector<TavroOpenTrash> open(m_trashes.size());
        for (std::size_t i = 0; i < open.size(); ++i) {
            if (TavroFailure failure = open[i].Open(m_trashes[i])) {
                return failure;
            }
        }
        m_open = std::move(open);
    }
    for (const TavroOpenTrash& trash : m_open) {
        const auto folders = std::make_shared<const TavroTrashFolders>(trash.Folders);
        if (std::optional<TavroTrashItem> item = ReadItem(trash, folders, Name)) {
            places.insert(item->OriginalPath);
            OutItem = !OutItem || IsListedBefore(*item, *OutItem) ? std::move(item) : OutItem;
        }
    }
    return TavroCheckOnePath(Name, places);
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
    std::optional<TavroTrashItem> named;
    TavroFailure failure = FindByName(Text, named);
    if (!failure && named) {
        OutItem = std::move(*named);
        return {};
    }
    failure = failure || m_bListed ? failure : List();
    if (failure) {
        return failure;
    }
    const TavroTrashItem* found = FindByPath(Text);
    const auto paths = m_pathsByName.find(Text.substr(0, Text.find_last_not_of('/') + 1));
    const std::set<std::string> places =
        paths == m_pathsByName.end() ? std::set<std::string>() : paths->second;
    if (found == nullptr && places.size() == 1) {
        found = &m_items[*m_byPath.at(*places.begin()).begin()];
    }
    if (found != nullptr) {
        OutItem = *found;
        return {};
    }
    if (!places.empty()) {
        return TavroCheckOnePath(Text, places);
    }
    for (const TavroOpenTrash& trash : m_open) {
        struct stat status = {};
        if (TavroIsPlainName(Text) &&
            TavroStatAt(trash.Files.Number(), Text.c_str(), status) == 0) {
            return {TavroFailureKind::OriginUnknown, {}, TavroJoin(trash.Folders.Files, Text)};
        }
    }
    return {TavroFailureKind::NotInTrash, {}, Text};
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

    TavroFailure Open(const TavroTrashFolders& Which);
    TavroFailure ListRecorded(std::vector<std::string>& OutNames) const;
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
    bool m_bDirectories = false; ///< Some of what was removed were directories.
};

TavroFailure Emptying::Open(const TavroTrashFolders& Which) {
    TavroPlaces places;
    struct stat status = {};
    TavroFailure failure = m_trash.Open(Which);
    if (!failure && m_trash.Files.IsOpen()) {
        failure = places.Find(TavroJoin(m_trash.Folders.Files, "item"), m_item);
        failure.Path = m_trash.Folders.Files;
    }
    if (!failure && m_item.Directory) {
        const int error = TavroStat(m_trash.Files.Number(), status);
        if (error != 0 || TavroIdentityOf(status) != m_item.Directory->Identity) {
            failure = TavroFail(TavroFailureKind::Read, error != 0 ? error : ESTALE,
                                m_trash.Folders.Files);
        }
    }
    return failure;
}

TavroFailure Emptying::ListRecorded(std::vector<std::string>& OutNames) const {
    return ListRecords(m_trash, OutNames);
}

TavroStep Emptying::StepOf(const TavroTrashItem& Item) const {
    TavroStep step{TavroStepRole::Deleted};
    struct stat status = {};
    if (m_item.Directory && TavroIsPlainName(Item.Name) &&
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
        struct stat status = {};
        TavroStatWithBirthAt(m_trash.Files.Number(), ".", status, step.SourceTime);
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
        const auto record = TavroReadRecord(m_trash, name);
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
    if (m_bDirectories) {
        TavroKeepDirectorySizes(m_trash);
    }
    const int error = m_callbacks.bSync ? Sync() : 0;
    return first || error == 0 ? first
                               : TavroFail(TavroFailureKind::Remove, error, m_trash.Folders.Files);
}

TavroFailure Emptying::Remove(const TavroTrashItem& Item) {
    struct stat status = {};
    if (!TavroIsPlainName(Item.Name)) {
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
    if (!m_item.Directory || !TavroIsPlainName(Name) || !TavroReadRecord(m_trash, Name)) {
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
        m_bDirectories = true;
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

/// Tells what goes, unless it is nothing.
TavroFailure Announce(const TavroCallbacks& Callbacks, std::vector<TavroStep> Steps) {
    const auto isNothing = [](const TavroStep& step) { return step.Identity.Inode == 0; };
    Steps.erase(std::remove_if(Steps.begin(), Steps.end(), isNothing), Steps.end());
    return Callbacks.Announce(TavroOperationKind::Empty, Steps);
}

/// One trash, and what goes from it.
template <typename Item> struct Part {
    TavroTrashFolders Folders;
    std::vector<Item> Items = {};
    std::unique_ptr<Emptying> Work = {};
};

/// The part of a trash among others.
template <typename Item>
Part<Item>& PartOf(std::vector<Part<Item>>& Parts, const TavroTrashFolders& Folders) {
    const auto found = std::find_if(Parts.begin(), Parts.end(), [&](const Part<Item>& part) {
        return part.Folders.Root == Folders.Root;
    });
    return found != Parts.end() ? *found : (Parts.push_back({Folders}), Parts.back());
}

template <typename Item>
TavroFailure OpenEach(std::vector<Part<Item>>& Parts, const TavroCallbacks& Callbacks,
                      bool bGoesOn = false) {
    TavroFailure failure;
    for (Part<Item>& part : Parts) {
        part.Work = std::make_unique<Emptying>(Callbacks, bGoesOn);
        failure = failure ? failure : part.Work->Open(part.Folders);
    }
    return failure;
}

template <typename Item> TavroFailure RemoveAll(const std::vector<Part<Item>>& Parts) {
    TavroFailure first;
    for (const Part<Item>& part : Parts) {
        TavroFailure failure = part.Work->RemoveEach(part.Items);
        first = first ? first : failure;
        if (failure.Kind == TavroFailureKind::Cancelled) {
            return failure;
        }
    }
    return first;
}

} // namespace

TavroFailure TavroRemoveFromTrash(const std::vector<TavroTrashItem>& Items,
                                  const TavroCallbacks& Callbacks) {
    std::vector<Part<std::reference_wrapper<const TavroTrashItem>>> parts;
    for (const TavroTrashItem& item : Items) {
        PartOf(parts, *item.Folders).Items.emplace_back(item);
    }
    TavroFailure failure = OpenEach(parts, Callbacks);
    if (!failure && Callbacks.BeforeActs) {
        std::vector<TavroStep> steps;
        steps.reserve(Items.size());
        for (const auto& part : parts) {
            for (const TavroTrashItem& item : part.Items) {
                steps.push_back(part.Work->StepOf(item));
            }
        }
        failure = Announce(Callbacks, std::move(steps));
    }
    return failure ? failure : RemoveAll(parts);
}

TavroFailure TavroEmptyTrash(const TavroCallbacks& Callbacks, const TavroWhichTrashes& Trashes) {
    std::vector<Part<std::string>> parts;
    std::vector<TavroStep> steps;
    for (const TavroTrashFolders& folders : Trashes) {
        parts.push_back({folders});
    }
    TavroFailure failure = OpenEach(parts, Callbacks);
    for (Part<std::string>& part : parts) {
        failure = failure ? failure : part.Work->ListRecorded(part.Items);
        if (!failure && !part.Items.empty()) {
            steps.push_back(part.Work->StepOfAll());
        }
    }
    failure = failure ? failure : Announce(Callbacks, std::move(steps));
    return failure ? failure : RemoveAll(parts);
}

namespace {

/// The trash of a step, which is about an item, or about all.
TavroTrashFolders FoldersOf(const TavroStep& Step) {
    TavroTrashFolders folders = TavroTrashFoldersOf(Step.From);
    return folders.bVolume ? folders : TavroTrashFoldersOf(TavroJoin(Step.From, "item"));
}

/// Goes on in one trash.
TavroFailure FinishPart(Emptying& Work, const std::vector<TavroStep>& Steps) {
    const TavroStep all = Work.StepOfAll();
    const TavroStep& first = Steps[0];
    if (all.From.empty()) { // it is gone, or its volume is
        return TavroIsBelowDevice(first.From, first.Identity.Device)
                   ? TavroFailure()
                   : TavroFailure{TavroFailureKind::MaybeOther, {}, first.From};
    }
    if (first.From == all.From) { // another volume may be at the same place
        return all.Identity.Inode == first.Identity.Inode && all.SourceTime == first.SourceTime
                   ? Work.RemoveEach(Work.NamesFrom(first.ChangeTime))
                   : TavroFailure{TavroFailureKind::MaybeOther, {}, first.From};
    }
    return TavroParentOf(first.From) == all.From
               ? Work.RemoveEach(Work.ItemsOf(Steps))
               : TavroFailure{TavroFailureKind::NotInTrash, {}, first.From};
}

} // namespace

TavroFailure TavroFinishEmptying(const std::vector<TavroStep>& Steps,
                                 const TavroCallbacks& Callbacks) {
    std::vector<Part<TavroStep>> parts;
    for (const TavroStep& step : Steps) {
        PartOf(parts, FoldersOf(step)).Items.push_back(step);
    }
    TavroFailure first = OpenEach(parts, Callbacks, true);
    for (const Part<TavroStep>& part : parts) {
        TavroFailure failure = first ? first : FinishPart(*part.Work, part.Items);
        first = first ? first : failure;
    }
    return first;
}

// =================================================================================================
// Examining and mending
// =================================================================================================

namespace {

TavroFailure Examine(const TavroTrashFolders& Folders,
                     std::vector<TavroTrashFinding>& OutFindings) {
    TavroOpenTrash trash;
    std::vector<std::string> records;
    std::vector<std::string> items;
    TavroFailure failure = trash.Open(Folders);
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
        if (!TavroReadRecord(trash, name)) {
            OutFindings.push_back({TavroTrashFault::UnreadableRecord, path});
        } else if (!std::binary_search(items.begin(), items.end(), name)) {
            OutFindings.push_back({TavroTrashFault::RecordWithoutItem, path});
        }
    }
    return {};
}

} // namespace

TavroFailure TavroExamineTrash(std::vector<TavroTrashFinding>& OutFindings,
                               const TavroWhichTrashes& Trashes) {
    TavroFailure failure;
    OutFindings.clear();
    for (const TavroTrashFolders& folders : Trashes) {
        failure = failure ? failure : Examine(folders, OutFindings);
    }
    return failure;
}

std::string TavroDescribe(const TavroTrashFinding& Finding) {
    constexpr const char* ends[] = {" has no record of where it came from",
                                    " is the record of an entry that is not in the trash",
                                    " does not say where its item came from"};
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
    return directory == Folders.Files && TavroIsPlainName(file) ? std::optional<std::string>(file)
                                                                : std::nullopt;
}

/// Gives an item a record as of the base of its trash, and before that, if need be, a name that
/// leaves room for the record's.
TavroFailure RecordAnew(const TavroOpenTrash& Trash, const std::string& Name) {
    const std::string original = TavroJoin(Trash.Folders.Base, Name);
    mode_t mode = 0;
    if (Name.size() <= TavroLongestTrashName) {
        const std::string text =
            TavroRecordText(TavroRecordedPath(Trash.Folders, original), std::time(nullptr));
        return TavroCreateRecord(Trash, Name, text, mode);
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
    TavroFailure failure = trash.Open(TavroTrashFoldersOf(Finding.Path));
    const std::optional<std::string> name = ItemNameOf(Finding, trash.Folders);
    if (!name || failure.Kind == TavroFailureKind::NoHome) {
        return {TavroFailureKind::NotInTrash, {}, Finding.Path};
    }
    struct stat status = {};
    const int error = TavroIsPlainName(*name) && trash.Files.IsOpen()
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
    if (!bRecord || (error == 0 && TavroReadRecord(trash, *name))) {
        return {};
    }
    if (error != 0) {
        return RemoveRecord(trash, *name);
    }
    failure = SetAside(trash, *name);
    return failure ? failure : RecordAnew(trash, *name);
}
