#include "move.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace {

using Kind = TavroFailureKind;

/// How many free names are tried, when another process takes each.
constexpr int tries = 100;

/// Files above this size are not copied before it is known that their name is free.
constexpr off_t largeSize = off_t{64} << 10U;

/// One entry on its way.
class Bringing {
public:
    Bringing(const TavroPlace& From, const TavroPlace& To, const TavroMoveOptions& Options,
             TavroHardLinks& Links, TavroProgressTeller& Progress)
        : m_from(From), m_to(To), m_options(Options), m_links(Links), m_progress(Progress) {
        m_report.Name = To.Name;
    }

    TavroMoveReport Run();

private:
    bool Look();
    int Rename();
    void NoteRenamed();
    bool CanBeRemoved();
    bool IsNameFree();
    void Copy();
    bool Publish(TavroTreeCopy& Tree);
    void RemoveSource(TavroTreeCopy& Tree);
    template <typename Call> int WithFreeName(Call Make);
    void Fail(Kind What, int Error = 0);
    void TakeFailures(std::vector<TavroFailure>& Failures);

    std::string DestinationPath() const {
        return TavroPlace{m_to.Directory, m_report.Name}.Path();
    }

    const TavroPlace& m_from;
    const TavroPlace& m_to;
    const TavroMoveOptions& m_options;
    TavroHardLinks& m_links;
    TavroProgressTeller& m_progress;
    struct stat m_source = {};
    TavroMoveReport m_report;
};

TavroMoveReport Bringing::Run() {
    if ((m_options.bCopy || m_options.Expected) && !Look()) {
        return std::move(m_report);
    }
    const int error = m_options.bCopy ? EXDEV : WithFreeName([this] { return Rename(); });
    if (error == 0) {
        NoteRenamed();
    } else if (error == EEXIST) {
        Fail(Kind::Taken, error);
    } else if (error != EXDEV) {
        Fail(error == EINVAL && Look() && S_ISDIR(m_source.st_mode) ? Kind::MoveIntoItself
                                                                    : Kind::MoveTo,
             error);
    } else if (m_options.bCopy || (Look() && CanBeRemoved())) {
        Copy();
    }
    return std::move(m_report);
}

void Bringing::Fail(Kind What, int Error) {
    const std::string destination = DestinationPath();
    m_report.Failure = TavroFail(What, Error, m_from.Path(), destination);
    if (What == Kind::Taken || What == Kind::Write) {
        std::swap(m_report.Failure.Path, m_report.Failure.Other);
    }
}

/// The first is the failure, unless there is one; the others are told after it.
void Bringing::TakeFailures(std::vector<TavroFailure>& Failures) {
    for (TavroFailure& failure : Failures) {
        if (!m_report.Failure) {
            m_report.Failure = std::move(failure);
        } else {
            m_report.Below.push_back(std::move(failure));
        }
    }
}

/// Makes a call with the name at the destination, and with others where that is wanted and it finds
/// each of them taken.
template <typename Call> int Bringing::WithFreeName(Call Make) {
    int error = Make();
    for (int i = 0; i < tries && error == EEXIST && m_options.NextName; ++i) {
        m_report.Name = m_options.NextName();
        error = Make();
    }
    return error;
}

/// Looks at the source. @return whether it is there, and what it is to be.
bool Bringing::Look() {
    const int error = TavroStatAt(m_from.Number(), m_from.Name.c_str(), m_source);
    if (error != 0) {
        Fail(m_options.bCopy ? Kind::Read : Kind::MoveTo, error);
    } else if (m_options.Expected && TavroIdentityOf(m_source) != *m_options.Expected) {
        Fail(Kind::Changed);
    }
    return !m_report.Failure;
}

// =================================================================================================
// Renaming
// =================================================================================================

int Bringing::Rename() {
    const char* const from = m_from.Name.c_str();
    const char* const to = m_report.Name.c_str();
    return m_options.bReplace ? TavroRename(m_from.Number(), from, m_to.Number(), to)
                              : TavroRenameNoReplace(m_from.Number(), from, m_to.Number(), to);
}

/// Another file can have taken the name of the expected one until the moment of the rename. It goes
/// back.
void Bringing::NoteRenamed() {
    struct stat status = {};
    const int error = TavroStatAt(m_to.Number(), m_report.Name.c_str(), status);
    m_report.Arrived = TavroStateOf(error == 0 ? status : m_source);
    if (!m_options.Expected || m_report.Arrived.Identity == *m_options.Expected) {
        return;
    }
    Fail(Kind::Changed);
    if (TavroRenameNoReplace(m_to.Number(), m_report.Name.c_str(), m_from.Number(),
                             m_from.Name.c_str()) == 0) {
        m_report.Arrived = {};
    }
}

// =================================================================================================
// Copying
// =================================================================================================

/// A source that could not be removed afterwards is not copied in vain.
bool Bringing::CanBeRemoved() {
    const int error = TavroAccessAt(m_from.Number(), ".", W_OK | X_OK);
    if (error != 0) {
        Fail(Kind::Move, error);
    }
    return error == 0;
}

/// Nothing large is copied to a name that is taken.
bool Bringing::IsNameFree() {
    const bool bLarge = S_ISDIR(m_source.st_mode) || m_source.st_size > largeSize;
    if (m_options.bReplace || !bLarge) {
        return true;
    }
    const int error = WithFreeName([this] {
        struct stat status = {};
        return TavroStatAt(m_to.Number(), m_report.Name.c_str(), status) == 0 ? EEXIST : 0;
    });
    if (error != 0) {
        Fail(Kind::Taken, error);
    }
    return error == 0;
}

void Bringing::Copy() {
    if (!IsNameFree()) {
        return;
    }
    TavroTreeCopy tree(m_from, m_to, {!m_options.bCopy, m_options.bReplace}, m_links, m_progress);
    if (!tree.Run(m_source)) {
        TakeFailures(tree.Failures());
        return;
    }
    if (!Publish(tree)) {
        tree.GiveUp();
        TakeFailures(tree.Failures());
        if (tree.CannotLink()) {
            m_report.Failure = {};
            m_report.Below.clear();
            m_links.TraitsAt(m_to).bUnnamed = false;
            Copy();
        }
        return;
    }
    m_report.bCopied = true;
    m_report.Arrived = tree.Made();
    m_report.Lost = tree.Lost();
    if (m_options.bCopy) {
        m_report.Below = std::move(tree.Failures());
    } else {
        RemoveSource(tree);
    }
}

/// What is moved has reached the disk before it takes its own name: later it could only be taken
/// back from a place that others know already.
bool Bringing::Publish(TavroTreeCopy& Tree) {
    int error = m_options.bCopy ? 0 : Tree.Sync();
    if (error != 0) {
        Fail(Kind::Write, error);
        return false;
    }
    if (!m_options.bCopy) {
        m_report.Failure = Tree.FindChangedSource();
    }
    if (m_report.Failure) {
        return false;
    }
    error = WithFreeName([&] { return Tree.Publish(m_report.Name); });
    if (error != 0) {
        Fail(error == EEXIST ? Kind::Taken : Kind::Publish, error);
    }
    return error == 0;
}

/// The source goes only when its copy is at the destination even after a power cut. When nothing of
/// it can be removed the copy goes instead, so that the entry is where it was; a copy that replaced
/// something stays, and so does one whose source is not what it was.
void Bringing::RemoveSource(TavroTreeCopy& Tree) {
    std::vector<TavroFailure>& failures = Tree.Failures();
    std::size_t removed = 0;
    const int error = TavroSync(m_to.Number());
    TavroFailure changed =
        error != 0 ? TavroFail(Kind::Write, error, DestinationPath()) : Tree.FindChangedCopy();
    if (changed) {
        failures.push_back(std::move(changed));
    } else {
        removed = Tree.RemoveSources();
    }
    if (failures.empty()) {
        return;
    }
    m_report.bPartlyMoved = removed != 0;
    m_report.bCopyStays =
        removed != 0 || m_options.bReplace || Tree.FindChangedSource() || !Tree.TakeBack();
    if (!m_report.bCopyStays) {
        m_report.Arrived = {};
    } else if (removed == 0) {
        Fail(Kind::CopyStays);
    }
    TakeFailures(failures);
}

} // namespace

TavroMoveReport TavroBringEntry(const TavroPlace& From, const TavroPlace& To,
                                const TavroMoveOptions& Options, TavroHardLinks& Links,
                                TavroProgressTeller& Progress) {
    return Bringing(From, To, Options, Links, Progress).Run();
}
