#!/usr/bin/env bats
# The recipes of the README, as somebody would type them who says yes to every question.

load helpers

@test "the recipes of the README work" {
  local line count=0 readme=$BATS_TEST_DIRNAME/../../README.md
  export PATH=${TAVRO%/*}:$PATH
  mkdir photos stick
  touch a.log b.log photos/one.jpg old.iso
  while IFS= read -r line; do
    count=$((count + 1))
    if [[ $line == *resume ]]; then # nothing was interrupted here
      run -1 tavro resume
      continue
    fi
    run -0 on_terminal "${line//\/media\/stick/$PWD/stick}" y
    case $line in
    *trash*) [[ ! -e old.iso ]] ;;
    *undo*) [[ -e old.iso ]] && tavro trash -q old.iso ;;
    *copy*) [[ -e stick/photos/one.jpg ]] ;;
    *-n) [[ -e a.log && ! -e $HOME/Logs ]] ;;
    *move*) [[ ! -e a.log && -e $HOME/Logs/b.log ]] ;;
    *list*) [[ $output == *old.iso* ]] ;;
    *restore*) [[ -e old.iso ]] ;;
    *size*) [[ $output == *photos* ]] ;;
    esac
  done < <(sed -e '1,/recipes/d' -e '/^| command/,$d' "$readme" | sed -n 's/^\$ //p')
  [[ $count -eq 10 ]]
}
