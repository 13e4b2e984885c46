#!/usr/bin/env bats
# The trash on other volumes than the home directory's.

load helpers
load own_root

@test "an entry goes to the trash of its own volume, by a rename" {
  in_own_root '
    echo 1 >/one/a
    inode=$(stat -c %i /one/a)
    run=$(tavro trash /one/a)
    expect "$run" "/one/a -> /one/.Trash-0/files/a"
    expect "$(stat -c %i /one/.Trash-0/files/a)" "$inode"
    expect "$(stat -c %a /one/.Trash-0 /one/.Trash-0/files /one/.Trash-0/info)" "700
700
700"
    [[ ! -e /home/.local/share/Trash ]]
    expect "$(tavro list)" "$(tavro list --volume /one)"
    tavro undo
    expect "$(cat /one/a)" 1
    expect "$(stat -c %i /one/a)" "$inode"
    [[ ! $(ls /one/.Trash-0/info) ]]
    tavro redo
    [[ ! -e /one/a && -f /one/.Trash-0/files/a && -f /one/.Trash-0/info/a.trashinfo ]]'
}

@test "a shared trash directory is used when it is sticky and no link" {
  in_own_root '
    mkdir -m 1777 /one/.Trash
    touch /one/a
    expect "$(tavro trash /one/a)" "/one/a -> /one/.Trash/0/files/a"
    expect "$(stat -c %a /one/.Trash/0)" 700
    mkdir /two/real
    chmod 1777 /two/real
    ln -s real /two/.Trash
    touch /two/a /two/b
    expect "$(tavro trash /two/a)" "/two/a -> /two/.Trash-0/files/a"
    [[ ! $(ls /two/real) ]]
    rm /two/.Trash
    mkdir -m 777 /two/.Trash
    expect "$(tavro trash /two/b)" "/two/b -> /two/.Trash-0/files/b"
    [[ ! $(ls /two/.Trash) ]]
    expect "$(tavro list -0 | tr "\0" " ")" "b a a "'
}

@test "a prepared trash that is a link, leads elsewhere or is another user's is not used" {
  in_own_root '
    mkdir -p /tmp/kept/files /tmp/kept/info /one/.Trash-0
    echo kept >/tmp/kept/files/a
    printf "[Trash Info]\nPath=a\n" >/tmp/kept/info/a.trashinfo
    ln -s /tmp/kept /two/.Trash-0
    ln -s /tmp/kept/files /one/.Trash-0/files
    ln -s /tmp/kept/info /one/.Trash-0/info
    expect "$(tavro list)" ""
    tavro empty -f
    [[ -f /tmp/kept/files/a && -f /tmp/kept/info/a.trashinfo ]]
    touch /one/b /two/c
    expect "$(tavro trash /one/b 2>/dev/null)" "/one/b -> /home/.local/share/Trash/files/b"
    expect "$(tavro trash /two/c 2>/dev/null)" "/two/c -> /home/.local/share/Trash/files/c"
    rm /two/.Trash-0
    mkdir /two/.Trash-0
    chown 1000 /two/.Trash-0
    touch /two/d
    expect "$(tavro trash /two/d 2>/dev/null)" "/two/d -> /home/.local/share/Trash/files/d"
    [[ ! $(ls /two/.Trash-0) ]]'
}

@test "a record on a volume has a relative path, and one at home an absolute one" {
  in_own_root '
    mkdir -p "/one/d é"
    touch "/one/d é/50% \$" /one/.Trash-x /here/a
    tavro trash -q "/one/d é/50% \$" /one/.Trash-x /here/a
    expect "$(sed 2q /one/.Trash-0/info/50*)" "[Trash Info]
Path=d%20%C3%A9/50%25%20%24"
    expect "$(sed -n 2p /one/.Trash-0/info/.Trash-x.trashinfo)" Path=.Trash-x
    expect "$(sed -n 2p /home/.local/share/Trash/info/a.trashinfo)" Path=/here/a
    tavro restore "/one/d é/50% \$" .Trash-x
    [[ -f "/one/d é/50% \$" && -f /one/.Trash-x ]]
    touch "/one/d é/x"
    tavro trash -q "/one/d é/x"
    rm -r "/one/d é"
    tavro restore -q x
    expect "$(stat -c %a "/one/d é")" 700'
}

@test "a record that leads upwards is refused by its name, and its item stays" {
  in_own_root '
    mkdir -p /one/.Trash-0/files /one/.Trash-0/info
    echo evil >/one/.Trash-0/files/a
    printf "[Trash Info]\nPath=../home/a\nDeletionDate=2024-01-01T00:00:00\n" >/one/.Trash-0/info/a.trashinfo
    expect "$(tavro list 2>&1)" "tavro: 1 item in the trash has no readable record; run '"'tavro doctor'"'"
    expect "$(tavro restore a 2>&1 || :)" "tavro: Cannot tell where '"'/one/.Trash-0/files/a'"' came from"
    fails tavro doctor >/dev/null
    found=$(tavro doctor || :)
    [[ $found == *"/one/.Trash-0/info/a.trashinfo"*"does not say where its item came from"* ]]
    tavro empty -f
    [[ -f /one/.Trash-0/files/a && ! -e /home/a ]]'
}

@test "a volume that takes no trash is copied from, or refused, as it is asked for" {
  in_own_root '
    mkdir -m 777 /one/d /here/nobody
    chmod 755 /one
    touch /one/d/a /one/d/b
    as_nobody() { HOME=/here/nobody setpriv --reuid 65534 --regid 65534 --clear-groups $TAVRO "$@"; }
    status=0
    said=$(as_nobody trash --no-copy /one/d/a 2>&1) || status=$?
    expect "$status: $said" "1: tavro: Cannot move '"'/one/d/a'"' to the trash without copying it: its volume cannot hold a trash"
    [[ -f /one/d/a ]]
    expect "$(as_nobody trash /one/d/a 2>&1)" "tavro: 1 entry on another file system will be copied to the trash (0 bytes)
/one/d/a -> /here/nobody/.local/share/Trash/files/a"
    expect "$(sed -n 2p /here/nobody/.local/share/Trash/info/a.trashinfo)" Path=/one/d/a
    expect "$(ls -A /one)" d
    as_nobody undo
    [[ -f /one/d/a ]]'
}

@test "--home copies to the home trash, and TAVRO_TRASH=home always does" {
  in_own_root '
    touch /one/a /one/b /one/c
    expect "$(tavro trash --home /one/a 2>&1)" "tavro: 1 entry on another file system will be copied to the trash (0 bytes)
/one/a -> /home/.local/share/Trash/files/a"
    expect "$(TAVRO_TRASH=home tavro trash /one/b 2>&1)" "tavro: 1 entry on another file system will be copied to the trash (0 bytes)
/one/b -> /home/.local/share/Trash/files/b"
    fails tavro trash --home --no-copy /one/c
    [[ -f /one/c && ! -e /one/.Trash-0 ]]
    tavro trash -q /one/c
    expect "$(tavro list -0 | tr "\0" " ")" "c b a "
    expect "$(TAVRO_TRASH=home tavro list -0 | tr "\0" " ")" "b a "
    TAVRO_TRASH=home tavro empty -f
    [[ -f /one/.Trash-0/files/c ]]'
}

@test "what is trashed at once can lie on several volumes, and goes back as one" {
  in_own_root '
    for place in /one /two /here; do echo $place >$place/a; done
    tavro trash -q /one/a /two/a /here/a
    expect "$(tavro list | cut -f 4 | sort)" "/here/a
/one/a
/two/a"
    status=0
    said=$(tavro restore a 2>&1) || status=$?
    expect "$status: $said" "1: tavro: Several entries named '"'a' are in the trash, from '/here/a', '/one/a', '/two/a'"'"
    tavro restore -q --volume /two a
    expect "$(cat /two/a)" /two
    fails tavro restore --volume /two a
    tavro trash -q /two/a
    tavro restore -q /one/a /two/a
    expect "$(cat /one/a /two/a)" "/one
/two"'
}

@test "list, empty and doctor see all volumes, and --volume one" {
  in_own_root '
    for place in /one /two /here; do
      mkdir $place/d
      head -c 1000 /dev/zero >$place/d/f
      tavro trash -q $place/d
    done
    expect "$(tavro list --volume /one | cut -f 2-)" "1000	d	/one/d"
    expect "$(tavro list --volume /home | cut -f 2-)" "1000	d	/here/d"
    expect "$(tavro list --volume /two/.Trash-0/info/d.trashinfo | cut -f 2-)" "1000	d	/two/d"
    fails tavro list --volume /missing
    expect "$(tavro empty -f --volume /two)" "Deleted 1 item (1.0 kB)"
    [[ ! $(ls /two/.Trash-0/files /two/.Trash-0/info | grep d$) ]]
    touch /one/.Trash-0/files/stray
    fails tavro doctor
    expect "$(tavro doctor --volume /two)" "The trash is in order"
    tavro doctor --mend stray
    expect "$(sed -n 2p /one/.Trash-0/info/stray.trashinfo)" Path=stray
    expect "$(tavro list | cut -f 4 | sort)" "/here/d
/one/d
/one/stray"
    tavro empty -f -q
    [[ ! $(find /one /two /home/.local/share/Trash -type f) ]]
    expect "$(tavro list)" ""'
}

@test "a volume that is mounted twice has one trash, and a bind mount one of its own" {
  in_own_root '
    mkdir /here/again /one/sub /here/sub
    mount --bind /one /here/again
    mount --bind /one/sub /here/sub
    touch /here/again/a /here/sub/b
    expect "$(tavro trash /here/again/a)" "/here/again/a -> /here/again/.Trash-0/files/a"
    expect "$(tavro trash /here/sub/b)" "/here/sub/b -> /here/sub/.Trash-0/files/b"
    [[ -f /one/.Trash-0/files/a && -f /one/sub/.Trash-0/files/b ]]
    expect "$(tavro list | cut -f 4 | sort)" "/here/sub/b
/one/a"
    tavro undo
    [[ -f /one/sub/b ]]
    tavro undo
    [[ -f /one/a ]]'
}

@test "the undo of a copy to a volume moves it to the trash of that, and a redo back" {
  in_own_root '
    mkdir d
    echo 1 >d/a
    tavro copy -q d /one/
    inode=$(stat -c %i /one/d/a)
    tavro undo -q
    [[ ! -e /one/d && ! -e /home/.local/share/Trash ]]
    expect "$(stat -c %i /one/.Trash-0/files/d/a)" "$inode"
    tavro redo -q
    expect "$(stat -c %i /one/d/a)" "$inode"
    expect "$(find /one/.Trash-0 -mindepth 2)" ""'
}

@test "a volume that does not answer is passed over within a second, and that is said" {
  [[ -c /dev/fuse ]] || skip 'there is no /dev/fuse'
  in_own_root '
    touch /one/a
    tavro trash -q /one/a
    mkdir /silent
    exec 9<>/dev/fuse
    mount -i -t fuse -o fd=9,rootmode=40000,user_id=0,group_id=0 silent /silent
    for command in list doctor "empty -f --older-than 1" "restore a"; do
      begin=$(date +%s%N)
      said=$(timeout -s KILL 20 $TAVRO $command 2>&1 9>&-) || exit
      (($(date +%s%N) - begin < 15000000000))
      expect "${said%%$'"'\\n'"'*}" "tavro: '"'/silent'"' does not answer and is skipped"
    done
    [[ -f /one/a ]]
    for command in list doctor "empty -f"; do
      said=$(timeout -s KILL 20 $TAVRO $command --volume /silent 2>&1 9>&-) && exit 1
      expect "$said" "tavro: Cannot look at '"'/silent'"': Connection timed out"
    done'
}

@test "history and list --here do not wait for a volume that does not answer" {
  [[ -c /dev/fuse ]] || skip 'there is no /dev/fuse'
  needs_strace
  in_own_root '
    tavro mkdir /silent >/dev/null
    mount -t tmpfs silent /silent
    mkdir /silent/d
    touch /silent/d/a b c
    tavro trash -q --home /silent/d/a
    tavro copy -q b /silent/d
    tavro trash -q c
    fails strace -qq -o /dev/null -e inject=renameat2:signal=KILL $TAVRO rename /silent/d/b x
    exec 9<>/dev/fuse
    mount -i -t fuse -o fd=9,rootmode=40000,user_id=0,group_id=0 silent /silent
    why="Cannot look at '"'/silent'"': Connection timed out"
    for command in history "history --json" "list --here" "empty -f --here --older-than 1"; do
      timeout -s KILL 20 $TAVRO $command >"/tmp/${command// /}" 2>/tmp/said 9>&-
      [[ $command = history* ]] ||
        expect "$(cat /tmp/said)" "tavro: '"'/silent'"' does not answer and is skipped"
    done
    expect "$(grep -c "rename .*(interrupted: $why)$" /tmp/history)" 1
    expect "$(grep -c "(cannot be undone: $why)$" /tmp/history)" 3
    expect "$(grep -c "trash  /here/c$" /tmp/history)" 1
    expect "$(grep -c "\"reason\": \"$why\"" /tmp/history--json)" 4
    expect "$(cut -f 4 /tmp/list--here)" /here/c'
}

@test "the trash of a volume is neither trashed nor moved nor deleted" {
  in_own_root '
    mkdir -m 1777 /two/.Trash
    mkdir -p /one/d/.Trash-0/files
    touch /one/a /two/a
    tavro trash -q /one/a /two/a
    for trash in /one/.Trash-0 /one/.Trash-0/files /one/.Trash-0/info /two/.Trash /two/.Trash/0 /two/.Trash/0/files; do
      fails tavro trash $trash
      fails tavro delete -f $trash
      fails tavro rename $trash x
      fails tavro move -q $trash /home
      [[ -d $trash ]]
    done 2>/tmp/said
    fails tavro trash /one/.Trash-0/files/a 2>>/tmp/said
    expect "$(grep -c "it is the trash$" /tmp/said)" 8
    expect "$(grep -c "it is a directory of the trash$" /tmp/said)" 12
    expect "$(grep -c "it holds the trash$" /tmp/said)" 4
    expect "$(grep -c "it is in the trash already$" /tmp/said)" 1
    tavro trash -q /one/d/.Trash-0/files
    tavro delete -f /one/.Trash-0/files/a'
}

@test "what was cut off on a volume is undone or resumed" {
  needs_strace
  in_own_root '
    for after in undo resume; do
      for cut in syncfs:signal=KILL:when=1 renameat2:signal=KILL:when=1 renameat2:signal=KILL:when=2; do
        echo 1 >/one/a
        echo 2 >/one/b
        fails strace -qq -o /dev/null -e inject=$cut $TAVRO trash -q /one/a /one/b
        tavro history | grep -q interrupted
        tavro $after -q
        if [[ $after = resume ]]; then
          expect "$(find /one -type f | sort)" "/one/.Trash-0/files/a
/one/.Trash-0/files/b
/one/.Trash-0/info/a.trashinfo
/one/.Trash-0/info/b.trashinfo"
          tavro undo -q
        fi
        expect "$(cat /one/a /one/b)" "1
2"
        expect "$(find /one/.Trash-0 -type f)" ""
      done
    done'
}

@test "an emptying of several volumes that was cut off is finished" {
  needs_strace
  in_own_root '
    for way in "empty -f" "empty -f -q"; do
      touch /one/a /two/a /here/a
      tavro trash -q /one/a /two/a /here/a
      fails strace -qq -o /dev/null -e trace=unlinkat -e inject=unlinkat:signal=KILL:when=3 $TAVRO $way
      [[ $(find /one /two /home/.local/share/Trash -type f) ]]
      tavro resume -q
      expect "$(find /one /two /home/.local/share/Trash -type f)" ""
    done'
}

@test "an undo takes nothing from another volume at the same place" {
  in_own_root '
    mkdir /v /A /B
    mount -t tmpfs A /A
    mount -t tmpfs B /B
    echo precious >/B/a
    mount --bind /A /v
    cd /home
    echo mine >a
    tavro move -q a /v/
    umount /v
    mount --bind /B /v
    expect "$(stat -c %i /A/a)" "$(stat -c %i /B/a)"
    fails tavro undo 2>/tmp/said
    grep -q "is not what it was: another file is there now" /tmp/said
    expect "$(cat /B/a)" precious
    umount /v
    mount --bind /A /v
    tavro undo -q
    expect "$(cat a)" mine'
}

@test "no link on a volume leads a restore out of it" {
  in_own_root '
    mkdir /one/link /one/real
    touch /one/link/x /one/link/y /one/link/z
    tavro trash -q /one/link/x /one/link/y /one/link/z
    rmdir /one/link
    ln -s /home /one/link
    long=$(printf "%0200d/%.0s" {1..21})
    sed "s|^Path=.*|Path=link/${long}x|" /one/.Trash-0/info/x.trashinfo >/one/.Trash-0/info/deep.trashinfo
    touch /one/.Trash-0/files/deep
    expect "$(tavro restore x 2>&1 || :)" "tavro: Cannot restore '"'/one/link/x'"': a link in its path leads out of '"'/one'"'"
    for how in "x y" "/one/link/x" "--here *" deep; do
      cd /one
      fails tavro restore $how 2>/dev/null
    done
    fails tavro restore --keep-both y
    expect "$(ls /home)" ""
    [[ $(tavro history) == *"(cannot be undone: Cannot restore "*"leads out of "* ]]
    said=$(tavro undo --skip 2>&1) || :
    [[ $said == *"Cannot restore "*"/one/link/"*": a link in its path leads out of "* ]]
    expect "$(ls /home)" ""
    tavro restore -q --to /one/link x
    [[ -f /home/x ]]
    rm /one/link
    ln -s real /one/link
    tavro restore -q y
    [[ -f /one/real/y ]]'
}

@test "an undo removes no record of another trash through a link on a volume" {
  in_own_root '
    echo 1 >/one/a
    echo 2 >/here/a
    tavro trash -q /one/a
    tavro trash -q /here/a
    rm -r /one/.Trash-0/info
    ln -s /home/.local/share/Trash/info /one/.Trash-0/info
    tavro undo -q 1
    expect "$(cat /one/a)" 1
    [[ -f /home/.local/share/Trash/info/a.trashinfo ]]
    tavro undo -q
    expect "$(cat /here/a)" 2'
}

@test "a new trash of a volume is on the disk before anything goes there" {
  needs_strace
  in_own_root '
    touch /one/a /one/b
    waits() { strace -f -y -qq -o /tmp/calls -e trace=fsync,syncfs,renameat2 $TAVRO trash -q $1; }
    waits /one/a
    expect "$(grep -o "fsync([0-9]*</one[^>]*\|renameat2(.*/one/.Trash-0/files>" /tmp/calls | sed "s/.*</</;s/>$//")" "</one
</one/.Trash-0
</one/.Trash-0
</one/.Trash-0/info/a.trashinfo
</one/.Trash-0/files
</one"
    waits /one/b
    expect "$(grep -c "</one/.Trash-0>" /tmp/calls)" 0
    touch /two/a /two/b
    TAVRO_SYNC=no waits /two/a
    expect "$(grep -c sync /tmp/calls)" 0'
}

@test "an undo restores nothing from the trash of another volume at the same place" {
  in_own_root '
    mkdir /v /A /B
    mount -t tmpfs A /A
    mount -t tmpfs B /B
    for volume in /B /A; do
      mount --bind $volume /v
      echo $volume >/v/a
      tavro trash -q /v/a
      [[ $volume == /A ]] || umount /v
    done
    [[ $(stat -c %i /A/.Trash-0/files/a) = $(stat -c %i /B/.Trash-0/files/a) ]]
    record=/B/.Trash-0/info/a.trashinfo
    sed -i "s/^DeletionDate=.*/DeletionDate=2020-01-01T00:00:00/" $record
    touch -d 2020-01-01 $record
    umount /v
    mount --bind /B /v
    fails tavro undo 2>/tmp/said
    grep -q "is not what it was: what was at ./v/a. at another time is there now" /tmp/said
    umount /v
    mount --bind /A /v
    tavro undo -q
    expect "$(cat /v/a)" /A'
}

@test "a record on a volume leads nowhere else" {
  in_own_root '
    mkdir -p -m 700 /one/.Trash-0/files /one/.Trash-0/info
    chmod 700 /one/.Trash-0
    echo evil >/one/.Trash-0/files/photo.jpg
    printf "[Trash Info]\nPath=/home/.bashrc\nDeletionDate=2026-01-01T00:00:00\n" >/one/.Trash-0/info/photo.jpg.trashinfo
    fails tavro restore "*.jpg"
    fails tavro restore photo.jpg
    [[ ! -e /home/.bashrc ]]
    fails tavro doctor >/dev/null
    printf "[Trash Info]\nPath=/one/photo.jpg\nDeletionDate=2026-01-01T00:00:00\n" >/one/.Trash-0/info/photo.jpg.trashinfo
    tavro restore -q photo.jpg
    [[ -e /one/photo.jpg ]]'
}

@test "what a copy or a move replaces goes to the trash of its own volume, and comes back by a rename" {
  in_own_root '
    for act in copy move; do
      for from in /here /one; do
        echo old >/one/a
        mkdir -p /one/d $from/s
        echo new >$from/s/a
        inode=$(stat -c %i /one/a)
        tavro $act -q $from/s/a /one/ --on-conflict overwrite
        expect "$(cat /one/a /one/.Trash-0/files/a)" "new
old"
        expect "$(sed -n 2p /one/.Trash-0/info/a.trashinfo)" Path=a
        expect "$(stat -c %i /one/.Trash-0/files/a)" "$inode"
        tavro undo -q
        expect "$(cat /one/a)" old
        expect "$(stat -c %i /one/a)" "$inode"
        tavro redo -q
        expect "$(cat /one/a /one/.Trash-0/files/a)" "new
old"
        tavro undo -q
        expect "$(cat /one/a)" old
        echo merged >/one/d/b
        mkdir $from/s/d
        echo new >$from/s/d/b
        tavro $act -q $from/s/d /one/ --on-conflict overwrite
        expect "$(cat /one/d/b /one/.Trash-0/files/b)" "new
merged"
        tavro undo -q
        expect "$(cat /one/d/b)" merged
        [[ ! -e /home/.local/share/Trash ]]
        rm -rf /one/* /one/.Trash-0 $from/s
      done
    done'
}

@test "where its volume takes no trash, what is replaced goes to the home trash" {
  in_own_root '
    echo old >/one/a
    echo new >/here/a
    touch /one/.Trash-0
    tavro copy -q /here/a /one/ --on-conflict overwrite
    expect "$(cat /one/a /home/.local/share/Trash/files/a)" "new
old"
    tavro undo -q
    expect "$(cat /one/a)" old
    tavro redo -q
    TAVRO_TRASH=home tavro undo -q
    expect "$(cat /one/a)" old
    rm /one/.Trash-0
    TAVRO_TRASH=home tavro copy -q /here/a /one/ --on-conflict overwrite
    expect "$(cat /one/a) $(ls -A /one)" "new a"
    tavro undo -q
    expect "$(cat /one/a)" old'
}

@test "a replacement on a volume that is cut off is undone or resumed, and leaves no record" {
  needs_strace
  in_own_root '
    tavro trash -q "$(mktemp -p /one)"
    tavro empty -fq
    for after in undo resume; do
      for cut in syncfs fsync renameat2; do
        for when in 1 2 3 4; do
          echo old >/one/a
          echo new >/here/a
          strace -qq -o /dev/null -e inject=$cut:signal=KILL:when=$when $TAVRO copy -q /here/a /one/ \
            --on-conflict overwrite || tavro $after -q || :
          case $(cat /one/a) in
            new) expect "$(cat /one/.Trash-0/files/a) $(ls /one/.Trash-0/info)" "old a.trashinfo" ;;
            old) expect "$(ls /one/.Trash-0/info)" "$(ls /one/.Trash-0/files | sed s/$/.trashinfo/)" ;;
            *) expect "$(cat /one/a 2>&1)" "old or new" ;;
          esac
          expect "$(find /one -name ".tavro-*")" ""
          tavro history --drop >/dev/null
          tavro empty -fq
        done
      done
    done'
}

@test "the redo of what was trashed with --home goes to the home trash again" {
  in_own_root '
    echo 1 >/one/a
    mkdir /one/d
    tavro trash -q --home /one/a /one/d
    tavro undo -q
    tavro redo -q
    expect "$(cat /home/.local/share/Trash/files/a) $(ls -A /one)" "1 "
    tavro undo -q
    expect "$(cat /one/a)" 1
    tavro trash -q /one/d
    tavro undo -q
    tavro redo -q
    [[ -d /one/.Trash-0/files/d ]]'
}

@test "a subvolume of btrfs that is not mounted has no trash of its own, and no trash is seen twice" {
  command -v mkfs.btrfs >/dev/null || skip 'mkfs.btrfs is not installed (btrfs-progs)'
  grep -qw btrfs /proc/filesystems || modprobe -q btrfs 2>/dev/null || skip 'the kernel has no btrfs'
  in_own_root '
    truncate -s 200M /tmp/image
    mkfs.btrfs -q /tmp/image 2>/dev/null
    mount -o loop /tmp/image /one
    for sub in /one/plain /one/mounted; do btrfs -q subvolume create $sub; done
    mkdir /one/d /here/sub
    btrfs -q subvolume create /one/d/inner
    mount -o subvol=mounted "$(df --output=source /one | tail -n 1)" /here/sub
    echo 1 >/one/a
    echo 2 >/one/plain/b
    echo 3 >/here/sub/c
    echo 4 >/one/d/inner/e
    echo 5 >/one/mounted/f
    expect "$(tavro trash /one/a)" "/one/a -> /one/.Trash-0/files/a"
    fails tavro trash --no-copy /one/plain/b 2>/dev/null
    expect "$(tavro trash /one/plain/b 2>/dev/null)" "/one/plain/b -> /home/.local/share/Trash/files/b"
    expect "$(tavro trash /here/sub/c)" "/here/sub/c -> /here/sub/.Trash-0/files/c"
    expect "$(tavro trash /one/d)" "/one/d -> /one/.Trash-0/files/d"
    tavro trash -q /one/mounted/f
    expect "$(tavro list | cut -f 4 | sort)" "/here/sub/c
/one/a
/one/d
/one/mounted/f
/one/plain/b"
    expect "$(tavro list --volume /here/sub | cut -f 4)" /here/sub/c
    expect "$(tavro list --volume /one/plain | cut -f 4 | sort)" "/one/a
/one/d"
    for id in 1 2 3 4 5; do tavro undo -q; done
    expect "$(cat /one/a /one/plain/b /here/sub/c /one/d/inner/e /one/mounted/f)" "1
2
3
4
5"
    expect "$(tavro list)" ""
    tavro move -q /one/plain/b /here/sub/
    tavro copy -q /one/d /one/plain/
    tavro undo -q
    tavro undo -q
    expect "$(cat /one/plain/b)" 2
    [[ ! -e /one/plain/d && ! -e /here/sub/b ]]
    expect "$(tavro doctor)" "The trash is in order"'
}

# at_a_stick MAKE MOUNT: works on a file system that has no modes and no lasting numbers of files.
at_a_stick() {
  in_own_root "
    truncate -s 64M /tmp/image
    $1 /tmp/image >/dev/null
    mount_it() { $2; }
    trap 'umount /one' EXIT"'
    mount_it
    mkdir /one/d
    echo 1 >/one/a
    echo 2 >/one/d/b
    expect "$(tavro trash /one/a /one/d)" "/one/a -> /one/.Trash-0/files/a
/one/d -> /one/.Trash-0/files/d"
    expect "$(tavro list --volume /one | cut -f 2- | sort)" "2	a	/one/a
2	d	/one/d"
    tavro undo -q
    expect "$(cat /one/a /one/d/b)" "1
2"
    tavro redo -q
    tavro restore -q a d
    expect "$(cat /one/a /one/d/b)" "1
2"
    touch -d "2024-01-01 10:00:01.5" c
    tavro copy -q c /one/
    expect "$(tavro undo)" "Undid copy: moved /one/c to the trash (0 bytes)"
    [[ ! -e /one/c && -f /one/.Trash-0/files/c ]]
    tavro redo -q
    [[ -f /one/c ]]
    tavro copy -q --on-conflict overwrite c /one/a
    expect "$(wc -c </one/a)" 0
    tavro undo -q
    expect "$(cat /one/a)" 1
    tavro move -q c /one/d/
    tavro undo -q
    [[ -f c && ! -e /one/d/c ]]
    tavro mkdir /one/x/y >/dev/null
    tavro undo -q
    [[ ! -e /one/x ]]
    expect "$(tavro doctor)" "The trash is in order"
    tavro empty -f -q
    tavro trash -q /one/a /one/d
    umount /one
    mount_it
    expect "$(tavro list | cut -f 4 | sort)" "/one/a
/one/d"
    [[ $(tavro history) != *"nothing is left to undo"* ]]
    tavro undo -q 2>/dev/null || tavro restore -q a d
    expect "$(cat /one/a /one/d/b)" "1
2"'
}

@test "a stick with FAT is trashed to, listed, restored from and undone" {
  command -v mkfs.vfat >/dev/null || skip 'mkfs.vfat is not installed (dosfstools)'
  grep -qw vfat /proc/filesystems || modprobe -q vfat 2>/dev/null || skip 'the kernel has no vfat'
  at_a_stick mkfs.vfat 'mount -t vfat -o loop /tmp/image /one'
}

@test "a stick with exFAT, by FUSE, is trashed to, listed, restored from and undone" {
  command -v mkfs.exfat >/dev/null || skip 'mkfs.exfat is not installed (exfatprogs)'
  command -v mount.exfat-fuse >/dev/null || skip 'mount.exfat-fuse is not installed (exfat-fuse)'
  [[ -c /dev/fuse ]] || skip 'there is no /dev/fuse'
  at_a_stick mkfs.exfat 'loop=$(losetup -f --show /tmp/image)
    mount.exfat-fuse $loop /one >/dev/null 2>&1 3>&- &&
    losetup -d $loop'
}

@test "an interrupted undo does not take two files of one number on two file systems for one" {
  needs_strace
  in_own_root '
    export TAVRO_TRASH=home
    mkdir /one/d
    before=0 after=0 pad=0
    for try in {1..5}; do # until the old file in the trash and the new one have one number
      rm -rf /one/d/f /home/.local
      for ((i = 0; i < pad; ++i)); do touch /one/pad-$try-$i; done
      for ((i = 0; i > pad; --i)); do touch /home/pad-$try-$i; done
      echo old >/one/d/f
      echo new >/here/f
      tavro move -q --on-conflict overwrite /here/f /one/d/
      item=$(stat -c %i /home/.local/share/Trash/files/f) file=$(stat -c %i /one/d/f)
      before=$after after=$((item - file))
      ((after != 0)) || break
      pad=$((try == 1 ? 0 : after + after - before + pad))
    done
    ((item == file)) || { echo "no two files have one number"; exit 1; }
    strace -qq -o /dev/null -e inject=fchmod:signal=KILL $TAVRO undo -q || true
    [[ $(tavro history) == *interrupted* ]]
    tavro undo -q
    expect "$(cat /one/d/f /here/f)" "old
new"'
}

@test "what was interrupted between file systems is resumed, or undone, also after it failed and was rolled back" {
  needs_strace
  in_own_root '
    failing() { # COMMAND: b cannot be read, which comes last
      ! strace -qq -o /dev/null -e trace=openat -P b -e inject=openat:error=EIO $TAVRO "$1" 2>/tmp/said
      grep -q "Cannot read .*/b" /tmp/said
    }
    for what in undo redo; do
      for next in undo resume; do
        rm -rf /here/* /one/*
        echo 1 >a
        echo 2 >b
        echo 3 >c
        tavro move -q b a c /one/
        [[ $what == undo ]] || tavro undo -q
        strace -qq -o /dev/null -e trace=linkat -e inject=linkat:signal=KILL $TAVRO $what -q || true
        [[ $(tavro history) == *interrupted* ]]
        failing resume
        failing resume
        tavro $next -q
        if [[ $what$next == redoresume ]]; then
          expect "$(cat /one/*)" "1
2
3"
        else
          expect "$(cat /here/*)" "1
2
3"
        fi
        [[ $(tavro history) != *interrupted* ]]
      done
    done'
}
