/// Copying a whole entry, tree or not, to a hidden name at which nothing is; removing what was
/// copied; taking the copy back.

#ifndef TAVRO_ENGINE_COPY_TREE_H
#define TAVRO_ENGINE_COPY_TREE_H

#include "copy_file.h"
#include "place.h"

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/// Where the files with several names went, so that their other names become links to the same
/// copy. One serves a whole operation.
class TavroHardLinks;

/// One copy of an entry with everything below it.
class TavroTreeCopy;

#endif
