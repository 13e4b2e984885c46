#include "scenarios.h"

#include "fault_injector.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tavro_test {

const std::string untouchedMessage = "as the caller left it";
const std::vector<TavroTrashEntry> untouchedList = {{"old", "old", "old", true}};
const std::string someDate = "SOME DATE";

// -------------------------------------------------------------------------------------------------
// The settings
// -------------------------------------------------------------------------------------------------

enum class Kind { File, Tree, LinkToFile, LinkToDirectory };

struct Setting {
    const char* Name;
    bool bAcross; ///< The entries and the home trash lie on different file systems.
    std::vector<Kind> Kinds;
    bool bFreshHome = false;     ///< There is no trash yet.
    bool bTaken = false;         ///< The names are taken where the entries are to go.
    bool bBlockedRecord = false; ///< A directory with contents lies where the last record goes.
    bool bSizeLimit = false;     ///< No file may grow over 8,000 bytes, and sendfile is unknown.
    bool bParentsGone = false;   ///< The directory of the entries goes away once they are trashed.
    bool bInTheWay = false;      ///< The place that the last entry came from is taken.
};

namespace {

const std::vector<Kind> batch = {Kind::File, Kind::Tree, Kind::File};
const std::vector<Kind> links = {Kind::LinkToFile, Kind::LinkToDirectory};

Setting with(bool Setting::*peculiarity, Setting setting) {
    setting.*peculiarity = true;
    return setting;
}

const std::vector<Setting>& settings() {
    static const std::vector<Setting> all = {
        {"file", false, {Kind::File}},
        {"file-across", true, {Kind::File}},
        {"tree", false, {Kind::Tree}},
        {"tree-across", true, {Kind::Tree}},
        {"links", false, links},
        {"links-across", true, links},
        {"batch", false, batch},
        {"batch-across", true, batch},
        with(&Setting::bFreshHome, {"fresh-home", false, {Kind::File}}),
        with(&Setting::bTaken, {"taken", false, {Kind::File, Kind::Tree}}),
        with(&Setting::bTaken, {"taken-across", true, {Kind::File, Kind::Tree}}),
        with(&Setting::bBlockedRecord, {"blocked-record", false, batch}),
        with(&Setting::bBlockedRecord, {"blocked-record-across", true, {Kind::Tree, Kind::File}}),
        with(&Setting::bSizeLimit, {"size-limit", true, {Kind::Tree, Kind::File}}),
        with(&Setting::bParentsGone, {"parents-gone", true, {Kind::File, Kind::File}}),
        with(&Setting::bInTheWay, {"file-in-the-way", false, {Kind::Tree, Kind::File}}),
        with(&Setting::bInTheWay, {"tree-in-the-way", false, {Kind::File, Kind::Tree}}),
    };
    return all;
}

const std::string renameTarget = "new/deep/name";
const std::string directoryTarget = "new/deep";
constexpr rlim_t sizeLimit = 8000;
constexpr std::size_t fileSize = 20000;

/// Bytes that no other file has.
std::string bytesFor(const std::string& name, std::size_t size) {
    std::string bytes;
    for (unsigned line = 0; bytes.size() < size; ++line) {
        bytes += name + " line " + std::to_string(line) + "\n";
    }
    bytes.resize(size);
    return bytes;
}

struct Named {
    const char* Name;
    Operation What;
};

const std::vector<Named>& operations() {
    static const std::vector<Named> all = {
        {"trash", Operation::Trash},
        {"delete-to-trash", Operation::DeleteToTrash},
        {"restore", Operation::Restore},
        {"reapply", Operation::Reapply},
        {"prepare", Operation::Prepare},
        {"write-records", Operation::WriteRecords},
        {"remove-records", Operation::RemoveRecords},
        {"delete-for-good", Operation::DeleteForGood},
        {"rename", Operation::Rename},
        {"create-directory", Operation::CreateDirectory},
        {"plan", Operation::Plan},
        {"size", Operation::Size},
    };
    return all;
}

bool movesEntries(Operation what) {
    return what == Operation::Trash || what == Operation::DeleteToTrash ||
           what == Operation::Restore || what == Operation::Reapply;
}

/// The peculiarity of the setting plays a part in the operation.
bool matters(const Setting& setting, Operation what) {
    if (setting.bFreshHome) {
        return movesEntries(what) || what == Operation::Prepare;
    }
    if (setting.bTaken) {
        return movesEntries(what) || what == Operation::Prepare || what == Operation::Rename;
    }
    if (setting.bBlockedRecord) {
        // A list that was trashed has all its records, so a restore never meets the obstacle.
        return (movesEntries(what) && what != Operation::Restore) ||
               what == Operation::WriteRecords;
    }
    if (setting.bSizeLimit) {
        return movesEntries(what);
    }
    return (!setting.bParentsGone && !setting.bInTheWay) || what == Operation::Restore;
}

bool belongsToShortForm(const Setting& setting, Operation what) {
    const std::string name = setting.Name;
    if (what == Operation::Trash || what == Operation::Restore) {
        return name == "file" || name == "links-across" || name == "batch" ||
               name == "batch-across" || name == "taken" || name == "blocked-record" ||
               name == "size-limit" || name == "parents-gone" || setting.bInTheWay;
    }
    return name == "batch" || (what == Operation::Reapply && name == "blocked-record-across");
}

std::string scenarioName(Operation what, const Setting& setting) {
    const auto named = std::find_if(operations().begin(), operations().end(),
                                    [&](const Named& one) { return one.What == what; });
    return std::string(named->Name) + "/" + setting.Name;
}

fs::path otherDevice() {
    return fs::is_directory(secondFileSystem) ? fs::path(secondFileSystem)
                                              : fs::temp_directory_path();
}

/// While it lives, no file of this process grows over the limit. The soft limit alone changes.
class ScopedSizeLimit {
public:
    explicit ScopedSizeLimit(bool bWanted) {
        getrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, SIG_IGN);
        if (bWanted) {
            const rlimit narrow = {sizeLimit, m_old.rlim_max};
            setrlimit(RLIMIT_FSIZE, &narrow);
        }
    }
    ~ScopedSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_old);
    }
    ScopedSizeLimit(const ScopedSizeLimit&) = delete;
    ScopedSizeLimit& operator=(const ScopedSizeLimit&) = delete;

private:
    rlimit m_old = {};
};

void emptyFolder(const fs::path& folder) {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        fs::remove_all(entry.path());
    }
}

/// What an operation gave up half-way may be unreadable for its owner; its mode says nothing then.
void makeFilesReadable(const fs::path& folder) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
            fs::permissions(entry.path(), fs::perms::owner_read, fs::perm_options::add);
        }
    }
}

/// "2024-03-05T14:07:09" and a line feed. The year of a time that could not be told is 1900.
bool isDate(const std::string& text) {
    static const std::string pattern = "2nnn-nn-nnTnn:nn:nn\n";
    return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                      [](char byte, char wanted) {
                          return wanted == 'n' ? byte >= '0' && byte <= '9' : byte == wanted;
                      });
}

std::string planText(const TavroTransferPlan& plan) {
    std::string text =
        plan.SourceLabel + (plan.bMove ? " move" : " copy") +
        (plan.ConflictPolicy == TavroTransferConflictPolicy::Skip ? " skip\n" : " other\n");
    for (const TavroTransferItemPlan& item : plan.Items) {
        text += item.Name + "|" + item.SourcePath.string() + "|" + item.DestinationPath.string() +
                "|" + std::to_string(item.bDirectory) + std::to_string(item.bDestinationRenamed) +
                std::to_string(item.ItemCount + item.ByteCount) + "\n";
    }
    return text;
}

} // namespace

void addRows(const fs::path& place, Snapshot& rows) {
    for (auto& [name, row] : takeSnapshot(place)) {
        rows[name == "." ? place.string() : (place / name).string()] = row;
    }
}

std::string withoutDate(const std::string& row) {
    static const std::string key = "\nDeletionDate=";
    const std::size_t start = row.find(key);
    if (start == std::string::npos || !isDate(row.substr(start + key.size()))) {
        return row;
    }
    return row.substr(0, start) + key + someDate + "\n";
}

std::string recordText(const std::string& originalPath) {
    // The names that the programme uses need no encoding, but for the blank.
    std::string encoded;
    for (const char byte : originalPath) {
        encoded += byte == ' ' ? std::string("%20") : std::string(1, byte);
    }
    return "[Trash Info]\nPath=" + encoded + "\nDeletionDate=" + someDate + "\n";
}

fs::path Item::recordOf(const fs::path& trashed) {
    return trashed.parent_path().parent_path() / "info" /
           (trashed.filename().string() + ".trashinfo");
}

// -------------------------------------------------------------------------------------------------
// One scenario
// -------------------------------------------------------------------------------------------------

Scenario::Scenario(Operation operation, const Setting& setting)
    : m_operation(operation), m_world(setting),
      m_workBox(setting.bAcross ? fs::temp_directory_path() : otherDevice()),
      m_homeBox(otherDevice()), m_work(m_workBox / "in"), m_home(m_homeBox / "home"),
      m_files(m_home / ".local/share/Trash/files"), m_info(m_home / ".local/share/Trash/info"),
      m_environment("HOME", m_home.string()) {
    for (fs::path folder = m_files; folder != m_home; folder = folder.parent_path()) {
        m_foldersOnTheWay.push_back(folder);
    }
    m_foldersOnTheWay.push_back(m_info);
    m_foldersOnTheWay.push_back(m_work);
    m_foldersOnTheWay.push_back(m_work / "new");
    m_foldersOnTheWay.push_back(m_work / "new/deep");
    prepare();
}

Scenario::~Scenario() = default;

std::string Scenario::name() const {
    return scenarioName(m_operation, m_world);
}

bool Scenario::crossesDevices() const {
    return m_world.bAcross;
}

bool Scenario::isHindered() const {
    return m_world.bBlockedRecord || m_world.bSizeLimit || m_world.bInTheWay ||
           (m_world.bTaken && m_operation == Operation::Rename);
}

bool Scenario::isBlocked(const fs::path& place) const {
    const Item& last = m_items.back();
    return (m_world.bBlockedRecord && place == last.Record) ||
           (m_world.bInTheWay && place == last.Original);
}

bool Scenario::hasSizeLimit() const {
    return m_world.bSizeLimit;
}

void Scenario::makeItems() {
    m_items.clear();
    for (std::size_t i = 0; i < m_world.Kinds.size(); ++i) {
        const Kind kind = m_world.Kinds[i];
        Item item;
        item.Name = "item " + std::to_string(i) + ".x";
        item.Original = m_work / item.Name;
        item.bDirectory = kind == Kind::Tree || kind == Kind::LinkToDirectory;
        const fs::path& place = item.Original;
        if (kind == Kind::File) {
            writeFile(place, bytesFor(item.Name, fileSize));
            fs::permissions(place, fs::perms(0640));
        } else if (kind == Kind::Tree) {
            writeFile(place / "large", bytesFor(item.Name + "/large", fileSize));
            writeFile(place / "sub/small", bytesFor(item.Name + "/sub/small", 100));
            fs::permissions(place / "sub/small", fs::perms(0444));
            writeFile(place / "none", "");
            makeDirectory(place / "empty");
            fs::permissions(place / "empty", fs::perms(0700));
            fs::create_symlink(m_workBox / "target", place / "sub/link");
        } else {
            fs::create_symlink(kind == Kind::LinkToFile ? m_workBox / "target" : m_workBox / "dir",
                               place);
        }
        if (fs::is_symlink(place)) {
            item.LinkTarget = fs::canonical(place);
        }
        item.AtOriginal = item.AtDestination = takeSnapshot(place);
        if (kind == Kind::LinkToFile) {
            // Across devices a link that is flagged as a file arrives as what it points to.
            item.AtDestination = takeSnapshot(fs::canonical(place));
        }
        item.Destination = m_files / item.Name;
        if (m_operation == Operation::Rename) {
            item.Destination = m_work / (i == 0 ? renameTarget : "nobody goes here");
        } else if (m_world.bTaken) {
            item.TakenDestination = item.Destination;
            item.Destination = m_files / ("item " + std::to_string(i) + " copy 1.x");
        }
        item.Record = Item::recordOf(item.Destination);
        m_items.push_back(item);
    }
}

void Scenario::makeSurroundings() const {
    writeFile(m_workBox / "target", bytesFor("target", 300));
    writeFile(m_workBox / "dir/inside", bytesFor("dir/inside", 300));
    makeDirectory(m_workBox / "goal");
    writeFile(m_workBox / "bystander", bytesFor("bystander", 300));
    makeDirectory(m_work);
    makeDirectory(m_home);
    if (m_world.bFreshHome) {
        return;
    }
    makeDirectory(m_files);
    makeDirectory(m_info);
    writeFile(m_files / "older", bytesFor("older", 300));
    writeFile(m_info / "older.trashinfo", "[Trash Info]\nPath=/older\nDeletionDate=2020\n");
}

/// Trashes the items by hand, so that the beginning does not rest on what is tested.
void Scenario::bringToTrash() const {
    for (const Item& item : m_items) {
        const auto options = fs::copy_options::recursive | fs::copy_options::copy_symlinks;
        if (item.bDirectory) {
            fs::copy(item.Original, item.Destination, options);
        } else if (m_world.bAcross) {
            fs::copy_file(item.Original, item.Destination); // what a link points to
        } else {
            fs::copy(item.Original, item.Destination, fs::copy_options::copy_symlinks);
        }
        fs::remove_all(item.Original);
    }
}

void Scenario::prepare() {
    emptyFolder(m_workBox.path());
    emptyFolder(m_homeBox.path());
    makeSurroundings();
    makeItems();
    const bool bTrashed = m_operation == Operation::Restore ||
                          m_operation == Operation::WriteRecords ||
                          m_operation == Operation::RemoveRecords;
    if (bTrashed || m_operation == Operation::Reapply) {
        makeDirectory(m_files); // a list came from a trash that exists
        makeDirectory(m_info);
    }
    for (const Item& item : m_items) {
        if (m_world.bTaken && m_operation == Operation::Rename) {
            writeFile(item.Destination, bytesFor("taken", 300));
        } else if (m_world.bTaken) {
            writeFile(item.TakenDestination, bytesFor("taken " + item.Name, 300));
            writeFile(Item::recordOf(item.TakenDestination), recordText("/taken/" + item.Name));
        }
    }
    if (m_world.bBlockedRecord) {
        writeFile(m_items.back().Record / "contents", bytesFor("blocking contents", 300));
    }
    if (!bTrashed) {
        return;
    }
    bringToTrash();
    if (m_operation != Operation::WriteRecords) {
        for (const Item& item : m_items) {
            std::string text = recordText(item.Original.string());
            text.replace(text.find(someDate), someDate.size(), "2024-03-05T14:07:09");
            writeFile(item.Record, text);
        }
    }
    if (m_world.bParentsGone) {
        fs::remove_all(m_work);
    }
    const Item& last = m_items.back();
    if (m_world.bInTheWay && last.bDirectory) {
        makeDirectory(last.Original); // empty: a rename would replace it
    } else if (m_world.bInTheWay) {
        writeFile(last.Original, bytesFor("in the way", 300));
    }
}

std::string Scenario::createdDirectory() const {
    return (m_work / directoryTarget).string();
}

fs::path Scenario::planTarget() const {
    return m_workBox / "goal";
}

std::string Scenario::planWithoutTarget(bool bMade) const {
    TavroTransferPlan plan;
    if (!bMade) {
        return planText(plan);
    }
    plan.SourceLabel = "Tavro";
    plan.bMove = true;
    plan.ConflictPolicy = TavroTransferConflictPolicy::Skip;
    const Item& item = m_items.front();
    plan.Items = {{item.Name, item.Original, planTarget(), false, item.bDirectory}};
    return planText(plan);
}

std::vector<TavroOperationEntry> Scenario::selection() const {
    std::vector<TavroOperationEntry> entries;
    for (const Item& item : m_items) {
        entries.push_back({item.Name, item.Original.string(), item.bDirectory});
    }
    return entries;
}

std::vector<TavroTrashEntry> Scenario::list() const {
    std::vector<TavroTrashEntry> entries;
    for (const Item& item : m_items) {
        entries.push_back(item.entry());
    }
    return entries;
}

Outcome Scenario::act(const std::function<void(bool)>& mark) const {
    Outcome outcome;
    outcome.Message = untouchedMessage;
    outcome.Text = "reset me";
    outcome.List = m_operation == Operation::Reapply ? list() : untouchedList;
    const std::vector<TavroOperationEntry> entries = selection();
    const std::vector<TavroTrashEntry> given = list();
    TavroTransferPlan plan;
    const auto run = [&] {
        switch (m_operation) {
        case Operation::Trash:
            return TavroTrashEntries(entries, outcome.List, outcome.Message);
        case Operation::DeleteToTrash:
            return TavroDeleteEntries(entries, true, outcome.Message);
        case Operation::Restore:
            return TavroRestoreTrashEntries(given, outcome.Message);
        case Operation::Reapply:
            return TavroReapplyTrashEntries(outcome.List, outcome.Message);
        case Operation::Prepare:
            return TavroPrepareTrashEntries(entries, outcome.List, outcome.Message);
        case Operation::WriteRecords:
            return TavroWriteTrashInfoEntries(given, outcome.Message);
        case Operation::RemoveRecords:
            TavroRemoveTrashInfoEntries(given);
            return true;
        case Operation::DeleteForGood:
            return TavroDeleteEntries(entries, false, outcome.Message);
        case Operation::Rename:
            return TavroRenameEntry(entries[0], renameTarget, m_work, outcome.Text,
                                    outcome.Message);
        case Operation::CreateDirectory:
            return TavroCreateDirectory(directoryTarget, m_work, outcome.Text, outcome.Message);
        case Operation::Plan:
            return TavroBuildTransferPlan(entries, planTarget().string(), m_work, true,
                                          TavroTransferConflictPolicy::Skip, plan, outcome.Message);
        case Operation::Size:
            outcome.Text = std::to_string(TavroCalculateDirectorySize(m_workBox.path(), {}));
            return true;
        }
        return false;
    };
    const ScopedSizeLimit limit(m_world.bSizeLimit);
    std::optional<FaultInjector> older;
    if (m_world.bSizeLimit) {
        // A copy that goes through streams is the one that can be cut short without a word.
        older.emplace(std::vector<Fault>{{"sendfile", ENOSYS, "", 1, true}});
    }
    if (mark) {
        mark(true);
    }
    try {
        outcome.Ended = run() ? Outcome::True : Outcome::False;
    } catch (const fs::filesystem_error&) {
        outcome.Ended = Outcome::FilesystemError;
    } catch (const std::bad_alloc&) {
        outcome.Ended = Outcome::OutOfMemory;
    }
    if (mark) {
        mark(false);
    }
    if (m_operation == Operation::Plan && outcome.Ended != Outcome::OutOfMemory) {
        outcome.Text = planText(plan);
    }
    return outcome;
}

Snapshot Scenario::snapshot() const {
    makeFilesReadable(m_workBox.path());
    makeFilesReadable(m_homeBox.path());
    Snapshot rows;
    addRows(m_workBox.path(), rows);
    addRows(m_homeBox.path(), rows);
    for (auto& [name, row] : rows) {
        if (fs::path(name).parent_path() == m_info) {
            row = withoutDate(row);
        }
    }
    return rows;
}

// -------------------------------------------------------------------------------------------------
// All scenarios
// -------------------------------------------------------------------------------------------------

std::string Chosen::name() const {
    return scenarioName(What, *Where);
}

std::unique_ptr<Scenario> Chosen::make() const {
    return std::make_unique<Scenario>(What, *Where);
}

bool Chosen::crossesDevices() const {
    return Where->bAcross;
}

std::vector<Chosen> allScenarios() {
    std::vector<Chosen> chosen;
    for (const Named& operation : operations()) {
        for (const Setting& setting : settings()) {
            if (matters(setting, operation.What)) {
                chosen.push_back(
                    {operation.What, &setting, belongsToShortForm(setting, operation.What)});
            }
        }
    }
    return chosen;
}

} // namespace tavro_test
