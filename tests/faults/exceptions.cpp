#include "exceptions.h"

namespace tavro_test {

std::string describe(Exception exception) {
    switch (exception) {
    case Exception::PartialCopyStays:
        return "partial-copy-stays: a copy across devices that failed stays where it got to, in "
               "the trash without a record; the source is whole";
    case Exception::SourcePartlyRemoved:
        return "source-partly-removed: a directory was copied, its removal failed half-way, and "
               "the copy was discarded, so what the removal reached is gone";
    case Exception::CopyNotDiscarded:
        return "copy-not-discarded: as before, but discarding the copy failed as well (a second "
               "fault); what is left of it stays";
    case Exception::StaysInTrash:
        return "stays-in-trash: its record could not be written and it could not be moved back; "
               "it lies in the trash without a record, and the sentence says so";
    case Exception::BatchStaysInTrash:
        return "batch-stays-in-trash: the entries before the failing one could not be restored "
               "and lie in the trash with their records, and the sentence says so";
    case Exception::StaysRestored:
        return "stays-restored: a restore failed, and an entry that was restored before could not "
               "go back to the trash; it stays restored without a record";
    case Exception::RecordLeftBehind:
        return "record-left-behind: a record that could not be removed stays";
    case Exception::RecordCutShort:
        return "record-cut-short: a record whose bytes did not reach the disk at its close counts "
               "as written";
    case Exception::RecordNotRewritten:
        return "record-not-rewritten: an entry went back to the trash after a failed restore and "
               "its record could not be written again";
    case Exception::RecordWithoutTime:
        return "record-without-time: the local time could not be told, so the record's date is "
               "all zeros";
    case Exception::UnseenNameReplaced:
        return "unseen-name-replaced: a name that cannot be examined counts as free, so what bears "
               "it is replaced";
    case Exception::ReplacedInTheGap:
        return "replaced-in-the-gap: between the check that a name is free and the rename to it "
               "another process put something there, which the rename replaced";
    case Exception::LinkBecomesFile:
        return "link-becomes-file: a link flagged as a file went across devices as what it points "
               "to, and came back as that";
    case Exception::FoldersStay:
        return "directories-stay: directories that were created on the way stay after a failure";
    case Exception::DeleteStopsHalfWay:
        return "delete-stops-half-way: a delete for good stops at the first failure and undoes "
               "nothing";
    case Exception::TargetNotSeen:
        return "target-not-seen: a target that cannot be examined counts as no directory in a plan";
    case Exception::PathAsText:
        return "path-as-text: the path that an operation gives back is normalised as text when "
               "the disk cannot resolve it";
    case Exception::SizeIncomplete:
        return "size-incomplete: what cannot be read counts nothing";
    case Exception::QueryThrows:
        return "query-throws: a rename whose target cannot be examined throws, before anything is "
               "changed";
    }
    return "";
}

} // namespace tavro_test
