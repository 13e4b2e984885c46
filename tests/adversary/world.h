// A tree of somebody else's, what is done to it, and a victim that has nothing to do with it.

#ifndef TAVRO_TESTS_WORLD_H
#define TAVRO_TESTS_WORLD_H

#include "sandbox.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace tavro_test {

/// Everything that a look at a tree tells without reading it: kinds, modes, owners, sizes, all
/// three times, numbers of names, extended attributes, and where links lead.
std::vector<std::string> lookAt(const std::filesystem::path& tree);

/// The places of one run. `work` and `dest` belong to the adversary (to an ordinary user when root
/// runs the test), the home directory and the victim to who runs the test.
///
///     work/tree/{file, link, sub/{inner, deep/leaf, closed/leaf}}
///     dest/
///     victim/{file, tree, sub}    a tree of the same names, full of a secret
class World {
public:
    /// @param far  where `home` and `dest` are; `work` and the victim are in memory.
    explicit World(const std::filesystem::path& far) : m_far(far) {
        prepareVictim();
    }

    /// A fresh run: new places, the tree as it is at the beginning.
    /// @param bDeep  with a chain of directories below work/tree/sub, deeper than an operation
    /// keeps
    ///               directories open; in each are two files besides.
    void begin(bool bDeep);

    std::filesystem::path work() const;
    std::filesystem::path dest() const;
    std::filesystem::path home() const;
    std::filesystem::path tree() const {
        return work() / "tree";
    }
    const std::filesystem::path& victim() const {
        return m_victim;
    }

    /// Gives a tree to the adversary, where the test may do that.
    void giveAway(const std::filesystem::path& tree) const;

    /// Renames `entry` aside and puts a link to `target` in its place.
    /// @return false when nothing is there.
    bool exchange(const std::filesystem::path& entry, const std::filesystem::path& target);

    /// Puts a pipe in the place of `entry`.
    bool exchangeForPipe(const std::filesystem::path& entry);

    /// Renames `entry` to where it has a bystander beside it: files of the names that are in the
    /// tree, which have nothing to do with it.
    bool carryOff(const std::filesystem::path& entry);

    /// Told of each call before it is made.
    /// @return whether it is about something of this run, other than its history.
    bool notice(const std::string& call, const std::string& path);

    /// A directory was opened by its path. Until then the path is what the user has named, and
    /// leads wherever it leads.
    bool isOpen(const std::filesystem::path& directory) const {
        return m_opened.count(directory.string()) > 0;
    }

    /// What is wrong with the victim, a bystander, or what was copied; empty when nothing is.
    std::string damage() const;

private:
    void prepareVictim();

    Sandbox m_near{inMemory()};
    Sandbox m_far;
    std::filesystem::path m_victim;
    std::vector<std::string> m_victimBefore;
    std::unique_ptr<ScopedEnvironment> m_home;
    ScopedEnvironment m_state{"XDG_STATE_HOME", std::nullopt};
    std::set<std::string> m_opened;
    std::string m_opening; ///< By the call that was told last.
    int m_run = 0;
    int m_aside = 0;
};

/// Runs `body` in a child process, with a place on another device than what is in memory: a file
/// system in memory, too, where the test may mount one, else the temporary directory.
void runWithTwoDevices(const std::function<void(const std::filesystem::path&)>& body);

} // namespace tavro_test

#endif
