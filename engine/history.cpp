#include "history.h"

#include "names.h"
#include "place.h"
#include "tavroops.h"
#include "trash_record.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sqlite3.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>

using Clock = std::chrono::steady_clock;
using Kind = TavroFailureKind;

std::string TavroHistoryPath() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') {
        return TavroJoin(state, "tavro/history.db");
    }
    const std::string home = TavroHomeDirectoryPath();
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
    const std::string files = TavroParentOf(Step.To);
    const std::string info = TavroJoin(TavroParentOf(files), "info");
    return TavroNameOf(files) == "files" &&
           Step.Record == TavroJoin(info, TavroRecordName(TavroNameOf(Step.To)));
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
    const auto entries = count(MainRoleOf(Operation.Kind)) + count(TavroStepRole::Planned);
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

namespace {

// =================================================================================================
// The database
// =================================================================================================

/// An operation goes when so many newer ones are there, or newer ones of more bytes.
constexpr std::int64_t mostOperations = 1000;
constexpr std::int64_t mostBytes = 400'000'000;

/// How many steps of dropped operations are removed with a new one, beside as many as it has.
constexpr std::int64_t droppedAtOnce = 1000;

/// So many steps are added by one statement: it finds their place once.
constexpr std::size_t stepsAtOnce = 64;

/// An operation of the state 2 was taken off the list. It goes bit by bit, with later ones, so that
/// no command pays for a large one at once.
const std::string firstSchema =
    "CREATE TABLE operation (id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, state INTEGER NOT "
    "NULL, time INTEGER NOT NULL, steps INTEGER NOT NULL, entries INTEGER NOT NULL, bytes INTEGER "
    "NOT NULL, staging BLOB NOT NULL DEFAULT x''";
const std::string undoneColumn = "undone INTEGER NOT NULL DEFAULT 0"; ///< Grows with each undo.
const std::string schemaOfTheRest =
    ");CREATE INDEX operation_of_state ON operation (state);"
    "CREATE TABLE step (operation INTEGER NOT NULL, number INTEGER NOT NULL, role INTEGER NOT "
    "NULL, source BLOB NOT NULL, target BLOB NOT NULL, record BLOB NOT NULL, device INTEGER NOT "
    "NULL, inode INTEGER NOT NULL, changed INTEGER NOT NULL, mode INTEGER NOT NULL, directory "
    "INTEGER NOT NULL, attributes BLOB NOT NULL, staged BLOB NOT NULL, source_device INTEGER NOT "
    "NULL, source_inode INTEGER "
    "NOT NULL, source_changed INTEGER NOT NULL, PRIMARY KEY (operation, number)) WITHOUT ROWID;";
const std::string applicationId = "1415668338";
const std::string schema = firstSchema + ", " + undoneColumn + schemaOfTheRest;
const std::string schemaVersion = "2";

const std::string logSuffix = "-wal";

template <typename Value> std::int64_t Integer(Value Number) {
    return static_cast<std::int64_t>(Number);
}

} // namespace

/// The first error stays in `Code`; nothing more is done until it is cleared.
struct TavroDatabase {
    ~TavroDatabase() {
        sqlite3_close(Connection);
    }

    bool IsWell() const {
        return Code == SQLITE_OK;
    }
    /// What is done here goes wrong in these ways only where the file was not written here.
    bool IsDamaged() const {
        const int code = Code & 0xFF;
        return code == SQLITE_CORRUPT || code == SQLITE_NOTADB || code == SQLITE_ERROR ||
               code == SQLITE_CONSTRAINT;
    }

    void Keep(int NewCode) {
        Code = IsWell() ? NewCode : Code;
    }

    void Execute(const std::string& Texts) {
        Keep(sqlite3_exec(Connection, Texts.c_str(), nullptr, nullptr, nullptr));
    }

    template <typename... Values> void Run(const std::string& Text, const Values&... All);
    TavroFailure Open(bool bAgain = false);
    void Connect();
    void CheckSchema();
    void CreateSchema();
    void BringUpToDate();
    TavroFailure SetAside();
    bool Wait(int Count);
    TavroFailure Failure(Kind What) const;
    /// What a transaction does with the database.
    enum class Access { Read, Write, WriteLater }; // later: nobody waits until it is on the disk

    TavroFailure Transact(Access What, const std::function<void()>& Do, bool bAgain = false);
    void Sync();
    void EmptyLog();
    TavroFailure Change(const char* Text);
    TavroFailure ReadNext(const std::string& Which, std::optional<TavroOperation>& OutOperation);
    bool IsAsItWas(const TavroOperation& Operation);
    TavroFailure HoldLock(std::int64_t Id);
    bool IsRunning(std::int64_t Id);
    void AddStaging(std::int64_t Id);
    void InsertSteps(std::int64_t Id, std::int64_t First, const std::vector<TavroStep>& Steps);
    void Insert(TavroOperation& Operation);

    TavroPlace Place;
    std::string Path;            ///< As it was given, for sentences.
    TavroIdentity Identity = {}; ///< Of the file.
    std::string Notice;
    std::chrono::milliseconds Patience = {};
    std::function<bool()> ShouldCancel;
    Clock::time_point WaitsSince;
    bool bCancelled = false;
    bool bForOperation = false; ///< The wait is for the end of an operation.
    bool bImpatient = false;    ///< Nobody is waited for.
    bool bSync = true;          ///< What is written reaches the disk.
    bool bNewLog = false;       ///< The name of the log may not be on the disk.
    int LogPages = 0;           ///< So long is the log, when it was not emptied since.
    sqlite3* Connection = nullptr;
    int Code = SQLITE_OK;
    std::int64_t ReadVersion = 0; ///< Of what others have written, when an operation was read.
    TavroDescriptor Running; ///< The file of which each operation on its way has locked a byte.
};

namespace {

class Statement {
public:
    template <typename... Values>
    Statement(TavroDatabase& Database, const std::string& Text, const Values&... All)
        : m_database(Database) {
        if (Database.IsWell()) {
            Database.Keep(
                sqlite3_prepare_v2(Database.Connection, Text.c_str(), -1, &m_statement, nullptr));
        }
        Bind(All...);
    }
    ~Statement() {
        sqlite3_finalize(m_statement);
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// Begins anew, with other values. Texts must live as long as they are bound.
    template <typename... Values> void Bind(const Values&... All) {
        sqlite3_reset(m_statement);
        m_bound = 0;
        BindMore(All...);
    }
    template <typename... Values> void BindMore(const Values&... All) {
        (BindOne(++m_bound, All), ...);
    }

    /// Goes on to the next row. @return whether there is one.
    bool Next() {
        if (!m_database.IsWell()) {
            return false;
        }
        const int code = sqlite3_step(m_statement);
        m_database.Code = code == SQLITE_ROW || code == SQLITE_DONE ? SQLITE_OK : code;
        return code == SQLITE_ROW;
    }

    std::int64_t Number(int Column) {
        return sqlite3_column_int64(m_statement, Column);
    }
    std::string Bytes(int Column) {
        const auto* bytes = static_cast<const char*>(sqlite3_column_blob(m_statement, Column));
        const int size = sqlite3_column_bytes(m_statement, Column);
        return bytes == nullptr ? "" : std::string(bytes, static_cast<std::size_t>(size));
    }

private:
    void BindOne(int Index, std::int64_t Value) {
        m_database.Keep(sqlite3_bind_int64(m_statement, Index, Value));
    }
    void BindOne(int Index, const std::string& Bytes) {
        m_database.Keep(
            sqlite3_bind_blob64(m_statement, Index, Bytes.data(), Bytes.size(), SQLITE_STATIC));
    }

    TavroDatabase& m_database;
    sqlite3_stmt* m_statement = nullptr;
    int m_bound = 0; ///< How many values have been.
};

} // namespace

template <typename... Values>
void TavroDatabase::Run(const std::string& Text, const Values&... All) {
    Statement statement(*this, Text, All...);
    while (statement.Next()) {
    }
}

// -------------------------------------------------------------------------------------------------
// Opening
// -------------------------------------------------------------------------------------------------

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

/// Finds the file, or creates an empty one for the user alone. One that is there is not opened: to
/// close it again would end the locks that this process may have on it.
int FindFile(const TavroPlace& Place, TavroIdentity& OutIdentity) {
    struct stat status = {};
    const char* name = Place.Name.c_str();
    int error = TavroStatAt(Place.Number(), name, status);
    if (error == ENOENT) {
        TavroDescriptor file;
        error = TavroOpenAt(Place.Number(), name, O_RDWR | O_CREAT | O_EXCL, file, 0600);
        error = error != 0 ? error : TavroSetMode(file.Number(), 0600);
        error = error != 0 && error != EEXIST ? error : TavroStatAt(Place.Number(), name, status);
        TavroSync(Place.Number());
    }
    OutIdentity = TavroIdentityOf(status);
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = S_ISDIR(status.st_mode) ? EISDIR : S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
    }
    return error == 0 && status.st_uid != geteuid() ? EPERM : error;
}

} // namespace

using Access = TavroDatabase::Access;

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

TavroFailure TavroDatabase::Open(bool bAgain) {
    const int error = FindFile(Place, Identity);
    if (error != 0) {
        return TavroFail(Kind::HistoryOpen, error, Path);
    }
    Connect();
    TavroFailure failure = Failure(Kind::HistoryOpen);
    if (!failure) {
        return failure;
    }
    const bool bDamaged = IsDamaged();
    sqlite3_close(std::exchange(Connection, nullptr));
    if (bDamaged && !bAgain) {
        failure = SetAside();
        return failure ? failure : Open(true);
    }
    return failure;
}

namespace {

/// After a commit. What an operation on its way has written is written again at its end.
int NoteLog(void* Self, sqlite3* /*Connection*/, const char* /*Name*/, int PageCount) {
    auto& database = *static_cast<TavroDatabase*>(Self);
    database.LogPages = PageCount;
    if (!database.Running.IsOpen()) {
        database.EmptyLog();
    }
    return SQLITE_OK;
}

} // namespace

/// Moves a long log into the file. A short one stays, so that most commands wait for the disk once;
/// each opening reads it. Nobody is waited for: the next commit tries again.
void TavroDatabase::EmptyLog() {
    constexpr int longLog = 100;
    if (std::exchange(LogPages, 0) >= longLog) {
        bImpatient = true;
        sqlite3_wal_checkpoint_v2(Connection, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                  nullptr);
        bImpatient = false;
    }
}

void TavroDatabase::Connect() {
    Code = sqlite3_open_v2(Place.OwnPath().c_str(), &Connection,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX,
                           nullptr);
    struct stat status = {};
    if (TavroStatAt(Place.Number(), Place.Name.c_str(), status) != 0 ||
        TavroIdentityOf(status) != Identity) {
        Keep(SQLITE_CANTOPEN);
    } else if (status.st_size > 0 && status.st_size < 512) {
        Keep(SQLITE_NOTADB); // it would be taken for an empty one
    }
    if (!IsWell()) {
        return;
    }
    // What stands in the file does nothing by itself. A close leaves the log where it is.
    for (const auto& [option, value] :
         {std::pair(SQLITE_DBCONFIG_DEFENSIVE, 1), std::pair(SQLITE_DBCONFIG_ENABLE_TRIGGER, 0),
          std::pair(SQLITE_DBCONFIG_ENABLE_VIEW, 0), std::pair(SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0),
          std::pair(SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1)}) {
        sqlite3_db_config(Connection, option, value, nullptr);
    }
    sqlite3_extended_result_codes(Connection, 1);
    sqlite3_busy_handler(
        Connection,
        [](void* self, int count) -> int { return static_cast<TavroDatabase*>(self)->Wait(count); },
        this);
    sqlite3_wal_hook(Connection, NoteLog, this);
    // What is committed is synced by Sync: SQLite would sync the directory each time, too.
    Execute("PRAGMA synchronous=NORMAL;PRAGMA cell_size_check=ON;PRAGMA secure_delete=OFF");
    bNewLog = TavroStatAt(Place.Number(), (Place.Name + logSuffix).c_str(), status) != 0;
    Run("BEGIN"); // of one moment: another process may be creating it
    CheckSchema();
    sqlite3_exec(Connection, "COMMIT", nullptr, nullptr, nullptr);
    if (Code == SQLITE_EMPTY) {
        CreateSchema();
    } else if (Code == SQLITE_SCHEMA) {
        Code = SQLITE_OK;
        BringUpToDate();
    }
}

/// Keeps SQLITE_NOTADB unless the schema is ours to the letter; SQLITE_EMPTY when there is none.
void TavroDatabase::CheckSchema() {
    std::string found;
    for (const char* text : {"PRAGMA application_id", "PRAGMA user_version",
                             "SELECT group_concat(sql, ';') FROM sqlite_schema"}) {
        Statement row(*this, text);
        found += (row.Next() ? row.Bytes(0) : "") + ';';
    }
    if (found != applicationId + ';' + schemaVersion + ';' + schema) {
        const bool bFirst = found == applicationId + ";1;" + firstSchema + schemaOfTheRest;
        Keep(found == "0;0;;" ? SQLITE_EMPTY : bFirst ? SQLITE_SCHEMA : SQLITE_NOTADB);
    }
}

/// Adds what the first version did not keep: there operations were undone in turn.
void TavroDatabase::BringUpToDate() {
    Run("BEGIN IMMEDIATE");
    CheckSchema();
    if (Code == SQLITE_SCHEMA) {
        Code = SQLITE_OK;
        Execute("ALTER TABLE operation ADD COLUMN " + undoneColumn +
                ";UPDATE operation SET undone = -id WHERE state = 1;PRAGMA user_version=" +
                schemaVersion);
    }
    Run("COMMIT");
}

/// Makes an empty file a history, unless another process does.
void TavroDatabase::CreateSchema() {
    int count = 0;
    do {
        Code = SQLITE_OK;
        Run("PRAGMA journal_mode=WAL"); // this does not wait by itself
    } while ((Code & 0xFF) == SQLITE_BUSY && Wait(count++));
    Run("BEGIN IMMEDIATE");
    CheckSchema();
    if (Code == SQLITE_EMPTY) {
        Code = SQLITE_OK;
        Execute(schema + "PRAGMA application_id=" + applicationId +
                ";PRAGMA user_version=" + schemaVersion);
    }
    Run("COMMIT");
}

/// Closes the file and renames it with what belongs to it, unless another process has done that.
TavroFailure TavroDatabase::SetAside() {
    sqlite3_close(std::exchange(Connection, nullptr));
    struct stat status = {};
    const int directory = Place.Number();
    if (TavroStatAt(directory, Place.Name.c_str(), status) != 0 ||
        TavroIdentityOf(status) != Identity) {
        return {};
    }
    std::string aside;
    int number = 0;
    do {
        aside = Place.Name + ".damaged-" + std::to_string(++number);
    } while (TavroStatAt(directory, aside.c_str(), status) == 0);
    // The file goes last: who finds it gone must not find its log.
    for (const std::string& suffix : {logSuffix, std::string("-shm")}) {
        TavroRename(directory, (Place.Name + suffix).c_str(), directory, (aside + suffix).c_str());
    }
    const int error = TavroRenameNoReplace(directory, Place.Name.c_str(), directory, aside.c_str());
    if (error != 0) {
        return TavroFail(Kind::HistorySetAside, error, Path);
    }
    Notice = "The history '" + Path + "' is damaged and was set aside as '" +
             TavroJoin(TavroParentOf(Path), aside) + "'";
    return {};
}

// -------------------------------------------------------------------------------------------------
// Transactions
// -------------------------------------------------------------------------------------------------

/// @return whether to try again.
bool TavroDatabase::Wait(int Count) {
    if (bImpatient) {
        return false;
    }
    const Clock::time_point now = Clock::now();
    WaitsSince = Count == 0 ? now : WaitsSince;
    bCancelled = ShouldCancel && ShouldCancel();
    if (bCancelled || now - WaitsSince >= Patience) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(Count < 10 ? 1 : 20));
    return true;
}

TavroFailure TavroDatabase::Failure(Kind What) const {
    const int code = Code & 0xFF;
    if (code == SQLITE_NOMEM) {
        throw std::bad_alloc();
    }
    if (code == SQLITE_OK || code == SQLITE_BUSY) {
        return code == SQLITE_OK
                   ? TavroFailure()
                   : TavroFail(bCancelled ? Kind::Cancelled : Kind::HistoryBusy, 0, Path);
    }
    const int error = code == SQLITE_FULL       ? ENOSPC
                      : code == SQLITE_READONLY ? EACCES
                      : code == SQLITE_NOTFOUND ? ENOENT
                                                : sqlite3_system_errno(Connection);
    return TavroFail(What, error != 0 ? error : EIO, Path);
}

/// Brings what was committed to the disk.
void TavroDatabase::Sync() {
    TavroDescriptor log;
    if (!IsWell() || !bSync) {
        return;
    }
    int error = TavroOpenAt(Place.Number(), (Place.Name + logSuffix).c_str(), O_RDONLY, log);
    error = error != 0 ? error : TavroSync(log.Number());
    error = error != 0 || !bNewLog ? error : TavroSync(Place.Number());
    bNewLog = bNewLog && error != 0;
    Keep(error == 0 ? SQLITE_OK : error == ENOSPC ? SQLITE_FULL : SQLITE_IOERR);
}

/// Does something in a transaction of its own, unless one was begun before. A file that turns out
/// to be damaged is set aside, and it is done with a new one.
TavroFailure TavroDatabase::Transact(Access What, const std::function<void()>& Do, bool bAgain) {
    const bool bWrite = What != Access::Read;
    if (Connection == nullptr) {
        return {Kind::HistoryOpen, std::make_error_code(std::errc::bad_file_descriptor)};
    }
    const bool bOwn = sqlite3_get_autocommit(Connection) != 0;
    Code = SQLITE_OK;
    if (bOwn) {
        Run(bWrite ? "BEGIN IMMEDIATE" : "BEGIN");
    }
    if (IsWell()) {
        Do();
    }
    if (bOwn) {
        Run("COMMIT");
    }
    if (bOwn && What == Access::Write) {
        Sync();
    }
    TavroFailure failure = Failure(bWrite ? Kind::HistorySave : Kind::HistoryRead);
    const bool bDamaged = IsDamaged();
    if (failure && bOwn) {
        Code = SQLITE_OK;
        Run("ROLLBACK");
    }
    if (!bDamaged || bAgain) {
        return failure;
    }
    failure = SetAside();
    failure = failure ? failure : Open();
    if (!failure && !bOwn) {
        Run("BEGIN IMMEDIATE");
    }
    return failure ? failure : Transact(What, Do, true);
}

/// Begins or ends the transaction of a caller.
TavroFailure TavroDatabase::Change(const char* Text) {
    Code = Connection == nullptr ? SQLITE_MISUSE : SQLITE_OK;
    Run(Text);
    return Failure(Kind::HistorySave);
}

TavroFailure TavroHistory::Begin() {
    return m_database->Change("BEGIN IMMEDIATE");
}

TavroFailure TavroHistory::Commit() {
    TavroFailure failure = m_database->Change("COMMIT");
    m_database->Sync();
    return failure ? failure : m_database->Failure(Kind::HistorySave);
}

void TavroHistory::Rollback() {
    m_database->Change("ROLLBACK");
}

// -------------------------------------------------------------------------------------------------
// Writing
// -------------------------------------------------------------------------------------------------

namespace {

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
    Statement done(Database,
                   "SELECT id, bytes FROM operation NOT INDEXED WHERE state = 0 ORDER BY id DESC");
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
        Statement dropped(Database, "SELECT id, steps FROM operation WHERE state = 2 AND id < "
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

} // namespace

void TavroDatabase::InsertSteps(std::int64_t Id, std::int64_t First,
                                const std::vector<TavroStep>& Steps) {
    const std::string row = "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    std::string text = "INSERT OR REPLACE INTO step VALUES ";
    Statement one(*this, text + row);
    for (std::size_t i = 0; i < stepsAtOnce; ++i) {
        text += (i == 0 ? "" : ", ") + row;
    }
    std::optional<Statement> many;
    std::size_t at = 0;
    while (at < Steps.size()) {
        const bool bMany = Steps.size() - at >= stepsAtOnce;
        Statement& insert = !bMany ? one : many ? *many : many.emplace(*this, text);
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
void TavroDatabase::Insert(TavroOperation& Operation) {
    if (!TavroIsDeletion(Operation.Kind)) {
        Run("UPDATE operation SET state = 2 WHERE state = 1");
    }
    Run("INSERT INTO operation (kind, state, time, steps, entries, bytes) "
        "VALUES (?, ?, ?, ?, ?, ?)",
        Integer(Operation.Kind), Integer(Operation.State), Operation.Time,
        Integer(Operation.Steps.size()), EntriesOf(Operation), BytesOf(Operation));
    Operation.Id = sqlite3_last_insert_rowid(Connection);
    InsertSteps(Operation.Id, 0, Operation.Steps);
}

TavroFailure TavroHistory::Record(TavroOperation& Operation) {
    if (!IsValid(Operation)) {
        return {Kind::HistoryUnrecordable};
    }
    return m_database->Transact(Access::Write, [&] {
        m_database->Insert(Operation);
        DropSurplus(*m_database);
        RemoveDropped(*m_database, Integer(Operation.Steps.size()) + droppedAtOnce);
    });
}

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
        m_database->InsertSteps(Operation.Id, 0, Operation.Steps);
        m_database->Keep(sqlite3_db_cacheflush(m_database->Connection));
    });
}

// -------------------------------------------------------------------------------------------------
// Operations on their way
// -------------------------------------------------------------------------------------------------

namespace {

/// Of the file with the locks, one byte an operation.
const std::string runningSuffix = "-running";

} // namespace

/// Locks the byte of an operation, as long as the database is open. Where there are no locks an
/// operation is taken for interrupted while it runs; its steps are still judged by what they are.
TavroFailure TavroDatabase::HoldLock(std::int64_t Id) {
    if (!Running.IsOpen()) {
        TavroOpenAt(Place.Number(), (Place.Name + runningSuffix).c_str(), O_RDWR | O_CREAT, Running,
                    0600);
    }
    for (int count = 0; Running.IsOpen(); ++count) {
        const int error = TavroLockByte(Running.Number(), Id);
        if (error != EAGAIN && error != EACCES) {
            break;
        }
        bForOperation = true;
        const bool bAgain = Wait(count);
        bForOperation = false;
        if (!bAgain) {
            return {bCancelled ? Kind::Cancelled : Kind::HistoryRunning};
        }
    }
    return {};
}

bool TavroDatabase::IsRunning(std::int64_t Id) {
    TavroDescriptor file;
    return TavroOpenAt(Place.Number(), (Place.Name + runningSuffix).c_str(), O_RDONLY, file) == 0 &&
           TavroIsByteLocked(file.Number(), Id);
}

/// What this thread hides from now on, as long as the system is not started anew, is the
/// operation's.
void TavroDatabase::AddStaging(std::int64_t Id) {
    Run("UPDATE operation SET staging = staging || ? WHERE id = ?",
        ' ' + TavroStagingPrefix() + ' ' + TavroBootMark(), Id);
}

TavroFailure TavroHistory::BeginOperation(TavroOperation& Operation) {
    if (!IsValid(Operation)) {
        return {Kind::HistoryUnrecordable};
    }
    TavroFailure failure = m_database->Transact(Access::WriteLater, [&] {
        m_database->Insert(Operation);
        m_database->AddStaging(Operation.Id);
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

/// Whether an operation that was read is still the same. What was undone and redone meanwhile has
/// its state again, and other steps.
bool TavroDatabase::IsAsItWas(const TavroOperation& Operation) {
    Statement version(*this, "PRAGMA data_version");
    if (version.Next() && version.Number(0) == ReadVersion) {
        return true; // nobody has written
    }
    std::optional<TavroOperation> now;
    ReadNext("id = " + std::to_string(Operation.Id), now);
    return now && now->State == Operation.State && now->Steps == Operation.Steps;
}

TavroFailure TavroHistory::ContinueOperation(const TavroOperation& Operation,
                                             TavroOperationState NewState, bool& OutChanged) {
    TavroFailure failure = m_database->HoldLock(Operation.Id);
    failure = failure ? failure : m_database->Transact(Access::Write, [&] {
        m_database->Run("UPDATE operation SET state = ? WHERE id = ? AND state = ? AND ?",
                        Integer(NewState), Operation.Id, Integer(Operation.State),
                        Integer(m_database->IsAsItWas(Operation)));
        OutChanged = sqlite3_changes(m_database->Connection) == 0;
        if (!OutChanged) { // else it is another process's
            m_database->AddStaging(Operation.Id);
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
        m_database->InsertSteps(Id, Integer(First), Steps);
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
            m_database->InsertSteps(Operation.Id, 0, Operation.Steps);
        } else if (!Operation.Steps.empty()) { // it tells when all have ended
            m_database->InsertSteps(Operation.Id, 0, {Operation.Steps.front()});
        }
        DropSurplus(*m_database);
        RemoveDropped(*m_database, Integer(Operation.Steps.size()) + droppedAtOnce);
    });
    LeaveOperation();
    return failure;
}

TavroFailure TavroHistory::Drop(std::int64_t Id) {
    bool bDropped = false;
    TavroFailure failure = m_database->Transact(Access::Write, [&] {
        m_database->Run("UPDATE operation SET state = 2 WHERE id = ? AND state <> 2", Id);
        bDropped = sqlite3_changes(m_database->Connection) != 0;
    });
    return failure || bDropped ? failure : TavroFailure{Kind::NothingToDrop};
}

// -------------------------------------------------------------------------------------------------
// Reading
// -------------------------------------------------------------------------------------------------

namespace {

/// Whether a number from the file is one of 0 to `Largest`.
template <typename Value> bool IsOneOf(std::int64_t Number, Value Largest) {
    return Number >= 0 && Number <= Integer(Largest);
}

/// Reads the first steps of an operation.
/// @return whether all that were read could have been written here.
bool ReadSteps(Statement& Row, std::int64_t Count, TavroOperation& OutOperation) {
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
        // What was trashed as it was told before has the time of the end in its first step.
        if (step.Role == TavroStepRole::Trashed && step.ChangeTime == 0 &&
            !OutOperation.Steps.empty() &&
            OutOperation.Steps.front().Role == TavroStepRole::Trashed) {
            step.ChangeTime = OutOperation.Steps.front().ChangeTime;
        }
        OutOperation.Steps.push_back(std::move(step));
    }
    return true;
}

const std::string operationsWhere =
    "SELECT id, kind, state, time, steps, entries, staging FROM operation WHERE ";
constexpr const char* stepsOfOne =
    "SELECT number, role, source, target, record, device, inode, changed, mode, directory, "
    "attributes, staged, source_device, source_inode, source_changed FROM step WHERE operation = ? "
    "ORDER BY number "
    "LIMIT ?";

/// @return whether a row of an operation could have been written here.
bool ReadOperation(Statement& Row, TavroOperation& OutOperation) {
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

} // namespace

TavroFailure TavroDatabase::ReadNext(const std::string& Which,
                                     std::optional<TavroOperation>& OutOperation) {
    bool bValid = true;
    TavroFailure failure = Transact(Access::Read, [&] {
        OutOperation.reset();
        bValid = true;
        Statement version(*this, "PRAGMA data_version");
        ReadVersion = version.Next() ? version.Number(0) : 0;
        Statement row(*this, operationsWhere + Which);
        Statement steps(*this, stepsOfOne);
        if (row.Next()) {
            TavroOperation& operation = OutOperation.emplace();
            const std::int64_t count = row.Number(4);
            bValid = ReadOperation(row, operation) && ReadSteps(steps, count + 1, operation) &&
                     Integer(operation.Steps.size()) == count && IsWhole(operation);
        }
    });
    if (failure || !bValid) {
        OutOperation.reset();
    }
    return failure || bValid ? failure : TavroFailure{Kind::HistoryInvalid, {}, Path};
}

TavroFailure TavroHistory::NextToUndo(std::optional<TavroOperation>& OutOperation) {
    return m_database->ReadNext("state IN (0, 3, 4, 5) ORDER BY id DESC LIMIT 1", OutOperation);
}

TavroFailure TavroHistory::NextToRedo(std::optional<TavroOperation>& OutOperation) {
    return m_database->ReadNext("state = 1 ORDER BY undone DESC, id LIMIT 1", OutOperation);
}

TavroFailure TavroHistory::Read(std::int64_t Id, std::optional<TavroOperation>& OutOperation) {
    return m_database->ReadNext("state <> 2 AND id = " + std::to_string(Id), OutOperation);
}

TavroFailure TavroHistory::NextToResume(std::optional<TavroOperation>& OutOperation) {
    return m_database->ReadNext("state > 2 ORDER BY id DESC LIMIT 1", OutOperation);
}

TavroFailure TavroHistory::List(bool bSteps, std::vector<TavroOperation>& OutOperations,
                                std::vector<std::uint64_t>& OutEntryCounts) {
    return m_database->Transact(Access::Read, [&] {
        OutOperations.clear();
        OutEntryCounts.clear();
        Statement row(*m_database,
                      operationsWhere + "state <> 2 ORDER BY state = 1 DESC, "
                                        "CASE state WHEN 1 THEN undone END, id DESC LIMIT ?",
                      mostOperations);
        Statement steps(*m_database, stepsOfOne);
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
