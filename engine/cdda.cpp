// Audio CDs in the pane: their tracks are listed under paths that begin with "cdda:".

#include "tavropane.h"

bool TavroIsCddaPath(const std::string& Path) {
    static const std::string scheme = "cdda:";
    return Path.compare(0, scheme.size(), scheme) == 0;
}
