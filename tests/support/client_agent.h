// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_CLIENT_AGENT_H
#define TESTS_SUPPORT_CLIENT_AGENT_H

#include <libvka/client/VKAClient>

/** The agent with its protected parts open to the tests. */
class Agent : public VKAClient {
public:
    using VKAClient::VKAClient;

    using VKAClient::buf_t;
    using VKAClient::BUFSIZE;
    using VKAClient::joblimit;

    using VKAClient::createFile;
    using VKAClient::createMakefile;
    using VKAClient::exec;

    using VKAClient::bufChild2Conn;
    using VKAClient::bufConn2Child;
    using VKAClient::bufsize;
    using VKAClient::builddir;
    using VKAClient::console;
    using VKAClient::debug;
    using VKAClient::fdConn;
    using VKAClient::fdServer;
    using VKAClient::logfile;
    using VKAClient::master;
    using VKAClient::maxbufsize;
    using VKAClient::port;
    using VKAClient::slave;
    using VKAClient::srcdir;
    using VKAClient::totalram;
    using VKAClient::vkaproc;
};

#endif
