// Stops a child at each of its system calls, to end it there or to let that call fail.

#ifndef TAVRO_TESTS_TRACER_H
#define TAVRO_TESTS_TRACER_H

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>

namespace tavro_test {

/// A system call that a traced child is about to make.
class SystemCall {
public:
    SystemCall(pid_t child, std::uint64_t number, const std::uint64_t* arguments)
        : m_child(child), m_number(number), m_arguments(arguments) {}

    /// "rename", "openat"; empty for the harmless calls, which are left alone: those that concern
    /// no file, and those that cannot fail. A call that nobody has thought of yet is "call 999".
    std::string name() const;

    /// The call changes what is on the disk.
    bool changesDisk() const;

    /// The (first) path, or the path of the descriptor; what is relative to the current directory
    /// as it is given.
    std::string path() const;

    /// Of a rename, where it leads.
    std::string target() const;

private:
    std::string pathAt(std::size_t directory, std::size_t name) const;

    pid_t m_child;
    std::uint64_t m_number;
    const std::uint64_t* m_arguments;
};

/// What becomes of a call: it is made, the child is killed before it is, or it fails with an errno.
struct Deed {
    enum Kind { Continue, Kill, Fail };
    Kind What = Continue;
    int Errno = 0;
};

/// In the child: it is traced from now on, and what lies between two marks is told to the parent.
void beginTraced();
void markTraced(bool bBegins);

/// In the parent: runs the child to its end and asks `decide` about each call between the
/// marks. Returns the wait status of the child.
int trace(pid_t child, const std::function<Deed(const SystemCall&)>& decide);

/// The text at an address in a stopped child.
std::string textAt(pid_t child, std::uint64_t address);

/// Why calls cannot be watched on this machine, or cannot be made to fail; empty when they can.
std::string obstacleToTracing();
std::string obstacleToFailing();

} // namespace tavro_test

#endif
