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

#endif
