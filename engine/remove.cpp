#include "remove.h"

#include "names.h"
#include "walk.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// One removal on its way.
class Removal {
public:
    Removal(const TavroPlace& Place, const TavroRemoveOptions& Options)
        : m_place(Place), m_options(Options), m_walk(Place.Number(), Place.Name) {}

    TavroFailure Run();

private:
    void TakeStep(TavroWalkEvent Event);
    void Enter();
    void RemoveLeaf();
    void RemoveDirectory();
    bool MakeOpenable();
    void RemoveUnopened();
    bool IsWanted();
    void Fail(int Error);

    const TavroPlace& m_place;
    const TavroRemoveOptions& m_options;
    TavroTreeWalk m_walk;
    TavroFailure m_failure; ///< The first.
    std::uint64_t m_mount = 0;
    bool m_bRetried = false; ///< The event is about the same name as the last one.
    bool m_bStopped = false;
};

void Removal::Fail(int Error) {
    if (!m_failure) {
        const std::string below = m_walk.Below();
        m_failure = TavroFail(TavroFailureKind::Remove, Error,
                              below.empty() ? m_place.Path() : TavroJoin(m_place.Path(), below));
    }
}

TavroFailure Removal::Run() {
    if (m_place.Name == "." || m_place.Name == "..") {
        Fail(EINVAL);
        return m_failure;
    }
    for (TavroWalkEvent event = m_walk.Next(); event != TavroWalkEvent::End && !m_bStopped;
         event = m_walk.Next()) {
        const bool bRetried = m_bRetried;
        TakeStep(event);
        m_bRetried = m_bRetried && !bRetried;
    }
    return m_failure;
}

void Removal::TakeStep(TavroWalkEvent Event) {
    switch (Event) {
    case TavroWalkEvent::Leaf:
        RemoveLeaf();
        break;
    case TavroWalkEvent::Enter:
        Enter();
        break;
    case TavroWalkEvent::Leave:
        RemoveDirectory();
        break;
    case TavroWalkEvent::CannotOpen:
        RemoveUnopened();
        break;
    case TavroWalkEvent::CannotLook:
        if (m_walk.Error() != ENOENT) {
            Fail(m_walk.Error());
        }
        break;
    case TavroWalkEvent::CannotList:
    case TavroWalkEvent::LostWay:
        Fail(m_walk.Error());
        break;
    case TavroWalkEvent::End:
        break;
    }
}

/// Whether the entry of the event may go: it is the expected file where it has to be a certain one,
/// and nobody cancels. Otherwise the removal ends.
bool Removal::IsWanted() {
    if (m_walk.IsFirst() && m_options.Expected &&
        TavroIdentityOf(m_walk.Status()) != *m_options.Expected) {
        m_failure = {TavroFailureKind::Changed, {}, m_place.Path()};
        m_bStopped = true;
    } else if (m_options.ShouldCancel && m_options.ShouldCancel()) {
        m_failure = {TavroFailureKind::Cancelled};
        m_bStopped = true;
    }
    return !m_bStopped;
}

void Removal::Enter() {
    if (!IsWanted()) {
        return;
    }
    const struct stat& status = m_walk.Status();
    m_mount = m_walk.IsFirst() ? m_walk.EnteredMount() : m_mount;
    if (m_walk.EnteredMount() != m_mount) {
        Fail(EBUSY);
        m_walk.Skip();
    } else if (m_options.bOpenReadOnly && (status.st_mode & 0300U) != 0300U &&
               status.st_uid == geteuid()) {
        // Its entries could not be removed. What cannot be helped shows at the entries.
        TavroSetMode(m_walk.Entered(), status.st_mode | 0700U);
    }
}

void Removal::RemoveLeaf() {
    if (!IsWanted()) {
        return;
    }
    const int error = TavroUnlinkAt(m_walk.Directory(), m_walk.Name().c_str());
    if (error == EISDIR && !m_bRetried) {
        m_walk.Retry(); // it became a directory meanwhile
        m_bRetried = true;
    } else if (error != 0 && error != ENOENT) {
        Fail(error);
    }
}

void Removal::RemoveDirectory() {
    const int error = TavroRemoveDirectoryAt(m_walk.Directory(), m_walk.Name().c_str());
    if (error != 0 && error != ENOENT) {
        Fail(error);
    }
}

/// Gives the user the right to list a directory of his own that he cannot open.
/// @return whether opening it again is worth a try.
bool Removal::MakeOpenable() {
    TavroDescriptor directory;
    struct stat status = {};
    return m_options.bOpenReadOnly && !m_bRetried && m_walk.Error() == EACCES &&
           TavroOpenAt(m_walk.Directory(), m_walk.Name().c_str(), O_PATH | O_DIRECTORY,
                       directory) == 0 &&
           TavroStat(directory.Number(), status) == 0 && status.st_uid == geteuid() &&
           TavroSetPathMode(directory.Number(), status.st_mode | 0700U) == 0;
}

void Removal::RemoveUnopened() {
    const int error = m_walk.Error();
    if (!IsWanted()) {
        return;
    }
    if (MakeOpenable()) {
        m_walk.Retry();
        m_bRetried = true;
    } else if (error != ENOENT &&
               // An empty one can go without being opened.
               TavroRemoveDirectoryAt(m_walk.Directory(), m_walk.Name().c_str()) != 0) {
        Fail(error);
    }
}

} // namespace

TavroFailure TavroRemoveTree(const TavroPlace& Place, const TavroRemoveOptions& Options) {
    return Removal(Place, Options).Run();
}
