#include "heart_beat/checker.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "core/log.h"
#include "tubix/runtime_dir.h"

namespace HeartBeat {
namespace {

constexpr uint64_t NS_PER_MS = 1000000ULL;
constexpr uint64_t NS_PER_S = 1000 * NS_PER_MS;
// The longest the thread sleeps with nobody to judge, and the datagrams it
// takes in one turn before it looks at the clock again.
constexpr int IDLE_POLL_MS = 1000;
constexpr int DATAGRAMS_PER_TURN = 256;
constexpr size_t STRANGERS_KEPT = 1024;
constexpr uint32_t DROP_LINES_PER_SECOND = 10;

uint64_t NowNs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

int BindCheckerSocket()
{
    const std::string path = CheckerSocketPath();
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path) || !Tubix::MakeParentDirs(path)) {
        Stavik::Syslog(LOG_ERR, "HeartBeat: can't place the checker socket at %s", path.c_str());
        return -1;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) {
        Stavik::Syslog(LOG_ERR, "HeartBeat: checker socket failed, errno=%d", errno);
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    // Only this library serves the name; a file left by an earlier daemon goes.
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || chmod(path.c_str(), 0666) != 0) {
        Stavik::Syslog(LOG_ERR, "HeartBeat: bind %s failed, errno=%d", path.c_str(), errno);
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

Checker& Checker::Instance()
{
    static Checker checker;
    return checker;
}

Checker::~Checker()
{
    DisableAll();
}

int32_t Checker::Register(const std::string& name, uint32_t gid, HeartBeatNotify notify)
{
    if (name.empty() || name.size() > BEAT_NAME_MAX || notify == nullptr) {
        Stavik::Syslog(LOG_ERR, "HeartBeat: register refused, name length %zu", name.size());
        return -1;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (!StartLocked()) {
        return -1;
    }
    // A new incarnation is judged from its own first beat on.
    Watch watch;
    watch.gid = gid;
    watch.notify = notify;
    watches_[name] = watch;
    strangers_.erase(name);
    return 0;
}

int32_t Checker::Unregister(const std::string& name)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return watches_.erase(name) == 1 ? 0 : 1;
}

void Checker::DisableAll()
{
    std::thread thread;
    Run run;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        watches_.clear();
        strangers_.clear();
        thread = std::move(thread_);
        run = run_;
        run_ = Run();
        // Set under the lock: the names of a run that a registration starts
        // from now on are never judged by this one.
        if (run.stop != nullptr) {
            run.stop->store(true);
        }
    }
    if (!thread.joinable()) {
        return;
    }
    uint64_t one = 1;
    ssize_t ignored = write(run.wake, &one, sizeof(one));
    (void)ignored;
    thread.join();
    close(run.socket);
    close(run.wake);
}

bool Checker::StartLocked()
{
    if (thread_.joinable()) {
        return true;
    }
    Run run;
    run.socket = BindCheckerSocket();
    if (run.socket < 0) {
        return false;
    }
    run.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (run.wake < 0) {
        Stavik::Syslog(LOG_ERR, "HeartBeat: eventfd failed, errno=%d", errno);
        close(run.socket);
        return false;
    }
    run.stop = std::make_shared<std::atomic<bool>>(false);
    run_ = run;
    thread_ = std::thread(&Checker::Loop, this, run);
    return true;
}

void Checker::Loop(Run run)
{
    std::vector<Notice> notices;
    while (!run.stop->load()) {
        int timeoutMs = IDLE_POLL_MS;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            timeoutMs = PollTimeoutMs(NowNs());
        }
        pollfd fds[2] = {{run.socket, POLLIN, 0}, {run.wake, POLLIN, 0}};
        if (poll(fds, 2, timeoutMs) < 0 && errno != EINTR) {
            Stavik::Syslog(LOG_ERR, "HeartBeat: poll failed, errno=%d", errno);
            return;
        }
        notices.clear();
        if ((fds[0].revents & POLLIN) != 0) {
            ReceiveAll(run.socket, notices);
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            FindLost(NowNs(), notices);
        }
        for (const Notice& notice : notices) {
            if (run.stop->load()) {
                return;
            }
            notice.notify(notice.name.c_str(), notice.name.size(), notice.pid, notice.status);
        }
    }
}

void Checker::ReceiveAll(int socket, std::vector<Notice>& notices)
{
    char data[BEAT_HEADER_SIZE + BEAT_NAME_MAX + 1];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    for (int turn = 0; turn < DATAGRAMS_PER_TURN; ++turn) {
        iovec part {data, sizeof(data)};
        msghdr message {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        ssize_t size = recvmsg(socket, &message, MSG_DONTWAIT | MSG_TRUNC);
        if (size < 0) {
            return;
        }
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        std::lock_guard<std::mutex> lock(mutex_);
        if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_CREDENTIALS) {
            Drop("a datagram without credentials");
            continue;
        }
        ucred sender {};
        memcpy(&sender, CMSG_DATA(header), sizeof(sender));
        Beat beat;
        std::string why;
        if (static_cast<size_t>(size) > sizeof(data) ||
            !DecodeBeat(data, static_cast<size_t>(size), beat, why)) {
            Drop("a datagram of " + std::to_string(size) + " bytes from pid " + std::to_string(sender.pid) + ": " +
                 (why.empty() ? "too long" : why));
            continue;
        }
        Accept(beat, sender, notices);
    }
}

// The caller holds mutex_.
void Checker::Accept(const Beat& beat, const ucred& sender, std::vector<Notice>& notices)
{
    auto found = watches_.find(beat.name);
    if (found == watches_.end()) {
        if (strangers_.size() == STRANGERS_KEPT) {
            strangers_.clear();
        }
        if (strangers_.insert(beat.name).second) {
            Stavik::Syslog(LOG_WARNING, "HeartBeat: drop beats of %s (pid=%d): the name is not registered",
                           beat.name.c_str(), sender.pid);
        }
        return;
    }
    Watch& watch = found->second;
    std::string why;
    if (sender.pid != beat.pid) {
        why = " claiming pid " + std::to_string(beat.pid);
    } else if (sender.uid != 0 && sender.gid != watch.gid) {
        why = ": registered gid is " + std::to_string(watch.gid);
    } else if (watch.hasBeaten && sender.uid != watch.uid) {
        why = ": the process beats as uid " + std::to_string(watch.uid);
    }
    if (!why.empty()) {
        Drop("a beat of " + beat.name + " from pid " + std::to_string(sender.pid) + " uid " +
             std::to_string(sender.uid) + " gid " + std::to_string(sender.gid) + why);
        return;
    }
    watch.hasBeaten = true;
    watch.uid = sender.uid;
    watch.pid = sender.pid;
    watch.silenceLimitNs = static_cast<uint64_t>(beat.intervalMs) * beat.count * NS_PER_MS;
    watch.lastBeatNs = NowNs();
    if (watch.isLost) {
        watch.isLost = false;
        notices.push_back(Notice{beat.name, watch.pid, 0, watch.notify});
    }
}

// The caller holds mutex_.
void Checker::FindLost(uint64_t nowNs, std::vector<Notice>& notices)
{
    for (auto& entry : watches_) {
        Watch& watch = entry.second;
        if (watch.hasBeaten && !watch.isLost && nowNs - watch.lastBeatNs > watch.silenceLimitNs) {
            watch.isLost = true;
            notices.push_back(Notice{entry.first, watch.pid, 1, watch.notify});
        }
    }
}

// The caller holds mutex_. Until the next judgement is due, at most IDLE_POLL_MS.
int Checker::PollTimeoutMs(uint64_t nowNs)
{
    uint64_t waitNs = IDLE_POLL_MS * NS_PER_MS;
    for (const auto& entry : watches_) {
        const Watch& watch = entry.second;
        if (!watch.hasBeaten || watch.isLost) {
            continue;
        }
        uint64_t dueNs = watch.lastBeatNs + watch.silenceLimitNs;
        waitNs = std::min(waitNs, dueNs > nowNs ? dueNs - nowNs : 0);
    }
    return static_cast<int>(waitNs / NS_PER_MS) + 1;
}

// The caller holds mutex_. A few lines a second at most, so a flood can't fill the log.
void Checker::Drop(const std::string& why)
{
    uint64_t nowNs = NowNs();
    if (nowNs - dropWindowNs_ >= NS_PER_S) {
        dropWindowNs_ = nowNs;
        dropLinesInWindow_ = 0;
    }
    if (dropLinesInWindow_ == DROP_LINES_PER_SECOND) {
        ++dropsUntold_;
        return;
    }
    ++dropLinesInWindow_;
    Stavik::Syslog(LOG_WARNING, "HeartBeat: drop %s (%llu dropped untold before)", why.c_str(),
                   static_cast<unsigned long long>(dropsUntold_));
    dropsUntold_ = 0;
}

} // namespace HeartBeat
