/// The SQLite file of the history: how it is opened, waited for, written and set aside.

#ifndef TAVRO_ENGINE_DATABASE_H
#define TAVRO_ENGINE_DATABASE_H

#include "failure.h"
#include "place.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <sqlite3.h>
#include <string>

/// The database, open or not. The first error stays in `Code`; nothing more is done until it is
/// cleared.
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
    TavroFailure Open(int Try = 0);
    void Connect();
    void CheckSchema();
    void CreateSchema();
    void BringUpToDate();
    int ReadThrough() const;
    TavroFailure SetAside();
    TavroFailure StepBack(int Try);
    bool Wait(int Count);
    TavroFailure Failure(TavroFailureKind What) const;
    /// What a transaction does with the database.
    enum class Access { Read, Write, WriteLater }; // later: nobody waits until it is on the disk

    TavroFailure Transact(Access What, const std::function<void()>& Do, int Try = 0);
    void Sync();
    void EmptyLog();
    TavroFailure HoldLock(std::int64_t Id);
    bool IsRunning(std::int64_t Id);

    TavroPlace Place;
    std::string Path;            ///< As it was given, for sentences.
    TavroIdentity Identity = {}; ///< Of the file.
    std::string Notice;
    std::chrono::milliseconds Patience = {};
    std::function<bool()> ShouldCancel;
    std::chrono::steady_clock::time_point WaitsSince;
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

/// One statement of SQL, with its values and the row that it has come to.
class TavroStatement {
public:
    template <typename... Values>
    TavroStatement(TavroDatabase& Database, const std::string& Text, const Values&... All)
        : m_database(Database) {
        if (Database.IsWell()) {
            Database.Keep(
                sqlite3_prepare_v2(Database.Connection, Text.c_str(), -1, &m_statement, nullptr));
        }
        Bind(All...);
    }
    ~TavroStatement() {
        sqlite3_finalize(m_statement);
    }
    TavroStatement(const TavroStatement&) = delete;
    TavroStatement& operator=(const TavroStatement&) = delete;

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

template <typename... Values>
void TavroDatabase::Run(const std::string& Text, const Values&... All) {
    TavroStatement statement(*this, Text, All...);
    while (statement.Next()) {
    }
}

#endif
