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

/// The same entry with the same contents, as far as can be told without reading them.
bool IsSameStill(const struct stat& A, const struct stat& B) {
    return IdentityOf(A) == IdentityOf(B) && (A.st_mode & S_IFMT) == (B.st_mode & S_IFMT) &&
           A.st_size == B.st_size && HasSameTime(A.st_mtim, B.st_mtim);
}

bool SyncFile(const fs::path& Path) {
    const int number = open(Path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    const bool bSynced = number >= 0 && fsync(number) == 0;
    if (number >= 0) {
        close(number);
    }
    return bSynced;
}

bool RemoveEntry(const fs::path& Path, const struct stat& Status) {
    return (S_ISDIR(Status.st_mode) ? rmdir(Path.c_str()) : unlink(Path.c_str())) == 0;
}

} // namespace

std::vector<fs::path> TavroListNames(const fs::path& Directory, std::error_code& ec) {
    std::vector<fs::path> names;
    fs::directory_iterator listing(Directory, ec);
    for (const fs::directory_iterator end; !ec && listing != end; listing.increment(ec)) {
        names.push_back(listing->path().filename());
    }
    if (ec) {
        names.clear();
    }
    return names;
}

// =================================================================================================
// Hard links
// =================================================================================================

void TavroHardLinks::Remember(const struct stat& Status, const Root& Tree, const fs::path& Below) {
    if (Status.st_nlink < 2) {
        return;
    }
    Place place = {Tree, Below, Status, {}};
    if (lstat((Below.empty() ? *Tree : *Tree / Below).c_str(), &place.Copy) == 0) {
        m_places[IdentityOf(Status)] = std::move(place);
    }
}

bool TavroHardLinks::LinkTo(const struct stat& Status, const fs::path& To) const {
    const auto found = m_places.find(IdentityOf(Status));
    // The number of a removed file may have gone to another one.
    if (found == m_places.end() || !IsSameStill(found->second.Source, Status)) {
        return false;
    }
    const Place& place = found->second;
    const fs::path copy = place.Below.empty() ? *place.Tree : *place.Tree / place.Below;
    if (link(copy.c_str(), To.c_str()) != 0) {
        return false;
    }
    // The copy may have been replaced or changed since, by a later item of this transfer too.
    struct stat linked = {};
    if (lstat(To.c_str(), &linked) == 0 && IsSameStill(linked, place.Copy)) {
        return true;
    }
    unlink(To.c_str());
    return false;
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
    if (bThere) {
        RecognizeTarget();
    }
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

bool TavroTreeCopy::IsDirectory() const {
    return !m_copied.empty() && S_ISDIR(m_copied.back().Status.st_mode);
}

/// Notes what was created, so that nothing else is ever removed in its stead.
void TavroTreeCopy::RecognizeTarget() {
    struct stat created = {};
    if (lstat(m_target->c_str(), &created) == 0) {
        m_targetIdentity = IdentityOf(created);
    }
}

void TavroTreeCopy::GiveUp() {
    m_hardLinks.Forget(m_target);
    struct stat now = {};
    if (lstat(m_target->c_str(), &now) != 0 || IdentityOf(now) != m_targetIdentity) {
        return;
    }
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
    const bool bCopied = S_ISDIR(status.st_mode)
                             ? CopyDirectory(Below, status)
                             : LinkToCopy(Below, status, bSync) || CopyByType(Below, status, bSync);
    if (bCopied) {
        m_copied.push_back({Below, status});
        m_monitor.OnEntryDone();
    }
    return bCopied;
}

/// Copies what is no directory, and remembers it for its other names.
bool TavroTreeCopy::CopyByType(const fs::path& Below, struct stat& Status, bool bSync) {
    bool bCopied = false;
    switch (Status.st_mode & S_IFMT) {
    case S_IFREG:
        bCopied = CopyFile(Below, Status, bSync);
        break;
    case S_IFLNK:
        bCopied = CopyLink(Below, Status);
        break;
    case S_IFIFO:
        bCopied = CopyFifo(Below, Status);
        break;
    default:
        return Fail(SourceOf(Below),
                    std::string(S_ISSOCK(Status.st_mode) ? "A socket" : "A device") +
                        " is not copied: '" + SourceOf(Below).string() + "'",
                    {});
    }
    if (bCopied) {
        m_hardLinks.Remember(Status, m_target, Below);
    }
    return bCopied;
}

bool TavroTreeCopy::CopyDirectory(const fs::path& Below, const struct stat& Status) {
    const fs::path source = SourceOf(Below);
    const fs::path target = TargetOf(Below);
    if (!Below.empty() && IdentityOf(Status) == m_targetIdentity) {
        return Fail(source, "Cannot copy a directory into itself: '" + source.string() + "'", {});
    }
    std::error_code ec;
    const std::vector<fs::path> names = TavroListNames(source, ec);
    if (ec) {
        return Fail(source, "Cannot read '" + source.string() + "': " + ec.message(), ec);
    }
    if (m_bMustBeWhole && access(source.c_str(), W_OK | X_OK) != 0) {
        // Its entries could be copied, but not removed afterwards: better known now than half-way.
        ec = LastError();
        return Fail(source, "Cannot move out of '" + source.string() + "': " + ec.message(), ec);
    }
    if (mkdir(target.c_str(), 0700) != 0) {
        ec = LastError();
        return Fail(source, "Cannot create '" + target.string() + "': " + ec.message(), ec);
    }
    // The umask, or an access control list of the folder, may have taken away too much.
    static_cast<void>(chmod(target.c_str(), 0700) == 0);
    if (Below.empty()) {
        RecognizeTarget();
    }
    return CopyEntriesOf(Below, names) && FinishAttributes(Below, Status);
}

/// @return whether the directory itself can be kept: false when all is given up.
bool TavroTreeCopy::CopyEntriesOf(const fs::path& Below, const std::vector<fs::path>& Names) {
    for (const fs::path& name : Names) {
        CopyEntry(Below / name, false);
        if (m_bGivenUp) {
            return false;
        }
    }
    return true;
}

/// One more name for a file that was copied already.
bool TavroTreeCopy::LinkToCopy(const fs::path& Below, const struct stat& Status, bool bSync) {
    const fs::path target = TargetOf(Below);
    if (!m_hardLinks.LinkTo(Status, target)) {
        return false;
    }
    if (bSync && S_ISREG(Status.st_mode) && !SyncFile(target)) {
        unlink(target.c_str());
        return false;
    }
    if (S_ISREG(Status.st_mode) && m_monitor.File.OnBytes) {
        m_monitor.File.OnBytes(static_cast<std::uint64_t>(Status.st_size));
    }
    return true;
}

bool TavroTreeCopy::CopyFile(const fs::path& Below, struct stat& Status, bool bSync) {
    const fs::path source = SourceOf(Below);
    std::error_code ec;
    struct stat copied = {};
    std::string failure =
        TavroCopyRegularFile(source, TargetOf(Below), bSync, m_monitor.File, copied, ec);
    if (ec) {
        return Fail(source, std::move(failure), ec);
    }
    Status = copied;
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
    if (Below.empty()) {
        RecognizeTarget();
    }
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
    const bool bSeen = lstat(source.c_str(), &now) == 0;
    const std::error_code ec = LastError();
    if (!bSeen && ec != std::errc::no_such_file_or_directory) {
        OutFailure = {source, "Cannot read '" + source.string() + "': " + ec.message()};
        return false;
    }
    // Of a directory each entry is looked at by itself.
    const bool bSame = bSeen && (S_ISDIR(now.st_mode) ? IdentityOf(now) == IdentityOf(Entry.Status)
                                                      : IsSameStill(now, Entry.Status));
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
    if (RemoveEntry(source, Entry.Status)) {
        return true;
    }
    const std::error_code ec = LastError();
    m_failures.push_back(
        {source, "Cannot remove '" + source.string() + "' after copying: " + ec.message()});
    return false;
}

std::uint64_t TavroTreeCopy::RemoveSources() {
    std::uint64_t removed = 0;
    for (const Copied& entry : m_copied) {
        removed += RemoveSource(entry) ? 1 : 0;
    }
    return removed;
}

bool TavroTreeCopy::TakeBack() {
    TavroTransferFailure failure;
    if (!SourcesAreUnchanged(failure)) {
        return false;
    }
    m_hardLinks.Forget(m_target);
    bool bGone = true;
    for (const Copied& entry : m_copied) {
        bGone = IsWholeAtTarget(entry) && RemoveEntry(TargetOf(entry.Below), entry.Status) && bGone;
    }
    return bGone;
}
