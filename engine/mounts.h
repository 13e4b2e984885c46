/// The mounts that this process sees, as the kernel lists them.

#ifndef TAVRO_ENGINE_MOUNTS_H
#define TAVRO_ENGINE_MOUNTS_H

#include <cstdint>
#include <string>
#include <vector>

/// One mount: the whole of a file system, or a directory of it, at a path.
struct TavroMount {
    std::uint64_t Number = 0; ///< As TavroStatWithMount tells it.
    std::string Point;        ///< Its path. Something else may be mounted over it.
    std::string Type;         ///< "ext4" and the like.

    /// Whether it can hold files that somebody keeps: what the kernel makes up holds none, and a
    /// look at an automatic mount would mount something.
    bool HoldsFiles() const;
};

/// In the order in which they were mounted; none when the kernel does not tell.
std::vector<TavroMount> TavroReadMounts();

/// Where file systems are mounted that do not answer within a second.
std::vector<std::string> TavroFindSilentMounts();

/// The first of these mount points that a path is at or below, as its text tells; empty: none.
std::string TavroFindAbove(const std::vector<std::string>& Points, const std::string& Path);

#endif
