#pragma once

// `GUID`: a 32-bit field, two 16-bit fields and eight bytes, with `operator==`. Its text form is
// read and written by `ParseGuidText` and `FormatGuidText`.
#include "platform/GuidRecord.h"
