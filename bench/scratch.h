// A directory for one benchmark, which is the home directory while it exists.

#ifndef TAVRO_BENCH_SCRATCH_H
#define TAVRO_BENCH_SCRATCH_H

#include "tavroops.h"

#include <filesystem>
#include <string>
#include <vector>

namespace tavro_bench {

class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::filesystem::path& path() const {
        return m_path;
    }

private:
    std::filesystem::path m_path;
    std::string m_oldHome;
};

/// Entries `file-0`, `file-1` and so on of a directory, as a pane selects them. The files need not
/// exist.
std::vector<TavroOperationEntry> selectFiles(const std::filesystem::path& folder,
                                             std::size_t count);

} // namespace tavro_bench

#endif
