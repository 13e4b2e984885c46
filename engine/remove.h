/// Removing an entry with everything below it, and nothing else.

#ifndef TAVRO_ENGINE_REMOVE_H
#define TAVRO_ENGINE_REMOVE_H

#include "failure.h"
#include "identity.h"
#include "place.h"

#include <functional>
#include <optional>

/// How an entry is removed.
struct TavroRemoveOptions {
    /// When given, the entry must be this file; otherwise nothing is touched.
    std::optional<TavroIdentity> Expected = {};

    /// Asked before each entry is removed; true ends the removal. May be empty.
    std::function<bool()> ShouldCancel = {};

    /// Directories of the user that do not let their entries be removed are made writable first.
    bool bOpenReadOnly = true;
};

/// Removes an entry and everything below it. Links are removed, not followed. What lies on another
/// mount than the entry stays, and so do the directories above it. What cannot be removed stays;
/// the rest is removed anyway.
///
/// @return no failure when nothing is left, also when nothing was there; Cancelled; Changed for
///         another file than the expected one; else the first failure, of the kind Remove, with
///         the path of what could not be removed. A place named "." or ".." fails so, with EINVAL.
TavroFailure TavroRemoveTree(const TavroPlace& Place, const TavroRemoveOptions& Options = {});

#endif
