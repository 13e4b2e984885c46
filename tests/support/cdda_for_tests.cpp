// The tests' own audio CD: its tracks are the paths that begin with "cdda:".

#include "tavropane.h"

bool TavroIsCddaPath(const std::string& Path) {
    return Path.rfind("cdda:", 0) == 0;
}
