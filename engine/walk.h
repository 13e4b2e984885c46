/// Walking a tree by descriptors: no link is followed, however fast somebody exchanges directories
/// for links, and a fixed number of directories is open however deep the tree is.

#ifndef TAVRO_ENGINE_WALK_H
#define TAVRO_ENGINE_WALK_H

#include "identity.h"
#include "posix.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// The directories from the top of a tree down to the current one. Only the deepest few are open;
/// the others are opened again by ".." on the way up, and must be what they were.
class TavroDirectoryStack {
public:
    /// @param Base  the directory that holds the tree; it stays open, and is the caller's.
    explicit TavroDirectoryStack(int Base) : m_base(Base) {}

    /// Steps down into an open directory.
    void Push(TavroDescriptor Directory, const TavroIdentity& Identity);

    /// Steps up.
    /// @param OutLeft  unless null, gets the directory that was left, open; set in any case.
    /// @return 0; ESTALE when ".." is another directory than the one that was left, or the error
    ///         number of opening it. Top is -1 then.
    int Pop(TavroDescriptor* OutLeft = nullptr);

    /// The current directory; the base while there is none.
    int Top() const {
        return m_levels.empty() ? m_base : m_levels.back().Directory.Number();
    }

private:
    struct Level {
        TavroDescriptor Directory;
        TavroIdentity Identity;
    };

    int m_base;
    std::vector<Level> m_levels;
};

/// What a walk has come to.
enum class TavroWalkEvent {
    Leaf,       ///< Something that is no directory.
    Enter,      ///< A directory, open now; what is in it comes next.
    Leave,      ///< The directory that was entered; all that is in it was seen.
    CannotLook, ///< Its type cannot be found out.
    CannotOpen, ///< A directory that cannot be opened.
    CannotList, ///< A directory that was entered and cannot be listed. Leave follows.
    LostWay,    ///< The way up is not the way that led down any more. The walk is over.
    End,
};

/// Walks over one entry and everything below it, depth first. A directory comes before (Enter) and
/// after (Leave) what is in it.
class TavroTreeWalk {
public:
    /// @param Directory  the open directory that holds the entry; the caller's.
    TavroTreeWalk(int Directory, std::string Name) : m_stack(Directory), m_name(std::move(Name)) {}

    /// Goes on. After LostWay and End it stays at End.
    TavroWalkEvent Next();

    /// After Enter: passes over what is in the directory; Leave follows.
    void Skip() {
        m_bSkip = true;
    }

    /// After Leaf, CannotLook or CannotOpen: the next event is about the same name again.
    void Retry() {
        m_bAgain = true;
    }

    /// The open directory that holds the entry of the event.
    int Directory() const {
        return m_stack.Top();
    }

    /// The name of the entry in that directory.
    const std::string& Name() const {
        return m_name;
    }

    /// Of a Leaf: DT_REG, DT_LNK …, from the listing or, where the listing does not say, from a
    /// look at the entry. Never DT_UNKNOWN.
    unsigned char Type() const {
        return m_type;
    }

    /// The status of what was looked up last: after Enter of the directory, as it was opened; also
    /// that of the first entry, whatever it is.
    const struct stat& Status() const {
        return m_status;
    }

    /// After Enter and CannotList: the directory, open; and the mount that it lies on.
    int Entered() const {
        return m_entered.Number();
    }
    std::uint64_t EnteredMount() const {
        return m_mount;
    }

    /// The error number of CannotLook, CannotOpen, CannotList and LostWay.
    int Error() const {
        return m_error;
    }

    /// Whether the event is about the entry that the walk began with.
    bool IsFirst() const {
        return m_levels.empty();
    }

    /// The path of the entry below the first one: empty for that one, else "a/b".
    std::string Below() const;

private:
    struct Level {
        std::string Name; ///< The directory's own, in the one above.
        TavroListing Listing;
    };

    TavroWalkEvent Arrive(unsigned char Type);
    TavroWalkEvent Open();
    TavroWalkEvent StepUp();
    TavroWalkEvent Fail(TavroWalkEvent Event, int Error);

    TavroDirectoryStack m_stack;
    std::vector<Level> m_levels;
    std::string m_name;
    unsigned char m_type = 0;
    TavroDescriptor m_entered; ///< After Enter, until the next step.
    struct stat m_status = {};
    std::uint64_t m_mount = 0;
    int m_error = 0;
    bool m_bAgain = true; ///< The next event is about m_name; so it is at the beginning.
    bool m_bSkip = false;
    bool m_bOver = false;
};

#endif
