// Transfers that are killed at random moments: whatever the moment, every file is whole in one
// place at least, and no visible name ever shows half of one.

#include "transfer.h"
#include "trash.h"

#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <random>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::microseconds;

constexpr int killsOfEach = 20;
constexpr unsigned seed = 20240229;

/// Bytes that no other file has, so that each file is recognised wherever it lies.
std::string bytesOf(unsigned file, std::size_t size) {
    std::mt19937 random(file);
    std::string bytes = "file " + std::to_string(file) + "\n";
    while (bytes.size() < size) {
        bytes += std::to_string(random());
    }
    return bytes;
}

void addBytesOfFiles(const fs::path& root, std::set<std::string>& bytes) {
    constexpr auto skip = fs::directory_options::skip_permission_denied;
    for (const auto& entry : fs::recursive_directory_iterator(root, skip)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
            bytes.insert(readFile(entry.path()));
        }
    }
}

class KilledTransfer : public testing::Test {
protected:
    void SetUp() override {
        if (!fs::is_directory(secondFileSystem) ||
            !onDifferentDevices(secondFileSystem, m_box.path())) {
            GTEST_SKIP() << "there is no second file system at " << secondFileSystem;
        }
        m_other.emplace(secondFileSystem);
        for (unsigned i = 0; i < 24; ++i) {
            const std::string folder = i % 3 == 0 ? "sub/" : i % 3 == 1 ? "sub/deeper/" : "";
            const std::size_t size = i == 7 ? 3000000 : i % 5 == 0 ? 100000 : 100 + i;
            m_files["tree/" + folder + std::to_string(i)] = bytesOf(i, size);
        }
    }

    fs::path target() const {
        return *m_other / "target";
    }

    void rebuild() {
        fs::remove_all(m_box / "source");
        fs::remove_all(target());
        fs::remove_all(*m_other / "home");
        for (const auto& [name, bytes] : m_files) {
            writeFile(m_box / "source" / name, bytes);
        }
        makeDirectory(target());
        makeDirectory(*m_other / "home");
    }

    bool transfer(bool bMove, TavroTransferConflictPolicy policy) const {
        TavroTransferPlan plan;
        plan.bMove = bMove;
        plan.ConflictPolicy = policy;
        TavroTransferItemPlan item;
        item.SourcePath = m_box / "source/tree";
        item.DestinationPath = target() / "tree";
        plan.Items = {item};
        TavroTransferReport report;
        return TavroCarryOutTransfer(plan, {}, report);
    }

    static pid_t startInChild(const std::function<bool()>& body) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            _exit(body() ? 0 : 1);
        }
        return child;
    }

    /// @return whether the child was killed before it was done.
    static bool isEndedByKill(pid_t child) {
        int status = 0;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << "the transfer failed";
        return WIFSIGNALED(status);
    }

    /// How long `body` takes when it is left alone.
    static Microseconds timeOf(const std::function<bool()>& body) {
        const Clock::time_point begin = Clock::now();
        EXPECT_FALSE(isEndedByKill(startInChild(body)));
        return std::chrono::duration_cast<Microseconds>(Clock::now() - begin);
    }

    /// Kills `body` at many moments, and calls `check` after each.
    void killOften(const std::function<void()>& prepare, const std::function<bool()>& body,
                   const std::function<void()>& check) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        prepare();
        std::mt19937 random(seed);
        std::uniform_int_distribution<long> moment(0, static_cast<long>(timeOf(body).count()));
        int kills = 0;
        for (int tries = 0; kills < killsOfEach && tries < killsOfEach * 20; ++tries) {
            prepare();
            const pid_t child = startInChild(body);
            std::this_thread::sleep_for(Microseconds(moment(random)));
            kill(child, SIGKILL);
            kills += isEndedByKill(child) ? 1 : 0;
            expectEachFileWhole();
            check();
            ASSERT_FALSE(HasFailure()) << "after kill " << kills << ", try " << tries;
        }
        EXPECT_EQ(killsOfEach, kills);
    }

    /// Every original file lies somewhere with all its bytes.
    void expectEachFileWhole() const {
        std::set<std::string> found;
        addBytesOfFiles(m_box.path(), found);
        addBytesOfFiles(m_other->path(), found);
        for (const auto& [name, bytes] : m_files) {
            EXPECT_EQ(1U, found.count(bytes)) << name << " is lost";
        }
    }

    /// A tree that has its own name already is whole.
    void expectWholeOrAbsent(const fs::path& path) const {
        const Snapshot tree = takeSnapshot(path);
        for (const auto& [name, bytes] : m_files) {
            const auto row = tree.find(name.substr(5)); // without "tree/"
            EXPECT_TRUE(tree.empty() || (row != tree.end() && row->second == "file 644 " + bytes))
                << name;
        }
    }

    Sandbox m_box;
    std::optional<Sandbox> m_other;
    std::map<std::string, std::string> m_files;
};

TEST_F(KilledTransfer, a_killed_copy_leaves_the_source_and_a_whole_tree_or_none) {
    const auto prepare = [this] { rebuild(); };
    const auto body = [this] { return transfer(false, TavroTransferConflictPolicy::Ask); };
    killOften(prepare, body, [this] {
        for (const auto& [name, bytes] : m_files) {
            EXPECT_TRUE(bytes == readFile(m_box / "source" / name)) << name;
        }
        expectWholeOrAbsent(target() / "tree");
    });
}

TEST_F(KilledTransfer, a_killed_move_between_file_systems_loses_nothing) {
    const auto prepare = [this] { rebuild(); };
    const auto body = [this] { return transfer(true, TavroTransferConflictPolicy::Ask); };
    killOften(prepare, body, [this] { expectWholeOrAbsent(target() / "tree"); });
}

TEST_F(KilledTransfer, a_killed_overwriting_move_leaves_old_or_new_bytes_at_each_name) {
    const auto prepare = [this] {
        rebuild();
        for (const auto& file : m_files) {
            writeFile(target() / file.first, "old " + file.first);
        }
    };
    const auto body = [this] { return transfer(true, TavroTransferConflictPolicy::Overwrite); };
    killOften(prepare, body, [this] {
        for (const auto& [name, bytes] : m_files) {
            const std::string now = readFile(target() / name);
            EXPECT_TRUE(now == "old " + name || now == bytes) << name;
        }
    });
}

TEST_F(KilledTransfer, killed_trashing_across_file_systems_loses_nothing) {
    const fs::path home = *m_other / "home";
    const ScopedEnvironment environment("HOME", home.string());
    const auto prepare = [this] { rebuild(); };
    const auto body = [this] {
        std::vector<TavroTrashEntry> entries;
        std::string error;
        const fs::path tree = m_box / "source/tree";
        return TavroTrashSelection({{"tree", tree.string(), true}}, {}, entries, error);
    };
    killOften(prepare, body, [&] { expectWholeOrAbsent(home / ".local/share/Trash/files/tree"); });
}

} // namespace
