// SPDX-License-Identifier: MIT
#include <libqvio/fileutils>

#include "tests/support/child.h"
#include "tests/support/sandbox.h"
#include "tests/support/tempdir.h"
#include "tests/support/variants.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

using vkatest::Child;
using vkatest::contentOf;
using vkatest::Disarm;
using vkatest::Fault;
using vkatest::TempDir;

namespace {

Fault mkdirFault, statFault;

static_assert(std::is_same<const char, decltype(dirsep)>::value, "");
static_assert(dirsep == '/', "");

// In a 32-bit program, files above 2 GiB cannot be examined or opened otherwise.
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "");

/** @return 0, or the errno of a failure */
int errorOf(int result) {
    return result == 0 ? 0 : result == -1 ? errno : -1;
}
int mkdirPathError(const std::string& path, int mode = 0777) {
    errno = 0;
    return errorOf(mkdirPath(path, mode));
}

int modeOf(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == -1 ? -1 : static_cast<int>(info.st_mode & 07777);
}

std::string targetOf(const std::string& link) {
    char buf[4096];
    const ssize_t length = readlink(link.c_str(), buf, sizeof(buf));
    return length == -1 ? "" : std::string(buf, static_cast<size_t>(length));
}

/** Changes the umask as long as it lives. */
class Umask {
public:
    explicit Umask(mode_t mask) : before(umask(mask)) {}
    ~Umask() { umask(before); }

private:
    const mode_t before;
};

/** Is it a directory? If not, for the given reason? */
void expectNoDirectory(int err, const std::string& path) {
    SCOPED_TRACE(path);
    errno = 0;
    EXPECT_FALSE(isDirectory(path));
    EXPECT_EQ(err, errno);
    errno = 0;
    EXPECT_FALSE(isDirectory(path.c_str()));
    EXPECT_EQ(err, errno);
}

} // namespace

VKA_WRAP(mkdirFault, int, mkdir, (const char* path, mode_t mode), (path, mode), -1)
VKA_WRAP_STAT(statFault)

TEST(IsDirectory, AcceptsDirectoriesAndLinksToThem) {
    const TempDir dir;
    ASSERT_EQ(0, symLink(dir.path().c_str(), (dir / "link").c_str()));
    for (const std::string& path : {dir.path(), dir / "", dir / "link", dir / "link/.",
                                    std::string("/"), std::string("."), std::string("..")}) {
        EXPECT_TRUE(isDirectory(path)) << path;
        EXPECT_TRUE(isDirectory(path.c_str())) << path;
    }
}

TEST(IsDirectory, TellsWhyNot) {
    const TempDir dir;
    const std::string file = dir.makeFile("file");
    ASSERT_EQ(0, symLink(file.c_str(), (dir / "filelink").c_str()));
    ASSERT_EQ(0, symLink("nothing", (dir / "dangling").c_str()));
    ASSERT_EQ(0, symLink("loop", (dir / "loop").c_str()));
    expectNoDirectory(ENOTDIR, file);
    expectNoDirectory(ENOTDIR, dir / "filelink");
    expectNoDirectory(ENOTDIR, dir / "file/below");
    expectNoDirectory(ENOENT, dir / "missing");
    expectNoDirectory(ENOENT, dir / "dangling");
    expectNoDirectory(ENOENT, "");
    expectNoDirectory(ELOOP, dir / "loop");
    expectNoDirectory(ENAMETOOLONG, dir / std::string(300, 'x'));
}

TEST(IsDirectory, AnswersForFilesOfAnySize) {
    const TempDir dir;
    const std::string file = dir.makeFile("file");
    for (off_t size : {off_t(1) << 31, off_t(1) << 32, off_t(5) << 30}) {
        ASSERT_EQ(0, truncate(file.c_str(), size));
        expectNoDirectory(ENOTDIR, file);
    }
}

TEST(IsDirectory, AnswersForEveryDate) {
    const TempDir dir;
    const std::string sub = dir.makeDir("sub"), file = dir.makeFile("file");
    for (const std::string& path : {sub, file})
        ASSERT_TRUE(vkatest::setDatesBeyond2038(path)) << strerror(errno);
    EXPECT_TRUE(isDirectory(sub)) << strerror(errno);
    EXPECT_TRUE(isDirectory(sub.c_str())) << strerror(errno);
    expectNoDirectory(ENOTDIR, file);
}

TEST(IsDirectory, KeepsTheReasonOfAFailedExamination) {
    const Disarm disarm(statFault);
    for (int err : {EACCES, EIO, ENOMEM}) {
        statFault.failAt(1, err);
        errno = 0;
        EXPECT_FALSE(isDirectory("/"));
        EXPECT_EQ(err, errno);
    }
}

TEST(MkdirPath, MakesEveryMissingParent) {
    const TempDir dir;
    EXPECT_EQ(0, mkdirPathError(dir / "a/b/c"));
    EXPECT_TRUE(isDirectory(dir / "a/b/c"));
    EXPECT_EQ(0, mkdirPathError(dir / "a/b/d"));
    EXPECT_TRUE(isDirectory(dir / "a/b/d"));
}

TEST(MkdirPath, LeavesAnExistingDirectoryAsItIs) {
    const TempDir dir;
    const std::string path = dir.makeDir("a/b");
    dir.makeFile("a/b/file");
    ASSERT_EQ(0, chmod(path.c_str(), 0711));
    EXPECT_EQ(0, mkdirPathError(path));
    EXPECT_EQ(0, mkdirPathError(path + '/'));
    EXPECT_EQ(0, mkdirPathError(dir.path()));
    EXPECT_EQ(0, mkdirPathError("/"));
    EXPECT_EQ(0, mkdirPathError("//"));
    EXPECT_EQ(0711, modeOf(path));
    EXPECT_EQ("content", contentOf(path + "/file"));
}

TEST(MkdirPath, AcceptsDirectoriesOfEveryDate) {
    const TempDir dir;
    const std::string top = dir.makeDir("top"), sub = dir.makeDir("top/sub");
    for (const std::string& path : {sub, top})
        ASSERT_TRUE(vkatest::setDatesBeyond2038(path)) << strerror(errno);
    EXPECT_EQ(0, mkdirPathError(sub));
    EXPECT_EQ(0, mkdirPathError(sub + "/a/b"));
    EXPECT_TRUE(isDirectory(sub + "/a/b"));
}

TEST(MkdirPath, AcceptsALinkToADirectory) {
    const TempDir dir;
    dir.makeDir("real");
    ASSERT_EQ(0, symLink("real", (dir / "link").c_str()));
    EXPECT_EQ(0, mkdirPathError(dir / "link"));
    EXPECT_EQ(0, mkdirPathError(dir / "link/a/b"));
    EXPECT_TRUE(isDirectory(dir / "real/a/b"));
}

TEST(MkdirPath, IgnoresSuperfluousSeparators) {
    const TempDir dir;
    EXPECT_EQ(0, mkdirPathError(dir / "/a//b///c//"));
    EXPECT_TRUE(isDirectory(dir / "a/b/c"));
    EXPECT_EQ(0, mkdirPathError('/' + (dir / "d/")));
    EXPECT_TRUE(isDirectory(dir / "d"));
}

TEST(MkdirPath, FollowsDotsAsTheKernelDoes) {
    const TempDir dir;
    EXPECT_EQ(0, mkdirPathError(dir / "a/./b/../c/."));
    EXPECT_TRUE(isDirectory(dir / "a/b"));
    EXPECT_TRUE(isDirectory(dir / "a/c"));
}

TEST(MkdirPath, MakesRelativePaths) {
    const TempDir dir;
    Child child = Child::run([&] {
        if (chdir(dir.path().c_str()) == -1)
            return 1;
        return mkdirPath("a/b", 0777) == 0 && mkdirPath("c", 0777) == 0 ? 0 : 2;
    });
    EXPECT_EQ(0, child.exitCode());
    EXPECT_TRUE(isDirectory(dir / "a/b"));
    EXPECT_TRUE(isDirectory(dir / "c"));
}

TEST(MkdirPath, RefusesAnEmptyPath) {
    EXPECT_EQ(ENOENT, mkdirPathError(""));
}

TEST(MkdirPath, GivesEachLevelTheModeWithinTheUmask) {
    const TempDir dir;
    const Umask mask(027);
    EXPECT_EQ(0, mkdirPathError(dir / "a/b/c", 0777));
    EXPECT_EQ(0, mkdirPathError(dir / "d/e", 0700));
    for (const char* name : {"a", "a/b", "a/b/c"})
        EXPECT_EQ(0750, modeOf(dir / name)) << name;
    for (const char* name : {"d", "d/e"})
        EXPECT_EQ(0700, modeOf(dir / name)) << name;
}

TEST(MkdirPath, RefusesAFileInTheLastPlace) {
    const TempDir dir;
    dir.makeFile("file");
    EXPECT_EQ(EEXIST, mkdirPathError(dir / "file"));
    EXPECT_EQ(EEXIST, mkdirPathError(dir / "file//"));
    EXPECT_EQ("content", contentOf(dir / "file"));
}

TEST(MkdirPath, RefusesAFileInTheMiddle) {
    const TempDir dir;
    dir.makeFile("file");
    EXPECT_EQ(ENOTDIR, mkdirPathError(dir / "file/a"));
    EXPECT_EQ(ENOTDIR, mkdirPathError(dir / "file/a/b/"));
    EXPECT_EQ("content", contentOf(dir / "file"));
}

TEST(MkdirPath, RefusesADanglingLink) {
    const TempDir dir;
    ASSERT_EQ(0, symLink("missing", (dir / "link").c_str()));
    EXPECT_EQ(EEXIST, mkdirPathError(dir / "link"));
    EXPECT_EQ(ENOTDIR, mkdirPathError(dir / "link/a"));
    EXPECT_FALSE(vkatest::exists(dir / "missing"));
}

TEST(MkdirPath, RefusesTooLongAName) {
    const TempDir dir;
    EXPECT_EQ(ENAMETOOLONG, mkdirPathError(dir / ("a/" + std::string(300, 'x') + "/b")));
    EXPECT_TRUE(isDirectory(dir / "a"));
}

TEST(MkdirPath, FailsWherePermissionsForbid) {
    const TempDir dir;
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    dir.makeDir("open");
    ASSERT_EQ(0, chmod((dir / "open").c_str(), 0777));
    dir.makeDir("closed");
    ASSERT_EQ(0, chmod((dir / "closed").c_str(), 0555));
    Child child = Child::run([&] {
        if (!vkatest::dropRoot())
            return 1;
        if (mkdirPathError(dir / "closed/a") != EACCES)
            return 2;
        if (mkdirPathError(dir / "open/a/b", 0444) != EACCES) // no way into the first level
            return 3;
        return modeOf(dir / "open/a") == 0444 ? 0 : 4;
    });
    EXPECT_EQ(0, child.exitCode());
}

TEST(MkdirPath, KeepsTheReasonOfAFailedCreation) {
    const Disarm disarmMkdir(mkdirFault), disarmStat(statFault);
    const TempDir dir;
    for (int err : {EROFS, ENOSPC, EACCES, EMLINK, EDQUOT, EIO}) {
        SCOPED_TRACE(strerror(err));
        mkdirFault.failAlways(err);
        // Whatever the following examination says.
        for (int later : {0, ENOENT, EACCES, EIO, ENOTDIR}) {
            statFault.disarm();
            if (later != 0)
                statFault.failAlways(later);
            EXPECT_EQ(err, mkdirPathError(dir / "a"));
            EXPECT_EQ(err, mkdirPathError(dir / "a/b/c"));
        }
    }
}

TEST(MkdirPath, FailsAtEachLevel) {
    const Disarm disarm(mkdirFault);
    const TempDir dir;
    ASSERT_EQ(0, mkdirPathError(dir / "count"));
    mkdirFault.disarm();
    ASSERT_EQ(0, mkdirPathError(dir / "count"));
    const int existing = mkdirFault.calls() - 1; // calls for the directories above
    for (int level = 1; level <= 3; ++level) {
        SCOPED_TRACE(level);
        const std::string top = "top" + std::to_string(level);
        mkdirFault.failAt(existing + level, ENOSPC);
        EXPECT_EQ(ENOSPC, mkdirPathError(dir / (top + "/b/c")));
        EXPECT_EQ(1, mkdirFault.failures());
        EXPECT_EQ(level > 1, isDirectory(dir / top)) << "made before the failure";
        EXPECT_EQ(level > 2, isDirectory(dir / (top + "/b"))) << "made before the failure";
        mkdirFault.disarm();
        EXPECT_EQ(0, mkdirPathError(dir / (top + "/b/c")));
    }
}

TEST(MkdirPath, AcceptsADirectoryThatIsReportedStrangely) {
    const Disarm disarm(mkdirFault);
    const TempDir dir;
    dir.makeDir("a/b");
    for (int err : {EROFS, EACCES, ENOSYS, EISDIR}) {
        mkdirFault.failAlways(err);
        EXPECT_EQ(0, mkdirPathError(dir / "a/b")) << strerror(err);
    }
}

TEST(MkdirPath, AcceptsADirectoryThatSomebodyElseMadeMeanwhile) {
    const Disarm disarm(mkdirFault);
    const TempDir dir;
    ASSERT_EQ(0, mkdirPathError(dir.path()));
    mkdirFault.disarm();
    ASSERT_EQ(0, mkdirPathError(dir.path()));
    mkdirFault.beforeCall(mkdirFault.calls() + 1, [&] { dir.makeDir("a"); });
    EXPECT_EQ(0, mkdirPathError(dir / "a/b"));
    EXPECT_TRUE(isDirectory(dir / "a/b"));
}

TEST(SymLink, PointsAtWhatItIsTold) {
    const TempDir dir;
    const std::string link = dir / "link";
    EXPECT_EQ(0, symLink("some/target", link.c_str()));
    EXPECT_EQ("some/target", targetOf(link));
}

TEST(SymLink, ReportsFailures) {
    const TempDir dir;
    dir.makeFile("file");
    EXPECT_EQ(EEXIST, errorOf(symLink("target", (dir / "file").c_str())));
    EXPECT_EQ(ENOENT, errorOf(symLink("target", (dir / "missing/link").c_str())));
    EXPECT_EQ(ENOTDIR, errorOf(symLink("target", (dir / "file/link").c_str())));
    EXPECT_EQ(ENOENT, errorOf(symLink("", (dir / "link").c_str())));
    EXPECT_EQ("content", contentOf(dir / "file"));
}
