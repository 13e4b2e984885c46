// A home directory of a test's own with its trash, beside a directory of things to be trashed.

#ifndef TAVRO_TESTS_TRASH_FIXTURE_H
#define TAVRO_TESTS_TRASH_FIXTURE_H

#include "trash.h"

#include "fault_injector.h"
#include "place.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>

namespace tavro_trash_test {

namespace fs = std::filesystem;
using namespace tavro_test;

/// A umask of its own for a while.
class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask) : m_old(umask(mask)) {}
    ~ScopedUmask() {
        umask(m_old);
    }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

private:
    mode_t m_old;
};

inline struct stat statusOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

inline TavroIdentity identityOf(const fs::path& path) {
    return TavroIdentityOf(statusOf(path));
}

inline unsigned modeOf(const fs::path& path) {
    return statusOf(path).st_mode & 07777U;
}

inline std::string inQuotes(const fs::path& path) {
    return "'" + path.string() + "'";
}

/// Mounts `from` at `to` too, for a child process alone, and runs `body` there.
/// @return false when nothing can be mounted here.
inline bool runWithMount(const fs::path& from, const fs::path& to,
                         const std::function<void()>& body) {
    const Sandbox note;
    runInChild([&] {
        if (unshare(CLONE_NEWNS) == 0 &&
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0) {
            writeFile(note / "ran");
            body();
        }
    });
    return isPresent(note / "ran");
}

/// Calls `body` with the mount point of a volume: that which TAVRO_TEST_VOLUME names, which must be
/// for this process alone, as must be what holds it; or else `to`, where `from` is mounted as
/// above.
inline bool runOnVolume(const fs::path& from, const fs::path& to,
                        const std::function<void(const fs::path&)>& body) {
    const char* const volume = std::getenv("TAVRO_TEST_VOLUME");
    if (volume == nullptr) {
        return runWithMount(from, to, [&] { body(to); });
    }
    body(volume);
    for (const fs::directory_entry& entry : fs::directory_iterator(volume)) {
        fs::remove_all(entry.path());
    }
    return true;
}

inline std::vector<TavroOperationEntry> select(const std::vector<fs::path>& paths) {
    return TavroNameEntries({paths.begin(), paths.end()});
}

/// How often each call is made while it lives.
class CallCounts {
public:
    int of(const std::string& call) {
        return m_counts[call];
    }
    int all() const {
        int sum = 0;
        for (const auto& [call, count] : m_counts) {
            sum += count;
        }
        return sum;
    }

private:
    std::map<std::string, int> m_counts;
    CallObserver m_observer{
        [this](const std::string& call, const std::string&) { ++m_counts[call]; }};
};

/// What holds for a moment between two moves: `act` is called the how-manyeth time that cancelling
/// is asked about. Its result is the answer.
inline TavroCallbacks whenAsked(int time, const std::function<bool()>& act) {
    TavroCallbacks callbacks;
    callbacks.ShouldCancel = [time, act, asked = 0]() mutable { return ++asked == time && act(); };
    return callbacks;
}

/// Acts once, just before a call on a path that contains a text.
class BeforeCall {
public:
    BeforeCall(std::string call, std::string pathContains, std::function<void()> act)
        : m_observer([this, call = std::move(call), text = std::move(pathContains),
                      act = std::move(act)](const std::string& made, const std::string& path) {
              if (!m_bActed && made == call && path.find(text) != std::string::npos) {
                  m_bActed = true;
                  act();
              }
          }) {}

    bool bActed() const {
        return m_bActed;
    }

private:
    bool m_bActed = false;
    CallObserver m_observer;
};

class HomeWithTrash : public testing::Test {
protected:
    HomeWithTrash() : m_home(m_sandbox / "home"), m_environment("HOME", m_home.string()) {
        makeDirectory(m_home);
        makeDirectory(docs());
    }

    const fs::path& sandbox() const {
        return m_sandbox.path();
    }
    const fs::path& home() const {
        return m_home;
    }
    fs::path docs() const {
        return m_sandbox / "docs";
    }
    fs::path root() const {
        return m_home / ".local/share/Trash";
    }
    fs::path item(const std::string& name) const {
        return root() / "files" / name;
    }
    fs::path record(const std::string& name) const {
        return root() / "info" / (name + ".trashinfo");
    }
    void expectEmptyTrash() const {
        EXPECT_TRUE(fs::is_empty(root() / "files"));
        EXPECT_TRUE(fs::is_empty(root() / "info"));
    }

    /// The line of a record that tells where its item came from.
    std::string pathLine(const std::string& name) const {
        const std::string bytes = readFile(record(name));
        const std::size_t begin = bytes.find('\n') + 1;
        return bytes.substr(begin, bytes.find('\n', begin) - begin);
    }

    /// A new file, or a new link, among the documents.
    fs::path doc(const std::string& name, const std::string& bytes = "bytes") const {
        writeFile(docs() / name, bytes);
        return docs() / name;
    }
    fs::path link(const std::string& name, const fs::path& target) const {
        fs::create_symlink(target, docs() / name);
        return docs() / name;
    }

    /// Trashes with success.
    static std::vector<TavroTrashedEntry> trash(const std::vector<fs::path>& paths,
                                                const TavroCallbacks& callbacks = {}) {
        const TavroTrashReport report = TavroTrashSelection(select(paths), callbacks);
        EXPECT_EQ(TavroDescribe(report), "");
        EXPECT_TRUE(report.Left.empty() && report.InBoth.empty());
        if (report.Entries.size() != paths.size()) {
            throw std::runtime_error("not every entry was trashed");
        }
        return report.Entries;
    }

    /// Trashes in vain.
    static TavroTrashReport trashInVain(const std::vector<fs::path>& paths,
                                        const TavroCallbacks& callbacks = {}) {
        TavroTrashReport report = TavroTrashSelection(select(paths), callbacks);
        EXPECT_TRUE(report.Batch.Failure);
        EXPECT_TRUE(report.Entries.empty());
        return report;
    }

    static void restore(const std::vector<TavroTrashedEntry>& entries,
                        const TavroCallbacks& callbacks = {}) {
        EXPECT_EQ(TavroDescribe(TavroRestoreSelection(entries, callbacks)), "");
    }
    static TavroTrashReport restoreInVain(const std::vector<TavroTrashedEntry>& entries,
                                          const TavroCallbacks& callbacks = {}) {
        TavroTrashReport report = TavroRestoreSelection(entries, callbacks);
        EXPECT_TRUE(report.Batch.Failure);
        return report;
    }

private:
    Sandbox m_sandbox;
    fs::path m_home;
    ScopedEnvironment m_environment;
    ScopedEnvironment m_data{"XDG_DATA_HOME", std::nullopt};
};

} // namespace tavro_trash_test

#endif
