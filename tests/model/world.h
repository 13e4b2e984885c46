// A sandbox on disk and its twin in memory, which the same commands are done to.

#ifndef TAVRO_TESTS_MODEL_WORLD_H
#define TAVRO_TESTS_MODEL_WORLD_H

#include "command.h"
#include "sandbox.h"

#include <array>
#include <map>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace tavro_model {

/// How often operations ended in which way. A test that saw no success, no failure or no injected
/// fault has shown little, and says so.
struct Tally {
    int Commands = 0;
    int InjectedFailures = 0;
    int Exceptions = 0;
    std::map<Verb, int> Successes;
    std::map<Verb, int> Refusals;

    Tally& operator+=(const Tally& other);
};

/// What the environment variable says, which a person set to make a test longer or shorter.
/// @return `usual` when it is unset.
/// @throws std::invalid_argument when it is no number above 0.
int numberFromEnvironment(const char* name, int usual);

/// Where files are kept in memory, if there is such a place: a hundred thousand commands take a
/// minute there, and many on a disk.
std::filesystem::path fastFolder();

/// What is at places (by their indices) at first.
using Contents = std::vector<std::pair<int, Type>>;

/// A file in each of the directories, and a directory in the first.
const Contents& usualContents();

/// One at a time: the environment and the current directory are those of the process.
class World {
public:
    /// Two directories, an empty home, and `contents`.
    explicit World(const Contents& contents = usualContents());
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    /// Does a command on disk and in the model.
    /// @return what is not the same afterwards (result, sentence, out-parameters, the whole tree);
    ///         empty when all is. Once the model is uncertain, nothing is done any more.
    std::string run(const Command& command);

    const Tally& tally() const {
        return m_tally;
    }
    const std::string& root() const {
        return m_root;
    }

private:
    void makeOnDisk(const std::string& path, Type type) const;
    void makeInModel(const std::string& path, Type type);

    bool wouldCopyIntoItself(const Command& command) const;
    std::string inRoot(const std::string& text) const;
    std::string pathOf(const Pick& pick) const;
    std::vector<TavroOperationEntry> selectionOf(const Command& command) const;
    std::string bytesOfNewFile() const;

    tavro_test::Sandbox m_sandbox;
    std::string m_root;
    mode_t m_oldMask;
    tavro_test::ScopedEnvironment m_home;
    tavro_test::ScopedTimeZone m_zone;
    tavro_test::ScopedCurrentDirectory m_currentDirectory;
    Model m_model;
    using Slots = std::array<std::vector<TavroTrashEntry>, slotCount>;
    Slots m_slotsOnDisk;
    Slots m_slotsInModel;
    Tally m_tally;
};

/// Does the commands one after the other to a fresh world.
/// @return at the first difference: the commands up to it and what differs; empty without one.
std::string difference(const std::vector<Command>& commands, Tally& tally,
                       const Contents& contents = usualContents());

} // namespace tavro_model

#endif
