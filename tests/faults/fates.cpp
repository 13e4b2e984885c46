#include "fates.h"

#include <algorithm>
#include <initializer_list>

namespace tavro_test {

const std::vector<MoveRow>& moveRows() {
    static const std::vector<MoveRow> all = {
        {Move::Untouched, "W-", {}},
        {Move::Moved, "-W", {}},
        {Move::CopyFailed, "W-", {}},
        {Move::CopyFailed, "Wp", Exception::PartialCopyStays},
        {Move::CopyFailed, "WW", Exception::PartialCopyStays},
        {Move::RemoveFailed, "W-", {}},
        {Move::RemoveFailed, "p-", Exception::SourcePartlyRemoved},
        {Move::RemoveFailed, "Wp", Exception::CopyNotDiscarded},
        {Move::RemoveFailed, "WW", Exception::CopyNotDiscarded},
        {Move::RemoveFailed, "pp", Exception::CopyNotDiscarded},
        {Move::RemoveFailed, "pW", Exception::CopyNotDiscarded},
        {Move::Deleted, "--", {}},
        {Move::PartlyDeleted, "W-", Exception::DeleteStopsHalfWay},
        {Move::PartlyDeleted, "p-", Exception::DeleteStopsHalfWay},
    };
    return all;
}

const std::vector<RecordRow>& recordRows() {
    static const std::vector<RecordRow> all = {
        {Record::None, '-', {}},
        {Record::Written, 'R', {}},
        {Record::Written, 'r', Exception::RecordCutShort},
        {Record::Kept, 'R', {}},
        {Record::Kept, 'r', Exception::RecordCutShort},
        {Record::Undone, '-', {}},
        {Record::Undone, 'r', Exception::RecordLeftBehind},
        {Record::Undone, 'R', Exception::RecordLeftBehind},
        {Record::Stays, '-', {}},
        {Record::Stays, 'r', Exception::RecordLeftBehind},
        {Record::Dropped, '-', {}},
        {Record::Dropped, 'r', Exception::RecordLeftBehind},
        {Record::Dropped, 'R', Exception::RecordLeftBehind},
        {Record::Rewritten, 'R', {}},
        {Record::Rewritten, '-', Exception::RecordNotRewritten},
        {Record::Rewritten, 'r', Exception::RecordNotRewritten},
    };
    return all;
}

namespace {

Fate fate(Move move, bool bBack, Record record, std::optional<Exception> told = {}) {
    return {move, bBack, record, told, false};
}

/// How the move of an item ended by a clause; nothing when the clause is not about such a move.
std::optional<Move> moveEnd(const Clause& clause, const Item& item, bool bBack) {
    if (clause.What == Says::DestinationFolder) {
        return Move::Untouched;
    }
    if (clause.Path != (bBack ? item.Destination : item.Original)) {
        return std::nullopt;
    }
    switch (clause.What) {
    case Says::Move:
        return Move::Untouched;
    case Says::Copy:
        return Move::CopyFailed;
    case Says::RemoveOriginal:
        return Move::RemoveFailed;
    default:
        return std::nullopt;
    }
}

Hypothesis everyItem(std::size_t count, const Fate& one) {
    return Hypothesis(count, {one});
}

Clauses without(const Clauses& clauses, std::size_t first) {
    return {clauses.begin() + static_cast<std::ptrdiff_t>(first), clauses.end()};
}

/// Item `failed` could not go back to the trash: the sentence tells of the first such item only.
Hypothesis returnFailed(Hypothesis state, std::size_t failed, std::size_t end, Move move) {
    const Fate back = fate(Move::Moved, false, Record::Rewritten);
    for (std::size_t i = 0; i < end; ++i) {
        state[i] = {back};
        for (const Move silent : {Move::Untouched, Move::CopyFailed, Move::RemoveFailed}) {
            if (i < failed) {
                state[i].push_back(fate(silent, false, Record::Dropped, Exception::StaysRestored));
                state[i].back().bSilent = true;
            }
        }
    }
    state[failed] = {fate(move, false, Record::Dropped, Exception::StaysRestored)};
    return state;
}

/// What a failed restore of the first `count` items leaves.
Hypotheses afterFailedRestore(const std::vector<Item>& items, std::size_t count,
                              const Clauses& clauses) {
    Hypotheses found;
    const Hypothesis all = everyItem(count, fate(Move::Untouched, true, Record::Kept));
    for (std::size_t i = 0; i < count; ++i) {
        const bool bRefused =
            (clauses[0].What == Says::TrashMissing && clauses[0].Path == items[i].Destination) ||
            (clauses[0].What == Says::TargetExists && clauses[0].Path == items[i].Original);
        if (bRefused && clauses.size() == 1) {
            found.push_back(all);
        }
        const std::optional<Move> move = moveEnd(clauses[0], items[i], true);
        if (!move) {
            continue;
        }
        Hypothesis state = all;
        state[i] = {fate(*move, true, Record::Kept)};
        if (clauses.size() == 1) {
            for (std::size_t before = 0; before < i; ++before) {
                state[before] = {fate(Move::Moved, false, Record::Rewritten)};
            }
            found.push_back(state);
        }
        for (std::size_t before = 0; clauses.size() == 2 && before < i; ++before) {
            if (const std::optional<Move> back = moveEnd(clauses[1], items[before], false)) {
                found.push_back(returnFailed(state, before, i, *back));
            }
        }
    }
    return found;
}

/// Adds what a failure of item `failed` leaves; `rest` is what the sentence says of those before.
void addFailedTrash(const std::vector<Item>& items, std::size_t failed, const Fate& its,
                    const Clauses& rest, Hypotheses& found) {
    Hypothesis state = everyItem(items.size(), fate(Move::Untouched, false, Record::None));
    state[failed] = {its};
    Hypotheses earlier = {everyItem(failed, fate(Move::Moved, true, Record::Dropped))};
    if (!rest.empty()) {
        earlier = afterFailedRestore(items, failed, rest);
    }
    for (Hypothesis& before : earlier) {
        for (std::vector<Fate>& fates : before) {
            for (Fate& one : fates) {
                one.Told = rest.empty() || one.Told ? one.Told : Exception::BatchStaysInTrash;
            }
        }
        std::copy(before.begin(), before.end(), state.begin());
        found.push_back(state);
    }
}

bool isAboutRecord(const Clause& clause, const Item& item) {
    return (clause.What == Says::CreateRecord || clause.What == Says::WriteRecord) &&
           clause.Path == item.Record;
}

Hypotheses afterFailedTrash(const std::vector<Item>& items, const Clauses& clauses) {
    Hypotheses found;
    for (std::size_t i = 0; i < items.size(); ++i) {
        const Clause& first = clauses[0];
        std::optional<Move> move = moveEnd(first, items[i], false);
        if (first.What == Says::FilesFolder || first.What == Says::InfoFolder) {
            move = Move::Untouched;
        }
        if (move) {
            addFailedTrash(items, i, fate(*move, false, Record::None), without(clauses, 1), found);
        }
        if (!isAboutRecord(first, items[i])) {
            continue;
        }
        addFailedTrash(items, i, fate(Move::Moved, true, Record::Undone), without(clauses, 1),
                       found);
        const std::optional<Move> back =
            clauses.size() > 1 ? moveEnd(clauses[1], items[i], true) : std::nullopt;
        if (back) {
            addFailedTrash(items, i, fate(*back, true, Record::Undone, Exception::StaysInTrash),
                           without(clauses, 2), found);
        }
    }
    return found;
}

/// After a failure that stopped at one item: those before it, itself, those after it.
Hypothesis stoppedAt(std::size_t count, std::size_t stop, const Fate& before, const Fate& its,
                     const Fate& after) {
    Hypothesis state = everyItem(count, after);
    std::fill(state.begin(), state.begin() + static_cast<std::ptrdiff_t>(stop),
              std::vector<Fate>{before});
    state[stop] = {its};
    return state;
}

Hypotheses afterFailedBatch(Operation what, const std::vector<Item>& items, const Clause& clause) {
    Hypotheses found;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (what == Operation::DeleteForGood && clause.What == Says::Delete &&
            clause.Path == items[i].Name) {
            found.push_back(
                stoppedAt(items.size(), i,
                          fate(Move::Deleted, false, Record::None, Exception::DeleteStopsHalfWay),
                          fate(Move::PartlyDeleted, false, Record::None),
                          fate(Move::Untouched, false, Record::None)));
        }
        if (what == Operation::WriteRecords && isAboutRecord(clause, items[i])) {
            found.push_back(stoppedAt(items.size(), i, fate(Move::Untouched, true, Record::Undone),
                                      fate(Move::Untouched, true, Record::Stays),
                                      fate(Move::Untouched, true, Record::None)));
        }
    }
    return found;
}

bool isOneOf(Says what, std::initializer_list<Says> all) {
    return std::find(all.begin(), all.end(), what) != all.end();
}

} // namespace

Hypotheses afterFalse(Operation what, const std::vector<Item>& items, const Clauses& clauses) {
    const Says said = clauses[0].What;
    const Hypotheses unchanged = {
        everyItem(items.size(), fate(Move::Untouched, false, Record::None))};
    const auto unchangedIf = [&](bool bKnown) {
        return bKnown && clauses.size() == 1 ? unchanged : Hypotheses();
    };
    switch (what) {
    case Operation::Trash:
    case Operation::DeleteToTrash:
    case Operation::Reapply:
        return afterFailedTrash(items, clauses);
    case Operation::Restore:
        return afterFailedRestore(items, items.size(), clauses);
    case Operation::WriteRecords:
    case Operation::DeleteForGood:
        return clauses.size() == 1 ? afterFailedBatch(what, items, clauses[0]) : Hypotheses();
    case Operation::Prepare:
        return unchangedIf(isOneOf(said, {Says::FilesFolder, Says::InfoFolder}));
    case Operation::Rename:
        return unchangedIf(isOneOf(said, {Says::RenameFolder, Says::Rename, Says::RenameExists}));
    case Operation::CreateDirectory:
        return unchangedIf(said == Says::MakeDirectory);
    case Operation::Plan:
        return unchangedIf(isOneOf(said, {Says::CheckDestination, Says::PlanTarget}));
    case Operation::RemoveRecords:
    case Operation::Size:
        break;
    }
    return {};
}

Hypothesis afterTrue(Operation what, std::size_t count) {
    const Fate still = fate(Move::Untouched, false, Record::None);
    Hypothesis state = everyItem(count, still);
    switch (what) {
    case Operation::Trash:
    case Operation::DeleteToTrash:
    case Operation::Reapply:
        return everyItem(count, fate(Move::Moved, false, Record::Written));
    case Operation::Restore:
        return everyItem(count, fate(Move::Moved, true, Record::Dropped));
    case Operation::WriteRecords:
        return everyItem(count, fate(Move::Untouched, true, Record::Written));
    case Operation::RemoveRecords:
        return everyItem(count, fate(Move::Untouched, true, Record::Dropped));
    case Operation::DeleteForGood:
        return everyItem(count, fate(Move::Deleted, false, Record::None));
    case Operation::Rename:
        state[0] = {fate(Move::Moved, false, Record::None)};
        break;
    case Operation::Prepare:
    case Operation::CreateDirectory:
    case Operation::Plan:
    case Operation::Size:
        break;
    }
    return state;
}

} // namespace tavro_test
