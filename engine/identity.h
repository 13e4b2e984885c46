/// What tells one file from another, and whether it has changed since it was looked at.

#ifndef TAVRO_ENGINE_IDENTITY_H
#define TAVRO_ENGINE_IDENTITY_H

#include <cstdint>
#include <functional>
#include <sys/stat.h>

/// Which file it is. An inode of 0 is no file.
struct TavroIdentity {
    std::uint64_t Device = 0;
    std::uint64_t Inode = 0;

    bool operator==(const TavroIdentity& Other) const {
        return Device == Other.Device && Inode == Other.Inode;
    }
    bool operator!=(const TavroIdentity& Other) const {
        return !(*this == Other);
    }
};

template <> struct std::hash<TavroIdentity> {
    std::size_t operator()(const TavroIdentity& Identity) const noexcept {
        return std::hash<std::uint64_t>()(Identity.Inode * 31 + Identity.Device);
    }
};

inline TavroIdentity TavroIdentityOf(const struct stat& Status) {
    return {Status.st_dev, Status.st_ino};
}

constexpr std::int64_t TavroSecond = 1'000'000'000; ///< In nanoseconds.

inline std::int64_t TavroNanoseconds(const struct timespec& Time) {
    return static_cast<std::int64_t>(Time.tv_sec) * TavroSecond + Time.tv_nsec;
}

/// A file as it was at one moment. Whoever puts its size and times back still changes `ChangeTime`.
struct TavroFileState {
    TavroIdentity Identity;
    mode_t Mode = 0;
    std::int64_t Size = 0;
    std::int64_t ModificationTime = 0; ///< In nanoseconds since 1970, as is the next.
    std::int64_t ChangeTime = 0;

    bool IsDirectory() const {
        return S_ISDIR(Mode);
    }
};

inline TavroFileState TavroStateOf(const struct stat& Status) {
    return {TavroIdentityOf(Status), Status.st_mode, Status.st_size,
            TavroNanoseconds(Status.st_mtim), TavroNanoseconds(Status.st_ctim)};
}

/// The same file with the same contents and attributes. Of a directory each entry is looked at by
/// itself, so its own times do not count.
inline bool TavroIsUnchanged(const TavroFileState& Then, const TavroFileState& Now) {
    const bool bSame = Then.Identity == Now.Identity && (Then.Mode & S_IFMT) == (Now.Mode & S_IFMT);
    return bSame && (Then.IsDirectory() ||
                     (Then.Size == Now.Size && Then.ModificationTime == Now.ModificationTime &&
                      Then.ChangeTime == Now.ChangeTime));
}

#endif
