// SPDX-License-Identifier: MIT
#include <host/ArchiveWatch>

#include <host/clock>
#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <sys/inotify.h>
#include <sys/select.h>
#include <unistd.h>

namespace {

const int settleMs = 50;
const int lookAgainMs = 1000;

} // namespace

ArchiveWatch::ArchiveWatch(const std::string& _path)
    : path(_path), dir(_path, 0, _path.rfind('/') + 1), name(_path, _path.rfind('/') + 1),
      inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), watched(-1), lookAgain(0), settled(0),
      mark(_path) {
    const int failed = errno;
    if (inotify == -1)
        throw IOException(failed, "cannot watch the archive");
    if (inotify >= FD_SETSIZE) {
        close(inotify);
        throw QVException("too many open files for select()");
    }
    const int err = watchDirectory();
    if (err != 0) {
        close(inotify);
        throw IOException(err, "cannot watch " + dir);
    }
    settled = 0; // the file is as the caller is going to find it
}

ArchiveWatch::~ArchiveWatch() {
    close(inotify);
}

int ArchiveWatch::waitMs() const {
    const int64_t due = watched == -1 ? lookAgain : settled;
    return due == 0 ? -1 : static_cast<int>(std::max<int64_t>(due - nowMs(), 0));
}

bool ArchiveWatch::replaced(const FdSet& rfds) {
    if (rfds.isSet(inotify))
        takeEvents();
    if (watched == -1 && nowMs() >= lookAgain)
        watchDirectory();
    if (settled == 0 || nowMs() < settled)
        return false;
    settled = 0;
    const FileMark now(path);
    if (now.isUnknown()) // nothing else would make it look again
        settled = nowMs() + lookAgainMs;
    if (!now.exists() || now == mark)
        return false;
    mark = now;
    return true;
}

int ArchiveWatch::watchDirectory() {
    watched = inotify_add_watch(inotify, dir.c_str(),
                                IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVE_SELF | IN_ONLYDIR);
    const int err = watched == -1 ? errno : 0;
    if (err != 0)
        lookAgain = nowMs() + lookAgainMs;
    else
        settled = nowMs() + settleMs;
    return err;
}

void ArchiveWatch::takeEvents() {
    alignas(inotify_event) char events[sizeof(inotify_event) + NAME_MAX + 1];
    ssize_t got;
    while ((got = read(inotify, events, sizeof(events))) > 0) {
        for (const char* at = events; at < events + got;) {
            const auto event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(*event) + event->len;
            if ((event->mask & IN_Q_OVERFLOW) != 0 || (event->len != 0 && name == event->name))
                settled = nowMs() + settleMs;
            if ((event->mask & IN_MOVE_SELF) != 0)
                inotify_rm_watch(inotify, event->wd);
            if ((event->mask & IN_IGNORED) != 0 && event->wd == watched) {
                watched = -1;
                lookAgain = nowMs();
            }
        }
    }
    const int err = errno;
    if (got == -1 && err != EAGAIN && err != EINTR)
        throw IOException(err, "cannot read what happens to the archive");
}
