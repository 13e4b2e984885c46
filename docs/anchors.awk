# Makes a Markdown page ready for Doxygen: each heading gets the name under which Git's web pages know
# it, and what those link to outside the reference is named without a link.
/^##+ / {
    name = tolower($0)
    gsub(/^#+ |[^a-z0-9 _-]/, "", name)
    gsub(/ /, "-", name)
    $0 = $0 " {#" name "}"
}
{
    while (match($0, /\[[^]]*\]\((\.\.\/|examples)[^)]*\)/)) {
        link = substr($0, RSTART + 1, RLENGTH - 1)
        text = substr(link, 1, index(link, "]") - 1)
        $0 = substr($0, 1, RSTART - 1) text substr($0, RSTART + RLENGTH)
    }
    print
}
