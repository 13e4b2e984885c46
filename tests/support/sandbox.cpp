#include "sandbox.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

constexpr unsigned ordinaryUser = 65534;

/// No test sees the trash of whoever runs it on other volumes, nor leaves one there.
const int homeTrashOnly = setenv("TAVRO_TRASH", "home", 1);

void require(bool held, const std::string& what) {
    if (!held) {
        throw std::runtime_error("the test cannot be set up: " + what);
    }
}

fs::path makeFreshFolder(const fs::path& parent) {
    std::string name = (fs::canonical(parent) / "tavro-test-XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr, "mkdtemp " + name);
    require(chmod(name.c_str(), 0755) == 0, "chmod " + name);
    return name;
}

void giveTo(unsigned user, const fs::path& tree) {
    require(lchown(tree.c_str(), user, user) == 0, "lchown " + tree.string());
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        require(lchown(entry.path().c_str(), user, user) == 0, "lchown");
    }
}

/// Removes what the library does not reach: closed directories, and trees deeper than descriptors
/// are many.
void removeByCommands(const fs::path& tree) {
    const char* const script = "chmod -R u+rwx -- \"$0\"; exec rm -rf -- \"$0\"";
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", script, tree.c_str(), nullptr);
        _exit(127);
    }
    waitpid(child, nullptr, 0);
}

} // namespace

Sandbox::Sandbox() : Sandbox(fs::temp_directory_path()) {}

Sandbox::Sandbox(const fs::path& parent) : m_path(makeFreshFolder(parent)) {}

Sandbox::~Sandbox() {
    std::error_code ec;
    fs::remove_all(m_path, ec);
    if (isPresent(m_path)) {
        removeByCommands(m_path);
    }
}

bool onDifferentDevices(const fs::path& a, const fs::path& b) {
    struct stat statusA = {};
    struct stat statusB = {};
    require(stat(a.c_str(), &statusA) == 0 && stat(b.c_str(), &statusB) == 0, "stat");
    return statusA.st_dev != statusB.st_dev;
}

fs::path inMemory() {
    return access(secondFileSystem, W_OK) == 0 ? fs::path(secondFileSystem)
                                               : fs::temp_directory_path();
}

void writeFile(const fs::path& file, const std::string& bytes) {
    fs::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << bytes;
    stream.close();
    require(!stream.fail(), "write " + file.string());
}

std::string readFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    require(stream.is_open(), "read " + file.string());
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

void makeDirectory(const fs::path& directory) {
    fs::create_directories(directory);
}

void makeFifo(const fs::path& path) {
    require(mkfifo(path.c_str(), 0600) == 0, "mkfifo " + path.string());
}

bool isPresent(const fs::path& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

std::string systemText(std::errc error) {
    return std::make_error_code(error).message();
}

ScopedEnvironment::ScopedEnvironment(const char* name, const std::optional<std::string>& value)
    : m_name(name) {
    if (const char* old = std::getenv(name)) {
        m_old = old;
    }
    if (value) {
        setenv(name, value->c_str(), 1);
    } else {
        unsetenv(name);
    }
}

ScopedEnvironment::~ScopedEnvironment() {
    if (m_old) {
        setenv(m_name.c_str(), m_old->c_str(), 1);
    } else {
        unsetenv(m_name.c_str());
    }
}

ScopedTimeZone::ScopedTimeZone(const std::string& zone) {
    m_environment.emplace("TZ", zone);
    tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
    m_environment.reset();
    tzset();
}

ScopedCurrentDirectory::ScopedCurrentDirectory(const fs::path& directory)
    : m_old(fs::current_path()) {
    fs::current_path(directory);
}

ScopedCurrentDirectory::~ScopedCurrentDirectory() {
    std::error_code ec;
    fs::current_path(m_old, ec);
}

bool isRoot() {
    return geteuid() == 0;
}

void runInChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        try {
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "exception in the child: " << error.what();
        }
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the child failed (wait status " << status << "); its assertions are printed above";
}

void runUnprivileged(const fs::path& own, const std::function<void()>& body) {
    const bool bRoot = isRoot();
    if (bRoot) {
        giveTo(ordinaryUser, own);
    }
    runInChild([&] {
        if (bRoot) {
            require(setgid(ordinaryUser) == 0 && setuid(ordinaryUser) == 0, "setuid");
        }
        body();
    });
}

} // namespace tavro_test
