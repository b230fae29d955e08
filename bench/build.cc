// SPDX-License-Identifier: MIT
// Builds an archive as a host does: build WORKDIR ARCHIVE. The log lines tell the two commands.
#include <libvka/client/VKAClient>

#include <exception>
#include <iostream>

int main(int argc, char* argv[]) {
    if (argc != 3)
        return 2;
    VKAClient::args_t log;
    try {
        VKAClient(argv[1], false, 0, 0, "", 0).build(argv[2], log, false);
    } catch (const std::exception& err) {
        for (const std::string& line : log)
            std::cerr << line << '\n';
        std::cerr << err.what() << '\n';
        return 1;
    }
    return 0;
}
