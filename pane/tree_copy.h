/// Copying a whole entry, tree or not, to a path where nothing is; and removing what was copied.

#ifndef TAVRO_PANE_TREE_COPY_H
#define TAVRO_PANE_TREE_COPY_H

#include "file_copy.h"
#include "transfer.h"

#include <map>
#include <memory>
#include <utility>

/// The names in a directory, as one list: what is copied or moved meanwhile does not disturb it.
///
/// @param ec  cleared after success; else nothing is returned.
std::vector<std::filesystem::path> TavroListNames(const std::filesystem::path& Directory,
                                                  std::error_code& ec);

/// Where the files with several names went, so that their other names become links to the same
/// copy. One serves a whole transfer.
class TavroHardLinks {
public:
    /// Everything below one copied tree moves with it when it is renamed.
    using Root = std::shared_ptr<std::filesystem::path>;

    /// @param Status  the source, as it was copied. One with a single name is not remembered.
    void Remember(const struct stat& Status, const Root& Tree, const std::filesystem::path& Below);

    /// Links `To` to the copy of the same file, if there is one that is still what it was, and it
    /// can be linked. The file may have lost its other names since: of a move, they are gone.
    bool LinkTo(const struct stat& Status, const std::filesystem::path& To) const;

    /// Forgets what lies in a tree that was given up.
    void Forget(const Root& Tree);

private:
    struct Place {
        Root Tree;
        std::filesystem::path Below;
        struct stat Source;
        struct stat Copy;
    };
    std::map<std::pair<dev_t, ino_t>, Place> m_places;
};

/// What a tree copy tells and asks.
struct TavroTreeMonitor {
    TavroCopyMonitor File;
    std::function<void(const std::filesystem::path&)> OnEntryBegin; ///< Before an entry is read.
    std::function<void()> OnEntryDone;                              ///< After it is copied.
};

/// One copy of an entry with everything below it.
class TavroTreeCopy {
public:
    enum class Outcome {
        Whole,     ///< All of it is at the target.
        Partial,   ///< Some entries below it failed; the others are there.
        Failed,    ///< Nothing is at the target.
        Cancelled, ///< Nothing is at the target.
    };

    /// @param bMustBeWhole  a partial copy is given up and counts as failed.
    TavroTreeCopy(std::filesystem::path Source, TavroHardLinks& HardLinks,
                  const TavroTreeMonitor& Monitor, bool bMustBeWhole);

    /// Copies to `Staging`, at which nothing is and which nobody else uses.
    ///
    /// @param bSync  a single file has reached the disk when this returns.
    Outcome Run(const std::filesystem::path& Staging, bool bSync);

    /// Whether the copy is a directory.
    bool IsDirectory() const;

    /// The copy lies at another path now.
    void MovedTo(const std::filesystem::path& Path);

    /// Removes the copy while nobody else uses it.
    void GiveUp();

    /// Removes a whole copy where others may have seen it: just what was copied, and only while
    /// every source is still there as it was. What others have added or changed stays.
    ///
    /// @return whether nothing is left of it.
    bool TakeBack();

    /// Whether every source is still what it was when it was copied.
    bool SourcesAreUnchanged(TavroTransferFailure& OutFailure) const;

    /// Removes the sources whose copies are whole. Each is looked at once more, and so is its copy.
    /// What cannot be removed, or has changed, stays and is added to the failures.
    ///
    /// @return how many entries were removed.
    std::uint64_t RemoveSources();

    const std::vector<TavroTransferFailure>& Failures() const {
        return m_failures;
    }

private:
    /// A source that was copied, as it was then.
    struct Copied {
        std::filesystem::path Below;
        struct stat Status;
    };

    bool CopyEntry(const std::filesystem::path& Below, bool bSync);
    bool CopyByType(const std::filesystem::path& Below, struct stat& Status, bool bSync);
    bool CopyDirectory(const std::filesystem::path& Below, const struct stat& Status);
    bool CopyEntriesOf(const std::filesystem::path& Below,
                       const std::vector<std::filesystem::path>& Names);
    bool LinkToCopy(const std::filesystem::path& Below, const struct stat& Status, bool bSync);
    bool CopyFile(const std::filesystem::path& Below, struct stat& Status, bool bSync);
    bool CopyLink(const std::filesystem::path& Below, const struct stat& Status);
    bool CopyFifo(const std::filesystem::path& Below, const struct stat& Status);
    bool FinishAttributes(const std::filesystem::path& Below, const struct stat& Status);
    bool Fail(const std::filesystem::path& Path, std::string Reason, const std::error_code& ec);
    bool IsUnchanged(const Copied& Entry, TavroTransferFailure& OutFailure) const;
    bool IsWholeAtTarget(const Copied& Entry) const;
    bool RemoveSource(const Copied& Entry);
    void RecognizeTarget();

    std::filesystem::path SourceOf(const std::filesystem::path& Below) const;
    std::filesystem::path TargetOf(const std::filesystem::path& Below) const;

    const std::filesystem::path m_source;
    TavroHardLinks& m_hardLinks;
    const TavroTreeMonitor& m_monitor;
    const bool m_bMustBeWhole;
    TavroHardLinks::Root m_target;
    std::vector<Copied> m_copied; ///< Entries before the directories that hold them.
    std::vector<TavroTransferFailure> m_failures;
    std::pair<dev_t, ino_t> m_targetIdentity = {}; ///< Zeros until it was created.
    bool m_bCancelled = false;
    bool m_bGivenUp = false; ///< Going on makes no sense: cancelled, or the target is full.
};

#endif
