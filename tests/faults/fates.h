// What an outcome says about each item: the tables of what a move and a record may leave, and the
// fates that follow from what an operation returned and said.

#ifndef TAVRO_TESTS_FATES_H
#define TAVRO_TESTS_FATES_H

#include "exceptions.h"
#include "scenarios.h"
#include "sentences.h"

#include <optional>
#include <vector>

namespace tavro_test {

enum class Move { Untouched, Moved, CopyFailed, RemoveFailed, Deleted, PartlyDeleted };
enum class Record { None, Written, Kept, Undone, Stays, Dropped, Rewritten };

/// What the outcome says about one item: how its last move ended, whether that led from the trash
/// to its original place, and what became of its record.
struct Fate {
    Move LastMove;
    bool bBack;
    Record ItsRecord;
    std::optional<Exception> Told; ///< what the sentence itself gives up
    /// The sentence is silent about it, so only a call that failed on the item can have led to it.
    bool bSilent = false;
};

/// The states of the source and the destination of a move: "-" nothing, "p" a part, "W" the whole.
struct MoveRow {
    Move LastMove;
    const char* Places;
    std::optional<Exception> GivenUp;
};

const std::vector<MoveRow>& moveRows();

/// The states of a record: "-" none, "r" a part, "R" the whole. What is given up here is not told
/// in the sentence, so a call on that very record must have failed.
struct RecordRow {
    Record ItsRecord;
    char State;
    std::optional<Exception> GivenUp;
};

const std::vector<RecordRow>& recordRows();

/// For each item, the fates that the outcome leaves open.
using Hypothesis = std::vector<std::vector<Fate>>;
using Hypotheses = std::vector<Hypothesis>;

/// The states that a call that returned false may leave by its sentence.
Hypotheses afterFalse(Operation what, const std::vector<Item>& items, const Clauses& clauses);

/// The state that a call that returned true must leave.
Hypothesis afterTrue(Operation what, std::size_t count);

} // namespace tavro_test

#endif
