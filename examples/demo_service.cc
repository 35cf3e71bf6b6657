// A tiny service for the demo: tells who it is, then lives, or dies when told.
#include <grp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

struct Options {
    int exitAfterMs = -1;
    int exitCode = 0;
};

Options ParseOptions(int argc, char* argv[])
{
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--exit-after-ms") == 0) {
            options.exitAfterMs = atoi(argv[i + 1]);
        } else if (strcmp(argv[i], "--exit-code") == 0) {
            options.exitCode = atoi(argv[i + 1]);
        }
    }
    return options;
}

void Introduce()
{
    const char* name = getenv("PROC_NAME");
    const char* restart = getenv("IS_RESTART");
    const char* role = getenv("DEMO_ROLE");
    gid_t groups[64];
    int count = getgroups(64, groups);
    std::string groupText;
    for (int i = 0; i < count; ++i) {
        groupText += (i == 0 ? "" : ",") + std::to_string(groups[i]);
    }
    fprintf(stderr, "demo-service %s: pid=%d uid=%u gid=%u groups=%s nice=%d IS_RESTART=%s DEMO_ROLE=%s\n",
            name != nullptr ? name : "?", getpid(), getuid(), getgid(), groupText.c_str(), nice(0),
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

} // namespace

int main(int argc, char* argv[])
{
    Options options = ParseOptions(argc, argv);
    Introduce();
    if (options.exitAfterMs >= 0) {
        SleepMs(options.exitAfterMs);
        return options.exitCode;
    }
    while (true) {
        SleepMs(60000);
    }
}
