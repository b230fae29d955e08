// SPDX-License-Identifier: MIT
#include <libqvproc/Proc>

#include "tests/support/child.h"
#include "tests/support/descriptors.h"
#include "tests/support/tempdir.h"
#include "tests/support/transfer.h"
#include "tests/support/variants.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/times.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vkatest::Child;
using vkatest::Fault;
using vkatest::TempDir;

namespace {

Fault opendirFault, readdirFault, readlinkFault, openFault, readFault;
std::string executable; // what every link to a process's executable says, unless empty

/** A program under a name that no other process of the machine has, and its processes. */
class Program {
public:
    explicit Program(const std::string& suffix = "")
        : name("vkt" + suffix + std::to_string(getpid())) {
        vkatest::copyProgram("/bin/sleep", path());
    }
    std::string path() const { return dir / name; }

    /** Starts a process and waits until it runs the program. */
    pid_t start(const char* argv0 = nullptr) {
        const std::string file = path();
        started.push_back(Child::program(file.c_str(), argv0 ? argv0 : file.c_str(), "1000"));
        return started.back().id();
    }
    Child& last() { return started.back(); }

    const TempDir dir;
    const std::string name;

private:
    std::vector<Child> started;
};

/** The ids that a command prints. */
Proc::pidset_t idsFrom(const std::string& cmd) {
    Proc::pidset_t ids;
    std::istringstream printed(vkatest::popenOf(cmd).second);
    for (int id; printed >> id;)
        ids.insert(id);
    return ids;
}

/** What pidsof() finds; when that is nothing, the reason has to be that there is none. */
Proc::pidset_t found(const std::string& name) {
    errno = 0;
    const Proc::pidset_t pids = Proc::pidsof(name.c_str());
    EXPECT_EQ(pids.empty(), errno == ESRCH);
    const pid_t lowest = Proc::pidof(name.c_str());
    EXPECT_EQ(pids.empty() ? -1 : *pids.begin(), lowest);
    EXPECT_EQ(lowest, Proc(name.c_str()).getPid());
    return pids;
}

/** A status line whose other fields are all different and must not be mistaken. */
std::string statLine(const std::string& name, const std::string& user, const std::string& kernel,
                     const std::string& pages, int fields = 52) {
    std::string line = "1234 (" + name + ") S";
    for (int field = 4; field <= fields; ++field) {
        line += ' ';
        line += field == 14   ? user
                : field == 15 ? kernel
                : field == 24 ? pages
                : field == 8  ? "-1"
                              : std::to_string(field * 1000);
    }
    return line;
}

Proc::timesMem_t timesMem(uint64_t user, uint64_t kernel, uint64_t kib) {
    return Proc::timesMem_t(user, kernel, static_cast<uint32_t>(kib));
}

const uint64_t pageKib = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
const Proc::timesMem_t nothing(0, 0, 0);

class ProcLookup : public testing::Test {
protected:
    void SetUp() override { openBefore = vkatest::openDescriptors(); }
    void TearDown() override {
        for (Fault* fault : {&opendirFault, &readdirFault, &readlinkFault, &openFault, &readFault})
            fault->disarm();
        executable.clear();
        EXPECT_EQ(openBefore, vkatest::openDescriptors()) << "descriptors left open";
    }

private:
    std::set<int> openBefore;
};

} // namespace

VKA_WRAP(opendirFault, DIR*, opendir, (const char* path), (path), nullptr)
VKA_WRAP(readdirFault, dirent*, readdir, (DIR * dir), (dir), nullptr)
VKA_WRAP(readdirFault, dirent64*, readdir64, (DIR * dir), (dir), nullptr)
extern "C" {
__attribute__((weak)) ssize_t __real_readlink(const char* path, char* buf, size_t size);
ssize_t __wrap_readlink(const char* path, char* buf, size_t size);
ssize_t __wrap_readlink(const char* path, char* buf, size_t size) {
    if (readlinkFault.hit())
        return -1;
    return executable.empty() ? __real_readlink(path, buf, size)
                              : static_cast<ssize_t>(executable.copy(buf, size));
}
ssize_t __wrap___readlink_chk(const char* path, char* buf, size_t size, size_t room);
ssize_t __wrap___readlink_chk(const char* path, char* buf, size_t size, size_t /*room*/) {
    return __wrap_readlink(path, buf, size);
}
}
VKA_WRAP_OPEN(openFault)
VKA_WRAP_READ(readFault)

TEST_F(ProcLookup, FindsEveryProcessOfAProgram) {
    Program program;
    EXPECT_THAT(found(program.name), IsEmpty());
    Proc::pidset_t pids;
    for (int i = 0; i < 3; ++i) {
        pids.insert(program.start());
        EXPECT_EQ(pids, found(program.name));
    }
    EXPECT_EQ(pids, found(program.path()));
    EXPECT_EQ(pids, idsFrom("pidof " + program.name));
    EXPECT_EQ(pids, idsFrom("pgrep -x " + program.name));
}

TEST_F(ProcLookup, NameIsThatOfArgumentZero) {
    Program program, other("other");
    const pid_t pid = program.start(other.name.c_str());
    EXPECT_THAT(found(other.name), ElementsAre(pid));
    EXPECT_THAT(found(program.name), IsEmpty());
    for (const std::string& name : {other.name, program.name})
        EXPECT_EQ(found(name), idsFrom("pidof " + name)) << name;
}

TEST_F(ProcLookup, PathIsThatOfTheExecutableOrArgumentZero) {
    Program program, other("other");
    const pid_t pid = program.start(other.path().c_str());
    EXPECT_THAT(found(program.path()), ElementsAre(pid));
    EXPECT_THAT(found(other.path()), ElementsAre(pid));
    EXPECT_THAT(found(other.name), ElementsAre(pid));
    EXPECT_THAT(found(program.name), IsEmpty());
}

TEST_F(ProcLookup, TitledProcessGoesByTheKernelsName) {
    Program program;
    const pid_t pid = program.start("worker: waiting for jobs");
    EXPECT_THAT(found(program.name), ElementsAre(pid));
    EXPECT_EQ(found(program.name), idsFrom("pidof " + program.name));
    EXPECT_THAT(found(program.path()), ElementsAre(pid));
    EXPECT_THAT(found("worker:"), IsEmpty());
    EXPECT_THAT(found(program.name.substr(0, program.name.size() - 1)), IsEmpty());
}

TEST_F(ProcLookup, NeedsTheWholeNameOrPath) {
    Program program;
    program.start();
    for (const std::string& name :
         {program.name.substr(1), program.name + "x",
          program.name.substr(0, program.name.size() - 1), std::string(), '/' + program.name,
          program.path() + '/', program.dir.path(), std::string("1000")}) {
        for (pid_t pid : found(name))
            EXPECT_NE(program.last().id(), pid) << name;
    }
}

TEST_F(ProcLookup, FindsAProgramWhoseFileIsGone) {
    Program program;
    const pid_t pid = program.start("something else");
    ASSERT_EQ(0, unlink(program.path().c_str()));
    EXPECT_THAT(found(program.name), ElementsAre(pid));
    EXPECT_THAT(found(program.path()), ElementsAre(pid));
}

TEST_F(ProcLookup, FindsAProgramByAShortPath) {
    for (const char* path : {"/x", "/12345678", "/123456789", "/1234567890", "/x (deleted"}) {
        executable = path;
        EXPECT_EQ(1u, found(path).count(getpid())) << path;
        executable += " (deleted)";
        EXPECT_EQ(1u, found(path).count(getpid())) << executable;
    }
}

TEST_F(ProcLookup, DoesNotFindAZombie) {
    Program program;
    ASSERT_EQ(0, kill(program.start(), SIGKILL));
    ASSERT_TRUE(program.last().awaitZombie());
    EXPECT_THAT(found(program.name), IsEmpty());
}

TEST_F(ProcLookup, ScriptGoesByItsInterpretersName) {
    Program interpreter;
    // The interpreter gets the script's name as its last argument: to it, one more number.
    const std::string script = interpreter.dir.makeFile("1000", "#!" + interpreter.path() + '\n');
    ASSERT_EQ(0, chmod(script.c_str(), 0755));
    Child child = Child::run([&] {
        if (chdir(interpreter.dir.path().c_str()) == 0)
            execl("1000", "1000", nullptr);
        return 127;
    });
    EXPECT_TRUE(vkatest::waitUntil([&] { return Proc::pidof(interpreter.name.c_str()) != -1; }));
    EXPECT_THAT(found(interpreter.name), ElementsAre(child.id()));
    EXPECT_EQ(0u, found("1000").count(child.id()));
}

TEST_F(ProcLookup, LooksSeveralNamesUp) {
    Program one("a"), two("b");
    const Proc::pidset_t ofOne = {one.start(), one.start()};
    const pid_t ofTwo = two.start();
    Proc::pidvec_t names = {Proc::pidvec_t::value_type(one.name),
                            Proc::pidvec_t::value_type("no such program"),
                            Proc::pidvec_t::value_type(two.path())};
    EXPECT_THAT(names[0].value, IsEmpty());
    names[1].value = {1, 2, 3}; // from an earlier lookup
    Proc::pidof(names);
    EXPECT_EQ(one.name, names[0].name);
    EXPECT_EQ(ofOne, names[0].value);
    EXPECT_THAT(names[1].value, IsEmpty());
    EXPECT_THAT(names[2].value, ElementsAre(ofTwo));
}

TEST_F(ProcLookup, TellsWhyNothingCanBeLookedUp) {
    for (int err : {EACCES, EMFILE, ENOENT}) {
        opendirFault.failAlways(err);
        errno = 0;
        EXPECT_EQ(-1, Proc::pidof("sh"));
        EXPECT_EQ(err, errno);
        errno = 0;
        EXPECT_THAT(Proc::pidsof("sh"), IsEmpty());
        EXPECT_EQ(err, errno);
        EXPECT_EQ(-1, Proc("sh").getPid());
        EXPECT_EQ("", Proc::stat("sh"));
    }
}

TEST_F(ProcLookup, TellsThatTheDirectoryCouldNotBeReadToItsEnd) {
    Program program;
    program.start();
    readdirFault.failAt(1, EBADF);
    EXPECT_EQ(-1, Proc::pidof(program.name.c_str()));
    EXPECT_EQ(EBADF, errno);
    readdirFault.disarm();
    EXPECT_THAT(Proc::pidsof(program.name.c_str()), SizeIs(1));
    // Behind the last process, however many there are by now: it may have missed some others.
    int number = readdirFault.calls() + 50;
    Proc::pidset_t pids;
    do {
        readdirFault.failAt(number--, EBADF);
        pids = Proc::pidsof(program.name.c_str());
    } while (readdirFault.failures() == 0);
    EXPECT_THAT(pids, IsEmpty());
    EXPECT_EQ(EBADF, errno);
}

TEST_F(ProcLookup, OneOfExecutableAndArgumentZeroIsEnoughForAPath) {
    Program program;
    const pid_t pid = program.start();
    readlinkFault.failAlways(EACCES); // the executable of another user's process may not be seen
    EXPECT_THAT(found(program.path()), ElementsAre(pid));
    readlinkFault.disarm();
    openFault.failAlways(EMFILE);
    EXPECT_THAT(found(program.path()), ElementsAre(pid));
    EXPECT_THAT(found(program.name), IsEmpty());
    readlinkFault.failAlways(EACCES);
    EXPECT_THAT(found(program.path()), IsEmpty());
}

TEST_F(ProcLookup, InterruptedReadsAreRepeated) {
    const std::string line = Proc::stat(getpid());
    readFault.failAt(1, EINTR);
    EXPECT_EQ(line.substr(0, line.find(')')), Proc::stat(getpid()).substr(0, line.find(')')));
    EXPECT_EQ(1, readFault.failures());
}

TEST_F(ProcLookup, LetsNoProgramInheritItsDescriptors) {
    const std::set<int> before = vkatest::openDescriptors();
    int opened = 0;
    readFault.beforeCall(1, [&] { opened = vkatest::closedOnExec(before); });
    EXPECT_NE("", Proc::stat(getpid()));
    EXPECT_EQ(1, opened);
    readFault.beforeCall(1, [&] { opened = vkatest::closedOnExec(before); });
    Proc::pidof("no such program");
    EXPECT_EQ(2, opened) << "/proc itself and a file below";
}

TEST_F(ProcLookup, FailedReadEndsTheLookup) {
    for (int err : {EIO, ESRCH}) { // the kernel says ESRCH for a process that has ended meanwhile
        readFault.failAlways(err);
        EXPECT_EQ("", Proc::stat(getpid()));
        EXPECT_EQ(1, readFault.calls());
    }
}

TEST_F(ProcLookup, StatusLineIsTheKernels) {
    Program program;
    const pid_t pid = program.start();
    ASSERT_EQ(0, kill(pid, SIGSTOP));
    const std::string file = "/proc/" + std::to_string(pid) + "/stat";
    ASSERT_TRUE(vkatest::waitUntil(
        [&] { return vkatest::contentOf(file).find(") T ") != std::string::npos; }));
    const std::string expected = vkatest::contentOf(file);
    ASSERT_EQ('\n', expected.back());
    const std::string line = expected.substr(0, expected.size() - 1);
    EXPECT_EQ(line, Proc::stat(pid));
    EXPECT_EQ(line, Proc::stat(program.name.c_str()));
    EXPECT_EQ(line, Proc::stat(program.path().c_str()));
}

TEST_F(ProcLookup, NoProcessHasNoStatusLine) {
    Child ended = Child::run([] { return 0; });
    const pid_t pid = ended.id();
    ended.wait();
    EXPECT_EQ("", Proc::stat(pid));
    EXPECT_EQ("", Proc::stat(-1));
    EXPECT_EQ("", Proc::stat(static_cast<pid_t>(0)));
    EXPECT_EQ("", Proc::stat("no such program"));
    openFault.failAt(1, EMFILE);
    EXPECT_EQ("", Proc::stat(getpid()));
}

TEST_F(ProcLookup, StatusLinesOfSeveralNames) {
    Program one("a"), two("b");
    const Proc::pidset_t ofOne = {one.start(), one.start()};
    two.start();
    Proc::statvec_t names = {Proc::statvec_t::value_type(one.name),
                             Proc::statvec_t::value_type("no such program"),
                             Proc::statvec_t::value_type(two.name)};
    names[0].value = {"from an earlier lookup"};
    names[1].value = {"from an earlier lookup"};
    Proc::stat(names);
    Proc::pidset_t ids;
    for (const std::string& line : names[0].value) {
        EXPECT_NE(std::string::npos, line.find(" (" + one.name + ") "));
        ids.insert(std::stoi(line));
    }
    EXPECT_EQ(ofOne, ids);
    EXPECT_THAT(names[1].value, IsEmpty());
    ASSERT_EQ(1u, names[2].value.size());
    EXPECT_EQ(two.last().id(), std::stoi(*names[2].value.begin()));
}

TEST_F(ProcLookup, ReadsTimesAndMemory) {
    EXPECT_EQ(timesMem(12, 345, 6 * pageKib),
              Proc::statTimesMem(statLine("sleep", "12", "345", "6")));
    EXPECT_EQ(timesMem(UINT64_MAX, UINT64_MAX - 1, 0),
              Proc::statTimesMem(statLine("sleep", std::to_string(UINT64_MAX),
                                          std::to_string(UINT64_MAX - 1), "0")));
    EXPECT_EQ(timesMem(1, 2, 3 * pageKib), Proc::statTimesMem(statLine("sleep", "1", "2", "3", 24)))
        << "nothing behind the last field needed";
    EXPECT_EQ(timesMem(1, 2, 3 * pageKib), Proc::statTimesMem(statLine("x", "1", "2", "3") + '\n'));
}

TEST_F(ProcLookup, NameInTheLineMayHoldAnything) {
    for (const char* name :
         {"", " ", "a b", ")", "(", ") (", ") S 1 2 3 4 (", "((", "))", "1 (x) R", "\n"})
        EXPECT_EQ(timesMem(12, 345, 6 * pageKib),
                  Proc::statTimesMem(statLine(name, "12", "345", "6")))
            << name;
}

TEST_F(ProcLookup, MemoryIsLimitedToWhatTheNumberHolds) {
    EXPECT_EQ(timesMem(1, 2, UINT32_MAX),
              Proc::statTimesMem(statLine("x", "1", "2", std::to_string(UINT64_C(1) << 40))));
    const uint64_t most = UINT32_MAX / pageKib;
    EXPECT_EQ(timesMem(1, 2, most * pageKib),
              Proc::statTimesMem(statLine("x", "1", "2", std::to_string(most))));
    EXPECT_EQ(timesMem(1, 2, UINT32_MAX),
              Proc::statTimesMem(statLine("x", "1", "2", std::to_string(most + 1))));
}

TEST_F(ProcLookup, LineThatCannotBeReadGivesZeros) {
    for (const std::string& line :
         {std::string(), std::string("no line"), std::string("1234 (sleep)"),
          statLine("sleep", "12", "345", "6", 23), statLine("sleep", "12", "345", "6", 14),
          statLine("sleep", "x", "345", "6"), statLine("sleep", "12", "x", "6"),
          statLine("sleep", "12", "345", "x"),
          statLine("sleep", "99999999999999999999999", "345", "6")})
        EXPECT_EQ(nothing, Proc::statTimesMem(line)) << line;
}

TEST_F(ProcLookup, TimesAndMemoryOfABusyProcess) {
    static const size_t size = 48 * 1024 * 1024;
    Child busy = Child::run([]() -> int {
        void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        if (memory == MAP_FAILED)
            return 1;
        for (volatile unsigned i = 0;; i = i + 1) {
            if (i % 1024 == 0)
                getppid(); // some time in the kernel too
        }
    });
    const auto now = [&] { return Proc::statTimesMem(Proc::stat(busy.id())); };
    ASSERT_TRUE(vkatest::waitUntil([&] { return std::get<0>(now()) >= 20; }));
    EXPECT_GE(std::get<2>(now()), size / 1024);
    EXPECT_LT(std::get<2>(now()), UINT32_MAX);

    const auto last = now();
    ASSERT_EQ(0, kill(busy.id(), SIGKILL));
    ASSERT_TRUE(busy.awaitZombie());
    const auto final = now();
    EXPECT_GE(std::get<0>(final), std::get<0>(last));
    EXPECT_EQ(0u, std::get<2>(final)) << "a zombie has no memory";
    tms before, after;
    times(&before);
    busy.wait();
    times(&after);
    EXPECT_NEAR(static_cast<double>(after.tms_cutime - before.tms_cutime),
                static_cast<double>(std::get<0>(final)), 2);
    EXPECT_NEAR(static_cast<double>(after.tms_cstime - before.tms_cstime),
                static_cast<double>(std::get<1>(final)), 2);
}
