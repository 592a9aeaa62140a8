# Puts test sources behind each other, to be compiled at once: what each begins with, up to its last include, as it stands,
# and the rest in a namespace of its own, so that no two sources have to agree on their names.

FNR == 1 {
    endSource()
    source = FILENAME
    number++
    isOpen = 0
    printf "#line 1 \"%s\"\n", FILENAME
}

# In front of the first line that is neither empty nor a comment nor an include the namespace begins.
!isOpen && !/^[ \t]*$/ && !/^[ \t]*\/\// && !/^[ \t]*#/ {
    isOpen = 1
    printf "namespace United%d {\n#line %d \"%s\"\n", number, FNR, FILENAME
}

/^[ \t]*#[ \t]*define[ \t]/ {
    name = $0
    sub(/^[ \t]*#[ \t]*define[ \t]+/, "", name)
    sub(/[^A-Za-z0-9_].*/, "", name)
    macros[name]
}

{ print }

END { endSource() }

function endSource(    name) {
    if (isOpen)
        print "}"
    for (name in macros)
        print "#undef " name
    split("", macros)
}
