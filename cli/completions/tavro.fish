# Completion of `tavro` for fish.

# Whether the command is one of these: a file may bear the name of a command, too.
function __tavro_runs
    set -l words (commandline -opc)
    contains -- "$words[2]" $argv
end

function __tavro_lacks_command
    set -l words (commandline -opc)
    test (count $words) -eq 1 -o "$words[2] "(count $words) = 'help 2'
end

function __tavro_lacks_verb
    set -l words (commandline -opc)
    test "$words[2]" = plan -a (count $words) -eq 2
end

# The names in the trash, each ended by a zero byte. Left out are those with a tab, at which a
# description would begin; those that begin with a tilde, which fish would take for a home directory;
# and those that begin with a dash, which are options unless they stand behind two dashes.
function __tavro_trash
    set -l unwanted '\t|^[~-]'
    contains -- -- (commandline -opc); and set unwanted '\t|^~'
    for name in (tavro list -0 2>/dev/null | string split0)
        string match -q -r -- $unwanted $name; or printf '%s\0' $name
    end
end

# Whether fish would offer a name that begins with a dash for an entry, where nothing is typed.
function __tavro_meets_dashes
    set -l dashed -*
    set -l words (commandline -opc)
    set -l typed (commandline -ct)
    __tavro_runs copy move plan rename mkdir delete trash size
    and test -z "$typed" -a (count $dashed) -gt 0
    and not contains -- -- $words
end

function __tavro_files
    for name in *
        printf '%s\0' (string replace -r -- '^-' './-' $name | string collect)
    end
end

complete -c tavro -f -n __tavro_lacks_command -l help -d 'Help'
complete -c tavro -f -n __tavro_lacks_command -l version -d 'Version'
complete -c tavro -f -n __tavro_lacks_command -a help -d 'Explain a command'
complete -c tavro -f -n __tavro_lacks_command -a copy -d 'Copy entries to a directory or a new path'
complete -c tavro -f -n __tavro_lacks_command -a move -d 'Move entries to a directory or a new path'
complete -c tavro -f -n __tavro_lacks_command -a plan -d 'Show what a copy or a move would do'
complete -c tavro -f -n __tavro_lacks_command -a rename -d 'Rename an entry, or move it to a new path'
complete -c tavro -f -n __tavro_lacks_command -a mkdir -d 'Create directories, with their missing parents'
complete -c tavro -f -n __tavro_lacks_command -a delete -d 'Delete entries for good, after a question'
complete -c tavro -f -n __tavro_lacks_command -a trash -d 'Move entries to the trash'
complete -c tavro -f -n __tavro_lacks_command -a undo -d 'Undo the newest operation'
complete -c tavro -f -n __tavro_lacks_command -a redo -d 'Do again what was undone last'
complete -c tavro -f -n __tavro_lacks_command -a resume -d 'Continue what was interrupted'
complete -c tavro -f -n __tavro_lacks_command -a history -d 'List what was done'
complete -c tavro -f -n __tavro_lacks_command -a list -d 'List the trash'
complete -c tavro -f -n __tavro_lacks_command -a restore -d 'Put trashed entries back'
complete -c tavro -f -n __tavro_lacks_command -a empty -d 'Delete what is in the trash'
complete -c tavro -f -n __tavro_lacks_command -a doctor -d 'Look for items and records that do not match, and for leftovers'
complete -c tavro -f -n __tavro_lacks_command -a size -d 'Add up the sizes of files and directories'

complete -c tavro -f -n '__tavro_runs undo redo resume history list restore empty doctor'
complete -c tavro -n '__tavro_runs copy move plan mkdir' -l in -x -a '(__fish_complete_directories)' -d 'Relative to this directory'
complete -c tavro -n '__tavro_runs copy move' -l on-conflict -x -a 'ask overwrite newer skip keep-both' -d 'What to do about something in the way'
complete -c tavro -n '__tavro_runs copy move' -l no-keep -d 'Delete what is replaced; this cannot be undone'
complete -c tavro -n '__tavro_runs copy move' -s n -l dry-run -d 'Show the plan and do nothing'
complete -c tavro -n '__tavro_runs copy move trash undo redo resume restore empty' -s q -l quiet -d 'Print only errors'
complete -c tavro -n '__tavro_runs copy move trash undo redo resume restore' -s v -l verbose -d 'Name every entry'
complete -c tavro -n '__tavro_runs history list' -l color -x -a 'auto always never' -d 'When to use colours'
complete -c tavro -n '__tavro_runs copy move rename mkdir delete trash undo redo resume restore empty' -l no-sync -d 'Do not wait until everything is on the disk'
complete -c tavro -n '__tavro_runs copy move rename mkdir delete trash restore empty' -l no-history -d 'Do not record this in the history'
complete -c tavro -n '__tavro_runs undo' -l skip -d 'Skip what cannot be undone'
complete -c tavro -n __tavro_lacks_verb -f -a 'copy move'
complete -c tavro -n '__tavro_runs plan history list' -l json -d 'Print as JSON'
complete -c tavro -n '__tavro_runs history' -l drop -d 'Remove the newest from the history'
complete -c tavro -n '__tavro_runs delete empty trash' -s f -l force -d 'Do not ask'
complete -c tavro -n '__tavro_runs trash' -s r -l recursive -d 'Accepted for compatibility with rm'
complete -c tavro -n '__tavro_runs trash' -s R -d 'Accepted for compatibility with rm'
complete -c tavro -n '__tavro_runs trash' -s d -l dir -d 'Accepted for compatibility with rm'
complete -c tavro -n '__tavro_runs trash' -s i -d 'Ask about each entry'
complete -c tavro -n '__tavro_runs trash' -s I -d 'Ask once about many'
complete -c tavro -n '__tavro_runs trash' -l interactive -d 'Ask: =always, =once or =never'
complete -c tavro -n '__tavro_runs trash' -s v -l verbose -d 'List each entry'
complete -c tavro -n '__tavro_runs list' -s 0 -l null -d 'Print only names, each ended by a zero byte'
complete -c tavro -n '__tavro_runs list restore empty' -a '(__tavro_trash | string split0)'
complete -c tavro -n '__tavro_runs list restore empty' -l here -d 'Only what was in the current directory or below'
complete -c tavro -n '__tavro_runs list restore empty' -l since -x -d 'Only what was trashed in the last DAYS days'
complete -c tavro -n '__tavro_runs list restore empty' -l older-than -x -d 'Only what was trashed more than DAYS days ago'
complete -c tavro -n '__tavro_runs restore' -l to -x -a '(__fish_complete_directories)' -d 'Restore into this directory'
complete -c tavro -n '__tavro_runs restore' -l keep-both -d 'Use a free name if the original is taken'
complete -c tavro -n '__tavro_runs empty' -l keep -x -d 'Until the trash holds at most this much'
complete -c tavro -n '__tavro_runs empty' -l free -x -d 'Until what is deleted adds up to this much'
complete -c tavro -n '__tavro_runs trash' -l home -d 'Use the home trash for other volumes too'
complete -c tavro -n '__tavro_runs trash' -l no-copy -d 'Fail instead of copying to the trash'
complete -c tavro -n '__tavro_runs list restore empty doctor' -l volume -r -F -d 'Only the trash of the volume with this path'
complete -c tavro -n '__tavro_runs doctor' -l mend -x -d 'Mend this finding'
complete -c tavro -n '__tavro_runs doctor' -l mend-all -d 'Mend every finding'
complete -c tavro -n '__tavro_runs size' -s s -l sort -d 'Largest first'
complete -c tavro -n '__tavro_runs size' -s d -l depth -x -d 'Also list what is so many levels below'
complete -c tavro -f -n __tavro_meets_dashes -a '(__tavro_files | string split0)'
