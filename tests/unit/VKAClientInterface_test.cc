// SPDX-License-Identifier: MIT
// What a host and a derived class see of VKAClient, checked by the compiler.
#include <tests/support/client_agent.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using std::is_same;
using std::string;
typedef std::vector<string> strings;

template <typename T, typename Class>
using member = T Class::*;

// Types
static_assert(is_same<VKAClient::args_t, strings>::value, "args_t");
static_assert(is_same<VKAClient::pidset_t, std::set<int>>::value, "pidset_t");
static_assert(is_same<VKAClient::pidset_t, Proc::pidset_t>::value, "pidset_t");
static_assert(is_same<Agent::buf_t, std::deque<byteVec_t>>::value, "buf_t");
static_assert(is_same<byteVec_t, std::vector<unsigned char>>::value, "byteVec_t");

// Class constants
static_assert(is_same<decltype(Agent::BUFSIZE), const size_t>::value, "BUFSIZE");
static_assert(Agent::BUFSIZE == 512, "BUFSIZE");
static_assert(is_same<decltype(Agent::joblimit), const size_t>::value, "joblimit");
static_assert(Agent::joblimit == 536870912, "joblimit");

// Members
#define EXPECT_MEMBER(type, name)                                                                  \
    static_assert(is_same<decltype(&Agent::name), member<type, VKAClient>>::value, #name)
EXPECT_MEMBER(unsigned int, debug);
EXPECT_MEMBER(string, srcdir);
EXPECT_MEMBER(string, builddir);
EXPECT_MEMBER(Proc, vkaproc);
EXPECT_MEMBER(const bool, console);
EXPECT_MEMBER(int, master);
EXPECT_MEMBER(int, slave);
EXPECT_MEMBER(int, fdServer);
EXPECT_MEMBER(const in_port_t, port);
EXPECT_MEMBER(int, fdConn);
EXPECT_MEMBER(const string, logfile);
EXPECT_MEMBER(Agent::buf_t, bufChild2Conn);
EXPECT_MEMBER(size_t, bufsize);
EXPECT_MEMBER(size_t, maxbufsize);
EXPECT_MEMBER(byteVec_t, bufConn2Child);
EXPECT_MEMBER(const size_t, totalram);

// Operations
EXPECT_MEMBER(void(const string&, VKAClient::args_t&, bool), build);
EXPECT_MEMBER(void(VKAClient::args_t&, const VKAClient::args_t&), make);
EXPECT_MEMBER(void(), run);
EXPECT_MEMBER(void(), stop);
EXPECT_MEMBER(pid_t(bool, VKAClient::pidset_t&), waitChildren);
EXPECT_MEMBER(void(const string&, VKAClient::args_t&), getSources);
EXPECT_MEMBER(void(VKAClient::args_t&), getRunLog);
EXPECT_MEMBER(void(FdSet&, FdSet&), addConsole);
EXPECT_MEMBER(void(const FdSet&, const FdSet&), handleData);
EXPECT_MEMBER(void(), exec);
EXPECT_MEMBER(void(const string&), createFile);
EXPECT_MEMBER(void(), createMakefile);

static_assert(std::is_constructible<VKAClient, const char*, bool, size_t, in_port_t, const string&,
                                    unsigned int>::value,
              "constructor");
static_assert(
    !std::is_constructible<VKAClient, const char*, bool, size_t, in_port_t, const string&>::value,
    "no argument has a default");
static_assert(std::has_virtual_destructor<VKAClient>::value, "deletable through a pointer");
static_assert(!std::is_final<VKAClient>::value && !std::is_abstract<VKAClient>::value, "");

// Access: what is named below is seen in Class by an outsider, or by a class derived from it.
#define DEFINE_PROBES(name)                                                                        \
    template <typename Class, typename = void>                                                     \
    struct Public_##name : std::false_type {};                                                     \
    template <typename Class>                                                                      \
    struct Public_##name<Class, std::void_t<decltype(&Class::name)>> : std::true_type {};
#define EXPECT_PUBLIC(name)                                                                        \
    DEFINE_PROBES(name)                                                                            \
    static_assert(Public_##name<VKAClient>::value, #name)
#define EXPECT_PROTECTED(name)                                                                     \
    DEFINE_PROBES(name)                                                                            \
    static_assert(!Public_##name<VKAClient>::value && Public_##name<Agent>::value, #name)

EXPECT_PUBLIC(build);
EXPECT_PUBLIC(make);
EXPECT_PUBLIC(run);
EXPECT_PUBLIC(stop);
EXPECT_PUBLIC(waitChildren);
EXPECT_PUBLIC(getSources);
EXPECT_PUBLIC(getRunLog);
EXPECT_PUBLIC(addConsole);
EXPECT_PUBLIC(handleData);
EXPECT_PROTECTED(exec);
EXPECT_PROTECTED(createFile);
EXPECT_PROTECTED(createMakefile);
EXPECT_PROTECTED(BUFSIZE);
EXPECT_PROTECTED(joblimit);
EXPECT_PROTECTED(debug);
EXPECT_PROTECTED(srcdir);
EXPECT_PROTECTED(builddir);
EXPECT_PROTECTED(vkaproc);
EXPECT_PROTECTED(console);
EXPECT_PROTECTED(master);
EXPECT_PROTECTED(slave);
EXPECT_PROTECTED(fdServer);
EXPECT_PROTECTED(port);
EXPECT_PROTECTED(fdConn);
EXPECT_PROTECTED(logfile);
EXPECT_PROTECTED(bufChild2Conn);
EXPECT_PROTECTED(bufsize);
EXPECT_PROTECTED(maxbufsize);
EXPECT_PROTECTED(bufConn2Child);
EXPECT_PROTECTED(totalram);

template <typename Class, typename = void>
struct HasPublicBuf : std::false_type {};
template <typename Class>
struct HasPublicBuf<Class, std::void_t<typename Class::buf_t>> : std::true_type {};
static_assert(!HasPublicBuf<VKAClient>::value && HasPublicBuf<Agent>::value, "buf_t is protected");

/** A derived class: sees protected class members, but no private ones. */
struct Heir : VKAClient {
    template <typename Class>
    static auto bufsize(int) -> decltype(&Class::BUFSIZE, true) {
        return true;
    }
    template <typename>
    static bool bufsize(...) {
        return false;
    }
    template <typename Class>
    static auto bin(int) -> decltype(&Class::VKA_BIN, true) {
        return true;
    }
    template <typename>
    static bool bin(...) {
        return false;
    }
    template <typename Class>
    static auto binFile(int) -> decltype(&Class::VKA_BINFILE, true) {
        return true;
    }
    template <typename>
    static bool binFile(...) {
        return false;
    }
};

TEST(VKAClientInterface, keepsTheProgramsNameAndPathPrivate) {
    ASSERT_TRUE(Heir::bufsize<VKAClient>(0)); // the probe itself works
    EXPECT_FALSE(Heir::bin<VKAClient>(0));
    EXPECT_FALSE(Heir::binFile<VKAClient>(0));
}

TEST(VKAClientInterface, classConstantsHaveAnAddress) {
    const size_t* const constants[] = {&Agent::BUFSIZE, &Agent::joblimit};
    EXPECT_EQ(*constants[0], 512u);
    EXPECT_EQ(*constants[1], 536870912u);
}

struct OneMore : Agent {
    using Agent::Agent;
    virtual void added() {}
};

/** The destructor takes two slots; a virtual operation of VKAClient would push this one on. */
TEST(VKAClientInterface, onlyTheDestructorIsVirtual) {
    void (OneMore::*const operation)() = &OneMore::added;
    ptrdiff_t raw[2];
    static_assert(sizeof(operation) == sizeof(raw), "pointer to member function");
    memcpy(raw, &operation, sizeof(raw));
    EXPECT_EQ(raw[0] & ~ptrdiff_t(1), 2 * ptrdiff_t(sizeof(void*)));
}

} // namespace
