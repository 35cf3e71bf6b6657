#ifndef STAVIK_APP_PROCESS_STATE_H
#define STAVIK_APP_PROCESS_STATE_H

#include <cstdint>

namespace Stavik {

// Supervision state of one application record.
enum ProcessState : int32_t {
    INITSTATE = 0,
    STARTING = 1,
    RUNNING = 2,
    TERMINATING = 3,
    TERMINATED = 4,
    RESTARTING = 5,
};

// One-shot verdict of a check step: what the owners have to be told.
enum ReportAppStateType : int32_t {
    RUNNING_NORMAL_START = 0,
    RUNNING_NORMAL_RESTART = 1,
    RUNNING_ABNORMAL_TERM_TIMEOUT = 2,
    TERMINATED_NORMAL_EXIT = 3,
    TERMINATED_ABNORMAL_EXIT = 4,
    INVALID_INTERMEDIATE_STATE = 5,
};

// Why a process ended, as far as the owners and the restart policy care.
enum TerminatedReason : uint32_t {
    REASON_NONE = 0,
    REASON_IO_ERROR = 1,
    REASON_COREDUMP = 2,
};

} // namespace Stavik

#endif
