#include "deep_tree.h"

#include "sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavro_test {

std::string makeDeepTree(const std::filesystem::path& top, unsigned levels,
                         const std::string& name) {
    makeDirectory(top);
    std::string path = top.string();
    int directory = open(top.c_str(), O_RDONLY | O_DIRECTORY);
    for (unsigned level = 0; level < levels && directory >= 0; ++level) {
        const bool bMade = mkdirat(directory, name.c_str(), 0755) == 0;
        const int below = bMade ? openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY) : -1;
        close(directory);
        directory = below;
        path += "/" + name;
    }
    const int leaf = openat(directory, "leaf", O_WRONLY | O_CREAT | O_EXCL, 0644);
    const bool bWhole = write(leaf, "leaf", 4) == 4;
    close(leaf);
    close(directory);
    if (!bWhole) {
        throw std::runtime_error("the test cannot be set up: a tree of many levels");
    }
    return path;
}

void runConfined(const std::function<void()>& body) {
    runInChild([&] {
        const struct rlimit few = {64, 64};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, std::size_t{256} << 10U));
        const auto run = [](void* given) -> void* {
            (*static_cast<const std::function<void()>*>(given))();
            return nullptr;
        };
        pthread_t thread = {};
        std::function<void()> work = body;
        ASSERT_EQ(0, pthread_create(&thread, &attributes, run, &work));
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
    });
}

} // namespace tavro_test
