#include "undo.h"

#include "edit.h"
#include "journal.h"
#include "names.h"
#include "remove.h"
#include "reversal.h"
#include "settlement.h"
#include "trash_contents.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace {

using Kind = TavroFailureKind;
using Role = TavroStepRole;

/// One undo, redo or resumption, with what the history has to know of it.
class Going {
public:
    /// @param Only  the number of the operation; 0: the next one.
    Going(TavroHistory& History, const TavroTransferCallbacks& Callbacks, std::int64_t Only = 0)
        : m_history(History), m_callbacks(Callbacks), m_only(Only) {}

    using FindNext = TavroFailure (TavroHistory::*)(std::optional<TavroOperation>&);
    TavroUndoReport Run(FindNext Find, TavroFailureKind Nothing, bool bUndo, bool bResume);

private:
    TavroFailure Settle(bool& IoUndo, bool bResume);
    static TavroFailure CheckNothingMissing(const std::vector<TavroStep>& Done,
                                            const std::vector<TavroStep>& NotDone);
    void Sort(std::vector<TavroStep> Done, std::vector<TavroStep> NotDone, bool bUndo);
    TavroTransferPlan PlanRest(const std::set<std::string>& Done,
                               TavroTransferCallbacks& IoCallbacks) const;
    TavroFailure Transfer(TavroTransferCallbacks Callbacks);
    TavroFailure Take(FindNext Find, TavroFailureKind Nothing, bool bUndo);
    static std::vector<TavroStep> Renew(const TavroBatchReport& TakenBack,
                                        std::vector<TavroStep>& IoSteps);
    void TellRenewed(const TavroBatchReport& TakenBack, const TavroCallbacks& Callbacks) const;
    void AddSettled(std::vector<TavroStep>& IoSteps) const;
    TavroFailure TurnBack();
    TavroFailure End(bool bUndo);
    TavroUndoReport FinishDeletion(bool bUndo);
    void EndWhatIsUndone();

    TavroHistory& m_history;
    const TavroTransferCallbacks& m_callbacks;
    const std::int64_t m_only;
    TavroUndoReport m_report;
    TavroOperation m_before;
    std::vector<TavroStep> m_settled;  ///< Of an interrupted operation: what is where it is to be.
    TavroReversal::Directories m_made; ///< What it has made of those that are to be there.
    std::optional<TavroOperation> m_turned; ///< What it was before it was turned back.
    bool m_bForget = false;                 ///< It does not stay in the history.
    bool m_bTransfer = false;               ///< The rest is to be copied or moved.
};

/// What was moved must be somewhere, and what was replaced, as long as the new entry, or nothing,
/// is in its place.
TavroFailure Going::CheckNothingMissing(const std::vector<TavroStep>& Done,
                                        const std::vector<TavroStep>& NotDone) {
    TavroPlaces places;
    std::set<std::string> filled;
    for (const TavroStep& step : Done) {
        filled.insert(step.Role == Role::Moved || step.Role == Role::Copied ? step.To : "");
    }
    for (const TavroStep& step : NotDone) {
        const bool bOther = filled.count(step.From) == 0 && TavroIsPresent(step.From);
        const bool bWanted = step.Role == Role::Moved || (step.Role == Role::Replaced && !bOther);
        if (bWanted && TavroFindStep(step, places) == TavroWhereabouts::Nowhere) {
            const bool bMoved = step.Role == Role::Moved;
            return {bMoved ? Kind::Missing : Kind::ItemMissing, {}, step.To};
        }
    }
    return {};
}

/// Finds out what is left to be done, and in which direction.
TavroFailure Going::Settle(bool& IoUndo, bool bResume) {
    TavroOperation& operation = m_report.Operation;
    std::vector<TavroStep> done;
    std::vector<TavroStep> notDone;
    const TavroOperationState state = operation.State;
    const bool bDoing = state == TavroOperationState::Doing;
    TavroFailure failure = TavroSettle(m_history, operation, bDoing && bResume, m_callbacks, done,
                                       notDone, m_report.Rests);
    m_before.Steps = operation.Steps;
    if (operation.Kind == TavroOperationKind::Restore) {
        // Its records need not tell of the places that were chosen.
        for (TavroStep& step : done) {
            step.ChangeTime = INT64_MAX;
        }
        operation.Kind = TavroOperationKind::Trash;
        IoUndo = bResume;
        m_bForget = true;
    } else {
        IoUndo = bResume ? state == TavroOperationState::Undoing : true;
    }
    failure = failure || !IoUndo ? failure : CheckNothingMissing(done, notDone);
    m_bTransfer =
        bDoing && bResume &&
        (operation.Kind == TavroOperationKind::Move || operation.Kind == TavroOperationKind::Copy);
    Sort(std::move(done), std::move(notDone), IoUndo);
    if (bDoing && IoUndo && !m_bForget) {
        m_settled.clear(); // what was never done
    }
    return failure;
}

/// Sorts the steps by whether something is left to be done. Copies that were undone lie in the
/// trash as long as they are not back. Directories that were made already may still lack their
/// modes.
void Going::Sort(std::vector<TavroStep> Done, std::vector<TavroStep> NotDone, bool bUndo) {
    TavroOperation& operation = m_report.Operation;
    const bool bCopy = operation.Kind == TavroOperationKind::Copy;
    std::vector<TavroStep> left;
    const Role made = bUndo ? Role::RemovedDirectory : Role::CreatedDirectory;
    const auto add = [&](TavroStep& step, bool bDone) {
        const bool bTrashedCopy = bCopy && step.Role == Role::Trashed;
        if (bTrashedCopy && !bDone) {
            return;
        }
        bool bLeft = bTrashedCopy ? !bUndo : bDone == bUndo;
        if (step.Role == made && !bLeft && step.Identity.Inode != 0) {
            m_made[TavroDirectoryOf(step)] = step.Identity;
            bLeft = !m_bTransfer;
        }
        (bLeft ? left : m_settled).push_back(std::move(step));
    };
    for (TavroStep& step : Done) {
        add(step, true);
    }
    for (TavroStep& step : NotDone) {
        add(step, false);
    }
    operation.Steps = std::move(left);
}

/// Makes a plan of what is left of an operation, with the answers that hold for all of it.
/// @param Done  what is not left.
TavroTransferPlan Going::PlanRest(const std::set<std::string>& Done,
                                  TavroTransferCallbacks& IoCallbacks) const {
    TavroTransferPlan plan;
    const TavroOperation& operation = m_report.Operation;
    const auto isPlanned = [](const TavroStep& step) { return step.Role == Role::Planned; };
    const bool bPlanned = std::any_of(operation.Steps.begin(), operation.Steps.end(), isPlanned);
    plan.bMove = operation.Kind == TavroOperationKind::Move;
    for (const TavroStep& step : operation.Steps) {
        if (isPlanned(step) && step.Mode <= 2) {
            plan.ConflictPolicy = static_cast<TavroTransferConflictPolicy>(step.Mode);
        }
        IoCallbacks.bKeepBoth =
            IoCallbacks.bKeepBoth || (isPlanned(step) && step.Mode == TavroKeepBothMode);
        IoCallbacks.bOverwriteOlder = IoCallbacks.bOverwriteOlder ||
                                      (isPlanned(step) && step.Mode == TavroOverwriteOlderMode);
        // What was planned leads to all that it consists of.
        if ((bPlanned ? isPlanned(step) : TavroIsMainStep(step, operation.Kind)) &&
            Done.count(step.From) == 0) {
            TavroTransferItemPlan item;
            item.Name = TavroNameOf(step.From);
            item.SourcePath = step.From;
            item.DestinationPath = step.To;
            plan.Items.push_back(std::move(item));
        }
    }
    return plan;
}

/// Copies that wait for a resumption, by where they are to go.
using EarlierCopies = std::unordered_map<std::string, TavroEarlierCopy>;

EarlierCopies FindEarlierOf(const std::vector<TavroStep>& Steps) {
    EarlierCopies earlier;
    for (const TavroStep& step : Steps) {
        if (!step.Staged.empty()) {
            earlier[step.To] = {step.Staged, step.Source, step.Identity};
        }
    }
    return earlier;
}

/// Removes those that were not taken over.
void RemoveEarlier(const EarlierCopies& Earlier) {
    for (const auto& [to, copy] : Earlier) {
        TavroPlaces places;
        TavroPlace place;
        if (!places.Find(TavroJoin(TavroParentOf(to), copy.Name), place)) {
            const std::uint64_t device = place.Directory->Identity.Device;
            TavroRemoveTree(place, {TavroIdentity{device, copy.Made.Inode}});
        }
    }
}

/// Goes on with what was not copied or moved.
TavroFailure Going::Transfer(TavroTransferCallbacks Callbacks) {
    TavroOperation& operation = m_report.Operation;
    std::set<std::string> done;
    std::set<std::string> arrived;
    for (const TavroStep& step : m_settled) {
        done.insert(step.From);
        arrived.insert(TavroIsMainStep(step, operation.Kind) ? step.To : "");
    }
    TavroTransferPlan plan = PlanRest(done, Callbacks);
    std::set<std::string> replaced;
    for (const TavroStep& step : operation.Steps) {
        replaced.insert(step.Role == Role::Replaced ? step.From : "");
    }
    // What was about to be replaced was decided upon.
    bool bOpen = false; // something else was not, and nobody could be asked
    Callbacks.OnConflict = [&, ask = Callbacks.OnConflict](const TavroTransferConflict& conflict) {
        if (replaced.count(conflict.DestinationPath) != 0) {
            return TavroConflictAnswer{TavroConflictChoice::Overwrite, false};
        }
        bOpen = bOpen || !ask;
        return ask ? ask(conflict) : TavroConflictAnswer{TavroConflictChoice::Skip, false};
    };
    Callbacks.IsDone = [&](const std::string& path) { return done.count(path) != 0; };
    Callbacks.IsOwnWork = [&](std::string path) {
        while (arrived.count(path) == 0 && path.size() > 1) {
            path = TavroParentOf(path);
        }
        return arrived.count(path) != 0;
    };
    const EarlierCopies earlier = FindEarlierOf(operation.Steps);
    Callbacks.FindEarlier = [&](const std::string& to) {
        const auto found = earlier.find(to);
        return found == earlier.end() ? TavroEarlierCopy() : found->second;
    };
    TavroCarryOutTransfer(plan, Callbacks, m_report.Transfer);
    RemoveEarlier(earlier);
    // Ended, nobody would know of what was replaced by nothing.
    bOpen = bOpen || std::any_of(m_settled.begin(), m_settled.end(), [](const TavroStep& step) {
                return step.Role == Role::Replaced && !TavroIsPresent(step.From);
            });
    m_report.Transfer.bUnsettled = m_report.Transfer.bUnsettled || bOpen;
    operation.Steps = TavroOperationOf(m_report.Transfer, plan.bMove).Steps;
    TavroCompleteOperation(operation);
    return m_report.Transfer.bCancelled ? TavroFailure{Kind::Cancelled} : TavroFailure();
}

/// What was moved, and moved back between file systems, is another file. Of a file of several names
/// the path tells which it is, unless that was hidden meanwhile.
/// @return the steps that are others now.
std::vector<TavroStep> Going::Renew(const TavroBatchReport& TakenBack,
                                    std::vector<TavroStep>& IoSteps) {
    std::unordered_multimap<TavroIdentity, const TavroRenewed*> files;
    for (const TavroRenewed& renewed : TakenBack.Renewed) {
        files.emplace(renewed.Was, &renewed);
    }
    std::unordered_map<TavroIdentity, std::size_t> names;
    for (const TavroStep& step : IoSteps) {
        ++names[step.Identity];
    }
    std::vector<TavroStep> others;
    for (TavroStep& step : IoSteps) { // once each: a number may have been given again
        const auto [first, end] = files.equal_range(step.Identity);
        const bool bAlone = names[step.Identity] == 1;
        const auto renewed = std::find_if(first, end, [&](const auto& file) {
            const std::string& path = file.second->Path;
            return bAlone || path == step.From || path == step.To ||
                   TavroIsStagingName(TavroNameOf(path));
        });
        if (renewed != end) {
            step.Identity = renewed->second->Is;
            step.ChangeTime = 0; // not known
            others.push_back(step);
        }
    }
    return others;
}

/// The same where the operation stays on its way: from now on the history knows the new files.
void Going::TellRenewed(const TavroBatchReport& TakenBack, const TavroCallbacks& Callbacks) const {
    std::vector<TavroStep> all = m_report.Operation.Steps;
    const std::vector<TavroStep> others = Renew(TakenBack, all);
    if (!others.empty()) {
        Callbacks.BeforeActs(m_before.Kind, others);
    }
}

/// Makes steps those of the whole operation, in its order, without what was only planned.
void Going::AddSettled(std::vector<TavroStep>& IoSteps) const {
    const auto isPlanned = [](const TavroStep& step) { return step.Role == Role::Planned; };
    IoSteps.insert(IoSteps.begin(), m_settled.begin(), m_settled.end());
    IoSteps.erase(std::remove_if(IoSteps.begin(), IoSteps.end(), isPlanned), IoSteps.end());
    if (m_settled.empty()) {
        return;
    }
    using Key = std::tuple<Role, std::string, std::string>;
    std::map<Key, std::size_t> places;
    const auto keyOf = [](const TavroStep& step) {
        return Key(step.Role, step.From, TavroIsTrashed(step) ? "" : step.To);
    };
    for (const TavroStep& step : m_before.Steps) {
        places.emplace(keyOf(step), places.size());
    }
    std::vector<std::pair<std::size_t, TavroStep>> placed; // what is new stays behind
    for (TavroStep& step : IoSteps) {
        const auto found = places.find(keyOf(step));
        placed.emplace_back(found == places.end() ? places.size() : found->second, std::move(step));
    }
    std::stable_sort(placed.begin(), placed.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::transform(placed.begin(), placed.end(), IoSteps.begin(),
                   [](auto& step) { return std::move(step.second); });
}

/// Tells the history that what was interrupted goes back from now on, and what of it there is: were
/// this interrupted, too, it would be looked at as if it went on.
TavroFailure Going::TurnBack() {
    TavroOperation back = m_report.Operation;
    back.State = TavroOperationState::Undoing;
    AddSettled(back.Steps);
    const bool bNothing =
        std::none_of(back.Steps.begin(), back.Steps.end(),
                     [&](const TavroStep& step) { return TavroIsMainStep(step, back.Kind); });
    if (bNothing || m_before.State == TavroOperationState::Undoing || m_bForget) {
        return {};
    }
    TavroFailure failure = m_history.Update(back);
    m_turned = failure ? std::optional<TavroOperation>() : std::exchange(m_before, back);
    return failure;
}

/// Keeps what the operation has come to.
TavroFailure Going::End(bool bUndo) {
    TavroOperation& operation = m_report.Operation;
    operation.State = bUndo ? TavroOperationState::Undone : TavroOperationState::Done;
    AddSettled(operation.Steps);
    std::stable_partition(
        operation.Steps.begin(), operation.Steps.end(),
        [&](const TavroStep& step) { return TavroIsMainStep(step, operation.Kind); });
    if (!m_bForget) {
        return m_history.EndOperation(operation, operation.Steps == m_before.Steps);
    }
    TavroOperation forgotten = operation;
    forgotten.Steps.clear();
    return m_history.EndOperation(forgotten, false);
}

/// An undo that was done, and whose end a power cut took away, is one.
void Going::EndWhatIsUndone() {
    std::optional<TavroOperation> next;
    bool bChanged = true;
    if (m_history.NextToResume(next) || !next || next->State != TavroOperationState::Undoing ||
        m_history.IsRunning(*next)) {
        return;
    }
    const TavroHeadway headway = TavroFindHeadway(*next);
    if (headway.Done != headway.Count ||
        m_history.ContinueOperation(*next, next->State, bChanged) || bChanged) {
        return;
    }
    bool bUndo = true;
    m_before = *next;
    m_report.Operation = std::move(*next);
    TavroFailure failure = Settle(bUndo, true);
    const std::vector<TavroStep>& left = m_report.Operation.Steps;
    const bool bMore = std::any_of(left.begin(), left.end(), [](const TavroStep& step) {
        return step.Role != Role::RemovedDirectory && step.Role != Role::CreatedDirectory;
    });
    if (!failure && !bMore && !left.empty()) { // directories may still lack their modes
        failure = TavroReversal(bUndo, m_callbacks, m_report, m_made).Run();
    }
    if (failure || bMore) {
        m_history.LeaveOperation();
    } else {
        End(bUndo);
    }
    m_report = {};
    m_settled.clear();
    m_made.clear();
}

/// Takes on the next operation: from now on the history says so, and no other process does.
TavroFailure Going::Take(FindNext Find, TavroFailureKind Nothing, bool bUndo) {
    std::optional<TavroOperation> next;
    TavroFailure failure;
    for (bool bChanged = true; !failure && bChanged;) {
        failure = m_only != 0 ? m_history.Read(m_only, next) : (m_history.*Find)(next);
        if (!failure && (!next || (m_only != 0 && next->State == TavroOperationState::Undone))) {
            return {m_only != 0 ? Kind::NoSuchOperation : Nothing, {}, "", std::to_string(m_only)};
        }
        if (!failure && TavroIsDeletion(next->Kind) && !TavroIsOnItsWay(*next)) {
            return {Kind::DeletionIsFinal, {}, next->Steps.front().From};
        }
        if (!failure) {
            const auto state = TavroIsOnItsWay(*next) ? next->State
                               : bUndo                ? TavroOperationState::Undoing
                                                      : TavroOperationState::Redoing;
            // What goes to the trash, or is exchanged, is told before: that brings this to the
            // disk, too.
            const bool bTellsMore =
                next->Kind == (bUndo ? TavroOperationKind::Copy : TavroOperationKind::Trash) ||
                std::any_of(next->Steps.begin(), next->Steps.end(),
                            [](const TavroStep& step) { return step.Role == Role::Replaced; });
            m_history.WaitForDisk(m_callbacks.bSync && !bTellsMore);
            failure = m_history.ContinueOperation(*next, state, bChanged);
            m_history.WaitForDisk(m_callbacks.bSync);
        }
    }
    if (!failure) {
        m_before = *next;
        m_report.Operation = std::move(*next);
    }
    return failure;
}

/// What was to be deleted is, and nothing of it can be undone.
TavroUndoReport Going::FinishDeletion(bool bUndo) {
    const std::vector<TavroStep>& steps = m_before.Steps;
    m_report.Failure = bUndo ? TavroFailure{Kind::DeletionWasInterrupted, {}, steps.front().From}
                       : m_before.Kind == TavroOperationKind::Delete
                           ? TavroFinishDeleting(steps, m_callbacks)
                           : TavroFinishEmptying(steps, m_callbacks);
    if (m_report.Failure) {
        m_history.LeaveOperation();
        return std::move(m_report);
    }
    TavroOperation ended = m_before;
    ended.State = TavroOperationState::Done;
    m_report.Failure = m_history.EndOperation(ended, true);
    m_report.bDoneButNotSaved = static_cast<bool>(m_report.Failure);
    return std::move(m_report);
}

TavroUndoReport Going::Run(FindNext Find, TavroFailureKind Nothing, bool bUndo, bool bResume) {
    TavroFailure& failure = m_report.Failure;
    if (!bUndo && !bResume) {
        EndWhatIsUndone();
    }
    failure = Take(Find, Nothing, bUndo);
    if (failure) {
        return std::move(m_report);
    }
    if (TavroIsDeletion(m_before.Kind)) {
        return FinishDeletion(bUndo);
    }
    const bool bInterrupted = TavroIsOnItsWay(m_before);
    failure = bInterrupted ? Settle(bUndo, bResume) : failure;
    failure = failure || !bInterrupted || !bUndo ? failure : TurnBack();
    m_report.bUndone = bUndo;
    TavroJournal journal(m_history, m_before);
    TavroTransferCallbacks callbacks = m_callbacks;
    static_cast<TavroCallbacks&>(callbacks) =
        journal.Bind(static_cast<const TavroCallbacks&>(m_callbacks));
    if (!failure && m_bTransfer) {
        failure = Transfer(callbacks);
    } else if (!failure && !m_report.Operation.Steps.empty()) {
        failure = TavroReversal(bUndo, callbacks, m_report, m_made).Run();
    }
    const bool bOpen = failure && (bInterrupted || m_report.bPartly);
    if (bOpen || m_report.Transfer.bUnsettled) {
        if (m_turned && !m_report.bPartly && m_report.Moves.RollBack.empty()) {
            Renew(m_report.Trash.Batch, m_turned->Steps);
            Renew(m_report.Moves, m_turned->Steps);
            m_history.Update(*m_turned); // it can go either way again
        } else {
            TellRenewed(m_report.Trash.Batch, callbacks);
            TellRenewed(m_report.Moves, callbacks);
        }
        m_history.LeaveOperation();
    } else if (!failure) {
        failure = End(bUndo);
        m_report.bDoneButNotSaved = static_cast<bool>(failure);
    } else {
        Renew(m_report.Trash.Batch, m_before.Steps);
        Renew(m_report.Moves, m_before.Steps);
        m_history.EndOperation(m_before, false);
    }
    m_report.Operation.Kind = m_before.Kind; // a restore was treated as the undo of a trashing
    return std::move(m_report);
}

} // namespace

TavroUndoReport TavroUndo(TavroHistory& History, const TavroCallbacks& Callbacks, std::int64_t Id) {
    const TavroTransferCallbacks callbacks{Callbacks, {}, {}};
    return Going(History, callbacks, Id)
        .Run(&TavroHistory::NextToUndo, Kind::NothingToUndo, true, false);
}

TavroFailure TavroCheckUndo(const TavroOperation& Operation, bool& bOutNothingLeft) {
    bOutNothingLeft = false;
    const bool bOnItsWay = TavroIsOnItsWay(Operation);
    if (TavroIsDeletion(Operation.Kind)) {
        return {bOnItsWay ? Kind::DeletionWasInterrupted : Kind::DeletionIsFinal,
                {},
                Operation.Steps.front().From};
    }
    if (bOnItsWay) {
        return {};
    }
    TavroUndoReport report;
    report.Operation = Operation;
    const TavroCallbacks callbacks;
    TavroFailure failure = TavroReversal(true, callbacks, report).Check();
    TavroPlaces places;
    const auto mayBeThere = [&](const TavroStep& step) {
        TavroPlace place;
        struct stat status = {};
        return places.Look(step.To, place, status) == 0 && !TavroKeepsInodes(place.Number());
    };
    const auto isThere = [&](const TavroStep& step) {
        const TavroWhereabouts where = TavroFindStep(step, places);
        return TavroIsMainStep(step, Operation.Kind) &&
               (where == TavroWhereabouts::AtTo || where == TavroWhereabouts::InBoth ||
                !TavroIsBelowDevice(step.To, step.Identity.Device) || mayBeThere(step));
    };
    bOutNothingLeft =
        failure && std::none_of(Operation.Steps.begin(), Operation.Steps.end(), isThere);
    return failure;
}

TavroUndoReport TavroRedo(TavroHistory& History, const TavroCallbacks& Callbacks) {
    const TavroTransferCallbacks callbacks{Callbacks, {}, {}};
    return Going(History, callbacks)
        .Run(&TavroHistory::NextToRedo, Kind::NothingToRedo, false, false);
}

TavroUndoReport TavroResume(TavroHistory& History, const TavroTransferCallbacks& Callbacks) {
    return Going(History, Callbacks)
        .Run(&TavroHistory::NextToResume, Kind::NothingToResume, false, true);
}

std::string TavroDescribe(const TavroUndoReport& Report) {
    std::string text = TavroDescribe(Report.Failure);
    if (Report.bDoneButNotSaved) {
        const bool bUndone = Report.bUndone;
        return (bUndone ? "It is undone, but the history still shows it as interrupted: "
                        : "It is redone, but the history still shows it as interrupted: ") +
               text;
    }
    if (Report.Trash.Batch.Failure) {
        return TavroDescribe(Report.Trash);
    }
    text += Report.Moves.Why ? "; " + TavroDescribe(Report.Moves.Why) : "";
    for (const TavroFailure& failure : Report.Moves.RollBack) {
        text += "; moving back failed: " + TavroDescribe(failure);
    }
    return text;
}
