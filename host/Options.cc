// SPDX-License-Identifier: MIT
#include <host/Options>

#include <host/FileMark>
#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <getopt.h>
#include <iostream>
#include <unistd.h>

namespace {

const char help[] =
    "Usage: vkahost [OPTION]... ARCHIVE.zip\n"
    "Build the C and C++ sources in ARCHIVE.zip into /tmp/vkabin, run that program and\n"
    "serve its console to one TCP client at a time until it ends.\n"
    "\n"
    "  -w, --workdir=DIR     unpack the sources into DIR/src (default ./vka-work)\n"
    "  -p, --port=PORT       TCP port of the console, 0 for any free one (default 2323)\n"
    "  -b, --buffer=BYTES    keep at most BYTES of output for the client; K and M are\n"
    "                          understood (default 1M)\n"
    "  -l, --log-file=FILE   no console: write the output to FILE\n"
    "  -s, --size=COLSxROWS  size of the terminal (default 80x24)\n"
    "  -e, --export=ZIP      after a successful build, pack the sources into ZIP\n"
    "  -f, --force           ask for a forced build\n"
    "  -W, --watch           build and start again whenever ARCHIVE.zip is replaced\n"
    "  -d, --debug=LEVEL     0 to 3: trace what is done and relayed (default 0)\n"
    "  -h, --help            show this help\n"
    "  -V, --version         show the version\n"
    "\n"
    "Exit status: the program's own; 128+N if signal N killed it, or ended vkahost;\n"
    "124 if the build failed; 125 if vkahost itself failed.\n";

const option longOptions[] = {
    {"workdir", required_argument, nullptr, 'w'}, {"port", required_argument, nullptr, 'p'},
    {"buffer", required_argument, nullptr, 'b'},  {"log-file", required_argument, nullptr, 'l'},
    {"size", required_argument, nullptr, 's'},    {"export", required_argument, nullptr, 'e'},
    {"force", no_argument, nullptr, 'f'},         {"watch", no_argument, nullptr, 'W'},
    {"debug", required_argument, nullptr, 'd'},   {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},       {nullptr, 0, nullptr, 0}};

[[noreturn]] void fail(const std::string& message) {
    throw QVException((message + "\nTry 'vkahost --help'.").c_str());
}

/** Reads a decimal number from the start of text and moves text behind it. */
uintmax_t readNumber(const char*& text, const char* what, uintmax_t least, uintmax_t most) {
    char* end = nullptr;
    errno = 0;
    const uintmax_t number = strtoumax(text, &end, 10);
    if (*text < '0' || *text > '9' || errno != 0 || number < least || number > most)
        fail(std::string("invalid ") + what);
    text = end;
    return number;
}

uintmax_t toNumber(const char* text, const char* what, uintmax_t most) {
    const uintmax_t number = readNumber(text, what, 0, most);
    if (*text != '\0')
        fail(std::string("invalid ") + what);
    return number;
}

size_t toBytes(const char* text) {
    const uintmax_t number = readNumber(text, "buffer size", 0, SIZE_MAX);
    const std::string suffix = text;
    const uintmax_t unit = suffix == "K" ? 1024 : suffix == "M" ? 1048576 : 1;
    if ((unit == 1 && !suffix.empty()) || number > SIZE_MAX / unit)
        fail("invalid buffer size");
    return static_cast<size_t>(number * unit);
}

void toTerminalSize(const char* text, Options& options) {
    options.columns = static_cast<unsigned short>(readNumber(text, "terminal size", 1, USHRT_MAX));
    if (*text++ != 'x')
        fail("invalid terminal size");
    options.rows = static_cast<unsigned short>(readNumber(text, "terminal size", 1, USHRT_MAX));
    if (*text != '\0')
        fail("invalid terminal size");
}

std::string absolutePath(const char* path) {
    if (*path == '\0')
        fail("empty path");
    if (*path == '/')
        return path;
    char* dir = getcwd(nullptr, 0);
    const int err = errno;
    if (!dir)
        throw IOException(err, "cannot get the working directory");
    std::string absolute = std::string(dir) + '/' + path;
    free(dir);
    return absolute;
}

/** zip appends ".zip" to a name without an extension. */
std::string zipName(const std::string& path) {
    return path.find('.', path.rfind('/')) == std::string::npos ? path + ".zip" : path;
}

bool areSame(const std::string& path, const std::string& other) {
    const FileMark mark(path);
    return path == other || (mark.exists() && mark == FileMark(other));
}

} // namespace

Options::Options()
    : archive(), workdir(), logfile(), exportFile(), port(2323), maxbufsize(1024 * 1024),
      columns(80), rows(24), debug(0), force(false), watch(false) {}

bool parseOptions(int argc, char* argv[], Options& options) {
    int letter;
    while ((letter = getopt_long(argc, argv, "w:p:b:l:s:e:fWd:hV", longOptions, nullptr)) != -1) {
        switch (letter) {
        case 'w':
            options.workdir = absolutePath(optarg);
            break;
        case 'p':
            options.port = static_cast<in_port_t>(toNumber(optarg, "port", 65535));
            break;
        case 'b':
            options.maxbufsize = toBytes(optarg);
            break;
        case 'l':
            options.logfile = absolutePath(optarg);
            break;
        case 's':
            toTerminalSize(optarg, options);
            break;
        case 'e':
            options.exportFile = zipName(absolutePath(optarg));
            break;
        case 'f':
            options.force = true;
            break;
        case 'W':
            options.watch = true;
            break;
        case 'd':
            options.debug = static_cast<unsigned int>(toNumber(optarg, "debug level", 3));
            break;
        case 'h':
            std::cout << help;
            return false;
        case 'V':
            std::cout << "vkahost " VKA_VERSION "\n";
            return false;
        default:
            fail("invalid command line"); // getopt_long has said what
        }
    }
    if (argc - optind != 1)
        fail(argc == optind ? "no archive given" : "more than one archive given");
    options.archive = absolutePath(argv[optind]);
    if (options.workdir.empty())
        options.workdir = absolutePath("vka-work");
    if (areSame(options.logfile, options.archive))
        fail("the log file is the archive");
    if (options.watch && areSame(options.exportFile, options.archive))
        fail("cannot export the sources to the archive that is watched");
    return true;
}
