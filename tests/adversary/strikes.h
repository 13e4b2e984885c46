// What an adversary does at a chosen moment.

#ifndef TAVRO_TESTS_STRIKES_H
#define TAVRO_TESTS_STRIKES_H

#include "world.h"

#include <functional>
#include <string>
#include <vector>

namespace tavro_test {

struct Strike {
    const char* Name;
    std::function<bool(World&)> Act; ///< False when there was nothing to change.
    bool bDeep = false;              ///< Needs the chain of directories.
    bool bPipe = false;              ///< Who opens what lies there may wait for ever.
};

const std::vector<Strike>& allStrikes();

/// Whether a call has to do with names, or lists some. Other calls see no strike: one before them
/// is the same as one before the next.
bool seesNames(const std::string& call);

} // namespace tavro_test

#endif
