/// Bringing one entry from one place to another: by a rename where that can be, else by a copy that
/// is whole before it gets its name, and the removal of what was copied.

#ifndef TAVRO_ENGINE_MOVE_H
#define TAVRO_ENGINE_MOVE_H

#include "copy_tree.h"
#include "failure.h"
#include "identity.h"
#include "place.h"
#include "progress.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// How one entry is brought.
struct TavroMoveOptions {
    bool bCopy = false;  ///< The source stays.
    bool bSync = true;   ///< Of a move, what is copied reaches the disk before the source goes.
    bool bNamed = false; ///< The copy waits under a hidden name, and not as a file without one.

    /// When given, the source must be this file; otherwise nothing is touched.
    std::optional<TavroIdentity> Expected = {};

    /// Gives another name when the destination's is taken. Empty: that is the failure Taken.
    std::function<std::string()> NextName = {};

    /// Called when a copy is whole and waits to be published, with the file and its hidden name;
    /// without that name it has none. A failure ends it, and nothing is left.
    std::function<TavroFailure(const TavroFileState& Made, const std::string& Staged)>
        BeforePublish = {};

    /// As TavroTreeCopyOptions has them.
    std::function<TavroFailure()> BeforeNamed = {};
    TavroEarlierCopy Earlier = {};
    std::function<TavroFailure(const TavroFileState& Made, const std::string& Staged)> OnMade = {};
};

/// What became of it. What is where follows from it:
///
///     Failure  bCopyStays  bPartlyMoved
///     none     no          no            It is at the destination. Of a copied directory `Below`
///                                        names the entries that are not.
///     set      no          no            It is whole where it was, and nowhere else.
///     set      yes         no            It is in both places.
///     set      yes         yes           It is at the destination. What `Failure` and `Below` name
///                                        is at the source too.
struct TavroMoveReport {
    /// Taken: something was at the destination. CopyStays: `Below` says why the source was not
    /// removed. Report this one, then those in `Below`.
    TavroFailure Failure = {};
    std::vector<TavroFailure> Below = {};

    std::string Name;       ///< The name that it has at its destination.
    TavroFileState Arrived; ///< What is there now. An inode of 0: nothing of it.
    bool bCopyStays = false;
    bool bPartlyMoved = false;
    TavroAttributesLost Lost; ///< What the destination could not hold.
};

/// Brings an entry to a place at which nothing is.
///
/// What is copied is written where nobody sees it, in the destination's directory, and gets its
/// name when it is whole; of a move it has reached the disk before, and each source is removed only
/// when it is the file that was copied, unchanged. When nothing of the source can be removed the
/// copy is taken back: just what this call created and nobody changed since.
///
/// @param Links     hard links among the entries of one operation; one serves the whole operation.
/// @param Progress  told and asked; a cancel is the failure Cancelled and leaves nothing behind. A
///                  rename counts nothing.
TavroMoveReport TavroBringEntry(const TavroPlace& From, const TavroPlace& To,
                                const TavroMoveOptions& Options, TavroHardLinks& Links,
                                TavroProgressTeller& Progress);

/// A copy on its way, for callers that bring many entries and let them wait for each other: staged,
/// published and finished in three steps. What follows the options is kept by reference.
class TavroStagedCopy {
public:
    TavroStagedCopy(TavroPlace From, TavroPlace To, TavroMoveOptions Options, TavroHardLinks& Links,
                    TavroProgressTeller& Progress);

    /// Makes the copy, whole, under a hidden name.
    /// @param Source  the status of the entry, by a look at it a moment ago.
    /// @param Open    the entry, when it is a regular file that was opened then.
    /// @return whether there is one; if not, the report says why.
    bool Stage(const struct stat& Source, TavroDescriptor Open = TavroDescriptor());

    /// Closes the directories while it waits, and opens them again.
    void Rest();
    TavroFailure Wake(TavroPlaces& Places);

    /// The copy as it waits, under `StagedName`; empty while it has no name.
    TavroFailure LookAtStaged(TavroFileState& OutState) const;
    const TavroFileState& Staged() const {
        return m_tree->Made();
    }
    std::string StagedName() const;

    /// Gives the copy its name, unless its source changed.
    /// @param bExchange  something is there; it gets the hidden name in the same moment.
    /// @return whether it is there; if not, the report says why. The copy is removed then, but
    ///         after Taken it waits on.
    bool Publish(bool bExchange);

    /// Of a move: removes the source, when the copy has reached the disk. When nothing of it can be
    /// removed the copy goes instead, so that the entry is where it was; a copy that replaced
    /// something stays, and so does one whose source is not what it was.
    void RemoveSource();

    /// Removes a published copy that has got a hidden name again.
    void Withdraw(const std::string& Hidden);

    /// Removes the copy before it was published; where it rests, its directory is found again.
    void GiveUp();
    TavroFailure GiveUp(TavroPlaces& Places);

    const TavroPlace& From() const {
        return m_from;
    }
    const TavroPlace& To() const {
        return m_to;
    }
    const TavroFileState& Source() const {
        return m_source;
    }
    TavroMoveReport& Report() {
        return m_report;
    }

private:
    friend class Bringing;
    bool CannotLink() const {
        return m_tree && m_tree->CannotLink();
    }
    std::string DestinationPath() const;
    void Fail(TavroFailureKind What, int Error = 0);
    void TakeFailures(std::vector<TavroFailure>& Failures);

    TavroPlace m_from;
    TavroPlace m_to;
    const TavroMoveOptions m_options;
    TavroHardLinks& m_links;
    TavroProgressTeller& m_progress;
    TavroFileState m_source;
    std::unique_ptr<TavroTreeCopy> m_tree;
    bool m_bReplaced = false;
    TavroMoveReport m_report;
};

#endif
