#include "tree_copy.h"

#include "remove_tree.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::error_code LastError() {
    return {errno, std::generic_category()};
}

bool IsTargetFull(const std::error_code& ec) {
    return ec == std::errc::no_space_on_device || ec.value() == EDQUOT;
}

bool HasSameTime(const struct timespec& A, const struct timespec& B) {
    return A.tv_sec == B.tv_sec && A.tv_nsec == B.tv_nsec;
}

std::pair<dev_t, ino_t> IdentityOf(const struct stat& Status) {
    return {Status.st_dev, Status.st_ino};
}

/// A file that other names exist for.
bool HasOtherNames(const struct stat& Status) {
    return S_ISREG(Status.st_mode) && Status.st_nlink > 1;
}

} // namespace

// =================================================================================================
// Hard links
// =================================================================================================

void TavroHardLinks::Remember(const struct stat& Status, const Root& Tree, const fs::path& Below) {
    m_places[IdentityOf(Status)] = {Tree, Below};
}

bool TavroHardLinks::LinkTo(const struct stat& Status, const fs::path& To) const {
    const auto place = m_places.find(IdentityOf(Status));
    if (place == m_places.end()) {
        return false;
    }
    const fs::path& below = place->second.Below;
    const fs::path copy = below.empty() ? *place->second.Tree : *place->second.Tree / below;
    return link(copy.c_str(), To.c_str()) == 0;
}

void TavroHardLinks::Forget(const Root& Tree) {
    for (auto place = m_places.begin(); place != m_places.end();) {
        place = place->second.Tree == Tree ? m_places.erase(place) : std::next(place);
    }
}

// =================================================================================================
// Copying
// =================================================================================================

TavroTreeCopy::TavroTreeCopy(fs::path Source, TavroHardLinks& HardLinks,
                             const TavroTreeMonitor& Monitor, bool bMustBeWhole)
    : m_source(std::move(Source)), m_hardLinks(HardLinks), m_monitor(Monitor),
      m_bMustBeWhole(bMustBeWhole) {}

fs::path TavroTreeCopy::SourceOf(const fs::path& Below) const {
    return Below.empty() ? m_source : m_source / Below;
}

fs::path TavroTreeCopy::TargetOf(const fs::path& Below) const {
    return Below.empty() ? *m_target : *m_target / Below;
}

TavroTreeCopy::Outcome TavroTreeCopy::Run(const fs::path& Staging, bool bSync) {
    m_target = std::make_shared<fs::path>(Staging);
    const bool bThere = CopyEntry({}, bSync);
    if (bThere && m_failures.empty() && !m_bCancelled) {
        return Outcome::Whole;
    }
    if (bThere && !m_bGivenUp && !m_bMustBeWhole) {
        return Outcome::Partial;
    }
    GiveUp();
    return m_bCancelled ? Outcome::Cancelled : Outcome::Failed;
}

void TavroTreeCopy::MovedTo(const fs::path& Path) {
    *m_target = Path;
}

void TavroTreeCopy::GiveUp() {
    m_hardLinks.Forget(m_target);
    std::error_code ec;
    TavroRemoveTree(*m_target, ec);
    if (ec) {
        m_failures.push_back({*m_target, "Cannot remove the incomplete copy '" +
                                             m_target->string() + "': " + ec.message()});
    }
}

/// Notes why an entry is not copied.
/// @return false, for the caller to return in turn.
bool TavroTreeCopy::Fail(const fs::path& Path, std::string Reason, const std::error_code& ec) {
    if (ec == std::errc::operation_canceled) {
        m_bCancelled = true;
        m_bGivenUp = true;
        return false;
    }
    m_failures.push_back({Path, std::move(Reason)});
    m_bGivenUp = m_bGivenUp || m_bMustBeWhole || IsTargetFull(ec);
    return false;
}

/// @return whether the entry is at the target, be it without some entries below it.
bool TavroTreeCopy::CopyEntry(const fs::path& Below, bool bSync) {
    if (m_monitor.File.ShouldCancel && m_monitor.File.ShouldCancel()) {
        return Fail({}, {}, std::make_error_code(std::errc::operation_canceled));
    }
    const fs::path source = SourceOf(Below);
    m_monitor.OnEntryBegin(source);
    struct stat status = {};
    if (lstat(source.c_str(), &status) != 0) {
        const std::error_code ec = LastError();
        return Fail(source, "Cannot read '" + source.string() + "': " + ec.message(), ec);
    }
    bool bCopied = false;
    switch (status.st_mode & S_IFMT) {
    case S_IFDIR:
        bCopied = CopyDirectory(Below, status);
        break;
    case S_IFREG:
        bCopied = CopyFile(Below, status, bSync, status);
        break;
    case S_IFLNK:
        bCopied = CopyLink(Below, status);
        break;
    case S_IFIFO:
        bCopied = CopyFifo(Below, status);
        break;
    default:
        return Fail(source,
                    std::string(S_ISSOCK(status.st_mode) ? "A socket" : "A device") +
                        " is not copied: '" + source.string() + "'",
                    {});
    }
    if (bCopied) {
        m_copied.push_back({Below, status});
        m_monitor.OnEntryDone();
    }
    return bCopied;
}

bool TavroTreeCopy::CopyDirectory(const fs::path& Below, const struct stat& Status) {
    const fs::path source = SourceOf(Below);
    const fs::path target = TargetOf(Below);
    if (!Below.empty() && IdentityOf(Status) == m_targetIdentity) {
        return Fail(source, "Cannot copy a directory into itself: '" + source.string() + "'", {});
    }
    if (mkdir(target.c_str(), 0700) != 0) {
        const std::error_code ec = LastError();
        return Fail(source, "Cannot create '" + target.string() + "': " + ec.message(), ec);
    }
    if (Below.empty()) {
        struct stat created = {};
        lstat(target.c_str(), &created);
        m_targetIdentity = IdentityOf(created);
    }
    return CopyEntriesOf(Below) && FinishAttributes(Below, Status);
}

/// @return whether the directory itself can be kept: false when all is given up.
bool TavroTreeCopy::CopyEntriesOf(const fs::path& Below) {
    const fs::path source = SourceOf(Below);
    std::error_code ec;
    if (m_bMustBeWhole && access(source.c_str(), W_OK | X_OK) != 0) {
        // Its entries could be copied, but not removed afterwards: better known now than half-way.
        ec = LastError();
        return Fail(source, "Cannot move out of '" + source.string() + "': " + ec.message(), ec);
    }
    fs::directory_iterator listing(source, ec);
    for (const fs::directory_iterator end; !ec && listing != end; listing.increment(ec)) {
        CopyEntry(Below / listing->path().filename(), false);
        if (m_bGivenUp) {
            return false;
        }
    }
    if (ec) {
        Fail(source, "Cannot read '" + source.string() + "': " + ec.message(), ec);
    }
    return !m_bGivenUp;
}

bool TavroTreeCopy::CopyFile(const fs::path& Below, const struct stat& Status, bool bSync,
                             struct stat& OutStatus) {
    const fs::path source = SourceOf(Below);
    const fs::path target = TargetOf(Below);
    if (HasOtherNames(Status) && m_hardLinks.LinkTo(Status, target)) {
        if (m_monitor.File.OnBytes) {
            m_monitor.File.OnBytes(static_cast<std::uint64_t>(Status.st_size));
        }
        return true;
    }
    std::error_code ec;
    struct stat copied = {};
    std::string failure = TavroCopyRegularFile(source, target, bSync, m_monitor.File, copied, ec);
    if (ec) {
        return Fail(source, std::move(failure), ec);
    }
    OutStatus = copied;
    if (HasOtherNames(copied)) {
        m_hardLinks.Remember(copied, m_target, Below);
    }
    return true;
}

bool TavroTreeCopy::CopyLink(const fs::path& Below, const struct stat& Status) {
    const fs::path source = SourceOf(Below);
    const fs::path target = TargetOf(Below);
    std::error_code ec;
    const fs::path text = fs::read_symlink(source, ec);
    if (!ec && symlink(text.c_str(), target.c_str()) != 0) {
        ec = LastError();
    }
    if (ec) {
        return Fail(source, "Cannot copy the link '" + source.string() + "': " + ec.message(), ec);
    }
    return FinishAttributes(Below, Status);
}

bool TavroTreeCopy::CopyFifo(const fs::path& Below, const struct stat& Status) {
    const fs::path source = SourceOf(Below);
    if (mkfifo(TargetOf(Below).c_str(), 0600) != 0) {
        const std::error_code ec = LastError();
        return Fail(source, "Cannot copy the pipe '" + source.string() + "': " + ec.message(), ec);
    }
    return FinishAttributes(Below, Status);
}

/// An entry whose attributes cannot be set is there all the same.
bool TavroTreeCopy::FinishAttributes(const fs::path& Below, const struct stat& Status) {
    std::error_code ec;
    const fs::path target = TargetOf(Below);
    TavroCopyAttributes(SourceOf(Below), target, Status, ec);
    if (ec) {
        Fail(SourceOf(Below),
             "Cannot set the attributes of '" + target.string() + "': " + ec.message(), ec);
    }
    return !m_bGivenUp;
}

// =================================================================================================
// Removing what was copied
// =================================================================================================

bool TavroTreeCopy::IsUnchanged(const Copied& Entry, TavroTransferFailure& OutFailure) const {
    const fs::path source = SourceOf(Entry.Below);
    struct stat now = {};
    const bool bSame =
        lstat(source.c_str(), &now) == 0 && IdentityOf(now) == IdentityOf(Entry.Status) &&
        (now.st_mode & S_IFMT) == (Entry.Status.st_mode & S_IFMT) &&
        (S_ISDIR(now.st_mode) ||
         (now.st_size == Entry.Status.st_size && HasSameTime(now.st_mtim, Entry.Status.st_mtim)));
    if (!bSame) {
        OutFailure = {source, "'" + source.string() + "' changed while it was moved"};
    }
    return bSame;
}

bool TavroTreeCopy::SourcesAreUnchanged(TavroTransferFailure& OutFailure) const {
    for (const Copied& entry : m_copied) {
        if (!IsUnchanged(entry, OutFailure)) {
            return false;
        }
    }
    return true;
}

bool TavroTreeCopy::IsWholeAtTarget(const Copied& Entry) const {
    struct stat arrived = {};
    return lstat(TargetOf(Entry.Below).c_str(), &arrived) == 0 &&
           (arrived.st_mode & S_IFMT) == (Entry.Status.st_mode & S_IFMT) &&
           (!S_ISREG(arrived.st_mode) || arrived.st_size == Entry.Status.st_size);
}

bool TavroTreeCopy::RemoveSource(const Copied& Entry) {
    const fs::path source = SourceOf(Entry.Below);
    TavroTransferFailure failure;
    if (!IsUnchanged(Entry, failure)) {
        m_failures.push_back(std::move(failure));
        return false;
    }
    if (!IsWholeAtTarget(Entry)) {
        m_failures.push_back({source, "The copy of '" + source.string() + "' is not whole"});
        return false;
    }
    const int result =
        S_ISDIR(Entry.Status.st_mode) ? rmdir(source.c_str()) : unlink(source.c_str());
    if (result != 0) {
        const std::error_code ec = LastError();
        m_failures.push_back(
            {source, "Cannot remove '" + source.string() + "' after copying: " + ec.message()});
    }
    return result == 0;
}

std::uint64_t TavroTreeCopy::RemoveSources() {
    std::uint64_t removed = 0;
    for (const Copied& entry : m_copied) {
        removed += RemoveSource(entry) ? 1 : 0;
    }
    return removed;
}
