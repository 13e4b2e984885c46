// Several processes trash, restore and name the same things, and the gaps between a check and the
// act that follows are held open.
//
// Held open: each process is stopped before its calls on files, and only one runs at a time. So a
// race has one exact course, what each check saw is known, and a file that a rename replaces is
// seen to be replaced. A loss is allowed only there: the name was free when the operation looked,
// or had just been left by its own item, and the module's order is to look first and rename then.
// Every other loss is wrong, and with the engine any loss is. Then processes race freely.

#include "suites.h"

#include "engine_acts.h"
#include "racer.h"
#include "tracer.h"

#include <algorithm>
#include <optional>
#include <random>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

// -------------------------------------------------------------------------------------------------
// The arena
// -------------------------------------------------------------------------------------------------

/// What is called "tree" is a directory.
bool isTree(const std::string& name) {
    return fs::path(name).filename().string().rfind("tree", 0) == 0;
}

std::string bytesFor(const std::string& name) {
    return "the bytes of " + name + "\n";
}

/// A name in the trash and where it came from.
struct Trashed {
    std::string Name;
    std::string Original;
};

/// Directories for the entries and a home with a trash, on one device or on two.
class Arena {
public:
    explicit Arena(bool bAcross)
        : m_workBox(fs::temp_directory_path()),
          m_homeBox(bAcross ? fs::path(secondFileSystem) : fs::temp_directory_path()),
          m_environment("HOME", m_homeBox.path().string()) {}

    void prepare(const std::vector<std::string>& made, const std::vector<Trashed>& inTrash) const;

    fs::path at(const std::string& name) const {
        return m_workBox / name;
    }
    fs::path trash() const {
        return m_homeBox / ".local/share/Trash";
    }
    TavroTrashEntry entry(const Trashed& trashed) const;
    Snapshot snapshot() const;

    /// A text in which {work} and {trash} stand for the directories.
    std::string expand(std::string text) const;

    /// The names in the trash of which there is only an item or only a record.
    std::vector<std::string> unpaired() const;

private:
    static void make(const fs::path& place, const std::string& name);

    Sandbox m_workBox;
    Sandbox m_homeBox;
    ScopedEnvironment m_environment;
};

void Arena::make(const fs::path& place, const std::string& name) {
    if (!isTree(name)) {
        writeFile(place, bytesFor(name));
        return;
    }
    writeFile(place / "inner", bytesFor(name + "/inner"));
    writeFile(place / "sub/inner", bytesFor(name + "/sub/inner"));
}

void Arena::prepare(const std::vector<std::string>& made,
                    const std::vector<Trashed>& inTrash) const {
    for (const Sandbox* box : {&m_workBox, &m_homeBox}) {
        for (const fs::directory_entry& one : fs::directory_iterator(box->path())) {
            fs::remove_all(one.path());
        }
    }
    for (const char* const folder : {"a", "b", "c"}) {
        makeDirectory(at(folder));
    }
    makeDirectory(trash() / "files");
    makeDirectory(trash() / "info");
    for (const std::string& name : made) {
        make(at(name), name);
    }
    for (const Trashed& one : inTrash) {
        const TavroTrashEntry its = entry(one);
        make(its.TrashPath, (isTree(one.Name) ? "tree trashed as " : "trashed as ") + one.Name);
        writeFile(its.InfoPath, recordText(its.OriginalPath));
    }
}

TavroTrashEntry Arena::entry(const Trashed& trashed) const {
    const fs::path item = trash() / "files" / trashed.Name;
    return {at(trashed.Original).string(), item.string(), Item::recordOf(item).string(),
            isTree(trashed.Name)};
}

Snapshot Arena::snapshot() const {
    Snapshot rows;
    addRows(m_workBox.path(), rows);
    addRows(m_homeBox.path(), rows);
    return rows;
}

std::string Arena::expand(std::string text) const {
    const std::pair<std::string, fs::path> words[] = {{"{work}", m_workBox.path()},
                                                      {"{trash}", trash()}};
    for (const auto& [word, path] : words) {
        for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word)) {
            text.replace(at, word.size(), path.string());
        }
    }
    return text;
}

std::vector<std::string> Arena::unpaired() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& item : fs::directory_iterator(trash() / "files")) {
        if (!isPresent(Item::recordOf(item.path()))) {
            names.push_back("files/" + item.path().filename().string());
        }
    }
    for (const fs::directory_entry& record : fs::directory_iterator(trash() / "info")) {
        if (!isPresent(trash() / "files" / record.path().stem())) {
            names.push_back("info/" + record.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// -------------------------------------------------------------------------------------------------
// What a process does
// -------------------------------------------------------------------------------------------------

struct Actor {
    std::function<Outcome(const Arena&)> Act;
    bool bEngine = false; ///< It must never replace anything.
};

Outcome finished(bool bTrue, Outcome outcome) {
    outcome.Ended = bTrue ? Outcome::True : Outcome::False;
    return outcome;
}

Outcome fresh() {
    Outcome outcome;
    outcome.Message = untouchedMessage;
    return outcome;
}

std::vector<TavroOperationEntry> selectionOf(const Arena& arena,
                                             const std::vector<std::string>& names) {
    std::vector<TavroOperationEntry> entries;
    for (const std::string& name : names) {
        entries.push_back(
            {fs::path(name).filename().string(), arena.at(name).string(), isTree(name)});
    }
    return entries;
}

std::vector<TavroTrashEntry> listOf(const Arena& arena, const std::vector<Trashed>& all) {
    std::vector<TavroTrashEntry> entries;
    for (const Trashed& one : all) {
        entries.push_back(arena.entry(one));
    }
    return entries;
}

Actor trash(const std::vector<std::string>& names) {
    return {[=](const Arena& arena) {
        Outcome outcome = fresh();
        const bool bDone =
            TavroTrashEntries(selectionOf(arena, names), outcome.List, outcome.Message);
        return finished(bDone, outcome);
    }};
}

Actor engineTrash(const std::vector<std::string>& names) {
    return {[=](const Arena& arena) { return trashByEngine(selectionOf(arena, names)); }, true};
}

Actor restore(const std::vector<Trashed>& all) {
    return {[=](const Arena& arena) {
        Outcome outcome = fresh();
        const bool bDone = TavroRestoreTrashEntries(listOf(arena, all), outcome.Message);
        return finished(bDone, outcome);
    }};
}

Actor engineRestore(const std::vector<Trashed>& all) {
    return {[=](const Arena& arena) { return restoreByEngine(listOf(arena, all)); }, true};
}

Actor reapply(const std::vector<Trashed>& all) {
    return {[=](const Arena& arena) {
        Outcome outcome = fresh();
        outcome.List = listOf(arena, all);
        const bool bDone = TavroReapplyTrashEntries(outcome.List, outcome.Message);
        return finished(bDone, outcome);
    }};
}

Actor name(const std::string& from, const std::string& to) {
    return {[=](const Arena& arena) {
        Outcome outcome = fresh();
        const bool bDone = TavroRenameEntry(selectionOf(arena, {from})[0], arena.at(to).string(),
                                            arena.at(""), outcome.Text, outcome.Message);
        return finished(bDone, outcome);
    }};
}

Actor createDirectory(const std::string& directory) {
    return {[=](const Arena& arena) {
        Outcome outcome = fresh();
        const bool bDone = TavroCreateDirectory(arena.at(directory).string(), arena.at(""),
                                                outcome.Text, outcome.Message);
        return finished(bDone, outcome);
    }};
}

/// Trashes, restores what came of it and trashes that again, as far as it goes.
Actor trashAndUndo(const std::vector<std::string>& names) {
    return {[=](const Arena& arena) {
        Outcome outcome = trash(names).Act(arena);
        bool bDone = outcome.Ended == Outcome::True;
        bDone = bDone && TavroRestoreTrashEntries(outcome.List, outcome.Message);
        bDone = bDone && TavroReapplyTrashEntries(outcome.List, outcome.Message);
        return finished(bDone, outcome);
    }};
}

Actor engineTrashAndUndo(const std::vector<std::string>& names) {
    return {[=](const Arena& arena) {
                const Outcome outcome = engineTrash(names).Act(arena);
                return outcome.Ended == Outcome::True ? restoreByEngine(outcome.List) : outcome;
            },
            true};
}

/// As `isKnownSentence`, which knows only of what can fail, and of what is there as wanted.
bool mayBeSaid(const std::string& message) {
    return isKnownSentence(message) || message == "Rename target matches the current path." ||
           message == "Rename target must include a file or directory name.";
}

/// One after the other; the last one's outcome counts.
Actor both(const Actor& first, const Actor& second) {
    return {[=](const Arena& arena) {
                first.Act(arena);
                return second.Act(arena);
            },
            first.bEngine && second.bEngine};
}

// -------------------------------------------------------------------------------------------------
// One race
// -------------------------------------------------------------------------------------------------

struct Contest {
    std::string Name;
    bool bAcross;
    std::vector<std::string> Made;
    std::vector<Trashed> InTrash;
    std::vector<Actor> Actors;
    /// Some course of it replaces a file in the gap; if not, none does.
    bool bReplaces = false;
    /// In some course an item goes away from its record, or the reverse.
    bool bUnpairs = false;
    /// A directory whose removal fails half-way has its copy discarded, and here the removal fails
    /// over what another process removes meanwhile.
    bool bPartlyRemoves = false;
};

class Race {
public:
    Race(const Arena& arena, const Contest& contest);

    Racer& racer(std::size_t which) {
        return *m_racers[which].Process;
    }
    void step(std::size_t which);
    void finish(std::size_t which);

    Verdict judge() const;
    const Snapshot& before() const {
        return m_before;
    }
    /// The bytes that were replaced in an open gap.
    std::size_t replaced() const {
        return m_replaced.size();
    }
    std::string tellAll() const;

private:
    struct Runner {
        std::unique_ptr<Racer> Process;
        std::set<std::string> SeenFree; ///< at its last look
        std::set<std::string> Left;     ///< by its own items
    };

    const Arena& m_arena;
    const Contest& m_contest;
    Snapshot m_before;
    std::vector<Runner> m_racers;
    std::set<std::string> m_replaced;
    std::vector<std::string> m_course;
};

Race::Race(const Arena& arena, const Contest& contest) : m_arena(arena), m_contest(contest) {
    m_arena.prepare(m_contest.Made, m_contest.InTrash);
    m_before = m_arena.snapshot();
    for (const Actor& actor : m_contest.Actors) {
        m_racers.emplace_back();
        m_racers.back().Process = std::make_unique<Racer>([&] { return actor.Act(m_arena); });
    }
}

/// Nobody else runs meanwhile, so what is there before the call is what the call meets.
void Race::step(std::size_t which) {
    Runner& runner = m_racers[which];
    const Racer::Call call = runner.Process->next();
    std::string victim;
    std::error_code ec;
    if (call.Name == "newfstatat" || call.Name == "stat" || call.Name == "lstat") {
        if (fs::exists(call.Path, ec)) {
            runner.SeenFree.erase(call.Path);
        } else {
            runner.SeenFree.insert(call.Path);
        }
    }
    const bool bMayReplace =
        call.Name == "rename" && fs::is_regular_file(fs::symlink_status(call.Target, ec));
    if (bMayReplace) {
        victim = readFile(call.Target);
    }
    const bool bWasThere = isPresent(call.Path);
    if (call.bChangesDisk && call.Name != "write") {
        m_course.push_back(std::to_string(which) + ": " + call.Name + " " + call.Path +
                           (call.Target.empty() ? "" : " -> " + call.Target));
    }
    runner.Process->step();
    if (call.Name != "rename" || !bWasThere || isPresent(call.Path)) {
        return;
    }
    runner.Left.insert(call.Path);
    const bool bOpenGap =
        runner.SeenFree.count(call.Target) == 1 || runner.Left.count(call.Target) == 1;
    if (bMayReplace && bOpenGap && !m_contest.Actors[which].bEngine) {
        m_replaced.insert(victim);
    }
}

void Race::finish(std::size_t which) {
    while (!racer(which).hasEnded()) {
        step(which);
    }
}

Verdict Race::judge() const {
    Verdict verdict;
    const auto wrong = [&](const std::string& complaint) {
        if (verdict.Complaint.empty()) {
            verdict.Complaint = complaint;
        }
    };
    bool bRemovalFailed = false;
    for (std::size_t i = 0; i < m_racers.size(); ++i) {
        const Racer& racer = *m_racers[i].Process;
        if (!racer.hasEnded() || racer.hasFallen()) {
            wrong("a process came to no end");
            continue;
        }
        const Outcome outcome = racer.outcome();
        const bool bTrue = outcome.Ended == Outcome::True;
        if (bTrue && outcome.Message != untouchedMessage) {
            wrong("the message was touched");
        }
        if (!bTrue && m_contest.Actors[i].bEngine && outcome.Failures.empty()) {
            wrong("false without a failure");
        }
        if (!bTrue && !m_contest.Actors[i].bEngine && !mayBeSaid(outcome.Message)) {
            wrong("the sentence is unknown: " + outcome.Message);
        }
        bRemovalFailed =
            bRemovalFailed || outcome.Message.rfind("Failed to remove original '", 0) == 0;
        if (racer.descriptorsLeaked() != 0) {
            wrong("a descriptor is left open");
        }
    }
    for (const auto& [path, size] : lostFiles(m_before, m_arena.snapshot())) {
        const std::string& row = m_before.at(path);
        const bool bReplaced =
            std::any_of(m_replaced.begin(), m_replaced.end(), [&](const std::string& bytes) {
                return row.size() > bytes.size() &&
                       row.compare(row.size() - bytes.size(), bytes.size(), bytes) == 0;
            });
        if (bReplaced) {
            verdict.Used.insert(Exception::ReplacedInTheGap);
            verdict.BytesGivenUp += size;
        } else if (m_contest.bPartlyRemoves && bRemovalFailed) {
            verdict.Used.insert(Exception::SourcePartlyRemoved);
            verdict.BytesGivenUp += size;
        } else {
            verdict.BytesLost += size;
            wrong("lost: " + path);
        }
    }
    const std::vector<std::string> unpaired = m_arena.unpaired();
    if (!m_contest.bUnpairs && m_replaced.empty() && !unpaired.empty()) {
        wrong("an item without its record, or the reverse: " + unpaired[0]);
    }
    verdict.Decided = verdict.Used.empty() ? Verdict::After : Verdict::Row;
    if (!verdict.Complaint.empty()) {
        verdict.Decided = Verdict::Wrong;
    }
    return verdict;
}

std::string Race::tellAll() const {
    std::string text;
    for (const std::string& line : m_course) {
        text += "  " + line + "\n";
    }
    for (std::size_t i = 0; i < m_racers.size(); ++i) {
        const Racer& racer = *m_racers[i].Process;
        if (racer.hasEnded() && !racer.hasFallen()) {
            const Outcome outcome = racer.outcome();
            text += "  " + std::to_string(i) +
                    (outcome.Ended == Outcome::True ? " ended with true" : " ended with false") +
                    ", \"" + outcome.Message + "\"\n";
        }
    }
    return text + difference(m_before, m_arena.snapshot());
}

// -------------------------------------------------------------------------------------------------
// The contests
// -------------------------------------------------------------------------------------------------

const Trashed xForC = {"x", "c/x"};
const Trashed otherForC = {"x copy 1", "c/x"};
const Trashed yForA = {"y", "a/y"};
const Trashed treeForC = {"tree", "c/tree"};
const Trashed otherTreeForC = {"tree copy 1", "c/tree"};

const std::vector<Contest>& contests() {
    static const std::vector<Contest> all = {
        // Two entries of one name go to the trash.
        {"trash-namesakes/file", false, {"a/x", "b/x"}, {}, {trash({"a/x"}), trash({"b/x"})}, true},
        {"trash-namesakes/tree",
         false,
         {"a/tree", "b/tree"},
         {},
         {trash({"a/tree"}), trash({"b/tree"})}},
        {"trash-namesakes/file-across",
         true,
         {"a/x", "b/x"},
         {},
         {trash({"a/x"}), trash({"b/x"})},
         false,
         true},
        // One entry is trashed by two.
        {"trash-one/file", false, {"a/x"}, {}, {trash({"a/x"}), trash({"a/x"})}},
        {"trash-one/file-across", true, {"a/x"}, {}, {trash({"a/x"}), trash({"a/x"})}, false, true},
        {"trash-one/tree-across",
         true,
         {"a/tree"},
         {},
         {trash({"a/tree"}), trash({"a/tree"})},
         false,
         true,
         true},
        // One entry is trashed and named.
        {"trash-and-rename/file", false, {"a/x"}, {}, {trash({"a/x"}), name("a/x", "a/z")}},
        // Two go back to one place.
        {"restore-to-one-place/file",
         false,
         {},
         {xForC, otherForC},
         {restore({xForC}), restore({otherForC})},
         true},
        {"restore-to-one-place/tree",
         false,
         {},
         {treeForC, otherTreeForC},
         {restore({treeForC}), restore({otherTreeForC})}},
        {"restore-to-one-place/file-across",
         true,
         {},
         {xForC, otherForC},
         {restore({xForC}), restore({otherForC})}},
        // One item is restored by two.
        {"restore-one/file", false, {}, {xForC}, {restore({xForC}), restore({xForC})}},
        {"restore-one/file-across",
         true,
         {},
         {xForC},
         {restore({xForC}), restore({xForC})},
         false,
         true},
        // Something is named so that it is where a restore leads.
        {"restore-and-rename/file",
         false,
         {"b/z"},
         {xForC},
         {restore({xForC}), name("b/z", "c/x")},
         true},
        // An item comes back while its namesake goes.
        {"restore-and-trash/file",
         false,
         {"b/x"},
         {xForC},
         {restore({xForC}), trash({"b/x"})},
         false,
         true},
        // It is restored while it is being trashed.
        {"trash-and-restore-one/file",
         false,
         {"c/x"},
         {},
         {trash({"c/x"}), restore({xForC})},
         false,
         true},
        // Two get one name.
        {"rename-to-one-name/file",
         false,
         {"a/x", "b/x"},
         {},
         {name("a/x", "c/deep/t"), name("b/x", "c/deep/t")},
         true},
        {"rename-to-one-name/tree",
         false,
         {"a/tree", "b/tree"},
         {},
         {name("a/tree", "c/t"), name("b/tree", "c/t")}},
        {"rename-and-create/file",
         false,
         {"a/x"},
         {},
         {name("a/x", "c/deep/t"), createDirectory("c/deep/t")}},
        {"rename-and-create/tree",
         false,
         {"a/tree"},
         {},
         {name("a/tree", "c/deep/t"), createDirectory("c/deep/t")}},
        // A batch fails and is rolled back to where something is by then.
        {"trash-roll-back/file",
         false,
         {"a/x", "b/z"},
         {},
         {trash({"a/x", "a/missing"}), name("b/z", "a/x")},
         true},
        // A restore fails and its first item goes back to a name that is taken by then.
        {"restore-roll-back/file",
         false,
         {"b/x"},
         {xForC, yForA},
         {restore({xForC, yForA}), both(restore({yForA}), trash({"b/x"}))},
         true,
         true},
        {"reapply-one/file",
         false,
         {"c/x", "a/y"},
         {},
         {reapply({xForC, yForA}), reapply({xForC, yForA})}},
        // The engine.
        {"engine-trash-namesakes/file",
         false,
         {"a/x", "b/x"},
         {},
         {engineTrash({"a/x"}), engineTrash({"b/x"})}},
        {"engine-trash-namesakes/tree",
         false,
         {"a/tree", "b/tree"},
         {},
         {engineTrash({"a/tree"}), engineTrash({"b/tree"})}},
        {"engine-trash-namesakes/file-across",
         true,
         {"a/x", "b/x"},
         {},
         {engineTrash({"a/x"}), engineTrash({"b/x"})}},
        {"engine-trash-one/file", false, {"a/x"}, {}, {engineTrash({"a/x"}), engineTrash({"a/x"})}},
        // What lies under its name in the trash may be the other's, and is left alone.
        {"engine-trash-one/file-across",
         true,
         {"a/x"},
         {},
         {engineTrash({"a/x"}), engineTrash({"a/x"})}},
        {"engine-trash-one/tree-across",
         true,
         {"a/tree"},
         {},
         {engineTrash({"a/tree"}), engineTrash({"a/tree"})}},
        {"engine-restore-to-one-place/file",
         false,
         {},
         {xForC, otherForC},
         {engineRestore({xForC}), engineRestore({otherForC})}},
        {"engine-restore-to-one-place/file-across",
         true,
         {},
         {xForC, otherForC},
         {engineRestore({xForC}), engineRestore({otherForC})}},
        {"engine-restore-one/file",
         false,
         {},
         {xForC},
         {engineRestore({xForC}), engineRestore({xForC})}},
        {"engine-restore-and-trash/file",
         false,
         {"b/x"},
         {xForC},
         {engineRestore({xForC}), engineTrash({"b/x"})}},
        {"engine-restore-roll-back/file",
         false,
         {"b/y"},
         {xForC, yForA},
         {engineRestore({xForC, yForA}), both(engineRestore({xForC}), engineTrash({"b/y"}))}},
        {"engine-take-back/file",
         false,
         {"b/z"},
         {xForC, yForA},
         {engineRestore({xForC, yForA}),
          both(both(restore({xForC}), name("a/y", "b/q")), name("b/z", "a/y"))},
         false,
         true},
    };
    return all;
}

// -------------------------------------------------------------------------------------------------
// All courses of two processes
// -------------------------------------------------------------------------------------------------

/// Calls between which another process finds the same names.
bool changesNames(const Racer::Call& call) {
    static const std::set<std::string> others = {"write",     "writev",   "fchmod",
                                                 "fchmodat",  "sendfile", "copy_file_range",
                                                 "utimensat", "truncate"};
    return call.bChangesDisk && others.count(call.Name) == 0;
}

/// Lets a process go to its stop of this number; false when it ends before. In the short form a
/// stop is before each change of a name and right after it, in the long form before every call.
bool goToStop(Race& race, std::size_t which, std::size_t number, bool bEach) {
    bool bChanged = false;
    for (std::size_t stops = 0; !race.racer(which).hasEnded(); race.step(which)) {
        const bool bChanges = changesNames(race.racer(which).next());
        if ((bEach || bChanges || bChanged) && stops++ == number) {
            return true;
        }
        bChanged = bChanges;
    }
    return false;
}

class Courses {
public:
    Courses(Report& report, Tally& tally, const Contest& contest)
        : m_report(report), m_tally(tally), m_contest(contest), m_arena(contest.bAcross) {}

    void sweep();

private:
    struct Stops {
        bool bFirst;
        bool bSecond;
    };
    Stops runOne(std::size_t first, std::size_t stop, std::size_t otherStop);
    bool isWanted(const std::string& identifier) const {
        return m_report.wants(identifier) && !m_report.isOver();
    }

    Report& m_report;
    Tally& m_tally;
    const Contest& m_contest;
    Arena m_arena;
    std::size_t m_runs = 0;
    std::size_t m_replacing = 0;
};

/// One goes to its stop (in the long form before any call), the other to its own, then the one ends
/// and then the other.
Courses::Stops Courses::runOne(std::size_t first, std::size_t stop, std::size_t otherStop) {
    const std::size_t second = 1 - first;
    const std::string identifier = "races:" + m_contest.Name + ":" + std::to_string(first) + "-" +
                                   std::to_string(stop) + "-" + std::to_string(otherStop);
    if (!isWanted(identifier)) {
        return {true, true};
    }
    Race race(m_arena, m_contest);
    // Calls of a copy across devices are many and alike.
    const bool bEach = m_report.options().bLong && !m_contest.bAcross;
    Stops stops = {};
    stops.bFirst = goToStop(race, first, stop, bEach);
    stops.bSecond = goToStop(race, second, otherStop, false);
    race.finish(first);
    race.finish(second);
    const Verdict verdict = race.judge();
    m_report.add(m_tally, identifier, verdict, race.tellAll());
    ++m_runs;
    m_tally.Faults += stops.bFirst ? 1 : 0;
    m_replacing += verdict.Used.count(Exception::ReplacedInTheGap);
    return stops;
}

void Courses::sweep() {
    ++m_tally.Scenarios;
    constexpr std::size_t enough = 400;
    // Across devices the short form holds one process only: the other runs to its end.
    const bool bBoth = m_report.options().bLong || !m_contest.bAcross;
    for (const std::size_t first : {0U, 1U}) {
        for (std::size_t stop = 0; stop < enough; ++stop) {
            bool bStopped = true;
            for (std::size_t other = bBoth ? 0 : enough; other <= enough; ++other) {
                const Stops stops = runOne(first, stop, other);
                bStopped = stops.bFirst;
                if (!stops.bSecond || !bStopped) {
                    break;
                }
            }
            m_tally.Calls += bStopped ? 1 : 0;
            if (!bStopped) {
                break;
            }
        }
    }
    const bool bAll = m_report.wants("races:" + m_contest.Name + ":") && !m_report.isOver();
    if (bAll && (m_replacing > 0) != m_contest.bReplaces) {
        m_report.complain("races:" + m_contest.Name, std::to_string(m_replacing) + " of " +
                                                         std::to_string(m_runs) +
                                                         " courses replaced a file");
    }
}

// -------------------------------------------------------------------------------------------------
// Pinned courses
// -------------------------------------------------------------------------------------------------

/// A process is held before this call.
struct Hold {
    const char* Call = nullptr; ///< null: it is not held
    const char* Path = "";
};

/// A failure of the engine, in which the directories have names. None by default.
struct Why {
    TavroFailureKind Kind = TavroFailureKind::None;
    int Error = 0;
    const char* Path = "";
    const char* Other = "";
};

/// One course of a contest and its exact end. {work} and {trash} stand for the directories.
struct Pin {
    const char* Contest;
    Hold First;              ///< Process 0 comes to here,
    Hold Second;             ///< process 1 to here, or to its end; then 0 ends, and then 1.
    const char* Messages[2]; ///< null: it ends with true, or is of the engine
    std::size_t Replaced;    ///< files that are gone
    const char* Unpaired;    ///< an item without its record, or the reverse; empty: none
    Why Failure = {};        ///< of the engine as process 0; process 1 ends with true
    Why RollBack = {};       ///< and why what was done could not be undone
};

constexpr Pin pins[] = {
    // Both saw the name free, and a rename replaces what is there by then: the required order is to
    // choose a name first and to rename then.
    {"trash-namesakes/file", {"rename", "{work}/a/x"}, {}, {nullptr, nullptr}, 1, ""},
    // The item is the one that came last, the record the one that was written last; here they are
    // of two entries.
    {"trash-namesakes/file",
     {"rename", "{work}/a/x"},
     {"openat", "{trash}/info/x.trashinfo"},
     {nullptr, nullptr},
     1,
     ""},
    // A rename does not replace a directory with contents.
    {"trash-namesakes/tree",
     {"rename", "{work}/a/tree"},
     {},
     {"Failed to move '{work}/a/tree': Directory not empty", nullptr},
     0,
     ""},
    // A copy creates its file and replaces none.
    {"trash-namesakes/file-across",
     {"rename", "{work}/a/x"},
     {},
     {"Failed to copy '{work}/a/x': File exists", nullptr},
     0,
     ""},
    {"trash-one/file",
     {"rename", "{work}/a/x"},
     {},
     {"Failed to move '{work}/a/x': No such file or directory", nullptr},
     0,
     ""},
    // Both copied it; the one that finds nothing left to remove discards its own copy.
    {"trash-one/file-across",
     {"unlink", "{work}/a/x"},
     {},
     {"Failed to remove original '{work}/a/x' after copying: unknown error", nullptr},
     0,
     ""},
    {"trash-and-rename/file",
     {"rename", "{work}/a/x"},
     {},
     {"Failed to move '{work}/a/x': No such file or directory", nullptr},
     0,
     ""},
    // As with the names in the trash: the place was free at the check.
    {"restore-to-one-place/file", {"rename", "{trash}/files/x"}, {}, {nullptr, nullptr}, 1, ""},
    {"restore-to-one-place/tree",
     {"rename", "{trash}/files/tree"},
     {},
     {"Failed to move '{trash}/files/tree': Directory not empty", nullptr},
     0,
     ""},
    {"restore-and-rename/file", {"rename", "{trash}/files/x"}, {}, {nullptr, nullptr}, 1, ""},
    {"restore-one/file",
     {"rename", "{trash}/files/x"},
     {},
     {"Failed to move '{trash}/files/x': No such file or directory", nullptr},
     0,
     ""},
    // Between the move to the trash and the record another process may take the item away.
    {"trash-and-restore-one/file",
     {"openat", "{trash}/info/x.trashinfo"},
     {},
     {nullptr, nullptr},
     0,
     "info/x.trashinfo"},
    {"rename-to-one-name/file", {"rename", "{work}/a/x"}, {}, {nullptr, nullptr}, 1, ""},
    {"rename-to-one-name/tree",
     {"rename", "{work}/a/tree"},
     {},
     {"Rename failed: Directory not empty", nullptr},
     0,
     ""},
    {"rename-and-create/file",
     {"rename", "{work}/a/x"},
     {},
     {"Rename failed: Is a directory", nullptr},
     0,
     ""},
    // An empty directory holds nothing that could be lost.
    {"rename-and-create/tree", {"rename", "{work}/a/tree"}, {}, {nullptr, nullptr}, 0, ""},
    // The way back was free when the roll-back looked.
    {"trash-roll-back/file",
     {"rename", "{trash}/files/x"},
     {},
     {"Failed to move '{work}/a/missing': No such file or directory", nullptr},
     1,
     ""},
    // What was restored goes back to its old name in the trash, which nobody kept for it.
    {"restore-roll-back/file",
     {"rename", "{trash}/files/y"},
     {},
     {"Failed to move '{trash}/files/y': No such file or directory", nullptr},
     1,
     ""},
    // The engine renames without replacing, and takes the next name.
    {"engine-trash-namesakes/file", {"rename", "{work}/a/x"}, {}, {}, 0, ""},
    {"engine-trash-namesakes/tree", {"rename", "{work}/a/tree"}, {}, {}, 0, ""},
    // Its claim is undone when there is nothing to trash any more.
    {"engine-trash-one/file",
     {"rename", "{work}/a/x"},
     {},
     {},
     0,
     "",
     {TavroFailureKind::MoveTo, ENOENT, "{work}/a/x", "{trash}/files/x"}},
    {"engine-restore-to-one-place/file",
     {"rename", "{trash}/files/x"},
     {},
     {},
     0,
     "",
     {TavroFailureKind::RestoreTargetTaken, EEXIST, "{work}/c/x", "{trash}/files/x"}},
    // The record keeps the old name in the trash for the way back.
    {"engine-restore-roll-back/file",
     {"rename", "{trash}/files/x"},
     {},
     {},
     0,
     "",
     {TavroFailureKind::MoveTo, ENOENT, "{trash}/files/x", "{work}/c/x"}},
    // Somebody else's file under the name of what was restored does not go to the trash for it.
    {"engine-take-back/file",
     {"rename", "{trash}/files/x"},
     {},
     {},
     0,
     "",
     {TavroFailureKind::MoveTo, ENOENT, "{trash}/files/x", "{work}/c/x"},
     {TavroFailureKind::Changed, 0, "{work}/a/y", "{trash}/files/y"}},
};

/// Lets a process go to its hold, or to its end without one. False when it never comes there.
bool goToHold(Race& race, const Arena& arena, std::size_t which, const Hold& hold) {
    if (hold.Call == nullptr) {
        race.finish(which);
        return true;
    }
    const std::string path = arena.expand(hold.Path);
    for (; !race.racer(which).hasEnded(); race.step(which)) {
        const Racer::Call& next = race.racer(which).next();
        if (next.Name == hold.Call && next.Path == path) {
            return true;
        }
    }
    return false;
}

bool isSame(const Arena& arena, const Why& wanted, const std::vector<TavroFailure>& failures) {
    if (wanted.Kind == TavroFailureKind::None) {
        return failures.empty();
    }
    return failures.size() == 1 && failures[0].Kind == wanted.Kind &&
           failures[0].Error.value() == wanted.Error &&
           failures[0].Path == arena.expand(wanted.Path) &&
           failures[0].Other == arena.expand(wanted.Other);
}

/// What is not as it was pinned; empty when all is.
std::string compare(const Pin& pin, const Arena& arena, Race& race, const Verdict& verdict) {
    for (const std::size_t i : {0U, 1U}) {
        const Outcome outcome = race.racer(i).outcome();
        const bool bFirst = i == 0;
        if (!isSame(arena, bFirst ? pin.Failure : Why(), outcome.Failures) ||
            !isSame(arena, bFirst ? pin.RollBack : Why(), outcome.RollBack)) {
            return "process " + std::to_string(i) + " should have failed otherwise";
        }
        if (bFirst && pin.Failure.Kind != TavroFailureKind::None) {
            continue;
        }
        const char* const wanted = pin.Messages[i];
        const std::string expected = wanted == nullptr ? untouchedMessage : arena.expand(wanted);
        if ((outcome.Ended == Outcome::True) != (wanted == nullptr) ||
            outcome.Message != expected) {
            return "process " + std::to_string(i) + " should have ended with \"" + expected + "\"";
        }
    }
    const std::vector<std::string> unpaired = arena.unpaired();
    const std::string first = unpaired.empty() ? "" : unpaired[0];
    if (unpaired.size() > 1 || first != pin.Unpaired) {
        return "without its partner in the trash: \"" + first + "\"";
    }
    const std::size_t gone = verdict.Used.count(Exception::ReplacedInTheGap);
    return race.replaced() == pin.Replaced && gone == pin.Replaced
               ? ""
               : "files replaced: " + std::to_string(race.replaced());
}

void runPin(Report& report, Tally& tally, const std::string& identifier, const Pin& pin) {
    const auto contest = std::find_if(contests().begin(), contests().end(),
                                      [&](const Contest& one) { return one.Name == pin.Contest; });
    const Arena arena(contest->bAcross);
    Race race(arena, *contest);
    const bool bHeld = goToHold(race, arena, 0, pin.First) && goToHold(race, arena, 1, pin.Second);
    race.finish(0);
    race.finish(1);
    ++tally.Scenarios;
    ++tally.Faults;
    Verdict verdict = race.judge();
    if (verdict.Complaint.empty()) {
        verdict.Complaint = bHeld ? compare(pin, arena, race, verdict)
                                  : "a process did not come to the call that it was to be held at";
        verdict.Decided = verdict.Complaint.empty() ? verdict.Decided : Verdict::Wrong;
    }
    report.add(tally, identifier, verdict, race.tellAll());
}

// -------------------------------------------------------------------------------------------------
// Random courses of three processes
// -------------------------------------------------------------------------------------------------

class Dice {
public:
    explicit Dice(unsigned seed) : m_engine(seed) {}
    std::size_t below(std::size_t end) {
        return m_engine() % end;
    }
    template <typename T> const T& oneOf(const std::vector<T>& all) {
        return all[below(all.size())];
    }

private:
    std::mt19937 m_engine;
};

const std::vector<std::string> places = {"a/x", "a/y", "b/x", "b/y", "c/x", "a/tree", "b/tree"};
const std::vector<Trashed> stock = {xForC, otherForC, yForA, treeForC};

Actor randomActor(Dice& dice) {
    const std::string& place = dice.oneOf(places);
    switch (dice.below(7)) {
    case 0:
        return trash({place});
    case 1:
        return trash({place, dice.oneOf(places)});
    case 2:
        return trashAndUndo({place});
    case 3:
        return restore({dice.oneOf(stock)});
    case 4:
        return restore({dice.oneOf(stock), dice.oneOf(stock)});
    case 5:
        return createDirectory(place);
    default:
        return name(place, dice.oneOf(places));
    }
}

Actor randomEngineActor(Dice& dice) {
    const std::string& place = dice.oneOf(places);
    switch (dice.below(5)) {
    case 0:
        return engineTrash({place});
    case 1:
        return engineTrash({place, dice.oneOf(places)});
    case 2:
        return engineTrashAndUndo({place});
    case 3:
        return engineRestore({dice.oneOf(stock)});
    default:
        return engineRestore({dice.oneOf(stock), dice.oneOf(stock)});
    }
}

using MakeActor = Actor (*)(Dice&);

/// Each course follows from its seed alone, and can be run again by it.
void runRandomCourse(Report& report, Tally& tally, const std::string& identifier, unsigned seed,
                     MakeActor makeActor, const Arena& arena) {
    Dice dice(seed);
    Contest contest = {"random", false, {"a/x", "a/y", "b/x", "b/y", "a/tree", "b/tree"}, stock, {},
                       true,     true};
    for (int i = 0; i < 3; ++i) {
        const Actor first = makeActor(dice);
        contest.Actors.push_back(both(first, makeActor(dice)));
    }
    Race race(arena, contest);
    std::vector<std::size_t> running = {0, 1, 2};
    while (!running.empty()) {
        const std::size_t at = dice.below(running.size());
        for (std::size_t steps = 1 + dice.below(8); steps > 0; --steps) {
            if (!race.racer(running[at]).hasEnded()) {
                race.step(running[at]);
            }
        }
        if (race.racer(running[at]).hasEnded()) {
            running.erase(running.begin() + static_cast<std::ptrdiff_t>(at));
        }
    }
    ++tally.Scenarios;
    ++tally.Faults;
    report.add(tally, identifier, race.judge(), race.tellAll());
}

// -------------------------------------------------------------------------------------------------
// Processes that race freely
// -------------------------------------------------------------------------------------------------

/// Names of which each belongs to one file, so that nothing can be replaced whoever comes first.
const std::vector<std::string> ownNames = {"k", "l", "m", "n"};

Actor freeActor(Dice& dice) {
    const std::string own = dice.oneOf(ownNames);
    const std::string here = (dice.below(2) == 0 ? "a/" : "b/") + own;
    const std::string there = (dice.below(2) == 0 ? "b/" : "c/") + own;
    switch (dice.below(5)) {
    case 0:
        return trash({here});
    case 1:
        return trashAndUndo({here});
    case 2:
        return restore({{own, there}});
    case 3:
        return reapply({{own, there}});
    default:
        return name(here, there);
    }
}

/// Some processes at once, each with so many acts. Which course they take is up to the machine.
void runFreely(Report& report, Tally& tally, const std::string& identifier, unsigned seed,
               MakeActor makeActor, bool bEngine) {
    constexpr unsigned processes = 4;
    constexpr int acts = 12;
    const Arena arena(false);
    std::vector<std::string> made = {"a/x", "a/y", "b/x", "b/y", "c/x", "a/tree", "b/tree"};
    if (!bEngine) {
        made = {"a/k", "b/l", "c/m", "a/n"};
    }
    arena.prepare(made, bEngine ? stock : std::vector<Trashed>());
    const Snapshot before = arena.snapshot();
    std::vector<pid_t> children;
    for (unsigned i = 0; i < processes; ++i) {
        children.push_back(startChild([&, i] {
            Dice dice(seed * processes + i);
            for (int act = 0; act < acts; ++act) {
                const Outcome outcome = makeActor(dice).Act(arena);
                const bool bKnown =
                    outcome.Ended == Outcome::True || bEngine || mayBeSaid(outcome.Message);
                if (!bKnown) {
                    throw std::runtime_error("the sentence is unknown: " + outcome.Message);
                }
            }
        }));
    }
    Verdict verdict;
    verdict.Decided = Verdict::After;
    for (const pid_t child : children) {
        if (waitForEnd(child) != 0) {
            verdict = {};
            verdict.Complaint = "a process did not end well";
        }
    }
    const Snapshot after = arena.snapshot();
    for (const auto& [path, size] : lostFiles(before, after)) {
        verdict.Decided = Verdict::Wrong;
        verdict.BytesLost += size;
        verdict.Complaint = "lost: " + path;
    }
    ++tally.Scenarios;
    tally.Faults += processes;
    report.add(tally, identifier, verdict, difference(before, after));
}

/// Calls `body` for the seeds of this form, or for the one that is asked for.
void forEachSeed(Report& report, const std::string& beginning, unsigned count,
                 const std::function<void(const std::string&, unsigned)>& body) {
    const std::string& only = report.options().Only;
    if (only.size() > beginning.size() && only.rfind(beginning, 0) == 0) {
        body(only, static_cast<unsigned>(std::stoul(only.substr(beginning.size()))));
        return;
    }
    for (unsigned seed = 1; seed <= count && report.wantsSome(beginning); ++seed) {
        if (!report.isOver()) {
            body(beginning + std::to_string(seed), seed);
        }
    }
}

void runPins(Report& report, Tally& tally) {
    for (std::size_t i = 0; i < std::size(pins); ++i) {
        const std::string identifier =
            std::string("races:pinned/") + pins[i].Contest + ":" + std::to_string(i);
        if (report.wants(identifier) && !report.isOver()) {
            runPin(report, tally, identifier, pins[i]);
        }
    }
}

void runSeeds(Report& report, Tally& tally) {
    const unsigned courses = report.options().bLong ? 400 : 60;
    const unsigned rounds = report.options().bLong ? 80 : 10;
    const Arena arena(false);
    const auto runCourses = [&](const std::string& beginning, MakeActor makeActor) {
        forEachSeed(report, beginning, courses, [&](const std::string& identifier, unsigned seed) {
            runRandomCourse(report, tally, identifier, seed, makeActor, arena);
        });
    };
    runCourses("races:random/module:", randomActor);
    runCourses("races:random/engine:", randomEngineActor);
    const auto race = [&](const std::string& beginning, MakeActor makeActor, bool bEngine) {
        forEachSeed(report, beginning, rounds, [&](const std::string& identifier, unsigned seed) {
            runFreely(report, tally, identifier, seed, makeActor, bEngine);
        });
    };
    race("races:free/module:", freeActor, false);
    race("races:free/engine:", randomEngineActor, true);
}

} // namespace

void runRaces(Report& report) {
    const std::string obstacle = obstacleToTracing();
    if (!obstacle.empty()) {
        report.skip("races", obstacle);
        return;
    }
    Tally& tally = report.suite("races");
    runPins(report, tally);
    for (const Contest& contest : contests()) {
        if (report.wantsSome("races:" + contest.Name + ":") && !report.isOver()) {
            Courses(report, tally, contest).sweep();
        }
    }
    runSeeds(report, tally);
}

} // namespace tavro_test
