#ifndef STAVIK_RESOURCE_SYS_OPERATOR_H
#define STAVIK_RESOURCE_SYS_OPERATOR_H

#include <cstdint>

#include "zul.h"

// The system operator service: scheduling, thread binding and sharepool group
// operations for other processes of the board, as ioctls on the resource
// "/res/stavik/sys_server". It keeps no state: it checks the size of each
// record and forwards the request; the outcome goes into the record's result.
// The entries run on threads of the naming-service library.

namespace Stavik {

int32_t SysOperatorOpen(ZulFile* file);
int32_t SysOperatorClose(ZulFile* file);
// -1 for a missing record, a command beyond the table or a record of the
// wrong size; else what the command's handler returns, 0 once it did its work.
int32_t SysOperatorIoctl(ZulFile* file, uint32_t cmd, ZulIoctlArg* arg);

} // namespace Stavik

#endif
