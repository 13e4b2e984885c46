#include "journal.h"

#include <ctime>
#include <utility>

TavroJournal::TavroJournal(TavroHistory& History, const TavroOperation& Operation)
    : m_history(&History), m_id(Operation.Id), m_kept(Operation.Steps) {}

TavroCallbacks TavroJournal::Bind(TavroCallbacks Callbacks) {
    Callbacks.BeforeActs = [this](TavroOperationKind kind, const std::vector<TavroStep>& steps) {
        return Keep(kind, steps);
    };
    return Callbacks;
}

TavroFailure TavroJournal::Keep(TavroOperationKind Kind, const std::vector<TavroStep>& Steps) {
    if (m_problem) {
        return {};
    }
    TavroFailure failure =
        m_id == 0 ? Begin(Kind, Steps) : m_history->KeepSteps(m_id, m_kept.size(), Steps);
    if (!failure) {
        m_kept.insert(m_kept.end(), Steps.begin(), Steps.end());
        return {};
    }
    if (failure.Kind == TavroFailureKind::HistoryBusy ||
        failure.Kind == TavroFailureKind::Cancelled) {
        return failure;
    }
    m_problem = std::move(failure);
    return {};
}

TavroFailure TavroJournal::Begin(TavroOperationKind Kind, const std::vector<TavroStep>& Steps) {
    TavroFailure failure = m_open ? m_open(*m_history) : TavroFailure();
    if (failure) {
        return failure;
    }
    TavroOperation operation{0, Kind, TavroOperationState::Doing, std::time(nullptr), Steps};
    failure = m_history->BeginOperation(operation);
    m_id = operation.Id;
    return failure;
}

TavroFailure TavroJournal::End(TavroOperation Operation) {
    if (m_problem || m_id == 0) {
        return {};
    }
    Operation.Id = m_id;
    const bool bSame = Operation.Steps == m_kept;
    return m_history->EndOperation(Operation, bSame);
}
