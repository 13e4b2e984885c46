// Walking over a tree by descriptors: what is told and in which order, and that nobody leads the
// walk elsewhere.

#include "walk.h"

#include "adversary.h"
#include "deep_tree.h"
#include "fault_injector.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

std::string nameOf(TavroWalkEvent event) {
    switch (event) {
    case TavroWalkEvent::Leaf:
        return "leaf";
    case TavroWalkEvent::Enter:
        return "enter";
    case TavroWalkEvent::Leave:
        return "leave";
    case TavroWalkEvent::CannotLook:
        return "cannot look at";
    case TavroWalkEvent::CannotOpen:
        return "cannot open";
    case TavroWalkEvent::CannotList:
        return "cannot list";
    case TavroWalkEvent::LostWay:
        return "lost at";
    case TavroWalkEvent::End:
        return "end";
    }
    return "?";
}

using Told = std::vector<std::string>;

class Walk : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, TavroOpenDirectory(m_box.path(), m_directory));
    }

    /// The events of a walk; the entries of a directory in the order of their names.
    Told walk(const std::string& name,
              const std::function<void(TavroTreeWalk&, TavroWalkEvent)>& act = {}) {
        Told told;
        TavroTreeWalk walk(m_directory.Number(), name);
        for (TavroWalkEvent event = walk.Next(); event != TavroWalkEvent::End;
             event = walk.Next()) {
            std::string line = nameOf(event) + " " + walk.Below();
            if (event == TavroWalkEvent::Leaf) {
                line += " " + std::to_string(walk.Type());
            }
            if (event >= TavroWalkEvent::CannotLook) {
                line += " " + std::to_string(walk.Error());
            }
            told.push_back(line);
            EXPECT_EQ(walk.Below().empty(), walk.IsFirst());
            if (act) {
                act(walk, event);
            }
        }
        EXPECT_EQ(TavroWalkEvent::End, walk.Next()) << "it stays at its end";
        return told;
    }

    /// The same without the order, which is the file system's.
    Told sorted(Told told) {
        std::sort(told.begin(), told.end());
        return told;
    }

    Sandbox m_box{inMemory()};
    TavroDescriptor m_directory;
};

std::string number(int value) {
    return std::to_string(value);
}

} // namespace

TEST_F(Walk, tells_each_entry_once_and_a_directory_before_and_after_what_is_in_it) {
    writeFile(m_box / "top/only/one/file");
    EXPECT_EQ(
        (Told{"enter ", "enter only", "enter only/one", "leaf only/one/file " + number(DT_REG),
              "leave only/one", "leave only", "leave "}),
        walk("top"));
    makeDirectory(m_box / "top/empty");
    fs::create_symlink("only", m_box / "top/link");
    makeFifo(m_box / "top/pipe");
    EXPECT_EQ(
        sorted({"enter ", "enter only", "enter only/one", "leaf only/one/file " + number(DT_REG),
                "leave only/one", "leave only", "leaf link " + number(DT_LNK),
                "leaf pipe " + number(DT_FIFO), "enter empty", "leave empty", "leave "}),
        sorted(walk("top")));
}

TEST_F(Walk, tells_the_same_where_listings_have_no_types) {
    writeFile(m_box / "top/sub/file");
    fs::create_symlink("sub", m_box / "top/link");
    const Told told = walk("top");
    const FaultInjector injector({{"getdents64", 0, "", 1, true}});
    EXPECT_EQ(told, walk("top"));
    EXPECT_GT(injector.fired(), 2);
}

TEST_F(Walk, over_one_entry_tells_that_entry) {
    writeFile(m_box / "file");
    fs::create_directory_symlink(".", m_box / "link");
    EXPECT_EQ(Told{"leaf  " + number(DT_REG)},
              walk("file", [](TavroTreeWalk& walk, TavroWalkEvent) {
                  EXPECT_TRUE(S_ISREG(walk.Status().st_mode));
                  EXPECT_EQ("file", walk.Name());
              }));
    EXPECT_EQ(Told{"leaf  " + number(DT_LNK)}, walk("link"));
    EXPECT_EQ(Told{"cannot look at  " + number(ENOENT)}, walk("missing"));
}

TEST_F(Walk, gives_the_open_directories) {
    writeFile(m_box / "top/sub/file");
    const auto pathOf = [](int directory) {
        std::string path;
        EXPECT_EQ(0, TavroPathOf(directory, path));
        return path;
    };
    walk("top", [&](TavroTreeWalk& walk, TavroWalkEvent event) {
        const std::string own = walk.IsFirst() ? "top" : "top/" + walk.Below();
        EXPECT_EQ((m_box / own).parent_path(), pathOf(walk.Directory()));
        if (event == TavroWalkEvent::Enter) {
            EXPECT_EQ(m_box / own, pathOf(walk.Entered()));
            struct stat status = {};
            ASSERT_EQ(0, TavroStat(walk.Entered(), status));
            EXPECT_EQ(TavroIdentityOf(status), TavroIdentityOf(walk.Status()));
        }
    });
}

TEST_F(Walk, passes_over_what_it_is_told_to) {
    writeFile(m_box / "top/sub/file");
    EXPECT_EQ((Told{"enter ", "enter sub", "leave sub", "leave "}),
              walk("top", [](TavroTreeWalk& walk, TavroWalkEvent event) {
                  if (event == TavroWalkEvent::Enter && walk.Name() == "sub") {
                      walk.Skip();
                  }
              }));
}

TEST_F(Walk, tells_again_what_an_entry_has_become) {
    writeFile(m_box / "top/entry");
    bool bRetried = false;
    EXPECT_EQ((Told{"enter ", "leaf entry " + number(DT_REG), "enter entry",
                    "leaf entry/file " + number(DT_REG), "leave entry", "leave "}),
              walk("top", [&](TavroTreeWalk& walk, TavroWalkEvent event) {
                  if (event == TavroWalkEvent::Leaf && !bRetried) {
                      fs::remove(m_box / "top/entry");
                      writeFile(m_box / "top/entry/file");
                      walk.Retry();
                      bRetried = true;
                  }
              }));
}

TEST_F(Walk, tells_what_cannot_be_opened_or_listed_and_goes_on) {
    writeFile(m_box / "top/closed/file");
    writeFile(m_box / "top/open");
    fs::permissions(m_box / "top/closed", fs::perms(0));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_EQ(sorted({"enter ", "cannot open closed " + number(EACCES),
                          "leaf open " + number(DT_REG), "leave "}),
                  sorted(walk("top")));
    });
    fs::permissions(m_box / "top/closed", fs::perms(0755));
    const FaultInjector injector({{"getdents64", EIO, "closed"}});
    EXPECT_EQ(sorted({"enter ", "enter closed", "cannot list closed " + number(EIO), "leave closed",
                      "leaf open " + number(DT_REG), "leave "}),
              sorted(walk("top")));
}

TEST_F(Walk, an_entry_that_changes_its_kind_before_it_is_opened_is_told_as_what_it_is) {
    makeDirectory(m_box / "victim");
    writeFile(m_box / "victim/secret");
    for (const bool bLink : {true, false}) {
        makeDirectory(m_box / "top/entry");
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "openat" && path == m_box / "top/entry") {
                fs::remove(m_box / "top/entry");
                bLink ? fs::create_directory_symlink("../victim", m_box / "top/entry")
                      : writeFile(m_box / "top/entry");
            }
        });
        EXPECT_EQ((Told{"enter ", "leaf entry " + number(bLink ? DT_LNK : DT_REG), "leave "}),
                  walk("top"));
        fs::remove_all(m_box / "top");
    }
}

TEST_F(Walk, an_entry_that_vanishes_is_told_and_the_walk_goes_on) {
    writeFile(m_box / "top/entry/file");
    writeFile(m_box / "top/other");
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "openat" && path == m_box / "top/entry") {
            fs::remove_all(m_box / "top/entry");
        }
    });
    EXPECT_EQ(sorted({"enter ", "cannot open entry " + number(ENOENT),
                      "leaf other " + number(DT_REG), "leave "}),
              sorted(walk("top")));
}

TEST_F(Walk, is_over_when_the_way_up_is_another_one) {
    // Deeper than the directories that are kept open.
    const std::string deep = makeDeepTree(m_box / "top", 20);
    makeDirectory(m_box / "elsewhere");
    const std::size_t level = m_box.path().string().size() + 4 + 2 * 5;
    const std::string moved = deep.substr(0, level);
    const Told told = walk("top", [&](TavroTreeWalk&, TavroWalkEvent event) {
        if (event == TavroWalkEvent::Leaf) {
            fs::rename(moved, m_box / "elsewhere/d");
        }
    });
    EXPECT_EQ("lost at d/d/d/d/d " + number(ESTALE), told.back());
}

TEST_F(Walk, never_comes_to_what_is_not_in_its_tree) {
    Adversary adversary;
    bool bLeafTold = false;
    adversary.Prepare = [&] {
        fs::remove_all(m_box / "top");
        fs::remove_all(m_box / "aside");
        writeFile(m_box / "top/a/b/file");
        writeFile(m_box / "victim/b/file");
        writeFile(m_box / "victim/b/secret");
    };
    for (const char* exchanged : {"top", "top/a", "top/a/b"}) {
        adversary.Operate = [&] {
            for (const std::string& line : walk("top")) {
                EXPECT_EQ(std::string::npos, line.find("secret")) << line;
                bLeafTold = bLeafTold || line.rfind("leaf a/b/file", 0) == 0;
            }
        };
        adversary.Strike = [&] {
            fs::rename(m_box / exchanged, m_box / "aside");
            fs::create_directory_symlink(m_box / "victim", m_box / exchanged);
            return true;
        };
        adversary.Judge = [] {};
        EXPECT_GE(strikeAtEachCall(adversary).Strikes, 10);
        EXPECT_TRUE(bLeafTold);
    }
}

TEST_F(Walk, has_few_files_open_and_a_small_stack_however_deep_the_tree) {
    makeDeepTree(m_box / "top", 3000);
    runConfined([&] {
        std::size_t entered = 0;
        std::size_t left = 0;
        std::size_t leaves = 0;
        TavroTreeWalk walk(m_directory.Number(), "top");
        for (TavroWalkEvent event = walk.Next(); event != TavroWalkEvent::End;
             event = walk.Next()) {
            entered += event == TavroWalkEvent::Enter ? 1 : 0;
            left += event == TavroWalkEvent::Leave ? 1 : 0;
            if (event == TavroWalkEvent::Leaf) {
                ++leaves;
                EXPECT_EQ(2 * 3000 + 4U, walk.Below().size());
            }
        }
        EXPECT_EQ(3001U, entered);
        EXPECT_EQ(3001U, left);
        EXPECT_EQ(1U, leaves);
    });
}

// =================================================================================================
// The stack of directories
// =================================================================================================

TEST_F(Walk, a_stack_hands_over_the_directory_that_it_leaves) {
    makeDeepTree(m_box / "top", 12);
    TavroDirectoryStack stack(m_directory.Number());
    EXPECT_EQ(m_directory.Number(), stack.Top());
    std::vector<TavroIdentity> identities;
    for (const char* name = "top"; identities.size() < 13; name = "d") {
        TavroDescriptor next;
        struct stat status = {};
        ASSERT_EQ(0, TavroOpenDirectoryAt(stack.Top(), name, next));
        ASSERT_EQ(0, TavroStat(next.Number(), status));
        identities.push_back(TavroIdentityOf(status));
        stack.Push(std::move(next), identities.back());
    }
    for (; !identities.empty(); identities.pop_back()) {
        TavroDescriptor left;
        struct stat status = {};
        ASSERT_EQ(0, stack.Pop(&left));
        ASSERT_EQ(0, TavroStat(left.Number(), status));
        EXPECT_EQ(identities.back(), TavroIdentityOf(status));
    }
    EXPECT_EQ(m_directory.Number(), stack.Top());
}

TEST_F(Walk, a_stack_that_has_lost_its_way_stands_nowhere) {
    // Of twelve directories the upper ones are closed.
    for (const int error : {0, EMFILE, EACCES}) {
        const std::string top = "top" + std::to_string(error);
        const std::string deep = makeDeepTree(m_box / top, 11);
        TavroDirectoryStack stack(m_directory.Number());
        for (int depth = 0; depth < 12; ++depth) {
            TavroDescriptor next;
            struct stat status = {};
            ASSERT_EQ(0, TavroOpenDirectoryAt(stack.Top(), depth == 0 ? top.c_str() : "d", next));
            ASSERT_EQ(0, TavroStat(next.Number(), status));
            stack.Push(std::move(next), TavroIdentityOf(status));
        }
        std::vector<Fault> faults;
        if (error == 0) {
            fs::rename(m_box / top / "d/d/d/d", m_box / "elsewhere");
        } else {
            faults = {{"openat", error, "..", 1, false, true}};
        }
        const FaultInjector injector(faults);
        for (int kept = 0; kept < 7; ++kept) {
            EXPECT_EQ(0, stack.Pop()) << kept;
            EXPECT_GE(stack.Top(), 0);
        }
        EXPECT_EQ(error == 0 ? ESTALE : error, stack.Pop());
        EXPECT_EQ(-1, stack.Top());
    }
}
