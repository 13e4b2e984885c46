#include "history.h"

#include "database.h"
#include "names.h"
#include "place.h"
#include "trash_record.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <tuple>
#include <utility>

using Access = TavroDatabase::Access;
using Kind = TavroFailureKind;

std::string TavroHistoryPath() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') {
        return TavroJoin(state, "tavro/history.db");
    }
    const std::string home = TavroFindHome();
    return home.empty() ? home : TavroJoin(home, ".local/state/tavro/history.db");
}

// =================================================================================================
// What an operation may say
// =================================================================================================

bool TavroStep::operator==(const TavroStep& Other) const {
    const auto all = [](const TavroStep& step) {
        return std::tie(step.Role, step.From, step.To, step.Record, step.Identity, step.ChangeTime,
                        step.Mode, step.bDirectory, step.Attributes, step.Staged, step.Source,
                        step.SourceTime);
    };
    return all(*this) == all(Other);
}

namespace {

bool IsPath(const std::string& Path) {
    return !Path.empty() && Path.front() == '/' && Path.find('\0') == std::string::npos;
}

/// A record is removed with its item, so it must be the item's own.
bool HasOwnRecord(const TavroStep& Step) {
    const std::string files = "/files";
    const std::size_t name = Step.To.rfind('/');
    return name != std::string::npos && name >= files.size() &&
           Step.To.compare(name - files.size(), files.size(), files) == 0 &&
           Step.Record == TavroRecordPath(Step.To);
}

bool IsValid(const TavroStep& Step) {
    const bool bFrom = Step.Role != TavroStepRole::CreatedDirectory;
    const bool bTo =
        Step.Role != TavroStepRole::RemovedDirectory && Step.Role != TavroStepRole::Deleted;
    const bool bTrashed =
        Step.Role == TavroStepRole::Trashed || Step.Role == TavroStepRole::Replaced;
    return (Step.Staged.empty() || TavroIsStagingName(Step.Staged)) &&
           (bFrom ? IsPath(Step.From) : Step.From.empty()) &&
           (bTo ? IsPath(Step.To) : Step.To.empty()) &&
           (bTrashed ? HasOwnRecord(Step) : Step.Record.empty()) && Step.Mode <= 07777U;
}

TavroStepRole MainRoleOf(TavroOperationKind What) {
    using Role = TavroStepRole;
    constexpr Role roles[] = {Role::Trashed,          Role::Moved,   Role::Moved,   Role::Copied,
                              Role::CreatedDirectory, Role::Trashed, Role::Deleted, Role::Deleted};
    return roles[static_cast<std::size_t>(What)];
}

/// Whether an operation of that kind has steps of that role.
bool MayHave(TavroOperationKind What, TavroStepRole Role) {
    const TavroStepRole main = MainRoleOf(What);
    switch (Role) {
    case TavroStepRole::CreatedDirectory:
        return main != TavroStepRole::Trashed && main != TavroStepRole::Deleted;
    case TavroStepRole::RemovedDirectory:
        return main == TavroStepRole::Moved || What == TavroOperationKind::Restore;
    case TavroStepRole::Trashed:
        return main == TavroStepRole::Trashed || main == TavroStepRole::Copied;
    case TavroStepRole::Replaced:
    case TavroStepRole::Planned:
        return What == TavroOperationKind::Move || What == TavroOperationKind::Copy;
    default:
        return Role == main;
    }
}

std::int64_t EntriesOf(const TavroOperation& Operation) {
    const auto count = [&](TavroStepRole What) {
        return std::count_if(Operation.Steps.begin(), Operation.Steps.end(),
                             [&](const TavroStep& step) { return step.Role == What; });
    };
    const auto main = count(MainRoleOf(Operation.Kind));
    const auto planned = count(TavroStepRole::Planned);
    const bool bAgain = Operation.State == TavroOperationState::Undoing ||
                        Operation.State == TavroOperationState::Redoing;
    if (main != 0 && (planned != 0 || bAgain)) { // they may have been kept several times
        std::set<std::string> entries;
        for (const TavroStep& step : Operation.Steps) {
            if (step.Role == TavroStepRole::Planned || TavroIsMainStep(step, Operation.Kind)) {
                entries.insert(step.From.empty() ? step.To : step.From);
            }
        }
        return static_cast<std::int64_t>(entries.size());
    }
    const auto entries = main + planned;
    // A move may merge empty directories alone.
    return entries != 0 || Operation.Kind != TavroOperationKind::Move
               ? entries
               : count(TavroStepRole::RemovedDirectory);
}

/// Whether valid steps can be those of an operation.
bool IsWhole(const TavroOperation& Operation) {
    return EntriesOf(Operation) > 0 &&
           std::all_of(Operation.Steps.begin(), Operation.Steps.end(),
                       [&](const TavroStep& step) { return MayHave(Operation.Kind, step.Role); });
}

bool IsValid(const std::vector<TavroStep>& Steps) {
    return std::all_of(Steps.begin(), Steps.end(),
                       [](const TavroStep& step) { return IsValid(step); });
}

bool IsValid(const TavroOperation& Operation) {
    return IsWhole(Operation) && IsValid(Operation.Steps);
}

} // namespace

bool TavroIsMainStep(const TavroStep& Step, TavroOperationKind What) {
    return Step.Role == MainRoleOf(What);
}

bool TavroIsDeletion(TavroOperationKind What) {
    return MainRoleOf(What) == TavroStepRole::Deleted;
}

// =================================================================================================
// The file
// =================================================================================================

namespace {

/// Creates directories that are missing, for the user alone whatever the umask.
TavroFailure MakePrivateDirectories(TavroPlaces& Places, const std::string& Path) {
    TavroPlace place;
    TavroDescriptor directory;
    if (TavroOpenDirectory(Path, directory) != ENOENT) {
        return {}; // what else is in the way shows when the file is looked for
    }
    TavroFailure failure = MakePrivateDirectories(Places, TavroParentOf(Path));
    failure = failure ? failure : Places.Find(Path, place);
    if (failure) {
        return failure;
    }
    const char* name = place.Name.c_str();
    const int error = TavroMakeDirectoryAt(place.Number(), name, S_IRWXU);
    if (error == 0 && TavroOpenAt(place.Number(), name, O_PATH | O_DIRECTORY, directory) == 0) {
        TavroSetPathMode(directory.Number(), S_IRWXU);
        TavroSync(place.Number());
    }
    // Another process may create the same directory at the same time.
    return error == 0 || error == EEXIST ? failure : TavroFail(Kind::CreateDirectory, error, Path);
}

} // namespace

TavroHistory::TavroHistory() : m_database(std::make_unique<TavroDatabase>()) {}
TavroHistory::~TavroHistory() = default;

TavroFailure TavroHistory::Open(const std::string& File, std::chrono::milliseconds Patience,
                                std::function<bool()> ShouldCancel) {
    m_database = std::make_unique<TavroDatabase>();
    if (File.empty()) {
        return {Kind::HistoryNoHome};
    }
    m_database->Patience = Patience;
    m_database->ShouldCancel = std::move(ShouldCancel);
    const std::string path = m_database->Path = TavroNameEntry(File).Path;
    TavroPlaces places;
    TavroFailure failure = MakePrivateDirectories(places, TavroParentOf(path));
    failure = failure ? failure : places.Find(path, m_database->Place);
    return failure ? failure : m_database->Open();
}

void TavroHistory::WaitForDisk(bool bSync) {
    m_database->bSync = bSync;
    m_database->Code = SQLITE_OK;
    m_database->Run(bSync ? "PRAGMA synchronous=NORMAL" : "PRAGMA synchronous=OFF");
}

std::uint64_t TavroHistory::Device() const {
    return m_database->Identity.Device;
}

const std::string& TavroHistory::Notice() const {
    return m_database->Notice;
}

bool TavroHistory::WaitsForOperation() const {
    return m_database->bForOperation;
}

// =================================================================================================
// Reading
// =================================================================================================

namespace {

/// An operation goes when so many newer ones are there, or newer ones of more bytes.
constexpr std::int64_t mostOperations = 1000;
constexpr std::int64_t mostBytes = 400'000'000;

template <typename Value> std::int64_t Integer(Value Number) {
    return static_cast<std::int64_t>(Number);
}

/// Whether a number from the file is one of 0 to `Largest`.
template <typename Value> bool IsOneOf(std::int64_t Number, Value Largest) {
    return Number >= 0 && Number <= Integer(Largest);
}

/// The first step tells for all when they were trashed. While the operation goes on they may have
/// been trashed again.
void TellWhenTrashed(TavroOperation& Operation) {
    const bool bEnded = Operation.State == TavroOperationState::Done ||
                        Operation.State == TavroOperationState::Undone;
    for (TavroStep& step : Operation.Steps) {
        if (bEnded && step.ChangeTime == 0 && step.Role == TavroStepRole::Trashed &&
            Operation.Steps.front().Role == TavroStepRole::Trashed) {
            step.ChangeTime = Operation.Steps.front().ChangeTime;
        }
    }
}

/// Reads the first steps of an operation.
/// @return whether all that were read could have been written here.
bool ReadSteps(TavroStatement& Row, std::int64_t Count, TavroOperation& OutOperation) {
    Row.Bind(OutOperation.Id, Count);
    while (Row.Next()) {
        TavroStep step;
        step.Role = static_cast<TavroStepRole>(Row.Number(1));
        step.From = Row.Bytes(2);
        step.To = Row.Bytes(3);
        step.Record = Row.Bytes(4);
        step.Identity.Device = static_cast<std::uint64_t>(Row.Number(5));
        step.Identity.Inode = static_cast<std::uint64_t>(Row.Number(6));
        step.ChangeTime = Row.Number(7);
        step.Mode = static_cast<std::uint32_t>(Row.Number(8));
        step.bDirectory = Row.Number(9) != 0;
        step.Attributes = Row.Bytes(10);
        step.Staged = Row.Bytes(11);
        step.Source.Device = static_cast<std::uint64_t>(Row.Number(12));
        step.Source.Inode = static_cast<std::uint64_t>(Row.Number(13));
        step.SourceTime = Row.Number(14);
        if (Row.Number(0) != Integer(OutOperation.Steps.size()) || !IsOneOf(Row.Number(8), 07777) ||
            !IsOneOf(Row.Number(1), TavroStepRole::Deleted) || !IsValid(step)) {
            return false;
        }
        OutOperation.Steps.push_back(std::move(step));
    }
    TellWhenTrashed(OutOperation);
    return true;
}

const std::string operationsWhere =
    "SELECT id, kind, state, time, steps, entries, staging FROM operation WHERE ";
constexpr const char* stepsOfOne =
    "SELECT number, role, source, target, record, device, inode, changed, mode, directory, "
    "attributes, staged, source_device, source_inode, source_changed FROM step WHERE operation = ? "
    "ORDER BY number LIMIT ?";

/// @return whether a row of an operation could have been written here.
bool ReadOperation(TavroStatement& Row, TavroOperation& OutOperation) {
    OutOperation.Id = Row.Number(0);
    OutOperation.Kind = static_cast<TavroOperationKind>(Row.Number(1));
    OutOperation.State = static_cast<TavroOperationState>(Row.Number(2));
    OutOperation.Time = Row.Number(3);
    OutOperation.Staging = Row.Bytes(6);
    return IsOneOf(Row.Number(1), TavroOperationKind::Empty) &&
           IsOneOf(Row.Number(2), TavroOperationState::Redoing) &&
           (OutOperation.Kind < TavroOperationKind::Restore ||
            OutOperation.State == TavroOperationState::Doing ||
            (OutOperation.State == TavroOperationState::Done &&
             TavroIsDeletion(OutOperation.Kind))) &&
           IsOneOf(Row.Number(4), INT64_MAX - 1) && IsOneOf(Row.Number(5), Row.Number(4));
}

/// Reads the first operation of those meant, in a transaction.
/// @return whether it could have been written here, or there is none.
bool ReadFirst(TavroDatabase& Database, const std::string& Which,
               std::optional<TavroOperation>& OutOperation) {
    OutOperation.reset();
    TavroStatement version(Database, "PRAGMA data_version");
    Database.ReadVersion = version.Next() ? version.Number(0) : 0;
    TavroStatement row(Database, operationsWhere + Which);
    TavroStatement steps(Database, stepsOfOne);
    if (!row.Next()) {
        return true;
    }
    TavroOperation& operation = OutOperation.emplace();
    const std::int64_t count = row.Number(4);
    return ReadOperation(row, operation) && ReadSteps(steps, count + 1, operation) &&
           Integer(operation.Steps.size()) == count && IsWhole(operation);
}

TavroFailure ReadNext(TavroDatabase& Database, const std::string& Which,
                      std::optional<TavroOperation>& OutOperation) {
    bool bValid = true;
    TavroFailure failure =
        Database.Transact(Access::Read, [&] { bValid = ReadFirst(Database, Which, OutOperation); });
    if (failure || !bValid) {
        OutOperation.reset();
    }
    return failure || bValid ? failure : TavroFailure{Kind::HistoryInvalid, {}, Database.Path};
}

} // namespace

TavroFailure TavroHistory::NextToUndo(std::optional<TavroOperation>& OutOperation) {
    return ReadNext(*m_database, "state IN (0, 3, 4, 5) ORDER BY id DESC LIMIT 1", OutOperation);
}

TavroFailure TavroHistory::NextToRedo(std::optional<TavroOperation>& OutOperation) {
    return ReadNext(*m_database, "state = 1 ORDER BY undone DESC, id LIMIT 1", OutOperation);
}

TavroFailure TavroHistory::Read(std::int64_t Id, std::optional<TavroOperation>& OutOperation) {
    return ReadNext(*m_database, "state <> 2 AND id = " + std::to_string(Id), OutOperation);
}

TavroFailure TavroHistory::NextToResume(std::optional<TavroOperation>& OutOperation) {
    return ReadNext(*m_database, "state > 2 ORDER BY id DESC LIMIT 1", OutOperation);
}

TavroFailure TavroHistory::List(bool bSteps, std::vector<TavroOperation>& OutOperations,
                                std::vector<std::uint64_t>& OutEntryCounts) {
    return m_database->Transact(Access::Read, [&] {
        OutOperations.clear();
        OutEntryCounts.clear();
        TavroStatement row(*m_database, operationsWhere +
                                            "state <> 2 ORDER BY state = 1 DESC, "
                                            "CASE state WHEN 1 THEN undone END, id DESC");
        TavroStatement steps(*m_database, stepsOfOne);
        while (row.Next()) {
            TavroOperation operation;
            if (ReadOperation(row, operation)) {
                const std::int64_t count = row.Number(4);
                const bool bAll = bSteps || Integer(operation.State) > 2;
                if (!ReadSteps(steps, bAll ? count : 1, operation)) {
                    operation.Steps.clear();
                }
                OutOperations.push_back(std::move(operation));
                OutEntryCounts.push_back(static_cast<std::uint64_t>(row.Number(5)));
            }
        }
    });
}

// =================================================================================================
// Writing
// =================================================================================================

namespace {

/// How many steps of dropped operations are removed with a new one, beside as many as it has.
constexpr std::int64_t droppedAtOnce = 1000;

/// So many steps are added by one statement: it finds their place once.
constexpr std::size_t stepsAtOnce = 64;

std::int64_t BytesOf(const TavroOperation& Operation) {
    std::size_t bytes = 0;
    for (const TavroStep& step : Operation.Steps) {
        bytes +=
            step.From.size() + step.To.size() + step.Record.size() + step.Attributes.size() + 64;
    }
    return Integer(bytes);
}

/// Takes the oldest operations off the list where there are too many, or too large ones.
void DropSurplus(TavroDatabase& Database) {
    TavroStatement done(
        Database, "SELECT id, bytes FROM operation NOT INDEXED WHERE state = 0 ORDER BY id DESC");
    std::int64_t bytes = 0;
    for (std::int64_t newer = 0; done.Next(); ++newer) {
        if (newer == mostOperations || bytes > mostBytes) {
            Database.Run("UPDATE operation SET state = 2 WHERE state = 0 AND id <= ?",
                         done.Number(0));
            return;
        }
        bytes += std::min(std::max<std::int64_t>(done.Number(1), 0), mostBytes + 1);
    }
}

/// Removes so many steps of operations that were taken off the list. The newest operation stays, so
/// that no number is given twice: another process may still be waiting for it.
void RemoveDropped(TavroDatabase& Database, std::int64_t Count) {
    while (Count > 0) {
        TavroStatement dropped(Database, "SELECT id, steps FROM operation WHERE state = 2 AND id < "
                                         "(SELECT max(id) FROM operation) LIMIT 1");
        if (!dropped.Next()) {
            return;
        }
        const std::int64_t id = dropped.Number(0);
        const std::int64_t steps = std::max<std::int64_t>(dropped.Number(1), 0);
        const std::int64_t left = std::max<std::int64_t>(steps - Count, 0);
        Count -= steps - left + 1;
        Database.Run("DELETE FROM step WHERE operation = ? AND number >= ?", id, left);
        Database.Run("UPDATE operation SET steps = ? WHERE id = ?", left, id);
        if (left == 0) {
            Database.Run("DELETE FROM operation WHERE id = ?", id);
        }
    }
}

void InsertSteps(TavroDatabase& Database, std::int64_t Id, std::int64_t First,
                 const std::vector<TavroStep>& Steps) {
    const std::string row = "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    std::string text = "INSERT OR REPLACE INTO step VALUES ";
    TavroStatement one(Database, text + row);
    for (std::size_t i = 0; i < stepsAtOnce; ++i) {
        text += (i == 0 ? "" : ", ") + row;
    }
    std::optional<TavroStatement> many;
    std::size_t at = 0;
    while (at < Steps.size()) {
        const bool bMany = Steps.size() - at >= stepsAtOnce;
        TavroStatement& insert = !bMany ? one : many ? *many : many.emplace(Database, text);
        insert.Bind();
        for (std::size_t i = 0; i < (bMany ? stepsAtOnce : 1); ++i, ++at) {
            const TavroStep& step = Steps[at];
            insert.BindMore(Id, First++, Integer(step.Role), step.From, step.To, step.Record,
                            Integer(step.Identity.Device), Integer(step.Identity.Inode),
                            step.ChangeTime, Integer(step.Mode), Integer(step.bDirectory),
                            step.Attributes, step.Staged, Integer(step.Source.Device),
                            Integer(step.Source.Inode), step.SourceTime);
        }
        insert.Next();
    }
}

/// What could be redone is dropped by what is new, and can be undone.
void Insert(TavroDatabase& Database, TavroOperation& Operation) {
    if (!TavroIsDeletion(Operation.Kind)) {
        Database.Run("UPDATE operation SET state = 2 WHERE state = 1");
    }
    Database.Run("INSERT INTO operation (kind, state, time, steps, entries, bytes) "
                 "VALUES (?, ?, ?, ?, ?, ?)",
                 Integer(Operation.Kind), Integer(Operation.State), Operation.Time,
                 Integer(Operation.Steps.size()), EntriesOf(Operation), BytesOf(Operation));
    Operation.Id = sqlite3_last_insert_rowid(Database.Connection);
    InsertSteps(Database, Operation.Id, 0, Operation.Steps);
}

} // namespace

TavroFailure TavroHistory::Update(const TavroOperation& Operation) {
    if (!IsValid(Operation)) {
        return {Kind::HistoryUnrecordable};
    }
    return m_database->Transact(Access::Write, [&] {
        m_database->Run("UPDATE operation SET state = ?, steps = ?, entries = ?, bytes = ? "
                        "WHERE id = ?",
                        Integer(Operation.State), Integer(Operation.Steps.size()),
                        EntriesOf(Operation), BytesOf(Operation), Operation.Id);
        if (sqlite3_changes(m_database->Connection) == 0) {
            m_database->Keep(SQLITE_NOTFOUND);
        }
        m_database->Run("DELETE FROM step WHERE operation = ?", Operation.Id);
        InsertSteps(*m_database, Operation.Id, 0, Operation.Steps);
    });
}

// =================================================================================================
// Operations on their way
// =================================================================================================

namespace {

/// What this thread hides from now on, as long as the system is not started anew, is the
/// operation's.
void AddStaging(TavroDatabase& Database, std::int64_t Id) {
    Database.Run("UPDATE operation SET staging = staging || ? WHERE id = ?",
                 ' ' + TavroStagingPrefix() + ' ' + TavroBootMark(), Id);
}

} // namespace

TavroFailure TavroHistory::BeginOperation(TavroOperation& Operation) {
    if (!IsValid(Operation)) {
        return {Kind::HistoryUnrecordable};
    }
    TavroFailure failure = m_database->Transact(Access::WriteLater, [&] {
        Insert(*m_database, Operation);
        AddStaging(*m_database, Operation.Id);
        m_database->HoldLock(Operation.Id);
    });
    if (failure) { // another process may get the number now
        Operation.Id = 0;
        LeaveOperation();
        return failure;
    }
    m_database->Sync();
    return m_database->Failure(Kind::HistorySave);
}

namespace {

/// Whether an operation that was read is still the same. What was undone and redone meanwhile has
/// its state again, and other steps.
bool IsAsItWas(TavroDatabase& Database, const TavroOperation& Operation) {
    TavroStatement version(Database, "PRAGMA data_version");
    if (version.Next() && version.Number(0) == Database.ReadVersion) {
        return true; // nobody has written
    }
    std::optional<TavroOperation> now;
    return ReadFirst(Database, "id = " + std::to_string(Operation.Id), now) && now &&
           now->State == Operation.State && now->Steps == Operation.Steps;
}

} // namespace

TavroFailure TavroHistory::ContinueOperation(const TavroOperation& Operation,
                                             TavroOperationState NewState, bool& OutChanged) {
    TavroFailure failure = m_database->HoldLock(Operation.Id);
    failure = failure ? failure : m_database->Transact(Access::Write, [&] {
        m_database->Run("UPDATE operation SET state = ? WHERE id = ? AND state = ? AND ?",
                        Integer(NewState), Operation.Id, Integer(Operation.State),
                        Integer(IsAsItWas(*m_database, Operation)));
        OutChanged = sqlite3_changes(m_database->Connection) == 0;
        if (!OutChanged) { // else it is another process's
            AddStaging(*m_database, Operation.Id);
        }
    });
    if (failure || OutChanged) {
        LeaveOperation();
    }
    return failure;
}

void TavroHistory::LeaveOperation() {
    m_database->Running.Close();
    m_database->EmptyLog();
}

bool TavroHistory::IsRunning(const TavroOperation& Operation) const {
    return m_database->IsRunning(Operation.Id);
}

TavroFailure TavroHistory::KeepSteps(std::int64_t Id, std::size_t First,
                                     const std::vector<TavroStep>& Steps) {
    if (!IsValid(Steps)) {
        return {Kind::HistoryUnrecordable};
    }
    return m_database->Transact(Access::Write, [&] {
        InsertSteps(*m_database, Id, Integer(First), Steps);
        m_database->Run("UPDATE operation SET steps = max(steps, ?) WHERE id = ?",
                        Integer(First + Steps.size()), Id);
    });
}

TavroFailure TavroHistory::EndOperation(const TavroOperation& Operation, bool bSameSteps) {
    const bool bNothing = EntriesOf(Operation) == 0;
    TavroFailure failure = m_database->Transact(Access::WriteLater, [&] {
        m_database->Run("UPDATE operation SET state = ?, steps = ?, entries = ?, bytes = ?, "
                        "undone = (SELECT max(undone) + 1 FROM operation) WHERE id = ?",
                        bNothing ? 2 : Integer(Operation.State), Integer(Operation.Steps.size()),
                        EntriesOf(Operation), BytesOf(Operation), Operation.Id);
        m_database->Run("DELETE FROM step WHERE operation = ? AND number >= ?", Operation.Id,
                        bSameSteps ? Integer(Operation.Steps.size()) : 0);
        if (!bSameSteps) {
            InsertSteps(*m_database, Operation.Id, 0, Operation.Steps);
        } else if (!Operation.Steps.empty()) { // it tells for all when they were trashed
            m_database->Run("UPDATE step SET changed = ? WHERE operation = ? AND number = 0 AND "
                            "role = ? AND changed = 0",
                            Operation.Steps.front().ChangeTime, Operation.Id,
                            Integer(TavroStepRole::Trashed));
        }
        DropSurplus(*m_database);
        RemoveDropped(*m_database, Integer(Operation.Steps.size()) + droppedAtOnce);
    });
    LeaveOperation();
    return failure;
}

TavroFailure TavroHistory::Drop(std::int64_t Id) {
    bool bRunning = false;
    bool bDropped = false;
    TavroFailure failure = m_database->Transact(Access::Write, [&] {
        bRunning = m_database->IsRunning(Id);
        if (!bRunning) { // else what may be left of it would be known to nobody
            m_database->Run("UPDATE operation SET state = 2 WHERE id = ? AND state <> 2", Id);
            bDropped = sqlite3_changes(m_database->Connection) != 0;
        }
    });
    failure = failure || !bRunning ? failure : TavroFailure{Kind::HistoryRunning};
    return failure || bDropped ? failure : TavroFailure{Kind::NothingToDrop};
}
