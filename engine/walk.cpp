#include "walk.h"

#include <cerrno>
#include <dirent.h>

namespace {

/// How many directories of a stack are open at once.
constexpr std::size_t openLevels = 8;

} // namespace

// =================================================================================================
// The stack of directories
// =================================================================================================

void TavroDirectoryStack::Push(TavroDescriptor Directory, const TavroIdentity& Identity) {
    m_levels.push_back({std::move(Directory), Identity});
    if (m_levels.size() > openLevels) {
        m_levels[m_levels.size() - openLevels - 1].Directory.Close();
    }
}

int TavroDirectoryStack::Pop(TavroDescriptor* OutLeft) {
    TavroDescriptor ignored;
    TavroDescriptor& left = OutLeft != nullptr ? *OutLeft : ignored;
    left = std::move(m_levels.back().Directory);
    m_levels.pop_back();
    if (m_levels.empty() || m_levels.back().Directory.IsOpen()) {
        return 0;
    }
    TavroDescriptor above;
    struct stat status = {};
    int error = TavroOpenDirectoryAt(left.Number(), "..", above);
    error = error != 0 ? error : TavroStat(above.Number(), status);
    if (error == 0 && TavroIdentityOf(status) != m_levels.back().Identity) {
        error = ESTALE;
    }
    if (error == 0) {
        m_levels.back().Directory = std::move(above);
    }
    return error;
}

// =================================================================================================
// The walk
// =================================================================================================

TavroWalkEvent TavroTreeWalk::Fail(TavroWalkEvent Event, int Error) {
    m_error = Error;
    m_bOver = Event == TavroWalkEvent::LostWay;
    return Event;
}

TavroWalkEvent TavroTreeWalk::Next() {
    if (m_bOver) {
        return TavroWalkEvent::End;
    }
    if (m_entered.IsOpen()) {
        TavroListing listing;
        const int error = m_bSkip ? 0 : TavroListDirectory(m_entered.Number(), listing);
        m_bSkip = error != 0; // the next step goes on without what is in it
        if (error != 0) {
            return Fail(TavroWalkEvent::CannotList, error);
        }
        m_stack.Push(std::move(m_entered), TavroIdentityOf(m_status));
        m_levels.push_back({m_name, std::move(listing)});
    }
    if (m_bAgain) {
        m_bAgain = false;
        return Arrive(DT_UNKNOWN);
    }
    if (m_levels.empty()) {
        m_bOver = true;
        return TavroWalkEvent::End;
    }
    TavroListing& listing = m_levels.back().Listing;
    const char* name = listing.Next();
    if (name == nullptr) {
        return StepUp();
    }
    m_name = name;
    return Arrive(listing.Type());
}

TavroWalkEvent TavroTreeWalk::Arrive(unsigned char Type) {
    m_type = Type;
    if (Type == DT_DIR) {
        const TavroWalkEvent event = Open();
        // What was a directory a moment ago may be something else by now.
        if (event != TavroWalkEvent::CannotOpen || (m_error != ENOTDIR && m_error != ELOOP)) {
            return event;
        }
        m_type = DT_UNKNOWN;
    }
    if (m_type != DT_UNKNOWN) {
        return TavroWalkEvent::Leaf;
    }
    const int error = TavroStatAt(m_stack.Top(), m_name.c_str(), m_status);
    if (error != 0) {
        return Fail(TavroWalkEvent::CannotLook, error);
    }
    m_type = static_cast<unsigned char>(IFTODT(m_status.st_mode));
    return m_type == DT_DIR ? Open() : TavroWalkEvent::Leaf;
}

TavroWalkEvent TavroTreeWalk::Open() {
    TavroDescriptor opened;
    int error = TavroOpenDirectoryAt(m_stack.Top(), m_name.c_str(), opened);
    error = error != 0 ? error : TavroStatWithMount(opened.Number(), m_status, m_mount);
    if (error != 0) {
        return Fail(TavroWalkEvent::CannotOpen, error);
    }
    m_entered = std::move(opened);
    return TavroWalkEvent::Enter;
}

TavroWalkEvent TavroTreeWalk::StepUp() {
    m_name = std::move(m_levels.back().Name);
    m_levels.pop_back();
    const int error = m_stack.Pop();
    return error != 0 ? Fail(TavroWalkEvent::LostWay, error) : TavroWalkEvent::Leave;
}

std::string TavroTreeWalk::Below() const {
    std::string path;
    for (std::size_t i = 1; i < m_levels.size(); ++i) {
        path += m_levels[i].Name + '/';
    }
    return m_levels.empty() ? path : path + m_name;
}
