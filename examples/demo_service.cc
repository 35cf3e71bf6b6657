// A tiny service for the demo: tells who it is, then lives, or dies when told.
//   stavik-demo-service [--exit-after-ms N] [--exit-code C] [--report-running]
//                       [--hb-stop-after N] [--hb-resume-after N]
// --report-running takes the daemon's pipe and reports RUNNING, as a
// reporting base service does. With GRP_HB=1 in its environment it beats;
// --hb-stop-after falls silent N ms after the start, as if it hung, and
// --hb-resume-after beats again N ms later.
#include <grp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "client/heart_beat_client.h"
#include "client/owner_session.h"

namespace {

const int DAEMON_WAIT_MS = 10000;

struct Options {
    int exitAfterMs = -1;
    int exitCode = 0;
    bool reportRunning = false;
    int hbStopAfterMs = -1;
    int hbResumeAfterMs = -1;
};

Options ParseOptions(int argc, char* argv[])
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (strcmp(argv[i], "--report-running") == 0) {
            options.reportRunning = true;
        } else if (strcmp(argv[i], "--exit-after-ms") == 0 && hasValue) {
            options.exitAfterMs = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--exit-code") == 0 && hasValue) {
            options.exitCode = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--hb-stop-after") == 0 && hasValue) {
            options.hbStopAfterMs = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--hb-resume-after") == 0 && hasValue) {
            options.hbResumeAfterMs = atoi(argv[++i]);
        }
    }
    return options;
}

const char* OwnName()
{
    const char* name = getenv("PROC_NAME");
    return name != nullptr ? name : "?";
}

void Introduce()
{
    const char* name = OwnName();
    const char* restart = getenv("IS_RESTART");
    const char* role = getenv("DEMO_ROLE");
    gid_t groups[64];
    int count = getgroups(64, groups);
    std::string groupText;
    for (int i = 0; i < count; ++i) {
        groupText += (i == 0 ? "" : ",") + std::to_string(groups[i]);
    }
    fprintf(stderr, "demo-service %s: pid=%d uid=%u gid=%u groups=%s nice=%d IS_RESTART=%s DEMO_ROLE=%s\n",
            name, getpid(), getuid(), getgid(), groupText.c_str(), nice(0),
            restart != nullptr ? restart : "-", role != nullptr ? role : "-");
    const char* sharepool = getenv("SHAREPOOL_GROUP_NAME");
    if (sharepool != nullptr) {
        fprintf(stderr, "demo-service %s: SHAREPOOL_GROUP_NAME=%s\n", name != nullptr ? name : "?", sharepool);
    }
}

void SleepMs(long milliseconds)
{
    struct timespec request {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    struct timespec remaining {};
    while (nanosleep(&request, &remaining) == -1) {
        request = remaining;
    }
}

// The session lives as long as the process: the daemon keeps the pipe.
void ReportRunning()
{
    static Stavik::Client::OwnerSession session(OwnName());
    if (!session.Start() || !session.WaitForDaemon(DAEMON_WAIT_MS) ||
        !session.SendState(Stavik::Message::BaseServiceStateType::RUNNING)) {
        fprintf(stderr, "demo-service %s: can't report RUNNING: %s\n", OwnName(), session.LastError().c_str());
        return;
    }
    fprintf(stderr, "demo-service %s: reported RUNNING\n", OwnName());
}

void HeartBeatPlan(Options options)
{
    if (options.hbStopAfterMs < 0) {
        return;
    }
    SleepMs(options.hbStopAfterMs);
    Stavik::Client::PauseHeartBeat(true);
    fprintf(stderr, "demo-service %s: heart-beat stopped\n", OwnName());
    if (options.hbResumeAfterMs < 0) {
        return;
    }
    SleepMs(options.hbResumeAfterMs);
    Stavik::Client::PauseHeartBeat(false);
    fprintf(stderr, "demo-service %s: heart-beat resumed\n", OwnName());
}

} // namespace

int main(int argc, char* argv[])
{
    Options options = ParseOptions(argc, argv);
    Introduce();
    if (options.reportRunning) {
        ReportRunning();
    }
    if (Stavik::Client::StartHeartBeat()) {
        std::thread(HeartBeatPlan, options).detach();
    }
    if (options.exitAfterMs >= 0) {
        SleepMs(options.exitAfterMs);
        return options.exitCode;
    }
    while (true) {
        SleepMs(60000);
    }
}
