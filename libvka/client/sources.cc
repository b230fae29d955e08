// SPDX-License-Identifier: MIT
// Handing back sources and unfetched output; linking data files.
#include <libvka/client/VKAClient>

#include <libqvio/IOException>
#include <libvka/client/log.h>

#include <cerrno>
#include <unistd.h>

void VKAClient::getSources(const std::string& _zipfile, args_t& _log) {
    if (!isDirectory(srcdir)) {
        const int err = errno;
        throw IOException(err, "no src dir " + srcdir);
    }
    if (chdir(srcdir.c_str()) == -1) {
        const int err = errno;
        throw IOException(err, "change dir to " + srcdir);
    }
    _log.push_back("\n\nzip log:\n");
    const std::string cmd = "zip " + _zipfile + " *.h *.hh *.c *.cc";
    VKA_INFO("call: " << cmd);
    if (getCmdCallOutput(cmd, _log, true) < 0) {
        const int err = errno;
        throw IOException(err, "cannot zip " + _zipfile);
    }
}

void VKAClient::getRunLog(args_t& _log) {
    _log.clear();
    for (const byteVec_t& chunk : bufChild2Conn)
        _log.emplace_back(chunk.begin(), chunk.end());
    bufChild2Conn.clear();
}

void VKAClient::createFile(const std::string& _file) {
    if (chdir(srcdir.c_str()) == -1) {
        const int err = errno;
        throw IOException(err, "cannto chdir to " + srcdir);
    }
    if (unlink(_file.c_str()) == -1 && errno != ENOENT) {
        const int err = errno;
        throw IOException(err, "cannot remove old " + _file);
    }
    const std::string vkaconfigure = "/opt/quorvel/share/vka/" + _file;
    if (symLink(vkaconfigure.c_str(), _file.c_str()) != 0) {
        const int err = errno;
        throw IOException(err, "cannot create symlink to " + _file);
    }
}
