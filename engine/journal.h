/// An operation that is kept in the history before it acts, and when it has come to its end.

#ifndef TAVRO_ENGINE_JOURNAL_H
#define TAVRO_ENGINE_JOURNAL_H

#include "history.h"
#include "progress.h"

/// Binds one operation to the history. When that cannot be used, or another process keeps it for
/// too long, or a wait was cancelled, the operation does not begin, because it could not be undone.
/// A restore or a deletion, which cannot be undone anyway, goes on without a history that cannot be
/// used. Once the history has an operation, it does nothing that cannot be kept.
class TavroJournal {
public:
    /// @param Open         opens the history, before the first step is kept in it.
    /// @param OnGoWithout  is told why, when the operation goes on without. May be empty.
    explicit TavroJournal(std::function<TavroFailure(TavroHistory&)> Open,
                          std::function<void(const TavroFailure&)> OnGoWithout = {})
        : m_open(std::move(Open)), m_onGoWithout(std::move(OnGoWithout)) {}

    /// Goes on with an operation that is in an open history already.
    TavroJournal(TavroHistory& History, const TavroOperation& Operation);

    /// What an operation has to call: the same as `Callbacks`, with BeforeActs and BeforeSync bound
    /// to this.
    TavroCallbacks Bind(TavroCallbacks Callbacks);

    /// The operation has come to its end, and its steps are these; none: it has done nothing.
    /// @return why it could not be kept.
    TavroFailure End(TavroOperation Operation);

    /// A deletion has come to its end: it stays in the history as what cannot be undone, unless it
    /// failed, and nothing can be gone.
    TavroFailure EndDeletion(bool bFailed);

    /// It stays as it is, as one that was interrupted.
    void Leave() {
        m_history->LeaveOperation();
    }

    /// The number that the history has given to the operation; 0: it does not have it.
    std::int64_t Id() const {
        return m_id;
    }

    /// Why the operation did not begin, when the history cannot be used; else none.
    const TavroFailure& Problem() const {
        return m_problem;
    }

private:
    TavroFailure Keep(TavroOperationKind Kind, const std::vector<TavroStep>& Steps);
    TavroFailure Begin(TavroOperationKind Kind, const std::vector<TavroStep>& Steps);

    std::function<TavroFailure(TavroHistory&)> m_open;
    std::function<void(const TavroFailure&)> m_onGoWithout;
    TavroHistory m_own;
    TavroHistory* m_history = &m_own;
    TavroFailure m_problem;
    bool m_bWithout = false; ///< It goes on without the history.
    bool m_bSync = true;
    std::int64_t m_id = 0;
    TavroOperationKind m_kind = {};
    std::size_t m_count = 0;       ///< So many steps the history has,
    std::vector<TavroStep> m_kept; ///< and these were told here.
};

#endif
