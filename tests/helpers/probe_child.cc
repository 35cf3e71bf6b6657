// A child for the tests: records what it was given, then lives, exits or
// crashes as told.
//   probe_child [--out FILE] [--out-dir DIR] [--exit CODE] [--after-ms N]
//               [--signal SIG] [--no-core] [--die-while FILE] [--ignore-term]
//               [--threads N]
// The record holds one "key=value" line each: uid, gid, groups, nice, policy,
// rtprio (the RLIMIT_RTPRIO soft limit), pid, ppid, boottime_ns (start, on
// CLOCK_BOOTTIME), argv, env.NAME for every variable, and fd.N for every
// descriptor it was given (its target). --out-dir writes it
// to DIR/<pid>, so that every incarnation of a restarted service keeps its own.
// A planned death (--exit or --signal) appends exit_boottime_ns just before it
// happens. --die-while makes that death conditional on FILE existing at the
// start; otherwise the child lives on. --no-core keeps a fatal signal from
// writing a core file. --threads starts N more threads that only wait, named
// "probe_worker", before the record is written.
#include <dirent.h>
#include <grp.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

extern char** environ;

namespace {

struct Plan {
    std::string out;
    int exitCode = -1;
    long afterMs = 0;
    int signal = 0;
    bool ignoreTerm = false;
    bool noCore = false;
    int threads = 0;
};

Plan ReadPlan(int argc, char* argv[])
{
    Plan plan;
    const char* dieWhile = nullptr;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        bool hasValue = i + 1 < argc;
        if (word == "--out" && hasValue) {
            plan.out = argv[++i];
        } else if (word == "--out-dir" && hasValue) {
            plan.out = std::string(argv[++i]) + "/" + std::to_string(getpid());
        } else if (word == "--no-core") {
            plan.noCore = true;
        } else if (word == "--exit" && hasValue) {
            plan.exitCode = atoi(argv[++i]);
        } else if (word == "--after-ms" && hasValue) {
            plan.afterMs = atol(argv[++i]);
        } else if (word == "--signal" && hasValue) {
            plan.signal = atoi(argv[++i]);
        } else if (word == "--ignore-term") {
            plan.ignoreTerm = true;
        } else if (word == "--threads" && hasValue) {
            plan.threads = atoi(argv[++i]);
        } else if (word == "--die-while" && hasValue) {
            dieWhile = argv[++i];
        }
    }
    if (dieWhile != nullptr && access(dieWhile, F_OK) != 0) {
        plan.exitCode = -1;
        plan.signal = 0;
    }
    return plan;
}

unsigned long long BootTimeNs()
{
    struct timespec now {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000000ULL + static_cast<unsigned long long>(now.tv_nsec);
}

// Where the listening socket named by TUBIX_LISTEN_FD listens, or "none".
std::string ListenPath()
{
    const char* value = getenv("TUBIX_LISTEN_FD");
    int listening = 0;
    socklen_t length = sizeof(listening);
    sockaddr_un address{};
    socklen_t addressLength = sizeof(address);
    int fd = value == nullptr ? -1 : atoi(value);
    if (fd < 0 || getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) != 0 || listening != 1 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) != 0) {
        return "none";
    }
    return address.sun_path;
}

// What the child was given open across exec, as "fd.N=target" lines; the
// record's own file and the listing's directory are left out.
void WriteOpenFds(FILE* out)
{
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return;
    }
    while (struct dirent* entry = readdir(dir)) {
        int fd = atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == dirfd(dir) || fd == fileno(out)) {
            continue;
        }
        char target[PATH_MAX] = {0};
        std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(link.c_str(), target, sizeof(target) - 1) > 0) {
            fprintf(out, "fd.%d=%s\n", fd, target);
        }
    }
    closedir(dir);
}

void WriteRecord(const std::string& path, int argc, char* argv[])
{
    unsigned long long started = BootTimeNs();
    std::string tmp = path + ".tmp";
    FILE* out = fopen(tmp.c_str(), "w");
    if (out == nullptr) {
        return;
    }
    gid_t groups[256];
    int count = getgroups(256, groups);
    std::string groupText;
    for (int i = 0; i < count; ++i) {
        groupText += (i == 0 ? "" : ",") + std::to_string(groups[i]);
    }
    struct rlimit rt {};
    getrlimit(RLIMIT_RTPRIO, &rt);
    errno = 0;
    int niceValue = getpriority(PRIO_PROCESS, 0);
    fprintf(out, "uid=%u\ngid=%u\ngroups=%s\nnice=%d\npolicy=%d\nrtprio=%lu\npid=%d\nppid=%d\nboottime_ns=%llu\n",
            getuid(), getgid(), groupText.c_str(), niceValue, sched_getscheduler(0),
            static_cast<unsigned long>(rt.rlim_cur), getpid(), getppid(), started);
    std::string args;
    for (int i = 0; i < argc; ++i) {
        args += (i == 0 ? "" : " ") + std::string(argv[i]);
    }
    fprintf(out, "argv=%s\n", args.c_str());
    fprintf(out, "listen_path=%s\n", ListenPath().c_str());
    for (char** entry = environ; *entry != nullptr; ++entry) {
        fprintf(out, "env.%s\n", *entry);
    }
    WriteOpenFds(out);
    fclose(out);
    // Renamed into place so that a reader never sees half a record.
    rename(tmp.c_str(), path.c_str());
}

void NoteDeath(const std::string& path)
{
    FILE* out = path.empty() ? nullptr : fopen(path.c_str(), "a");
    if (out != nullptr) {
        fprintf(out, "exit_boottime_ns=%llu\n", BootTimeNs());
        fclose(out);
    }
}

void PreventCore()
{
    struct rlimit none {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void SleepMs(long milliseconds)
{
    struct timespec request {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    struct timespec remaining {};
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) {
        request = remaining;
    }
}

void* WaitForever(void*)
{
    prctl(PR_SET_NAME, "probe_worker");
    while (true) {
        pause();
    }
    return nullptr;
}

void StartWaitingThread()
{
    pthread_t thread;
    if (pthread_create(&thread, nullptr, WaitForever, nullptr) == 0) {
        pthread_detach(thread);
    }
}

} // namespace

int main(int argc, char* argv[])
{
    Plan plan = ReadPlan(argc, argv);
    if (plan.ignoreTerm) {
        signal(SIGTERM, SIG_IGN);
    }
    for (int i = 0; i < plan.threads; ++i) {
        StartWaitingThread();
    }
    if (!plan.out.empty()) {
        WriteRecord(plan.out, argc, argv);
    }
    if (plan.afterMs > 0) {
        SleepMs(plan.afterMs);
    }
    if (plan.signal != 0) {
        if (plan.noCore) {
            PreventCore();
        }
        NoteDeath(plan.out);
        signal(plan.signal, SIG_DFL);
        raise(plan.signal);
    }
    if (plan.exitCode >= 0) {
        NoteDeath(plan.out);
        return plan.exitCode;
    }
    while (true) {
        pause();
    }
}
