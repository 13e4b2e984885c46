// What the operations give up by their contract: a closed list. The rows of fates.cpp say in which
// outcome each may occur; anything else is wrong.

#ifndef TAVRO_TESTS_EXCEPTIONS_H
#define TAVRO_TESTS_EXCEPTIONS_H

#include <string>

namespace tavro_test {

enum class Exception {
    PartialCopyStays,
    SourcePartlyRemoved,
    CopyNotDiscarded,
    StaysInTrash,
    BatchStaysInTrash,
    StaysRestored,
    RecordLeftBehind,
    RecordCutShort,
    RecordNotRewritten,
    RecordWithoutTime,
    UnseenNameReplaced,
    ReplacedInTheGap,
    LinkBecomesFile,
    FoldersStay,
    DeleteStopsHalfWay,
    TargetNotSeen,
    PathAsText,
    SizeIncomplete,
    QueryThrows,
};

/// "partial-copy-stays: the part of a copy that …".
std::string describe(Exception exception);

} // namespace tavro_test

#endif
