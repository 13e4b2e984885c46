/// What is done where something is in the way of an entry.

#ifndef TAVRO_ENGINE_CONFLICTS_H
#define TAVRO_ENGINE_CONFLICTS_H

#include "identity.h"
#include "tavrotransfer.h"

#include <functional>
#include <optional>
#include <string>

/// Something is where an item is to go.
struct TavroTransferConflict {
    std::string SourcePath;
    std::string DestinationPath;
    TavroFileState Source = {}; ///< A link to a directory is no directory here, nor below.
    TavroFileState Destination = {};
    std::function<std::string()> FreeName = {}; ///< The name that KeepBoth would give.
    bool bCanWait = false; ///< Later is an answer: other entries are left, and nobody gave it yet.
};

enum class TavroConflictChoice {
    Overwrite,      ///< Replace what is there.
    Skip,           ///< Leave both as they are.
    KeepBoth,       ///< Go to a free name beside it: "NAME copy 1.EXT" and so on.
    Stop,           ///< End the transfer here; what is done stays done.
    OverwriteOlder, ///< Overwrite what was modified before the source was, skip other conflicts.
    Rename,         ///< Go to the answer's new name, which may be a conflict again.
    Later,          ///< Ask again when everything else is ready; Skip where that cannot wait.
};

struct TavroConflictAnswer {
    TavroConflictChoice Choice = TavroConflictChoice::Stop;

    /// Answers all later conflicts of the same kind too: those between directories and other
    /// entries are one kind, all others the other.
    bool bForAll = false;

    std::string NewName = {}; ///< Of Rename: beside what is there.
    bool bAsked = false;      ///< Set by the judge: somebody was asked just now.
};

/// Chooses what is done about a conflict: by the policy, by an answer for all, or by asking.
class TavroConflictJudge {
public:
    using Ask = std::function<TavroConflictAnswer(const TavroTransferConflict&)>;

    /// @param OnConflict       kept by reference; empty: what the policy leaves open is skipped.
    /// @param bOverwriteOlder  the policy Ask does so where it can: between entries of a kind.
    TavroConflictJudge(TavroTransferConflictPolicy Policy, const Ask& OnConflict,
                       bool bOverwriteOlder = false)
        : m_policy(Policy), m_onConflict(OnConflict), m_bOverwriteOlder(bOverwriteOlder) {}

    /// @return never OverwriteOlder, but what that comes to; Later only for what can wait.
    TavroConflictAnswer Judge(const TavroTransferConflict& Conflict);

private:
    const TavroTransferConflictPolicy m_policy;
    const Ask& m_onConflict;
    const bool m_bOverwriteOlder;
    std::optional<TavroConflictChoice> m_forAll;
    std::optional<TavroConflictChoice> m_forAllKinds; ///< Between directories and other entries.
};

#endif
