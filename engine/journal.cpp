#include "journal.h"

#include "place.h"

#include <algorithm>
#include <ctime>
#include <utility>

TavroJournal::TavroJournal(TavroHistory& History, const TavroOperation& Operation)
    : m_history(&History), m_id(Operation.Id), m_count(Operation.Steps.size()) {}

TavroCallbacks TavroJournal::Bind(TavroCallbacks Callbacks) {
    m_bSync = Callbacks.bSync;
    Callbacks.BeforeActs = [this](TavroOperationKind kind, const std::vector<TavroStep>& steps) {
        return Keep(kind, steps);
    };
    Callbacks.BeforeSync = [this](TavroOperationKind kind, const std::vector<TavroStep>& steps,
                                  std::uint64_t& outDevice) {
        const bool bSync = std::exchange(m_bSync, false);
        TavroFailure failure = Keep(kind, steps);
        m_bSync = bSync;
        outDevice = m_id != 0 ? m_history->Device() : 0;
        return failure;
    };
    return Callbacks;
}

namespace {

bool GoesOnWithout(TavroOperationKind What) {
    return What == TavroOperationKind::Restore || TavroIsDeletion(What);
}

} // namespace

TavroFailure TavroJournal::Keep(TavroOperationKind Kind, const std::vector<TavroStep>& Steps) {
    if (m_problem || m_bWithout) {
        return m_problem;
    }
    if (m_id != 0) {
        m_history->WaitForDisk(m_bSync);
    }
    const bool bBegins = m_id == 0;
    TavroFailure failure =
        bBegins ? Begin(Kind, Steps) : m_history->KeepSteps(m_id, m_count, Steps);
    m_count += failure ? 0 : Steps.size();
    if (!failure && !bBegins) {
        m_kept.insert(m_kept.end(), Steps.begin(), Steps.end());
    }
    // What stands in the history does nothing that the history does not know.
    if (!failure || m_id != 0 || failure.Kind == TavroFailureKind::HistoryBusy ||
        failure.Kind == TavroFailureKind::Cancelled) {
        return failure;
    }
    m_bWithout = GoesOnWithout(Kind);
    if (m_bWithout && m_onGoWithout) {
        m_onGoWithout(failure);
    }
    m_problem = m_bWithout ? TavroFailure() : std::move(failure);
    return m_problem;
}

/// After a failure there is an `m_id` only where the history has the operation all the same.
TavroFailure TavroJournal::Begin(TavroOperationKind Kind, const std::vector<TavroStep>& Steps) {
    TavroFailure failure = m_open ? m_open(*m_history) : TavroFailure();
    if (failure) {
        return failure;
    }
    m_history->WaitForDisk(m_bSync);
    TavroOperation operation{0, Kind, TavroOperationState::Doing, std::time(nullptr), Steps};
    failure = m_history->BeginOperation(operation);
    m_id = operation.Id;
    m_kind = Kind;
    if (failure && m_id != 0) {
        operation.Steps.clear();
        m_id = m_history->EndOperation(operation, false) ? m_id : 0;
    }
    m_kept = std::move(operation.Steps);
    return failure;
}

namespace {

/// When an entry was trashed the first step keeps for all.
bool IsSame(const TavroStep& Kept, TavroStep Done) {
    if (Kept.Role == TavroStepRole::Trashed) {
        Done.ChangeTime = Kept.ChangeTime;
    }
    return Kept == Done;
}

} // namespace

TavroFailure TavroJournal::End(TavroOperation Operation) {
    if (m_id == 0) {
        return {};
    }
    Operation.Id = m_id;
    const bool bSame = std::equal(m_kept.begin(), m_kept.end(), Operation.Steps.begin(),
                                  Operation.Steps.end(), IsSame);
    return m_history->EndOperation(Operation, bSame);
}

TavroFailure TavroJournal::EndDeletion(bool bFailed) {
    TavroPlaces places;
    const auto mayBeGone = [&](const TavroStep& step) { // of a directory some of what is in it
        TavroPlace place;
        struct stat status = {};
        const bool bThere =
            places.Look(step.From, place, status) == 0 && status.st_ino == step.Identity.Inode;
        return !bThere || S_ISDIR(status.st_mode);
    };
    const bool bNothing = bFailed && std::none_of(m_kept.begin(), m_kept.end(), mayBeGone);
    return End(
        {0, m_kind, TavroOperationState::Done, 0, bNothing ? std::vector<TavroStep>() : m_kept});
}
