// SPDX-License-Identifier: MIT
// Unpacking an archive and building its program.
#include <libvka/client/VKAClient>

#include <libqvio/IOException>
#include <libqvutil/QVException>
#include <libvka/client/log.h>

#include <cerrno>
#include <unistd.h>

namespace {

/** A make variable and its value. */
struct vkavar_t {
    const char* n;
    const char* s;
};

} // namespace

void VKAClient::build(const std::string& _zipfile, args_t& _log, bool force) {
    if (debug > 1)
        VKA_DEBUG("srcdir=" << srcdir);
    if (mkdirPath(srcdir, 0777) == -1) {
        const int err = errno;
        throw IOException(err, "create src dir " + srcdir);
    }
    if (rmDir(std::string(srcdir.c_str()), false) == -1) {
        const int err = errno;
        throw IOException(err, "remove old source files in " + srcdir);
    }
    if (chdir(srcdir.c_str()) == -1) {
        const int err = errno;
        throw IOException(err, "change dir to " + srcdir);
    }

    _log.push_back("\n\nunzip log:\n");
    const std::string cmd = "unzip -o " + _zipfile;
    VKA_INFO("call: " << cmd);
    const int ret = getCmdCallOutput(cmd, _log, true);
    if (ret < 0) {
        const int err = errno;
        throw IOException(err, "cannot unzip " + _zipfile);
    }

    if (force)
        VKA_INFO("forced build");
    _log.push_back("\n\nmake log:\n");
    make(_log, {"-j", totalram < joblimit ? "1" : "2"});
}

void VKAClient::make(args_t& _log, const args_t& _args) {
    static const vkavar_t VKA_VARS[] = {
        {"VKAQVLIBDIR", "/opt/quorvel"},
        {"VKALIBSUBDIR", "lib"},
        {"VKADATADIR", "/opt/quorvel/share/vka"},
        {"VKACPPFLAGS",
         "-DBOOST_FILESYSTEM_VERSION=3 -DBOOST_NO_SCOPED_ENUMS -DBOOST_NO_CXX11_SCOPED_ENUMS"
         " -D_ATFILE_SOURCE -DHAVE_CONFIG_H -I/opt/quorvel/include -D__STDC_LIMIT_MACROS"
         " -D__STDC_CONSTANT_MACROS -D__STDC_FORMAT_MACROS -D_POSIX_THREADS"
         " -D_POSIX_THREAD_SAFE_FUNCTIONS -D_REENTRANT -D_GLIBCXX_USE_NANOSLEEP"},
        {"VKACFLAGS",
         "-O2 -g -march=armv7-a -mfloat-abi=hard -mthumb -mabi=aapcs-linux -pipe  -O3"
         " -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat -Wformat-security -Wignored-qualifiers"
         " -Wlogical-op -Wmissing-include-dirs -Wpointer-arith -Wundef -Wuninitialized"},
        {"VKACXXFLAGS",
         "-O2 -g -march=armv7-a -mfloat-abi=hard -mthumb -mabi=aapcs-linux -std=c++11 -pipe"
         " -fno-implement-inlines  -O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat"
         " -Wformat-security -Wignored-qualifiers -Wlogical-op -Wmissing-include-dirs"
         " -Wpointer-arith -Wundef -Wuninitialized"},
        {"VKALDFLAGS", " -L/opt/quorvel/lib"},
        {"VKAMAKEFILE", "/opt/quorvel/share/vka/Makefile"},
    };

    std::string cmd = "make -f /opt/quorvel/share/vka/Makefile";
    for (const std::string& arg : _args)
        cmd += ' ' + arg;
    cmd += " BIN=";
    cmd += VKA_BINFILE;
    for (const vkavar_t& var : VKA_VARS)
        cmd += std::string(" ") + var.n + "=\"" + var.s + '"';
    cmd += " 2>&1";

    VKA_INFO("call: " << cmd);
    const int ret = getCmdCallOutput(cmd, _log, true);
    const int err = errno;
    const int exitStatus = (ret >> 8) & 0xff; // 0 also for a make that a signal killed
    VKA_DEBUG("getCmdCallOutput: ret=" << ret << " WEXITSTATUS=" << exitStatus << " errno=" << err
                                       << " _log.size()=" << _log.size());
    if (ret < 0)
        throw IOException(err, "cannot call make");
    if (exitStatus != 0)
        throw QVException("make error");
}
