#ifndef STAVIK_APP_EXIT_STATUS_H
#define STAVIK_APP_EXIT_STATUS_H

#include <cstdint>

#include "app/app_info.h"

namespace Stavik {
namespace App {

// Exit code of a child whose exec failed with an input/output error.
constexpr int IO_ERROR_EXIT_CODE = 125;

// A signal ended the process, and it is one that would leave a core; the
// core bit of the status is not looked at.
bool IsCoredumpSignal(int32_t status);

// Whether the process ended by exit with the given code.
bool IsSelfExit(int32_t status, int code);

// One line on how the process of app ended.
void ExitStatusLog(const AppInfo& app, int32_t status);

} // namespace App
} // namespace Stavik

#endif
