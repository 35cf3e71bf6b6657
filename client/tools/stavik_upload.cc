// stavik-upload: announces a running process that the daemon did not start, so
// that the daemon watches it, reports it to the naming service and joins it to
// its sharepool groups. Prints one JSON line; docs/upload-tool.md describes the
// options, the exit codes and the protocol.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "channel/serialization_upload.h"
#include "tubix.h"

namespace {

using json = nlohmann::ordered_json;
using SkUpload::LoadAppInfo;
using SkUpload::UploadResponse;

const char UPLOAD_SERVER[] = "STAVIK";
const int EXIT_REFUSED = 1;
const int EXIT_UNREACHED = 2;
// Rounds in a row that bring no new name before the tool gives up: a name too
// long for any response is never sent.
const int STALLED_ROUNDS_MAX = 3;
const uint32_t RESPONSE_BUFFER = 65536;

const char FORMS[] = R"(Forms, one example each:
  announce process 4711, joining every group read-write:
    stavik-upload --procName video_tool --pid 4711 --rw all
  announce process 4711, joining G_VIDEO read-write and G_AUDIO with allocation:
    stavik-upload --procName video_tool --pid 4711 --rw G_VIDEO --alloc G_AUDIO
  a wrapper script that announces itself (the tool's parent) and runs its program:
    stavik-upload --procName video_tool && exec /usr/bin/video_tool

Prints {"ok":...,"whitelisted":...,"groups":[...]}. Exit status: 0 accepted,
1 refused, 2 daemon not reached or no full answer. The daemon serves this only
with skupload enabled in /etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml.
More: man stavik-upload, or docs/upload-tool.md.)";

struct Options {
    std::string procName;
    int32_t pid = 0;
    std::string binPath;
    std::vector<std::string> rw;
    std::vector<std::string> alloc;
    int timeoutMs = 5000;
};

std::string ExePath(int32_t pid)
{
    char path[PATH_MAX] = {};
    ssize_t length = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof(path) - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

// The real group of the process, or the tool's own when it can't be read.
uint32_t ProcessGid(int32_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (status >> key) {
        if (key == "Gid:") {
            uint32_t gid = 0;
            if (status >> gid) {
                return gid;
            }
            break;
        }
        status.ignore(INT_MAX, '\n');
    }
    return static_cast<uint32_t>(getgid());
}

int Fail(const std::string& why)
{
    fprintf(stderr, "stavik-upload: %s\n", why.c_str());
    return EXIT_UNREACHED;
}

bool Ask(int32_t fd, const LoadAppInfo& info, int timeoutMs, UploadResponse& response, std::string& error)
{
    SkUpload::SkUploadRequest record;
    if (!SkUpload::PackInfoRequest(info, record)) {
        error = "the request does not fit " + std::to_string(sizeof(record)) +
                " bytes; give shorter names, or fewer groups (--rw all names every group in one word)";
        return false;
    }
    TubixRequest req{0, &record, static_cast<uint32_t>(sizeof(record))};
    std::string buffer(RESPONSE_BUFFER, '\0');
    TubixResponse resp{0, &buffer[0], RESPONSE_BUFFER};
    int32_t rc = TubixTimedRPCSync(fd, &req, &resp, static_cast<uint32_t>(timeoutMs));
    if (rc < 0) {
        error = "no answer from the daemon (" + std::to_string(rc) + "); raise --timeout-ms, or look for " +
                "\"SkHandleRequest\" lines in the daemon's log";
        return false;
    }
    if (!SkUpload::ReadUploadResponse(buffer.substr(0, resp.size), response)) {
        error = "the daemon sent an empty or malformed answer; look for \"SkHandleRequest\" lines in its log";
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    Options options;
    CLI::App app{"Announces a running process to the Stavik daemon and prints the answer as JSON."};
    app.add_option("--procName", options.procName, "Name under which the process is known")->required();
    app.add_option("--pid", options.pid, "Process to announce (default: the parent of this tool)");
    app.add_option("--binPath", options.binPath, "Executable of the process (default: /proc/<pid>/exe)");
    app.add_option("--rw", options.rw, "Groups to join read-write, comma separated, or all")->delimiter(',');
    app.add_option("--alloc", options.alloc, "Groups to join with allocation, comma separated")->delimiter(',');
    app.add_option("--timeout-ms", options.timeoutMs, "Bound of the connection and of each answer")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.footer(FORMS);
    CLI11_PARSE(app, argc, argv);
    setenv("PROC_NAME", "stavik-upload", 0);

    LoadAppInfo info;
    info.pidAppName = options.procName;
    info.pid = options.pid > 0 ? options.pid : static_cast<int32_t>(getppid());
    info.binPath = options.binPath.empty() ? ExePath(info.pid) : options.binPath;
    info.gid = ProcessGid(info.pid);
    info.rwGroups = options.rw;
    info.allocGroups = options.alloc;

    TubixOpenParam param{};
    param.procName = UPLOAD_SERVER;
    param.handler = [](int32_t, const TubixRequest*) {};
    param.msgMode = 1;
    param.retryOnMissing = 1;
    param.timeoutMs = options.timeoutMs;
    int32_t fd = TubixOpen(&param);
    if (fd <= 0) {
        return Fail("cannot reach the daemon's upload server (" + std::to_string(fd) +
                    "); check that stavik-daemon runs with this TUBIX_DIR and that skupload is enabled in its "
                    "stavik_cfg.yaml");
    }
    UploadResponse first;
    std::vector<std::string> names;
    int stalled = 0;
    std::string error;
    for (bool done = false; !done;) {
        UploadResponse response;
        if (!Ask(fd, info, options.timeoutMs, response, error)) {
            TubixClosePipe(fd);
            return Fail(error);
        }
        if (!info.isResume) {
            first = response;
        }
        names.insert(names.end(), response.names.begin(), response.names.end());
        stalled = response.names.empty() ? stalled + 1 : 0;
        done = response.remaining == 0;
        if (!done && stalled >= STALLED_ROUNDS_MAX) {
            TubixClosePipe(fd);
            return Fail("no progress: " + std::to_string(response.remaining) +
                        " group names can't be fetched; shorten the longest group names in /etc/sharepool");
        }
        info.isResume = true;
        info.receivedMemGroupsNum += response.names.size();
    }
    TubixClosePipe(fd);
    json out{{"ok", first.ok}, {"whitelisted", first.isWhiteListed}, {"groups", names}};
    printf("%s\n", out.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    if (!first.ok) {
        fprintf(stderr, "stavik-upload: refused: a live process announced as %s, or an application of that name, "
                        "is known to the daemon; choose another --procName or end the other one first\n",
                options.procName.c_str());
    }
    return first.ok ? 0 : EXIT_REFUSED;
}
