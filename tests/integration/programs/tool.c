// SPDX-License-Identifier: MIT
//
// Does what the environment variable SCRIPT says, then what standard input says: one command per
// line, in SCRIPT also separated by ';'.
#define _GNU_SOURCE
#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

enum { output_lost = 90, input_lost = 91, bad_command = 92, call_failed = 93 };

static int arguments;
static char** argument;

static void emit(const char* data, size_t size) {
    while (size > 0) {
        const ssize_t done = write(1, data, size);
        if (done == -1)
            _exit(output_lost);
        data += done;
        size -= (size_t)done;
    }
}

static void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void say(const char* format, ...) {
    char text[5000];
    va_list values;
    va_start(values, format);
    const int size = vsnprintf(text, sizeof text, format, values);
    va_end(values);
    emit(text, (size_t)size);
}

static void check(int result) {
    if (result == -1)
        _exit(call_failed);
}

static void do_say(const char* text) {
    say("%s\n", text);
}

// N bytes (0: without end) of numbered records of 16 bytes each.
static void do_flood(const char* size) {
    char block[256 * 16 + 1];
    unsigned long left = strtoul(size, NULL, 10), number = 0;
    const int endless = left == 0;
    while (endless || left > 0) {
        for (size_t i = 0; i < 256; ++i)
            snprintf(block + 16 * i, 17, "%015lu\n", number++);
        const size_t part = endless || left > sizeof block - 1 ? sizeof block - 1 : left;
        emit(block, part);
        left -= endless ? 0 : part;
    }
}

// N bytes in as many writes.
static void do_drip(const char* size) {
    for (unsigned long left = strtoul(size, NULL, 10); left > 0; --left)
        emit("x", 1);
}

// Sends N bytes (0: all) of the input back.
static void do_echo(const char* size) {
    char data[4096];
    unsigned long left = strtoul(size, NULL, 10);
    const int endless = left == 0;
    while (endless || left > 0) {
        const ssize_t got = read(0, data, endless || left > sizeof data ? sizeof data : left);
        if (got <= 0)
            _exit(input_lost);
        emit(data, (size_t)got);
        left -= endless ? 0 : (unsigned long)got;
    }
}

// Tells N bytes (0: all) of the input as two digits each.
static void do_hex(const char* size) {
    unsigned char byte;
    unsigned long left = strtoul(size, NULL, 10);
    do {
        if (read(0, &byte, 1) != 1)
            _exit(input_lost);
        say("%02x ", byte);
    } while (--left != 0);
    say("\n");
}

// Reads a line as programs do that edit it themselves, key by key and in UTF-8, and tells it.
static void do_edit(const char* prompt) {
    char line[200], key;
    size_t length = 0;
    say("%s", prompt);
    while (read(0, &key, 1) == 1 && key != '\r') {
        if (key == 3) { // Ctrl-C
            length = 0;
            say("^C\r\n%s", prompt);
        } else if (key == 127 && length > 0) { // Backspace
            while (--length > 0 && (line[length] & 0xc0) == 0x80)
                ;
            say("\b \b");
        } else if (key != 127 && length < sizeof line) {
            line[length++] = key;
            emit(&key, 1);
        }
    }
    say("\r\nread: %.*s\r\n", (int)length, line);
}

// Sends a control sequence to the client's terminal and tells its answer, without the escape.
static void do_query(const char* sequence) {
    char answer[100];
    size_t length = 0;
    emit(sequence, strlen(sequence));
    do {
        if (length == sizeof answer || read(0, &answer[length], 1) != 1)
            _exit(input_lost);
    } while (!isalpha((unsigned char)answer[length++]));
    say("\r\nanswer: %.*s\r\n", (int)length - 1, answer + 1);
}

static void do_exit(const char* status) {
    exit(atoi(status));
}

static void do_raise(const char* sig) {
    raise(atoi(sig));
}

static void do_ignore(const char* sig) {
    signal(atoi(sig), SIG_IGN);
}

static void do_sleep(const char* unused) {
    (void)unused;
    for (;;)
        pause();
}

static void do_pid(const char* unused) {
    (void)unused;
    say("%d\n", (int)getpid());
}

static void do_argv(const char* unused) {
    (void)unused;
    say("%d:", arguments);
    for (int i = 0; i < arguments; ++i)
        say(" %s", argument[i]);
    say("\n");
}

static void do_env(const char* name) {
    const char* value = getenv(name);
    say("%s\n", value ? value : "(unset)");
}

static void say_link(const char* path) {
    char target[4096];
    const ssize_t size = readlink(path, target, sizeof target);
    say("%.*s\n", size < 0 ? 0 : (int)size, target);
}

static void do_link(const char* path) {
    say_link(path);
}

static void do_fds(const char* unused) {
    (void)unused;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        _exit(call_failed);
    const struct dirent* entry;
    while ((entry = readdir(dir))) {
        char path[300];
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == dirfd(dir))
            continue;
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
        say("%d ", fd);
        say_link(path);
    }
    closedir(dir);
    say("end\n");
}

static void do_cat(const char* path) {
    char data[4096];
    const int fd = open(path, O_RDONLY);
    check(fd);
    ssize_t got;
    while ((got = read(fd, data, sizeof data)) > 0)
        emit(data, (size_t)got);
    close(fd);
    say("end\n");
}

static void do_tty(const char* unused) {
    (void)unused;
    struct winsize size;
    struct termios tios;
    check(ioctl(0, TIOCGWINSZ, &size));
    check(tcgetattr(0, &tios));
    const int raw = (tios.c_lflag & (ECHO | ECHONL | ICANON | ISIG | IEXTEN)) == 0 &&
                    (tios.c_oflag & OPOST) == 0 &&
                    (tios.c_iflag & (ICRNL | INLCR | IGNCR | IXON | ISTRIP | PARMRK | BRKINT)) == 0;
    say("%dx%d %s\n", size.ws_col, size.ws_row, raw ? "raw" : "cooked");
}

// The terminal becomes the controlling one of a session of its own.
static void do_ctty(const char* unused) {
    (void)unused;
    check(setsid());
    check(ioctl(0, TIOCSCTTY, 0));
}

// A process that took the terminal as its controlling one ends, which hangs the terminal up.
static void do_hangup(const char* unused) {
    (void)unused;
    const pid_t pid = fork();
    check(pid);
    if (pid == 0) {
        do_ctty("");
        _exit(0);
    }
    check(waitpid(pid, NULL, 0));
}

static void do_close(const char* unused) {
    (void)unused;
    for (int fd = 0; fd <= 2; ++fd)
        close(fd);
}

static void do_touch(const char* path) {
    const int fd = open(path, O_WRONLY | O_CREAT, 0666);
    check(fd);
    close(fd);
}

// Waits until somebody has opened the FIFO for writing and closed it again.
static void do_gate(const char* path) {
    char byte;
    const int fd = open(path, O_RDONLY);
    check(fd);
    while (read(fd, &byte, 1) > 0)
        ;
    close(fd);
}

// Leaves a process behind that writes for as long as it can.
static void do_orphan(const char* unused) {
    (void)unused;
    const pid_t pid = fork();
    check(pid);
    if (pid == 0) {
        signal(SIGHUP, SIG_IGN);
        for (;;) {
            emit("x", 1);
            usleep(500);
        }
    }
    say("orphan %d\n", (int)pid);
}

static const struct {
    const char* name;
    void (*run)(const char*);
} commands[] = {
    {"argv", do_argv},     {"cat", do_cat},     {"close", do_close},   {"ctty", do_ctty},
    {"drip", do_drip},     {"echo", do_echo},   {"edit", do_edit},     {"env", do_env},
    {"exit", do_exit},     {"fds", do_fds},     {"flood", do_flood},   {"gate", do_gate},
    {"hangup", do_hangup}, {"hex", do_hex},     {"ignore", do_ignore}, {"link", do_link},
    {"orphan", do_orphan}, {"pid", do_pid},     {"query", do_query},   {"raise", do_raise},
    {"say", do_say},       {"sleep", do_sleep}, {"touch", do_touch},   {"tty", do_tty},
};

static void obey(char* line) {
    char* rest = line + strcspn(line, " ");
    if (*rest != '\0')
        *rest++ = '\0';
    for (size_t i = 0; i < sizeof commands / sizeof commands[0]; ++i) {
        if (strcmp(line, commands[i].name) == 0) {
            commands[i].run(rest);
            return;
        }
    }
    if (*line == '\0')
        return;
    say("unknown command '%s'\n", line);
    exit(bad_command);
}

static void read_command(char* line, size_t size) {
    size_t length = 0;
    char c;
    while (read(0, &c, 1) == 1) {
        if (c == '\n') {
            line[length] = '\0';
            return;
        }
        if (length < size - 1)
            line[length++] = c;
    }
    _exit(input_lost);
}

int main(int argc, char** argv) {
    arguments = argc;
    argument = argv;
    char* script = getenv("SCRIPT");
    for (char* line = script ? strtok(strdup(script), ";") : NULL; line;) {
        char* next = strtok(NULL, ";");
        obey(line);
        line = next;
    }
    for (;;) {
        char line[5000];
        read_command(line, sizeof line);
        obey(line);
    }
}
