#include <rpc.h>

#include "platform/NewGuid.h"

int MakeGuid(GUID& guid) {
    const RPC_STATUS status = UuidCreate(&guid);
    return status == RPC_S_OK || status == RPC_S_UUID_LOCAL_ONLY ? 0 : static_cast<int>(status);
}
