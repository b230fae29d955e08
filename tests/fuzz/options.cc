// SPDX-License-Identifier: MIT
// The host's command line, made of the input's strings.
#include "require.h"

#include <host/Options>
#include <libqvio/IOException>
#include <libqvutil/QVException>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <getopt.h>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char directory[] = "/current directory";
bool directoryIsGone;

/** What a command line means, found out in another way than the product's. */
struct Meaning {
    Options options;
    std::string printed; // the beginning of it; empty: nothing
    bool wrong = false;  // or the directory is gone

    explicit Meaning(std::vector<char*> argv);

private:
    static bool isNumber(const std::string& text, uintmax_t most, uintmax_t& number);
    bool setPath(const std::string& path, std::string& absolute);
    bool set(int letter, const std::string& value);
    bool setBuffer(std::string value);
    bool setSize(const std::string& value);
    bool setFrom(std::vector<char*>& argv);
    bool isArchive(const std::string& path) const;
};

/** Digits only, with a value up to most. */
bool Meaning::isNumber(const std::string& text, uintmax_t most, uintmax_t& number) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    number = 0;
    for (char digit : text) {
        const auto value = static_cast<uintmax_t>(digit - '0');
        if (value > most || number > (most - value) / 10)
            return false;
        number = number * 10 + value;
    }
    return true;
}

bool Meaning::setPath(const std::string& path, std::string& absolute) {
    if (path.empty() || (path[0] != '/' && directoryIsGone))
        return false;
    absolute = path[0] == '/' ? path : std::string(directory) + '/' + path;
    return true;
}

bool Meaning::setBuffer(std::string value) {
    const char suffix = value.empty() ? ' ' : value.back();
    const uintmax_t unit = suffix == 'K' ? 1 << 10 : suffix == 'M' ? 1 << 20 : 1;
    if (unit != 1)
        value.pop_back();
    uintmax_t number;
    if (!isNumber(value, SIZE_MAX / unit, number))
        return false;
    options.maxbufsize = number * unit;
    return true;
}

bool Meaning::setSize(const std::string& value) {
    const size_t x = value.find('x');
    uintmax_t columns, rows;
    if (x == std::string::npos || !isNumber(value.substr(0, x), 65535, columns) ||
        !isNumber(value.substr(x + 1), 65535, rows) || columns == 0 || rows == 0)
        return false;
    options.columns = static_cast<unsigned short>(columns);
    options.rows = static_cast<unsigned short>(rows);
    return true;
}

/** @return false for a wrong value */
bool Meaning::set(int letter, const std::string& value) {
    uintmax_t number;
    switch (letter) {
    case 'w':
        return setPath(value, options.workdir);
    case 'p':
        if (!isNumber(value, 65535, number))
            return false;
        options.port = static_cast<in_port_t>(number);
        return true;
    case 'b':
        return setBuffer(value);
    case 'l':
        return setPath(value, options.logfile);
    case 's':
        return setSize(value);
    case 'e': {
        if (!setPath(value, options.exportFile))
            return false;
        std::string& file = options.exportFile;
        const char* const name = strrchr(file.c_str(), '/') + 1;
        if (!strchr(name, '.'))
            file += ".zip";
        return true;
    }
    case 'f':
        options.force = true;
        return true;
    case 'W':
        options.watch = true;
        return true;
    case 'd':
        if (!isNumber(value, 3, number))
            return false;
        options.debug = static_cast<unsigned int>(number);
        return true;
    }
    return false;
}

bool Meaning::isArchive(const std::string& path) const {
    std::error_code none;
    return path == options.archive || std::filesystem::equivalent(path, options.archive, none);
}

/** @return false when it is wrong */
bool Meaning::setFrom(std::vector<char*>& argv) {
    static const option names[] = {
        {"workdir", 1, nullptr, 'w'},  {"port", 1, nullptr, 'p'},    {"buffer", 1, nullptr, 'b'},
        {"log-file", 1, nullptr, 'l'}, {"size", 1, nullptr, 's'},    {"export", 1, nullptr, 'e'},
        {"force", 0, nullptr, 'f'},    {"watch", 0, nullptr, 'W'},   {"debug", 1, nullptr, 'd'},
        {"help", 0, nullptr, 'h'},     {"version", 0, nullptr, 'V'}, {nullptr, 0, nullptr, 0}};
    const int argc = static_cast<int>(argv.size()) - 1;
    optind = 0; // makes the C library start anew
    int letter;
    while ((letter = getopt_long(argc, argv.data(), "b:d:e:fhl:p:s:VWw:", names, nullptr)) != -1) {
        if (letter == 'h' || letter == 'V') {
            printed = letter == 'h' ? "Usage: vkahost " : "vkahost " VKA_VERSION "\n";
            return true;
        }
        if (!set(letter, optarg ? optarg : ""))
            return false;
    }
    return argc - optind == 1 && setPath(argv[static_cast<size_t>(optind)], options.archive) &&
           (!options.workdir.empty() || setPath("vka-work", options.workdir)) &&
           !isArchive(options.logfile) && !(options.watch && isArchive(options.exportFile));
}

Meaning::Meaning(std::vector<char*> argv) {
    wrong = !setFrom(argv);
}

/** Takes std::cout as long as it lives. */
class Capture {
public:
    Capture() : usual(std::cout.rdbuf(text.rdbuf())) {}
    ~Capture() { std::cout.rdbuf(usual); }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;
    std::string str() const { return text.str(); }

private:
    std::ostringstream text;
    std::streambuf* const usual;
};

} // namespace

extern "C" {
char* __wrap_getcwd(char* buf, size_t size);
char* __wrap_getcwd(char* buf, size_t size) {
    REQUIRE(!buf && size == 0);
    errno = ENOENT;
    return directoryIsGone ? nullptr : strdup(directory);
}

[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
}

namespace {
bool parsing;
}

void __wrap_exit(int status) {
    REQUIRE(!parsing);
    __real_exit(status);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    opterr = 0; // or it writes to standard error, millions of times
    if (size == 0)
        return 0;
    directoryIsGone = data[0] == 1;
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<char*> argv;
    // The first one stands for the program's name.
    for (size_t start = 0; start != std::string::npos && start <= text.size();) {
        argv.push_back(&text[start]);
        start = text.find('\0', start);
        start += start != std::string::npos ? 1 : 0;
    }
    argv.push_back(nullptr);
    const Meaning meaning(argv);

    Options options;
    bool wrong = false, goesOn = false;
    Capture capture;
    optind = 0;
    parsing = true;
    try {
        goesOn = parseOptions(static_cast<int>(argv.size()) - 1, argv.data(), options);
    } catch (const QVException& failure) {
        wrong = true;
        REQUIRE(strstr(failure.what(), "\nTry 'vkahost --help'."));
    } catch (const IOException& failure) {
        wrong = true;
        REQUIRE(directoryIsGone && failure.getError() == ENOENT);
    }
    parsing = false;

    const std::string printed = capture.str();
    REQUIRE(wrong == meaning.wrong);
    REQUIRE(goesOn == (!wrong && meaning.printed.empty()));
    REQUIRE(printed.empty() == meaning.printed.empty());
    REQUIRE(printed.compare(0, meaning.printed.size(), meaning.printed) == 0);
    if (!goesOn)
        return 0;
    const Options& expected = meaning.options;
    REQUIRE(options.archive == expected.archive && options.workdir == expected.workdir);
    REQUIRE(options.logfile == expected.logfile && options.exportFile == expected.exportFile);
    REQUIRE(options.port == expected.port && options.maxbufsize == expected.maxbufsize);
    REQUIRE(options.columns == expected.columns && options.rows == expected.rows);
    REQUIRE(options.debug == expected.debug && options.force == expected.force);
    REQUIRE(options.watch == expected.watch);
    return 0;
}
