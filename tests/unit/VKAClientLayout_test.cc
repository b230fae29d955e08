// SPDX-License-Identifier: MIT
// Private constants and the order of the members. Compiled without access control.
#include <libvka/client/VKAClient>

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

static_assert(std::is_same<decltype(VKAClient::VKA_BIN), const char[7]>::value, "VKA_BIN");
static_assert(std::is_same<decltype(VKAClient::VKA_BINFILE), const char[12]>::value, "VKA_BINFILE");

TEST(VKAClientLayout, holdsTheProgramsNameAndPath) {
    EXPECT_EQ(memcmp(VKAClient::VKA_BIN, "vkabin", 7), 0);
    EXPECT_EQ(memcmp(VKAClient::VKA_BINFILE, "/tmp/vkabin", 12), 0);
}

/** Walks through an object, member by member. */
class Walk {
public:
    explicit Walk(const VKAClient& agent)
        : start(reinterpret_cast<const char*>(&agent)), end(sizeof(void*)) {}

    template <typename T>
    void expectNext(const char* name, const T& member) {
        const size_t offset = static_cast<size_t>(reinterpret_cast<const char*>(&member) - start);
        EXPECT_EQ(offset, (end + alignof(T) - 1) / alignof(T) * alignof(T)) << name;
        end = offset + sizeof(T);
    }

    void expectEnd() const {
        const size_t alignment = alignof(VKAClient);
        EXPECT_EQ(sizeof(VKAClient), (end + alignment - 1) / alignment * alignment);
    }

private:
    const char* const start;
    size_t end; // of the members so far; the pointer to the virtual table is the first
};

TEST(VKAClientLayout, hasTheMembersInOrderAndNoOthers) {
    const VKAClient agent("/w", false, 0, 0, "", 0);
    Walk walk(agent);
#define EXPECT_NEXT(name) walk.expectNext(#name, agent.name)
    EXPECT_NEXT(debug);
    EXPECT_NEXT(srcdir);
    EXPECT_NEXT(builddir);
    EXPECT_NEXT(vkaproc);
    EXPECT_NEXT(console);
    EXPECT_NEXT(master);
    EXPECT_NEXT(slave);
    EXPECT_NEXT(fdServer);
    EXPECT_NEXT(port);
    EXPECT_NEXT(fdConn);
    EXPECT_NEXT(logfile);
    EXPECT_NEXT(bufChild2Conn);
    EXPECT_NEXT(bufsize);
    EXPECT_NEXT(maxbufsize);
    EXPECT_NEXT(bufConn2Child);
    EXPECT_NEXT(totalram);
    walk.expectEnd();
}

} // namespace
