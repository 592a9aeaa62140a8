# Reads sources and headers, named from the top of the repository, and reports each line that breaks the order.

BEGIN {
    # A folder may use those of its own rank and below. treestore/ is loaded at run time and uses no other folder.
    rank["platform"] = 0; rank["foundation"] = 1; rank["VirtualServer"] = 2; rank["ntfs"] = 3; rank["archive"] = 4
    rank["hypervisor"] = 6; rank["agent"] = 7; rank["tool"] = 8
    rank["examples"] = rank["bench"] = rank["fuzz"] = rank["tests"] = 9
    core = 4
    # CDRVolume hands the directory tree to CCreateMFTTree: the one place where ntfs/ looks up.
    upward = "archive/CreateMFTTree.h"
    # Of NTFS the archive side knows file records and the formats of the metadata, and nothing that reads a volume.
    fileRecords = "^ntfs/(DRFileRecord[.]h|NtfsResults[.]h|detail/)"
    thirdParty = "^(sqlite3|zstd|zstd_errors|zdict|xxhash|libnbd|zlib|openssl/|nlohmann/|CLI/|gtest/|gmock/|benchmark/)"
}

FNR == 1 {
    folder = FILENAME
    sub(/\/.*/, "", folder)
    inPlatform = FILENAME ~ /(^|\/)platform\//
}

/^[ \t]*#[ \t]*include/ {
    name = $0
    sub(/^[ \t]*#[ \t]*include[ \t]*["<]/, "", name)
    sub(/[">].*/, "", name)
    if ($0 ~ /include[ \t]*"/)
        own(name)
    else
        foreign(name)
}

/^[ \t]*#[ \t]*(if|ifdef|ifndef|elif)/ && /_WIN32|_WIN64|__linux__|__unix__|__APPLE__|__MINGW/ && !inPlatform {
    report("only platform/ asks which system it is")
}

END { exit failures > 0 }

function own(name,    other) {
    other = name
    sub(/\/.*/, "", other)
    if (!exists(name))
        return report("an include in quotes names a file from the top of the repository")
    if (other == folder)
        return
    if (FILENAME ~ /^ntfs\/DRVolume[A-Za-z]*\.(cpp|h)$/ && name == upward)
        return
    if (folder == "treestore" || (other == "treestore" && folder != "tests"))
        return report(folder "/ and " other "/ know nothing of each other")
    if (other == "treestore")
        return  # its tests
    if (!(folder in rank) || !(other in rank))
        return report("the order of the house doesn't know this folder")
    if (rank[other] > rank[folder])
        return report(folder "/ may not use " other "/")
    if (folder == "archive" && other == "ntfs" && name !~ fileRecords)
        return report("archive/ uses file records only")
}

function exists(name) {
    if (!(name in known))
        known[name] = system("test -f '" name "'") == 0
    return known[name]
}

function foreign(name) {
    if (!(folder in rank) || rank[folder] > core)
        return
    if (name ~ thirdParty)
        report("the core uses no other library")
    else if (folder != "platform" && name ~ /[.\/]/)
        report("only platform/ includes headers of the system")
}

function report(why) {
    print FILENAME ":" FNR ": " $0 "\n    " why
    failures++
}
