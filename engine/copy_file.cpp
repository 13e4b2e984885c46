#include "copy_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>

namespace {

using Kind = TavroFailureKind;

constexpr const char* accessList = "system.posix_acl_access";
constexpr const char* defaultList = "system.posix_acl_default";

// =================================================================================================
// Attributes
// =================================================================================================

/// A call failed because the file system has no such attribute, which is no failure.
bool CannotHold(int Error) {
    return Error == EPERM || Error == ENOTSUP || Error == ENOSYS;
}

} // namespace

TavroNewEntryTraits TavroTraitsOfNewEntriesIn(int Directory) {
    TavroNewEntryTraits traits;
    std::string list;
    traits.bInheritLists = TavroGetAttribute(Directory, defaultList, list) == 0;
    return traits;
}

std::vector<TavroAttribute> TavroReadAttributes(int From) {
    std::vector<TavroAttribute> attributes;
    std::string names;
    if (TavroListAttributes(From, names) != 0) {
        return attributes;
    }
    for (std::size_t at = 0; at < names.size(); at = names.find('\0', at) + 1) {
        TavroAttribute attribute = {&names[at], std::string()};
        if (TavroGetAttribute(From, &names[at], *attribute.Value) != 0) {
            attribute.Value.reset();
        }
        attributes.push_back(std::move(attribute));
    }
    return attributes;
}

int TavroRemoveLists(int Entry, mode_t Mode) {
    for (const char* list : {accessList, defaultList}) {
        const bool bPossible = list == accessList ? !S_ISLNK(Mode) : S_ISDIR(Mode);
        const int error = bPossible ? TavroRemoveAttribute(Entry, list) : 0;
        if (error != 0 && error != ENODATA && error != ENOTSUP) {
            return error;
        }
    }
    return 0;
}

namespace {

/// A mode without its access control list. While there was the list, the mode's group bits were a
/// limit to it, and the rights of the owning group stood in the list. Whom the list named gets by
/// the mode what his group or everybody gets: no more than the list gave to each of them.
mode_t ModeWithoutList(mode_t Mode, const std::string& List) {
    enum Tag { NamedUser = 0x02, OwningGroup = 0x04, NamedGroup = 0x08, Limit = 0x10 };
    constexpr std::size_t headerSize = 4;
    constexpr std::size_t rowSize = 8; // tag, permissions and whose they are, little-endian
    mode_t group = 0;
    mode_t limit = 7;
    mode_t users = 7;
    mode_t named = List.size() < headerSize + rowSize ? 0 : 7;
    bool bNamed = false;
    for (std::size_t at = headerSize; at + rowSize <= List.size(); at += rowSize) {
        const mode_t rights = static_cast<unsigned char>(List[at + 2]);
        const char tag = List[at];
        group = tag == OwningGroup ? rights : group;
        limit = tag == Limit ? rights : limit;
        users = tag == NamedUser ? users & rights : users;
        named = tag == NamedUser || tag == NamedGroup ? named & rights : named;
        bNamed = bNamed || tag == NamedUser || tag == NamedGroup;
    }
    const mode_t others = Mode & named & (bNamed ? limit : 7U);
    return (Mode & ~mode_t{077}) | ((group & limit & users) << 3U) | others;
}

/// @return the mode that the entry may have: less than `Mode` when its list is lost.
mode_t GiveExtended(int To, mode_t Mode, const std::vector<TavroAttribute>& Attributes,
                    TavroAttributesLost& OutLost) {
    bool bListLost = false;
    bool bOtherLost = false;
    for (const TavroAttribute& attribute : Attributes) {
        if (attribute.Value &&
            TavroSetAttribute(To, attribute.Name.c_str(), *attribute.Value) == 0) {
            continue;
        }
        const bool bAccessList = attribute.Name == accessList;
        const bool bList = bAccessList || attribute.Name == defaultList;
        (bList ? bListLost : bOtherLost) = true;
        Mode = bAccessList ? ModeWithoutList(Mode, attribute.Value.value_or("")) : Mode;
    }
    OutLost.AccessLists += bListLost ? 1U : 0U;
    OutLost.ExtendedAttributes += bOtherLost ? 1U : 0U;
    return Mode;
}

/// @return whether the entry belongs to the owner and group of `Status` now.
bool GiveOwner(int To, const struct stat& Status, TavroNewEntryTraits& Traits) {
    // What runs with its owner's rights is not given them on trust.
    if (!Traits.bOwnerKnown || (Status.st_mode & 06000U) != 0) {
        struct stat now = {};
        Traits.bOwnerKnown = TavroStat(To, now) == 0;
        Traits.User = now.st_uid;
        Traits.Group = now.st_gid;
        Traits.Allowed = S_ISREG(now.st_mode) ? now.st_mode & 0777U : Traits.Allowed;
    }
    const bool bSame = Traits.User == Status.st_uid && Traits.Group == Status.st_gid;
    if ((Traits.bOwnerKnown && bSame) || TavroSetOwner(To, Status.st_uid, Status.st_gid) == 0) {
        return true;
    }
    // An ordinary user may still choose among his own groups.
    TavroSetOwner(To, static_cast<uid_t>(-1), Status.st_gid);
    return false;
}

} // namespace

int TavroGiveAttributes(int To, const struct stat& Status,
                        const std::vector<TavroAttribute>& Attributes, TavroNewEntryTraits& Traits,
                        TavroAttributesLost& OutLost, mode_t CreatedWith) {
    const bool bHasMode = CreatedWith != 0 && Traits.Allowed != 0 && Attributes.empty() &&
                          !Traits.bInheritLists &&
                          (CreatedWith & Traits.Allowed) == (Status.st_mode & 07777U);
    const mode_t kept = GiveOwner(To, Status, Traits) ? 07777 : 01777;
    int error = Traits.bInheritLists ? TavroRemoveLists(To, Status.st_mode) : 0;
    if (error != 0) {
        return error;
    }
    const mode_t mode = GiveExtended(To, Status.st_mode & kept, Attributes, OutLost);
    const bool bByPath = S_ISLNK(Status.st_mode) || S_ISFIFO(Status.st_mode);
    if (!S_ISLNK(Status.st_mode) && !bHasMode) {
        error = bByPath ? TavroSetPathMode(To, mode) : TavroSetMode(To, mode);
    }
    if (error != 0 && !CannotHold(error)) {
        return error;
    }
    error = bByPath ? TavroSetPathTimes(To, Status.st_atim, Status.st_mtim)
                    : TavroSetTimes(To, Status.st_atim, Status.st_mtim);
    return CannotHold(error) ? 0 : error;
}

namespace {

void PackNumber(std::string& Bytes, std::int64_t Number) {
    Bytes += std::to_string(Number) + ' ';
}

bool UnpackNumber(const std::string& Bytes, std::size_t& At, std::int64_t& OutNumber) {
    const char* const end = Bytes.data() + Bytes.size();
    const auto [last, error] = std::from_chars(Bytes.data() + At, end, OutNumber);
    At = static_cast<std::size_t>(last - Bytes.data()) + 1;
    return error == std::errc() && last != end && *last == ' ';
}

bool UnpackText(const std::string& Bytes, std::size_t& At, std::string& OutText) {
    std::int64_t size = 0;
    if (!UnpackNumber(Bytes, At, size) || size < 0 ||
        static_cast<std::uint64_t>(size) > Bytes.size() - At) {
        return false;
    }
    OutText = Bytes.substr(At, static_cast<std::size_t>(size));
    At += OutText.size();
    return true;
}

} // namespace

std::string TavroPackAttributes(const struct stat& Status,
                                const std::vector<TavroAttribute>& Attributes) {
    std::string bytes;
    for (const std::int64_t number :
         {std::int64_t{Status.st_uid}, std::int64_t{Status.st_gid}, std::int64_t{Status.st_mode},
          std::int64_t{Status.st_atim.tv_sec}, std::int64_t{Status.st_atim.tv_nsec},
          std::int64_t{Status.st_mtim.tv_sec}, std::int64_t{Status.st_mtim.tv_nsec}}) {
        PackNumber(bytes, number);
    }
    for (const TavroAttribute& attribute : Attributes) {
        for (const std::string& text : {attribute.Name, attribute.Value.value_or("")}) {
            PackNumber(bytes, static_cast<std::int64_t>(text.size()));
            bytes += text;
        }
    }
    return bytes;
}

bool TavroUnpackAttributes(const std::string& Bytes, struct stat& OutStatus,
                           std::vector<TavroAttribute>& OutAttributes) {
    std::array<std::int64_t, 7> numbers = {};
    std::size_t at = 0;
    for (std::int64_t& number : numbers) {
        if (at >= Bytes.size() || !UnpackNumber(Bytes, at, number)) {
            return false;
        }
    }
    OutStatus = {};
    OutStatus.st_uid = static_cast<uid_t>(numbers[0]);
    OutStatus.st_gid = static_cast<gid_t>(numbers[1]);
    OutStatus.st_mode = static_cast<mode_t>(numbers[2]);
    OutStatus.st_atim = {numbers[3], numbers[4]};
    OutStatus.st_mtim = {numbers[5], numbers[6]};
    OutAttributes.clear();
    while (at < Bytes.size()) {
        TavroAttribute attribute = {"", ""};
        if (!UnpackText(Bytes, at, attribute.Name) || at >= Bytes.size() ||
            !UnpackText(Bytes, at, *attribute.Value)) {
            return false;
        }
        OutAttributes.push_back(std::move(attribute));
    }
    return true;
}

// =================================================================================================
// Bytes
// =================================================================================================

namespace {

/// The most that one call copies: a cancel takes effect within this many bytes.
constexpr std::size_t blockSize = std::size_t{4} << 20U;

/// Files up to this size are read and written at once: for them that is the fastest way.
constexpr std::size_t smallSize = std::size_t{64} << 10U;

/// The bytes of one file on their way into another. Offsets are the same in both.
class ByteCopy {
public:
    ByteCopy(int From, int To, TavroProgressTeller& Progress)
        : m_from(From), m_to(To), m_progress(Progress) {}

    TavroFailure Run(const struct stat& Source);

private:
    TavroFailure CopySmall(std::size_t Size);
    TavroFailure CopyToEnd();
    TavroFailure CopyLarge(off_t Size, bool bSparse);
    TavroFailure CheckEnd(off_t Size) const;
    TavroFailure CheckSize(off_t Size) const;
    TavroFailure CheckAppended(off_t Size) const;
    bool ShareBlocks(off_t Size) const;
    TavroFailure CopyDataBetweenHoles(off_t Size);
    TavroFailure CopyRange(off_t Begin, off_t End);
    int CopyBlock(off_t Offset, std::size_t Size, std::size_t& OutCount);
    int ReadAndWrite(off_t Offset, std::size_t Size, std::size_t& OutCount);

    void Tell(off_t Bytes) {
        m_progress.AddBytes(static_cast<std::uint64_t>(Bytes));
    }

    int m_from;
    int m_to;
    TavroProgressTeller& m_progress;
    bool m_bInKernel = true;
    std::vector<char> m_buffer;
};

TavroFailure ByteCopy::Run(const struct stat& Source) {
    const bool bSparse = Source.st_blocks * 512 < Source.st_size; // blocks of 512 bytes
    if (Source.st_size == 0) {
        return CopyToEnd();
    }
    if (!bSparse && Source.st_size <= static_cast<off_t>(smallSize)) {
        return CopySmall(static_cast<std::size_t>(Source.st_size));
    }
    TavroFailure failure = CopyLarge(Source.st_size, bSparse);
    return failure ? failure : CheckSize(Source.st_size);
}

TavroFailure ByteCopy::CopySmall(std::size_t Size) {
    std::array<char, smallSize + 1> bytes; // not set: that would cost more than the copy
    std::size_t done = 0;
    while (done < Size) {
        std::size_t count = 0; // one byte more is asked for: there should be none
        const int error = TavroReadAt(m_from, bytes.data() + done, Size + 1 - done,
                                      static_cast<off_t>(done), count);
        if (error != 0 || count == 0) {
            return TavroFail(error != 0 ? Kind::Copy : Kind::BecameShorter, error, "");
        }
        done += count;
    }
    TavroFailure failure = done > Size ? CheckAppended(static_cast<off_t>(Size)) : TavroFailure();
    if (failure) {
        return failure;
    }
    const int error = TavroWriteAt(m_to, bytes.data(), Size, 0);
    if (error != 0) {
        return TavroFail(Kind::Copy, error, "");
    }
    Tell(static_cast<off_t>(Size));
    return {};
}

/// A file without a size: mostly an empty one, but the kernel's own files have contents.
TavroFailure ByteCopy::CopyToEnd() {
    std::size_t count = 0;
    off_t offset = 0;
    do {
        const int error = ReadAndWrite(offset, smallSize, count);
        if (error != 0) {
            return TavroFail(Kind::Copy, error, "");
        }
        offset += static_cast<off_t>(count);
        if (count != 0 && m_progress.ShouldCancel()) {
            return {Kind::Cancelled};
        }
    } while (count != 0);
    return {};
}

TavroFailure ByteCopy::CopyLarge(off_t Size, bool bSparse) {
    if (ShareBlocks(Size)) {
        Tell(Size);
        return {};
    }
    TavroFailure failure = bSparse ? CopyDataBetweenHoles(Size) : CopyRange(0, Size);
    return failure ? failure : CheckEnd(Size);
}

/// Sizes are not believed: some file systems tell one that is out of date or guessed. The last byte
/// must be there to be read, and none after it.
TavroFailure ByteCopy::CheckEnd(off_t Size) const {
    std::array<char, 2> bytes;
    std::size_t count = 0;
    const int error = TavroReadAt(m_from, bytes.data(), bytes.size(), Size - 1, count);
    if (error != 0 || count == 0) {
        return TavroFail(error != 0 ? Kind::Copy : Kind::BecameShorter, error, "");
    }
    return count > 1 ? CheckAppended(Size) : TavroFailure();
}

/// What can be read beyond the size was appended meanwhile, or the size is wrong.
TavroFailure ByteCopy::CheckAppended(off_t Size) const {
    struct stat now = {};
    const int error = TavroStat(m_from, now);
    if (error != 0) {
        return TavroFail(Kind::Read, error, "");
    }
    return now.st_size > Size ? TavroFailure() : TavroFailure{Kind::CopyNotWhole};
}

/// The copy of a file that became shorter meanwhile is not what the file was at any moment.
TavroFailure ByteCopy::CheckSize(off_t Size) const {
    struct stat now = {};
    int error = TavroStat(m_from, now);
    if (error != 0 || now.st_size < Size) {
        return TavroFail(error != 0 ? Kind::Read : Kind::BecameShorter, error, "");
    }
    error = TavroStat(m_to, now);
    if (error != 0) {
        return TavroFail(Kind::Write, error, "");
    }
    return now.st_size == Size ? TavroFailure() : TavroFailure{Kind::CopyNotWhole};
}

/// Both files share the same blocks until one is changed; few file systems can. What was appended
/// meanwhile is cut off again.
bool ByteCopy::ShareBlocks(off_t Size) const {
    struct stat status = {};
    return TavroCloneFile(m_from, m_to) == 0 && TavroStat(m_to, status) == 0 &&
           status.st_size >= Size && TavroTruncate(m_to, Size) == 0;
}

TavroFailure ByteCopy::CopyDataBetweenHoles(off_t Size) {
    for (off_t position = 0; position < Size;) {
        off_t data = 0;
        const int error = TavroSeek(m_from, position, SEEK_DATA, data);
        if (error != 0 && error != ENXIO) {
            return CopyRange(position, Size); // holes cannot be told here
        }
        data = error == ENXIO ? Size : std::min(data, Size);
        off_t hole = Size;
        if (data < Size && TavroSeek(m_from, data, SEEK_HOLE, hole) == 0) {
            hole = std::min(hole, Size);
        }
        Tell(data - position);
        TavroFailure failure = CopyRange(data, hole);
        if (failure) {
            return failure;
        }
        position = hole;
    }
    const int error = TavroTruncate(m_to, Size);
    return error != 0 ? TavroFail(Kind::Copy, error, "") : TavroFailure();
}

TavroFailure ByteCopy::CopyRange(off_t Begin, off_t End) {
    for (off_t offset = Begin; offset < End;) {
        if (m_progress.ShouldCancel()) {
            return {Kind::Cancelled};
        }
        std::size_t count = 0;
        const int error =
            CopyBlock(offset, std::min(blockSize, static_cast<std::size_t>(End - offset)), count);
        if (error != 0 || count == 0) {
            return TavroFail(error != 0 ? Kind::Copy : Kind::BecameShorter, error, "");
        }
        offset += static_cast<off_t>(count);
        Tell(static_cast<off_t>(count));
    }
    return {};
}

int ByteCopy::CopyBlock(off_t Offset, std::size_t Size, std::size_t& OutCount) {
    if (m_bInKernel) {
        const int error = TavroCopyRange(m_from, m_to, Offset, Size, OutCount);
        const bool bFinal = error == ENOSPC || error == EDQUOT || error == EFBIG || error == EIO;
        if (bFinal || (error == 0 && OutCount != 0)) {
            return error;
        }
        // Not between these two file systems, or none of its business: plain reading decides.
        m_bInKernel = false;
    }
    return ReadAndWrite(Offset, Size, OutCount);
}

int ByteCopy::ReadAndWrite(off_t Offset, std::size_t Size, std::size_t& OutCount) {
    m_buffer.resize(std::min(Size, std::size_t{1} << 20U));
    const int error = TavroReadAt(m_from, m_buffer.data(), m_buffer.size(), Offset, OutCount);
    return error != 0 ? error : TavroWriteAt(m_to, m_buffer.data(), OutCount, Offset);
}

} // namespace

// =================================================================================================
// Whole files
// =================================================================================================

int TavroOpenSource(int Directory, const char* Name, TavroDescriptor& OutFile,
                    struct stat& OutStatus) {
    // What is a FIFO by now is not waited for.
    int error = TavroOpenAt(Directory, Name, O_RDONLY | O_NONBLOCK, OutFile);
    error = error != 0 ? error : TavroStat(OutFile.Number(), OutStatus);
    return error == 0 && !S_ISREG(OutStatus.st_mode) ? EIO : error;
}

namespace {

/// Everything of a copy that happens while both files are open.
TavroFailure Fill(int From, const struct stat& Source, int To, mode_t CreatedWith, bool bSync,
                  TavroNewEntryTraits& Traits, TavroProgressTeller& Progress,
                  TavroAttributesLost& OutLost) {
    TavroFailure failure = ByteCopy(From, To, Progress).Run(Source);
    if (failure) {
        return failure;
    }
    int error =
        TavroGiveAttributes(To, Source, TavroReadAttributes(From), Traits, OutLost, CreatedWith);
    if (error != 0) {
        return TavroFail(Kind::SetAttributes, error, "");
    }
    if (bSync) {
        Progress.TellOfDisk();
        error = TavroSync(To);
    }
    return error != 0 ? TavroFail(Kind::Write, error, "") : TavroFailure();
}

/// Closes a file that was created under a name; removes it when it is not what it is to be.
TavroFailure Finish(TavroDescriptor File, int Directory, const char* Name, TavroFailure Failure,
                    TavroFileState& OutState) {
    struct stat status = {};
    const int lookError = TavroStat(File.Number(), status);
    const int closeError = File.Close();
    const int error = lookError != 0 ? lookError : closeError;
    if (!Failure && error != 0) {
        Failure = TavroFail(Kind::Write, error, "");
    }
    OutState = TavroStateOf(status);
    if (!Failure) {
        return Failure;
    }
    struct stat now = {};
    const bool bOther = lookError == 0 && TavroStatAt(Directory, Name, now) == 0 &&
                        TavroIdentityOf(now) != OutState.Identity;
    if (!bOther) {
        TavroUnlinkAt(Directory, Name);
    }
    return Failure;
}

} // namespace

TavroFailure TavroCopyFile(int From, const struct stat& Source, int ToDirectory, const char* To,
                           const TavroCopyOptions& Options, TavroNewEntryTraits& Traits,
                           TavroProgressTeller& Progress, TavroFileCopy& OutCopy,
                           TavroAttributesLost& OutLost) {
    TavroDescriptor file;
    // Nobody can open what has no name, so that it can have its mode from the beginning.
    mode_t mode = Traits.Allowed == 0 ? 0777 : Source.st_mode & 0777U;
    const bool bUnnamed = Options.bUnnamed && Traits.bUnnamed &&
                          TavroOpenAt(ToDirectory, ".", O_WRONLY | O_TMPFILE, file, mode) == 0;
    // Where it could not be done it is not tried again.
    Traits.bUnnamed = Options.bUnnamed ? bUnnamed : Traits.bUnnamed;
    if (!bUnnamed) {
        if (Options.bUnnamed && Options.MayName && !Options.MayName()) {
            return {Kind::Cancelled};
        }
        mode = 0600;
        const int error = TavroOpenAt(ToDirectory, To, O_WRONLY | O_CREAT | O_EXCL, file, mode);
        if (error != 0) {
            return TavroFail(Kind::Create, error, "");
        }
    }
    TavroFailure failure =
        Fill(From, Source, file.Number(), mode, Options.bSync, Traits, Progress, OutLost);
    if (!bUnnamed) {
        return Finish(std::move(file), ToDirectory, To, std::move(failure), OutCopy.State);
    }
    if (!failure) {
        OutCopy.Unnamed = std::move(file);
    }
    return failure;
}
