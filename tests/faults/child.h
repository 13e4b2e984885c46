// A child process that runs a scenario's operation and tells its parent how it ended, through
// memory that both share.

#ifndef TAVRO_TESTS_CHILD_H
#define TAVRO_TESTS_CHILD_H

#include "scenarios.h"

#include <cstddef>
#include <functional>
#include <sys/types.h>

namespace tavro_test {

/// What a child writes for its parent to read.
class Board {
public:
    Board();
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    struct Notes {
        bool bReturned; ///< the operation came to its end
        bool bFired;    ///< the fault was injected
        int DescriptorsLeaked;
        long BlocksLeaked;
        int Depth;          ///< of `Frames`
        void* Frames[64];   ///< where the fault was injected
        std::size_t Length; ///< of the outcome that follows
    };
    Notes& notes() const {
        return *m_notes;
    }
    void clear() const;
    void put(const Outcome& outcome) const;
    Outcome outcome() const;

private:
    Notes* m_notes;
    char* m_text;
};

/// Starts a child that runs `body` and then ends at once; nothing of the parent's is undone in it.
pid_t startChild(const std::function<void()>& body);

/// Waits for the end of a child and returns its wait status.
int waitForEnd(pid_t child);

} // namespace tavro_test

#endif
