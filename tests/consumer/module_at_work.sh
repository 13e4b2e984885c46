#!/usr/bin/env bash
# What the example prints, in a home of its own: module_at_work.sh PROGRAM
set -euo pipefail
home=$(cd "$(mktemp -d)" && pwd -P)
trap 'rm -rf "$home"' EXIT
cd "$home"
HOME=$home "$1" >said
# Which entries a cancelled walk has counted is the file system's choice.
sed -i -e "s|$home|HOME|g" -e 's/\(entries: \)\(0\|12\|24\)$/\10, 12 or 24/' said
diff - said <<'TEXT'
TavroBuildTransferPlan, to copy into ~/Archive/: true
  HOME/Notes/ideas.txt -> HOME/Archive/ideas.txt (free)
  HOME/Notes/Drafts -> HOME/Archive/Drafts (free)
TavroTrashEntries: true
  now at HOME/.local/share/Trash/files/ideas.txt
  now at HOME/.local/share/Trash/files/Drafts
TavroRestoreTrashEntries, to undo: true
  now at HOME/Notes/ideas.txt
  now at HOME/Notes/Drafts
TavroReapplyTrashEntries, to redo: true
  now at HOME/.local/share/Trash/files/ideas.txt
  now at HOME/.local/share/Trash/files/Drafts
TavroRestoreTrashEntries, to undo: true
TavroRestoreTrashEntries, once too often: false, "Trash item is missing: HOME/.local/share/Trash/files/ideas.txt"
TavroCalculateDirectorySize: 48
TavroCalculateDirectorySize, cancelled after two entries: 0, 12 or 24
TEXT
