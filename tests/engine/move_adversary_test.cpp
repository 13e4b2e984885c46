// Somebody exchanges directories for links, files for links, and renames entries, in the source and
// in the target, before each single call of a copy or a move. Nothing outside the trees is read
// into the copy, written, removed, or given another mode, owner, time or attribute.

#include "move_fixture.h"

#include "adversary.h"
#include "stride.h"

using namespace tavro_move_test;

namespace {

/// A copy or a move, by root over what belongs to others or by an ordinary user over his own.
struct Deed {
    bool bMove;
    bool bRoot;
};

class Astray : public MoveTest, public testing::WithParamInterface<Deed> {
protected:
    void SetUp() override {
        m_bUndisturbed = false;
        if (isMove()) {
            TARGET_ELSEWHERE();
        }
        if (GetParam().bRoot && !isRoot()) {
            GTEST_SKIP() << "this is about what root does";
        }
    }

    fs::path outside() const {
        return m_box / "outside";
    }

    /// Beside the target.
    fs::path aside() const {
        return m_target.parent_path() / "aside";
    }
    fs::path takenFromTarget() const {
        return m_target.parent_path() / "taken from the target";
    }
    fs::path takenFromSource() const {
        return m_box / "taken from the source";
    }

    bool isMove() const {
        return GetParam().bMove;
    }

    void prepare() {
        for (const fs::path& old :
             {source(), target(), aside(), outside(), takenFromSource(), takenFromTarget()}) {
            fs::remove_all(old);
        }
        m_links = {};
        m_options.Expected.reset();
        makeDirectory(target());
        for (const char* name : {"a", "sub/b", "sub/deep/c"}) {
            writeFile(source("tree") / name, std::string("of ") + name);
            writeFile(outside() / name, "secret");
            writeFile(aside() / name, "foreign");
        }
        writeFile(source("file"), "of file");
        fs::create_symlink("nowhere", source("tree/sub/link"));
        for (const fs::path& path :
             {source("tree/a"), source("tree/sub"), source("tree/sub/link")}) {
            ASSERT_TRUE(!isRoot() || lchown(path.c_str(), 4321, 4321) == 0);
        }
        for (const auto& entry : fs::recursive_directory_iterator(outside())) {
            setTimes(entry.path(), 1000000000, 0);
        }
        m_outside = attributesOfTree(outside());
        m_foreign = attributesOfTree(aside());
        m_foreignNumber = statusOf(aside()).st_ino;
    }

    /// The hidden copy, or the published one.
    fs::path staged() const {
        for (const auto& entry : fs::directory_iterator(target())) {
            return entry.path();
        }
        return target("tree");
    }

    static fs::path at(const fs::path& top, const std::string& below) {
        return below.empty() ? top : top / below;
    }

    static bool exchange(const fs::path& victim, const fs::path& away, const fs::path& link) {
        if (!isPresent(victim)) {
            return false;
        }
        fs::rename(victim, away);
        fs::create_symlink(link, victim);
        return true;
    }

    void judge() {
        EXPECT_EQ(m_outside, attributesOfTree(outside()));
        std::multiset<std::string> found;
        for (const fs::path& root : {m_box.path(), m_target.parent_path()}) {
            for (const auto& entry : fs::recursive_directory_iterator(root)) {
                const struct stat status = statusOf(entry.path());
                if (status.st_ino == m_foreignNumber && S_ISDIR(status.st_mode)) {
                    EXPECT_EQ(m_foreign, attributesOfTree(entry.path()));
                    found.insert("the foreign directory");
                }
                if (S_ISREG(status.st_mode)) {
                    found.insert(readFile(entry.path()));
                }
            }
        }
        for (const char* bytes : {"of a", "of sub/b", "of sub/deep/c", "of file"}) {
            EXPECT_LT(0U, found.count(bytes)) << bytes << " is lost";
        }
        EXPECT_LT(0U, found.count("the foreign directory"));
        for (const auto& [name, what] : takeSnapshot(target())) {
            EXPECT_EQ(std::string::npos, what.find("secret")) << name << ": " << what;
        }
        ASSERT_FALSE(HasFailure()) << failures();
    }

    void strikeEverywhere(const std::string& name, const std::function<bool()>& strike) {
        Adversary adversary;
        adversary.Stride = callStride();
        adversary.Prepare = [this] { prepare(); };
        adversary.Operate = [&] { bring(!isMove(), source(name), target(name)); };
        adversary.Strike = strike;
        adversary.Judge = [this] { judge(); };
        adversary.Counts = [this](const std::string&, const std::string&) { return m_bWorking; };
        const auto run = [&] {
            const AdversaryTally tally = strikeAtEachCall(adversary);
            EXPECT_LT(name == "tree" ? 60 : 9, (tally.Runs + 1) * adversary.Stride);
            EXPECT_LE(adversary.Stride == 1 ? 1 : 0, tally.Strikes);
            EXPECT_TRUE(isPresent(target(name)));
            EXPECT_EQ(isMove(), !isPresent(source(name)));
        };
        if (GetParam().bRoot) {
            run();
            return;
        }
        const fs::path other = m_other ? m_other->path() : m_box.path();
        if (isRoot()) {
            ASSERT_EQ(0, lchown(other.c_str(), 65534, 65534));
            ASSERT_EQ(0, lchown(target().c_str(), 65534, 65534));
        }
        runUnprivileged(m_box.path(), run);
    }

    std::map<std::string, std::string> m_outside;
    std::map<std::string, std::string> m_foreign;
    ino_t m_foreignNumber = 0;
};

TEST_P(Astray, by_directories_of_the_source_that_become_links) {
    for (const char* below : {"", "sub", "sub/deep"}) {
        strikeEverywhere("tree", [&, below] {
            return exchange(at(source("tree"), below), takenFromSource(), at(outside(), below));
        });
    }
}

TEST_P(Astray, by_files_of_the_source_that_become_links) {
    strikeEverywhere("tree", [&] {
        return exchange(source("tree/sub/b"), takenFromSource(), outside() / "sub/b");
    });
    strikeEverywhere("file",
                     [&] { return exchange(source("file"), takenFromSource(), outside() / "a"); });
}

TEST_P(Astray, by_directories_of_the_copy_that_become_links) {
    for (const char* below : {"", "sub", "sub/deep"}) {
        strikeEverywhere("tree", [&, below] {
            return exchange(at(staged(), below), takenFromTarget(), at(outside(), below));
        });
    }
}

TEST_P(Astray, by_directories_of_the_copy_that_become_other_directories) {
    for (const char* below : {"", "sub"}) {
        strikeEverywhere("tree", [&, below] {
            const fs::path victim = at(staged(), below);
            if (!isPresent(victim)) {
                return false;
            }
            fs::rename(victim, takenFromTarget());
            fs::rename(aside(), victim);
            return true;
        });
    }
}

TEST_P(Astray, by_files_and_links_of_the_copy_that_become_links) {
    for (const char* below : {"a", "sub/b", "sub/link"}) {
        strikeEverywhere("tree", [&, below] {
            return exchange(at(staged(), below), takenFromTarget(), outside() / "a");
        });
    }
    strikeEverywhere("file",
                     [&] { return exchange(target("file"), takenFromTarget(), outside() / "a"); });
}

TEST_P(Astray, by_entries_of_the_source_that_change_their_places) {
    strikeEverywhere("tree", [&] {
        const bool bThere = isPresent(source("tree/sub/deep")) && isPresent(source("tree/a"));
        if (bThere) {
            fs::rename(source("tree/sub/deep"), source("tree/moved up"));
            fs::rename(source("tree/a"), source("tree/sub/moved down"));
        }
        return bThere;
    });
}

TEST_P(Astray, by_directories_of_the_source_that_move_out_of_it) {
    strikeEverywhere("tree", [&] {
        const bool bThere = isPresent(source("tree/sub/deep"));
        if (bThere) {
            fs::rename(source("tree/sub/deep"), takenFromSource());
        }
        return bThere;
    });
}

INSTANTIATE_TEST_SUITE_P(Calls, Astray,
                         testing::Values(Deed{false, true}, Deed{true, true}, Deed{true, false}),
                         [](const auto& which) {
                             return std::string(which.param.bMove ? "of_a_move" : "of_a_copy") +
                                    (which.param.bRoot ? "_by_root" : "_by_a_user");
                         });

} // namespace
