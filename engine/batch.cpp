#include "batch.h"

#include "measure.h"

#include <cerrno>

namespace {

/// How often a step is tried when its destination is taken each time.
constexpr int tries = 100;

/// A step counts so much of the progress of the whole.
struct Share {
    std::uint64_t Items = 1;
    std::uint64_t Bytes = 0;
};

class Batch {
public:
    Batch(std::vector<TavroBatchStep>& Steps, const TavroBatchHooks& Hooks,
          const TavroCallbacks& Callbacks)
        : m_steps(Steps), m_hooks(Hooks), m_progress(Callbacks), m_bSync(Callbacks.bSync),
          m_changes(Callbacks.bSync) {}

    TavroBatchReport Run();

private:
    TavroFailure Check(TavroBatchStep& Step);
    TavroFailure CheckFree(const TavroBatchStep& Step);
    TavroFailure Measure(const TavroBatchStep& Step);
    TavroFailure FindAgain(const std::string& Path, const TavroIdentity& Directory,
                           TavroPlace& OutPlace);
    TavroFailure Act(std::size_t Index);
    TavroFailure Move(TavroBatchStep& Step);
    TavroFailure Verify(TavroBatchStep& Step, const TavroPlace& From, const TavroPlace& To);
    TavroFailure MoveByCopying(TavroBatchStep& Step, const TavroPlace& From, const TavroPlace& To);
    void RollBack(std::size_t Count);
    TavroFailure MoveBack(const TavroBatchStep& Step);
    void TellUndone() const;

    std::vector<TavroBatchStep>& m_steps;
    const TavroBatchHooks& m_hooks;
    TavroProgressTeller m_progress;
    TavroPlaces m_places;
    TavroNameSearch m_search; ///< For what is at destinations.
    TavroHardLinks m_links;
    const bool m_bSync;
    TavroChanges m_changes;
    bool m_bPrepared = false;
    TavroBatchReport m_report;
    std::vector<Share> m_shares; ///< Of the steps, when somebody listens.
    Share m_done = {0, 0};
};

TavroBatchReport Batch::Run() {
    TavroFailure& failure = m_report.Failure;
    for (std::size_t i = 0; i < m_steps.size() && !failure; ++i) {
        failure = Check(m_steps[i]);
    }
    if (!failure && m_hooks.Prepare) {
        failure = m_hooks.Prepare();
        m_bPrepared = true;
    }
    std::size_t done = 0;
    while (!failure && done < m_steps.size()) {
        failure = Act(done);
        done += failure ? 0U : 1U;
    }
    const int error = failure ? 0 : m_changes.Flush();
    failure = error == 0 ? failure : TavroFail(TavroFailureKind::Write, error, m_steps.back().To);
    if (failure) {
        RollBack(done);
        return std::move(m_report);
    }
    if (m_hooks.Finish) {
        m_hooks.Finish(m_changes);
        m_changes.Flush(); // what is not gone after a power cut does no harm
    }
    m_progress.Tell();
    return std::move(m_report);
}

// =================================================================================================
// Checking
// =================================================================================================

TavroFailure Batch::Check(TavroBatchStep& Step) {
    if (!Step.Seen) {
        TavroPlace from;
        struct stat status = {};
        const int error = m_places.Look(Step.From, from, status);
        if (error != 0) {
            return TavroFail(TavroIsMissing(error) ? TavroFailureKind::Missing
                                                   : TavroFailureKind::LookAt,
                             error, Step.From);
        }
        Step.Seen = {from.Directory->Identity, TavroStateOf(status)};
    }
    if (Step.Expected && Step.Seen->State.Identity != *Step.Expected) {
        return {TavroFailureKind::ItemChanged, {}, Step.From};
    }
    TavroFailure failure = m_hooks.Retry ? TavroFailure() : CheckFree(Step);
    return failure || !m_progress.IsHeard() ? failure : Measure(Step);
}

TavroFailure Batch::CheckFree(const TavroBatchStep& Step) {
    TavroPlace to;
    struct stat status = {};
    const TavroFailure failure = m_places.Find(Step.To, to);
    const int error = failure ? failure.Error.value() : m_search.Look(to, status);
    if (error == 0) { // which may be itself by another spelling
        const bool bItself = TavroIdentityOf(status) == Step.Seen->State.Identity;
        return bItself ? TavroFailure() : TavroFailure{TavroFailureKind::InTheWay, {}, Step.To};
    }
    // What is not there yet is created, or comes back by an earlier step.
    return TavroIsMissing(error) ? TavroFailure()
                                 : TavroFail(TavroFailureKind::LookAt, error, Step.To);
}

/// What is renamed is one item; what has to be copied is measured.
TavroFailure Batch::Measure(const TavroBatchStep& Step) {
    Share share;
    TavroPlace from;
    if (Step.Seen->Directory.Device != TavroVolumeOf(m_places, Step.To).Device &&
        !m_places.Find(Step.From, from)) {
        TavroMeasurement measured;
        if (!TavroMeasureEntry(
                from.Number(), from.Name, [this] { return m_progress.ShouldCancel(); }, measured)) {
            return {TavroFailureKind::Cancelled};
        }
        share = {measured.FileCount + measured.DirectoryCount, measured.ByteCount};
    }
    m_progress.Expect(share.Items, share.Bytes);
    m_shares.push_back(share);
    return {};
}

// =================================================================================================
// Moving
// =================================================================================================

/// The place at a path, unless its directory is another one now.
TavroFailure Batch::FindAgain(const std::string& Path, const TavroIdentity& Directory,
                              TavroPlace& OutPlace) {
    TavroFailure failure = m_places.Find(Path, OutPlace);
    if (!failure && OutPlace.Directory->Identity != Directory) {
        failure = TavroFail(TavroFailureKind::LookAt, ESTALE, Path);
    }
    return failure;
}

TavroFailure Batch::Act(std::size_t Index) {
    TavroBatchStep& step = m_steps[Index];
    if (m_progress.ShouldCancel()) {
        return {TavroFailureKind::Cancelled};
    }
    m_progress.Begin([&] { return step.From; });
    TavroFailure failure = Move(step);
    for (int i = 1; i < tries && failure.Kind == TavroFailureKind::Taken && m_hooks.Retry; ++i) {
        failure = m_hooks.Retry(Index);
        failure = failure ? failure : Move(step);
    }
    if (!failure && !m_shares.empty()) {
        m_done.Items += m_shares[Index].Items;
        m_done.Bytes += m_shares[Index].Bytes;
        m_progress.Reach(m_done.Items, m_done.Bytes);
    }
    return failure;
}

/// Renames, and copies where that cannot be.
TavroFailure Batch::Move(TavroBatchStep& Step) {
    TavroPlace from;
    TavroPlace to;
    TavroFailure failure = FindAgain(Step.From, Step.Seen->Directory, from);
    if (!failure) {
        failure = m_places.FindOrCreate(Step.To, 0700, m_report.CreatedDirectories, to);
    }
    if (!failure && Step.Holder && to.Directory->OwnPath != *Step.Holder) {
        failure = TavroFail(TavroFailureKind::LookAt, ESTALE, Step.To);
    }
    if (failure) {
        return failure;
    }
    const int error =
        TavroRenameNoReplace(from.Number(), from.Name.c_str(), to.Number(), to.Name.c_str());
    if (error == EXDEV && m_hooks.bNeverCopy) {
        return {TavroFailureKind::MustCopy, {}, Step.KnownAs()};
    }
    failure = error == 0 ? Verify(Step, from, to) : MoveByCopying(Step, from, to);
    m_changes.Add(to.Directory);
    m_changes.Add(from.Directory);
    if (Step.Seen->State.IsDirectory()) {
        m_places.Forget(from.OwnPath());
    }
    return failure;
}

/// Another file can have taken the name until the moment of the rename. It goes back.
TavroFailure Batch::Verify(TavroBatchStep& Step, const TavroPlace& From, const TavroPlace& To) {
    Step.Arrived = Step.Seen->State;
    if (!Step.Expected) {
        return {};
    }
    struct stat status = {};
    const int error = TavroLookAt(To, status);
    Step.Arrived = error == 0 ? TavroStateOf(status) : Step.Arrived;
    if (error == 0 && Step.Arrived.Identity == *Step.Expected) {
        return {};
    }
    const int back =
        TavroRenameNoReplace(To.Number(), To.Name.c_str(), From.Number(), From.Name.c_str());
    if (error != ENOENT && back != 0) {
        m_report.RollBack.push_back(TavroFail(TavroFailureKind::MoveTo, back, Step.To, Step.From));
    } else {
        Step.Arrived = {};
    }
    return error == 0 || error == ENOENT
               ? TavroFailure{TavroFailureKind::ItemChanged, {}, Step.From}
               : TavroFail(TavroFailureKind::LookAt, error, Step.To);
}

TavroFailure Batch::MoveByCopying(TavroBatchStep& Step, const TavroPlace& From,
                                  const TavroPlace& To) {
    TavroMoveOptions options;
    options.Expected = Step.Seen->State.Identity;
    options.bSync = m_bSync;
    if (m_hooks.BeforePublish) {
        const auto index = static_cast<std::size_t>(&Step - m_steps.data());
        options.BeforePublish = [this, index](const TavroFileState& made, const std::string& name) {
            return m_hooks.BeforePublish(index, made, name);
        };
    }
    TavroMoveReport moved = TavroBringEntry(From, To, options, m_links, m_progress);
    Step.Arrived = moved.Arrived;
    Step.bCopyStays = moved.bCopyStays || moved.bPartlyMoved;
    if (!moved.Below.empty()) {
        m_report.Why = moved.Below.front();
    }
    m_report.Lost += moved.Lost;
    return moved.Failure;
}

// =================================================================================================
// Rolling back
// =================================================================================================

/// Tells of the steps that did not happen, or were undone.
void Batch::TellUndone() const {
    for (std::size_t i = m_steps.size(); m_bPrepared && m_hooks.Undone && i > 0; --i) {
        if (m_steps[i - 1].Arrived.Identity.Inode == 0) {
            m_hooks.Undone(i - 1);
        }
    }
}

/// Moves back what arrived, and nothing else that has its name by now.
TavroFailure Batch::MoveBack(const TavroBatchStep& Step) {
    TavroPlace from;
    TavroPlace to;
    TavroFailure failure = m_places.Find(Step.To, to);
    failure = failure ? failure : FindAgain(Step.From, Step.Seen->Directory, from);
    if (failure) {
        return TavroFail(TavroFailureKind::MoveTo, failure.Error.value(), Step.To, Step.From);
    }
    const TavroCallbacks none;
    TavroProgressTeller progress(none);
    TavroMoveOptions options;
    options.Expected = Step.Arrived.Identity;
    TavroMoveReport moved = TavroBringEntry(to, from, options, m_links, progress);
    if (Step.Arrived.IsDirectory()) {
        m_places.Forget(to.OwnPath());
    }
    if (!moved.Failure) { // also where its number was given again
        m_report.Renewed.push_back({Step.From, Step.Seen->State.Identity, moved.Arrived.Identity});
    }
    return moved.Failure;
}

void Batch::RollBack(std::size_t Count) {
    while (Count > 0) {
        TavroBatchStep& step = m_steps[--Count];
        TavroFailure failure = MoveBack(step);
        if (failure) {
            m_report.RollBack.push_back(std::move(failure));
            continue;
        }
        step.Arrived = {};
    }
    TellUndone();
    std::vector<std::string>& created = m_report.CreatedDirectories;
    TavroPlace place;
    while (!created.empty() && !m_places.Find(created.back(), place) &&
           TavroRemoveDirectoryAt(place.Number(), place.Name.c_str()) == 0) {
        created.pop_back();
    }
    m_changes.Flush(); // that nothing was done must hold, too
}

} // namespace

TavroBatchReport TavroRunBatch(std::vector<TavroBatchStep>& Steps, const TavroBatchHooks& Hooks,
                               const TavroCallbacks& Callbacks) {
    return Batch(Steps, Hooks, Callbacks).Run();
}

std::string TavroDescribe(const TavroBatchReport& Report) {
    std::string text = TavroDescribe(Report.Failure);
    text += Report.Why ? "; " + TavroDescribe(Report.Why) : "";
    for (const TavroFailure& failure : Report.RollBack) {
        text += "; moving back failed: " + TavroDescribe(failure);
    }
    return text;
}
