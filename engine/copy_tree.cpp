#include "copy_tree.h"

#include "names.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

using Kind = TavroFailureKind;

/// Files above this size are told by name however fast they are.
constexpr off_t namedSize = off_t{1} << 20U;

/// Opens a directory, if it is the right one.
/// @param bForce  the user's own is made accessible to him.
/// @return 0; ESTALE when another one is there, or none; or the error number.
template <typename Question>
int OpenOwn(int Parent, const char* Name, bool bForce, Question IsRight,
            TavroDescriptor& OutDirectory, struct stat& OutStatus) {
    int error = TavroOpenDirectoryAt(Parent, Name, OutDirectory);
    if (error == EACCES && bForce) {
        TavroDescriptor closed;
        error = TavroOpenAt(Parent, Name, O_PATH | O_DIRECTORY, closed);
        error = error != 0 ? error : TavroStat(closed.Number(), OutStatus);
        error = error != 0 ? error : IsRight(OutStatus) ? 0 : ESTALE;
        error = error != 0 ? error : TavroSetPathMode(closed.Number(), 0700);
        error = error != 0 ? error : TavroOpenDirectoryAt(Parent, Name, OutDirectory);
    }
    error = error != 0 ? error : TavroStat(OutDirectory.Number(), OutStatus);
    if (TavroIsMissing(error) || error == ELOOP || (error == 0 && !IsRight(OutStatus))) {
        return ESTALE;
    }
    if (error == 0 && bForce && (OutStatus.st_mode & 0700U) != 0700U) {
        TavroSetMode(OutDirectory.Number(), 0700); // what cannot be helped shows at the entries
    }
    return error;
}

} // namespace

// =================================================================================================
// Hard links
// =================================================================================================

void TavroHardLinks::Remember(File Copied) {
    m_files[Copied.Source.Identity] = std::move(Copied);
}

TavroHardLinks::File* TavroHardLinks::Find(const TavroIdentity& Source) {
    const auto found = m_files.find(Source);
    return found == m_files.end() ? nullptr : &found->second;
}

const TavroHardLinks::File* TavroHardLinks::LinkTo(const TavroFileState& Source, int Directory,
                                                   const char* Name) {
    File* const file = Find(Source.Identity);
    // The number of a removed file may have gone to another one.
    if (file == nullptr || file->Root->empty() || !TavroIsUnchanged(file->Source, Source)) {
        return nullptr;
    }
    const std::string path =
        file->Below.empty() ? *file->Root : TavroJoin(*file->Root, file->Below);
    TavroDescriptor directory;
    TavroDescriptor copy;
    struct stat status = {};
    // Wherever the path leads by now, what is linked is the copy, and still what it was.
    const bool bThere =
        TavroOpenDirectory(TavroParentOf(path), directory) == 0 &&
        TavroOpenAt(directory.Number(), TavroNameOf(path).c_str(), O_PATH, copy) == 0 &&
        TavroStat(copy.Number(), status) == 0 && TavroIsUnchanged(file->Copy, TavroStateOf(status));
    if (!bThere || TavroLinkOpenAt(copy.Number(), Directory, Name) != 0) {
        return nullptr;
    }
    if (TavroStat(copy.Number(), status) == 0) {
        file->Copy.ChangeTime = TavroNanoseconds(status.st_ctim);
    }
    return file;
}

TavroNewEntryTraits& TavroHardLinks::TraitsAt(const TavroPlace& Place) {
    if (m_last != Place.Directory->Identity) {
        m_last = Place.Directory->Identity;
        m_traits = TavroTraitsOfNewEntriesIn(Place.Number());
    }
    return m_traits;
}

// =================================================================================================
// Copying
// =================================================================================================

TavroTreeCopy::TavroTreeCopy(const TavroPlace& From, const TavroPlace& To,
                             TavroTreeCopyOptions Options, TavroHardLinks& Links,
                             TavroProgressTeller& Progress)
    : m_from(From), m_to(To), m_options(std::move(Options)), m_links(Links), m_progress(Progress),
      m_name(TavroStagingName()), m_walk(From.Number(), From.Name), m_target(To.Number()) {}

bool TavroTreeCopy::Run(const struct stat& Source, TavroDescriptor Open) {
    m_source = TavroStateOf(Source);
    if (S_ISDIR(Source.st_mode)) {
        for (TavroWalkEvent event = m_walk.Next(); event != TavroWalkEvent::End && !m_bGivenUp;
             event = m_walk.Next()) {
            TakeStep(event);
        }
    } else if (Open.IsOpen()) {
        CopyOpenLeaf(std::move(Open), Source, true);
    } else {
        CopyLeaf(m_from.Number(), m_from.Name.c_str(), S_ISREG(Source.st_mode));
    }
    if (m_bThere && !m_bGivenUp) {
        return true;
    }
    GiveUp();
    return false;
}

void TavroTreeCopy::TakeStep(TavroWalkEvent Event) {
    switch (Event) {
    case TavroWalkEvent::Leaf:
        CopyLeaf(m_walk.Directory(), m_walk.Name().c_str(), m_walk.Type() == DT_REG);
        break;
    case TavroWalkEvent::Enter:
        EnterDirectory();
        break;
    case TavroWalkEvent::Leave:
        LeaveDirectory();
        break;
    default:
        m_bGivenUp = Event == TavroWalkEvent::LostWay;
        Fail(Kind::Read, m_walk.Error());
        break;
    }
}

/// Notes why an entry is not copied. What is about the copy names its place: nobody knows the
/// hidden name under which it is made.
/// @return false, for the caller to return in turn.
bool TavroTreeCopy::Fail(TavroFailureKind What, int Error) {
    const bool bTarget = What == Kind::Create || What == Kind::SetAttributes || What == Kind::Write;
    const bool bFull = Error == ENOSPC || Error == EDQUOT;
    m_bGivenUp = m_bGivenUp || m_options.bMove || bFull || What == Kind::Cancelled;
    if (What == Kind::Cancelled) {
        m_failures.insert(m_failures.begin(), {Kind::Cancelled});
    } else {
        m_failures.push_back(TavroFail(What, Error, PathIn(bTarget ? m_to : m_from)));
    }
    return false;
}

std::string TavroTreeCopy::PathIn(const TavroPlace& Top) const {
    const std::string below = m_walk.Below();
    return below.empty() ? Top.Path() : TavroJoin(Top.Path(), below);
}

bool TavroTreeCopy::IsCancelled() {
    m_progress.Begin([this] { return PathIn(m_from); });
    return m_progress.ShouldCancel() && !Fail(Kind::Cancelled);
}

TavroNewEntryTraits& TavroTreeCopy::Traits() {
    return m_levels.empty() ? m_links.TraitsAt(m_to) : m_levels.back().Traits;
}

const char* TavroTreeCopy::TargetName() const {
    return m_levels.empty() ? m_name.c_str() : m_walk.Name().c_str();
}

// --- What is no directory ---

void TavroTreeCopy::CopyLeaf(int Directory, const char* Name, bool bRegular) {
    if (IsCancelled()) {
        return;
    }
    TavroDescriptor source;
    struct stat status = {};
    int error = bRegular ? TavroOpenSource(Directory, Name, source, status)
                         : TavroOpenAt(Directory, Name, O_PATH, source);
    error = bRegular || error != 0 ? error : TavroStat(source.Number(), status);
    if (error == 0 && m_levels.empty() && TavroIdentityOf(status) != m_source.Identity) {
        error = ESTALE;
    }
    if (error != 0) {
        Fail(Kind::Read, error);
        return;
    }
    CopyOpenLeaf(std::move(source), status, bRegular);
}

void TavroTreeCopy::CopyOpenLeaf(TavroDescriptor Source, const struct stat& Status, bool bRegular) {
    const TavroFileState state = TavroStateOf(Status);
    TavroFileState copy;
    // Of a move, its other names can be gone by now.
    const bool bLinked = Status.st_nlink > 1 || m_links.Find(state.Identity) != nullptr;
    const TavroHardLinks::File* const same =
        bLinked ? m_links.LinkTo(state, m_target.Top(), TargetName()) : nullptr;
    if (same != nullptr) {
        copy = same->Copy;
        m_progress.AddBytes(bRegular ? static_cast<std::uint64_t>(Status.st_size) : 0);
    } else if (!CopyByType(Source.Number(), Status, copy)) {
        return;
    } else if (bLinked) {
        m_tree = m_tree ? m_tree
                        : std::make_shared<std::string>(TavroJoin(m_to.Directory->OwnPath, m_name));
        m_links.Remember({state, copy, m_tree, m_walk.Below()});
    }
    m_progress.AddItems();
    NoteCopied(state, copy, bLinked);
    if (m_levels.empty()) {
        m_source = state;
        m_made = copy;
        m_bThere = true;
    }
}

void TavroTreeCopy::NoteCopied(const TavroFileState& Source, const TavroFileState& Copy,
                               bool bLinked) {
    m_copied.push_back({Copy, m_names.size(), 0, bLinked});
    m_names.append(m_levels.empty() ? "" : m_walk.Name()).push_back('\0');
    if (m_options.bMove) {
        m_sources.push_back(Source);
    }
}

bool TavroTreeCopy::CopyByType(int Source, const struct stat& Status, TavroFileState& OutCopy) {
    switch (Status.st_mode & S_IFMT) {
    case S_IFREG:
        return CopyFile(Source, Status, OutCopy);
    case S_IFLNK:
    case S_IFIFO:
        return CopySpecial(Source, Status, OutCopy);
    case S_IFSOCK:
        return Fail(Kind::Socket);
    case S_IFCHR:
    case S_IFBLK:
        return Fail(Kind::Device);
    default:
        return Fail(Kind::Read, EISDIR);
    }
}

/// Opens the directory of the earlier copy in which the entry of the walk would be, without
/// following a link. @return 0, or the error number.
int TavroTreeCopy::FindEarlier() {
    const std::string path = TavroParentOf('/' + m_walk.Below());
    if (m_earlier.IsOpen() && path == m_earlierPath) {
        return 0;
    }
    TavroDescriptor at;
    struct stat status = {};
    int error = TavroOpenDirectoryAt(m_to.Number(), m_options.Earlier.Name.c_str(), at);
    error = error != 0 ? error : TavroStat(at.Number(), status);
    error = error == 0 && status.st_ino != m_options.Earlier.Made.Inode ? ESTALE : error;
    for (std::size_t begin = 1; error == 0 && begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        TavroDescriptor next;
        error = TavroOpenDirectoryAt(at.Number(), path.substr(begin, end - begin).c_str(), next);
        at = std::move(next);
        begin = end + 1;
    }
    m_earlier = std::move(at);
    m_earlierPath = path;
    return error;
}

namespace {

/// Whether something was changed last before a moment. Where times are told in whole seconds, or
/// two, all of these must have passed.
bool IsBefore(const struct timespec& Changed, std::int64_t Moment) {
    return TavroNanoseconds(Changed) + (Changed.tv_nsec == 0 ? 2 * TavroSecond : 0) < Moment;
}

} // namespace

/// Takes over a file that was copied before. Its times were given to it last, so it was whole.
/// Neither its source has changed since it was begun, nor a directory above that, which would be
/// another one.
bool TavroTreeCopy::TakeOver(const struct stat& Status, TavroFileState& OutCopy) {
    struct stat copy = {};
    std::int64_t birth = 0;
    const std::string& name = m_walk.Name();
    const auto is = [&](const struct stat& status) {
        return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
               status.st_size == Status.st_size &&
               TavroNanoseconds(status.st_mtim) == TavroNanoseconds(Status.st_mtim);
    };
    if (m_source.Identity.Inode != m_options.Earlier.Source.Inode || FindEarlier() != 0 ||
        TavroStatWithBirthAt(m_earlier.Number(), name.c_str(), copy, birth) != 0 || !is(copy) ||
        !IsBefore(Status.st_ctim, birth) ||
        !std::all_of(m_levels.begin(), m_levels.end(),
                     [&](const Level& level) { return IsBefore(level.Source.st_ctim, birth); })) {
        return false;
    }
    const TavroIdentity identity = TavroIdentityOf(copy);
    if (TavroRenameNoReplace(m_earlier.Number(), name.c_str(), m_target.Top(), TargetName()) != 0 ||
        TavroStatAt(m_target.Top(), TargetName(), copy) != 0 || !is(copy) ||
        TavroIdentityOf(copy) != identity) {
        return false; // when another file has the name now, that is a failure
    }
    OutCopy = TavroStateOf(copy);
    m_progress.AddBytes(static_cast<std::uint64_t>(Status.st_size));
    return true;
}

bool TavroTreeCopy::MayName() {
    TavroFailure failure = m_options.BeforeNamed ? m_options.BeforeNamed() : TavroFailure();
    if (failure) {
        m_bGivenUp = true;
        m_failures.push_back(std::move(failure));
    }
    return !m_bGivenUp;
}

bool TavroTreeCopy::CopyFile(int Source, const struct stat& Status, TavroFileState& OutCopy) {
    const bool bFirst = m_levels.empty();
    if (!m_options.Earlier.Name.empty() && !bFirst && TakeOver(Status, OutCopy)) {
        return true;
    }
    if (Status.st_size > namedSize) {
        m_progress.Name([this] { return PathIn(m_from); });
    }
    TavroCopyOptions options = {bFirst && m_options.bSync, bFirst && !m_options.bNamed};
    if (bFirst) {
        options.MayName = [this] { return MayName(); };
    }
    TavroFileCopy copy;
    const TavroFailure failure = TavroCopyFile(Source, Status, m_target.Top(), TargetName(),
                                               options, Traits(), m_progress, copy, m_lost);
    if (failure) {
        return !m_bGivenUp && Fail(failure.Kind, failure.Error.value());
    }
    m_unnamed = bFirst ? std::move(copy.Unnamed) : TavroDescriptor();
    OutCopy = copy.State;
    return true;
}

/// Whether an entry can be the one that was just created: nobody else's, and private as it was made
/// where there are owners and modes. What the file system does instead, a file shows.
bool TavroTreeCopy::IsNew(const struct stat& Status) {
    const mode_t shared = S_ISLNK(Status.st_mode) ? 0 : Status.st_mode & 077U;
    if (Status.st_uid == geteuid() && shared == 0) {
        return true;
    }
    const std::string name = TavroStagingName();
    TavroDescriptor file;
    struct stat probe = {};
    if (TavroOpenAt(m_target.Top(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL, file, 0600) != 0) {
        return false;
    }
    const bool bKnown = TavroStat(file.Number(), probe) == 0;
    TavroUnlinkAt(m_target.Top(), name.c_str());
    return bKnown && Status.st_uid == probe.st_uid && (shared == 0 || (probe.st_mode & 077U) != 0);
}

/// Copies a symbolic link or a FIFO.
bool TavroTreeCopy::CopySpecial(int Source, const struct stat& Status, TavroFileState& OutCopy) {
    const bool bLink = S_ISLNK(Status.st_mode);
    const int directory = m_target.Top();
    std::string text;
    if (m_levels.empty() && !MayName()) {
        return false;
    }
    int error = bLink ? TavroReadLinkAt(Source, "", text) : 0;
    if (error == 0) {
        error = bLink ? TavroSymlinkAt(text.c_str(), directory, TargetName())
                      : TavroMakeFifoAt(directory, TargetName(), 0600);
    }
    if (error != 0) {
        return Fail(bLink ? Kind::CopyLink : Kind::CopyPipe, error);
    }
    TavroDescriptor made;
    struct stat now = {};
    error = TavroOpenAt(directory, TargetName(), O_PATH, made);
    error = error != 0 ? error : TavroStat(made.Number(), now);
    if (error != 0) {
        TavroUnlinkAt(directory, TargetName());
    } else if ((now.st_mode & S_IFMT) != (Status.st_mode & S_IFMT) || now.st_nlink != 1 ||
               !IsNew(now)) {
        error = ESTALE; // somebody has put something else there
    }
    if (error != 0) {
        return Fail(bLink ? Kind::CopyLink : Kind::CopyPipe, error);
    }
    error =
        TavroGiveAttributes(made.Number(), Status, TavroReadAttributes(Source), Traits(), m_lost);
    if (error != 0) {
        Fail(Kind::SetAttributes, error); // it is there all the same
    }
    TavroStat(made.Number(), now);
    OutCopy = TavroStateOf(now);
    return true;
}

// --- Directories ---

void TavroTreeCopy::EnterDirectory() {
    Level level = {m_walk.Status(), {}, {}, m_copied.size(), false};
    if (!IsCancelled() && IsEnterable()) {
        MakeDirectory(level);
    }
    if (!level.bMade) {
        m_walk.Skip();
    }
    m_levels.push_back(std::move(level));
}

bool TavroTreeCopy::IsEnterable() {
    const TavroIdentity identity = TavroIdentityOf(m_walk.Status());
    if (identity == m_to.Directory->Identity || identity == m_made.Identity) {
        m_bGivenUp = true;
        m_failures.push_back(
            {m_options.bMove ? Kind::MoveIntoItself : Kind::CopyIntoItself, {}, m_from.Path()});
        return false;
    }
    if (m_levels.empty() && identity != m_source.Identity) {
        return Fail(Kind::Read, ESTALE);
    }
    // Its entries could be copied, but not removed afterwards: better known now than half-way.
    const int error = m_options.bMove ? TavroAccessAt(m_walk.Entered(), ".", W_OK | X_OK) : 0;
    return error == 0 || Fail(Kind::MoveOutOf, error);
}

/// Makes the copy of the directory that was entered, for nobody else to look into, and steps down
/// into it.
void TavroTreeCopy::MakeDirectory(Level& OutLevel) {
    const int parent = m_target.Top();
    TavroDescriptor made;
    struct stat status = {};
    int error = TavroMakeDirectoryAt(parent, TargetName(), 0700);
    if (error == 0) {
        error = OpenMade(made, status);
        if (error != 0 && error != ESTALE) {
            TavroRemoveDirectoryAt(parent, TargetName());
        }
    }
    if (error != 0) {
        Fail(Kind::Create, error);
        return;
    }
    const TavroFileState state = TavroStateOf(status);
    OutLevel.bMade = true;
    OutLevel.Attributes = TavroReadAttributes(m_walk.Entered());
    // What is in it will belong to whom it belongs to.
    OutLevel.Traits = {false, false, true, status.st_uid, status.st_gid};
    m_made = m_levels.empty() ? state : m_made;
    NoteCopied(TavroStateOf(OutLevel.Source), state, false);
    m_target.Push(std::move(made), state.Identity);
    TavroFailure failure =
        m_levels.empty() && m_options.OnMade ? m_options.OnMade(state, m_name) : TavroFailure();
    if (failure) {
        m_bGivenUp = true;
        m_failures.push_back(std::move(failure));
    }
}

/// Opens the directory that was just created.
/// @return 0; ESTALE when something else is there; or the error number.
int TavroTreeCopy::OpenMade(TavroDescriptor& OutDirectory, struct stat& OutStatus) {
    const auto isNew = [this](const struct stat& status) { return IsNew(status); };
    const int error = OpenOwn(m_target.Top(), TargetName(), true, isNew, OutDirectory, OutStatus);
    return error == 0 && Traits().bInheritLists ? TavroRemoveLists(OutDirectory.Number(), S_IFDIR)
                                                : error;
}

void TavroTreeCopy::LeaveDirectory() {
    const Level level = std::move(m_levels.back());
    m_levels.pop_back();
    if (!level.bMade) {
        return;
    }
    m_copied[level.Number].End = m_copied.size();
    TavroDescriptor left;
    int error = m_target.Pop(&left);
    if (error != 0) {
        m_bGivenUp = true;
        Fail(Kind::Write, error);
        return;
    }
    error = TavroGiveAttributes(left.Number(), level.Source, level.Attributes, Traits(), m_lost);
    if (error != 0) {
        Fail(Kind::SetAttributes, error); // it is there all the same
    }
    m_progress.AddItems();
    m_bThere = m_levels.empty();
}

// =================================================================================================
// Publishing
// =================================================================================================

int TavroTreeCopy::Sync() {
    return m_made.IsDirectory() ? TavroSyncFileSystem(m_to.Number()) : 0;
}

/// @return 0 when a name is that of the copy; ESTALE when it is not; or the error number of
/// looking.
int TavroTreeCopy::CheckName(const std::string& Name, struct stat& OutStatus) const {
    const int error = TavroStatAt(m_to.Number(), Name.c_str(), OutStatus);
    const bool bOther = error == 0 && TavroIdentityOf(OutStatus) != m_made.Identity;
    return error == ENOENT || bOther ? ESTALE : error;
}

int TavroTreeCopy::PublishUnnamed(const std::string& Name, struct stat& OutStatus) {
    int error = TavroLinkOpenAt(m_unnamed.Number(), m_to.Number(), Name.c_str());
    m_bCannotLink = error != 0 && error != EEXIST;
    if (error != 0) {
        return error;
    }
    error = TavroStat(m_unnamed.Number(), OutStatus);
    const int closeError = m_unnamed.Close();
    error = error != 0 ? error : closeError;
    if (error != 0) {
        TavroUnlinkAt(m_to.Number(), Name.c_str());
    }
    return error;
}

int TavroTreeCopy::LookAtMade(TavroFileState& OutState) const {
    struct stat status = {};
    const int error =
        m_unnamed.IsOpen() ? TavroStat(m_unnamed.Number(), status) : CheckName(m_name, status);
    OutState = TavroStateOf(status);
    return error;
}

int TavroTreeCopy::PublishNamed(const std::string& Name, bool bExchange, struct stat& OutStatus) {
    const int directory = m_to.Number();
    int error = bExchange
                    ? TavroExchange(directory, m_name.c_str(), directory, Name.c_str())
                    : TavroRenameNoReplace(directory, m_name.c_str(), directory, Name.c_str());
    if (error != 0) {
        return error;
    }
    if (!m_options.bMove && !m_made.IsDirectory() && !bExchange) {
        return 0; // nothing is removed for it: its change time alone is not known
    }
    error = CheckName(Name, OutStatus);
    if (error == ESTALE) { // somebody has put something else there
        const int back =
            bExchange ? TavroExchange(directory, Name.c_str(), directory, m_name.c_str())
                      : TavroRenameNoReplace(directory, Name.c_str(), directory, m_name.c_str());
        m_bElsewhere = back != 0;
        return error;
    }
    return 0;
}

int TavroTreeCopy::Publish(const std::string& Name, bool bExchange) {
    struct stat status = {};
    int error = 0;
    const bool bUnnamed = m_made.Identity.Inode == 0;
    if (bUnnamed) {
        error = PublishUnnamed(bExchange ? m_name : Name, status);
        if (error == 0) { // it is to be found by this if it cannot go on
            m_made = m_copied.front().Copy = TavroStateOf(status);
        }
    }
    if (error == 0 && (!bUnnamed || bExchange)) {
        error = PublishNamed(Name, bExchange, status);
    }
    if (error != 0) {
        return error;
    }
    m_name = Name;
    m_made = status.st_ino != 0 ? TavroStateOf(status) : m_made;
    if (!m_copied.empty()) {
        m_copied.front().Copy = m_made;
    }
    TavroHardLinks::File* const linked = m_links.Find(m_source.Identity);
    if (linked != nullptr && (linked->Root == m_tree || linked->Copy.Identity == m_made.Identity)) {
        linked->Copy = m_made;
    }
    if (m_tree) {
        *m_tree = TavroJoin(m_to.Directory->OwnPath, m_name);
    }
    return 0;
}

void TavroTreeCopy::GiveUp() {
    if (m_tree) {
        m_tree->clear();
    }
    if (m_unnamed.IsOpen() || m_copied.empty() || m_bElsewhere) {
        m_unnamed.Close();
        return;
    }
    for (const Level& level : m_levels) {
        if (level.bMade) {
            m_copied[level.Number].End = m_copied.size();
        }
    }
    std::vector<TavroFailure> failures;
    const std::size_t removed = Remove(Side::Copy, Care::Identity, failures);
    if (removed != m_copied.size() && failures.back().Kind != Kind::Changed) {
        const TavroFailure& why = failures.front().Error ? failures.front() : failures.back();
        m_failures.push_back(
            {Kind::RemoveIncompleteCopy, why.Error, TavroPlace{m_to.Directory, m_name}.Path()});
    }
    m_copied.clear();
}

// =================================================================================================
// Removing what was copied, or the copy
// =================================================================================================

/// Goes once more over what was copied, at the source or at its copy, by names and identities: an
/// entry that is no directory, or a directory after all that is in it.
class TavroTreeCopy::Retrace {
public:
    /// @param bForce  directories are made accessible.
    Retrace(TavroTreeCopy& Copy, Side Which, bool bForce)
        : m_copy(Copy), m_which(Which), m_bForce(bForce),
          m_stack((Which == Side::Source ? Copy.m_from : Copy.m_to).Number()) {}

    /// Goes on. @return false at the end.
    bool Next();

    std::size_t Number() const {
        return m_at;
    }
    Side Which() const {
        return m_which;
    }
    const Copied& Entry() const {
        return m_copy.m_copied[m_at];
    }
    int Directory() const {
        return m_stack.Top();
    }
    const char* Name() const {
        const std::string& top = m_which == Side::Source ? m_copy.m_from.Name : m_copy.m_name;
        return m_at == 0 ? top.c_str() : &m_copy.m_names[Entry().NameAt];
    }

    /// Why a directory could not be entered, or left; what is in it was passed over.
    int Error() const {
        return m_error;
    }

    /// The path of the entry at the source.
    std::string SourcePath() const;

private:
    int Enter();

    TavroTreeCopy& m_copy;
    const Side m_which;
    const bool m_bForce;
    TavroDirectoryStack m_stack;
    std::vector<std::size_t> m_entered;
    std::size_t m_at = 0;
    std::size_t m_next = 0;
    int m_error = 0;
};

bool TavroTreeCopy::Retrace::Next() {
    const std::vector<Copied>& copied = m_copy.m_copied;
    for (;;) {
        if (!m_entered.empty() && copied[m_entered.back()].End == m_next) {
            m_at = m_entered.back();
            m_entered.pop_back();
            m_error = m_stack.Pop();
            if (m_error != 0) { // the way up is lost, and with it all that would follow
                m_entered.clear();
                m_next = copied.size();
            }
            return true;
        }
        if (m_next == copied.size()) {
            return false;
        }
        m_at = m_next++;
        m_error = Entry().Copy.IsDirectory() ? Enter() : 0;
        if (!Entry().Copy.IsDirectory() || m_error != 0) {
            m_next = std::max(m_next, Entry().End);
            return true;
        }
        m_entered.push_back(m_at);
    }
}

int TavroTreeCopy::Retrace::Enter() {
    TavroDescriptor directory;
    struct stat status = {};
    const TavroIdentity& expected = m_copy.LatestOf(m_at, m_which).Identity;
    const auto isIt = [&](const struct stat& now) { return TavroIdentityOf(now) == expected; };
    const int error = OpenOwn(Directory(), Name(), m_bForce, isIt, directory, status);
    if (error == 0) {
        m_stack.Push(std::move(directory), expected);
    }
    return error;
}

std::string TavroTreeCopy::Retrace::SourcePath() const {
    std::string path = m_copy.m_from.Path();
    const auto append = [&](std::size_t number) {
        if (number != 0) { // the first is the top itself
            path.append(1, '/').append(&m_copy.m_names[m_copy.m_copied[number].NameAt]);
        }
    };
    for (const std::size_t directory : m_entered) {
        append(directory);
    }
    append(m_at);
    return path;
}

/// What is known of one side of a copied entry. Of a file with several names that changes with each
/// of them that is removed.
TavroFileState& TavroTreeCopy::LatestOf(std::size_t Number, Side Which) {
    TavroFileState& known = Which == Side::Source ? m_sources[Number] : m_copied[Number].Copy;
    const bool bLinked = m_copied[Number].bLinked && m_options.bMove;
    TavroHardLinks::File* const file = bLinked ? m_links.Find(m_sources[Number].Identity) : nullptr;
    if (file == nullptr) {
        return known;
    }
    TavroFileState& latest = Which == Side::Source ? file->Source : file->Copy;
    return latest.Identity == known.Identity ? latest : known;
}

/// @return no failure when an entry is what it was; or Changed or Read, without a path.
TavroFailure TavroTreeCopy::Check(const Retrace& At, Care What) {
    TavroFileState then = LatestOf(At.Number(), At.Which());
    struct stat status = {};
    int error = At.Error();
    error = error != 0 ? error : TavroStatAt(At.Directory(), At.Name(), status);
    const TavroFileState now = TavroStateOf(status);
    then.Size = What == Care::Identity ? now.Size : then.Size;
    if (What != Care::Everything) {
        then.ModificationTime = now.ModificationTime;
        then.ChangeTime = now.ChangeTime;
    }
    if (error == ESTALE || error == ENOENT || (error == 0 && !TavroIsUnchanged(then, now))) {
        return {Kind::Changed};
    }
    return error == 0 ? TavroFailure() : TavroFail(Kind::Read, error, "");
}

TavroFailure TavroTreeCopy::FindChangedSource() {
    for (Retrace at(*this, Side::Source, false); at.Next();) {
        TavroFailure failure = Check(at, Care::Everything);
        if (failure) {
            failure.Path = at.SourcePath();
            return failure;
        }
    }
    return {};
}

TavroFailure TavroTreeCopy::FindChangedCopy() {
    for (Retrace at(*this, Side::Copy, false); at.Next();) {
        if (Check(at, Care::Size)) {
            return {Kind::CopyNotWhole, {}, at.SourcePath()};
        }
    }
    return {};
}

/// Removes an entry that is what it was. @return no failure; or one without a path.
TavroFailure TavroTreeCopy::RemoveOne(const Retrace& At, Care What) {
    TavroDescriptor file;
    if (At.Entry().bLinked) {
        TavroOpenAt(At.Directory(), At.Name(), O_PATH, file); // why it fails shows next
    }
    TavroFailure failure = Check(At, What);
    if (failure) {
        return failure;
    }
    const int error = At.Entry().Copy.IsDirectory()
                          ? TavroRemoveDirectoryAt(At.Directory(), At.Name())
                          : TavroUnlinkAt(At.Directory(), At.Name());
    struct stat status = {};
    if (error == 0 && file.IsOpen() && TavroStat(file.Number(), status) == 0) {
        // Its other names have got another change time by that.
        LatestOf(At.Number(), At.Which()).ChangeTime = TavroNanoseconds(status.st_ctim);
    }
    return error == 0 ? TavroFailure() : TavroFail(Kind::RemoveAfterCopy, error, "");
}

/// @return how many of the sources, or of the copies, were removed.
std::size_t TavroTreeCopy::Remove(Side Which, Care What, std::vector<TavroFailure>& OutFailures) {
    std::size_t removed = 0;
    for (Retrace at(*this, Which, What == Care::Identity); at.Next();) {
        TavroFailure failure = RemoveOne(at, What);
        removed += failure ? 0U : 1U;
        if (failure) {
            failure.Path = at.SourcePath();
            OutFailures.push_back(std::move(failure));
        }
    }
    return removed;
}

std::size_t TavroTreeCopy::RemoveSources() {
    return Remove(Side::Source, Care::Everything, m_failures);
}

bool TavroTreeCopy::TakeBack() {
    if (m_tree) {
        m_tree->clear();
    }
    std::vector<TavroFailure> failures;
    return Remove(Side::Copy, Care::Everything, failures) == m_copied.size();
}
