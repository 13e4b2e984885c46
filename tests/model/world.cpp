#include "world.h"

#include "fault_injector.h"
#include "fixed_clock.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

using tavro_test::Snapshot;

namespace tavro_model {

namespace {

/// The module under the names that the model has, so that one function can drive both.
struct Module {
    static std::string trimText(const std::string& text) {
        return TavroTrimText(text);
    }
    static bool endsWithPathSeparator(const std::string& text) {
        return TavroEndsWithPathSeparator(text);
    }
    static std::string canonicalizePath(const std::string& path) {
        return TavroCanonicalizePath(path);
    }
    static std::string homeDirectoryPath() {
        return TavroHomeDirectoryPath();
    }
    static fs::path resolveUserPath(const std::string& text, const fs::path& base) {
        return TavroResolveUserPath(text, base);
    }
    static bool pathsEquivalentOrSame(const fs::path& a, const fs::path& b) {
        return TavroPathsEquivalentOrSame(a, b);
    }
    static bool pathIsInside(const fs::path& parent, const fs::path& child) {
        return TavroPathIsInside(parent, child);
    }
    static bool buildTransferPlan(const std::vector<TavroOperationEntry>& entries,
                                  const std::string& text, const fs::path& base, bool bMove,
                                  TavroTransferConflictPolicy policy, TavroTransferPlan& outPlan,
                                  std::string& error) {
        return TavroBuildTransferPlan(entries, text, base, bMove, policy, outPlan, error);
    }
    static bool renameEntry(const TavroOperationEntry& entry, const std::string& text,
                            const fs::path& base, std::string& outPath, std::string& error) {
        return TavroRenameEntry(entry, text, base, outPath, error);
    }
    static bool createDirectory(const std::string& text, const fs::path& base, std::string& outPath,
                                std::string& error) {
        return TavroCreateDirectory(text, base, outPath, error);
    }
    static bool deleteEntries(const std::vector<TavroOperationEntry>& entries, bool bUseTrash,
                              std::string& error) {
        return TavroDeleteEntries(entries, bUseTrash, error);
    }
    static bool trashEntries(const std::vector<TavroOperationEntry>& entries,
                             std::vector<TavroTrashEntry>& outEntries, std::string& error) {
        return TavroTrashEntries(entries, outEntries, error);
    }
    static bool prepareTrashEntries(const std::vector<TavroOperationEntry>& entries,
                                    std::vector<TavroTrashEntry>& outEntries, std::string& error) {
        return TavroPrepareTrashEntries(entries, outEntries, error);
    }
    static bool writeTrashInfoEntries(const std::vector<TavroTrashEntry>& entries,
                                      std::string& error) {
        return TavroWriteTrashInfoEntries(entries, error);
    }
    static void removeTrashInfoEntries(const std::vector<TavroTrashEntry>& entries) {
        TavroRemoveTrashInfoEntries(entries);
    }
    static bool restoreTrashEntries(const std::vector<TavroTrashEntry>& entries,
                                    std::string& error) {
        return TavroRestoreTrashEntries(entries, error);
    }
    static bool reapplyTrashEntries(std::vector<TavroTrashEntry>& entries, std::string& error) {
        return TavroReapplyTrashEntries(entries, error);
    }
};

/// The caller's own move of a prepared entry.
std::errc renameOf(const Module& /*module*/, const std::string& from, const std::string& to) {
    return ::rename(from.c_str(), to.c_str()) == 0 ? std::errc() : std::errc(errno);
}

std::errc renameOf(Model& model, const std::string& from, const std::string& to) {
    return model.Disk.rename(from, to);
}

/// The size, and how often the hook was asked. `bStop`: it says stop at the first time.
std::string measure(const Module& /*module*/, const std::string& root, bool bStop) {
    int asked = 0;
    const std::uintmax_t size = TavroCalculateDirectorySize(root, [&] {
        ++asked;
        return bStop;
    });
    return std::to_string(size) + " bytes, asked " + std::to_string(asked) + " times";
}

std::string measure(const Model& model, const std::string& root, bool bStop) {
    int count = 0;
    const std::uintmax_t size = model.calculateDirectorySize(root, count);
    const int asked = bStop && count > 0 ? 1 : count;
    return std::to_string(bStop ? 0 : size) + " bytes, asked " + std::to_string(asked) + " times";
}

std::string describe(const std::vector<TavroTrashEntry>& entries) {
    std::ostringstream text;
    for (const TavroTrashEntry& entry : entries) {
        text << "\n    " << entry.OriginalPath << " | " << entry.TrashPath << " | "
             << entry.InfoPath << " | " << entry.bDirectory;
    }
    return text.str();
}

std::string describe(const TavroTransferPlan& plan) {
    std::ostringstream text;
    text << "move " << plan.bMove << " policy " << static_cast<int>(plan.ConflictPolicy) << " of "
         << plan.SourceLabel;
    for (const TavroTransferItemPlan& item : plan.Items) {
        text << "\n    " << item.Name << " | " << item.SourcePath.string() << " | "
             << item.DestinationPath.string() << " | " << item.bDestinationRenamed
             << item.bDirectory << " | " << item.ItemCount << " | " << item.ByteCount;
    }
    return text.str();
}

std::string differingRows(const Snapshot& disk, const Snapshot& model) {
    std::ostringstream text;
    const auto tell = [&](const char* side, const Snapshot& rows, const Snapshot& others) {
        for (const auto& [path, row] : rows) {
            const auto other = others.find(path);
            if (other == others.end() || other->second != row) {
                text << "  " << side << ": " << path << ": " << row << "\n";
            }
        }
    };
    tell("disk ", disk, model);
    tell("model", model, disk);
    return text.str();
}

std::vector<tavro_test::Fault> faultsOf(const Failure& failure, bool bOtherDevice) {
    static const std::map<Call, std::pair<const char*, int>> calls = {
        {Call::Rename, {"rename", EACCES}},     {Call::MakeDirectory, {"mkdir", EACCES}},
        {Call::Remove, {"remove", EACCES}},     {Call::OpenRecord, {"fopen64", EACCES}},
        {Call::WriteRecord, {"write", ENOSPC}},
    };
    std::vector<tavro_test::Fault> faults;
    if (const auto call = calls.find(failure.FailingCall); call != calls.end()) {
        faults.push_back(
            {call->second.first, call->second.second, "", failure.When, failure.bFromThenOn});
    }
    if (bOtherDevice) {
        faults.push_back({"rename", EXDEV, "", 1, true});
    }
    return faults;
}

/// What a command comes down to in a world, the same on both sides.
struct Arguments {
    std::vector<TavroOperationEntry> Selection;
    std::string Path; ///< Of the first of them; the root's without one.
    std::string Text;
    fs::path Base;
    std::optional<std::string> Home;
    std::time_t Now;
};

} // namespace

// =================================================================================================
// One command, on whichever side
// =================================================================================================

namespace {

/// All that an operation gives back. Each out-parameter holds something else before the call.
struct Outcome {
    bool bSucceeded = true;
    bool bThrew = false;
    std::string Sentence = "(untouched)";
    std::string Out = "(untouched)";
    int Failed = 0;

    std::string text() const {
        return std::string(bSucceeded ? "true" : "false") + (bThrew ? " and an exception" : "") +
               ", sentence '" + Sentence + "', injected failures " + std::to_string(Failed) +
               ", out: " + Out;
    }
};

template <typename Api> std::string ask(const Api& api, const Arguments& arguments) {
    const fs::path resolved = api.resolveUserPath(arguments.Text, arguments.Base);
    std::ostringstream text;
    text << api.trimText(arguments.Text) << " | " << api.endsWithPathSeparator(arguments.Text)
         << " | " << api.homeDirectoryPath() << " | " << resolved.string();
    for (const TavroOperationEntry& entry : arguments.Selection) {
        text << " | " << api.canonicalizePath(entry.Path) << ' '
             << api.pathsEquivalentOrSame(entry.Path, resolved)
             << api.pathIsInside(entry.Path, resolved) << api.pathIsInside(resolved, entry.Path)
             << api.pathsEquivalentOrSame(entry.Path, arguments.Path)
             << api.pathIsInside(entry.Path, arguments.Path);
    }
    return text.str();
}

/// The list that a call gave, or did not; after success it goes into the slot.
void keep(const std::vector<TavroTrashEntry>& given, std::vector<TavroTrashEntry>& slot,
          Outcome& result) {
    result.Out = describe(given);
    if (result.bSucceeded) {
        slot = given;
    }
}

template <typename Api>
Outcome perform(Api& api, const Command& command, const Arguments& arguments,
                std::vector<TavroTrashEntry>& slot) {
    Outcome result;
    const std::vector<TavroOperationEntry>& selection = arguments.Selection;
    const TavroOperationEntry first = selection.empty() ? TavroOperationEntry() : selection.front();
    std::vector<TavroTrashEntry> given = {{"(old)", "(old)", "(old)", false}};
    TavroTransferPlan plan;
    plan.SourceLabel = "(old)";
    plan.Items.resize(1);
    switch (command.What) {
    case Verb::Make:
        break;
    case Verb::CreateDirectory:
        result.bSucceeded =
            api.createDirectory(arguments.Text, arguments.Base, result.Out, result.Sentence);
        break;
    case Verb::Rename:
        try {
            result.bSucceeded =
                api.renameEntry(first, arguments.Text, arguments.Base, result.Out, result.Sentence);
        } catch (const fs::filesystem_error& error) {
            result.bSucceeded = false;
            result.bThrew = true;
            result.Out += "threw " + error.code().message();
        }
        break;
    case Verb::Plan:
        result.bSucceeded =
            api.buildTransferPlan(selection, arguments.Text, arguments.Base, command.bOption,
                                  TavroTransferConflictPolicy(command.Slot), plan, result.Sentence);
        result.Out = describe(plan);
        break;
    case Verb::Delete:
        result.bSucceeded = api.deleteEntries(selection, command.bOption, result.Sentence);
        break;
    case Verb::Trash:
        result.bSucceeded = api.trashEntries(selection, given, result.Sentence);
        keep(given, slot, result);
        break;
    case Verb::Restore:
        result.bSucceeded = api.restoreTrashEntries(slot, result.Sentence);
        break;
    case Verb::Reapply:
        result.bSucceeded = api.reapplyTrashEntries(slot, result.Sentence);
        break;
    case Verb::Prepare:
        result.bSucceeded = api.prepareTrashEntries(selection, given, result.Sentence);
        keep(given, slot, result);
        break;
    case Verb::MovePrepared:
        for (const TavroTrashEntry& entry : slot) {
            const std::errc moved = renameOf(api, entry.OriginalPath, entry.TrashPath);
            result.bSucceeded = result.bSucceeded && moved == std::errc();
            result.Out += " " + std::to_string(static_cast<int>(moved));
        }
        break;
    case Verb::WriteRecords:
        result.bSucceeded = api.writeTrashInfoEntries(slot, result.Sentence);
        break;
    case Verb::RemoveRecords:
        api.removeTrashInfoEntries(slot);
        break;
    case Verb::Measure:
        result.Out = measure(api, arguments.Path, command.bOption);
        break;
    case Verb::Ask:
        result.Out = ask(api, arguments);
        break;
    }
    return result;
}

} // namespace

// =================================================================================================
// The world
// =================================================================================================

namespace {

/// Five and a half hours east of Greenwich.
constexpr const char* zone = "MODEL-05:30";
constexpr std::time_t zoneOffset = 19800;

std::string madeDirectory(const std::string& path) {
    tavro_test::makeDirectory(path);
    return path;
}

} // namespace

int numberFromEnvironment(const char* name, int usual) {
    const char* text = std::getenv(name);
    if (text == nullptr) {
        return usual;
    }
    const char* end = text + std::strlen(text);
    int number = 0;
    const std::from_chars_result read = std::from_chars(text, end, number);
    if (read.ec != std::errc() || read.ptr != end || number < 1) {
        throw std::invalid_argument(std::string(name) + " is no number above 0: " + text);
    }
    return number;
}

fs::path fastFolder() {
    return access(tavro_test::secondFileSystem, W_OK | X_OK) == 0 ? tavro_test::secondFileSystem
                                                                  : fs::temp_directory_path();
}

const Contents& usualContents() {
    static const Contents usual = {{0, Type::File}, {1, Type::FullFolder}, {4, Type::File}};
    return usual;
}

World::World(const Contents& contents)
    : m_sandbox(fastFolder()), m_root(m_sandbox.path().string()), m_oldMask(umask(022)),
      m_home("HOME", m_root + "/home"), m_zone(zone),
      m_currentDirectory(madeDirectory(m_root + "/home")), m_model(m_root) {
    for (const char* folder : {"/A", "/B", "/home"}) {
        tavro_test::makeDirectory(m_root + folder);
        m_model.Disk.makeDirectory(m_root + folder);
    }
    m_model.Disk.CurrentDirectory = m_root + "/home";
    for (const auto& [place, type] : contents) {
        const std::string path = pathOf({place, Spelling::Plain, false});
        makeOnDisk(path, type);
        makeInModel(path, type);
    }
}

World::~World() {
    umask(m_oldMask);
}

std::string World::inRoot(const std::string& text) const {
    return text.rfind("ROOT", 0) == 0 ? m_root + text.substr(4) : text;
}

std::string World::pathOf(const Pick& pick) const {
    const std::string& place = places().at(static_cast<std::size_t>(pick.Place));
    if (place.rfind("cdda:", 0) == 0) {
        return place;
    }
    const bool bThroughParent = pick.PathSpelling == Spelling::ThroughParent;
    const bool bSeparator = pick.PathSpelling == Spelling::EndingInSeparator;
    return m_root + (bThroughParent ? "/A/../" : "/") + place + (bSeparator ? "/" : "");
}

std::vector<TavroOperationEntry> World::selectionOf(const Command& command) const {
    std::vector<TavroOperationEntry> selection;
    for (const Pick& pick : command.Selection) {
        const std::string path = pathOf(pick);
        const std::string name = fs::path(path).filename().string();
        selection.push_back({path == "cdda:1" ? "Track 1.cdda" : name, path,
                             m_model.Disk.isDirectory(path) != pick.bLie});
    }
    return selection;
}

std::string World::bytesOfNewFile() const {
    return "made by command " + std::to_string(m_tally.Commands);
}

void World::makeOnDisk(const std::string& path, Type type) const {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    if (tavro_test::isPresent(path) || !fs::is_directory(fs::path(path).parent_path(), ec)) {
        return;
    }
    switch (type) {
    case Type::File:
        tavro_test::writeFile(path, bytesOfNewFile());
        break;
    case Type::Folder:
        fs::create_directory(path);
        break;
    case Type::FullFolder:
        tavro_test::writeFile(fs::path(path) / "inner", bytesOfNewFile());
        break;
    case Type::LinkToFile:
        fs::create_symlink(m_root + "/A/x.txt", path);
        break;
    case Type::LinkToFolder:
        fs::create_symlink(m_root + "/B", path);
        break;
    case Type::DanglingLink:
        fs::create_symlink("nowhere", path);
        break;
    }
}

void World::makeInModel(const std::string& path, Type type) {
    InMemoryFileSystem& disk = m_model.Disk;
    const std::string parent = fs::path(path).parent_path().string();
    disk.makeDirectories(parent);
    if (disk.locate(path, false).Error == std::errc() || !disk.isDirectory(parent)) {
        return;
    }
    switch (type) {
    case Type::File:
        disk.writeFile(path, bytesOfNewFile());
        break;
    case Type::Folder:
        disk.makeDirectory(path);
        break;
    case Type::FullFolder:
        disk.makeDirectory(path);
        disk.writeFile(path + "/inner", bytesOfNewFile());
        break;
    case Type::LinkToFile:
        disk.makeLink(path, m_root + "/A/x.txt");
        break;
    case Type::LinkToFolder:
        disk.makeLink(path, m_root + "/B");
        break;
    case Type::DanglingLink:
        disk.makeLink(path, "nowhere");
        break;
    }
}

namespace {

/// Without what would make the outcome depend on the order in which a disk lists a directory.
Command sane(Command command) {
    if (command.InjectedFailure.FailingCall == Call::MakeDirectory) {
        command.bOtherDevice = false;
    }
    const bool bFillsTrash = command.What == Verb::Trash || command.What == Verb::Prepare ||
                             (command.What == Verb::Delete && command.bOption);
    for (Pick& pick : command.Selection) {
        pick.Place %= bFillsTrash ? ordinaryPlaceCount : placeCount;
        if (command.What == Verb::Make) {
            pick.PathSpelling = Spelling::Plain;
        }
    }
    return command;
}

/// What a record says at that time in the zone of the world.
std::string dateAt(std::time_t now) {
    const std::time_t local = now + zoneOffset;
    std::tm fields = {};
    gmtime_r(&local, &fields);
    char text[20];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &fields);
    return text;
}

Outcome performInModel(Model& model, const Command& command, const Arguments& arguments,
                       std::vector<TavroTrashEntry>& slot) {
    model.Home = arguments.Home;
    model.Date = dateAt(arguments.Now);
    model.Disk.fail(command.InjectedFailure, command.bOtherDevice);
    Outcome outcome = perform(model, command, arguments, slot);
    outcome.Failed = model.Disk.failed();
    model.Disk.fail({}, false);
    return outcome;
}

Outcome performOnDisk(const Command& command, const Arguments& arguments,
                      std::vector<TavroTrashEntry>& slot) {
    const Failure& failure = command.InjectedFailure;
    const tavro_test::ScopedEnvironment environment("HOME", arguments.Home);
    const FixedClock clock(arguments.Now);
    const tavro_test::FaultInjector injector(faultsOf(failure, command.bOtherDevice));
    const Module module;
    Outcome outcome = perform(module, command, arguments, slot);
    outcome.Failed = failure.FailingCall == Call::None ? 0 : injector.fired(0);
    return outcome;
}

void count(Tally& tally, const Command& command, const Outcome& outcome) {
    ++(outcome.bSucceeded ? tally.Successes : tally.Refusals)[command.What];
    tally.InjectedFailures += outcome.Failed;
    tally.Exceptions += outcome.bThrew ? 1 : 0;
}

} // namespace

/// A directory would be copied into itself, which ends only where names get too long.
bool World::wouldCopyIntoItself(const Command& command) const {
    const std::string trash = m_root + "/home/.local/share/Trash/files";
    for (const TavroOperationEntry& entry : selectionOf(command)) {
        if (m_model.pathIsInside(entry.Path, trash)) {
            return true;
        }
    }
    for (const TavroTrashEntry& entry : m_slotsInModel.at(static_cast<std::size_t>(command.Slot))) {
        if (m_model.pathIsInside(entry.OriginalPath, trash) ||
            m_model.pathIsInside(entry.TrashPath, entry.OriginalPath)) {
            return true;
        }
    }
    return false;
}

std::string World::run(const Command& wanted) {
    Command command = sane(wanted);
    if (m_model.Disk.isUncertain()) {
        return "";
    }
    command.bOtherDevice = command.bOtherDevice && !wouldCopyIntoItself(command);
    const Arguments arguments = {
        selectionOf(command),
        command.Selection.empty() ? m_root : pathOf(command.Selection.front()),
        inRoot(typedTexts().at(static_cast<std::size_t>(command.Text))),
        inRoot(baseDirectories().at(static_cast<std::size_t>(command.Base))),
        command.bHomeless ? std::nullopt : std::optional<std::string>(m_root + "/home"),
        1700000000 + ++m_tally.Commands};
    const auto slot = static_cast<std::size_t>(command.Slot);
    const Outcome inModel = performInModel(m_model, command, arguments, m_slotsInModel.at(slot));
    if (m_model.Disk.leftRoot()) {
        return "  not done on disk, since it leads out of the sandbox\n";
    }
    if (m_model.Disk.isUncertain()) {
        return "";
    }
    const Outcome onDisk = performOnDisk(command, arguments, m_slotsOnDisk.at(slot));
    if (command.What == Verb::Make && !command.Selection.empty()) {
        makeOnDisk(arguments.Path, command.MadeType);
        makeInModel(arguments.Path, command.MadeType);
    }
    count(m_tally, command, onDisk);

    std::string differing =
        differingRows(tavro_test::takeSnapshot(m_root), m_model.Disk.snapshot());
    const std::string allOnDisk = onDisk.text() + describe(m_slotsOnDisk.at(slot));
    const std::string allInModel = inModel.text() + describe(m_slotsInModel.at(slot));
    if (allOnDisk != allInModel) {
        differing += "  disk : " + allOnDisk + "\n  model: " + allInModel + "\n";
    }
    return differing;
}

std::string difference(const std::vector<Command>& commands, Tally& tally,
                       const Contents& contents) {
    World world(contents);
    std::ostringstream done;
    std::string differing;
    for (const Command& command : commands) {
        done << command << "\n";
        differing = world.run(command);
        if (!differing.empty()) {
            break;
        }
    }
    tally += world.tally();
    return differing.empty() ? ""
                             : "after\n" + done.str() + "in " + world.root() + ":\n" + differing;
}

Tally& Tally::operator+=(const Tally& other) {
    Commands += other.Commands;
    InjectedFailures += other.InjectedFailures;
    Exceptions += other.Exceptions;
    for (const auto& [verb, number] : other.Successes) {
        Successes[verb] += number;
    }
    for (const auto& [verb, number] : other.Refusals) {
        Refusals[verb] += number;
    }
    return *this;
}

} // namespace tavro_model
