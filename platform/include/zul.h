#ifndef STAVIK_PLATFORM_ZUL_H
#define STAVIK_PLATFORM_ZUL_H

#include <cstddef>
#include <cstdint>
#include <string>

// The platform's naming service: a process publishes a resource by name with
// device-file style entries, and other processes open it and issue ioctls
// with a command number and a record that comes back as the handler left it.

// One open of a resource, handed to every entry of that open.
struct ZulFile {
    int32_t fd;             // descriptor of the client's connection
    uint32_t reserved;      // 0
    const char* resName;    // the resource name as registered
    const char* clientName; // the opener's $PROC_NAME, may be empty
    void* privateData;      // free for the Open entry; kept until Close
};

// The record of one ioctl: size bytes at data, read and written in place.
struct ZulIoctlArg {
    uint64_t size;
    void* data;
};
static_assert(offsetof(ZulIoctlArg, size) == 0 && offsetof(ZulIoctlArg, data) == 8, "ZulIoctlArg layout");

// 0 or more accepts the open; a negative result refuses it and the client is disconnected.
typedef int32_t (*ZulOpenEntry)(ZulFile* file);
typedef int32_t (*ZulCloseEntry)(ZulFile* file);
// Its result travels back to the client together with the record.
typedef int32_t (*ZulIoctlEntry)(ZulFile* file, uint32_t cmd, ZulIoctlArg* arg);

struct ZulServiceOps {
    void* reserved0;          // null
    void* reserved1;          // null
    ZulIoctlEntry ioctlEntry; // null answers every ioctl with -38
    ZulOpenEntry openEntry;   // null accepts every open
    ZulCloseEntry closeEntry; // may be null
    void* reserved5;          // null
};
static_assert(sizeof(ZulServiceOps) == 48, "ZulServiceOps layout is binding");
static_assert(offsetof(ZulServiceOps, ioctlEntry) == 16, "ZulServiceOps layout is binding");
static_assert(offsetof(ZulServiceOps, openEntry) == 24, "ZulServiceOps layout is binding");
static_assert(offsetof(ZulServiceOps, closeEntry) == 32, "ZulServiceOps layout is binding");

struct ZulServiceParam {
    const char* resName;        // resource name, for example "/res/stavik/sys_server"; copied
    const ZulServiceOps* ops;   // the entries; copied
    uint32_t timeoutMs;         // the board's reply time-out; the host library queues replies instead
};
static_assert(offsetof(ZulServiceParam, resName) == 0, "ZulServiceParam layout is binding");
static_assert(offsetof(ZulServiceParam, ops) == 8, "ZulServiceParam layout is binding");
static_assert(offsetof(ZulServiceParam, timeoutMs) == 16, "ZulServiceParam layout is binding");

// What a started application tells the naming service about itself.
struct AppConfig {
    std::string appName;
    std::string binPath;
};

// Publishes a resource; 0 or a negative code.
int32_t ZULRegisterService(const ZulServiceParam* param);
// Withdraws every resource this process registered; 0.
int32_t ZULRetrieveService();
// Runs in a freshly forked child before exec, after its identity switch: names
// the process after the application ($PROC_NAME) and makes its listening
// socket $TUBIX_DIR/<appName>, kept open across exec as $TUBIX_LISTEN_FD, so
// that the service can be connected to from before its main runs. 0, or -1
// with errno set. It never logs and makes only system calls and setenv.
int32_t ZULInitProc(const AppConfig& config);

#endif
