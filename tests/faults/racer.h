// A process that runs only when it is told to, and stops before each of its calls on files: so the
// gap between a check and the act that follows it stays open as long as wanted.

#ifndef TAVRO_TESTS_RACER_H
#define TAVRO_TESTS_RACER_H

#include "child.h"

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>

namespace tavro_test {

class Racer {
public:
    /// A call on files that the process is about to make.
    struct Call {
        std::string Name; ///< as of SystemCall
        std::string Path;
        std::string Target; ///< of a rename: where it leads
        bool bChangesDisk = false;
    };

    /// Starts a process that runs `act`, and lets it come to its first call.
    explicit Racer(const std::function<Outcome()>& act);
    ~Racer();
    Racer(const Racer&) = delete;
    Racer& operator=(const Racer&) = delete;

    bool hasEnded() const {
        return m_bEnded;
    }

    /// The call that it stands before.
    const Call& next() const {
        return m_next;
    }

    /// Lets it make that call, and come to the next one or to its end.
    void step();

    /// How the act ended.
    Outcome outcome() const;

    /// Something that is no fault of the operation ended the process.
    bool hasFallen() const {
        return m_bEnded && !m_board.notes().bReturned;
    }
    int descriptorsLeaked() const {
        return m_board.notes().DescriptorsLeaked;
    }

private:
    bool comeToCall();

    Board m_board;
    pid_t m_child = 0;
    bool m_bEnded = false;
    bool m_bActing = false;
    bool m_bActed = false;
    Call m_next;
};

} // namespace tavro_test

#endif
