/// One mover for everything that is done to many entries or to none: trashing, restoring, undoing
/// and redoing. All is checked, then done in order; when one step fails, what was done is undone in
/// reverse, and what could not be undone is reported.

#ifndef TAVRO_ENGINE_BATCH_H
#define TAVRO_ENGINE_BATCH_H

#include "changes.h"
#include "failure.h"
#include "identity.h"
#include "move.h"
#include "place.h"
#include "progress.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// An entry that was looked at just now.
struct TavroSeenEntry {
    TavroIdentity Directory; ///< The directory that holds it.
    TavroFileState State;
};

/// One entry that goes from one full path to another at which nothing is.
struct TavroBatchStep {
    std::string From;
    std::string To;

    /// When given, what is at `From` must be this file, and is looked at again after its move.
    std::optional<TavroIdentity> Expected = {};

    /// When given, `From` needs no other look before it is moved. Else TavroRunBatch sets it.
    std::optional<TavroSeenEntry> Seen = {};

    /// When given, the own path of the directory that is to hold `To`. A link that somebody puts on
    /// the way there is not followed: that is ESTALE.
    std::optional<std::string> Holder = {};

    /// The path by which what is at `From` is known; empty: that one.
    std::string Origin = {};

    const std::string& KnownAs() const {
        return Origin.empty() ? From : Origin;
    }

    // Set by TavroRunBatch:

    /// What is at `To` now; an inode of 0: nothing of this step. What was not expected and not
    /// copied has the times that were seen before its move.
    TavroFileState Arrived = {};

    bool bCopyStays = false; ///< After a failure: it is at `To` and, in part at least, at `From`.
};

/// What a batch does beside moving. Each may be empty.
struct TavroBatchHooks {
    bool bNeverCopy = false; ///< What would have to be copied is the failure MustCopy.

    /// Called once, when all is checked and before anything is moved; may change each `To`. A
    /// failure ends the batch.
    std::function<TavroFailure()> Prepare = {};

    /// Called when something was at the `To` of a step, which it may change, for another try.
    /// Empty: that is a failure.
    std::function<TavroFailure(std::size_t Step)> Retry = {};

    /// As in TavroMoveOptions, for a step that is copied.
    std::function<TavroFailure(std::size_t Step, const TavroFileState& Made,
                               const std::string& Staged)>
        BeforePublish = {};

    /// Called after Prepare for each step that did not happen, or was undone.
    std::function<void(std::size_t Step)> Undone = {};

    /// Called when all steps are done and on the disk.
    std::function<void(TavroChanges&)> Finish = {};
};

/// Something that went back by being copied.
struct TavroRenewed {
    std::string Path; ///< `From` of its step.
    TavroIdentity Was;
    TavroIdentity Is;
};

struct TavroBatchReport {
    TavroFailure Failure = {};               ///< None: every step is done.
    TavroFailure Why = {};                   ///< The cause of the failure, where it has one.
    std::vector<TavroFailure> RollBack = {}; ///< Why steps could not be undone.
    std::vector<std::string> CreatedDirectories = {}; ///< Missing parents; outer ones first.
    std::vector<TavroRenewed> Renewed = {};
    TavroAttributesLost Lost = {};
};

/// Carries out all steps, or none. Missing parents of the destinations are created for the user
/// alone (mode 0700) and removed again by a roll-back when they are empty. Nothing is ever
/// replaced. A directory that was exchanged since it was looked at is not followed: ESTALE.
///
/// Checked before anything is moved: Missing, LookAt, ItemChanged (another file than expected), and
/// without Retry InTheWay (something is at `To`). Later failures are those of TavroBringEntry, and
/// Write when what was done cannot be brought to the disk.
///
/// @param Steps      in order. After success `Arrived` tells what is where; after a failure, of
///                   what could not be moved back `Arrived` has an inode.
/// @param Callbacks  progress counts the batch as one whole: a rename is one item of no bytes. A
///                   cancel is the failure Cancelled, and what was done is undone.
TavroBatchReport TavroRunBatch(std::vector<TavroBatchStep>& Steps, const TavroBatchHooks& Hooks,
                               const TavroCallbacks& Callbacks);

/// The sentence of a report: that of its failure and why, then "; moving back failed: " and why for
/// each step that could not be undone.
std::string TavroDescribe(const TavroBatchReport& Report);

#endif
