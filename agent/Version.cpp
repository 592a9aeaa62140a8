#include "agent/Version.h"

const char* DiskstreamVersion() {
    return DISKSTREAM_VERSION;  // the build tells it, so that it stands in one place
}
