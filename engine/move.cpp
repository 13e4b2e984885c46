#include "move.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

using Kind = TavroFailureKind;

namespace {

/// How many free names are tried, when another process takes each.
constexpr int tries = 100;

/// Files above this size are not copied before it is known that their name is free.
constexpr off_t largeSize = off_t{64} << 10U;

/// Makes a call with the name at the destination, and with others where that is wanted and it finds
/// each of them taken.
template <typename Call>
int WithFreeName(const TavroMoveOptions& Options, std::string& IoName, Call Make) {
    int error = Make();
    for (int i = 0; i < tries && error == EEXIST && Options.NextName; ++i) {
        IoName = Options.NextName();
        error = Make();
    }
    return error;
}

} // namespace

// =================================================================================================
// A copy on its way
// =================================================================================================

TavroStagedCopy::TavroStagedCopy(TavroPlace From, TavroPlace To, TavroMoveOptions Options,
                                 TavroHardLinks& Links, TavroProgressTeller& Progress)
    : m_from(std::move(From)), m_to(std::move(To)), m_options(std::move(Options)), m_links(Links),
      m_progress(Progress) {
    m_report.Name = m_to.Name;
}

std::string TavroStagedCopy::DestinationPath() const {
    return TavroPlace{m_to.Directory, m_report.Name}.Path();
}

void TavroStagedCopy::Fail(Kind What, int Error) {
    const std::string destination = DestinationPath();
    m_report.Failure = TavroFail(What, Error, m_from.Path(), destination);
    if (What == Kind::Taken || What == Kind::Write) {
        std::swap(m_report.Failure.Path, m_report.Failure.Other);
    }
}

/// The first is the failure, unless there is one; the others are told after it.
void TavroStagedCopy::TakeFailures(std::vector<TavroFailure>& Failures) {
    for (TavroFailure& failure : Failures) {
        if (!m_report.Failure) {
            m_report.Failure = std::move(failure);
        } else {
            m_report.Below.push_back(std::move(failure));
        }
    }
    Failures.clear();
}

bool TavroStagedCopy::Stage(const struct stat& Source, TavroDescriptor Open) {
    m_source = TavroStateOf(Source);
    m_tree = std::make_unique<TavroTreeCopy>(
        m_from, m_to,
        TavroTreeCopyOptions{!m_options.bCopy, m_options.bSync, m_options.bNamed,
                             m_options.BeforeNamed, m_options.Earlier, m_options.OnMade},
        m_links, m_progress);
    if (!m_tree->Run(Source, std::move(Open))) {
        TakeFailures(m_tree->Failures());
        return false;
    }
    return true;
}

void TavroStagedCopy::Rest() {
    m_from.Directory = TavroClosed(m_from.Directory);
    m_to.Directory = TavroClosed(m_to.Directory);
}

TavroFailure TavroStagedCopy::Wake(TavroPlaces& Places) {
    TavroFailure failure = Places.FindAgain(m_to);
    return failure ? failure : Places.FindAgain(m_from);
}

TavroFailure TavroStagedCopy::LookAtStaged(TavroFileState& OutState) const {
    const int error = m_tree->LookAtMade(OutState);
    return error == 0 ? TavroFailure() : TavroFail(Kind::Write, error, m_to.Path());
}

std::string TavroStagedCopy::StagedName() const {
    return m_tree->HiddenName();
}

/// What is moved has reached the disk before it takes its own name: later it could only be taken
/// back from a place that others know already.
bool TavroStagedCopy::Publish(bool bExchange) {
    if (!m_options.bCopy) {
        m_report.Failure = m_tree->FindChangedSource();
    }
    TavroFileState made;
    if (!m_report.Failure && m_options.BeforePublish && !(m_report.Failure = LookAtStaged(made))) {
        m_report.Failure = m_options.BeforePublish(made, StagedName());
    }
    const int error = m_report.Failure ? 0 : WithFreeName(m_options, m_report.Name, [&] {
        return m_tree->Publish(m_report.Name, bExchange);
    });
    if (error != 0) {
        Fail(error == EEXIST ? Kind::Taken : Kind::Publish, error);
    }
    if (m_report.Failure) {
        if (m_report.Failure.Kind != Kind::Taken && !CannotLink()) {
            GiveUp();
        }
        return false;
    }
    m_bReplaced = bExchange;
    m_report.Arrived = m_tree->Made();
    m_report.Lost = m_tree->Lost();
    if (m_options.bCopy) {
        m_report.Below = std::move(m_tree->Failures());
    }
    return true;
}

void TavroStagedCopy::Withdraw(const std::string& Hidden) {
    m_tree->Rename(Hidden);
    GiveUp();
}

void TavroStagedCopy::GiveUp() {
    m_tree->GiveUp();
    TakeFailures(m_tree->Failures());
}

TavroFailure TavroStagedCopy::GiveUp(TavroPlaces& Places) {
    TavroFailure failure = Places.FindAgain(m_to);
    if (!failure) {
        GiveUp();
    }
    return failure;
}

void TavroStagedCopy::RemoveSource() {
    std::vector<TavroFailure>& failures = m_tree->Failures();
    std::size_t removed = 0;
    TavroFailure changed = failures.empty() ? m_tree->FindChangedCopy() : TavroFailure();
    if (changed) {
        failures.push_back(std::move(changed));
    } else if (failures.empty()) {
        removed = m_tree->RemoveSources();
    }
    if (failures.empty()) {
        return;
    }
    m_report.bPartlyMoved = removed != 0;
    m_report.bCopyStays =
        removed != 0 || m_bReplaced || m_tree->FindChangedSource() || !m_tree->TakeBack();
    if (!m_report.bCopyStays) {
        m_report.Arrived = {};
    } else if (removed == 0) {
        Fail(Kind::CopyStays);
    }
    TakeFailures(failures);
}

// =================================================================================================
// One entry at once
// =================================================================================================

/// One entry on its way.
class Bringing {
public:
    Bringing(const TavroPlace& From, const TavroPlace& To, const TavroMoveOptions& Options,
             TavroHardLinks& Links, TavroProgressTeller& Progress)
        : m_options(Options), m_copy(From, To, Options, Links, Progress),
          m_report(m_copy.Report()) {}

    TavroMoveReport Run();

private:
    bool Look();
    void NoteRenamed();
    bool CanBeRemoved();
    bool IsNameFree();
    void Copy();

    const TavroPlace& From() const {
        return m_copy.From();
    }
    const TavroPlace& To() const {
        return m_copy.To();
    }

    const TavroMoveOptions& m_options;
    TavroStagedCopy m_copy;
    TavroMoveReport& m_report;
    struct stat m_source = {};
};

TavroMoveReport Bringing::Run() {
    if ((m_options.bCopy || m_options.Expected) && !Look()) {
        return std::move(m_report);
    }
    const auto rename = [this] {
        return TavroRenameNoReplace(From().Number(), From().Name.c_str(), To().Number(),
                                    m_report.Name.c_str());
    };
    const int error = m_options.bCopy ? EXDEV : WithFreeName(m_options, m_report.Name, rename);
    if (error == 0) {
        NoteRenamed();
    } else if (error == EEXIST) {
        m_copy.Fail(Kind::Taken, error);
    } else if (error != EXDEV) {
        m_copy.Fail(error == EINVAL && Look() && S_ISDIR(m_source.st_mode) ? Kind::MoveIntoItself
                                                                           : Kind::MoveTo,
                    error);
    } else if (m_options.bCopy || (Look() && CanBeRemoved())) {
        Copy();
    }
    return std::move(m_report);
}

/// Looks at the source. @return whether it is there, and what it is to be.
bool Bringing::Look() {
    const int error = TavroStatAt(From().Number(), From().Name.c_str(), m_source);
    if (error != 0) {
        m_copy.Fail(m_options.bCopy ? Kind::Read : Kind::MoveTo, error);
    } else if (m_options.Expected && TavroIdentityOf(m_source) != *m_options.Expected) {
        m_copy.Fail(Kind::Changed);
    }
    return !m_report.Failure;
}

/// Another file can have taken the name of the expected one until the moment of the rename. It goes
/// back.
void Bringing::NoteRenamed() {
    struct stat status = {};
    const int error = TavroStatAt(To().Number(), m_report.Name.c_str(), status);
    m_report.Arrived = TavroStateOf(error == 0 ? status : m_source);
    if (!m_options.Expected || m_report.Arrived.Identity == *m_options.Expected) {
        return;
    }
    m_copy.Fail(Kind::Changed);
    if (TavroRenameNoReplace(To().Number(), m_report.Name.c_str(), From().Number(),
                             From().Name.c_str()) == 0) {
        m_report.Arrived = {};
    }
}

/// A source that could not be removed afterwards is not copied in vain.
bool Bringing::CanBeRemoved() {
    const int error = TavroAccessAt(From().Number(), ".", W_OK | X_OK);
    if (error != 0) {
        m_copy.Fail(Kind::Move, error);
    }
    return error == 0;
}

/// Nothing large is copied to a name that is taken.
bool Bringing::IsNameFree() {
    if (!S_ISDIR(m_source.st_mode) && m_source.st_size <= largeSize) {
        return true;
    }
    const int error = WithFreeName(m_options, m_report.Name, [this] {
        struct stat status = {};
        return TavroStatAt(To().Number(), m_report.Name.c_str(), status) == 0 ? EEXIST : 0;
    });
    if (error != 0) {
        m_copy.Fail(Kind::Taken, error);
    }
    return error == 0;
}

void Bringing::Copy() {
    if (!IsNameFree() || !m_copy.Stage(m_source)) {
        return;
    }
    int error = m_options.bCopy || !m_options.bSync ? 0 : m_copy.m_tree->Sync();
    if (error != 0) {
        m_copy.Fail(Kind::Write, error);
        m_copy.GiveUp();
        return;
    }
    if (!m_copy.Publish(false)) {
        if (m_copy.CannotLink()) {
            m_copy.GiveUp();
            m_report.Failure = {};
            m_report.Below.clear();
            m_copy.m_links.TraitsAt(To()).bUnnamed = false;
            Copy();
        } else if (m_report.Failure.Kind == Kind::Taken) {
            m_copy.GiveUp();
        }
        return;
    }
    // The source goes only when its copy is at the destination even after a power cut.
    error = m_options.bCopy || !m_options.bSync ? 0 : TavroSync(To().Number());
    if (error != 0) {
        m_copy.m_tree->Failures().push_back(
            TavroFail(Kind::Write, error, m_copy.DestinationPath()));
    }
    if (!m_options.bCopy) {
        m_copy.RemoveSource();
    }
}

TavroMoveReport TavroBringEntry(const TavroPlace& From, const TavroPlace& To,
                                const TavroMoveOptions& Options, TavroHardLinks& Links,
                                TavroProgressTeller& Progress) {
    return Bringing(From, To, Options, Links, Progress).Run();
}
