// Transfers that are killed at every call they make: whatever the moment, every file is whole in
// one place at least, and no visible name ever shows half of one.

#include "stride.h"
#include "transfer_fixture.h"

#include <csignal>
#include <sys/wait.h>

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

void addBytesOfFiles(const fs::path& root, std::set<std::string>& bytes) {
    constexpr auto skip = fs::directory_options::skip_permission_denied;
    for (const auto& entry : fs::recursive_directory_iterator(root, skip)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
            bytes.insert(readFile(entry.path()));
        }
    }
}

class KilledTransfer : public TransferTest {
protected:
    void SetUp() override {
        TARGET_ELSEWHERE();
        for (unsigned i = 0; i < 6; ++i) {
            const std::string directory = i % 3 == 0 ? "sub/" : i % 3 == 1 ? "sub/deeper/" : "";
            const std::size_t size = i == 4 ? 300000 : 100 + i;
            m_files["tree/" + directory + std::to_string(i)] = bytesOf(size, 100 + i);
        }
    }

    void rebuild() {
        fs::remove_all(source());
        fs::remove_all(target());
        for (const auto& [name, bytes] : m_files) {
            writeFile(source(name), bytes);
        }
        makeDirectory(target());
    }

    /// Kills a transfer of the tree before its first call, its second … until one is not killed.
    void killEverywhere(bool bMove, const std::function<void()>& prepare,
                        const std::function<void()>& check) {
        bool bKilled = true;
        int kills = 0;
        for (int call = 1; bKilled; call += callStride()) {
            rebuild();
            prepare();
            bKilled = isKilledBefore(call, bMove);
            kills += bKilled ? 1 : 0;
            expectEachFileWhole();
            check();
            ASSERT_FALSE(HasFailure()) << "killed before call " << call;
        }
        EXPECT_LT(60, kills * callStride());
        EXPECT_EQ("", debris());
    }

    bool isKilledBefore(int call, bool bMove) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            int calls = 0;
            const CallObserver observer([&](const std::string&, const std::string&) {
                if (++calls == call) {
                    kill(getpid(), SIGKILL);
                }
            });
            _exit(run(bMove, {"tree"}) ? 0 : 1);
        }
        int status = 0;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << "the transfer failed";
        return WIFSIGNALED(status);
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

    std::map<std::string, std::string> m_files;
};

TEST_F(KilledTransfer, a_killed_copy_leaves_the_source_and_a_whole_tree_or_none) {
    const auto prepare = [] {};
    killEverywhere(false, prepare, [this] {
        for (const auto& [name, bytes] : m_files) {
            EXPECT_TRUE(bytes == readFile(source(name))) << name;
        }
        expectWholeOrAbsent(target("tree"));
    });
}

TEST_F(KilledTransfer, a_killed_move_between_file_systems_loses_nothing) {
    const auto prepare = [] {};
    killEverywhere(true, prepare, [this] { expectWholeOrAbsent(target("tree")); });
}

TEST_F(KilledTransfer, a_killed_overwriting_move_leaves_old_or_new_bytes_at_each_name) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    const auto prepare = [this] {
        for (const auto& file : m_files) {
            writeFile(target(file.first), "old " + file.first);
        }
    };
    killEverywhere(true, prepare, [this] {
        for (const auto& [name, bytes] : m_files) {
            const std::string now = readFile(target(name));
            EXPECT_TRUE(now == "old " + name || now == bytes) << name;
        }
    });
}

TEST_F(KilledTransfer, a_killed_replacing_of_a_file_by_a_tree_hides_nothing_but_the_old_file) {
    answer(TavroConflictChoice::Overwrite);
    const auto prepare = [this] { writeFile(target("tree"), "old"); };
    killEverywhere(true, prepare, [this] {
        if (fs::is_directory(target("tree"))) {
            expectWholeOrAbsent(target("tree"));
        } else {
            EXPECT_EQ("old", readFile(target("tree")));
        }
        for (const auto& [name, bytes] : m_files) {
            const std::string beside = "tree copy 1" + name.substr(4);
            int found = 0;
            for (const fs::path& path : {source(name), target(name), target(beside)}) {
                found += isPresent(path) && readFile(path) == bytes ? 1 : 0;
            }
            EXPECT_LT(0, found) << name;
        }
    });
}

} // namespace
