/// What tests do with a history beside what the engine does with it.

#ifndef TAVRO_TESTS_HISTORY_SUPPORT_H
#define TAVRO_TESTS_HISTORY_SUPPORT_H

#include "history.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>
#include <unistd.h>
#include <utility>

/// Adds what was just done, as an operation that begins and ends.
inline TavroFailure recordDone(TavroHistory& history, TavroOperation& operation) {
    TavroFailure failure = history.BeginOperation(operation);
    return failure ? failure : history.EndOperation(operation, true);
}

/// A database, as another program has it open.
class OtherProgram {
public:
    explicit OtherProgram(const std::string& file) {
        EXPECT_EQ(sqlite3_open(file.c_str(), &m_connection), SQLITE_OK);
    }
    ~OtherProgram() {
        sqlite3_close(m_connection);
    }
    OtherProgram(const OtherProgram&) = delete;
    OtherProgram& operator=(const OtherProgram&) = delete;

    void execute(const std::string& sql) {
        char* message = nullptr;
        EXPECT_EQ(sqlite3_exec(m_connection, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK)
            << (message == nullptr ? "" : message);
        sqlite3_free(message);
    }

    /// The first column of the first row.
    std::int64_t query(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(m_connection, sql.c_str(), -1, &statement, nullptr),
                  SQLITE_OK);
        EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
        const std::int64_t number = sqlite3_column_int64(statement, 0);
        sqlite3_finalize(statement);
        return number;
    }

private:
    sqlite3* m_connection = nullptr;
};

inline std::function<int()> g_writeError;
inline std::function<int()> g_readError;

inline ssize_t writeUnlessFailing(int descriptor, const void* bytes, size_t count, off_t at) {
    const std::string path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).string();
    errno = path.find("-wal") != std::string::npos ? g_writeError() : 0;
    return errno != 0 ? -1 : pwrite(descriptor, bytes, count, at);
}

inline ssize_t readUnlessFailing(int descriptor, void* bytes, size_t count, off_t at) {
    errno = g_readError();
    return errno != 0 ? -1 : pread64(descriptor, bytes, count, at);
}

/// While it lives, the database makes a call of its own in another way.
class OtherCall {
public:
    OtherCall(const char* name, sqlite3_syscall_ptr call) : m_name(name) {
        set(call);
    }
    ~OtherCall() {
        set(nullptr);
    }
    OtherCall(const OtherCall&) = delete;
    OtherCall& operator=(const OtherCall&) = delete;

private:
    void set(sqlite3_syscall_ptr call) {
        sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
        ASSERT_EQ(files->xSetSystemCall(files, m_name, call), SQLITE_OK);
    }

    const char* const m_name;
};

/// While it lives, the database cannot write to its log when `error` gives a number.
class FailingWrites : OtherCall {
public:
    explicit FailingWrites(std::function<int()> error)
        : OtherCall("pwrite64", reinterpret_cast<sqlite3_syscall_ptr>(writeUnlessFailing)) {
        g_writeError = std::move(error);
    }
};

/// While it lives, the database cannot read its files when `error` gives a number.
class FailingReads : OtherCall {
public:
    explicit FailingReads(std::function<int()> error)
        : OtherCall("pread64", reinterpret_cast<sqlite3_syscall_ptr>(readUnlessFailing)) {
        g_readError = std::move(error);
    }
};

#endif
