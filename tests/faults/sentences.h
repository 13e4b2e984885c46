// The sentences that an operation may say, taken apart.

#ifndef TAVRO_TESTS_SENTENCES_H
#define TAVRO_TESTS_SENTENCES_H

#include <string>
#include <vector>

namespace tavro_test {

enum class Says {
    FilesFolder,
    InfoFolder,
    DestinationFolder,
    Move,
    Copy,
    RemoveOriginal,
    CreateRecord,
    WriteRecord,
    TrashMissing,
    TargetExists,
    Delete,
    MakeDirectory,
    RenameFolder,
    Rename,
    RenameExists,
    CheckDestination,
    PlanTarget,
};

struct Clause {
    Says What = Says::Move;
    std::string Path;
    std::string Reason;
};

using Clauses = std::vector<Clause>;

/// The clauses of a message, of which all but the first tell of a roll-back; none when one of them
/// is unknown.
Clauses parse(std::string message);

/// The text that the operating system has for an errno.
std::string textOf(int error);

/// A call of this name that fails can lead to the clause.
bool canLeadTo(Says what, const std::string& call);

/// The reason in the clause follows from some fault without being its text.
bool isConsequence(const Clause& clause);

/// It follows from a call of this name that failed with `error`, which is 0 for a short write.
bool isConsequenceOf(const Clause& clause, const std::string& call, int error);

} // namespace tavro_test

#endif
