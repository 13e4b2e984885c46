// Bringing single entries in directories of a test's own, and what can be seen of that.

#ifndef TAVRO_TESTS_MOVE_FIXTURE_H
#define TAVRO_TESTS_MOVE_FIXTURE_H

#include "move.h"

#include "transfer_fixture.h"

namespace tavro_move_test {

using namespace tavro_transfer_test;
using Kind = TavroFailureKind;

class MoveTest : public TransferTest {
protected:
    /// @return whether it was brought, and nothing was left out.
    bool bring(bool bCopy, const fs::path& from, const fs::path& to) {
        TavroPlaces places;
        TavroPlace fromPlace;
        TavroPlace toPlace;
        EXPECT_FALSE(places.Find(from.string(), fromPlace));
        EXPECT_FALSE(places.Find(to.string(), toPlace));
        TavroProgressTeller progress(m_callbacks);
        m_options.bCopy = bCopy;
        m_bWorking = true;
        m_moved = TavroBringEntry(fromPlace, toPlace, m_options, m_links, progress);
        m_bWorking = false;
        progress.Tell();
        if (m_bUndisturbed) {
            expectConsistentReport(toPlace);
        }
        return !m_moved.Failure && m_moved.Below.empty();
    }
    bool copyEntry(const std::string& name) {
        return bring(true, source(name), target(name));
    }
    bool moveEntry(const std::string& name) {
        return bring(false, source(name), target(name));
    }

    /// Returns once what is created in a directory from now on is younger than all there is now.
    static void waitUntilYounger(const fs::path& directory) {
        const fs::path probe = directory / "probe";
        writeFile(probe);
        const std::int64_t now = TavroNanoseconds(statusOf(probe).st_ctim);
        for (std::int64_t birth = 0; birth <= now;) {
            fs::remove(probe);
            writeFile(probe);
            struct stat status = {};
            ASSERT_EQ(0, TavroStatWithBirthAt(AT_FDCWD, probe.c_str(), status, birth));
            ASSERT_NE(0, birth) << "this file system does not tell when files were created";
        }
        fs::remove(probe);
    }

    /// A copy of the directory "tree", with one file, that was cut off when the file was whole.
    void prepareEarlier() {
        writeFile(source("tree/file"), "bytes");
        setTimes(source("tree/file"), 1000, 5);
        waitUntilYounger(source());
        m_options.Earlier.Name = TavroStagingName();
        const fs::path earlier = target(m_options.Earlier.Name);
        writeFile(earlier / "file", "taken");
        setTimes(earlier / "file", 1000, 5);
        m_options.Earlier.Made = TavroIdentityOf(statusOf(earlier));
        m_options.Earlier.Source = TavroIdentityOf(statusOf(source("tree")));
    }

    /// What the report says is there is there, and the other way round.
    void expectConsistentReport(const TavroPlace& to) const {
        EXPECT_EQ(m_moved.Arrived.Identity.Inode != 0, !m_moved.Failure || m_moved.bCopyStays);
        EXPECT_TRUE(m_moved.bCopyStays || !m_moved.bPartlyMoved);
        struct stat status = {};
        if (m_moved.Arrived.Identity.Inode != 0 &&
            fstatat(to.Number(), m_moved.Name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            EXPECT_EQ(m_moved.Arrived.Identity, TavroIdentityOf(status));
        }
    }

    /// All that is to be told, with paths below the sandboxes only.
    std::string failures() const {
        std::string text = m_moved.Failure ? TavroDescribe(m_moved.Failure) + "\n" : "";
        for (const TavroFailure& failure : m_moved.Below) {
            text += TavroDescribe(failure) + "\n";
        }
        return shortened(text);
    }

    TavroMoveOptions m_options;
    TavroHardLinks m_links;
    TavroMoveReport m_moved;
    bool m_bWorking = false;    ///< Calls are made by the engine, not by the test.
    bool m_bUndisturbed = true; ///< Nobody moves away what has arrived.
};

/// While it lives, it acts once: before the first call of a name on a path that contains a text.
class Before {
public:
    Before(const std::string& name, const std::string& text, const std::function<void()>& action)
        : m_observer([=](const std::string& call, const std::string& path) {
              if (!m_bDone && call == name && path.find(text) != std::string::npos) {
                  m_bDone = true;
                  action();
              }
          }) {}

    bool isDone() const {
        return m_bDone;
    }

private:
    bool m_bDone = false;
    CallObserver m_observer;
};

/// Changes a file, keeping its size and putting its times back: only its change time tells.
inline void changeUnseen(const fs::path& file) {
    const struct stat status = statusOf(file);
    std::string bytes = readFile(file);
    bytes.front() = bytes.front() == 'X' ? 'Y' : 'X';
    writeFile(file, bytes);
    const struct timespec times[2] = {status.st_atim, status.st_mtim};
    ASSERT_EQ(0, utimensat(AT_FDCWD, file.c_str(), times, AT_SYMLINK_NOFOLLOW));
}

} // namespace tavro_move_test

#endif
