#include "database.h"

#include "names.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using Kind = TavroFailureKind;

/// How often what looks damaged is tried again: as it is, and when it was set aside.
constexpr int mostTries = 2;

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
    "NULL, source_inode INTEGER NOT NULL, source_changed INTEGER NOT NULL, PRIMARY KEY "
    "(operation, number)) WITHOUT ROWID;";
const std::string applicationId = "1415668338";
const std::string schema = firstSchema + ", " + undoneColumn + schemaOfTheRest;
const std::string schemaVersion = "2";

const std::string logSuffix = "-wal";

/// Of the file with the locks, one byte an operation.
const std::string runningSuffix = "-running";

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

TavroFailure TavroDatabase::Open(int Try) {
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
    if (bDamaged && Try < mostTries) {
        failure = StepBack(Try);
        return failure ? failure : Open(Try + 1);
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
    ReadVersion = 0; // of another connection
    Code = sqlite3_open_v2(Place.OwnPath().c_str(), &Connection,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX,
                           nullptr);
    struct stat status = {};
    if (TavroLookAt(Place, status) != 0 || TavroIdentityOf(status) != Identity) {
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
        TavroStatement row(*this, text);
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

/// Reads all that there is. @return 0, or the error number: of a disk that cannot read it.
int TavroDatabase::ReadThrough() const {
    int error = 0;
    for (const std::string& name : {Place.Name, Place.Name + logSuffix}) {
        TavroDescriptor file;
        std::array<char, 1U << 16> bytes;
        std::size_t count = 1;
        const int opened = TavroOpenAt(Place.Number(), name.c_str(), O_RDONLY, file);
        error = error != 0 || opened == ENOENT ? error : opened;
        for (off_t at = 0; opened == 0 && error == 0 && count != 0;
             at += static_cast<off_t>(count)) {
            error = TavroReadAt(file.Number(), bytes.data(), bytes.size(), at, count);
        }
    }
    return error;
}

/// What looked damaged is closed. When that is so for the second time it is set aside: a disk that
/// fails to read looks the same, and may have failed for a moment.
TavroFailure TavroDatabase::StepBack(int Try) {
    sqlite3_close(std::exchange(Connection, nullptr));
    if (Try == 0) {
        return {};
    }
    const int error = ReadThrough();
    return error != 0 ? TavroFail(Kind::HistoryRead, error, Path) : SetAside();
}

/// Renames the file with what belongs to it, unless another process has done that.
TavroFailure TavroDatabase::SetAside() {
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

/// Does something in a transaction. A file that turns out to be damaged is set aside, and it is
/// done with a new one.
TavroFailure TavroDatabase::Transact(Access What, const std::function<void()>& Do, int Try) {
    const bool bWrite = What != Access::Read;
    if (Connection == nullptr) {
        return {Kind::HistoryOpen, std::make_error_code(std::errc::bad_file_descriptor)};
    }
    Code = SQLITE_OK;
    Run(bWrite ? "BEGIN IMMEDIATE" : "BEGIN");
    if (IsWell()) {
        Do();
    }
    Run("COMMIT");
    if (What == Access::Write) {
        Sync();
    }
    TavroFailure failure = Failure(bWrite ? Kind::HistorySave : Kind::HistoryRead);
    const bool bDamaged = IsDamaged();
    if (failure) {
        Code = SQLITE_OK;
        Run("ROLLBACK");
    }
    if (!bDamaged || Try == mostTries) {
        return failure;
    }
    failure = StepBack(Try);
    failure = failure ? failure : Open();
    return failure ? failure : Transact(What, Do, Try + 1);
}

/// Locks the byte of an operation, as long as the database is open. Where there are no locks an
/// operation is taken for interrupted while it runs; its steps are still judged by what they are.
TavroFailure TavroDatabase::HoldLock(std::int64_t Id) {
    if (!Running.IsOpen()) {
        const std::string name = Place.Name + runningSuffix;
        if (TavroOpenAt(Place.Number(), name.c_str(), O_RDWR, Running) == ENOENT &&
            TavroOpenAt(Place.Number(), name.c_str(), O_RDWR | O_CREAT, Running, 0600) == 0) {
            TavroSetMode(Running.Number(), 0600); // whatever the umask
        }
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
