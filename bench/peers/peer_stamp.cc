// The service program of bench/peers.sh, the same binary under every
// supervisor: it appends its start and its exit, on CLOCK_MONOTONIC in
// nanoseconds, to the file of its service, one line each.
//   peer_stamp FILE MS             "start PID NS", lives MS ms (-1: for ever),
//                                  then "exit PID NS" and exits with 0
//   peer_stamp --reap FILE CMD...  runs CMD as its child, which first appends
//                                  "launch PID NS"; reaps that child and every
//                                  orphan of its tree until none is left
// The host's init does not reap orphans, so the supervisor runs under this
// reaper: whatever its services leave behind when it is killed ends here.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr long NS_PER_S = 1000000000L;

long long MonotonicNs()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * NS_PER_S + now.tv_nsec;
}

// One write of one whole line, so that the lines of a service never mix.
bool AppendStamp(const char* file, const char* word)
{
    char line[96];
    int length = snprintf(line, sizeof(line), "%s %d %lld\n", word, static_cast<int>(getpid()), MonotonicNs());
    int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        fprintf(stderr, "peer_stamp: cannot open %s: %s\n", file, strerror(errno));
        return false;
    }
    bool written = write(fd, line, length) == length;
    close(fd);
    return written;
}

void SleepMs(long ms)
{
    timespec left { ms / 1000, (ms % 1000) * 1000000L };
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

int Live(const char* file, const char* msText)
{
    char* end = nullptr;
    long ms = strtol(msText, &end, 10);
    if (*msText == '\0' || *end != '\0' || ms < -1) {
        fprintf(stderr, "peer_stamp: bad lifetime '%s'\n", msText);
        return 2;
    }
    if (!AppendStamp(file, "start")) {
        return 1;
    }
    if (ms < 0) {
        for (;;) {
            pause();
        }
    }
    SleepMs(ms);
    return AppendStamp(file, "exit") ? 0 : 1;
}

int Reap(const char* file, char** command)
{
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        fprintf(stderr, "peer_stamp: cannot become a subreaper: %s\n", strerror(errno));
        return 1;
    }
    pid_t child = fork();
    if (child < 0) {
        fprintf(stderr, "peer_stamp: fork failed: %s\n", strerror(errno));
        return 1;
    }
    if (child == 0) {
        if (AppendStamp(file, "launch")) {
            execvp(command[0], command);
            fprintf(stderr, "peer_stamp: cannot run %s: %s\n", command[0], strerror(errno));
        }
        _exit(127);
    }
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc >= 4 && strcmp(argv[1], "--reap") == 0) {
        return Reap(argv[2], argv + 3);
    }
    if (argc == 3) {
        return Live(argv[1], argv[2]);
    }
    fprintf(stderr, "usage: peer_stamp FILE MS | peer_stamp --reap FILE COMMAND [ARG...]\n");
    return 2;
}
