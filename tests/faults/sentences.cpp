#include "sentences.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <system_error>

namespace tavro_test {

namespace {

/// How a sentence reads: `Before`, a path and `Between` when it names one, a reason when it has
/// one.
struct Shape {
    Says What;
    const char* Before;
    const char* Between; ///< null: no path
    bool bReason;
};

constexpr Shape shapes[] = {
    {Says::FilesFolder, "Failed to create trash files directory: ", nullptr, true},
    {Says::InfoFolder, "Failed to create trash info directory: ", nullptr, true},
    {Says::DestinationFolder, "Failed to create destination directory: ", nullptr, true},
    {Says::Move, "Failed to move '", "': ", true},
    {Says::Copy, "Failed to copy '", "': ", true},
    {Says::RemoveOriginal, "Failed to remove original '", "' after copying: ", true},
    {Says::CreateRecord, "Failed to create trash metadata '", "'.", false},
    {Says::WriteRecord, "Failed to write trash metadata '", "'.", false},
    {Says::TrashMissing, "Trash item is missing: ", "", false},
    {Says::TargetExists, "Restore target already exists: ", "", false},
    {Says::Delete, "Delete failed for '", "': ", true},
    {Says::MakeDirectory, "Failed to create directory: ", nullptr, true},
    {Says::RenameFolder, "Failed to create rename target directory: ", nullptr, true},
    {Says::Rename, "Rename failed: ", nullptr, true},
    {Says::RenameExists, "Rename target already exists.", nullptr, false},
    {Says::CheckDestination, "Failed checking destination '", "': ", true},
    {Says::PlanTarget, "Move Target must be a directory when multiple items are selected.", nullptr,
     false},
};

std::optional<Clause> parseClause(const std::string& text) {
    for (const Shape& shape : shapes) {
        if (text.rfind(shape.Before, 0) != 0) {
            continue;
        }
        Clause clause = {shape.What, "", text.substr(std::string(shape.Before).size())};
        if (shape.Between != nullptr) {
            const std::size_t end = clause.Reason.rfind(shape.Between);
            if (end == std::string::npos) {
                continue;
            }
            clause.Path = clause.Reason.substr(0, end);
            clause.Reason.erase(0, end + std::string(shape.Between).size());
        }
        if (clause.Reason.empty() != shape.bReason) {
            return clause;
        }
    }
    return std::nullopt;
}

using Calls = std::vector<std::string>;

// The names of the C library and, where they differ, those of the system.
const Calls examining = {"stat", "lstat", "newfstatat"};
const Calls creating = {"mkdir", "stat", "lstat", "newfstatat"};
const Calls listing = {"opendir", "fdopendir", "openat", "readdir", "getdents64"};
const Calls opening = {"fopen64", "open", "openat"};
const Calls writing = {"write", "writev"};
const Calls removing = {"remove",  "unlink",  "unlinkat",  "rmdir",   "open",       "openat",
                        "opendir", "readdir", "fdopendir", "fstat64", "getdents64", "newfstatat"};
const Calls copying = {"stat",     "lstat",   "newfstatat", "fstat64", "mkdir",    "open",
                       "openat",   "opendir", "fdopendir",  "readdir", "readlink", "getdents64",
                       "symlink",  "read",    "write",      "writev",  "sendfile", "fchmod",
                       "fchmodat", "close",   "fclose",     "lseek",   "truncate", "utimensat"};

/// Whose failure a clause tells of.
const Calls& callsOf(Says what) {
    static const Calls renaming = {"rename"};
    static const Calls none;
    switch (what) {
    case Says::FilesFolder:
    case Says::InfoFolder:
    case Says::DestinationFolder:
    case Says::MakeDirectory:
    case Says::RenameFolder:
        return creating;
    case Says::Move:
    case Says::Rename:
        return renaming;
    case Says::Copy:
        return copying;
    case Says::RemoveOriginal:
    case Says::Delete:
        return removing;
    case Says::CreateRecord:
        return opening;
    case Says::WriteRecord:
        return writing;
    case Says::TrashMissing:
    case Says::TargetExists:
    case Says::CheckDestination:
    case Says::PlanTarget:
        return examining;
    case Says::RenameExists:
        break;
    }
    return none;
}

bool isOneOf(const Calls& calls, const std::string& call) {
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

/// A reason that follows from a fault without being it.
struct Consequence {
    Says What;
    int Errno;
    const Calls& Of;
};

const Consequence consequences[] = {
    // The copy has not arrived whole, or that cannot be told.
    {Says::Copy, EIO, examining},
    {Says::Copy, EIO, listing},
    {Says::Copy, EIO, writing}, // a stream does not say that a write failed
    // A directory that cannot be examined is not created, so the one in it cannot be.
    {Says::FilesFolder, ENOENT, examining},
    {Says::InfoFolder, ENOENT, examining},
    {Says::DestinationFolder, ENOENT, examining},
    {Says::MakeDirectory, ENOENT, examining},
    {Says::RenameFolder, ENOENT, examining},
    // A name that cannot be examined counts as free and is not.
    {Says::Move, ENOTDIR, examining},
    {Says::Move, EISDIR, examining},
    {Says::Copy, EEXIST, examining},
    {Says::Copy, EISDIR, examining},
};

bool gives(const Consequence& one, const Clause& clause) {
    return one.What == clause.What && clause.Reason == textOf(one.Errno);
}

} // namespace

Clauses parse(std::string message) {
    static const std::string separator = " Rollback failed: ";
    Clauses clauses;
    for (bool bMore = true; bMore;) {
        const std::size_t end = message.find(separator);
        bMore = end != std::string::npos;
        const std::optional<Clause> clause = parseClause(message.substr(0, end));
        if (!clause) {
            return {};
        }
        clauses.push_back(*clause);
        message.erase(0, bMore ? end + separator.size() : end);
    }
    return clauses;
}

std::string textOf(int error) {
    return std::error_code(error, std::generic_category()).message();
}

bool canLeadTo(Says what, const std::string& call) {
    return isOneOf(callsOf(what), call);
}

bool isConsequence(const Clause& clause) {
    return std::any_of(std::begin(consequences), std::end(consequences),
                       [&](const Consequence& one) { return gives(one, clause); });
}

bool isConsequenceOf(const Clause& clause, const std::string& call, int error) {
    const bool bShort = error == 0 && clause.What == Says::Copy;
    return std::any_of(std::begin(consequences), std::end(consequences),
                       [&](const Consequence& one) {
                           const bool bFits = isOneOf(one.Of, call) || (bShort && one.Errno == EIO);
                           return bFits && gives(one, clause);
                       });
}

} // namespace tavro_test
