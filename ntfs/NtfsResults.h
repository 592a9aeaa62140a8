#pragma once

// What the operations of `ntfs/` and `archive/` answer: 0, or one of these. Each has a text, see `NtfsErrorText`.
constexpr int NtfsOk = 0;
constexpr int NtfsInvalidParameter = -1;
constexpr int NtfsOutOfMemory = -2;
constexpr int NtfsInvalidMftRecord = -3;
constexpr int NtfsRecordCorrupted = -4;
constexpr int NtfsEndOfRun = -5;  // the data is over
constexpr int NtfsOutOfRange = -6;
constexpr int NtfsTooManyRecords = -7;
constexpr int NtfsNoData = -8;
constexpr int NtfsRunTooWide = -9;
constexpr int NtfsNotInUse = -10;
constexpr int NtfsIsDirectory = -11;
constexpr int NtfsBadCompression = -12;
constexpr int NtfsNotAnIndex = -13;
constexpr int NtfsWrongCollation = -14;
constexpr int NtfsIndexCorrupted = -15;
constexpr int NtfsIndexNotFound = -16;
constexpr int NtfsIndexFound = -17;  // the success of a search
constexpr int NtfsNotBaseRecord = -18;
constexpr int NtfsAttributeNotFound = -19;
constexpr int NtfsTreeOpenFailed = -20;
constexpr int NtfsTreeInsertFailed = -21;
constexpr int NtfsTreeCloseFailed = -22;
constexpr int NtfsSeeLog = -23;  // the line logged just before tells the cause
constexpr int NtfsUnsupportedCluster = -24;
constexpr int NtfsQuit = -25;
