/// How far an operation has come, whom it asks and tells, and when.

#ifndef TAVRO_ENGINE_PROGRESS_H
#define TAVRO_ENGINE_PROGRESS_H

#include "failure.h"
#include "operation.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

/// How far an operation has come. Counts of 0 mean that nothing was measured before.
struct TavroProgress {
    std::uint64_t ItemsDone = 0; ///< Files, directories and links finished, of `ItemCount`.
    std::uint64_t ItemCount = 0;
    std::uint64_t BytesDone = 0; ///< Bytes written or moved, of `ByteCount`.
    std::uint64_t ByteCount = 0;
    std::string CurrentPath; ///< What is being read.
    bool bToDisk = false;    ///< What was written is being brought to the disk.
};

/// What every operation tells and asks, on its own thread. Each may be empty.
struct TavroCallbacks {
    /// At most 20 times a second, and once at the end.
    std::function<void(const TavroProgress&)> OnProgress;

    /// Asked at least once for each entry and each block of a file; true cancels.
    std::function<bool()> ShouldCancel;

    /// Told what will be done before it is done. An operation does not begin, or go on, after a
    /// failure, which is its own then.
    std::function<TavroFailure(TavroOperationKind, const std::vector<TavroStep>&)> BeforeActs = {};

    /// Whether what is done has reached the disk when the operation says so.
    bool bSync = true;

    /// As BeforeActs, for what a power cut may take back until a file system is synced.
    /// @param OutDevice  its device; 0: none, so that it has to be told again.
    std::function<TavroFailure(TavroOperationKind, const std::vector<TavroStep>&,
                               std::uint64_t& OutDevice)>
        BeforeSync = {};

    /// Tells BeforeActs, where somebody is to be told and there is something to tell.
    TavroFailure Announce(TavroOperationKind What, const std::vector<TavroStep>& Steps) const {
        return BeforeActs && !Steps.empty() ? BeforeActs(What, Steps) : TavroFailure();
    }
};

/// Counts what one operation has done and tells it, at most 20 times a second. Not for threads.
class TavroProgressTeller {
public:
    explicit TavroProgressTeller(const TavroCallbacks& Callbacks) : m_callbacks(Callbacks) {}

    /// Whether somebody listens, so that measuring beforehand is worth its time.
    bool IsHeard() const {
        return static_cast<bool>(m_callbacks.OnProgress);
    }

    /// Once this has said yes it stays at yes: a caller's hook may say it once only.
    bool ShouldCancel() {
        m_bCancelled = m_bCancelled || (m_callbacks.ShouldCancel && m_callbacks.ShouldCancel());
        return m_bCancelled && !m_bGoesOn;
    }

    /// From now on nothing is cancelled.
    void GoOn() {
        m_bGoesOn = true;
    }

    void Expect(std::uint64_t Items, std::uint64_t Bytes) {
        m_progress.ItemCount += Items;
        m_progress.ByteCount += Bytes;
    }

    /// @param GivePath  gives the path that is worked on; called only when it is told.
    template <typename PathOf> void Begin(PathOf&& GivePath) {
        m_bNamed = false;
        if (IsHeard() && IsDue()) {
            Name(GivePath);
            Tell();
        }
    }

    /// As Begin, for what takes its time: its bytes are told with its path.
    template <typename PathOf> void Name(PathOf&& GivePath) {
        if (IsHeard()) {
            m_progress.CurrentPath = GivePath();
            m_bNamed = true;
        }
    }

    void AddBytes(std::uint64_t Bytes) {
        m_progress.BytesDone = Limited(m_progress.BytesDone + Bytes, m_progress.ByteCount);
        // Under another path they would mislead.
        if (IsHeard() && m_bNamed && IsDue()) {
            Tell();
        }
    }

    void AddItems(std::uint64_t Items = 1) {
        m_progress.ItemsDone = Limited(m_progress.ItemsDone + Items, m_progress.ItemCount);
    }

    /// So much at least is dealt with by now, however it was counted on the way: of an item that
    /// was skipped, nothing was counted.
    void Reach(std::uint64_t Items, std::uint64_t Bytes) {
        m_progress.ItemsDone = std::max(m_progress.ItemsDone, Items);
        m_progress.BytesDone = std::max(m_progress.BytesDone, Bytes);
    }

    void Tell() {
        if (IsHeard()) {
            m_callbacks.OnProgress(m_progress);
        }
    }

    /// Tells that what was written is brought to the disk now, which may take its time.
    void TellOfDisk() {
        m_progress.bToDisk = m_callbacks.bSync;
        if (m_progress.bToDisk) {
            Tell();
        }
        m_progress.bToDisk = false;
    }

private:
    using Clock = std::chrono::steady_clock;

    /// What grows while it is copied does not exceed what was measured. Nothing measured, no limit.
    static std::uint64_t Limited(std::uint64_t Count, std::uint64_t Measured) {
        return Measured == 0 ? Count : std::min(Count, Measured);
    }

    bool IsDue() {
        const Clock::time_point now = Clock::now();
        if (now - m_toldAt < std::chrono::milliseconds(50)) {
            return false;
        }
        m_toldAt = now;
        return true;
    }

    const TavroCallbacks& m_callbacks;
    TavroProgress m_progress;
    bool m_bNamed = true; ///< The path is the one that is worked on.
    bool m_bCancelled = false;
    bool m_bGoesOn = false;
    Clock::time_point m_toldAt = Clock::now();
};

#endif
