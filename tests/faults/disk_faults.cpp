// The disk is full: of bytes and of inodes, where the trash lies, where a restore leads, and where
// the records go. Real file systems are filled to the last block, and the sizes of what is moved
// are swept around what they still take.

#include "suites.h"

#include "engine_acts.h"
#include "sentences.h"
#include "small_disk.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

enum class Act {
    Trash,
    DeleteToTrash,
    Reapply,
    Restore,
    Rename,
    CreateDirectory,
    EngineTrash,
    EngineRestore,
};

/// What is selected. The large file of it has the size that is swept.
enum class Selection { File, Tree, Link, Batch, Many, Deep };

/// What lies on the small disk; the rest lies where there is room.
enum class OnDisk { Home, Work, Both };

enum class Resource { Bytes, Inodes };

/// How much the disk still takes, and how large the large file is.
struct Point {
    std::uintmax_t Room;
    std::uintmax_t Size;
};

struct Sweep {
    const char* Name;
    Act What;
    Selection Selected;
    OnDisk Where;
    Resource Short;
    bool bFreshHome = false;
    bool bShortForm = true;
};

constexpr std::uintmax_t block = SmallDisk::blockSize;
constexpr std::uintmax_t diskSize = 1U << 20U;
constexpr unsigned inodesOnDisk = 96;
constexpr std::uintmax_t farBeyond = 3000000;
constexpr unsigned mostInodesNeeded = 24;

bool isRestore(Act what) {
    return what == Act::Restore || what == Act::EngineRestore;
}

bool isOfEngine(Act what) {
    return what == Act::EngineTrash || what == Act::EngineRestore;
}

/// Sizes around the first block boundaries, around those near the room, and far beyond it.
std::vector<Point> sizesAround(std::uintmax_t room, bool bLong) {
    std::set<std::uintmax_t> sizes = {
        0, 1, block - 1, block, block + 1, 2 * block - 1, 2 * block, 2 * block + 1,
    };
    const std::uintmax_t step = bLong ? block : 2 * block;
    for (std::uintmax_t near = room > 5 * block ? room - 5 * block : 0; near <= room + 2 * block;
         near += step) {
        sizes.insert({near + 1, near});
        if (near > 0) {
            sizes.insert(near - 1);
        }
    }
    for (const std::uintmax_t distance : {std::uintmax_t{1}, block, 2 * block}) {
        for (const std::uintmax_t exact : {distance - 1, distance, distance + 1}) {
            sizes.insert(room + exact);
            sizes.insert(room - std::min(room, exact));
        }
    }
    sizes.insert(room + farBeyond);
    std::vector<Point> points;
    for (const std::uintmax_t size : sizes) {
        points.push_back({room, size});
    }
    return points;
}

std::vector<Point> pointsOf(const Sweep& sweep, bool bLong) {
    std::vector<Point> points;
    if (sweep.Short == Resource::Inodes) {
        for (std::uintmax_t inodes = 0; inodes <= mostInodesNeeded; ++inodes) {
            points.push_back({inodes, 100});
        }
        return points;
    }
    if (sweep.Where == OnDisk::Both) {
        // Nothing large is written: only records and directories.
        for (std::uintmax_t blocks = 0; blocks <= 8; ++blocks) {
            points.push_back({blocks * block, 100});
        }
        return points;
    }
    // The standard library copies in pieces of sixteen blocks and, where the disk takes only a part
    // of one, goes on with smaller ones; by the room that is left then it tells of the failure or
    // does not. Five and twenty-four blocks are among the rooms for which it does not.
    std::vector<std::uintmax_t> rooms = {0, 5, 24};
    if (bLong) {
        rooms = {0, 1, 2, 5, 16, 17, 24, 60};
    }
    for (const std::uintmax_t blocks : rooms) {
        const std::vector<Point> around = sizesAround(blocks * block, bLong);
        points.insert(points.end(), around.begin(), around.end());
    }
    return points;
}

/// Bytes that no other file has.
std::string bytesFor(const std::string& name, std::uintmax_t size) {
    std::string bytes;
    bytes.reserve(size + 100);
    for (unsigned line = 0; bytes.size() < size; ++line) {
        bytes += name;
        bytes += ' ';
        bytes += std::to_string(line);
        bytes += '\n';
    }
    bytes.resize(size);
    return bytes;
}

/// One selection, part of it or of its way on a disk that is full.
class Case {
public:
    Case(const SmallDisk& disk, const Sweep& sweep)
        : m_disk(disk), m_sweep(sweep),
          m_home((sweep.Where == OnDisk::Work ? m_roomy.path() : disk.path()) / "home"),
          m_work((sweep.Where == OnDisk::Home ? m_roomy.path() : disk.path()) / "work"),
          m_files(m_home / ".local/share/Trash/files"), m_info(m_home / ".local/share/Trash/info"),
          m_environment("HOME", m_home.string()) {}

    /// Makes the world and fills the disk.
    void prepare(const Point& point);
    Run act();
    Verdict judge(const Run& run) const;

    /// What the disk took in fact when it was filled.
    std::uintmax_t room() const {
        return m_room;
    }
    const Snapshot& before() const {
        return m_before;
    }
    Snapshot snapshot() const;

private:
    void makeItems(std::uintmax_t size);
    void add(const std::string& name, bool bDirectory);
    void bringToTrash() const;
    fs::path folderOfItems() const;
    fs::path folderToMakeIn() const;
    std::vector<TavroOperationEntry> selection() const;
    std::vector<TavroTrashEntry> list() const;
    bool run(Outcome& outcome) const;

    std::string stateOf(const Item& item, const Snapshot& after) const;
    std::string complaintAfterTrue(const Run& run, std::set<Exception>& used) const;
    std::string complaintAfterFalse(const Run& run, std::set<Exception>& used) const;
    std::string complaintAboutSentence(const std::string& message, Clauses& clauses) const;
    std::string complaintAboutFailures(const Outcome& outcome) const;
    std::string complaintAboutList(const Outcome& outcome) const;
    bool isOnTheWay(const std::string& folder) const;
    bool isRestKept(const Snapshot& after, bool& bFoldersStay) const;

    const SmallDisk& m_disk;
    const Sweep& m_sweep;
    Sandbox m_roomy;
    fs::path m_home;
    fs::path m_work;
    fs::path m_files;
    fs::path m_info;
    ScopedEnvironment m_environment;
    std::vector<Item> m_items;
    Snapshot m_before;
    std::uintmax_t m_room = 0;
};

// -------------------------------------------------------------------------------------------------
// The world
// -------------------------------------------------------------------------------------------------

/// A path whose record is longer than what a stream holds back until it is closed: each blank is
/// three bytes there.
fs::path Case::folderOfItems() const {
    fs::path folder = m_work / "in";
    if (m_sweep.Selected == Selection::Deep) {
        for (int level = 0; level < 13; ++level) {
            folder /= "d" + std::string(240, ' ');
        }
    }
    return folder;
}

/// What is to be restored is made where there is room.
fs::path Case::folderToMakeIn() const {
    return isRestore(m_sweep.What) ? m_roomy / "made" : folderOfItems();
}

void Case::add(const std::string& name, bool bDirectory) {
    Item item;
    item.Name = name;
    item.bDirectory = bDirectory;
    item.Original = folderOfItems() / name;
    const fs::path made = folderToMakeIn() / name;
    const bool bRename = m_sweep.What == Act::Rename;
    item.Destination = bRename ? m_disk.path() / "work/new/name" : m_files / name;
    item.Record = Item::recordOf(m_files / name);
    item.AtOriginal = item.AtDestination = takeSnapshot(made);
    if (m_sweep.Selected == Selection::Link && !isOfEngine(m_sweep.What)) {
        // Flagged as a file, a link arrives across devices as what it points to.
        item.AtDestination = takeSnapshot(fs::canonical(made));
    }
    m_items.push_back(item);
}

void Case::makeItems(std::uintmax_t size) {
    const fs::path folder = folderToMakeIn();
    m_items.clear();
    switch (m_sweep.Selected) {
    case Selection::File:
    case Selection::Deep:
        writeFile(folder / "file", bytesFor("file", size));
        add("file", false);
        break;
    case Selection::Link:
        writeFile(m_work / "target", bytesFor("target", size));
        makeDirectory(folder);
        fs::create_symlink(m_work / "target", folder / "link");
        add("link", false);
        break;
    case Selection::Tree:
        writeFile(folder / "tree/large", bytesFor("large", size));
        writeFile(folder / "tree/sub/small", bytesFor("small", 100));
        fs::create_symlink("../large", folder / "tree/sub/link");
        // Longer than what fits into the inode itself.
        fs::create_symlink(std::string(200, 'n'), folder / "tree/long link");
        makeDirectory(folder / "tree/empty");
        add("tree", true);
        break;
    case Selection::Batch:
        writeFile(folder / "first", bytesFor("first", 3000));
        writeFile(folder / "second/small", bytesFor("second", 100));
        writeFile(folder / "third", bytesFor("third", size));
        add("first", false);
        add("second", true);
        add("third", false);
        break;
    case Selection::Many:
        for (int i = 0; i < 8; ++i) {
            const std::string name = std::to_string(i);
            writeFile(folder / "many" / name, bytesFor("many " + name, 10));
            fs::create_symlink(name, folder / "many" / ("link " + name));
        }
        add("many", true);
        break;
    }
}

/// By hand, so that the beginning does not rest on what is tested.
void Case::bringToTrash() const {
    for (const Item& item : m_items) {
        fs::rename(folderToMakeIn() / item.Name, item.Destination);
        std::string text = recordText(item.Original.string());
        text.replace(text.find(someDate), someDate.size(), "2024-03-05T14:07:09");
        writeFile(item.Record, text);
    }
}

void Case::prepare(const Point& point) {
    m_disk.clear();
    fs::remove_all(m_roomy / "home");
    fs::remove_all(m_roomy / "work");
    fs::remove_all(m_roomy / "made");
    makeDirectory(m_home);
    makeDirectory(m_work / "in");
    makeDirectory(m_disk.path() / "work");
    if (!m_sweep.bFreshHome) {
        makeDirectory(m_files);
        makeDirectory(m_info);
        writeFile(m_files / "older", bytesFor("older", 300));
        writeFile(m_info / "older.trashinfo", "[Trash Info]\nPath=/older\nDeletionDate=2020\n");
    }
    if (m_sweep.What != Act::CreateDirectory) {
        makeItems(point.Size);
    }
    if (isRestore(m_sweep.What)) {
        bringToTrash();
    }
    if (m_sweep.Short == Resource::Bytes) {
        m_room = m_disk.leaveBytes(point.Room);
    } else {
        m_disk.leaveInodes(static_cast<unsigned>(point.Room));
    }
    m_before = snapshot();
}

Snapshot Case::snapshot() const {
    Snapshot rows;
    addRows(m_home, rows);
    addRows(m_work, rows);
    if (m_work != m_disk.path() / "work") {
        addRows(m_disk.path() / "work", rows);
    }
    for (auto& [name, row] : rows) {
        if (fs::path(name).parent_path() == m_info) {
            row = withoutDate(row);
        }
    }
    return rows;
}

// -------------------------------------------------------------------------------------------------
// The act
// -------------------------------------------------------------------------------------------------

std::vector<TavroOperationEntry> Case::selection() const {
    std::vector<TavroOperationEntry> entries;
    for (const Item& item : m_items) {
        entries.push_back({item.Name, item.Original.string(), item.bDirectory});
    }
    return entries;
}

std::vector<TavroTrashEntry> Case::list() const {
    std::vector<TavroTrashEntry> entries;
    for (const Item& item : m_items) {
        entries.push_back(item.entry());
    }
    return entries;
}

bool Case::run(Outcome& outcome) const {
    std::string& message = outcome.Message;
    const fs::path target = m_disk.path() / "work/new/name";
    switch (m_sweep.What) {
    case Act::Trash:
        return TavroTrashEntries(selection(), outcome.List, message);
    case Act::DeleteToTrash:
        return TavroDeleteEntries(selection(), true, message);
    case Act::Reapply:
        outcome.List = list();
        return TavroReapplyTrashEntries(outcome.List, message);
    case Act::Restore:
        return TavroRestoreTrashEntries(list(), message);
    case Act::Rename:
        return TavroRenameEntry(selection()[0], target.string(), m_work, outcome.Text, message);
    case Act::CreateDirectory:
        return TavroCreateDirectory(target.string(), m_work, outcome.Text, message);
    case Act::EngineTrash:
        outcome = trashByEngine(selection());
        return outcome.Ended == Outcome::True;
    case Act::EngineRestore:
        outcome = restoreByEngine(list());
        return outcome.Ended == Outcome::True;
    }
    return false;
}

Run Case::act() {
    Run done;
    done.Result.Message = untouchedMessage;
    const int descriptors = openDescriptors();
    done.Result.Ended = run(done.Result) ? Outcome::True : Outcome::False;
    done.DescriptorsLeaked = openDescriptors() - descriptors;
    done.Errnos = {ENOSPC};
    done.After = snapshot();
    return done;
}

// -------------------------------------------------------------------------------------------------
// The judgement
//
// A full disk leaves less open than any fault does: nothing is given up but that a part of a copy
// and new directories stay, and that a record whose bytes find no room counts as written. What
// moves back moves away from the full disk, so no roll-back may fail.
// -------------------------------------------------------------------------------------------------

/// The original place, the destination and the record.
std::string Case::stateOf(const Item& item, const Snapshot& after) const {
    return {placeState(item, item.Original, m_before, after),
            placeState(item, item.Destination, m_before, after),
            recordState(item, m_before, after)};
}

std::string Case::complaintAboutList(const Outcome& outcome) const {
    const bool bFills = m_sweep.What == Act::Trash || m_sweep.What == Act::EngineTrash;
    std::vector<TavroTrashEntry> expected;
    if (m_sweep.What == Act::Reapply || (bFills && outcome.Ended == Outcome::True)) {
        expected = list();
    }
    const auto isSame = [](const TavroTrashEntry& a, const TavroTrashEntry& b) {
        return a.OriginalPath == b.OriginalPath && a.TrashPath == b.TrashPath &&
               a.InfoPath == b.InfoPath;
    };
    const bool bSame = std::equal(outcome.List.begin(), outcome.List.end(), expected.begin(),
                                  expected.end(), isSame);
    return bSame ? "" : "the list is not the one that belongs to the outcome";
}

std::string Case::complaintAfterTrue(const Run& run, std::set<Exception>& used) const {
    if (run.Result.Message != untouchedMessage) {
        return "the message was touched";
    }
    if (m_sweep.What == Act::CreateDirectory) {
        const fs::path made = m_disk.path() / "work/new/name";
        return run.After.count(made.string()) == 1 ? "" : "the directory is not there";
    }
    for (const Item& item : m_items) {
        std::string state = stateOf(item, run.After);
        const bool bCutShort = state == "-Wr" && m_sweep.Short == Resource::Bytes &&
                               m_sweep.Where != OnDisk::Work && !isOfEngine(m_sweep.What);
        if (bCutShort && m_disk.measureRoom() < block) {
            used.insert(Exception::RecordCutShort);
            state = "-WR";
        }
        const char* const wanted = isRestore(m_sweep.What)       ? "W--"
                                   : m_sweep.What == Act::Rename ? "-W-"
                                                                 : "-WR";
        if (state != wanted) {
            return "after true the state of '" + item.Name + "' is " + state;
        }
    }
    return complaintAboutList(run.Result);
}

std::string Case::complaintAboutSentence(const std::string& message, Clauses& clauses) const {
    clauses = parse(message);
    if (clauses.size() != 1) {
        return clauses.empty() ? "the sentence is unknown" : "a roll-back failed";
    }
    const std::string& reason = clauses[0].Reason;
    const bool bAcross =
        clauses[0].What == Says::Rename && reason == textOf(EXDEV) && m_sweep.Where == OnDisk::Home;
    const bool bNotWhole = clauses[0].What == Says::Copy && reason == textOf(EIO);
    const bool bKnown = reason.empty() || reason == textOf(ENOSPC) || bAcross || bNotWhole;
    return bKnown ? "" : "the sentence has a reason that a full disk does not give";
}

/// The disk is full, and nothing else: nothing stays behind.
std::string Case::complaintAboutFailures(const Outcome& outcome) const {
    const bool bTold =
        std::any_of(outcome.Failures.begin(), outcome.Failures.end(),
                    [](const TavroFailure& failure) { return failure.Error.value() == ENOSPC; });
    const bool bUndone = outcome.RollBack.empty() && outcome.Left.empty() && outcome.InBoth.empty();
    return bTold && bUndone ? "" : "the failures do not tell of a full disk alone";
}

std::string Case::complaintAfterFalse(const Run& run, std::set<Exception>& used) const {
    Clauses clauses;
    std::string complaint = isOfEngine(m_sweep.What)
                                ? complaintAboutFailures(run.Result)
                                : complaintAboutSentence(run.Result.Message, clauses);
    if (!complaint.empty()) {
        return complaint;
    }
    const std::string stateBefore = isRestore(m_sweep.What) ? "-WR" : "W--";
    for (const Item& item : m_items) {
        std::string state = stateOf(item, run.After);
        const fs::path& source = isRestore(m_sweep.What) ? item.Destination : item.Original;
        const bool bCopyFailed =
            !clauses.empty() && clauses[0].What == Says::Copy && clauses[0].Path == source;
        char& arrived = state[isRestore(m_sweep.What) ? 0 : 1];
        if (bCopyFailed && arrived != '-' && arrived != '?') {
            used.insert(Exception::PartialCopyStays);
            arrived = '-';
        }
        if (state != stateBefore) {
            return "after false the state of '" + item.Name + "' is " + state;
        }
    }
    return complaintAboutList(run.Result);
}

/// A directory that an operation may create: above the trash or above where it leads.
bool Case::isOnTheWay(const std::string& folder) const {
    const fs::path ends[] = {m_files, m_info, m_work / "in", m_disk.path() / "work/new/name"};
    return std::any_of(std::begin(ends), std::end(ends),
                       [&](const fs::path& end) { return liesIn(end.string(), folder); });
}

/// Nothing else is changed, but that directories were created on the way.
bool Case::isRestKept(const Snapshot& after, bool& bFoldersStay) const {
    const Snapshot before = restOf(m_before, m_items);
    const Snapshot rest = restOf(after, m_items);
    for (const auto& [path, row] : rest) {
        if (before.count(path) == 1) {
            continue;
        }
        const bool bFolder = row == "directory 755" || row == "directory 700";
        if (!bFolder || !isOnTheWay(path)) {
            return false;
        }
        bFoldersStay = true;
    }
    return std::all_of(before.begin(), before.end(), [&](const auto& one) {
        const auto found = rest.find(one.first);
        return found != rest.end() && found->second == one.second;
    });
}

Verdict Case::judge(const Run& run) const {
    Verdict verdict;
    const bool bTrue = run.Result.Ended == Outcome::True;
    bool bFoldersStay = false;
    verdict.Complaint =
        bTrue ? complaintAfterTrue(run, verdict.Used) : complaintAfterFalse(run, verdict.Used);
    if (verdict.Complaint.empty() && !isRestKept(run.After, bFoldersStay)) {
        verdict.Complaint = "something else was changed";
    }
    if (verdict.Complaint.empty() && run.DescriptorsLeaked != 0) {
        verdict.Complaint = "a descriptor is left open";
    }
    for (const auto& [path, size] : lostFiles(m_before, run.After)) {
        verdict.BytesLost += size;
        verdict.Complaint = "lost: " + path;
    }
    if (!bTrue && bFoldersStay) {
        verdict.Used.insert(Exception::FoldersStay);
    }
    if (!verdict.Complaint.empty()) {
        verdict.Decided = Verdict::Wrong;
    } else if (!verdict.Used.empty()) {
        verdict.Decided = Verdict::Row;
    } else {
        verdict.Decided = bTrue ? Verdict::After : Verdict::Before;
    }
    return verdict;
}

// -------------------------------------------------------------------------------------------------
// The sweeps
// -------------------------------------------------------------------------------------------------

constexpr Sweep sweeps[] = {
    // Into a trash that has no room for the copy.
    {"trash/file", Act::Trash, Selection::File, OnDisk::Home, Resource::Bytes},
    {"trash/tree", Act::Trash, Selection::Tree, OnDisk::Home, Resource::Bytes},
    {"trash/link", Act::Trash, Selection::Link, OnDisk::Home, Resource::Bytes},
    {"trash/batch", Act::Trash, Selection::Batch, OnDisk::Home, Resource::Bytes},
    {"delete-to-trash/batch", Act::DeleteToTrash, Selection::Batch, OnDisk::Home, Resource::Bytes,
     false, false},
    {"reapply/tree", Act::Reapply, Selection::Tree, OnDisk::Home, Resource::Bytes, false, false},
    {"trash/many-inodes", Act::Trash, Selection::Many, OnDisk::Home, Resource::Inodes},
    {"trash/batch-inodes", Act::Trash, Selection::Batch, OnDisk::Home, Resource::Inodes},
    {"trash/fresh-home-inodes", Act::Trash, Selection::File, OnDisk::Home, Resource::Inodes, true},
    {"delete-to-trash/tree-inodes", Act::DeleteToTrash, Selection::Tree, OnDisk::Home,
     Resource::Inodes, false, false},
    {"reapply/batch-inodes", Act::Reapply, Selection::Batch, OnDisk::Home, Resource::Inodes},
    // Back to a full disk.
    {"restore/file", Act::Restore, Selection::File, OnDisk::Work, Resource::Bytes},
    {"restore/tree", Act::Restore, Selection::Tree, OnDisk::Work, Resource::Bytes},
    {"restore/batch", Act::Restore, Selection::Batch, OnDisk::Work, Resource::Bytes},
    {"restore/many-inodes", Act::Restore, Selection::Many, OnDisk::Work, Resource::Inodes},
    {"restore/batch-inodes", Act::Restore, Selection::Batch, OnDisk::Work, Resource::Inodes},
    // Everything lies on the full disk: there is no room for records and directories.
    {"trash/record", Act::Trash, Selection::Batch, OnDisk::Both, Resource::Bytes},
    {"trash/long-record", Act::Trash, Selection::Deep, OnDisk::Both, Resource::Bytes},
    {"trash/record-inodes", Act::Trash, Selection::Batch, OnDisk::Both, Resource::Inodes},
    {"reapply/record-inodes", Act::Reapply, Selection::Batch, OnDisk::Both, Resource::Inodes},
    {"delete-to-trash/fresh-home-inodes", Act::DeleteToTrash, Selection::File, OnDisk::Both,
     Resource::Inodes, true},
    {"rename/folder-inodes", Act::Rename, Selection::File, OnDisk::Both, Resource::Inodes},
    {"create-directory/inodes", Act::CreateDirectory, Selection::File, OnDisk::Both,
     Resource::Inodes},
    // The engine: nothing at all is given up.
    {"engine-trash/file", Act::EngineTrash, Selection::File, OnDisk::Home, Resource::Bytes},
    {"engine-trash/tree", Act::EngineTrash, Selection::Tree, OnDisk::Home, Resource::Bytes},
    {"engine-trash/batch", Act::EngineTrash, Selection::Batch, OnDisk::Home, Resource::Bytes, false,
     false},
    {"engine-trash/record", Act::EngineTrash, Selection::Batch, OnDisk::Both, Resource::Bytes},
    {"engine-trash/batch-inodes", Act::EngineTrash, Selection::Batch, OnDisk::Home,
     Resource::Inodes},
    {"engine-restore/batch", Act::EngineRestore, Selection::Batch, OnDisk::Work, Resource::Bytes},
    {"engine-restore/many-inodes", Act::EngineRestore, Selection::Many, OnDisk::Work,
     Resource::Inodes},
};

std::string tellPoint(const Sweep& sweep, const Point& point) {
    if (sweep.Short == Resource::Inodes) {
        return std::to_string(point.Room) + "-inodes";
    }
    return std::to_string(point.Room) + "-bytes-for-" + std::to_string(point.Size);
}

/// How the runs of a sweep ended.
struct Ends {
    std::size_t Refused = 0;
    std::size_t Completed = 0;
    std::size_t CutShort = 0;
    std::size_t NotRun = 0;
};

void count(const Run& run, const Verdict& verdict, Ends& ends) {
    if (run.Result.Ended == Outcome::False) {
        ++ends.Refused;
    } else if (verdict.Used.count(Exception::RecordCutShort) == 1) {
        ++ends.CutShort;
    } else {
        ++ends.Completed;
    }
}

/// A run that must be refused, whatever else happens: what is far too large does not fit.
bool mustBeRefused(const Sweep& sweep, const Point& point) {
    return sweep.Short == Resource::Bytes && sweep.Where != OnDisk::Both &&
           point.Size >= point.Room + farBeyond;
}

void runSweep(Report& report, Tally& tally, const SmallDisk& disk, const Sweep& sweep,
              const std::string& beginning) {
    Case one(disk, sweep);
    Ends ends;
    ++tally.Scenarios;
    for (const Point& point : pointsOf(sweep, report.options().bLong)) {
        const std::string identifier = beginning + tellPoint(sweep, point);
        if (!report.wants(identifier) || report.isOver()) {
            ++ends.NotRun;
            continue;
        }
        one.prepare(point);
        const Run run = one.act();
        const Verdict verdict = one.judge(run);
        Reference reference;
        reference.Before = one.before();
        report.add(tally, identifier, verdict, tell(reference, run));
        count(run, verdict, ends);
        if (mustBeRefused(sweep, point) && run.Result.Ended == Outcome::True) {
            report.complain(identifier, "the disk was not full");
        }
    }
    tally.Faults += ends.Refused + ends.CutShort;
    // Filling saw the disk's own ENOSPC each time. A sweep must also have reached both sides.
    const bool bBothSides = ends.Refused + ends.CutShort > 0 && ends.Completed > 0;
    if (ends.NotRun == 0 && !bBothSides) {
        report.complain(beginning, "the sweep saw " + std::to_string(ends.Completed) +
                                       " runs complete and " + std::to_string(ends.Refused) +
                                       " refused");
    }
}

struct NamedDisk {
    const char* Name;
    SmallDisk::Type Type;
};

constexpr NamedDisk disks[] = {{"ext4", SmallDisk::Ext4}, {"tmpfs", SmallDisk::Tmpfs}};

} // namespace

void runFullDisks(Report& report) {
    for (const NamedDisk& named : disks) {
        const SmallDisk disk(named.Type, diskSize, inodesOnDisk);
        const std::string suite = std::string("full-disks:") + named.Name + "/";
        if (!disk.obstacle().empty()) {
            report.skip(suite, disk.obstacle());
            continue;
        }
        Tally& tally = report.suite("full-disks");
        for (const Sweep& sweep : sweeps) {
            const std::string beginning = suite + sweep.Name + ":";
            const bool bPart = report.options().bLong || sweep.bShortForm || report.tellsAll();
            if (bPart && report.wantsSome(beginning) && !report.isOver()) {
                runSweep(report, tally, disk, sweep, beginning);
            }
        }
    }
}

} // namespace tavro_test
