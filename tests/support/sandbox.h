// Directories of a test's own, an environment of its own, and children without privileges.

#ifndef TAVRO_TESTS_SANDBOX_H
#define TAVRO_TESTS_SANDBOX_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace tavro_test {

/// A fresh directory, removed with everything in it at the end, whatever its permissions by then.
class Sandbox {
public:
    /// In the temporary directory.
    Sandbox();

    /// Below `parent`, for a directory on another file system.
    explicit Sandbox(const std::filesystem::path& parent);

    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    /// The canonical path of the directory.
    const std::filesystem::path& path() const {
        return m_path;
    }
    std::filesystem::path operator/(const std::filesystem::path& name) const {
        return m_path / name;
    }

private:
    std::filesystem::path m_path;
};

/// A file system next to the temporary directory's. Tests across devices check with
/// `onDifferentDevices` and skip, saying so, where there is none.
inline constexpr const char* secondFileSystem = "/dev/shm";
bool onDifferentDevices(const std::filesystem::path& a, const std::filesystem::path& b);

/// Where a test that makes thousands of entries has its sandbox: in memory where that is possible.
std::filesystem::path inMemory();

/// Creates the file with its missing parents.
void writeFile(const std::filesystem::path& file, const std::string& bytes = "");
std::string readFile(const std::filesystem::path& file);

/// Creates the directory with its missing parents.
void makeDirectory(const std::filesystem::path& directory);

/// A FIFO at this path.
void makeFifo(const std::filesystem::path& path);

/// Something is at this path, a dangling link included.
bool isPresent(const std::filesystem::path& path);

/// The text that the operating system has for an error, as it stands at the end of sentences.
std::string systemText(std::errc error);

/// An environment variable that has another value for a while. No value: unset.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::optional<std::string>& value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

/// Another time zone for a while.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const std::string& zone);
    ~ScopedTimeZone();

private:
    std::optional<ScopedEnvironment> m_environment;
};

/// Another current directory for a while.
class ScopedCurrentDirectory {
public:
    explicit ScopedCurrentDirectory(const std::filesystem::path& directory);
    ~ScopedCurrentDirectory();
    ScopedCurrentDirectory(const ScopedCurrentDirectory&) = delete;
    ScopedCurrentDirectory& operator=(const ScopedCurrentDirectory&) = delete;

private:
    std::filesystem::path m_old;
};

/// Whether this process may do everything.
bool isRoot();

/// Runs `body` in a child process to which permissions apply. A test run by root gives `own` with
/// everything in it to an ordinary user first, and the child becomes that user; a test run by an
/// ordinary user just forks. Failed assertions of the child are printed and fail the test.
void runUnprivileged(const std::filesystem::path& own, const std::function<void()>& body);

/// Runs `body` in a child process, which may change what belongs to the whole process (its locale,
/// its limits). Failed assertions of the child are printed and fail the test.
void runInChild(const std::function<void()>& body);

} // namespace tavro_test

#endif
