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

/// A reason that follows from a fault without being it.
struct Consequence {
    Says What;
    int Errno;
};

constexpr Consequence consequences[] = {
    // The copy has not arrived whole.
    {Says::Copy, EIO},
    // A folder that cannot be examined is not created, so the one in it cannot be.
    {Says::FilesFolder, ENOENT},
    {Says::InfoFolder, ENOENT},
    {Says::DestinationFolder, ENOENT},
    {Says::MakeDirectory, ENOENT},
    {Says::RenameFolder, ENOENT},
    // A name that cannot be examined counts as free and is not.
    {Says::Move, ENOTDIR},
    {Says::Move, EISDIR},
    {Says::Copy, EEXIST},
    {Says::Copy, EISDIR},
};

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

bool isConsequence(const Clause& clause) {
    return std::any_of(std::begin(consequences), std::end(consequences),
                       [&](const Consequence& one) {
                           return one.What == clause.What && clause.Reason == textOf(one.Errno);
                       });
}

} // namespace tavro_test
