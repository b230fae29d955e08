// SPDX-License-Identifier: MIT
#include <libqvio/fileutils>

#include "tests/support/child.h"
#include "tests/support/descriptors.h"
#include "tests/support/sandbox.h"
#include "tests/support/tempdir.h"
#include "tests/support/variants.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <limits.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using vkatest::Child;
using vkatest::contentOf;
using vkatest::Disarm;
using vkatest::exists;
using vkatest::Fault;
using vkatest::openDescriptors;
using vkatest::TempDir;

namespace {

Fault openFault, openatFault, fstatFault, getdentsFault, unlinkFault;
bool hideTypes = false; // as file systems do that keep no type in their directories
std::function<void(struct stat&)> alterStat; // changes what fstat() tells

/** All faults, each called under its name. */
struct NamedFault {
    const char* name;
    Fault& fault;
};
const NamedFault faults[] = {{"open", openFault},
                             {"openat", openatFault},
                             {"fstat", fstatFault},
                             {"getdents64", getdentsFault},
                             {"unlinkat", unlinkFault}};

/** @return 0 for success, or the errno of a failure */
int rmDirError(const std::string& path, bool flag = false) {
    errno = 0;
    return rmDir(path, flag) == -1 ? errno : 0;
}

bool isEmptyDir(const std::string& path) {
    std::error_code err;
    return std::filesystem::is_empty(path, err) && std::filesystem::is_directory(path, err);
}

void link(const std::string& target, const std::string& path) {
    ASSERT_EQ(0, symlink(target.c_str(), path.c_str()));
}

/** Files and directories, hidden ones too, several levels deep. */
void makeTree(const TempDir& dir, const std::string& top) {
    dir.makeDir(top + "/a/b/c");
    dir.makeDir(top + "/a/empty");
    dir.makeDir(top + "/.hidden/.deeper");
    for (const char* name : {"/file", "/.file", "/..file", "/...", "/ blank", "/a/f", "/a/b/f",
                             "/a/b/c/f", "/.hidden/f", "/.hidden/.deeper/.f"})
        dir.makeFile(top + name);
}

/** Makes `depth` directories, each in the one before. */
void makeDeepDir(const std::string& top, int depth) {
    int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(0, mkdirat(fd, "d", 0777));
        const int below = openat(fd, "d", O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = below;
        ASSERT_NE(-1, fd);
    }
    close(fd);
}

/** Calls rmDir() in a thread with a small stack. @return as rmDirError() */
int rmDirOnSmallStack(const std::string& path, bool flag) {
    struct Call {
        const std::string& path;
        bool flag;
        int err;
    } call = {path, flag, -1};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr,
                              std::max(size_t(128 * 1024), static_cast<size_t>(PTHREAD_STACK_MIN)));
    pthread_t thread;
    const auto run = [](void* arg) -> void* {
        Call& c = *static_cast<Call*>(arg);
        c.err = rmDirError(c.path, c.flag);
        return nullptr;
    };
    if (pthread_create(&thread, &attr, run, &call) != 0)
        return -1;
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    return call.err;
}

class RmDir : public testing::Test {
protected:
    void SetUp() override { openBefore = openDescriptors(); }
    void TearDown() override {
        for (const NamedFault& entry : faults)
            entry.fault.disarm();
        hideTypes = false;
        alterStat = nullptr;
        EXPECT_EQ(openBefore, openDescriptors()) << "descriptors left open";
    }

    TempDir dir;

private:
    std::set<int> openBefore;
};

} // namespace

VKA_WRAP_OPEN(openFault)
VKA_WRAP_OPENAT(openatFault)
VKA_WRAP_FSTAT(fstatFault, alterStat)
VKA_WRAP(unlinkFault, int, unlinkat, (int fd, const char* path, int flags), (fd, path, flags), -1)

extern "C" ssize_t __real_getdents64(int fd, void* buf, size_t size);
extern "C" ssize_t __wrap_getdents64(int fd, void* buf, size_t size);
extern "C" ssize_t __wrap_getdents64(int fd, void* buf, size_t size) {
    if (getdentsFault.hit())
        return -1;
    const ssize_t got = __real_getdents64(fd, buf, size);
    for (ssize_t pos = 0; hideTypes && pos < got;) {
        dirent64* entry = reinterpret_cast<dirent64*>(static_cast<char*>(buf) + pos);
        entry->d_type = DT_UNKNOWN;
        pos += entry->d_reclen;
    }
    return got;
}

TEST_F(RmDir, LeavesAnEmptyDirectoryInPlace) {
    const std::string top = dir.makeDir("top");
    EXPECT_EQ(0, rmDirError(top));
    EXPECT_TRUE(isEmptyDir(top));
}

TEST_F(RmDir, EmptiesATree) {
    makeTree(dir, "top");
    dir.makeFile("beside");
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));
    EXPECT_EQ("content", contentOf(dir / "beside"));
}

TEST_F(RmDir, RemovesFilesOfAnySize) {
    for (bool types : {true, false}) {
        hideTypes = !types;
        dir.makeDir("top/sub");
        for (const char* name : {"top/file", "top/sub/file"}) {
            for (off_t size : {off_t(1) << 31, off_t(1) << 32, off_t(5) << 30}) {
                const std::string file = dir.makeFile(name + std::to_string(size));
                ASSERT_EQ(0, truncate(file.c_str(), size));
            }
        }
        EXPECT_EQ(0, rmDirError(dir / "top", true));
        EXPECT_FALSE(exists(dir / "top"));
    }
}

TEST_F(RmDir, RemovesWhatHasAnyDate) {
    for (bool types : {true, false}) {
        hideTypes = !types;
        const std::string parent = types ? "typed" : "untyped";
        makeTree(dir, parent + "/top");
        for (const char* name : {"/top/file", "/top/a/b/c/f", "/top/a/b/c", "/top/a/b",
                                 "/top/a/empty", "/top/a", "/top", ""}) {
            ASSERT_TRUE(vkatest::setDatesBeyond2038(dir / (parent + name)))
                << name << ": " << strerror(errno);
        }
        EXPECT_EQ(0, rmDirError(dir / (parent + "/top/a")));
        EXPECT_EQ(0, rmDirError(dir / (parent + "/top"), true));
        EXPECT_FALSE(exists(dir / (parent + "/top")));
        EXPECT_EQ(0, rmDirError(dir / parent, true));
        EXPECT_FALSE(exists(dir / parent));
    }
}

TEST_F(RmDir, LeavesTheDirectoryItselfAsItIs) {
    makeTree(dir, "top");
    ASSERT_EQ(0, chmod((dir / "top").c_str(), 0710));
    struct stat before, after;
    ASSERT_EQ(0, stat((dir / "top").c_str(), &before));
    EXPECT_EQ(0, rmDirError(dir / "top"));
    ASSERT_EQ(0, stat((dir / "top").c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mode, after.st_mode);
}

TEST_F(RmDir, RemovesTheDirectoryItselfIfTold) {
    makeTree(dir, "top");
    EXPECT_EQ(0, rmDirError(dir / "top", true));
    EXPECT_FALSE(exists(dir / "top"));
    dir.makeDir("empty");
    EXPECT_EQ(0, rmDirError(dir / "empty", true));
    EXPECT_FALSE(exists(dir / "empty"));
    EXPECT_TRUE(exists(dir.path()));
}

TEST_F(RmDir, IgnoresSuperfluousSeparators) {
    for (bool flag : {false, true}) {
        makeTree(dir, "top");
        EXPECT_EQ(0, rmDirError('/' + (dir / "/top//"), flag));
        EXPECT_EQ(!flag, exists(dir / "top"));
    }
}

TEST_F(RmDir, EmptiesThousandsOfEntries) {
    dir.makeDir("top");
    for (int i = 0; i < 3000; ++i) {
        const std::string number = std::to_string(i);
        dir.makeFile("top/" + number + std::string(200, 'f'), "");
        ASSERT_EQ(0, mkdir((dir / ("top/." + number)).c_str(), 0777));
    }
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));
}

TEST_F(RmDir, RemovesEntriesOfEveryType) {
    const std::string top = dir.makeDir("top");
    ASSERT_EQ(0, mkfifo((top + "/fifo").c_str(), 0666));
    vkatest::Fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, (top + "/socket").c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, chmod(dir.makeFile("top/readonly").c_str(), 0));
    link("nothing", top + "/dangling");
    EXPECT_EQ(0, rmDirError(top));
    EXPECT_TRUE(isEmptyDir(top));
    listener.reset();
}

TEST_F(RmDir, NeverFollowsLinksInside) {
    makeTree(dir, "outside");
    const std::string top = dir.makeDir("top/sub");
    link(dir / "outside", dir / "top/dir");
    link(dir / "outside/file", dir / "top/file");
    link("../../outside", dir / "top/sub/relative");
    link("nothing", dir / "top/dangling");
    link(".", dir / "top/self");
    link("/", dir / "top/root");
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));
    EXPECT_EQ("content", contentOf(dir / "outside/file"));
    EXPECT_EQ("content", contentOf(dir / "outside/a/b/c/f"));
}

TEST_F(RmDir, NeverFollowsALinkAtThePathItself) {
    makeTree(dir, "outside");
    link("outside", dir / "link");
    for (bool flag : {false, true}) {
        for (const char* spelling : {"link", "link/", "link//"}) {
            SCOPED_TRACE(spelling);
            EXPECT_EQ(ENOTDIR, rmDirError(dir / spelling, flag));
            EXPECT_TRUE(exists(dir / "link"));
            EXPECT_EQ("content", contentOf(dir / "outside/file"));
            EXPECT_EQ("content", contentOf(dir / "outside/a/b/c/f"));
        }
    }
}

TEST_F(RmDir, FollowsLinksInFrontOfTheLastComponent) {
    makeTree(dir, "real/top");
    link("real", dir / "link");
    EXPECT_EQ(0, rmDirError(dir / "link/top", true));
    EXPECT_FALSE(exists(dir / "real/top"));
}

TEST_F(RmDir, RefusesWhatIsNoDirectory) {
    dir.makeFile("file");
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0666));
    link("nothing", dir / "dangling");
    link("dangling", dir / "loop");
    for (bool flag : {false, true}) {
        EXPECT_EQ(ENOTDIR, rmDirError(dir / "file", flag));
        EXPECT_EQ(ENOTDIR, rmDirError(dir / "file/", flag));
        EXPECT_EQ(ENOTDIR, rmDirError(dir / "file/below", flag));
        EXPECT_EQ(ENOTDIR, rmDirError(dir / "fifo", flag));
        EXPECT_EQ(ENOTDIR, rmDirError(dir / "dangling", flag));
        EXPECT_EQ(ENOENT, rmDirError(dir / "missing", flag));
        EXPECT_EQ(ENOENT, rmDirError(dir / "missing/below", flag));
        EXPECT_EQ(ENOENT, rmDirError("", flag));
    }
    EXPECT_EQ("content", contentOf(dir / "file"));
    EXPECT_TRUE(exists(dir / "fifo"));
    EXPECT_TRUE(exists(dir / "dangling"));
}

TEST_F(RmDir, RefusesTheRoot) {
    for (const NamedFault& entry : faults)
        entry.fault.failAlways(EPERM); // nothing may happen to the machine if it does not
    for (bool flag : {false, true}) {
        EXPECT_EQ(EBUSY, rmDirError("/", flag));
        EXPECT_EQ(EBUSY, rmDirError("//", flag));
    }
    for (const NamedFault& entry : faults)
        EXPECT_EQ(0, entry.fault.calls()) << entry.name;
}

TEST_F(RmDir, RefusesToRemoveDotAndDotDotThemselves) {
    makeTree(dir, "top");
    for (const char* spelling : {"top/.", "top/./", "top/a/..", "top/a/..//"}) {
        EXPECT_EQ(EINVAL, rmDirError(dir / spelling, true));
        EXPECT_EQ("content", contentOf(dir / "top/file"));
        EXPECT_EQ("content", contentOf(dir / "top/a/f"));
    }
    Child child = Child::run([&] {
        return chdir((dir / "top/a").c_str()) == 0 && rmDirError(".", true) == EINVAL &&
                       rmDirError("..", true) == EINVAL
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, child.exitCode());
    EXPECT_EQ("content", contentOf(dir / "top/file"));
}

TEST_F(RmDir, EmptiesDotAndDotDot) {
    makeTree(dir, "one");
    makeTree(dir, "two");
    EXPECT_EQ(0, rmDirError(dir / "one/."));
    EXPECT_EQ(0, rmDirError(dir / "two/a/.."));
    EXPECT_TRUE(isEmptyDir(dir / "one"));
    EXPECT_TRUE(isEmptyDir(dir / "two"));
}

TEST_F(RmDir, TakesRelativePaths) {
    for (const char* name : {"here", "above", "bare"})
        makeTree(dir, name);
    Child child = Child::run([&] {
        if (chdir((dir / "here").c_str()) != 0 || rmDirError(".") != 0)
            return 1;
        if (chdir((dir / "above/a").c_str()) != 0 || rmDirError("..") != 0)
            return 2;
        return chdir(dir.path().c_str()) == 0 && rmDirError("bare", true) == 0 ? 0 : 3;
    });
    EXPECT_EQ(0, child.exitCode());
    EXPECT_TRUE(isEmptyDir(dir / "here"));
    EXPECT_TRUE(isEmptyDir(dir / "above"));
    EXPECT_FALSE(exists(dir / "bare"));
}

TEST_F(RmDir, AsksTheFileSystemWhenEntriesHaveNoType) {
    hideTypes = true;
    makeTree(dir, "outside");
    makeTree(dir, "top");
    link(dir / "outside", dir / "top/link");
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));
    EXPECT_EQ("content", contentOf(dir / "outside/a/f"));
}

TEST_F(RmDir, DoesNotTakeADirectoryForAFileWhenTheTypeIsTold) {
    dir.makeDir("top/a/b");
    unlinkFault.disarm();
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_EQ(2, unlinkFault.calls()) << "one for each directory";
}

TEST_F(RmDir, NeedsFourDescriptorsAtMost) {
    makeTree(dir, "top");
    Child child = Child::run([&] {
        const int next = *openDescriptors().rbegin() + 1;
        for (int fd = 3; fd < next; ++fd)
            close(fd);
        const rlimit limit = {3 + 4, 3 + 4};
        return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? rmDirError(dir / "top", true) : -1;
    });
    EXPECT_EQ(0, child.exitCode());
    EXPECT_FALSE(exists(dir / "top"));
}

TEST_F(RmDir, LetsNoProgramInheritItsDescriptors) {
    const std::set<int> before = openDescriptors();
    dir.makeDir("top/sub");
    dir.makeFile("top/sub/file");
    int opened = 0;
    unlinkFault.beforeCall(1, [&] { opened = vkatest::closedOnExec(before); });
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_EQ(3, opened) << "the parent, the directory itself and the one below";
}

TEST_F(RmDir, StackAndDescriptorsDoNotGrowWithTheDepth) {
    for (bool types : {true, false}) {
        const std::string top = dir.makeDir("top");
        makeDeepDir(top, 10000);
        hideTypes = !types;
        Child child = Child::run([&] {
            const rlimit limit = {16, 16};
            if (setrlimit(RLIMIT_NOFILE, &limit) == -1)
                return -1;
            return rmDirOnSmallStack(top, true);
        });
        EXPECT_EQ(0, child.exitCode());
        EXPECT_FALSE(exists(top));
    }
}

TEST_F(RmDir, DoesNotLeaveTheFileSystem) {
    makeTree(dir, "top");
    const std::string mountPoint = dir.makeDir("top/a/b/mounted");
    Child child = Child::run([&] {
        if (!vkatest::enterNamespaces(CLONE_NEWNS))
            return 1;
        if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, nullptr) == -1)
            return 2;
        makeTree(dir, "top/a/b/mounted");
        for (bool flag : {false, true}) {
            if (rmDirError(dir / "top", flag) != EXDEV)
                return 3;
        }
        for (const char* name : {"/file", "/a/b/c/f", "/.hidden/.deeper/.f"}) {
            if (contentOf(mountPoint + name) != "content")
                return 4;
        }
        // What is asked for by its own path is emptied.
        return rmDirError(mountPoint) == 0 && isEmptyDir(mountPoint) ? 0 : 5;
    });
    EXPECT_EQ(0, child.exitCode());
}

TEST_F(RmDir, FailsWherePermissionsForbid) {
    for (const char* name : {"", "unreadable", "readonly", "good"})
        ASSERT_EQ(0, chmod(dir.makeDir(name).c_str(), 0777));
    for (const char* name : {"unreadable/sub", "readonly/sub", "good/sub"})
        ASSERT_EQ(0, chmod(dir.makeDir(name).c_str(), 0777));
    for (const char* name : {"unreadable/sub/file", "readonly/sub/file", "good/sub/file"})
        dir.makeFile(name);
    ASSERT_EQ(0, chmod((dir / "unreadable/sub").c_str(), 0));
    ASSERT_EQ(0, chmod((dir / "readonly/sub").c_str(), 0555));
    Child child = Child::run([&] {
        if (!vkatest::dropRoot())
            return 1;
        if (rmDirError(dir / "unreadable") != EACCES ||
            rmDirError(dir / "unreadable/sub") != EACCES)
            return 2;
        if (rmDirError(dir / "readonly") != EACCES || rmDirError(dir / "readonly/sub") != EACCES)
            return 3;
        return rmDirError(dir / "good") == 0 ? 0 : 4;
    });
    EXPECT_EQ(0, child.exitCode());
    ASSERT_EQ(0, chmod((dir / "unreadable/sub").c_str(), 0755));
    EXPECT_EQ("content", contentOf(dir / "unreadable/sub/file"));
    EXPECT_EQ("content", contentOf(dir / "readonly/sub/file"));
    EXPECT_TRUE(isEmptyDir(dir / "good"));
}

TEST_F(RmDir, FailsAtEachCallWithItsReason) {
    for (const NamedFault& entry : faults) {
        for (int err : {EIO, EACCES, EMFILE}) {
            int number = 1;
            for (;; ++number) {
                SCOPED_TRACE(std::string(entry.name) + " call " + std::to_string(number));
                makeTree(dir, "top");
                entry.fault.failAt(number, err);
                const int result = rmDirError(dir / "top", true);
                const bool failed = entry.fault.failures() != 0;
                entry.fault.disarm();
                ASSERT_EQ(failed ? err : 0, result);
                ASSERT_EQ(failed, exists(dir / "top"));
                EXPECT_EQ(0, failed ? rmDirError(dir / "top", true) : 0) << "once it is over";
                if (!failed)
                    break;
            }
            EXPECT_GT(number, 1) << entry.name << " is not called";
        }
    }
}

TEST_F(RmDir, StopsAtTheFirstFailure) {
    makeTree(dir, "top");
    unlinkFault.failAt(2, EIO);
    EXPECT_EQ(EIO, rmDirError(dir / "top"));
    EXPECT_EQ(2, unlinkFault.calls());
}

TEST_F(RmDir, AcceptsThatSomebodyElseRemovesToo) {
    dir.makeDir("top");
    dir.makeFile("top/file");
    unlinkFault.beforeCall(1, [&] { unlink((dir / "top/file").c_str()); });
    EXPECT_EQ(0, rmDirError(dir / "top"));

    dir.makeDir("top/sub");
    openatFault.beforeCall(2, [&] { rmdir((dir / "top/sub").c_str()); });
    EXPECT_EQ(0, rmDirError(dir / "top"));

    dir.makeDir("top/sub");
    unlinkFault.beforeCall(1, [&] { rmdir((dir / "top/sub").c_str()); });
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));

    unlinkFault.beforeCall(1, [&] { rmdir((dir / "top").c_str()); });
    EXPECT_EQ(ENOENT, rmDirError(dir / "top", true));
}

TEST_F(RmDir, RemovesALinkThatTookTheDirectorysPlace) {
    makeTree(dir, "outside");
    dir.makeDir("top/sub");
    openatFault.beforeCall(2, [&] { // the first opens the path itself
        ASSERT_EQ(0, rmdir((dir / "top/sub").c_str()));
        link(dir / "outside", dir / "top/sub");
    });
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));
    EXPECT_EQ("content", contentOf(dir / "outside/file"));
    EXPECT_EQ("content", contentOf(dir / "outside/a/b/c/f"));
}

TEST_F(RmDir, RemovesAFileThatTookTheDirectorysPlace) {
    dir.makeDir("top/sub");
    openatFault.beforeCall(2, [&] {
        ASSERT_EQ(0, rmdir((dir / "top/sub").c_str()));
        dir.makeFile("top/sub");
    });
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));
}

TEST_F(RmDir, StopsWhenADirectoryIsExchangedAgainAndAgain) {
    dir.makeDir("top/sub");
    openatFault.beforeCall(2, [&] {
        ASSERT_EQ(0, rmdir((dir / "top/sub").c_str()));
        dir.makeFile("top/sub");
        unlinkFault.failAlways(EISDIR); // a directory again, each time that it is looked at
    });
    EXPECT_EQ(EISDIR, rmDirError(dir / "top"));
}

TEST_F(RmDir, TakesALoopOfLinksForSomethingElseInTheDirectorysPlace) {
    makeTree(dir, "top");
    openatFault.failAt(2, ELOOP); // what POSIX says for a link; Linux says ENOTDIR for directories
    EXPECT_EQ(EISDIR, rmDirError(dir / "top")); // of unlinking what is a directory all the same
    EXPECT_EQ(1, openatFault.failures());
}

TEST_F(RmDir, RefusesALinkThatTookThePathsPlace) {
    makeTree(dir, "outside");
    dir.makeDir("top");
    openatFault.beforeCall(1, [&] {
        ASSERT_EQ(0, rmdir((dir / "top").c_str()));
        link("outside", dir / "top");
    });
    EXPECT_EQ(ENOTDIR, rmDirError(dir / "top", true));
    EXPECT_EQ("content", contentOf(dir / "outside/file"));
}

TEST_F(RmDir, StopsWhenItsDirectoryIsMovedElsewhere) {
    makeTree(dir, "outside");
    dir.makeDir("top/a/b/c");
    openatFault.beforeCall(5, [&] { // top, a, b, c, and now back up from c
        ASSERT_EQ(0, rename((dir / "top/a/b/c").c_str(), (dir / "outside/c").c_str()));
    });
    EXPECT_EQ(ESTALE, rmDirError(dir / "top"));
    EXPECT_EQ("content", contentOf(dir / "outside/file"));
    EXPECT_EQ("content", contentOf(dir / "outside/a/b/c/f"));
    EXPECT_TRUE(exists(dir / "outside/c"));
    EXPECT_TRUE(exists(dir / "top/a/b"));
}

TEST_F(RmDir, StopsWhenAParentIsMovedElsewhere) {
    makeTree(dir, "outside");
    dir.makeDir("top/a/b/c/d");
    openatFault.beforeCall(
        6, [&] { ASSERT_EQ(0, rename((dir / "top/a/b").c_str(), (dir / "outside/b").c_str())); });
    EXPECT_EQ(ESTALE, rmDirError(dir / "top"));
    EXPECT_EQ("content", contentOf(dir / "outside/file"));
    EXPECT_EQ("content", contentOf(dir / "outside/a/b/c/f"));
}

TEST_F(RmDir, StopsWhenTheDirectoryAboveIsOnAnotherFileSystem) {
    dir.makeDir("top/a/b");
    int calls = 0;
    alterStat = [&](struct stat& info) {
        if (++calls == 4) // top, a, b, and now back up from b
            ++info.st_dev;
    };
    EXPECT_EQ(ESTALE, rmDirError(dir / "top"));
    EXPECT_EQ(4, calls);
    EXPECT_TRUE(exists(dir / "top/a/b"));
}

TEST_F(RmDir, TellsDirectoriesApartByTheirWholeInodeNumbers) {
    static_assert(sizeof(ino_t) == 8, "");
    alterStat = [](struct stat& info) { info.st_ino = info.st_ino << 32 | 1; };
    makeTree(dir, "outside");
    dir.makeDir("top/a/b/c");
    openatFault.beforeCall(5, [&] { // top, a, b, c, and now back up from c
        ASSERT_EQ(0, rename((dir / "top/a/b/c").c_str(), (dir / "outside/c").c_str()));
    });
    EXPECT_EQ(ESTALE, rmDirError(dir / "top"));
    EXPECT_TRUE(exists(dir / "outside/c"));
    EXPECT_TRUE(exists(dir / "top/a/b"));
    EXPECT_EQ(0, rmDirError(dir / "top", true));
    EXPECT_EQ(0, rmDirError(dir / "outside", true));
    EXPECT_TRUE(isEmptyDir(dir.path()));
}

TEST_F(RmDir, DoesNotBlockOnAFifoThatTookTheDirectorysPlace) {
    dir.makeDir("top/sub");
    openatFault.beforeCall(2, [&] {
        ASSERT_EQ(0, rmdir((dir / "top/sub").c_str()));
        ASSERT_EQ(0, mkfifo((dir / "top/sub").c_str(), 0666));
    });
    EXPECT_EQ(0, rmDirError(dir / "top"));
    EXPECT_TRUE(isEmptyDir(dir / "top"));
}
