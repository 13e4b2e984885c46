// What the engine does, with all that it tells as an outcome.

#ifndef TAVRO_TESTS_ENGINE_ACTS_H
#define TAVRO_TESTS_ENGINE_ACTS_H

#include "scenarios.h"

#include "trash.h"

#include <vector>

namespace tavro_test {

Outcome trashByEngine(const std::vector<TavroOperationEntry>& entries);
Outcome restoreByEngine(const std::vector<TavroTrashedEntry>& entries);

/// As what nothing is known of but its places.
Outcome restoreByEngine(const std::vector<TavroTrashEntry>& entries);

/// No failure is true.
Outcome outcomeOf(const TavroFailure& failure);

} // namespace tavro_test

#endif
