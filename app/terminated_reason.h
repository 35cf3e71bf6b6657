#ifndef STAVIK_APP_TERMINATED_REASON_H
#define STAVIK_APP_TERMINATED_REASON_H

#include <cstdint>

#include "app/app_info.h"

namespace Stavik {
namespace App {

// Why the process of a record that the last check step found dead by itself
// ended (TerminatedReason): a core-dumping signal, an input/output error of
// the exec, or nothing of interest. Reports and the restart policy use it.
uint32_t GetTerminatedReason(const AppInfo& app);

} // namespace App
} // namespace Stavik

#endif
