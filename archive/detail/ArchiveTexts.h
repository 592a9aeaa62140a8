#pragma once

// What several operations of the archive side say of a failure.
constexpr char InvalidParameterText[] = "Invalid Parameter";
constexpr char OutOfMemoryText[] = "Out Of Memory";
constexpr char InvalidRecordText[] = "Invalid MFT Record";
