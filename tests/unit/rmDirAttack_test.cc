// SPDX-License-Identifier: MIT
//
// rmDir() in a tree whose directories another process exchanges for links, as fast as it can. What
// the links lead to, and what stands where the directories land, must stay as it is.
//
// VKA_ATTACK_SECONDS in the environment says for how long; 5 unless it is set.
#include <libqvio/fileutils>

#include "tests/support/child.h"
#include "tests/support/descriptors.h"
#include "tests/support/tempdir.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>

using vkatest::Child;
using vkatest::contentOf;
using vkatest::openDescriptors;
using vkatest::Stopwatch;
using vkatest::TempDir;

namespace {

const int width = 8; // directories that are exchanged, each with a slot of its own

unsigned long linksMet = 0; // calls of openat() that found a link in the place of a directory

int watched(int fd) {
    if (fd == -1 && (errno == ENOTDIR || errno == ELOOP))
        ++linksMet;
    return fd;
}

} // namespace

// All names by which a build may call openat().
#define WATCH(name, params, args)                                                                  \
    extern "C" __attribute__((weak)) int __real_##name params;                                     \
    extern "C" int __wrap_##name params;                                                           \
    extern "C" int __wrap_##name params {                                                          \
        sched_yield(); /* the attacker's turn, also where there is one processor */                \
        return watched(__real_##name args);                                                        \
    }
WATCH(openat, (int dir, const char* path, int flags, mode_t mode), (dir, path, flags, mode))
WATCH(openat64, (int dir, const char* path, int flags, mode_t mode), (dir, path, flags, mode))
WATCH(__openat_2, (int dir, const char* path, int flags), (dir, path, flags))
WATCH(__openat64_2, (int dir, const char* path, int flags), (dir, path, flags))

namespace {

/** Memory that the two processes have in common. */
class Shared {
public:
    Shared()
        : state(static_cast<State*>(mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (state == MAP_FAILED)
            abort();
        new (state) State();
    }
    ~Shared() { munmap(state, sizeof(State)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    unsigned long exchanges() const { return state->exchanges; }
    void count() const { ++state->exchanges; }

    /** For the attacker: waits while it must leave the tree alone. */
    void waitForLeave() const {
        while (!state->leave) {
            state->attacking = false;
            sched_yield();
        }
        state->attacking = true;
    }
    void release() const { state->leave = true; }
    /** Returns when the attacker does nothing any more. @return false if it does not listen */
    bool hold() const {
        state->leave = false;
        return vkatest::waitUntil([this] { return !state->attacking; });
    }

private:
    struct State {
        std::atomic<bool> leave, attacking;
        std::atomic<unsigned long> exchanges;
    };
    State* const state;
};

std::string nameOf(int number) {
    return "/n" + std::to_string(number);
}

std::string slotOf(int number) {
    return "yard/" + std::to_string(number) + "/slot";
}

[[noreturn]] int attack(const Shared& shared, const TempDir& dir) {
    for (int i = 0;; i = (i + 1) % width) {
        shared.waitForLeave();
        if (renameat2(AT_FDCWD, (dir / ("top/a" + nameOf(i))).c_str(), AT_FDCWD,
                      (dir / slotOf(i)).c_str(), RENAME_EXCHANGE) == 0)
            shared.count();
    }
}

typedef std::map<std::string, std::string> listing_t;

/** Everything below a directory: type, mode, owner, inode, size, dates, content. */
listing_t listing(const std::string& top) {
    listing_t entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
        const std::string path = entry.path();
        struct stat info;
        if (lstat(path.c_str(), &info) == -1)
            abort();
        std::ostringstream text;
        text << info.st_mode << ' ' << info.st_uid << ' ' << info.st_ino << ' ' << info.st_size
             << ' ' << info.st_mtim.tv_sec << '.' << info.st_mtim.tv_nsec << ' '
             << info.st_ctim.tv_sec << '.' << info.st_ctim.tv_nsec;
        if (S_ISREG(info.st_mode))
            text << ' ' << std::hash<std::string>()(contentOf(path));
        entries[path.substr(top.size())] = text.str();
    }
    return entries;
}

/** What the second listing lacks or has otherwise, one line each. */
std::string difference(const listing_t& before, const listing_t& after) {
    std::string lines;
    for (const auto& entry : before) {
        const auto found = after.find(entry.first);
        if (found == after.end())
            lines += entry.first + " is gone\n";
        else if (found->second != entry.second)
            lines += entry.first + " has changed\n";
    }
    return before.size() < after.size() ? lines + "there are more files" : lines;
}

class RmDirAttack : public testing::Test {
protected:
    /** Directories n0, n1 ... with files; one may be left out. */
    void makeDirs(const std::string& top, int leftOut = -1) const {
        for (int i = 0; i < width; ++i) {
            if (i == leftOut)
                continue;
            const std::string below = top + nameOf(i);
            for (const char* sub : {"/m0", "/m1", "/m2"}) {
                dir.makeDir(below + sub);
                dir.makeFile(below + sub + "/file", below + sub);
            }
            dir.makeFile(below + "/file", below);
        }
    }

    /** A whole tree, and links in the slots. */
    void prepare() const {
        std::filesystem::remove_all(dir / "top");
        makeDirs("top/a");
        for (int i = 0; i < width; ++i) {
            std::filesystem::remove_all(dir / slotOf(i));
            ASSERT_EQ(0, symlink((dir / "outside").c_str(), (dir / slotOf(i)).c_str()));
        }
    }

    /** What must stay as it is: all that the links lead to, and all beside the slots. */
    listing_t precious() const {
        listing_t entries = listing(dir / "outside");
        for (int i = 0; i < width; ++i) {
            const std::string yard = "yard/" + std::to_string(i);
            for (const auto& entry : listing(dir / yard)) {
                if (entry.first.compare(0, strlen("/slot"), "/slot") != 0)
                    entries[yard + entry.first] = entry.second;
            }
        }
        return entries;
    }

    const TempDir dir;
};

long attackMs() {
    const char* seconds = getenv("VKA_ATTACK_SECONDS");
    return (seconds ? atol(seconds) : 5) * 1000;
}

TEST_F(RmDirAttack, LeavesAloneWhatIsOutside) {
    makeDirs("outside");
    // A directory taken out of the tree lands beside directories with the names of those that
    // rmDir() still has to visit: going up from there without a look would empty these.
    for (int i = 0; i < width; ++i)
        makeDirs("yard/" + std::to_string(i), i);
    const listing_t before = precious();
    ASSERT_EQ((width + width * (width - 1)) * 8u, before.size());

    const Shared shared;
    Child attacker = Child::run([&]() -> int { attack(shared, dir); });
    const std::set<int> open = openDescriptors();
    std::map<int, unsigned long> outcomes; // by errno, 0 for success
    unsigned long runs = 0;
    const Stopwatch watch;
    const auto enough = [&] { return outcomes[0] != 0 && outcomes[ESTALE] != 0 && linksMet != 0; };
    while (watch.ms() < attackMs() ||
           (!enough() && watch.ms() < attackMs() + vkatest::patience.count())) {
        prepare();
        const unsigned long former = shared.exchanges();
        shared.release();
        // Nobody exchanges anything before the attacker is awake.
        ASSERT_TRUE(vkatest::waitUntil([&] { return shared.exchanges() != former; }));
        ++outcomes[rmDir(dir / "top", true) == 0 ? 0 : errno];
        ++runs;
        ASSERT_TRUE(shared.hold());
    }

    printf("%lu exchanges in %ld ms, %lu runs, %lu links met in a directory's place\n",
           shared.exchanges(), watch.ms(), runs, linksMet);
    for (const auto& outcome : outcomes)
        printf("%8lu %s\n", outcome.second, strerror(outcome.first));
    EXPECT_EQ("", difference(before, precious()));
    EXPECT_EQ(open, openDescriptors());
    EXPECT_GT(linksMet, 0u);
    EXPECT_GT(outcomes[0], 0u);
    EXPECT_GT(outcomes[ESTALE], 0u);
    for (const auto& outcome : outcomes) {
        // At a link or a directory with files in the place of the directory just emptied.
        EXPECT_TRUE(outcome.first == 0 || outcome.first == ESTALE || outcome.first == ENOTDIR ||
                    outcome.first == ENOTEMPTY || outcome.first == EISDIR)
            << strerror(outcome.first);
    }
}

} // namespace
